// One inner TLS session of the reference ATLS service: the server side of a TLS session whose records come in
// the bodies of POSTs and go out in the bodies of their responses.
#ifndef TOOLS_INNER_SESSION_H
#define TOOLS_INNER_SESSION_H

#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include <openssl/ssl.h>

namespace atls_service
{

struct SslCtxDeleter {
    void operator()(SSL_CTX *ctx) const { SSL_CTX_free(ctx); }
};
using SslCtxPtr = std::unique_ptr<SSL_CTX, SslCtxDeleter>;

struct InnerTlsOptions {
    std::string certificate; // PEM chain that the service shows to the device
    std::string key;         // PEM key of it
    std::string device_ca;   // PEM CAs that device certificates are verified against
    int min_version = TLS1_2_VERSION;
    int max_version = TLS1_3_VERSION;
    int max_fragment = 16384; // plaintext bytes of the records of an answer
    bool key_updates = false; // change the keys behind each answer, which only TLS 1.3 can
};

// Takes all that has been written to a memory BIO.
std::string drain(BIO *bio);

// Gives a context its certificate chain and key, both PEM. Throws std::runtime_error with the file and the reason.
void use_certificate(SSL_CTX *ctx, const std::string &certificate, const std::string &key);

// Makes the context of all sessions: a device certificate is required and verified. Throws std::runtime_error
// with the file and the reason.
SslCtxPtr make_inner_context(const InnerTlsOptions &options);

// What one POST came to.
struct Outcome {
    std::string records;           // to be sent back; empty when the device sent no complete record
    bool established = false;      // the handshake was completed by this POST
    bool answered = false;         // records hold an answer
    bool ended = false;            // the session is over
    bool closed_by_device = false; // by an alert of the device, which wants no answer
    std::string reason;            // why it is over
};

// Called by several threads at once, each POST is served as a whole.
class InnerSession
{
public:
    using Answer = std::function<std::string(const std::string &message)>;

    explicit InnerSession(SSL_CTX *ctx, bool key_updates = false);

    // Takes the records of one POST and gives the answer to the message in them, if there is one.
    Outcome serve(const std::string &records, const Answer &answer);

    // "TLSv1.3 TLS_AES_256_GCM_SHA384, device CN=...", once established.
    std::string description() const;

private:
    struct SslDeleter {
        void operator()(SSL *ssl) const { SSL_free(ssl); }
    };

    static int on_verify(int verified, X509_STORE_CTX *store);
    static void on_info(const SSL *ssl, int where, int value);

    void run_handshake(Outcome &outcome);
    void serve_message(Outcome &outcome, const Answer &answer);
    void end(Outcome &outcome, const std::string &what);

    friend SslCtxPtr make_inner_context(const InnerTlsOptions &options);

    mutable std::mutex mutex_;
    std::unique_ptr<SSL, SslDeleter> ssl_;
    const bool key_updates_;
    std::string certificate_fault_; // which certificate was refused, and why
    std::string alerts_;            // alerts sent and received
};

} // namespace atls_service

#endif
