// Exchanges and connections.

#include "bench.h"

#include "atls.h"
#include "composition.h"
#include "proxymanager.h"

#include <memory>

namespace bench
{

namespace
{

// A connection of the library's.
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

    const atls_resp &exchange(const std::string &message)
    {
        const int length = static_cast<int>(message.size());
        require(atls_easy_perform(handle_, message.data(), length, "/atls", &answer_) == 0,
                "atls_easy_perform");
        return answer_;
    }

private:
    atls_handle *handle_ = create_atls_handle();
    atls_resp answer_ = {};
};

// Connects, and exchanges messages of a size.
template <typename Client>
void add_exchange(const std::string &name, int port, size_t size, bool logging)
{
    benchmark::RegisterBenchmark(name.c_str(), [=](auto &state) {
        Client client(port);
        const std::string message(size, 'm');
        client.exchange(message);
        set_logging(logging);
        for (auto each : state)
            (void)each, client.exchange(message);
        set_logging(false);
    })->MinTime(0.05);
}

template <typename Connect>
void add_connection(const std::string &name, Connect connect)
{
    benchmark::RegisterBenchmark(name.c_str(), [=](auto &state) {
        for (auto each : state)
            (void)each, connect();
    })->MinTime(0.1);
}

} // namespace

void add_exchanges(const Peers &peers)
{
    for (const auto &[size, label] :
         {std::pair(100, "100 B"), {1000, "1 KB"}, {16000, "16 KB"}, {1000000, "1 MB"}}) {
        const auto length = static_cast<size_t>(size);
        for (const auto &[port, version] :
             {std::pair(peers.ports.tls12, "1.2"), {peers.ports.tls13, "1.3"}}) {
            for (const bool logging : {false, true}) {
                const std::string name = std::string("exchange/") + label + " TLS " + version +
                                         (logging ? " log on" : " log masked");
                add_exchange<Connection>(name + "/library", port, length, logging);
                add_exchange<Composition>(name + "/composition", port, length, logging);
                if (!logging)
                    add_exchange<BarePost>(name + "/bare POST", peers.ports.echo, length, false);
            }
        }
    }
}

void add_connections(const Peers &peers)
{
    static const std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> ready(Composition::make_context(),
                                                                         SSL_CTX_free);
    for (const auto &[port, version] : {std::pair(peers.ports.tls12, "1.2"), {peers.ports.tls13, "1.3"}}) {
        const std::string name = std::string("connect/TLS ") + version;
        add_connection(name + "/library", [port = port] { const Connection connection(port); });
        add_connection(name + "/composition", [port = port] { const Composition connection(port); });
        add_connection(name + "/ready context",
                       [port = port] { const Composition connection(port, ready.get()); });
    }
}

} // namespace bench
