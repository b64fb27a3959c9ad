// Start, wake, stop and end of the dispatch thread.

#include "dispatchthread.h"

#include <cerrno>
#include <csignal>
#include <new>
#include <string_view>

#include <fcntl.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

// How long to wait for a callback, or a poll, that may never end.
constexpr std::chrono::seconds JOIN_TIMEOUT(2);

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

// An unconnected socket is like no other, and refuses what is written to it.
StandardStreamGuard::StandardStreamGuard()
{
    for (int number = STDIN_FILENO; number <= STDERR_FILENO; number++) {
        if (fcntl(number, F_GETFD) < 0)
            placeholders_[number].adopt(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    }
}

StandardStreamGuard::~StandardStreamGuard()
{
    for (OwnDescriptor &placeholder : placeholders_)
        placeholder.close();
}

// Not a pipe: what is sent to a socket can neither end up in a file nor raise SIGPIPE. It arrives as it was sent, in parts.
bool DispatchThread::openLocked()
{
    int pair[2];
    if (reader_.isOurs())
        return true;
    closeLocked();
    const StandardStreamGuard guard;
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pair) != 0)
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
    if (state_ == State::ShutDown || !openLocked())
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
    if (loopThread_.load() == std::thread::id()) {
        closeLocked();
        replace({State::Starting, State::Stopping}, State::None);
    }
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
    if (pthread_join(*thread_, nullptr) != 0)
        syslog(LOG_NOTICE, "%s%s pthread_join failed", "", "cleanup_without_conn");
    std::unique_lock<std::mutex> lock(mutex_);
    // The loop may be one of the program's own, and a thread that cannot be joined may not have come to it yet.
    left_.wait(lock, [this] { return loopThread_.load() == std::thread::id() && state_ != State::Stopping; });
    closeLocked();
    thread_.reset();
    replace({State::Lost}, State::None);
    return true;
}

void DispatchThread::resetInChild()
{
    closeLocked();
    new (this) DispatchThread;
}

void DispatchThread::shutDown()
{
    state_ = State::ShutDown;
    wake();
}

bool DispatchThread::waitUntilLeft()
{
    std::unique_lock<std::mutex> lock(mutex_);
    return left_.wait_until(lock, std::chrono::steady_clock::now() + JOIN_TIMEOUT,
                            [this] { return loopThread_.load() == std::thread::id(); });
}

bool DispatchThread::enter()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (loopThread_.load() != std::thread::id() || state_ == State::ShutDown)
        return false;
    if (thread_ && !reader_.isOurs()) // the program has closed what start() has opened
        replace({State::Starting, State::Stopping}, State::Lost);
    if ((thread_ && state_ == State::Lost) || !openLocked())
        return false;
    loopThread_ = std::this_thread::get_id();
    replace({State::None, State::Starting, State::Lost}, State::Running);
    return true;
}

void DispatchThread::leave()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    closeLocked();
    replace({State::Running, State::Stopping}, State::None);
    if (!thread_) // or else join() does so
        replace({State::Lost}, State::None);
    loopThread_ = std::thread::id();
    left_.notify_all();
}

// ---- Wake-ups

void DispatchThread::wake()
{
    if (isCurrent())
        return;
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
    if (!reader_.isOurs())
        replace({State::Running}, State::Lost);
    return state_ == State::Running;
}

// leave() of dbus-c++'s own class, which a program reaches that names the dispatcher as a DBus::BusDispatcher object, sends
// a text and closes the descriptor, so that we must not.
bool DispatchThread::drain()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    char text[8];
    ssize_t count = reader_.isOurs() ? 1 : 0;
    while (count > 0 && (count = recv(reader_.number(), text, sizeof text, 0)) > 0) {
        if (std::string_view(text, static_cast<size_t>(count)) == "exit") {
            writer_.forget();
            replace({State::Running}, State::Stopping);
        }
    }
    if (count == 0)
        replace({State::Running}, State::Lost);
    return count != 0;
}
