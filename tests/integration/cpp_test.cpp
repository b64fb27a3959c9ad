// Through the headers for C++ programs: silent peers, sessions in doubt, messages that arrive or not, a stormy service.

#include "bus.h"
#include "link.h"

#include "atls.hpp"
#include "proxymanager.hpp"

#include <poll.h>

using namespace std::chrono_literals;
using atls::Errc;

// What comes of a message, and of the next one, when the answer is odd, or when there is none in time.
TEST(Cpp, GoesOnInTimeAndWithoutDoubtOnly)
{
    const test::PrivateBus bus; // without a service
    test::Link link;
    std::mutex gate;
    const auto wait = [&](auto &) { std::lock_guard<std::mutex>{gate}; };
    const std::pair<Errc, std::function<void(atls_service::Reply &)>> cases[] = {
        {Errc::timed_out, wait},
        {Errc::cancelled, wait},
        {Errc::unread_data, [](auto &reply) { reply.body += reply.body; }},
        {Errc::unprotected, [](auto &reply) { reply.headers.erase("Content-Type"); }},
        {Errc::exchange_failed, [](auto &reply) { reply.body.clear(); }},
        {Errc::ok, [](auto &) {}}};
    std::atomic<size_t> odd{5}; // the case of the next answer
    link.tamper = [&](auto &reply) { cases[odd.exchange(5)].second(reply); };
    link.start();
    atls::Connection connection({"127.0.0.1", link.service->port(), "/atls"}, atls::later);
    std::thread([&] { // which is not cancelled inside a step
        (void)(pthread_cancel(pthread_self()),
               connection.send("x", atls::Retry(), atls::Options::within(20s)));
    })
        .join();
    EXPECT_TRUE(connection.is_open());
    for (size_t row = 0; row < 7; row++) { // the last two connect
        const Errc wanted = cases[row % 5].first;
        const atls::CancelSource stop;
        const auto cancel = [&](auto now) { return row % 5 == 1 && now.sent ? stop.cancel() : void(); };
        const auto start = atls::Clock::now(), end = start + (wanted == Errc::timed_out ? 300ms : 20s);
        const atls::Options options{end, stop, cancel};
        std::unique_lock<std::mutex> silence(gate);
        odd = row % 5;
        EXPECT_EQ(row < 5 ? connection.try_send("message", atls::Retry(), options).error()
                          : connection.try_reconnect(options),
                  wanted);
        EXPECT_LT(atls::Clock::now() - start, 1500ms);
        EXPECT_EQ(connection.try_send("next").error(), row % 5 < 2 ? Errc::not_connected : Errc::in_doubt);
        silence.unlock();
        connection.reconnect();
    }
    odd = 3;
    EXPECT_EQ(connection.send("again", atls::Retry{2, 1ms, 1ms, true}).text(), "again");
}

TEST(Cpp, ValuesOutliveAClearAndEventsAStorm)
{
    const test::PrivateBus bus;
    test::ScriptedService service;
    service.answer("checkServicestarted", "(true,)");
    const proxymanager::Client client;
    proxymanager::Events changes, all(proxymanager::Events::Which::all);
    for (int i = 0; i < 300; i++)
        service.emitState(i); // 2 looks like a change of the configuration
    EXPECT_TRUE(client.service_started());
    for (int i = 0; i < 256; i++)
        EXPECT_EQ(all.next()->state, i);
    EXPECT_TRUE(all.next()->number == 44 && !all.next() && changes.next() && !changes.next());
    for (int i = 0; i < 100; i++) {
        proxymanager::Events events(proxymanager::Events::Which::all);
        service.emit("notifyClearcache");
        for (int j = 0; j < 50; j++) // some still on their way when nobody listens any more
            service.emitState(5);
        pollfd readable = {events.descriptor(), POLLIN, 0};
        EXPECT_TRUE(poll(&readable, 1, 20000) == 1 && events.next()->state == 5);
        EXPECT_EQ(client.proxies_for("http://a/").addresses, (std::vector<std::string>{"p1:80", ""}));
    }
}
