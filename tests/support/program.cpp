// Temporary folders, and programs that run beside the test.

#include "program.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <stdexcept>
#include <system_error>
#include <thread>

#include <fcntl.h>
#include <malloc.h>
#include <netinet/in.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>

namespace test
{

namespace
{

// Longer than anything takes, sanitizers and valgrind included.
bool eventually(const std::function<bool()> &condition)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

} // namespace

Folder::Folder()
{
    if (!mkdtemp(root.data()) || chmod(root.c_str(), 0755) != 0)
        throw std::runtime_error("no temporary folder");
}

Folder::~Folder()
{
    std::error_code ignored;
    std::filesystem::remove_all(root, ignored);
}

std::string Folder::write(const std::string &name, const std::string &bytes) const
{
    write_file(path(name), bytes);
    return path(name);
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

long count_in(const std::string &folder)
{
    return std::distance(std::filesystem::directory_iterator(folder), {});
}

void run(const std::string &command)
{
    Program shell({"sh", "-c", command});
    if (shell.end() != 0)
        throw std::runtime_error("failed: " + command + "\n" + shell.err());
}

std::string identity(const std::string &name)
{
    static const Folder folder;
    if (!std::filesystem::exists(folder.path("device")))
        run("'" MAKE_IDENTITY "' " + folder.root);
    return folder.path(name);
}

Program::Program(std::vector<std::string> command)
    : out_(memfd_create("output", MFD_CLOEXEC)), err_(memfd_create("error", MFD_CLOEXEC))
{
    command.insert(command.begin(), {"setpriv", "--pdeathsig", "KILL"});
    std::vector<char *> arguments;
    for (auto &argument : command)
        arguments.push_back(argument.data());
    arguments.push_back(nullptr);
    for (int descriptor = STDERR_FILENO + 1; descriptor < 1024; descriptor++)
        fcntl(descriptor, F_SETFD, FD_CLOEXEC); // whoever opened it
    posix_spawn_file_actions_t streams;
    posix_spawn_file_actions_init(&streams);
    posix_spawn_file_actions_adddup2(&streams, out_.get(), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&streams, err_.get(), STDERR_FILENO);
    posix_spawn_file_actions_addopen(&streams, STDIN_FILENO, "/dev/null", O_RDONLY,
                                     0); // last: its number may be in use
    const int error = posix_spawnp(&pid_, arguments[0], &streams, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&streams);
    if (error)
        throw std::system_error(error, std::generic_category(), "setpriv");
}

std::string Program::content(const Descriptor &file)
{
    return read_file("/proc/self/fd/" + std::to_string(file.get()));
}

bool Program::wait_for(const std::string &text) const
{
    return eventually([&] { return (out() + err()).find(text) != std::string::npos; });
}

int Program::end(int signal)
{
    if (pid_ <= 0)
        return -1;
    if (signal)
        kill(pid_, signal);
    int status = 0;
    if (!eventually([&] { return waitpid(pid_, &status, WNOHANG) != 0; })) {
        kill(pid_, SIGKILL);
        waitpid(pid_, &status, 0);
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

size_t heap_in_use()
{
#if __GLIBC_PREREQ(2, 33)
    const auto heap = mallinfo2();
#else
    const auto heap = mallinfo();
#endif
    return static_cast<size_t>(heap.uordblks) + static_cast<size_t>(heap.hblkhd);
}

Listener::Listener() : fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
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
    run("timeout 30 bash -c 'until : </dev/tcp/127.0.0.1/" + std::to_string(port) + "; do sleep 0.01; done'");
}

} // namespace test
