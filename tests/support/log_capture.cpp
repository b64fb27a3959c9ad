// The library's calls of syslog arrive here instead of in libc.

#include "log_capture.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace
{

struct Kept {
    std::mutex mutex;
    bool recording = false;
    std::vector<std::string> lines;
};

Kept &kept()
{
    static Kept *const object = new Kept; // outlives static objects that still log
    return *object;
}

} // namespace

extern "C" void syslog(int priority, const char *format, ...)
{
    const std::lock_guard<std::mutex> lock(kept().mutex);
    if (!kept().recording)
        return;
    va_list arguments;
    va_start(arguments, format);
    char *text = nullptr;
    if (vasprintf(&text, format, arguments) >= 0)
        kept().lines.push_back("<" + std::to_string(priority) + "> " + text);
    free(text);
    va_end(arguments);
}

void log_capture::record(bool on)
{
    const std::lock_guard<std::mutex> lock(kept().mutex);
    kept().lines.clear();
    kept().recording = on;
}

std::vector<std::string> log_capture::lines()
{
    const std::lock_guard<std::mutex> lock(kept().mutex);
    return kept().lines;
}

bool log_capture::contains(const std::string &text)
{
    const auto all = lines();
    return std::any_of(all.begin(), all.end(),
                       [&](const auto &line) { return line.find(text) != std::string::npos; });
}
