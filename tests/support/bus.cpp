// Starts dbus-daemon, and calls the service on it.

#include "bus.h"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace test
{

void PrivateBus::start(const std::string &rules)
{
    static const Folder folder;
    const std::string address = "unix:path=" + folder.path("bus");
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
    std::filesystem::remove(folder.path("bus")); // left over when the last one was killed
    const std::string file = folder.write(
        "config", "<busconfig><type>system</type><listen>" + address +
                      "</listen><auth>EXTERNAL</auth><policy context='default'><allow user='*'/>"
                      "<allow send_destination='*'/><allow receive_sender='*'/><allow own='*'/></policy>" +
                      rules + "</busconfig>");
    daemon_ = std::make_unique<Program>(std::vector<std::string>{"dbus-daemon", "--nofork", "--nosyslog",
                                                                 "--print-address", "--config-file=" + file});
    if (!daemon_->wait_for("\n"))
        throw std::runtime_error("no dbus-daemon: " + daemon_->err());
}

std::unique_ptr<Program> start_manager(std::vector<std::string> options)
{
    options.insert(options.begin(), PROXYMANAGERD);
    auto manager = std::make_unique<Program>(std::move(options));
    if (!manager->wait_for("serving as"))
        throw std::runtime_error("no proxy manager: " + manager->err());
    return manager;
}

std::string ask(const std::string &member, const std::vector<std::string> &arguments)
{
    const std::string method =
        member.find('.') != std::string::npos ? member : SERVICE_INTERFACE + ('.' + member);
    std::vector<std::string> command{"env",        "LC_ALL=C.UTF-8",
                                     "gdbus",      "call",
                                     "--system",   "-d", // in UTF-8
                                     SERVICE_NAME, "-o",
                                     SERVICE_PATH, "-m",
                                     method};
    command.insert(command.end(), arguments.begin(), arguments.end());
    Program gdbus(std::move(command));
    const std::string text = gdbus.end() == 0 ? gdbus.out() : gdbus.err();
    return text.substr(0, text.find_last_not_of('\n') + 1);
}

} // namespace test
