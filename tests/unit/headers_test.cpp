// Response capture and the readers of response headers.

#include "identity.h"
#include "interpose.h"

#include <cstdlib>
#include <cstring>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

namespace
{

constexpr const char *MARKER = "/tmp/.stime-by-http";

TEST(Capture, GrowsToTheExactSizeWithANul)
{
    curl_resp resp = {};
    char bytes[] = "abcdefg";
    EXPECT_EQ(write_memory_cb(bytes, 1, 0, &resp), 0u);
    EXPECT_EQ(resp.size, 0u);
    EXPECT_EQ(write_memory_cb(bytes, 1, 3, &resp), 3u);
    EXPECT_EQ(write_memory_cb(bytes + 3, 2, 2, &resp), 4u);
    EXPECT_EQ(resp.size, 7u);
    EXPECT_STREQ(resp.data, "abcdefg");
    cleanup_curl_resp(&resp);
    EXPECT_EQ(resp.data, nullptr);
    EXPECT_EQ(resp.size, 0u);
}

TEST(Capture, IsEmptyAfterAFailedGrowth)
{
    interpose::reset();
    curl_resp resp = {};
    char bytes[] = "abc";
    EXPECT_EQ(write_memory_cb(bytes, 1, 3, nullptr), 0u);
    EXPECT_EQ(write_memory_cb(bytes, 1, 3, &resp), 3u);
    EXPECT_EQ(write_memory_cb(bytes, 1, SIZE_MAX / 4, &resp), 0u);
    EXPECT_EQ(resp.data, nullptr);
    EXPECT_EQ(resp.size, 0u);
    EXPECT_EQ(interpose::log_of(LOG_ERR),
              "write_memory_cb: failed to typecast userdata pointer\n"
              "write_memory_cb: reallocation failed for previously malloced block size [" +
                  std::to_string(3 + 1 + SIZE_MAX / 4) + "]");
}

TEST(Cookies, AreCollected)
{
    const std::string far = std::string(16384 - 12, 'x') + "Set-Cookie: edge=1\r\n";
    const struct {
        std::string header;
        int size, result;
        std::string cookies; // "-": untouched
    } cases[] = {
        {"Set-Cookie: a=1; Path=/\r\nSet-Cookie: b=2\r\n", 1024, 0, "a=1;b=2"},
        {"set-cookie: a=1\r\nSET-COOKIE: b=2; x", 1024, 0, "a=1;b=2"},
        {"Set-Cookie: \r\nSet-Cookie: b=2\r\n", 1024, 0, ";b=2"},
        {"Set-Cookie: end", 1024, 0, "end"},
        {"Set-Cookie:a=1\r\nDate: x\r\n", 1024, 5, "-"},
        {"", 1024, 5, "-"},
        {"Set-Cookie: a=1\r\n", 1, 5, "-"},
        {"Set-Cookie: abcd\r\n", 5, 4, "abcd"},
        {"Set-Cookie: abc\r\n", 5, 0, "abc"},
        {"Set-Cookie: abcdefgh\r\n", 5, 4, "abcd"},
        {"Set-Cookie: abc\r\nSet-Cookie: d\r\n", 5, 4, "abc;"},
        {"Set-Cookie: ab\r\nSet-Cookie: d\r\n", 5, 4, "ab;d"},
        {far, 1024, 0, "edge=1"},
        {"x" + far, 1024, 5, "-"},
        {"Set-Cookie: a=1\r\n" + far, 1024, 0, "a=1"},
    };
    for (const auto &wanted : cases) {
        char cookies[1024] = "-";
        EXPECT_EQ(atls_get_cookie_from_header(wanted.header.c_str(), cookies, wanted.size), wanted.result)
            << wanted.header.substr(0, 60);
        EXPECT_EQ(cookies, wanted.cookies) << wanted.header.substr(0, 60);
    }
    char cookies[8];
    EXPECT_EQ(atls_get_cookie_from_header(nullptr, cookies, 8), 1);
    EXPECT_EQ(atls_get_cookie_from_header("", nullptr, 8), 1);
    EXPECT_EQ(atls_get_cookie_from_header("", cookies, -1), 1);
}

class RequestCookies : public testing::Test
{
protected:
    RequestCookies() { handle_->curl = curl_easy_init(); }
    ~RequestCookies() override { free_atls_handle(handle_); }

