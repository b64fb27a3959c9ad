// A D-Bus dispatcher whose thread owns a connection: while it runs, that thread alone sends, reads and
// dispatches, and carries out the calls of all other threads. So a slow answer holds nobody else up, signals
// are handled as they come, and neither libdbus nor dbus-c++ ever sees two threads on the connection at once.
#ifndef PROXYMANAGER_OWNINGDISPATCHER_H
#define PROXYMANAGER_OWNINGDISPATCHER_H

#include <atomic>
#include <chrono>
#include <list>
#include <mutex>
#include <vector>

#include <dbus-c++/dbus.h>

#include <poll.h>
#include <pthread.h>
#include <sys/types.h>

// A condition variable on the monotonic clock, whatever happens to the wall clock.
class MonotonicCondition
{
public:
    MonotonicCondition();
    ~MonotonicCondition();
    MonotonicCondition(const MonotonicCondition &) = delete;
    MonotonicCondition &operator=(const MonotonicCondition &) = delete;

    static timespec deadline(std::chrono::milliseconds fromNow);
    // False when the deadline has passed. May wake for no reason.
    bool waitUntil(std::unique_lock<std::mutex> &lock, const timespec &deadline);
    void notifyAll();

private:
    pthread_cond_t condition_;
};

// Where callers leave their calls and the thread leaves the replies.
class CallDesk
{
public:
    CallDesk();
    CallDesk(const CallDesk &) = delete;
    CallDesk &operator=(const CallDesk &) = delete;

    // ---- For callers

    // Sends a call and waits for its reply. Throws DBus::Error: the service's own, NoReply after the default
    // time-out of D-Bus, Disconnected when the connection is lost. Without a thread that owns the connection,
    // and on that thread, the call goes out directly.
    DBus::Message call(DBus::Connection &connection, DBus::CallMessage &message, int timeout);
    // Waits until no thread is at the desk or expected; false when the time is up.
    bool waitUntilLeft(std::chrono::milliseconds limit);
    // Fails all calls from here on: the process ends.
    void retire();

    // ---- For the creating and destroying thread, while no thread is at the desk

    // The connection must stay until disown().
    void own(DBus::Connection *connection);
    void disown();
    // To be called before the thread is started: from here on calls wait for it, and stop() will end it.
    // False when there are no means to wake it.
    bool expectThread();
    // The thread could not be started after all.
    void forgetThread();
    bool hasThread();

    // ---- For the thread

    // False when another thread is at the desk.
    bool beginThread();
    void endThread();
    bool onThread() const;
    void stop();
    bool stopped() const { return stop_; }
    void wake();
    void drainWake();
    int wakeDescriptor() const { return wakeDescriptor_; }
    void sendQueued();
    void handOverReplies();
    void failLostCalls();

private:
    // A call that its thread waits for; lives on that thread's stack.
    struct Call {
        enum class State { Waiting, Answered, Lost, NoMemory };

        DBus::CallMessage *message;
        unsigned int serial = 0; // 0 until it is sent
        State state = State::Waiting;
        std::list<DBus::Message> reply;
        MonotonicCondition changed;
    };

    bool makeWakeDescriptor();
    bool isOwned(const DBus::Connection &connection) const;
    bool awaitReply(DBus::Connection &connection, Call &call);
    bool receive(const DBus::Message &message);
    std::list<Call *>::iterator findSent(const DBus::Message &reply);
    static void end(Call *call, Call::State state);
    void failAll();

    std::atomic<bool> stop_{false};
    int wakeDescriptor_ = -1;
    pid_t wakeProcess_ = 0;

    std::mutex mutex_;     // guards the next six
    bool running_ = false; // a thread is at the desk, or expected
    bool entered_ = false;
    bool retired_ = false;
    DBus::Connection *owned_ = nullptr;
    std::list<Call *> calls_; // in the order in which they came
    MonotonicCondition left_;

    DBus::MessageSlot replyFilter_;
    std::list<DBus::Message> arrived_; // of the thread alone
};

class OwningDispatcher : public DBus::BusDispatcher
{
public:
    OwningDispatcher();

    CallDesk &calls() { return desk_; }
    // Takes in and dispatches what has arrived on the connections, without waiting, while no thread does.
    void dispatchArrived();

    // ---- DBus::BusDispatcher

    void enter() override;
    // Makes enter() return, also when it has not been reached yet. Does not wait.
    void leave() override;
    void do_iteration() override;
    void dispatch() override;
    DBus::Watch *add_watch(DBus::Watch::Internal *internal) override;
    void rem_watch(DBus::Watch *watch) override;
    DBus::Timeout *add_timeout(DBus::Timeout::Internal *internal) override;
    void rem_timeout(DBus::Timeout *timeout) override;

private:
    class SocketWatch;

    void wakeFromOutside();
    int pollSockets(int timeout);
    void handleReady();
    bool isRegistered(const SocketWatch *watch);
    void rememberUnlockPair();
    bool unlockPairIntact() const;
    void repairUnlockPair();

    CallDesk desk_;
    int unlockCopy_ = -1; // of the reading end of the base class's pipe
    pid_t unlockProcess_ = 0;
    bool woken_ = false; // of the thread alone

    std::mutex watchMutex_; // taken inside libdbus's locks: nothing of libdbus is called under it
    std::vector<SocketWatch *> watches_;
    std::vector<pollfd> polled_; // of the thread alone; the watches of the first entries are in ready_
    std::vector<SocketWatch *> ready_;
};

#endif
