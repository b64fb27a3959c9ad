// The client of the proxy manager service: configuration, cache of answers and event handlers.
#ifndef PROXYMANAGER_PROXYMANAGERCLIENTIMPL_H
#define PROXYMANAGER_PROXYMANAGERCLIENTIMPL_H

#include "common.h"
#include "lruproxyurlcache.h"
#include "serviceinterface.h"

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

class CallQueue;
class SharedAnswer;

class ProxyManagerClientImpl : public ProxyManagerClient, public DBus::ObjectProxy
{
public:
    using EventHandler = void (*)(ProxyMgrEventType);

    // Reads the service's configuration. Throws DBus::Error when the bus is out of reach; a service that does
    // not answer leaves the configuration empty. Calls are left to the queue, which must outlive the client.
    ProxyManagerClientImpl(DBus::Connection &connection, const char *path, const char *name,
                           CallQueue &queue);
    ~ProxyManagerClientImpl() override;

    void notifyProxyConfigupdated(const std::string &mode, const std::string &proxyUrl,
                                  const std::string &userName, const std::string &password) override;
    void notifyClearcache() override;
    void ProxyMgrStateEvent(const int32_t &eventType) override;

    int updateProxyConfig(const ProxyManagerConfig &config);
    // Asks the service. For the constructor only: takes no lock.
    void getProxyConfig();
    // Copies the configuration into an initialised record.
    void getProxyConfig(ProxyManagerConfig *out);
    void AddEventNotifyHandler(ProxyMgrEventType type, EventHandler handler);
    // The strings belong to the cache; the calling thread may read them until its next call, or until the
    // client is destroyed, whatever the cache does meanwhile.
    ProxyUrlInformation getProxyUrl(const char *requestUrl);
    void clearProxyUrlCache();
    static void clearCacheCallBack(ProxyUrlInformation &value, void *data);

protected:
    bool isFromService(const DBus::SignalMessage &signal) const override;

private:
    DBus::Message _invoke_method(DBus::CallMessage &call) override;

    ProxyMode snapshotConfig(const char *requestUrl, SharedAnswer &manual);
    bool findAnswer(const char *requestUrl, std::string_view key, SharedAnswer &answer);
    void askService(const char *requestUrl, SharedAnswer &answer);
    void storeAnswer(std::string_view key, SharedAnswer &answer, unsigned clearsBefore);
    static void callHandler(const char *caller, EventHandler handler, ProxyMgrEventType type);
    EventHandler findHandler(ProxyMgrEventType type) const; // NULL when there is none

    ProxyManagerConfig proxyConfig;                          // guarded by configMutex
    std::map<ProxyMgrEventType, EventHandler> eventHandlers; // guarded by eventMutex
    std::mutex cacheMutex;  // never held together with configMutex, nor during a call to the service
    std::mutex configMutex; // taken before eventMutex
    std::mutex eventMutex;
    std::unique_ptr<LRUProxyURLCache<ProxyUrlInformation>> urlCache; // guarded by cacheMutex
    // When false, the next change of the configuration is absorbed. Guarded by eventMutex.
    bool configEventArmed = false;
    std::atomic<unsigned> clears{0}; // of the cache, so far; changed under cacheMutex
    std::unique_ptr<NameOwner> serviceOwner;
    CallQueue &calls;
};

#endif
