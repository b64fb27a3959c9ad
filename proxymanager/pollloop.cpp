// The poll loop over libdbus's watches.

#include "pollloop.h"

#include <algorithm>
#include <cerrno>
#include <new>

#include <dbus/dbus.h>
#include <syslog.h>
#include <unistd.h>

namespace
{

// What has arrived is taken in at most this often in a row: a peer that never stops sending must not hold us.
constexpr int DISPATCH_ROUNDS = 4096;
constexpr size_t WATCHES_OF_CONNECTION = 2;

int toWatchFlags(short events)
{
    return (events & POLLIN ? DBUS_WATCH_READABLE : 0) | (events & POLLOUT ? DBUS_WATCH_WRITABLE : 0) |
           (events & POLLHUP ? DBUS_WATCH_HANGUP : 0) | (events & POLLERR ? DBUS_WATCH_ERROR : 0);
}

// Time-outs are kept by the waiting callers. Those of libdbus's own blocking calls need no timer of ours, and
// dbus-c++'s timers read the wall clock and use freed memory when they fire.
class InertTimeout : public DBus::Timeout
{
public:
    explicit InertTimeout(DBus::Timeout::Internal *internal) : DBus::Timeout(internal) {}
    void toggle() override {}
};

} // namespace

// ---- Life

PollLoop::PollLoop()
{
    for (int &descriptor : _fdunlock) {
        ::close(descriptor);
        descriptor = -1;
    }
}

void PollLoop::resetInChild()
{
    new (&watchMutex_) std::mutex;
    opener_ = std::thread::id();
    thread_.resetInChild();
    calls_.resetInChild();
    _fdunlock[1] = -1;
    abandoned_.splice(abandoned_.end(), watches_);
}

DBus::Connection PollLoop::openSystemBus()
{
    {
        const std::lock_guard<std::mutex> lock(watchMutex_);
        while (spare_.size() < WATCHES_OF_CONNECTION)
            spare_.emplace_back();
    }
    struct Opening {
        PollLoop &loop;
        ~Opening() { loop.opener_ = std::thread::id(); }
    } const opening{*this};
    opener_ = std::this_thread::get_id();
    const StandardStreamGuard guard;
    return DBus::Connection::SystemBus();
}

void PollLoop::abandonSystemBus()
{
    const std::lock_guard<std::mutex> lock(watchMutex_);
    calls_.abandon();
    for (auto next = watches_.begin(); next != watches_.end();) {
        const auto watch = next++;
        if ((*watch)->ofSystemBus)
            abandoned_.splice(abandoned_.end(), watches_, watch);
    }
}

bool PollLoop::hasLostSystemBus()
{
    const std::lock_guard<std::mutex> lock(watchMutex_);
    return std::any_of(watches_.begin(), watches_.end(),
                       [](const auto &watch) { return watch->ofSystemBus && !watch->socket.isOurs(); });
}

void PollLoop::enter()
{
    if (!thread_.enter()) {
        calls_.failUnserved();
        return;
    }
    struct AtEnd { // also when there is no memory to go on
        PollLoop &loop;
        ~AtEnd()
        {
            loop.calls_.deliverReplies();
            loop._fdunlock[1] = -1;
            loop.thread_.leave();
            loop.calls_.failAll();
        }
    } const atEnd{*this};
    _fdunlock[1] = thread_.unlockDescriptor();
    while (thread_.state() == DispatchThread::State::Running) {
        calls_.sendQueued();
        dispatch_pending();
        calls_.deliverReplies();
        calls_.failDisconnected();
        if (thread_.isReachable()) // what is asked for afterwards wakes the poll
            dispatch();
    }
}

void PollLoop::dispatch()
{
    const int ready = pollSockets(-1);
    if (ready < 0 && errno != EINTR) {
        syslog(LOG_ERR, "%s%s poll failed with error %d", "", __func__, errno);
        thread_.lose();
    } else if (hasLostSystemBus()) { // libdbus would close the number, whosever it is
        thread_.lose();
    } else if (ready > 0 && (polled_.back().revents == 0 || thread_.drain())) {
        handleReady();
    }
}

