// The record functions, the key of the cache, and the cache against a simple model.

#include "common.h"
#include "log_capture.h"
#include "lruproxyurlcache.h"

#include <cstdlib>
#include <cstring>
#include <list>
#include <random>

#include <gtest/gtest.h>

namespace
{

std::string textOrNull(char *text)
{
    const std::unique_ptr<char, decltype(&free)> owned(text, free);
    return text ? text : "NULL";
}

} // namespace

TEST(Records, HostOfUrl)
{
    const char *const cases[][2] = {{"svc://host1:443/path?q=1", "host1"},
                                    {"host1:80/x", "host1:80/x"},
                                    {"svc://user:pw@host1/", "user"},
                                    {"svc:///path", "/path"},
                                    {"svc://[::1]:80/", "["},
                                    {"a://b://c", "b"},
                                    {"svc://:80/", "NULL"},
                                    {"", "NULL"}};
    for (const auto &[url, host] : cases)
        EXPECT_EQ(textOrNull(getHost(url)), host) << url;
}

TEST(Records, ModesAndTexts)
{
    const std::pair<const char *, int> modes[] = {{"off", 0}, {"MANUAL", 1}, {"pacurl", 2}, {"Wpad", 3},
                                                  {"", 0},    {"direct", 0}, {"wpad ", 0}};
    for (const auto &[text, mode] : modes)
        EXPECT_EQ(str2ProxyMode(text), mode) << text;
    EXPECT_STREQ(proxyMode2Str(3), "wpad");
    EXPECT_STREQ(proxyMode2Str(4), "off");
    EXPECT_STREQ(proxyMode2Str(-1), "off");
    EXPECT_EQ(textOrNull(string2Char("abc", 2)), "ab");
    EXPECT_EQ(textOrNull(string2Char("abc", 0)), "NULL");
    EXPECT_EQ(textOrNull(string2Char(nullptr, 5)), "NULL");
}

TEST(Records, AreCopiedDeeplyAndReleasedOnce)
{
    char proxy[] = "p:1", empty[] = "";
    const ProxyManagerConfig source = {2, proxy, empty, true, nullptr, nullptr};
    ProxyManagerConfig copy;
    initProxyConfig(&copy);
    cloneProxyConfig(&source, &copy);
    EXPECT_STREQ(copy.proxyUrl, "p:1");
    EXPECT_TRUE(copy.proxyUrl != source.proxyUrl && !copy.pacUrl && !copy.userName && !copy.password);
    ProxyUrlInformation info;
    initProxyUrlInfo(&info, 3, 2);
    EXPECT_TRUE(info.mode == 3 && !info.proxyUrlList[0] && !info.proxyUrlList[1]);
    info.proxyUrlList[1] = strdup("DIRECT");
    info.password = strdup("secret");
    ProxySetting setting = {4, strdup("value")};
    for (int i = 0; i < 2; i++) {
        cleanupProxyConfig(&copy);
        cleanupProxyUrlInfo(&info);
        cleanupProxySetting(&setting);
    }
    EXPECT_TRUE(copy.mode == 2 && copy.optionFlag && !copy.proxyUrl && setting.kind == 0);
    EXPECT_TRUE(info.mode == 0 && info.proxyUrlCount == 0 && !info.proxyUrlList && !info.password);
}

TEST(ProxyCache, AgreesWithASimpleModel)
{
    log_capture::record(false);
    std::mt19937 random(20240229); // NOLINT(cert-msc32-c,cert-msc51-cpp): the same sequence each time
    std::vector<int> released, expected;
    const auto keep = [](int &value, void *list) { static_cast<std::vector<int> *>(list)->push_back(value); };
    LRUProxyURLCache<int> cache(50, keep, &released);
    std::list<std::string> order; // from the most to the least recently used
    std::map<std::string, int> values;
    for (int step = 0; step < 1000000; step++) {
        const std::string key = "k" + std::to_string(random() % 80);
        const unsigned choice = random() % 10000;
        const bool present = values.count(key) != 0;
        if (choice == 0) {
            cache.clearCache();
            for (const auto &[each, value] : values)
                expected.push_back(value);
            values.clear();
            order.clear();
        } else if (choice < 5000) {
            cache.set(key, step);
            if (!present && order.size() == 50) {
                expected.push_back(values[order.back()]);
                values.erase(order.back());
                order.pop_back();
            }
            values[key] = step;
        } else {
            int value = -1;
            ASSERT_EQ(cache.get(key, value), present) << step;
            ASSERT_EQ(value, present ? values[key] : -1) << step;
        }
        order.remove(key);
        if (values.count(key) != 0)
            order.push_front(key);
        ASSERT_EQ(released, expected) << step;
        ASSERT_EQ(cache.nodeMap.size() + cache.valueMap.size(), 2 * values.size()) << step;
        released.clear();
        expected.clear();
    }
}
