// Reference ATLS service: session store and HTTPS front end.

#include "atls_service.h"

#include <array>
#include <cerrno>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

#include <httplib.h>
#include <netdb.h>
#include <openssl/rand.h>

namespace atls_service
{

namespace
{

using Clock = std::chrono::steady_clock;

constexpr const char *COOKIE_NAME = "atls-session";
constexpr size_t MAX_BODY = size_t{64} << 20;

std::string random_id()
{
    std::array<unsigned char, 16> bytes{};
    if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1)
        throw std::runtime_error("no random bytes");
    std::string text;
    for (const unsigned char byte : bytes) {
        constexpr const char *DIGITS = "0123456789abcdef";
        text += DIGITS[byte >> 4];
        text += DIGITS[byte & 15];
    }
    return text;
}

// The value of our cookie in a Cookie header such as "a=1;atls-session=..."; empty when it is not there.
std::string session_id_of(const httplib::Request &request)
{
    const std::string name = std::string(COOKIE_NAME) + "=";
    const std::string cookies = request.get_header_value("Cookie");
    const size_t start = cookies.find(name);
    if (start == std::string::npos)
        return {};
    const size_t value = start + name.size();
    return cookies.substr(value, cookies.find(';', value) - value);
}

std::string why_not_bound(const std::string &host, int error)
{
    addrinfo *found = nullptr;
    const int unknown = getaddrinfo(host.c_str(), nullptr, nullptr, &found);
    if (unknown != 0)
        return gai_strerror(unknown);
    freeaddrinfo(found);
    return std::generic_category().message(error);
}

// Sessions by their cookie. Idle ones are dropped when the store is used, so no thread watches over them.
class SessionStore
{
public:
    struct Entry {
        std::string id;
        std::shared_ptr<InnerSession> session;
    };

    SessionStore(SSL_CTX *ctx, const Options &options) : ctx_(ctx), options_(options) {}

    // Finds the session of a cookie or makes a new one, under a new cookie.
    Entry open(const std::string &id)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        drop_idle();
        const auto found = sessions_.find(id);
        if (found != sessions_.end()) {
            found->second.last_used = Clock::now();
            return {id, found->second.session};
        }
        while (!sessions_.empty() && sessions_.size() >= options_.max_sessions)
            drop_oldest();
        Entry entry{random_id(), std::make_shared<InnerSession>(ctx_, options_.inner.key_updates)};
        sessions_[entry.id] = {entry.session, Clock::now()};
        return entry;
    }

    void drop(const std::string &id)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        sessions_.erase(id);
    }

    size_t count()
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        drop_idle();
        return sessions_.size();
    }

private:
    struct Held {
        std::shared_ptr<InnerSession> session;
        Clock::time_point last_used;
    };
    using Sessions = std::map<std::string, Held>;

    Sessions::iterator drop(Sessions::iterator held, const char *why)
    {
        if (options_.log)
            options_.log("session " + held->first + " dropped: " + why);
        return sessions_.erase(held);
    }

    void drop_idle()
    {
        const auto now = Clock::now();
        for (auto held = sessions_.begin(); held != sessions_.end();)
            held = now - held->second.last_used > options_.idle_limit ? drop(held, "idle") : std::next(held);
    }

    void drop_oldest()
    {
        auto oldest = sessions_.begin();
        for (auto held = sessions_.begin(); held != sessions_.end(); ++held)
            if (held->second.last_used < oldest->second.last_used)
                oldest = held;
        drop(oldest, "too many sessions");
    }

    SSL_CTX *ctx_;
    const Options &options_;
    std::mutex mutex_;
    Sessions sessions_;
};

} // namespace

class AtlsService::Impl
{
public:
    explicit Impl(Options options)
        : options_(std::move(options)), ctx_(make_inner_context(options_.inner)),
          sessions_(ctx_.get(), options_), front_(make_front(options_))
    {
        prepare_front();
        listen();
    }

    ~Impl()
    {
        front_->stop();
        thread_.join();
    }

    Impl(const Impl &) = delete;
    Impl &operator=(const Impl &) = delete;

    int port() const { return port_; }
    size_t session_count() { return sessions_.count(); }

private:
    static std::unique_ptr<httplib::Server> make_front(const Options &options)
    {
        if (options.plain)
            return std::make_unique<httplib::Server>();
        const SslCtxPtr trial(SSL_CTX_new(TLS_server_method())); // the library would not tell what is wrong
        use_certificate(trial.get(), options.front_certificate, options.front_key);
        auto front = std::make_unique<httplib::SSLServer>(options.front_certificate.c_str(),
                                                          options.front_key.c_str());
        if (!front->is_valid())
            throw std::runtime_error("cannot use " + options.front_certificate);
        return front;
    }

