// Starts dbus-daemon, and scripted peers on it.

#include "bus.h"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace test
{

void PrivateBus::start(const std::string &rules)
{
    static const Folder folder;
    const std::string address = "unix:path=" + folder.path("bus");
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
    std::filesystem::remove(folder.path("bus")); // left over when the last one was killed
    const std::string file =
        write_file(folder.path("config"),
                   "<busconfig><type>system</type><listen>" + address +
                       "</listen><auth>EXTERNAL</auth><policy context='default'><allow user='*'/>"
                       "<allow send_destination='*'/><allow receive_sender='*'/><allow own='*'/></policy>" +
                       rules + "</busconfig>");
    daemon.emplace(std::vector<std::string>{"dbus-daemon", "--nofork", "--nosyslog", "--print-address",
                                            "--config-file=" + file},
                   "\n");
}

BusPeer::BusPeer(const std::string &name)
    : connection_(g_dbus_connection_new_for_address_sync(
          getenv("DBUS_SYSTEM_BUS_ADDRESS"), // of a bus that may be another process's
          static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                            G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
          nullptr, nullptr, nullptr)),
      filter_(g_dbus_connection_add_filter(connection_, filter, this, nullptr))
{
    if (!name.empty())
        callBus("RequestName", "('" + name + "', uint32 0)");
}

BusPeer::~BusPeer()
{
    g_dbus_connection_remove_filter(connection_, filter_);
    g_dbus_connection_close_sync(connection_, nullptr, nullptr); // on the thread that runs the filter
    answerHeld("()");                                            // to nobody
    g_object_unref(connection_);
}

GDBusMessage *BusPeer::filter(GDBusConnection *, GDBusMessage *message, gboolean incoming, void *peer)
{
    if (!incoming || g_dbus_message_get_message_type(message) != G_DBUS_MESSAGE_TYPE_METHOD_CALL ||
        !static_cast<BusPeer *>(peer)->handle(message))
        return message; // GDBus answers calls that get here with an error
    g_object_unref(message);
    return nullptr;
}

bool BusPeer::handle(GDBusMessage *call)
{
    const std::string member = g_dbus_message_get_member(call);
    GVariant *const arguments = g_dbus_message_get_body(call);
    const std::lock_guard<std::mutex> lock(mutex_);
    calls_[member]++;
    changed_.notify_all();
    const std::unique_ptr<char, void (*)(void *)> text(
        arguments ? g_variant_print(arguments, FALSE) : nullptr, g_free);
    lastArguments_ = text ? text.get() : "()";
    if (!answers_[member])
        return false;
    const std::string reply = answers_[member](lastArguments_);
    held_.push_back(g_dbus_message_new_method_reply(call));
    if (!reply.empty()) {
        send(held_.back(), reply);
        held_.pop_back();
    }
    return true;
}

void BusPeer::send(GDBusMessage *reply, const std::string &arguments)
{
    g_dbus_message_set_body(reply, g_variant_new_parsed(arguments.c_str()));
    g_dbus_connection_send_message(connection_, reply, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
    g_object_unref(reply);
}

void BusPeer::script(const std::string &member, Answer answer)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    answers_[member] = std::move(answer);
}

void BusPeer::answerHeld(const std::string &arguments)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    for (GDBusMessage *reply : std::exchange(held_, {}))
        send(reply, arguments);
}

int BusPeer::calls(const std::string &member, int atLeast)
{
    std::unique_lock<std::mutex> lock(mutex_);
    if (!changed_.wait_for(lock, std::chrono::seconds(30), [&] { return calls_[member] >= atLeast; }))
        throw std::runtime_error("not called: " + member);
    return calls_[member];
}

std::string BusPeer::lastArguments()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return lastArguments_;
}

void BusPeer::emit(const std::string &member, const std::string &arguments, const std::string &destination,
                   const char *path, const char *interface)
{
    g_dbus_connection_emit_signal(connection_, destination.empty() ? nullptr : destination.c_str(), path,
                                  interface, member.c_str(), g_variant_new_parsed(arguments.c_str()),
                                  nullptr);
    g_dbus_connection_flush_sync(connection_, nullptr, nullptr);
}

void BusPeer::callBus(const std::string &member, const std::string &arguments)
{
    g_variant_unref(g_dbus_connection_call_sync(
        connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", member.c_str(),
        g_variant_new_parsed(arguments.c_str()), nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr));
}

ScriptedService::ScriptedService(const std::string &config) : BusPeer(SERVICE_NAME)
{
    answer("getProxyconfig", "(" + config + ",)");
    answer("checkServicestarted", "(true,)");
    answer("updateProxyconfig", "(0,)");
    answer("getProxyurl", "(['pacurl', 'PROXY p1:80', 'DIRECT'],)");
}

} // namespace test
