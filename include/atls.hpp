/**
 * @file atls.hpp
 * Application-layer TLS over HTTPS POSTs, for C++17 programs: atls.h with its rules built in.
 *
 *     atls::Connection connection({"service.example", 443, "/atls"});
 *     const atls::Answer answer = connection.send("hello", atls::Options::within(std::chrono::seconds(10)));
 *     use(answer.body());
 *
 * A header and nothing else: programs link libatls, libcurl and OpenSSL (pkg-config module atls-cpp, CMake target
 * atls::cpp). What fails throws atls::Error from the functions with plain names, and is a std::error_code from those
 * that begin with try_ and from Connection::open. Without exceptions (-fno-exceptions) there are the latter only; RTTI
 * is not needed. No exception enters libcurl or the library: what a progress function throws ends the exchange and comes
 * out of the call that it interrupted.
 *
 * Threads: a Connection, and an Answer, belong to one thread at a time; different ones may be used at once. A
 * CancelSource is for all threads and for signal handlers.
 *
 * Fork: a child process makes connections of its own. Those of its parent count as not connected there, and destroying
 * them touches nothing that the two processes share. The rest of what atls.h says about fork holds here, too.
 *
 * Blocking: as atls.h says, but for deadline and cancellation, which take effect while the network is silent. They do not
 * while the proxy manager is asked, where libcurl's threaded resolver waits for getaddrinfo, or in a platform layer.
 *
 * The OpenSSL error queue of the calling thread is emptied; only after a failed handshake the reason stands there.
 */
#ifndef ATLS_HPP
#define ATLS_HPP

#include "atls.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <type_traits>
#include <utility>

#include <curl/curl.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <unistd.h>

/** The C++ interface of atls.h. */
namespace atls
{

/** What an operation came to: the results of atls.h under their numbers, and those of this interface. */
enum class Errc : int {
    ok = ATLS_OK,                       /**< success */
    invalid_input = ATLS_INVALID_INPUT, /**< an argument that cannot be used, or the session has ended */
    setup_failed = ATLS_SETUP_FAILED,   /**< device certificate, key or trust store, or no memory */
    handshake_failed = ATLS_HANDSHAKE_FAILED,   /**< network, proxy, or refused certificate */
    bad_response = ATLS_BAD_RESPONSE,           /**< a response that cannot be processed */
    no_cookie = ATLS_NO_COOKIE,                 /**< internal */
    exchange_failed = ATLS_EXCHANGE_FAILED,     /**< the message was not sent, or no answer came back */
    unexpected_status = ATLS_UNEXPECTED_STATUS, /**< an HTTP status other than 200 and 400 in the handshake */
    unprotected = 32,                           /**< the body of the answer is not the session's */
    unread_data,   /**< more waits behind the end of the answer: the service writes short records */
    in_doubt,      /**< an earlier exchange left the session in doubt: reconnect first */
    not_connected, /**< closed, never connected, or of the parent process */
    cancelled,     /**< equivalent to std::errc::operation_canceled */
    timed_out      /**< the deadline has passed; equivalent to std::errc::timed_out */
};

} // namespace atls

/// @cond
template <>
struct std::is_error_code_enum<atls::Errc> : std::true_type {
};
/// @endcond

