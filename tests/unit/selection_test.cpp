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

Answer script(const std::vector<Text> &entries, ProxyMode mode = PROXY_MODE_PACURL)
{
    return {mode, entries, "user", "secret"}; // which only a manual proxy gets
}

Options proxy(const std::string &text)
{
    return {{CURLOPT_PROXY, text}};
}

Options with_password(const std::string &text, unsigned long long mask, const std::string &password)
{
    return {{CURLOPT_PROXY, text},
            {CURLOPT_PROXYAUTH, std::to_string(static_cast<long>(mask))},
            {CURLOPT_PROXYUSERNAME, "user"},
            {CURLOPT_PROXYPASSWORD, password}};
}

const std::vector<Text> ODD = {"PROXY",   {},           "PROXY ",    "PROXY " + LONG_NAME,
                               "socks:1", "HTTP PROXY", "proxy p:1", ""};
const std::vector<Text> ODD_LIST = {{}, {}, {}, LONG_NAME, "socks:1", "ROXY", "proxy p:1", ""};
const Answer WITHOUT_USER{PROXY_MODE_MANUAL, {"PROXY p:1"}, {}, "unused"};
const Answer WITH_USER{PROXY_MODE_MANUAL, {"p:1"}, "user", {}};
const Answer WITH_BOTH{PROXY_MODE_MANUAL, {"p:1"}, "user", "secret"};
const char *const OFF = "setProxyParams Exit since http proxy mode is off\n\n";
const char *const NO_CLIENT = "setProxyParams: create_proxy_manager_client fail!\n";
const char *const NO_ENTRIES = "setProxyParams Fail to found any available proxy url\n";

const Case CASES[] = {
    {"NoClient", std::nullopt, false, {}, {}, "", NO_CLIENT},
    {"Off", Answer{}, false, {}, {}, OFF, ""},
    {"NoEntries", script({}), false, {}, {}, "", NO_ENTRIES},
    {"Pac", script({"PROXY p1:80", "DIRECT"}), false, proxy("p1:80"), {"p1:80", "DIRECT"}, "", ""},
    {"DirectFirst",
     script({"DIRECT", "PROXY p:1"}, PROXY_MODE_WPAD),
     false,
     proxy("NULL"),
     {"DIRECT", "p:1"},
     DIRECT,
     ""},
    {"OddEntries", script(ODD), false, proxy("NULL"), ODD_LIST, DIRECT, ""},
    {"DirectWithin", script({"PROXY x-DIRECT:1"}), false, proxy("NULL"), {"x-DIRECT:1"}, DIRECT, ""},
    {"OtherCase", script({"direct:1"}), false, proxy("direct:1"), {"direct:1"}, "", ""},
    {"Manual", WITHOUT_USER, false, proxy("PROXY p:1"), {"p:1"}, "", ""},
    {"WithUser", WITH_USER, false, with_password("p:1", 0xFFFFFFFFFFFFFFEFULL, "NULL"), {"p:1"}, "", ""},
    {"UnderFips", WITH_BOTH, true, with_password("p:1", 0xFFFFFFFFFFFFFFEDULL, "secret"), {"p:1"}, "", ""},
    {"UnknownMode", script({"PROXY p:1"}, 4), false, {}, {"p:1"}, "", ""},
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
