// Opening and closing of the connection to the system bus.

#include "systembus.h"

#include <cstring>

#include <dbus/dbus.h>

namespace
{

// ---- What dbus-c++ hides

// Names a private member: access is not checked where a template is instantiated explicitly.
template <typename Tag, typename Tag::Member MEMBER>
struct PrivateMember {
    friend typename Tag::Member member(Tag) { return MEMBER; }
};

using Record = DBus::RefPtrI<DBus::Connection::Private>;
struct RecordOfConnection {
    using Member = Record DBus::Connection::*;
    friend Member member(RecordOfConnection);
};
struct CountOfRecord {
    using Member = DBus::RefCnt Record::*;
    friend Member member(CountOfRecord);
};
template struct PrivateMember<RecordOfConnection, &DBus::Connection::_pvt>;
template struct PrivateMember<CountOfRecord, &Record::__cnt>;

// The record of a connection begins with libdbus's connection, the names that were asked for, and the dispatcher.
constexpr size_t DISPATCHER_OFFSET = sizeof(DBusConnection *) + sizeof(std::vector<std::string>);

// libdbus's connection behind one of dbus-c++ that nobody else has a copy of. NULL unless the record holds our dispatcher
// where it should, and the connection's socket is one that the dispatcher watches.
DBusConnection *underlying(const DBus::Connection &connection, PollLoop &loop)
{
    const Record &record = connection.*member(RecordOfConnection());
    if (!(record.*member(CountOfRecord())).one())
        return nullptr;
    const auto *const bytes = reinterpret_cast<const unsigned char *>(record.get());
    const DBus::Dispatcher *dispatcher = nullptr;
    DBusConnection *found = nullptr;
    memcpy(&dispatcher, bytes + DISPATCHER_OFFSET, sizeof dispatcher);
    memcpy(&found, bytes, sizeof found);
    int socket = -1;
    const bool proven = dispatcher == &loop && found && dbus_connection_get_unix_fd(found, &socket) &&
                        loop.watchesSocket(socket);
    return proven ? found : nullptr;
}

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
    loop.reserveWatches();
    DBus::Connection opened = DBus::Connection::SystemBus();
    try {
        auto connection = std::make_unique<DBus::Connection>(opened);
        loop.calls().attach(connection.get());
        return connection;
    } catch (...) {
        disconnect(loop, opened);
        throw;
    }
}

void closeSystemBus(PollLoop &loop, std::unique_ptr<DBus::Connection> connection)
{
    DBusConnection *const found = underlying(*connection, loop);
    disconnect(loop, *connection);
    if (found)
        deleteWithForgottenReference(std::move(connection), found);
}
