// What the two files of the ATLS client share: the operations behind the public header. All of them are
// exported from the library with C linkage; none is meant for programs. Results are those of atls.h.
#ifndef ATLS_INTERNALS_H
#define ATLS_INTERNALS_H

#include "atls.h"
#include "platform.h"

#include <curl/curl.h>
#include <openssl/bio.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

// One step of collecting TLS records from the engine; also the length of a full TLS record's plaintext.
constexpr int ATLS_FLIGHT_SIZE = 16384;
// The URL of a request and each line of its header list are cut to this size, NUL included.
constexpr size_t ATLS_LINE_SIZE = 1024;

// Collects what libcurl delivers of one response part. data is NULL, or size bytes and a NUL.
typedef struct curl_resp {
    char *data;
    size_t size;
} curl_resp;

extern "C" {

// ---- Logging

// Logs the oldest error of the calling thread's OpenSSL error queue and takes it off the queue.
void log_ssl_error(void);
// Logs a libcurl result, with the text of the process's last transfer failure if there is one; 0 is not
// logged.
void log_curl_error(int code);

// ---- Transport: the HTTPS POST request object

int init_tl_curl(atls_handle **handle, const char *service, const char *tracking_id);
// Unwinds a failed set-up: logs code unless it is 0, releases curl and header_opts unless they are NULL.
void init_tl_curl_cleanup(int code, CURL *curl, struct curl_slist *header_opts);
// The User-Agent of this device, built at the first call and never changed.
const char *atls_get_user_agent(void);

// ---- Inner TLS engine and device identity

int init_al_ssl(atls_handle **handle);
// Unwinds a failed set-up: the BIOs unless an engine owns them, the whole handle, the security context.
void init_al_ssl_cleanup(atls_handle **handle, tlsplat_sec_ctx sec_ctx, BIO *read_bio, BIO *write_bio);
// Installs the device's certificate and private key from secure storage.
int atls_add_mic_to_ctx(SSL_CTX *ctx);
void atls_add_mic_to_ctx_cleanup(X509 *cert, EVP_PKEY *key);

// ---- Response capture and response headers

// libcurl write callback for header block and body; userdata is a curl_resp. Returns the bytes taken, 0 on
// failure.
size_t write_memory_cb(char *contents, size_t size, size_t nmemb, void *userdata);
void cleanup_curl_resp(curl_resp *resp);
// Collects the name=value parts of all Set-Cookie headers, joined by ";". ATLS_NO_COOKIE leaves cookies
// alone; ATLS_BAD_RESPONSE means that the list was cut to the buffer.
int atls_get_cookie_from_header(const char *header, char *cookies, int size);
// Replaces the Cookie line of the handle's request headers.
int atls_set_cookies(atls_handle **handle, const char *cookies);
// Stores a heap copy of the TrackingID header in *tracking_id, which is left alone when there is no such
// header.
int atls_get_tracking_id_from_header(const char *header, char **tracking_id);
// Moves the system clock forward to the Date header, and leaves a marker file when it did.
void atls_set_date_by_http_header(const char *header);

// ---- Handshake

// Runs the handshake of the handle's engine over POSTs. Every failure empties the handle; where TLS itself had a
// reason for it, that is all that is on the thread's OpenSSL error queue.
int atls_handshake(atls_handle *handle);
void atls_handshake_cleanup(atls_handle *handle, curl_resp *body, curl_resp *header);
// Dump one flight to the next numbered file under /tmp.
void save_posted_handshake_data(const void *data, size_t length);
void save_received_handshake_data(const void *data, size_t length);

// ---- Exchange

// Decrypts a response body: *out, NULL on entry, receives a NUL-terminated heap buffer of *out_length bytes.
int atls_decrypt_buffer(SSL *ssl, BIO *read_bio, const void *data, int length, char **out, int *out_length);

} // extern "C"

// ---- Helpers of the two files; not exported

// A heap block that grows in many steps. Up to 1 MiB it has exactly the size asked for; beyond, room for some steps
// more, since allocators move a large block each time that it grows.
class GrowingBlock
{
public:
    GrowingBlock() = default;
    // Takes over a block of at least this size. What it may have beyond is not known.
    GrowingBlock(char *data, size_t size);
    ~GrowingBlock();
    GrowingBlock(const GrowingBlock &) = delete;
    GrowingBlock &operator=(const GrowingBlock &) = delete;

    bool grow(size_t size); // false: there is no memory, and nothing has changed
    char *data() const { return data_; }
    char *release();         // gives the block away
    char *release_trimmed(); // and back what a large one has to spare

private:
    char *data_ = nullptr;
    size_t size_ = 0;
    size_t room_ = 0;
};

// Sets options of a request object in order and stops at the first that fails, after logging that.
class RequestOptions
{
public:
    RequestOptions(CURL *curl, const char *caller) : curl_(curl), caller_(caller) {}

    template <typename Value>
    RequestOptions &set(CURLoption option, Value value, const char *failure)
    {
        if (code_ == CURLE_OK) {
            code_ = curl_easy_setopt(curl_, option, value);
            if (code_ != CURLE_OK)
                log(failure);
        }
        return *this;
    }

    CURLcode result() const { return code_; }

private:
    void log(const char *failure) const;

    CURL *curl_;
    const char *caller_;
    CURLcode code_ = CURLE_OK;
};

// Frees the handle's proxy list; later posts then have no proxy to fall back on.
void release_proxy_list(atls_handle *handle);

// Posts what is set on the request object, falling back along the handle's proxy list. On failure the list is
// released and the libcurl result returned. caller is the name to log under.
CURLcode post_with_failover(const char *caller, atls_handle *handle);

// A POST of TLS records, and what came back. Handshake and exchange take the same steps, each in its own order; what
// fails has been logged under the name of the caller.
struct Post {
    const char *caller;
    atls_handle *handle;
    BIO *read_bio = nullptr; // the engine's two
    BIO *write_bio = nullptr;
    curl_resp body = {};
    curl_resp header = {};
    long status_code = 0;
    CURLcode code = CURLE_OK; // of libcurl, when that was what failed

    Post(const char *name, atls_handle *connection) : caller(name), handle(connection) {}
    ~Post(); // releases what is left of the response
    Post(const Post &) = delete;
    Post &operator=(const Post &) = delete;

    bool attach(); // finds the engine's BIOs, and has the response delivered here
    bool set_records(const char *records, int length);
    bool perform();
    bool check_parts(); // both there
    bool read_status();
    int keep_cookies(); // for later requests
};

#endif
