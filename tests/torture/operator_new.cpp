// Memory for C++, everybody's, that can be refused to the library.

#include "interpose.h"

#include <algorithm>
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
bool is_asked_by_library(const void *caller)
{
    void *frames[20];
    const int count = backtrace(frames, 20);
    const auto first = std::find(frames, frames + count, caller);
    for (auto i = first - frames; i < count; i++) {
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

static void *allocate(size_t size, const void *caller)
{
    if (!in_backtrace) {
        in_backtrace = true;
        const bool counts = is_asked_by_library(caller);
        in_backtrace = false;
        if (counts && interpose::fails("operator new"))
            throw std::bad_alloc();
    }
    if (void *block = __real_malloc(size ? size : 1))
        return block;
    throw std::bad_alloc();
}

void *operator new(size_t size)
{
    return allocate(size, __builtin_return_address(0));
}

void *operator new(size_t size, const std::nothrow_t &) noexcept
try {
    return allocate(size, __builtin_return_address(0));
} catch (const std::bad_alloc &) {
    return nullptr;
}

void operator delete(void *block) noexcept
{
    free(block);
}

void operator delete(void *block, size_t) noexcept
{
    free(block);
}
