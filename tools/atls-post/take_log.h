// The way of a line from the stand-in for syslog to the log's listener.
#ifndef TOOLS_ATLS_POST_TAKE_LOG_H
#define TOOLS_ATLS_POST_TAKE_LOG_H

#include <cstdarg>

void take_log(int priority, const char *format, va_list arguments);

#endif
