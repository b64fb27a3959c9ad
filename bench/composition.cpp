// The ideal composition that the library is measured against.

#include "composition.h"

#include "platform.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>

#include <openssl/crypto.h>
#include <openssl/x509.h>
#include <syslog.h>

namespace bench
{

namespace
{

constexpr int FLIGHT = 16384;
constexpr size_t DER_SIZE = 4096;
char error_text[CURL_ERROR_SIZE];

void require(bool rule, const char *what)
{
    if (!rule)
        throw std::runtime_error(std::string("the composition fails: ") + what);
}

size_t take(char *bytes, size_t size, size_t count, void *block)
{
    static_cast<Block *>(block)->append(bytes, size * count);
    return size * count;
}

void dump(const char *name, const void *data, size_t length)
{
    FILE *file = fopen(name, "wb");
    require(file != nullptr, name);
    fwrite(data, 1, length, file);
    fclose(file);
}

} // namespace

void Block::release()
{
    free(data);
    data = nullptr;
    size = 0;
}

void Block::append(const char *bytes, size_t count)
{
    data = static_cast<char *>(realloc(data, size + count + 1));
    memcpy(data + size, bytes, count);
    size += count;
    data[size] = '\0';
}

SSL_CTX *Composition::make_context()
{
    tlsplat_sec_ctx security = nullptr;
    tlsplat_api_init();
    require(tlsplat_create_sec_ctx(&security) == 0, "security context");
    require(tlsplat_setopt_sec_ctx(security, TLSPLAT_OPT_DEFAULT_TRUSTSTORE, 1) == 0, "trust store");
    SSL_CTX *ctx = tlsplat_get_ssl_ctx(security)->ssl_ctx;
    SSL_CTX_up_ref(ctx);
    tlsplat_destroy_sec_ctx(security);

    unsigned char der[DER_SIZE] = {};
    uint32_t length = sizeof der;
    secstore_init_ssl_lib();
    secstore_get_device_cert(0, der, &length);
    const unsigned char *cursor = der;
    X509 *certificate = d2i_X509(nullptr, &cursor, sizeof der);
    require(SSL_CTX_use_certificate(ctx, certificate) == 1, "certificate");
    X509_free(certificate);
    length = sizeof der;
    secstore_get_private_key(0, der, &length);
    cursor = der;
    EVP_PKEY *key = d2i_PrivateKey(EVP_PKEY_RSA, nullptr, &cursor, sizeof der);
    require(SSL_CTX_use_PrivateKey(ctx, key) == 1 && SSL_CTX_check_private_key(ctx) == 1, "key");
    EVP_PKEY_free(key);
    OPENSSL_cleanse(der, sizeof der);
    return ctx;
}

Composition::Composition(int port, SSL_CTX *ready) : curl_(curl_easy_init())
{
    prepare_requests(port);
    SSL_CTX *ctx = ready ? ready : make_context();
    ssl_ = SSL_new(ctx);
    if (!ready)
        SSL_CTX_free(ctx);
    SSL_set_bio(ssl_, BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem()));
    SSL_set_connect_state(ssl_);
    SSL_set_mode(ssl_, SSL_MODE_AUTO_RETRY | SSL_MODE_RELEASE_BUFFERS);
    handshake();
}

Composition::~Composition()
{
    curl_easy_cleanup(curl_);
    curl_slist_free_all(headers_);
    SSL_free(ssl_);
}

