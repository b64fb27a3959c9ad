// Inner TLS session of the reference ATLS service.

#include "inner_session.h"

#include <array>
#include <new>
#include <stdexcept>
#include <system_error>

#include <openssl/err.h>
#include <openssl/x509_vfy.h>

namespace atls_service
{

namespace
{

constexpr int RECORD_PLAINTEXT = 16384;

// The oldest error of OpenSSL's queue, which is then emptied.
std::string take_openssl_error()
{
    const unsigned long code = ERR_get_error();
    ERR_clear_error();
    if (code == 0)
        return "unknown error";
#ifdef ERR_SYSTEM_ERROR // OpenSSL 3 has no text for these
    if (ERR_SYSTEM_ERROR(code))
        return std::generic_category().message(ERR_GET_REASON(code));
#endif
    const char *reason = ERR_reason_error_string(code);
    return reason ? reason : "error " + std::to_string(code);
}

void require(bool succeeded, const std::string &what)
{
    if (!succeeded)
        throw std::runtime_error(what + ": " + take_openssl_error());
}

std::string subject_of(X509 *certificate)
{
    if (!certificate)
        return "(none)";
    std::array<char, 256> text{};
    X509_NAME_oneline(X509_get_subject_name(certificate), text.data(), static_cast<int>(text.size()));
    return text.data();
}

} // namespace

std::string drain(BIO *bio)
{
    std::string bytes(BIO_ctrl_pending(bio), '\0');
    if (!bytes.empty() && BIO_read(bio, bytes.data(), static_cast<int>(bytes.size())) <= 0)
        bytes.clear();
    return bytes;
}

void use_certificate(SSL_CTX *ctx, const std::string &certificate, const std::string &key)
{
    ERR_clear_error();
    require(SSL_CTX_use_certificate_chain_file(ctx, certificate.c_str()) == 1, "cannot use " + certificate);
    require(SSL_CTX_use_PrivateKey_file(ctx, key.c_str(), SSL_FILETYPE_PEM) == 1, "cannot use " + key);
    require(SSL_CTX_check_private_key(ctx) == 1, "cannot use " + key + " with " + certificate);
}

SslCtxPtr make_inner_context(const InnerTlsOptions &options)
{
    ERR_clear_error();
    SslCtxPtr ctx(SSL_CTX_new(TLS_server_method()));
    require(ctx != nullptr, "TLS context");
    require(SSL_CTX_set_min_proto_version(ctx.get(), options.min_version) == 1 &&
                SSL_CTX_set_max_proto_version(ctx.get(), options.max_version) == 1,
            "TLS version");
    require(SSL_CTX_set_max_send_fragment(ctx.get(), options.max_fragment) == 1, "record length");
    use_certificate(ctx.get(), options.certificate, options.key);
    require(SSL_CTX_load_verify_locations(ctx.get(), options.device_ca.c_str(), nullptr) == 1,
            "cannot use " + options.device_ca);
    SSL_CTX_set_client_CA_list(ctx.get(), SSL_load_client_CA_file(options.device_ca.c_str()));
    SSL_CTX_set_verify(ctx.get(), SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT,
                       &InnerSession::on_verify);
    SSL_CTX_set_info_callback(ctx.get(), &InnerSession::on_info);
    SSL_CTX_set_session_cache_mode(ctx.get(), SSL_SESS_CACHE_OFF);
    // An idle session then holds about 20 KB instead of 50.
    SSL_CTX_set_mode(ctx.get(), SSL_MODE_RELEASE_BUFFERS | SSL_MODE_AUTO_RETRY);
    return ctx;
}

InnerSession::InnerSession(SSL_CTX *ctx, bool key_updates) : ssl_(SSL_new(ctx)), key_updates_(key_updates)
{
    BIO *incoming = BIO_new(BIO_s_mem());
    BIO *outgoing = BIO_new(BIO_s_mem());
    if (!ssl_ || !incoming || !outgoing) {
        BIO_free(incoming);
        BIO_free(outgoing);
        throw std::bad_alloc();
    }
    SSL_set_bio(ssl_.get(), incoming, outgoing);
    SSL_set_accept_state(ssl_.get());
    SSL_set_app_data(ssl_.get(), this);
}

int InnerSession::on_verify(int verified, X509_STORE_CTX *store)
{
    const auto *ssl =
        static_cast<SSL *>(X509_STORE_CTX_get_ex_data(store, SSL_get_ex_data_X509_STORE_CTX_idx()));
    auto *session = static_cast<InnerSession *>(SSL_get_app_data(ssl));
    if (!verified)
        session->certificate_fault_ = "device certificate " +
                                      subject_of(X509_STORE_CTX_get_current_cert(store)) + ": " +
                                      X509_verify_cert_error_string(X509_STORE_CTX_get_error(store));
    return verified;
}

void InnerSession::on_info(const SSL *ssl, int where, int value)
{
    if (!(where & SSL_CB_ALERT))
        return;
    auto *session = static_cast<InnerSession *>(SSL_get_app_data(ssl));
    session->alerts_ += std::string(where & SSL_CB_READ ? "; alert received: " : "; alert sent: ") +
                        SSL_alert_desc_string_long(value);
}

Outcome InnerSession::serve(const std::string &records, const Answer &answer)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    Outcome outcome;
    ERR_clear_error();
    const int size = static_cast<int>(records.size());
    if (BIO_write(SSL_get_rbio(ssl_.get()), records.data(), size) != size)
        end(outcome, "empty or oversized body");
    if (!outcome.ended && !SSL_is_init_finished(ssl_.get()))
        run_handshake(outcome);
    if (!outcome.ended && SSL_is_init_finished(ssl_.get()))
        serve_message(outcome, answer); // with TLS 1.3 the first message follows the device's last flight
    outcome.records = drain(SSL_get_wbio(ssl_.get()));
    if (!outcome.ended && outcome.records.empty())
        end(outcome, "incomplete TLS record");
    return outcome;
}

