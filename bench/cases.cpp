// The benchmark program: what the library costs in time, against the bare libraries in the same run. With the argument
// "figures" what it takes besides.

#include "atls_internals.h"
#include "bus.h"
#include "cli.h"
#include "clients.h"
#include "log_capture.h"
#include "proxymanager.h"

#include <atomic>
#include <functional>
#include <map>

#include <benchmark/benchmark.h>
#include <dbus/dbus.h>

int print_figures(const Peers &peers); // in figures.cpp

using Step = std::function<void()>; // what is measured
using Preparation = std::function<Step()>;

// How a case is run.
struct Way {
    double seconds;       // at least
    bool logging = false; // whether log lines are written
    int steps = 0;        // so many, each prepared anew; 0: one again and again
    int threads = 0;      // over the bus, on so many
};

// Adds GROUP/CASE/WHO, where WHO is "library" or what it is measured against.
static void add(const std::string &name, Way way, const Preparation &prepare)
{
    auto *added = benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State &state) {
        static FILE *const reader = popen("cat >/dev/null", "we"); // of the log NOLINT(cert-env33-c)
        Step step;
        log_capture::record(way.logging, fileno(reader));
        while (state.KeepRunning()) {
            if (!step || way.steps) {
                state.PauseTiming();
                step = nullptr; // the next may have its memory
                step = prepare();
                state.ResumeTiming();
            }
            step();
        }
        log_capture::record(false);
    });
    way.steps ? added->Iterations(way.steps) : added->MinTime(way.seconds);
    if (way.threads)
        added->Threads(way.threads)->UseRealTime()->MeasureProcessCPUTime();
}

template <typename Work>
static Preparation unprepared(Work work)
{
    return [=] { return work; };
}

template <typename Client>
static Preparation exchange(int port, size_t size)
{
    return [=] {
        const auto client = std::make_shared<Client>(port);
        const std::string message(size, 'm');
        client->exchange(message);
        return [=] { client->exchange(message); };
    };
}

static Preparation decryption(int port, size_t size, void (*decrypt)(Composition &))
{
    return [=] {
        const auto client = std::make_shared<Composition>(port);
        client->send("bytes wanted: " + std::to_string(size));
        return [=] { decrypt(*client); };
    };
}

static void decrypt_by_library(Composition &client)
{
    SSL *const ssl = client.ssl.get();
    char *text = nullptr;
    int size = static_cast<int>(client.body.size);
    const int code = atls_decrypt_buffer(ssl, SSL_get_rbio(ssl), client.body.text.get(), size, &text, &size);
    require(code == 0, "atls_decrypt_buffer");
    free(text);
}

// Collects a body of many small deliveries.
constexpr size_t DELIVERY = 1000;
static char delivery[DELIVERY];

static void capture_by_library(size_t size)
{
    curl_resp body = {};
    for (size_t taken = 0; taken < size; taken += DELIVERY)
        require(write_memory_cb(delivery, 1, DELIVERY, &body) == DELIVERY, "write_memory_cb");
    cleanup_curl_resp(&body);
}

static void capture_plainly(size_t size)
{
    const Owned<char, free> block(static_cast<char *>(malloc(size + DELIVERY)));
    for (size_t taken = 0; taken < size; taken += DELIVERY) {
        memcpy(block.get() + taken, delivery, DELIVERY);
        benchmark::ClobberMemory();
    }
}

constexpr int HOSTS = 50; // as many as the cache holds

static std::string url_of(int host)
{
    return "http://host" + std::to_string(host) + ".example/path";
}

static void ask_library(const std::string &url)
{
    get_proxy_url(url.c_str());
}

// The same call with libdbus alone, on a connection that the threads share.
static void ask_plainly(const std::string &url)
{
    using Message = Owned<DBusMessage, dbus_message_unref>;
    static DBusConnection *const connection = dbus_bus_get_private(DBUS_BUS_SYSTEM, nullptr);
    const Message call(dbus_message_new_method_call(test::SERVICE_NAME, test::SERVICE_PATH,
                                                    test::SERVICE_INTERFACE, "getProxyurl"));
    const char *text = url.c_str();
    dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
    const Message reply(dbus_connection_send_with_reply_and_block(connection, call.get(), 25000, nullptr));
    char **texts = nullptr;
    int count = 0;
    require(reply != nullptr, "raw call");
    dbus_message_get_args(reply.get(), nullptr, DBUS_TYPE_ARRAY, DBUS_TYPE_STRING, &texts, &count,
                          DBUS_TYPE_INVALID);
    require(count > 0, "the answer to a raw call");
    dbus_free_string_array(texts);
}