void Composition::prepare_requests(int port)
{
    for (const char *line : {"Content-Type: application/octet-stream",
                             "User-Agent: Halvo-Desktop/desktop-1.0", "Accept:", "Expect:"})
        headers_ = curl_slist_append(headers_, line);
    const std::string url = "https://127.0.0.1:" + std::to_string(port) + "/atls";
    curl_easy_setopt(curl_, CURLOPT_VERBOSE, 1L);
    curl_easy_setopt(curl_, CURLOPT_ERRORBUFFER, error_text);
    curl_easy_setopt(curl_, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl_, CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(curl_, CURLOPT_SSL_VERIFYHOST, 0L);
    curl_easy_setopt(curl_, CURLOPT_TIMEOUT_MS, 30000L);
    curl_easy_setopt(curl_, CURLOPT_HTTPHEADER, headers_);
    curl_easy_setopt(curl_, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    curl_easy_setopt(curl_, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl_, CURLOPT_WRITEFUNCTION, take);
    curl_easy_setopt(curl_, CURLOPT_WRITEDATA, &body_);
    curl_easy_setopt(curl_, CURLOPT_HEADERDATA, &header_);
}

void Composition::post(const char *records, size_t length)
{
    header_.release();
    body_.release();
    curl_easy_setopt(curl_, CURLOPT_POSTFIELDSIZE, static_cast<long>(length));
    curl_easy_setopt(curl_, CURLOPT_POSTFIELDS, records);
    require(curl_easy_perform(curl_) == CURLE_OK, error_text);
}

void Composition::handshake()
{
    char flight[FLIGHT];
    while (SSL_do_handshake(ssl_) != 1) {
        const int length = BIO_read(SSL_get_wbio(ssl_), flight, FLIGHT);
        dump("/tmp/bench_sent", flight, static_cast<size_t>(length));
        post(flight, static_cast<size_t>(length));
        dump("/tmp/bench_received", body_.data, body_.size);
        BIO_write(SSL_get_rbio(ssl_), body_.data, static_cast<int>(body_.size));
        const char *cookie = strstr(header_.data, "Set-Cookie: ");
        require(cookie != nullptr, "no cookie");
        cookie += strlen("Set-Cookie: ");
        const std::string line = "Cookie: " + std::string(cookie, strcspn(cookie, ";"));
        headers_ = curl_slist_append(headers_, line.c_str());
        curl_easy_setopt(curl_, CURLOPT_HTTPHEADER, headers_);
    }
}

// As many lines as the library writes of a response, with the same texts in them and at the same point.
void Composition::log_response() const
{
    const int body_size = static_cast<int>(body_.size), header_size = static_cast<int>(header_.size);
    syslog(LOG_DEBUG, "%s: Header received [%d] bytes [%s] from [%s:%d]", "post", header_size, header_.data,
           "127.0.0.1", 1);
    syslog(LOG_DEBUG, "%s: Body received [%d] bytes [%s] from [%s:%d]", "post", body_size, body_.data,
           "127.0.0.1", 1);
    for (int i = 0; i < 2; i++)
        syslog(LOG_DEBUG, "%s: a line of debugging about an answer from [%s:%d]", "composition", "127.0.0.1",
               i);
    for (int i = 0; i < 5; i++)
        syslog(LOG_DEBUG, "%s: a line of debugging about a cookie [%d]", "composition_cookies", i);
    for (int i = 0; i < 2; i++)
        syslog(LOG_DEBUG, "%s: header_option [%s]", "composition_cookies", headers_->data);
    for (int i = 0; i < 3; i++)
        syslog(LOG_NOTICE, "%s: a notice with a number [%d]", "composition", i);
}

void Composition::decrypt()
{
    BIO_write(SSL_get_rbio(ssl_), body_.data, static_cast<int>(body_.size));
    answer_.release();
    answer_.data = static_cast<char *>(malloc(body_.size + 1));
    for (int count; (count = SSL_read(ssl_, answer_.data + answer_.size, FLIGHT)) > 0;)
        answer_.size += static_cast<size_t>(count);
    answer_.data[answer_.size] = '\0';
    const int length = static_cast<int>(answer_.size);
    syslog(LOG_DEBUG, "%s: Decrypted body [%d] bytes [%s] from [%s:%d]", "post", length, answer_.data,
           "127.0.0.1", 1);
    syslog(LOG_NOTICE, "%s: a notice with a number [%d]", "composition", length);
}

const Block &Composition::exchange(const std::string &message)
{
    SSL_write(ssl_, message.data(), static_cast<int>(message.size()));
    const auto length = static_cast<size_t>(BIO_ctrl_pending(SSL_get_wbio(ssl_)));
    const std::unique_ptr<char, decltype(&free)> records(static_cast<char *>(malloc(length + 1)), free);
    BIO_read(SSL_get_wbio(ssl_), records.get(), static_cast<int>(length));
    records.get()[length] = '\0';
    syslog(LOG_DEBUG, "%s: Attempting to send [%d] [%s]", "post", static_cast<int>(length), records.get());
    post(records.get(), length);
    log_response();
    decrypt();
    return answer_;
}

BarePost::BarePost(int port) : curl_(curl_easy_init())
{
    const std::string url = "https://127.0.0.1:" + std::to_string(port) + "/echo";
    curl_easy_setopt(curl_, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl_, CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(curl_, CURLOPT_SSL_VERIFYHOST, 0L);
    curl_easy_setopt(curl_, CURLOPT_WRITEFUNCTION, take);
    curl_easy_setopt(curl_, CURLOPT_WRITEDATA, &body_);
    curl_easy_setopt(curl_, CURLOPT_HEADERDATA, &header_);
}

BarePost::~BarePost()
{
    curl_easy_cleanup(curl_);
}

const Block &BarePost::exchange(const std::string &body)
{
    header_.release();
    body_.release();
    curl_easy_setopt(curl_, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
    curl_easy_setopt(curl_, CURLOPT_POSTFIELDS, body.data());
    require(curl_easy_perform(curl_) == CURLE_OK, "POST");
    return body_;
}

} // namespace bench
