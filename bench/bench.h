// What the files of the benchmark program share. Each adds its own; a name is GROUP/CASE/WHO, where WHO is "library"
// or what it is measured against.
#ifndef BENCH_BENCH_H
#define BENCH_BENCH_H

#include "peers.h"

#include <stdexcept>

#include <benchmark/benchmark.h>

namespace bench
{

void add_exchanges(const Peers &peers);
void add_connections(const Peers &peers);
void add_decryption(const Peers &peers);
void add_proxy_answers();

inline void require(bool rule, const char *what)
{
    if (!rule)
        throw std::runtime_error(what);
}

} // namespace bench

#endif
