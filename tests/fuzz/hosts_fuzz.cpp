// What is read from the texts of a proxy configuration: hosts of URLs, the cache by host against a simple model, and
// the stand-in's rules.

#include "fuzz.h"

#include "common.h"
#include "lruproxyurlcache.h"
#include "proxy_text.h"

#include <algorithm>
#include <random>
#include <vector>

static std::vector<int> released, expected;
static std::vector<std::pair<std::string, int>> model; // the least recently used first

// Moves the entry of the key to the end; false when there is none.
static bool use(const std::string &key)
{
    const auto found =
        std::find_if(model.begin(), model.end(), [&](const auto &entry) { return entry.first == key; });
    if (found == model.end())
        return false;
    std::rotate(found, found + 1, model.end());
    return true;
}

static void store(LRUProxyURLCache<int> &cache, const std::string &key, int value)
{
    cache.set(key, value);
    if (!use(key)) {
        model.emplace_back(key, value);
        if (model.size() > 50) {
            expected.push_back(model.front().second);
            model.erase(model.begin());
        }
    }
    model.back().second = value;
}

static void compare(const LRUProxyURLCache<int> &cache)
{
    const ProxyURLCacheNode *node = cache.tail;
    for (const auto &entry : model) {
        REQUIRE(node && node->key == entry.first && *cache.find(entry.first) == entry.second);
        node = node->prev;
    }
    REQUIRE(!node && cache.nodeMap.size() == model.size() && cache.valueMap.size() == model.size());
    REQUIRE(released == expected);
    released.clear();
    expected.clear();
}

static void read_host(std::string url)
{
    char *read = getHost(url);
    const size_t scheme = url.find("://");
    if (scheme != std::string::npos) {
        url.erase(0, scheme + 3);
        url.erase(std::min(url.find_first_of(url[0] == '/' ? ":" : ":/"), url.size()));
    }
    REQUIRE(read ? url == std::string(read, url.size()) && !url.empty() : url.empty());
    free(read);
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

static void take_step(LRUProxyURLCache<int> &cache, char command, const std::string &text)
{
    static int value = 0;
    if (command == 's') {
        store(cache, text, ++value);
    } else if (command == 'g') {
        int got = 0;
        const bool hit = cache.get(text, got);
        REQUIRE(hit == use(text) && (!hit || got == model.back().second));
    } else if (command == 'c') {
        cache.clearCache();
        std::sort(model.begin(), model.end());
        for (const auto &entry : model)
            expected.push_back(entry.second);
        model.clear();
    } else if (command == 'r') {
        std::minstd_rand random(static_cast<unsigned>(text.size())); // NOLINT(cert-msc32-c,cert-msc51-cpp)
        for (int step = 0; step < 400; step++)
            take_step(cache, step % 300 ? "sg"[random() % 2] : 'c', std::to_string(random() % 80));
    } else if (command == 'u') {
        read_host(text);
    } else {
        read_text(command + text);
    }
}

// s KEY and g KEY store and look up, c clears, r does so at random, u URL has a host; any other line is
// some text.
void run(std::istream &input)
{
    released = expected = {};
    model.clear();
    LRUProxyURLCache<int> cache(
        50, [](int &value, void *) { released.push_back(value); }, nullptr);
    for (char command; input.get(command); compare(cache))
        take_step(cache, command, upto(input, '\n'));
}
