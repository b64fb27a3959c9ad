// The private bus and its programs.

#include "proxymanagerd_bus.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

constexpr char SERVICE[] = "com.halvo.ProxyManagerService";
constexpr char OBJECT[] = "/com/halvo/ProxyManagerService";
constexpr char INTERFACE[] = "com.halvo.ProxyManagerServiceInterface";

// What every system bus allows, but for calls and names.
constexpr char SYSTEM_POLICY[] = R"(<policy context="default"><allow user="*"/>
  <allow send_type="signal"/><allow send_requested_reply="true" send_type="method_return"/>
  <allow send_requested_reply="true" send_type="error"/>
  <allow receive_type="method_call"/><allow receive_type="method_return"/>
  <allow receive_type="error"/><allow receive_type="signal"/>
  <allow send_destination="org.freedesktop.DBus"/></policy>)";

constexpr uid_t NOBODY = 65534;

constexpr char OPEN_POLICY[] =
    R"(<policy context="default"><allow own="*"/><allow send_type="method_call"/></policy>)";

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

std::string configuration(const std::string &address, const std::string &policy_file)
{
    return "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN\" "
           "\"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\"><busconfig><type>system</"
           "type><listen>" +
           address + "</listen><auth>EXTERNAL</auth>" + SYSTEM_POLICY +
           (policy_file.empty() ? OPEN_POLICY : "<include>" + policy_file + "</include>") + "</busconfig>";
}

} // namespace

Program::Program(std::vector<std::string> command, const std::string &bus_address, const std::string &input)
{
    if (!bus_address.empty())
        command.insert(command.begin(), {"env", "DBUS_SYSTEM_BUS_ADDRESS=" + bus_address});
    std::vector<char *> arguments;
    for (auto &argument : command)
        arguments.push_back(argument.data());
    arguments.push_back(nullptr);
    Pipe in, out, err;
    pid_ = fork();
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(in.reading.get(), STDIN_FILENO);
        dup2(out.writing.get(), STDOUT_FILENO);
        dup2(err.writing.get(), STDERR_FILENO);
        execvp(arguments[0], arguments.data());
        _exit(127);
    }
    if (pid_ < 0 || write(in.writing.get(), input.data(), input.size()) != static_cast<ssize_t>(input.size()))
        throw std::runtime_error("cannot start " + command[0]);
    out_pipe_ = std::move(out.reading);
    err_pipe_ = std::move(err.reading);
}

Program::~Program()
{
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
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

PrivateBus::PrivateBus(const std::string &policy_file)
{
    folder_ = (std::filesystem::temp_directory_path() / "proxymanagerd-test-XXXXXX").string();
    if (!mkdtemp(folder_.data()) || chmod(folder_.c_str(), 0755) != 0)
        throw std::runtime_error("no temporary folder");
    address_ = "unix:path=" + path("bus");
    const std::string file = write("bus.conf", configuration(address_, policy_file));
    daemon_.reset(
        new Program({"dbus-daemon", "--nofork", "--nosyslog", "--print-address", "--config-file=" + file}));
    if (!daemon_->wait_for("\n"))
        throw std::runtime_error("no dbus-daemon: " + daemon_->err());
}

PrivateBus::~PrivateBus()
{
    stop();
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
}

std::string PrivateBus::write(const std::string &name, const std::string &text) const
{
    std::ofstream(path(name), std::ios::binary) << text;
    return path(name);
}

std::string contents(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::string ask(const PrivateBus &bus, const std::string &member, std::vector<std::string> arguments)
{
    const std::string method = member.find('.') == std::string::npos ? INTERFACE + ('.' + member) : member;
    arguments.insert(arguments.begin(),
                     {"gdbus", "call", "--system", "-d", SERVICE, "-o", OBJECT, "-m", method});
    Program gdbus(std::move(arguments), bus.address());
    const std::string text = gdbus.end() == 0 ? gdbus.out() : gdbus.err();
    return text.substr(0, text.find_last_not_of('\n') + 1);
}

SignalMonitor::SignalMonitor(const PrivateBus &bus, bool privileged)
    : monitor_({"setpriv", "--clear-groups", "--reuid", std::to_string(privileged ? geteuid() : NOBODY),
                "dbus-monitor", "--system", "type='signal',interface='" + std::string(INTERFACE) + "'"},
               bus.address())
{
    privileged ? monitor_.wait_for("member=NameLost")
               : monitor_.wait_for_error("Falling back to eavesdropping");
}

std::string SignalMonitor::until(const std::string &line)
{
    if (!monitor_.wait_for(line + '\n'))
        return "no " + line;
    // A signal is a line that names its member, and lines with a blank in front that give its arguments.
    std::istringstream lines(monitor_.out());
    std::string signals;
    bool of_the_bus = false;
    for (std::string text; std::getline(lines, text);) {
        if (text[0] != ' ') {
            text.erase(0, text.find("member=") + 7);
            of_the_bus = text.rfind("Name", 0) == 0;
            signals += of_the_bus || signals.empty() ? "" : "\n";
        } else {
            text.replace(0, text.find_first_not_of(' '), " ");
        }
        signals += of_the_bus ? "" : text;
    }
    return signals + "\n";
}
