// A dispatcher whose thread owns a connection: while it runs, that thread alone sends, reads and dispatches, and carries
// out the calls of all other threads. So a slow answer holds nobody else up, signals are handled as they come, and neither
// libdbus nor dbus-c++ ever sees two threads on the connection at once.
#ifndef PROXYMANAGER_POLLLOOP_H
#define PROXYMANAGER_POLLLOOP_H

#include "callqueue.h"
#include "dispatchthread.h"

#include <atomic>
#include <list>
#include <mutex>
#include <optional>
#include <vector>

#include <dbus-c++/dbus.h>

#include <poll.h>

class PollLoop : public DBus::BusDispatcher
{
public:
    // Throws when dbus-c++ gets no pipe for its own loop, which is closed again at once.
    PollLoop();

    DispatchThread &thread() { return thread_; }
    CallQueue &calls() { return calls_; }

    // Makes room for the watches of one more connection. Throws std::bad_alloc.
    void reserveWatches();
    // Whether this is the socket of a connection that the loop serves.
    bool watchesSocket(int descriptor);
    // Takes in and dispatches what has arrived on the connections, without waiting, while no thread does.
    void dispatchArrived();
    // Whether somebody has closed the socket of a connection: libdbus would go on using its number.
    bool hasLostSocket();
    // Never touches the present connections again.
    void abandonConnections();
    // In a forked child: the sockets and connections are the parent's.
    void leaveToParent();

    // ---- DBus::BusDispatcher

    void enter() override;
    // Makes enter() return, also when it has not been reached yet. Does not wait.
    void leave() override { thread_.stop(); }
    void do_iteration() override;
    void dispatch() override;
    DBus::Watch *add_watch(DBus::Watch::Internal *internal) override;
    void rem_watch(DBus::Watch *watch) override;
    DBus::Timeout *add_timeout(DBus::Timeout::Internal *internal) override;
    void rem_timeout(DBus::Timeout *) override {}

private:
    // libdbus has one watch for reading and one for writing on the same socket; each is told its own events only.
    class SocketWatch : public DBus::Watch
    {
    public:
        SocketWatch(DBus::Watch::Internal *internal, PollLoop &loop);
        void toggle() override;
        pollfd request() const;

        const bool reads;
        const bool writes;
        OwnDescriptor socket;
        std::atomic<bool> isEnabled;

    private:
        PollLoop &loop_;
    };
    using Watches = std::list<std::optional<SocketWatch>>;

    void wakeFromOutside();
    bool pollSockets(int timeout);
    void handleReady();
    bool isRegistered(const SocketWatch *watch);

    DispatchThread thread_;
    CallQueue calls_{thread_};

    std::mutex
        watchMutex_; // guards the next three; taken inside libdbus's locks: nothing of libdbus is called under it
    Watches watches_;
    Watches abandoned_; // libdbus, or a thread that is stuck, may still look at them
    Watches spare_;     // libdbus asks for watches with its locks held, where nothing may be thrown

    std::vector<pollfd> polled_; // of the thread alone; the watches of the first entries are in ready_
    std::vector<SocketWatch *> ready_;
};

#endif
