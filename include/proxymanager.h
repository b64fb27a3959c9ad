/**
 * @file proxymanager.h
 * Client of the device's proxy manager service.
 *
 * The proxy manager is a process of its own on the D-Bus system bus. Through this interface a program reads
 * and changes the HTTP proxy configuration of the device, asks which proxies serve a URL, and is told of
 * changes. The order of calls is
 *
 *     create_proxy_manager_client -> get_proxy_url, get_http_proxy_config, update_proxy_config,
 *                                    check_service_started, set_proxy_manager_event_cb (any number of times)
 *                                 -> cleanup_proxy_manager_client
 *
 * One client serves the whole process: one connection to the system bus and one dispatch thread, which alone
 * talks on that connection. Answers of get_proxy_url are kept in a cache of 50 hosts.
 *
 * Threads: every function may be called on any thread. Creating and cleaning up are safe at the same time on
 * several threads, but no other call may be under way on any thread while cleanup_proxy_manager_client runs.
 *
 * Blocking: a call that asks the service waits for its answer, at most about 25 seconds. Calls of different
 * threads do not wait for each other. The dispatch thread carries the calls out, so
 *   - callbacks must be short: all calls to the service, and all other events, wait while one runs;
 *   - callbacks run on the dispatch thread with locks of the client held and must not call any function of
 *     this interface but the record functions. Hand such work to another thread;
 *   - no thread may call this interface while it holds a lock that a callback wants. A call that asks the
 *     service then waits until its time limit; get_http_proxy_config, get_proxy_url (even for an answer of the
 *     cache), set_proxy_manager_event_cb and cleanup_proxy_manager_client wait for ever.
 *
 * Callbacks: a C++ callback should not throw; what it throws is logged and goes no further. A callback must not
 * end its thread: pthread_exit, or a cancellation that the callback itself allows, ends the process. It may call
 * exit, unless an exit handler or a destructor of the program calls this interface, which then waits for ever for
 * the callback's locks.
 *
 * Text: what is sent to the service must be valid UTF-8. Text that is not, and text of more than 16 MiB in
 * one call, counts as a failed call: it is logged, and the function returns its neutral result.
 *
 * Disconnection: when the connection to the bus is lost, calls fail at once and no more events come. Clean the
 * client up and create it again; it does not come back by itself. A service that ends and starts again on a
 * living bus needs nothing of the kind if it announces its configuration and a clear of the cache when it starts.
 *
 * Descriptors: the library opens none before the first create and holds none after a cleanup; syslog(3) keeps one of
 * its own from the first line that it writes. None has a number of the standard streams, even when these are closed. A
 * program that closes those of a running client, as closefrom(3) does, loses the client as it loses a bus: calls fail,
 * cleaning up touches none of the numbers and leaves the memory of the connection behind, and the client can be created
 * again, unless the dispatch thread is stuck in its poll. So does one that lowers RLIMIT_NOFILE below 3. The connection
 * that a failed create has kept may be closed likewise. While a call is under way close nothing: libdbus goes on using
 * the number of its socket.
 *
 * Fork: the client belongs to the process that created it. In a child process every function gives its
 * neutral result (create: 0) and touches nothing of the parent's, until the child starts another program with
 * exec. A child of a process without a client, also of one whose create has failed, can create its own. One that
 * is forked in a callback has the dispatch thread only, which ends when the callback returns, and the child with it. As
 * with any function that logs, a child of a process of several threads may find the lock of syslog(3) taken for ever.
 *
 * Neighbours: what else uses D-Bus in the process must not call dbus_shutdown(), which ends the process while a
 * client lives. Creating sets DBus::default_dispatcher of dbus-c++: connections that the program makes with that
 * library afterwards are served by the client's dispatch thread.
 *
 * Diagnostics: syslog(3) gets them under the identity and the mask that the program has set; the library never
 * calls openlog. A log daemon that hangs holds up whoever logs, locks included. URLs, proxies and the user name of
 * a cached answer are logged at LOG_NOTICE as they are; the password fields never are, but a password inside a URL
 * or a proxy text is.
 */
#ifndef PROXYMANAGER_H
#define PROXYMANAGER_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Modes and events are integers of 32 bits, not enumerations: the service may send events without a name, and
 * the size of an enumeration depends on the compiler's options.
 */

