// A real HTTP proxy that can die and come back.
#ifndef TESTS_PROXY_H
#define TESTS_PROXY_H

#include "program.h"

#include <optional>

namespace test
{

// A real proxy, on a port of its own, also when it dies and comes back.
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
