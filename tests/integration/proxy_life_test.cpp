// Life and death of the client: cycles, many threads, process ends, kept connections.

#include "proxy_fixture.h"

#include <atomic>

#include <dlfcn.h>

// What C++ programs find in the library.
extern DBus::BusDispatcher dbus_dispatcher;
int create_proxy_manager_client(DBus::Connection &conn);
int cleanup_without_conn();
void *dbusLoopFunc(void *);

using namespace test;

namespace
{

// What the program around the library prints; its complaints and exit status, unless that is 0.
std::string outcome(const char *what)
{
    Program program({PROXY_PROGRAM, what});
    const int status = program.end();
    return program.out() + (status == 0 ? "" : std::to_string(status));
}

std::atomic<bool> joinsFail{false};

} // namespace

extern "C" int pthread_join(pthread_t thread, void **result)
{
    static const auto real = reinterpret_cast<int (*)(pthread_t, void **)>(dlsym(RTLD_NEXT, "pthread_join"));
    return real(thread, result) + (joinsFail ? EINVAL : 0);
}

TEST_F(ProxyTest, AThousandLivesLeaveNothingBehind)
{
    log_capture::record(false);
    ScriptedService service;
    long files = 0, threads = 0;
    size_t heap = 0;
    for (int cycle = 0; cycle < 1000; cycle++) {
        if (cycle == 20) {
            files = count_in("/proc/self/fd");
            threads = count_in("/proc/self/task");
            heap = heap_in_use();
        }
        std::vector<std::thread> creators; // at once, of one client
        for (int i = 0; i < (cycle % 50 == 30 ? 8 : 1); i++)
            creators.emplace_back([] { EXPECT_EQ(create_proxy_manager_client(), 1); });
        for (std::thread &creator : creators)
            creator.join();
        EXPECT_TRUE(cycle % 2 == 0 || toText(get_proxy_url("http://a/")) == USUAL_ANSWER);
        joinsFail = cycle % 2 == 0;
        ASSERT_EQ(cleanup_proxy_manager_client(), 1);
        joinsFail = false;
    }
    EXPECT_EQ(count_in("/proc/self/fd"), files);
    EXPECT_LE(count_in("/proc/self/task"), threads); // idle threads of GLib end by themselves
    EXPECT_LT(heap_in_use(), heap + size_t{980} * 2000);
}

TEST_F(RunningClient, AKeptConnectionServesTheNextClientAlone)
{
    const auto hears = [&](int type) {
        ASSERT_EQ(create_proxy_manager_client(), 1);
        set_proxy_manager_event_cb(0, Events::callback);
        service->emitState(type);
        EXPECT_EQ(Events::take(1), std::vector<int>{type});
    };
    hears(1);
    const std::string name = dbus_conn->unique_name();
    EXPECT_EQ(cleanup_without_conn(), 1);
    service->emit("ProxyMgrStateEvent", "(1,)", name); // for nobody
    service->emit("notifyProxyConfigupdated", "('off', '', '', '')", name);
    service->sync(); // the bus has passed it on by now
    hears(2);
    EXPECT_EQ(dbus_conn->unique_name(), name);
    EXPECT_EQ(configText().substr(0, 1), "2") << "of the service, not of the former client";

    // A failed create keeps the connection as well; one that is dead by then is replaced.
    EXPECT_EQ(cleanup_without_conn(), 1);
    service.reset();
    EXPECT_EQ(create_proxy_manager_client(), 0);
    EXPECT_EQ(dbus_conn->unique_name(), name);
    bus.kill();
    EXPECT_EQ(create_proxy_manager_client(), 0);
    bus.start("<limit name='max_match_rules_per_connection'>0</limit>");
    EXPECT_EQ(create_proxy_manager_client(), 0); // the constructor fails half-way
    bus.kill();
    bus.start();
    service = std::make_unique<ScriptedService>();
    hears(3);
    EXPECT_EQ(cleanup_proxy_manager_client(), 1);
    EXPECT_EQ(dbus_conn, nullptr);
}

TEST_F(ProxyTest, AProgramMayBringItsOwnConnection)
{
    ScriptedService service;
    for (int round = 0; round < 2; round++) {
        DBus::default_dispatcher = &dbus_dispatcher;
        DBus::Connection own = DBus::Connection::SystemBus();
        ASSERT_EQ(create_proxy_manager_client(own), 1);
        EXPECT_EQ(create_proxy_manager_client(), 1);
        EXPECT_EQ(dbus_conn, nullptr);
        set_proxy_manager_event_cb(0, Events::callback);
        std::thread loop(dbusLoopFunc, nullptr);
        service.emitState(round);
        EXPECT_TRUE(check_service_started());
        EXPECT_EQ(Events::take(1), std::vector<int>{round});
        dbus_dispatcher.leave(); // to the compiler this is leave() of the base class
        loop.join();
        EXPECT_EQ(cleanup_without_conn(), 1);
        own.disconnect();
        dbus_dispatcher.dispatch_pending();
    }
}

TEST_F(ProxyTest, LeavesTheProgramsDescriptorsAlone)
{
    Program daemon({PROXY_PROGRAM, "daemon"});
    EXPECT_TRUE(daemon.wait_for("no service"));
    ScriptedService service;
    EXPECT_EQ(daemon.end(), 0) << daemon.out();
    for (const char *what : {"closing", "streams", "loop"})
        EXPECT_EQ(outcome(what), "") << what;
    Program limited({"sh", "-c", "ulimit -Sn 4; exec \"$0\" limit", PROXY_PROGRAM});
    EXPECT_EQ(limited.end(), 0) << limited.out();
}

TEST_F(ProxyTest, ProcessesEndWell)
{
    ScriptedService service;
    std::atomic<bool> stop{false};
    std::thread sender([&] {
        for (; !stop; service.emitState(9)) {
        }
    });
    for (int i = 0; i < 25; i++) {
        EXPECT_EQ(outcome("exit"), "");
        EXPECT_EQ(outcome("exit-in-callback"), "");
    }
    Program busy(
        {"bash", "-o", "pipefail", "-c", "\"$0\" exit-in-use | (sleep 0.5; cat >/dev/null)", PROXY_PROGRAM});
    EXPECT_EQ(busy.end(), 0) << busy.out();
    EXPECT_EQ(outcome("poll"), "");
    EXPECT_EQ(outcome("fork"), "");
    EXPECT_EQ(outcome("exec"), "0\n1\n2\n3\n") << "ls has the standard ones and the folder";
    stop = true;
    sender.join();
}
