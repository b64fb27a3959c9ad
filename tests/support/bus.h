// A private message bus.
#ifndef TESTS_BUS_H
#define TESTS_BUS_H

#include "program.h"

#include <memory>

namespace test
{

constexpr const char *SERVICE_NAME = "com.halvo.ProxyManagerService";
constexpr const char *SERVICE_PATH = "/com/halvo/ProxyManagerService";
constexpr const char *SERVICE_INTERFACE = "com.halvo.ProxyManagerServiceInterface";

// A dbus-daemon on a socket that is the same for the whole life of the process, since libdbus reads its
// address once. DBUS_SYSTEM_BUS_ADDRESS names it, for the programs that are started as well.
struct PrivateBus {
    // Everything is allowed; rules are added to the configuration of the bus.
    explicit PrivateBus(const std::string &rules = "") { start(rules); }
    void start(const std::string &rules = "");
    void kill() { daemon->end(SIGKILL); }

    std::unique_ptr<Program> daemon;
};

// The stand-in proxy manager, which is on the bus when it is returned.
std::unique_ptr<Program> start_manager(std::vector<std::string> options = {});

} // namespace test

#endif
