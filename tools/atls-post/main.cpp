// atls-post: posts a message to an ATLS service and prints the answer, or checks the way to the service.

#include <climits>
#include <cmath>
#include <iostream>
#include <optional>
#include <sstream>

#include <CLI/CLI.hpp>
#include <unistd.h>

#include "check.h"
#include "cli.h"
#include "deadline.h"
#include "explanation.h"
#include "log.h"
#include "observer.h"
#include "posting.h"
#include "proxymanager.h"
#include "settings.h"

namespace
{

constexpr int LONGEST_RUN = 86400 * 365;

void add_message_options(CLI::App &app, Settings &settings)
{
    app.add_option("URL", settings.url, "https://HOST[:PORT][/PATH] of the service")->required();
    app.add_option("MESSAGE", settings.message,
                   "The message; @FILE takes a file's contents; without it the standard input is read");
    app.add_option("-o,--output", settings.output, "Write the answer to this file");
    app.add_flag("-i,--include", settings.with_header,
                 "Write the response header block in front of the answer");
    app.add_option("--tracking-id", settings.tracking_id, "Send this TrackingID header with every request");
    app.add_option(
        "--ip", settings.ip,
        "Connect to this IP address, IPv6 in brackets, and name it in the request, in place of the URL's "
        "host");
    app.add_option(
           "-n,--count", settings.count,
           "Post the message this many times on one connection, and on a new one after each that did not "
           "bring a whole, encrypted answer")
        ->check(CLI::Range(1, INT_MAX))
        ->capture_default_str();
    app.add_flag("--fail", settings.fail,
                 "End with status 22 and write nothing when the HTTP status is 400 or above");
    app.add_flag("--require-protected", settings.require_protected,
                 "End with status 76 and write nothing when the answer was not encrypted");
    app.add_option("--max-time", settings.max_seconds, "End with status 28 after this many seconds")
        ->check([](const std::string &text) { // which no range excludes
            return std::isnan(strtod(text.c_str(), nullptr)) ? "not a number: " + text : std::string();
        })
        ->check(CLI::Range(0.001, 1.0 * LONGEST_RUN))
        ->type_name("SECONDS");
}

void add_diagnostic_options(CLI::App &app, Settings &settings)
{
    cli::add_log_option(
        app, settings.log_level,
        "Show the library's log up to this level: error, notice, info, debug (debug shows answers)");
    app.add_flag("--trace", settings.trace, "Show the trace of the HTTPS layer");
    app.add_flag("--explain{text}", settings.explain,
                 "Tell afterwards which proxies were offered and which one carried the message, of the "
                 "session, bytes and times, and why something failed; --explain=json for programs")
        ->check(CLI::IsMember({"text", "json"}));
    auto *check =
        app.add_flag("--check", settings.check,
                     "Go the way to the service step by step, and tell what is wrong and what to do "
                     "about it; posts 1 and 20000 bytes, or MESSAGE");
    for (const char *name :
         {"--output", "--include", "--count", "--fail", "--require-protected", "--explain"})
        check->excludes(app.get_option(name));
    app.add_flag("--json", settings.json, "Write the findings of --check as JSON")->needs(check);
    app.add_option("--warn-days", settings.warn_days,
                   "Let --check warn of certificates that end in fewer days")
        ->check(CLI::Range(0, 36500))
        ->capture_default_str()
        ->needs(check);
}

void add_options(CLI::App &app, Settings &settings)
{
    add_message_options(app, settings);
    add_diagnostic_options(app, settings);
    app.footer(
        "Log, trace and explanation go to the standard error.\n"
        "Exit status: 0, or the library's result (1 to 7) for the first message that failed, 22 HTTP "
        "status,\n  28 time, 64 wrong usage, 74 answer not written, 76 answer not encrypted; of --check "
        "10 to 20,\n  one for each step, in atls-post(1).\n"
        "Examples:\n"
        "  atls-post https://service.example/atls 'hello'\n"
        "  atls-post -o answer.bin https://service.example:8443/atls @message.bin\n"
        "  date | atls-post --log notice https://service.example/atls\n"
        "  atls-post --explain https://service.example/atls 'hello'\n"
        "  atls-post --check https://service.example/atls\n"
        "  atls-post --fail --require-protected --max-time 60 -o answer https://service.example/atls "
        "@message");
}

[[noreturn]] void end_late(const Settings &settings, Output &output, Explanation &explanation)
{
    std::ostringstream why;
    why << "not done after " << settings.max_seconds << " s (--max-time)";
    explanation.failed(why.str());
    std::cerr << (isatty(STDERR_FILENO) ? "\r\033[K" : "") << "atls-post: " << connection_url(settings)
              << ": " << why.str() << std::endl;
    if (!settings.explain.empty())
        explanation.write(std::cerr, settings.explain == "json");
    output.abandon();
    _exit(EXIT_TIME);
}

int run_posts(const Settings &settings)
{
    Output output(settings.output);
    const Handle handle = make_handle();
    Observer observer(*handle, settings.trace);
    Explanation explanation(connection_url(settings), *handle, observer);
    const Deadline deadline(settings.max_seconds, [&] { end_late(settings, output, explanation); });
    const std::string message = read_message(settings);
    const LogListener listener([&](const std::string &line) { explanation.take(line); });
    const int status = Posting(settings, output, handle.get(), observer, explanation).post(message);
    if (!settings.explain.empty()) {
        cleanup_proxy_manager_client(); // its thread has nothing to log from now on
        explanation.write(std::cerr, settings.explain == "json");
    }
    return status;
}

int run(const CLI::App &app, Settings &settings)
{
    settings.address = parse_url(settings.url);
    settings.has_message = app.count("MESSAGE") > 0;
    if (has_control_character(settings.tracking_id) || has_control_character(settings.ip))
        throw cli::UsageError("blanks and control characters are not allowed in --tracking-id and --ip");
    cli::set_up_log(NAME, settings.log_level);
    return settings.check ? run_check(settings) : run_posts(settings);
}

} // namespace

int main(int argc, char **argv)
{
    return cli::guarded(NAME, [&] {
        CLI::App app("Posts a message to an ATLS service and prints the answer.", NAME);
        Settings settings;
        add_options(app, settings);
        if (const auto status = cli::parse(app, argc, argv))
            return *status;
        return run(app, settings);
    });
}
