// Device and service in one process, and the peers between them.

#include "link.h"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include <csignal>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace test
{

Folder::Folder()
{
    if (!mkdtemp(root.data()))
        throw std::runtime_error("no temporary folder");
}

std::string read_file(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void write_file(const std::string &path, const std::string &bytes)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

void run(const std::string &command)
{
    if (std::system(command.c_str()) != 0) // NOLINT(cert-env33-c): the tests' own commands
        throw std::runtime_error("failed: " + command);
}

std::string pattern(size_t length)
{
    std::string text(length, 'a');
    for (size_t i = 0; i < length; i++)
        text[i] = static_cast<char>('a' + i % 26);
    return text;
}

std::string identity(const std::string &name)
{
    static const Folder folder;
    if (!std::filesystem::exists(folder.path("device")))
        run("'" MAKE_IDENTITY "' " + folder.root);
    return folder.path(name);
}

Device::Device()
{
    std::filesystem::copy(identity("device"), folder.root);
    setenv("ATLS_PLATFORM_DIR", folder.root.c_str(), 1);
}

Link::Link(int max_tls)
{
    options.front_certificate = identity("service/front-cert.pem");
    options.front_key = identity("service/front-key.pem");
    options.inner = {identity("service/service-cert.pem"), identity("service/service-key.pem"),
                     identity("service/device-ca.pem"), TLS1_2_VERSION, max_tls};
    options.log = [this](const std::string &line) {
        const std::lock_guard<std::mutex> lock(mutex_);
        log_ += line + "\n";
    };
    options.on_reply = [this](const std::string &request, atls_service::Reply &out) {
        const std::lock_guard<std::mutex> lock(mutex_);
        posted.push_back(request.size());
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

int Link::exchange(const std::string &message)
{
    return atls_easy_perform(handle, message.data(), static_cast<int>(message.size()), "/atls", &answer);
}

bool Link::service_logged(const std::string &text)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return log_.find(text) != std::string::npos;
}

static sockaddr_in loopback(int port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

Listener::Listener() : fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_in address = loopback(0);
    auto *generic = reinterpret_cast<sockaddr *>(&address);
    socklen_t length = sizeof address;
    if (bind(fd, generic, length) != 0 || listen(fd, 8) != 0 || getsockname(fd, generic, &length) != 0)
        throw std::runtime_error("no port to listen on");
    port = ntohs(address.sin_port);
}

void Listener::close()
{
    if (fd >= 0)
        ::close(fd);
    fd = -1;
}

Daemon::Daemon(const std::string &command, int port) : pid(fork())
{
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL); // nothing is left behind when a test crashes
        execl("/bin/sh", "sh", "-c", ("exec " + command).c_str(), nullptr);
        _exit(127);
    }
    const sockaddr_in address = loopback(port);
    for (bool answers = false; !answers; usleep(10000)) {
        const int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        answers = ::connect(probe, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
        ::close(probe);
        if (waitpid(pid, nullptr, WNOHANG) != 0)
            throw std::runtime_error("ended at once: " + command);
    }
}

Daemon::~Daemon()
{
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
}

} // namespace test
