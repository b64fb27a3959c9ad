/*
 * A program around the library, for what a test cannot do to its own process. Its argument names what to do;
 * it prints what went wrong and ends with the number of faults.
 */
#define _DEFAULT_SOURCE
#include "proxymanager.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

static int faults;
static int events;

static void check(int fine, const char *what)
{
    if (!fine) {
        printf("fault: %s\n", what);
        faults++;
    }
}

static void on_event(ProxyMgrEventType type)
{
    (void)type;
    __atomic_add_fetch(&events, 1, __ATOMIC_RELAXED);
}

static void on_exit_event(ProxyMgrEventType type)
{
    (void)type;
    exit(0);
}

static void wait_for_event(void)
{
    const int seen = __atomic_load_n(&events, __ATOMIC_RELAXED);
    int now = seen;
    for (int i = 0; i < 1000 && now == seen; i++) {
        usleep(10000);
        now = __atomic_load_n(&events, __ATOMIC_RELAXED);
    }
    check(now != seen, "no event came");
}

static int child_status(pid_t child)
{
    int status = -1;
    waitpid(child, &status, 0);
    return status;
}

/* In the child everything is neutral, and the parent does not notice. */
static void run_forked(void)
{
    const pid_t child = fork();
    if (child == 0) {
        ProxyManagerConfig config = get_http_proxy_config();
        check(config.mode == 0, "configuration in the child");
        check(get_proxy_url("http://a/").mode == 0, "answer in the child");
        check(update_proxy_config(config) == -1, "update in the child");
        check(!check_service_started(), "service in the child");
        set_proxy_manager_event_cb(0, on_event);
        check(create_proxy_manager_client() == 0, "create in the child");
        check(cleanup_proxy_manager_client() == 0, "cleanup in the child");
        exit(faults);
    }
    check(child_status(child) == 0, "the child");
    wait_for_event();
    check(get_proxy_url("http://a/").mode == 2, "answer in the parent");
    check(cleanup_proxy_manager_client() == 1, "cleanup in the parent");

    const pid_t second = fork(); /* with nothing of the parent's left, a child has a client of its own */
    if (second == 0) {
        check(create_proxy_manager_client() == 1, "own create in the child");
        check(cleanup_proxy_manager_client() == 1, "own cleanup in the child");
        exit(faults);
    }
    check(child_status(second) == 0, "the second child");
}

/* Two processes with one past have a client each. */
static void run_forked_early(void)
{
    const pid_t child = fork();
    check(create_proxy_manager_client() == 1, "create");
    for (int i = 0; i < 300; i++)
        check(check_service_started(), "a call was lost");
    check(cleanup_proxy_manager_client() == 1, "cleanup");
    if (child == 0)
        exit(faults);
    check(child_status(child) == 0, "the child");
}

/* The program was started with the first three descriptors only. */
static void check_descriptors(void)
{
    DIR *folder = opendir("/proc/self/fd");
    for (struct dirent *entry = readdir(folder); entry; entry = readdir(folder)) {
        const int descriptor = atoi(entry->d_name);
        if (descriptor > 2 && !(fcntl(descriptor, F_GETFD) & FD_CLOEXEC))
            check(0, entry->d_name);
    }
    closedir(folder);
}

/* The library goes while its thread runs; what is left of it must still be there. */
static int run_unloaded(const char *library)
{
    void *handle = dlopen(library, RTLD_NOW | RTLD_LOCAL);
    int (*create)(void);
    void (*set)(ProxyMgrEventType, ProxyMgrEventCallback);
    *(void **)&create = dlsym(handle, "create_proxy_manager_client");
    *(void **)&set = dlsym(handle, "set_proxy_manager_event_cb");
    check(create() == 1, "create");
    set(0, on_event);
    dlclose(handle);
    wait_for_event();
    return faults;
}

int main(int argc, char **argv)
{
    const char *what = argc > 1 ? argv[1] : "";
    if (strcmp(what, "unload") == 0)
        return run_unloaded(argv[2]);
    if (strcmp(what, "fork-early") == 0)
        run_forked_early();
    check(create_proxy_manager_client() == 1, "create");
    set_proxy_manager_event_cb(0, strcmp(what, "exit-in-callback") == 0 ? on_exit_event : on_event);
    get_proxy_url("http://a/");
    if (strcmp(what, "exit-in-callback") == 0)
        pause();
    if (strcmp(what, "fork") == 0)
        run_forked();
    if (strcmp(what, "descriptors") == 0)
        check_descriptors();
    return faults; /* without cleaning up */
}
