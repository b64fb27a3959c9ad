// The connection to the system bus, and the reference to it that dbus-c++ forgets.
#ifndef PROXYMANAGER_SYSTEMBUS_H
#define PROXYMANAGER_SYSTEMBUS_H

#include "pollloop.h"

#include <memory>

// Opens a connection that the loop serves and whose calls its thread carries out. Throws DBus::Error.
std::unique_ptr<DBus::Connection> openSystemBus(PollLoop &loop);
// Closes it, with all that dbus-c++ and libdbus keep for it. No thread serves it any more.
void closeSystemBus(PollLoop &loop, std::unique_ptr<DBus::Connection> connection);

#endif
