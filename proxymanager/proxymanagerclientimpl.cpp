// The client of the proxy manager service: configuration, events, and the resolution of URLs.

#include "proxymanagerclientimpl.h"

#include "callqueue.h"
#include "sharedanswer.h"

#include <cstdlib>
#include <cstring>
#include <utility>

#include <syslog.h>

namespace
{

constexpr uint32_t CACHE_CAPACITY = 50;

} // namespace

// ---- Life

ProxyManagerClientImpl::ProxyManagerClientImpl(DBus::Connection &connection, const char *path,
                                               const char *name, CallQueue &queue)
    : DBus::ObjectProxy(connection, path, name), calls(queue)
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
    SharedAnswer::releaseLatest();
    {
        const std::lock_guard<std::mutex> lock(eventMutex);
        eventHandlers.clear();
    }
    cleanupProxyConfig(&proxyConfig);
}

DBus::Message ProxyManagerClientImpl::_invoke_method(DBus::CallMessage &call)
{
    if (!call.path())
        throwIfNoMemory(call.path(path().c_str()));
    if (!call.destination())
        throwIfNoMemory(call.destination(service().c_str()));
    return calls.call(conn(), call, get_timeout());
}

bool ProxyManagerClientImpl::isFromService(const DBus::SignalMessage &signal) const
{
    return serviceOwner && serviceOwner->sent(signal);
}

// ---- Configuration

// What stands behind a scheme and its two slashes; NULL when the text is too short to hold them.
static const char *withoutScheme(const char *proxy)
{
    for (const char *scheme : {"http:", "https:"}) {
        const size_t prefix = strlen(scheme) + strlen("//");
        if (strstr(proxy, scheme))
            return strlen(proxy) < prefix ? nullptr : proxy + prefix;
    }
    return proxy;
}

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
        syslog(LOG_ERR, CALL_FAILED_FORMAT, CLASS_PREFIX, __func__, orEmpty(error.what()));
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
        syslog(LOG_ERR, CALL_FAILED_FORMAT, CLASS_PREFIX, __func__, orEmpty(error.what()));
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

ProxyManagerClientImpl::EventHandler ProxyManagerClientImpl::findHandler(ProxyMgrEventType type) const
{
    const auto handler = eventHandlers.find(type);
    return handler == eventHandlers.end() ? nullptr : handler->second;
}

void ProxyManagerClientImpl::callHandler(const char *caller, EventHandler handler, ProxyMgrEventType type)
{
    try {
        handler(type);
    } catch (...) {
        syslog(LOG_ERR, "%s%s the callback of event type:%d has thrown: %s", CLASS_PREFIX, caller, type,
               currentError());
    }
}

void ProxyManagerClientImpl::notifyProxyConfigupdated(const std::string &mode, const std::string &proxyUrl,
                                                      const std::string &userName,
                                                      const std::string &password)
{
    syslog(LOG_NOTICE, "%s%s mode:%s", CLASS_PREFIX, __func__, mode.c_str());
    const std::lock_guard<std::mutex> configLock(configMutex);
    struct Owned : ProxyManagerConfig { // in place of the present one as a whole, or not at all
        explicit Owned(const ProxyManagerConfig &other) : ProxyManagerConfig(other) {}
        ~Owned() { cleanupProxyConfig(this); }
    } updated({str2ProxyMode(mode.c_str()), nullptr, nullptr, proxyConfig.optionFlag, nullptr, nullptr});
    if (updated.mode == PROXY_MODE_MANUAL) {
        updated.proxyUrl = proxyUrl.empty() ? nullptr : copyText(proxyUrl);
        updated.optionFlag = true;
        updated.userName = copyText(userName);
        updated.password = copyText(password);
    }
    std::swap<ProxyManagerConfig>(proxyConfig, updated);

    const std::lock_guard<std::mutex> eventLock(eventMutex);
    if (!configEventArmed && (findHandler(PROXY_MGR_EVENT_STATE_0) || findHandler(PROXY_MGR_EVENT_STATE_1))) {
        configEventArmed = true;
        return;
    }
    if (const EventHandler handler = findHandler(PROXY_MGR_EVENT_CONFIG_UPDATED)) {
        syslog(LOG_NOTICE, "%s%s call the proxy configuration update event callback", CLASS_PREFIX, __func__);
        callHandler(__func__, handler, PROXY_MGR_EVENT_CONFIG_UPDATED);
    }
}

void ProxyManagerClientImpl::ProxyMgrStateEvent(const int32_t &eventType)
{
    syslog(LOG_NOTICE, "%s%s event type:%d", CLASS_PREFIX, __func__, eventType);
    const std::lock_guard<std::mutex> lock(eventMutex);
    EventHandler handler = findHandler(eventType);
    if (!handler)
        handler = findHandler(PROXY_MGR_EVENT_STATE_0);
    if (handler)
        callHandler(__func__, handler, eventType);
}

void ProxyManagerClientImpl::notifyClearcache()
{
    syslog(LOG_INFO, "%s%s called ", CLASS_PREFIX, __func__);
    clearProxyUrlCache();
}

// ---- Resolution of URLs

constexpr const char *GET_PROXY_URL = "getProxyUrl";

// getHost without its blocks on the heap, which a hit does without.
static std::string_view cacheKey(const char *requestUrl)
{
    const std::string_view host = hostOf(requestUrl);
    if (host.empty())
        free(getHost(requestUrl)); // which logs that there is none
    return host;
}

static void logManualAnswer(const ProxyUrlInformation &answer)
{
    syslog(LOG_NOTICE, "%s%s proxy mode is manual. proxyUrl:%s, useName:%s", CLASS_PREFIX, GET_PROXY_URL,
           orEmpty(answer.proxyUrlList ? answer.proxyUrlList[0] : nullptr), orEmpty(answer.userName));
}

