// Peers on the private bus that can answer wrongly, late, or not at all. Written with plain libdbus, so that
// they share nothing with the library under test.
#ifndef TESTS_BUS_PEER_H
#define TESTS_BUS_PEER_H

#include "bus.h"

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <thread>
#include <variant>

#include <dbus/dbus.h>

namespace test
{

// One argument of a message: s, i, b, as, and a structure of strings.
using Texts = std::vector<std::string>;
struct Structure : Texts {
};
using Argument = std::variant<std::string, int32_t, bool, Texts, Structure>;
using Arguments = std::vector<Argument>;

// A connection of its own, with a thread that runs it.
class BusPeer
{
public:
    explicit BusPeer(const std::string &name = "");
    ~BusPeer();

    // What to do with the calls of a member: reply with arguments, keep them until answerHeld, or anything
    // else, on the peer's thread; NULL is no reply.
    using Answer = std::function<DBusMessage *(DBusMessage *call)>;
    void script(const std::string &member, Answer answer);
    void answer(const std::string &member, const Arguments &arguments);
    void hold(const std::string &member);
    void answerHeld(const Arguments &arguments);

    int calls(const std::string &member);
    void waitForCalls(const std::string &member, int count); // since the peer was made
    Arguments lastArguments();

    void emit(const std::string &member, const Arguments &arguments = {},
              const std::string &destination = "");
    void sync(); // all that this peer has sent is with the bus when it returns
    void
    run(const std::function<void(DBusConnection *)> &task); // on the peer's thread; returns when it is done

    static DBusMessage *makeReply(DBusMessage *call, const Arguments &arguments);
    static void send(DBusConnection *connection, DBusMessage *message); // takes the message

private:
    void loop();
    void handle(DBusMessage *message);

    DBusConnection *connection_;
    Descriptor wake_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::map<std::string, Answer> answers_;
    std::map<std::string, int> calls_;
    Arguments lastArguments_;
    std::vector<DBusMessage *> held_;
    std::deque<std::function<void()>> tasks_;
    bool stop_ = false;
    std::thread thread_;
};

// The service in mode pacurl, answering each URL with one proxy and DIRECT.
class ScriptedService : public BusPeer
{
public:
    explicit ScriptedService(const Texts &config = {"pacurl", "", "http://pac/", "n", "", ""});
};

} // namespace test

#endif
