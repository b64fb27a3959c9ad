// figures: what the library takes in memory and allocations, and how it holds out in a storm of signals. Prints one
// figure in each line: name, value, unit, and the goal that it must not exceed, or "-".

#include "peers.h"

#include "atls.h"
#include "bus_peer.h"
#include "composition.h"
#include "proxymanager.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <thread>

#include <pthread.h>
#include <sys/mman.h>

namespace
{

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr int HANDLES = 20;
constexpr int EXCHANGES = 50;
constexpr size_t STACK_SIZE = 128 << 10;
constexpr unsigned char PAINT = 0xA5;

void print(const char *name, double value, const char *unit, const char *goal = "-")
{
    std::cout << std::left << std::setw(58) << name << std::setw(14) << value << std::setw(10) << unit << goal
              << '\n';
}

atls_handle *connect(int port)
{
    atls_handle *handle = create_atls_handle();
    if (atls_connect(&handle, "127.0.0.1", nullptr, port, "/atls", nullptr) != 0)
        throw std::runtime_error("atls_connect");
    return handle;
}

void exchange(atls_handle *handle, const std::string &message, atls_resp &answer)
{
    if (atls_easy_perform(handle, message.data(), static_cast<int>(message.size()), "/atls", &answer) != 0)
        throw std::runtime_error("atls_easy_perform");
}

// Of a handle that has connected, beyond what its libcurl and its engine take in the composition.
void measure_handles(int port)
{
    std::vector<atls_handle *> handles;
    std::vector<std::unique_ptr<bench::Composition>> compositions;
    free_atls_handle(connect(port)); // what is allocated once
    size_t before = test::heap_in_use();
    for (int i = 0; i < HANDLES; i++)
        handles.push_back(connect(port));
    const size_t library = test::heap_in_use() - before;
    before = test::heap_in_use();
    for (int i = 0; i < HANDLES; i++)
        compositions.push_back(std::make_unique<bench::Composition>(port));
    const size_t composition = test::heap_in_use() - before;
    std::for_each(handles.begin(), handles.end(), free_atls_handle);
    print("heap of a connected handle", static_cast<double>(library) / HANDLES, "bytes");
    print("  of it beyond libcurl and the engine",
          (static_cast<double>(library) - static_cast<double>(composition)) / HANDLES, "bytes");
}

void measure_allocations(int port)
{
    atls_handle *handle = connect(port);
    bench::Composition composition(port);
    atls_resp answer = {};
    const std::string message(1000, 'm');
    exchange(handle, message, answer);
    composition.exchange(message);
    size_t before = bench::allocations();
    for (int i = 0; i < EXCHANGES; i++)
        exchange(handle, message, answer);
    const size_t library = bench::allocations() - before;
    before = bench::allocations();
    for (int i = 0; i < EXCHANGES; i++)
        composition.exchange(message);
    const size_t bare = bench::allocations() - before;
    cleanup_atls_resp(&answer);
    free_atls_handle(handle);
    print("allocations of an exchange of 1 KB", static_cast<double>(library) / EXCHANGES, "");
    print("  of them beyond the composition",
          (static_cast<double>(library) - static_cast<double>(bare)) / EXCHANGES, "");
}

// A number of /proc/self/status, which is in KB.
double memory_of_process(const std::string &name)
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind(name, 0) == 0)
            return strtod(line.c_str() + name.size(), nullptr) * 1024;
    throw std::runtime_error(name);
}

void measure_large_echo(int port)
{
    atls_handle *handle = connect(port);
    atls_resp answer = {};
    exchange(handle, "small", answer);
    const std::string message(20000000, 'm');
    cleanup_atls_resp(&answer);
    const size_t idle = test::heap_in_use();
    std::ofstream("/proc/self/clear_refs") << 5; // the peak begins anew
    const double resident = memory_of_process("VmRSS:");
    exchange(handle, message, answer);
    const double peak = memory_of_process("VmHWM:") - resident;
    cleanup_atls_resp(&answer);
    print("peak of an echo of 20 MB, in times of its length", peak / 20e6, "", "2.5");
    print("  what the idle connection keeps of it",
          static_cast<double>(test::heap_in_use()) - static_cast<double>(idle), "bytes", "65536");
    free_atls_handle(handle);
}

