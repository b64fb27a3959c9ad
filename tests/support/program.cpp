// Temporary folders, and programs that run beside the test.

#include "program.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <stdexcept>
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

// Waits longer than anything takes, sanitizers and valgrind included.
bool eventually(const std::function<bool()> &condition)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    bool met;
    while (!(met = condition()) && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    return met;
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

std::string read_file(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::string write_file(const std::string &path, const std::string &bytes)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
    return path;
}

long count_in(const std::string &folder)
{
    return std::distance(std::filesystem::directory_iterator(folder), {});
}

void run(const std::string &command)
{
    Program shell({"sh", "-c", command});
    if (shell.end() != 0)
        throw std::runtime_error("failed: " + command + "\n" + shell.out());
}

std::string identity(const std::string &name)
{
    static const Folder folder;
    if (!std::filesystem::exists(folder.path("device")))
        run("'" MAKE_IDENTITY "' " + folder.root);
    return folder.path(name);
}

Program::Program(std::vector<std::string> command, const std::string &ready)
    : output_(memfd_create("output", MFD_CLOEXEC))
{
    const std::string file = "/proc/$PPID/fd/" + std::to_string(output_.get());
    const std::string start = "exec setpriv --pdeathsig KILL \"$@\" </dev/null >" + file + " 2>&1";
    command.insert(command.begin(), {"sh", "-c", start, "sh"});
    std::vector<char *> arguments;
    for (auto &argument : command)
        arguments.push_back(argument.data());
    arguments.push_back(nullptr);
    for (int descriptor = STDERR_FILENO + 1; descriptor < 1024; descriptor++)
        fcntl(descriptor, F_SETFD, FD_CLOEXEC); // whoever opened it
    if (posix_spawnp(&pid_, arguments[0], nullptr, nullptr, arguments.data(), environ) != 0)
        throw std::runtime_error("no shell");
    if (!wait_for(ready))
        throw std::runtime_error("not ready: " + out());
}

std::string Program::out() const
{
    return read_file("/proc/self/fd/" + std::to_string(output_.get()));
}

bool Program::wait_for(const std::string &text) const
{
    return eventually([&] { return out().find(text) != std::string::npos; });
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

Listener::Listener() : socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_in address = {AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    auto *generic = reinterpret_cast<sockaddr *>(&address);
    socklen_t length = sizeof address;
    if (bind(socket.get(), generic, length) != 0 || listen(socket.get(), 8) != 0 ||
        getsockname(socket.get(), generic, &length) != 0)
        throw std::runtime_error("no port to listen on");
    port = ntohs(address.sin_port);
}

} // namespace test
