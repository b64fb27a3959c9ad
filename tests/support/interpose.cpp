// Interposed functions and what they keep.

#include "interpose.h"

#include "allocation.h"
#include "platform.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <utility>

#include <openssl/ssl.h>
#include <pthread.h>

#include "safec.h"

#undef curl_easy_setopt
#undef curl_easy_getinfo
#ifdef __clang__
#pragma clang diagnostic ignored "-Wvarargs" // libcurl's own prototype ends in an enumeration and "..."
#endif

namespace
{

struct Shared {
    std::mutex mutex;
    interpose::State state;
};

Shared &shared()
{
    static Shared *const object = new Shared; // outlives static objects that still log
    return *object;
}

// Points that the library passes, and the one that is to fail.
thread_local bool inside_libcurl = false; // not all of its versions bear it that OpenSSL lacks memory
std::atomic<int> passed{0};
std::atomic<int> failing_point{0};

// Runs a step on the kept state, under its lock, and outside the library.
template <typename Step>
auto with_state(Step step)
{
    const bool was_inside = std::exchange(interpose::inside, false);
    const std::lock_guard<std::mutex> lock(shared().mutex);
    auto result = step(shared().state);
    interpose::inside = was_inside;
    return result;
}

} // namespace

namespace interpose
{

thread_local bool inside = false;

State kept()
{
    return with_state([](auto &state) { return state; });
}

void reset(long timeout_ms, time_t now, bool clock_settable)
{
    log_capture::record();
    with_state([&](auto &state) { return state = {{}, timeout_ms, now, clock_settable, {}}; });
}

int arm(int nth)
{
    if (nth != 0)
        failed = "";
    const int count = passed.exchange(0);
    failing_point = nth;
    return count;
}

bool openssl_fails()
{
    return !inside_libcurl && fails("BUF_MEM_grow");
}

bool fails(const char *point)
{
    if (!inside || ++passed != failing_point)
        return false;
    failed = point;
    return true;
}

} // namespace interpose

using interpose::fails;

// ---- Calls of the objects under test, which the linker's option --wrap leads here

