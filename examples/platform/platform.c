/*
 * platform.c - a platform layer to start from, for a device whose identity is files at fixed places.
 *
 * Set by -D when it is compiled: DEVICE_FOLDER, which holds the files below, DEVICE_MODEL and LOAD_ID. The
 * contract is platform.h; docs/porting.md leads from this file to a device's own.
 */
#define _POSIX_C_SOURCE 200809L /* O_CLOEXEC */

#include <atls/platform.h>

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <openssl/crypto.h>
#include <openssl/ssl.h>

#ifndef DEVICE_FOLDER
#define DEVICE_FOLDER "/etc/device"
#endif
#ifndef DEVICE_MODEL
#define DEVICE_MODEL "Example"
#endif
#ifndef LOAD_ID
#define LOAD_ID "example-1.0.loads"
#endif

static const char certificate_file[] = DEVICE_FOLDER "/certificate.der";
static const char key_file[] = DEVICE_FOLDER "/key.pk8"; /* PKCS#8, DER, not encrypted, RSA */
static const char truststore_file[] = DEVICE_FOLDER "/truststore.pem";

/* Codes of this layer. The client logs those of the TLS library. */
enum { OK = 0, NO_CONTEXT = 1, BAD_OPTION = 2, BAD_TRUSTSTORE = 3, NOT_STORED = 4 };

/* ---- TLS library */

int tlsplat_api_init(void)
{
    return OPENSSL_init_ssl(0, NULL) == 1 ? OK : NO_CONTEXT;
}

/* The device's TLS policy. The outer HTTPS verifies nothing, so SSL_VERIFY_PEER is what protects messages. */
static int apply_policy(SSL_CTX *ssl_ctx)
{
    SSL_CTX_set_verify(ssl_ctx, SSL_VERIFY_PEER, NULL);
    return SSL_CTX_set_min_proto_version(ssl_ctx, TLS1_2_VERSION) == 1 &&
           SSL_CTX_set_cipher_list(ssl_ctx, "ECDHE+AESGCM:ECDHE+CHACHA20") == 1; /* of TLS 1.2 */
}

int tlsplat_create_sec_ctx(tlsplat_sec_ctx *sec_ctx)
{
    tlsplat_pvt_ctx *context = calloc(1, sizeof *context);
    if (!context)
        return NO_CONTEXT;
    context->ssl_ctx = SSL_CTX_new(TLS_client_method());
    if (!context->ssl_ctx || !apply_policy(context->ssl_ctx)) {
        tlsplat_destroy_sec_ctx(context);
        return NO_CONTEXT;
    }
    *sec_ctx = context;
    return OK;
}

int tlsplat_setopt_sec_ctx(tlsplat_sec_ctx sec_ctx, int option, int value)
{
    if (option != TLSPLAT_OPT_DEFAULT_TRUSTSTORE || value != 1)
        return BAD_OPTION;
    SSL_CTX *ssl_ctx = tlsplat_get_ssl_ctx(sec_ctx)->ssl_ctx;
    return SSL_CTX_load_verify_locations(ssl_ctx, truststore_file, NULL) == 1 ? OK : BAD_TRUSTSTORE;
}

tlsplat_pvt_ctx *tlsplat_get_ssl_ctx(tlsplat_sec_ctx sec_ctx)
{
    return sec_ctx;
}

int tlsplat_destroy_sec_ctx(tlsplat_sec_ctx sec_ctx)
{
    tlsplat_pvt_ctx *context = sec_ctx;
    if (context)
        SSL_CTX_free(context->ssl_ctx); /* one reference: engines made from it keep theirs */
    free(context);
    return OK;
}

/* ---- Secure storage */

int secstore_init_ssl_lib(void)
{
    return OPENSSL_init_crypto(0, NULL) == 1 ? OK : NOT_STORED;
}

/* Reads a file into the caller's buffer and nowhere else, so that there is no other copy of a key to wipe.
 * What did not arrive whole, for its size or any other reason, is wiped and a failure. */
static int read_whole_file(const char *path, unsigned char *buffer, uint32_t *length)
{
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0)
        return NOT_STORED;
    const ssize_t count = read(file, buffer, *length);
    struct stat status;
    const int whole = count > 0 && fstat(file, &status) == 0 && status.st_size == count;
    close(file);
    if (!whole) {
        OPENSSL_cleanse(buffer, *length);
        return NOT_STORED;
    }
    *length = (uint32_t)count;
    return OK;
}

int secstore_get_device_cert(int selector, unsigned char *buffer, uint32_t *length)
{
    return selector == 0 ? read_whole_file(certificate_file, buffer, length) : NOT_STORED;
}

int secstore_get_private_key(int selector, unsigned char *buffer, uint32_t *length)
{
    return selector == 0 ? read_whole_file(key_file, buffer, length) : NOT_STORED;
}

/* ---- Identity of the device. Texts that are put together at run time belong to a thread: see platform.h. */

const char *platform_get_device_model(void)
{
    return DEVICE_MODEL;
}

const char *platform_get_load_id(void)
{
    return LOAD_ID;
}

/* ---- Utilities */

int netutil_check_port(int port)
{
    return port >= 1 && port <= 65535;
}

/* This device keeps its time: the Date header is not authenticated. */
int stime(const time_t *when)
{
    (void)when;
    errno = EPERM;
    return -1;
}
