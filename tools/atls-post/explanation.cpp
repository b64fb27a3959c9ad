// The way of a message, put together from log lines, request object, handle and answer.

#include "explanation.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <iomanip>

#include <curl/curl.h>
#include <openssl/ssl.h>

#include "proxy_text.h"

namespace
{

using proxy_text::on_one_line;
using Seconds = std::chrono::duration<double>;

// A line may end in texts of a peer: only how it begins can be trusted.
bool begins(const std::string &line, const std::string &text)
{
    return line.rfind(text, 0) == 0;
}

// What stands behind a text that the line begins with; false when it begins otherwise.
bool read_behind(const std::string &line, const std::string &text, std::string &rest)
{
    const bool found = begins(line, text);
    if (found)
        rest = line.substr(text.size());
    return found;
}

// The same for a text that stands behind the name of a step that posts.
bool read_of_post(const std::string &line, const char *text, std::string &rest)
{
    return read_behind(line, std::string("atls_handshake").append(text), rest) ||
           read_behind(line, std::string("atls_easy_perform").append(text), rest);
}

// The names in the Cookie line of a request header list.
std::vector<std::string> cookie_names(const curl_slist *headers)
{
    constexpr const char *START = "Cookie: ";
    std::vector<std::string> names;
    for (; headers; headers = headers->next) {
        if (strncmp(headers->data, START, strlen(START)) != 0)
            continue;
        const std::string cookies = on_one_line(headers->data + strlen(START));
        for (size_t at = 0; at < cookies.size();
             at = std::min(cookies.find(';', at), cookies.size() - 1) + 1) {
            at = std::min(cookies.find_first_not_of(' ', at), cookies.size());
            names.push_back(cookies.substr(at, cookies.find_first_of("=;", at) - at));
        }
    }
    return names;
}

std::ostream &label(std::ostream &out, const char *name)
{
    return out << "  " << std::left << std::setw(16) << name;
}

size_t size_info(void *curl, CURLINFO info)
{
    curl_off_t size = 0;
    curl_easy_getinfo(curl, info, &size);
    return static_cast<size_t>(size);
}

// What the log's line on a failed TLS handshake says, of OpenSSL's text "error:NUMBER:LIBRARY:FUNCTION:REASON".
std::string tls_reason(const std::string &line, const EngineEvents &engine)
{
    if (!engine.refusal.empty())
        return "the service's certificate is refused: " + engine.refusal;
    if (engine.alert >= 0)
        return "the service refuses, TLS alert \"" + engine.alert_text() + "\"";
    const size_t start = line.find("=> [");
    const std::string text = line.substr(std::min(start + strlen("=> ["), line.size()));
    const std::string error = text.substr(0, text.find(']'));
    return "TLS: " + error.substr(error.rfind(':') + 1);
}

} // namespace

std::string without_credentials(const std::string &proxy)
{
    const size_t at = proxy.rfind('@');
    if (at == std::string::npos)
        return on_one_line(proxy);
    const size_t scheme = proxy.find("://");
    const size_t blank = proxy.find(' ');
    const size_t start = scheme < at ? scheme + strlen("://") : blank < at ? blank + 1 : 0;
    return on_one_line(proxy.substr(0, start) + proxy.substr(at + 1));
}

std::vector<std::string> proxy_environment()
{
    std::vector<std::string> names;
    for (const char *name : {"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY", "no_proxy", "NO_PROXY"})
        if (getenv(name))
            names.emplace_back(name);
    return names;
}

std::string joined(const std::vector<std::string> &texts, const char *between)
{
    std::string all;
    for (const std::string &text : texts)
        all += (all.empty() ? "" : between) + text;
    return all;
}

// ---- The log

void Explanation::take(const std::string &line)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (begins(line, "init_tl_curl: Transport layer initialized!")) {
        observer_.attach();
        if (chosen_ == start_)
            chosen_ = Clock::now();
    }
    take_route(line);
    take_reason(line);
    last_line_ = Clock::now();
}

void Explanation::take_route(const std::string &line)
{
    static constexpr std::array<std::pair<const char *, const char *>, 3> NO_PROXY = {{
        {"setProxyParams: create_proxy_manager_client fail!", "none: the proxy manager cannot be reached"},
        {"setProxyParams Exit since http proxy mode is off",
         "none: the proxy mode is off, or there was no answer"},
        {"setProxyParams Fail to found any available proxy url", "none: the proxy manager knows of none"},
    }};
    const std::string query = "ProxyManagerClientImpl-getProxyUrl ";
    std::string rest;
    if (begins(line, "enter setProxyParams ")) { // another connection
        offered_.clear();
        proxy_ = "no proxy";
    } else if (read_behind(line, query + "proxy mode is manual. proxyUrl:", rest))
        take_offer(rest.substr(0, rest.find(", useName:")));
    else if (read_behind(line, query + "response from proxy manager service, index:", rest) ||
             read_behind(line, query + "get proxy url from cache, index:", rest))
        take_offer(rest.substr(rest.find(':') + 1)); // behind the index and its name
    else if (read_of_post(line, ": curl_rc:", rest))
        take_failure(rest);
    else if (read_of_post(line, " connect with http proxy:", rest))
        proxy_ = without_credentials(rest);
    else if (begins(line, "Direct connect without http proxy") ||
             begins(line, "setProxyParams Direct connect without http proxy"))
        proxy_ = "DIRECT";
    else if (read_of_post(line, ": Failed to preform post", rest) && !failures_.empty())
        failures_.back().final = true;
    else if (begins(line, "atls_easy_perform: ATLS received a ["))
        take_message();
    for (const auto &[text, why] : NO_PROXY)
        if (begins(line, text))
            why_no_proxy_ = why;
}

