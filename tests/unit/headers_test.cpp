// What is kept of responses and answers: response capture, the readers of response headers, the cache by host.

#include "link.h"
#include "lruproxyurlcache.h"

#include <cstdlib>
#include <filesystem>

namespace
{

TEST(Capture, GrowsToTheExactSizeWithANul)
{
    curl_resp resp = {};
    std::string all, part = test::pattern(16382);
    EXPECT_EQ(write_memory_cb(part.data(), 1, 0, &resp), 0u);
    for (; all.size() < 3000000; all += part) {
        ASSERT_EQ(write_memory_cb(part.data(), 2, part.size() / 2, &resp), part.size());
        resp.data =
            static_cast<char *>(realloc(resp.data, resp.size + 1)); // which is all that a record promises
    }
    EXPECT_TRUE(std::string(resp.data, resp.size + 1) == all + '\0');
    EXPECT_EQ(write_memory_cb(part.data(), 1, SIZE_MAX / 2, &resp), 0u); // no memory: the record is empty
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

TEST(TrackingId, IsRead)
{
    const std::string longest(64, 'i');
    const std::tuple<std::string, int, std::string> cases[] = {
        {"HTTP/1.1 200 OK\r\nTRACKINGID: abc def\r\nX: y\r\n", 0, "abc def"},
        {"TrackingID: \r\r\rabc\r\n", 0, "abc"},
        {"TrackingID: " + longest + "\r\n", 0, longest},
        {"TrackingID: " + longest + "j\r\n", 4, "-"},
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
    const std::vector<time_t> once{read_as_local}, never;
    // Past 2038, where the device's clock goes so far.
    const std::vector<time_t> late(sizeof(time_t) / 8, static_cast<time_t>(INT64_C(2552379630) - 7200));
    // Header block, seconds that the device's clock is behind, whether it can be set, what it is set to.
    const std::tuple<std::string, int, bool, std::vector<time_t>> cases[] = {
        {"Date: " + date, 1, true, once},
        {"Date: " + date, 1, false, once}, // tried
        {"Date: " + date, 0, true, never},
        {"X: y\r\n", 1, true, never},
        {"Date: \r\r", 1, true, never},
        {"Date: tomorrow\r\n", 1, true, never},
        {"Date: " + std::string(110, ' ') + date, 1, true, never}, // cut before the year
        {"Date: Fri, 18 Nov 2050 10:20:30 GMT\r\n", 1, true, late}};
    setenv("TZ", "XYZ-2", 1); // two hours ahead of UTC
    tzset();
    for (const auto &[header, behind, settable, set] : cases) {
        std::filesystem::remove(marker);
        interpose::reset(0, read_as_local - behind, settable);
        atls_set_date_by_http_header(header.c_str());
        EXPECT_EQ(interpose::kept().clock_settings, set) << header;
        EXPECT_EQ(test::read_file(marker), settable && !set.empty()
                                               ? std::string("synced: tm_zone=XYZ ctime=") + ctime(set.data())
                                               : "");
    }
    setenv("TZ", "UTC", 1);
    tzset();
}

// In a cache of three each step sets a key to its own place in the line; those behind a ? are read, and ! clears it.
TEST(Cache, ForgetsTheLeastRecentlyUsed)
{
    static std::string released;
    const std::string cases[][3] = {{"abc", "abc", ""},       {"abcd", "bcd", "0"},   {"abc?ad", "cad", "1"},
                                    {"abcad", "cad", "1"},    {"abc?xd", "bcd", "0"}, {"aba!", "", "21"},
                                    {"ab!cdef", "def", "013"}};
    for (const auto &[steps, left, gone] : cases) {
        released.clear();
        LRUProxyURLCache<char> cache(
            3, [](char &value, void *) { released += value; }, nullptr);
        for (size_t i = 0; i < steps.size(); i++) {
            char value = '0';
            if (steps[i] == '!') {
                cache.clearCache();
            } else if (steps[i] != '?') {
                cache.set({steps[i]}, static_cast<char>('0' + i));
            } else {
                const char key = steps[++i];
                EXPECT_EQ(cache.get({&key, 1}, value) ? steps[static_cast<size_t>(value - '0')] : 'x', key);
            }
        }
        std::string order;
        for (const ProxyURLCacheNode *node = cache.tail; node; node = node->prev)
            order += node->key;
        EXPECT_EQ(order, left) << steps;
        EXPECT_EQ(released, gone) << steps;
        EXPECT_TRUE(cache.nodeMap.size() == left.size() && cache.valueMap.size() == left.size());
    }
}

} // namespace
