// A least-recently-used cache of proxy answers: a list for the order, two maps for the keys. It has no lock;
// its owner guards every use. Values are plain records: what they point at is released through the callback
// only.
#ifndef PROXYMANAGER_LRUPROXYURLCACHE_H
#define PROXYMANAGER_LRUPROXYURLCACHE_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include <syslog.h>

class ProxyURLCacheNode
{
public:
    explicit ProxyURLCacheNode(std::string nodeKey) : key(std::move(nodeKey)) {}
    ProxyURLCacheNode(const ProxyURLCacheNode &) = delete;
    ProxyURLCacheNode &operator=(const ProxyURLCacheNode &) = delete;

    ~ProxyURLCacheNode()
    {
        syslog(LOG_INFO, "%s%s called ", "", "~ProxyURLCacheNode");
        prev = nullptr;
        next = nullptr;
    }

    std::string key;
    ProxyURLCacheNode *prev = nullptr; // towards the head: used more recently
    ProxyURLCacheNode *next = nullptr; // towards the tail
    void *value = nullptr;             // what the key has in the map of values, which never moves it
};

template <typename T>
class LRUProxyURLCache
{
public:
    using ClearCallback = void (*)(T &value, void *data);
    template <typename Value>
    using Map = std::map<std::string, Value, std::less<>>; // looked up without making a string

    LRUProxyURLCache(uint32_t entries, ClearCallback callback, void *callbackData)
        : capacity(entries), clearCallback(callback), clearCallbackData(callbackData)
    {
    }
    LRUProxyURLCache(const LRUProxyURLCache &) = delete;
    LRUProxyURLCache &operator=(const LRUProxyURLCache &) = delete;

    ~LRUProxyURLCache()
    {
        clearCache();
        clearCallback = nullptr;
    }

    // A value that is replaced does not pass through the callback: see find.
    void set(std::string key, T value)
    {
        syslog(LOG_NOTICE, "%s%s key:%s", "", __func__, key.c_str());
        const auto present = nodeMap.find(key);
        if (present != nodeMap.end()) {
            remove(present->second, false);
            setHead(present->second);
            *static_cast<T *>(present->second->value) = value;
            return;
        }
        // All memory is had before anything is evicted; a failure leaves the cache as it was.
        auto node = std::make_unique<ProxyURLCacheNode>(key);
        Map<ProxyURLCacheNode *> added;
        added.emplace(key, node.get());
        node->value = &valueMap.emplace(std::move(key), value).first->second;
        nodeMap.merge(added);
        if (nodeMap.size() > capacity && tail)
            remove(tail, true);
        setHead(node.release());
    }

    bool get(std::string_view key, T &out)
    {
        const auto present = nodeMap.find(key);
        if (present == nodeMap.end())
            return false;
        remove(present->second, false);
        setHead(present->second);
        out = *static_cast<const T *>(present->second->value);
        return true;
    }

    // The value under a key without counting as a use, NULL when there is none.
    const T *find(std::string_view key) const
    {
        const auto present = nodeMap.find(key);
        return present == nodeMap.end() ? nullptr : static_cast<const T *>(present->second->value);
    }

    void setHead(ProxyURLCacheNode *node)
    {
        syslog(LOG_INFO, "%s%s key:%s", "", __func__, node->key.c_str());
        node->prev = nullptr;
        node->next = head;
        if (head)
            head->prev = node;
        head = node;
        if (!tail)
            tail = node;
    }

    void remove(ProxyURLCacheNode *node, bool deleteNode)
    {
        syslog(LOG_INFO, "%s%s key:%s", "", __func__, node->key.c_str());
        if (node->prev)
            node->prev->next = node->next;
        else
            head = node->next;
        if (node->next)
            node->next->prev = node->prev;
        else
            tail = node->prev;
        if (!deleteNode)
            return;

        const std::string key = std::move(node->key);
        syslog(LOG_INFO, "%s%s deleteNode key:%s", "", __func__, key.c_str());
        T &value = *static_cast<T *>(node->value);
        delete node;
        nodeMap.erase(key);
        if (clearCallback)
            clearCallback(value, clearCallbackData);
        valueMap.erase(key);
    }

    void clearCache()
    {
        syslog(LOG_INFO, "%s%s called ", "", __func__);
        for (const auto &[key, node] : nodeMap) {
            if (clearCallback)
                clearCallback(*static_cast<T *>(node->value), clearCallbackData);
            delete node;
        }
        nodeMap.clear();
        valueMap.clear();
        head = nullptr;
        tail = nullptr;
    }

    // Read by tests; changed by the operations above only.
    uint32_t capacity;
    ProxyURLCacheNode *head = nullptr;
    ProxyURLCacheNode *tail = nullptr;
    Map<ProxyURLCacheNode *> nodeMap;
    Map<T> valueMap;
    ClearCallback clearCallback;
    void *clearCallbackData;
};

#endif
