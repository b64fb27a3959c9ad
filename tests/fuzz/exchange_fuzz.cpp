// Scripted HTTP responses into the handshake and into exchanges. Nothing of libcurl transfers anything here.

#include "fuzz.h"

#include "atls_internals.h"
#include "inner_session.h"

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <map>

#undef curl_easy_setopt
#undef curl_easy_getinfo
#ifdef __clang__
#pragma clang diagnostic ignored "-Wvarargs" // libcurl's own prototype ends in an enumeration and "..."
#endif

static std::map<CURLoption, void *> options;
static std::istream *script;
static SSL *server;
static std::string sent; // by the server
static size_t answered;  // how much of it has been handed out
static long status_code;

// A context of both ends with a shared key, so that a handshake costs little, for TLS 1.2 if it is old, else 1.3.
static SSL_CTX *make_context(bool old)
{
    constexpr unsigned LENGTH = 16;
    SSL_CTX *ctx = SSL_CTX_new(TLS_method());
    SSL_CTX_set_min_proto_version(ctx, old ? TLS1_2_VERSION : TLS1_3_VERSION);
    SSL_CTX_set_max_proto_version(ctx, old ? TLS1_2_VERSION : TLS1_3_VERSION);
    SSL_CTX_set_cipher_list(ctx, "PSK-AES128-GCM-SHA256");
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

static SSL *make_engine(bool old)
{
    static SSL_CTX *const contexts[] = {make_context(false), make_context(true)};
    SSL *engine = SSL_new(contexts[old]);
    SSL_set_bio(engine, BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem()));
    return engine;
}

// Plain text in which no part of some length occurs twice.
static void write_pattern(size_t length)
{
    const size_t start = sent.size();
    for (size_t i = start; i < start + length; i++)
        sent += static_cast<char>(static_cast<uint32_t>(i) * 2654435761U >> 24);
    if (SSL_write(server, &sent[start], static_cast<int>(length)) <= 0)
        sent.resize(start);
}

// Composes a body from commands: what the server writes, and what befalls it on its way.
//   h       goes on with the handshake        s       what comes next goes in front of the rest
//   w N     N bytes of plain text and one     u       all so far comes twice
//   k       another key                       c N     the last N bytes are cut off
//   q       the end of the session            x N     byte N from the end is changed
//   "text"  these bytes
static std::string compose(std::istream &&commands)
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
            write_pattern(count + 1);
        else if (command == 'k')
            SSL_key_update(server, SSL_KEY_UPDATE_REQUESTED);
        else if (command == 'q')
            SSL_shutdown(server);
        if (command == 'h' || command == 'k')
            SSL_do_handshake(server);
        body.insert(in_front ? 0 : body.size(),
                    command == '"' ? upto(commands, '"') : atls_service::drain(SSL_get_wbio(server)));
        in_front = command == 's';
    }
    return body;
}

static bool deliver(std::string bytes, CURLoption target)
{
    const auto write = reinterpret_cast<curl_write_callback>(options[CURLOPT_WRITEFUNCTION]);
    return bytes.empty() || write(bytes.data(), 1, bytes.size(), options[target]) == bytes.size();
}

extern "C" {

CURLcode curl_easy_setopt(CURL *, CURLoption option, ...)
{
    va_list arguments;
    va_start(arguments, option);
    options[option] = va_arg(arguments, void *);
    va_end(arguments);
    return --calls_left == 0 ? CURLE_OUT_OF_MEMORY : CURLE_OK;
}

CURLcode curl_easy_getinfo(CURL *, CURLINFO info, ...)
{
    va_list arguments;
    va_start(arguments, info);
    *va_arg(arguments, long *) = status_code;
    va_end(arguments);
    return --calls_left == 0 ? CURLE_OUT_OF_MEMORY : CURLE_OK;
}

// A response is the status or, after an !, a result of libcurl's; header lines and an empty one; and up to a form
// feed what the body is composed of.
CURLcode curl_easy_perform(CURL *)
{
    const auto length = static_cast<int>(reinterpret_cast<intptr_t>(options[CURLOPT_POSTFIELDSIZE]));
    BIO_write(SSL_get_rbio(server), options[CURLOPT_POSTFIELDS], length);
    if (script->peek() == '!' && script->get())
        return static_cast<CURLcode>(number(*script) % CURL_LAST);
    status_code = static_cast<long>(number(*script));
    bool taken = true;
    for (std::string line = "-"; taken && !line.empty();)
        taken = deliver((line = upto(*script, '\n')) + "\r\n", CURLOPT_HEADERDATA);
    const std::string body = compose(std::istringstream(upto(*script, '\f')));
    for (size_t start = 0; taken && start < body.size(); start += 3000)
        taken = deliver(body.substr(start, 3000), CURLOPT_WRITEDATA);
    return taken ? CURLE_OK : CURLE_WRITE_ERROR;
}

} // extern "C"

static void check_answer(int result, const atls_resp &answer)
{
    REQUIRE(!answer.tracking_id || strlen(answer.tracking_id) <= 64);
    REQUIRE((result == ATLS_OK) == (answer.body && answer.header));
    if (result != ATLS_OK)
        return;
    REQUIRE(answer.body[answer.body_len] == '\0' && answer.header[answer.header_len] == '\0');
    if (!strstr(answer.header, "Content-Type: application/octet-stream"))
        return;
    // Nothing but what the service sent is ever read, and in that order.
    answered = sent.find(std::string(answer.body, answer.body_len), answered);
    REQUIRE(answered != std::string::npos);
    answered += answer.body_len;
}

// The version, 2 or 3, the allocation or option that fails, a blank, and responses to a handshake and to messages.
void run(std::istream &input)
{
    const bool old = input.get() == '2';
    server = make_engine(old);
    SSL_set_accept_state(server);
    script = &input;
    sent.clear();
    answered = 0;
    options.clear();
    atls_handle *handle = create_atls_handle();
    strcpy(handle->hostname, "host");
    handle->port = 443;
    REQUIRE(init_tl_curl(&handle, "/s", "id") == ATLS_OK);
    calls_left = number(input);
    input.get();
    handle->proxyUrlCount = 2;
    handle->proxyUrlList = static_cast<char **>(calloc(2, sizeof(char *)));
    handle->ssl = make_engine(old);
    SSL_set_connect_state(handle->ssl);
    int result = atls_handshake(handle);
    REQUIRE((result == ATLS_OK) == (handle->ssl && handle->curl && handle->header_opts));
    atls_resp answer = {};
    // A session whose encryption has failed reads no more responses.
    for (int left = 100; left > 0 && handle->ssl && result != ATLS_INVALID_INPUT && input.peek() != EOF;
         left--) {
        result = atls_easy_perform(handle, "message", 7, "/s", &answer);
        if (result != ATLS_INVALID_INPUT) // it leaves the record as it is
            check_answer(result, answer);
    }
    cleanup_atls_resp(&answer);
    free_atls_handle(handle);
    SSL_free(server);
}
