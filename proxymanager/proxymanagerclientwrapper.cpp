// The C interface of the proxy manager client, and what there is one of in a process: the client, its
// connection, its dispatch thread.

#include "proxymanagerclientwrapper.h"

#include "proxymanagerclientimpl.h"

#include <atomic>
#include <csignal>
#include <memory>
#include <mutex>
#include <new>

#include <pthread.h>
#include <sys/types.h>
#include <syslog.h>
#include <unistd.h>

DBus::Connection *dbus_conn = nullptr;
Lasting<OwningDispatcher> dbus_dispatcher;

namespace
{

constexpr const char *OBJECT_PATH = "/com/halvo/ProxyManagerService";
constexpr const char *BUS_NAME = "com.halvo.ProxyManagerService";
constexpr const char *CALLED = "%s%s called ";
constexpr const char *CLIENT_IS_NULL = "%s%s proxy manager client is null";
constexpr const char *DBUS_ERROR = "%s%s DBus Error occured: %s";
constexpr const char *CREATE_ERROR = "%s%s error: pDBus Error occured: %s";
constexpr const char *CREATE = "create_proxy_manager_client";
constexpr const char *CLEANUP_WITHOUT_CONN = "cleanup_without_conn";
// How long the end of the process waits for a callback that is still running.
constexpr std::chrono::milliseconds EXIT_PATIENCE(2000);

std::mutex lifeMutex; // guards the next two, dbus_conn and tidp
ProxyManagerClientImpl *pProxyMgrClient = nullptr;
std::atomic<bool> dispactcherEnter{false};
pthread_t tidp;

// The client once it may be used: with its dispatch thread.
std::atomic<ProxyManagerClientImpl *> readyClient{nullptr};
// The process that the client and the connection belong to, 0 when there are none.
std::atomic<pid_t> ownerProcess{0};

// getpid without a system call for each use.
std::atomic<pid_t> thisProcess{getpid()};

// Whoever held the lock when the child was forked is not there. Where the child has use for it, there is nobody's client
// and hence nothing half changed.
void followIntoChild()
{
    thisProcess = getpid();
    new (&lifeMutex) std::mutex;
}

const bool followsForks = pthread_atfork(nullptr, nullptr, followIntoChild) == 0;

pid_t processId()
{
    return followsForks ? thisProcess.load() : getpid();
}

// After a fork the child shares the parent's socket, and finds locks as threads that it does not have left
// them.
bool isOtherProcess()
{
    const pid_t owner = ownerProcess;
    return owner != 0 && owner != processId();
}

ProxyManagerClientImpl *usableClient()
{
    return isOtherProcess() ? nullptr : readyClient.load();
}

// Being cancelled inside libdbus would leave its locks locked for ever.
class NotCancellable
{
public:
    NotCancellable() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &former_); }
    ~NotCancellable() { pthread_setcancelstate(former_, nullptr); }
    NotCancellable(const NotCancellable &) = delete;
    NotCancellable &operator=(const NotCancellable &) = delete;

private:
    int former_ = PTHREAD_CANCEL_ENABLE;
};

// Logs what is being handled in a catch block.
void logException(const char *caller, const char *errorFormat)
{
    constexpr const char *FAILED = "%s%s error: %s";
    try {
        throw;
    } catch (const DBus::Error &error) {
        const char *text = error.what();
        syslog(LOG_ERR, errorFormat, "", caller, text ? text : "");
    } catch (const std::exception &error) {
        syslog(LOG_ERR, FAILED, "", caller, error.what());
    } catch (...) {
        syslog(LOG_ERR, FAILED, "", caller, "unknown error");
    }
}

// Nothing is thrown across the C interface: whatever comes is logged, and the neutral result returned.
template <typename Result, typename Action>
Result contain(const char *caller, const char *errorFormat, Result neutral, Action action)
{
    const NotCancellable here;
    try {
        return action();
    } catch (...) {
        logException(caller, errorFormat);
    }
    return neutral;
}

// ---- Dispatch thread

// The thread must not take a signal that the program wants to handle elsewhere.
int startThreadWithSignalsBlocked()
{
    sigset_t all;
    sigset_t former;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &former);
    const int result = pthread_create(&tidp, nullptr, dbusLoopFunc, nullptr);
    pthread_sigmask(SIG_SETMASK, &former, nullptr);
    return result;
}

void startThread()
{
    if (dispactcherEnter)
        return;
    if (!dbus_dispatcher->calls().expectThread()) {
        syslog(LOG_ERR, "%s%s create thread failed", "", CREATE);
    } else if (startThreadWithSignalsBlocked() != 0) {
        dbus_dispatcher->calls().forgetThread();
        syslog(LOG_ERR, "%s%s create thread failed", "", CREATE);
    } else {
        dispactcherEnter = true;
    }
}

void stopThread()
{
    if (!dispactcherEnter)
        return;
    syslog(LOG_NOTICE, "%s%s dbus loop end", "", CLEANUP_WITHOUT_CONN);
    dbus_dispatcher->leave();
    dispactcherEnter = false;
    if (pthread_join(tidp, nullptr) != 0)
        syslog(LOG_NOTICE, "%s%s pthread_join failed", "", CLEANUP_WITHOUT_CONN);
}

