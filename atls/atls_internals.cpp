// The steps of an ATLS connection, in their order: logging and clean-up, the proxies, the transport, the inner TLS
// engine with the device identity, responses and their headers, one POST, and the handshake.

#include "atls_internals.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <initializer_list>
#include <utility>

#include <fcntl.h>
#include <locale.h>
#include <openssl/err.h>
#include <pthread.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include "bio_room.h"
#include "device_key.h"
#include "error_queue.h"
#include "fips.h"
#include "library_call.h"
#include "proxymanager.h"
#include "system_clock.h"

#include "safec.h"

namespace
{

// Device certificate and key are fetched into buffers of this size.
constexpr uint32_t DER_CAPACITY = 4096;
// Cookies of one response, NUL included.
constexpr int COOKIES_SIZE = 1024;
// Up to here growing blocks have no room to spare.
constexpr size_t LARGE_BLOCK = 1 << 20;
// How far behind the cursor a response header is looked for.
constexpr size_t HEADER_SEARCH_BOUND = 16384;
constexpr size_t TRACKING_ID_MAX = 64;
constexpr size_t DATE_TEXT_MAX = 128;
constexpr long REQUEST_TIMEOUT_MS = 30000;
constexpr long HTTP_OK = 200;
constexpr long HTTP_BAD_REQUEST = 400;
constexpr const char *HTTP_CLOCK_MARKER = "/tmp/.stime-by-http";

// libcurl writes the text of a failed transfer here, for all request objects of the process.
char errbuf[CURL_ERROR_SIZE];

// Keeps from the program the signals of a write that cannot be: to a connection that the peer has closed, to a
// file beyond the limit of its size. libcurl would change the disposition of SIGPIPE for the whole process, and
// race with other threads over it.
class WriteSignalGuard
{
public:
    WriteSignalGuard()
    {
        sigemptyset(&ours_);
        sigaddset(&ours_, SIGPIPE);
        sigaddset(&ours_, SIGXFSZ);
        pthread_sigmask(SIG_BLOCK, &ours_, &before_);
        sigset_t pending;
        sigpending(&pending);
        for (const int signal : {SIGPIPE, SIGXFSZ})
            if (sigismember(&pending, signal)) // the program's own
                sigdelset(&ours_, signal);
    }
    ~WriteSignalGuard()
    {
        constexpr timespec AT_ONCE = {};
        while (sigtimedwait(&ours_, nullptr, &AT_ONCE) > 0) {
        }
        pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }
    WriteSignalGuard(const WriteSignalGuard &) = delete;
    WriteSignalGuard &operator=(const WriteSignalGuard &) = delete;

private:
    sigset_t ours_, before_;
};

} // namespace

// ---- Logging and clean-up

void log_ssl_error(void)
{
    const unsigned long code = ERR_get_error();
    char text[256] = {};
    ERR_error_string_n(code, text, sizeof text);
    syslog(LOG_ERR, "%s: ssl error [%lu] => [%s]", __func__, code, text);
}

void log_curl_error(int code)
{
    if (code == 0)
        return;
    if (errbuf[0] != '\0')
        syslog(LOG_ERR, "Curl error [%d] maps to [%s] buffer", code, errbuf);
    else
        syslog(LOG_ERR, "Curl error [%d] maps to [%s]", code,
               curl_easy_strerror(static_cast<CURLcode>(code)));
}

void RequestOptions::log(const char *failure) const
{
    syslog(LOG_ERR, "%s: %s", caller_, failure);
}

void atls_handle_cleanup(atls_handle **handle)
{
    const LibraryCall call;
    if (!handle || !*handle) {
        syslog(LOG_ERR, "%s: Invalid Input Parameters...bad handle", __func__);
        return;
    }
    atls_handle *connection = *handle;
    if (memset_s(connection->hostname, sizeof connection->hostname, 0, sizeof connection->hostname) != 0)
        syslog(LOG_ERR, "%s: memset_s Failed...Continuing with cleanup", __func__);
    connection->port = 0;
    if (connection->curl) {
        syslog(LOG_DEBUG, "%s: Cleanup Transport layer curl object", __func__);
        const WriteSignalGuard signals;
        curl_easy_cleanup(connection->curl);
        connection->curl = nullptr;
    }
    if (connection->header_opts) {
        syslog(LOG_DEBUG, "%s: Cleanup transport layer header options", __func__);
        curl_slist_free_all(connection->header_opts);
        connection->header_opts = nullptr;
    }
    if (connection->ssl) {
        syslog(LOG_DEBUG, "%s: Cleanup APP layer SSL", __func__);
        SSL_free(connection->ssl);
        connection->ssl = nullptr;
    }
}

void release_proxy_list(atls_handle *handle)
{
    if (handle->proxyUrlList) {
        for (int32_t i = 0; i < handle->proxyUrlCount; i++)
            free(handle->proxyUrlList[i]);
        free(handle->proxyUrlList);
    }
    handle->proxyUrlList = nullptr;
    handle->proxyUrlCount = 0;
}

// ---- Proxies: which one is tried first, and which ones next

