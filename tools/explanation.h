// Tells after a post which way it went and what it took. It knows this from the log lines that the library
// writes meanwhile, from the connected handle and from the answer.
#ifndef TOOLS_EXPLANATION_H
#define TOOLS_EXPLANATION_H

#include <chrono>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "atls.h"
#include "descriptor.h"

using Clock = std::chrono::steady_clock;

// Reads what goes to the standard error, the log's lines among it, while it lives. What is not the log's is
// passed on, and so is the log if it is to be shown.
class LogReader
{
public:
    struct Line {
        Clock::time_point time;
        std::string text; // without the name of the program
    };

    // mark is what each line of the log begins with.
    LogReader(std::string mark, bool show);
    ~LogReader() { finish(); }
    LogReader(const LogReader &) = delete;
    LogReader &operator=(const LogReader &) = delete;

    // Gives the standard error back and returns the lines of the log.
    const std::vector<Line> &finish();

private:
    void read_all();
    void take(const std::string &line);

    std::string mark_;
    bool show_;
    std::vector<Line> lines_;
    Descriptor reading_;
    Descriptor standard_error_;
    std::thread thread_;
};

// Collects what only the connection can tell while it lasts, and writes the explanation.
class Explanation
{
public:
    explicit Explanation(std::string url) : url_(std::move(url)) {}

    // After each atls_connect, whatever it returned.
    void connected(const atls_handle &handle);
    // After an exchange that got its answer.
    void exchanged(const atls_handle &handle, const atls_resp &answer, size_t message_length);
    void write(std::ostream &out, const std::vector<LogReader::Line> &log, Clock::time_point end) const;

private:
    void write_route(std::ostream &out, const std::vector<LogReader::Line> &log) const;
    void write_answer(std::ostream &out) const;
    void write_times(std::ostream &out, const std::vector<LogReader::Line> &log, Clock::time_point end) const;

    std::string url_;
    Clock::time_point start_ = Clock::now();
    Clock::time_point connected_ = start_; // for the first time
    int connections_ = 0;
    std::string peer_;    // address that the last post went to
    std::string session_; // TLS version and cipher
    std::string cookies_; // names only: the values are the session's secret
    std::string tracking_id_;
    long status_ = 0;
    size_t messages_ = 0;
    size_t sent_ = 0, posted_ = 0;       // bytes: messages, and bodies of their posts
    size_t answered_ = 0, received_ = 0; // bytes: decrypted answers, and bodies and headers of the responses
};

#endif
