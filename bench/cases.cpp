// The benchmark program: what the library costs in time, against the bare libraries in the same run. With the argument
// "figures" what it takes besides.

#include "atls_internals.h"
#include "bus.h"
#include "composition.h"
#include "connection.h"
#include "log_capture.h"
#include "proxymanager.h"

#include <atomic>
#include <cstring>
#include <functional>
#include <iostream>
#include <list>
#include <map>
#include <mutex>
#include <thread>

#include <benchmark/benchmark.h>
#include <dbus/dbus.h>
#include <sys/socket.h>
#include <syslog.h>

namespace bench
{

namespace
{

// ---- The loop

using Step = std::function<void()>; // what is measured

// How a case is run.
struct Way {
    double seconds = 0.05; // at least
    bool logging = false;  // whether log lines are written
    int steps = 0;         // so many, each prepared anew; 0: one again and again
    int threads = 0;       // over the bus, on so many
};

// Adds GROUP/CASE/WHO, where WHO is "library" or what it is measured against.
void add(const std::string &name, const std::function<Step()> &prepare, Way way = {})
{
    auto *added = benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State &state) {
        std::vector<Step> steps(static_cast<size_t>(std::max(way.steps, 1)));
        std::generate(steps.begin(), steps.end(), prepare);
        log_capture::record(way.logging);
        auto step = steps.begin();
        for (auto each : state) {
            (void)each;
            (*step)();
            if (++step == steps.end())
                step = steps.begin();
        }
        log_capture::record(false);
    });
    way.steps ? added->Iterations(way.steps) : added->MinTime(way.seconds);
    if (way.threads)
        added->Threads(way.threads)->UseRealTime()->MeasureProcessCPUTime();
}

// ---- Exchanges and connections

template <typename Client>
void add_exchange(const std::string &name, int port, size_t size, bool logging)
{
    add(name,
        [=] {
            const auto client = std::make_shared<Client>(port);
            const std::string message(size, 'm');
            client->exchange(message);
            return [=] { client->exchange(message); };
        },
        {0.05, logging});
}

void add_exchanges(const Peers &peers, const std::string &label, size_t size)
{
    for (const bool old : {true, false}) {
        for (const bool logging : {false, true}) {
            const std::string name =
                "exchange/" + label + (old ? " TLS 1.2" : " TLS 1.3") + (logging ? " log on" : " log masked");
            const int port = old ? peers.tls12 : peers.tls13;
            add_exchange<Connection>(name + "/library", port, size, logging);
            add_exchange<Composition>(name + "/composition", port, size, logging);
            if (!logging)
                add_exchange<BarePost>(name + "/bare POST", peers.echo, size, false);
        }
    }
}

void add_connections(const std::string &name, int port)
{
    static const auto ready = make_context();
    add(name + "/library", [=] { return [=] { const Connection connection(port); }; }, {0.1});
    add(name + "/composition", [=] { return [=] { const Composition connection(port); }; }, {0.1});
    add(name + "/ready context", [=] { return [=] { const Composition connection(port, ready.get()); }; },
        {0.1});
}

// ---- Large answers: decrypting them, and collecting them from many small deliveries

constexpr size_t DELIVERY = 1000;
char delivery[DELIVERY];

void decrypt_by_library(Composition &client)
{
    char *text = nullptr;
    int length = 0;
    require(atls_decrypt_buffer(client.ssl.get(), SSL_get_rbio(client.ssl.get()), client.body.data.get(),
                                static_cast<int>(client.body.size), &text, &length) == 0,
            "atls_decrypt_buffer");
    free(text);
}

void decrypt_plainly(Composition &client)
{
    client.decrypt();
    client.answer.reset();
}

void capture_by_library(size_t size)
{
    curl_resp body = {};
    for (size_t taken = 0; taken < size; taken += DELIVERY)
        require(write_memory_cb(delivery, 1, DELIVERY, &body) == DELIVERY, "write_memory_cb");
    cleanup_curl_resp(&body);
}

