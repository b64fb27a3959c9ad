// Steps of --check on a connection made by atls_connect: front end, inner handshake, session, answers.

#include <algorithm>
#include <cstring>

#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/x509.h>

#include "check_steps.h"

namespace
{

constexpr size_t LONG_MESSAGE = 20000;
constexpr long HTTP_OK = 200;

std::string status_advice(long status)
{
    if (status == 400)
        return "the service takes this for no handshake: see to its log, its path and its TLS versions";
    if (status == 404 || status == 405)
        return "correct the path of the URL, or let the front end pass POST on";
    if (status == 413)
        return "let the front end accept larger bodies";
    if (status >= 500)
        return "start the service behind the front end, and see to the front end's log";
    return "see to the front end's log; redirections and log-ins are not followed";
}

std::string listed(const std::vector<std::string> &names)
{
    return names.empty() ? "none" : joined(names, ", ");
}

// The library does not tell in all cases.
std::string reason_of(const World &world, int result)
{
    const std::string reason = world.explanation.reason();
    return "result " + std::to_string(result) + ": " + (reason.empty() ? "--log error shows why" : reason);
}

// The mark of an encrypted body as the library looks for it; otherwise what is wrong with it.
std::string mark_fault(const Response &response)
{
    constexpr const char *MARK = "Content-Type: application/octet-stream";
    for (const std::string &line : response.headers)
        if (line.find(MARK) != std::string::npos)
            return "";
    for (const std::string &line : response.headers)
        if (strncasecmp(line.c_str(), MARK, strlen("Content-Type:")) == 0)
            return "\"" + line + "\" in place of \"" + MARK + "\"";
    return std::string("no header \"") + MARK + "\"";
}

std::string group_of(SSL *ssl)
{
#if OPENSSL_VERSION_NUMBER >= 0x30000000L
    const char *name = SSL_group_to_name(ssl, static_cast<int>(SSL_get_negotiated_group(ssl)));
    return name ? name : "unknown";
#else
    EVP_PKEY *key = nullptr;
    if (SSL_get_server_tmp_key(ssl, &key) != 1)
        return "none";
    const std::string name = OBJ_nid2sn(EVP_PKEY_id(key));
    EVP_PKEY_free(key);
    return name;
#endif
}

std::string chain_of(SSL *ssl)
{
    std::string names;
    const STACK_OF(X509) *chain = SSL_get_peer_cert_chain(ssl);
    for (int i = 0; i < sk_X509_num(chain); i++)
        names += (i == 0 ? "" : " <- ") + name_text(X509_get_subject_name(sk_X509_value(chain, i)));
    return names;
}

// Posts and judges; detail has what came.
Finding exchange(World &world, const std::string &message, std::string &detail)
{
    atls_resp answer = {};
    world.explanation.set_reason("");
    atls_handle *handle = world.connection.get();
    const int result = atls_easy_perform(handle, message.data(), static_cast<int>(message.size()),
                                         world.settings.address.path.c_str(), &answer);
    world.observer.clear_progress();
    const std::unique_ptr<atls_resp, decltype(&cleanup_atls_resp)> owner(&answer, cleanup_atls_resp);
    if (result == ATLS_BAD_RESPONSE && world.explanation.reason().empty())
        world.explanation.set_reason(why_bad_response(*handle, world.observer));
    if (result != ATLS_OK)
        return wrong(reason_of(world, result), "");
    detail = std::to_string(message.size()) + " bytes answered with " + std::to_string(answer.body_len) +
             ", HTTP status " + std::to_string(answer.status_code);
    if (!is_encrypted(answer))
        return wrong(detail + ", not encrypted", "");
    const Rest rest = rest_behind_answer(handle->ssl);
    if (rest == Rest::DATA)
        return wrong(detail + ", and more in further records", SHORT_RECORDS);
    if (rest != Rest::NOTHING)
        return warning(detail + "; the session is at its end", "let the service keep sessions open");
    return ok(detail);
}

} // namespace

