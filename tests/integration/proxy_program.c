/*
 * A program around the library, for what a test cannot do to its own process. Its argument names what to do; it
 * prints what went wrong and ends with the number of faults.
 */
#define _DEFAULT_SOURCE
#include "proxymanager.h"

#include <dirent.h>
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

static void on_event_exit(ProxyMgrEventType type)
{
    (void)type;
    exit(0);
}

/* The service never stops sending events. */
static void wait_for_event(void)
{
    const int seen = __atomic_load_n(&events, __ATOMIC_RELAXED);
    for (int i = 0; i < 1000; i++) {
        if (__atomic_load_n(&events, __ATOMIC_RELAXED) != seen)
            return;
        usleep(10000);
    }
    check(0, "no event came");
}

static void wait_for_child(pid_t child)
{
    int status = -1;
    waitpid(child, &status, 0);
    check(status == 0, "the child");
}

/* In the child everything is neutral, and the parent does not notice. */
static void run_fork(void)
{
    pid_t child = fork();
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
    wait_for_child(child);
    wait_for_event();
    check(get_proxy_url("http://a/").mode == 2, "answer in the parent");
    check(cleanup_proxy_manager_client() == 1, "cleanup in the parent");

    child = fork(); /* nothing of the parent's is left: two processes with one past have a client each */
    check(create_proxy_manager_client() == 1, "create in both");
    for (int i = 0; i < 300; i++)
        check(check_service_started(), "a call in both");
    check(cleanup_proxy_manager_client() == 1, "cleanup in both");
    if (child == 0)
        exit(faults);
    wait_for_child(child);
}

/* The program was started with the first three descriptors only. */
static void run_descriptors(void)
{
    DIR *folder = opendir("/proc/self/fd");
    for (struct dirent *entry = readdir(folder); entry; entry = readdir(folder)) {
        const int descriptor = atoi(entry->d_name);
        if (descriptor > 2 && !(fcntl(descriptor, F_GETFD) & FD_CLOEXEC))
            check(0, entry->d_name);
    }
    closedir(folder);
}

int main(int argc, char **argv)
{
    const char *what = argc > 1 ? argv[1] : "";
    check(create_proxy_manager_client() == 1, "create");
    set_proxy_manager_event_cb(0, strcmp(what, "exit-in-callback") == 0 ? on_event_exit : on_event);
    get_proxy_url("http://a/");
    if (strcmp(what, "exit-in-callback") == 0)
        pause();
    if (strcmp(what, "fork") == 0)
        run_fork();
    if (strcmp(what, "descriptors") == 0)
        run_descriptors();
    return faults; /* without cleaning up, but for the fork */
}