void capture_plainly(size_t size)
{
    const Owned<char, free> block(static_cast<char *>(malloc(size + DELIVERY)));
    for (size_t taken = 0; taken < size; taken += DELIVERY) {
        memcpy(block.get() + taken, delivery, DELIVERY);
        benchmark::ClobberMemory();
    }
}

void add_large_answers(int port, size_t mebibytes)
{
    const std::string size = std::to_string(mebibytes) + " MiB", pieces = size + " in pieces of 1 KB";
    const size_t bytes = (mebibytes << 20) - 1; // the last record of an answer is not a full one
    const auto with = [=](void (*decrypt)(Composition &)) {
        return [=]() -> Step {
            const auto client = std::make_shared<Composition>(port);
            client->send("bytes wanted: " + std::to_string(bytes));
            return [=] { decrypt(*client); };
        };
    };
    const Way way{0, false, mebibytes > 4 ? 1 : 8};
    add("decrypt/" + size + "/library", with(decrypt_by_library), way);
    add("decrypt/" + size + "/plain loop", with(decrypt_plainly), way);
    add("capture/" + pieces + "/library", [=] { return [=] { capture_by_library(bytes); }; }, {0.02});
    add("capture/" + pieces + "/one block", [=] { return [=] { capture_plainly(bytes); }; }, {0.02});
}

// ---- Answers of the proxy manager: from the cache, and from the service

constexpr int HOSTS = 50; // as many as the cache holds

std::string url_of(int host)
{
    return "http://host" + std::to_string(host) + ".example/path";
}

std::string key_of(const std::string &url)
{
    const char *const host = strstr(url.c_str(), "://") + 3;
    const Owned<char, free> copy(strndup(host, strcspn(host, ":/"))); // getHost hands out a block of the heap
    return copy.get();
}

// The least that a hit takes: the host, two locks, two maps, a move in a list, and the log lines.
struct LeastCache {
    LeastCache()
    {
        for (int i = 0; i < HOSTS; i++) {
            order.push_front(key_of(url_of(i)));
            nodes[order.front()] = order.begin();
            values[order.front()] = {PROXY_MODE_PACURL, entries, nullptr, nullptr, 2};
        }
    }

    ProxyUrlInformation look_up(const char *url)
    {
        {
            const std::lock_guard<std::mutex> lock(config_mutex);
            syslog(LOG_NOTICE, "%s%s request url:%s, proxy mode:%d", "", "look_up", url, 2);
        }
        const std::string key = key_of(url);
        const std::lock_guard<std::mutex> lock(cache_mutex);
        const auto node = nodes.find(key);
        syslog(LOG_INFO, "%s%s key:%s", "", "remove", key.c_str());
        order.splice(order.begin(), order, node->second);
        syslog(LOG_INFO, "%s%s key:%s", "", "set_head", key.c_str());
        const ProxyUrlInformation answer = values.find(key)->second;
        syslog(LOG_NOTICE, "%s%s request url:%s, mode:%d, userName:%s", "", "look_up", url, answer.mode, "");
        for (int i = 0; i < answer.proxyUrlCount; i++)
            syslog(LOG_NOTICE, "%s%s index:%d proxy url:%s", "", "look_up", i, answer.proxyUrlList[i]);
        return answer;
    }

    std::mutex config_mutex, cache_mutex;
    std::list<std::string> order;
    std::map<std::string, std::list<std::string>::iterator> nodes;
    std::map<std::string, ProxyUrlInformation> values;
    char proxy[12] = "PROXY p1:80", direct[7] = "DIRECT";
    char *entries[2] = {proxy, direct};
};