void Explanation::take_offer(const std::string &entry)
{
    const std::string proxy = without_credentials(entry);
    if (offered_.empty())
        proxy_ = begins(proxy, "PROXY ") ? proxy.substr(strlen("PROXY ")) : proxy;
    offered_.push_back(proxy);
}

void Explanation::take_failure(const std::string &code)
{
    Failure failure{proxy_,
                    "",
                    static_cast<int>(strtol(code.c_str(), nullptr, 10)),
                    0,
                    Seconds(Clock::now() - last_line_).count(),
                    false};
    failure.text = curl_easy_strerror(static_cast<CURLcode>(failure.code));
    curl_easy_getinfo(handle_.curl, CURLINFO_HTTP_CONNECTCODE, &failure.connect_status);
    if (failure.connect_status >= 400) {
        const std::string demanded = demanded_authentication(handle_.curl);
        failure.text = "the proxy refuses CONNECT with status " + std::to_string(failure.connect_status) +
                       (demanded.empty() ? "" : ", it demands " + demanded);
    }
    reason_ = (proxy_ == "no proxy" || proxy_ == "DIRECT" ? "" : proxy_ + ": ") + failure.text;
    failures_.push_back(std::move(failure));
}

void Explanation::take_message()
{
    if (carriers_.empty() || carriers_.back().first != proxy_)
        carriers_.emplace_back(proxy_, 0);
    carriers_.back().second++;
}

// Lines of the library that tell why something failed.
void Explanation::take_reason(const std::string &line)
{
    static constexpr std::array<std::pair<const char *, const char *>, 9> REASONS = {{
        {"atls_add_mic_to_ctx: Failed Fetch the MIC", "no device certificate, or one too long"},
        {"atls_add_mic_to_ctx: Failed Fetch the PKEY", "no device key, or one too long"},
        {"atls_add_mic_to_ctx: Failed to load MIC", "the device certificate is not DER"},
        {"atls_add_mic_to_ctx: Failed to load pkey", "the device key is not an RSA key in DER"},
        {"atls_add_mic_to_ctx:  SSL_check_private_key", "device certificate and key do not belong together"},
        {"atls_add_mic_to_ctx:  SSL_CTX_use_PrivateKey", "device certificate and key do not belong together"},
        {"init_al_ssl: Failed to set default Truststore", "the trust store cannot be used"},
        {"atls_handshake: Failed to get ATLS cookies",
         "cookies of more than 1022 characters in one response"},
        {"atls_easy_perform: Failed to get ATLS cookies",
         "cookies of more than 1022 characters in one response"},
    }};
    std::string rest;
    if (begins(line, "enter setProxyParams "))
        reason_.clear();
    else if (begins(line, "atls_handshake: TLS handshake failed"))
        reason_ = tls_reason(line, observer_.engine());
    else if (read_behind(line, "atls_handshake: Failed to get valid server response status_code=>[", rest))
        reason_ = "HTTP status " + rest.substr(0, rest.find(']')) +
                  (observer_.responses().empty() ? "" : " from " + observer_.responses().back().address);
    else if (read_behind(line, "Curl error [", rest) && !failures_.empty() &&
             !failures_.back().connect_status)
        reason_ = rest.substr(std::min(rest.find(" maps to [") + strlen(" maps to ["), rest.size()));
    if (begins(line, "Curl error [") && reason_.find("] buffer") != std::string::npos)
        reason_.erase(reason_.find("] buffer"));
    for (const auto &[text, why] : REASONS)
        if (begins(line, text))
            reason_ = why;
}

// ---- The connection

void Explanation::connected()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (connections_++ == 0)
        connected_ = Clock::now();
    if (handle_.ssl)
        session_ = SSL_get_version(handle_.ssl) + std::string(", ") + SSL_get_cipher_name(handle_.ssl);
}

void Explanation::exchanged(const atls_resp &answer, size_t message_length)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    messages_++;
    sent_ += message_length;
    posted_ += size_info(handle_.curl, CURLINFO_SIZE_UPLOAD_T);
    answered_ += answer.body_len;
    received_ += answer.header_len + size_info(handle_.curl, CURLINFO_SIZE_DOWNLOAD_T);
    status_ = answer.status_code;
    tracking_id_ = on_one_line(answer.tracking_id ? answer.tracking_id : "");
    cookies_ = cookie_names(handle_.header_opts);
    peer_ = peer_of(handle_.curl);
}

