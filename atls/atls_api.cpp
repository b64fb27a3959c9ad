// The public operations of the ATLS client: handles, the connection sequence, the exchange of messages and
// the release of answers.

#include "atls_internals.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <syslog.h>

#include "bio_room.h"
#include "library_call.h"

#include "safec.h"

// ---- Handles and answers

atls_handle *create_atls_handle(void)
{
    const LibraryCall call;
    auto *handle = static_cast<atls_handle *>(malloc(sizeof(atls_handle)));
    if (!handle)
        return nullptr;
    syslog(LOG_DEBUG, "%s: ATLS handle created successfuly", __func__);
    if (memset_s(handle, sizeof *handle, 0, sizeof *handle) != 0) {
        syslog(LOG_ERR, "%s: memset_s Failed", __func__);
        free(handle);
        return nullptr;
    }
    return handle;
}

void free_atls_handle(atls_handle *handle)
{
    const LibraryCall call;
    if (!handle)
        return;
    atls_handle_cleanup(&handle);
    release_proxy_list(handle);
    free(handle);
    syslog(LOG_DEBUG, "%s: ATLS handle freed successfuly", __func__);
}

void cleanup_atls_resp(atls_resp *resp)
{
    if (!resp)
        return;
    if (resp->body) {
        free(resp->body);
        resp->body = nullptr;
        resp->body_len = 0;
    }
    if (resp->header) {
        free(resp->header);
        resp->header = nullptr;
        resp->header_len = 0;
    }
    resp->status_code = 0;
    if (resp->tracking_id) {
        free(resp->tracking_id);
        resp->tracking_id = nullptr;
    }
}

// ---- Connection sequence

namespace
{

constexpr const char *CONNECT = "atls_connect"; // the name that its steps log under

// Brings up transport, engine and session, each on top of the one before it.
int connect_layers(atls_handle **handle, const char *service, const char *tracking_id)
{
    syslog(LOG_DEBUG, "%s: Initializing transport layer curl...", CONNECT);
    int result = init_tl_curl(handle, service, tracking_id);
    if (result != ATLS_OK) {
        syslog(LOG_ERR, "%s: Failed to Initialize transport layer curl: atls_rc=>[%d]", CONNECT, result);
        return result;
    }
    syslog(LOG_DEBUG, "%s: Initializing application layer...", CONNECT);
    result = init_al_ssl(handle);
    if (result != ATLS_OK) {
        syslog(LOG_ERR, "%s: Failed to initialize application layer: atls_rc=>[%d]", CONNECT, result);
        ERR_clear_error(); // why is in the log; only the handshake leaves a reason to the caller
        return result;
    }
    syslog(LOG_DEBUG, "%s: Preforming ATLS Handshake...", CONNECT);
    result = atls_handshake(*handle);
    if (result != ATLS_OK)
        syslog(LOG_ERR, "%s: Failed to complete ATLS Handshake: atls_rc=>[%d]", CONNECT, result);
    return result;
}

} // namespace

int atls_connect(atls_handle **handle, const char *hostname, const char *ip, int port, const char *service,
                 const char *tracking_id)
{
    const LibraryCall call;
    if (!handle || !*handle || (!hostname && !ip) || !service) {
        syslog(LOG_ERR, "%s: Invalid Input Parameters...bad handle/host/ip/service", __func__);
        return ATLS_INVALID_INPUT;
    }
    if (!netutil_check_port(port)) {
        syslog(LOG_ERR, "%s: Invalid Input Parameters...bad port", __func__);
        return ATLS_INVALID_INPUT;
    }
    atls_handle *connection = *handle;
    if (connection->curl || connection->ssl) {
        syslog(LOG_ERR, "%s: Invalid Input Parameters...bad curl/ssl", __func__);
        return ATLS_INVALID_INPUT;
    }
    if (call.is_too_late()) {
        syslog(LOG_ERR, "%s: The program is ending", __func__);
        return ATLS_SETUP_FAILED;
    }
    const char *address = hostname ? hostname : ip;
    int result = ATLS_SETUP_FAILED;
    if (strncpy_s(connection->hostname, sizeof connection->hostname, address, strlen(address)) != 0) {
        syslog(LOG_ERR, "%s: Failed to initialize handle hostname", __func__);
    } else {
        connection->port = port;
        result = connect_layers(handle, service, tracking_id);
    }
    if (result == ATLS_OK)
        syslog(LOG_NOTICE, "%s: ATLS connection to %s established", __func__, connection->hostname);
    else
        atls_handle_cleanup(handle);
    return result;
}

