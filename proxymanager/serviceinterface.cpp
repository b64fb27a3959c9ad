// What goes over the bus: calls, replies, signals, and who owns the service's name.

#include "serviceinterface.h"

#include "common.h"

#include <cstring>
#include <exception>
#include <memory>

#include <dbus/dbus.h>
#include <syslog.h>

namespace
{

constexpr const char *INTERFACE_NAME = "com.halvo.ProxyManagerServiceInterface";
// A bus drops a client that sends it more than it takes in one message, 32 MiB as it comes.
constexpr size_t TEXT_LIMIT = size_t{16} * 1024 * 1024;

void append(DBus::MessageIter &arguments, bool flag, size_t &)
{
    throwIfNoMemory(arguments.append_bool(flag));
}

// Refuses what libdbus or the bus would not bear: text that is not UTF-8 ends the process, and a message too long ends the
// connection.
void append(DBus::MessageIter &arguments, const char *text, size_t &room)
{
    const size_t length = strlen(text);
    if (length > room)
        throw DBus::Error(DBUS_ERROR_LIMITS_EXCEEDED, "text too long");
    room -= length;
    if (!dbus_validate_utf8(text, nullptr))
        throw DBus::Error(DBUS_ERROR_INVALID_ARGS, "text is not valid UTF-8");
    throwIfNoMemory(arguments.append_string(text));
}

// Hands a method over to a slot of dbus-c++, which takes it only once there is memory for its own needs.
template <typename Result, typename Parameter, typename Object>
void connectSlot(DBus::Slot<Result, Parameter> &slot, Object *object, Result (Object::*method)(Parameter))
{
    auto callback = std::make_unique<DBus::Callback<Object, Result, Parameter>>(object, method);
    slot = callback.get();
    (void)callback.release();
}

} // namespace

void throwIfNoMemory(bool hadMemory)
{
    if (!hadMemory)
        throw DBus::Error(DBUS_ERROR_NO_MEMORY, "no memory for the call");
}

// ---- Interface proxy

using Proxy = com::halvo::ProxyManagerServiceInterface_proxy;

Proxy::ProxyManagerServiceInterface_proxy() : DBus::InterfaceProxy(INTERFACE_NAME)
{
    connectSlot(_signals["notifyProxyConfigupdated"], this, &Proxy::_notifyProxyConfigupdated_stub);
    connectSlot(_signals["notifyClearcache"], this, &Proxy::_notifyClearcache_stub);
    connectSlot(_signals["ProxyMgrStateEvent"], this, &Proxy::_ProxyMgrStateEvent_stub);
}

template <typename Handle>
void Proxy::deliver(const DBus::SignalMessage &signal, Handle handle)
{
    try {
        if (isFromService(signal))
            handle(signal.reader());
    } catch (...) {
        syslog(LOG_ERR, "%s%s signal dropped: %s", CLASS_PREFIX, signal.member(), currentError());
    }
}

void Proxy::_notifyProxyConfigupdated_stub(const DBus::SignalMessage &signal)
{
    deliver(signal, [this](DBus::MessageIter arguments) {
        std::array<std::string, 4> texts;
        for (std::string &text : texts) {
            text = arguments.get_string();
            ++arguments;
        }
        notifyProxyConfigupdated(texts[0], texts[1], texts[2], texts[3]);
    });
}

void Proxy::_notifyClearcache_stub(const DBus::SignalMessage &signal)
{
    deliver(signal, [this](const DBus::MessageIter &) { notifyClearcache(); });
}

void Proxy::_ProxyMgrStateEvent_stub(const DBus::SignalMessage &signal)
{
    deliver(signal, [this](DBus::MessageIter arguments) { ProxyMgrStateEvent(arguments.get_int32()); });
}

