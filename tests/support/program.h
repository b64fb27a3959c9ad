// What the tests of both halves use: files in temporary folders, child processes, and HTTP proxies.
#ifndef TESTS_PROGRAM_H
#define TESTS_PROGRAM_H

#include "descriptor.h"

#include <csignal>
#include <optional>
#include <string>
#include <vector>

namespace test
{

// A temporary folder that every user can enter.
struct Folder {
    Folder();
    ~Folder();
    std::string path(const std::string &name) const { return root + "/" + name; }
    std::string root = "/tmp/atls-test-XXXXXX";
};

std::string read_file(const std::string &path);
std::string write_file(const std::string &path, const std::string &bytes); // returns the path
void run(const std::string &command);          // in the shell; throws when it fails
long count_in(const std::string &folder);      // entries
size_t heap_in_use();                          // bytes of this process
std::string identity(const std::string &name); // a file that scripts/make-identity made for this program

// A child process without descriptors of the test's. It does not survive its object, nor the test program.
class Program
{
public:
    // With a text, it waits until the output holds that.
    explicit Program(std::vector<std::string> command, const std::string &ready = "");
    ~Program() { end(SIGTERM); }

    std::string out() const;                      // and its errors
    bool wait_for(const std::string &text) const; // in the output
    // Sends a signal, if one is given, and waits for the end: the exit status, or minus the signal that ended
    // it.
    int end(int signal = 0);

private:
    Descriptor output_; // a file in memory
    pid_t pid_ = -1;
};

// A listening socket on loopback. Nothing accepts: a peer that connects waits for ever.
struct Listener {
    Listener();
    const Descriptor socket;
    int port;
};

// A real HTTP proxy, on a port of its own, also when it dies and comes back.
class Proxy
{
public:
    explicit Proxy(const std::string &settings = "")
    {
        write_file(folder_.path("conf"), "Port " + port_ + "\nListen 127.0.0.1\nLogFile \"" +
                                             folder_.path("log") + "\"\n" + settings);
        start();
    }
    void start()
    {
        daemon_.emplace(std::vector<std::string>{"tinyproxy", "-d", "-c", folder_.path("conf")});
        run("timeout 30 bash -c 'until : </dev/tcp/127.0.0.1/" + port_ + "; do sleep 0.01; done'");
    }
    int die() { return daemon_->end(SIGKILL); }
    std::string address() const { return "127.0.0.1:" + port_; }
    // How many requests for a connection came since it was asked last.
    int requests()
    {
        const std::string log = read_file(folder_.path("log"));
        int count = 0;
        for (; (seen_ = log.find(": CONNECT 127.0.0.1:", seen_)) != std::string::npos; seen_++)
            count++;
        seen_ = log.size();
        return count;
    }

private:
    Folder folder_;
    const std::string port_ = std::to_string(Listener().port);
    std::optional<Program> daemon_;
    size_t seen_ = 0;
};

} // namespace test

#endif
