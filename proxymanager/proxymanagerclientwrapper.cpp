// The C interface of the proxy manager client, and what there is one of in a process: the client, its
// connection, its dispatch thread.

#include "proxymanagerclientwrapper.h"

#include "proxymanagerclientimpl.h"
#include "systembus.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <new>
#include <utility>

#include <pthread.h>
#include <syslog.h>

DBus::Connection *dbus_conn = nullptr;
NeverDestroyed<PollLoop> dbus_dispatcher;

namespace
{

constexpr const char *OBJECT_PATH = "/com/halvo/ProxyManagerService";
constexpr const char *BUS_NAME = "com.halvo.ProxyManagerService";
constexpr const char *CALLED = "%s%s called ";
constexpr const char *CREATE_ERROR = "%s%s error: pDBus Error occured: %s";
constexpr const char *CREATE = "create_proxy_manager_client";
constexpr const char *CLEANUP_WITHOUT_CONN = "cleanup_without_conn";

std::mutex clientMutex; // guards the next one, dbus_conn, and the start and end of the dispatch thread
ProxyManagerClientImpl *pProxyMgrClient = nullptr;

// The client once it may be used: with its dispatch thread.
std::atomic<ProxyManagerClientImpl *> readyClient{nullptr};

// ---- Forked children

// Whether a child would inherit a client. Also while one is made or released: no thread that does so is in the child.
std::atomic<bool> hasClient{false};
bool clientIsParents = false; // the client is the parent's

// After a fork the child shares the parent's sockets, and finds locks as threads that it does not have left them.
void resetInChild()
{
    new (&clientMutex) std::mutex;
    readyClient = nullptr;
    if (dbus_dispatcher.isConstructed())
        dbus_dispatcher->resetInChild();
    dbus_conn = nullptr;
    clientIsParents = clientIsParents || hasClient;
}

const bool followsForks = pthread_atfork(nullptr, nullptr, resetInChild) == 0;

// ---- Exceptions and cancellation

// Being cancelled inside libdbus would leave its locks locked for ever.
class NotCancellable
{
public:
    NotCancellable() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &former_); }
    // Ends a thread that has been cancelled asynchronously meanwhile.
    ~NotCancellable() noexcept(false) { pthread_setcancelstate(former_, nullptr); }
    NotCancellable(const NotCancellable &) = delete;
    NotCancellable &operator=(const NotCancellable &) = delete;

private:
    int former_ = PTHREAD_CANCEL_ENABLE;
};

// Nothing is thrown across the C interface: whatever comes is logged, and the neutral result returned.
template <typename Result, typename Action>
Result withoutExceptions(const char *caller, const char *errorFormat, Result neutral, Action action)
{
    const NotCancellable here;
    try {
        return action();
    } catch (const DBus::Error &error) {
        syslog(LOG_ERR, errorFormat, "", caller, orEmpty(error.what()));
    } catch (...) {
        syslog(LOG_ERR, "%s%s error: %s", "", caller, currentError());
    }
    return neutral;
}

template <typename Result, typename Action>
Result withClient(const char *caller, Result neutral, Action action)
{
    ProxyManagerClientImpl *const client = readyClient;
    if (client)
        return withoutExceptions(caller, CALL_FAILED_FORMAT, neutral, [&] { return action(*client); });
    syslog(LOG_ERR, "%s%s proxy manager client is null", "", caller);
    return neutral;
}

// ---- Dispatch thread

// False when it may still be there.
bool stopThread()
{
    if (!dbus_dispatcher.isConstructed() || !dbus_dispatcher->thread().isStarted())
        return true;
    syslog(LOG_NOTICE, "%s%s dbus loop end", "", CLEANUP_WITHOUT_CONN);
    dbus_dispatcher->leave();
    const bool stopped = dbus_dispatcher->thread().join();
    if (!stopped)
        syslog(LOG_ERR, "%s%s the dispatch thread does not end", "", CLEANUP_WITHOUT_CONN);
    return stopped;
}

