// What an exchange and a connection cost at the least: the bare libraries, without any of the library's checks.
#ifndef BENCH_COMPOSITION_H
#define BENCH_COMPOSITION_H

#include <cstdlib>
#include <memory>
#include <string>

#include <curl/curl.h>
#include <openssl/ssl.h>

namespace bench
{

template <auto release>
struct Releaser {
    template <typename Object>
    void operator()(Object *object) const
    {
        release(object);
    }
};
template <typename Object, auto release>
using Owned = std::unique_ptr<Object, Releaser<release>>;

// A response part, or the plain text of an answer.
struct Block {
    void reset(char *block = nullptr) { data.reset(block), size = 0; }
    Owned<char, free> data;
    size_t size = 0;
};

// A POST of as many bytes as the records of a message have, with nothing but libcurl's defaults.
class BarePost
{
public:
    explicit BarePost(int port, const char *path = "/echo");
    void exchange(const std::string &message) { post(message.data(), message.size()); }

    Block body;

protected:
    void post(const char *data, size_t length);

    Block header_;
    Owned<curl_slist, curl_slist_free_all> lines_; // of the request
    Owned<CURL, curl_easy_cleanup> curl_{curl_easy_init()};
};

// The same POSTs, engine, trace, dump files and log lines as the library's.
class Composition : public BarePost
{
public:
    // Connects at once; throws std::runtime_error when it cannot. A context that is given is used in place of one
    // that is made of the device's files.
    explicit Composition(int port, SSL_CTX *ready = nullptr);
    void send(const std::string &message);
    void decrypt();
    void exchange(const std::string &message) { send(message), decrypt(); }

    Owned<SSL, SSL_free> ssl;
    Block answer; // until the next

private:
    void add_line(const std::string &line);
    void handshake();
    void log_response() const;
};

Owned<SSL_CTX, SSL_CTX_free> make_context();

} // namespace bench

#endif
