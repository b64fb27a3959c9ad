// The client on a healthy bus: configuration, answers and their cache, events, and the log of it all.

#include "proxy_fixture.h"

#include <algorithm>

using namespace test;

namespace
{

char *writable(const char *text)
{
    return const_cast<char *>(text);
}

// What get_proxy_url itself logs, without the lines of the cache.
Lines resolutionLog(const char *url)
{
    const std::string name = "ProxyManagerClientImpl-getProxyUrl ";
    log_capture::record();
    get_proxy_url(url);
    Lines lines;
    for (const std::string &line : log_capture::lines()) {
        if (line.find(name) == 4)
            lines.push_back(line.substr(0, 4) + line.substr(4 + name.size()));
    }
    return lines;
}

} // namespace

TEST_F(ProxyTest, IsMadeOnceAndLogsEachStep)
{
    ScriptedService service({"off", "p:1", "x", "y", "u", ""});
    EXPECT_EQ(create_proxy_manager_client(), 1);
    EXPECT_EQ(create_proxy_manager_client(), 1);
    EXPECT_EQ(cleanup_proxy_manager_client(), 1);
    EXPECT_EQ(cleanup_proxy_manager_client(), 0);
    Lines steps = log_capture::lines();
    // The thread logs its start at its own time.
    const auto unwanted = [](const std::string &line) {
        return line.find("<5>") != 0 || line == "<5> dbusLoopFunc dbus loop start";
    };
    steps.erase(std::remove_if(steps.begin(), steps.end(), unwanted), steps.end());
    EXPECT_EQ(steps, (Lines{"<5> create_proxy_manager_client create dbus connection",
                            "<5> create_proxy_manager_client (void)proxy_manager_client already exist",
                            "<5> cleanup_without_conn dbus loop end",
                            "<5> ProxyManagerClientImpl-clearProxyUrlCache clear cache",
                            "<5> cleanup_without_conn pProxyMgrClient already null"}));
}

TEST_F(ProxyTest, WithoutServiceThereIsNoClient)
{
    EXPECT_EQ(create_proxy_manager_client(), 0);
    const std::string reason =
        " DBus Error occured: The name com.halvo.ProxyManagerService was not provided by any .service files";
    EXPECT_TRUE(log_capture::contains("<3> ProxyManagerClientImpl-getProxyConfig" + reason));
    EXPECT_TRUE(log_capture::contains("<3> create_proxy_manager_client error: p" + reason.substr(1)));
    log_capture::record();
    EXPECT_EQ(toText(get_proxy_url("http://a/")), "0");
    EXPECT_EQ(log_capture::lines(), Lines{});
    EXPECT_EQ(update_proxy_config(ProxyManagerConfig{}), -1);
    EXPECT_EQ(configText(), "0 n NULL NULL NULL NULL");
    EXPECT_FALSE(check_service_started());
    set_proxy_manager_event_cb(1, Events::callback);
    for (const std::string name : {"update_proxy_config", "get_http_proxy_config", "check_service_started",
                                   "set_proxy_manager_event_cb"})
        EXPECT_TRUE(log_capture::contains("<3> " + name + " proxy manager client is null")) << name;
}

TEST_F(ProxyTest, ReadsTheConfigurationOfTheService)
{
    const std::pair<Texts, const char *> cases[] = {
        {{"MANUAL", "p:8080", "", "y", "u", ""}, "1 y p:8080 NULL u NULL"},
        {{"pacurl", "", "http://pac/", "Y", "", "x"}, "2 n NULL http://pac/ NULL x"},
        {{"other", "", "", "", "", ""}, "0 n NULL NULL NULL NULL"},
    };
    for (const auto &[config, expected] : cases) {
        ScriptedService service(config);
        ASSERT_EQ(create_proxy_manager_client(), 1);
        EXPECT_EQ(configText(), expected);
        cleanup_proxy_manager_client();
    }
}

TEST_F(RunningClient, FollowsConfigurationSignals)
{
    const std::pair<Arguments, const char *> cases[] = {
        {{"Manual", "p:1", "", "x"}, "1 y p:1 NULL NULL x"},
        {{"pacurl", "p:2", "u", "y"}, "2 y NULL NULL NULL NULL"},
        {{"manual", "", "u", ""}, "1 y NULL NULL u NULL"},
        {{"nonsense", "", "", "", "further", int32_t{1}}, "0 y NULL NULL NULL NULL"},
    };
    for (const auto &[signal, expected] : cases) {
        emit("notifyProxyConfigupdated", signal);
        EXPECT_EQ(configText(), expected);
    }
}

