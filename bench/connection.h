// What the measurements share beside their peers: a connection of the library's, and the figures beside the times.
#ifndef BENCH_CONNECTION_H
#define BENCH_CONNECTION_H

#include "atls.h"
#include "peers.h"

namespace bench
{

class Connection
{
public:
    explicit Connection(int port)
    {
        require(atls_connect(&handle_, "127.0.0.1", nullptr, port, "/atls", nullptr) == 0, "atls_connect");
    }
    ~Connection()
    {
        cleanup_atls_resp(&answer_);
        free_atls_handle(handle_);
    }
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    void exchange(const std::string &message)
    {
        const int length = static_cast<int>(message.size());
        require(atls_easy_perform(handle_, message.data(), length, "/atls", &answer_) == 0,
                "atls_easy_perform");
    }
    void forget_answer() { cleanup_atls_resp(&answer_); }

private:
    atls_handle *handle_ = create_atls_handle();
    atls_resp answer_ = {};
};

// Prints what the library takes in memory and allocations, and how it holds out in a storm of signals: one JSON
// object in each line.
void print_figures(const Peers &peers);

} // namespace bench

#endif
