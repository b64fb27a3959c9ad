// Clients that are measured: the library, and what an exchange and a connection cost at the least. All connect when they
// are made, and throw std::runtime_error when they cannot.
#ifndef BENCH_CLIENTS_H
#define BENCH_CLIENTS_H

#include "client.h"
#include "peers.h"
#include "platform.h"

#include <cstring>
#include <memory>

#include <curl/curl.h>
#include <openssl/crypto.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <syslog.h>

template <typename Object, auto release>
struct Releaser {
    void operator()(Object *object) const { release(object); }
};
template <typename Object, auto release>
using Owned = std::unique_ptr<Object, Releaser<Object, release>>;

struct Library : test::Client {
    explicit Library(int port) { require(connect(port) == 0, "atls_connect"); }
    void exchange(const std::string &message)
    {
        require(Client::exchange(message) == 0, "atls_easy_perform");
    }
};

// A response part, or the plain text of an answer.
struct Block {
    static size_t append(const char *bytes, size_t size, size_t count, Block *block)
    {
        char *larger = static_cast<char *>(realloc(block->text.release(), block->size + size * count + 1));
        memcpy(larger + block->size, bytes, size * count);
        larger[block->size += size * count] = '\0';
        block->text.reset(larger);
        return size * count;
    }
    void reset(char *other = nullptr) { text.reset(other), size = 0; }
    void log(const char *what) const
    {
        syslog(LOG_DEBUG, "%s: %s [%zu] bytes [%s] from [%s:%d]", "post", what, size, text.get(), "host", 1);
    }

    Owned<char, free> text;
    size_t size = 0;
};

// A POST of as many bytes as the records of a message have, with nothing but libcurl's defaults.
struct BarePost {
    explicit BarePost(int port, const char *path = "/echo")
    {
        const std::string url = "https://127.0.0.1:" + std::to_string(port) + path;
        curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
        curl_easy_setopt(curl.get(), CURLOPT_SSL_VERIFYPEER, 0L);
        curl_easy_setopt(curl.get(), CURLOPT_SSL_VERIFYHOST, 0L);
        curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, Block::append);
        curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &body);
        curl_easy_setopt(curl.get(), CURLOPT_HEADERDATA, &header);
    }
    void exchange(const std::string &message) { post(message.data(), message.size()); }

    void post(const char *data, size_t length)
    {
        header.reset();
        body.reset();
        curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDSIZE, static_cast<long>(length));
        curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDS, data);
        require(curl_easy_perform(curl.get()) == CURLE_OK, "POST");
    }

    Block header, body;
    Owned<curl_slist, curl_slist_free_all> lines; // of the request
    Owned<CURL, curl_easy_cleanup> curl{curl_easy_init()};
};

