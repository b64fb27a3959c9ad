// What the library takes in memory and allocations, and how it holds out in a storm of signals.

#include "allocation.h"
#include "bus_peer.h"
#include "composition.h"
#include "connection.h"
#include "proxymanager.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <thread>

#include <pthread.h>
#include <sys/resource.h>

namespace
{

std::atomic<size_t> allocations{0}; // with new, malloc, calloc or realloc

bool count_allocation(const char *)
{
    allocations.fetch_add(1, std::memory_order_relaxed);
    return true;
}

} // namespace

ALLOCATORS(, __libc_, count_allocation)

namespace bench
{

namespace
{

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr int HANDLES = 20;
constexpr int EXCHANGES = 50;
constexpr int ECHO = 20000000;
constexpr size_t STACK_SIZE = 128 << 10;
constexpr unsigned char PAINT = 0xA5;

// The goal must not be exceeded; 0: there is none.
void print(const char *name, double value, const char *unit, double goal = 0)
{
    printf(R"({"name": "%s", "value": %.10g, "unit": "%s", "goal": %.10g})"
           "\n",
           name, value, unit, goal);
}

template <typename Work>
double growth(Work work, size_t (*measure)() = test::heap_in_use)
{
    const size_t before = measure();
    work();
    return static_cast<double>(measure()) - static_cast<double>(before);
}

template <typename Work>
double allocations_of(Work work)
{
    const auto repeat = [&] {
        for (int i = 0; i < EXCHANGES; i++)
            work();
    };
    return growth(repeat, [] { return allocations.load(); }) / EXCHANGES;
}

template <typename Client>
double heap_of(int port)
{
    std::vector<std::unique_ptr<Client>> clients(HANDLES);
    clients[0] = std::make_unique<Client>(port); // what is allocated once
    clients[0].reset();
    return growth([&] {
               for (auto &client : clients)
                   client = std::make_unique<Client>(port);
           }) /
           HANDLES;
}

void measure_exchanges(int port)
{
    const double heap = heap_of<Connection>(port);
    print("heap of a connected handle", heap, "bytes");
    print("  of it beyond libcurl and the engine", heap - heap_of<Composition>(port), "bytes");

    Connection connection(port);
    Composition composition(port);
    const std::string message(1000, 'm');
    connection.exchange(message);
    composition.exchange(message);
    const double count = allocations_of([&] { connection.exchange(message); });
    print("allocations of an exchange of 1 KB", count, "");
    print("  of them beyond the composition", count - allocations_of([&] { composition.exchange(message); }),
          "");
}

size_t peak_resident()
{
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<size_t>(usage.ru_maxrss) * 1024;
}

void measure_large_echo(int port)
{
    Connection connection(port);
    connection.exchange("small");
    connection.forget_answer();
    const std::string message(ECHO, 'm');
    const double kept = growth([&] {
        std::ofstream("/proc/self/clear_refs") << 5; // the peak begins anew
        const double peak = growth([&] { connection.exchange(message); }, peak_resident);
        connection.forget_answer();
        print("peak of an echo of 20 MB, in times of its length", peak / ECHO, "", 2.5);
    });
    print("  what the idle connection keeps of it", kept, "bytes", 65536);
}

void resolve(int host)
{
    get_proxy_url(("http://host" + std::to_string(host) + ".example/").c_str());
}

void measure_cache()
{
    resolve(50);
    const double heap = growth([] {
        for (int i = 0; i < 49; i++)
            resolve(i);
    });
    print("heap of a cached answer of two proxies", heap / 49, "bytes");
    print("allocations of a cache hit", allocations_of([] { get_proxy_url("http://host7.example/"); }), "");
}

void *connect_and_exchange(void *port)
{
    get_proxy_url("http://stack/");
    Connection(*static_cast<const int *>(port)).exchange(std::string(16000, 'm'));
    return nullptr;
}

// How deep a thread's stack gets that resolves a host, connects and exchanges a message.
void measure_stack(int port)
{
    alignas(4096) static unsigned char stack[STACK_SIZE];
    memset(stack, PAINT, STACK_SIZE);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstack(&attributes, stack, STACK_SIZE);
    pthread_t thread;
    require(pthread_create(&thread, &attributes, connect_and_exchange, &port) == 0, "no thread");
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
    const auto *deepest = std::find_if(stack, stack + STACK_SIZE, [](auto byte) { return byte != PAINT; });
    print("stack of a connection and an exchange", static_cast<double>(stack + STACK_SIZE - deepest), "bytes",
          STACK_SIZE);
}

std::atomic<int> events{0};

// Resolutions while signals come as fast as they can be sent.
void measure_storm(test::ScriptedService &service)
{
    std::atomic<bool> stop{false};
    std::thread storm([&] {
        while (!stop) {
            service.emitState(3);
            service.emit("notifyClearcache");
        }
    });
    int resolutions = 0;
    for (const auto end = Clock::now() + 2s; Clock::now() < end; resolutions++)
        resolve(resolutions % 60);
    stop = true;
    storm.join();
    print("resolutions in a storm of signals", resolutions / 2.0, "1/s");
    print("  signals handled meanwhile", events / 2.0, "1/s");
}

// How late a signal is while a call takes a second.
void measure_delay(test::ScriptedService &service)
{
    service.sync();
    service.hold("getProxyurl");
    std::thread slow([] { get_proxy_url("http://slow/"); });
    Clock::duration worst{};
    for (const auto end = Clock::now() + 1s; Clock::now() < end;) {
        const int before = events;
        const auto sent = Clock::now();
        service.emitState(4);
        while (events == before && Clock::now() - sent < 1s)
            std::this_thread::sleep_for(50us);
        worst = std::max(worst, Clock::now() - sent);
        std::this_thread::sleep_for(5ms);
    }
    service.answerHeld("(['pacurl', 'DIRECT'],)");
    slow.join();
    print("worst delay of a signal during a call of 1 s",
          std::chrono::duration<double, std::milli>(worst).count(), "ms", 5);
}

} // namespace

void print_figures(const Peers &peers)
{
    require(create_proxy_manager_client() == 1, "no proxy manager");
    measure_exchanges(peers.tls13);
    measure_large_echo(peers.tls13);
    measure_cache();
    measure_stack(peers.tls12);
    cleanup_proxy_manager_client();

    const test::PrivateBus bus; // without the peers' proxy manager
    test::ScriptedService service;
    require(create_proxy_manager_client() == 1, "no proxy manager");
    set_proxy_manager_event_cb(PROXY_MGR_EVENT_STATE_0, [](ProxyMgrEventType) { events++; });
    measure_storm(service);
    measure_delay(service);
    cleanup_proxy_manager_client();
}

} // namespace bench
