// What the measurements and the soak have in common: their peers.
#ifndef BENCH_PEERS_H
#define BENCH_PEERS_H

#include "program.h"

#include <cstdlib>
#include <sstream>
#include <stdexcept>

namespace bench
{

inline void require(bool rule, const std::string &what)
{
    if (!rule)
        throw std::runtime_error("fails: " + what);
}

// A device's identity, and the services in a process of their own, so that only the library is measured.
struct Peers {
    explicit Peers(std::vector<std::string> options = {})
    {
        setenv("ATLS_PLATFORM_DIR", test::identity("device").c_str(), 1);
        for (const char *name :
             {"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY", "no_proxy", "NO_PROXY"})
            unsetenv(name);
        options.insert(options.begin(), {SERVICES, test::identity("service/")});
        services = std::make_unique<test::Program>(std::move(options));
        require(services->wait_for("\n"), "services " + services->err());
        std::istringstream(services->out()) >> tls12 >> tls13 >> echo;
    }

    std::unique_ptr<test::Program> services;
    int tls12 = 0, tls13 = 0, echo = 0; // ports
};

} // namespace bench

#endif