namespace atls
{

/// @cond
namespace detail
{

// Errors are compared by the address of their category, which shall be one for all libraries of a process.
#define ATLS_HPP_SHARED __attribute__((visibility("default")))

class ATLS_HPP_SHARED Category : public std::error_category
{
public:
    const char *name() const noexcept override { return "atls"; }
    std::string message(int value) const override { return text(static_cast<Errc>(value)); }
    std::error_condition default_error_condition(int value) const noexcept override
    {
        switch (static_cast<Errc>(value)) {
        case Errc::invalid_input:
            return std::errc::invalid_argument;
        case Errc::not_connected:
            return std::errc::not_connected;
        case Errc::cancelled:
            return std::errc::operation_canceled;
        case Errc::timed_out:
            return std::errc::timed_out;
        default:
            return {value, *this};
        }
    }

private:
    static const char *text(Errc value)
    {
        switch (value) {
        case Errc::ok:
            return "success";
        case Errc::invalid_input:
            return "invalid arguments, or the session has ended";
        case Errc::setup_failed:
            return "set-up failed: device certificate, key or trust store";
        case Errc::handshake_failed:
            return "handshake failed";
        case Errc::bad_response:
            return "the response could not be processed";
        case Errc::no_cookie:
            return "no cookie";
        case Errc::exchange_failed:
            return "the message could not be exchanged";
        case Errc::unexpected_status:
            return "unexpected HTTP status in the handshake";
        case Errc::unprotected:
            return "the answer is not protected by the session";
        case Errc::unread_data:
            return "more waits behind the end of the answer";
        case Errc::in_doubt:
            return "the session is in doubt: connect again";
        case Errc::not_connected:
            return "not connected";
        case Errc::cancelled:
            return "cancelled";
        case Errc::timed_out:
            return "the deadline has passed";
        }
        return "unknown result";
    }
};

} // namespace detail
/// @endcond

/**
 * The category of the errors of this interface.
 *
 * @return the one object, which is never destroyed
 */
ATLS_HPP_SHARED inline const std::error_category &category() noexcept
{
    alignas(detail::Category) static unsigned char room[sizeof(detail::Category)];
    static const detail::Category *const object = new (room) detail::Category;
    return *object;
}

/**
 * Makes an error code; found by std::error_code.
 *
 * @param value  the result
 *
 * @return its code in category(); no error for ok
 */
inline std::error_code make_error_code(Errc value) noexcept
{
    return value == Errc::ok ? std::error_code() : std::error_code(static_cast<int>(value), category());
}

// Files that are compiled with exceptions and files that are not may meet in one program.
#if defined(__cpp_exceptions)
/** What is compiled with exceptions; its names are those of atls. */
inline namespace with_exceptions
#else
inline namespace without_exceptions
#endif
{

#if defined(__cpp_exceptions)
/** What the throwing functions throw. */
class Error : public std::system_error
{
public:
    using std::system_error::system_error;
};
#endif

/** A value, or the error in its place. Look before the value is used. */
template <typename Value>
class [[nodiscard]] Result
{
public:
    /** Success. @param value  the value */
    Result(Value value) : value_(std::move(value)) {}
    /** Failure. @param error  why */
    Result(std::error_code error) : error_(error) {}
    /** Failure. @param error  why */
    Result(Errc error) : error_(error) {}

    /** @return whether there is a value */
    explicit operator bool() const noexcept { return value_.has_value(); }
    /** @return why there is no value; no error when there is one */
    std::error_code error() const noexcept { return error_; }
    /** @return the value, which must be there */
    Value &operator*() &noexcept { return *value_; }
    /** @return the value, which must be there */
    Value &&operator*() &&noexcept { return std::move(*value_); }
    /** @return the value, which must be there */
    Value *operator->() noexcept { return &*value_; }
    /** @return the value, which must be there */
    const Value &operator*() const &noexcept { return *value_; }
    /** @return the value, which must be there */
    const Value *operator->() const noexcept { return &*value_; }
#if defined(__cpp_exceptions)
    /** Takes the value out. @return it; throws Error when there is none */
    Value value() &&
    {
        if (!value_)
            throw Error(error_);
        return std::move(*value_);
    }
#endif

private:
    std::optional<Value> value_;
    std::error_code error_;
};

/** Where a service is. */
struct Target {
    std::string host;             /**< name or address, at most 511 characters; IPv6 in its brackets */
    int port = 443;               /**< TCP port, 1 to 65535 */
    std::string path = "/";       /**< begins with "/"; the URL has at most 1,023 characters */
    std::string tracking_id = {}; /**< TrackingID header of all requests, on one line; empty: none */
};

/** Bytes of the caller's: a text, or a pointer and a length. Holds no copy. */
class Bytes
{
public:
    /** @param text  ends with its NUL */
    Bytes(const char *text) noexcept : bytes_(text) {}
    /** @param text  any bytes */
    Bytes(std::string_view text) noexcept : bytes_(text) {}
    /** @param text  any bytes; outlives the call that it is given to */
    Bytes(const std::string &text) noexcept : bytes_(text) {}
    /** @param data  any bytes @param size  how many */
    Bytes(const void *data, size_t size) noexcept : bytes_(static_cast<const char *>(data), size) {}

    /** @return the first byte */
    const char *data() const noexcept { return bytes_.data(); }
    /** @return how many there are */
    size_t size() const noexcept { return bytes_.size(); }

private:
    std::string_view bytes_;
};

/** Cancels what was given a token of it. Copies are the same source. */
class CancelSource
{
public:
    CancelSource() : flag_(std::make_shared<std::atomic<bool>>(false)) {}
    /** Another name of the same source; so is what would be moved. @param other  the source */
    CancelSource(const CancelSource &other) = default;
    /** Makes this another name of that source. @param other  the source @return this */
    CancelSource &operator=(const CancelSource &other) = default;

    /** Cancels, for good. May be called on any thread, and in a signal handler. */
    void cancel() const noexcept { *flag_ = true; }
    /** @return whether it has been cancelled */
    bool is_cancelled() const noexcept { return *flag_; }

private:
    friend class CancelToken;
    std::shared_ptr<std::atomic<bool>> flag_;
};

/** Tells whether its source has been cancelled; without a source it never is. */
class CancelToken
{
public:
    CancelToken() = default;
    /** @param source  whose cancellation is told */
    CancelToken(const CancelSource &source) : flag_(source.flag_) {}
    /** @return whether the source has been cancelled */
    bool is_cancelled() const noexcept { return flag_ && *flag_; }
    /** @return whether there is a source */
    bool has_source() const noexcept { return flag_ != nullptr; }

private:
    std::shared_ptr<const std::atomic<bool>> flag_;
};

/** Bytes of the HTTP bodies under way; totals are 0 as long as they are not known. */
struct Progress {
    std::uint64_t sent = 0;       /**< of the encrypted message */
    std::uint64_t to_send = 0;    /**< its length */
    std::uint64_t received = 0;   /**< of the encrypted answer */
    std::uint64_t to_receive = 0; /**< its length */
};

/** The clock of deadlines. */
using Clock = std::chrono::steady_clock;

/** How an operation is to go. */
struct Options {
    std::optional<Clock::time_point> deadline =
        {};                  /**< of the whole operation, all proxies and attempts included;
                                                         the 30 seconds of each attempt of a post hold besides */
    CancelToken cancel = {}; /**< cancelled: the operation ends within about a second */
    /** Told of each change, on the calling thread. It must not use, move or destroy the connection; what it throws ends
        the operation and is thrown by it. */
    std::function<void(const Progress &)> progress = {};
    bool accept_unprotected =
        false;             /**< an answer that is not the session's is no error; the session is in doubt
                                          all the same */
    std::string path = {}; /**< for this message, in place of the target's */

    /**
     * Options with a deadline.
     *
     * @param limit  from now; of more than a year: no deadline
     *
     * @return the options
     */
    static Options within(std::chrono::milliseconds limit)
    {
        Options options;
        if (limit < std::chrono::hours(24 * 365))
            options.deadline = Clock::now() + limit;
        return options;
    }
};

/**
 * How often to try. Waits grow from delay to max_delay, each one a random half of it shorter at most, so that devices
 * which fail together do not come back together.
 */
struct Retry {
    int attempts = 3;                           /**< at most, the first one included */
    std::chrono::milliseconds delay{500};       /**< before the second; doubled for each one after it */
    std::chrono::milliseconds max_delay{30000}; /**< what the doubling stops at */
    bool repeatable =
        false; /**< the service may get the message twice: a message that may have arrived is repeated,
                                  too */
};

/// @cond
namespace detail
{

// The steps of atls_connect. docs/abi.md promises them, in this order, to programs that are compiled with this header.
// NOLINTBEGIN(readability-redundant-declaration): in the library's own tests they are declared already
extern "C" {
int init_tl_curl(atls_handle **handle, const char *service, const char *tracking_id);
int init_al_ssl(atls_handle **handle);
int atls_handshake(atls_handle *handle);
}
// NOLINTEND(readability-redundant-declaration)

constexpr long ATTEMPT_LIMIT_MS = 30000; // what the library gives each attempt of a post

inline bool is_clean(std::string_view text, std::string_view without)
{
    return std::none_of(text.begin(), text.end(), [&](char c) {
        return static_cast<unsigned char>(c) <= ' ' || c == '\x7f' || without.find(c) != without.npos;
    });
}

inline bool is_path(std::string_view path, size_t rest_of_url)
{
    return !path.empty() && path[0] == '/' && is_clean(path, "") && rest_of_url + path.size() < 1024;
}

// "https://", the host, ":" and five digits at the most.
inline size_t length_of_authority(const Target &target)
{
    return 14 + target.host.size();
}

// Nothing that would make another URL, or another header, than the fields say.
inline bool is_usable(const Target &target)
{
    const std::string &host = target.host;
    const bool is_address = !host.empty() && host[0] == '[';
    return !host.empty() && host.size() < ATLS_HOSTNAME_SIZE && is_clean(host, "/?#@\\") &&
           (is_address ? host.back() == ']' : host.find(':') == host.npos) && target.port >= 1 &&
           target.port <= 65535 && is_path(target.path, length_of_authority(target)) &&
           target.tracking_id.size() < 1000 &&
           std::none_of(target.tracking_id.begin(), target.tracking_id.end(),
                        [](char c) { return c == '\r' || c == '\n' || c == '\0'; });
}

// Watches over the posts of a handle while it is in scope: cancels them, ends them at the deadline, tells of progress.
// Neither handshake nor exchange sets one of these options; later posts of the handle find them as they were.
class Watch
{
public:
    Watch(atls_handle *handle, const Options &options) : handle_(handle), options_(options)
    {
        CURL *curl = handle->curl;
        (void)curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, &Watch::on_progress);
        (void)curl_easy_setopt(curl, CURLOPT_XFERINFODATA, this);
        (void)curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
        if (options.deadline) // libcurl's own limit is exact; a silent post asks us once a second
            (void)curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, time_left());
    }
    ~Watch()
    {
        CURL *curl = handle_->curl;
        if (!curl)
            return; // a failed step has emptied the handle
        (void)curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 1L);
        (void)curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, nullptr);
        (void)curl_easy_setopt(curl, CURLOPT_XFERINFODATA, nullptr);
        (void)curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, ATTEMPT_LIMIT_MS);
    }
    Watch(const Watch &) = delete;
    Watch &operator=(const Watch &) = delete;

    // Why the operation must end, if it must.
    static Errc reason_to_stop(const Options &options)
    {
        if (options.cancel.is_cancelled())
            return Errc::cancelled;
        return options.deadline && Clock::now() >= *options.deadline ? Errc::timed_out : Errc::ok;
    }

    // The error of a step with this result.
    Errc error_of(int result) const
    {
        if (result == ATLS_OK)
            return Errc::ok;
        if (stopped_ != Errc::ok)
            return stopped_;
        const Errc reason = reason_to_stop(options_);
        return reason == Errc::timed_out ? reason : static_cast<Errc>(result);
    }

    // Whether the body of a request has begun to leave, of any attempt: libcurl's number is that of the last.
    bool has_sent() const
    {
        curl_off_t sent = 0;
        return sent_ || !handle_->curl ||
               curl_easy_getinfo(handle_->curl, CURLINFO_SIZE_UPLOAD_T, &sent) != CURLE_OK || sent > 0;
    }

    std::exception_ptr thrown() const { return thrown_; }