/** How proxies are chosen: a PROXY_MODE_ value. */
typedef int32_t ProxyMode;
/** Values of ProxyMode. */
enum {
    PROXY_MODE_OFF = 0,    /**< "off": no proxy */
    PROXY_MODE_MANUAL = 1, /**< "manual": one proxy, configured by hand */
    PROXY_MODE_PACURL = 2, /**< "pacurl": the service evaluates a script from a configured URL */
    PROXY_MODE_WPAD = 3    /**< "wpad": the service evaluates a script that it finds by itself */
};

/** What has happened: a PROXY_MGR_EVENT_ value, or a state event of the service without a name here. */
typedef int32_t ProxyMgrEventType;
/** Values of ProxyMgrEventType. */
enum {
    PROXY_MGR_EVENT_STATE_0 = 0, /**< state event 0, and every state event without a callback of its own */
    PROXY_MGR_EVENT_STATE_1 = 1, /**< state event 1 */
    PROXY_MGR_EVENT_CONFIG_UPDATED = 2 /**< the proxy configuration has changed */
};

/**
 * Told of an event. Runs on the dispatch thread; see "Blocking" for what it may do.
 *
 * @param type  the event as it came, which may be a value without a name
 */
typedef void (*ProxyMgrEventCallback)(ProxyMgrEventType type);

/*
 * Strings in records are NULL when absent, never empty when the library made them, and otherwise heap blocks
 * of their own, to be released with free() or with the record's clean-up function.
 */

/** The proxy configuration as the service holds it. */
typedef struct ProxyManagerConfig {
    ProxyMode mode;  /**< how proxies are chosen */
    char *proxyUrl;  /**< the proxy of mode 1: host:port */
    char *pacUrl;    /**< the URL of the script of mode 2 */
    bool optionFlag; /**< a yes-or-no setting of the service; the library only carries it */
    char *userName;  /**< for authentication at the proxy */
    char *password;  /**< for authentication at the proxy */
} ProxyManagerConfig;

/** The proxies to use for one URL. */
typedef struct ProxyUrlInformation {
    ProxyMode mode;        /**< 0: use no proxy */
    char **proxyUrlList;   /**< NULL or proxyUrlCount entries, best first; an entry may be NULL. Mode 1: the
                                one configured proxy. Modes 2 and 3: "PROXY host:port" or "DIRECT" */
    char *userName;        /**< mode 1 only */
    char *password;        /**< mode 1 only */
    int32_t proxyUrlCount; /**< number of entries of proxyUrlList */
} ProxyUrlInformation;

/** A single setting, for callers that hold one; the library only releases it. */
typedef struct ProxySetting {
    int32_t kind; /**< the caller's own */
    char *value;  /**< NULL, or a heap block */
} ProxySetting;

/**
 * Makes the process's client: connects to the system bus, reads the configuration and starts the dispatch
 * thread, which has all signals blocked but those of faults (SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS).
 * Calling it again is cheap and changes nothing. A service that is there and silent holds the call up for 50
 * seconds, two questions, and so an atls_connect that creates the client. A bus that takes the connection but never
 * greets it holds the call until it does.
 *
 * @retval 1  a client exists on return, also when its dispatch thread could not be started: calls then work,
 *            events do not come
 * @retval 0  the bus cannot be reached, the service does not answer, or the client is the parent process's. The
 *            connection to the bus is kept for the next try, unless no client could be constructed on it;
 *            cleanup_proxy_manager_client closes it
 */
int create_proxy_manager_client(void);

/**
 * Stops the dispatch thread, releases the client with its cache and its callbacks, and closes the connection.
 * It waits for a callback that is running. A bus that has stopped answering holds the call up for 50 seconds.
 * The strings of all answers of get_proxy_url become invalid. No other call may be under way; not to be
 * called from a callback, where it does nothing.
 *
 * @retval 1  a client was released
 * @retval 0  there was none
 */
int cleanup_proxy_manager_client(void);

/**
 * Copies the configuration that the client holds, without asking the service. After a change to any mode but
 * manual only the mode is known.
 *
 * @return the copy, whose strings the caller owns: release them with cleanupProxyConfig. All fields are zero
 *         and NULL when there is no client.
 */
ProxyManagerConfig get_http_proxy_config(void);

/**
 * Sends a new configuration to the service. The client's own copy, and its cache, change only when the
 * service announces the change.
 *
 * @param config  the configuration; the caller keeps the strings. proxyUrl is sent in mode 1 only, without
 *                its scheme: a text that contains "http:" loses its first seven characters, one with "https:"
 *                its first eight.
 *
 * @return the service's own result code; -1 when there is no client, when the call failed (the bus policy that
 *         comes with the stand-in service allows it to root only), or when proxyUrl contains "http:" or "https:" and
 *         is too short for the prefix
 */
