// proxymanagerctl as a person uses it, on a private bus with the stand-in service.

#include "bus.h"
#include "proxy_manager_service.h"

#include <algorithm>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace
{

using namespace test;
using proxy_manager_service::Options;
using proxy_manager_service::ProxyManagerService;

struct Case {
    std::vector<std::string> arguments;
    const char *input;
    int status;
    std::string out;
    const char *reason; // part of the standard error; empty: nothing is there
};

void expect(const std::vector<Case> &cases)
{
    for (const auto &one : cases) {
        std::vector<std::string> command{PROXYMANAGERCTL};
        std::string shown;
        for (const auto &argument : one.arguments) {
            command.push_back(argument);
            shown += argument + ' ';
        }
        Program program(command, one.input);
        EXPECT_EQ(program.end(), one.status) << shown << program.err();
        EXPECT_EQ(program.out(), one.out) << shown;
        EXPECT_EQ(program.err().empty(), !*one.reason) << shown << program.err();
        EXPECT_NE(program.err().find(one.reason), std::string::npos) << shown << program.err();
        EXPECT_EQ(program.err().find("secret"), std::string::npos) << shown;
        EXPECT_LE(std::count(program.err().begin(), program.err().end(), '\n'), 1) << shown << program.err();
    }
}

std::string shown_configuration(const std::string &mode, const std::string &proxy, const std::string &pac,
                                const std::string &user, const std::string &password)
{
    return "mode: " + mode + "\nproxy: " + proxy + "\nPAC URL: " + pac +
           "\noption flag: no\nuser name: " + user + "\npassword: " + password + '\n';
}

TEST(ProxyManagerCtl, ShowsAndChangesTheConfiguration)
{
    const PrivateBus bus;
    const Folder folder;
    const ProxyManagerService service(Options{});
    const std::string script = folder.write(
        "a.pac",
        "function FindProxyForURL(u, h) { return h == 'd' ? 'DIRECT' : 'PROXY ' + h + ':80;DIRECT'; }");
    expect({{{"status"}, "", 0, "running\n", ""},
            {{"get"}, "", 0, shown_configuration("off", "", "", "", "not set"), ""},
            {{"url", "http://a/"}, "", 0, "http://a/: off\n", ""},
            {{"set", "manual", "p:1", "--user", "u", "--password-stdin"}, "secret\n", 0, "", ""},
            {{"get"}, "", 0, shown_configuration("manual", "p:1", "", "u", "set"), ""},
            {{"url", "http://a/", "https://b:1/c"},
             "",
             0,
             "http://a/: manual p:1 (user name u)\nhttps://b:1/c: manual p:1 (user name u)\n",
             ""},
            {{"set", "pac", "file://" + script, "--log", "error"}, "", 0, "", ""},
            {{"get"}, "", 0, shown_configuration("pacurl", "", "file://" + script, "", "not set"), ""},
            {{"url", "http://a/", "http://d/"},
             "",
             0,
             "http://a/: pacurl PROXY a:80; DIRECT\nhttp://d/: pacurl DIRECT\n",
             ""},
            {{"set", "wpad"}, "", 0, "", ""},
            {{"url", "http://a/"}, "", 0, "http://a/: wpad DIRECT\n", ""},
            {{"set", "manual", "[::1]:65535"}, "", 0, "", ""},
            {{"get"}, "", 0, shown_configuration("manual", "[::1]:65535", "", "", "not set"), ""},
            {{"set", "manual", "p:1", "--user", std::string(2000, 'x')},
             "",
             4,
             "",
             "refused the configuration (result 4)"},
            {{"set", "off"}, "", 0, "", ""},
            {{"get"}, "", 0, shown_configuration("off", "", "", "", "not set"), ""}});
}

TEST(ProxyManagerCtl, WritesJson)
{
    const PrivateBus bus;
    Options with;
    with.config = {"manual", "p:1", "", true, "u\"\\\xc3\xa9", "secret"};
    const ProxyManagerService service(std::move(with));
    const auto parsed = [](const std::vector<std::string> &arguments) {
        std::vector<std::string> command{PROXYMANAGERCTL};
        command.insert(command.end(), arguments.begin(), arguments.end());
        Program program(command);
        EXPECT_EQ(program.end(), 0) << program.err();
        return nlohmann::json::parse(program.out());
    };
    const nlohmann::json user = "u\"\\\xc3\xa9";
    EXPECT_EQ(parsed({"get", "--json"}), (nlohmann::json{{"mode", "manual"},
                                                         {"proxyUrl", "p:1"},
                                                         {"pacUrl", nullptr},
                                                         {"optionFlag", true},
                                                         {"userName", user},
                                                         {"passwordSet", true}}));
    EXPECT_EQ(parsed({"url", "--json", "http://a/\"b"}), nlohmann::json::array({{{"url", "http://a/\"b"},
                                                                                 {"mode", "manual"},
                                                                                 {"proxies", {"p:1"}},
                                                                                 {"userName", user},
                                                                                 {"passwordSet", true}}}));
}

TEST(ProxyManagerCtl, RefusesWrongInputBeforeItAsksTheService)
{
    const PrivateBus bus; // there is no service on it
    expect(
        {{{}, "", 64, "", "subcommand"},
         {{"set"}, "", 64, "", "subcommand"},
         {{"nonsense"}, "", 64, "", "no such command: nonsense"},
         {{"set", "on"}, "", 64, "", "no such command: on"},
         {{"status", "--json"}, "", 64, "", "--json"},
         {{"set", "manual"}, "", 64, "", "HOST:PORT is required"},
         {{"set", "manual", ""}, "", 64, "", "not HOST:PORT"},
         {{"set", "manual", "p"}, "", 64, "", "not HOST:PORT"},
         {{"set", "manual", "p:0"}, "", 64, "", "not HOST:PORT"},
         {{"set", "manual", "p:65536"}, "", 64, "", "not HOST:PORT"},
         {{"set", "manual", "\xe9:1"}, "", 64, "", "not HOST:PORT"},
         {{"set", "manual", "p\n:1"}, "", 64, "", "not HOST:PORT"},
         {{"set", "manual", "p:1", "--user", "\xe9"}, "", 64, "", "user name is not UTF-8"},
         {{"set", "manual", "p:1", "--password-stdin"}, "secret\n", 64, "", "--user"},
         {{"set", "manual", "p:1", "--user", "u", "--password-stdin"}, "", 64, "", "no password"},
         {{"set", "manual", "p:1", "--user", "u", "--password-stdin"}, "secret\xe9\n", 64, "", "not UTF-8"},
         {{"set", "manual", "p:1", "--user", "u", "--password", "w"}, "", 64, "", "not expected"},
         {{"set", "pac", "a.pac"}, "", 64, "", "not an http or https URL"},
         {{"set", "pac", "http://u:w@h/"}, "", 64, "", "not an http or https URL"},
         {{"set", "pac", "/a\xe9"}, "", 64, "", "not an http or https URL"},
         {{"url"}, "", 64, "", "URL is required"},
         {{"url", "http://a/", "a"}, "", 64, "", "not SCHEME://HOST"},
         {{"url", "http:///a"}, "", 64, "", "not SCHEME://HOST"},
         {{"url", "http://a:x/"}, "", 64, "", "not SCHEME://HOST"},
         {{"url", "http://\xe9/"}, "", 64, "", "not SCHEME://HOST"},
         {{"--log", "loud", "status"}, "", 64, "", "loud"},
         {{"status"}, "", 69, "not running\n", ""},
         {{"get"}, "", 69, "", "no proxy manager service"},
         {{"set", "off"}, "", 69, "", "no proxy manager service"},
         {{"url", "http://a/"}, "", 69, "", "no proxy manager service"},
         {{"monitor"}, "", 69, "", "no proxy manager service"}});
}

TEST(ProxyManagerCtl, MonitorPrintsEachEventUntilItIsInterrupted)
{
    const PrivateBus bus;
    const ProxyManagerService service(Options{});
    for (const int signal : {SIGINT, SIGTERM}) {
        Program monitor({PROXYMANAGERCTL, "monitor"});
        ASSERT_TRUE(monitor.wait_for_error("waiting for events")) << monitor.err();
        ask("com.halvo.ProxyManagerServiceDebug.emitStateEvent", {"7"});
        ASSERT_TRUE(monitor.wait_for("state 7\n"));
        ask("updateProxyconfig", {"manual", "p:1", "", "false", "", "secret"});
        ASSERT_TRUE(monitor.wait_for("configuration manual p:1\n")) << "the library absorbs the first change";
        ask("updateProxyconfig", {"wpad", "", "", "false", "", ""});
        ASSERT_TRUE(monitor.wait_for("configuration wpad\n"));
        EXPECT_EQ(monitor.end(signal), 0);
        EXPECT_EQ(monitor.out(), "state 7\nconfiguration manual p:1\nconfiguration wpad\n");
    }
}

} // namespace