    void prepare_front()
    {
        front_->set_tcp_nodelay(true);
        front_->set_keep_alive_max_count(1000000);
        front_->set_payload_max_length(MAX_BODY);
        front_->new_task_queue = [this] { return new httplib::ThreadPool(options_.max_connections); };
        // Not SO_REUSEPORT, as the library would: two services on one port would share its connections.
        front_->set_socket_options([](socket_t listener) {
            const int on = 1;
            setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        });
        front_->Post(".*", [this](const httplib::Request &request, httplib::Response &response) {
            const Reply reply = serve(request);
            response.status = reply.status;
            for (const auto &[name, value] : reply.headers)
                response.set_header(name, value);
            response.body = reply.body;
        });
    }

    void listen()
    {
        if (options_.port == 0)
            port_ = front_->bind_to_any_port(options_.host);
        else
            port_ = front_->bind_to_port(options_.host, options_.port) ? options_.port : -1;
        if (port_ <= 0) {
            const std::string reason = why_not_bound(options_.host, errno);
            throw std::runtime_error("cannot listen on " + options_.host + ":" +
                                     std::to_string(options_.port) + ": " + reason);
        }
        thread_ = std::thread([this] { front_->listen_after_bind(); });
        while (!front_->is_running()) // stop() would have no effect before
            std::this_thread::yield();
    }

    Reply serve(const httplib::Request &request)
    {
        const std::string wanted = session_id_of(request);
        const SessionStore::Entry entry = sessions_.open(wanted);
        if (!wanted.empty() && entry.id != wanted)
            log("session " + wanted + " unknown, now " + entry.id);
        const Outcome outcome = entry.session->serve(request.body, options_.answer);
        report(entry, outcome, request.get_header_value("User-Agent"));
        if (outcome.ended)
            sessions_.drop(entry.id);

        Reply reply = make_reply(entry.id == wanted ? "" : entry.id, outcome);
        if (request.has_header("TrackingID"))
            reply.headers.emplace("TrackingID", request.get_header_value("TrackingID"));
        if (options_.on_reply)
            options_.on_reply(request.body, reply);
        return reply;
    }

    // A session that is new has its identifier in a cookie. Later responses have none: it would replace all cookies that
    // the device has, those of a load balancer too.
    static Reply make_reply(const std::string &new_id, const Outcome &outcome)
    {
        Reply reply;
        if (outcome.closed_by_device) {
            reply.status = 204;
            return reply;
        }
        if (outcome.records.empty()) { // not even an alert to send
            reply.status = 400;
            reply.headers.emplace("Content-Type", "text/plain");
            reply.body = outcome.reason + "\n";
            return reply;
        }
        reply.headers.emplace("Content-Type", "application/octet-stream");
        if (!outcome.ended && !new_id.empty())
            reply.headers.emplace("Set-Cookie",
                                  std::string(COOKIE_NAME) + "=" + new_id + "; Path=/; Secure; HttpOnly");
        reply.body = outcome.records;
        return reply;
    }

    void report(const SessionStore::Entry &entry, const Outcome &outcome, const std::string &user_agent)
    {
        if (outcome.established)
            log("session " + entry.id + " established: " + entry.session->description() + ", User-Agent " +
                user_agent);
        if (outcome.answered)
            log("session " + entry.id + " message answered");
        if (outcome.ended)
            log("session " + entry.id + " refused: " + outcome.reason);
    }

    void log(const std::string &line)
    {
        if (options_.log)
            options_.log(line);
    }

    const Options options_;
    SslCtxPtr ctx_;
    SessionStore sessions_;
    std::unique_ptr<httplib::Server> front_;
    int port_ = -1;
    std::thread thread_;
};

Options options_of(const std::string &folder)
{
    const std::string keys = folder + "/service/";
    Options options;
    options.front_certificate = keys + "front-cert.pem";
    options.front_key = keys + "front-key.pem";
    options.inner = {keys + "service-cert.pem", keys + "service-key.pem", keys + "device-ca.pem"};
    return options;
}

AtlsService::AtlsService(Options options) : impl_(std::make_unique<Impl>(std::move(options)))
{
}
AtlsService::~AtlsService() = default;

int AtlsService::port() const
{
    return impl_->port();
}

size_t AtlsService::session_count() const
{
    return impl_->session_count();
}

} // namespace atls_service
