// Response capture and the readers of response headers.

#include "link.h"

#include <cstdlib>
#include <filesystem>

namespace
{

TEST(Capture, GrowsToTheExactSizeWithANul)
{
    curl_resp resp = {};
    char bytes[] = "abcdefg";
    EXPECT_EQ(write_memory_cb(bytes, 1, 0, &resp), 0u);
    EXPECT_EQ(write_memory_cb(bytes, 1, 3, &resp), 3u);
    EXPECT_EQ(write_memory_cb(bytes + 3, 2, 2, &resp), 4u);
    EXPECT_EQ(std::string(resp.data) + std::to_string(resp.size), "abcdefg7");
    std::string all = resp.data;
    for (std::string part = test::pattern(16384); all.size() < 3000000; all += part) {
        ASSERT_EQ(write_memory_cb(part.data(), 1, part.size(), &resp), part.size());
        resp.data =
            static_cast<char *>(realloc(resp.data, resp.size + 1)); // which is all that a record promises
    }
    EXPECT_TRUE(std::string(resp.data, resp.size + 1) == all + '\0');
    EXPECT_EQ(write_memory_cb(bytes, 1, SIZE_MAX / 2, &resp), 0u); // no memory: the record is empty
    EXPECT_TRUE(!resp.data && resp.size == 0);
}

TEST(Cookies, AreCollected)
{
    const std::string edge =
        std::string(16384 - 12, 'x') + "Set-Cookie: edge=1\r\n"; // wholly within the bound
    // Header block, size of the buffer, result, cookies ("-": untouched).
    const std::tuple<std::string, int, int, std::string> cases[] = {
        {"Set-Cookie: a=1; Path=/\r\nSet-Cookie: b=2\r\n", 1024, 0, "a=1;b=2"},
        {"set-cookie: a=1\r\nSET-COOKIE: b=2; x", 1024, 0, "a=1;b=2"},
        {"Set-Cookie: \r\nSet-Cookie: b=2\r\n", 1024, 0, ";b=2"},
        {"Set-Cookie:a=1\r\nDate: x\r\n", 1024, 5, "-"},
        {"Set-Cookie: a=1\r\n", 1, 5, "-"},
        {"Set-Cookie: a=1\r\n", 0, 1, "-"},
        {"Set-Cookie: abc\r\n", 5, 0, "abc"},
        {"Set-Cookie: abcd\r\n", 5, 4, "abcd"},
        {"Set-Cookie: abc\r\nSet-Cookie: d\r\n", 5, 4, "abc;"},
        {edge, 1024, 0, "edge=1"},
        {"x" + edge, 1024, 5, "-"}};
    for (const auto &[header, size, result, expected] : cases) {
        char cookies[1024] = "-";
        EXPECT_EQ(atls_get_cookie_from_header(header.c_str(), cookies, size), result);
        EXPECT_EQ(cookies, expected) << header.substr(0, 60);
    }
}

// A handle with these request header lines.
struct Request {
    explicit Request(std::initializer_list<const char *> lines)
    {
        handle->curl = curl_easy_init();
        for (const char *line : lines)
            handle->header_opts = curl_slist_append(handle->header_opts, line);
        curl_easy_setopt(handle->curl, CURLOPT_HTTPHEADER, handle->header_opts);
        interpose::reset();
    }
    ~Request() { free_atls_handle(handle); }
    std::string headers() const
    {
        std::string text;
        for (const curl_slist *line = handle->header_opts; line; line = line->next)
            text += std::string(line->data) + "|";
        return text;
    }
    atls_handle *handle = create_atls_handle();
};

TEST(RequestCookies, ReplaceTheOneCookieLine)
{
    Request request{"A: 1", "cookie: kept", "Set-Cookie: kept", "Cookie: old=1", "B: 2"};
    const std::string kept = "A: 1|cookie: kept|Set-Cookie: kept|B: 2|Cookie: ";
    EXPECT_EQ(atls_set_cookies(&request.handle, "n=1;m=2"), ATLS_OK);
    EXPECT_EQ(request.headers(), kept + "n=1;m=2|");
    EXPECT_EQ(atls_set_cookies(&request.handle, std::string(2000, 'c').c_str()), ATLS_OK);
    EXPECT_EQ(request.headers(), kept + std::string(1015, 'c') + "|");
}

TEST(TrackingId, IsRead)
{
    const std::string longest(64, 'i');
    const std::tuple<std::string, int, std::string> cases[] = {
        {"HTTP/1.1 200 OK\r\nTRACKINGID: abc def\r\nX: y\r\n", 0, "abc def"},
        {"TrackingID: \r\r\rabc\r\n", 0, "abc"},
        {"TrackingID: " + longest + "\r\n", 0, longest},
        {"TrackingID: " + longest + "j\r\n", 4, "-"},
        {"TrackingID: ", 4, "-"},
        {"TrackingID: \r\r", 4, "-"},
        {"TrackingID: \r\nX: y\r\n\r\n", 4, "-"},
        {"TrackingID:abc\r\n", 0, "-"}};
    for (const auto &[header, result, expected] : cases) {
        char *id = nullptr;
        EXPECT_EQ(atls_get_tracking_id_from_header(header.c_str(), &id), result) << header;
        EXPECT_EQ(id ? id : "-", expected) << header;
        free(id);
    }
}

TEST(Clock, MovesForwardOnlyAndLeavesAMarker)
{
    const char *marker = "/tmp/.stime-by-http";
    const std::string date = "Wed, 18 Nov 2026 10:20:30 GMT\r\nX: y\r\n";
    const time_t read_as_local = 1794997230 - 7200; // the zone of the header is not applied
    const struct {
        std::string header;
        int behind; // the device's clock, by seconds
        bool settable, set;
    } cases[] = {{"Date: " + date, 1, true, true},
                 {"Date: " + date, 1, false, true}, // tried
                 {"Date: " + date, 0, true, false},
                 {"X: y\r\n", 1, true, false},
                 {"Date: ", 1, true, false},
                 {"Date: \r\r", 1, true, false},
                 {"Date: tomorrow\r\n", 1, true, false},
                 {"Date: " + std::string(500, '9') + "\r\n", 1, true, false},
                 {"Date: " + std::string(110, ' ') + date, 1, true, false}}; // cut before the year
    setenv("TZ", "XYZ-2", 1);                                                // two hours ahead of UTC
    tzset();
    for (const auto &wanted : cases) {
        std::filesystem::remove(marker);
        interpose::reset(0, read_as_local - wanted.behind, wanted.settable);
        atls_set_date_by_http_header(wanted.header.c_str());
        EXPECT_EQ(interpose::kept().clock_settings, std::vector<time_t>(wanted.set ? 1 : 0, read_as_local))
            << wanted.header;
        EXPECT_EQ(test::read_file(marker), wanted.set && wanted.settable
                                               ? "synced: tm_zone=XYZ ctime=Wed Nov 18 10:20:30 2026\n"
                                               : "");
    }
    setenv("TZ", "UTC", 1);
    tzset();
    // Past 2038, where the device's clock goes so far.
    interpose::reset(0, read_as_local, true);
    std::filesystem::remove(marker);
    atls_set_date_by_http_header("Date: Fri, 18 Nov 2050 10:20:30 GMT\r\n");
    const std::vector<time_t> settable(sizeof(time_t) / 8, static_cast<time_t>(INT64_C(2552379630)));
    EXPECT_EQ(interpose::kept().clock_settings, settable);
    interpose::reset();
}

} // namespace