int update_proxy_config(ProxyManagerConfig config);

/**
 * Finds the proxies for a URL, from the cache if its host was asked for before. The host is what stands between
 * "://" and the next "/", up to the first ":": IPv6 addresses that begin alike share an answer, and so do all URLs
 * with the same user name and a password. Failed and empty answers are kept in the cache too, until the service has
 * it cleared. An answer that such a clear has overtaken is returned and not kept.
 *
 * The strings belong to the client: never free them. They stay readable for the calling thread until its next
 * call of get_proxy_url (which atls_connect makes, too) or until the client is cleaned up, whichever is first;
 * copy what is needed for longer or on other threads.
 *
 * @param requestUrl  the URL; not kept
 *
 * @return the proxies. All fields are zero and NULL when requestUrl is NULL, the mode is off, the service
 *         gave no answer in time or an empty one, or there is no client.
 */
ProxyUrlInformation get_proxy_url(const char *requestUrl);

/**
 * Asks the service whether it has started.
 *
 * @return its answer; false when there is no client or no answer
 */
bool check_service_started(void);

/**
 * Registers a callback for events of one type, in place of an earlier one for it. Callbacks are forgotten
 * when the client is cleaned up. State events go to the callback of their type, or else to that of type 0.
 * Registering for type 0 or 1 absorbs the next change of the configuration: it is not told as event 2.
 *
 * When the call returns, an event that is already on its way may still go to the callback that was replaced.
 *
 * @param type  the type of the events
 * @param cb    the callback; NULL changes nothing
 */
void set_proxy_manager_event_cb(ProxyMgrEventType type, ProxyMgrEventCallback cb);

/*
 * Records: none of the functions from here on takes a lock or keeps anything; a record belongs to one thread at a
 * time. Record pointers must not be NULL where nothing else is said.
 */

/**
 * Clears a configuration record: mode off, flag false, no strings. Releases nothing.
 *
 * @param config  the record
 */
void initProxyConfig(ProxyManagerConfig *config);

/**
 * Releases the strings of a configuration and clears them. Mode and flag stay. May be repeated.
 *
 * @param config  the record
 */
void cleanupProxyConfig(ProxyManagerConfig *config);

/**
 * Copies a configuration with its strings. Empty strings become NULL. The caller owns the copies. A NULL
 * pointer is logged and nothing is copied.
 *
 * @param srcConfig   the configuration to copy
 * @param destConfig  the copy; must hold no strings of its own (initProxyConfig)
 */
void cloneProxyConfig(const ProxyManagerConfig *srcConfig, ProxyManagerConfig *destConfig);

/**
 * Sets an answer record to a mode and a new list of NULL entries, without user name and password. Releases
 * nothing. Without memory for the list the count is 0.
 *
 * @param info   the record
 * @param mode   the mode
 * @param count  number of entries; no list when it is 0 or negative
 */
void initProxyUrlInfo(ProxyUrlInformation *info, int mode, int count);

/**
 * Releases list and strings of an answer record and clears it. May be repeated. For records that the caller
 * has filled; not for answers of get_proxy_url.
 *
 * @param info  the record
 */
void cleanupProxyUrlInfo(ProxyUrlInformation *info);

/**
 * Releases the value of a setting and clears it. May be repeated.
 *
 * @param setting  the setting
 */
void cleanupProxySetting(ProxySetting *setting);

/**
 * Tells the mode of a text.
 *
 * @param text  "off", "manual", "pacurl" or "wpad", in upper or lower case; not NULL
 *
 * @return the mode; PROXY_MODE_OFF for any other text
 */
int str2ProxyMode(const char *text);

/**
 * Tells the text of a mode.
 *
 * @param mode  the mode
 *
 * @return a constant, never to be freed; "off", with a log line, when there is no such mode
 */
const char *proxyMode2Str(int mode);

/**
 * Copies bytes to the heap and ends them with a NUL.
 *
 * @param src  the bytes
 * @param len  how many
 *
 * @return the copy, which the caller owns and releases with free(); NULL when src is NULL, len is not
 *         positive, or there is no memory
 */
char *string2Char(const char *src, int len);

#ifdef __cplusplus
}
#endif

#endif
