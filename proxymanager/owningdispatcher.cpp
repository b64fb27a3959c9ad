// The dispatch loop of the owning thread: its life, the calls that it carries out, and its sockets.

#include "owningdispatcher.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <ctime>
#include <iterator>
#include <new>
#include <utility>

#include <dbus/dbus.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

// D-Bus leaves the default time-out of a call to the library; this is that of libdbus.
constexpr std::chrono::milliseconds DEFAULT_TIMEOUT(25000);
constexpr const char *NO_REPLY_TEXT =
    "Did not receive a reply. Possible causes include: the remote application did not send a reply, the "
    "message "
    "bus security policy blocked the reply, the reply timeout expired, or the network connection was broken.";
// What has arrived is taken in at most this often in a row: a peer that never stops sending must not hold us.
constexpr int DISPATCH_ROUNDS = 4096;

constexpr size_t WATCHES_KEPT = 16; // a connection has two

thread_local const CallDesk *enteredHere = nullptr;

int toWatchFlags(short events)
{
    int flags = 0;
    if (events & POLLIN)
        flags |= DBUS_WATCH_READABLE;
    if (events & POLLOUT)
        flags |= DBUS_WATCH_WRITABLE;
    if (events & POLLHUP)
        flags |= DBUS_WATCH_HANGUP;
    if (events & POLLERR)
        flags |= DBUS_WATCH_ERROR;
    if (events & POLLNVAL) // somebody closed the socket
        flags |= DBUS_WATCH_ERROR | DBUS_WATCH_HANGUP;
    return flags;
}

// libdbus asks for watches and timeouts with its locks held, where nothing may be thrown. So room for a few is
// there from the beginning, more than one connection needs; only what is beyond comes from the heap.
class RoomKept
{
public:
    static constexpr size_t ROOM = 8 * sizeof(void *);

    static void *operator new(size_t size)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        for (Slot &slot : slots_) {
            if (!slot.used) {
                slot.used = true;
                return slot.bytes;
            }
        }
        return ::operator new(size);
    }
    static void operator delete(void *block)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        for (Slot &slot : slots_) {
            if (slot.bytes == block) {
                slot.used = false;
                return;
            }
        }
        ::operator delete(block);
    }

private:
    struct Slot {
        alignas(std::max_align_t) unsigned char bytes[ROOM];
        bool used;
    };
    static inline std::mutex mutex_;
    static inline std::array<Slot, 2 * WATCHES_KEPT> slots_{};
};

// Time-outs are kept by the waiting callers. Those of libdbus's own blocking calls need no timer of ours, and
// dbus-c++'s timers read the wall clock and use freed memory when they fire.
class InertTimeout : public DBus::Timeout, public RoomKept
{
public:
    explicit InertTimeout(DBus::Timeout::Internal *internal) : DBus::Timeout(internal) {}
    void toggle() override {}
};
static_assert(sizeof(InertTimeout) <= RoomKept::ROOM);

} // namespace

// ---- Condition variable

MonotonicCondition::MonotonicCondition()
{
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_cond_init(&condition_, &attributes);
    pthread_condattr_destroy(&attributes);
}

MonotonicCondition::~MonotonicCondition()
{
    pthread_cond_destroy(&condition_);
}

timespec MonotonicCondition::deadline(std::chrono::milliseconds fromNow)
{
    constexpr long NANOSECONDS = 1000000000L;
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    time.tv_sec += static_cast<time_t>(fromNow.count() / 1000);
    time.tv_nsec += static_cast<long>(fromNow.count() % 1000) * 1000000L;
    if (time.tv_nsec >= NANOSECONDS) {
        time.tv_sec++;
        time.tv_nsec -= NANOSECONDS;
    }
    return time;
}

bool MonotonicCondition::waitUntil(std::unique_lock<std::mutex> &lock, const timespec &deadline)
{
    return pthread_cond_timedwait(&condition_, lock.mutex()->native_handle(), &deadline) != ETIMEDOUT;
}

