// --check: the library's own road, step by step.
#ifndef TOOLS_ATLS_POST_CHECK_H
#define TOOLS_ATLS_POST_CHECK_H

#include "settings.h"

// Writes what each step has found to the standard output. Returns 0, or the status of the first step that found
// something wrong.
int run_check(const Settings &settings);

#endif
