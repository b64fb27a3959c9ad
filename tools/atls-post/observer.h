// Looks on while a connection is made and used: at the responses that its request object gets, and at what the inner
// TLS engine says. Changes nothing of either.
#ifndef TOOLS_ATLS_POST_OBSERVER_H
#define TOOLS_ATLS_POST_OBSERVER_H

#include <chrono>
#include <string>
#include <vector>

#include <curl/curl.h>
#include <openssl/ssl.h>

#include "atls.h"

using Clock = std::chrono::steady_clock;

struct Response {
    long status = 0;
    std::string address;              // that it came from
    std::string outer_tls;            // version
    bool new_connection = false;      // made for this post
    std::vector<std::string> headers; // lines, without their ends

    // The value of the first header of that name, in any spelling; empty without one.
    std::string header(const char *name) const;
    // Names of the cookies that it sets.
    std::vector<std::string> cookies() const;
};

// What the inner TLS engine has told since the connection began.
struct EngineEvents {
    bool certificate_asked = false; // of the device
    int alert = -1;                 // the last one that was received, if any
    std::string refusal;            // of the service's certificate: which one, and why

    std::string alert_text() const; // empty without one
};

class Observer
{
public:
    // trace: show libcurl's trace on the standard error, which is hidden otherwise.
    Observer(const atls_handle &handle, bool trace) : handle_(handle), trace_(trace) {}
    ~Observer();
    Observer(const Observer &) = delete;
    Observer &operator=(const Observer &) = delete;

    // A new request object is there.
    void attach();
    // Of the connection, the latest ones only.
    const std::vector<Response> &responses() const { return responses_; }
    const EngineEvents &engine() const { return engine_; }
    // Takes the progress line off the terminal.
    void clear_progress();

private:
    static int on_debug(CURL *curl, curl_infotype type, char *data, size_t size, void *self);
    static int on_progress(void *self, curl_off_t, curl_off_t down, curl_off_t, curl_off_t up);
    static void on_message(int sent, int, int type, const void *data, size_t size, SSL *, void *self);
    static int on_verify(int verified, X509_STORE_CTX *store);

    void watch_engine();
    void take_request(const std::string &header);
    void take_header(CURL *curl, const std::string &line);

    const atls_handle &handle_;
    const bool trace_;
    std::vector<Response> responses_;
    bool in_tunnel_ = false; // lines of the answer of a proxy to CONNECT come
    const SSL *watched_ = nullptr;
    int (*platform_verify_)(int, X509_STORE_CTX *) = nullptr;
    EngineEvents engine_;
    Clock::time_point post_start_;
    bool progress_shown_ = false;
};

// Drops the trace of a request object.
void keep_quiet(CURL *curl);

// The address that a request object has used last.
std::string peer_of(CURL *curl);

// The ways of authentication that a proxy has demanded; empty if none.
std::string demanded_authentication(CURL *curl);

// The first line of a certificate's subject or issuer.
std::string name_text(const X509_NAME *name);

#endif
