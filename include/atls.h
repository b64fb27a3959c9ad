/**
 * @file atls.h
 * Application-layer TLS over HTTPS POSTs.
 *
 * An ATLS connection is a TLS session between this device and a remote service whose every record travels in
 * the body of an HTTPS POST, so that it passes HTTPS front ends and HTTP proxies end to end. The device
 * proves its identity with its own certificate and key. The order of calls is
 *
 *     create_atls_handle -> atls_connect -> atls_easy_perform, cleanup_atls_resp (any number of times)
 *                        -> free_atls_handle
 *
 * Threads: a handle, and a response record, belong to one thread at a time; different handles may be used on
 * different threads at once, the first use included. No function takes a lock while it waits for the network;
 * as long as the process has no proxy manager client, each atls_connect tries to make it, one thread after
 * the other. None may be under way while cleanup_proxy_manager_client runs. Cancelling a thread
 * takes effect behind the call that it is in, at the program's next cancellation point (a loop of nothing but
 * these calls needs pthread_testcancel). An asynchronous cancellation that meets the first or the last
 * instructions of a call may end the process: leave the type deferred.
 *
 * Exit: the program may end while threads are inside these functions. exit() then waits for them, a second at most,
 * and later calls fail: atls_connect with ATLS_SETUP_FAILED, atls_easy_perform with ATLS_EXCHANGE_FAILED. A thread
 * that waits longer for the network is left behind; it may crash the process if it is answered in its last moments.
 * To be sure, let threads finish first.
 *
 * Fork: a child process uses only handles that it makes itself. It leaves the parent's handles alone and does
 * not free them either. Of two processes that use one session, one ends it for the other. A child whose parent
 * had a proxy manager client connects without asking for proxies. The library holds no lock of its own across
 * a fork, but syslog and OpenSSL do, each for a moment: forked while another thread is inside a call here, a
 * child may wait for one for ever. Fork first, or let the child only exec.
 *
 * Blocking: atls_connect posts once or twice, in rare cases a third time, atls_easy_perform once. Each
 * attempt of a post takes at most 30 seconds; when a proxy cannot be reached, the next one is tried. A proxy
 * manager that does not answer holds atls_connect up for about 25 seconds a question. The 30 seconds hold
 * while names are looked up only if libcurl does that with c-ares ("c-ares" in the first line of
 * curl --version): its threaded resolver (AsynchDNS without c-ares) lets the post end when getaddrinfo does,
 * and without AsynchDNS there is no limit meanwhile. A system log whose socket is full, and a standard error
 * that is a full pipe, hold a call up for as long as nobody reads them.
 *
 * Diagnostics: syslog(3) gets them under the identity and the mask that the program has set; the library never
 * calls openlog. At LOG_DEBUG they contain decrypted answers. libcurl's trace of each post goes to the
 * standard error; nowhere if descriptor 2 is not open in atls_connect, or is closed on exec as the files of
 * libraries are, which LOG_NOTICE then tells. A daemon better opens /dev/null there: the number may go to any
 * file.
 *
 * Descriptors: the connection's socket is closed on exec.
 *
 * Signals: a SIGPIPE and a SIGXFSZ (file size limit) of the library's writes do not reach the program, but for
 * what syslog itself writes under LOG_PERROR.
 */
#ifndef ATLS_H
#define ATLS_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct curl_slist; /* libcurl's string list */
struct ssl_st;     /* OpenSSL's SSL */

/** Result of every operation that reports one. */
enum {
    ATLS_OK = 0,               /**< success */
    ATLS_INVALID_INPUT = 1,    /**< a required argument is missing or wrong, or the handle is in the wrong
                                    state */
    ATLS_SETUP_FAILED = 2,     /**< request object, TLS engine, device certificate or key could not be set
                                    up */
    ATLS_HANDSHAKE_FAILED = 3, /**< the handshake could not be completed: network, proxy, refused
                                    certificate (the device's under TLS 1.2 only) */
    ATLS_BAD_RESPONSE = 4,     /**< HTTP status 400 in the handshake, or a response that cannot be
                                    processed */
    ATLS_NO_COOKIE = 5,        /**< internal: a response without cookies */
    ATLS_EXCHANGE_FAILED = 6,  /**< the message could not be sent, or no response came back */
    ATLS_UNEXPECTED_STATUS = 7 /**< an HTTP status other than 200 and 400 in the handshake */
};

