// The way back onto OpenSSL's error queue, which versions 1.1 and 3 have different ones of.
#ifndef ATLS_ERROR_QUEUE_H
#define ATLS_ERROR_QUEUE_H

#include <openssl/err.h>

// Makes an error that was there before the calling thread's newest again.
inline void put_error_back(unsigned long code)
{
#if OPENSSL_VERSION_NUMBER >= 0x30000000L
    ERR_new();
    ERR_set_error(ERR_GET_LIB(code), ERR_GET_REASON(code), nullptr);
#else
    ERR_put_error(ERR_GET_LIB(code), ERR_GET_FUNC(code), ERR_GET_REASON(code), __FILE__, __LINE__);
#endif
}

#endif
