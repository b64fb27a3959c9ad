// The library's calls of syslog arrive here instead of in libc.

#include "log_capture.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include <unistd.h>

namespace
{

std::atomic<bool> recording{false};

struct Kept {
    std::mutex mutex;
    int descriptor = -1;
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
    if (!recording)
        return;
    const std::lock_guard<std::mutex> lock(kept().mutex);
    va_list arguments;
    va_start(arguments, format);
    char *text = nullptr;
    const int length = vasprintf(&text, format, arguments);
    if (length >= 0 && kept().descriptor < 0)
        kept().lines.push_back("<" + std::to_string(priority) + "> " + text);
    else if (length >= 0 && length < 200000)
        (void)!write(kept().descriptor, text, static_cast<size_t>(length));
    free(text);
    va_end(arguments);
}

void log_capture::record(bool on, int descriptor)
{
    const std::lock_guard<std::mutex> lock(kept().mutex);
    kept().lines.clear();
    kept().descriptor = descriptor;
    recording = on;
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
