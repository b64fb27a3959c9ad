// The client on a healthy bus: configuration, answers and their cache, events, and the log of it all.

#include "proxy_fixture.h"

#include <cstring>

using namespace test;

TEST_F(ProxyTest, IsMadeOnceWithTheConfigurationOfTheService)
{
    const std::pair<const char *, const char *> cases[] = {
        {"('MANUAL', 'p:8080', '', 'y', 'u', '')", "1 y p:8080 NULL u NULL"},
        {"('pacurl', '', 'http://pac/', 'Y', '', 'x')", "2 n NULL http://pac/ NULL x"},
        {"('other', '', '', '', '', '')", "0 n NULL NULL NULL NULL"},
    };
    for (const auto &[config, expected] : cases) {
        ScriptedService service(config);
        EXPECT_EQ(create_proxy_manager_client(), 1);
        EXPECT_EQ(create_proxy_manager_client(), 1);
        EXPECT_EQ(service.calls("getProxyconfig"), 1);
        EXPECT_EQ(configText(), expected);
        EXPECT_EQ(cleanup_proxy_manager_client(), 1);
        EXPECT_EQ(cleanup_proxy_manager_client(), 0);
    }
    EXPECT_EQ(create_proxy_manager_client(), 0) << "there is no service";
    EXPECT_TRUE(log_capture::contains("<3> create_proxy_manager_client error: pDBus Error occured: The name "
                                      "com.halvo.ProxyManagerService was not provided by any .service"));
    EXPECT_EQ(toText(get_proxy_url("http://a/")), "0");
    EXPECT_EQ(update_proxy_config(ProxyManagerConfig{}), -1);
    EXPECT_EQ(configText(), "0 n NULL NULL NULL NULL");
    EXPECT_FALSE(check_service_started());
    set_proxy_manager_event_cb(1, Events::callback);
    EXPECT_TRUE(log_capture::contains("<3> set_proxy_manager_event_cb proxy manager client is null"));
    ProxySetting setting = {4, strdup("value")};
    cleanupProxySetting(&setting);
    EXPECT_TRUE(setting.kind == 0 && !setting.value);
}

TEST_F(RunningClient, FollowsConfigurationSignals)
{
    const std::tuple<const char *, const char *, const char *> cases[] = {
        {"('Manual', 'p:1', 'u', 'secret')", "1 y p:1 NULL u secret", "1 p:1 u/secret"},
        {"('manual', '', 'u', '')", "1 y NULL NULL u NULL", "1 NULL u/NULL"},
        {"('off', '', '', '')", "0 y NULL NULL NULL NULL", "0"},
        {"('pacurl', 'p:2', 'u', 'y')", "2 y NULL NULL NULL NULL", USUAL_ANSWER},
        {"('nonsense', '', '', '', 'further', 1)", "0 y NULL NULL NULL NULL", "0"},
    };
    int host = 0;
    for (const auto &[signal, config, answer] : cases) {
        emit("notifyProxyConfigupdated", signal);
        EXPECT_EQ(configText(), config);
        const std::string url = "http://" + std::to_string(host++);
        EXPECT_EQ(toText(get_proxy_url(url.c_str())), answer);
        EXPECT_EQ(toText(get_proxy_url(url.c_str())), answer) << "of the cache";
    }
    EXPECT_EQ(service->calls("getProxyurl"), 1);
    EXPECT_FALSE(log_capture::contains("secret"));
}