// Result, what it is on failure, name, parameters, arguments.
#define POINT(result, failure, name, parameters, arguments)                                                  \
    extern "C" result __real_##name parameters;                                                              \
    extern "C" result __wrap_##name parameters                                                               \
    {                                                                                                        \
        if (fails(#name))                                                                                    \
            return failure;                                                                                  \
        return __real_##name arguments;                                                                      \
    }

ALLOCATORS(__wrap_, __real_, !fails(point))

// Memory for the library's own C++: dbus-c++, which cannot do without, does not come here. The names are those for a
// size_t of 64 and of 32 bits.
extern "C" void *__wrap__Znwm(size_t size)
{
    return fails("operator new") ? throw std::bad_alloc() : operator new(size, std::nothrow);
}
extern "C" void *__wrap__Znwj(size_t size) __attribute__((alias("__wrap__Znwm")));

POINT(FILE *, nullptr, fopen, (const char *path, const char *mode), (path, mode))
POINT(int, -1, socketpair, (int domain, int type, int protocol, int *pair), (domain, type, protocol, pair))
POINT(CURL *, nullptr, curl_easy_init, (), ())
POINT(curl_slist *, nullptr, curl_slist_append, (curl_slist * list, const char *text), (list, text))
POINT(BIO *, nullptr, BIO_new, (const BIO_METHOD *method), (method))
POINT(int, -1, BIO_read, (BIO * bio, void *data, int length), (bio, data, length))
POINT(SSL *, nullptr, SSL_new, (SSL_CTX * context), (context))
POINT(BIO *, nullptr, SSL_get_rbio, (const SSL *ssl), (ssl))
POINT(BIO *, nullptr, SSL_get_wbio, (const SSL *ssl), (ssl))
POINT(int, 0, SSL_CTX_check_private_key, (const SSL_CTX *context), (context))
POINT(int, 1, tlsplat_api_init, (), ())
POINT(int, 1, tlsplat_create_sec_ctx, (tlsplat_sec_ctx * context), (context))
POINT(tlsplat_pvt_ctx *, nullptr, tlsplat_get_ssl_ctx, (tlsplat_sec_ctx context), (context))

extern "C" {

CURLcode __real_curl_easy_setopt(CURL *curl, CURLoption option, ...);
CURLcode __real_curl_easy_getinfo(CURL *curl, CURLINFO info, ...);
CURLcode __real_curl_easy_perform(CURL *curl);
int __real_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*function)(void *),
                          void *argument);

// This libsafec was built for 4 KB, and does not say so.
errno_t __wrap__memcpy_s_chk(void *to, size_t room, const void *from, size_t count, size_t, size_t)
{
    if (count > room || room > 4096)
        return ESLEMAX;
    memcpy(to, from, count);
    return 0;
}

// Every option that the client sets takes one word, a number or a pointer.
CURLcode __wrap_curl_easy_setopt(CURL *curl, CURLoption option, ...)
{
    va_list arguments;
    va_start(arguments, option);
    void *value = va_arg(arguments, void *);
    va_end(arguments);
    value = with_state([&](auto &state) {
        std::string text;
        if (option < CURLOPTTYPE_OBJECTPOINT)
            text = std::to_string(reinterpret_cast<long>(value));
        else if (option == CURLOPT_URL || option == CURLOPT_PROXY || option == CURLOPT_PROXYUSERNAME ||
                 option == CURLOPT_PROXYPASSWORD)
            text = value ? static_cast<const char *>(value) : "NULL";
        state.options[option] = text;
        const bool replaced = option == CURLOPT_TIMEOUT_MS && state.timeout_ms != 0;
        return replaced ? reinterpret_cast<void *>(state.timeout_ms) // NOLINT(performance-no-int-to-ptr)
                        : value;
    });
    return fails("curl_easy_setopt") ? CURLE_UNKNOWN_OPTION : __real_curl_easy_setopt(curl, option, value);
}

CURLcode __wrap_curl_easy_getinfo(CURL *curl, CURLINFO info, ...)
{
    va_list arguments;
    va_start(arguments, info);
    void *value = va_arg(arguments, void *);
    va_end(arguments);
    if (info == CURLINFO_HTTP_CONNECTCODE && interpose::connect_status != 0) {
        *static_cast<long *>(value) = interpose::connect_status;
        return CURLE_OK;
    }
    return fails("curl_easy_getinfo") ? CURLE_UNKNOWN_OPTION : __real_curl_easy_getinfo(curl, info, value);
}

// Every post finds that the peer has closed the connection, as old versions of libcurl and OpenSSL tell it.
CURLcode __wrap_curl_easy_perform(CURL *curl)
{
    if (fails("curl_easy_perform"))
        return CURLE_COULDNT_CONNECT;
    raise(SIGPIPE);
    inside_libcurl = true;
    const CURLcode result = __real_curl_easy_perform(curl);
    inside_libcurl = false;
    return result;
}

// The threads that the library starts pass its points, too.
int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*function)(void *),
                          void *argument)
{
    if (fails("pthread_create"))
        return EAGAIN;
    using Start = std::pair<decltype(function), void *>;
    const auto run_inside = [](void *data) {
        const std::unique_ptr<Start> start(static_cast<Start *>(data));
        interpose::inside = true;
        return start->first(start->second);
    };
    return __real_pthread_create(thread, attributes, run_inside,
                                 new (std::nothrow) Start(function, argument));
}

// ---- Functions of the C library and of OpenSSL, for everybody

#if OPENSSL_VERSION_NUMBER >= 0x30000000L
int EVP_default_properties_is_fips_enabled(OSSL_LIB_CTX *)
#else
int FIPS_mode(void)
#endif
{
    return interpose::fips_mode;
}

time_t time(time_t *out) noexcept
{
    const time_t held = with_state([](auto &state) { return state.now; });
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    if (held != 0)
        now.tv_sec = held;
    return out ? *out = now.tv_sec : now.tv_sec;
}

int stime(const time_t *when) noexcept
{
    errno = EPERM;
    return with_state([&](auto &state) {
        state.clock_settings.push_back(*when);
        return state.clock_settable ? 0 : -1;
    });
}

} // extern "C"