// Ends the calls of all threads and the dispatch thread in a process that exits without cleaning up.
struct ThreadStopper {
    ~ThreadStopper()
    {
        if (isOtherProcess())
            return;
        dbus_dispatcher->calls().retire();
        if (dispactcherEnter && !dbus_dispatcher->calls().onThread())
            stop();
    }

private:
    // A callback that does not return must not keep the process; a cleanup under way elsewhere joins by
    // itself.
    static void stop()
    {
        const std::unique_lock<std::mutex> lock(lifeMutex, std::try_to_lock);
        dbus_dispatcher->leave();
        if (dbus_dispatcher->calls().waitUntilLeft(EXIT_PATIENCE) && lock.owns_lock() &&
            dispactcherEnter.exchange(false))
            pthread_join(tidp, nullptr);
    }
} threadStopper;

// ---- Connection

// A connection that goes must have left the dispatcher's queue, which keeps a plain pointer to it.
void closeConnection(DBus::Connection &connection)
{
    dbus_dispatcher->calls().disown();
    connection.disconnect();
    dbus_dispatcher->dispatch_pending();
}

void dropConnection()
{
    if (!dbus_conn)
        return;
    closeConnection(*dbus_conn);
    delete dbus_conn;
    dbus_conn = nullptr;
}

void openConnection()
{
    DBus::_init_threading();
    DBus::Connection opened = DBus::Connection::SystemBus();
    try {
        auto kept = std::make_unique<DBus::Connection>(opened);
        dbus_dispatcher->calls().own(kept.get());
        dbus_conn = kept.release();
    } catch (...) {
        closeConnection(opened);
        throw;
    }
}

// Takes a kept connection up again: what came for an earlier client is not for the next one.
bool reuseConnection()
{
    if (!dbus_conn)
        return false;
    dbus_dispatcher->dispatchArrived();
    if (dbus_conn->connected())
        return true;
    dropConnection();
    return false;
}

// ---- Client

bool checkServiceStarted(ProxyManagerClientImpl &client)
{
    syslog(LOG_INFO, CALLED, "", "check_service_started");
    return client.checkServicestarted();
}

int deleteClient()
{
    syslog(LOG_INFO, CALLED, "", CLEANUP_WITHOUT_CONN);
    stopThread();
    if (!pProxyMgrClient) {
        syslog(LOG_NOTICE, "%s%s pProxyMgrClient already null", "", CLEANUP_WITHOUT_CONN);
        return 0;
    }
    readyClient = nullptr;
    delete pProxyMgrClient;
    pProxyMgrClient = nullptr;
    if (dbus_conn)
        dbus_dispatcher->dispatchArrived(); // signals for the client that is gone
    return 1;
}

enum class Outcome { Made, NotConstructed, NotAnswering };

Outcome makeClient(DBus::Connection &conn)
{
    try {
        pProxyMgrClient = new ProxyManagerClientImpl(conn, OBJECT_PATH, BUS_NAME);
        pProxyMgrClient->leaveCallsAt(&dbus_dispatcher->calls());
        checkServiceStarted(*pProxyMgrClient);
        return Outcome::Made;
    } catch (const std::exception &error) { // DBus::Error is one
        const char *text = error.what();
        syslog(LOG_ERR, CREATE_ERROR, "", CREATE, text ? text : "");
    }
    const Outcome outcome = pProxyMgrClient ? Outcome::NotAnswering : Outcome::NotConstructed;
    deleteClient();
    return outcome;
}

bool clientExists(const char *alreadyExists)
{
    syslog(LOG_INFO, CALLED, "", CREATE);
    if (!pProxyMgrClient)
        return false;
    syslog(LOG_NOTICE, alreadyExists, "", CREATE);
    return true;
}

int createOn(DBus::Connection &conn, Outcome &outcome)
{
    outcome = Outcome::Made;
    if (!clientExists("%s%s (conn)proxy_manager_client already exist"))
        outcome = makeClient(conn);
    return outcome == Outcome::Made ? 1 : 0;
}

// Makes the client on dbus_conn. A constructor that has thrown leaves a filter with a dangling pointer on the
// connection, which then cannot be kept. True in *lost when the connection was found closed.
int createOnKeptConnection(bool *lost)
{
    Outcome outcome;
    const int made = createOn(*dbus_conn, outcome);
    *lost = outcome == Outcome::NotConstructed && !dbus_conn->connected();
    if (outcome == Outcome::NotConstructed)
        dropConnection();
    return made;
}

int createOnSystemBus()
{
    if (clientExists("%s%s (void)proxy_manager_client already exist"))
        return 1;
    DBus::default_dispatcher = &dbus_dispatcher.object;
    syslog(LOG_NOTICE, "%s%s create dbus connection", "", CREATE);
    const bool kept = reuseConnection();
    if (!kept)
        openConnection();
    bool lost = false;
    int made = createOnKeptConnection(&lost);
    if (kept && lost) {
        openConnection();
        made = createOnKeptConnection(&lost);
    }
    if (made) {
        startThread();
        readyClient = pProxyMgrClient;
    }
    return made;
}

