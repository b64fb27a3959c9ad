// proxymanagerctl: the proxy manager client's C API from the shell.

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <dbus/dbus.h>
#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <sys/signalfd.h>
#include <termios.h>
#include <unistd.h>

#include "cli.h"
#include "descriptor.h"
#include "proxy_text.h"
#include "proxymanager.h"

namespace
{

using cli::UsageError;
using proxy_text::on_one_line;
using Json = nlohmann::ordered_json;

constexpr char NAME[] = "proxymanagerctl";
constexpr int EXIT_REFUSED = 63; // a result of the service that is no small positive number
constexpr int EXIT_OUTPUT = 74;

struct Settings {
    int log_level = -1;
    bool json = false;
    std::string proxy;
    std::string user;
    bool password_from_stdin = false;
    std::string pac_url;
    std::vector<std::string> urls;
};

// What must outlive the call that it is copied from.
struct Configuration {
    ProxyMode mode = PROXY_MODE_OFF;
    std::string proxy, pac_url, user, password;
    bool option_flag = false;
};

class Client
{
public:
    Client()
    {
        if (!create_proxy_manager_client())
            throw std::runtime_error(
                "no proxy manager service on the system bus (--log error shows the library's reason)");
    }
    ~Client() { cleanup_proxy_manager_client(); }
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;
};

std::string text_of(const char *text)
{
    return text ? text : "";
}

Configuration current_configuration()
{
    ProxyManagerConfig record = get_http_proxy_config();
    Configuration config{record.mode,
                         text_of(record.proxyUrl),
                         text_of(record.pacUrl),
                         text_of(record.userName),
                         text_of(record.password),
                         record.optionFlag};
    cleanupProxyConfig(&record);
    return config;
}

Json json_text(const std::string &text)
{
    return text.empty() ? Json() : Json(text);
}

void print(const Json &json)
{
    std::cout << json.dump(2, ' ', false, Json::error_handler_t::replace) << std::endl;
}

int show_status()
{
    try {
        const Client client;
        const bool started = check_service_started();
        std::cout << (started ? "running" : "not started") << std::endl;
        return started ? 0 : cli::EXIT_UNAVAILABLE;
    } catch (const std::runtime_error &) {
        std::cout << "not running" << std::endl;
        return cli::EXIT_UNAVAILABLE;
    }
}

int show_configuration(bool as_json)
{
    const Client client;
    const Configuration config = current_configuration();
    if (as_json) {
        print({{"mode", proxyMode2Str(config.mode)},
               {"proxyUrl", json_text(config.proxy)},
               {"pacUrl", json_text(config.pac_url)},
               {"optionFlag", config.option_flag},
               {"userName", json_text(config.user)},
               {"passwordSet", !config.password.empty()}});
        return 0;
    }
    std::cout << "mode: " << proxyMode2Str(config.mode) << "\nproxy: " << on_one_line(config.proxy)
              << "\nPAC URL: " << on_one_line(config.pac_url)
              << "\noption flag: " << (config.option_flag ? "yes" : "no")
              << "\nuser name: " << on_one_line(config.user)
              << "\npassword: " << (config.password.empty() ? "not set" : "set") << std::endl;
    return 0;
}

// Switches the echo of a terminal off, and its signals, which would leave it so; does nothing to a file or
// pipe.
class EchoOff
{
public:
    EchoOff() : is_terminal_(tcgetattr(STDIN_FILENO, &saved_) == 0)
    {
        if (!is_terminal_)
            return;
        termios silent = saved_;
        silent.c_lflag &= ~static_cast<tcflag_t>(ECHO | ISIG);
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent);
        std::cerr << "password: " << std::flush;
    }
    ~EchoOff()
    {
        if (!is_terminal_)
            return;
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved_);
        std::cerr << std::endl;
    }
    EchoOff(const EchoOff &) = delete;
    EchoOff &operator=(const EchoOff &) = delete;

private:
    termios saved_ = {};
    bool is_terminal_;
};

std::string read_password()
{
    const EchoOff silent;
    std::string password;
    if (!std::getline(std::cin, password) || password.empty())
        throw UsageError("no password on the standard input");
    if (!proxy_text::is_clean(password))
        throw UsageError("the password is not UTF-8 text without control characters");
    return password;
}

