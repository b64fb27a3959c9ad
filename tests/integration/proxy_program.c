/*
 * A program around the library, for what a test cannot do to its own process. Its argument names what to do; it
 * ends with status 0 when all is well. The service never stops sending events meanwhile.
 */
#define _GNU_SOURCE
#undef NDEBUG
#include "proxymanager.h"

#include <assert.h>
#include <fcntl.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

static sem_t events;

/* A child may find the lock of the leak sanitizer as a thread that it does not have left it. */
int __lsan_is_turned_off(void);
int __lsan_is_turned_off(void)
{
    return 1;
}

/* Nor may it wait for the lock of the C library's. */
void syslog(int priority, const char *format, ...)
{
    (void)priority, (void)format;
}

enum { MOST_FILES = 64 };

static int open_files(void)
{
    int count = 0;
    for (int number = 0; number < MOST_FILES; number++)
        count += fcntl(number, F_GETFD) >= 0;
    return count;
}

/* Faults are for whoever reports them; what the program handles elsewhere is not. */
static void on_event(ProxyMgrEventType type)
{
    (void)type;
    sigset_t blocked;
    pthread_sigmask(SIG_BLOCK, NULL, &blocked);
    for (const char *fault = (char[]){SIGSEGV, SIGBUS, SIGFPE, SIGILL, 0}; *fault; fault++)
        assert(!sigismember(&blocked, *fault) && sigismember(&blocked, SIGTERM));
    sem_post(&events);
}

static void wait_for_child(pid_t child)
{
    int status = -1;
    assert(waitpid(child, &status, 0) == child && status == 0);
}

static void on_thread_end(void *unused)
{
    (void)unused;
    _exit(0); /* the thread sanitizer does not survive exit() there */
}

static void on_event_exit(ProxyMgrEventType type)
{
    static pid_t child = -1;
    (void)type;
    if (child == 0 || (child = fork()) == 0) {
        assert(create_proxy_manager_client() == 0);
        pthread_key_t end;
        assert(pthread_key_create(&end, on_thread_end) == 0 && pthread_setspecific(end, &child) == 0);
        alarm(20); /* the thread has nothing to wait for */
        return;
    }
    wait_for_child(child);
    exit(0);
}

/* Calls of all kinds, or those that clean up alone, also while the process is ending. */
static void *use_client(void *all)
{
    for (;; cleanup_proxy_manager_client()) {
        if (all) {
            create_proxy_manager_client();
            check_service_started();
            get_proxy_url("http://b/");
        }
    }
    return all;
}

static pthread_t start_thread(void *(*function)(void *), void *argument)
{
    pthread_t thread;
    assert(pthread_create(&thread, NULL, function, argument) == 0);
    return thread;
}

/* In the child everything is neutral, and the parent does not notice. */
static void run_fork(void)
{
    const pid_t child = fork();
    if (child == 0) {
        ProxyManagerConfig config = get_http_proxy_config();
        assert(config.mode == 0);
        assert(get_proxy_url("http://a/").mode == 0);
        assert(update_proxy_config(config) == -1);
        assert(!check_service_started());
        set_proxy_manager_event_cb(0, on_event);
        assert(create_proxy_manager_client() == 0);
        assert(cleanup_proxy_manager_client() == 0);
        exit(0);
    }
    wait_for_child(child);
    while (sem_trywait(&events) == 0) {
    }
    sem_wait(&events);
    assert(get_proxy_url("http://a/").mode == 2);
    assert(cleanup_proxy_manager_client() == 1);
    start_thread(use_client, NULL); /* whoever has the lock when a child is forked is not in the child */
    for (int i = 0; i < 60; i++) {
        const pid_t other = fork();
        if (other == 0) {
            alarm(20);
            _exit(cleanup_proxy_manager_client());
        }
        wait_for_child(other);
    }
}