namespace
{

constexpr const char *SELECTION = "setProxyParams"; // the name that its steps log under
constexpr size_t PROXY_ENTRY_SIZE = 256;
constexpr const char *PROXY_KEYWORD = "PROXY";
constexpr size_t PROXY_PREFIX_LENGTH = 6; // the keyword and the blank after it

// Copies an entry of an answer without its keyword and blank. The copy is NULL when there is not even the blank;
// false means that there is no memory.
bool copy_proxy_entry(const char *entry, char **copy)
{
    *copy = nullptr;
    if (strstr(entry, PROXY_KEYWORD)) {
        if (strlen(entry) < PROXY_PREFIX_LENGTH)
            return true;
        entry += PROXY_PREFIX_LENGTH;
    }
    const size_t size = strlen(entry) + 1;
    *copy = static_cast<char *>(malloc(std::max(size, PROXY_ENTRY_SIZE)));
    if (*copy)
        memcpy(*copy, entry, size);
    return *copy != nullptr;
}

// Gives the handle copies of the answer's entries; without memory it has no list afterwards.
bool keep_proxy_list(atls_handle *handle, const ProxyUrlInformation &answer)
{
    handle->proxyUrlList =
        static_cast<char **>(calloc(static_cast<size_t>(answer.proxyUrlCount), sizeof(char *)));
    bool kept = handle->proxyUrlList != nullptr;
    for (int i = 0; kept && i < handle->proxyUrlCount; i++) {
        const char *entry = answer.proxyUrlList[i];
        if (!entry)
            continue;
        syslog(LOG_DEBUG, "%s ProxyUrlList[%d] = %s\n", SELECTION, i, entry);
        kept = copy_proxy_entry(entry, &handle->proxyUrlList[i]);
    }
    if (!kept) {
        syslog(LOG_ERR, "%s: Failed to allocate memory for the proxy list\n", SELECTION);
        release_proxy_list(handle);
    }
    return kept;
}

// Every way to prove one's identity to a proxy that libcurl has, but for Digest where FIPS rules it out.
long proxy_auth_mask()
{
    constexpr unsigned long ANY = CURLAUTH_ANY; // its bits differ between versions of libcurl
    return static_cast<long>(is_fips_mode_on() ? ANY & ~CURLAUTH_DIGEST : ANY);
}

void apply_manual_proxy(CURL *curl, const ProxyUrlInformation &answer)
{
    (void)curl_easy_setopt(curl, CURLOPT_PROXY, answer.proxyUrlList[0]);
    if (!answer.userName)
        return;
    (void)curl_easy_setopt(curl, CURLOPT_PROXYAUTH, proxy_auth_mask());
    (void)curl_easy_setopt(curl, CURLOPT_PROXYUSERNAME, answer.userName);
    (void)curl_easy_setopt(curl, CURLOPT_PROXYPASSWORD, answer.password);
}

void apply_first_proxy(CURL *curl, const char *proxy)
{
    if (proxy && !strstr(proxy, "DIRECT")) {
        (void)curl_easy_setopt(curl, CURLOPT_PROXY, proxy);
    } else {
        syslog(LOG_NOTICE, "%s Direct connect without http proxy\n", SELECTION);
        (void)curl_easy_setopt(curl, CURLOPT_PROXY, nullptr);
    }
}

// Asks the proxy manager which proxies serve the URL, tells the request object of the first and keeps the
// list in the handle. Whatever goes wrong, the connection is then set up with what has been chosen so far.
void select_proxies(atls_handle *handle, CURL *curl, const char *url)
{
    syslog(LOG_NOTICE, "enter %s pRequestUrl:%s\n", SELECTION, url);
    if (!create_proxy_manager_client()) {
        syslog(LOG_ERR, "%s: create_proxy_manager_client fail!\n", SELECTION);
        return;
    }
    // The strings of the answer are the client's: this thread may read them until it asks again.
    const ProxyUrlInformation answer = get_proxy_url(url);
    if (answer.mode == PROXY_MODE_OFF) {
        syslog(LOG_NOTICE, "%s Exit since http proxy mode is off\n", SELECTION);
        return;
    }
    handle->proxyUrlCount = answer.proxyUrlCount;
    if (answer.proxyUrlCount == 0) {
        syslog(LOG_ERR, "%s Fail to found any available proxy url\n", SELECTION);
        return;
    }
    if (!keep_proxy_list(handle, answer))
        return;
    if (answer.mode == PROXY_MODE_MANUAL)
        apply_manual_proxy(curl, answer);
    else if (answer.mode == PROXY_MODE_PACURL || answer.mode == PROXY_MODE_WPAD)
        apply_first_proxy(curl, handle->proxyUrlList[0]);
}

CURLcode perform(CURL *curl)
{
    const WriteSignalGuard guard;
    return curl_easy_perform(curl);
}

// A proxy that answered CONNECT with an error status has been reached, and is not passed over. libcurl's result for that
// is 56, since 8.20 it is 7.
bool has_proxy_refused(CURL *curl)
{
    long status = 0; // of this post: libcurl forgets that of an earlier one
    (void)curl_easy_getinfo(curl, CURLINFO_HTTP_CONNECTCODE, &status);
    return status >= HTTP_BAD_REQUEST;
}

// Results that another proxy of the list may mend.
bool may_next_proxy_mend(CURL *curl, CURLcode code)
{
    return (code == CURLE_COULDNT_RESOLVE_PROXY || code == CURLE_COULDNT_CONNECT ||
            code == CURLE_OPERATION_TIMEDOUT) &&
           !has_proxy_refused(curl);
}

void apply_fallback_proxy(const char *caller, CURL *curl, const char *proxy)
{
    if (proxy && !strstr(proxy, "DIRECT")) {
        syslog(LOG_NOTICE, "%s connect with http proxy:%s\n", caller, proxy);
        (void)curl_easy_setopt(curl, CURLOPT_PROXY, proxy);
    } else {
        syslog(LOG_NOTICE, "Direct connect without http proxy\n");
        (void)curl_easy_setopt(curl, CURLOPT_PROXY, nullptr);
    }
}

} // namespace

CURLcode post_with_failover(const char *caller, atls_handle *handle)
{
    // Entry 0 of the list is what the transport was set up with.
    for (int index = 1;; index++) {
        const CURLcode code = perform(handle->curl);
        if (code == CURLE_OK)
            return code;
        syslog(LOG_NOTICE, "%s: curl_rc:%d, proxyUrlCount:%d, index:%d\n", caller, static_cast<int>(code),
               static_cast<int>(handle->proxyUrlCount), index);
        if (!may_next_proxy_mend(handle->curl, code) || index >= handle->proxyUrlCount ||
            !handle->proxyUrlList) {
            syslog(LOG_ERR, "%s: Failed to preform post", caller);
            release_proxy_list(handle);
            return code;
        }
        apply_fallback_proxy(caller, handle->curl, handle->proxyUrlList[index]);
    }
}

// ---- Transport

