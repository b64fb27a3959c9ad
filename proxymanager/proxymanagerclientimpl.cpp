// The client of the proxy manager service: wire contract, configuration, events, and the resolution of URLs.

#include "proxymanagerclientimpl.h"

#include "answerreader.h"
#include "owningdispatcher.h"

#include <cstdlib>
#include <cstring>

#include <dbus/dbus.h>
#include <strings.h>
#include <syslog.h>

namespace
{

constexpr const char *CLASS_PREFIX = "ProxyManagerClientImpl-";
constexpr const char *INTERFACE_NAME = "com.halvo.ProxyManagerServiceInterface";
constexpr const char *DBUS_ERROR_FORMAT = "%s%s DBus Error occured: %s";
constexpr uint32_t CACHE_CAPACITY = 50;
// A bus drops a client that sends it more than it takes in one message, 32 MiB as it comes.
constexpr size_t TEXT_LIMIT = size_t{16} * 1024 * 1024;

const char *orEmpty(const char *text)
{
    return text ? text : "";
}

void require(bool appended)
{
    if (!appended)
        throw DBus::Error(DBUS_ERROR_NO_MEMORY, "no memory for the call");
}

// Appends the arguments of a call, and refuses what libdbus or the bus would not bear: text that is not UTF-8
// ends the process, and a message too long ends the connection.
class ArgumentWriter
{
public:
    explicit ArgumentWriter(DBus::CallMessage &call) : iterator_(call.writer()) {}

    ArgumentWriter &text(const char *value)
    {
        length_ += strlen(value);
        if (length_ > TEXT_LIMIT)
            throw DBus::Error(DBUS_ERROR_LIMITS_EXCEEDED, "text too long");
        if (!dbus_validate_utf8(value, nullptr))
            throw DBus::Error(DBUS_ERROR_INVALID_ARGS, "text is not valid UTF-8");
        require(iterator_.append_string(value));
        return *this;
    }

    ArgumentWriter &flag(bool value)
    {
        require(iterator_.append_bool(value));
        return *this;
    }

private:
    DBus::MessageIter iterator_;
    size_t length_ = 0;
};

// Hands a method over to a slot of dbus-c++, which takes it only once there is memory for its own needs.
template <typename Result, typename Parameter, typename Object>
void fill(DBus::Slot<Result, Parameter> &slot, Object *object, Result (Object::*method)(Parameter))
{
    auto callback = std::make_unique<DBus::Callback<Object, Result, Parameter>>(object, method);
    slot = callback.get();
    (void)callback.release();
}

} // namespace

// ---- Interface proxy

