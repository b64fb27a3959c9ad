// Handles, answer records and the layout that programs are compiled against.

#include "atls_internals.h"
#include "interpose.h"

#include <cstddef>
#include <cstring>

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <syslog.h>

namespace
{

constexpr size_t WORD = sizeof(void *);
static_assert(offsetof(atls_handle, port) == 512 && offsetof(atls_handle, proxyUrlList) == 512 + WORD);
static_assert(offsetof(atls_handle, proxyUrlCount) == 512 + 2 * WORD);
static_assert(offsetof(atls_handle, curl) == 512 + 3 * WORD && sizeof(atls_handle) == 512 + 6 * WORD);
static_assert(offsetof(atls_resp, tracking_id) == 5 * WORD && sizeof(atls_resp) == 6 * WORD);

TEST(Handle, IsZeroAfterCleanupButForItsProxyList)
{
    atls_handle *handle = create_atls_handle();
    SSL_CTX *ctx = SSL_CTX_new(TLS_client_method());
    *handle = {"host",
               443,
               static_cast<char **>(calloc(2, WORD)),
               2,
               curl_easy_init(),
               curl_slist_append(nullptr, "A: b"),
               SSL_new(ctx)};
    handle->proxyUrlList[1] = strdup("p:1");
    SSL_CTX_free(ctx);
    atls_handle_cleanup(&handle);
    EXPECT_EQ(std::string(handle->hostname, sizeof handle->hostname), std::string(512, '\0'));
    EXPECT_TRUE(handle->port == 0 && !handle->curl && !handle->header_opts && !handle->ssl);
    EXPECT_EQ(handle->proxyUrlCount, 2);
    EXPECT_STREQ(handle->proxyUrlList[1], "p:1");
    free_atls_handle(handle); // with the list
}

TEST(Handle, NullIsTolerated)
{
    interpose::reset();
    atls_handle *none = nullptr;
    atls_handle_cleanup(nullptr);
    atls_handle_cleanup(&none);
    EXPECT_EQ(interpose::log_of(LOG_ERR), "atls_handle_cleanup: Invalid Input Parameters...bad handle\n"
                                          "atls_handle_cleanup: Invalid Input Parameters...bad handle");
    free_atls_handle(nullptr);
    cleanup_atls_resp(nullptr);
    cleanup_curl_resp(nullptr);
    EXPECT_EQ(interpose::kept().log.size(), 2u);
}

TEST(Logging, TakesTheOldestSslErrorOnly)
{
    interpose::reset();
    ERR_clear_error();
    ERR_put_error(ERR_LIB_SSL, 0, SSL_R_NO_CIPHER_MATCH, "file", 1);
    ERR_put_error(ERR_LIB_SSL, 0, SSL_R_BAD_LENGTH, "file", 2);
    log_ssl_error();
    EXPECT_NE(interpose::log_of(LOG_ERR).find("no cipher match]"), std::string::npos);
    EXPECT_EQ(ERR_GET_REASON(ERR_get_error()), SSL_R_BAD_LENGTH);
}

TEST(Answer, LengthsAreClearedOnlyWithTheirBuffers)
{
    atls_resp answer = {nullptr, 5, strdup("h"), 1, 500, strdup("id")};
    cleanup_atls_resp(&answer);
    EXPECT_EQ(answer.body_len, 5u);
    EXPECT_EQ(answer.header_len, 0u);
    EXPECT_EQ(answer.status_code, 0);
    EXPECT_TRUE(!answer.header && !answer.tracking_id);
    curl_resp capture = {nullptr, 7};
    cleanup_curl_resp(&capture);
    EXPECT_EQ(capture.size, 7u);
}

} // namespace