private:
    long time_left() const
    {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(*options_.deadline - Clock::now());
        return static_cast<long>(std::clamp<std::int64_t>(left.count() + 1, 1, ATTEMPT_LIMIT_MS));
    }

    static int on_progress(void *self, curl_off_t to_receive, curl_off_t received, curl_off_t to_send,
                           curl_off_t sent) noexcept
    {
        const auto count = [](curl_off_t bytes) { return static_cast<std::uint64_t>(bytes); };
        return static_cast<Watch *>(self)->goes_on(
                   {count(sent), count(to_send), count(received), count(to_receive)})
                   ? 0
                   : 1;
    }

    bool goes_on(const Progress &now)
    {
        sent_ = sent_ || now.sent > 0;
        if (stopped_ == Errc::ok)
            stopped_ = reason_to_stop(options_);
        if (stopped_ == Errc::ok && options_.progress &&
            std::memcmp(&now, &told_, sizeof now) != 0) { // integers without gaps
            told_ = now;
            tell(now);
        }
        return stopped_ == Errc::ok;
    }

    void tell(const Progress &now)
    {
#if defined(__cpp_exceptions)
        try {
            options_.progress(now);
        } catch (...) {
            thrown_ = std::current_exception();
            stopped_ = Errc::cancelled;
        }
#else
        options_.progress(now);
#endif
    }

    atls_handle *handle_;
    const Options &options_;
    Errc stopped_ = Errc::ok;
    bool sent_ = false;
    Progress told_;
    std::exception_ptr thrown_;
};

