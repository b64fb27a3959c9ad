// Stand-in platform layer for desktops: identity, key and trust store are files of the directory that the
// environment variable ATLS_PLATFORM_DIR names (default /etc/atls), read anew at each call.

#include "platform.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include <openssl/ssl.h>
#include <unistd.h>

namespace
{

// Codes of this TLS library, which the client logs.
enum { TLSPLAT_OK = 0, TLSPLAT_NO_MEMORY = 1, TLSPLAT_BAD_OPTION = 2, TLSPLAT_BAD_TRUSTSTORE = 3 };

constexpr int SECSTORE_OK = 0;
constexpr int SECSTORE_FAILED = -1;

constexpr size_t PATH_SIZE = 4096;
constexpr size_t LINE_SIZE = 256;

// Writes the path of a file of the platform directory; false when it is too long.
bool platform_path(char (&path)[PATH_SIZE], const char *name)
{
    const char *directory = getenv("ATLS_PLATFORM_DIR");
    const int length = snprintf(path, sizeof path, "%s/%s", directory ? directory : "/etc/atls", name);
    return length > 0 && static_cast<size_t>(length) < sizeof path;
}

FILE *open_platform_file(const char *name)
{
    char path[PATH_SIZE];
    return platform_path(path, name) ? fopen(path, "rbe") : nullptr;
}

// Reads a whole file into buffer. An empty file, or one larger than *length, is a failure.
int read_der_file(const char *name, unsigned char *buffer, uint32_t *length)
{
    FILE *file = open_platform_file(name);
    if (!file)
        return SECSTORE_FAILED;
    setvbuf(file, nullptr, _IONBF, 0); // no copy of a key in a stream buffer
    const size_t count = fread(buffer, 1, *length, file);
    const bool whole = count > 0 && fgetc(file) == EOF && !ferror(file);
    fclose(file);
    if (!whole)
        return SECSTORE_FAILED;
    *length = static_cast<uint32_t>(count);
    return SECSTORE_OK;
}

const char *read_line(const char *name, char (&line)[LINE_SIZE])
{
    line[0] = '\0';
    if (FILE *file = open_platform_file(name)) {
        if (!fgets(line, sizeof line, file))
            line[0] = '\0';
        fclose(file);
    }
    line[strcspn(line, "\r\n")] = '\0';
    return line[0] != '\0' ? line : "unknown";
}

} // namespace

// ---- TLS library

int tlsplat_api_init(void)
{
    return OPENSSL_init_ssl(0, nullptr) == 1 ? TLSPLAT_OK : TLSPLAT_NO_MEMORY;
}

int tlsplat_create_sec_ctx(tlsplat_sec_ctx *sec_ctx)
{
    auto *context = new (std::nothrow) tlsplat_pvt_ctx{};
    if (!context)
        return TLSPLAT_NO_MEMORY;
    context->ssl_ctx = SSL_CTX_new(TLS_client_method());
    if (!context->ssl_ctx || SSL_CTX_set_min_proto_version(context->ssl_ctx, TLS1_2_VERSION) != 1) {
        tlsplat_destroy_sec_ctx(context);
        return TLSPLAT_NO_MEMORY;
    }
    // The outer HTTPS is not verified, so this is what protects the message.
    SSL_CTX_set_verify(context->ssl_ctx, SSL_VERIFY_PEER, nullptr);
    *sec_ctx = context;
    return TLSPLAT_OK;
}

int tlsplat_setopt_sec_ctx(tlsplat_sec_ctx sec_ctx, int option, int value)
{
    if (option != TLSPLAT_OPT_DEFAULT_TRUSTSTORE || value != 1)
        return TLSPLAT_BAD_OPTION;
    char path[PATH_SIZE];
    if (!platform_path(path, "truststore.pem") ||
        SSL_CTX_load_verify_locations(tlsplat_get_ssl_ctx(sec_ctx)->ssl_ctx, path, nullptr) != 1)
        return TLSPLAT_BAD_TRUSTSTORE;
    return TLSPLAT_OK;
}

tlsplat_pvt_ctx *tlsplat_get_ssl_ctx(tlsplat_sec_ctx sec_ctx)
{
    return static_cast<tlsplat_pvt_ctx *>(sec_ctx);
}

int tlsplat_destroy_sec_ctx(tlsplat_sec_ctx sec_ctx)
{
    tlsplat_pvt_ctx *context = tlsplat_get_ssl_ctx(sec_ctx);
    if (context)
        SSL_CTX_free(context->ssl_ctx);
    delete context;
    return TLSPLAT_OK;
}

// ---- Secure storage

int secstore_init_ssl_lib(void)
{
    return OPENSSL_init_crypto(0, nullptr) == 1 ? SECSTORE_OK : SECSTORE_FAILED;
}

int secstore_get_device_cert(int selector, unsigned char *buffer, uint32_t *length)
{
    return selector == 0 ? read_der_file("device-cert.der", buffer, length) : SECSTORE_FAILED;
}

int secstore_get_private_key(int selector, unsigned char *buffer, uint32_t *length)
{
    return selector == 0 ? read_der_file("device-key.der", buffer, length) : SECSTORE_FAILED;
}

// ---- Identity of the device

const char *platform_get_device_model(void)
{
    static thread_local char line[LINE_SIZE];
    return read_line("device-model", line);
}

const char *platform_get_load_id(void)
{
    static thread_local char line[LINE_SIZE];
    return read_line("load-id", line);
}

// ---- Utilities

int netutil_check_port(int port)
{
    return port >= 1 && port <= 65535;
}

// A desktop keeps its time; a device that wants the clock to follow the Date header says so with a file.
int stime(const time_t *when) ATLS_PLATFORM_NOTHROW
{
    char path[PATH_SIZE];
    if (!platform_path(path, "allow-clock") || access(path, F_OK) != 0) {
        errno = EPERM;
        return -1;
    }
    const struct timespec now = {*when, 0};
    return clock_settime(CLOCK_REALTIME, &now);
}
