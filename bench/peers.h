// What the measurements and the soak share: services in a process of their own, so that only the library is measured.
#ifndef BENCH_PEERS_H
#define BENCH_PEERS_H

#include "program.h"

#include <iostream>
#include <sstream>
#include <stdexcept>

inline void require(bool rule, const std::string &what)
{
    if (!rule)
        throw std::runtime_error("failed: " + what);
}

struct Peers {
    // The option is one of bench-services. The standard error, where libcurl's trace goes, becomes /dev/null.
    explicit Peers(const std::string &option = "") : services({SERVICES, test::identity(""), option}, "\n")
    {
        setenv("ATLS_PLATFORM_DIR", test::identity("device").c_str(), 1);
        std::istringstream(services.out()) >> tls12 >> tls13 >> echo;
        require(freopen("/dev/null", "w", stderr) != nullptr, "/dev/null");
        std::cerr.rdbuf(std::cout.rdbuf()); // errors are told there
    }

    test::Program services;
    int tls12 = 0, tls13 = 0, echo = 0; // ports
};

#endif