// What the engine still holds once an answer has been read from it.
enum class Rest {
    nothing, // but perhaps session tickets or new keys
    end,     // the service has closed the session, or wants it negotiated anew
    data     // more, or what is no whole record
};

inline Rest rest_behind_answer(SSL *ssl)
{
    char byte = 0;
    ERR_clear_error(); // SSL_get_error looks there, too
    const int outcome = SSL_get_error(ssl, SSL_peek(ssl, &byte, 1));
    ERR_clear_error();
    if (outcome == SSL_ERROR_ZERO_RETURN)
        return Rest::end;
    if (outcome != SSL_ERROR_WANT_READ || SSL_has_pending(ssl) || BIO_ctrl_pending(SSL_get_rbio(ssl)) > 0)
        return Rest::data;
    return SSL_is_init_finished(ssl) ? Rest::nothing : Rest::end;
}

} // namespace detail
/// @endcond

/** The answer to one message, with all that belongs to it. Views end with it, so take none from a temporary. */
class Answer
{
public:
    /** Takes another's place. @param other  empty afterwards */
    Answer(Answer &&other) noexcept
        : record_(std::exchange(other.record_, {})), protected_(std::exchange(other.protected_, false))
    {
    }
    /** Takes another's place. @param other  holds what this one held @return this */
    Answer &operator=(Answer &&other) noexcept
    {
        std::swap(record_, other.record_);
        std::swap(protected_, other.protected_);
        return *this;
    }
    ~Answer() { cleanup_atls_resp(&record_); }

