/**
 * @file platform.h
 * What the ATLS client asks of the device it runs on.
 *
 * A device integrator provides a shared library libatls-platform.so with these functions; the one built here
 * is a stand-in for desktops that reads a directory of files. docs/porting.md explains both.
 *
 * Width of time_t: it is part of the contract. On 32-bit systems it has 32 or 64 bits, by the options of the compiler
 * (_TIME_BITS of glibc), and libatls.so and the platform library have to be compiled with the same. A platform library that
 * includes this header and has 64 bits there exports atls_platform_time64, without which a libatls.so that has 64 bits, too,
 * is not loaded. Nor does a libatls.so with 32 bits call the stime of such a platform library: the clock is left alone.
 *
 * Threads: every function may be called from several threads at the same time. None may call back into the
 * ATLS client, throw, or end the process.
 */
#ifndef ATLS_PLATFORM_H
#define ATLS_PLATFORM_H

#include <limits.h>
#include <stdint.h>
#include <time.h>

/** No function throws; where glibc declares one so, this repeats it. */
#if defined(__cplusplus) && defined(__GLIBC__)
#define ATLS_PLATFORM_NOTHROW noexcept
#else
#define ATLS_PLATFORM_NOTHROW
#endif

/** 1 where time_t has 64 bits and long has 32. */
#if LONG_MAX == 0x7fffffffL && (!defined(__GLIBC__) || defined(__USE_TIME_BITS64) || __TIMESIZE == 64)
#define ATLS_PLATFORM_TIME64 1
#else
#define ATLS_PLATFORM_TIME64 0
#endif

#ifdef __cplusplus
extern "C" {
#endif

#if ATLS_PLATFORM_TIME64 && !defined(ATLS_PLATFORM_CALLER)
/** Tells libatls.so the width of time_t; see above. */
__attribute__((weak, visibility("default"))) char atls_platform_time64 = 1;
#endif

struct ssl_ctx_st; /* OpenSSL's SSL_CTX */

/* ---- TLS library: the security context of the inner TLS engine */

/** An opaque security context. */
typedef void *tlsplat_sec_ctx;

/** The private record of a security context. The client uses ssl_ctx only. */
typedef struct tlsplat_pvt_ctx {
    void *reserved[3];          /**< the platform's own */
    struct ssl_ctx_st *ssl_ctx; /**< owned by the security context */
} tlsplat_pvt_ctx;

/** Option of tlsplat_setopt_sec_ctx: value 1 makes the context trust the platform's default trust store. */
#define TLSPLAT_OPT_DEFAULT_TRUSTSTORE 0

/**
 * Prepares the library. Called before every set-up, so it must do no harm when it is called again.
 *
 * @return 0, or a code of the platform that is only logged
 */
int tlsplat_api_init(void);

/**
 * Makes a client security context with an SSL_CTX of its own. Protocol versions, cipher suites and the
 * verification of the service are the platform's choice.
 *
 * @param sec_ctx  where to store the context, which the client releases with tlsplat_destroy_sec_ctx
 *
 * @return 0, or a code; *sec_ctx is then left alone
 */
int tlsplat_create_sec_ctx(tlsplat_sec_ctx *sec_ctx);

/**
 * Sets an option.
 *
 * @param sec_ctx  the context
 * @param option   TLSPLAT_OPT_DEFAULT_TRUSTSTORE
 * @param value    1
 *
 * @return 0, or a code when the option or the value is unknown or cannot be set
 */
int tlsplat_setopt_sec_ctx(tlsplat_sec_ctx sec_ctx, int option, int value);

/**
 * Gives access to the context's private record.
 *
 * @param sec_ctx  the context
 *
 * @return the record, which lives as long as the context, or NULL
 */
tlsplat_pvt_ctx *tlsplat_get_ssl_ctx(tlsplat_sec_ctx sec_ctx);

/**
 * Releases the context. The SSL_CTX is released by reference (SSL_CTX_free): an SSL object made from it lives
 * on.
 *
 * @param sec_ctx  the context
 *
 * @return a code that is not used
 */
int tlsplat_destroy_sec_ctx(tlsplat_sec_ctx sec_ctx);

/* ---- Secure storage: the device's certificate and key */

/**
 * Prepares the store's crypto support. Called before each pair of fetches.
 *
 * @return a code that is not used
 */
int secstore_init_ssl_lib(void);

/**
 * Writes the device certificate as DER.
 *
 * @param selector  0: the device's own
 * @param buffer    the client's buffer
 * @param length    the capacity on entry (4,096 bytes), the length of the certificate on return
 *
 * @return 0, or a non-zero value when there is none or it does not fit; it is never truncated
 */
int secstore_get_device_cert(int selector, unsigned char *buffer, uint32_t *length);

/**
 * Writes the device's RSA private key (PKCS#1 or PKCS#8) as DER. The client wipes the buffer after use.
 *
 * @param selector  0: the device's own
 * @param buffer    the client's buffer
 * @param length    the capacity on entry (4,096 bytes), the length of the key on return
 *
 * @return 0, or a non-zero value when there is none or it does not fit; it is never truncated
 */
int secstore_get_private_key(int selector, unsigned char *buffer, uint32_t *length);

/* ---- Identity of the device, for the User-Agent header */

/**
 * Tells the model name of the device.
 *
 * @return the name, of which the first 19 characters are used; never NULL; valid until the thread's next call
 */
const char *platform_get_device_model(void);

/**
 * Tells the identifier of the firmware load.
 *
 * @return the identifier; what follows ".loads" is cut, and 31 characters are used; never NULL; valid until
 *         the thread's next call
 */
const char *platform_get_load_id(void);

/* ---- Utilities */

/**
 * Tells whether a port can be used.
 *
 * @param port  the port number
 *
 * @return non-zero when it is a usable TCP port number
 */
int netutil_check_port(int port);

/**
 * Sets the system clock, as stime(2) of older C libraries does.
 *
 * @param when  seconds since the epoch
 *
 * @return 0, or -1 with errno set; EPERM when the clock is not to be set
 */
int stime(const time_t *when) ATLS_PLATFORM_NOTHROW;

#ifdef __cplusplus
}
#endif

#endif