Configuration manual_configuration(const Settings &settings)
{
    if (!proxy_text::is_host_port(settings.proxy))
        throw UsageError("not HOST:PORT with a port from 1 to 65535: " + on_one_line(settings.proxy));
    if (!proxy_text::is_clean(settings.user))
        throw UsageError("the user name is not UTF-8 text without control characters");
    Configuration config;
    config.mode = PROXY_MODE_MANUAL;
    config.proxy = "http://" + settings.proxy; // so that "http:" in a host's name is not taken for the scheme
    config.user = settings.user;
    if (settings.password_from_stdin)
        config.password = read_password();
    return config;
}

Configuration pac_configuration(const Settings &settings)
{
    if (!proxy_text::is_pac_url(settings.pac_url))
        throw UsageError("not an http or https URL without user name, file:///PATH or /PATH: " +
                         on_one_line(settings.pac_url));
    Configuration config;
    config.mode = PROXY_MODE_PACURL;
    config.pac_url = settings.pac_url;
    return config;
}

Configuration configuration_of_mode(ProxyMode mode)
{
    Configuration config;
    config.mode = mode;
    return config;
}

int set_configuration(Configuration config)
{
    const Client client;
    config.option_flag = current_configuration().option_flag; // nobody asked to change it
    const ProxyManagerConfig record{config.mode,        config.proxy.data(), config.pac_url.data(),
                                    config.option_flag, config.user.data(),  config.password.data()};
    const int result = update_proxy_config(record);
    explicit_bzero(config.password.data(), config.password.size());
    if (result == 0)
        return 0;
    if (result == -1)
        throw std::runtime_error("the service did not answer (--log error shows the library's reason)");
    std::cerr << NAME << ": the service refused the configuration (result " << result << ')' << std::endl;
    return result > 0 && result < EXIT_REFUSED ? result : EXIT_REFUSED;
}

struct Answer {
    std::string url;
    ProxyMode mode = PROXY_MODE_OFF;
    std::vector<std::string> proxies;
    std::string user;
    bool password_set = false;
};

Answer ask(const std::string &url)
{
    const ProxyUrlInformation info = get_proxy_url(url.c_str()); // its strings are the library's
    Answer answer{url, info.mode, {}, text_of(info.userName), info.password != nullptr};
    for (int32_t i = 0; i < info.proxyUrlCount; i++)
        answer.proxies.push_back(text_of(info.proxyUrlList[i]));
    return answer;
}

void print_line(const Answer &answer)
{
    std::cout << answer.url << ": " << proxyMode2Str(answer.mode);
    const char *separator = " ";
    for (const auto &proxy : answer.proxies) {
        std::cout << separator << on_one_line(proxy);
        separator = "; ";
    }
    if (!answer.user.empty())
        std::cout << " (user name " << on_one_line(answer.user) << ')';
    std::cout << std::endl;
}

Json json_of(const Answer &answer)
{
    Json proxies = Json::array();
    for (const auto &proxy : answer.proxies)
        proxies.push_back(json_text(proxy));
    return {{"url", answer.url},
            {"mode", proxyMode2Str(answer.mode)},
            {"proxies", proxies},
            {"userName", json_text(answer.user)},
            {"passwordSet", answer.password_set}};
}

int show_proxies(const Settings &settings)
{
    for (const auto &url : settings.urls) {
        if (!proxy_text::is_url(url))
            throw UsageError("not SCHEME://HOST[:PORT][/PATH]: " + on_one_line(url));
    }
    const Client client;
    int status = 0;
    Json list = Json::array();
    for (const auto &url : settings.urls) {
        const Answer answer = ask(url);
        // An answer without anything is the library's neutral result, unless no proxy is configured.
        if (answer.mode == PROXY_MODE_OFF && current_configuration().mode != PROXY_MODE_OFF) {
            std::cerr << NAME << ": no answer for " << url << std::endl;
            status = cli::EXIT_UNAVAILABLE;
        } else if (settings.json) {
            list.push_back(json_of(answer));
        } else {
            print_line(answer);
        }
    }
    if (settings.json)
        print(list);
    return status;
}