    /** @return the decrypted answer, or the body as received when it is not protected */
    std::string_view body() const &noexcept { return {record_.body ? record_.body : "", record_.body_len}; }
    std::string_view body() const && = delete;
    /** @return a copy of the body */
    std::string text() const { return std::string(body()); }
    /** @return whether the body is the service's: it was encrypted and is unaltered. Nothing else of an answer is. */
    bool is_protected() const noexcept { return protected_; }
    /** @return status line and header lines as received */
    std::string_view header() const &noexcept
    {
        return {record_.header ? record_.header : "", record_.header_len};
    }
    std::string_view header() const && = delete;
    /** @return the HTTP status */
    long status() const noexcept { return record_.status_code; }
    /** @return value of the TrackingID header, at most 64 characters; empty when there is none */
    std::string_view tracking_id() const &noexcept { return record_.tracking_id ? record_.tracking_id : ""; }
    std::string_view tracking_id() const && = delete;
    /** @return the record of atls.h, which stays this object's */
    const atls_resp &record() const &noexcept { return record_; }
    const atls_resp &record() const && = delete;

private:
    friend class Connection;
    Answer() = default;

    atls_resp record_ = {};
    bool protected_ = false;
};

/** Chooses a Connection that connects later. */
struct Later {
};
/** Chooses a Connection that connects later. */
inline constexpr Later later{};

