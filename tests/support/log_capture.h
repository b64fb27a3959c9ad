// Takes the place of syslog(3) in the whole test program and keeps what is logged.
#ifndef TESTS_LOG_CAPTURE_H
#define TESTS_LOG_CAPTURE_H

#include <string>
#include <vector>

namespace log_capture
{

// Forgets the lines kept so far; from now on they are kept as "<priority> text", or not.
void record(bool on = true);
void send_to(int socket); // in place of being kept, each is then a datagram, as the system's log gets it
std::vector<std::string> lines();
bool contains(const std::string &text); // in a line, with its priority

} // namespace log_capture

#endif