TEST_F(RunningClient, SendsConfigurations)
{
    service->answer("updateProxyconfig", {int32_t{42}});
    const std::pair<ProxyManagerConfig, Arguments> cases[] = {
        {{1, writable("https://p:1"), nullptr, true, writable("u"), writable("secret")},
         {"manual", "p:1", "", true, "u", "secret"}},
        {{1, writable("p:1"), nullptr, false, nullptr, nullptr}, {"manual", "p:1", "", false, "", ""}},
        {{1, writable("12345x://http:"), nullptr, false, nullptr, nullptr},
         {"manual", "//http:", "", false, "", ""}},
        {{2, writable("http://p:1"), writable("http://pac/"), false, nullptr, nullptr},
         {"pacurl", "", "http://pac/", false, "", ""}},
        {{9, nullptr, nullptr, false, nullptr, nullptr}, {"off", "", "", false, "", ""}},
    };
    for (const auto &[config, sent] : cases) {
        EXPECT_EQ(update_proxy_config(config), 42);
        EXPECT_EQ(service->lastArguments(), sent);
    }
    for (const std::string &line : log_capture::lines())
        EXPECT_EQ(line.find("secret"), std::string::npos) << line;
    for (const char *tooShort : {"http:/", "https:/"})
        EXPECT_EQ(update_proxy_config({1, writable(tooShort), nullptr, false, nullptr, nullptr}), -1);
    EXPECT_EQ(service->calls("updateProxyconfig"), 5);
}

TEST_F(RunningClient, KeepsTheAnswersOfTheServicePerHost)
{
    EXPECT_EQ(resolutionLog("http://a:80/x"),
              (Lines{"<5> request url:http://a:80/x, proxy mode:2",
                     "<5> response from proxy manager service, proxy mode:pacurl",
                     "<5> response from proxy manager service, index:0 proxy url:PROXY p1:80",
                     "<5> response from proxy manager service, index:1 proxy url:DIRECT"}));
    EXPECT_EQ(service->lastArguments(), Arguments{"http://a:80/x"});
    EXPECT_EQ(resolutionLog("https://a/y"),
              (Lines{"<5> request url:https://a/y, proxy mode:2",
                     "<5> request url:https://a/y, get proxy url from cache, mode:2, userName:",
                     "<5> get proxy url from cache, index:0 proxy url:PROXY p1:80",
                     "<5> get proxy url from cache, index:1 proxy url:DIRECT"}));
    EXPECT_EQ(toText(get_proxy_url("other://a")), USUAL_ANSWER);
    EXPECT_EQ(service->calls("getProxyurl"), 1);

    const std::tuple<Arguments, const char *, const char *, const char *> odd[] = {
        {{Texts{}}, "http://empty/", "0", "<5> response from proxy manager service is empty"},
        {{Texts{"off"}}, "http://mode/", "0", "<5> response url is empty."},
        {{Texts{"wpad", "", "DIRECT"}},
         "http://list/",
         "3 NULL, DIRECT",
         "<5> response from proxy manager service, index:1 proxy url:DIRECT"},
        {{"pacurl"}, "http://wrong/", "0", "<3> DBus Error occured: array expected"},
    };
    for (const auto &[reply, url, answer, lastLine] : odd) {
        service->answer("getProxyurl", reply);
        EXPECT_EQ(resolutionLog(url).back(), lastLine);
        const int calls = service->calls("getProxyurl");
        EXPECT_EQ(toText(get_proxy_url(url)), answer);
        EXPECT_EQ(service->calls("getProxyurl"), calls) << "not kept: " << url;
    }
    EXPECT_EQ(resolutionLog(nullptr), Lines{"<3> requestUrl is null"});

    service->answer("getProxyurl", {Texts{"pacurl", "DIRECT"}});
    emit("notifyClearcache", {});
    EXPECT_EQ(toText(get_proxy_url("http://a/")), "2 DIRECT");
    for (int i = 0; i < 50; i++)
        get_proxy_url(("http://host" + std::to_string(i)).c_str());
    const int calls = service->calls("getProxyurl");
    get_proxy_url("http://host0/");
    get_proxy_url("http://a/");
    EXPECT_EQ(service->calls("getProxyurl"), calls + 1) << "50 are kept";
}

TEST_F(RunningClient, ManualAndOffNeedNoService)
{
    emit("notifyProxyConfigupdated", {"manual", "p:1", "u", "secret"});
    EXPECT_EQ(resolutionLog("http://a/").back(), "<5> proxy mode is manual. proxyUrl:p:1, useName:u");
    const ProxyUrlInformation first = get_proxy_url("http://a/");
    EXPECT_EQ(toText(first), "1 p:1 u/secret");
    EXPECT_EQ(get_proxy_url("http://a/").proxyUrlList, first.proxyUrlList);
    emit("notifyProxyConfigupdated", {"off", "", "", ""});
    EXPECT_EQ(resolutionLog("http://a/"), Lines{});
    EXPECT_EQ(toText(get_proxy_url("http://a/")), "0");
    EXPECT_EQ(service->calls("getProxyurl"), 0);
}

TEST_F(RunningClient, TellsEventsByTheirRules)
{
    // "c" is a change of the configuration, "rN" registers for type N, a number is a state event.
    const std::pair<Lines, std::vector<int>> cases[] = {
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
                emit("notifyProxyConfigupdated", {"off", "", "", ""});
            else if (step[0] == 'r')
                set_proxy_manager_event_cb(std::stoi(step.substr(1)), Events::callback);
            else
                emit("ProxyMgrStateEvent", {std::stoi(step)});
            set_proxy_manager_event_cb(2, nullptr);
        }
        EXPECT_EQ(Events::take(told.size()), told) << testing::PrintToString(steps);
    }
}