/** A connection to a service. It goes on only as long as its session is beyond doubt. */
class Connection
{
public:
    /** Whether messages may be sent. */
    enum class State {
        closed,  /**< not connected */
        open,    /**< connected */
        in_doubt /**< an answer may still come in the place of another: only reconnecting helps */
    };

    /** Connects later: by reconnect, or by a send with Retry. @param target  the service */
    Connection(Target target, Later /* tag */) : target_(std::move(target)) {}
    /** Connects. @param target  the service @param options  deadline, cancellation, progress @return the connection */
    static Result<Connection> open(Target target, const Options &options = {})
    {
        Connection connection(std::move(target), later);
        if (const std::error_code error = connection.try_reconnect(options))
            return error;
        return connection;
    }
    /** Takes another's place. @param other  closed afterwards, and without a target */
    Connection(Connection &&other) noexcept { swap(other); }
    /** Takes another's place, and closes what was here. @param other  closed afterwards @return this */
    Connection &operator=(Connection &&other) noexcept
    {
        Connection taken(std::move(other));
        swap(taken);
        return *this;
    }
    ~Connection() { close(); }

    /**
     * Disconnects, and connects anew.
     *
     * @param options  deadline, cancellation, progress
     *
     * @return no error: open; else it is closed: invalid_input (nothing was tried), setup_failed, handshake_failed,
     *         bad_response, unexpected_status, cancelled, timed_out, std::errc::not_enough_memory
     */
    std::error_code try_reconnect(const Options &options = {})
    {
        if (busy_)
            return Errc::invalid_input;
        close();
        if (!detail::is_usable(target_))
            return Errc::invalid_input;
        if (const Errc reason = detail::Watch::reason_to_stop(options); reason != Errc::ok)
            return reason;
        handle_ = create_atls_handle();
        if (!handle_)
            return std::make_error_code(std::errc::not_enough_memory);
        owner_ = getpid();
        std::exception_ptr thrown;
        const Errc error = connect(options, thrown);
        if (error == Errc::ok)
            state_ = State::open;
        else
            close();
        rethrow(thrown);
        return error;
    }

    /**
     * Sends a message and waits for its answer.
     *
     * Deadline and cancellation that come before anything was sent leave the connection as it is. Those that come later
     * close it. Every other failure of an exchange, an answer that is not protected, and one that is not whole leave the
     * session in doubt.
     *
     * @param message  at least one byte, at most INT_MAX; not kept
     * @param options  deadline, cancellation, progress, path, whether the answer may be unprotected
     *
     * @return the answer; or invalid_input (argument: the connection stays as it is; or the session has ended),
     *         in_doubt, not_connected (nothing was sent), bad_response, exchange_failed, unprotected, unread_data,
     *         cancelled, timed_out
     */
    Result<Answer> try_send(Bytes message, const Options &options = {})
    {
        may_have_arrived_ = false;
        if (const Errc reason = reason_to_refuse(message, options); reason != Errc::ok)
            return reason;
        Answer answer;
        std::exception_ptr thrown;
        Errc error = exchange(message, options, answer, thrown);
        if (error == Errc::ok)
            error = judge(answer, options);
        else if (error == Errc::cancelled || error == Errc::timed_out)
            close();
        else
            leave_in_doubt();
        rethrow(thrown);
        if (error != Errc::ok)
            return error;
        return answer;
    }