void MonotonicCondition::notifyAll()
{
    pthread_cond_broadcast(&condition_);
}

// ---- Calls

CallDesk::CallDesk()
{
    makeWakeDescriptor();
    replyFilter_ = new DBus::Callback<CallDesk, bool, const DBus::Message &>(this, &CallDesk::receive);
}

// A process that was forked before its first thread needs one of its own: a shared one would wake the other
// process.
bool CallDesk::makeWakeDescriptor()
{
    if (wakeDescriptor_ < 0 || wakeProcess_ != getpid()) {
        if (wakeDescriptor_ >= 0)
            close(wakeDescriptor_);
        wakeDescriptor_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        wakeProcess_ = getpid();
    }
    return wakeDescriptor_ >= 0;
}

bool CallDesk::expectThread()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!makeWakeDescriptor())
        return false;
    stop_ = false;
    running_ = true;
    return true;
}

void CallDesk::forgetThread()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    running_ = false;
}

bool CallDesk::hasThread()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return running_;
}

bool CallDesk::beginThread()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (entered_ || !makeWakeDescriptor())
        return false;
    entered_ = true;
    running_ = true;
    enteredHere = this;
    return true;
}

void CallDesk::endThread()
{
    arrived_.clear();
    const std::lock_guard<std::mutex> lock(mutex_);
    failAll();
    enteredHere = nullptr;
    entered_ = false;
    running_ = false;
    stop_ = false;
    left_.notifyAll();
}

bool CallDesk::onThread() const
{
    return enteredHere == this;
}

void CallDesk::stop()
{
    stop_ = true;
    wake();
}

void CallDesk::retire()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    retired_ = true;
    failAll();
}

bool CallDesk::waitUntilLeft(std::chrono::milliseconds limit)
{
    const timespec deadline = MonotonicCondition::deadline(limit);
    std::unique_lock<std::mutex> lock(mutex_);
    while (running_) {
        if (!left_.waitUntil(lock, deadline))
            return !running_;
    }
    return true;
}

void CallDesk::wake()
{
    while (wakeDescriptor_ >= 0 && eventfd_write(wakeDescriptor_, 1) != 0 && errno == EINTR) {
    }
}

void CallDesk::drainWake()
{
    eventfd_t count;
    while (wakeDescriptor_ >= 0 && eventfd_read(wakeDescriptor_, &count) != 0 && errno == EINTR) {
    }
}

void CallDesk::own(DBus::Connection *connection)
{
    connection->add_filter(replyFilter_);
    const std::lock_guard<std::mutex> lock(mutex_);
    owned_ = connection;
}

void CallDesk::disown()
{
    DBus::Connection *connection = nullptr;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        std::swap(connection, owned_);
    }
    if (connection)
        connection->remove_filter(replyFilter_);
}

bool CallDesk::isOwned(const DBus::Connection &connection) const
{
    return owned_ && *owned_ == connection;
}

DBus::Message CallDesk::call(DBus::Connection &connection, DBus::CallMessage &message, int timeout)
{
    Call call;
    call.message = &message;
    if (!onThread() && awaitReply(connection, call)) {
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
    wake(); // libdbus may have read signals along with the reply
    return reply;
}

// False when there is no thread to carry the call out.
bool CallDesk::awaitReply(DBus::Connection &connection, Call &call)
{
    std::unique_lock<std::mutex> lock(mutex_);
    if (retired_) {
        call.state = Call::State::Lost;
        return true;
    }
    if (!running_ || !isOwned(connection))
        return false;
    calls_.push_back(&call);
    const timespec deadline = MonotonicCondition::deadline(DEFAULT_TIMEOUT);
    lock.unlock(); // the thread needs it as soon as it is awake
    wake();
    lock.lock();
    while (call.state == Call::State::Waiting) {
        if (!call.changed.waitUntil(lock, deadline))
            break;
    }
    if (call.state == Call::State::Waiting)
        calls_.remove(&call);
    return true;
}

// Sent under the lock, so that no caller goes away with its message meanwhile; sending does not block.
void CallDesk::sendQueued()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!owned_ || !owned_->connected())
        return;
    for (auto each = calls_.begin(); each != calls_.end();) {
        Call *const call = *each++;
        if (call->serial != 0 || owned_->send(*call->message, &call->serial))
            continue;
        calls_.erase(std::prev(each));
        end(call, Call::State::NoMemory);
    }
}

