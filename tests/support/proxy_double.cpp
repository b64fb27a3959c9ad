// Stands in the place of the proxy manager client.

#include "proxy_double.h"

#include <cstring>
#include <mutex>

namespace
{

std::mutex mutex;
std::optional<proxy_double::Answer> current = proxy_double::Answer{};

char *text_of(proxy_double::Text &text)
{
    return text ? text->data() : nullptr;
}

} // namespace

void proxy_double::set(std::optional<Answer> answer)
{
    const std::lock_guard<std::mutex> lock(mutex);
    current = std::move(answer);
}

extern "C" int create_proxy_manager_client(void)
{
    const std::lock_guard<std::mutex> lock(mutex);
    return current.has_value();
}

// As in the real client, the strings are overwritten when the same thread asks again.
extern "C" ProxyUrlInformation get_proxy_url(const char *)
{
    thread_local proxy_double::Answer answer;
    thread_local std::vector<char *> entries;
    const std::lock_guard<std::mutex> lock(mutex);
    answer = *current;
    entries.clear();
    for (auto &entry : answer.entries)
        entries.push_back(text_of(entry));
    return {answer.mode, entries.data(), text_of(answer.user), text_of(answer.password),
            static_cast<int32_t>(entries.size())};
}
