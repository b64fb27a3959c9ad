// What a peer, a bus or a caller does wrong, and calls that wait: nobody else may feel it.

#include "proxy_fixture.h"

#include <atomic>
#include <ctime>
#include <future>

#include <dbus/dbus.h>
#include <dlfcn.h>

using namespace test;
using namespace std::string_literals;

namespace
{

using Clock = std::chrono::steady_clock;
std::atomic<bool> wallClockJumped{false};

double secondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

std::future<std::string> ask(const std::string &url)
{
    return std::async(std::launch::async, [url] { return toText(get_proxy_url(url.c_str())); });
}

} // namespace

// The wall clock of this program can be put forward; the machine's is left alone.
extern "C" int clock_gettime(clockid_t clock, timespec *now) noexcept
{
    static const auto real =
        reinterpret_cast<int (*)(clockid_t, timespec *)>(dlsym(RTLD_NEXT, "clock_gettime"));
    const int result = real(clock, now);
    if (clock == CLOCK_REALTIME && wallClockJumped)
        now->tv_sec += time_t{20} * 365 * 86400;
    return result;
}

TEST_F(RunningClient, FailsAloneTheCallWithTextThatCannotBeSent)
{
    for (std::string bad : {"caf\xe9"s, std::string(40 << 20, 'x')}) {
        ProxyManagerConfig config = {1, nullptr, nullptr, false, nullptr, nullptr};
        for (char **field : {&config.proxyUrl, &config.pacUrl, &config.userName, &config.password}) {
            *field = bad.data();
            EXPECT_EQ(update_proxy_config(config), -1);
            *field = nullptr;
        }
        EXPECT_EQ(toText(get_proxy_url(("http://" + bad).c_str())), "0");
    }
    for (const char *line : {"updateProxyConfig DBus Error occured: text is not valid UTF-8",
                             "getProxyUrl DBus Error occured: text too long"})
        EXPECT_TRUE(log_capture::contains("<3> ProxyManagerClientImpl-"s + line));
    EXPECT_EQ(service->calls("updateProxyconfig") + service->calls("getProxyurl"), 0);
    EXPECT_EQ(toText(get_proxy_url("http://caf\xc3\xa9/")), USUAL_ANSWER);
}

TEST_F(RunningClient, TakesRepliesOfTheWrongShapeForErrors)
{
    const std::string number = "(1,)", flag = "(true,)", list = "(['manual', 'p:1', '', 'y', '', ''],)";
    for (const auto &shape : {number, flag, list, "()"s, "('text',)"s, "(@as [],)"s,
                              "('manual', 'p:1', '', 'y', '', '')"s, "(('manual', 'p:1', ''),)"s}) {
        cleanup_proxy_manager_client();
        service->answer("getProxyconfig", shape);
        service->answer("checkServicestarted", flag);
        ASSERT_EQ(create_proxy_manager_client(), 1);
        EXPECT_EQ(configText(), "0 n NULL NULL NULL NULL");
        emit("notifyProxyConfigupdated", "('pacurl', '', '', '')");
        for (const char *member : {"getProxyurl", "updateProxyconfig", "checkServicestarted"})
            service->answer(member, shape);
        EXPECT_EQ(toText(get_proxy_url("http://a/")), shape == list ? "1 p:1, NULL, y, NULL, NULL" : "0");
        EXPECT_EQ(update_proxy_config(ProxyManagerConfig{}), shape == number ? 1 : -1);
        EXPECT_EQ(check_service_started(), shape == flag);
    }
}

TEST_F(RunningClient, SurvivesSignalsOfTheWrongShapeAndCallbacksThatThrow)
{
    set_proxy_manager_event_cb(5, [](ProxyMgrEventType) { throw std::runtime_error("oops"); });
    set_proxy_manager_event_cb(6, [](ProxyMgrEventType) { throw 1; });
    set_proxy_manager_event_cb(7, [](ProxyMgrEventType) {
        Events::callback(cleanup_proxy_manager_client()); // refused, instead of waiting for its own thread
    });
    const std::string dropped = " signal dropped: type mismatch", thrown = " the callback of event type:";
    const std::tuple<std::string, const char *, std::string> signals[] = {
        {"notifyProxyConfigupdated", "()", dropped},
        {"notifyProxyConfigupdated", "('manual', 'p', 'u', 1)", dropped},
        {"ProxyMgrStateEvent", "('1',)", dropped},
        {"ProxyMgrStateEvent", "(5, 'further')", thrown + "5 has thrown: oops"},
        {"ProxyMgrStateEvent", "(6, 'further')", thrown + "6 has thrown: unknown error"},
        {"ProxyMgrStateEvent", "(7, 'further')", ""},
        {"notifyClearcache", "('further',)", " called "}};
    for (const auto &[member, arguments, line] : signals) {
        log_capture::record();
        emit(member, arguments);
        EXPECT_TRUE(log_capture::contains((" ProxyManagerClientImpl-" + member).append(line))) << arguments;
    }
    EXPECT_EQ(Events::take(1), std::vector<int>{0});
    EXPECT_EQ(configText(), "2 n NULL http://pac/ NULL NULL");
}

