// A private message bus, and peers on it.
#ifndef TESTS_BUS_H
#define TESTS_BUS_H

#include "program.h"

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <optional>

#include <gio/gio.h>

namespace test
{

constexpr const char *SERVICE_NAME = "com.halvo.ProxyManagerService";
constexpr const char *SERVICE_PATH = "/com/halvo/ProxyManagerService";
constexpr const char *SERVICE_INTERFACE = "com.halvo.ProxyManagerServiceInterface";

// A dbus-daemon on a socket that is the same for the whole life of the process, since libdbus reads its
// address once. DBUS_SYSTEM_BUS_ADDRESS names it, for the programs that are started as well.
struct PrivateBus {
    // Everything is allowed; rules are added to the configuration of the bus.
    explicit PrivateBus(const std::string &rules = "") { start(rules); }
    void start(const std::string &rules = "");
    void kill() { daemon->end(SIGKILL); }

    std::optional<Program> daemon;
};

// A peer that can answer wrongly, late, or not at all. It speaks D-Bus through GDBus, to share nothing with the library
// under test; arguments are GVariant texts, such as "('text', 1, true, ['a', 'b'])".
class BusPeer
{
public:
    explicit BusPeer(const std::string &name = "");
    ~BusPeer();

    // The reply to calls of a member from their arguments, made on GDBus's thread; "" keeps the calls until
    // answerHeld, and members without a script are answered with an error.
    using Answer = std::function<std::string(const std::string &arguments)>;
    void script(const std::string &member, Answer answer);
    void answer(const std::string &member, const std::string &reply)
    {
        script(member, [reply](const std::string &) { return reply; });
    }
    void hold(const std::string &member) { answer(member, ""); }
    void answerHeld(const std::string &reply);

    // Waits for so many calls since the peer was made, and tells how many there were.
    int calls(const std::string &member, int atLeast = 0);
    std::string lastArguments();

    void emit(const std::string &member, const std::string &arguments = "()",
              const std::string &destination = "", const char *path = SERVICE_PATH,
              const char *interface = SERVICE_INTERFACE);
    // Calls the bus itself, which then has all that this peer has sent.
    void callBus(const std::string &member, const std::string &arguments = "()");
    void sync() { callBus("GetId"); }
    std::string uniqueName() const { return g_dbus_connection_get_unique_name(connection_); }

private:
    static GDBusMessage *filter(GDBusConnection *, GDBusMessage *message, gboolean incoming, void *peer);
    bool handle(GDBusMessage *call);
    void send(GDBusMessage *reply, const std::string &arguments);

    GDBusConnection *connection_;
    guint filter_;
    std::mutex mutex_; // guards the rest
    std::condition_variable changed_;
    std::map<std::string, Answer> answers_;
    std::map<std::string, int> calls_;
    std::string lastArguments_;
    std::vector<GDBusMessage *> held_; // their replies
};

// The service in mode pacurl, answering each URL with one proxy and DIRECT.
struct ScriptedService : BusPeer {
    explicit ScriptedService(const std::string &config = "('pacurl', '', 'http://pac/', 'n', '', '')");
    void emitState(int type) { emit("ProxyMgrStateEvent", "(" + std::to_string(type) + ",)"); }
};

} // namespace test

#endif
