// The way to the platform's stime, which has the name of a retired function of the C library.
#ifndef ATLS_SYSTEM_CLOCK_H
#define ATLS_SYSTEM_CLOCK_H

#include "platform.h"

#include <ctime>

#include <dlfcn.h>

using ClockSetter = int (*)(const time_t *);

// Keeps the name among those that the library asks for: a program's own stime is then exported to it.
__attribute__((used)) static const ClockSetter referenced_stime = stime;

// Calls the platform's stime. That reference may be bound to the retired stime that glibc keeps for old programs,
// since a program's own libc comes before the platform library in the search order; dlsym never returns that one.
inline int set_system_clock(const time_t *when)
{
    // A platform library with a wider time_t would read beyond it, and set the clock to nonsense.
    if (sizeof *when == 4 && dlsym(RTLD_DEFAULT, "atls_platform_time64"))
        return -1;
    void *platform_stime = dlsym(RTLD_DEFAULT, "stime");
    return platform_stime ? reinterpret_cast<ClockSetter>(platform_stime)(when) : -1;
}

#endif