    /**
     * Sends a message as often as the policy says, and connects for that whenever the connection is not open. A message
     * that may have arrived is repeated only if the policy says that it may be; connecting is tried again in any case.
     * Arguments that cannot be used, set-up failures, cancellation and the deadline end it at once.
     *
     * @param message  see above
     * @param retry    how often, and how long to wait
     * @param options  see above; deadline and cancellation are those of the whole
     *
     * @return the answer, or the error of the last attempt
     */
    Result<Answer> try_send(Bytes message, const Retry &retry, const Options &options = {})
    {
        for (int attempt = 1;; attempt++) {
            may_have_arrived_ = false;
            std::error_code error = is_open() ? std::error_code() : try_reconnect(options);
            if (!error) {
                Result<Answer> answer = try_send(message, options);
                if (answer)
                    return answer;
                error = answer.error();
            }
            if (is_final(error) || (may_have_arrived_ && !retry.repeatable) || attempt >= retry.attempts)
                return error;
            if (const Errc reason = pause(retry, attempt, options); reason != Errc::ok)
                return reason;
        }
    }

#if defined(__cpp_exceptions)
    /** Connects; throws Error. @param target  the service @param options  deadline, cancellation, progress */
    explicit Connection(Target target, const Options &options = {}) : Connection(std::move(target), later)
    {
        reconnect(options);
    }
    /** try_reconnect that throws Error. @param options  deadline, cancellation, progress */
    void reconnect(const Options &options = {})
    {
        if (const std::error_code error = try_reconnect(options))
            throw Error(error, "connecting to " + target_.host);
    }
    /** try_send that throws Error. @param message  see there @param options  see there @return the answer */
    Answer send(Bytes message, const Options &options = {})
    {
        return value_of(try_send(message, options));
    }
    /**
     * try_send that throws Error.
     *
     * @param message  see there
     * @param retry    see there
     * @param options  see there
     *
     * @return the answer
     */
    Answer send(Bytes message, const Retry &retry, const Options &options = {})
    {
        return value_of(try_send(message, retry, options));
    }
#endif

    /** Disconnects. Does nothing in a progress function: cancel there. */
    void close() noexcept
    {
        if (busy_)
            return;
        if (owner_ == getpid())
            free_atls_handle(handle_); // the parent process goes on with a handle of its own
        handle_ = nullptr;
        state_ = State::closed;
    }

    /** @return whether messages may be sent */
    State state() const noexcept
    {
        return state_ == State::open && owner_ != getpid() ? State::closed : state_;
    }
    /** @return whether state() is open */
    bool is_open() const noexcept
    {
        return state() == State::open;
    }
    /** @return whether the message of the last send may have reached the service. It may have as soon as a byte of its
        request has left. */
    bool may_have_arrived() const noexcept
    {
        return may_have_arrived_;
    }
    /** @return the service */
    const Target &target() const noexcept
    {
        return target_;
    }
    /** @return the handle of atls.h, for reading; NULL unless open */
    const atls_handle *handle() const noexcept
    {
        return is_open() ? handle_ : nullptr;
    }

private:
    static bool is_final(std::error_code error)
    {
        return error == Errc::invalid_input || error == Errc::setup_failed || error == Errc::cancelled ||
               error == Errc::timed_out || error.category() != category();
    }

    static void rethrow([[maybe_unused]] const std::exception_ptr &thrown)
    {
#if defined(__cpp_exceptions)
        if (thrown)
            std::rethrow_exception(thrown);
#endif
    }

#if defined(__cpp_exceptions)
    Answer value_of(Result<Answer> answer) const
    {
        if (!answer)
            throw Error(answer.error(), "sending to " + target_.host);
        return *std::move(answer);
    }
#endif

    // No call of the connection's own may come between while one is under way.
    class Busy
    {
    public:
        explicit Busy(bool &flag) : flag_(flag) { flag_ = true; }
        ~Busy() { flag_ = false; }
        Busy(const Busy &) = delete;
        Busy &operator=(const Busy &) = delete;

    private:
        bool &flag_;
    };

    void swap(Connection &other) noexcept
    {
        std::swap(target_, other.target_);
        std::swap(handle_, other.handle_);
        std::swap(owner_, other.owner_);
        std::swap(state_, other.state_);
        std::swap(may_have_arrived_, other.may_have_arrived_);
    }

    void leave_in_doubt() noexcept
    {
        close();
        state_ = State::in_doubt;
    }

