// What the tests of the running client share: a bus, a client that is cleaned up, and the events it tells.
#ifndef TESTS_PROXY_FIXTURE_H
#define TESTS_PROXY_FIXTURE_H

#include "bus.h"
#include "log_capture.h"
#include "proxymanager.h"

#include <chrono>
#include <memory>
#include <thread>
#include <utility>

#include <dbus-c++/dbus.h>
#include <gtest/gtest.h>

extern DBus::Connection *dbus_conn; // what C++ programs find in the library

namespace test
{

constexpr const char *USUAL_ANSWER = "2 PROXY p1:80, DIRECT"; // of the scripted service, as toText has it

// Collects the events told to its callback.
class Events
{
public:
    static void callback(ProxyMgrEventType type)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        told.push_back(type);
        changed.notify_all();
    }
    // Waits for count events, and takes all there are.
    static std::vector<int> take(size_t count)
    {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait_for(lock, std::chrono::seconds(10), [&] { return told.size() >= count; });
        return std::exchange(told, {});
    }

private:
    static inline std::mutex mutex;
    static inline std::condition_variable changed;
    static inline std::vector<int> told;
};

struct ProxyTest : testing::Test {
    ProxyTest() { log_capture::record(); }
    ~ProxyTest() override { cleanup_proxy_manager_client(), Events::take(0); }

    PrivateBus bus;
};

struct RunningClient : ProxyTest {
    RunningClient() { EXPECT_EQ(create_proxy_manager_client(), 1); }
    // Sends a signal, and waits until the client has handled all that the service has sent so far.
    void emit(const std::string &member, const std::string &arguments = "()")
    {
        service->emit(member, arguments);
        service->answer("checkServicestarted", "(true,)");
        EXPECT_TRUE(check_service_started());
    }

    std::unique_ptr<ScriptedService> service = std::make_unique<ScriptedService>();
};

// Mode and entries of an answer, then user and password if there are any.
inline std::string toText(const ProxyUrlInformation &info)
{
    const auto orNull = [](const char *text) { return std::string(text ? text : "NULL"); };
    std::string text = std::to_string(info.mode);
    for (int i = 0; i < info.proxyUrlCount; i++)
        text += (i == 0 ? " " : ", ") + orNull(info.proxyUrlList[i]);
    return info.userName || info.password ? text + " " + orNull(info.userName) + "/" + orNull(info.password)
                                          : text;
}

inline std::string configText()
{
    ProxyManagerConfig config = get_http_proxy_config();
    std::string text = std::to_string(config.mode) + (config.optionFlag ? " y" : " n");
    for (const char *field : {config.proxyUrl, config.pacUrl, config.userName, config.password})
        text += std::string(" ") + (field ? field : "NULL");
    cleanupProxyConfig(&config);
    return text;
}

} // namespace test

#endif
