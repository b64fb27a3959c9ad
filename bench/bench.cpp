// The benchmark program: what the library costs in time, against the bare libraries in the same run.

#include "bench.h"

#include <iostream>

int main(int count, char **arguments)
{
    try {
        const bench::Peers peers;
        bench::add_exchanges(peers);
        bench::add_connections(peers);
        bench::add_decryption(peers);
        bench::add_proxy_answers();
        benchmark::Initialize(&count, arguments);
        benchmark::RunSpecifiedBenchmarks();
    } catch (const std::exception &error) {
        std::cout << "bench: " << error.what() << std::endl;
        return 1;
    }
    return 0;
}
