// TLS for the fuzz targets: ends of sessions with a shared key, so that a handshake costs little, and what becomes
// of records between them.
#ifndef TESTS_FUZZ_TLS_H
#define TESTS_FUZZ_TLS_H

#include "fuzz.h"
#include "inner_session.h"

#include <memory>

using Engine = std::unique_ptr<SSL, decltype(&SSL_free)>;

// Gives a context the shared key, and the version 1.2 if it is old, else 1.3.
SSL_CTX *share_key(SSL_CTX *ctx, bool old);
Engine make_engine(bool server, bool old);
void feed(SSL *ssl, const std::string &records);

// Composes a body from commands: what the engine writes, and what befalls it on its way. The plain text goes to sent.
//   h       goes on with the handshake        s       what comes next goes in front of the rest
//   w N     N bytes of plain text and one     u       all so far comes twice
//   k       another key                       c N     the last N bytes are cut off
//   q       the end of the session            x N     byte N from the end is changed
//   "text"  these bytes
std::string compose(SSL *ssl, std::istream &&commands, std::string &sent);

#endif
