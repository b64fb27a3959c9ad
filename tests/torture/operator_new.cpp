// Memory for C++, everybody's, that can be refused to the library.

#include "interpose.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include <dlfcn.h>
#include <execinfo.h>

extern "C" char __executable_start;
extern "C" void *__real_malloc(size_t size);

namespace
{

// Whether a frame is of the C++ library, or of a template of it, of which there is one copy for all.
bool is_of_cpp_library(const Dl_info &frame)
{
    if (strstr(frame.dli_fname, "libstdc++"))
        return true;
    for (const char *prefix : {"_ZSt", "_ZNSt", "_ZNKSt"})
        if (frame.dli_sname && strncmp(frame.dli_sname, prefix, strlen(prefix)) == 0)
            return true;
    return false;
}

// Whether memory was asked for by the library's own code, not by that of dbus-c++, which cannot do without.
__attribute__((noinline)) bool is_asked_by_library()
{
    void *frames[16];
    const int count = backtrace(frames, 16);
    for (int i = 2; i < count; i++) {
        Dl_info frame;
        if (!dladdr(frames[i], &frame))
            return false;
        if (!is_of_cpp_library(frame))
            return frame.dli_fbase == &__executable_start;
    }
    return false;
}

thread_local bool in_backtrace = false; // which asks for memory itself at its first use

} // namespace

void *operator new(size_t size)
{
    if (!in_backtrace) {
        in_backtrace = true;
        const bool counts = is_asked_by_library();
        in_backtrace = false;
        if (counts && interpose::fails("operator new"))
            throw std::bad_alloc();
    }
    if (void *block = __real_malloc(size ? size : 1))
        return block;
    throw std::bad_alloc();
}

void operator delete(void *block) noexcept
{
    free(block);
}

void operator delete(void *block, size_t) noexcept
{
    free(block);
}