// ---- Exchange

namespace
{

constexpr const char *EXCHANGE = "atls_easy_perform"; // the name that its steps log under
// What encryption adds to a full record, at the most that is common.
constexpr size_t RECORD_OVERHEAD = 96;

struct Free {
    void operator()(char *block) const { free(block); }
};

// State of one exchange.
struct Exchange {
    Post post;
    std::unique_ptr<char, Free> records; // the encrypted message and a NUL
    int records_length = 0;

    explicit Exchange(atls_handle *handle) : post(EXCHANGE, handle) {}
};

bool check_exchange_arguments(const atls_handle *handle, const void *msg, int msg_len, const char *service,
                              const atls_resp *resp)
{
    if (!handle || !handle->ssl || !handle->curl || handle->port == 0 || SSL_do_handshake(handle->ssl) != 1) {
        syslog(LOG_ERR, "%s: Invalid Input Parameters...bad handle", EXCHANGE);
        return false;
    }
    if (!msg || msg_len <= 0 || !service) {
        syslog(LOG_ERR, "%s: Invalid Input Parameters...bad msg/msg_len/service", EXCHANGE);
        return false;
    }
    if (!resp)
        syslog(LOG_ERR, "%s: Invalid Output Parameters...bad atls_resp", EXCHANGE);
    return resp != nullptr;
}

bool prepare_request(Post &post, const char *service)
{
    if (!post.attach())
        return false;
    const atls_handle *handle = post.handle;
    char url[ATLS_LINE_SIZE];
    snprintf(url, sizeof url, "https://%s:%d%s", handle->hostname, static_cast<int>(handle->port), service);
    return RequestOptions(handle->curl, EXCHANGE).set(CURLOPT_URL, url, "Failed to set curl URI").result() ==
           CURLE_OK;
}

// Moves all that waits in the engine's write BIO into exchange.records. Returns the bytes read, or what the
// failed read returned.
int collect_records(Exchange &exchange)
{
    BIO *write_bio = exchange.post.write_bio;
    const size_t pending = BIO_ctrl_pending(write_bio);
    exchange.records.reset(pending < INT_MAX ? static_cast<char *>(malloc(pending + 1)) : nullptr);
    char *records = exchange.records.get();
    if (!records)
        return -1;
    int total = 0;
    do {
        const int rest = static_cast<int>(pending) - total;
        const int count = BIO_read(write_bio, records + total, std::min(rest, ATLS_FLIGHT_SIZE));
        if (count <= 0)
            return count;
        total += count;
    } while (total < static_cast<int>(pending));
    records[total] = '\0';
    return total;
}

// A message that fails here is dropped as a whole, and the session is at its end: OpenSSL keeps what it could not
// write and would send it in the place of a later message.
bool encrypt_message(Exchange &exchange, const void *msg, int msg_len)
{
    SSL *ssl = exchange.post.handle->ssl;
    const auto length = static_cast<size_t>(msg_len);
    reserve_bio_room(exchange.post.write_bio, length + (length / ATLS_FLIGHT_SIZE + 1) * RECORD_OVERHEAD);
    if (SSL_write(ssl, msg, msg_len) != msg_len) {
        syslog(LOG_ERR, "%s: Failed to Encrypt message using SSL object", EXCHANGE);
    } else {
        exchange.records_length = collect_records(exchange);
        if (exchange.records_length > 0) {
            give_back_bio_room(exchange.post.write_bio);
            return true;
        }
        syslog(LOG_ERR, "%s: Failed to read ATLS flight from BIO bytes read=>[%d]", EXCHANGE,
               exchange.records_length);
    }
    (void)BIO_reset(exchange.post.write_bio);
    give_back_bio_room(exchange.post.write_bio);
    SSL_set_shutdown(ssl, SSL_SENT_SHUTDOWN | SSL_RECEIVED_SHUTDOWN); // no later SSL_write succeeds
    return false;
}

bool post_message(Exchange &exchange)
{
    const char *records = exchange.records.get();
    syslog(LOG_DEBUG, "%s: Attempting to send [%d] [%s]", EXCHANGE, exchange.records_length, records);
    const bool posted =
        exchange.post.set_records(records, exchange.records_length) && exchange.post.perform();
    exchange.records.reset(); // before the answer takes its room
    return posted;
}

bool receive_answer(Post &post)
{
    if (!post.check_parts() || !post.read_status())
        return false;
    const char *hostname = post.handle->hostname;
    const int port = static_cast<int>(post.handle->port);
    syslog(LOG_DEBUG, "%s: Header received [%d] bytes [%s] from [%s:%d]", EXCHANGE,
           static_cast<int>(post.header.size), post.header.data, hostname, port);
    syslog(LOG_DEBUG, "%s: Body received [%d] bytes [%s] from [%s:%d]", EXCHANGE,
           static_cast<int>(post.body.size), post.body.data, hostname, port);
    syslog(LOG_DEBUG, "%s: ATLS received [%d] bytes from [%s:%d]", EXCHANGE,
           static_cast<int>(post.header.size + post.body.size), hostname, port);
    syslog(LOG_NOTICE, "%s: ATLS received a [%d] status code from [%s:%d]", EXCHANGE,
           static_cast<int>(post.status_code), hostname, port);
    return true;
}

void read_tracking_id(const Post &post, atls_resp *resp)
{
    if (atls_get_tracking_id_from_header(post.header.data, &resp->tracking_id) != ATLS_OK)
        syslog(LOG_ERR, "%s: Failed to get tracking id from resp header", EXCHANGE);
    else
        syslog(LOG_NOTICE, "%s: tracking id - %s", EXCHANGE, resp->tracking_id ? resp->tracking_id : "none");
}

// Reads all that the engine can still decrypt, and forgets it. Returns how many bytes that was.
int drop_plaintext(SSL *ssl)
{
    char rest[ATLS_FLIGHT_SIZE];
    int total = 0;
    for (int count; (count = SSL_read(ssl, rest, ATLS_FLIGHT_SIZE)) > 0;)
        total += count;
    OPENSSL_cleanse(rest, sizeof rest);
    return total;
}

// An answer never begins with the rest of another one, whoever fed that to the engine.
void drop_rest_of_earlier_answer(const Post &post)
{
    SSL *ssl = post.handle->ssl;
    if (!SSL_has_pending(ssl) && BIO_ctrl_pending(post.read_bio) == 0)
        return; // SSL_pending would not count the records that an engine set to read ahead has taken in
    const int dropped = drop_plaintext(ssl);
    if (dropped > 0)
        syslog(LOG_ERR, "%s: [%d] bytes behind the end of the last answer dropped", EXCHANGE, dropped);
    give_back_bio_room(post.read_bio);
}

// Reads one answer from the engine: it ends with the first read that is not full.
int read_answer(SSL *ssl, const char *caller, GrowingBlock &answer, int *length)
{
    if (!answer.grow(ATLS_FLIGHT_SIZE)) {
        syslog(LOG_ERR, "%s: Failed to allocate memory for decrypted response body", caller);
        (void)drop_plaintext(ssl); // it must not be taken for the next answer
        return ATLS_BAD_RESPONSE;
    }
    for (int total = 0;;) {
        const int count = SSL_read(ssl, answer.data() + total, ATLS_FLIGHT_SIZE);
        if (count <= 0) {
            syslog(LOG_ERR, "%s: Failed to decrypt server response", caller);
            return ATLS_BAD_RESPONSE;
        }
        total += count;
        if (count < ATLS_FLIGHT_SIZE) {
            answer.data()[total] = '\0';
            *length = total;
            return ATLS_OK;
        }
        if (!answer.grow(static_cast<size_t>(total) + ATLS_FLIGHT_SIZE)) {
            syslog(LOG_ERR, "%s: Failed to reallocate memory for decrypted response body", caller);
            (void)drop_plaintext(ssl);
            return ATLS_BAD_RESPONSE;
        }
    }
}

// atls_decrypt_buffer; what was captured, unless NULL, is released as soon as the engine has it.
int decrypt(SSL *ssl, BIO *read_bio, const void *data, int length, curl_resp *captured, char **out,
            int *out_length)
{
    constexpr const char *NAME = "atls_decrypt_buffer"; // the name that its steps log under
    if (!ssl || !read_bio || !data || length <= 0 || !out || *out || !out_length) {
        syslog(LOG_ERR, "%s: Invalid Input Parameters", NAME);
        return ATLS_INVALID_INPUT;
    }
    reserve_bio_room(read_bio, static_cast<size_t>(length));
    if (BIO_write(read_bio, data, length) < length) {
        syslog(LOG_ERR, "%s: Failed to load encrypted response into SSL bio=>[%d]", NAME, length);
        return ATLS_BAD_RESPONSE;
    }
    cleanup_curl_resp(captured);
    GrowingBlock answer;
    const int result = read_answer(ssl, NAME, answer, out_length);
    if (result == ATLS_OK)
        *out = answer.release();
    give_back_bio_room(read_bio);
    return result;
}

// Replaces the captured body by what it decrypts to.
int decrypt_body(Post &post)
{
    const atls_handle *handle = post.handle;
    curl_resp plain = {};
    int length = 0;
    const auto received =
        static_cast<int>(std::min(post.body.size, size_t{INT_MAX})); // more is cut, and fails
    const int result =
        decrypt(handle->ssl, post.read_bio, post.body.data, received, &post.body, &plain.data, &length);
    if (result != ATLS_OK) {
        syslog(LOG_ERR, "%s: ATLS Decrypted Failed", EXCHANGE);
        return result;
    }
    plain.size = static_cast<size_t>(length);
    syslog(LOG_DEBUG, "%s: Decrypted body [%d] bytes [%s] from [%s:%d]", EXCHANGE, length, plain.data,
           handle->hostname, static_cast<int>(handle->port));
    syslog(LOG_NOTICE, "%s: ATLS Decrypted [%d] bytes from the response body", EXCHANGE, length);
    post.body = plain;
    return ATLS_OK;
}

// Moves the captured response into the caller's record.
void hand_over(Post &post, atls_resp *resp)
{
    resp->body = GrowingBlock(post.body.data, post.body.size + 1).release_trimmed();
    resp->body_len = post.body.size;
    resp->header = post.header.data;
    resp->header_len = post.header.size;
    resp->status_code = post.status_code;
    post.body = {};
    post.header = {};
}

} // namespace

