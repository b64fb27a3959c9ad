/* A device's own platform layer, in place of the stand-in: its stime says that it was called and sets
 * nothing. */
#include "platform.h"

#include <stdio.h>

int tlsplat_api_init(void)
{
    return 42;
}
int tlsplat_create_sec_ctx(tlsplat_sec_ctx *sec_ctx)
{
    return sec_ctx == NULL;
}
int tlsplat_setopt_sec_ctx(tlsplat_sec_ctx sec_ctx, int option, int value)
{
    return !sec_ctx + option + value;
}
tlsplat_pvt_ctx *tlsplat_get_ssl_ctx(tlsplat_sec_ctx sec_ctx)
{
    return sec_ctx;
}
int tlsplat_destroy_sec_ctx(tlsplat_sec_ctx sec_ctx)
{
    return sec_ctx != NULL;
}
int secstore_init_ssl_lib(void)
{
    return 0;
}
int secstore_get_device_cert(int selector, unsigned char *buffer, uint32_t *length)
{
    return selector + (buffer == NULL) + (length == NULL) + 1;
}
int secstore_get_private_key(int selector, unsigned char *buffer, uint32_t *length)
{
    return secstore_get_device_cert(selector, buffer, length);
}
const char *platform_get_device_model(void)
{
    return "Double";
}
const char *platform_get_load_id(void)
{
    return "1";
}
int netutil_check_port(int port)
{
    return port == 7;
}
int stime(const time_t *when)
{
    printf("stime of the platform called: %d\n", when != NULL);
    return -1;
}
