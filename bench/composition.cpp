// The ideal composition that the library is measured against.

#include "composition.h"

#include "peers.h"
#include "platform.h"

#include <cstdio>
#include <cstring>

#include <openssl/crypto.h>
#include <openssl/x509.h>
#include <syslog.h>

namespace bench
{

namespace
{

constexpr int FLIGHT = 16384;
constexpr uint32_t DER_SIZE = 4096;

size_t take(char *bytes, size_t size, size_t count, void *data)
{
    auto &block = *static_cast<Block *>(data);
    const size_t length = size * count;
    char *larger = static_cast<char *>(realloc(block.data.release(), block.size + length + 1));
    memcpy(larger + block.size, bytes, length);
    block.size += length;
    larger[block.size] = '\0';
    block.data.reset(larger);
    return length;
}

void dump(const char *name, const void *data, size_t length)
{
    const Owned<FILE, fclose> file(fopen(name, "wb"));
    require(file && fwrite(data, 1, length, file.get()) == length, name);
}

} // namespace

Owned<SSL_CTX, SSL_CTX_free> make_context()
{
    tlsplat_sec_ctx security = nullptr;
    tlsplat_api_init();
    require(tlsplat_create_sec_ctx(&security) == 0, "security context");
    require(tlsplat_setopt_sec_ctx(security, TLSPLAT_OPT_DEFAULT_TRUSTSTORE, 1) == 0, "trust store");
    Owned<SSL_CTX, SSL_CTX_free> ctx(tlsplat_get_ssl_ctx(security)->ssl_ctx);
    SSL_CTX_up_ref(ctx.get());
    tlsplat_destroy_sec_ctx(security);

    unsigned char der[DER_SIZE] = {};
    uint32_t length = DER_SIZE;
    secstore_init_ssl_lib();
    secstore_get_device_cert(0, der, &length);
    const unsigned char *cursor = der;
    const Owned<X509, X509_free> certificate(d2i_X509(nullptr, &cursor, DER_SIZE));
    require(SSL_CTX_use_certificate(ctx.get(), certificate.get()) == 1, "certificate");
    length = DER_SIZE;
    secstore_get_private_key(0, der, &length);
    cursor = der;
    const Owned<EVP_PKEY, EVP_PKEY_free> key(d2i_PrivateKey(EVP_PKEY_RSA, nullptr, &cursor, DER_SIZE));
    require(SSL_CTX_use_PrivateKey(ctx.get(), key.get()) == 1 && SSL_CTX_check_private_key(ctx.get()) == 1,
            "key");
    OPENSSL_cleanse(der, sizeof der);
    return ctx;
}

BarePost::BarePost(int port, const char *path)
{
    const std::string url = "https://127.0.0.1:" + std::to_string(port) + path;
    curl_easy_setopt(curl_.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl_.get(), CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(curl_.get(), CURLOPT_SSL_VERIFYHOST, 0L);
    curl_easy_setopt(curl_.get(), CURLOPT_WRITEFUNCTION, take);
    curl_easy_setopt(curl_.get(), CURLOPT_WRITEDATA, &body);
    curl_easy_setopt(curl_.get(), CURLOPT_HEADERDATA, &header_);
}

void BarePost::post(const char *data, size_t length)
{
    header_.reset();
    body.reset();
    curl_easy_setopt(curl_.get(), CURLOPT_POSTFIELDSIZE, static_cast<long>(length));
    curl_easy_setopt(curl_.get(), CURLOPT_POSTFIELDS, data);
    const CURLcode code = curl_easy_perform(curl_.get());
    require(code == CURLE_OK, std::string("POST: ") + curl_easy_strerror(code));
}

Composition::Composition(int port, SSL_CTX *ready) : BarePost(port, "/atls")
{
    static char error_text[CURL_ERROR_SIZE];
    curl_easy_setopt(curl_.get(), CURLOPT_VERBOSE, 1L);
    curl_easy_setopt(curl_.get(), CURLOPT_ERRORBUFFER, error_text);
    curl_easy_setopt(curl_.get(), CURLOPT_TIMEOUT_MS, 30000L);
    curl_easy_setopt(curl_.get(), CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    curl_easy_setopt(curl_.get(), CURLOPT_NOSIGNAL, 1L);
    for (const char *line : {"Content-Type: application/octet-stream",
                             "User-Agent: Halvo-Desktop/desktop-1.0", "Accept:", "Expect:"})
        add_line(line);
    ssl.reset(SSL_new(ready ? ready : make_context().get())); // keeps the context
    SSL_set_bio(ssl.get(), BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem()));
    SSL_set_connect_state(ssl.get());
    SSL_set_mode(ssl.get(), SSL_MODE_AUTO_RETRY | SSL_MODE_RELEASE_BUFFERS);
    handshake();
}

void Composition::add_line(const std::string &line)
{
    lines_.reset(curl_slist_append(lines_.release(), line.c_str()));
    curl_easy_setopt(curl_.get(), CURLOPT_HTTPHEADER, lines_.get());
}

void Composition::handshake()
{
    char flight[FLIGHT];
    while (SSL_do_handshake(ssl.get()) != 1) {
        const auto length = static_cast<size_t>(BIO_read(SSL_get_wbio(ssl.get()), flight, FLIGHT));
        dump("/tmp/bench_sent", flight, length);
        post(flight, length);
        dump("/tmp/bench_received", body.data.get(), body.size);
        BIO_write(SSL_get_rbio(ssl.get()), body.data.get(), static_cast<int>(body.size));
        const char *cookie = strstr(header_.data.get(), "Set-Cookie: ");
        require(cookie != nullptr, "no cookie");
        cookie += strlen("Set-Cookie: ");
        add_line("Cookie: " + std::string(cookie, strcspn(cookie, ";")));
    }
}

// As many lines as the library writes of a response, with the same texts in them and at the same point.
void Composition::log_response() const
{
    syslog(LOG_DEBUG, "%s: Header received [%d] bytes [%s] from [%s:%d]", "post",
           static_cast<int>(header_.size), header_.data.get(), "127.0.0.1", 1);
    syslog(LOG_DEBUG, "%s: Body received [%d] bytes [%s] from [%s:%d]", "post", static_cast<int>(body.size),
           body.data.get(), "127.0.0.1", 1);
    for (int i = 0; i < 7; i++)
        syslog(LOG_DEBUG, "%s: a line of debugging about a cookie [%d]", "composition_cookies", i);
    for (int i = 0; i < 2; i++)
        syslog(LOG_DEBUG, "%s: header_option [%s]", "composition_cookies", lines_->data);
    for (int i = 0; i < 3; i++)
        syslog(LOG_NOTICE, "%s: a notice with a number [%d]", "composition", i);
}

void Composition::send(const std::string &message)
{
    SSL_write(ssl.get(), message.data(), static_cast<int>(message.size()));
    const auto length = static_cast<size_t>(BIO_ctrl_pending(SSL_get_wbio(ssl.get())));
    const Owned<char, free> records(static_cast<char *>(malloc(length + 1)));
    BIO_read(SSL_get_wbio(ssl.get()), records.get(), static_cast<int>(length));
    records.get()[length] = '\0';
    syslog(LOG_DEBUG, "%s: Attempting to send [%d] [%s]", "post", static_cast<int>(length), records.get());
    post(records.get(), length);
    log_response();
}

void Composition::decrypt()
{
    BIO_write(SSL_get_rbio(ssl.get()), body.data.get(), static_cast<int>(body.size));
    answer.reset(static_cast<char *>(malloc(body.size + 1)));
    for (int count; (count = SSL_read(ssl.get(), answer.data.get() + answer.size, FLIGHT)) > 0;)
        answer.size += static_cast<size_t>(count);
    answer.data.get()[answer.size] = '\0';
    const int length = static_cast<int>(answer.size);
    syslog(LOG_DEBUG, "%s: Decrypted body [%d] bytes [%s] from [%s:%d]", "post", length, answer.data.get(),
           "127.0.0.1", 1);
    syslog(LOG_NOTICE, "%s: a notice with a number [%d]", "composition", length);
}

} // namespace bench
