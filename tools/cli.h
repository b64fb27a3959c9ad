// What the programs have in common: how options are parsed, and how a program ends.
#ifndef TOOLS_CLI_H
#define TOOLS_CLI_H

#include <exception>
#include <iostream>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>

#include <CLI/CLI.hpp>
#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

namespace cli
{

constexpr int EXIT_USAGE = 64;
constexpr int EXIT_UNAVAILABLE = 69;

// A wrong argument; ends the program with EXIT_USAGE.
class UsageError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// Turns a word of a list into its number; any other word is a usage error that names the list.
inline CLI::Validator one_of(const std::map<std::string, int> &values)
{
    std::string names;
    for (const auto &[name, value] : values)
        names += (names.empty() ? "" : ", ") + name;
    const auto translate = [values, names](std::string &word) -> std::string {
        const auto found = values.find(word);
        if (found == values.end())
            return word + " is not one of " + names;
        word = std::to_string(found->second);
        return {};
    };
    return CLI::Validator(translate, "");
}

// Parses the command line. A value is the exit status to end with at once: 0 after --help or
// --version, EXIT_USAGE after a
// one-line reason on the standard error.
inline std::optional<int> parse(CLI::App &app, int argc, char **argv)
{
    try {
        app.set_version_flag("--version", app.get_name() + " " + ATLS_VERSION);
        app.parse(argc, argv);
        return std::nullopt;
    } catch (const CLI::Success &help) {
        return app.exit(help);
    } catch (const CLI::ParseError &error) {
        const auto extras = app.remaining(true);
        const bool unknown_command = error.get_name() == "RequiredError" && !extras.empty();
        std::cerr << app.get_name() << ": "
                  << (unknown_command ? "no such command: " + extras.front() : error.what()) << std::endl;
        return EXIT_USAGE;
    }
}

// The option --log; without it the level stays as it is.
inline void add_log_option(CLI::App &app, int &level, const std::string &help)
{
    const std::map<std::string, int> levels{
        {"error", LOG_ERR}, {"notice", LOG_NOTICE}, {"info", LOG_INFO}, {"debug", LOG_DEBUG}};
    app.add_option("--log", level, help)->transform(one_of(levels))->type_name("LEVEL");
}

// Shows the library's log on the standard error up to a level. With a negative one nothing is shown, and the
// system log gets what is not below notice. The name is kept.
inline void set_up_log(const char *name, int level)
{
    openlog(name, level < 0 ? 0 : LOG_PERROR, LOG_USER);
    setlogmask(LOG_UPTO(level < 0 ? LOG_NOTICE : level));
}

// A file or socket must not get the number of a standard stream that the caller has closed. What is opened in
// its place cannot be written, so that an answer is not lost silently.
inline void occupy_standard_streams()
{
    int descriptor = 0;
    while (descriptor >= 0 && descriptor <= STDERR_FILENO)
        descriptor = open("/dev/null", O_RDONLY);
    if (descriptor > STDERR_FILENO)
        close(descriptor);
}

// Runs a program and turns an exception into a line on the standard error.
template <typename Program>
int guarded(const std::string &name, Program program)
{
    try {
        occupy_standard_streams();
        return program();
    } catch (const UsageError &error) {
        std::cerr << name << ": " << error.what() << std::endl;
        return EXIT_USAGE;
    } catch (const std::exception &error) {
        std::cerr << name << ": " << error.what() << std::endl;
        return EXIT_UNAVAILABLE;
    }
}

} // namespace cli

#endif
