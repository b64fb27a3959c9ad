// A private message bus and the programs that run on it.
#ifndef PROXYMANAGERD_BUS_H
#define PROXYMANAGERD_BUS_H

#include <memory>
#include <string>
#include <vector>

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

// Calls "interface.member", or a member of the service's own interface, with gdbus: the answer as it writes
// it, or the error.
std::string ask(const PrivateBus &bus, const std::string &member, std::vector<std::string> arguments = {});

// Listens to the service's signals with dbus-monitor. Root also sees what the bus then denies to everybody;
// without privileges it is a receiver like any other.
class SignalMonitor
{
public:
    explicit SignalMonitor(const PrivateBus &bus, bool privileged = true);
    // Waits for an output line and returns the signals so far, a line for each: member, then types and
    // values.
    std::string until(const std::string &line);

private:
    Program monitor_;
};

#endif
