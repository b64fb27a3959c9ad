// The record functions of the public header, and the helpers that go with them.

#include "common.h"

#include "modewords.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iterator>
#include <new>

#include <strings.h>
#include <syslog.h>

namespace
{

constexpr int MODE_COUNT = std::size(MODE_WORDS);

// Leaves the destination of a text that is NULL as it is.
void cloneText(const char *source, char **destination)
{
    if (source)
        *destination = string2Char(source, static_cast<int>(strlen(source)));
}

} // namespace

void freeMem(char **text)
{
    free(*text);
    *text = nullptr;
}

char *copyText(std::string_view text)
{
    char *const copy =
        string2Char(text.data(), text.length() > INT_MAX ? -1 : static_cast<int>(text.length()));
    if (!copy && !text.empty())
        throw std::bad_alloc();
    return copy;
}

const char *currentError()
{
    try {
        throw;
    } catch (const std::exception &error) { // DBus::Error is one
        return orEmpty(error.what());
    } catch (...) {
        return "unknown error";
    }
}

std::string_view hostOf(std::string_view url)
{
    const size_t scheme = url.find("://");
    if (scheme == std::string_view::npos)
        return url;
    std::string_view rest = url.substr(scheme + strlen("://"));
    const size_t slash = rest.find('/');
    if (slash > 0)
        rest = rest.substr(0, slash);
    return rest.substr(0, rest.find(':'));
}

char *getHost(const std::string &url)
{
    return copyText(hostOf(url));
}

void initProxyConfig(ProxyManagerConfig *config)
{
    *config = {PROXY_MODE_OFF, nullptr, nullptr, false, nullptr, nullptr};
}

void cleanupProxyConfig(ProxyManagerConfig *config)
{
    freeMem(&config->proxyUrl);
    freeMem(&config->pacUrl);
    freeMem(&config->userName);
    freeMem(&config->password);
}

void cloneProxyConfig(const ProxyManagerConfig *srcConfig, ProxyManagerConfig *destConfig)
{
    if (!srcConfig || !destConfig) {
        syslog(LOG_ERR, "%s srcConfig or destConfig is null", __func__);
        return;
    }
    destConfig->mode = srcConfig->mode;
    destConfig->optionFlag = srcConfig->optionFlag;
    cloneText(srcConfig->proxyUrl, &destConfig->proxyUrl);
    cloneText(srcConfig->pacUrl, &destConfig->pacUrl);
    cloneText(srcConfig->userName, &destConfig->userName);
    cloneText(srcConfig->password, &destConfig->password);
}

void initProxyUrlInfo(ProxyUrlInformation *info, int mode, int count)
{
    *info = {mode, nullptr, nullptr, nullptr, count};
    if (count > 0) {
        info->proxyUrlList = static_cast<char **>(calloc(static_cast<size_t>(count), sizeof(char *)));
        if (!info->proxyUrlList)
            info->proxyUrlCount = 0;
    }
}

void cleanupProxyUrlInfo(ProxyUrlInformation *info)
{
    info->mode = PROXY_MODE_OFF;
    if (info->proxyUrlList && info->proxyUrlCount > 0) {
        for (int32_t i = 0; i < info->proxyUrlCount; i++)
            freeMem(&info->proxyUrlList[i]);
        free(info->proxyUrlList);
        info->proxyUrlList = nullptr;
    }
    freeMem(&info->userName);
    freeMem(&info->password);
    info->proxyUrlCount = 0;
}

void cleanupProxySetting(ProxySetting *setting)
{
    setting->kind = 0;
    freeMem(&setting->value);
}

int str2ProxyMode(const char *text)
{
    for (int mode = 0; mode < MODE_COUNT; mode++) {
        if (strcasecmp(text, MODE_WORDS[mode]) == 0)
            return mode;
    }
    return PROXY_MODE_OFF;
}

const char *proxyMode2Str(int mode)
{
    if (mode < 0 || mode >= MODE_COUNT) {
        syslog(LOG_ERR, "%s: mode:%d is invalid", __func__, mode);
        return MODE_WORDS[PROXY_MODE_OFF];
    }
    syslog(LOG_INFO, "%s: str mode:%s", __func__, MODE_WORDS[mode]);
    return MODE_WORDS[mode];
}

char *string2Char(const char *src, int len)
{
    if (!src || len <= 0) {
        syslog(LOG_INFO, "%s: input is null, or length:%d <= 0", __func__, len);
        return nullptr;
    }
    const size_t length = static_cast<size_t>(len);
    char *copy = static_cast<char *>(calloc(length + 1, 1));
    if (copy)
        memcpy(copy, src, length);
    return copy;
}