// Cuts the host out of a URL and finds it in a map.
static void look_up_plainly(const std::string &url)
{
    static std::map<std::string, ProxyUrlInformation> answers;
    const char *const host = strstr(url.c_str(), "://") + 3;
    benchmark::DoNotOptimize(&answers[std::string(host, strcspn(host, ":/"))]);
}

// Looks up what the cache holds.
template <typename LookUp>
static Preparation hit(LookUp look_up)
{
    return [=] {
        std::vector<std::string> urls;
        for (int i = 0; i < HOSTS; i++)
            ask_library(urls.emplace_back(url_of(i)));
        return [=, next = size_t{0}]() mutable { look_up(urls[next++ % HOSTS]); };
    };
}

static void add_cases(const Peers &peers)
{
    const std::pair<std::string, int> versions[] = {{"TLS 1.2", peers.tls12}, {"TLS 1.3", peers.tls13}};
    for (const auto &[size, bytes] :
         {std::pair("100 B ", 100UL), {"1 KB ", 1000}, {"16 KB ", 16000}, {"1 MB ", 1000000}})
        for (const auto &[version, port] : versions)
            for (const bool logging : {false, true}) {
                const std::string name =
                    "exchange/" + (size + version) + (logging ? " log on" : " log masked");
                add(name + "/library", {0.05, logging}, exchange<Library>(port, bytes));
                add(name + "/composition", {0.05, logging}, exchange<Composition>(port, bytes));
                if (!logging)
                    add(name + "/bare POST", {0.05}, exchange<BarePost>(peers.echo, bytes));
            }
    for (const auto &version : versions) {
        const std::string name = "connect/" + version.first;
        const int port = version.second;
        add(name + "/library", {0.1}, unprepared([=] { const Library client(port); }));
        add(name + "/composition", {0.1}, unprepared([=] { const Composition client(port); }));
    }
    for (const size_t mebibytes : {1, 16, 64}) {
        const std::string size = std::to_string(mebibytes) + " MiB", pieces = size + " in pieces of 1 KB";
        const size_t bytes = (mebibytes << 20) - 1; // the last record of an answer is not a full one
        const Way way{0, false, mebibytes > 4 ? 1 : 8};
        add("decrypt/" + size + "/library", way, decryption(peers.tls13, bytes, decrypt_by_library));
        add("decrypt/" + size + "/plain loop", way, decryption(peers.tls13, bytes, [](Composition &client) {
                client.decrypt(), client.answer.reset();
            }));
        add("capture/" + pieces + "/library", {0.02}, unprepared([=] { capture_by_library(bytes); }));
        add("capture/" + pieces + "/one block", {0.02}, unprepared([=] { capture_plainly(bytes); }));
    }
    add("cache hit/log masked/library", {0.05}, hit(ask_library));
    add("cache hit/log masked/bare map", {0.05}, hit(look_up_plainly));
    static std::atomic<int> next{HOSTS};
    for (const int threads : {1, 4}) {
        const std::string name = threads == 1 ? "cache miss/1 thread" : "cache miss/4 threads";
        const Way way{0.1, false, 0, threads};
        add(name + "/library", way, unprepared([] { ask_library(url_of(next++)); }));
        add(name + "/raw libdbus", way, unprepared([] { ask_plainly(url_of(next++)); }));
    }
}

int main(int count, char **arguments)
{
    return cli::guarded("atls-bench", [&] {
        const test::PrivateBus bus;
        const Peers peers("proxies");
        require(create_proxy_manager_client() == 1, "no proxy manager");
        if (count == 2 && arguments[1] == std::string("figures"))
            return print_figures(peers);
        add_cases(peers);
        benchmark::Initialize(&count, arguments);
        benchmark::RunSpecifiedBenchmarks();
        return 0;
    });
}
