/* A platform layer that is not the stand-in: its stime says that it was called, and sets nothing. */
#include "platform.h"

#include <stdio.h>

int stime(const time_t *when)
{
    printf("stime of the platform called: %d\n", when != NULL);
    return -1;
}
