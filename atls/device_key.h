// Decodes the device's private key so that no copy of it stays in freed memory.
//
// From version 3 on d2i_PrivateKey hands the DER text from decoder to decoder, and each frees its copy as it is. So the
// numbers of an RSA key of two primes, the kind that devices have, go from the text into the key with nothing of
// OpenSSL's in between; whatever else the text may be is left to d2i_PrivateKey, which has the last word on it.
#ifndef ATLS_DEVICE_KEY_H
#define ATLS_DEVICE_KEY_H

#include <cstring>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#if OPENSSL_VERSION_NUMBER >= 0x30000000L
#include <algorithm>

#include <openssl/asn1.h>
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/params.h>
#endif

// Bytes on the stack, wiped when they go out of scope.
template <size_t Size>
struct SecretBytes {
    unsigned char data[Size] = {};

    SecretBytes() = default;
    SecretBytes(const SecretBytes &) = delete;
    SecretBytes &operator=(const SecretBytes &) = delete;
    ~SecretBytes() { OPENSSL_cleanse(data, sizeof data); }
};

// Wipe what earlier calls have left below on the stack. Copied bytes stay in vector registers, too, and the dynamic
// linker saves these on the stack whenever it binds a function: so they take other bytes first.
__attribute__((noinline)) inline void overwrite_vector_registers()
{
    unsigned char bytes[4096] = {};
    __asm__ volatile("" : : "r"(bytes) : "memory");
    memmove(bytes, bytes + 1, 2000);
    __asm__ volatile("" : : "r"(bytes) : "memory");
}

__attribute__((noinline)) inline void overwrite_dead_stack()
{
    const SecretBytes<16384> area;
    __asm__ volatile("" : : "r"(area.data) : "memory");
}

#if OPENSSL_VERSION_NUMBER >= 0x30000000L

// DER objects, one behind the other. Keys of another shape than is asked for are not an error here.
struct DerObjects {
    const unsigned char *data;
    long size;

    // Takes the first object, which must be of this type, and gives its contents.
    bool take(int tag, DerObjects *contents)
    {
        const unsigned char *cursor = data;
        long length = 0;
        int found = 0, tag_class = 0;
        const int form = ASN1_get_object(&cursor, &length, &found, &tag_class, size);
        if (form != (tag == V_ASN1_SEQUENCE ? V_ASN1_CONSTRUCTED : 0) || found != tag ||
            tag_class != V_ASN1_UNIVERSAL)
            return false;
        *contents = {cursor, length};
        size -= cursor + length - data;
        data = cursor + length;
        return true;
    }

    // Takes a number that is not negative, without leading zeros.
    bool take_number(DerObjects *number)
    {
        if (!take(V_ASN1_INTEGER, number) || number->size == 0 || number->data[0] > 0x7F)
            return false;
        for (; number->size > 1 && number->data[0] == 0; number->size--)
            number->data++;
        return true;
    }

    bool take_version_0()
    {
        DerObjects version = {};
        return take_number(&version) && version.size == 1 && version.data[0] == 0;
    }
};

// Finds the numbers of a PKCS#1 key, or of one in PKCS#8, in the order in which the key has them.
template <size_t Count>
bool find_rsa_numbers(DerObjects text, DerObjects (&numbers)[Count])
{
    static const unsigned char RSA_ENCRYPTION[] = {6, 9, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0xD, 1, 1, 1, 5, 0};
    DerObjects key = {}, algorithm = {};
    if (!text.take(V_ASN1_SEQUENCE, &key) || !key.take_version_0())
        return false;
    if (key.take(V_ASN1_SEQUENCE, &algorithm)) { // PKCS#8
        const bool is_rsa = algorithm.size == sizeof RSA_ENCRYPTION &&
                            memcmp(algorithm.data, RSA_ENCRYPTION, sizeof RSA_ENCRYPTION) == 0;
        DerObjects inner = {};
        if (!is_rsa || !key.take(V_ASN1_OCTET_STRING, &inner) || key.size != 0 ||
            !inner.take(V_ASN1_SEQUENCE, &key) || inner.size != 0 || !key.take_version_0())
            return false;
    }
    return std::all_of(numbers, numbers + Count,
                       [&](DerObjects &number) { return key.take_number(&number); }) &&
           key.size == 0;
}

template <size_t Size>
EVP_PKEY *make_rsa_key(const unsigned char (&der)[Size])
{
    static const char *const NAMES[] = {OSSL_PKEY_PARAM_RSA_N,         OSSL_PKEY_PARAM_RSA_E,
                                        OSSL_PKEY_PARAM_RSA_D,         OSSL_PKEY_PARAM_RSA_FACTOR1,
                                        OSSL_PKEY_PARAM_RSA_FACTOR2,   OSSL_PKEY_PARAM_RSA_EXPONENT1,
                                        OSSL_PKEY_PARAM_RSA_EXPONENT2, OSSL_PKEY_PARAM_RSA_COEFFICIENT1};
    constexpr size_t COUNT = sizeof NAMES / sizeof *NAMES;
    DerObjects numbers[COUNT] = {};
    if (!find_rsa_numbers({der, static_cast<long>(Size)}, numbers))
        return nullptr;
    SecretBytes<Size> native; // the numbers in the machine's byte order
    OSSL_PARAM parameters[COUNT + 1];
    unsigned char *end = native.data;
    for (size_t i = 0; i < COUNT; i++) {
        const DerObjects &number = numbers[i];
        const auto length = static_cast<size_t>(number.size);
        parameters[i] = OSSL_PARAM_construct_BN(NAMES[i], end, length);
        end = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
                  ? std::reverse_copy(number.data, number.data + length, end)
                  : std::copy(number.data, number.data + length, end);
    }
    parameters[COUNT] = OSSL_PARAM_construct_end();
    EVP_PKEY *key = nullptr;
    EVP_PKEY_CTX *ctx = EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr);
    if (ctx && EVP_PKEY_fromdata_init(ctx) == 1)
        (void)EVP_PKEY_fromdata(ctx, &key, EVP_PKEY_KEYPAIR, parameters);
    EVP_PKEY_CTX_free(ctx);
    return key;
}

#endif

// Decodes an RSA key as d2i_PrivateKey does; NULL when that does not take it.
template <size_t Size>
EVP_PKEY *decode_device_key(const unsigned char (&der)[Size])
{
    EVP_PKEY *key = nullptr;
#if OPENSSL_VERSION_NUMBER >= 0x30000000L
    ERR_set_mark();
    key = make_rsa_key(der);
    ERR_pop_to_mark();
#endif
    const unsigned char *cursor = der;
    return key ? key : d2i_PrivateKey(EVP_PKEY_RSA, nullptr, &cursor, static_cast<long>(Size));
}

#endif