// Ends the calls of all threads and the dispatch thread in a process that exits without cleaning up.
const struct AtExit {
    ~AtExit()
    {
        if (clientIsParents || !dbus_dispatcher.isConstructed())
            return;
        DispatchThread &thread = dbus_dispatcher->thread();
        thread.shutDown();
        dbus_dispatcher->calls().failAll();
        if (thread.isCurrent())
            return;
        // A callback that does not return must not keep the process; a cleanup under way elsewhere joins by itself.
        const std::unique_lock<std::mutex> lock(clientMutex, std::try_to_lock);
        if (thread.waitUntilLeft() && lock.owns_lock() && thread.isStarted())
            thread.join();
    }
} atExit;

// ---- Connection

// Leaves behind what may be in use, or would use a number that may be one of the program's by now.
void abandonConnection()
{
    dbus_dispatcher->abandonSystemBus();
    dbus_conn = nullptr;
}

void dropConnection()
{
    if (!dbus_conn)
        return;
    if (dbus_dispatcher->hasLostSystemBus())
        return abandonConnection();
    closeSystemBus(*dbus_dispatcher, std::unique_ptr<DBus::Connection>(std::exchange(dbus_conn, nullptr)));
}

// Takes a kept connection up again: what came for an earlier client is not for the next one.
bool reuseConnection()
{
    if (!dbus_conn)
        return false;
    if (!dbus_dispatcher->hasLostSystemBus()) {
        dbus_dispatcher->dispatchArrived();
        if (dbus_conn->connected())
            return true;
    }
    dropConnection();
    return false;
}

// ---- Client

int deleteClient()
{
    const bool stopped = stopThread();
    if (!pProxyMgrClient) {
        syslog(LOG_NOTICE, "%s%s pProxyMgrClient already null", "", CLEANUP_WITHOUT_CONN);
        return 0;
    }
    readyClient = nullptr;
    ProxyManagerClientImpl *const client = std::exchange(pProxyMgrClient, nullptr);
    const bool isOnSystemBus = dbus_conn && client->conn() == *dbus_conn;
    if (!stopped || (isOnSystemBus && dbus_dispatcher->hasLostSystemBus())) {
        abandonConnection();
        return 1;
    }
    delete client;
    if (dbus_conn)
        dbus_dispatcher->dispatchArrived(); // signals for the client that is gone
    return 1;
}

enum class Creation { Made, Unconstructed, Unanswered };

Creation createOn(DBus::Connection &conn)
{
    try {
        pProxyMgrClient = new ProxyManagerClientImpl(conn, OBJECT_PATH, BUS_NAME, dbus_dispatcher->calls());
        syslog(LOG_INFO, CALLED, "", "check_service_started");
        pProxyMgrClient->checkServicestarted();
        return Creation::Made;
    } catch (const std::exception &error) { // DBus::Error is one
        syslog(LOG_ERR, CREATE_ERROR, "", CREATE, orEmpty(error.what()));
    }
    syslog(LOG_INFO, CALLED, "", CLEANUP_WITHOUT_CONN);
    return deleteClient() ? Creation::Unanswered : Creation::Unconstructed;
}

int createOnSystemBus()
{
    DBus::default_dispatcher = &*dbus_dispatcher;
    syslog(LOG_NOTICE, "%s%s create dbus connection", "", CREATE);
    if (!stopThread()) // of a client before
        return 0;
    for (bool kept = reuseConnection();; kept = false) {
        if (!kept)
            dbus_conn = openSystemBus(*dbus_dispatcher).release();
        syslog(LOG_INFO, CALLED, "", CREATE);
        const Creation creation = createOn(*dbus_conn);
        if (creation == Creation::Made) {
            if (!dbus_dispatcher->thread().start(dbusLoopFunc))
                syslog(LOG_ERR, "%s%s create thread failed", "", CREATE);
            return 1;
        }
        if (creation == Creation::Unanswered)
            return 0;
        // A constructor that has thrown leaves a filter with a dangling pointer on the connection.
        const bool wasClosed = !dbus_conn->connected();
        dropConnection();
        if (!kept || !wasClosed) // a kept connection that is found closed is replaced once
            return 0;
    }
}

// ---- Changes of the process-wide objects

