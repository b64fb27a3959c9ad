// What a peer, a bus or a caller does wrong, and calls that wait: nobody else may feel it.

#include "proxy_fixture.h"

#include <atomic>
#include <future>

#include <dlfcn.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <time.h>

namespace
{

using Clock = std::chrono::steady_clock;
std::atomic<bool> wallClockJumped{false};
constexpr time_t DECADES = 20 * 365 * 86400;

double secondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

std::string dbusError(const char *method, const char *text)
{
    return std::string("<3> ProxyManagerClientImpl-") + method + " DBus Error occured: " + text;
}

// Processor time that the whole process uses within a while.
double idleCost()
{
    const auto used = [] {
        rusage usage;
        getrusage(RUSAGE_SELF, &usage);
        return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec +
               1e-6 * (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
    };
    const double before = used();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    return used() - before;
}

} // namespace

// The wall clock of this program can be put forward; the machine's is left alone.
extern "C" int gettimeofday(timeval *__restrict time, void *__restrict) noexcept
{
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    *time = {now.tv_sec, static_cast<suseconds_t>(now.tv_nsec / 1000)};
    return 0;
}

extern "C" int clock_gettime(clockid_t clock, timespec *now) noexcept
{
    static const auto real =
        reinterpret_cast<int (*)(clockid_t, timespec *)>(dlsym(RTLD_NEXT, "clock_gettime"));
    const int result = real(clock, now);
    if (clock == CLOCK_REALTIME && wallClockJumped)
        now->tv_sec += DECADES;
    return result;
}

TEST_F(ProxyTest, TextThatCannotBeSentFailsItsCallOnly)
{
    ScriptedService service;
    ASSERT_EQ(create_proxy_manager_client(), 1);
    std::string latin1 = "caf\xe9", good = "x", huge(40 << 20, 'x');
    for (std::string *bad : {&latin1, &huge}) {
        const std::string reason = bad == &huge ? "text too long" : "text is not valid UTF-8";
        for (int field = 0; field < 4; field++) {
            proxy_log::record();
            ProxyManagerConfig config = {1, &good[0], &good[0], false, &good[0], &good[0]};
            char **const fields[] = {&config.proxyUrl, &config.pacUrl, &config.userName, &config.password};
            *fields[field] = &(*bad)[0];
            EXPECT_EQ(update_proxy_config(config), -1) << field;
            EXPECT_TRUE(proxy_log::contains(dbusError("updateProxyConfig", reason.c_str()))) << field;
        }
        const std::string url = "http://host" + std::to_string(bad->size()) + "/" + *bad;
        EXPECT_EQ(toText(get_proxy_url(url.c_str())), "0");
        EXPECT_TRUE(proxy_log::contains(dbusError("getProxyUrl", reason.c_str())));
    }
    EXPECT_EQ(service.calls("updateProxyconfig") + service.calls("getProxyurl"), 0);
    EXPECT_EQ(toText(get_proxy_url("http://caf\xc3\xa9/")), "2 PROXY p1:80, DIRECT");
}

TEST_F(ProxyTest, RepliesOfAnyShapeAreErrorsAtWorst)
{
    const Texts six = {"manual", "p:1", "", "y", "", ""};
    const Arguments shapes[] = {{},
                                {"text"},
                                {int32_t{1}},
                                {"manual", "p:1", "", "y", "", ""},
                                {Structure{{"manual", "p:1", ""}}},
                                {Texts{}},
                                {six},
                                {true}};
    for (const Arguments &shape : shapes) {
        ScriptedService service;
        service.answer("getProxyconfig", shape);
        ASSERT_EQ(create_proxy_manager_client(), 1);
        EXPECT_EQ(toText(get_http_proxy_config()), "0 n NULL NULL NULL NULL");
        service.emit("notifyProxyConfigupdated", {"pacurl", "", "", ""});
        settle(service);
        for (const char *member : {"getProxyurl", "updateProxyconfig", "checkServicestarted"})
            service.answer(member, shape);
        const bool texts = shape == Arguments{six};
        EXPECT_EQ(toText(get_proxy_url("http://a/")), texts ? "1 p:1, NULL, y, NULL, NULL" : "0");
        EXPECT_EQ(update_proxy_config(ProxyManagerConfig{}), shape == Arguments{int32_t{1}} ? 1 : -1);
        EXPECT_EQ(check_service_started(), shape == Arguments{true});
        cleanup_proxy_manager_client();
    }
    ScriptedService service;
    ASSERT_EQ(create_proxy_manager_client(), 1);
    service.script("checkServicestarted", [](DBusMessage *call) {
        return dbus_message_new_error(call, "com.halvo.Error", "no such luck");
    });
    EXPECT_FALSE(check_service_started());
    EXPECT_TRUE(proxy_log::contains("<3> check_service_started DBus Error occured: no such luck"));
    service.answer("checkServicestarted", Arguments{});
    cleanup_proxy_manager_client();
    EXPECT_EQ(create_proxy_manager_client(), 0);
}

TEST_F(ProxyTest, SignalsOfAnyShapeAndThrowingCallbacksLeaveTheThreadAlive)
{
    ScriptedService service;
    ASSERT_EQ(create_proxy_manager_client(), 1);
    const std::pair<const char *, Arguments> bad[] = {
        {"notifyProxyConfigupdated", {}},
        {"notifyProxyConfigupdated", {"manual", "p:1", "u"}},
        {"notifyProxyConfigupdated", {"manual", "p:1", "u", int32_t{1}}},
        {"ProxyMgrStateEvent", {}},
        {"ProxyMgrStateEvent", {"1"}},
        {"ProxyMgrStateEvent", {true}}};
    for (const auto &[member, arguments] : bad) {
        proxy_log::record();
        service.emit(member, arguments);
        settle(service);
        EXPECT_TRUE(proxy_log::contains(std::string("<3> ProxyManagerClientImpl-") + member +
                                        " signal dropped: type mismatch"));
    }
    EXPECT_EQ(toText(get_http_proxy_config()), "2 n NULL http://pac/ NULL NULL");
    service.emit("unknownSignal", {int32_t{1}});
    service.emit("notifyClearcache", {"further"});
    set_proxy_manager_event_cb(5, [](ProxyMgrEventType) { throw std::runtime_error("oops"); });
    set_proxy_manager_event_cb(6, [](ProxyMgrEventType) { throw 1; });
    service.emit("ProxyMgrStateEvent", {int32_t{5}});
    service.emit("ProxyMgrStateEvent", {int32_t{6}, "further"});
    settle(service);
    for (const char *end : {"type:5 has thrown: oops", "type:6 has thrown: unknown error"})
        EXPECT_TRUE(
            proxy_log::contains(std::string("<3> ProxyManagerClientImpl-ProxyMgrStateEvent the callback of "
                                            "event ") +
                                end));
    EXPECT_TRUE(proxy_log::contains("<6> ProxyManagerClientImpl-notifyClearcache called "));
    set_proxy_manager_event_cb(8, [](ProxyMgrEventType) {
        Events::callback(cleanup_proxy_manager_client()); // refused, instead of waiting for its own thread
    });
    service.emit("ProxyMgrStateEvent", {int32_t{8}});
    EXPECT_EQ(Events::take(1), std::vector<int>{0});
}

TEST_F(ProxyTest, SignalsCountOnlyFromTheOwnerOfTheName)
{
    auto service = std::make_unique<ScriptedService>();
    const auto others = service->namesOnBus();
    ASSERT_EQ(create_proxy_manager_client(), 1);
    std::string client;
    for (const std::string &name : service->namesOnBus()) {
        if (std::find(others.begin(), others.end(), name) == others.end())
            client = name;
    }
    set_proxy_manager_event_cb(0, Events::callback);
    BusPeer forger;
    const auto forge = [&](int32_t type) {
        forger.emit("ProxyMgrStateEvent", {type});
        forger.emit("ProxyMgrStateEvent", {type}, client);
        forger.emit("notifyProxyConfigupdated", {"off", "", "", ""}, client);
        forger.sendNow([&] { // an owner that the bus has not announced
            DBusMessage *signal =
                dbus_message_new_signal(DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, "NameOwnerChanged");
            const char *name = SERVICE_NAME, *former = "", *owner = dbus_message_get_sender(signal);
            owner = ":1.1";
            dbus_message_append_args(signal, DBUS_TYPE_STRING, &name, DBUS_TYPE_STRING, &former,
                                     DBUS_TYPE_STRING, &owner, DBUS_TYPE_INVALID);
            dbus_message_set_destination(signal, client.c_str());
            return signal;
        }());
        forger.namesOnBus(); // all of it has reached the bus
    };
    forge(1);
    service->emit("ProxyMgrStateEvent", {int32_t{2}}, client);
    EXPECT_EQ(Events::take(1), std::vector<int>{2});
    EXPECT_EQ(toText(get_http_proxy_config()), "2 n NULL http://pac/ NULL NULL");

    // The service goes and another connection takes its place.
    ScriptedService successor;
    service->emit("ProxyMgrStateEvent", {int32_t{3}});
    service->releaseName(SERVICE_NAME);
    service->emit("ProxyMgrStateEvent", {int32_t{4}});
    successor.requestName(SERVICE_NAME);
    service->namesOnBus();
    service.reset();
    forge(5);
    successor.emit("ProxyMgrStateEvent", {int32_t{6}});
    EXPECT_EQ(Events::take(2), (std::vector<int>{3, 6}));
    EXPECT_EQ(toText(get_proxy_url("http://a/")), "2 PROXY p1:80, DIRECT");
}

TEST_F(ProxyTest, ASlowAnswerStallsNobodyElse)
{
    ScriptedService service;
    ASSERT_EQ(create_proxy_manager_client(), 1);
    get_proxy_url("http://cached/");
    service.hold("getProxyurl");
    auto slow = std::async(std::launch::async, [] { return toText(get_proxy_url("http://slow/")); });
    service.waitForCalls("getProxyurl", 2);
    set_proxy_manager_event_cb(2, Events::callback);
    int late = 0; // the machine may be busy with something else now and then
    for (int i = 0; i < 100; i++) {
        const auto start = Clock::now();
        service.emit("notifyProxyConfigupdated", {"wpad", "", "", ""});
        EXPECT_EQ(Events::take(1), std::vector<int>{2});
        late += secondsSince(start) > 0.05 ? 1 : 0;
        EXPECT_TRUE(check_service_started());
        EXPECT_EQ(toText(get_proxy_url("http://cached/")), "2 PROXY p1:80, DIRECT");
    }
    EXPECT_LT(late, 5);
    service.answerHeld({Texts{"wpad", "DIRECT"}});
    EXPECT_EQ(slow.get(), "3 DIRECT");
}

TEST_F(ProxyTest, SignalsAheadOfAReplyAreHandledBeforeTheCallReturns)
{
    ScriptedService service;
    ASSERT_EQ(create_proxy_manager_client(), 1);
    set_proxy_manager_event_cb(3, Events::callback);
    service.script("checkServicestarted", [&](DBusMessage *call) {
        service.sendNow(BusPeer::makeSignal("ProxyMgrStateEvent", {int32_t{3}}));
        return makeReply(call, {true});
    });
    for (int i = 0; i < 100; i++) {
        EXPECT_TRUE(check_service_started());
        EXPECT_EQ(Events::take(0), std::vector<int>{3});
    }
}

TEST_F(ProxyTest, SilenceEndsAfterTwentyFiveSecondsWhateverTheClockDoes)
{
    ScriptedService service;
    ASSERT_EQ(create_proxy_manager_client(), 1);
    service.hold("getProxyurl");
    const auto ask = [](const char *url) {
        return std::async(std::launch::async, [url] {
            const auto start = Clock::now();
            EXPECT_EQ(toText(get_proxy_url(url)), "0");
            EXPECT_NEAR(secondsSince(start), 25, 1.5);
        });
    };
    auto first = ask("http://a/");
    service.waitForCalls("getProxyurl", 1);
    wallClockJumped = true;
    std::this_thread::sleep_for(std::chrono::seconds(1)); // so that the two end at different times
    auto second = ask("http://b/");
    service.waitForCalls("getProxyurl", 2);
    first.get();
    settle(service);
    EXPECT_TRUE(check_service_started());
    second.get();
    wallClockJumped = false;
    service.answerHeld({Texts{"pacurl", "DIRECT"}}); // too late for both
    EXPECT_TRUE(check_service_started());
    EXPECT_EQ(toText(get_proxy_url("http://a/")), "0");
    bool logged = false;
    for (const std::string &line : proxy_log::lines())
        logged = logged || line.find(dbusError("getProxyUrl", "Did not receive a reply.")) == 0;
    EXPECT_TRUE(logged);
}

TEST_F(ProxyTest, ALostBusFailsEveryCallAndANewClientWorks)
{
    for (int round = 0; round < 20; round++) {
        {
            ScriptedService service;
            ASSERT_EQ(create_proxy_manager_client(), 1);
            service.hold("getProxyurl");
            std::vector<std::future<std::string>> callers;
            for (int i = 0; i < 3; i++) {
                callers.push_back(std::async(std::launch::async, [i] {
                    return toText(get_proxy_url(("http://host" + std::to_string(i)).c_str()));
                }));
            }
            service.waitForCalls("getProxyurl", 3);
            const auto start = Clock::now();
            bus.kill();
            for (auto &caller : callers)
                EXPECT_EQ(caller.get(), "0");
            EXPECT_FALSE(check_service_started());
            EXPECT_LT(secondsSince(start), 5);
        }
        if (round == 0) {
            EXPECT_LT(idleCost(), 0.1);
            EXPECT_EQ(create_proxy_manager_client(), 1); // the client is still there
        }
        bus.start();
        ScriptedService service;
        EXPECT_EQ(cleanup_proxy_manager_client(), 1);
        ASSERT_EQ(create_proxy_manager_client(), 1);
        EXPECT_EQ(toText(get_proxy_url("http://a/")), "2 PROXY p1:80, DIRECT");
        settle(service);
        cleanup_proxy_manager_client();
    }
}

TEST_F(ProxyTest, AServiceThatDiesInACallFailsItAndMayComeBack)
{
    auto service = std::make_unique<ScriptedService>();
    ASSERT_EQ(create_proxy_manager_client(), 1);
    service->hold("updateProxyconfig");
    auto caller = std::async(std::launch::async, [] { return update_proxy_config(ProxyManagerConfig{}); });
    service->waitForCalls("updateProxyconfig", 1);
    service.reset();
    EXPECT_EQ(caller.get(), -1);
    EXPECT_FALSE(check_service_started());
    ScriptedService successor;
    EXPECT_EQ(update_proxy_config(ProxyManagerConfig{}), 0);
    settle(successor);
}

// Meant for AddressSanitizer: strings are read while they are cleared, evicted and replaced.
TEST_F(ProxyTest, StringsStayReadableForTheThreadThatAsked)
{
    ScriptedService service;
    ASSERT_EQ(create_proxy_manager_client(), 1);
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
        while (!stop)
            service.emit("notifyClearcache");
    });
    for (int i = 0; i < 3; i++) {
        threads.emplace_back([&, i] {
            for (int n = 0; n < 1500; n++) {
                const std::string host = "http://host" + std::to_string((n * (i + 1)) % 60);
                const ProxyUrlInformation info = get_proxy_url(host.c_str());
                std::this_thread::yield();
                EXPECT_EQ(toText(info), "2 PROXY p1:80, DIRECT");
            }
        });
    }
    for (size_t i = 1; i < threads.size(); i++)
        threads[i].join();
    stop = true;
    threads[0].join();

    // Two misses on one host: the later answer replaces the earlier, whose strings are still being read.
    service.hold("getProxyurl");
    const int before = service.calls("getProxyurl");
    std::promise<void> read;
    const auto done = read.get_future().share();
    std::vector<std::future<std::string>> callers;
    for (int i = 0; i < 2; i++) {
        callers.push_back(std::async(std::launch::async, [&] {
            const ProxyUrlInformation info = get_proxy_url("http://twice/");
            done.wait();
            return toText(info);
        }));
    }
    service.waitForCalls("getProxyurl", before + 2);
    service.answerHeld({Texts{"pacurl", "PROXY p2:1"}});
    service.emit("notifyClearcache");
    settle(service);
    read.set_value();
    for (auto &caller : callers)
        EXPECT_EQ(caller.get(), "2 PROXY p2:1");
}