// ---- Changes of the process-wide objects

// Claims them before the lock is taken: a child that is forked in between finds the claim, not a lost lock.
bool claimProcess(const char *caller)
{
    pid_t nobody = 0;
    if (ownerProcess.compare_exchange_strong(nobody, processId()) || !isOtherProcess())
        return true;
    syslog(LOG_ERR, "%s%s the client belongs to the parent process", "", caller);
    return false;
}

// Runs a change of the process-wide objects, one at a time. On the dispatch thread it does not, and returns
// what is given for that: whoever holds the lock may be waiting for that thread.
template <typename Action>
int changeLife(const char *caller, const char *errorFormat, int onThread, Action action)
{
    return contain(caller, errorFormat, 0, [&]() -> int {
        if (dbus_dispatcher->calls().onThread()) {
            syslog(LOG_ERR, "%s%s must not be called from a callback", "", caller);
            return onThread;
        }
        if (!claimProcess(caller))
            return 0;
        const std::lock_guard<std::mutex> lock(lifeMutex);
        ownerProcess = processId(); // the claim may have been given up while we waited
        struct ReleaseWhenIdle {
            ~ReleaseWhenIdle()
            {
                if (!pProxyMgrClient && !dbus_conn)
                    ownerProcess = 0;
            }
        };
        const ReleaseWhenIdle atEnd{};
        return action();
    });
}

} // namespace

// ---- Entry points for C++ programs

int create_proxy_manager_client(DBus::Connection &conn)
{
    return changeLife(CREATE, CREATE_ERROR, usableClient() ? 1 : 0, [&] {
        Outcome outcome;
        const int made = createOn(conn, outcome);
        readyClient = pProxyMgrClient;
        return made;
    });
}

int cleanup_without_conn()
{
    return changeLife(CLEANUP_WITHOUT_CONN, DBUS_ERROR, 0, deleteClient);
}

void *dbusLoopFunc(void *)
{
    return contain<void *>("dbusLoopFunc", DBUS_ERROR, nullptr, []() -> void * {
        syslog(LOG_NOTICE, "%s%s dbus loop start", "", "dbusLoopFunc");
        dbus_dispatcher->enter();
        return nullptr;
    });
}

// ---- C interface

int create_proxy_manager_client(void)
{
    return changeLife(CREATE, CREATE_ERROR, usableClient() ? 1 : 0, createOnSystemBus);
}

int cleanup_proxy_manager_client(void)
{
    syslog(LOG_INFO, CALLED, "", __func__);
    return changeLife(__func__, DBUS_ERROR, 0, [] {
        const int deleted = deleteClient();
        dropConnection();
        return deleted;
    });
}

ProxyManagerConfig get_http_proxy_config(void)
{
    syslog(LOG_INFO, CALLED, "", __func__);
    ProxyManagerConfig config;
    initProxyConfig(&config);
    ProxyManagerClientImpl *client = usableClient();
    if (!client) {
        syslog(LOG_ERR, CLIENT_IS_NULL, "", __func__);
        return config;
    }
    contain(__func__, DBUS_ERROR, 0, [&] {
        client->getProxyConfig(&config);
        return 0;
    });
    return config;
}

int update_proxy_config(ProxyManagerConfig config)
{
    syslog(LOG_INFO, CALLED, "", __func__);
    ProxyManagerClientImpl *client = usableClient();
    if (!client) {
        syslog(LOG_ERR, CLIENT_IS_NULL, "", __func__);
        return -1;
    }
    return contain(__func__, DBUS_ERROR, -1, [&] { return client->updateProxyConfig(config); });
}

ProxyUrlInformation get_proxy_url(const char *requestUrl)
{
    const ProxyUrlInformation none{};
    ProxyManagerClientImpl *client = usableClient();
    if (!client)
        return none;
    return contain(__func__, DBUS_ERROR, none, [&] { return client->getProxyUrl(requestUrl); });
}

bool check_service_started(void)
{
    ProxyManagerClientImpl *client = usableClient();
    if (!client) {
        syslog(LOG_INFO, CALLED, "", __func__);
        syslog(LOG_ERR, CLIENT_IS_NULL, "", __func__);
        return false;
    }
    return contain(__func__, DBUS_ERROR, false, [&] { return checkServiceStarted(*client); });
}

void set_proxy_manager_event_cb(ProxyMgrEventType type, ProxyMgrEventCallback cb)
{
    syslog(LOG_NOTICE, "%s%s event type:%d", "", __func__, type);
    ProxyManagerClientImpl *client = usableClient();
    if (!client) {
        syslog(LOG_ERR, CLIENT_IS_NULL, "", __func__);
        return;
    }
    contain(__func__, DBUS_ERROR, 0, [&] {
        client->AddEventNotifyHandler(type, cb);
        return 0;
    });
}