namespace com
{
namespace halvo
{

ProxyManagerServiceInterface_proxy::ProxyManagerServiceInterface_proxy()
    : DBus::InterfaceProxy(INTERFACE_NAME)
{
    using Proxy = ProxyManagerServiceInterface_proxy;
    fill(_signals["notifyProxyConfigupdated"], this, &Proxy::_notifyProxyConfigupdated_stub);
    fill(_signals["notifyClearcache"], this, &Proxy::_notifyClearcache_stub);
    fill(_signals["ProxyMgrStateEvent"], this, &Proxy::_ProxyMgrStateEvent_stub);
}

template <typename Handle>
void ProxyManagerServiceInterface_proxy::deliver(const DBus::SignalMessage &signal, Handle handle)
{
    constexpr const char *DROPPED = "%s%s signal dropped: %s";
    try {
        if (isFromService(signal))
            handle(signal.reader());
    } catch (const std::exception &error) { // DBus::Error is one
        syslog(LOG_ERR, DROPPED, CLASS_PREFIX, signal.member(), orEmpty(error.what()));
    } catch (...) {
        syslog(LOG_ERR, DROPPED, CLASS_PREFIX, signal.member(), "unknown error");
    }
}

void ProxyManagerServiceInterface_proxy::_notifyProxyConfigupdated_stub(const DBus::SignalMessage &signal)
{
    deliver(signal, [this](DBus::MessageIter arguments) {
        std::array<std::string, 4> texts;
        for (std::string &text : texts) {
            text = arguments.get_string();
            ++arguments;
        }
        notifyProxyConfigupdated(texts[0], texts[1], texts[2], texts[3]);
    });
}

void ProxyManagerServiceInterface_proxy::_notifyClearcache_stub(const DBus::SignalMessage &signal)
{
    deliver(signal, [this](const DBus::MessageIter &) { notifyClearcache(); });
}

void ProxyManagerServiceInterface_proxy::_ProxyMgrStateEvent_stub(const DBus::SignalMessage &signal)
{
    deliver(signal, [this](DBus::MessageIter arguments) { ProxyMgrStateEvent(arguments.get_int32()); });
}

DBus::Message ProxyManagerServiceInterface_proxy::request(const char *member, DBus::CallMessage &call)
{
    require(call.member(member));
    return invoke_method(call);
}

int32_t ProxyManagerServiceInterface_proxy::updateProxyconfig(const char *mode, const char *proxyUrl,
                                                              const char *pacUrl, bool optionFlag,
                                                              const char *userName, const char *password)
{
    DBus::CallMessage call;
    ArgumentWriter(call)
        .text(mode)
        .text(proxyUrl)
        .text(pacUrl)
        .flag(optionFlag)
        .text(userName)
        .text(password);
    return request("updateProxyconfig", call).reader().get_int32();
}

ProxyManagerServiceInterface_proxy::Configuration ProxyManagerServiceInterface_proxy::getProxyconfig()
{
    DBus::CallMessage call;
    const DBus::Message reply = request("getProxyconfig", call);
    DBus::MessageIter arguments = reply.reader();
    // Entering anything but a container ends the process.
    if (arguments.type() != DBUS_TYPE_STRUCT)
        throw DBus::Error(DBUS_ERROR_INVALID_ARGS, "structure expected");
    DBus::MessageIter fields = arguments.recurse();
    Configuration configuration;
    for (std::string &text : configuration) {
        text = fields.get_string();
        ++fields;
    }
    return configuration;
}

std::vector<std::string> ProxyManagerServiceInterface_proxy::getProxyurl(const char *requestUrl)
{
    DBus::CallMessage call;
    ArgumentWriter(call).text(requestUrl);
    const DBus::Message reply = request("getProxyurl", call);
    DBus::MessageIter arguments = reply.reader();
    if (arguments.type() != DBUS_TYPE_ARRAY)
        throw DBus::Error(DBUS_ERROR_INVALID_ARGS, "array expected");
    if (arguments.array_type() != DBUS_TYPE_STRING)
        throw DBus::Error(DBUS_ERROR_INVALID_ARGS, "array of strings expected");
    std::vector<std::string> texts;
    for (DBus::MessageIter element = arguments.recurse(); !element.at_end(); ++element)
        texts.emplace_back(element.get_string());
    return texts;
}

bool ProxyManagerServiceInterface_proxy::checkServicestarted()
{
    DBus::CallMessage call;
    return request("checkServicestarted", call).reader().get_bool();
}

} // namespace halvo
} // namespace com

// ---- Owner of the service's name

NameOwner::NameOwner(DBus::Connection &connection, const std::string &name)
    : connection_(connection), name_(name),
      rule_("type='signal',sender='" DBUS_SERVICE_DBUS "',path='" DBUS_PATH_DBUS
            "',interface='" DBUS_INTERFACE_DBUS "',member='NameOwnerChanged',arg0='" +
            name + "'")
{
    fill(filter_, this, &NameOwner::follow);
    // Changes are followed before the present owner is asked for, so that none falls between.
    connection_.add_match(rule_.c_str());
    owner_ = ask();
    connection_.add_filter(filter_);
}

NameOwner::~NameOwner()
{
    connection_.remove_filter(filter_);
    connection_.remove_match(rule_.c_str(), false);
}

std::string NameOwner::ask()
{
    DBus::CallMessage call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, "GetNameOwner");
    ArgumentWriter(call).text(name_.c_str());
    try {
        return connection_.send_blocking(call, -1).reader().get_string();
    } catch (const DBus::Error &error) {
        if (strcmp(orEmpty(error.name()), DBUS_ERROR_NAME_HAS_NO_OWNER) != 0)
            throw;
        return {};
    }
}

bool NameOwner::follow(const DBus::Message &message)
{
    try {
        if (!message.is_signal(DBUS_INTERFACE_DBUS, "NameOwnerChanged") ||
            strcmp(orEmpty(message.sender()), DBUS_SERVICE_DBUS) != 0)
            return false;
        DBus::MessageIter arguments = message.reader();
        if (arguments.get_string() == name_) {
            ++arguments; // the former owner
            ++arguments;
            owner_ = arguments.get_string();
        }
    } catch (const std::exception &) { // not from a bus that works; libdbus must not see it
    }
    return false;
}

bool NameOwner::sent(const DBus::Message &message) const
{
    return !owner_.empty() && owner_ == orEmpty(message.sender());
}

// ---- Life