/** Room for a host name or an IP address text, terminating NUL included. */
#define ATLS_HOSTNAME_SIZE 512

/** One connection. Made by create_atls_handle, which zeroes it; the fields are for reading only. */
typedef struct atls_handle {
    char hostname[ATLS_HOSTNAME_SIZE]; /**< host name, or IP address text; empty when not connected */
    int32_t port;                      /**< TCP port; 0 when not connected */
    char **proxyUrlList;               /**< NULL, or proxies to fall back on; entries may be NULL */
    int32_t proxyUrlCount;             /**< number of entries of proxyUrlList */
    void *curl;                        /**< libcurl easy handle: the HTTPS POST request object */
    struct curl_slist *header_opts;    /**< request headers, the server's cookies among them */
    struct ssl_st *ssl;                /**< the inner TLS engine */
} atls_handle;

/**
 * The answer to one message. The caller provides the record, zeroed before its first use; atls_easy_perform
 * fills it; cleanup_atls_resp releases what it holds.
 */
typedef struct atls_resp {
    char *body;        /**< the decrypted answer, or the body as received; NUL-terminated */
    size_t body_len;   /**< bytes in body, without the NUL */
    char *header;      /**< status line and header lines as received; NUL-terminated */
    size_t header_len; /**< bytes in header, without the NUL */
    long status_code;  /**< HTTP status of the response */
    char *tracking_id; /**< value of the response's TrackingID header, at most 64 characters, or NULL; looked
                            for in the first 16,384 characters of header */
} atls_resp;

/**
 * Makes an empty handle.
 *
 * @return the handle, which the caller owns and releases with free_atls_handle; NULL when there is no memory
 */
atls_handle *create_atls_handle(void);

/**
 * Connects an empty handle to https://HOST:PORT/SERVICE and performs the TLS handshake with the service.
 *
 * The texts are copied. The proxies for the URL are asked of the device's proxy manager (proxymanager.h),
 * whose client is made if the process has none; it stays until cleanup_proxy_manager_client. Without a proxy
 * manager, or with the proxy mode off, no proxy is set. A post that cannot get through (proxy not found, no
 * connection, 30 seconds passed) is tried again through the next proxy of the list, and the one that got
 * through stays in use. A user name and password of the proxy are used in the ways that this libcurl was
 * built with (Basic, Digest, perhaps NTLM and Negotiate), Digest only without FIPS. libcurl heeds
 * https_proxy, all_proxy and no_proxy of the environment besides. Not to be called from a callback of the
 * proxy manager client.
 *
 * The cookies of a response go back with every later request, until a response brings others. The first
 * Set-Cookie line is found within the first 16,384 characters of the header, each other one within as many
 * behind the value before it.
 *
 * Under TLS 1.3 the service judges the device's certificate after the handshake: if it refuses it, the result
 * is ATLS_OK, the first exchange fails with ATLS_BAD_RESPONSE and later ones with ATLS_INVALID_INPUT.
 *
 * When TLS itself failed (ATLS_HANDSHAKE_FAILED), its reason is the one error on the calling thread's OpenSSL
 * error queue: ERR_reason_error_string(ERR_get_error()) gives "certificate verify failed", "tlsv1 alert
 * unknown ca" or "wrong version number". A LOG_ERR line has it as well, with the result of the verification.
 * In all other cases, success included, nothing of this library is on the queue.
 *
 * After a failure the handle is empty, but for the first case of ATLS_INVALID_INPUT, and may be connected
 * again.
 *
 * @param handle       address of a handle that is not connected
 * @param hostname     host name, at most 511 characters; wins over ip, even when it is empty
 * @param ip           IP address text, used when hostname is NULL; an IPv6 address needs its brackets
 * @param port         TCP port, 1 to 65535
 * @param service      path of the service, beginning with "/"; the URL made of all three is cut at 1,023
 *                     characters
 * @param tracking_id  sent as the TrackingID header with every request of the connection, without CR and LF;
 *                     may be NULL
 *
 * @retval ATLS_OK                 connected
 * @retval ATLS_INVALID_INPUT      a missing or wrong argument, or a handle that is connected: it is left
 *                                 unchanged; or an empty host name, or a tracking_id of several lines: the
 *                                 handle is empty
 * @retval ATLS_SETUP_FAILED       host name too long, no engine, no usable device certificate or key
 * @retval ATLS_HANDSHAKE_FAILED   no connection through any proxy of the list, or the TLS handshake failed
 * @retval ATLS_BAD_RESPONSE       status 400, or cookies of more than 1,022 characters in one response
 * @retval ATLS_UNEXPECTED_STATUS  another status than 200
 */
