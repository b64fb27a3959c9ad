// Takes the place of syslog(3) in the whole test program and keeps what is logged.
#ifndef TESTS_LOG_CAPTURE_H
#define TESTS_LOG_CAPTURE_H

#include <string>

namespace log_capture
{

// Forgets the lines kept so far; from now on they are kept as "<priority> text", or not.
// With a descriptor they are written there instead, but for very long ones, as to the reader of the system's log.
void record(bool on = true, int to = -1);
bool contains(const std::string &text); // in a line, with its priority
std::string log_of(int priority);       // the kept lines of a priority, without it, joined by newlines

} // namespace log_capture

#endif