void InnerSession::run_handshake(Outcome &outcome)
{
    const int result = SSL_do_handshake(ssl_.get());
    outcome.established = result == 1;
    if (result != 1 && SSL_get_error(ssl_.get(), result) != SSL_ERROR_WANT_READ)
        end(outcome, "handshake failed");
}

void InnerSession::serve_message(Outcome &outcome, const Answer &answer)
{
    std::string message;
    std::array<char, RECORD_PLAINTEXT> part;
    int count = 0;
    while ((count = SSL_read(ssl_.get(), part.data(), RECORD_PLAINTEXT)) > 0)
        message.append(part.data(), static_cast<size_t>(count));
    const int error = SSL_get_error(ssl_.get(), count);
    if (error == SSL_ERROR_ZERO_RETURN)
        return end(outcome, "closed by the device");
    if (error != SSL_ERROR_WANT_READ)
        return end(outcome, "bad record");
    if (message.empty())
        return;
    // The engine writes full records and a shorter one, which tells the device where the answer ends.
    const std::string reply = answer(message);
    if (SSL_write(ssl_.get(), reply.data(), static_cast<int>(reply.size())) <= 0)
        return end(outcome, "answer of " + std::to_string(reply.size()) + " bytes not written");
    outcome.answered = true;
    if (key_updates_ && SSL_key_update(ssl_.get(), SSL_KEY_UPDATE_NOT_REQUESTED) == 1 &&
        SSL_do_handshake(ssl_.get()) != 1)
        end(outcome, "key update not written");
}

void InnerSession::end(Outcome &outcome, const std::string &what)
{
    outcome.ended = true;
    outcome.closed_by_device = alerts_.find("received") != std::string::npos;
    const unsigned long pending = ERR_peek_error();
    outcome.reason = what + (pending ? ": " + take_openssl_error() : "") +
                     (certificate_fault_.empty() ? "" : "; " + certificate_fault_) + alerts_;
}

std::string InnerSession::description() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    X509 *device = SSL_get_peer_certificate(ssl_.get());
    std::string text = std::string(SSL_get_version(ssl_.get())) + " " + SSL_get_cipher_name(ssl_.get()) +
                       ", device certificate " + subject_of(device);
    X509_free(device);
    return text;
}

} // namespace atls_service
