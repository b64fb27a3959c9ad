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
#include <syslog.h>

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

// Parses the command line. A value is the exit status to end with at once: 0 after --help, EXIT_USAGE after a
// one-line reason on the standard error.
inline std::optional<int> parse(CLI::App &app, int argc, char **argv)
{
    try {
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
    app.add_option("--log", level, help)->transform(CLI::Transformer(levels))->type_name("LEVEL");
}

// Shows the library's log on the standard error up to a level. With a negative one nothing is shown, and the
// system log gets what is not below notice. The name is kept.
inline void set_up_log(const char *name, int level)
{
    openlog(name, level < 0 ? 0 : LOG_PERROR, LOG_USER);
    setlogmask(LOG_UPTO(level < 0 ? LOG_NOTICE : level));
}

// Runs a program and turns an exception into a line on the standard error.
template <typename Program>
int guarded(const std::string &name, Program program)
{
    try {
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
