// Callbacks of libcurl and OpenSSL that only look.

#include "observer.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include <openssl/ssl3.h>
#include <openssl/x509.h>
#include <strings.h>
#include <unistd.h>

#include "proxy_text.h"

namespace
{

using proxy_text::on_one_line;

constexpr size_t RESPONSES_KEPT = 8;
constexpr auto PROGRESS_AFTER = std::chrono::seconds(1);
constexpr auto PROGRESS_EVERY = std::chrono::milliseconds(200);

int observer_index()
{
    static const int index = SSL_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
    return index;
}

bool begins_with(const std::string &text, const char *start)
{
    return text.rfind(start, 0) == 0;
}

// The version of the outer TLS, while a transfer is under way.
std::string outer_tls_of(CURL *curl)
{
    const curl_tlssessioninfo *session = nullptr;
    if (curl_easy_getinfo(curl, CURLINFO_TLS_SSL_PTR, &session) != CURLE_OK || !session ||
        session->backend != CURLSSLBACKEND_OPENSSL || !session->internals)
        return {};
    return SSL_get_version(static_cast<const SSL *>(session->internals));
}

// Why a certificate is refused, on the way through OpenSSL.
std::string refusal_text(X509_STORE_CTX *store) noexcept
{
    const std::string why = X509_verify_cert_error_string(X509_STORE_CTX_get_error(store));
    const X509 *certificate = X509_STORE_CTX_get_current_cert(store);
    return certificate ? name_text(X509_get_subject_name(certificate)) + ", issued by " +
                             name_text(X509_get_issuer_name(certificate)) + ": " + why
                       : why;
}

} // namespace

std::string EngineEvents::alert_text() const
{
    return alert < 0 ? "" : SSL_alert_desc_string_long(alert);
}

void keep_quiet(CURL *curl)
{
    curl_easy_setopt(
        curl, CURLOPT_DEBUGFUNCTION, +[](CURL *, curl_infotype, char *, size_t, void *) { return 0; });
}

std::string peer_of(CURL *curl)
{
    const char *address = nullptr;
    long port = 0;
    curl_easy_getinfo(curl, CURLINFO_PRIMARY_IP, &address);
    curl_easy_getinfo(curl, CURLINFO_PRIMARY_PORT, &port);
    return address && *address ? address + std::string(" port ") + std::to_string(port) : "";
}

std::string demanded_authentication(CURL *curl)
{
    static constexpr std::array<std::pair<long, const char *>, 4> WAYS = {
        {{CURLAUTH_BASIC, "Basic"},
         {CURLAUTH_DIGEST, "Digest"},
         {CURLAUTH_NTLM, "NTLM"},
         {CURLAUTH_NEGOTIATE, "Negotiate"}}};
    long demanded = 0;
    curl_easy_getinfo(curl, CURLINFO_PROXYAUTH_AVAIL, &demanded);
    std::string names;
    for (const auto &[bit, name] : WAYS)
        if (demanded & bit)
            names += (names.empty() ? "" : ", ") + std::string(name);
    return names;
}

std::string name_text(const X509_NAME *name)
{
    std::array<char, 256> text{};
    X509_NAME_oneline(name, text.data(), static_cast<int>(text.size()));
    return on_one_line(text.data());
}

std::string Response::header(const char *name) const
{
    const size_t length = strlen(name);
    for (const std::string &line : headers)
        if (strncasecmp(line.c_str(), name, length) == 0 && line[length] == ':')
            return line.substr(std::min(line.find_first_not_of(' ', length + 1), line.size()));
    return {};
}

std::vector<std::string> Response::cookies() const
{
    constexpr const char *NAME = "Set-Cookie:";
    std::vector<std::string> names;
    for (const std::string &line : headers)
        if (strncasecmp(line.c_str(), NAME, strlen(NAME)) == 0) {
            const std::string cookie =
                line.substr(std::min(line.find_first_not_of(' ', strlen(NAME)), line.size()));
            names.push_back(cookie.substr(0, cookie.find_first_of("=;")));
        }
    return names;
}

// ---- The request object

void Observer::attach()
{
    responses_.clear();
    engine_ = {};
    watched_ = nullptr;
    CURL *curl = handle_.curl;
    if (!curl) // it is another connection's
        return;
    curl_easy_setopt(curl, CURLOPT_DEBUGFUNCTION, on_debug);
    curl_easy_setopt(curl, CURLOPT_DEBUGDATA, this);
    if (isatty(STDERR_FILENO) && !trace_) {
        post_start_ = Clock::now();
        curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, on_progress);
        curl_easy_setopt(curl, CURLOPT_XFERINFODATA, this);
        curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
    }
}

