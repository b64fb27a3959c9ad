// The calls that the dispatch thread carries out for other threads.
#ifndef PROXYMANAGER_CALLQUEUE_H
#define PROXYMANAGER_CALLQUEUE_H

#include <condition_variable>
#include <list>
#include <mutex>

#include <dbus-c++/dbus.h>

class DispatchThread;
struct CallFailure;

class CallQueue
{
public:
    explicit CallQueue(DispatchThread &thread);

    // Sends a call and waits for its reply. Throws DBus::Error: the service's own, NoReply after the default time-out of
    // D-Bus, Disconnected when the connection or the thread is lost. When no thread serves the connection, and on that
    // thread, the call goes out directly.
    DBus::Message call(DBus::Connection &connection, DBus::CallMessage &message, int timeout);
    // Fails the calls that wait.
    void failAll();
    // The same, if no thread will ever come to them.
    void failUnserved();

    // ---- While no thread serves

    // The connection must stay until detach().
    void attach(DBus::Connection *connection);
    void detach();
    // Like detach, but touches nothing of the connection.
    void abandon() { connection_ = nullptr; }

    // ---- For the thread

    void sendQueued();
    void deliverReplies();
    void failDisconnected();

    // ---- In a forked child, which has none of the callers

    void resetInChild();

private:
    // A call that its thread waits for; lives on that thread's stack.
    struct Call {
        DBus::CallMessage *message;
        unsigned int serial = 0; // 0 until it is sent
        bool ended = false;
        const CallFailure *failure = nullptr; // when there is no reply
        std::list<DBus::Message> reply;
        std::condition_variable changed;
    };

    bool awaitReply(DBus::Connection &connection, Call &call);
    bool receive(const DBus::Message &message);
    std::list<Call *>::iterator findSent(const DBus::Message &reply);
    std::list<Call *>::iterator end(std::list<Call *>::iterator call, const CallFailure *failure);

    DispatchThread &thread_;
    std::mutex mutex_; // guards the next two
    DBus::Connection *connection_ = nullptr;
    std::list<Call *> calls_; // in the order in which they came

    DBus::MessageSlot replyFilter_;
    std::list<DBus::Message> arrived_; // of the thread alone
};

#endif
