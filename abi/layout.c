/*
 * What compiled programs rely on in the public headers, stated once more: place and type of every field, and every value.
 * A change stops the build of the library, for 32 and for 64 bits; docs/abi.md tells which ones may be made when.
 */
#include "atls.h"
#include "proxymanager.h"

#define WORD sizeof(void *)
#define RECORD(record, size) _Static_assert(sizeof(record) == (size), #record " has another size")
#define FIELD(record, field, type, place)                                                                    \
    _Static_assert(offsetof(record, field) == (place), #record "." #field " has moved");                     \
    _Static_assert(_Generic(((record *)0)->field, type : 1, default : 0),                                    \
                   #record "." #field " has another type")
#define VALUE(name, value) _Static_assert((name) == (value), #name " has another value")

FIELD(atls_handle, hostname, char *, 0); /* the array, as it is passed on */
FIELD(atls_handle, port, int32_t, 512);
FIELD(atls_handle, proxyUrlList, char **, 512 + WORD);
FIELD(atls_handle, proxyUrlCount, int32_t, 512 + 2 * WORD);
FIELD(atls_handle, curl, void *, 512 + 3 * WORD);
FIELD(atls_handle, header_opts, struct curl_slist *, 512 + 4 * WORD);
FIELD(atls_handle, ssl, struct ssl_st *, 512 + 5 * WORD);
RECORD(atls_handle, 512 + 6 * WORD);

FIELD(atls_resp, body, char *, 0);
FIELD(atls_resp, body_len, size_t, WORD);
FIELD(atls_resp, header, char *, 2 * WORD);
FIELD(atls_resp, header_len, size_t, 3 * WORD);
FIELD(atls_resp, status_code, long, 4 * WORD);
FIELD(atls_resp, tracking_id, char *, 5 * WORD);
RECORD(atls_resp, 6 * WORD);

FIELD(ProxyManagerConfig, mode, int32_t, 0);
FIELD(ProxyManagerConfig, proxyUrl, char *, WORD);
FIELD(ProxyManagerConfig, pacUrl, char *, 2 * WORD);
FIELD(ProxyManagerConfig, optionFlag, bool, 3 * WORD);
FIELD(ProxyManagerConfig, userName, char *, 4 * WORD);
FIELD(ProxyManagerConfig, password, char *, 5 * WORD);
RECORD(ProxyManagerConfig, 6 * WORD);

FIELD(ProxyUrlInformation, mode, int32_t, 0);
FIELD(ProxyUrlInformation, proxyUrlList, char **, WORD);
FIELD(ProxyUrlInformation, userName, char *, 2 * WORD);
FIELD(ProxyUrlInformation, password, char *, 3 * WORD);
FIELD(ProxyUrlInformation, proxyUrlCount, int32_t, 4 * WORD);
RECORD(ProxyUrlInformation, 5 * WORD);

FIELD(ProxySetting, kind, int32_t, 0);
FIELD(ProxySetting, value, char *, WORD);
RECORD(ProxySetting, 2 * WORD);

VALUE(ATLS_OK, 0);
VALUE(ATLS_INVALID_INPUT, 1);
VALUE(ATLS_SETUP_FAILED, 2);
VALUE(ATLS_HANDSHAKE_FAILED, 3);
VALUE(ATLS_BAD_RESPONSE, 4);
VALUE(ATLS_NO_COOKIE, 5);
VALUE(ATLS_EXCHANGE_FAILED, 6);
VALUE(ATLS_UNEXPECTED_STATUS, 7);
VALUE(ATLS_HOSTNAME_SIZE, 512);

VALUE(PROXY_MODE_OFF, 0);
VALUE(PROXY_MODE_MANUAL, 1);
VALUE(PROXY_MODE_PACURL, 2);
VALUE(PROXY_MODE_WPAD, 3);
VALUE(PROXY_MGR_EVENT_STATE_0, 0);
VALUE(PROXY_MGR_EVENT_STATE_1, 1);
VALUE(PROXY_MGR_EVENT_CONFIG_UPDATED, 2);
VALUE(sizeof(ProxyMgrEventType), 4);

#if __STDC_HOSTED__ /* the platform layer's header needs the C library's */
#include "platform.h"

FIELD(tlsplat_pvt_ctx, ssl_ctx, struct ssl_ctx_st *, 3 * WORD);
RECORD(tlsplat_pvt_ctx, 4 * WORD);
VALUE(TLSPLAT_OPT_DEFAULT_TRUSTSTORE, 0);

_Static_assert((sizeof(time_t) > sizeof(long)) == ATLS_PLATFORM_TIME64, "the width of time_t is mistaken");
#if ATLS_PLATFORM_TIME64
/* Asked for by something that the linker keeps, so that a platform layer without it is not loaded. */
extern char atls_platform_time64;
__attribute__((constructor)) static void need_wide_time(void)
{
    __asm__ volatile("" : : "r"(&atls_platform_time64));
}
#endif
#endif
