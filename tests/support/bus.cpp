// Starts dbus-daemon, and the service on it.

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
    daemon = std::make_unique<Program>(std::vector<std::string>{"dbus-daemon", "--nofork", "--nosyslog",
                                                                "--print-address", "--config-file=" + file});
    if (!daemon->wait_for("\n"))
        throw std::runtime_error("no dbus-daemon: " + daemon->err());
}

std::unique_ptr<Program> start_manager(std::vector<std::string> options)
{
    options.insert(options.begin(), PROXYMANAGERD);
    auto manager = std::make_unique<Program>(std::move(options));
    if (!manager->wait_for("serving as"))
        throw std::runtime_error("no proxy manager: " + manager->err());
    return manager;
}

} // namespace test