template <typename... Arguments>
DBus::Message Proxy::request(const char *member, Arguments... arguments)
{
    DBus::CallMessage call;
    [[maybe_unused]] DBus::MessageIter writer = call.writer();
    [[maybe_unused]] size_t room = TEXT_LIMIT;
    (append(writer, arguments, room), ...);
    throwIfNoMemory(call.member(member));
    return invoke_method(call);
}

int32_t Proxy::updateProxyconfig(const char *mode, const char *proxyUrl, const char *pacUrl, bool optionFlag,
                                 const char *userName, const char *password)
{
    return request("updateProxyconfig", mode, proxyUrl, pacUrl, optionFlag, userName, password)
        .reader()
        .get_int32();
}

Proxy::Configuration Proxy::getProxyconfig()
{
    const DBus::Message reply = request("getProxyconfig");
    DBus::MessageIter arguments = reply.reader();
    // Entering anything but a container ends the process.
    if (arguments.type() != DBUS_TYPE_STRUCT)
        throw DBus::Error(DBUS_ERROR_INVALID_ARGS, "structure expected");
    DBus::MessageIter fields = arguments.recurse();
    Configuration configuration;
    for (std::string &text : configuration) {
        text = fields.get_string();
        ++fields;
    }
    return configuration;
}

std::vector<std::string> Proxy::getProxyurl(const char *requestUrl)
{
    const DBus::Message reply = request("getProxyurl", requestUrl);
    DBus::MessageIter arguments = reply.reader();
    if (arguments.type() != DBUS_TYPE_ARRAY)
        throw DBus::Error(DBUS_ERROR_INVALID_ARGS, "array expected");
    if (arguments.array_type() != DBUS_TYPE_STRING)
        throw DBus::Error(DBUS_ERROR_INVALID_ARGS, "array of strings expected");
    std::vector<std::string> texts;
    for (DBus::MessageIter element = arguments.recurse(); !element.at_end(); ++element)
        texts.emplace_back(element.get_string());
    return texts;
}

bool Proxy::checkServicestarted()
{
    return request("checkServicestarted").reader().get_bool();
}

// ---- Owner of the service's name

NameOwner::NameOwner(DBus::Connection &connection, const std::string &name)
    : connection_(connection), name_(name),
      rule_("type='signal',sender='" DBUS_SERVICE_DBUS "',path='" DBUS_PATH_DBUS
            "',interface='" DBUS_INTERFACE_DBUS "',member='NameOwnerChanged',arg0='" +
            name + "'")
{
    connectSlot(filter_, this, &NameOwner::follow);
    // Changes are followed before the present owner is asked for, so that none falls between.
    connection_.add_match(rule_.c_str());
    owner_ = ask();
    connection_.add_filter(filter_);
}

NameOwner::~NameOwner()
{
    connection_.remove_filter(filter_);
    connection_.remove_match(rule_.c_str(), false);
}

std::string NameOwner::ask()
{
    DBus::CallMessage call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, "GetNameOwner");
    throwIfNoMemory(call.writer().append_string(name_.c_str()));
    try {
        return connection_.send_blocking(call, -1).reader().get_string();
    } catch (const DBus::Error &error) {
        if (strcmp(orEmpty(error.name()), DBUS_ERROR_NAME_HAS_NO_OWNER) != 0)
            throw;
        return {};
    }
}

bool NameOwner::follow(const DBus::Message &message)
{
    try {
        if (!message.is_signal(DBUS_INTERFACE_DBUS, "NameOwnerChanged") ||
            strcmp(orEmpty(message.sender()), DBUS_SERVICE_DBUS) != 0)
            return false;
        DBus::MessageIter arguments = message.reader();
        if (arguments.get_string() == name_) {
            ++arguments; // the former owner
            ++arguments;
            owner_ = arguments.get_string();
        }
    } catch (const std::exception &) { // not from a bus that works; libdbus must not see it
    }
    return false;
}

bool NameOwner::sent(const DBus::Message &message) const
{
    return !owner_.empty() && owner_ == orEmpty(message.sender());
}
