// The library's calls of syslog arrive here instead of in libc.

#include "proxy_log.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <mutex>

namespace
{

std::mutex mutex;
bool recording = false;
std::vector<std::string> kept;

} // namespace

extern "C" void syslog(int priority, const char *format, ...)
{
    char text[2048];
    va_list arguments;
    va_start(arguments, format);
    const std::lock_guard<std::mutex> lock(mutex);
    if (recording) {
        vsnprintf(text, sizeof text, format, arguments);
        kept.push_back("<" + std::to_string(priority) + "> " + text);
    }
    va_end(arguments);
}

void proxy_log::record(bool on)
{
    const std::lock_guard<std::mutex> lock(mutex);
    kept.clear();
    recording = on;
}

std::vector<std::string> proxy_log::lines()
{
    const std::lock_guard<std::mutex> lock(mutex);
    return kept;
}

bool proxy_log::contains(const std::string &line)
{
    const auto all = lines();
    return std::find(all.begin(), all.end(), line) != all.end();
}