// Events come on the library's thread, which must neither wait nor call the library; a pipe takes them to
// this one.
int event_pipe[2] = {-1, -1};

void hand_over(ProxyMgrEventType type)
{
    // A full pipe means that nobody has read 16,000 events; one more is dropped.
    [[maybe_unused]] const ssize_t written = write(event_pipe[1], &type, sizeof(type));
}

bool same(const Configuration &left, const Configuration &right)
{
    return left.mode == right.mode && left.proxy == right.proxy && left.user == right.user &&
           left.password == right.password;
}

void print_configuration_event(const Configuration &config)
{
    std::cout << "configuration " << proxyMode2Str(config.mode);
    if (config.mode == PROXY_MODE_MANUAL)
        std::cout << ' ' << on_one_line(config.proxy);
    std::cout << std::endl;
}

void print_event(ProxyMgrEventType type)
{
    if (type == PROXY_MGR_EVENT_CONFIG_UPDATED)
        print_configuration_event(current_configuration());
    else
        std::cout << "state " << type << std::endl;
}

// Registering for state events makes the library absorb the next change of the configuration. That one is
// found by looking at the client's own copy, which costs no call to the service.
class FirstChange
{
public:
    int timeout() const { return seen_ ? -1 : 200; }
    void end() { seen_ = true; }
    void look()
    {
        const Configuration now = seen_ ? before_ : current_configuration();
        if (same(before_, now))
            return;
        seen_ = true;
        print_configuration_event(now);
    }

private:
    Configuration before_ = current_configuration();
    bool seen_ = false;
};

// A connection of its own, which the bus closes when it ends. Nothing is ever read from it: the bus sends it nothing but its name.
class BusWatch
{
public:
    BusWatch() : connection_(dbus_bus_get_private(DBUS_BUS_SYSTEM, nullptr))
    {
        if (!connection_ || !dbus_connection_get_unix_fd(connection_, &descriptor_))
            throw std::runtime_error("cannot watch the system bus");
        dbus_connection_set_exit_on_disconnect(connection_, FALSE);
    }
    ~BusWatch()
    {
        dbus_connection_close(connection_);
        dbus_connection_unref(connection_);
    }
    BusWatch(const BusWatch &) = delete;
    BusWatch &operator=(const BusWatch &) = delete;
    int descriptor() const { return descriptor_; }

private:
    DBusConnection *connection_;
    int descriptor_ = -1;
};

void watch_events(int signals)
{
    const BusWatch bus;
    FirstChange first;
    set_proxy_manager_event_cb(PROXY_MGR_EVENT_STATE_0, hand_over); // gets those without a callback as well
    set_proxy_manager_event_cb(PROXY_MGR_EVENT_CONFIG_UPDATED, hand_over);
    std::cerr << NAME << ": waiting for events; SIGINT or SIGTERM ends" << std::endl;
    pollfd watched[] = {{event_pipe[0], POLLIN, 0}, {signals, POLLIN, 0}, {bus.descriptor(), 0, 0}};
    while (std::cout && !(watched[1].revents & POLLIN)) {
        poll(watched, 3, first.timeout());
        if (watched[2].revents)
            throw std::runtime_error("the bus has gone");
        first.look();
        ProxyMgrEventType type;
        while (read(event_pipe[0], &type, sizeof(type)) == sizeof(type)) {
            if (type == PROXY_MGR_EVENT_CONFIG_UPDATED)
                first.end();
            print_event(type);
        }
    }
}

int monitor()
{
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGINT);
    sigaddset(&ends, SIGTERM);
    sigprocmask(SIG_BLOCK, &ends, nullptr);
    const Descriptor signals(signalfd(-1, &ends, SFD_CLOEXEC));
    if (!signals || pipe2(event_pipe, O_CLOEXEC | O_NONBLOCK) != 0)
        throw std::runtime_error(std::string("cannot wait for events: ") + strerror(errno));
    const Descriptor reading(event_pipe[0]);
    const Descriptor writing(event_pipe[1]);
    const Client client; // ends before the pipe
    watch_events(signals.get());
    return 0;
}

using Command = std::function<int()>;

