// Response capture and the readers of response headers.

#include "link.h"
#include "log_capture.h"

#include <cstring>
#include <filesystem>

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

namespace
{

TEST(Capture, GrowsToTheExactSizeWithANul)
{
    curl_resp resp = {};
    char bytes[] = "abcdefg";
    EXPECT_EQ(write_memory_cb(bytes, 1, 0, &resp), 0u);
    EXPECT_EQ(write_memory_cb(bytes, 1, 3, &resp), 3u);
    EXPECT_EQ(write_memory_cb(bytes + 3, 2, 2, &resp), 4u);
    EXPECT_EQ(resp.size, 7u);
    EXPECT_STREQ(resp.data, "abcdefg");
    EXPECT_EQ(write_memory_cb(bytes, 1, SIZE_MAX / 4, &resp), 0u); // no memory: the record is empty
    EXPECT_TRUE(!resp.data && resp.size == 0);
    resp.size = 7; // without data it is left alone
    cleanup_curl_resp(&resp);
    EXPECT_EQ(resp.size, 7u);
}

TEST(Cookies, AreCollected)
{
    const std::string edge =
        std::string(16384 - 12, 'x') + "Set-Cookie: edge=1\r\n"; // wholly within the bound
    const struct {
        std::string header;
        int size, result;
        std::string cookies; // "-": untouched
    } cases[] = {{"Set-Cookie: a=1; Path=/\r\nSet-Cookie: b=2\r\n", 1024, 0, "a=1;b=2"},
                 {"set-cookie: a=1\r\nSET-COOKIE: b=2; x", 1024, 0, "a=1;b=2"},
                 {"Set-Cookie: \r\nSet-Cookie: b=2\r\n", 1024, 0, ";b=2"},
                 {"Set-Cookie:a=1\r\nDate: x\r\n", 1024, 5, "-"},
                 {"Set-Cookie: a=1\r\n", 1, 5, "-"},
                 {"Set-Cookie: a=1\r\n", 0, 1, "-"},
                 {"Set-Cookie: abc\r\n", 5, 0, "abc"},
                 {"Set-Cookie: abcd\r\n", 5, 4, "abcd"},
                 {"Set-Cookie: abcdefgh\r\n", 5, 4, "abcd"},
                 {"Set-Cookie: abc\r\nSet-Cookie: d\r\n", 5, 4, "abc;"},
                 {edge, 1024, 0, "edge=1"},
                 {"x" + edge, 1024, 5, "-"},
                 {"Set-Cookie: a=1\r\n" + edge, 1024, 0, "a=1"}};
    for (const auto &wanted : cases) {
        char cookies[1024] = "-";
        EXPECT_EQ(atls_get_cookie_from_header(wanted.header.c_str(), cookies, wanted.size), wanted.result);
        EXPECT_EQ(cookies, wanted.cookies) << wanted.header.substr(0, 60);
    }
}

class RequestCookies : public testing::Test
{
protected:
    ~RequestCookies() override { free_atls_handle(handle_); }

