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

void keep(int priority, const char *format, va_list arguments)
{
    const std::lock_guard<std::mutex> lock(mutex);
    if (!recording)
        return;
    char text[2048];
    vsnprintf(text, sizeof text, format, arguments);
    kept.push_back("<" + std::to_string(priority) + "> " + text);
}

} // namespace

extern "C" void syslog(int priority, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    keep(priority, format, arguments);
    va_end(arguments);
}

// What syslog becomes under _FORTIFY_SOURCE.
extern "C" void __syslog_chk(int priority, int, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    keep(priority, format, arguments);
    va_end(arguments);
}

namespace proxy_log
{

void record()
{
    const std::lock_guard<std::mutex> lock(mutex);
    kept.clear();
    recording = true;
}

void ignore()
{
    const std::lock_guard<std::mutex> lock(mutex);
    recording = false;
}

std::vector<std::string> lines()
{
    const std::lock_guard<std::mutex> lock(mutex);
    return kept;
}

bool contains(const std::string &line)
{
    const std::lock_guard<std::mutex> lock(mutex);
    return std::find(kept.begin(), kept.end(), line) != kept.end();
}

} // namespace proxy_log