ProxyManagerClientImpl::ProxyManagerClientImpl(DBus::Connection &connection, const char *path,
                                               const char *name)
    : DBus::ObjectProxy(connection, path, name)
{
    syslog(LOG_INFO, "%s%s called ", CLASS_PREFIX, __func__);
    initProxyConfig(&proxyConfig);
    serviceOwner = std::make_unique<NameOwner>(connection, name);
    urlCache =
        std::make_unique<LRUProxyURLCache<ProxyUrlInformation>>(CACHE_CAPACITY, clearCacheCallBack, nullptr);
    getProxyConfig(); // last: it fills what only the destructor releases
    configEventArmed = true;
}

ProxyManagerClientImpl::~ProxyManagerClientImpl()
{
    syslog(LOG_INFO, "%s%s called ", CLASS_PREFIX, __func__);
    clearProxyUrlCache();
    urlCache.reset();
    AnswerReader::letGo();
    {
        const std::lock_guard<std::mutex> lock(eventMutex);
        eventHandlers.clear();
    }
    cleanupProxyConfig(&proxyConfig);
}

DBus::Message ProxyManagerClientImpl::_invoke_method(DBus::CallMessage &call)
{
    if (!call.path())
        require(call.path(path().c_str()));
    if (!call.destination())
        require(call.destination(service().c_str()));
    return desk ? desk->call(conn(), call, get_timeout()) : conn().send_blocking(call, get_timeout());
}

bool ProxyManagerClientImpl::isFromService(const DBus::SignalMessage &signal) const
{
    return serviceOwner && serviceOwner->sent(signal);
}

// ---- Configuration

namespace
{

// What stands behind a scheme and its two slashes; NULL when the text is too short to hold them.
const char *withoutScheme(const char *proxy)
{
    for (const char *scheme : {"http:", "https:"}) {
        const size_t prefix = strlen(scheme) + strlen("//");
        if (strstr(proxy, scheme))
            return strlen(proxy) < prefix ? nullptr : proxy + prefix;
    }
    return proxy;
}

} // namespace

int ProxyManagerClientImpl::updateProxyConfig(const ProxyManagerConfig &config)
{
    const char *mode = proxyMode2Str(config.mode);
    const bool manual = config.mode == PROXY_MODE_MANUAL && config.proxyUrl;
    const char *proxy = manual ? withoutScheme(config.proxyUrl) : "";
    if (!proxy) {
        syslog(LOG_ERR, "%s%s proxyUrl is too short for its scheme", CLASS_PREFIX, __func__);
        return -1;
    }
    const char *pac = orEmpty(config.pacUrl);
    syslog(LOG_NOTICE, "%s%s mode:%s, proxyUrl:%s, pacUrl:%s", CLASS_PREFIX, __func__, mode, proxy, pac);
    try {
        return updateProxyconfig(mode, proxy, pac, config.optionFlag, orEmpty(config.userName),
                                 orEmpty(config.password));
    } catch (const DBus::Error &error) {
        syslog(LOG_ERR, DBUS_ERROR_FORMAT, CLASS_PREFIX, __func__, orEmpty(error.what()));
        return -1;
    }
}

void ProxyManagerClientImpl::getProxyConfig()
{
    syslog(LOG_INFO, "%s%s called ", CLASS_PREFIX, __func__);
    cleanupProxyConfig(&proxyConfig);
    try {
        const Configuration texts = getProxyconfig();
        proxyConfig.mode = str2ProxyMode(texts[0].c_str());
        proxyConfig.proxyUrl = copyText(texts[1]);
        proxyConfig.pacUrl = copyText(texts[2]);
        proxyConfig.optionFlag = texts[3] == "y";
        proxyConfig.userName = copyText(texts[4]);
        proxyConfig.password = copyText(texts[5]);
    } catch (const DBus::Error &error) {
        syslog(LOG_ERR, DBUS_ERROR_FORMAT, CLASS_PREFIX, __func__, orEmpty(error.what()));
    }
}

void ProxyManagerClientImpl::getProxyConfig(ProxyManagerConfig *out)
{
    syslog(LOG_INFO, "%s%s called ", CLASS_PREFIX, __func__);
    const std::lock_guard<std::mutex> lock(configMutex);
    cloneProxyConfig(&proxyConfig, out);
}

// ---- Events

void ProxyManagerClientImpl::AddEventNotifyHandler(ProxyMgrEventType type, EventHandler handler)
{
    syslog(LOG_NOTICE, "%s%s event type:%d", CLASS_PREFIX, __func__, type);
    const std::lock_guard<std::mutex> lock(eventMutex);
    if (!handler)
        return;
    eventHandlers[type] = handler;
    if (static_cast<uint32_t>(type) <= PROXY_MGR_EVENT_STATE_1)
        configEventArmed = false;
}

