// The queue of calls, and the matching of their replies.

#include "callqueue.h"

#include "dispatchthread.h"

#include <algorithm>
#include <new>
#include <utility>

#include <dbus/dbus.h>

struct CallFailure {
    const char *name;
    const char *text;
};

namespace
{

using State = DispatchThread::State;

// D-Bus leaves the default time-out of a call to the library; this is that of libdbus.
constexpr std::chrono::milliseconds DEFAULT_TIMEOUT(25000);

constexpr CallFailure DISCONNECTED = {DBUS_ERROR_DISCONNECTED, "Connection is closed"};
constexpr CallFailure NO_MEMORY = {DBUS_ERROR_NO_MEMORY, "No memory for the call or its reply"};
constexpr CallFailure NO_REPLY = {DBUS_ERROR_NO_REPLY,
                                  "Did not receive a reply. Possible causes include: the remote application "
                                  "did not send a reply, the message "
                                  "bus security policy blocked the reply, the reply timeout expired, or the "
                                  "network connection was broken."};

} // namespace

CallQueue::CallQueue(DispatchThread &thread) : thread_(thread)
{
    replyFilter_ = new DBus::Callback<CallQueue, bool, const DBus::Message &>(this, &CallQueue::receive);
}

void CallQueue::attach(DBus::Connection *connection)
{
    connection->add_filter(replyFilter_);
    const std::lock_guard<std::mutex> lock(mutex_);
    connection_ = connection;
}

void CallQueue::detach()
{
    std::unique_lock<std::mutex> lock(mutex_);
    DBus::Connection *const connection = std::exchange(connection_, nullptr);
    lock.unlock();
    if (connection)
        connection->remove_filter(replyFilter_);
}

// ---- For callers

DBus::Message CallQueue::call(DBus::Connection &connection, DBus::CallMessage &message, int timeout)
{
    Call call{&message, 0, false, nullptr, {}, {}};
    if (thread_.isCurrent() || !awaitReply(connection, call)) {
        DBus::Message reply = connection.send_blocking(message, timeout);
        thread_.wake(); // libdbus may have read signals along with the reply
        return reply;
    }
    if (call.failure)
        throw DBus::Error(call.failure->name, call.failure->text);
    if (call.reply.front().is_error())
        throw DBus::Error(call.reply.front());
    return call.reply.front();
}

// False when there is no thread to carry the call out.
bool CallQueue::awaitReply(DBus::Connection &connection, Call &call)
{
    std::unique_lock<std::mutex> lock(mutex_);
    const State state = thread_.state();
    if (state != State::ShutDown && (state == State::None || !connection_ || !(*connection_ == connection)))
        return false;
    calls_.push_back(&call);
    const auto deadline = std::chrono::steady_clock::now() + DEFAULT_TIMEOUT;
    lock.unlock(); // the thread needs it as soon as it is awake
    thread_.wake();
    failUnserved();
    lock.lock();
    call.changed.wait_until(lock, deadline, [&] { return call.ended; });
    if (!call.ended)
        end(std::find(calls_.begin(), calls_.end(), &call), &NO_REPLY);
    return true;
}

// A thread that is lost later does so itself.
void CallQueue::failUnserved()
{
    const State state = thread_.state();
    if (state == State::ShutDown || state == State::Lost)
        failAll();
}

void CallQueue::failAll()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    for (auto each = calls_.begin(); each != calls_.end();)
        each = end(each, &DISCONNECTED);
}

// The caller finds its call ended as soon as it has the lock.
std::list<CallQueue::Call *>::iterator CallQueue::end(std::list<Call *>::iterator call,
                                                      const CallFailure *failure)
{
    (*call)->failure = failure;
    (*call)->ended = true;
    (*call)->changed.notify_all();
    return calls_.erase(call);
}

// ---- For the thread

// Sent under the lock, so that no caller goes away with its message meanwhile; sending does not block.
void CallQueue::sendQueued()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!connection_ || !connection_->connected())
        return;
    for (auto each = calls_.begin(); each != calls_.end();) {
        Call *const call = *each;
        const bool sent = call->serial != 0 || connection_->send(*call->message, &call->serial);
        each = sent ? std::next(each) : end(each, &NO_MEMORY);
    }
}

std::list<CallQueue::Call *>::iterator CallQueue::findSent(const DBus::Message &reply)
{
    const auto serial = static_cast<unsigned int>(reply.reply_serial());
    return std::find_if(calls_.begin(), calls_.end(),
                        [=](const Call *call) { return serial != 0 && call->serial == serial; });
}

bool CallQueue::receive(const DBus::Message &message)
{
    if (message.type() != DBUS_MESSAGE_TYPE_METHOD_RETURN && message.type() != DBUS_MESSAGE_TYPE_ERROR)
        return false;
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto sent = findSent(message);
    if (sent == calls_.end())
        return false;
    try {
        arrived_.push_back(message);
    } catch (const std::bad_alloc &) { // libdbus calls this: nothing may leave
        end(sent, &NO_MEMORY);
    }
    return true;
}

// The counts of dbus-c++'s references are not atomic: a reply changes hands as a whole, under the lock, and
// only when dispatching has let go of it. When its caller has given up it is dropped.
void CallQueue::deliverReplies()
{
    if (arrived_.empty())
        return;
    const std::lock_guard<std::mutex> lock(mutex_);
    while (!arrived_.empty()) {
        std::list<DBus::Message> reply;
        reply.splice(reply.begin(), arrived_, arrived_.begin());
        const auto sent = findSent(reply.front());
        if (sent == calls_.end())
            continue;
        (*sent)->reply.swap(reply);
        end(sent, nullptr);
    }
}

void CallQueue::resetInChild()
{
    new (&mutex_) std::mutex;
    new (&calls_) std::list<Call *>; // which a caller may have been about to change
    abandon();
}

void CallQueue::failDisconnected()
{
    if (connection_ && !connection_->connected())
        failAll();
}
