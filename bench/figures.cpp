// What the library takes in memory and allocations, and how late a signal is during a call: one JSON object in each
// line.

#include "allocation.h"
#include "bus.h"
#include "clients.h"
#include "proxymanager.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <thread>

#include <pthread.h>
#include <sys/resource.h>

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

static std::atomic<size_t> allocations{0}; // with new, malloc, calloc or realloc
ALLOCATORS(, __libc_, ++allocations != 0)

static size_t peak_resident()
{
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<size_t>(usage.ru_maxrss) * 1024;
}

static size_t (*const count_allocations)() = [] { return allocations.load(); };

// By how much a measure is larger after work that is done so many times, divided by that.
template <typename Work>
static double growth(size_t (*measure)(), int times, Work work)
{
    const size_t before = measure();
    for (int i = 0; i < times; i++)
        work(i);
    return (static_cast<double>(measure()) - static_cast<double>(before)) / times;
}

// The goal must not be exceeded; 0: there is none.
static void print(const char *name, double value, const char *unit, double goal = 0)
{
    printf("{\"name\": \"%s\", \"value\": %.10g, \"unit\": \"%s\", \"goal\": %g}\n", name, value, unit, goal);
}

static void resolve(int host)
{
    get_proxy_url(("http://host" + std::to_string(host) + ".example/").c_str());
}

template <typename Client>
static double heap_of(int port)
{
    std::unique_ptr<Client> clients[20];
    clients[0] = std::make_unique<Client>(port); // what is allocated once
    clients[0].reset();
    return growth(test::heap_in_use, 20, [&](int i) { clients[i] = std::make_unique<Client>(port); });
}

template <typename Client>
static double allocations_of(int port)
{
    Client client(port);
    const std::string message(1000, 'm');
    client.exchange(message);
    return growth(count_allocations, 50, [&](int) { client.exchange(message); });
}

static void measure_large_echo(int port)
{
    constexpr int LENGTH = 20000000;
    Library client(port);
    const std::string message(LENGTH, 'm');
    client.exchange("small");
    cleanup_atls_resp(&client.answer);
    std::ofstream("/proc/self/clear_refs") << 5; // the peak begins anew
    const double peak = growth(peak_resident, 1, [&](int) { client.exchange(message); });
    print("peak of an echo of 20 MB, in times of its length", peak / LENGTH, "", 2.5);
}

// How deep a thread's stack gets that resolves a host, connects and exchanges a message.
static void measure_stack(int port)
{
    alignas(4096) static unsigned char stack[128 << 10];
    constexpr unsigned char PAINT = 0xA5;
    std::fill(std::begin(stack), std::end(stack), PAINT);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstack(&attributes, stack, sizeof stack);
    const auto work = [](void *number) -> void * {
        get_proxy_url("http://stack/");
        Library(*static_cast<const int *>(number)).exchange(std::string(16000, 'm'));
        return nullptr;
    };
    pthread_t thread;
    require(pthread_create(&thread, &attributes, work, &port) == 0, "no thread");
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
    const auto *deepest = std::find_if(stack, std::end(stack), [](auto byte) { return byte != PAINT; });
    const auto depth = static_cast<double>(std::end(stack) - deepest);
    print("stack of a connection and an exchange", depth, "bytes", sizeof stack);
}

static std::atomic<int> events{0};

// How late a signal is while a call takes a second.
static void measure_delay(test::ScriptedService &service)
{
    service.sync();
    service.hold("getProxyurl");
    std::thread slow([] { get_proxy_url("http://slow/"); });
    std::chrono::duration<double, std::milli> worst{};
    for (const auto end = Clock::now() + 1s; Clock::now() < end; std::this_thread::sleep_for(5ms)) {
        const int before = events;
        const auto sent = Clock::now();
        service.emitState(4);
        while (events == before && Clock::now() - sent < 1s)
            std::this_thread::sleep_for(50us);
        worst = std::max<decltype(worst)>(worst, Clock::now() - sent);
    }
    service.answerHeld("(['pacurl', 'DIRECT'],)");
    slow.join();
    print("worst delay of a signal during a call of 1 s", worst.count(), "ms", 5);
}

int print_figures(const Peers &peers)
{
    const double heap = heap_of<Library>(peers.tls13);
    print("heap of a connected handle", heap, "bytes");
    print("  of it beyond libcurl and the engine", heap - heap_of<Composition>(peers.tls13), "bytes");
    const double count = allocations_of<Library>(peers.tls13);
    print("allocations of an exchange of 1 KB", count, "");
    print("  of them beyond the composition", count - allocations_of<Composition>(peers.tls13), "");
    measure_large_echo(peers.tls13);
    resolve(50);
    print("heap of a cached answer of two proxies", growth(test::heap_in_use, 49, resolve), "bytes");
    const auto hit = [](int) { get_proxy_url("http://host7.example/"); };
    print("allocations of a cache hit", growth(count_allocations, 50, hit), "");
    measure_stack(peers.tls12);
    cleanup_proxy_manager_client();

    const test::PrivateBus bus; // without the peers' proxy manager
    test::ScriptedService service;
    require(create_proxy_manager_client() == 1, "no proxy manager");
    set_proxy_manager_event_cb(PROXY_MGR_EVENT_STATE_0, [](ProxyMgrEventType) { events++; });
    measure_delay(service);
    cleanup_proxy_manager_client();
    return 0;
}
