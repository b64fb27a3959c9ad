// The reference ATLS service: HTTPS outside, or HTTP behind a front end, inner TLS sessions that are found by cookie, and an echo of each
// message. A library, so that the program atls-server and the tests run the same service.
#ifndef TOOLS_ATLS_SERVICE_H
#define TOOLS_ATLS_SERVICE_H

#include "inner_session.h"

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>

namespace atls_service
{

// An HTTP response, before it is sent.
struct Reply {
    int status = 200;
    std::multimap<std::string, std::string> headers;
    std::string body;
};

struct Options {
    std::string host = "127.0.0.1";
    int port = 0;                  // 0 takes any free port
    bool plain = false;            // HTTP, for a front end that ends TLS
    std::string front_certificate; // PEM, of the HTTPS front end; not used with plain
    std::string front_key;
    InnerTlsOptions inner;
    std::chrono::milliseconds idle_limit = std::chrono::minutes(5); // a session unused for longer is dropped
    size_t max_sessions = 1000;  // above it the session unused for the longest time is dropped
    size_t max_connections = 32; // HTTP connections held at the same time
    // All of these are called on several threads at once.
    InnerSession::Answer answer = [](const std::string &message) { return message; };
    // Sees each POST's body and may change what goes back; for captures and for tests.
    std::function<void(const std::string &body, Reply &reply)> on_reply;
    std::function<void(const std::string &line)> log;
};

// With the files that scripts/make-identity has put into a folder's folder "service".
Options options_of(const std::string &folder);

class AtlsService
{
public:
    // Listens when it returns. Throws std::runtime_error when a file cannot be used or the port cannot be
    // had.
    explicit AtlsService(Options options);
    // Stops listening and waits for the requests under way.
    ~AtlsService();
    AtlsService(const AtlsService &) = delete;
    AtlsService &operator=(const AtlsService &) = delete;

    int port() const;
    size_t session_count() const;

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace atls_service

#endif
