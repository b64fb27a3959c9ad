// The cache template: its log, its callback, and a million operations against a simple model.

#include "lruproxyurlcache.h"
#include "proxy_log.h"

#include <algorithm>
#include <list>
#include <random>

#include <gtest/gtest.h>

namespace
{

using Cache = LRUProxyURLCache<int>;

void keepValue(int &value, void *data)
{
    static_cast<std::vector<int> *>(data)->push_back(value);
}

std::vector<std::string> loggedBy(const std::function<void()> &action)
{
    proxy_log::record();
    action();
    auto lines = proxy_log::lines();
    proxy_log::ignore();
    return lines;
}

// Keys from the most to the least recently used.
struct Model {
    size_t capacity;
    std::list<std::pair<std::string, int>> entries;

    auto find(const std::string &key)
    {
        return std::find_if(entries.begin(), entries.end(),
                            [&](const auto &entry) { return entry.first == key; });
    }
    void set(const std::string &key, int value, std::vector<int> &released)
    {
        const auto present = find(key);
        if (present != entries.end()) {
            entries.erase(present);
        } else if (entries.size() == capacity) {
            released.push_back(entries.back().second);
            entries.pop_back();
        }
        entries.emplace_front(key, value);
    }
    bool get(const std::string &key, int &value)
    {
        const auto present = find(key);
        if (present == entries.end())
            return false;
        value = present->second;
        entries.splice(entries.begin(), entries, present);
        return true;
    }
    void clear(std::vector<int> &released)
    {
        const std::map<std::string, int> sorted(entries.begin(), entries.end());
        for (const auto &entry : sorted)
            released.push_back(entry.second);
        entries.clear();
    }
};

void expectSame(const Cache &cache, const Model &model)
{
    ASSERT_EQ(cache.nodeMap.size(), model.entries.size());
    ASSERT_EQ(cache.valueMap.size(), model.entries.size());
    const ProxyURLCacheNode *node = cache.head;
    const ProxyURLCacheNode *previous = nullptr;
    for (const auto &[key, value] : model.entries) {
        ASSERT_TRUE(node);
        ASSERT_EQ(node->key, key);
        ASSERT_EQ(node->prev, previous);
        ASSERT_EQ(*cache.find(key), value);
        ASSERT_EQ(cache.nodeMap.at(key), node);
        previous = node;
        node = node->next;
    }
    ASSERT_EQ(node, nullptr);
    ASSERT_EQ(cache.tail, previous);
}

} // namespace

TEST(ProxyCache, LogsEachStepInOrder)
{
    std::vector<int> released;
    Cache cache(2, keepValue, &released);
    const std::string nodeGone = "<6> ~ProxyURLCacheNode called ";
    using Lines = std::vector<std::string>;

    EXPECT_EQ(loggedBy([&] { cache.set("a", 1); }), (Lines{"<5> set key:a", "<6> setHead key:a"}));
    EXPECT_EQ(loggedBy([&] { cache.set("a", 2); }),
              (Lines{"<5> set key:a", "<6> remove key:a", "<6> setHead key:a"}));
    cache.set("", 3);
    int value = 0;
    EXPECT_EQ(loggedBy([&] { EXPECT_TRUE(cache.get("a", value)); }),
              (Lines{"<6> remove key:a", "<6> setHead key:a"}));
    EXPECT_EQ(loggedBy([&] { EXPECT_FALSE(cache.get("A", value)); }), Lines{});
    EXPECT_EQ(value, 2);
    EXPECT_EQ(loggedBy([&] { cache.set("c", 4); }),
              (Lines{"<5> set key:c", "<6> remove key:", "<6> remove deleteNode key:", nodeGone,
                     "<6> setHead key:c"}));
    EXPECT_EQ(released, std::vector<int>{3});
    EXPECT_EQ(loggedBy([&] { cache.clearCache(); }), (Lines{"<6> clearCache called ", nodeGone, nodeGone}));
    EXPECT_EQ(released, (std::vector<int>{3, 2, 4}));
    EXPECT_EQ(loggedBy([&] { cache.clearCache(); }), Lines{"<6> clearCache called "});
}

TEST(ProxyCache, AgreesWithASimpleModel)
{
    std::mt19937 random(20240229);
    std::vector<int> released, expected;
    Cache cache(50, keepValue, &released);
    Model model{50, {}};
    for (int step = 0; step < 1000000; step++) {
        const std::string key = "k" + std::to_string(random() % 80);
        const unsigned choice = random() % 10000;
        int value = -1, expectedValue = -1;
        if (choice == 0) {
            cache.clearCache();
            model.clear(expected);
        } else if (choice < 5000) {
            cache.set(key, step);
            model.set(key, step, expected);
        } else {
            ASSERT_EQ(cache.get(key, value), model.get(key, expectedValue)) << step;
            ASSERT_EQ(value, expectedValue) << step;
        }
        if (step % 1000 == 0 || choice == 0) {
            ASSERT_NO_FATAL_FAILURE(expectSame(cache, model)) << step;
        }
        ASSERT_EQ(released, expected) << step;
        released.clear();
        expected.clear();
    }
}