// Why a change may not be made; NULL when it may.
const char *refusal(bool creates, bool inCallback)
{
    if (clientIsParents)
        return "the client belongs to the parent process";
    if (inCallback)
        return "must not be called from a callback";
    if (creates && !(dbus_dispatcher.construct() && followsForks))
        return "no descriptor or no memory for the dispatcher";
    return nullptr;
}

// Runs a change of the process-wide objects, one at a time. A creation has a text for the client that is there already.
// Nothing is changed on the dispatch thread: whoever holds the lock may be waiting for that thread.
template <typename Action>
int runExclusively(const char *caller, const char *alreadyExists, Action action)
{
    return withoutExceptions(caller, alreadyExists ? CREATE_ERROR : CALL_FAILED_FORMAT, 0, [&]() -> int {
        syslog(LOG_INFO, CALLED, "", alreadyExists ? CREATE : CLEANUP_WITHOUT_CONN);
        const bool inCallback = dbus_dispatcher.isConstructed() && dbus_dispatcher->thread().isCurrent();
        std::unique_lock<std::mutex> lock(clientMutex, std::defer_lock);
        if (!inCallback)
            lock.lock();
        if (alreadyExists && readyClient) {
            syslog(LOG_NOTICE, alreadyExists, "", caller);
            return 1;
        }
        if (const char *const reason = refusal(alreadyExists, inCallback)) {
            syslog(LOG_ERR, "%s%s %s", "", caller, reason);
            return 0;
        }
        struct AtEnd {
            ~AtEnd()
            {
                readyClient = pProxyMgrClient;
                hasClient = pProxyMgrClient != nullptr;
            }
        } const atEnd;
        if (alreadyExists || dbus_conn)
            hasClient = true;
        return action();
    });
}

} // namespace

// ---- Entry points for C++ programs

int create_proxy_manager_client(DBus::Connection &conn)
{
    return runExclusively(CREATE, "%s%s (conn)proxy_manager_client already exist",
                          [&] { return createOn(conn) == Creation::Made ? 1 : 0; });
}

int cleanup_without_conn()
{
    return runExclusively(CLEANUP_WITHOUT_CONN, nullptr, deleteClient);
}

void *dbusLoopFunc(void *)
{
    return withoutExceptions<void *>("dbusLoopFunc", CALL_FAILED_FORMAT, nullptr, []() -> void * {
        syslog(LOG_NOTICE, "%s%s dbus loop start", "", "dbusLoopFunc");
        if (dbus_dispatcher.construct())
            dbus_dispatcher->enter();
        return nullptr;
    });
}

// ---- C interface

int create_proxy_manager_client(void)
{
    return runExclusively(CREATE, "%s%s (void)proxy_manager_client already exist", createOnSystemBus);
}

int cleanup_proxy_manager_client(void)
{
    syslog(LOG_INFO, CALLED, "", __func__);
    return runExclusively(__func__, nullptr, [] {
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
    withClient(__func__, 0, [&](ProxyManagerClientImpl &client) {
        client.getProxyConfig(&config);
        return 0;
    });
    return config;
}

int update_proxy_config(ProxyManagerConfig config)
{
    syslog(LOG_INFO, CALLED, "", __func__);
    return withClient(__func__, -1, [&](auto &client) { return client.updateProxyConfig(config); });
}

ProxyUrlInformation get_proxy_url(const char *requestUrl)
{
    const ProxyUrlInformation none{};
    ProxyManagerClientImpl *client = readyClient;
    if (!client)
        return none;
    return withoutExceptions(__func__, CALL_FAILED_FORMAT, none,
                             [&] { return client->getProxyUrl(requestUrl); });
}

bool check_service_started(void)
{
    syslog(LOG_INFO, CALLED, "", __func__);
    return withClient(__func__, false, [](auto &client) { return client.checkServicestarted(); });
}

void set_proxy_manager_event_cb(ProxyMgrEventType type, ProxyMgrEventCallback cb)
{
    syslog(LOG_NOTICE, "%s%s event type:%d", "", __func__, type);
    withClient(__func__, 0, [&](auto &client) {
        client.AddEventNotifyHandler(type, cb);
        return 0;
    });
}
