// The library's calls of syslog arrive here instead of in libc.

#include "log_capture.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <vector>

#include <unistd.h>

static std::atomic<bool> recording{false};
static std::mutex mutex; // of what follows
static int descriptor;
static auto &lines = *new std::vector<std::string>; // outlives static objects that still log

extern "C" void syslog(int priority, const char *format, ...)
{
    if (!recording)
        return;
    const std::lock_guard<std::mutex> lock(mutex);
    va_list arguments;
    va_start(arguments, format);
    char *text = nullptr;
    const int length = vasprintf(&text, format, arguments);
    if (length >= 0 && descriptor < 0)
        lines.push_back("<" + std::to_string(priority) + "> " + text);
    else if (length >= 0 && length < 200000)
        (void)!write(descriptor, text, static_cast<size_t>(length));
    free(text);
    va_end(arguments);
}

void log_capture::record(bool on, int to)
{
    const std::lock_guard<std::mutex> lock(mutex);
    lines.clear();
    descriptor = to;
    recording = on;
}

bool log_capture::contains(const std::string &text)
{
    const std::lock_guard<std::mutex> lock(mutex);
    return std::any_of(lines.begin(), lines.end(),
                       [&](const auto &line) { return line.find(text) != std::string::npos; });
}

std::string log_capture::log_of(int priority)
{
    const std::lock_guard<std::mutex> lock(mutex);
    std::string text;
    for (const std::string &line : lines)
        if (line[1] == '0' + priority)
            text += (text.empty() ? "" : "\n") + line.substr(4);
    return text;
}
