// The entry points and objects of the proxy manager client that C++ programs find in the library beside the C
// interface. Those who use them include dbus-c++'s headers themselves.
#ifndef PROXYMANAGER_PROXYMANAGERCLIENTWRAPPER_H
#define PROXYMANAGER_PROXYMANAGERCLIENTWRAPPER_H

#include "owningdispatcher.h"
#include "proxymanager.h"

// The connection to the system bus, from the first create to cleanup_proxy_manager_client.
extern DBus::Connection *dbus_conn;

// Constructed as any object is, and never destroyed: threads that the program leaves behind may still be in it, and come
// to it, while the process ends.
template <typename Object>
union Lasting {
    Object object;

    Lasting() : object() {}
    ~Lasting() {}
    Object *operator->() { return &object; }
};

// The dispatcher of that connection; for programs a DBus::BusDispatcher.
extern Lasting<OwningDispatcher> dbus_dispatcher;

// Makes the process's client on a connection of the program's own, which the program dispatches itself, on
// one thread. That connection must be in working order and outlive the client. Calls go out on the calling
// thread.
int create_proxy_manager_client(DBus::Connection &conn);
// Like cleanup_proxy_manager_client, but the connection stays for the next create.
int cleanup_without_conn();
// What the dispatch thread runs: dispatches until leave() is called on the dispatcher. The argument is
// ignored.
void *dbusLoopFunc(void *);

#endif