TEST_F(RunningClient, SendsConfigurations)
{
    service->answer("updateProxyconfig", "(42,)");
    char user[] = "u", password[] = "secret", pac[] = "http://pac/";
    const std::tuple<int, std::string, const char *> cases[] = {
        {1, "https://p:1", "('manual', 'p:1', 'http://pac/', true, 'u', 'secret')"},
        {1, "p:1", "('manual', 'p:1', 'http://pac/', true, 'u', 'secret')"},
        {1, "12345x://http:", "('manual', '//http:', 'http://pac/', true, 'u', 'secret')"},
        {1, "https:/", ""},
        {2, "http://p:1", "('pacurl', '', 'http://pac/', true, 'u', 'secret')"},
        {4, "", "('off', '', 'http://pac/', true, 'u', 'secret')"},
        {-1, "", "('off', '', 'http://pac/', true, 'u', 'secret')"},
    };
    for (auto [mode, proxy, sent] : cases) {
        const int calls = service->calls("updateProxyconfig");
        EXPECT_EQ(update_proxy_config({mode, proxy.data(), pac, true, user, password}), *sent ? 42 : -1);
        EXPECT_EQ(service->calls("updateProxyconfig"), calls + (*sent ? 1 : 0)) << proxy;
        EXPECT_TRUE(!*sent || service->lastArguments() == sent) << service->lastArguments();
    }
    EXPECT_EQ(update_proxy_config({3, nullptr, nullptr, false, nullptr, nullptr}), 42);
    EXPECT_EQ(service->lastArguments(), "('wpad', '', '', false, '', '')");
    EXPECT_FALSE(log_capture::contains("secret"));
}

TEST_F(RunningClient, KeepsTheAnswersOfTheServicePerHost)
{
    const char *none = nullptr; // the service is not asked
    const std::tuple<const char *, const char *, const char *> cases[] = {
        {"http://a:80/x", "(['pacurl', 'PROXY p1:80', 'DIRECT'],)", USUAL_ANSWER},
        {"other://a", none, USUAL_ANSWER},
        {nullptr, none, "0"},
        {"http://empty/", "(@as [],)", "0"},
        {"http://mode/", "(['off'],)", "0"},
        {"http://list/", "(['wpad', '', 'DIRECT'],)", "3 NULL, DIRECT"},
        {"http://list:1/", none, "3 NULL, DIRECT"},
        {"http://wrong/", "('pacurl',)", "0"},
        {"http://wrong/", none, "0"},
    };
    for (const auto &[url, reply, answer] : cases) {
        const int calls = service->calls("getProxyurl");
        service->answer("getProxyurl", reply ? reply : "(['unasked'],)");
        EXPECT_EQ(toText(get_proxy_url(url)), answer) << url;
        EXPECT_EQ(service->calls("getProxyurl"), calls + (reply ? 1 : 0)) << url;
    }
    EXPECT_EQ(service->lastArguments(), "('http://wrong/',)");
    service->answer("getProxyurl", "(['pacurl', 'DIRECT'],)");
    emit("notifyClearcache");
    EXPECT_EQ(toText(get_proxy_url("http://a/")), "2 DIRECT");
    for (int i = 0; i < 50; i++)
        get_proxy_url(("http://host" + std::to_string(i)).c_str());
    const int calls = service->calls("getProxyurl");
    get_proxy_url("http://host0/");
    get_proxy_url("http://a/");
    EXPECT_EQ(service->calls("getProxyurl"), calls + 1) << "50 are kept";
}

TEST_F(RunningClient, TellsEventsByTheirRules)
{
    // "c" is a change of the configuration, "rN" registers for type N, a number is a state event.
    const std::pair<std::vector<std::string>, std::vector<int>> cases[] = {
        {{"7", "c"}, {}},
        {{"r2", "c", "c"}, {2, 2}},
        {{"r1", "c", "c", "0", "1"}, {2, 1}},
        {{"r0", "c", "c", "5", "-3", "1"}, {2, 5, -3, 1}},
        {{"r0", "r0", "c", "c"}, {2}},
        {{"r5", "5", "c"}, {5, 2}},
        {{"r-1", "-1", "c"}, {-1, 2}},
    };
    for (const auto &[steps, told] : cases) {
        for (const std::string &step : steps) {
            if (step == "c")
                emit("notifyProxyConfigupdated", "('off', '', '', '')");
            else if (step[0] == 'r')
                set_proxy_manager_event_cb(std::stoi(step.substr(1)), Events::callback);
            else
                emit("ProxyMgrStateEvent", "(" + step + ",)");
            set_proxy_manager_event_cb(2, nullptr);
        }
        EXPECT_EQ(Events::take(told.size()), told) << testing::PrintToString(steps);
    }
}
