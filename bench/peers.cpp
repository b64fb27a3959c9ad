// The benchmarks' peers, and what stands in the place of the system log and of the allocator.

#include "peers.h"

#include "atls_service.h"
#include "bus_peer.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <httplib.h>
#include <sys/socket.h>
#include <syslog.h>
#include <thread>

namespace
{

std::atomic<size_t> allocation_count{0};
std::atomic<int> least_priority{LOG_DEBUG};
int log_socket = -1;

} // namespace

// glibc's, with a count in front.
extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);

void *malloc(size_t size)
{
    allocation_count.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(size);
}

void *calloc(size_t count, size_t size)
{
    allocation_count.fetch_add(1, std::memory_order_relaxed);
    return __libc_calloc(count, size);
}

void *realloc(void *block, size_t size)
{
    allocation_count.fetch_add(1, std::memory_order_relaxed);
    return __libc_realloc(block, size);
}

// As the C library's: nothing is formatted for a line that is masked; the others go as one datagram each to a reader
// that is always there.
void syslog(int priority, const char *format, ...)
{
    if (LOG_PRI(priority) > least_priority.load(std::memory_order_relaxed))
        return;
    va_list arguments;
    va_start(arguments, format);
    char *line = nullptr;
    const int length = vasprintf(&line, format, arguments);
    va_end(arguments);
    if (length >= 0)
        (void)!send(log_socket, line, static_cast<size_t>(length),
                    MSG_NOSIGNAL); // too long a line is lost, as there
    free(line);
}
}

namespace bench
{

size_t allocations()
{
    return allocation_count;
}

void set_logging(bool on)
{
    least_priority = on ? LOG_DEBUG : LOG_WARNING;
}

namespace
{

std::unique_ptr<atls_service::AtlsService> make_service(const std::string &keys, int max_version)
{
    atls_service::Options options;
    options.front_certificate = keys + "front-cert.pem";
    options.front_key = keys + "front-key.pem";
    options.inner = {keys + "service-cert.pem", keys + "service-key.pem", keys + "device-ca.pem"};
    options.inner.max_version = max_version;
    return std::make_unique<atls_service::AtlsService>(options);
}

// Never returns. The process ends when the other end of the pipe is closed.
[[noreturn]] void serve(const std::string &keys, int ports_out, int alive)
{
    const auto old = make_service(keys, TLS1_2_VERSION), current = make_service(keys, TLS1_3_VERSION);
    httplib::SSLServer echo((keys + "front-cert.pem").c_str(), (keys + "front-key.pem").c_str());
    echo.set_tcp_nodelay(true);
    echo.set_keep_alive_max_count(1000000000);
    echo.Post("/echo", [](const httplib::Request &request, httplib::Response &response) {
        response.set_content(request.body, "application/octet-stream");
    });
    const Peers::Ports ports{old->port(), current->port(), echo.bind_to_any_port("127.0.0.1")};
    std::thread(&httplib::SSLServer::listen_after_bind, &echo).detach();
    test::ScriptedService proxies;
    proxies.script("getProxyurl", [](const std::string &url) { // none for the services
        const bool service = url.find("127.0.0.1") != std::string::npos;
        return service ? "(['pacurl', 'DIRECT'],)" : "(['pacurl', 'PROXY p1:80', 'DIRECT'],)";
    });
    (void)!write(ports_out, &ports, sizeof ports);
    char end;
    (void)!read(alive, &end, 1);
    _exit(0);
}

// Reads the log and forgets it.
[[noreturn]] void swallow(int log)
{
    static char line[1 << 20];
    while (recv(log, line, sizeof line, 0) > 0) {
    }
    _exit(0);
}

} // namespace

Peers::Peers()
{
    test::run("'" MAKE_IDENTITY "' " + folder.root);
    setenv("ATLS_PLATFORM_DIR", folder.path("device").c_str(), 1);
    for (const char *name : {"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY", "no_proxy", "NO_PROXY"})
        unsetenv(name);
    int log[2], ports_pipe[2], alive[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, log) != 0 ||
        pipe2(ports_pipe, O_CLOEXEC) != 0 || pipe2(alive, O_CLOEXEC) != 0)
        throw std::runtime_error("no pipes");
    const Descriptor reader(log[0]), ports_in(ports_pipe[0]), ports_out(ports_pipe[1]), end(alive[0]);
    alive_ = Descriptor(alive[1]);
    log_socket = log[1];
    if (fork() == 0) {
        alive_ = {};
        close(log_socket);
        swallow(reader.get());
    }
    if (fork() == 0) {
        alive_ = {};
        log_socket = -1;
        serve(folder.path("service/"), ports_out.get(), end.get());
    }
    if (read(ports_in.get(), &ports, sizeof ports) != sizeof ports)
        throw std::runtime_error("the services did not start");
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(null, STDERR_FILENO);
    close(null);
    set_logging(false);
}

} // namespace bench
