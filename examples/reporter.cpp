// Reports the system's load again and again, and survives that proxies, networks and the service come and go:
// reporter HOST PORT PATH SECONDS
#include <atls.hpp>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iostream>

namespace
{

const atls::CancelSource stop; // made before the handler is installed, for any thread and any signal

std::string load()
{
    std::string text;
    std::getline(std::ifstream("/proc/loadavg"), text);
    return text;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 5)
        return 64;
    for (const int signal : {SIGINT, SIGTERM})
        std::signal(signal, [](int) { stop.cancel(); });
    const std::chrono::seconds period(std::atoi(argv[4]));
    atls::Connection connection({argv[1], std::atoi(argv[2]), argv[3]}, atls::later);
    atls::Retry retry;
    retry.attempts = 5;
    retry.repeatable = true; // the number tells the service which report came twice
    for (long number = 1; !stop.is_cancelled(); number++) {
        const auto next = atls::Clock::now() + period;
        atls::Options options;
        options.deadline = next;
        options.cancel = stop;
        const std::string report = std::to_string(number) + ' ' + load();
        if (const auto answer = connection.try_send(report, retry, options))
            std::cout << number << ": " << answer->body() << std::endl;
        else
            std::cerr << number << ": " << answer.error().message() << std::endl;
        while (!stop.is_cancelled() && atls::Clock::now() < next)
            std::this_thread::sleep_for(
                std::min<atls::Clock::duration>(next - atls::Clock::now(), std::chrono::milliseconds(500)));
    }
}
