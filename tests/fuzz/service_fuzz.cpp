// Posts of devices to the reference service: cookies and records.

#include "tls.h"

#ifndef __clang__
#pragma GCC diagnostic ignored "-Wsubobject-linkage" // which is not given for a main file
#endif
#include "atls_service.cpp" // NOLINT(bugprone-suspicious-include): what reads the cookies is its own affair

using namespace atls_service;

// The version, 2 or 3, whether the device has a shared key (s) or a certificate (c), and a post in each line: cookies,
// where % is the last one that the service gave, a bar, and what the body is composed of.
void run(std::istream &input)
{
    static const SslCtxPtr ctx = make_inner_context({CERTIFICATE, KEY, CERTIFICATE});
    const bool old = input.get() == '2';
    share_key(ctx.get(), old);
    SSL_CTX_set_session_id_context(ctx.get(), reinterpret_cast<const unsigned char *>("fuzz"), 4);
    const Engine device = make_engine(false, old);
    const int kind = input.get();
    if (kind != 's')
        SSL_set_psk_client_callback(device.get(), nullptr);
    if (kind == 'c') {
        SSL_use_certificate_file(device.get(), CERTIFICATE, SSL_FILETYPE_PEM);
        SSL_use_PrivateKey_file(device.get(), KEY, SSL_FILETYPE_PEM);
    }
    Options options;
    options.max_sessions = 1;
    options.log = [](const std::string &line) { REQUIRE(!line.empty()); };
    SessionStore store(ctx.get(), options);
    std::string id, sent;
    size_t read = 0;
    const auto answer = [&](const std::string &message) {
        const size_t found = sent.find(message, read);
        REQUIRE(found != std::string::npos);
        read = found + message.size();
        return message;
    };
    for (std::string line; std::getline(input, line, '|') && sent.size() < 200000;) {
        httplib::Request request;
        const size_t mark = line.find('%');
        request.set_header("Cookie", mark == std::string::npos ? line : line.replace(mark, 1, id));
        const SessionStore::Entry entry = store.open(session_id_of(request));
        REQUIRE(store.count() <= options.max_sessions);
        const std::string body = compose(device.get(), std::istringstream(upto(input, '\n')), sent);
        const Outcome outcome = entry.session->serve(body, answer);
        REQUIRE(outcome.ended ? !outcome.reason.empty() : !outcome.records.empty());
        REQUIRE(!outcome.established || !entry.session->description().empty());
        if (outcome.ended)
            store.drop(entry.id);
        feed(device.get(), outcome.records);
        id = entry.id;
    }
}