static void decodeAnswer(const std::vector<std::string> &texts, SharedAnswer &answer)
{
    if (texts.empty()) {
        syslog(LOG_NOTICE, "%s%s response from proxy manager service is empty", CLASS_PREFIX, GET_PROXY_URL);
        return;
    }
    syslog(LOG_NOTICE, "%s%s response from proxy manager service, proxy mode:%s", CLASS_PREFIX, GET_PROXY_URL,
           texts[0].c_str());
    if (texts.size() == 1)
        syslog(LOG_NOTICE, "%s%s response url is empty.", CLASS_PREFIX, GET_PROXY_URL);
    answer.begin(str2ProxyMode(texts[0].c_str()), static_cast<int>(texts.size() - 1));
    const ProxyUrlInformation &record = answer.record();
    for (int32_t i = 0; i < record.proxyUrlCount; i++) {
        const std::string &text = texts[static_cast<size_t>(i) + 1];
        syslog(LOG_NOTICE, "%s%s response from proxy manager service, index:%d proxy url:%s", CLASS_PREFIX,
               GET_PROXY_URL, i, text.c_str());
        record.proxyUrlList[i] = copyText(text);
    }
}

ProxyUrlInformation ProxyManagerClientImpl::getProxyUrl(const char *requestUrl)
{
    const unsigned clearsBefore = clears;
    if (!requestUrl)
        syslog(LOG_ERR, "%s%s requestUrl is null", CLASS_PREFIX, __func__);
    SharedAnswer answer;
    const ProxyMode mode = requestUrl ? snapshotConfig(requestUrl, answer) : PROXY_MODE_OFF;
    if (mode == PROXY_MODE_OFF) {
        SharedAnswer::releaseLatest();
        return {};
    }
    SharedAnswer &latest = SharedAnswer::latest();
    const std::string_view key = cacheKey(requestUrl);
    if (!findAnswer(requestUrl, key, latest)) {
        if (mode == PROXY_MODE_MANUAL)
            logManualAnswer(answer.record());
        else if (mode > PROXY_MODE_MANUAL)
            askService(requestUrl, answer);
        storeAnswer(key, answer, clearsBefore);
        latest.share(answer.record());
    }
    return latest.record();
}

static char *copyUnlessNull(const char *text)
{
    return text ? copyText(text) : nullptr;
}

// Takes what a manual answer needs, while the configuration cannot change.
ProxyMode ProxyManagerClientImpl::snapshotConfig(const char *requestUrl, SharedAnswer &manual)
{
    const std::lock_guard<std::mutex> lock(configMutex);
    const ProxyMode mode = proxyConfig.mode;
    if (mode == PROXY_MODE_OFF)
        return mode;
    syslog(LOG_NOTICE, "%s%s request url:%s, proxy mode:%d", CLASS_PREFIX, GET_PROXY_URL, requestUrl, mode);
    if (mode == PROXY_MODE_MANUAL) {
        manual.begin(PROXY_MODE_MANUAL, 1);
        ProxyUrlInformation &record = manual.record();
        record.proxyUrlList[0] = copyUnlessNull(proxyConfig.proxyUrl);
        record.userName = copyUnlessNull(proxyConfig.userName);
        record.password = copyUnlessNull(proxyConfig.password);
    }
    return mode;
}

bool ProxyManagerClientImpl::findAnswer(const char *requestUrl, std::string_view key, SharedAnswer &answer)
{
    const std::lock_guard<std::mutex> lock(cacheMutex);
    ProxyUrlInformation kept;
    if (!urlCache->get(key, kept))
        return false;
    syslog(LOG_NOTICE, "%s%s request url:%s, get proxy url from cache, mode:%d, userName:%s", CLASS_PREFIX,
           GET_PROXY_URL, requestUrl, kept.mode, orEmpty(kept.userName));
    for (int32_t i = 0; i < kept.proxyUrlCount; i++) {
        syslog(LOG_NOTICE, "%s%s get proxy url from cache, index:%d proxy url:%s", CLASS_PREFIX,
               GET_PROXY_URL, i, orEmpty(kept.proxyUrlList[i]));
    }
    answer.share(kept);
    return true;
}

void ProxyManagerClientImpl::askService(const char *requestUrl, SharedAnswer &answer)
{
    try {
        decodeAnswer(getProxyurl(requestUrl), answer);
    } catch (const DBus::Error &error) {
        syslog(LOG_ERR, CALL_FAILED_FORMAT, CLASS_PREFIX, GET_PROXY_URL, orEmpty(error.what()));
    }
}

// Makes the cache an owner of the answer. One that the service may have given before it had the cache cleared is not
// kept.
void ProxyManagerClientImpl::storeAnswer(std::string_view key, SharedAnswer &answer, unsigned clearsBefore)
{
    const std::lock_guard<std::mutex> lock(cacheMutex);
    if (clears != clearsBefore)
        return;
    ProxyUrlInformation replaced{}; // by another thread that missed at the same time
    if (const ProxyUrlInformation *present = urlCache->find(key))
        replaced = *present;
    urlCache->set(std::string(key), answer.record());
    SharedAnswer::retain(answer.record());
    SharedAnswer::release(replaced);
}

void ProxyManagerClientImpl::clearProxyUrlCache()
{
    syslog(LOG_NOTICE, "%s%s clear cache", CLASS_PREFIX, __func__);
    const std::lock_guard<std::mutex> lock(cacheMutex);
    clears++;
    urlCache->clearCache();
}

void ProxyManagerClientImpl::clearCacheCallBack(ProxyUrlInformation &value, void *)
{
    syslog(LOG_INFO, "%s%s called ", CLASS_PREFIX, __func__);
    SharedAnswer::release(value);
}
