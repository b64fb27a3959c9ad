// The order of the steps, and their findings as text and as JSON.

#include "check.h"

#include <cmath>
#include <csignal>
#include <cstdio>
#include <mutex>

#include <nlohmann/json.hpp>
#include <unistd.h>

#include "check_steps.h"
#include "deadline.h"
#include "log.h"
#include "proxymanager.h"

namespace
{

// Each has an exit status of its own, which the manual page lists.
constexpr Step STEPS[] = {
    {"identity", 10, false, find_identity},
    {"certificate", 11, false, check_certificate},
    {"trust store", 12, false, check_trust_store},
    {"proxy manager", 13, true, ask_proxy_manager},
    {"proxies", 14, false, try_proxies},
    {"connection", 15, false, reach_front_end},
    {"clock", 16, false, compare_clock},
    {"front end", 17, false, judge_front_end},
    {"handshake", 18, false, judge_handshake},
    {"session", 19, false, keep_session},
    {"long answer", 20, false, receive_long_answer},
};

const char *word(Verdict verdict)
{
    return verdict == Verdict::OK ? "ok" : verdict == Verdict::WARNING ? "warning" : "wrong";
}

// Collects findings and writes them: lines as they come, JSON at the end. The time may run out on another thread.
class Report
{
public:
    explicit Report(const Settings &settings) : settings_(settings) {}

    void begin(const Step &step)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        current_ = &step;
        start_ = Clock::now();
    }
    void end(const Finding &finding)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (current_)
            take(finding);
    }
    // Blames the step under way.
    [[noreturn]] void end_late()
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (current_)
            take(wrong("not done in time (--max-time)", "find out why nobody answers, or allow more time"));
        write_end();
        _exit(status_ ? status_ : EXIT_TIME);
    }
    int finish()
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        return write_end() ? status_ : EXIT_OUTPUT;
    }

private:
    using Json = nlohmann::ordered_json;

    void take(const Finding &finding)
    {
        const double seconds = std::chrono::duration<double>(Clock::now() - start_).count();
        if (finding.verdict == Verdict::WRONG && status_ == 0) {
            status_ = current_->exit_status;
            first_wrong_ = current_->name;
        }
        if (settings_.json)
            steps_.push_back({{"step", current_->name},
                              {"finding", word(finding.verdict)},
                              {"seconds", std::round(seconds * 1000) / 1000},
                              {"detail", finding.detail},
                              {"advice", finding.advice.empty() ? Json() : Json(finding.advice)}});
        else
            printf("%-8s %-14s %6.3f s  %s\n%s%s%s", word(finding.verdict), current_->name, seconds,
                   finding.detail.c_str(), finding.advice.empty() ? "" : "         -> ",
                   finding.advice.c_str(), finding.advice.empty() ? "" : "\n");
        fflush(stdout);
        current_ = nullptr;
    }

    bool write_end() const
    {
        if (settings_.json) {
            const Json all{{"url", connection_url(settings_)},
                           {"status", status_},
                           {"first_wrong", status_ ? Json(first_wrong_) : Json()},
                           {"steps", steps_}};
            printf("%s\n", all.dump(2, ' ', false, Json::error_handler_t::replace).c_str());
        }
        return fflush(stdout) == 0 && !ferror(stdout);
    }

    const Settings &settings_;
    std::mutex mutex_; // of what follows
    const Step *current_ = nullptr;
    Clock::time_point start_;
    Json steps_ = Json::array();
    std::string first_wrong_;
    int status_ = 0;
};

} // namespace

int run_check(const Settings &settings)
{
    signal(SIGPIPE, SIG_IGN); // of requests that the library does not make
    Report report(settings);
    const Deadline deadline(settings.max_seconds, [&] { report.end_late(); });
    World world(settings);
    {
        const LogListener listener([&](const std::string &line) { world.explanation.take(line); });
        for (const Step &step : STEPS) {
            report.begin(step);
            const Finding finding = step.run(world);
            report.end(finding);
            if (finding.verdict == Verdict::WRONG && !step.goes_on)
                break;
        }
        cleanup_proxy_manager_client();
    }
    return report.finish();
}
