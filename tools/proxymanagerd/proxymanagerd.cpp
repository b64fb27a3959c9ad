// proxymanagerd: the stand-in proxy manager service as a program.

#include "proxy_manager_service.h"

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iostream>

#include <CLI/CLI.hpp>

#include "cli.h"
#include "proxy_text.h"

namespace
{

constexpr int EXIT_STATE = 65;

struct Settings {
    proxy_manager_service::Options service;
    std::string manual;
    std::string pac_url;
    bool wpad = false;
    std::string password_file;
    double script_limit_seconds = 10;
};

void add_options(CLI::App &app, Settings &settings)
{
    auto *modes = app.add_option_group(
        "mode", "The configuration to begin with, while the state file does not exist yet (default: off)");
    modes->add_option("--manual", settings.manual, "Mode manual with this proxy")->type_name("HOST:PORT");
    modes
        ->add_option("--pac", settings.pac_url,
                     "Mode pacurl with the PAC script at this http or https URL, file:///PATH or /PATH")
        ->type_name("URL");
    modes->add_flag("--wpad", settings.wpad, "Mode wpad");
    modes->require_option(0, 1);
    app.add_option("--user", settings.service.config.user, "User name for the manual proxy")
        ->type_name("NAME");
    app.add_option("--password-file", settings.password_file, "File whose first line is the password")
        ->type_name("FILE");
    app.add_flag("--option-flag", settings.service.config.option_flag,
                 "Set the option flag, which the service only carries");
    app.add_option("--state-file", settings.service.state_file,
                   "Keep the configuration in this file; once it exists, it overrules the options above")
        ->type_name("FILE");
    app.add_option("--wpad-script", settings.service.wpad_script,
                   "The PAC script that the mode wpad finds: URL or path as for --pac; without it: DIRECT")
        ->type_name("URL");
    app.add_option("--script-limit", settings.script_limit_seconds,
                   "Answer DIRECT when a script takes longer than this many seconds")
        ->check([](const std::string &text) { // which no range excludes
            return std::isnan(strtod(text.c_str(), nullptr)) ? "not a number: " + text : std::string();
        })
        ->check(CLI::Range(0.1, 20.0)) // callers wait no longer than 25 seconds for any answer
        ->capture_default_str();
    app.footer(
        "The bus is the system bus; DBUS_SYSTEM_BUS_ADDRESS names another one. Log lines go to the standard\n"
        "error. SIGTERM or SIGINT ends the service. A PAC script that fails counts as DIRECT.\n"
        "State events: 1 is sent at the start, 0 at the end; any other on demand, from a shell:\n"
        "  dbus-send --system --print-reply --dest=com.halvo.ProxyManagerService \\\n"
        "    /com/halvo/ProxyManagerService com.halvo.ProxyManagerServiceDebug.emitStateEvent int32:7\n"
        "Results of updateProxyconfig: 0 accepted, 1 unknown mode, 2 wrong proxy, 3 wrong PAC URL,\n"
        "  4 user name or password not usable, 5 state file not written; nothing changes but with 0.\n"
        "Exit status: 0, 64 wrong usage, 65 state file not usable, 69 no bus, bus lost or name taken.\n"
        "Examples:\n"
        "  proxymanagerd --state-file /var/lib/proxymanagerd.json\n"
        "  proxymanagerd --manual proxy.example:3128 --user device --password-file /etc/proxy-password\n"
        "  DBUS_SYSTEM_BUS_ADDRESS=unix:path=/tmp/bus proxymanagerd --pac file:///etc/proxy.pac");
}

std::string first_line_of(const std::string &name)
{
    std::ifstream file(name);
    std::string line;
    if (!std::getline(file, line))
        throw cli::UsageError("no password in " + name);
    return line;
}

void complete(Settings &settings)
{
    auto &config = settings.service.config;
    config.mode = !settings.manual.empty()    ? "manual"
                  : !settings.pac_url.empty() ? "pacurl"
                  : settings.wpad             ? "wpad"
                                              : "off";
    config.proxy = settings.manual;
    config.pac_url = settings.pac_url;
    if (!settings.password_file.empty())
        config.password = first_line_of(settings.password_file);
    const auto result = proxy_manager_service::check(config);
    if (result != proxy_manager_service::ACCEPTED)
        throw cli::UsageError(proxy_manager_service::meaning(result));
    const auto &script = settings.service.wpad_script;
    if (!script.empty() && !proxy_text::is_pac_url(script))
        throw cli::UsageError("not a URL or path of a PAC script: " + script);
    settings.service.script_limit =
        std::chrono::milliseconds(static_cast<int>(settings.script_limit_seconds * 1000));
}

} // namespace

int main(int argc, char **argv)
{
    return cli::guarded("proxymanagerd", [&] {
        CLI::App app("Stand-in proxy manager service: off, manual, PAC and WPAD on the D-Bus system bus.",
                     "proxymanagerd");
        Settings settings;
        add_options(app, settings);
        if (const auto status = cli::parse(app, argc, argv))
            return *status;
        complete(settings);
        try {
            proxy_manager_service::ProxyManagerService service(std::move(settings.service));
            return service.run() ? 0 : cli::EXIT_UNAVAILABLE;
        } catch (const proxy_manager_service::StateError &error) {
            std::cerr << "proxymanagerd: " << error.what() << std::endl;
            return EXIT_STATE;
        }
    });
}
