// The one question about OpenSSL's FIPS mode that versions 1.1 and 3 ask differently.
#ifndef ATLS_FIPS_H
#define ATLS_FIPS_H

#include <openssl/crypto.h>
#include <openssl/evp.h>

inline bool is_fips_mode_on()
{
#if OPENSSL_VERSION_NUMBER >= 0x30000000L
    return EVP_default_properties_is_fips_enabled(nullptr) != 0;
#else
    return FIPS_mode() != 0;
#endif
}

#endif