void measure_cache()
{
    const auto url = [](int i) { return "http://host" + std::to_string(i) + ".example/"; };
    get_proxy_url(url(50).c_str());
    const size_t before = test::heap_in_use();
    for (int i = 0; i < 49; i++)
        get_proxy_url(url(i).c_str());
    print("heap of a cached answer of two proxies", static_cast<double>(test::heap_in_use() - before) / 49,
          "bytes");
    const std::string known = url(7);
    const size_t counted = bench::allocations();
    for (int i = 0; i < EXCHANGES; i++)
        get_proxy_url(known.c_str());
    print("allocations of a cache hit", static_cast<double>(bench::allocations() - counted) / EXCHANGES, "");
}

// How deep a thread's stack gets that resolves a host, connects and exchanges a message.
void measure_stack(int port)
{
    void *stack = mmap(nullptr, STACK_SIZE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    memset(stack, PAINT, STACK_SIZE);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstack(&attributes, stack, STACK_SIZE);
    pthread_t thread;
    const auto work = [](void *port_text) -> void * {
        get_proxy_url("http://stack/");
        atls_handle *handle = connect(*static_cast<int *>(port_text));
        atls_resp answer = {};
        exchange(handle, std::string(16000, 'm'), answer);
        cleanup_atls_resp(&answer);
        free_atls_handle(handle);
        return nullptr;
    };
    if (pthread_create(&thread, &attributes, work, &port) != 0)
        throw std::runtime_error("no thread");
    pthread_join(thread, nullptr);
    const auto *bytes = static_cast<unsigned char *>(stack);
    const auto *deepest =
        std::find_if(bytes, bytes + STACK_SIZE, [](unsigned char byte) { return byte != PAINT; });
    print("stack of a connection and an exchange", static_cast<double>(bytes + STACK_SIZE - deepest), "bytes",
          "131072");
    pthread_attr_destroy(&attributes);
    munmap(stack, STACK_SIZE);
}

std::atomic<int> events{0};

// Resolutions while signals come as fast as they can be sent, and how late a signal is while a call takes a second.
void measure_signals(test::ScriptedService &service)
{
    set_proxy_manager_event_cb(0, [](ProxyMgrEventType) { events++; });
    std::atomic<bool> stop{false};
    std::thread storm([&] {
        while (!stop) {
            service.emitState(3);
            service.emit("notifyClearcache");
        }
    });
    int resolutions = 0;
    for (const auto end = Clock::now() + 2s; Clock::now() < end; resolutions++)
        get_proxy_url(("http://host" + std::to_string(resolutions % 60)).c_str());
    stop = true;
    storm.join();
    print("resolutions in a storm of signals", resolutions / 2.0, "1/s");
    print("  signals handled meanwhile", events / 2.0, "1/s");

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
          std::chrono::duration<double, std::milli>(worst).count(), "ms", "5");
}

} // namespace

int main()
{
    try {
        const bench::Peers peers;
        if (create_proxy_manager_client() != 1)
            throw std::runtime_error("no proxy manager");
        measure_handles(peers.ports.tls13);
        measure_allocations(peers.ports.tls13);
        measure_large_echo(peers.ports.tls13);
        measure_cache();
        measure_stack(peers.ports.tls12);
        cleanup_proxy_manager_client();
        test::PrivateBus bus;
        test::ScriptedService service;
        if (create_proxy_manager_client() != 1)
            throw std::runtime_error("no proxy manager");
        measure_signals(service);
        cleanup_proxy_manager_client();
    } catch (const std::exception &error) {
        std::cout << "figures: " << error.what() << std::endl;
        return 1;
    }
    return 0;
}