    void set_headers(const std::vector<std::string> &lines)
    {
        curl_slist_free_all(handle_->header_opts);
        handle_->header_opts = nullptr;
        for (const std::string &line : lines)
            handle_->header_opts = curl_slist_append(handle_->header_opts, line.c_str());
        curl_easy_setopt(handle_->curl, CURLOPT_HTTPHEADER, handle_->header_opts);
        interpose::reset();
    }
    std::string headers() const
    {
        std::string text;
        for (const curl_slist *line = handle_->header_opts; line; line = line->next)
            text += std::string(line->data) + "|";
        return text;
    }

    atls_handle *handle_ = create_atls_handle();
};

TEST_F(RequestCookies, ReplaceTheOneCookieLine)
{
    EXPECT_EQ(atls_set_cookies(&handle_, "a"), ATLS_INVALID_INPUT) << "no header list";
    set_headers({"A: 1", "cookie: kept", "Set-Cookie: kept", "Cookie: old=1", "B: 2"});
    EXPECT_EQ(atls_set_cookies(&handle_, "n=1;m=2"), ATLS_OK);
    EXPECT_EQ(headers(), "A: 1|cookie: kept|Set-Cookie: kept|B: 2|Cookie: n=1;m=2|");
    EXPECT_EQ(interpose::log_of(LOG_DEBUG), "atls_set_cookies: deleting header_option [Cookie: old=1]\n"
                                            "atls_set_cookies: Adding header_option [n=1;m=2]");
    EXPECT_EQ(atls_set_cookies(&handle_, std::string(2000, 'c').c_str()), ATLS_OK);
    EXPECT_EQ(headers(), "A: 1|cookie: kept|Set-Cookie: kept|B: 2|Cookie: " + std::string(1015, 'c') + "|");
    EXPECT_EQ(atls_set_cookies(nullptr, "a"), ATLS_INVALID_INPUT);
    EXPECT_EQ(atls_set_cookies(&handle_, nullptr), ATLS_INVALID_INPUT);
}

// The transport must not be left with a list of which the head has been freed: the transfer would read it.
TEST_F(RequestCookies, LeaveAValidListAfterAFailure)
{
    const struct {
        const char *function, *message;
    } cases[] = {{"curl_slist_append", "Failed to set header option [Cookie: new=1]"},
                 {"curl_easy_setopt", "Failed to load header options into curl object"}};
    for (const auto &wanted : cases) {
        set_headers({"Cookie: old=1", "Z: 1"});
        interpose::fail(wanted.function);
        EXPECT_EQ(atls_set_cookies(&handle_, "new=1"), ATLS_BAD_RESPONSE);
        EXPECT_EQ(interpose::log_of(LOG_ERR).find(std::string("atls_set_cookies: ") + wanted.message), 0u);
        EXPECT_EQ(headers().find("Z: 1|"), 0u);
        curl_easy_setopt(handle_->curl, CURLOPT_URL, "http://127.0.0.1:1/");
        EXPECT_EQ(curl_easy_perform(handle_->curl), CURLE_COULDNT_CONNECT);
    }
}

TEST(TrackingId, IsRead)
{
    const std::string longest(64, 'i');
    const struct {
        std::string header;
        int result;
        const char *id; // NULL: not written
        const char *error;
    } cases[] = {
        {"HTTP/1.1 200 OK\r\nTRACKINGID: abc def\r\nX: y\r\n", 0, "abc def", ""},
        {"TrackingID: \r\r\rabc\r\n", 0, "abc", ""},
        {"TrackingID: " + longest + "\r\n", 0, longest.c_str(), ""},
        {"TrackingID: " + longest + "j\r\n", 4, nullptr,
         "Failed to copy tracking_id, recvd trackingId len (65) exceeded max limit(64)"},
        {"TrackingID: ", 4, nullptr, "TrackingID header is empty"},
        {"TrackingID: \r\r", 4, nullptr, "TrackingID header is empty"},
        {"TrackingID: \r\nX: y\r\n\r\n", 4, nullptr, "TrackingID header is empty"},
        {"TrackingID:abc\r\n", 0, nullptr, ""},
    };
    for (const auto &wanted : cases) {
        interpose::reset();
        char *id = nullptr;
        EXPECT_EQ(atls_get_tracking_id_from_header(wanted.header.c_str(), &id), wanted.result)
            << wanted.header;
        if (wanted.id)
            EXPECT_STREQ(id, wanted.id);
        else
            EXPECT_EQ(id, nullptr) << wanted.header;
        const std::string error = wanted.error;
        EXPECT_EQ(interpose::log_of(LOG_ERR),
                  error.empty() ? "" : "atls_get_tracking_id_from_header: " + error);
        free(id);
    }
    char *id = nullptr;
    EXPECT_EQ(atls_get_tracking_id_from_header(nullptr, &id), ATLS_INVALID_INPUT);
    EXPECT_EQ(atls_get_tracking_id_from_header("", nullptr), ATLS_INVALID_INPUT);
}

class Clock : public testing::Test
{
protected:
    Clock()
    {
        setenv("TZ", "XYZ-2", 1); // two hours ahead of UTC
        tzset();
        unlink(MARKER);
    }
    ~Clock() override
    {
        unsetenv("TZ");
        tzset();
        unlink(MARKER);
        interpose::reset();
    }
};

constexpr const char *DATE = "Date: Wed, 18 Nov 2026 10:20:30 GMT\r\nX: y\r\n";
constexpr time_t READ_AS_LOCAL = 1794997230 - 7200; // the zone of the header is not applied

TEST_F(Clock, MovesForwardOnly)
{
    for (const int behind : {1, 0, -1}) {
        unlink(MARKER);
        interpose::reset(0, READ_AS_LOCAL - behind, true);
        atls_set_date_by_http_header(DATE);
        const bool set = behind > 0;
        EXPECT_EQ(interpose::kept().clock_settings, std::vector<time_t>(set ? 1 : 0, READ_AS_LOCAL));
        EXPECT_EQ(test::read_file(MARKER), set ? "synced: tm_zone=XYZ ctime=Wed Nov 18 10:20:30 2026\n" : "");
        EXPECT_EQ(interpose::log_of(LOG_NOTICE),
                  std::string("atls_set_date_by_http_header: Looking up Date") +
                      (set ? "\natls_set_date_by_http_header here write the file  /tmp/.stime-by-http" : ""));
    }
}

TEST_F(Clock, StaysSilentWhenItMayNotBeSet)
{
    interpose::reset(0, 1000, false);
    atls_set_date_by_http_header(DATE);
    EXPECT_EQ(interpose::kept().clock_settings.size(), 1u);
    EXPECT_NE(access(MARKER, F_OK), 0);
    interpose::reset(0, 1000, true);
    ASSERT_EQ(mkdir(MARKER, 0700), 0); // cannot be opened for writing
    atls_set_date_by_http_header(DATE);
    rmdir(MARKER);
    EXPECT_EQ(interpose::kept().log.size(), 1u) << "only the look-up line";
}

TEST_F(Clock, IgnoresWhatIsNoDate)
{
    const std::string name = "atls_set_date_by_http_header: ";
    const struct {
        std::string header;
        std::string last; // log line
    } cases[] = {
        {"X: y\r\n", "5 " + name + "DATE header Not FOUND "},
        {"Date: ", "3 " + name + "Failed to get valid Date header"},
        {"Date: \r\r", "3 " + name + "Failed to get valid Date header"},
        {"Date: \r\nX: y\r\n", "5 " + name + "Looking up Date"},
        {"Date: tomorrow\r\n", "5 " + name + "Looking up Date"},
        {"Date: " + std::string(500, '9') + "\r\n", "5 " + name + "Looking up Date"},
        {"Date: " + std::string(110, ' ') + (DATE + 6),
         "5 " + name + "Looking up Date"}, // cut before the year
    };
    for (const auto &wanted : cases) {
        interpose::reset(0, READ_AS_LOCAL - 1, true);
        atls_set_date_by_http_header(wanted.header.c_str());
        EXPECT_TRUE(interpose::kept().clock_settings.empty()) << wanted.header;
        EXPECT_EQ(interpose::kept().log.back(), wanted.last) << wanted.header;
    }
    atls_set_date_by_http_header(nullptr);
    EXPECT_EQ(interpose::log_of(LOG_ERR), name + "Invalid Input Parameters...bad header buffer");
}

} // namespace
