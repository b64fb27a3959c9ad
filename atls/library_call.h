// What holds as long as a thread is inside the library: its cancellation waits, and so does the end of the program.
#ifndef ATLS_LIBRARY_CALL_H
#define ATLS_LIBRARY_CALL_H

#include <pthread.h>

// A call of the library, as long as it is in scope. libcurl and OpenSSL do not survive a cancellation in their middle;
// with asynchronous cancellation the thread ends in the destructor.
class LibraryCall
{
public:
    LibraryCall();
    ~LibraryCall() noexcept(false);
    LibraryCall(const LibraryCall &) = delete;
    LibraryCall &operator=(const LibraryCall &) = delete;

    // Whether OpenSSL's clean-up has begun, or is over.
    bool is_too_late() const;

private:
    int former_state_ = PTHREAD_CANCEL_ENABLE;
};

#endif
