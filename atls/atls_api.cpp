// The public operations of the ATLS client: handles, the connection sequence, the exchange of messages and
// the release of answers.

#include "atls_internals.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <syslog.h>

#include "safec.h"

namespace
{

constexpr const char *EXCHANGE = "atls_easy_perform"; // the name that its steps log under

// Finds needle in text, however long the text is.
bool contains(const char *text, const char *needle)
{
    const size_t length = strlen(text);
    const size_t needle_length = strlen(needle);
    // Each window repeats the end of the one before it, where a match may have been cut.
    for (size_t start = 0; start + needle_length <= length;
         start += SAFEC_SEARCH_LIMIT - (needle_length - 1)) {
        const size_t bound = std::min(length - start, SAFEC_SEARCH_LIMIT);
        char *found = nullptr;
        (void)strstr_s(const_cast<char *>(text) + start, bound, needle, needle_length, &found);
        if (found)
            return true;
    }
    return false;
}

} // namespace

// ---- Handles and answers

atls_handle *create_atls_handle(void)
{
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

// State of one exchange; releases what the answer record has not taken, the header first.
struct Exchange {
    atls_handle *handle;
    BIO *read_bio = nullptr;
    BIO *write_bio = nullptr;
    curl_resp body = {};
    curl_resp header = {};
    char *records = nullptr; // the encrypted message and a NUL
    int records_length = 0;
    long status_code = 0;

    explicit Exchange(atls_handle *connection) : handle(connection) {}
    Exchange(const Exchange &) = delete;
    Exchange &operator=(const Exchange &) = delete;
    ~Exchange()
    {
        free(records);
        cleanup_curl_resp(&header);
        cleanup_curl_resp(&body);
    }
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

bool prepare_request(Exchange &exchange, const char *service)
{
    const atls_handle *handle = exchange.handle;
    if (!get_engine_bios(EXCHANGE, handle->ssl, &exchange.read_bio, &exchange.write_bio))
        return false;
    char url[ATLS_LINE_SIZE];
    snprintf(url, sizeof url, "https://%s:%d%s", handle->hostname, static_cast<int>(handle->port), service);
    return RequestOptions(handle->curl, EXCHANGE)
               .set(CURLOPT_WRITEDATA, &exchange.body, "%s: Failed to set curl response body buffer")
               .set(CURLOPT_HEADERDATA, &exchange.header, "%s: Failed to set curl response header buffer")
               .set(CURLOPT_URL, url, "%s: Failed to set curl URI")
               .result() == CURLE_OK;
}

// Moves all that waits in the engine's write BIO into exchange.records. Returns the bytes read, or what the
// failed read returned; a message that fails to be read as a whole is dropped as a whole.
int collect_records(Exchange &exchange)
{
    const size_t pending = BIO_ctrl_pending(exchange.write_bio);
    exchange.records = pending < INT_MAX ? static_cast<char *>(malloc(pending + 1)) : nullptr;
    if (!exchange.records)
        return -1;
    int total = 0;
    do {
        const int rest = static_cast<int>(pending) - total;
        const int count =
            BIO_read(exchange.write_bio, exchange.records + total, std::min(rest, ATLS_FLIGHT_SIZE));
        if (count <= 0)
            return count;
        total += count;
    } while (total < static_cast<int>(pending));
    exchange.records[total] = '\0';
    return total;
}

bool encrypt_message(Exchange &exchange, const void *msg, int msg_len)
{
    bool encrypted = false;
    if (SSL_write(exchange.handle->ssl, msg, msg_len) != msg_len) {
        syslog(LOG_ERR, "%s: Failed to Encrypt message using SSL object", EXCHANGE);
    } else {
        exchange.records_length = collect_records(exchange);
        encrypted = exchange.records_length > 0;
        if (!encrypted)
            syslog(LOG_ERR, "%s: Failed to read ATLS flight from BIO bytes read=>[%d]", EXCHANGE,
                   exchange.records_length);
    }
    if (!encrypted)
        (void)BIO_reset(exchange.write_bio); // the next exchange must not send what is left of this one
    return encrypted;
}

bool post_message(Exchange &exchange)
{
    syslog(LOG_DEBUG, "%s: Attempting to send [%d] [%s]", EXCHANGE, exchange.records_length,
           exchange.records);
    const CURLcode code = RequestOptions(exchange.handle->curl, EXCHANGE)
                              .set(CURLOPT_POSTFIELDSIZE, static_cast<long>(exchange.records_length),
                                   "%s: Failed to set curl post body size")
                              .set(CURLOPT_POSTFIELDS, exchange.records, "%s: Failed to set curl post body")
                              .result();
    return code == CURLE_OK && post_with_failover(EXCHANGE, exchange.handle) == CURLE_OK;
}

bool check_response(Exchange &exchange)
{
    const atls_handle *handle = exchange.handle;
    if (is_empty(exchange.body) || is_empty(exchange.header)) {
        syslog(LOG_ERR, "%s: Failed to receieve handshake response", EXCHANGE);
        return false;
    }
    if (curl_easy_getinfo(handle->curl, CURLINFO_RESPONSE_CODE, &exchange.status_code) != CURLE_OK) {
        syslog(LOG_ERR, "%s: Failed to get response status code", EXCHANGE);
        return false;
    }
    const int port = static_cast<int>(handle->port);
    const int header_size = static_cast<int>(exchange.header.size);
    const int body_size = static_cast<int>(exchange.body.size);
    syslog(LOG_DEBUG, "%s: Header received [%d] bytes [%s] from [%s:%d]", EXCHANGE, header_size,
           exchange.header.data, handle->hostname, port);
    syslog(LOG_DEBUG, "%s: Body received [%d] bytes [%s] from [%s:%d]", EXCHANGE, body_size,
           exchange.body.data, handle->hostname, port);
    syslog(LOG_DEBUG, "%s: ATLS received [%d] bytes from [%s:%d]", EXCHANGE,
           static_cast<int>(exchange.header.size + exchange.body.size), handle->hostname, port);
    syslog(LOG_NOTICE, "%s: ATLS received a [%d] status code from [%s:%d]", EXCHANGE,
           static_cast<int>(exchange.status_code), handle->hostname, port);
    return true;
}

void read_tracking_id(const Exchange &exchange, atls_resp *resp)
{
    if (atls_get_tracking_id_from_header(exchange.header.data, &resp->tracking_id) != ATLS_OK)
        syslog(LOG_ERR, "%s: Failed to get tracking id from resp header", EXCHANGE);
    else
        syslog(LOG_NOTICE, "%s: tracking id - %s", EXCHANGE, resp->tracking_id ? resp->tracking_id : "none");
}

// Replaces the captured body by what it decrypts to.
int decrypt_body(Exchange &exchange)
{
    const atls_handle *handle = exchange.handle;
    curl_resp plain = {};
    int length = 0;
    const int result = atls_decrypt_buffer(handle->ssl, exchange.read_bio, exchange.body.data,
                                           static_cast<int>(exchange.body.size), &plain.data, &length);
    if (result != ATLS_OK) {
        syslog(LOG_ERR, "%s: ATLS Decrypted Failed", EXCHANGE);
        return result;
    }
    plain.size = static_cast<size_t>(length);
    syslog(LOG_DEBUG, "%s: Decrypted body [%d] bytes [%s] from [%s:%d]", EXCHANGE, length, plain.data,
           handle->hostname, static_cast<int>(handle->port));
    syslog(LOG_NOTICE, "%s: ATLS Decrypted [%d] bytes from the response body", EXCHANGE, length);
    cleanup_curl_resp(&exchange.body);
    exchange.body = plain;
    return ATLS_OK;
}

// Moves the captured response into the caller's record.
void hand_over(Exchange &exchange, atls_resp *resp)
{
    resp->body = static_cast<char *>(trim_block(exchange.body.data, exchange.body.size + 1));
    resp->body_len = exchange.body.size;
    resp->header = exchange.header.data;
    resp->header_len = exchange.header.size;
    resp->status_code = exchange.status_code;
    exchange.body = {};
    exchange.header = {};
}

} // namespace

int atls_easy_perform(atls_handle *handle, const void *msg, int msg_len, const char *service, atls_resp *resp)
{
    OPENSSL_init_ssl(0, nullptr);
    if (!check_exchange_arguments(handle, msg, msg_len, service, resp))
        return ATLS_INVALID_INPUT;
    cleanup_atls_resp(resp);

    Exchange exchange(handle);
    if (!prepare_request(exchange, service) || !encrypt_message(exchange, msg, msg_len) ||
        !post_message(exchange) || !check_response(exchange))
        return ATLS_EXCHANGE_FAILED;
    int result = keep_cookies(EXCHANGE, handle, exchange.header.data);
    if (result != ATLS_OK)
        return result;
    read_tracking_id(exchange, resp);
    if (contains(exchange.header.data, "Content-Type: application/octet-stream"))
        result = decrypt_body(exchange);
    if (result == ATLS_OK)
        hand_over(exchange, resp);
    return result;
}

namespace
{

// Reads the rest of an answer that there is no memory for: it must not be taken for the next one.
void discard_answer(SSL *ssl)
{
    char rest[ATLS_FLIGHT_SIZE];
    while (SSL_read(ssl, rest, ATLS_FLIGHT_SIZE) == ATLS_FLIGHT_SIZE) {
    }
    OPENSSL_cleanse(rest, sizeof rest);
}

// Reads one answer from the engine into *out, which holds ATLS_FLIGHT_SIZE bytes and grows by as many with
// every full read. On failure the buffer is released and *out is NULL.
int read_answer(SSL *ssl, const char *caller, char **out, int *out_length)
{
    for (size_t total = 0;;) {
        const int count = SSL_read(ssl, *out + total, ATLS_FLIGHT_SIZE);
        if (count <= 0) {
            syslog(LOG_ERR, "%s: Failed to decrypt server response", caller);
            break;
        }
        total += static_cast<size_t>(count);
        if (count < ATLS_FLIGHT_SIZE) {
            (*out)[total] = '\0';
            *out_length = static_cast<int>(total);
            return ATLS_OK;
        }
        auto *larger = static_cast<char *>(grow_block(*out, total, total + ATLS_FLIGHT_SIZE));
        if (!larger) {
            syslog(LOG_ERR, "%s: Failed to reallocate memory for decrypted response body", caller);
            discard_answer(ssl);
            break;
        }
        *out = larger;
    }
    free(*out);
    *out = nullptr;
    return ATLS_BAD_RESPONSE;
}

} // namespace

int atls_decrypt_buffer(SSL *ssl, BIO *read_bio, const void *data, int length, char **out, int *out_length)
{
    if (!ssl || !read_bio || !data || length <= 0 || !out || *out || !out_length) {
        syslog(LOG_ERR, "%s: Invalid Input Parameters", __func__);
        return ATLS_INVALID_INPUT;
    }
    if (BIO_write(read_bio, data, length) < length) {
        syslog(LOG_ERR, "%s: Failed to load encrypted response into SSL bio=>[%d]", __func__, length);
        return ATLS_BAD_RESPONSE;
    }
    *out = static_cast<char *>(malloc(ATLS_FLIGHT_SIZE));
    if (!*out) {
        syslog(LOG_ERR, "%s: Failed to allocate memory for decrypted response body", __func__);
        discard_answer(ssl);
        return ATLS_BAD_RESPONSE;
    }
    return read_answer(ssl, __func__, out, out_length);
}
