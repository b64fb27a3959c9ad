// A private bus, and a scripted proxy manager service on it that can answer wrongly, late, or not at all.
// Written with plain libdbus, so that it shares nothing with the library under test.
#ifndef TESTS_PROXY_BUS_H
#define TESTS_PROXY_BUS_H

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <variant>
#include <vector>

#include <dbus/dbus.h>
#include <sys/types.h>

constexpr const char *SERVICE_NAME = "com.halvo.ProxyManagerService";

// A dbus-daemon on a socket that is the same for the whole life of the process: libdbus reads its address
// once.
class PrivateBus
{
public:
    explicit PrivateBus(const std::string &limits = "") { start(limits); }
    ~PrivateBus() { kill(); }
    void start(const std::string &limits = "");
    void kill();
    static std::string address();

private:
    pid_t pid_ = -1;
};

// One argument of a message: s, i, b, as, and a structure of strings.
using Texts = std::vector<std::string>;
struct Structure {
    Texts fields;
    bool operator==(const Structure &other) const { return fields == other.fields; }
};
using Argument = std::variant<std::string, int32_t, bool, Texts, Structure>;
using Arguments = std::vector<Argument>;

// A connection of its own on the bus, with a thread that runs it.
class BusPeer
{
public:
    // Answers a call; an empty message keeps silent. Runs on the peer's thread.
    using Answer = std::function<DBusMessage *(DBusMessage *call)>;

    explicit BusPeer(const std::string &name = "");
    ~BusPeer();

    void script(const std::string &member, Answer answer);
    void answer(const std::string &member, const Arguments &arguments);
    // Keeps the calls of a member back until answerHeld.
    void hold(const std::string &member);
    void answerHeld(const Arguments &arguments);
    // Waits until a member has been called count times since the peer was made.
    void waitForCalls(const std::string &member, int count);
    int calls(const std::string &member);
    Arguments lastArguments();

    void emit(const std::string &member, const Arguments &arguments = {},
              const std::string &destination = "");
    void releaseName(const std::string &name);
    void requestName(const std::string &name);
    std::vector<std::string> namesOnBus();

    static DBusMessage *makeSignal(const std::string &member, const Arguments &arguments);
    void sendNow(DBusMessage *message); // on the peer's thread; takes the message

private:
    void run();
    void runOnThread(std::function<void()> task);
    void handle(DBusMessage *message);

    DBusConnection *connection_;
    int wake_[2];
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

DBusMessage *makeReply(DBusMessage *call, const Arguments &arguments);

// The service in mode pacurl, answering each URL with one proxy and DIRECT.
class ScriptedService : public BusPeer
{
public:
    explicit ScriptedService(const Texts &config = {"pacurl", "", "http://pac/", "n", "", ""});
};

#endif
