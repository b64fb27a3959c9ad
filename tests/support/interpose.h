// Stands between the library's objects and what they call: keeps what they log and which request options they
// set, makes chosen calls fail, and holds the clock.
#ifndef TESTS_INTERPOSE_H
#define TESTS_INTERPOSE_H

#include "log_capture.h"

#include <atomic>
#include <ctime>
#include <map>
#include <vector>

#include <curl/curl.h>

namespace interpose
{

struct State {
    std::map<CURLoption, std::string> options; // set on request objects; number or text, "" for others
    long timeout_ms = 0;         // what request objects get in place of the client's time-out; 0: the same
    time_t now = 0;              // what time() says; 0: the real time
    bool clock_settable = false; // whether stime() succeeds; it never sets the clock
    std::vector<time_t> clock_settings; // what stime() was given
};

State kept(); // a copy of what is kept since reset()
void reset(long timeout_ms = 0, time_t now = 0,
           bool clock_settable = false);    // forgets it; puts these in force
inline std::atomic<bool> fips_mode{false};  // what the question for it is answered
inline std::atomic<long> connect_status{0}; // what a proxy is said to have answered CONNECT; 0: what it did

// Points are the calls, and the requests for memory, that can fail. Only those on a thread that is inside the
// library count, which the threads that the library starts are.
extern thread_local bool inside;
int arm(int nth); // the nth point from now fails; none with 0. How many it were until now
inline std::atomic<const char *> failed{""}; // the point that failed
bool fails(const char *point);               // passes a point
bool openssl_fails();                        // passes the point of a request by OpenSSL on its own behalf

} // namespace interpose

#endif
