/*
 * A program that loads the library named by its second argument and unloads it while the dispatch thread runs: the
 * code of the thread must stay.
 */
#define _DEFAULT_SOURCE
#include "proxymanager.h"

#include <dlfcn.h>
#include <unistd.h>

static int events;

static void on_event(ProxyMgrEventType type)
{
    (void)type;
    __atomic_add_fetch(&events, 1, __ATOMIC_RELAXED);
}

int main(int argc, char **argv)
{
    int (*create)(void);
    void (*set_callback)(ProxyMgrEventType, ProxyMgrEventCallback);
    void *library = argc > 2 ? dlopen(argv[2], RTLD_NOW | RTLD_LOCAL) : NULL;
    if (!library)
        return 2;
    *(void **)&create = dlsym(library, "create_proxy_manager_client");
    *(void **)&set_callback = dlsym(library, "set_proxy_manager_event_cb");
    if (create() != 1)
        return 3;
    set_callback(0, on_event);
    dlclose(library);
    const int seen = __atomic_load_n(&events, __ATOMIC_RELAXED);
    for (int i = 0; i < 10000 && __atomic_load_n(&events, __ATOMIC_RELAXED) < seen + 10; i++)
        usleep(1000);
    return __atomic_load_n(&events, __ATOMIC_RELAXED) < seen + 10 ? 4 : 0;
}
