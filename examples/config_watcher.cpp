// Prints the proxies of a URL, and prints them again whenever the configuration changes: config_watcher URL
#include <csignal>
#include <iostream>
#include <poll.h>
#include <proxymanager.hpp>
#include <sys/signalfd.h>

namespace
{

void print(const proxymanager::Proxies &proxies)
{
    std::cout << proxyMode2Str(static_cast<int>(proxies.mode)) << ':';
    for (const std::string &address : proxies.addresses)
        std::cout << ' ' << (address.empty() ? "direct" : address);
    std::cout << std::endl;
}

// SIGINT and SIGTERM as something to poll. Before the library starts its thread, which then has them blocked as well.
int open_signals()
{
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGINT);
    sigaddset(&ends, SIGTERM);
    sigprocmask(SIG_BLOCK, &ends, nullptr);
    return signalfd(-1, &ends, SFD_CLOEXEC);
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 2)
        return 64;
    const int signals = open_signals();
    try {
        proxymanager::Events events; // first, so that no change falls between
        const proxymanager::Client client;
        print(client.proxies_for(argv[1]));
        for (;;) {
            pollfd watched[] = {{events.descriptor(), POLLIN, 0}, {signals, POLLIN, 0}};
            poll(watched, 2, -1);
            if (watched[1].revents != 0)
                return 0;
            bool changed = false; // many changes may wait; the last one counts
            while (events.next())
                changed = true;
            if (changed)
                print(client.proxies_for(argv[1]));
        }
    } catch (const std::system_error &error) {
        std::cerr << error.what() << std::endl;
        return 69;
    }
}