std::list<CallDesk::Call *>::iterator CallDesk::findSent(const DBus::Message &reply)
{
    const auto serial = static_cast<unsigned int>(reply.reply_serial());
    return std::find_if(calls_.begin(), calls_.end(),
                        [=](const Call *call) { return serial != 0 && call->serial == serial; });
}

// The caller finds its call ended as soon as it has the lock.
void CallDesk::end(Call *call, Call::State state)
{
    call->state = state;
    call->changed.notifyAll();
}

bool CallDesk::receive(const DBus::Message &message)
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
void CallDesk::handOverReplies()
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

void CallDesk::failLostCalls()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (owned_ && !owned_->connected())
        failAll();
}

void CallDesk::failAll()
{
    for (Call *call : calls_)
        end(call, Call::State::Lost);
    calls_.clear();
}

// ---- Loop

OwningDispatcher::OwningDispatcher()
{
    for (const int descriptor : _fdunlock) {
        fcntl(descriptor, F_SETFD, FD_CLOEXEC);
        fcntl(descriptor, F_SETFL, O_NONBLOCK);
    }
    watches_.reserve(WATCHES_KEPT);
    rememberUnlockPair();
}

void OwningDispatcher::enter()
{
    if (!desk_.beginThread())
        return;
    struct AtEnd { // also when there is no memory to go on
        CallDesk &desk;
        ~AtEnd() { desk.endThread(); }
    } const atEnd{desk_};
    repairUnlockPair();
    while (!desk_.stopped())
        do_iteration();
}

void OwningDispatcher::leave()
{
    desk_.stop();
}

// A wake-up that the poll has seen is drained before anything is looked at: whatever is asked for later wakes the
// poll at the end.
void OwningDispatcher::do_iteration()
{
    if (std::exchange(woken_, false))
        desk_.drainWake();
    if (desk_.stopped())
        return;
    desk_.sendQueued();
    dispatch_pending();
    desk_.handOverReplies();
    desk_.failLostCalls();
    dispatch();
}

// A program that names the dispatcher as a DBus::BusDispatcher object may reach leave() of the base class, which writes
// to the base class's pipe and closes it. That has to stop the thread as well, and the two numbers must not be mistaken
// for ours when they come back as somebody else's files: the thread polls a copy of its own.
void OwningDispatcher::rememberUnlockPair()
{
    if (unlockCopy_ >= 0)
        close(unlockCopy_);
    unlockCopy_ = fcntl(_fdunlock[0], F_DUPFD_CLOEXEC, 0);
    unlockProcess_ = getpid();
}

bool OwningDispatcher::unlockPairIntact() const
{
    struct stat ours = {};
    struct stat present = {};
    return fstat(unlockCopy_, &ours) == 0 && fstat(_fdunlock[0], &present) == 0 &&
           ours.st_dev == present.st_dev && ours.st_ino == present.st_ino;
}

// Also makes a new pair in a process that shares the present one with its parent.
void OwningDispatcher::repairUnlockPair()
{
    const bool intact = unlockPairIntact();
    if (intact && unlockProcess_ == getpid())
        return;
    for (const int descriptor : _fdunlock) {
        if (intact)
            close(descriptor);
    }
    if (pipe2(_fdunlock, O_CLOEXEC | O_NONBLOCK) != 0)
        _fdunlock[0] = _fdunlock[1] = -1;
    rememberUnlockPair();
}

// ---- Sockets

