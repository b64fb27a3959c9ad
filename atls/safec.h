// The bounds-checked string and memory functions, as libsafec provides them. Include this header last, and
// only from source files: libsafec defines restrict as a macro in C++.
#ifndef ATLS_SAFEC_H
#define ATLS_SAFEC_H

#include <cerrno>
#include <cstddef>

#if __has_include(<safe_mem_lib.h>)
#include <safe_mem_lib.h>
#include <safe_str_lib.h>
#else
#include <libsafec/safe_mem_lib.h>
#include <libsafec/safe_str_lib.h>
#endif

#undef restrict

#endif
