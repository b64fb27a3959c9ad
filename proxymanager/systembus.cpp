// Opening and closing of the connection to the system bus.

#include "systembus.h"

#include <cstring>
#include <utility>

#include <dbus/dbus.h>

namespace
{

using Record = DBus::RefPtrI<DBus::Connection::Private>;

// Names a private member: access is not checked where a template is instantiated explicitly.
Record DBus::Connection::*recordMember();
template <Record DBus::Connection::*MEMBER>
struct RecordMember {
    friend Record DBus::Connection::*recordMember() { return MEMBER; }
};
template struct RecordMember<&DBus::Connection::_pvt>;

// libdbus's connection behind one of dbus-c++. The private record begins with it, the names that were asked for, and the
// dispatcher. NULL unless the record holds our dispatcher there, and the connection has a socket that the dispatcher watches.
DBusConnection *underlying(const DBus::Connection &connection, PollLoop &loop)
{
    struct {
        DBusConnection *connection;
        unsigned char names[sizeof(std::vector<std::string>)];
        const DBus::Dispatcher *dispatcher;
    } begin;
    memcpy(&begin, static_cast<const void *>((connection.*recordMember()).get()), sizeof begin);
    int socket = -1;
    const bool isProven = begin.dispatcher == &loop && begin.connection &&
                          dbus_connection_get_unix_fd(begin.connection, &socket) &&
                          loop.watchesSystemBus(socket);
    return isProven ? begin.connection : nullptr;
}

// The count stands behind the pointer to the record.
bool hasCopies(const DBus::Connection &connection)
{
    const auto *const record = reinterpret_cast<const char *>(&(connection.*recordMember()));
    return !reinterpret_cast<const DBus::RefCnt *>(record + sizeof(void *))->one();
}

DBusConnection *provenConnection = nullptr; // behind the connection that is open

// dbus-c++ takes one reference of libdbus's connection more than it gives back, so that all that belongs to the connection
// would stay for ever. With a reference of ours the connection outlives dbus-c++'s object; if giving ours back does not
// free it, the forgotten one is left, and nobody else's.
void deleteWithForgottenReference(std::unique_ptr<DBus::Connection> connection, DBusConnection *underlying)
{
    bool freed = false;
    dbus_connection_ref(underlying);
    dbus_connection_set_dispatch_status_function(underlying, nullptr, &freed,
                                                 [](void *flag) { *static_cast<bool *>(flag) = true; });
    connection.reset();
    dbus_connection_unref(underlying);
    if (!freed)
        dbus_connection_unref(underlying);
    if (!freed) // more are left than we know of
        dbus_connection_set_dispatch_status_function(underlying, nullptr, nullptr, nullptr);
}

// A connection that goes must have left the dispatcher's queue, which keeps a plain pointer to it.
void disconnect(PollLoop &loop, DBus::Connection &connection)
{
    loop.calls().detach();
    connection.disconnect();
    loop.dispatch_pending();
}

} // namespace

std::unique_ptr<DBus::Connection> openSystemBus(PollLoop &loop)
{
    DBus::_init_threading();
    DBus::Connection opened = loop.openSystemBus();
    try {
        auto connection = std::make_unique<DBus::Connection>(opened);
        loop.calls().attach(connection.get());
        provenConnection = underlying(*connection, loop);
        return connection;
    } catch (...) {
        disconnect(loop, opened);
        throw;
    }
}

void closeSystemBus(PollLoop &loop, std::unique_ptr<DBus::Connection> connection)
{
    DBusConnection *const ofLibdbus = std::exchange(provenConnection, nullptr);
    disconnect(loop, *connection);
    if (ofLibdbus && !hasCopies(*connection))
        deleteWithForgottenReference(std::move(connection), ofLibdbus);
}