// The same call with libdbus alone, on a connection that the threads share.
void call_plainly(const std::string &url)
{
    static DBusConnection *const connection = [] {
        dbus_threads_init_default();
        DBusConnection *opened = dbus_bus_get_private(DBUS_BUS_SYSTEM, nullptr);
        dbus_connection_set_exit_on_disconnect(opened, FALSE);
        return opened;
    }();
    using Message = Owned<DBusMessage, dbus_message_unref>;
    const Message call(dbus_message_new_method_call(test::SERVICE_NAME, test::SERVICE_PATH,
                                                    test::SERVICE_INTERFACE, "getProxyurl"));
    const char *text = url.c_str();
    dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
    const Message reply(dbus_connection_send_with_reply_and_block(connection, call.get(), 25000, nullptr));
    char **texts = nullptr;
    int count = 0;
    require(reply && dbus_message_get_args(reply.get(), nullptr, DBUS_TYPE_ARRAY, DBUS_TYPE_STRING, &texts,
                                           &count, DBUS_TYPE_INVALID),
            "raw call");
    dbus_free_string_array(texts);
}

void ask_library(const std::string &url)
{
    get_proxy_url(url.c_str());
}

template <typename LookUp>
void add_hit(const std::string &name, bool logging, LookUp look_up)
{
    const auto prepare = [=] {
        require(create_proxy_manager_client() == 1, "no proxy manager");
        std::vector<std::string> urls;
        for (int i = 0; i < HOSTS; i++)
            ask_library(urls.emplace_back(url_of(i)));
        return [=, next = size_t{0}]() mutable { look_up(urls[next++ % HOSTS]); };
    };
    add(name, prepare, {0.05, logging});
}

void add_miss(const std::string &name, int threads, void (*ask)(const std::string &))
{
    const auto prepare = [=] {
        require(create_proxy_manager_client() == 1, "no proxy manager");
        return [=] {
            static std::atomic<int> next{HOSTS};
            ask(url_of(next++));
        };
    };
    add(name, prepare, {0.1, false, 0, threads});
}

void add_proxy_answers()
{
    const auto cache = std::make_shared<LeastCache>();
    for (const bool logging : {false, true}) {
        const std::string name = std::string("cache hit/log ") + (logging ? "on" : "masked");
        add_hit(name + "/library", logging, ask_library);
        add_hit(name + "/least design", logging, [=](const auto &url) { cache->look_up(url.c_str()); });
    }
    add_hit("cache hit/log masked/bare map", false,
            [=](const auto &url) { benchmark::DoNotOptimize(cache->values.find(key_of(url))); });
    for (const int threads : {1, 4}) {
        const std::string name =
            "cache miss/" + std::to_string(threads) + (threads == 1 ? " thread" : " threads");
        add_miss(name + "/library", threads, ask_library);
        add_miss(name + "/raw libdbus", threads, call_plainly);
    }
}

void add_cases(const Peers &peers)
{
    add_exchanges(peers, "100 B", 100);
    add_exchanges(peers, "1 KB", 1000);
    add_exchanges(peers, "16 KB", 16000);
    add_exchanges(peers, "1 MB", 1000000);
    add_connections("connect/TLS 1.2", peers.tls12);
    add_connections("connect/TLS 1.3", peers.tls13);
    for (const size_t mebibytes : {1, 16, 64})
        add_large_answers(peers.tls13, mebibytes);
    add_proxy_answers();
}

// Somebody reads the log and forgets it.
void read_log()
{
    int ends[2];
    require(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) == 0, "socketpair");
    log_capture::send_to(ends[1]);
    std::thread([reader = ends[0]] {
        static char line[1 << 20];
        while (recv(reader, line, sizeof line, 0) > 0) {
        }
    }).detach();
}

} // namespace

} // namespace bench

int main(int count, char **arguments)
{
    try {
        const test::PrivateBus bus;
        const bench::Peers peers({"proxies"});
        bench::require(freopen("/dev/null", "w", stderr) != nullptr, "/dev/null"); // libcurl's trace
        if (count == 2 && strcmp(arguments[1], "figures") == 0) {
            bench::print_figures(peers);
            return 0;
        }
        bench::read_log();
        bench::add_cases(peers);
        benchmark::Initialize(&count, arguments);
        benchmark::RunSpecifiedBenchmarks();
    } catch (const std::exception &error) {
        std::cout << "atls-bench " << error.what() << std::endl;
        return 1;
    }
    return 0;
}
