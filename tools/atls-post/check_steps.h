// The steps of --check and what they share.
#ifndef TOOLS_ATLS_POST_CHECK_STEPS_H
#define TOOLS_ATLS_POST_CHECK_STEPS_H

#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <curl/curl.h>
#include <openssl/ssl.h>

#include "explanation.h"
#include "observer.h"
#include "platform.h"
#include "posting.h"
#include "settings.h"

enum class Verdict { OK, WARNING, WRONG };

struct Finding {
    Verdict verdict;
    std::string detail;
    std::string advice; // what to do; empty when all is well
};

inline Finding ok(std::string detail)
{
    return {Verdict::OK, std::move(detail), ""};
}
inline Finding warning(std::string detail, std::string advice)
{
    return {Verdict::WARNING, std::move(detail), std::move(advice)};
}
inline Finding wrong(std::string detail, std::string advice)
{
    return {Verdict::WRONG, std::move(detail), std::move(advice)};
}

// One way to the service: through a proxy that was offered, or without one.
struct Route {
    std::string name; // of the proxy; "DIRECT" without one
    bool direct = true;
    bool is_tried = false;
    CURLcode code = CURLE_OK; // of connecting
    std::string text = {};
    long connect_status = 0; // of the proxy; 0 without one
    std::string demanded = {};
    std::string address = {};
    double lookup_seconds = 0;

    // The library sends its posts this way, and tries no other.
    bool carries() const { return code == CURLE_OK || connect_status == 200; }
    // The library tries the next one.
    bool is_passed_over() const
    {
        return !carries() && connect_status < 400 &&
               (code == CURLE_COULDNT_RESOLVE_PROXY || code == CURLE_COULDNT_CONNECT ||
                code == CURLE_OPERATION_TIMEDOUT);
    }
};

// What a request without a message got from whatever answers HTTPS.
struct FrontEnd {
    CURLcode code;
    std::string text;
    std::optional<time_t> date;
};

struct CurlCleanup {
    void operator()(CURL *curl) const { curl_easy_cleanup(curl); }
};
struct ContextDestroy {
    void operator()(void *context) const { tlsplat_destroy_sec_ctx(context); }
};

// What is learned on the way. What a step asks for is found out once.
class World
{
public:
    explicit World(const Settings &chosen);

    const Settings &settings;
    Handle connection = make_handle(); // the one that is connected as a program's
    Observer observer;
    Explanation explanation;

    // The platform's security context; nullptr if there is none.
    SSL_CTX *security_context();
    int truststore_result = 0;

    // The ways to the service in their order, connected or not.
    std::vector<Route> &routes();
    // One of them, connected for a moment.
    const Route &tried(Route &route);
    // Where the library stops trying: the first one that connects or is refused, or the last.
    const Route &final_route();
    const FrontEnd &front_end();
    // The result of atls_connect.
    int connect();

private:
    std::unique_ptr<CURL, CurlCleanup> request(size_t route);

    std::unique_ptr<void, ContextDestroy> context_;
    std::optional<Handle> transport_; // for requests without a message
    std::optional<std::vector<Route>> routes_;
    std::optional<FrontEnd> front_end_;
    std::optional<int> connect_result_;
};

struct Step {
    const char *name;
    int exit_status;
    bool goes_on; // when something is wrong: the library does, too
    Finding (*run)(World &);
};

Finding find_identity(World &world);
Finding check_certificate(World &world);
Finding check_trust_store(World &world);
Finding ask_proxy_manager(World &world);
Finding try_proxies(World &world);
Finding reach_front_end(World &world);
Finding compare_clock(World &world);
Finding judge_front_end(World &world);
Finding judge_handshake(World &world);
Finding keep_session(World &world);
Finding receive_long_answer(World &world);

#endif
