// Temporary folders, and programs that run beside the test.

#include "program.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>

namespace test
{

namespace
{

// Longer than anything takes, sanitizers and valgrind included.
constexpr int PATIENCE_MS = 30000;

struct Pipe {
    Descriptor reading, writing;
    Pipe()
    {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0)
            throw std::runtime_error("pipe");
        reading = Descriptor(ends[0]);
        writing = Descriptor(ends[1]);
    }
};

[[noreturn]] void become(char **command, const Pipe &out, const Pipe &err)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(out.writing.get(), STDOUT_FILENO);
    dup2(err.writing.get(), STDERR_FILENO);
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

void run(const std::string &command)
{
    Program shell({"sh", "-c", command});
    if (shell.end() != 0)
        throw std::runtime_error("failed: " + command + "\n" + shell.err());
}

Program::Program(std::vector<std::string> command)
{
    std::vector<char *> arguments;
    for (auto &argument : command)
        arguments.push_back(argument.data());
    arguments.push_back(nullptr);
    Pipe out, err;
    pid_ = fork();
    if (pid_ == 0)
        become(arguments.data(), out, err);
    if (pid_ < 0)
        throw std::runtime_error("cannot start " + command[0]);
    out_pipe_ = std::move(out.reading);
    err_pipe_ = std::move(err.reading);
}

// Takes what the next event brings; false at the end of the output, or when nothing happens for too long.
bool Program::pump()
{
    pollfd watched[] = {{out_pipe_.get(), POLLIN, 0}, {err_pipe_.get(), POLLIN, 0}};
    if ((!out_pipe_ && !err_pipe_) || poll(watched, 2, PATIENCE_MS) <= 0)
        return false;
    for (int i = 0; i < 2; i++) {
        char buffer[4096];
        Descriptor &pipe = i == 0 ? out_pipe_ : err_pipe_;
        const ssize_t count = watched[i].revents ? read(pipe.get(), buffer, sizeof(buffer)) : -1;
        if (count > 0)
            (i == 0 ? out_ : err_).append(buffer, static_cast<size_t>(count));
        if (count == 0)
            pipe = Descriptor();
    }
    return true;
}

bool Program::wait_for(const std::string &stream, const std::string &text)
{
    while (stream.find(text) == std::string::npos) {
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
    if (out_pipe_ || err_pipe_)
        kill(pid_, SIGKILL); // it has had its time
    int status = 0;
    waitpid(std::exchange(pid_, -1), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

} // namespace test