    void set_headers(std::initializer_list<const char *> lines)
    {
        atls_handle_cleanup(&handle_);
        handle_->curl = curl_easy_init();
        for (const char *line : lines)
            handle_->header_opts = curl_slist_append(handle_->header_opts, line);
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
    set_headers({"A: 1", "cookie: kept", "Set-Cookie: kept", "Cookie: old=1", "B: 2"});
    EXPECT_EQ(atls_set_cookies(&handle_, "n=1;m=2"), ATLS_OK);
    EXPECT_EQ(headers(), "A: 1|cookie: kept|Set-Cookie: kept|B: 2|Cookie: n=1;m=2|");
    EXPECT_EQ(atls_set_cookies(&handle_, std::string(2000, 'c').c_str()), ATLS_OK);
    EXPECT_EQ(headers(), "A: 1|cookie: kept|Set-Cookie: kept|B: 2|Cookie: " + std::string(1015, 'c') + "|");
}

// The transport must not be left with a list of which the head has been freed: the transfer would read it.
TEST_F(RequestCookies, LeaveAValidListAfterAFailure)
{
    for (const char *function : {"curl_slist_append", "curl_easy_setopt"}) {
        set_headers({"Cookie: old=1", "Z: 1"});
        interpose::fail(function);
        EXPECT_EQ(atls_set_cookies(&handle_, "new=1"), ATLS_BAD_RESPONSE);
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
        std::string id; // "-": not written
    } cases[] = {{"HTTP/1.1 200 OK\r\nTRACKINGID: abc def\r\nX: y\r\n", 0, "abc def"},
                 {"TrackingID: \r\r\rabc\r\n", 0, "abc"},
                 {"TrackingID: " + longest + "\r\n", 0, longest},
                 {"TrackingID: " + longest + "j\r\n", 4, "-"},
                 {"TrackingID: ", 4, "-"},
                 {"TrackingID: \r\r", 4, "-"},
                 {"TrackingID: \r\nX: y\r\n\r\n", 4, "-"},
                 {"TrackingID:abc\r\n", 0, "-"}};
    for (const auto &wanted : cases) {
        char *id = nullptr;
        EXPECT_EQ(atls_get_tracking_id_from_header(wanted.header.c_str(), &id), wanted.result)
            << wanted.header;
        EXPECT_EQ(id ? id : "-", wanted.id);
        free(id);
    }
}

class Clock : public testing::Test
{
protected:
    Clock() { set_zone("XYZ-2"); } // two hours ahead of UTC
    ~Clock() override
    {
        set_zone("UTC");
        interpose::reset();
    }
    static void set_zone(const char *zone)
    {
        setenv("TZ", zone, 1);
        tzset();
        std::filesystem::remove(MARKER);
    }

    static constexpr const char *MARKER = "/tmp/.stime-by-http";
    static constexpr const char *DATE = "Date: Wed, 18 Nov 2026 10:20:30 GMT\r\nX: y\r\n";
    static constexpr time_t READ_AS_LOCAL = 1794997230 - 7200; // the zone of the header is not applied
};

TEST_F(Clock, MovesForwardOnlyAndLeavesAMarker)
{
    for (const int behind : {1, 0, -1}) {
        std::filesystem::remove(MARKER);
        interpose::reset(0, READ_AS_LOCAL - behind, true);
        atls_set_date_by_http_header(DATE);
        const bool set = behind > 0;
        EXPECT_EQ(interpose::kept().clock_settings, std::vector<time_t>(set ? 1 : 0, READ_AS_LOCAL));
        EXPECT_EQ(test::read_file(MARKER), set ? "synced: tm_zone=XYZ ctime=Wed Nov 18 10:20:30 2026\n" : "");
        EXPECT_EQ(log_capture::lines().size(), set ? 2u : 1u);
    }
    std::filesystem::remove(MARKER);
    interpose::reset(0, 1000, false); // the platform refuses
    atls_set_date_by_http_header(DATE);
    EXPECT_FALSE(std::filesystem::exists(MARKER));
    EXPECT_EQ(log_capture::lines().size(), 1u);
}

TEST_F(Clock, IgnoresWhatIsNoDate)
{
    const std::pair<std::string, const char *> cases[] = {
        {"X: y\r\n", "DATE header Not FOUND "},
        {"Date: ", "Failed to get valid Date header"},
        {"Date: \r\r", "Failed to get valid Date header"},
        {"Date: \r\nX: y\r\n", "Looking up Date"},
        {"Date: tomorrow\r\n", "Looking up Date"},
        {"Date: " + std::string(500, '9') + "\r\n", "Looking up Date"},
        {"Date: " + std::string(110, ' ') + (DATE + 6), "Looking up Date"}}; // cut before the year
    for (const auto &[header, last] : cases) {
        interpose::reset(0, READ_AS_LOCAL - 1, true);
        atls_set_date_by_http_header(header.c_str());
        EXPECT_TRUE(interpose::kept().clock_settings.empty()) << header;
        EXPECT_EQ(log_capture::lines().back().substr(4),
                  std::string("atls_set_date_by_http_header: ") + last);
    }
}

} // namespace