namespace
{

char user_agent[48];

void build_user_agent()
{
    char model[20], load[128]; // a text that does not fit is cut
    snprintf(model, sizeof model, "%s", platform_get_device_model());
    snprintf(load, sizeof load, "%s", platform_get_load_id());
    if (char *suffix = strstr(load, ".loads"))
        *suffix = '\0';
    if (snprintf(user_agent, sizeof user_agent, "Halvo-%s/%.31s", model, load) < 0)
        user_agent[0] = '\0';
}

// libcurl's global initialisation is not safe on two threads at once before 7.84.
void initialize_libcurl_once()
{
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

CURLcode set_request_options(CURL *curl, const char *caller, const char *url)
{
    return RequestOptions(curl, caller)
        .set(CURLOPT_VERBOSE, 1L, "Failed to set curl object to be verbose")
        .set(CURLOPT_ERRORBUFFER, errbuf, "Failed to attach error buffer")
        .set(CURLOPT_URL, url, "Failed to set curl URI")
        .set(CURLOPT_SSL_VERIFYPEER, 0L, "Failed to disable server cert verification")
        .set(CURLOPT_SSL_VERIFYHOST, 0L, "Failed to disable hostname verification")
        .set(CURLOPT_TIMEOUT_MS, REQUEST_TIMEOUT_MS, "Failed to set curl timeout")
        .result();
}

// action: what the line would have done to a header of libcurl's, for the log
bool append_header(curl_slist **list, const char *caller, const char *action, const char *line)
{
    curl_slist *longer = curl_slist_append(*list, line);
    if (longer)
        *list = longer;
    else
        syslog(LOG_ERR, "%s: Failed to %s header option [%s]", caller, action, line);
    return longer != nullptr;
}

bool build_request_headers(curl_slist **list, const char *caller, const char *tracking_id)
{
    char line[ATLS_LINE_SIZE] = "Content-Type: application/octet-stream";
    if (!append_header(list, caller, "set", line))
        return false;
    snprintf(line, sizeof line, "User-Agent: %s", atls_get_user_agent());
    if (!append_header(list, caller, "set", line))
        return false;
    if (tracking_id) {
        snprintf(line, sizeof line, "TrackingID: %s", tracking_id);
        if (!append_header(list, caller, "set", line))
            return false;
    }
    // A name without a value keeps libcurl from adding a header of its own.
    return append_header(list, caller, "remove", "Accept:") &&
           append_header(list, caller, "remove", "Expect:");
}

// The programs that this one starts do not inherit the connection; nor does what this one writes to a standard
// stream that is not open go into it.
curl_socket_t open_socket(void *, curlsocktype, curl_sockaddr *address)
{
    const int number = socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
    if (number < 0 || number > STDERR_FILENO)
        return number;
    const int higher = fcntl(number, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    close(number);
    return higher;
}

int drop_trace(CURL *, curl_infotype, char *, size_t, void *)
{
    return 0;
}

// Without a standard error the number 2 goes to whatever is opened next: the system log, the bus, what libcurl opens.
// Such descriptors are closed on exec, which a standard error is not.
void keep_trace_off_other_files(CURL *curl, const char *caller)
{
    const int flags = fcntl(STDERR_FILENO, F_GETFD);
    if (flags >= 0 && !(flags & FD_CLOEXEC))
        return;
    syslog(LOG_NOTICE, "%s: Standard error is not open, libcurl's trace is dropped", caller);
    (void)curl_easy_setopt(curl, CURLOPT_DEBUGFUNCTION, drop_trace);
}

// HTTP/2 would deliver header names in lower case, and then an encrypted answer is not recognised; the headers of a
// proxy's CONNECT reply are not the server's; signals are the program's. Without these options a plain connection
// still works.
void set_optional_request_options(CURL *curl)
{
    (void)curl_easy_setopt(curl, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    (void)curl_easy_setopt(curl, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
    (void)curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    (void)curl_easy_setopt(curl, CURLOPT_OPENSOCKETFUNCTION, open_socket);
}

} // namespace

const char *atls_get_user_agent(void)
{
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, build_user_agent);
    return user_agent;
}

int init_tl_curl(atls_handle **handle, const char *service, const char *tracking_id)
{
    const LibraryCall call;
    if (call.is_too_late()) {
        syslog(LOG_ERR, "%s: The program is ending", __func__);
        return ATLS_SETUP_FAILED;
    }
    if (!handle || !*handle || !service) {
        syslog(LOG_ERR, "%s: Invalid Input Parameters...bad handle/service", __func__);
        return ATLS_INVALID_INPUT;
    }
    atls_handle *connection = *handle;
    if (connection->hostname[0] == '\0' || !netutil_check_port(connection->port)) {
        syslog(LOG_ERR, "%s: Invalid Input Parameters...bad host/port", __func__);
        return ATLS_INVALID_INPUT;
    }
    if (tracking_id && strpbrk(tracking_id, "\r\n")) { // header lines of the caller's
        syslog(LOG_ERR, "%s: Invalid Input Parameters...bad tracking_id", __func__);
        return ATLS_INVALID_INPUT;
    }
    release_proxy_list(connection); // an earlier connection of this handle may have left one

    initialize_libcurl_once();
    CURL *curl = curl_easy_init();
    if (!curl) {
        syslog(LOG_ERR, "%s: curl_easy_init failed", __func__);
        return ATLS_SETUP_FAILED;
    }
    char url[ATLS_LINE_SIZE];
    snprintf(url, sizeof url, "https://%s:%d%s", connection->hostname, static_cast<int>(connection->port),
             service);

    curl_slist *header_opts = nullptr;
    CURLcode code = set_request_options(curl, __func__, url);
    if (code == CURLE_OK && build_request_headers(&header_opts, __func__, tracking_id)) {
        code = RequestOptions(curl, __func__)
                   .set(CURLOPT_HTTPHEADER, header_opts, "Failed to load header options into curl object")
                   .result();
        if (code == CURLE_OK) {
            set_optional_request_options(curl);
            keep_trace_off_other_files(curl, __func__);
            select_proxies(connection, curl, url);
            connection->curl = curl;
            connection->header_opts = header_opts;
            syslog(LOG_NOTICE, "%s: Transport layer initialized!", __func__);
            return ATLS_OK;
        }
    }
    init_tl_curl_cleanup(code, curl, header_opts);
    return ATLS_SETUP_FAILED;
}

void init_tl_curl_cleanup(int code, CURL *curl, struct curl_slist *header_opts)
{
    if (code != 0)
        log_curl_error(code);
    if (curl)
        curl_easy_cleanup(curl);
    if (header_opts)
        curl_slist_free_all(header_opts);
}

// ---- Inner TLS engine and device identity

namespace
{

// A DER object fetched from secure storage, which may be the private key.
struct DerBuffer : SecretBytes<DER_CAPACITY> {
    uint32_t length = DER_CAPACITY;
};

// Logs a step of OpenSSL's that has failed, with the oldest error on the queue: what earlier calls left there must
// not be mistaken for it.
bool check_step(int result, const char *caller, const char *step)
{
    if (result == 1)
        return true;
    syslog(LOG_ERR, "%s:  %s failed..", caller, step);
    log_ssl_error();
    return false;
}

X509 *load_device_cert(SSL_CTX *ctx, const char *caller)
{
    DerBuffer der;
    if (secstore_get_device_cert(0, der.data, &der.length) != 0) {
        syslog(LOG_ERR, "%s: Failed Fetch the MIC", caller);
        return nullptr;
    }
    // The whole buffer is given, not the reported length: only the first DER object counts.
    const unsigned char *cursor = der.data;
    X509 *cert = d2i_X509(nullptr, &cursor, static_cast<long>(sizeof der.data));
    if (!cert) {
        syslog(LOG_ERR, "%s: Failed to load MIC into an openssl X509 object", caller);
        return nullptr;
    }
    ERR_clear_error();
    if (!check_step(SSL_CTX_use_certificate(ctx, cert), caller, "SSL_CTX_use_certificate")) {
        atls_add_mic_to_ctx_cleanup(cert, nullptr);
        return nullptr;
    }
    return cert;
}

EVP_PKEY *load_device_key(const char *caller)
{
    DerBuffer der;
    if (secstore_get_private_key(0, der.data, &der.length) != 0) {
        syslog(LOG_ERR, "%s: Failed Fetch the PKEY", caller);
        return nullptr;
    }
    EVP_PKEY *key = decode_device_key(der.data);
    if (!key)
        syslog(LOG_ERR, "%s: Failed to load pkey into an openssl EVP_PKEY object", caller);
    return key;
}

bool install_device_key(SSL_CTX *ctx, EVP_PKEY *key, const char *caller)
{
    ERR_clear_error();
    if (!check_step(SSL_CTX_use_PrivateKey(ctx, key), caller, "SSL_CTX_use_PrivateKey"))
        return false;
    ERR_clear_error();
    return check_step(SSL_CTX_check_private_key(ctx), caller, "SSL_check_private_key");
}

// Makes the platform's security context and returns its private record; NULL, with a log line, on failure.
// The caller destroys *sec_ctx in either case.
tlsplat_pvt_ctx *make_security_context(tlsplat_sec_ctx *sec_ctx, const char *caller)
{
    int tls_rc = tlsplat_api_init();
    if (tls_rc != 0) {
        syslog(LOG_ERR, "%s: Failed to Initialize TLS APIs: tls_rc=>[%d]", caller, tls_rc);
        return nullptr;
    }
    tls_rc = tlsplat_create_sec_ctx(sec_ctx);
    if (tls_rc != 0) {
        syslog(LOG_ERR, "%s: Failed to create TLS context: tls_rc=>[%d]", caller, tls_rc);
        return nullptr;
    }
    tls_rc = tlsplat_setopt_sec_ctx(*sec_ctx, TLSPLAT_OPT_DEFAULT_TRUSTSTORE, 1);
    if (tls_rc != 0) {
        syslog(LOG_ERR, "%s: Failed to set default Truststore option: tls_rc=>[%d]", caller, tls_rc);
        return nullptr;
    }
    tlsplat_pvt_ctx *context = tlsplat_get_ssl_ctx(*sec_ctx);
    if (!context)
        syslog(LOG_ERR, "%s: Failed to get application layer pvt context", caller);
    return context;
}

} // namespace

void atls_add_mic_to_ctx_cleanup(X509 *cert, EVP_PKEY *key)
{
    if (cert)
        X509_free(cert);
    if (key)
        EVP_PKEY_free(key);
}

int atls_add_mic_to_ctx(SSL_CTX *ctx)
{
    if (!ctx) {
        syslog(LOG_ERR, "%s: Invalid Input Parameters...bad ssl context", __func__);
        return ATLS_INVALID_INPUT;
    }
    secstore_init_ssl_lib();
    X509 *cert = load_device_cert(ctx, __func__);
    EVP_PKEY *key = cert ? load_device_key(__func__) : nullptr;
    overwrite_vector_registers();
    overwrite_dead_stack();
    const bool installed = key && install_device_key(ctx, key, __func__);
    atls_add_mic_to_ctx_cleanup(cert, key);
    return installed ? ATLS_OK : ATLS_SETUP_FAILED;
}

int init_al_ssl(atls_handle **handle)
{
    const LibraryCall call;
    if (!handle || !*handle) {
        syslog(LOG_ERR, "%s: Invalid Input Parameters...bad handle", __func__);
        return ATLS_INVALID_INPUT;
    }
    syslog(LOG_DEBUG, "%s: Creating ATLS context...", __func__);

    tlsplat_sec_ctx sec_ctx = nullptr;
    BIO *read_bio = nullptr;
    BIO *write_bio = nullptr;
    const auto unwind = [&](int result) {
        init_al_ssl_cleanup(handle, sec_ctx, read_bio, write_bio);
        return result;
    };

    const tlsplat_pvt_ctx *context = make_security_context(&sec_ctx, __func__);
    if (!context)
        return unwind(ATLS_SETUP_FAILED);
    const int installed = atls_add_mic_to_ctx(context->ssl_ctx);
    if (installed != ATLS_OK) {
        syslog(LOG_ERR, "%s: Failed to add fake cert/key into SSL CTX", __func__);
        return unwind(installed);
    }
    read_bio = BIO_new(BIO_s_mem());
    if (!read_bio) {
        syslog(LOG_ERR, "%s: Failed to create application layer in read buffer", __func__);
        return unwind(ATLS_SETUP_FAILED);
    }
    write_bio = BIO_new(BIO_s_mem());
    if (!write_bio) {
        syslog(LOG_ERR, "%s: Failed to create application layer in write buffer", __func__);
        return unwind(ATLS_SETUP_FAILED);
    }
    SSL *ssl = SSL_new(context->ssl_ctx);
    (*handle)->ssl = ssl;
    if (!ssl) {
        syslog(LOG_ERR, "%s: Failed to create ATLS SSL object", __func__);
        return unwind(ATLS_SETUP_FAILED);
    }
    tlsplat_destroy_sec_ctx(sec_ctx);
    sec_ctx = nullptr;
    SSL_set_bio(ssl, read_bio, write_bio);
    ERR_clear_error();
    SSL_set_connect_state(ssl);
    if (ERR_peek_error() !=
        0) { // since OpenSSL 3.2 it may lack memory; an engine without it crashes when it is used
        syslog(LOG_ERR, "%s: Failed to create ATLS SSL object", __func__);
        return unwind(ATLS_SETUP_FAILED);
    }
    // Session tickets in front of an answer are read over; record buffers, 33 KB, are held only while in use.
    SSL_set_mode(ssl, SSL_MODE_AUTO_RETRY | SSL_MODE_RELEASE_BUFFERS);
    syslog(LOG_DEBUG, "%s: Application layer initialized!", __func__);
    return ATLS_OK;
}

void init_al_ssl_cleanup(atls_handle **handle, tlsplat_sec_ctx sec_ctx, BIO *read_bio, BIO *write_bio)
{
    if (handle && *handle) {
        if (!(*handle)->ssl) { // an engine would own them
            if (read_bio)
                BIO_free(read_bio);
            if (write_bio)
                BIO_free(write_bio);
        }
        atls_handle_cleanup(handle);
    }
    if (sec_ctx)
        tlsplat_destroy_sec_ctx(sec_ctx);
}

// ---- Response capture

namespace
{

// The room of a block follows from its size alone: a curl_resp cannot remember it.
size_t room_for(size_t size)
{
    if (size <= LARGE_BLOCK || size > SIZE_MAX / 2)
        return size;
    size_t room = LARGE_BLOCK;
    while (room < size)
        room += room / 4;
    return room;
}

// libsafec is given no more than it was built for, by its header; a library that takes less says so when it is called.
bool copy_bytes(char *to, const char *from, size_t count)
{
    const errno_t error = count > RSIZE_MAX_MEM ? ESLEMAX : memcpy_s(to, count, from, count);
    if (error != ESLEMAX || count < 2)
        return error == 0;
    const size_t half = count / 2;
    return copy_bytes(to, from, half) && copy_bytes(to + half, from + half, count - half);
}

} // namespace

GrowingBlock::GrowingBlock(char *data, size_t size) : data_(data), size_(data ? size : 0), room_(size_)
{
}

GrowingBlock::~GrowingBlock()
{
    free(data_);
}

bool GrowingBlock::grow(size_t size)
{
    const size_t room = room_for(size);
    if (room > room_) {
        void *larger = realloc(data_, room);
        if (!larger)
            return false;
        data_ = static_cast<char *>(larger);
        room_ = room;
    }
    size_ = size;
    return true;
}

char *GrowingBlock::release()
{
    return std::exchange(data_, nullptr);
}

char *GrowingBlock::release_trimmed()
{
    void *trimmed = size_ > LARGE_BLOCK ? realloc(data_, size_) : nullptr;
    char *whole = release();
    return trimmed ? static_cast<char *>(trimmed) : whole;
}

size_t write_memory_cb(char *contents, size_t size, size_t nmemb, void *userdata)
{
    auto *resp = static_cast<curl_resp *>(userdata);
    if (!resp) {
        syslog(LOG_ERR, "%s: failed to typecast userdata pointer", __func__);
        return 0;
    }
    const size_t count = size * nmemb;
    const size_t block_size = resp->size + 1 + count;
    GrowingBlock block(resp->data, resp->size + 1);
    resp->data = nullptr;
    if (block_size <= count || !block.grow(block_size)) {
        syslog(LOG_ERR, "%s: reallocation failed for previously malloced block size [%zu]", __func__,
               block_size);
        resp->size = 0;
        return 0;
    }
    resp->data = block.release();
    const bool copied = copy_bytes(resp->data + resp->size, contents, count);
    if (copied)
        resp->size += count;
    else
        syslog(LOG_ERR, "%s: failed to copy [%zu] bytes of data to curl response struct", __func__, count);
    resp->data[resp->size] = '\0';
    return copied ? count : 0;
}

void cleanup_curl_resp(curl_resp *resp)
{
    if (!resp || !resp->data)
        return;
    free(resp->data);
    resp->data = nullptr;
    resp->size = 0;
}

// ---- Response headers

namespace
{

// Names and dates in headers are English, whatever locale the program has chosen for itself. The locale "C" is a constant of
// the C library, so that there is nothing to release.
class HeaderLocale
{
public:
    HeaderLocale() : before_(uselocale(newlocale(LC_ALL_MASK, "C", nullptr))) {}
    ~HeaderLocale() { uselocale(before_); }
    HeaderLocale(const HeaderLocale &) = delete;
    HeaderLocale &operator=(const HeaderLocale &) = delete;

private:
    locale_t before_;
};

// Finds a response header, in any letter case, and returns what stands behind its name and blank; or NULL. libsafec
// would not search further than it was built for.
const char *find_header(const char *text, const char *name)
{
    const HeaderLocale locale;
    const size_t name_length = strlen(name);
    const char *found = strcasestr(text, name);
    return found && static_cast<size_t>(found - text) + name_length <= HEADER_SEARCH_BOUND
               ? found + name_length
               : nullptr;
}

// The cookies of one response on their way into a buffer of limit characters and a NUL.
struct CookieList {
    char *text;
    int limit;
    int position = 0;
    int count = 0;

    bool full() const { return position == limit; }

    int finish(int result)
    {
        syslog(LOG_DEBUG, "%s: Done copying all Cookies, cookies found [%d]", "atls_get_cookie_from_header",
               count);
        if (result != ATLS_NO_COOKIE)
            text[position] = '\0';
        return result;
    }

    // Copies up to the end of the name=value part and returns where it stopped.
    const char *copy(const char *cursor)
    {
        while (!full() && *cursor != ';' && *cursor != '\r' && *cursor != '\0')
            text[position++] = *cursor++;
        count++;
        return cursor;
    }
};

// Unlinks the first Cookie line of a request header list and returns its node, or NULL.
curl_slist *take_cookie_line(curl_slist **list)
{
    constexpr const char *NAME = "Cookie: ";
    for (curl_slist **link = list; *link && (*link)->data; link = &(*link)->next) {
        curl_slist *node = *link;
        if (strncmp(node->data, NAME, strlen(NAME)) == 0) {
            *link = node->next;
            node->next = nullptr;
            return node;
        }
    }
    return nullptr;
}

// Stores a copy of a TrackingID value, which ends at the first CR of text; text is changed.
int copy_tracking_id(char *text, char **tracking_id, const char *caller)
{
    char *rest = nullptr;
    const char *value = strtok_r(text, "\r", &rest);
    if (!value || *value == '\n') { // strtok skips the CR of an empty line, not its LF
        syslog(LOG_ERR, "%s: TrackingID header is empty", caller);
        return ATLS_BAD_RESPONSE;
    }
    const size_t length = strlen(value);
    if (length > TRACKING_ID_MAX) {
        syslog(LOG_ERR, "%s: Failed to copy tracking_id, recvd trackingId len (%d) exceeded max limit(%d)",
               caller, static_cast<int>(length), static_cast<int>(TRACKING_ID_MAX));
        return ATLS_BAD_RESPONSE;
    }
    *tracking_id = static_cast<char *>(malloc(TRACKING_ID_MAX + 1));
    if (!*tracking_id) {
        syslog(LOG_ERR, "%s: Failed to allocate memory for tracking_id", caller);
        return ATLS_BAD_RESPONSE;
    }
    snprintf(*tracking_id, TRACKING_ID_MAX + 1, "%s", value);
    return ATLS_OK;
}

void write_clock_marker(const struct tm &fields, time_t when)
{
    const WriteSignalGuard guard;
    FILE *marker = fopen(HTTP_CLOCK_MARKER, "w");
    if (!marker)
        return;
    char text[64]; // ctime_r needs 26 up to the year 9999 and fails beyond
    const char *ctime_text = ctime_r(&when, text);
    fprintf(marker, "synced: tm_zone=%s ctime=%s", fields.tm_zone, ctime_text ? ctime_text : "");
    fclose(marker);
    syslog(LOG_NOTICE, "%s here write the file  /tmp/.stime-by-http", "atls_set_date_by_http_header");
}

// The clock has been set by NTP, by the user, or from a Date header.
bool is_clock_set()
{
    for (const char *marker : {"/tmp/.stime-by-ntp", "/tmp/.stime-by-user", HTTP_CLOCK_MARKER})
        if (access(marker, F_OK) == 0)
            return true;
    return false;
}

} // namespace

int atls_get_cookie_from_header(const char *header, char *cookies, int size)
{
    if (!header || !cookies || size <= 0) {
        syslog(LOG_ERR, "%s: Invalid Input Parameters...bad header/cookies buffer", __func__);
        return ATLS_INVALID_INPUT;
    }
    CookieList list{cookies, size - 1};
    if (list.limit == 0)
        return list.finish(ATLS_NO_COOKIE);
    for (const char *cursor = header;;) {
        syslog(LOG_DEBUG, "%s: Looking up Cookie, %d", __func__, list.count);
        cursor = find_header(cursor, "Set-Cookie: ");
        if (!cursor) {
            syslog(LOG_DEBUG, "%s: No more Set-Cookie Header found", __func__);
            return list.finish(list.count == 0 ? ATLS_NO_COOKIE : ATLS_OK);
        }
        if (list.count > 0)
            list.text[list.position++] = ';';
        if (list.full())
            return list.finish(ATLS_BAD_RESPONSE);
        syslog(LOG_DEBUG, "%s: Start copying Cookie cookieCnt=>[%d]", __func__, list.count);
        cursor = list.copy(cursor);
        if (list.full())
            return list.finish(ATLS_BAD_RESPONSE);
    }
}

int atls_set_cookies(atls_handle **handle, const char *cookies)
{
    if (!handle || !*handle || !cookies) {
        syslog(LOG_ERR, "%s: Invalid Input Parameters...bad handle/cookies", __func__);
        return ATLS_INVALID_INPUT;
    }
    atls_handle *connection = *handle;
    if (!connection->curl || !connection->header_opts) {
        syslog(LOG_ERR, "%s: Invalid Input Parameters...bad curl/header_opts", __func__);
        return ATLS_INVALID_INPUT;
    }
    if (curl_slist *old = take_cookie_line(&connection->header_opts)) {
        syslog(LOG_DEBUG, "%s: deleting header_option [%s]", __func__, old->data);
        curl_slist_free_all(old);
    }
    char line[ATLS_LINE_SIZE] = {};
    snprintf(line, sizeof line, "Cookie: %s", cookies);
    syslog(LOG_DEBUG, "%s: Adding header_option [%s]", __func__, cookies);

    curl_slist *longer = curl_slist_append(connection->header_opts, line);
    if (longer)
        connection->header_opts = longer;
    else
        syslog(LOG_ERR, "%s: Failed to set header option [%s]", __func__, line);
    // The transport must learn of a new head in every case: the old one may just have been released.
    const CURLcode code = curl_easy_setopt(connection->curl, CURLOPT_HTTPHEADER, connection->header_opts);
    if (longer && code != CURLE_OK) {
        syslog(LOG_ERR, "%s: Failed to load header options into curl object", __func__);
        log_curl_error(code);
    }
    return longer && code == CURLE_OK ? ATLS_OK : ATLS_BAD_RESPONSE;
}

int atls_get_tracking_id_from_header(const char *header, char **tracking_id)
{
    if (!header || !tracking_id) {
        syslog(LOG_ERR, "%s: Invalid Input Parameters...bad header/tracking_id buffer", __func__);
        return ATLS_INVALID_INPUT;
    }
    syslog(LOG_NOTICE, "%s: Looking up TrackingID", __func__);
    const char *found = find_header(header, "TrackingID: ");
    if (!found) {
        syslog(LOG_NOTICE, "%s: TrackingID Not FOUND ", __func__);
        return ATLS_OK;
    }
    const size_t length = strlen(found);
    auto *text = static_cast<char *>(calloc(length + 1, 1));
    if (!text) {
        syslog(LOG_ERR, "%s: Failed to allocate memory for tmpTrackingId", __func__);
        return ATLS_BAD_RESPONSE;
    }
    memcpy(text, found, length + 1);
    const int result = copy_tracking_id(text, tracking_id, __func__);
    free(text);
    return result;
}

void atls_set_date_by_http_header(const char *header)
{
    if (!header) {
        syslog(LOG_ERR, "%s: Invalid Input Parameters...bad header buffer", __func__);
        return;
    }
    syslog(LOG_NOTICE, "%s: Looking up Date", __func__);
    const char *found = find_header(header, "Date: ");
    if (!found) {
        syslog(LOG_NOTICE, "%s: DATE header Not FOUND ", __func__);
        return;
    }
    char text[DATE_TEXT_MAX + 1];
    strncpy(text, found, DATE_TEXT_MAX);
    text[DATE_TEXT_MAX] = '\0';
    char *rest = nullptr;
    const char *date = strtok_r(text, "\r", &rest);
    if (!date) {
        syslog(LOG_ERR, "%s: Failed to get valid Date header", __func__);
        return;
    }
    struct tm fields = {};
    fields.tm_isdst = -1;
    const HeaderLocale locale;
    (void)strptime(date, "%a, %e %h %Y %H:%M:%S %z", &fields);
    const time_t header_time = mktime(&fields); // the device reads the fields as local time
    if (time(nullptr) >= header_time || set_system_clock(&header_time) != 0)
        return;
    write_clock_marker(fields, header_time);
}

// ---- One POST

Post::~Post()
{
    cleanup_curl_resp(&header);
    cleanup_curl_resp(&body);
}

bool Post::attach()
{
    read_bio = SSL_get_rbio(handle->ssl);
    if (!read_bio) {
        syslog(LOG_ERR, "%s: Failed to get read BIO from application layer", caller);
        return false;
    }
    write_bio = SSL_get_wbio(handle->ssl);
    if (!write_bio) {
        syslog(LOG_ERR, "%s: Failed to get write BIO from application layer", caller);
        return false;
    }
    code = RequestOptions(handle->curl, caller)
               .set(CURLOPT_WRITEDATA, &body, "Failed to set curl response body buffer")
               .set(CURLOPT_HEADERDATA, &header, "Failed to set curl response header buffer")
               .result();
    return code == CURLE_OK;
}

bool Post::set_records(const char *records, int length)
{
    code = RequestOptions(handle->curl, caller)
               .set(CURLOPT_POSTFIELDSIZE, static_cast<long>(length), "Failed to set curl post body size")
               .set(CURLOPT_POSTFIELDS, records, "Failed to set curl post body")
               .result();
    return code == CURLE_OK;
}

bool Post::perform()
{
    code = post_with_failover(caller, handle);
    return code == CURLE_OK;
}

bool Post::check_parts()
{
    const bool complete = body.data && body.size > 0 && header.data && header.size > 0;
    if (!complete)
        syslog(LOG_ERR, "%s: Failed to receieve handshake response", caller);
    return complete;
}

bool Post::read_status()
{
    code = curl_easy_getinfo(handle->curl, CURLINFO_RESPONSE_CODE, &status_code);
    if (code != CURLE_OK)
        syslog(LOG_ERR, "%s: Failed to get response status code", caller);
    return code == CURLE_OK;
}

int Post::keep_cookies()
{
    char cookies[COOKIES_SIZE] = {};
    int result = atls_get_cookie_from_header(header.data, cookies, COOKIES_SIZE);
    if (result == ATLS_NO_COOKIE)
        return ATLS_OK;
    if (result != ATLS_OK) {
        syslog(LOG_ERR, "%s: Failed to get ATLS cookies", caller);
        return result;
    }
    result = atls_set_cookies(&handle, cookies);
    if (result != ATLS_OK)
        syslog(LOG_ERR, "%s: Failed to set ATLS cookies", caller);
    return result;
}

// ---- Handshake

namespace
{

// The numbered dump files of one direction. No two dumps share a number, and no lock is held that a fork could
// leave locked in the child.
struct FlightDump {
    const char *prefix;
    std::atomic<int> file_index{1};
};

FlightDump sent_flights{"/tmp/atls_handshake_data_sent_"};
FlightDump received_flights{"/tmp/atls_handshake_data_received_"};

void dump_flight(FlightDump &dump, const char *caller, const void *data, size_t length)
{
    if (!data) {
        syslog(LOG_ERR, "%s: data is null", caller);
        return;
    }
    if (length == 0) {
        syslog(LOG_ERR, "%s: length is zero", caller);
        return;
    }
    const WriteSignalGuard guard;
    const int index = dump.file_index++;
    char name[200] = {};
    snprintf(name, sizeof name, "%s%d", dump.prefix, index);
    FILE *file = fopen(name, "wb");
    if (!file) {
        syslog(LOG_ERR, "%s: Failed to open %s for write, error:%s(%d)", caller, name, strerror(errno),
               errno);
        int next = index + 1; // the number is free again, unless others have been given out since
        dump.file_index.compare_exchange_strong(next, index);
        return;
    }
    (void)fwrite(data, 1, length, file);
    (void)fclose(file);
}

constexpr const char *HANDSHAKE = "atls_handshake"; // the name that its steps log under

// State of one handshake.
struct Handshake {
    Post post;
    bool refused = false;     // by TLS, on either side
    unsigned long reason = 0; // OpenSSL's, if it had one
    long verification = X509_V_OK;
    char flight[ATLS_FLIGHT_SIZE] = {};

    explicit Handshake(atls_handle *handle) : post(HANDSHAKE, handle) {}
};

int prepare_handshake(Handshake &state)
{
    Post &post = state.post;
    if (!post.handle || !post.handle->ssl) {
        syslog(LOG_ERR, "%s: Invalid Input Parameters...bad handle", HANDSHAKE);
        return ATLS_INVALID_INPUT;
    }
    bool prepared = post.attach();
    if (prepared) {
        post.code = RequestOptions(post.handle->curl, HANDSHAKE)
                        .set(CURLOPT_WRITEFUNCTION, write_memory_cb, "Failed to set curl response callback")
                        .result();
        prepared = post.code == CURLE_OK;
    }
    log_curl_error(post.code);
    return prepared ? ATLS_OK : ATLS_HANDSHAKE_FAILED;
}

// Lets the engine go on with what it has been fed; true: the handshake is complete. When the engine gives up, says why:
// nothing that comes later tells that.
bool continue_handshake(Handshake &state)
{
    SSL *ssl = state.post.handle->ssl;
    const int result = SSL_do_handshake(ssl);
    if (result == 1 || state.refused || SSL_get_error(ssl, result) == SSL_ERROR_WANT_READ)
        return result == 1;
    state.refused = true;
    state.reason = ERR_peek_last_error(); // those before it are of single steps, of a signature say
    state.verification = SSL_get_verify_result(ssl);
    char text[256];
    ERR_error_string_n(state.reason, text, sizeof text);
    syslog(LOG_ERR, "%s: TLS handshake failed [%lu] => [%s], verification [%ld] => [%s]", HANDSHAKE,
           state.reason, text, state.verification, X509_verify_cert_error_string(state.verification));
    return false;
}

// Leaves the reason, and nothing else of ours, on the thread's error queue.
void leave_reason(const Handshake &state)
{
    ERR_clear_error();
    if (state.reason == 0)
        return;
    put_error_back(state.reason);
    if (state.verification != X509_V_OK)
        ERR_add_error_data(1, X509_verify_cert_error_string(state.verification));
}

bool post_flight(Handshake &state)
{
    Post &post = state.post;
    const int length = BIO_read(post.write_bio, state.flight, ATLS_FLIGHT_SIZE);
    if (length < 0) {
        syslog(LOG_ERR, "%s: Failed to read ATLS flight from BIO bytes read=>[%d]", HANDSHAKE, length);
        return false;
    }
    if (!post.set_records(state.flight, length))
        return false;
    save_posted_handshake_data(state.flight, static_cast<size_t>(length));
    return post.perform();
}

bool receive_flight(Post &post)
{
    if (!post.check_parts())
        return false;
    const int port = static_cast<int>(post.handle->port);
    syslog(LOG_DEBUG, "%s: Header received [%d] bytes [%s] from [%s:%d]", HANDSHAKE,
           static_cast<int>(post.header.size), post.header.data, post.handle->hostname, port);
    syslog(LOG_DEBUG, "%s: ATLS received [%d] bytes from [%s:%d]", HANDSHAKE,
           static_cast<int>(post.header.size + post.body.size), post.handle->hostname, port);
    save_received_handshake_data(post.body.data, post.body.size);
    return post.read_status();
}

int check_status(const Post &post)
{
    if (post.status_code == HTTP_OK)
        return ATLS_OK;
    syslog(LOG_ERR, "%s: Failed to get valid server response status_code=>[%lu]", HANDSHAKE,
           static_cast<unsigned long>(post.status_code));
    return post.status_code == HTTP_BAD_REQUEST ? ATLS_BAD_RESPONSE : ATLS_UNEXPECTED_STATUS;
}

void set_clock_unless_set(const char *header)
{
    if (is_clock_set())
        return;
    syslog(LOG_NOTICE, "%s: timer not sync by ntp/user/http, check Date header", HANDSHAKE);
    atls_set_date_by_http_header(header);
}

int feed_engine(Post &post)
{
    const auto size = static_cast<int>(std::min(post.body.size, size_t{INT_MAX}));
    if (post.body.size > INT_MAX || BIO_write(post.read_bio, post.body.data, size) < size) {
        syslog(LOG_ERR, "%s: Failed to read flight response of size=>[%d]", HANDSHAKE, size);
        return ATLS_HANDSHAKE_FAILED;
    }
    cleanup_curl_resp(&post.body);
    cleanup_curl_resp(&post.header);
    return ATLS_OK;
}

// Posts the client flight that the engine has written and hands it the server's.
int exchange_flights(Handshake &state)
{
    Post &post = state.post;
    if (!post_flight(state) || !receive_flight(post)) {
        log_curl_error(post.code);
        return ATLS_HANDSHAKE_FAILED;
    }
    int result = check_status(post);
    if (result != ATLS_OK)
        return result;
    set_clock_unless_set(post.header.data);
    result = post.keep_cookies();
    return result == ATLS_OK ? feed_engine(post) : result;
}

} // namespace

void save_posted_handshake_data(const void *data, size_t length)
{
    dump_flight(sent_flights, __func__, data, length);
}

void save_received_handshake_data(const void *data, size_t length)
{
    dump_flight(received_flights, __func__, data, length);
}

int atls_handshake(atls_handle *handle)
{
    const LibraryCall call;
    Handshake state(handle);
    int result = prepare_handshake(state);
    while (result == ATLS_OK && !continue_handshake(state))
        result = exchange_flights(state);
    if (result == ATLS_OK) {
        give_back_bio_room(state.post.read_bio); // a long chain of certificates took it
        give_back_bio_room(state.post.write_bio);
    } else
        atls_handshake_cleanup(handle, &state.post.body, &state.post.header);
    if (result != ATLS_INVALID_INPUT) // the engine has not been touched
        leave_reason(state);
    return result;
}

void atls_handshake_cleanup(atls_handle *handle, curl_resp *body, curl_resp *header)
{
    if (handle)
        atls_handle_cleanup(&handle);
    cleanup_curl_resp(body);
    cleanup_curl_resp(header);
}
