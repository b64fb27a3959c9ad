// Interposed functions and what they keep.

#include "interpose.h"

#include "allocation.h"
#include "log_capture.h"
#include "platform.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <utility>

#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
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

std::atomic<bool> fips_mode{false};
std::atomic<long> connect_status{0};

// Points that the library passes, and the one that is to fail.
thread_local bool inside = false;
thread_local bool inside_libcurl = false; // not all of its versions bear it that OpenSSL lacks memory
std::atomic<bool> armed{false};
std::atomic<int> passed{0};
std::atomic<int> failing_point{0};
std::atomic<const char *> failed_point{nullptr};

// Runs a step on the kept state, under its lock, and outside the library.
template <typename Step>
auto with_state(Step step)
{
    const bool was_inside = std::exchange(inside, false);
    const std::lock_guard<std::mutex> lock(shared().mutex);
    auto result = step(shared().state);
    inside = was_inside;
    return result;
}

struct Start {
    void *(*function)(void *);
    void *argument;
};

void *run_inside(void *data)
{
    const Start start = *static_cast<Start *>(data);
    free(data);
    inside = true;
    return start.function(start.argument);
}

} // namespace

namespace interpose
{

State kept()
{
    return with_state([](auto &state) { return state; });
}

void reset(long timeout_ms, time_t now, bool clock_settable)
{
    log_capture::record();
    with_state([&](auto &state) { return state = {{}, timeout_ms, now, clock_settable, {}}; });
}

void set_fips(bool on)
{
    fips_mode = on;
}

void set_connect_status(long status)
{
    connect_status = status;
}

void arm(int nth)
{
    passed = 0;
    failing_point = nth;
    failed_point = nullptr;
    armed = true;
}

int disarm()
{
    armed = false;
    return passed;
}

std::string failed()
{
    const char *name = failed_point;
    return name ? name : "";
}

void set_inside(bool is_inside)
{
    inside = is_inside;
}

bool openssl_fails()
{
    return !inside_libcurl && fails("BUF_MEM_grow");
}

bool fails(const char *point)
{
    if (!inside || !armed || ++passed != failing_point)
        return false;
    failed_point = point;
    return true;
}

std::string log_of(int priority)
{
    std::string text;
    for (const std::string &line : log_capture::lines())
        if (line[1] == '0' + priority)
            text += (text.empty() ? "" : "\n") + line.substr(strlen("<3> "));
    return text;
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
POINT(FILE *, nullptr, fopen, (const char *path, const char *mode), (path, mode))
POINT(int, -1, socketpair, (int domain, int type, int protocol, int *pair), (domain, type, protocol, pair))
POINT(CURL *, nullptr, curl_easy_init, (), ())
POINT(curl_slist *, nullptr, curl_slist_append, (curl_slist * list, const char *text), (list, text))
POINT(BIO *, nullptr, BIO_new, (const BIO_METHOD *method), (method))
POINT(int, -1, BIO_read, (BIO * bio, void *data, int length), (bio, data, length))
POINT(int, -1, BIO_write, (BIO * bio, const void *data, int length), (bio, data, length))
POINT(SSL *, nullptr, SSL_new, (SSL_CTX * context), (context))
POINT(int, -1, SSL_read, (SSL * ssl, void *data, int length), (ssl, data, length))
POINT(int, -1, SSL_write, (SSL * ssl, const void *data, int length), (ssl, data, length))
POINT(BIO *, nullptr, SSL_get_rbio, (const SSL *ssl), (ssl))
POINT(BIO *, nullptr, SSL_get_wbio, (const SSL *ssl), (ssl))
POINT(X509 *, nullptr, d2i_X509, (X509 * *out, const unsigned char **in, long length), (out, in, length))
POINT(EVP_PKEY *, nullptr, d2i_PrivateKey, (int type, EVP_PKEY **out, const unsigned char **in, long length),
      (type, out, in, length))
POINT(int, 0, SSL_CTX_use_certificate, (SSL_CTX * context, X509 *certificate), (context, certificate))
POINT(int, 0, SSL_CTX_use_PrivateKey, (SSL_CTX * context, EVP_PKEY *key), (context, key))
POINT(int, 0, SSL_CTX_check_private_key, (const SSL_CTX *context), (context))
POINT(int, 1, tlsplat_api_init, (), ())
POINT(int, 1, tlsplat_create_sec_ctx, (tlsplat_sec_ctx * context), (context))
POINT(int, 1, tlsplat_setopt_sec_ctx, (tlsplat_sec_ctx context, int option, int value),
      (context, option, value))
POINT(tlsplat_pvt_ctx *, nullptr, tlsplat_get_ssl_ctx, (tlsplat_sec_ctx context), (context))
POINT(int, 1, secstore_init_ssl_lib, (), ())
POINT(int, 1, secstore_get_device_cert, (int selector, unsigned char *buffer, uint32_t *length),
      (selector, buffer, length))
POINT(int, 1, secstore_get_private_key, (int selector, unsigned char *buffer, uint32_t *length),
      (selector, buffer, length))
POINT(int, 0, netutil_check_port, (int port), (port))

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

errno_t __wrap__strcasestr_s_chk(char *, size_t, const char *, size_t, char **found, size_t, size_t)
{
    *found = nullptr;
    return ESLEMAX;
}

errno_t __wrap__strstr_s_chk(char *, size_t, const char *, size_t, char **, size_t, size_t)
    __attribute__((alias("__wrap__strcasestr_s_chk")));

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
        state.options.emplace_back(option, text);
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
    if (info == CURLINFO_HTTP_CONNECTCODE && connect_status != 0) {
        *static_cast<long *>(value) = connect_status;
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
    auto *start = static_cast<Start *>(__real_malloc(sizeof(Start)));
    *start = {function, argument};
    return __real_pthread_create(thread, attributes, run_inside, start);
}

// ---- Functions of the C library and of OpenSSL, for everybody

#if OPENSSL_VERSION_NUMBER >= 0x30000000L
int EVP_default_properties_is_fips_enabled(OSSL_LIB_CTX *)
#else
int FIPS_mode(void)
#endif
{
    return fips_mode;
}

time_t time(time_t *out) noexcept
{
    const time_t held = with_state([](auto &state) { return state.now; });
    timespec real;
    clock_gettime(CLOCK_REALTIME, &real);
    const time_t now = held != 0 ? held : real.tv_sec;
    if (out)
        *out = now;
    return now;
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
