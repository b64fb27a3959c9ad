// What a connection costs at the least: the same POSTs, engine, trace, dump files and log lines as the library's,
// put together from the bare libraries without any of its checks.
#ifndef BENCH_COMPOSITION_H
#define BENCH_COMPOSITION_H

#include <string>

#include <curl/curl.h>
#include <openssl/ssl.h>

namespace bench
{

// A response part, and the plain text of an answer.
struct Block {
    char *data = nullptr;
    size_t size = 0;

    Block() = default;
    Block(const Block &) = delete;
    Block &operator=(const Block &) = delete;
    ~Block() { release(); }
    void release();
    void append(const char *bytes, size_t count);
};

class Composition
{
public:
    // Connects at once; throws std::runtime_error when it cannot. A context that is given is used in place of one
    // that is made of the device's files, and stays the caller's.
    explicit Composition(int port, SSL_CTX *ready = nullptr);
    ~Composition();
    Composition(const Composition &) = delete;
    Composition &operator=(const Composition &) = delete;

    // Sends a message and returns the answer, which lives until the next.
    const Block &exchange(const std::string &message);

    static SSL_CTX *make_context();

private:
    void prepare_requests(int port);
    void handshake();
    void post(const char *records, size_t length);
    void decrypt();
    void log_response() const;

    CURL *curl_;
    curl_slist *headers_ = nullptr;
    SSL *ssl_;
    Block header_, body_, answer_;
};

// A POST of as many bytes as the records of a message have, with nothing but libcurl's defaults.
class BarePost
{
public:
    explicit BarePost(int port);
    ~BarePost();
    BarePost(const BarePost &) = delete;
    BarePost &operator=(const BarePost &) = delete;
    const Block &exchange(const std::string &body);

private:
    CURL *curl_;
    Block header_, body_;
};

} // namespace bench

#endif