// The handle may live longer.
Observer::~Observer()
{
    CURL *curl = handle_.curl;
    if (!curl)
        return;
    curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 1L);
    keep_quiet(curl);
}

int Observer::on_debug(CURL *curl, curl_infotype type, char *data, size_t size, void *self)
{
    static constexpr std::array<const char *, 3> PREFIXES = {"* ", "< ", "> "}; // as libcurl has them
    auto *observer = static_cast<Observer *>(self);
    if (observer->trace_ && static_cast<size_t>(type) < PREFIXES.size()) {
        fputs(PREFIXES[static_cast<size_t>(type)], stderr);
        fwrite(data, 1, size, stderr);
    }
    try {
        if (type == CURLINFO_HEADER_OUT)
            observer->take_request(std::string(data, size));
        else if (type == CURLINFO_HEADER_IN)
            observer->take_header(curl, on_one_line(std::string(data, size)));
    } catch (const std::bad_alloc &) { // a line less is known
    }
    return 0;
}

void Observer::take_request(const std::string &header)
{
    watch_engine();
    in_tunnel_ = begins_with(header, "CONNECT ");
    if (in_tunnel_)
        return;
    if (responses_.size() == RESPONSES_KEPT)
        responses_.erase(responses_.begin());
    responses_.emplace_back();
}

void Observer::take_header(CURL *curl, const std::string &line)
{
    if (in_tunnel_ || responses_.empty())
        return;
    Response &response = responses_.back();
    if (!begins_with(line, "HTTP/")) {
        response.headers.push_back(line);
        return;
    }
    response.headers.clear(); // those of an interim response
    response.status = strtol(line.c_str() + std::min(line.find(' '), line.size()), nullptr, 10);
    long connections = 0;
    curl_easy_getinfo(curl, CURLINFO_NUM_CONNECTS, &connections);
    response.new_connection = connections > 0;
    response.address = peer_of(curl);
    response.outer_tls = outer_tls_of(curl);
}

int Observer::on_progress(void *self, curl_off_t, curl_off_t down, curl_off_t, curl_off_t up)
{
    auto *observer = static_cast<Observer *>(self);
    const auto now = Clock::now();
    if (now < observer->post_start_ + PROGRESS_AFTER)
        return 0;
    static Clock::time_point shown;
    if (now < shown + PROGRESS_EVERY)
        return 0;
    shown = now;
    fprintf(stderr, "\r%s: %.0f s, %lld bytes up, %lld down \033[K", "atls-post",
            std::chrono::duration<double>(now - observer->post_start_).count(), static_cast<long long>(up),
            static_cast<long long>(down));
    observer->progress_shown_ = true;
    return 0;
}

void Observer::clear_progress()
{
    if (progress_shown_)
        fputs("\r\033[K", stderr);
    progress_shown_ = false;
    post_start_ = Clock::now();
}

// ---- The engine

// It is there when the first post begins. What the platform has set is called as before.
void Observer::watch_engine()
{
    SSL *ssl = handle_.ssl;
    if (!ssl || ssl == watched_)
        return;
    watched_ = ssl;
    SSL_set_msg_callback(ssl, on_message);
    SSL_set_msg_callback_arg(ssl, this);
    platform_verify_ = SSL_get_verify_callback(ssl);
    SSL_set_ex_data(ssl, observer_index(), this);
    SSL_set_verify(ssl, SSL_get_verify_mode(ssl), on_verify);
}

void Observer::on_message(int sent, int, int type, const void *data, size_t size, SSL *, void *self)
{
    EngineEvents &engine = static_cast<Observer *>(self)->engine_;
    const auto *bytes = static_cast<const unsigned char *>(data);
    if (sent || size < 2)
        return;
    if (type == SSL3_RT_HANDSHAKE && bytes[0] == SSL3_MT_CERTIFICATE_REQUEST)
        engine.certificate_asked = true;
    else if (type == SSL3_RT_ALERT && bytes[1] != SSL_AD_CLOSE_NOTIFY)
        engine.alert = bytes[1];
}

int Observer::on_verify(int verified, X509_STORE_CTX *store)
{
    const auto *ssl =
        static_cast<const SSL *>(X509_STORE_CTX_get_ex_data(store, SSL_get_ex_data_X509_STORE_CTX_idx()));
    auto *self = static_cast<Observer *>(SSL_get_ex_data(ssl, observer_index()));
    if (!verified && self->engine_.refusal.empty())
        self->engine_.refusal = refusal_text(store);
    return self->platform_verify_ ? self->platform_verify_(verified, store) : verified;
}
