// Puts a rule in front of a program's requests for memory.
#ifndef TESTS_ALLOCATION_H
#define TESTS_ALLOCATION_H

#define ALLOCATOR(prefix, real, allowed, name, parameters, arguments)                                        \
    extern "C" void *real##name parameters;                                                                  \
    extern "C" void *prefix##name parameters                                                                 \
    {                                                                                                        \
        [[maybe_unused]] const char *const point = #name;                                                    \
        return (allowed) ? real##name arguments : nullptr;                                                   \
    }

// Defines malloc, calloc and realloc with a prefix. Each calls the one with the other prefix if it is allowed, which an
// expression tells; in it, point is the name.
#define ALLOCATORS(prefix, real, allowed)                                                                    \
    ALLOCATOR(prefix, real, allowed, malloc, (size_t size), (size))                                          \
    ALLOCATOR(prefix, real, allowed, calloc, (size_t count, size_t size), (count, size))                     \
    ALLOCATOR(prefix, real, allowed, realloc, (void *block, size_t size), (block, size))

#endif
