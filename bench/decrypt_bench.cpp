// Large answers: decrypting them, and collecting them from many small deliveries.

#include "bench.h"

#include "atls_internals.h"
#include "composition.h"

#include <cstdlib>
#include <cstring>
#include <memory>

#include <openssl/ssl.h>

namespace bench
{

namespace
{

using Engine = std::unique_ptr<SSL, decltype(&SSL_free)>;

constexpr size_t MEBIBYTE = 1 << 20;

// Both ends of a session, of which one writes what the other is to decrypt.
class Session
{
public:
    explicit Session(const test::Folder &keys)
    {
        const std::string cert = keys.path("device/device-cert.der"),
                          key = keys.path("device/device-key.der");
        SSL_CTX *ctx = SSL_CTX_new(TLS_method());
        SSL_CTX_use_certificate_file(ctx, cert.c_str(), SSL_FILETYPE_ASN1);
        SSL_CTX_use_PrivateKey_file(ctx, key.c_str(), SSL_FILETYPE_ASN1);
        for (Engine *engine : {&client, &server}) {
            engine->reset(SSL_new(ctx));
            SSL_set_bio(engine->get(), BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem()));
        }
        SSL_CTX_free(ctx);
        SSL_set_connect_state(client.get());
        SSL_set_accept_state(server.get());
        while (SSL_do_handshake(client.get()) != 1 || SSL_do_handshake(server.get()) != 1) {
            pass(client.get(), server.get());
            SSL_do_handshake(server.get());
            pass(server.get(), client.get());
        }
        SSL_read(client.get(), nullptr, 0); // the session tickets
    }

    std::string encrypt(const std::string &message)
    {
        SSL_write(server.get(), message.data(), static_cast<int>(message.size()));
        return drain(server.get());
    }

    Engine client{nullptr, SSL_free}, server{nullptr, SSL_free};

private:
    static std::string drain(SSL *ssl)
    {
        std::string records(BIO_ctrl_pending(SSL_get_wbio(ssl)), '\0');
        BIO_read(SSL_get_wbio(ssl), records.data(), static_cast<int>(records.size()));
        return records;
    }
    static void pass(SSL *from, SSL *to)
    {
        const std::string records = drain(from);
        BIO_write(SSL_get_rbio(to), records.data(), static_cast<int>(records.size()));
    }
};

// Returns the plain text, which the caller frees.
char *decrypt_by_library(SSL *ssl, const std::string &records, size_t)
{
    char *text = nullptr;
    int length = 0;
    require(atls_decrypt_buffer(ssl, SSL_get_rbio(ssl), records.data(), static_cast<int>(records.size()),
                                &text, &length) == 0,
            "atls_decrypt_buffer");
    return text;
}

char *decrypt_plainly(SSL *ssl, const std::string &records, size_t size)
{
    BIO_write(SSL_get_rbio(ssl), records.data(), static_cast<int>(records.size()));
    auto *text = static_cast<char *>(malloc(size + 1));
    for (size_t total = 0; total < size;) {
        const int count = SSL_read(ssl, text + total, ATLS_FLIGHT_SIZE);
        require(count > 0, "SSL_read");
        total += static_cast<size_t>(count);
    }
    text[size] = '\0';
    return text;
}

template <typename Decrypt>
void add_decryption(const Peers &peers, const std::string &name, size_t size, Decrypt decrypt)
{
    benchmark::RegisterBenchmark(name.c_str(), [=, &peers](auto &state) {
        const std::string message(size, 'm');
        for (auto each : state) {
            (void)each;
            state.PauseTiming();
            Session session(peers.folder);
            const std::string records = session.encrypt(message);
            state.ResumeTiming();
            free(decrypt(session.client.get(), records, size));
            state.PauseTiming();
            session = Session(peers.folder);
            state.ResumeTiming();
        }
    })->Iterations(size > 4 * MEBIBYTE ? 1 : 8);
}

template <typename Capture>
void add_capture(const std::string &name, size_t size, Capture capture)
{
    benchmark::RegisterBenchmark(name.c_str(), [=](auto &state) {
        for (auto each : state) {
            (void)each;
            capture(size);
        }
    })->MinTime(0.02);
}

constexpr size_t DELIVERY = 1000;

} // namespace

void add_decryption(const Peers &peers)
{
    for (const size_t mebibytes : {1, 16, 64}) {
        const std::string size = std::to_string(mebibytes) + " MiB";
        const size_t bytes = mebibytes * MEBIBYTE - 1; // the last record of an answer is not a full one
        add_decryption(peers, "decrypt/" + size + "/library", bytes, decrypt_by_library);
        add_decryption(peers, "decrypt/" + size + "/plain loop", bytes, decrypt_plainly);

        static char delivery[DELIVERY];
        add_capture("capture/" + size + " in pieces of 1 KB/library", bytes, [](size_t total) {
            curl_resp body = {};
            for (size_t taken = 0; taken < total; taken += DELIVERY)
                require(write_memory_cb(delivery, 1, DELIVERY, &body) == DELIVERY, "write_memory_cb");
            cleanup_curl_resp(&body);
        });
        add_capture("capture/" + size + " in pieces of 1 KB/one block", bytes, [](size_t total) {
            auto *block = static_cast<char *>(malloc(total + DELIVERY));
            for (size_t taken = 0; taken < total; taken += DELIVERY) {
                memcpy(block + taken, delivery, DELIVERY);
                benchmark::ClobberMemory();
            }
            free(block);
        });
    }
}

} // namespace bench
