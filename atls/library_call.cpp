// The gate through which threads enter the library and leave it.
//
// When a program ends, OpenSSL frees tables that running threads look at, and a thread in a TLS handshake then crashes.
// So OpenSSL's clean-up begins with a handler of ours, which lets no further call begin and waits for those under way.

#include "library_call.h"

#include <atomic>
#include <chrono>
#include <thread>
#include <utility>

#include <openssl/crypto.h>

namespace
{

std::atomic<bool> closed{false};
std::atomic<int> threads_inside{0}; // by calls that began before
thread_local bool counted = false;  // this thread among them
thread_local int depth = 0;         // of this thread's calls, one within the other

// Waits a second at most: a thread that waits for the network that long will hardly wake up in the rest of the time.
void close_and_wait()
{
    using namespace std::chrono_literals;
    closed = true;
    const int own = counted ? 1 : 0; // the thread that ends the program may be inside, too
    for (auto waited = 0ms; waited < 1s && threads_inside > own; waited += 1ms)
        std::this_thread::sleep_for(1ms);
}

void register_handlers()
{
    (void)OPENSSL_atexit(close_and_wait);
    (void)pthread_atfork(nullptr, nullptr, [] { threads_inside = counted ? 1 : 0; });
}

} // namespace

LibraryCall::LibraryCall()
{
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &former_state_);
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, register_handlers);
    if (depth++ == 0 && !closed) {
        counted = true;
        threads_inside++;
    }
}

LibraryCall::~LibraryCall() noexcept(false)
{
    if (--depth == 0 && std::exchange(counted, false))
        threads_inside--;
    pthread_setcancelstate(former_state_, nullptr);
}

bool LibraryCall::is_too_late() const
{
    return closed;
}