Finding judge_front_end(World &world)
{
    world.connect();
    const auto &responses = world.observer.responses();
    if (responses.empty() || responses.front().status == 0)
        return wrong(reason_of(world, world.connect()), "see to the front end's log");
    const Response &first = responses.front();
    const std::string detail = "outer " + (first.outer_tls.empty() ? "TLS" : first.outer_tls) +
                               ", HTTP status " + std::to_string(first.status) + " from " + first.address;
    if (first.status != HTTP_OK)
        return wrong(detail, status_advice(first.status));
    if (const std::string fault = mark_fault(first); !fault.empty())
        return wrong(
            detail + ": " + fault,
            "let the front end pass header lines on as the service spells them (for haproxy h1-case-adjust)");
    if (!first.header("Content-Encoding").empty())
        return wrong(detail + ", Content-Encoding: " + first.header("Content-Encoding"),
                     "turn compression off for this path");
    const std::string cookies = ", cookies: " + listed(first.cookies());
    if (first.cookies().empty())
        return warning(detail + cookies, "let the service name the session by a cookie");
    if (strcasecmp(first.header("Connection").c_str(), "close") == 0)
        return warning(detail + cookies + ", it closes each connection",
                       "let the front end keep connections open");
    return ok(detail + cookies);
}

Finding judge_handshake(World &world)
{
    const EngineEvents &engine = world.observer.engine();
    if (world.connect() != ATLS_OK)
        return wrong(
            reason_of(world, world.connect()),
            !engine.refusal.empty()
                ? "put the CA of the service into the trust store, or renew the certificate of the service"
            : engine.alert >= 0 ? "see to the log of the service, to its TLS versions and its CAs of devices"
                                : "see whether an ATLS service answers behind the front end");
    SSL *ssl = world.connection->ssl;
    const std::string detail = SSL_get_version(ssl) + std::string(", ") + SSL_get_cipher_name(ssl) +
                               ", group " + group_of(ssl) + ", service " + chain_of(ssl);
    if (SSL_get_verify_mode(ssl) == SSL_VERIFY_NONE)
        return warning(detail + ", not verified", "let the platform library verify the service");
    if (!engine.certificate_asked)
        return warning(detail + "; the device's certificate is not asked for",
                       "let the service ask for it if it is to know its devices");
    return ok(detail + "; the device's certificate is asked for");
}

Finding keep_session(World &world)
{
    std::string detail;
    Finding finding =
        exchange(world, world.settings.has_message ? read_message(world.settings) : "x", detail);
    const auto &responses = world.observer.responses();
    const auto before = responses.front().cookies();
    const auto now = responses.back().cookies();
    std::vector<std::string> lost;
    for (const std::string &name : before)
        if (!now.empty() && std::find(now.begin(), now.end(), name) == now.end())
            lost.push_back(name);
    if (finding.verdict == Verdict::WRONG && finding.advice.empty())
        finding.advice = world.observer.engine().alert >= 0
                             ? "put the CA of the device into the service, or renew the device certificate"
                             : "see whether all requests reach the same service: cookies, sticky sessions";
    if (finding.verdict == Verdict::OK && world.observer.engine().certificate_asked)
        finding.detail += ", the device's certificate is accepted";
    if (finding.verdict == Verdict::OK && !lost.empty())
        return warning(
            detail + "; cookies lost: " + listed(lost),
            "a response's cookies replace the earlier ones: let each response set all of them, or none");
    if (finding.verdict == Verdict::OK && responses.back().new_connection)
        return warning(detail + ", over a new connection", "let the front end keep connections open");
    return finding;
}

Finding receive_long_answer(World &world)
{
    if (world.settings.has_message)
        return ok("not tried: a message was given");
    std::string detail;
    Finding finding = exchange(world, std::string(LONG_MESSAGE, 'x'), detail);
    if (finding.verdict == Verdict::WRONG && finding.advice.empty())
        finding.advice = "see to limits of front end and service, and to their logs";
    return finding;
}
