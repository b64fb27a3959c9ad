// Runs whole uses of the library again and again, each time with the next request for memory or the next call
// that can fail refused: nothing may crash, leak or give a wrong answer, and the library must work afterwards.
// TORTURE_STRIDE=N takes only every Nth point behind those of the set-up and of messages of one kind.

#include "bus.h"
#include "link.h"
#include "proxymanager.h"

#include <algorithm>
#include <cstring>
#include <iostream>

#include <openssl/crypto.h>

extern "C" void *__real_malloc(size_t size);

namespace
{

using namespace test;

// What OpenSSL's memory BIOs ask for counts, too. It has to be said before the libraries' constructors run.
__attribute__((section(".preinit_array"), used)) void (*const count_bios)() = [] {
    const auto allocate = [](size_t size, const char *file, int) {
        const bool for_bio =
            file && (strstr(file, "buffer.c") || strstr(file, "bio_room.h")); // newer ones do not tell
        return for_bio && interpose::openssl_fails() ? nullptr : __real_malloc(size);
    };
    if (CRYPTO_set_mem_functions(allocate, nullptr, nullptr) != 1)
        abort();
};

// Runs a call of the library, whose points count.
template <typename Call>
auto in_library(Call call)
{
    interpose::inside = true;
    const auto result = call();
    interpose::inside = false;
    return result;
}

// A scenario does its work and reports what no fault excuses; its value is whether everything succeeded.
// None of the first points is left out.
template <typename Scenario>
void torture(Scenario scenario, int first = 0)
{
    const char *value = getenv("TORTURE_STRIDE");
    const int stride = value ? static_cast<int>(strtol(value, nullptr, 10)) : 10;
    int failed = 0;
    for (int nth = 1;; nth += nth < first ? 1 : stride) {
        log_capture::record(false);
        interpose::arm(nth);
        scenario();

        const int points = interpose::arm(0);
        SCOPED_TRACE(interpose::failed.load() + (", point " + std::to_string(nth)));
        failed += nth <= points;
        ASSERT_FALSE(testing::Test::HasFailure());
        ASSERT_TRUE(scenario()) << "the library no longer works";
        if (nth > points)
            break;
    }
    std::cout << failed << " points were failed" << std::endl;
}

// Connects, posts a short message and one of several records, and frees the handle.
bool connect_and_post(int port)
{
    atls_handle *handle = in_library(create_atls_handle);
    if (!handle)
        return false;
    int result =
        in_library([&] { return atls_connect(&handle, "127.0.0.1", nullptr, port, "/atls", "track"); });
    EXPECT_NE(result, ATLS_NO_COOKIE);
    EXPECT_TRUE(result == ATLS_OK || (!handle->curl && !handle->ssl && !handle->header_opts)) << result;
    // A list is there as a whole or not at all: an entry that is missing would mean a direct connection.
    char **const list = handle->proxyUrlList;
    EXPECT_TRUE(list ? !std::count(list, list + handle->proxyUrlCount, nullptr) : handle->proxyUrlCount == 0);
    atls_resp answer = {};
    bool complete = result == ATLS_OK;
    std::string message(40000, '\0');              // all at one address
    for (const size_t size : {20, 20000, 40000}) { // also after a failure: nothing stale may be sent or read
        message.replace(0, size, std::string(size, static_cast<char>('a' + size % 26)));
        if (handle->ssl)
            result = in_library([&] {
                return atls_easy_perform(handle, message.data(), static_cast<int>(size), "/atls", &answer);
            });
        EXPECT_TRUE(result != ATLS_OK ||
                    std::string(answer.body, answer.body_len) == message.substr(0, size));
        complete = complete && result == ATLS_OK && answer.header;
    }
    in_library([&] {
        cleanup_atls_resp(&answer);
        free_atls_handle(handle);
        return 0;
    });
    return complete;
}

// Two proxies are dead; the third way is direct.
TEST(Torture, Connection)
{
    const PrivateBus bus;
    ScriptedService service;
    service.answer("getProxyurl", "(['pacurl', 'PROXY 127.0.0.1:1', 'PROXY 127.0.0.1:1', 'DIRECT'],)");
    for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        Link link(version);
        link.start();
        const auto scenario = [&] {
            const bool complete = connect_and_post(link.service->port());
            in_library(cleanup_proxy_manager_client);
            return complete;
        };
        // Every step of the set-up and of the messages, the same in both, is unwound in another way.
        torture(scenario, version == TLS1_2_VERSION ? 240 : 0);
    }
}

// Answers, evictions, changes by signal, and the end of the client.
bool use_proxy_manager(ScriptedService &service)
{
    const int created = in_library(create_proxy_manager_client);
    bool complete = created == 1;
    for (int host = 0; host < 52; host++) {
        const std::string url = "https://host" + std::to_string(host) + "/";
        // Most hosts only fill the cache, as they do in the other tests.
        interpose::inside = host == 0 || host > 49;
        const ProxyUrlInformation answer = get_proxy_url(url.c_str());
        interpose::inside = false;
        const char *last = answer.proxyUrlCount == 2 ? answer.proxyUrlList[1] : nullptr;
        complete = complete && last && strcmp(last, "DIRECT") == 0;
    }
    service.emit("notifyProxyConfigupdated", "('manual', 'p:1', 'user', 'password')");
    service.emit("notifyClearcache");
    complete = in_library(check_service_started) && complete;
    ProxyManagerConfig config = in_library(get_http_proxy_config);
    complete = complete && config.password && strcmp(config.password, "password") == 0;
    complete = in_library([&] { return update_proxy_config(config); }) == 0 && complete;
    cleanupProxyConfig(&config);
    EXPECT_EQ(in_library(cleanup_proxy_manager_client), created);
    return complete;
}

TEST(Torture, ProxyManagerClient)
{
    const PrivateBus bus;
    ScriptedService service;
    torture([&] { return use_proxy_manager(service); });
}

} // namespace