    Errc connect(const Options &options, std::exception_ptr &thrown)
    {
        const Busy busy(busy_);
        const char *path = target_.path.c_str();
        const char *tracking_id = target_.tracking_id.empty() ? nullptr : target_.tracking_id.c_str();
        if (!options.deadline && !options.progress && !options.cancel.has_source())
            return static_cast<Errc>(
                atls_connect(&handle_, target_.host.c_str(), nullptr, target_.port, path, tracking_id));
        std::memcpy(handle_->hostname, target_.host.c_str(), target_.host.size() + 1);
        handle_->port = target_.port;
        int result = detail::init_tl_curl(&handle_, path, tracking_id);
        if (result != ATLS_OK)
            return static_cast<Errc>(result);
        const detail::Watch watch(handle_, options);
        result = detail::init_al_ssl(&handle_);
        if (result != ATLS_OK) {
            ERR_clear_error();
            return static_cast<Errc>(result);
        }
        result = detail::atls_handshake(handle_); // which asks the watch before it connects
        thrown = watch.thrown();
        return watch.error_of(result);
    }

    Errc reason_to_refuse(Bytes message, const Options &options) const
    {
        if (busy_ || message.size() == 0 || message.size() > INT_MAX || !message.data() ||
            (!options.path.empty() && !detail::is_path(options.path, detail::length_of_authority(target_))))
            return Errc::invalid_input;
        if (!is_open())
            return state_ == State::in_doubt ? Errc::in_doubt : Errc::not_connected;
        return detail::Watch::reason_to_stop(options);
    }

    Errc exchange(Bytes message, const Options &options, Answer &answer, std::exception_ptr &thrown)
    {
        const Busy busy(busy_);
        const detail::Watch watch(handle_, options);
        const std::string &path = options.path.empty() ? target_.path : options.path;
        const int result = atls_easy_perform(handle_, message.data(), static_cast<int>(message.size()),
                                             path.c_str(), &answer.record_);
        may_have_arrived_ = result == ATLS_EXCHANGE_FAILED ? watch.has_sent() : result != ATLS_INVALID_INPUT;
        thrown = watch.thrown();
        return watch.error_of(result);
    }

    // Decides what an answer is worth, and whether the session goes on behind it.
    Errc judge(Answer &answer, const Options &options)
    {
        answer.protected_ =
            std::strstr(answer.record_.header, "Content-Type: application/octet-stream") != nullptr;
        if (!answer.protected_) {
            leave_in_doubt();
            return options.accept_unprotected ? Errc::ok : Errc::unprotected;
        }
        const detail::Rest rest = detail::rest_behind_answer(handle_->ssl);
        if (rest == detail::Rest::data)
            leave_in_doubt();
        else if (rest == detail::Rest::end)
            close();
        return rest == detail::Rest::data ? Errc::unread_data : Errc::ok;
    }

    // Waits before the next attempt; tells why there is none.
    Errc pause(const Retry &retry, int attempt, const Options &options) const
    {
        using std::chrono::milliseconds;
        const auto longest = std::max(retry.max_delay, milliseconds(0));
        auto delay = std::clamp(retry.delay, milliseconds(0), longest);
        for (int i = 1; i < attempt && delay < longest; i++)
            delay = delay > longest / 2 ? longest : delay * 2;
        const auto ticks = static_cast<std::uint64_t>(Clock::now().time_since_epoch().count());
        const std::uint64_t random =
            (ticks + static_cast<std::uint64_t>(getpid())) * 6364136223846793005u >> 33;
        delay -= milliseconds(
            static_cast<std::int64_t>(random % (static_cast<std::uint64_t>(delay.count()) / 2 + 1)));
        const auto end = Clock::now() + delay;
        if (options.deadline && *options.deadline <= end)
            return Errc::timed_out;
        for (;;) {
            const Errc reason = detail::Watch::reason_to_stop(options);
            const auto left = end - Clock::now();
            if (reason != Errc::ok || left <= Clock::duration::zero())
                return reason;
            std::this_thread::sleep_for(std::min<Clock::duration>(left, milliseconds(100)));
        }
    }

    Target target_;
    atls_handle *handle_ = nullptr;
    pid_t owner_ = -1; // the process that made the handle
    State state_ = State::closed;
    bool busy_ = false;
    bool may_have_arrived_ = false;
};

} // inline namespace

} // namespace atls

#undef ATLS_HPP_SHARED

#endif
