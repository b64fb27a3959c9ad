// The dispatch thread: its life, and the sockets that wake it.
#ifndef PROXYMANAGER_DISPATCHTHREAD_H
#define PROXYMANAGER_DISPATCHTHREAD_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <initializer_list>
#include <mutex>
#include <optional>
#include <thread>

#include <pthread.h>
#include <sys/stat.h>

#if defined(__GLIBCXX__) && !defined(_GLIBCXX_USE_PTHREAD_COND_CLOCKWAIT)
#error                                                                                                       \
    "Time limits would follow the wall clock: GCC 10 and glibc 2.30 are the first that can wait on the monotonic one."
#endif

// A descriptor that can tell whether its number is still its own: a program may close every descriptor that it does not
// know, and open others under the same numbers.
class OwnDescriptor
{
public:
    void adopt(int number) { number_ = fstat(number, &identity_) == 0 ? number : -1; }
    void forget() { number_ = -1; }
    // Leaves alone a number that is somebody else's by now.
    void close();
    bool isOurs() const;
    int number() const { return number_; } // -1 when there is none

private:
    int number_ = -1;
    struct stat identity_ = {};
};

// As long as it is in scope nothing is opened under the numbers of the standard streams: a program that has closed
// them still prints.
class StandardStreamGuard
{
public:
    StandardStreamGuard();
    ~StandardStreamGuard();

private:
    OwnDescriptor placeholders_[3];
};

// There is one at a time: ours, or one of the program's that runs the same loop.
class DispatchThread
{
public:
    enum class State {
        None,     // every thread makes its calls itself
        Starting, // calls wait for the thread
        Running,
        Stopping, // it ends as soon as it can
        Lost,     // somebody has closed its sockets: calls fail
        ShutDown  // the process ends: calls fail from here on
    };

    State state() const { return state_; }
    bool isCurrent() const { return loopThread_ == std::this_thread::get_id(); }
    // Whether a thread is in the loop, or will be.
    bool isBusy() const { return state_ == State::Starting || loopThread_.load() != std::thread::id(); }
    // Makes the poll of another thread return, now or as soon as it begins. One that cannot be reached any more is lost.
    void wake();
    // Asks the thread to end, also when it has not begun yet.
    void stop();
    // From here on no thread serves.
    void shutDown();
    // False when one is still in the loop after two seconds.
    bool waitUntilLeft();

    // ---- For whoever starts and joins it, one at a time

    bool start(void *(*function)(void *));
    bool isStarted() const { return thread_.has_value(); }
    // Waits until the thread that was started has left the loop, and for its end. False when it may still be there: a lost
    // one is waited for for two seconds only, as it may be in a poll of numbers that are somebody else's by now.
    bool join();
    // In a forked child, which has none of the threads: closes its copies of the sockets, which would keep the parent's
    // thread from noticing that its own are gone, and begins anew.
    void resetInChild();

    // ---- For the thread

    // False when another is there already, or nothing can wake it: a thread that was started is lost then.
    bool enter();
    void leave();
    // Whether it is to go on, and can be woken: to be asked before each poll.
    bool isReachable();
    // Ends the loop; calls fail from here on.
    void lose() { replace({State::Running}, State::Lost); }
    // Takes in what has woken the poll. False when the sockets are not there any more.
    bool drain();
    int wakeDescriptor() const { return reader_.number(); }
    // For dbus-c++, whose leave() writes a text to it and closes it.
    int unlockDescriptor() const { return writer_.isOurs() ? writer_.number() : -1; }

private:
    bool openLocked();
    void closeLocked();
    void replace(std::initializer_list<State> former, State next);

    std::atomic<State> state_{State::None};
    std::atomic<std::thread::id> loopThread_{}; // who is in the loop

    std::mutex mutex_;                // guards the rest, and changes of loopThread_; taken last
    std::optional<pthread_t> thread_; // what start() has started
    std::condition_variable left_;
    OwnDescriptor reader_;
    OwnDescriptor writer_;
};

#endif
