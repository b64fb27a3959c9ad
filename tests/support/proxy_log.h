// Takes the place of syslog(3) in the test program and keeps what is logged.
#ifndef TESTS_PROXY_LOG_H
#define TESTS_PROXY_LOG_H

#include <string>
#include <vector>

namespace proxy_log
{

// Forgets the lines kept so far; from now on they are kept as "<priority> text", or not.
void record(bool on = true);
std::vector<std::string> lines();
bool contains(const std::string &line);

} // namespace proxy_log

#endif
