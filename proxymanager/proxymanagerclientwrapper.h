// The entry points and objects of the proxy manager client that C++ programs find in the library beside the C
// interface. Those who use them include dbus-c++'s headers themselves.
#ifndef PROXYMANAGER_PROXYMANAGERCLIENTWRAPPER_H
#define PROXYMANAGER_PROXYMANAGERCLIENTWRAPPER_H

#include "pollloop.h"
#include "proxymanager.h"

#include <new>

// The connection to the system bus, from the first create to cleanup_proxy_manager_client.
extern DBus::Connection *dbus_conn;

// Storage of an object that is made when the library is loaded, unless that fails, and is never destroyed: threads that the
// program leaves behind may still be in it, and come to it, while the process ends.
template <typename Object>
class NeverDestroyed
{
public:
    NeverDestroyed() noexcept { construct(); }
    // Unless it is there; false when that fails. What dbus-c++ throws then has a text that is freed already.
    bool construct() noexcept
    {
        try {
            if (!object_)
                object_ = new (bytes_) Object;
        } catch (...) {
        }
        return object_;
    }
    bool isConstructed() const { return object_; }
    Object &operator*() { return *object_; }
    Object *operator->() { return object_; }

private:
    alignas(Object) unsigned char bytes_[sizeof(Object)];
    Object *object_ = nullptr;
};

// The dispatcher of that connection; for programs a DBus::BusDispatcher. leave() of that class throws when no loop runs.
extern NeverDestroyed<PollLoop> dbus_dispatcher;

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