TEST_F(RunningClient, HearsTheOwnerOfTheNameOnly)
{
    const std::string client = dbus_conn->unique_name();
    set_proxy_manager_event_cb(0, Events::callback);
    BusPeer forger;
    ScriptedService successor; // which waits for the name
    for (int round = 0; round < 2; round++) {
        // An owner that the bus has not announced.
        forger.emit("NameOwnerChanged",
                    std::string("('") + SERVICE_NAME + "', '', '" + forger.uniqueName() + "')", client,
                    DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS);
        forger.emit("ProxyMgrStateEvent", "(1,)");
        forger.emit("ProxyMgrStateEvent", "(1,)", client);
        forger.emit("notifyProxyConfigupdated", "('off', '', '', '')", client);
        forger.sync();
        (round == 0 ? *service : successor).emit("ProxyMgrStateEvent", "(2,)", round == 0 ? client : "");
        EXPECT_EQ(Events::take(1), std::vector<int>{2});
        service->callBus("ReleaseName", std::string("('") + SERVICE_NAME + "',)");
        service->emitState(3);
        service->sync();
    }
    EXPECT_EQ(configText(), "2 n NULL http://pac/ NULL NULL");
}

TEST_F(RunningClient, StallsNobodyWhileTheServiceIsSlow)
{
    get_proxy_url("http://kept/");
    service->hold("getProxyurl");
    auto slow = ask("http://slow/");
    service->calls("getProxyurl", 2);
    set_proxy_manager_event_cb(2, Events::callback);
    for (int i = 0; i < 100; i++) {
        emit("notifyProxyConfigupdated", "('wpad', '', '', '')");
        EXPECT_EQ(Events::take(0), std::vector<int>{2}) << "handled before the reply behind it";
        EXPECT_EQ(toText(get_proxy_url("http://kept/")), USUAL_ANSWER);
    }
    service->answerHeld("(['wpad', 'DIRECT'],)");
    EXPECT_EQ(slow.get(), "3 DIRECT");
}

TEST_F(RunningClient, KeepsNoAnswerThatAClearHasOvertaken)
{
    static std::promise<void> sent;
    set_proxy_manager_event_cb(7, [](ProxyMgrEventType) { sent.get_future().wait(); });
    service->hold("getProxyurl");
    auto stale = ask("http://a/");
    service->calls("getProxyurl", 1);
    service->emitState(7); // so that the client reads the answer and the clear at once
    service->answerHeld("(['pacurl', 'DIRECT'],)");
    service->emit("notifyClearcache");
    service->sync();
    sent.set_value();
    EXPECT_EQ(stale.get(), "2 DIRECT");
    service->answer("getProxyurl", "(['pacurl', 'PROXY p2:1'],)");
    EXPECT_EQ(toText(get_proxy_url("http://a/")), "2 PROXY p2:1");
}

TEST_F(RunningClient, WaitsTwentyFiveSecondsWhateverTheClockDoes)
{
    service->hold("getProxyurl");
    wallClockJumped = true;
    const auto start = Clock::now();
    EXPECT_EQ(toText(get_proxy_url("http://a/")), "0");
    EXPECT_NEAR(secondsSince(start), 25, 3);
    wallClockJumped = false;
    service->answerHeld("(['pacurl', 'DIRECT'],)"); // too late
    EXPECT_TRUE(check_service_started());
    EXPECT_EQ(service->calls("getProxyurl"), 1);
}

TEST_F(RunningClient, FailsAllCallsWhenTheBusIsLost)
{
    service->hold("getProxyurl");
    std::future<std::string> callers[] = {ask("http://a/"), ask("http://b/")};
    service->calls("getProxyurl", 2);
    const auto start = Clock::now();
    bus.kill();
    for (auto &caller : callers)
        EXPECT_EQ(caller.get(), "0");
    EXPECT_LT(secondsSince(start), 15);
    EXPECT_FALSE(check_service_started());
    const std::clock_t cpu = std::clock();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_LT(std::clock() - cpu, CLOCKS_PER_SEC / 10) << "the thread is idle";
    EXPECT_EQ(create_proxy_manager_client(), 1) << "the client is still there";
}

// Two misses on one host: the later answer replaces the earlier, whose strings are still being read.
TEST_F(RunningClient, KeepsAnAnswerForItsReader)
{
    service->hold("getProxyurl");
    std::promise<void> cleared;
    const auto afterwards = cleared.get_future().share();
    std::future<std::string> readers[2];
    for (auto &reader : readers)
        reader = std::async(std::launch::async, [afterwards] {
            const ProxyUrlInformation info = get_proxy_url("http://twice/");
            Events::callback(0);
            afterwards.wait();
            return toText(info);
        });
    service->calls("getProxyurl", 2);
    service->answerHeld("(['pacurl', 'PROXY p1:80', 'DIRECT'],)");
    EXPECT_EQ(Events::take(2).size(), 2u);
    emit("notifyClearcache");
    cleared.set_value();
    for (auto &reader : readers)
        EXPECT_EQ(reader.get(), USUAL_ANSWER);
}
