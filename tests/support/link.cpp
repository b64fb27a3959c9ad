// Device and service in one process, and the peers between them.

#include "link.h"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace test
{

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

Daemon::Daemon(const std::string &command, int port) : Program({"sh", "-c", "exec " + command})
{
    const sockaddr_in address = loopback(port);
    bool answers = false;
    for (int probes = 0; !answers && probes < 3000; probes++) {
        const int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        answers = ::connect(probe, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
        ::close(probe);
        usleep(answers ? 0 : 10000);
    }
    if (!answers)
        throw std::runtime_error("does not listen: " + command);
}

} // namespace test
