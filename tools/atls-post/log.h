// The library's log, taken inside the process: this program's syslog() is the one that its libraries call.
#ifndef TOOLS_ATLS_POST_LOG_H
#define TOOLS_ATLS_POST_LOG_H

#include <functional>
#include <string>

// While it lives, a function is told each line up to LOG_NOTICE, on the thread that writes it and one at a time. All
// lines go on to the system log. There is one listener at a time.
class LogListener
{
public:
    using Function = std::function<void(const std::string &line)>;

    explicit LogListener(Function function);
    ~LogListener();
    LogListener(const LogListener &) = delete;
    LogListener &operator=(const LogListener &) = delete;
};

#endif