int atls_connect(atls_handle **handle, const char *hostname, const char *ip, int port, const char *service,
                 const char *tracking_id);

/**
 * Sends one message over a connected handle and waits for the answer.
 *
 * Any HTTP status counts as an answer: look at resp->status_code. A body marked with the header line
 * "Content-Type: application/octet-stream", in exactly this spelling, is decrypted; any other is handed back
 * as it came, and is then not protected by the session.
 *
 * **After anything but ATLS_OK with a marked body, clean the handle up and connect again.** Whoever answers
 * the outer HTTPS can keep an answer back, send an empty or unmarked body in its place, and deliver it for
 * the next message, whose result is then ATLS_OK. The session guarantees that answers are the service's,
 * unaltered and in order, not which message they belong to: let the messages say so themselves.
 *
 * A message whose post failed may or may not have reached the service; it is never sent again by a later
 * call. After ATLS_BAD_RESPONSE and ATLS_EXCHANGE_FAILED resp holds no body and no header, but perhaps a
 * tracking identifier; the handle stays connected, but its session may be at its end, as it is when a message
 * could not be encrypted: later exchanges then fail with one of the three results below.
 *
 * An answer ends with its first TLS record that is shorter than 16,384 bytes, so the service has to write
 * full records and one shorter. An answer of an exact multiple of that length cannot be received
 * (ATLS_BAD_RESPONSE). Of an answer in several short records, as services write it that size records
 * dynamically or write in parts, resp holds the first only; the next exchange drops the rest, with a LOG_ERR
 * line. After ATLS_OK with a marked body a program sees that more waits by
 *
 *     char byte;
 *     bool more = SSL_peek(handle->ssl, &byte, 1) > 0;
 *
 * which reads over session tickets and may change the thread's OpenSSL error queue.
 *
 * @param handle   a connected handle
 * @param msg      the message; it is not kept, and must not lie in an answer that resp still holds
 * @param msg_len  its length, at least 1; OpenSSL's memory BIOs hold about 1.6 GB of records for certain: a longer
 *                 message may fail with ATLS_EXCHANGE_FAILED, a longer answer with ATLS_BAD_RESPONSE
 * @param service  path of the service for this message, beginning with "/"
 * @param resp     zeroed, or holding an earlier answer, which is released once the arguments have been
 *                 checked; the caller owns the new answer and releases it with cleanup_atls_resp
 *
 * @retval ATLS_OK               resp holds the answer
 * @retval ATLS_INVALID_INPUT    a missing or wrong argument, or no established session: resp is unchanged
 * @retval ATLS_BAD_RESPONSE     the answer could not be decrypted, or cookies of more than 1,022 characters
 * @retval ATLS_EXCHANGE_FAILED  the message was not sent, or no answer with a body came back
 */
int atls_easy_perform(atls_handle *handle, const void *msg, int msg_len, const char *service,
                      atls_resp *resp);

/**
 * Releases the buffers that a response record holds and clears it for reuse. The record itself is the
 * caller's.
 *
 * @param resp  the record; NULL is ignored
 */
void cleanup_atls_resp(atls_resp *resp);

/**
 * Disconnects: releases the connection and wipes the host name. The handle stays allocated and may be
 * connected again. The proxy list is kept until the next atls_connect or free_atls_handle.
 *
 * @param handle  address of the handle; a NULL handle is logged and ignored
 */
void atls_handle_cleanup(atls_handle **handle);

/**
 * Disconnects and releases the handle.
 *
 * @param handle  the handle, invalid afterwards; NULL is ignored
 */
void free_atls_handle(atls_handle *handle);

#ifdef __cplusplus
}
#endif

#endif