// The same POSTs, engine, trace, dump files and log lines as the library's, put together of the bare libraries without
// any of its checks.
struct Composition : BarePost {
    using Context = Owned<SSL_CTX, SSL_CTX_free>;
    explicit Composition(int port)
        : BarePost(port, "/atls"), ssl(SSL_new(make_context().get())) // it keeps that
    {
        static char error_text[CURL_ERROR_SIZE];
        curl_easy_setopt(curl.get(), CURLOPT_VERBOSE, 1L);
        curl_easy_setopt(curl.get(), CURLOPT_ERRORBUFFER, error_text);
        curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT_MS, 30000L);
        curl_easy_setopt(curl.get(), CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
        curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
        for (const char *line : {"Content-Type: application/octet-stream",
                                 "User-Agent: Halvo-Desktop/desktop-1.0", "Accept:", "Expect:"})
            add_line(line);
        SSL_set_bio(ssl.get(), BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem()));
        SSL_set_connect_state(ssl.get());
        SSL_set_mode(ssl.get(), SSL_MODE_AUTO_RETRY | SSL_MODE_RELEASE_BUFFERS);
        handshake();
    }

    // From the device's files.
    static Context make_context()
    {
        tlsplat_sec_ctx security = nullptr;
        tlsplat_api_init();
        require(tlsplat_create_sec_ctx(&security) == 0, "security context");
        require(tlsplat_setopt_sec_ctx(security, TLSPLAT_OPT_DEFAULT_TRUSTSTORE, 1) == 0, "trust store");
        Context context(tlsplat_get_ssl_ctx(security)->ssl_ctx);
        SSL_CTX_up_ref(context.get());
        tlsplat_destroy_sec_ctx(security);

        unsigned char der[4096] = {};
        uint32_t length = sizeof der;
        const unsigned char *cursor = der;
        secstore_init_ssl_lib();
        secstore_get_device_cert(0, der, &length);
        const Owned<X509, X509_free> certificate(d2i_X509(nullptr, &cursor, sizeof der));
        require(SSL_CTX_use_certificate(context.get(), certificate.get()) == 1, "certificate");
        length = sizeof der;
        cursor = der;
        secstore_get_private_key(0, der, &length);
        const Owned<EVP_PKEY, EVP_PKEY_free> key(d2i_PrivateKey(EVP_PKEY_RSA, nullptr, &cursor, sizeof der));
        require(SSL_CTX_use_PrivateKey(context.get(), key.get()) == 1, "key");
        require(SSL_CTX_check_private_key(context.get()) == 1, "the certificate's key");
        OPENSSL_cleanse(der, sizeof der);
        return context;
    }

    void exchange(const std::string &message) { send(message), decrypt(); }
    void send(const std::string &message)
    {
        SSL_write(ssl.get(), message.data(), static_cast<int>(message.size()));
        const auto length = static_cast<size_t>(BIO_ctrl_pending(SSL_get_wbio(ssl.get())));
        const Owned<char, free> records(static_cast<char *>(malloc(length + 1)));
        BIO_read(SSL_get_wbio(ssl.get()), records.get(), static_cast<int>(length));
        records.get()[length] = '\0';
        syslog(LOG_DEBUG, "%s: Attempting to send [%zu] [%s]", "post", length, records.get());
        post(records.get(), length);
        log_response();
    }
    void decrypt()
    {
        BIO_write(SSL_get_rbio(ssl.get()), body.text.get(), static_cast<int>(body.size));
        answer.reset(static_cast<char *>(malloc(body.size + 1)));
        for (int count; (count = SSL_read(ssl.get(), answer.text.get() + answer.size, FLIGHT)) > 0;)
            answer.size += static_cast<size_t>(count);
        answer.text.get()[answer.size] = '\0';
        answer.log("Decrypted body");
        syslog(LOG_NOTICE, "%s: a notice with a number [%d]", "composition", 0);
    }

    void add_line(const std::string &line)
    {
        lines.reset(curl_slist_append(lines.release(), line.c_str()));
        curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, lines.get());
    }
    void handshake()
    {
        char flight[FLIGHT];
        while (SSL_do_handshake(ssl.get()) != 1) {
            const auto length = static_cast<size_t>(BIO_read(SSL_get_wbio(ssl.get()), flight, FLIGHT));
            test::write_file("/tmp/bench_sent", {flight, length});
            post(flight, length);
            test::write_file("/tmp/bench_received", {body.text.get(), body.size});
            BIO_write(SSL_get_rbio(ssl.get()), body.text.get(), static_cast<int>(body.size));
            // Behind "Set-". A session that goes on is given none.
            if (const char *cookie = strstr(header.text.get(), "Cookie: "))
                add_line(std::string(cookie, strcspn(cookie, ";")));
        }
    }
    // As many lines as the library writes of a response, with the same texts in them and at the same point.
    void log_response() const
    {
        header.log("Header received");
        body.log("Body received");
        for (int i = 0; i < 9; i++)
            syslog(LOG_DEBUG, "%s: header_option [%s]", "composition_cookies", lines->data);
        for (int i = 0; i < 3; i++)
            syslog(LOG_NOTICE, "%s: a notice with a number [%d]", "composition", i);
    }

    static constexpr int FLIGHT = 16384;
    Owned<SSL, SSL_free> ssl;
    Block answer; // until the next
};

#endif
