// What the benchmarks talk to: services, a plain HTTPS server and a proxy manager, in a process of their own, and a
// reader of the log.
#ifndef BENCH_PEERS_H
#define BENCH_PEERS_H

#include "bus.h"

#include <string>

namespace bench
{

struct Peers {
    // To be made before the first thread. Leaves the standard error, where libcurl's trace goes, to /dev/null.
    Peers();

    test::PrivateBus bus;
    test::Folder folder; // the device's identity, and the services'
    struct Ports {
        int tls12, tls13, echo;
    } ports = {};

private:
    Descriptor alive_; // the process ends with it
};

// Whether debugging lines are written; else nothing below warnings is.
void set_logging(bool on);

// The program's allocations so far, with new, malloc, calloc or realloc.
size_t allocations();

} // namespace bench

#endif
