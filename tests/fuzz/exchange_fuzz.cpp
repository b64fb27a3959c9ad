// Scripted HTTP responses into the handshake and into exchanges. Nothing of libcurl transfers anything here.

#include "tls.h"

#include "atls_internals.h"

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
    const auto length = reinterpret_cast<size_t>(options[CURLOPT_POSTFIELDSIZE]);
    feed(server, std::string(static_cast<const char *>(options[CURLOPT_POSTFIELDS]), length));
    if (script->peek() == '!' && script->get())
        return static_cast<CURLcode>(number(*script) % CURL_LAST);
    status_code = static_cast<long>(number(*script));
    bool taken = true;
    for (std::string line = "-"; taken && !line.empty();)
        taken = deliver((line = upto(*script, '\n')) + "\r\n", CURLOPT_HEADERDATA);
    const std::string body = compose(server, std::istringstream(upto(*script, '\f')), sent);
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
    const Engine peer = make_engine(true, old);
    server = peer.get();
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
    handle->ssl = make_engine(false, old).release();
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
}