void ProxyManagerClientImpl::callHandler(const char *caller, EventHandler handler, ProxyMgrEventType type)
{
    constexpr const char *THROWN = "%s%s the callback of event type:%d has thrown: %s";
    try {
        handler(type);
    } catch (const std::exception &error) {
        syslog(LOG_ERR, THROWN, CLASS_PREFIX, caller, type, orEmpty(error.what()));
    } catch (...) {
        syslog(LOG_ERR, THROWN, CLASS_PREFIX, caller, type, "unknown error");
    }
}

void ProxyManagerClientImpl::notifyProxyConfigupdated(const std::string &mode, const std::string &proxyUrl,
                                                      const std::string &userName,
                                                      const std::string &password)
{
    syslog(LOG_NOTICE, "%s%s mode:%s", CLASS_PREFIX, __func__, mode.c_str());
    const std::lock_guard<std::mutex> configLock(configMutex);
    cleanupProxyConfig(&proxyConfig);
    proxyConfig.mode = str2ProxyMode(mode.c_str());
    if (proxyConfig.mode == PROXY_MODE_MANUAL) {
        proxyConfig.proxyUrl = proxyUrl.empty() ? nullptr : copyText(proxyUrl);
        proxyConfig.optionFlag = true;
        proxyConfig.userName = copyText(userName);
        proxyConfig.password = copyText(password);
    }

    const std::lock_guard<std::mutex> eventLock(eventMutex);
    if (!configEventArmed && (hasHandler(PROXY_MGR_EVENT_STATE_0) || hasHandler(PROXY_MGR_EVENT_STATE_1))) {
        configEventArmed = true;
        return;
    }
    const auto handler = eventHandlers.find(PROXY_MGR_EVENT_CONFIG_UPDATED);
    if (handler != eventHandlers.end()) {
        syslog(LOG_NOTICE, "%s%s call the proxy configuration update event callback", CLASS_PREFIX, __func__);
        callHandler(__func__, handler->second, PROXY_MGR_EVENT_CONFIG_UPDATED);
    }
}

void ProxyManagerClientImpl::ProxyMgrStateEvent(const int32_t &eventType)
{
    syslog(LOG_NOTICE, "%s%s event type:%d", CLASS_PREFIX, __func__, eventType);
    const std::lock_guard<std::mutex> lock(eventMutex);
    auto handler = eventHandlers.find(eventType);
    if (handler == eventHandlers.end())
        handler = eventHandlers.find(PROXY_MGR_EVENT_STATE_0);
    if (handler != eventHandlers.end())
        callHandler(__func__, handler->second, eventType);
}

void ProxyManagerClientImpl::notifyClearcache()
{
    syslog(LOG_INFO, "%s%s called ", CLASS_PREFIX, __func__);
    clearProxyUrlCache();
}

// ---- Resolution of URLs

namespace
{

constexpr const char *GET_PROXY_URL = "getProxyUrl";

std::string cacheKey(const char *requestUrl)
{
    const std::string_view host = hostOf(requestUrl);
    if (host.empty())
        free(copyText({})); // which logs that there is none
    return std::string(host);
}

char *copyUnlessNull(const char *text)
{
    return text ? copyText(text) : nullptr;
}

void logManualAnswer(const ProxyUrlInformation &answer)
{
    syslog(LOG_NOTICE, "%s%s proxy mode is manual. proxyUrl:%s, useName:%s", CLASS_PREFIX, GET_PROXY_URL,
           orEmpty(answer.proxyUrlList ? answer.proxyUrlList[0] : nullptr), orEmpty(answer.userName));
}

void decodeAnswer(const std::vector<std::string> &texts, ProxyUrlInformation &result)
{
    if (texts.empty()) {
        syslog(LOG_NOTICE, "%s%s response from proxy manager service is empty", CLASS_PREFIX, GET_PROXY_URL);
        return;
    }
    syslog(LOG_NOTICE, "%s%s response from proxy manager service, proxy mode:%s", CLASS_PREFIX, GET_PROXY_URL,
           texts[0].c_str());
    if (texts.size() == 1)
        syslog(LOG_NOTICE, "%s%s response url is empty.", CLASS_PREFIX, GET_PROXY_URL);
    initProxyUrlInfo(&result, str2ProxyMode(texts[0].c_str()), static_cast<int>(texts.size() - 1));
    for (int32_t i = 0; i < result.proxyUrlCount; i++) {
        const std::string &text = texts[static_cast<size_t>(i) + 1];
        syslog(LOG_NOTICE, "%s%s response from proxy manager service, index:%d proxy url:%s", CLASS_PREFIX,
               GET_PROXY_URL, i, text.c_str());
        result.proxyUrlList[i] = copyText(text);
    }
}

} // namespace