int atls_easy_perform(atls_handle *handle, const void *msg, int msg_len, const char *service, atls_resp *resp)
{
    const LibraryCall call;
    if (call.is_too_late()) {
        syslog(LOG_ERR, "%s: The program is ending", __func__);
        return ATLS_EXCHANGE_FAILED;
    }
    OPENSSL_init_ssl(0, nullptr);
    if (!check_exchange_arguments(handle, msg, msg_len, service, resp))
        return ATLS_INVALID_INPUT;
    cleanup_atls_resp(resp);

    Exchange exchange(handle);
    Post &post = exchange.post;
    if (!prepare_request(post, service) || !encrypt_message(exchange, msg, msg_len) ||
        !post_message(exchange) || !receive_answer(post))
        return ATLS_EXCHANGE_FAILED;
    int result = post.keep_cookies();
    if (result != ATLS_OK)
        return result;
    read_tracking_id(post, resp);
    drop_rest_of_earlier_answer(post);
    if (strstr(post.header.data, "Content-Type: application/octet-stream"))
        result = decrypt_body(post);
    if (result == ATLS_OK)
        hand_over(post, resp);
    return result;
}

int atls_decrypt_buffer(SSL *ssl, BIO *read_bio, const void *data, int length, char **out, int *out_length)
{
    return decrypt(ssl, read_bio, data, length, nullptr, out, out_length);
}
