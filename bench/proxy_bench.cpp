// Answers of the proxy manager: from the cache, and from the service.

#include "bench.h"

#include "proxymanager.h"

#include <atomic>
#include <cstring>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>

#include <dbus/dbus.h>
#include <syslog.h>

namespace bench
{

namespace
{

constexpr int HOSTS = 50; // as many as the cache holds

std::string url_of(int host)
{
    return "http://host" + std::to_string(host) + ".example/path";
}

const std::vector<std::string> &cached_urls()
{
    static const std::vector<std::string> urls = [] {
        std::vector<std::string> all;
        for (int i = 0; i < HOSTS; i++)
            all.push_back(url_of(i));
        return all;
    }();
    return urls;
}

// The least that a hit takes: the host, two locks, two maps, a move in a list, and the log lines.
class LeastCache
{
public:
    LeastCache()
    {
        for (const std::string &url : cached_urls()) {
            order_.push_front(key_of(url.c_str()));
            nodes_[order_.front()] = order_.begin();
            values_[order_.front()] = {PROXY_MODE_PACURL, entries_, nullptr, nullptr, 2};
        }
    }

    ProxyUrlInformation look_up(const char *url)
    {
        {
            const std::lock_guard<std::mutex> lock(config_mutex_);
            syslog(LOG_NOTICE, "%s%s request url:%s, proxy mode:%d", "", "look_up", url, 2);
        }
        const std::string key = key_of(url);
        const std::lock_guard<std::mutex> lock(cache_mutex_);
        const auto node = nodes_.find(key);
        syslog(LOG_INFO, "%s%s key:%s", "", "remove", key.c_str());
        order_.splice(order_.begin(), order_, node->second);
        syslog(LOG_INFO, "%s%s key:%s", "", "set_head", key.c_str());
        const ProxyUrlInformation answer = values_.find(key)->second;
        syslog(LOG_NOTICE, "%s%s request url:%s, mode:%d, userName:%s", "", "look_up", url, answer.mode, "");
        for (int i = 0; i < answer.proxyUrlCount; i++)
            syslog(LOG_NOTICE, "%s%s index:%d proxy url:%s", "", "look_up", i, answer.proxyUrlList[i]);
        return answer;
    }

    static std::string key_of(const char *url)
    {
        const char *const host = strstr(url, "://") + 3;
        char *const copy = strndup(host, strcspn(host, ":/")); // getHost hands out a block of the heap
        std::string key = copy;
        free(copy);
        return key;
    }

private:
    std::mutex config_mutex_, cache_mutex_;
    std::list<std::string> order_;
    std::map<std::string, std::list<std::string>::iterator> nodes_;
    std::map<std::string, ProxyUrlInformation> values_;
    char proxy_[12] = "PROXY p1:80", direct_[7] = "DIRECT";
    char *entries_[2] = {proxy_, direct_};
};

void add_hit(const std::string &name, const std::function<void(const std::string &)> &look_up, bool logging)
{
    benchmark::RegisterBenchmark(name.c_str(), [=](auto &state) {
        set_logging(false);
        require(create_proxy_manager_client() == 1, "no proxy manager");
        for (const std::string &url : cached_urls())
            get_proxy_url(url.c_str());
        set_logging(logging);
        size_t next = 0;
        for (auto each : state)
            (void)each, look_up(cached_urls()[next++ % HOSTS]);
        set_logging(false);
    })->MinTime(0.05);
}

// The same call with libdbus alone, on a connection that the threads share.
void call_plainly(const std::string &url)
{
    static DBusConnection *const connection = [] {
        dbus_threads_init_default();
        DBusConnection *opened = dbus_bus_get_private(DBUS_BUS_SYSTEM, nullptr);
        dbus_connection_set_exit_on_disconnect(opened, FALSE);
        return opened;
    }();
    using Message = std::unique_ptr<DBusMessage, decltype(&dbus_message_unref)>;
    const Message call(dbus_message_new_method_call(test::SERVICE_NAME, test::SERVICE_PATH,
                                                    test::SERVICE_INTERFACE, "getProxyurl"),
                       dbus_message_unref);
    const char *text = url.c_str();
    dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
    const Message reply(dbus_connection_send_with_reply_and_block(connection, call.get(), 25000, nullptr),
                        dbus_message_unref);
    char **texts = nullptr;
    int count = 0;
    require(reply && dbus_message_get_args(reply.get(), nullptr, DBUS_TYPE_ARRAY, DBUS_TYPE_STRING, &texts,
                                           &count, DBUS_TYPE_INVALID),
            "raw call");
    dbus_free_string_array(texts);
}

void add_miss(const std::string &name, int threads, void (*ask)(const std::string &))
{
    benchmark::RegisterBenchmark(name.c_str(),
                                 [=](auto &state) {
                                     require(create_proxy_manager_client() == 1, "no proxy manager");
                                     static std::atomic<int> next{HOSTS};
                                     for (auto each : state)
                                         (void)each, ask(url_of(next++));
                                 })
        ->Threads(threads)
        ->UseRealTime()
        ->MeasureProcessCPUTime()
        ->MinTime(0.1);
}

} // namespace

void add_proxy_answers()
{
    for (const bool logging : {false, true}) {
        const std::string name = std::string("cache hit/log ") + (logging ? "on" : "masked");
        const auto cache = std::make_shared<LeastCache>();
        add_hit(
            name + "/library", [](const auto &url) { get_proxy_url(url.c_str()); }, logging);
        add_hit(
            name + "/least design", [cache](const auto &url) { cache->look_up(url.c_str()); }, logging);
    }
    const auto values = std::make_shared<std::map<std::string, ProxyUrlInformation>>();
    for (const std::string &url : cached_urls())
        values->emplace(LeastCache::key_of(url.c_str()), ProxyUrlInformation{});
    add_hit(
        "cache hit/log masked/bare map",
        [values](const auto &url) {
            benchmark::DoNotOptimize(values->find(LeastCache::key_of(url.c_str())));
        },
        false);
    for (const int threads : {1, 4}) {
        const std::string name =
            "cache miss/" + std::to_string(threads) + (threads == 1 ? " thread" : " threads");
        add_miss(name + "/library", threads, [](const auto &url) { get_proxy_url(url.c_str()); });
        add_miss(name + "/raw libdbus", threads, call_plainly);
    }
}

} // namespace bench