ProxyUrlInformation ProxyManagerClientImpl::getProxyUrl(const char *requestUrl)
{
    ProxyUrlInformation result{};
    if (!requestUrl) {
        syslog(LOG_ERR, "%s%s requestUrl is null", CLASS_PREFIX, __func__);
        AnswerReader::letGo();
        return result;
    }
    ProxyAnswer answer;
    const ProxyMode mode = snapshotConfig(requestUrl, answer.record);
    if (mode == PROXY_MODE_OFF) {
        AnswerReader::letGo();
        return result;
    }
    AnswerReader &reader = AnswerReader::ofThisThread();
    const std::string key = cacheKey(requestUrl);
    if (findAnswer(requestUrl, key, reader, result))
        return result;

    if (mode == PROXY_MODE_MANUAL)
        logManualAnswer(answer.record);
    else if (mode > PROXY_MODE_MANUAL)
        askService(requestUrl, answer.record);
    return keepAnswer(key, reader, answer);
}

// Takes what a manual answer needs, while the configuration cannot change.
ProxyMode ProxyManagerClientImpl::snapshotConfig(const char *requestUrl, ProxyUrlInformation &manual)
{
    const std::lock_guard<std::mutex> lock(configMutex);
    const ProxyMode mode = proxyConfig.mode;
    if (mode == PROXY_MODE_OFF)
        return mode;
    syslog(LOG_NOTICE, "%s%s request url:%s, proxy mode:%d", CLASS_PREFIX, GET_PROXY_URL, requestUrl, mode);
    if (mode == PROXY_MODE_MANUAL) {
        initProxyUrlInfo(&manual, PROXY_MODE_MANUAL, 1);
        if (manual.proxyUrlCount > 0)
            manual.proxyUrlList[0] = copyUnlessNull(proxyConfig.proxyUrl);
        manual.userName = copyUnlessNull(proxyConfig.userName);
        manual.password = copyUnlessNull(proxyConfig.password);
    }
    return mode;
}

bool ProxyManagerClientImpl::findAnswer(const char *requestUrl, const std::string &key, AnswerReader &reader,
                                        ProxyUrlInformation &result)
{
    const std::lock_guard<std::mutex> lock(cacheMutex);
    if (!urlCache->get(key, result))
        return false;
    syslog(LOG_NOTICE, "%s%s request url:%s, get proxy url from cache, mode:%d, userName:%s", CLASS_PREFIX,
           GET_PROXY_URL, requestUrl, result.mode, orEmpty(result.userName));
    for (int32_t i = 0; i < result.proxyUrlCount; i++) {
        syslog(LOG_NOTICE, "%s%s get proxy url from cache, index:%d proxy url:%s", CLASS_PREFIX,
               GET_PROXY_URL, i, orEmpty(result.proxyUrlList[i]));
    }
    reader.turnTo(result);
    return true;
}

void ProxyManagerClientImpl::askService(const char *requestUrl, ProxyUrlInformation &result)
{
    try {
        decodeAnswer(getProxyurl(requestUrl), result);
    } catch (const DBus::Error &error) {
        syslog(LOG_ERR, DBUS_ERROR_FORMAT, CLASS_PREFIX, GET_PROXY_URL, orEmpty(error.what()));
    }
}

// Hands an answer over to the cache.
ProxyUrlInformation ProxyManagerClientImpl::keepAnswer(const std::string &key, AnswerReader &reader,
                                                       ProxyAnswer &answer)
{
    const std::lock_guard<std::mutex> lock(cacheMutex);
    ProxyUrlInformation replaced{}; // by another thread that missed at the same time
    if (const ProxyUrlInformation *present = urlCache->find(key))
        replaced = *present;
    urlCache->set(key, answer.record);
    const ProxyUrlInformation kept = std::exchange(answer.record, {});
    reader.turnTo(kept);
    AnswerReader::giveUp(replaced);
    return kept;
}

void ProxyManagerClientImpl::clearProxyUrlCache()
{
    syslog(LOG_NOTICE, "%s%s clear cache", CLASS_PREFIX, __func__);
    const std::lock_guard<std::mutex> lock(cacheMutex);
    urlCache->clearCache();
}

void ProxyManagerClientImpl::clearCacheCallBack(ProxyUrlInformation &value, void *)
{
    syslog(LOG_INFO, "%s%s called ", CLASS_PREFIX, __func__);
    AnswerReader::giveUp(value);
}
