// Transport set-up: checks, options in order, header list, User-Agent, unwinding.

#include "identity.h"
#include "interpose.h"

#include <cstdlib>
#include <cstring>

#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

namespace
{

class Transport : public testing::Test
{
protected:
    Transport()
    {
        strcpy(handle_->hostname, "host.example");
        handle_->port = 8443;
        interpose::reset();
    }

    std::vector<std::string> headers() const
    {
        std::vector<std::string> lines;
        for (const curl_slist *line = handle_->header_opts; line; line = line->next)
            lines.push_back(line->data);
        return lines;
    }

    test::Device device_;
    atls_handle *&handle_ = device_.handle;
};

TEST_F(Transport, SetsTheOptionsInOrder)
{
    handle_->proxyUrlCount = 1; // of an earlier connection: it must be released
    handle_->proxyUrlList = static_cast<char **>(calloc(1, sizeof(char *)));
    ASSERT_EQ(init_tl_curl(&handle_, "/atls", "track"), ATLS_OK);
    EXPECT_EQ(interpose::kept().options,
              (std::vector<interpose::Option>{{CURLOPT_VERBOSE, "1"},
                                              {CURLOPT_ERRORBUFFER, ""},
                                              {CURLOPT_URL, "https://host.example:8443/atls"},
                                              {CURLOPT_SSL_VERIFYPEER, "0"},
                                              {CURLOPT_SSL_VERIFYHOST, "0"},
                                              {CURLOPT_TIMEOUT_MS, "30000"},
                                              {CURLOPT_HTTPHEADER, ""},
                                              {CURLOPT_HTTP_VERSION, std::to_string(CURL_HTTP_VERSION_1_1)},
                                              {CURLOPT_SUPPRESS_CONNECT_HEADERS, "1"}}));
    EXPECT_EQ(headers(), (std::vector<std::string>{"Content-Type: application/octet-stream",
                                                   "User-Agent: Halvo-Desktop/desktop-1.0",
                                                   "TrackingID: track", "Accept:", "Expect:"}));
    EXPECT_TRUE(!handle_->proxyUrlList && handle_->proxyUrlCount == 0);
}

TEST_F(Transport, CutsLongTexts)
{
    memset(handle_->hostname, 'h', ATLS_HOSTNAME_SIZE - 1);
    const std::string service = "/" + std::string(2000, 's');
    ASSERT_EQ(init_tl_curl(&handle_, service.c_str(), service.c_str()), ATLS_OK);
    const std::string url = "https://" + std::string(511, 'h') + ":8443" + service;
    EXPECT_EQ(interpose::kept().options[2].second, url.substr(0, 1023));
    EXPECT_EQ(headers()[2], ("TrackingID: " + service).substr(0, 1023));
}

TEST_F(Transport, RefusesBadInput)
{
    EXPECT_EQ(init_tl_curl(nullptr, "/", nullptr), ATLS_INVALID_INPUT);
    EXPECT_EQ(init_tl_curl(&handle_, nullptr, nullptr), ATLS_INVALID_INPUT);
    for (const int port : {0, -1, 65536}) {
        handle_->port = port;
        EXPECT_EQ(init_tl_curl(&handle_, "/", nullptr), ATLS_INVALID_INPUT) << port;
    }
    handle_->port = 65535;
    handle_->hostname[0] = '\0';
    EXPECT_EQ(init_tl_curl(&handle_, "/", nullptr), ATLS_INVALID_INPUT);
    EXPECT_EQ(handle_->curl, nullptr);
    EXPECT_NE(interpose::log_of(LOG_ERR).find("init_tl_curl: Invalid Input Parameters...bad handle/service\n"
                                              "init_tl_curl: Invalid Input Parameters...bad host/port\n"),
              std::string::npos);
}

TEST_F(Transport, UnwindsEveryFailingStep)
{
    const struct {
        const char *function;
        int nth;
        const char *message;
    } steps[] = {
        {"curl_easy_init", 1, "curl_easy_init failed"},
        {"curl_easy_setopt", 1, "Failed to set curl object to be verbose"},
        {"curl_easy_setopt", 2, "Failed to attach error buffer"},
        {"curl_easy_setopt", 3, "Failed to set curl URI"},
        {"curl_easy_setopt", 4, "Failed to disable server cert verification"},
        {"curl_easy_setopt", 5, "Failed to disable hostname verification"},
        {"curl_easy_setopt", 6, "Failed to set curl timeout"},
        {"curl_slist_append", 1, "Failed to set header option [Content-Type: application/octet-stream]"},
        {"curl_slist_append", 2, "Failed to set header option [User-Agent: Halvo-Desktop/desktop-1.0]"},
        {"curl_slist_append", 3, "Failed to set header option [TrackingID: track]"},
        {"curl_slist_append", 4, "Failed to remove header option [Accept:]"},
        {"curl_slist_append", 5, "Failed to remove header option [Expect:]"},
        {"curl_easy_setopt", 7, "Failed to load header options into curl object"},
    };
    for (const auto &step : steps) {
        interpose::reset();
        interpose::fail(step.function, step.nth);
        EXPECT_EQ(init_tl_curl(&handle_, "/", "track"), ATLS_SETUP_FAILED);
        EXPECT_TRUE(!handle_->curl && !handle_->header_opts) << step.message;
        std::string expected = std::string("init_tl_curl: ") + step.message;
        if (strcmp(step.function, "curl_easy_setopt") == 0)
            expected += "\nCurl error [48] maps to [An unknown option was passed in to libcurl]";
        EXPECT_EQ(interpose::log_of(LOG_ERR), expected);
    }
    EXPECT_EQ(init_tl_curl(&handle_, "/", "track"), ATLS_OK) << "works again afterwards";
}

// The text is built once per process: each case runs in a process of its own.
TEST(UserAgent, IsMadeOfModelAndLoad)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    const struct {
        const char *model, *load, *expected;
    } cases[] = {
        {"Model", "fw-1.2.3.loads.tail.loads", "Halvo-Model/fw-1.2.3"},
        {"M", "0123456789012345678901234567890123456789", "Halvo-M/0123456789012345678901234567890"},
        {"0123456789abcdefghijklmno", "01234567890123456789012345",
         "Halvo-0123456789abcdefghi/012345678901234567890"},
        {nullptr, nullptr, "Halvo-unknown/unknown"},
    };
    for (const auto &wanted : cases) {
        const auto is_built = [&wanted] {
            const test::Folder folder;
            setenv("ATLS_PLATFORM_DIR", folder.path("").c_str(), 1);
            if (wanted.model)
                test::write_file(folder.path("device-model"), wanted.model);
            if (wanted.load)
                test::write_file(folder.path("load-id"), wanted.load);
            const std::string built = atls_get_user_agent();
            test::write_file(folder.path("device-model"), "Other");
            return built == wanted.expected && built == atls_get_user_agent();
        };
        EXPECT_EXIT(_exit(is_built() ? 0 : 1), testing::ExitedWithCode(0), "") << wanted.expected;
    }
}

} // namespace
