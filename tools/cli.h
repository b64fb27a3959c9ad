// What the programs have in common: how options are parsed, and how a program ends.
#ifndef TOOLS_CLI_H
#define TOOLS_CLI_H

#include <exception>
#include <iostream>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>

namespace cli
{

constexpr int EXIT_USAGE = 64;
constexpr int EXIT_UNAVAILABLE = 69;

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
        std::cerr << app.get_name() << ": " << error.what() << std::endl;
        return EXIT_USAGE;
    }
}

// Runs a program and turns an exception into a line on the standard error.
template <typename Program>
int guarded(const std::string &name, Program program)
{
    try {
        return program();
    } catch (const std::exception &error) {
        std::cerr << name << ": " << error.what() << std::endl;
        return EXIT_UNAVAILABLE;
    }
}

} // namespace cli

#endif
