// The blocks of the engine's memory BIOs. OpenSSL lets them grow by a third each time that they are full, and keeps the
// largest for as long as the BIO lives; here they get what a large body needs at once, and give it back.
#ifndef ATLS_BIO_ROOM_H
#define ATLS_BIO_ROOM_H

#include <cstring>

#include <openssl/bio.h>
#include <openssl/buffer.h>
#include <openssl/crypto.h>

// What one full record needs, with some to spare; such a block stays.
constexpr size_t ORDINARY_BIO_ROOM = 24576;

// The block of a memory BIO that may be exchanged for another, what waits in it first; or NULL.
inline BUF_MEM *bio_block(BIO *bio)
{
    BUF_MEM *block = nullptr;
    const bool writable = BIO_method_type(bio) == BIO_TYPE_MEM && !BIO_test_flags(bio, BIO_FLAGS_MEM_RDONLY);
    return writable && BIO_get_mem_ptr(bio, &block) == 1 && block && block->flags == 0 ? block : nullptr;
}

// Exchanges the block for one of this room, which is enough for what waits. Without memory the old one stays.
inline void exchange_bio_block(BIO *bio, BUF_MEM *old, size_t room)
{
    BUF_MEM *block = BUF_MEM_new();
    char *data = block && room > 0 ? static_cast<char *>(OPENSSL_malloc(room)) : nullptr;
    if (!block || (room > 0 && !data)) {
        BUF_MEM_free(block);
        return;
    }
    if (data && old->length > 0)
        memcpy(data, old->data, old->length);
    block->data = data;
    block->length = old->length;
    block->max = room;
    (void)BIO_set_close(bio, BIO_NOCLOSE); // keeps the old one from being freed, which would wipe it first
    (void)BIO_set_mem_buf(bio, block, BIO_CLOSE);
    OPENSSL_free(old->data); // TLS records, which are no secret
    old->data = nullptr;
    BUF_MEM_free(old);
}

// Makes room for so many bytes more than wait in the BIO.
inline void reserve_bio_room(BIO *bio, size_t count)
{
    BUF_MEM *block = count > ORDINARY_BIO_ROOM ? bio_block(bio) : nullptr;
    if (block && block->max < block->length + count)
        exchange_bio_block(bio, block, block->length + count);
}

// Gives back what an empty BIO has beyond the ordinary.
inline void give_back_bio_room(BIO *bio)
{
    BUF_MEM *block = BIO_ctrl_pending(bio) == 0 ? bio_block(bio) : nullptr;
    if (block && block->max > ORDINARY_BIO_ROOM)
        exchange_bio_block(bio, block, 0);
}

#endif
