// The interface proxy of the service with its wire contract, and the owner of the service's name on the bus.
#ifndef PROXYMANAGER_SERVICEINTERFACE_H
#define PROXYMANAGER_SERVICEINTERFACE_H

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include <dbus-c++/dbus.h>

// Throws DBus::Error when libdbus had no memory for a part of a message.
void throwIfNoMemory(bool hadMemory);

namespace com::halvo
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
    // Calls a method with its arguments, and waits for the reply.
    template <typename... Arguments>
    DBus::Message request(const char *member, Arguments... arguments);
};

} // namespace com::halvo

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

#endif