std::string Explanation::reason() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return reason_;
}

void Explanation::set_reason(std::string reason)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    reason_ = std::move(reason);
}

void Explanation::failed(const std::string &why)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (reported_.empty())
        reported_ = why;
}

// ---- The explanation

// Seconds of the proxy selection, of the handshake and of the messages.
std::array<double, 3> Explanation::times() const
{
    const auto seconds = [](Clock::duration time) {
        return Seconds(std::max(time, Clock::duration{})).count();
    };
    return {seconds(chosen_ - start_), seconds(connected_ - chosen_),
            connections_ > 0 ? seconds(Clock::now() - connected_) : 0};
}

void Explanation::write(std::ostream &out, bool as_json_text) const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (as_json_text)
        out << as_json().dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
    else
        write_text(out);
    out.flush();
}

void Explanation::write_text(std::ostream &out) const
{
    out << "atls-post: " << url_ << '\n';
    write_route(out);
    if (!reported_.empty())
        label(out, "reason") << reported_ << '\n';
    if (!session_.empty())
        label(out, "inner session") << session_ << '\n';
    if (connections_ > 1)
        label(out, "connected anew") << connections_ - 1 << (connections_ == 2 ? " time" : " times")
                                     << ", after failures, unencrypted answers or closed sessions\n";
    if (messages_ > 0)
        write_answer(out);
    const auto [selection, handshake, messages] = times();
    label(out, "time") << std::fixed << std::setprecision(3) << "proxy selection " << selection
                       << " s, handshake " << handshake << " s, messages " << messages << " s\n";
}

void Explanation::write_route(std::ostream &out) const
{
    label(out, "proxies offered") << (offered_.empty() ? why_no_proxy_ : joined(offered_, "; ")) << '\n';
    for (const Failure &failure : failures_)
        label(out, failure.final ? "failed at" : "passed over")
            << failure.proxy << ": " << failure.text << " (libcurl's result " << failure.code << "), after "
            << std::fixed << std::setprecision(3) << failure.seconds << " s\n";
    label(out, "carried by") << (carriers_.empty() ? "nothing" : "");
    for (const auto &[proxy, messages] : carriers_) {
        out << (&proxy == &carriers_.front().first ? "" : ", then ") << proxy;
        if (carriers_.size() > 1)
            out << " (" << messages << " messages)";
    }
    out << (peer_.empty() ? "" : ", connected to " + peer_) << '\n';
    if (const auto names = proxy_environment(); !names.empty())
        label(out, "environment") << joined(names, ", ")
                                  << ", which libcurl heeds as well: see the address\n";
}

void Explanation::write_answer(std::ostream &out) const
{
    label(out, "status") << status_ << '\n';
    label(out, "cookies kept") << (cookies_.empty() ? "none" : joined(cookies_, ", ")) << '\n';
    label(out, "tracking id") << (tracking_id_.empty() ? "none" : tracking_id_) << '\n';
    label(out, "sent") << sent_ << " bytes in " << messages_
                       << (messages_ == 1 ? " message, " : " messages, ") << posted_ << " as TLS records\n";
    label(out, "received") << answered_ << " bytes, " << received_ << " as response headers and records\n";
}

Explanation::Json Explanation::route_as_json() const
{
    Json failures = Json::array(), carriers = Json::array();
    for (const Failure &failure : failures_)
        failures.push_back({{"proxy", failure.proxy},
                            {"reason", failure.text},
                            {"libcurl", failure.code},
                            {"connect_status", failure.connect_status},
                            {"seconds", failure.seconds},
                            {"final", failure.final}});
    for (const auto &[proxy, messages] : carriers_)
        carriers.push_back({{"proxy", proxy}, {"messages", messages}});
    return {{"offered", offered_},  {"none_because", offered_.empty() ? Json(why_no_proxy_) : Json()},
            {"failures", failures}, {"carriers", carriers},
            {"address", peer_},     {"environment", proxy_environment()}};
}

Explanation::Json Explanation::as_json() const
{
    const auto [selection, handshake, messages] = times();
    return {
        {"url", url_},
        {"reason", reported_.empty() ? Json() : Json(reported_)},
        {"route", route_as_json()},
        {"session", session_.empty() ? Json() : Json(session_)},
        {"connections", connections_},
        {"messages", messages_},
        {"status", status_},
        {"cookies", cookies_},
        {"tracking_id", tracking_id_.empty() ? Json() : Json(tracking_id_)},
        {"bytes", {{"sent", sent_}, {"posted", posted_}, {"answered", answered_}, {"received", received_}}},
        {"seconds", {{"selection", selection}, {"handshake", handshake}, {"messages", messages}}}};
}