// libdbus has one watch for reading and one for writing on the same socket; each is told its own events only.
class OwningDispatcher::SocketWatch : public DBus::Watch, public RoomKept
{
public:
    SocketWatch(DBus::Watch::Internal *internal, OwningDispatcher &dispatcher)
        : DBus::Watch(internal), dispatcher_(dispatcher), descriptor_(descriptor()), isEnabled_(enabled()),
          reads_((flags() & DBUS_WATCH_READABLE) != 0), writes_((flags() & DBUS_WATCH_WRITABLE) != 0)
    {
    }

    void toggle() override
    {
        const bool on = enabled();
        {
            const std::lock_guard<std::mutex> lock(dispatcher_.watchMutex_);
            isEnabled_ = on;
        }
        dispatcher_.wakeFromOutside();
    }

    bool reads() const { return reads_; }
    bool isEnabled() const { return isEnabled_; }
    pollfd request() const
    {
        const int events = (reads_ ? POLLIN : 0) | (writes_ ? POLLOUT : 0);
        return {descriptor_, static_cast<short>(events), 0};
    }

private:
    OwningDispatcher &dispatcher_;
    const int descriptor_;
    bool isEnabled_;
    const bool reads_;
    const bool writes_;
};

// A poll that another thread is in has to see the change.
void OwningDispatcher::wakeFromOutside()
{
    if (!desk_.onThread())
        desk_.wake();
}

DBus::Watch *OwningDispatcher::add_watch(DBus::Watch::Internal *internal)
{
    static_assert(sizeof(SocketWatch) <= RoomKept::ROOM);
    auto *watch = new SocketWatch(internal, *this);
    {
        const std::lock_guard<std::mutex> lock(watchMutex_);
        watches_.push_back(watch);
    }
    wakeFromOutside();
    return watch;
}

void OwningDispatcher::rem_watch(DBus::Watch *watch)
{
    {
        const std::lock_guard<std::mutex> lock(watchMutex_);
        watches_.erase(std::remove(watches_.begin(), watches_.end(), watch), watches_.end());
    }
    delete watch;
    wakeFromOutside();
}

DBus::Timeout *OwningDispatcher::add_timeout(DBus::Timeout::Internal *internal)
{
    return new InertTimeout(internal);
}

void OwningDispatcher::rem_timeout(DBus::Timeout *timeout)
{
    delete timeout;
}

void OwningDispatcher::dispatch()
{
    if (pollSockets(-1) <= 0)
        return;
    if (polled_[ready_.size()].revents != 0)
        woken_ = true;
    if (polled_.back().revents != 0)
        desk_.stop();
    handleReady();
}

void OwningDispatcher::dispatchArrived()
{
    if (desk_.hasThread())
        return;
    for (int round = 0; round < DISPATCH_ROUNDS; round++) {
        dispatch_pending();
        desk_.drainWake();
        if (pollSockets(0) <= 0)
            return;
        handleReady();
    }
}

int OwningDispatcher::pollSockets(int timeout)
{
    polled_.clear();
    ready_.clear();
    {
        const std::lock_guard<std::mutex> lock(watchMutex_);
        // Those that read come first: an end of the connection must not hide what was sent before it.
        for (const bool reading : {true, false}) {
            for (SocketWatch *watch : watches_) {
                if (watch->isEnabled() && watch->reads() == reading) {
                    polled_.push_back(watch->request());
                    ready_.push_back(watch);
                }
            }
        }
    }
    polled_.push_back({desk_.wakeDescriptor(), POLLIN, 0});
    polled_.push_back({unlockCopy_, POLLIN, 0});
    return poll(polled_.data(), polled_.size(), timeout);
}

void OwningDispatcher::handleReady()
{
    for (size_t i = 0; i < ready_.size(); i++) {
        if (polled_[i].revents != 0 && isRegistered(ready_[i]))
            ready_[i]->handle(toWatchFlags(polled_[i].revents));
    }
}

bool OwningDispatcher::isRegistered(const SocketWatch *watch)
{
    const std::lock_guard<std::mutex> lock(watchMutex_);
    return std::find(watches_.begin(), watches_.end(), watch) != watches_.end();
}
