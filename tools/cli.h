// What the programs have in common: how options are parsed, and how a program ends.
#ifndef TOOLS_CLI_H
#define TOOLS_CLI_H

#include <exception>
#include <iostream>
#include <map>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>

namespace cli
{

constexpr int EXIT_USAGE = 64;
constexpr int EXIT_UNAVAILABLE = 69;

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
