// Takes the place of syslog(3) in the test program and keeps what is logged.
#ifndef TESTS_PROXY_LOG_H
#define TESTS_PROXY_LOG_H

#include <string>
#include <vector>

namespace proxy_log
{

// From now on lines are kept as "<priority> text"; those kept so far are forgotten.
void record();
void ignore();
std::vector<std::string> lines();
bool contains(const std::string &line);

} // namespace proxy_log

#endif