/* The end of the process waits for whoever reads this, when all that the library does at the end is done. */
static void end_slowly(void)
{
    static char text[200000];
    start_thread(use_client, text);
    setvbuf(stdout, text, _IOFBF, sizeof text);
    printf("%*s", (int)sizeof text - 1, "");
}

/* The program closes all that it does not know, and opens files under the same numbers. */
static void replace_files(void)
{
    for (int number = 3; number < MOST_FILES; number++)
        close(number);
    for (int number = 3; number < 13; number++)
        assert(memfd_create("", 0) == number);
}

static int files_are_intact(void)
{
    int intact = open_files() == 13;
    for (int number = 3; number < 13; number++)
        intact = intact && lseek(number, 0, SEEK_END) == 0;
    return intact;
}

/* After each client that has lost its descriptors comes one that nobody disturbs. */
static void run_closing(void)
{
    for (int i = 0; i < 10; i++) {
        assert(check_service_started() && usleep(20000) == 0); /* the thread is idle */
        replace_files();
        assert(i % 2 == 0 || (!check_service_started() && get_proxy_url("http://b/").mode == 0));
        assert(cleanup_proxy_manager_client() == 1 && files_are_intact());
        assert(create_proxy_manager_client() == 1 && check_service_started());
        assert(cleanup_proxy_manager_client() == 1 && files_are_intact());
        assert(create_proxy_manager_client() == 1);
    }
}

/* There is no service before the program has become a daemon. */
static void run_daemon(void)
{
    assert(create_proxy_manager_client() == 0);
    const pid_t child = fork();
    puts("no service");
    fflush(stdout);
    replace_files();
    for (int i = 0; create_proxy_manager_client() == 0; i++)
        assert(i < 200 && usleep(100000) == 0);
    assert(cleanup_proxy_manager_client() == 1 && files_are_intact());
    if (child != 0)
        wait_for_child(child);
}

void *run_loop(void *) __asm__("_Z12dbusLoopFuncPv");

int main(int argc, char **argv)
{
    const char *what = argc > 1 ? argv[1] : "";
    sem_init(&events, 0, 0);
    assert(open_files() == 3);
    if (strcmp(what, "daemon") == 0)
        return run_daemon(), 0;
    if (strcmp(what, "limit") == 0) { /* there is room for a single further descriptor */
        assert(create_proxy_manager_client() == 0 && cleanup_proxy_manager_client() == 0);
        setrlimit(RLIMIT_NOFILE, &(struct rlimit){MOST_FILES, MOST_FILES});
    }
    for (int number = 0; number < 3 && strcmp(what, "streams") == 0; number++)
        close(number);
    if (strcmp(what, "loop") == 0) { /* of the program's own, which loses its sockets */
        const pthread_t loop = start_thread(run_loop, NULL);
        usleep(100000);
        replace_files();
        pthread_join(loop, NULL);
    }
    assert(create_proxy_manager_client() == 1);
    set_proxy_manager_event_cb(0, on_event);
    get_proxy_url("http://a/");
    if (strcmp(what, "exit-in-callback") == 0) {
        set_proxy_manager_event_cb(0, on_event_exit);
        pause();
    }
    if (strcmp(what, "fork") == 0)
        run_fork();
    if (strcmp(what, "closing") == 0)
        run_closing();
    for (int number = 0; number < 3 && strcmp(what, "streams") == 0; number++)
        assert(write(number, "", 1) == -1 && check_service_started());
    if (strcmp(what, "poll") == 0) { /* fails for a while, and the thread is lost */
        setrlimit(RLIMIT_NOFILE, &(struct rlimit){0, MOST_FILES});
        usleep(100000);
        setrlimit(RLIMIT_NOFILE, &(struct rlimit){MOST_FILES, MOST_FILES});
        assert(!check_service_started());
    }
    if (strcmp(what, "exit-in-use") == 0)
        end_slowly();
    if (strcmp(what, "exec") == 0)
        execlp("ls", "ls", "/proc/self/fd", NULL);
    return 0; /* without cleaning up, but for the fork */
}
