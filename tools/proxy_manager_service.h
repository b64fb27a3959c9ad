// The stand-in proxy manager service on a D-Bus bus: modes off, manual, PAC and WPAD, with the methods and
// signals that data/com.halvo.ProxyManagerServiceInterface.xml describes.
#ifndef TOOLS_PROXY_MANAGER_SERVICE_H
#define TOOLS_PROXY_MANAGER_SERVICE_H

#include "proxy_config.h"

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace proxy_manager_service
{

constexpr char BUS_NAME[] = "com.halvo.ProxyManagerService";
constexpr char OBJECT_PATH[] = "/com/halvo/ProxyManagerService";
constexpr char INTERFACE[] = "com.halvo.ProxyManagerServiceInterface";
// For testers; not part of the service's interface.
constexpr char DEBUG_INTERFACE[] = "com.halvo.ProxyManagerServiceDebug";

// The values that the service itself sends as "ProxyMgrStateEvent".
constexpr int STATE_STOPPED = 0;
constexpr int STATE_STARTED = 1;

struct Options {
    std::string bus_address; // empty: the system bus
    Config config;           // used when the state file does not exist yet
    std::string state_file;  // empty: the configuration is lost at the end
    std::string wpad_script; // URL or path of the PAC script of the mode wpad; empty: every answer is DIRECT
    std::chrono::milliseconds script_limit =
        std::chrono::seconds(10); // a script that takes longer has failed
    std::function<void(const std::string &line)> log;
    std::function<void()> on_lost; // called once, on the service's thread, when the bus has gone
};

class ProxyManagerService
{
public:
    // The service is on the bus when it returns. Throws StateError, std::invalid_argument for a configuration
    // that check() refuses, and std::runtime_error when there is no bus or the name has an owner.
    explicit ProxyManagerService(Options options);
    // Sends the state event "stopped" and leaves the bus.
    ~ProxyManagerService();
    ProxyManagerService(const ProxyManagerService &) = delete;
    ProxyManagerService &operator=(const ProxyManagerService &) = delete;

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace proxy_manager_service

#endif
