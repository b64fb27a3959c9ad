// The record functions, the key of the cache, and the cache against a simple model.

#include "common.h"
#include "log_capture.h"
#include "lruproxyurlcache.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <list>
#include <random>

#include <gtest/gtest.h>

namespace
{

using Lines = std::vector<std::string>;
using Cache = LRUProxyURLCache<int>;
constexpr const char *NODE_GONE = "<6> ~ProxyURLCacheNode called ";

std::string textOrNull(char *text)
{
    const std::unique_ptr<char, decltype(&free)> owned(text, free);
    return text ? text : "NULL";
}

void keepValue(int &value, void *released)
{
    static_cast<std::vector<int> *>(released)->push_back(value);
}

// Entries from the most to the least recently used.
struct Model {
    std::list<std::pair<std::string, int>> entries;

    auto find(const std::string &key)
    {
        return std::find_if(entries.begin(), entries.end(),
                            [&](const auto &entry) { return entry.first == key; });
    }
    void set(const std::string &key, int value, std::vector<int> &released)
    {
        if (const auto present = find(key); present != entries.end()) {
            entries.erase(present);
        } else if (entries.size() == 50) {
            released.push_back(entries.back().second);
            entries.pop_back();
        }
        entries.emplace_front(key, value);
    }
    bool get(const std::string &key, int &value)
    {
        const auto present = find(key);
        if (present == entries.end())
            return false;
        value = present->second;
        entries.splice(entries.begin(), entries, present);
        return true;
    }
};

void expectSame(const Cache &cache, const Model &model)
{
    ASSERT_EQ(cache.nodeMap.size(), model.entries.size());
    ASSERT_EQ(cache.valueMap.size(), model.entries.size());
    const ProxyURLCacheNode *node = cache.head, *previous = nullptr;
    for (const auto &[key, value] : model.entries) {
        ASSERT_TRUE(node && node->key == key && node->prev == previous);
        ASSERT_EQ(*cache.find(key), value);
        ASSERT_EQ(cache.nodeMap.at(key), node);
        previous = node;
        node = node->next;
    }
    ASSERT_TRUE(!node && cache.tail == previous);
}

} // namespace

TEST(Records, HostOfUrl)
{
    const char *const cases[][2] = {{"svc://host1:443/path?q=1", "host1"},
                                    {"svc://host1/a:b", "host1"},
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
    log_capture::record();
    EXPECT_STREQ(proxyMode2Str(3), "wpad");
    EXPECT_STREQ(proxyMode2Str(7), "off");
    EXPECT_STREQ(proxyMode2Str(-1), "off");
    EXPECT_EQ(textOrNull(string2Char("abc", 2)), "ab");
    EXPECT_EQ(textOrNull(string2Char("abc", 0)), "NULL");
    EXPECT_EQ(textOrNull(string2Char(nullptr, 5)), "NULL");
    EXPECT_EQ(
        log_capture::lines(),
        (Lines{"<6> proxyMode2Str: str mode:wpad", "<3> proxyMode2Str: mode:7 is invalid",
               "<3> proxyMode2Str: mode:-1 is invalid", "<6> string2Char: input is null, or length:0 <= 0",
               "<6> string2Char: input is null, or length:5 <= 0"}));
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
    log_capture::record();
    cloneProxyConfig(nullptr, &copy);
    cloneProxyConfig(&source, nullptr);
    EXPECT_EQ(log_capture::lines(), Lines(2, "<3> cloneProxyConfig srcConfig or destConfig is null"));

    ProxyUrlInformation info;
    initProxyUrlInfo(&info, 2, 0);
    EXPECT_TRUE(info.mode == 2 && !info.proxyUrlList && info.proxyUrlCount == 0);
    initProxyUrlInfo(&info, 3, 2);
    EXPECT_TRUE(info.proxyUrlList && !info.proxyUrlList[0] && !info.proxyUrlList[1]);
    info.proxyUrlList[1] = strdup("DIRECT");
    info.password = strdup("secret");
    ProxySetting setting = {4, strdup("value")};
    for (int i = 0; i < 2; i++) {
        cleanupProxyConfig(&copy);
        cleanupProxyUrlInfo(&info);
        cleanupProxySetting(&setting);
        EXPECT_TRUE(copy.mode == 2 && copy.optionFlag && !copy.proxyUrl);
        EXPECT_TRUE(info.mode == 0 && info.proxyUrlCount == 0 && !info.proxyUrlList && !info.password);
        EXPECT_TRUE(setting.kind == 0 && !setting.value);
    }
}

TEST(ProxyCache, LogsEachStepInOrder)
{
    std::vector<int> released;
    Cache cache(2, keepValue, &released);
    int value = 0;
    const std::pair<std::function<void()>, Lines> steps[] = {
        {[&] { cache.set("a", 1); }, {"<5> set key:a", "<6> setHead key:a"}},
        {[&] { cache.set("a", 2); }, {"<5> set key:a", "<6> remove key:a", "<6> setHead key:a"}},
        {[&] { cache.set("", 3); }, {"<5> set key:", "<6> setHead key:"}},
        {[&] { EXPECT_TRUE(cache.get("a", value)); }, {"<6> remove key:a", "<6> setHead key:a"}},
        {[&] { EXPECT_FALSE(cache.get("A", value)); }, {}},
        {[&] { cache.set("c", 4); },
         {"<5> set key:c", "<6> remove key:", "<6> remove deleteNode key:", NODE_GONE, "<6> setHead key:c"}},
        {[&] { cache.clearCache(); }, {"<6> clearCache called ", NODE_GONE, NODE_GONE}},
        {[&] { cache.clearCache(); }, {"<6> clearCache called "}},
    };
    for (const auto &[action, lines] : steps) {
        log_capture::record();
        action();
        EXPECT_EQ(log_capture::lines(), lines);
    }
    EXPECT_EQ(value, 2);
    EXPECT_EQ(released, (std::vector<int>{3, 2, 4}));
}

TEST(ProxyCache, AgreesWithASimpleModel)
{
    log_capture::record(false);
    std::mt19937 random(20240229); // NOLINT(cert-msc32-c,cert-msc51-cpp): the same sequence each time
    std::vector<int> released, expected;
    Cache cache(50, keepValue, &released);
    Model model;
    for (int step = 0; step < 1000000; step++) {
        const std::string key = "k" + std::to_string(random() % 80);
        const unsigned choice = random() % 10000;
        int value = -1, expectedValue = -1;
        if (choice == 0) {
            cache.clearCache();
            const std::map<std::string, int> sorted(model.entries.begin(), model.entries.end());
            for (const auto &entry : sorted)
                expected.push_back(entry.second);
            model.entries.clear();
        } else if (choice < 5000) {
            cache.set(key, step);
            model.set(key, step, expected);
        } else {
            ASSERT_EQ(cache.get(key, value), model.get(key, expectedValue)) << step;
            ASSERT_EQ(value, expectedValue) << step;
        }
        if (step % 1000 == 0 || choice == 0) {
            ASSERT_NO_FATAL_FAILURE(expectSame(cache, model)) << step;
        }
        ASSERT_EQ(released, expected) << step;
        released.clear();
        expected.clear();
    }
}
