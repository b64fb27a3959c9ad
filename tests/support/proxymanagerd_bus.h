// A private message bus, programs that run on it, and a plain libdbus client that writes down what it gets.
#ifndef PROXYMANAGERD_BUS_H
#define PROXYMANAGERD_BUS_H

#include <memory>
#include <string>
#include <variant>
#include <vector>

#include <dbus/dbus.h>

#include "descriptor.h"

// Longer than anything takes, sanitizers and valgrind included.
constexpr int PATIENCE_MS = 30000;

// A child process with its output. It does not survive its object, nor the test program.
class Program
{
public:
    explicit Program(std::vector<std::string> command, const std::string &bus_address = "",
                     const std::string &input = "");
    ~Program();
    Program(const Program &) = delete;
    Program &operator=(const Program &) = delete;

    // Waits until the standard output (or the standard error) holds the text.
    bool wait_for(const std::string &text) { return wait_for(out_, text); }
    bool wait_for_error(const std::string &text) { return wait_for(err_, text); }
    // Sends a signal, if one is given, and waits for the end: the exit status, or minus the signal that ended
    // it.
    int end(int signal = 0);
    const std::string &out() const { return out_; }
    const std::string &err() const { return err_; }

private:
    bool wait_for(const std::string &stream, const std::string &text);
    bool pump();

    pid_t pid_ = -1;
    Descriptor out_pipe_, err_pipe_;
    std::string out_, err_;
};

// dbus-daemon on a socket in a fresh folder, which goes with it. Everything is allowed, unless a policy file
// of a service is given: then the rules are those of a system bus with that file.
class PrivateBus
{
public:
    explicit PrivateBus(const std::string &policy_file = "");
    ~PrivateBus();
    const std::string &address() const { return address_; }
    std::string path(const std::string &name) const { return folder_ + '/' + name; }
    // Writes a file in the folder and returns its path.
    std::string write(const std::string &name, const std::string &text) const;
    void stop() { daemon_.reset(); }

private:
    std::string folder_;
    std::string address_;
    std::unique_ptr<Program> daemon_;
};

std::string contents(const std::string &path);

// A connection to the bus. Messages are written as their signature and values: "i 2", "as [off]", "error
// NAME: TEXT".
class BusClient
{
public:
    using Argument = std::variant<std::string, bool, int>;
    using Arguments = std::vector<Argument>;

    // Also receives the signals of the service's interface.
    explicit BusClient(const std::string &address);
    ~BusClient();
    BusClient(const BusClient &) = delete;
    BusClient &operator=(const BusClient &) = delete;

    // "interface.member", or a member of the service's interface. Returns the answer.
    std::string call(const std::string &member, const Arguments &arguments = {});
    // The two halves of a call.
    DBusPendingCall *start(const std::string &member, const Arguments &arguments = {});
    static std::string finish(DBusPendingCall *pending);
    // The next signal, with its member in front; empty when none comes.
    std::string next_signal();

private:
    DBusConnection *connection_;
};

#endif
