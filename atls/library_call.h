// What holds as long as a thread is inside the library: its cancellation waits, and so does the end of the program.
//
// When a program ends, OpenSSL frees tables that running threads look at, and a thread in a TLS handshake then crashes.
// So OpenSSL's clean-up begins with a handler of ours, which lets no further call begin and waits for those under way.
#ifndef ATLS_LIBRARY_CALL_H
#define ATLS_LIBRARY_CALL_H

#include <atomic>
#include <chrono>
#include <thread>
#include <utility>

#include <openssl/crypto.h>
#include <pthread.h>

namespace exit_gate
{

inline std::atomic<bool> closed{false};
inline std::atomic<int> threads_inside{0}; // by calls that began before
inline thread_local bool counted = false;  // this thread among them
inline thread_local int depth = 0;         // of this thread's calls, one within the other

// Waits a second at most: a thread that waits for the network that long will hardly wake up in the rest of the time.
inline void close_and_wait()
{
    using namespace std::chrono_literals;
    closed = true;
    const int own = counted ? 1 : 0; // the thread that ends the program may be inside, too
    for (auto waited = 0ms; waited < 1s && threads_inside > own; waited += 1ms)
        std::this_thread::sleep_for(1ms);
}

inline void register_handlers()
{
    (void)OPENSSL_atexit(close_and_wait);
    (void)pthread_atfork(nullptr, nullptr, [] { threads_inside = counted ? 1 : 0; });
}

} // namespace exit_gate

// A call of the library, as long as it is in scope. libcurl and OpenSSL do not survive a cancellation in their middle;
// with asynchronous cancellation the thread ends in the destructor.
class LibraryCall
{
public:
    LibraryCall()
    {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &former_state_);
        static pthread_once_t once = PTHREAD_ONCE_INIT;
        pthread_once(&once, exit_gate::register_handlers);
        if (exit_gate::depth++ == 0 && !exit_gate::closed) {
            exit_gate::counted = true;
            exit_gate::threads_inside++;
        }
    }
    ~LibraryCall() noexcept(false)
    {
        if (--exit_gate::depth == 0 && std::exchange(exit_gate::counted, false))
            exit_gate::threads_inside--;
        pthread_setcancelstate(former_state_, nullptr);
    }
    LibraryCall(const LibraryCall &) = delete;
    LibraryCall &operator=(const LibraryCall &) = delete;

    // Whether OpenSSL's clean-up has begun, or is over.
    bool is_too_late() const { return exit_gate::closed; }

private:
    int former_state_ = PTHREAD_CANCEL_ENABLE;
};

#endif