void add_set_commands(CLI::App &app, Settings &settings, Command &command)
{
    auto *set =
        app.add_subcommand("set", "Replace the configuration: off, manual, pac or wpad; see set --help");
    set->require_subcommand(1);
    set->add_subcommand("off", "Use no proxy")->callback([&] {
        command = [] { return set_configuration(configuration_of_mode(PROXY_MODE_OFF)); };
    });
    auto *manual = set->add_subcommand("manual", "Use this proxy");
    // Not named HOST:PORT: CLI11 refuses a colon in a name since 2.4.
    manual->add_option("PROXY", settings.proxy, "The proxy, without a scheme")
        ->type_name("HOST:PORT")
        ->required();
    auto *user = manual->add_option("--user", settings.user, "User name for the proxy")->type_name("NAME");
    manual
        ->add_flag("--password-stdin", settings.password_from_stdin,
                   "Read the password from the first line of the standard input")
        ->needs(user);
    manual->callback([&] { command = [&] { return set_configuration(manual_configuration(settings)); }; });
    auto *pac = set->add_subcommand("pac", "Use the proxies that a PAC script names");
    pac->add_option("URL", settings.pac_url,
                    "Where the service finds the script: http, https, file:///PATH or /PATH")
        ->required();
    pac->callback([&] { command = [&] { return set_configuration(pac_configuration(settings)); }; });
    set->add_subcommand("wpad", "Let the service find a PAC script")->callback([&] {
        command = [] { return set_configuration(configuration_of_mode(PROXY_MODE_WPAD)); };
    });
}

void add_commands(CLI::App &app, Settings &settings, Command &command)
{
    app.require_subcommand(1);
    app.fallthrough();
    cli::add_log_option(app, settings.log_level,
                        "Show the library's log up to this level: error, notice, info, debug");
    app.add_subcommand("status", "Tell whether the service is running")->callback([&] {
        command = show_status;
    });
    auto *get = app.add_subcommand("get", "Show the configuration; of the password only whether it is set");
    get->add_flag("--json", settings.json, "As a JSON object");
    get->callback([&] { command = [&] { return show_configuration(settings.json); }; });
    add_set_commands(app, settings, command);
    auto *url = app.add_subcommand("url", "Show which proxies serve URLs; URLs of one host get one answer");
    url->add_flag("--json", settings.json, "As a JSON array");
    url->add_option("URL", settings.urls, "SCHEME://HOST[:PORT][/PATH]")->required();
    url->callback([&] { command = [&] { return show_proxies(settings); }; });
    app.add_subcommand("monitor", "Print a line for each event until interrupted")->callback([&] {
        command = monitor;
    });
    app.footer(
        "The service is found on the system bus, or on the bus that DBUS_SYSTEM_BUS_ADDRESS names.\n"
        "The log goes to the standard error.\n"
        "Exit status: 0; the service's own result (1 to 62) when it refuses a configuration, 63 for any "
        "other\n"
        "  such result; 64 wrong usage; 69 the service is not running, gives no answer, or the bus has "
        "gone;\n"
        "  74 answer not written.\n"
        "Examples:\n"
        "  proxymanagerctl status\n"
        "  proxymanagerctl get --json\n"
        "  proxymanagerctl set manual proxy.example:3128\n"
        "  proxymanagerctl set manual '[2001:db8::1]:3128' --user device --password-stdin < password\n"
        "  proxymanagerctl set pac file:///etc/proxy.pac\n"
        "  proxymanagerctl url https://service.example/atls http://other.example/\n"
        "  proxymanagerctl monitor");
}

int run(const Settings &settings, const Command &command)
{
    cli::set_up_log(NAME, settings.log_level);
    const int status = command();
    if (!std::cout.flush()) {
        std::cerr << NAME << ": the answer cannot be written" << std::endl;
        return EXIT_OUTPUT;
    }
    return status;
}

} // namespace

int main(int argc, char **argv)
{
    return cli::guarded(NAME, [&] {
        CLI::App app("Shows and changes the HTTP proxy configuration of this device.", NAME);
        Settings settings;
        Command command;
        add_commands(app, settings, command);
        if (const auto status = cli::parse(app, argc, argv))
            return *status;
        return run(settings, command);
    });
}
