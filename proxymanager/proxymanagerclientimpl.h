// The client of the proxy manager service: the interface proxy with its wire contract, and the object that
// holds the configuration, the cache of answers and the event handlers.
#ifndef PROXYMANAGER_PROXYMANAGERCLIENTIMPL_H
#define PROXYMANAGER_PROXYMANAGERCLIENTIMPL_H

#include "common.h"
#include "lruproxyurlcache.h"

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <dbus-c++/dbus.h>

class AnswerReader;
class CallDesk;

namespace com
{
namespace halvo
{

// The wire contract: four methods, three signals. Methods block for the reply and throw DBus::Error for
// anything but a reply of the right types. Text that cannot be sent is such an error too.
class ProxyManagerServiceInterface_proxy : public DBus::InterfaceProxy
{
public:
    // mode, proxyUrl, pacUrl, optionFlag, userName, password
    using Configuration = std::array<std::string, 6>;

    ProxyManagerServiceInterface_proxy();
    virtual ~ProxyManagerServiceInterface_proxy() = default;

    virtual void notifyProxyConfigupdated(const std::string &mode, const std::string &proxyUrl,
                                          const std::string &userName, const std::string &password) = 0;
    virtual void notifyClearcache() = 0;
    virtual void ProxyMgrStateEvent(const int32_t &eventType) = 0;

    int32_t updateProxyconfig(const char *mode, const char *proxyUrl, const char *pacUrl, bool optionFlag,
                              const char *userName, const char *password);
    Configuration getProxyconfig();
    std::vector<std::string> getProxyurl(const char *requestUrl);
    bool checkServicestarted();

protected:
    // Decides whether a signal counts. Any process on the bus can send one that looks like the service's.
    virtual bool isFromService(const DBus::SignalMessage &) const { return true; }

private:
    void _notifyProxyConfigupdated_stub(const DBus::SignalMessage &signal);
    void _notifyClearcache_stub(const DBus::SignalMessage &signal);
    void _ProxyMgrStateEvent_stub(const DBus::SignalMessage &signal);

    // Runs one stub. libdbus calls it: nothing may be thrown through.
    template <typename Handle>
    void deliver(const DBus::SignalMessage &signal, Handle handle);
    DBus::Message request(const char *member, DBus::CallMessage &call);
};

} // namespace halvo
} // namespace com

// Receives the service's signals and ignores them.
class ProxyManagerClient : public com::halvo::ProxyManagerServiceInterface_proxy
{
public:
    void notifyProxyConfigupdated(const std::string &, const std::string &, const std::string &,
                                  const std::string &) override
    {
    }
    void notifyClearcache() override {}
    void ProxyMgrStateEvent(const int32_t &) override {}
};

// Knows which connection of the bus owns a well-known name, from the bus's own announcements. Used on the
// thread that dispatches the connection.
class NameOwner
{
public:
    // Throws DBus::Error when the bus does not answer.
    NameOwner(DBus::Connection &connection, const std::string &name);
    ~NameOwner();
    NameOwner(const NameOwner &) = delete;
    NameOwner &operator=(const NameOwner &) = delete;

    bool sent(const DBus::Message &message) const;

private:
    std::string ask();
    bool follow(const DBus::Message &message);

    DBus::Connection connection_;
    const std::string name_;
    const std::string rule_;
    std::string owner_; // empty when nobody owns the name
    DBus::MessageSlot filter_;
};

// An answer that is not in the cache yet. Its strings are released with it.
struct ProxyAnswer {
    ProxyUrlInformation record{};

    ProxyAnswer() = default;
    ProxyAnswer(const ProxyAnswer &) = delete;
    ProxyAnswer &operator=(const ProxyAnswer &) = delete;
    ~ProxyAnswer() { cleanupProxyUrlInfo(&record); }
};

class ProxyManagerClientImpl : public ProxyManagerClient, public DBus::ObjectProxy
{
public:
    using EventHandler = void (*)(ProxyMgrEventType);

    // Reads the service's configuration. Throws DBus::Error when the bus is out of reach; a service that does
    // not answer leaves the configuration empty.
    ProxyManagerClientImpl(DBus::Connection &connection, const char *path, const char *name);
    ~ProxyManagerClientImpl() override;

    void notifyProxyConfigupdated(const std::string &mode, const std::string &proxyUrl,
                                  const std::string &userName, const std::string &password) override;
    void notifyClearcache() override;
    void ProxyMgrStateEvent(const int32_t &eventType) override;

    // Leaves the calls to a thread, if it owns the connection.
    void leaveCallsAt(CallDesk *callDesk) { desk = callDesk; }

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

    ProxyMode snapshotConfig(const char *requestUrl, ProxyUrlInformation &manual);
    bool findAnswer(const char *requestUrl, const std::string &key, AnswerReader &reader,
                    ProxyUrlInformation &result);
    void askService(const char *requestUrl, ProxyUrlInformation &result);
    ProxyUrlInformation keepAnswer(const std::string &key, AnswerReader &reader, ProxyAnswer &answer);
    static void callHandler(const char *caller, EventHandler handler, ProxyMgrEventType type);
    bool hasHandler(ProxyMgrEventType type) const { return eventHandlers.count(type) != 0; }

    ProxyManagerConfig proxyConfig;                          // guarded by configMutex
    std::map<ProxyMgrEventType, EventHandler> eventHandlers; // guarded by eventMutex
    std::mutex cacheMutex;  // never held together with configMutex, nor during a call to the service
    std::mutex configMutex; // taken before eventMutex
    std::mutex eventMutex;
    std::unique_ptr<LRUProxyURLCache<ProxyUrlInformation>> urlCache; // guarded by cacheMutex
    // When false, the next change of the configuration is absorbed. Guarded by eventMutex.
    bool configEventArmed = false;
    std::unique_ptr<NameOwner> serviceOwner;
    CallDesk *desk = nullptr;
};

#endif
