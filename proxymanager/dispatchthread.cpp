// Start, wake, stop and end of the dispatch thread.

#include "dispatchthread.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <new>

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

// ---- Descriptors

void OwnDescriptor::adopt(int number)
{
    struct stat status = {};
    number_ = fstat(number, &status) == 0 ? number : -1;
    device_ = status.st_dev;
    inode_ = status.st_ino;
}

// No two sockets have the same inode.
bool OwnDescriptor::isOurs() const
{
    struct stat status = {};
    return number_ >= 0 && fstat(number_, &status) == 0 && status.st_dev == device_ &&
           status.st_ino == inode_;
}

void OwnDescriptor::close()
{
    if (isOurs())
        ::close(number_);
    forget();
}

bool DispatchThread::open()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (reader_.isOurs())
        return true;
    writer_.close();
    int pair[2];
    // Not a pipe: what is sent to a socket can neither end up in a file nor raise SIGPIPE.
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pair) != 0)
        return false;
    reader_.adopt(pair[0]);
    writer_.adopt(pair[1]);
    return true;
}

void DispatchThread::close()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (loop_ != std::thread::id())
        return;
    reader_.close();
    writer_.close();
}

void DispatchThread::startAnew()
{
    reader_.close();
    writer_.close();
    new (&mutex_) std::mutex;
    new (&left_) std::condition_variable;
    state_ = State::None;
    loop_ = std::thread::id();
    thread_.reset();
}

// ---- Life

DispatchThread::State DispatchThread::state() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return state_;
}

bool DispatchThread::isBusy() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return state_ == State::Starting || loop_.load() != std::thread::id();
}

// The thread takes no signal that the program wants to handle elsewhere. A fault is the thread's own, and whoever reports
// faults is to see it.
bool DispatchThread::start(void *(*function)(void *))
{
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (state_ == State::Retired)
            return false;
        if (loop_ == std::thread::id())
            state_ = State::Starting;
    }
    sigset_t asynchronous;
    sigset_t former;
    sigfillset(&asynchronous);
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS})
        sigdelset(&asynchronous, fault);
    pthread_t thread;
    pthread_sigmask(SIG_SETMASK, &asynchronous, &former);
    const bool started = pthread_create(&thread, nullptr, function, nullptr) == 0;
    pthread_sigmask(SIG_SETMASK, &former, nullptr);
    if (started) {
        thread_ = thread;
        return true;
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    if (state_ == State::Starting)
        state_ = State::None;
    return false;
}

void DispatchThread::stop()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (state_ == State::Starting || state_ == State::Running)
        state_ = State::Stopping;
    wakeLocked();
}

bool DispatchThread::join()
{
    const bool joined = pthread_join(*thread_, nullptr) == 0;
    thread_.reset();
    std::unique_lock<std::mutex> lock(mutex_);
    left_.wait(lock, [this] { return loop_ == std::thread::id(); }); // when it is the program's own
    if (state_ != State::Retired)
        state_ = State::None;
    return joined;
}

void DispatchThread::retire()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    state_ = State::Retired;
    wakeLocked();
}

bool DispatchThread::waitUntilLeft(std::chrono::milliseconds limit)
{
    std::unique_lock<std::mutex> lock(mutex_);
    return left_.wait_until(lock, std::chrono::steady_clock::now() + limit,
                            [this] { return loop_ == std::thread::id(); });
}

bool DispatchThread::enter()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (loop_ != std::thread::id() || state_ == State::Retired)
        return false;
    if (state_ != State::Stopping)
        state_ = State::Running;
    loop_ = std::this_thread::get_id();
    return true;
}

void DispatchThread::leave()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (state_ == State::Running || state_ == State::Stopping)
        state_ = State::None;
    reader_.close();
    writer_.close();
    loop_ = std::thread::id();
    left_.notify_all();
}

// ---- Wake-ups

void DispatchThread::loseLocked()
{
    if (state_ == State::Starting || state_ == State::Running)
        state_ = State::Lost;
}

bool DispatchThread::wakeLocked()
{
    if (reader_.number() < 0 && writer_.number() < 0) // there is nobody
        return true;
    const char wakeUp = 0;
    if (writer_.isOurs() && (send(writer_.number(), &wakeUp, 1, MSG_NOSIGNAL) == 1 || errno == EAGAIN))
        return true;
    loseLocked();
    return false;
}

bool DispatchThread::wake()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return wakeLocked();
}

bool DispatchThread::isReachable()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (reader_.number() < 0 || reader_.isOurs())
        return true;
    loseLocked();
    return false;
}

// Whatever is not a wake-up of ours comes from leave() of dbus-c++'s own class, which a program reaches that names the
// dispatcher as a DBus::BusDispatcher object. It closes the descriptor as well, so that we must not.
bool DispatchThread::drain()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    char bytes[64];
    const ssize_t count = reader_.isOurs() ? recv(reader_.number(), bytes, sizeof bytes, 0) : 0;
    if (count == 0)
        loseLocked();
    if (std::any_of(bytes, bytes + std::max<ssize_t>(count, 0), [](char byte) { return byte != 0; })) {
        writer_.forget();
        if (state_ == State::Running)
            state_ = State::Stopping;
    }
    return count != 0;
}
