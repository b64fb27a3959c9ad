// Runs the scripted peers.

#include "bus_peer.h"

#include <memory>
#include <stdexcept>

namespace test
{

namespace
{

GVariant *parse(const std::string &text) // the caller's next call owns it
{
    return g_variant_new_parsed(text.c_str());
}

template <typename Object>
Object *there(Object *object)
{
    return object ? object : throw std::runtime_error("no answer from the private bus");
}

} // namespace

BusPeer::BusPeer(const std::string &name)
    : connection_(there(g_dbus_connection_new_for_address_sync(
          getenv("DBUS_SYSTEM_BUS_ADDRESS"), // of a bus that may be another process's
          static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                            G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
          nullptr, nullptr, nullptr))),
      filter_(g_dbus_connection_add_filter(connection_, filter, this, nullptr))
{
    if (!name.empty())
        callBus("RequestName", "('" + name + "', uint32 0)");
}

BusPeer::~BusPeer()
{
    g_dbus_connection_remove_filter(connection_, filter_);
    g_dbus_connection_close_sync(connection_, nullptr, nullptr); // on the thread that runs the filter
    const std::lock_guard<std::mutex> lock(mutex_);
    for (GDBusMessage *reply : held_)
        g_object_unref(reply);
    g_object_unref(connection_);
}

GDBusMessage *BusPeer::filter(GDBusConnection *, GDBusMessage *message, gboolean incoming, void *peer)
{
    if (!incoming || g_dbus_message_get_message_type(message) != G_DBUS_MESSAGE_TYPE_METHOD_CALL)
        return message;
    static_cast<BusPeer *>(peer)->handle(message);
    g_object_unref(message);
    return nullptr;
}

void BusPeer::handle(GDBusMessage *call)
{
    const std::string member = g_dbus_message_get_member(call);
    GVariant *const arguments = g_dbus_message_get_body(call);
    const std::unique_ptr<char, void (*)(void *)> text(
        arguments ? g_variant_print(arguments, FALSE) : g_strdup("()"), g_free);
    const std::lock_guard<std::mutex> lock(mutex_);
    calls_[member]++;
    lastArguments_ = text.get();
    const Answer &answer = answers_[member];
    if (answer)
        held_.push_back(g_dbus_message_new_method_reply(call));
    else
        send(g_dbus_message_new_method_error_literal(call, "org.freedesktop.DBus.Error.UnknownMethod", ""),
             "");
    const std::string reply = answer ? answer(lastArguments_) : "";
    if (!reply.empty()) {
        send(held_.back(), reply);
        held_.pop_back();
    }
    changed_.notify_all();
}

void BusPeer::send(GDBusMessage *reply, const std::string &arguments)
{
    if (!arguments.empty())
        g_dbus_message_set_body(reply, parse(arguments));
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
                                  interface, member.c_str(), parse(arguments), nullptr);
    g_dbus_connection_flush_sync(connection_, nullptr, nullptr);
}

void BusPeer::callBus(const std::string &member, const std::string &arguments)
{
    g_variant_unref(there(g_dbus_connection_call_sync(
        connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", member.c_str(),
        parse(arguments), nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr)));
}

ScriptedService::ScriptedService(const std::string &config) : BusPeer(SERVICE_NAME)
{
    answer("getProxyconfig", "(" + config + ",)");
    answer("checkServicestarted", "(true,)");
    answer("updateProxyconfig", "(0,)");
    answer("getProxyurl", "(['pacurl', 'PROXY p1:80', 'DIRECT'],)");
}

} // namespace test
