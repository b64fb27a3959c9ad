// Tells after a post which way it went, what it took and why it failed. It knows this from the log lines that the
// library writes meanwhile, from the connected handle and from the answer.
#ifndef TOOLS_ATLS_POST_EXPLANATION_H
#define TOOLS_ATLS_POST_EXPLANATION_H

#include <array>
#include <mutex>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "atls.h"
#include "observer.h"

// May be written by another thread when the time is over.
class Explanation
{
public:
    Explanation(std::string url, const atls_handle &handle, Observer &observer)
        : url_(std::move(url)), handle_(handle), observer_(observer)
    {
    }

    // Each line of the log.
    void take(const std::string &line);
    // After each atls_connect, whatever it returned.
    void connected();
    // After an exchange that got its answer.
    void exchanged(const atls_resp &answer, size_t message_length);
    // Why the last connection or exchange failed; empty when that is not known.
    std::string reason() const;
    void set_reason(std::string reason);
    // A message has failed; the first reason is the one that is told.
    void failed(const std::string &why);
    void write(std::ostream &out, bool as_json) const;

private:
    struct Failure {
        std::string proxy;
        std::string text;
        int code;            // libcurl's
        long connect_status; // of the proxy; 0 without one
        double seconds;
        bool final; // no other proxy was tried after it
    };
    using Json = nlohmann::ordered_json;

    void take_route(const std::string &line);
    void take_offer(const std::string &entry);
    void take_failure(const std::string &code);
    void take_message();
    void take_reason(const std::string &line);
    void write_text(std::ostream &out) const;
    void write_route(std::ostream &out) const;
    void write_answer(std::ostream &out) const;
    Json route_as_json() const;
    Json as_json() const;
    std::array<double, 3> times() const;

    mutable std::mutex mutex_; // of all that follows
    const std::string url_;
    const atls_handle &handle_;
    Observer &observer_;
    std::string reason_;   // of the latest trouble
    std::string reported_; // of the first message that failed

    std::string proxy_ = "no proxy"; // the one in use
    std::string why_no_proxy_ = "not asked for";
    std::vector<std::string> offered_;
    std::vector<Failure> failures_;
    std::vector<std::pair<std::string, int>> carriers_; // each with the number of messages in a row
    std::string peer_;                                  // address that the last post went to

    const Clock::time_point start_ = Clock::now();
    Clock::time_point chosen_ = start_;    // when the proxies were known, for the first time
    Clock::time_point connected_ = start_; // for the first time
    Clock::time_point last_line_ = start_;
    int connections_ = 0;
    std::string session_;              // TLS version and cipher
    std::vector<std::string> cookies_; // names only: the values are the session's secret
    std::string tracking_id_;
    long status_ = 0;
    size_t messages_ = 0;
    size_t sent_ = 0, posted_ = 0;       // bytes: messages, and bodies of their posts
    size_t answered_ = 0, received_ = 0; // bytes: decrypted answers, and bodies and headers of the responses
};

// A proxy's text, on one line, without the user name and password that it may hold.
std::string without_credentials(const std::string &proxy);

// The names of the variables that libcurl heeds whatever the library has chosen.
std::vector<std::string> proxy_environment();

std::string joined(const std::vector<std::string> &texts, const char *between);

#endif
