// Interposed functions and what they keep.

#include "interpose.h"

#include "log_capture.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <mutex>

#include <dlfcn.h>
#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>

#undef curl_easy_setopt
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

// Runs a step on the kept state, under its lock.
template <typename Step>
auto with_state(Step step)
{
    const std::lock_guard<std::mutex> lock(shared().mutex);
    return step(shared().state);
}

bool fails(const char *function)
{
    return with_state([&](auto &state) { return ++state.calls[function] == state.failing[function]; });
}

// Calls the function that ours stands in front of.
template <typename Result, typename... Arguments>
Result call_next(const char *name, Arguments... arguments)
{
    return reinterpret_cast<Result (*)(Arguments...)>(dlsym(RTLD_NEXT, name))(arguments...);
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
    with_state([&](auto &state) { state = {{}, {}, {}, timeout_ms, now, clock_settable, {}}; });
}

void fail(const std::string &function, int nth)
{
    with_state([&](auto &state) { state.failing[function] = state.calls[function] + nth; });
}

void set_fips(bool on)
{
    fips_mode = on;
}

std::string log_of(int priority)
{
    std::string text;
    for (const std::string &line : log_capture::lines())
        if (line[1] == '0' + priority)
            text += (text.empty() ? "" : "\n") + line.substr(strlen("<3> "));
    return text;
}

bool logged(const std::string &text)
{
    for (const std::string &line : log_capture::lines())
        if (line.find(text) != std::string::npos)
            return true;
    return false;
}

} // namespace interpose

extern "C" {

// Every option that the client sets takes one word, a number or a pointer.
CURLcode curl_easy_setopt(CURL *curl, CURLoption option, ...)
{
    va_list arguments;
    va_start(arguments, option);
    void *value = va_arg(arguments, void *);
    va_end(arguments);
    with_state([&](auto &state) {
        std::string text;
        if (option < CURLOPTTYPE_OBJECTPOINT)
            text = std::to_string(reinterpret_cast<long>(value));
        else if (option == CURLOPT_URL || option == CURLOPT_PROXY || option == CURLOPT_PROXYUSERNAME ||
                 option == CURLOPT_PROXYPASSWORD)
            text = value ? static_cast<const char *>(value) : "NULL";
        state.options.emplace_back(option, text);
        if (option == CURLOPT_TIMEOUT_MS && state.timeout_ms != 0)
            value = reinterpret_cast<void *>(state.timeout_ms); // NOLINT(performance-no-int-to-ptr)
    });
    using Setopt = CURLcode (*)(CURL *, CURLoption, ...);
    return fails("curl_easy_setopt")
               ? CURLE_UNKNOWN_OPTION
               : reinterpret_cast<Setopt>(dlsym(RTLD_NEXT, "curl_easy_setopt"))(curl, option, value);
}

CURL *curl_easy_init(void)
{
    return fails("curl_easy_init") ? nullptr : call_next<CURL *>("curl_easy_init");
}

struct curl_slist *curl_slist_append(struct curl_slist *list, const char *text)
{
    return fails("curl_slist_append") ? nullptr : call_next<curl_slist *>("curl_slist_append", list, text);
}

CURLcode curl_easy_perform(CURL *curl)
{
    return fails("curl_easy_perform") ? CURLE_COULDNT_CONNECT
                                      : call_next<CURLcode>("curl_easy_perform", curl);
}

BIO *BIO_new(const BIO_METHOD *method)
{
    return fails("BIO_new") ? nullptr : call_next<BIO *>("BIO_new", method);
}

SSL *SSL_new(SSL_CTX *ctx)
{
    return fails("SSL_new") ? nullptr : call_next<SSL *>("SSL_new", ctx);
}

#if OPENSSL_VERSION_NUMBER >= 0x30000000L
int EVP_default_properties_is_fips_enabled(OSSL_LIB_CTX *)
#else
int FIPS_mode(void)
#endif
{
    return fips_mode;
}

// Of the client's objects alone, by the linker's option --wrap, and for the blocks of answers only.
void *__real_malloc(size_t size);
void *__real_realloc(void *block, size_t size);

void *__wrap_malloc(size_t size)
{
    return size == 16384 && fails("malloc") ? nullptr : __real_malloc(size);
}

void *__wrap_realloc(void *block, size_t size)
{
    return size % 16384 == 0 && fails("realloc") ? nullptr : __real_realloc(block, size);
}

time_t time(time_t *out) noexcept
{
    const time_t held = with_state([](auto &state) { return state.now; });
    const time_t now = held != 0 ? held : call_next<time_t>("time", static_cast<time_t *>(nullptr));
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
