// The choice of proxies for a connection: what reaches the request object, the handle and the log.

#include "link.h"
#include "proxy_double.h"

#include <syslog.h>

namespace
{

using proxy_double::Answer;
using proxy_double::Text;
using Options = decltype(interpose::State::options);

const std::string LONG_NAME(300, 'x');
const std::string ENTERED = "enter setProxyParams pRequestUrl:https://host.example:8443/atls\n"
                            "\n";
const std::string DIRECT = "setProxyParams Direct connect without http proxy\n\n";
const std::string INITIALIZED = "init_tl_curl: Transport layer initialized!";

struct Case {
    const char *name;
    std::optional<Answer> answer;
    bool fips;
    Options options; // set after those of the transport
    std::vector<Text> list;
    std::string notices;
    std::string errors;
};

const Case CASES[] = {
    {"NoClient", std::nullopt, false, {}, {}, "", "setProxyParams: create_proxy_manager_client fail!\n"},
    {"Off", Answer{}, false, {}, {}, "setProxyParams Exit since http proxy mode is off\n\n", ""},
    {"NoEntries",
     Answer{PROXY_MODE_PACURL, {}, {}, {}},
     false,
     {},
     {},
     "",
     "setProxyParams Fail to found any available proxy url\n"},
    {"Pac",
     Answer{PROXY_MODE_PACURL, {"PROXY p1:80", "DIRECT"}, "user", "secret"},
     false,
     {{CURLOPT_PROXY, "p1:80"}},
     {"p1:80", "DIRECT"},
     "",
     ""},
    {"DirectFirst",
     Answer{PROXY_MODE_WPAD, {"DIRECT", "PROXY p2:80"}, {}, {}},
     false,
     {{CURLOPT_PROXY, "NULL"}},
     {"DIRECT", "p2:80"},
     DIRECT,
     ""},
    {"OddEntries",
     Answer{PROXY_MODE_PACURL,
            {"PROXY", {}, "PROXY ", "PROXY " + LONG_NAME, "socks:1", "HTTP PROXY", "proxy p:1", ""},
            {},
            {}},
     false,
     {{CURLOPT_PROXY, "NULL"}},
     {{}, {}, {}, LONG_NAME, "socks:1", "ROXY", "proxy p:1", ""},
     DIRECT,
     ""},
    {"DirectWithin",
     Answer{PROXY_MODE_PACURL, {"PROXY x-DIRECT:1"}, {}, {}},
     false,
     {{CURLOPT_PROXY, "NULL"}},
     {"x-DIRECT:1"},
     DIRECT,
     ""},
    {"OtherCase",
     Answer{PROXY_MODE_PACURL, {"direct:1"}, {}, {}},
     false,
     {{CURLOPT_PROXY, "direct:1"}},
     {"direct:1"},
     "",
     ""},
    {"Manual",
     Answer{PROXY_MODE_MANUAL, {"PROXY p:3128"}, {}, "unused"},
     false,
     {{CURLOPT_PROXY, "PROXY p:3128"}},
     {"p:3128"},
     "",
     ""},
    {"ManualWithUser",
     Answer{PROXY_MODE_MANUAL, {"p:3128"}, "user", {}},
     false,
     {{CURLOPT_PROXY, "p:3128"},
      {CURLOPT_PROXYAUTH, std::to_string(static_cast<long>(0xFFFFFFFFFFFFFFEFULL))},
      {CURLOPT_PROXYUSERNAME, "user"},
      {CURLOPT_PROXYPASSWORD, "NULL"}},
     {"p:3128"},
     "",
     ""},
    {"ManualUnderFips",
     Answer{PROXY_MODE_MANUAL, {"p:3128"}, "user", "secret"},
     true,
     {{CURLOPT_PROXY, "p:3128"},
      {CURLOPT_PROXYAUTH, std::to_string(static_cast<long>(0xFFFFFFFFFFFFFFEDULL))},
      {CURLOPT_PROXYUSERNAME, "user"},
      {CURLOPT_PROXYPASSWORD, "secret"}},
     {"p:3128"},
     "",
     ""},
    {"UnknownMode", Answer{4, {"PROXY p:1"}, {}, {}}, false, {}, {"p:1"}, "", ""},
};

class Selection : public testing::TestWithParam<Case>
{
protected:
    ~Selection() override
    {
        interpose::set_fips(false);
        proxy_double::set(Answer{});
    }
    test::Device device;
};

TEST_P(Selection, ReachesRequestHandleAndLog)
{
    const Case &expected = GetParam();
    snprintf(device.handle->hostname, sizeof device.handle->hostname, "host.example");
    device.handle->port = 8443;
    interpose::reset();
    interpose::set_fips(expected.fips);
    proxy_double::set(expected.answer);
    ASSERT_EQ(init_tl_curl(&device.handle, "/atls", nullptr), ATLS_OK);
    proxy_double::set({{PROXY_MODE_PACURL, {"PROXY overwritten:1"}, {}, {}}});
    get_proxy_url("");

    Options options = interpose::kept().options;
    options.erase(options.begin(), options.begin() + 9); // those of the transport
    EXPECT_EQ(options, expected.options);
    std::vector<Text> list;
    std::string details;
    for (int i = 0; i < device.handle->proxyUrlCount; i++) {
        const char *entry = device.handle->proxyUrlList[i];
        list.push_back(entry ? Text(entry) : std::nullopt);
        if (const Text &offered = expected.answer->entries[static_cast<size_t>(i)])
            details += "setProxyParams ProxyUrlList[" + std::to_string(i) + "] = " + *offered + "\n\n";
    }
    EXPECT_EQ(list, expected.list);
    EXPECT_EQ(device.handle->proxyUrlList != nullptr, !expected.list.empty());
    EXPECT_EQ(interpose::log_of(LOG_NOTICE), ENTERED + expected.notices + INITIALIZED);
    EXPECT_EQ(interpose::log_of(LOG_ERR), expected.errors);
    EXPECT_EQ(interpose::log_of(LOG_DEBUG) + (details.empty() ? "" : "\n"), details);
}

INSTANTIATE_TEST_SUITE_P(, Selection, testing::ValuesIn(CASES),
                         [](const auto &tested) { return std::string(tested.param.name); });

// Whatever is refused, the handle has the whole list or none.
TEST(SelectionWithoutMemory, LeavesNoHalfList)
{
    proxy_double::set(Answer{PROXY_MODE_PACURL, {"PROXY a:1", "PROXY b:1"}, {}, {}});
    for (int nth = 1, points = 2; nth <= points; nth++) {
        test::Device device;
        snprintf(device.handle->hostname, sizeof device.handle->hostname, "host.example");
        device.handle->port = 8443;
        interpose::arm(nth);
        interpose::set_inside(true);
        init_tl_curl(&device.handle, "/", nullptr);
        interpose::set_inside(false);
        points = interpose::disarm();
        const char *const *list = device.handle->proxyUrlList;
        EXPECT_TRUE(list ? device.handle->proxyUrlCount == 2 && list[0] && list[1]
                         : device.handle->proxyUrlCount == 0)
            << interpose::failed() << nth;
    }
    proxy_double::set(Answer{});
}

} // namespace
