// Device and service in one process, and the peers between them.

#include "link.h"

#include <stdexcept>

#include <csignal>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace test
{

namespace
{

sockaddr_in loopback(int port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

bool answers(int port)
{
    const int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopback(port);
    const bool connected =
        ::connect(probe, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    ::close(probe);
    return connected;
}

} // namespace

std::string pattern(size_t length)
{
    std::string text(length, '\0');
    for (size_t i = 0; i < length; i++)
        text[i] = static_cast<char>('a' + i % 26);
    return text;
}

Link::Link(int max_tls) : options(service_options())
{
    options.inner.max_version = max_tls;
    options.log = [this](const std::string &line) {
        const std::lock_guard<std::mutex> lock(mutex_);
        log_ += line + "\n";
    };
    options.on_reply = [this](const std::string &body, atls_service::Reply &out) {
        const std::lock_guard<std::mutex> lock(mutex_);
        posted_.push_back(body.size());
        if (tamper)
            tamper(out);
    };
    options.answer = [this](const std::string &message) { return reply ? pattern(reply) : message; };
    interpose::reset();
}

Link::~Link()
{
    cleanup_atls_resp(&answer);
    atls_handle_cleanup(&handle); // the service ends when its connections have
}

void Link::start()
{
    service_ = std::make_unique<atls_service::AtlsService>(options);
}

int Link::exchange(const std::string &message)
{
    return atls_easy_perform(handle, message.data(), static_cast<int>(message.size()), "/atls", &answer);
}

std::string Link::service_log() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return log_;
}

std::vector<size_t> Link::posted() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return posted_;
}

Listener::Listener() : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    if (bind(fd_, reinterpret_cast<sockaddr *>(&address), length) != 0 || listen(fd_, 8) != 0 ||
        getsockname(fd_, reinterpret_cast<sockaddr *>(&address), &length) != 0)
        throw std::runtime_error("no port to listen on");
    port_ = ntohs(address.sin_port);
}

Listener::~Listener()
{
    close();
}

void Listener::close()
{
    if (fd_ >= 0)
        ::close(fd_);
    fd_ = -1;
}

Daemon::Daemon(const std::vector<std::string> &command, int port) : pid_(fork())
{
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL); // nothing is left behind when a test crashes
        std::vector<char *> arguments;
        for (const std::string &argument : command)
            arguments.push_back(const_cast<char *>(argument.c_str()));
        arguments.push_back(nullptr);
        execvp(arguments[0], arguments.data());
        _exit(127);
    }
    while (!answers(port)) {
        if (waitpid(pid_, nullptr, WNOHANG) != 0)
            throw std::runtime_error("ended at once: " + command[0]);
        usleep(10000);
    }
}

Daemon::~Daemon()
{
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
}

} // namespace test
