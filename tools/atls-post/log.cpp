// Hands the lines of the log to their listener and on to the system log.

#include "log.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <utility>

#include <syslog.h>

#include "proxy_text.h"
#include "take_log.h"

namespace
{

struct Listening {
    std::mutex mutex; // of the function
    LogListener::Function function;
};

// There before static objects that log already, and after those that still do.
Listening &listening()
{
    static auto &one = *new Listening;
    return one;
}

void listen(LogListener::Function function)
{
    const std::lock_guard<std::mutex> lock(listening().mutex);
    listening().function = std::move(function);
}

void tell(const char *format, va_list arguments)
{
    char *text = nullptr;
    if (vasprintf(&text, format, arguments) < 0)
        return;
    const std::unique_ptr<char, decltype(&free)> owner(text, free);
    try {
        const std::lock_guard<std::mutex> lock(listening().mutex);
        if (listening().function)
            listening().function(proxy_text::on_one_line(text));
    } catch (const std::exception &) { // a line less is explained
    }
}

} // namespace

void take_log(int priority, const char *format, va_list arguments)
{
    const int error = errno; // of %m
    if (LOG_PRI(priority) <= LOG_NOTICE) {
        va_list copy;
        va_copy(copy, arguments);
        tell(format, copy);
        va_end(copy);
    }
    errno = error;
    vsyslog(priority, format, arguments);
    errno = error;
}

LogListener::LogListener(Function function)
{
    listen(std::move(function));
}

LogListener::~LogListener()
{
    listen(nullptr);
}
