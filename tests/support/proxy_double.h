// A proxy manager client for tests of the transport alone: it answers what the test says.
#ifndef TESTS_PROXY_DOUBLE_H
#define TESTS_PROXY_DOUBLE_H

#include "proxymanager.h"

#include <optional>
#include <string>
#include <vector>

namespace proxy_double
{

using Text = std::optional<std::string>; // none: NULL

struct Answer {
    ProxyMode mode = PROXY_MODE_OFF;
    std::vector<Text> entries;
    Text user, password;
};

// What get_proxy_url answers from now on; without an answer no client can be made. At first: mode off.
void set(std::optional<Answer> answer);

} // namespace proxy_double

#endif
