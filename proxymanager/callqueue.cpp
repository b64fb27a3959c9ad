// The queue of calls, and the matching of their replies.

#include "callqueue.h"

#include "dispatchthread.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <new>
#include <utility>

#include <dbus/dbus.h>

namespace
{

// D-Bus leaves the default time-out of a call to the library; this is that of libdbus.
constexpr std::chrono::milliseconds DEFAULT_TIMEOUT(25000);
constexpr const char *NO_REPLY_TEXT =
    "Did not receive a reply. Possible causes include: the remote application did not send a reply, the "
    "message "
    "bus security policy blocked the reply, the reply timeout expired, or the network connection was broken.";

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
    DBus::Connection *connection = nullptr;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        std::swap(connection, connection_);
    }
    if (connection)
        connection->remove_filter(replyFilter_);
}

// ---- For callers

DBus::Message CallQueue::call(DBus::Connection &connection, DBus::CallMessage &message, int timeout)
{
    Call call;
    call.message = &message;
    if (!thread_.isCurrent() && awaitReply(connection, call)) {
        if (call.state == Call::State::Lost)
            throw DBus::Error(DBUS_ERROR_DISCONNECTED, "Connection is closed");
        if (call.state == Call::State::NoMemory)
            throw DBus::Error(DBUS_ERROR_NO_MEMORY, "No memory for the call or its reply");
        if (call.state == Call::State::Waiting)
            throw DBus::Error(DBUS_ERROR_NO_REPLY, NO_REPLY_TEXT);
        if (call.reply.front().is_error())
            throw DBus::Error(call.reply.front());
        return call.reply.front();
    }
    DBus::Message reply = connection.send_blocking(message, timeout);
    thread_.wake(); // libdbus may have read signals along with the reply
    return reply;
}

// Whether the thread, and not the caller, has to do with the call, which may be lost at once.
bool CallQueue::isServed(const DBus::Connection &connection, Call &call) const
{
    const DispatchThread::State state = thread_.state();
    const bool isOwn = connection_ && *connection_ == connection;
    if (state == DispatchThread::State::Retired || (state == DispatchThread::State::Lost && isOwn))
        call.state = Call::State::Lost;
    return call.state == Call::State::Lost || (state != DispatchThread::State::None && isOwn);
}

bool CallQueue::awaitReply(DBus::Connection &connection, Call &call)
{
    std::unique_lock<std::mutex> lock(mutex_);
    if (!isServed(connection, call))
        return false;
    if (call.state == Call::State::Lost)
        return true;
    calls_.push_back(&call);
    const auto deadline = std::chrono::steady_clock::now() + DEFAULT_TIMEOUT;
    lock.unlock(); // the thread needs it as soon as it is awake
    const bool woken = thread_.wake();
    lock.lock();
    if (!woken)
        failAllLocked();
    if (!call.changed.wait_until(lock, deadline, [&] { return call.state != Call::State::Waiting; }))
        calls_.remove(&call);
    return true;
}

void CallQueue::failAll()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    failAllLocked();
}

void CallQueue::failAllLocked()
{
    for (Call *call : calls_)
        end(call, Call::State::Lost);
    calls_.clear();
}

// The caller finds its call ended as soon as it has the lock.
void CallQueue::end(Call *call, Call::State state)
{
    call->state = state;
    call->changed.notify_all();
}

// ---- For the thread

// Sent under the lock, so that no caller goes away with its message meanwhile; sending does not block.
void CallQueue::sendQueued()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!connection_ || !connection_->connected())
        return;
    for (auto each = calls_.begin(); each != calls_.end();) {
        Call *const call = *each++;
        if (call->serial != 0 || connection_->send(*call->message, &call->serial))
            continue;
        calls_.erase(std::prev(each));
        end(call, Call::State::NoMemory);
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
        end(*sent, Call::State::NoMemory);
        calls_.erase(sent);
    }
    return true;
}

// The counts of dbus-c++'s references are not atomic: a reply changes hands as a whole, under the lock, and
// only when dispatching has let go of it.
void CallQueue::deliverReplies()
{
    if (arrived_.empty())
        return;
    const std::lock_guard<std::mutex> lock(mutex_);
    while (!arrived_.empty()) {
        const auto sent = findSent(arrived_.front());
        if (sent == calls_.end()) {
            arrived_.pop_front(); // its caller has given up
            continue;
        }
        Call *const call = *sent;
        calls_.erase(sent);
        call->reply.splice(call->reply.end(), arrived_, arrived_.begin());
        end(call, Call::State::Answered);
    }
}

void CallQueue::failDisconnected()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (connection_ && !connection_->connected())
        failAllLocked();
}
