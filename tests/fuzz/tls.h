// TLS for the fuzz targets: ends of sessions with a shared key, so that a handshake costs little, and what becomes
// of records between them.
#ifndef TESTS_FUZZ_TLS_H
#define TESTS_FUZZ_TLS_H

#include "fuzz.h"
#include "inner_session.h"

#include <algorithm>
#include <cstring>
#include <memory>

using Engine = std::unique_ptr<SSL, decltype(&SSL_free)>;

// Gives a context the shared key, and the version 1.2 if it is old, else 1.3.
inline SSL_CTX *share_key(SSL_CTX *ctx, bool old)
{
    constexpr unsigned LENGTH = 16;
    SSL_CTX_set_min_proto_version(ctx, old ? TLS1_2_VERSION : TLS1_3_VERSION);
    SSL_CTX_set_max_proto_version(ctx, old ? TLS1_2_VERSION : TLS1_3_VERSION);
    SSL_CTX_set_cipher_list(ctx, "PSK-AES128-GCM-SHA256:DEFAULT");
    SSL_CTX_set_ciphersuites(ctx, "TLS_AES_128_GCM_SHA256");
    SSL_CTX_set_options(ctx, SSL_OP_ALLOW_NO_DHE_KEX);
    SSL_CTX_set_psk_client_callback(
        ctx, [](SSL *, const char *, char *name, unsigned size, unsigned char *key, unsigned) {
            snprintf(name, size, "fuzz");
            memset(key, 'k', LENGTH);
            return LENGTH;
        });
    SSL_CTX_set_psk_server_callback(ctx, [](SSL *, const char *, unsigned char *key, unsigned) {
        memset(key, 'k', LENGTH);
        return LENGTH;
    });
    return ctx;
}

inline Engine make_engine(bool server, bool old)
{
    static SSL_CTX *const contexts[] = {share_key(SSL_CTX_new(TLS_method()), false),
                                        share_key(SSL_CTX_new(TLS_method()), true)};
    Engine engine(SSL_new(contexts[old]), SSL_free);
    SSL_set_bio(engine.get(), BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem()));
    server ? SSL_set_accept_state(engine.get()) : SSL_set_connect_state(engine.get());
    return engine;
}

inline void feed(SSL *ssl, const std::string &records)
{
    BIO_write(SSL_get_rbio(ssl), records.data(), static_cast<int>(records.size()));
}

// Plain text in which no part of some length occurs twice.
inline void write_pattern(SSL *ssl, size_t length, std::string &sent)
{
    const size_t start = sent.size();
    for (size_t i = start; i < start + length; i++)
        sent += static_cast<char>(static_cast<uint32_t>(i) * 2654435761U >> 24);
    if (SSL_write(ssl, &sent[start], static_cast<int>(length)) <= 0)
        sent.resize(start);
}

// Composes a body from commands: what the engine writes, and what befalls it on its way. The plain text goes to sent.
//   h       goes on with the handshake        s       what comes next goes in front of the rest
//   w N     N bytes of plain text and one     u       all so far comes twice
//   k       another key                       c N     the last N bytes are cut off
//   q       the end of the session            x N     byte N from the end is changed
//   "text"  these bytes
inline std::string compose(SSL *ssl, std::istream &&commands, std::string &sent)
{
    std::string body;
    bool in_front = false;
    for (char command; body.size() < 300000 && commands.get(command);) {
        const size_t count = number(commands);
        if (command == 's')
            in_front = true;
        else if (command == 'u')
            body += body;
        else if (command == 'c')
            body.resize(body.size() - std::min(body.size(), count));
        else if (command == 'x' && count < body.size())
            body[body.size() - 1 - count] ^= 0x55;
        else if (command == 'w')
            write_pattern(ssl, count + 1, sent);
        else if (command == 'k')
            SSL_key_update(ssl, SSL_KEY_UPDATE_REQUESTED);
        else if (command == 'q')
            SSL_shutdown(ssl);
        if (command == 'h' || command == 'k')
            SSL_do_handshake(ssl);
        body.insert(in_front ? 0 : body.size(),
                    command == '"' ? upto(commands, '"') : atls_service::drain(SSL_get_wbio(ssl)));
        in_front = command == 's';
    }
    return body;
}

#endif
