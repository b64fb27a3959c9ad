// Temporary folders, and programs that run beside the test.

#include "program.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <malloc.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>

namespace test
{

namespace
{

// Longer than anything takes, sanitizers and valgrind included.
constexpr int PATIENCE_MS = 30000;

[[noreturn]] void become(char **command, const Descriptor &out, const Descriptor &err)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(out.get(), STDOUT_FILENO);
    dup2(err.get(), STDERR_FILENO);
    for (int descriptor = STDERR_FILENO + 1; descriptor < 1024; descriptor++)
        fcntl(descriptor, F_SETFD, FD_CLOEXEC);
    execvp(command[0], command);
    _exit(127);
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
{
    std::vector<char *> arguments;
    for (auto &argument : command)
        arguments.push_back(argument.data());
    arguments.push_back(nullptr);
    int ends[2][2];
    if (pipe2(ends[0], O_CLOEXEC) != 0 || pipe2(ends[1], O_CLOEXEC) != 0)
        throw std::runtime_error("no pipe");
    out_.pipe = Descriptor(ends[0][0]);
    err_.pipe = Descriptor(ends[1][0]);
    const Descriptor out(ends[0][1]), err(ends[1][1]);
    pid_ = fork();
    if (pid_ == 0)
        become(arguments.data(), out, err);
    if (pid_ < 0)
        throw std::runtime_error("cannot start " + command[0]);
}

// Takes what the next event brings; false at the end of the output, or when nothing happens for too long.
bool Program::pump()
{
    pollfd watched[] = {{out_.pipe.get(), POLLIN, 0}, {err_.pipe.get(), POLLIN, 0}};
    if ((!out_.pipe && !err_.pipe) || poll(watched, 2, PATIENCE_MS) <= 0)
        return false;
    for (const auto &[output, events] : {std::pair(&out_, watched[0].revents), {&err_, watched[1].revents}}) {
        char buffer[4096];
        const ssize_t count = events ? read(output->pipe.get(), buffer, sizeof(buffer)) : -1;
        if (count > 0)
            output->text.append(buffer, static_cast<size_t>(count));
        if (count == 0)
            output->pipe = Descriptor();
    }
    return true;
}

bool Program::wait_for(const Output &output, const std::string &text)
{
    while (output.text.find(text) == std::string::npos) {
        if (!pump())
            return false;
    }
    return true;
}

int Program::end(int signal)
{
    if (pid_ <= 0)
        return -1;
    if (signal)
        kill(pid_, signal);
    while (pump()) {
    }
    if (out_.pipe || err_.pipe)
        kill(pid_, SIGKILL); // it has had its time
    int status = 0;
    waitpid(std::exchange(pid_, -1), &status, 0);
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
