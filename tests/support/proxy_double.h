// A proxy manager client for tests of the transport alone: it answers what the test says.
#ifndef TESTS_PROXY_DOUBLE_H
#define TESTS_PROXY_DOUBLE_H

#include "proxymanager.h"

#include <optional>
#include <vector>

namespace proxy_double
{

struct Answer {
    ProxyMode mode = PROXY_MODE_OFF;
    std::vector<const char *> entries = {};
    const char *user = nullptr, *password = nullptr;
};

// What get_proxy_url answers; without it no client can be made.
inline std::optional<Answer> answer = Answer{};

} // namespace proxy_double

#endif
