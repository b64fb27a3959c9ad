// The record functions and the key of the cache.

#include "common.h"
#include "proxy_log.h"

#include <cstdlib>
#include <cstring>
#include <memory>

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
    const std::pair<const char *, const char *> cases[] = {
        {"svc://host1:443/path?q=1", "host1"},
        {"svc://host1/a:b", "host1"},
        {"host1:80/x", "host1:80/x"},
        {"svc://user:pw@host1/", "user"},
        {"svc:///path", "/path"},
        {"svc://[::1]:80/", "["},
        {"a://b://c", "b"},
        {"svc://", "NULL"},
        {"svc://:80/", "NULL"},
        {"", "NULL"},
    };
    for (const auto &[url, host] : cases)
        EXPECT_EQ(textOrNull(getHost(url)), host) << url;
}

TEST(Records, ModesAndTexts)
{
    const std::pair<const char *, int> modes[] = {{"off", 0}, {"MANUAL", 1}, {"pacurl", 2}, {"Wpad", 3},
                                                  {"", 0},    {"direct", 0}, {"wpad ", 0}};
    for (const auto &[text, mode] : modes)
        EXPECT_EQ(str2ProxyMode(text), mode) << text;

    proxy_log::record();
    EXPECT_STREQ(proxyMode2Str(3), "wpad");
    EXPECT_STREQ(proxyMode2Str(7), "off");
    EXPECT_STREQ(proxyMode2Str(-1), "off");
    EXPECT_EQ(textOrNull(string2Char("abc", 2)), "ab");
    EXPECT_EQ(textOrNull(string2Char("abc", 0)), "NULL");
    EXPECT_EQ(textOrNull(string2Char(nullptr, 5)), "NULL");
    EXPECT_EQ(proxy_log::lines(),
              (std::vector<std::string>{
                  "<6> proxyMode2Str: str mode:wpad", "<3> proxyMode2Str: mode:7 is invalid",
                  "<3> proxyMode2Str: mode:-1 is invalid", "<6> string2Char: input is null, or length:0 <= 0",
                  "<6> string2Char: input is null, or length:5 <= 0"}));
}

TEST(Records, CloneCopiesDeeplyAndCleanupKeepsModeAndFlag)
{
    char proxy[] = "p:1", empty[] = "", user[] = "u";
    const ProxyManagerConfig source = {2, proxy, empty, true, user, nullptr};
    ProxyManagerConfig copy;
    initProxyConfig(&copy);
    cloneProxyConfig(&source, &copy);
    EXPECT_STREQ(copy.proxyUrl, "p:1");
    EXPECT_NE(copy.proxyUrl, source.proxyUrl);
    EXPECT_STREQ(copy.userName, "u");
    EXPECT_FALSE(copy.pacUrl || copy.password);
    cleanupProxyConfig(&copy);
    cleanupProxyConfig(&copy);
    EXPECT_TRUE(copy.mode == 2 && copy.optionFlag && !copy.proxyUrl && !copy.userName);

    proxy_log::record();
    cloneProxyConfig(nullptr, &copy);
    cloneProxyConfig(&source, nullptr);
    EXPECT_EQ(proxy_log::lines(),
              std::vector<std::string>(2, "<3> cloneProxyConfig srcConfig or destConfig is null"));
}

TEST(Records, AnswersAndSettingsAreReleasedOnce)
{
    ProxyUrlInformation info;
    initProxyUrlInfo(&info, 2, 0);
    EXPECT_TRUE(info.mode == 2 && !info.proxyUrlList && info.proxyUrlCount == 0);
    initProxyUrlInfo(&info, 3, 2);
    EXPECT_TRUE(info.proxyUrlList && !info.proxyUrlList[0] && !info.proxyUrlList[1]);
    info.proxyUrlList[1] = strdup("DIRECT");
    info.password = strdup("secret");
    ProxySetting setting = {4, strdup("value")};
    for (int i = 0; i < 2; i++) {
        cleanupProxyUrlInfo(&info);
        cleanupProxySetting(&setting);
        EXPECT_TRUE(info.mode == 0 && info.proxyUrlCount == 0 && !info.proxyUrlList && !info.password);
        EXPECT_TRUE(setting.kind == 0 && !setting.value);
    }
    // No such memory can be had: readers must see no entries.
    initProxyUrlInfo(&info, 1, sizeof(void *) == 4 ? INT32_MAX : -1);
    EXPECT_EQ(info.proxyUrlList, nullptr);
}