void PollLoop::dispatchArrived()
{
    if (thread_.isBusy())
        return;
    for (int round = 0; round < DISPATCH_ROUNDS; round++) {
        dispatch_pending();
        if (pollSockets(0) <= 0)
            return;
        handleReady();
    }
}

// ---- Sockets

PollLoop::SocketWatch::SocketWatch(DBus::Watch::Internal *internal, PollLoop &loop, bool isOfSystemBus)
    : DBus::Watch(internal), reads((flags() & DBUS_WATCH_READABLE) != 0), ofSystemBus(isOfSystemBus),
      isEnabled(enabled()), loop_(loop)
{
    socket.adopt(descriptor());
}

void PollLoop::SocketWatch::toggle()
{
    isEnabled = enabled();
    loop_.thread_.wake();
}

DBus::Watch *PollLoop::add_watch(DBus::Watch::Internal *internal)
{
    const std::lock_guard<std::mutex> lock(watchMutex_);
    if (spare_.empty()) // a connection of the program's own
        spare_.emplace_back();
    SocketWatch *const watch =
        &spare_.front().emplace(internal, *this, opener_ == std::this_thread::get_id());
    watches_.splice(watches_.end(), spare_, spare_.begin());
    thread_.wake();
    return watch;
}

void PollLoop::rem_watch(DBus::Watch *watch)
{
    const std::lock_guard<std::mutex> lock(watchMutex_);
    const auto present = std::find_if(watches_.begin(), watches_.end(),
                                      [=](const auto &registered) { return &*registered == watch; });
    if (present == watches_.end())
        return;
    present->reset();
    spare_.splice(spare_.end(), watches_, present);
    thread_.wake();
}

// One serves all: nothing but its address is used. Making it anew tells libdbus of it.
DBus::Timeout *PollLoop::add_timeout(DBus::Timeout::Internal *internal)
{
    alignas(InertTimeout) static unsigned char storage[sizeof(InertTimeout)];
    const std::lock_guard<std::mutex> lock(watchMutex_);
    return new (storage) InertTimeout(internal);
}

bool PollLoop::watchesSystemBus(int socket)
{
    const std::lock_guard<std::mutex> lock(watchMutex_);
    return std::any_of(watches_.begin(), watches_.end(), [=](const auto &watch) {
        return watch->ofSystemBus && watch->socket.number() == socket;
    });
}

// The result is that of poll. Without a time-out, what wakes the thread is the last. The program's own connections are for
// the loop only, as long as their sockets are there.
int PollLoop::pollSockets(int timeout)
{
    polled_.clear();
    ready_.clear();
    {
        const std::lock_guard<std::mutex> lock(watchMutex_);
        // Those that read come first: an end of the connection must not hide what was sent before it.
        for (const bool reading : {true, false}) {
            for (auto &watch : watches_) {
                if (watch->isEnabled && watch->reads == reading &&
                    (watch->ofSystemBus || (timeout != 0 && watch->socket.isOurs()))) {
                    polled_.push_back(
                        {watch->socket.number(), static_cast<short>(reading ? POLLIN : POLLOUT), 0});
                    ready_.push_back(&*watch);
                }
            }
        }
    }
    if (timeout != 0)
        polled_.push_back({thread_.wakeDescriptor(), POLLIN, 0});
    return poll(polled_.data(), polled_.size(), timeout);
}

void PollLoop::handleReady()
{
    for (size_t i = 0; i < ready_.size(); i++) {
        if (polled_[i].revents != 0 && isRegistered(ready_[i]))
            ready_[i]->handle(toWatchFlags(polled_[i].revents));
    }
}

bool PollLoop::isRegistered(const SocketWatch *watch)
{
    const std::lock_guard<std::mutex> lock(watchMutex_);
    return std::any_of(watches_.begin(), watches_.end(), [=](const auto &each) { return &*each == watch; });
}
