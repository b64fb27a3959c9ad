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
#include <thread>
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

    // Opens the library's connection to the system bus; the loop may also serve some of the program's own. Throws
    // DBus::Error, std::bad_alloc.
    DBus::Connection openSystemBus();
    // In a forked child: the sockets and all connections are the parent's.
    void resetInChild();

    // ---- For the library's connection

    bool watchesSystemBus(int socket);
    // Takes in and dispatches what has arrived, without waiting, while no thread does.
    void dispatchArrived();
    // Whether somebody has closed its socket: libdbus would go on using the number.
    bool hasLostSystemBus();
    // Never touches it again.
    void abandonSystemBus();

    // ---- DBus::BusDispatcher

    void enter() override;
    // Makes enter() return, also when it has not been reached yet. Does not wait.
    void leave() override { thread_.stop(); }
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
        SocketWatch(DBus::Watch::Internal *internal, PollLoop &loop, bool ofSystemBus);
        void toggle() override;

        const bool reads;       // or writes
        const bool ofSystemBus; // or of a connection of the program's own
        OwnDescriptor socket;
        std::atomic<bool> isEnabled;

    private:
        PollLoop &loop_;
    };
    using Watches = std::list<std::optional<SocketWatch>>;

    int pollSockets(int timeout);
    void handleReady();
    bool isRegistered(const SocketWatch *watch);

    DispatchThread thread_;
    CallQueue calls_{thread_};

    std::atomic<std::thread::id> opener_{}; // of the connection to the system bus, while it is being opened

    // Guards the next three. It is taken inside libdbus's locks: nothing of libdbus is called under it.
    std::mutex watchMutex_;
    Watches watches_;
    Watches abandoned_; // libdbus, or a thread that is stuck, may still look at them
    Watches spare_;     // libdbus asks for watches with its locks held, where nothing may be thrown

    std::vector<pollfd> polled_; // of the thread alone; the watches of the first entries are in ready_
    std::vector<SocketWatch *> ready_;
};

#endif
