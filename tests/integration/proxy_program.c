/*
 * A program around the library, for what a test cannot do to its own process. Its argument names what to do; it
 * prints what went wrong and ends with the number of faults. The service never stops sending events meanwhile.
 */
#define _DEFAULT_SOURCE
#include "proxymanager.h"

#include <semaphore.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

static int faults;
static sem_t events;

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
    sem_post(&events);
}

static void on_event_exit(ProxyMgrEventType type)
{
    (void)type;
    exit(0);
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
    while (sem_trywait(&events) == 0) {
    }
    sem_wait(&events);
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

int main(int argc, char **argv)
{
    const char *what = argc > 1 ? argv[1] : "";
    sem_init(&events, 0, 0);
    check(create_proxy_manager_client() == 1, "create");
    set_proxy_manager_event_cb(0, strcmp(what, "exit-in-callback") == 0 ? on_event_exit : on_event);
    get_proxy_url("http://a/");
    if (strcmp(what, "exit-in-callback") == 0)
        pause();
    if (strcmp(what, "fork") == 0)
        run_fork();
    if (strcmp(what, "exec") == 0)
        execlp("ls", "ls", "/proc/self/fd", NULL);
    return faults; /* without cleaning up, but for the fork */
}
