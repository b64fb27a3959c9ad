// The poll loop over libdbus's watches.

#include "pollloop.h"

#include <algorithm>
#include <new>
#include <utility>

#include <dbus/dbus.h>
#include <unistd.h>

namespace
{

// What has arrived is taken in at most this often in a row: a peer that never stops sending must not hold us.
constexpr int DISPATCH_ROUNDS = 4096;
constexpr size_t WATCHES_OF_CONNECTION = 2;

constexpr std::pair<short, int> WATCH_FLAGS[] = {
    {POLLIN, DBUS_WATCH_READABLE},
    {POLLOUT, DBUS_WATCH_WRITABLE},
    {POLLHUP, DBUS_WATCH_HANGUP},
    {POLLERR, DBUS_WATCH_ERROR},
};

int toWatchFlags(short events)
{
    int flags = 0;
    for (const auto &[event, flag] : WATCH_FLAGS)
        flags |= events & event ? flag : 0;
    return flags;
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

void PollLoop::leaveToParent()
{
    new (&watchMutex_) std::mutex;
    thread_.startAnew();
    _fdunlock[1] = -1;
    abandonConnections();
}

void PollLoop::abandonConnections()
{
    const std::lock_guard<std::mutex> lock(watchMutex_);
    calls_.abandon();
    abandoned_.splice(abandoned_.end(), watches_);
}

bool PollLoop::hasLostSocket()
{
    const std::lock_guard<std::mutex> lock(watchMutex_);
    return std::any_of(watches_.begin(), watches_.end(),
                       [](const auto &watch) { return !watch->socket.isOurs(); });
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
            loop.calls_.discardReplies();
            loop._fdunlock[1] = -1;
            loop.thread_.leave();
            loop.calls_.failAll();
        }
    } const atEnd{*this};
    _fdunlock[1] = thread_.unlockDescriptor();
    while (thread_.state() == DispatchThread::State::Running)
        do_iteration();
}

// What is asked for after it has been looked for wakes the poll at the end.
void PollLoop::do_iteration()
{
    calls_.sendQueued();
    dispatch_pending();
    calls_.deliverReplies();
    calls_.failDisconnected();
    dispatch();
}

void PollLoop::dispatch()
{
    if (!thread_.isReachable() || !pollSockets(-1))
        return;
    if (hasLostSocket()) // libdbus would close the number, whosever it is
        thread_.lose();
    else if (polled_.back().revents == 0 || thread_.drain())
        handleReady();
}

void PollLoop::dispatchArrived()
{
    if (thread_.isBusy())
        return;
    for (int round = 0; round < DISPATCH_ROUNDS; round++) {
        dispatch_pending();
        if (!pollSockets(0))
            return;
        handleReady();
    }
}

// ---- Sockets

PollLoop::SocketWatch::SocketWatch(DBus::Watch::Internal *internal, PollLoop &loop)
    : DBus::Watch(internal), reads((flags() & DBUS_WATCH_READABLE) != 0),
      writes((flags() & DBUS_WATCH_WRITABLE) != 0), isEnabled(enabled()), loop_(loop)
{
    socket.adopt(descriptor());
}

void PollLoop::SocketWatch::toggle()
{
    isEnabled = enabled();
    loop_.wakeFromOutside();
}

pollfd PollLoop::SocketWatch::request() const
{
    const int events = (reads ? POLLIN : 0) | (writes ? POLLOUT : 0);
    return {socket.number(), static_cast<short>(events), 0};
}

// A poll that another thread is in has to see the change.
void PollLoop::wakeFromOutside()
{
    if (!thread_.isCurrent())
        thread_.wake();
}

void PollLoop::reserveWatches()
{
    const std::lock_guard<std::mutex> lock(watchMutex_);
    while (spare_.size() < WATCHES_OF_CONNECTION)
        spare_.emplace_back();
}

DBus::Watch *PollLoop::add_watch(DBus::Watch::Internal *internal)
{
    SocketWatch *watch = nullptr;
    {
        const std::lock_guard<std::mutex> lock(watchMutex_);
        if (spare_.empty()) // a connection of the program's own
            spare_.emplace_back();
        watch = &spare_.front().emplace(internal, *this);
        watches_.splice(watches_.end(), spare_, spare_.begin());
    }
    wakeFromOutside();
    return watch;
}

void PollLoop::rem_watch(DBus::Watch *watch)
{
    {
        const std::lock_guard<std::mutex> lock(watchMutex_);
        const auto present = std::find_if(watches_.begin(), watches_.end(),
                                          [=](const auto &registered) { return &*registered == watch; });
        if (present != watches_.end()) {
            present->reset();
            spare_.splice(spare_.end(), watches_, present);
        }
    }
    wakeFromOutside();
}

// One serves all: nothing but its address is used. Making it anew tells libdbus of it.
DBus::Timeout *PollLoop::add_timeout(DBus::Timeout::Internal *internal)
{
    alignas(InertTimeout) static unsigned char storage[sizeof(InertTimeout)];
    const std::lock_guard<std::mutex> lock(watchMutex_);
    return new (storage) InertTimeout(internal);
}

bool PollLoop::watchesSocket(int descriptor)
{
    const std::lock_guard<std::mutex> lock(watchMutex_);
    return std::any_of(watches_.begin(), watches_.end(),
                       [=](const auto &watch) { return watch->socket.number() == descriptor; });
}

// True when a socket, or what wakes the thread, is ready.
bool PollLoop::pollSockets(int timeout)
{
    polled_.clear();
    ready_.clear();
    {
        const std::lock_guard<std::mutex> lock(watchMutex_);
        // Those that read come first: an end of the connection must not hide what was sent before it.
        for (const bool reading : {true, false}) {
            for (auto &watch : watches_) {
                if (watch->isEnabled && watch->reads == reading) {
                    polled_.push_back(watch->request());
                    ready_.push_back(&*watch);
                }
            }
        }
    }
    if (timeout != 0)
        polled_.push_back({thread_.wakeDescriptor(), POLLIN, 0});
    return poll(polled_.data(), polled_.size(), timeout) > 0;
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
