// What stands in for the C library's syslog. Its header, whose inline functions would be in the way, is not included.

#include <cstdarg>

#include "take_log.h"

extern "C" {

void syslog(int priority, const char *format, ...);
void __syslog_chk(int priority, int flag, const char *format,
                  ...); // called by what is built with fortification

void syslog(int priority, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    take_log(priority, format, arguments);
    va_end(arguments);
}

void __syslog_chk(int priority, int, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    take_log(priority, format, arguments);
    va_end(arguments);
}
}
