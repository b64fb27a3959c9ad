// What the tests of the running client share: a bus, a client that is cleaned up, and the events it tells.
#ifndef TESTS_PROXY_FIXTURE_H
#define TESTS_PROXY_FIXTURE_H

#include "proxy_bus.h"
#include "proxy_log.h"
#include "proxymanager.h"

#include <chrono>
#include <memory>

#include <gtest/gtest.h>

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
    // The first events, at least count of them unless the time is up; forgets them.
    static std::vector<int> take(size_t count, std::chrono::seconds limit = std::chrono::seconds(10))
    {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait_for(lock, limit, [&] { return told.size() >= count; });
        return std::exchange(told, {});
    }

private:
    static inline std::mutex mutex;
    static inline std::condition_variable changed;
    static inline std::vector<int> told;
};

class ProxyTest : public testing::Test
{
protected:
    ProxyTest() { proxy_log::record(); }
    ~ProxyTest() override
    {
        cleanup_proxy_manager_client();
        Events::take(0);
    }

    // Waits until the client has handled all that the peer has sent so far.
    static void settle(BusPeer &service)
    {
        set_proxy_manager_event_cb(77, Events::callback);
        service.emit("ProxyMgrStateEvent", {int32_t{77}});
        const auto last = Events::take(1);
        EXPECT_FALSE(last.empty());
    }

    PrivateBus bus;
};

// mode and entries of an answer, as in "2 PROXY p1:80, DIRECT".
inline std::string toText(const ProxyUrlInformation &info)
{
    std::string text = std::to_string(info.mode);
    for (int i = 0; i < info.proxyUrlCount; i++)
        text += (i == 0 ? " " : ", ") + std::string(info.proxyUrlList[i] ? info.proxyUrlList[i] : "NULL");
    if (info.userName || info.password)
        text += std::string(" ") + (info.userName ? info.userName : "NULL") + "/" +
                (info.password ? info.password : "NULL");
    return text;
}

inline std::string toText(ProxyManagerConfig config)
{
    std::string text = std::to_string(config.mode) + (config.optionFlag ? " y" : " n");
    for (const char *field : {config.proxyUrl, config.pacUrl, config.userName, config.password})
        text += std::string(" ") + (field ? field : "NULL");
    cleanupProxyConfig(&config);
    return text;
}

#endif
