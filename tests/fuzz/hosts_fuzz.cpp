// What is read from the texts of a proxy configuration: hosts of URLs, the cache by host against a plain list, and
// the stand-in's rules.

#include "fuzz.h"

#include "common.h"
#include "lruproxyurlcache.h"
#include "proxy_text.h"

#include <algorithm>
#include <cstring>
#include <vector>

using Cache = LRUProxyURLCache<int>;
constexpr size_t ROOM = 4;

// The entries of the cache, the least recently used first, and the sum of the values neither replaced nor released.
static std::vector<std::pair<std::string, int>> model;
static long held;

static void use_cache(Cache &cache, bool is_stored, const std::string &key)
{
    static int latest = 0;
    const auto found =
        std::find_if(model.begin(), model.end(), [&](const auto &entry) { return entry.first == key; });
    const bool known = found != model.end();
    if (known)
        std::rotate(found, found + 1, model.end());
    if (!is_stored) {
        int value = 0;
        REQUIRE(cache.get(key, value) == known && (!known || value == model.back().second));
        return;
    }
    cache.set(key, ++latest);
    held += latest - (known ? model.back().second : 0);
    if (!known)
        model.emplace_back(key, 0);
    model.back().second = latest;
    if (model.size() > ROOM)
        model.erase(model.begin());
}

static void compare(const Cache &cache)
{
    const ProxyURLCacheNode *node = cache.tail;
    long sum = 0;
    for (const auto &[key, value] : model) {
        REQUIRE(node && node->key == key && *cache.find(key) == value);
        node = node->prev;
        sum += value;
    }
    REQUIRE(!node && cache.nodeMap.size() == model.size() && held == sum);
}

static void read_host(const std::string &url)
{
    char *host = getHost(url);
    const size_t scheme = url.find("://"), start = scheme == std::string::npos ? 0 : scheme + 3;
    REQUIRE(host ? url.compare(start, strlen(host), host) == 0 && (start == 0 || !strchr(host, ':'))
                 : start == url.size() || url[start] == ':');
    free(host);
}

static void read_text(const std::string &text)
{
    const proxy_text::Url url = proxy_text::split_url(text);
    REQUIRE(url.without_user.size() <= text.size() && url.host.size() + url.port.size() <= text.size());
    REQUIRE(!proxy_text::is_url(text) || (!url.scheme.empty() && !url.host.empty()));
    REQUIRE(!proxy_text::is_host_port(text) || text[0] == '[' || proxy_text::is_url("x://" + text));
    REQUIRE(!proxy_text::is_pac_url(text) || proxy_text::is_clean(text));
    REQUIRE(proxy_text::on_one_line(text).find_first_of("\t\r\x1b\x7f") == std::string::npos);
}

// s KEY and g KEY store and look up, c clears, u URL has a host; any other line is some text.
void run(std::istream &input)
{
    held = 0;
    model.clear();
    Cache cache(
        ROOM, [](int &value, void *) { held -= value; }, nullptr);
    for (char command; input.get(command); compare(cache)) {
        const std::string text = upto(input, '\n');
        if (command == 's' || command == 'g') {
            use_cache(cache, command == 's', text);
        } else if (command == 'c') {
            cache.clearCache();
            model.clear();
        } else if (command == 'u') {
            read_host(text);
        } else {
            read_text(command + text);
        }
    }
}
