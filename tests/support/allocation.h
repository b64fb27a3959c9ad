// Puts a rule in front of a program's requests for memory.
#ifndef TESTS_ALLOCATION_H
#define TESTS_ALLOCATION_H

#define ALLOCATOR(prefix, real, rule, name, parameters, arguments)                                           \
    extern "C" void *real##name parameters;                                                                  \
    extern "C" void *prefix##name parameters                                                                 \
    {                                                                                                        \
        return rule(#name) ? real##name arguments : nullptr;                                                 \
    }

// Defines malloc, calloc and realloc with a prefix. Each calls the one with the other prefix where the rule, which comes
// before the name in brackets, allows it.
#define ALLOCATORS(prefix, real, rule)                                                                       \
    ALLOCATOR(prefix, real, rule, malloc, (size_t size), (size))                                             \
    ALLOCATOR(prefix, real, rule, calloc, (size_t count, size_t size), (count, size))                        \
    ALLOCATOR(prefix, real, rule, realloc, (void *block, size_t size), (block, size))

#endif
