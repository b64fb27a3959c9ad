// Start, wake, stop and end of the dispatch thread.

#include "dispatchthread.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <new>

#include <sys/socket.h>
#include <unistd.h>

// How long to wait for a callback, or a poll, that may never end.
constexpr std::chrono::seconds PATIENCE(2);

// ---- Descriptors

// No two sockets have the same inode.
bool OwnDescriptor::isOurs() const
{
    struct stat present;
    return number_ >= 0 && fstat(number_, &present) == 0 && present.st_dev == identity_.st_dev &&
           present.st_ino == identity_.st_ino;
}

void OwnDescriptor::close()
{
    if (isOurs())
        ::close(number_);
    forget();
}

// Not a pipe: what is sent to a socket can neither end up in a file nor raise SIGPIPE.
bool DispatchThread::openLocked()
{
    int pair[2];
    if (reader_.isOurs())
        return true;
    closeLocked();
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pair) != 0)
        return false;
    reader_.adopt(pair[0]);
    writer_.adopt(pair[1]);
    return true;
}

void DispatchThread::closeLocked()
{
    reader_.close();
    writer_.close();
}

// ---- Life

void DispatchThread::replace(std::initializer_list<State> former, State next)
{
    for (State each : former)
        state_.compare_exchange_strong(each, next);
}

// The thread takes no signal that the program wants to handle elsewhere. A fault is the thread's own, and whoever reports
// faults is to see it.
bool DispatchThread::start(void *(*function)(void *))
{
    const std::lock_guard<std::mutex> lock(mutex_); // the thread waits for it before it enters
    if (state_ == State::Retired || !openLocked())
        return false;
    replace({State::None}, State::Starting);
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
    if (loop_.load() == std::thread::id())
        closeLocked();
    replace({State::Starting}, State::None);
    return false;
}

void DispatchThread::stop()
{
    replace({State::Starting, State::Running}, State::Stopping);
    wake();
}

bool DispatchThread::join()
{
    if (state_ == State::Lost && !waitUntilLeft())
        return false;
    const bool joined = pthread_join(*thread_, nullptr) == 0;
    std::unique_lock<std::mutex> lock(mutex_);
    thread_.reset();
    left_.wait(lock, [this] { return loop_.load() == std::thread::id(); }); // when it is the program's own
    replace({State::Stopping, State::Lost}, State::None);
    return joined;
}

void DispatchThread::startAnew()
{
    closeLocked();
    new (&mutex_) std::mutex;
    new (&left_) std::condition_variable;
    state_ = State::None;
    loop_ = std::thread::id();
    thread_.reset();
}

void DispatchThread::retire()
{
    state_ = State::Retired;
    wake();
}

bool DispatchThread::waitUntilLeft()
{
    std::unique_lock<std::mutex> lock(mutex_);
    return left_.wait_until(lock, std::chrono::steady_clock::now() + PATIENCE,
                            [this] { return loop_.load() == std::thread::id(); });
}

bool DispatchThread::enter()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (loop_.load() != std::thread::id() || state_ == State::Retired)
        return false;
    if (thread_ && !reader_.isOurs()) // the program has closed what start() has opened
        replace({State::Starting, State::Stopping}, State::Lost);
    if ((thread_ && state_ == State::Lost) || !openLocked())
        return false;
    loop_ = std::this_thread::get_id();
    replace({State::None, State::Starting, State::Lost}, State::Running);
    return true;
}

void DispatchThread::leave()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    closeLocked();
    replace({State::Running, State::Stopping}, State::None);
    loop_ = std::thread::id();
    left_.notify_all();
}

// ---- Wake-ups

void DispatchThread::wake()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (reader_.number() < 0) // there is nobody
        return;
    const char wakeUp = 0;
    if (!writer_.isOurs() || (send(writer_.number(), &wakeUp, 1, MSG_NOSIGNAL) != 1 && errno != EAGAIN))
        replace({State::Starting, State::Running, State::Stopping}, State::Lost);
}

bool DispatchThread::isReachable()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (reader_.number() < 0 || reader_.isOurs())
        return true;
    replace({State::Running}, State::Lost);
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
        replace({State::Running}, State::Lost);
    if (std::any_of(bytes, bytes + std::max<ssize_t>(count, 0), [](char byte) { return byte != 0; })) {
        writer_.forget();
        replace({State::Running}, State::Stopping);
    }
    return count != 0;
}
