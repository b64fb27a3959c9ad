// The private bus, its programs and its client.

#include "proxymanagerd_bus.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
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
  <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/></policy>)";

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

std::string value_text(DBusMessageIter &reader)
{
    const int type = dbus_message_iter_get_arg_type(&reader);
    DBusBasicValue value;
    if (dbus_type_is_basic(type))
        dbus_message_iter_get_basic(&reader, &value);
    switch (type) {
    case DBUS_TYPE_STRING:
        return value.str;
    case DBUS_TYPE_INT32:
        return std::to_string(value.i32);
    case DBUS_TYPE_BOOLEAN:
        return value.bool_val ? "true" : "false";
    case DBUS_TYPE_ARRAY:
    case DBUS_TYPE_STRUCT:
        break;
    default:
        return "?";
    }
    std::string text;
    DBusMessageIter inner;
    dbus_message_iter_recurse(&reader, &inner);
    for (; dbus_message_iter_get_arg_type(&inner) != DBUS_TYPE_INVALID; dbus_message_iter_next(&inner))
        text += (text.empty() ? "" : ", ") + value_text(inner);
    return '[' + text + ']';
}

std::string message_text(DBusMessage *message)
{
    std::string text = dbus_message_get_signature(message);
    if (const char *error = dbus_message_get_error_name(message))
        text = "error " + std::string(error) + ':';
    DBusMessageIter reader;
    dbus_message_iter_init(message, &reader);
    for (; dbus_message_iter_get_arg_type(&reader) != DBUS_TYPE_INVALID; dbus_message_iter_next(&reader))
        text += ' ' + value_text(reader);
    return text;
}

void append(DBusMessageIter &writer, const BusClient::Argument &argument)
{
    if (const auto *text = std::get_if<std::string>(&argument)) {
        const char *value = text->c_str();
        dbus_message_iter_append_basic(&writer, DBUS_TYPE_STRING, &value);
    } else if (const auto *flag = std::get_if<bool>(&argument)) {
        const dbus_bool_t value = *flag;
        dbus_message_iter_append_basic(&writer, DBUS_TYPE_BOOLEAN, &value);
    } else {
        const dbus_int32_t value = std::get<int>(argument);
        dbus_message_iter_append_basic(&writer, DBUS_TYPE_INT32, &value);
    }
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

BusClient::BusClient(const std::string &address)
    : connection_(dbus_connection_open_private(address.c_str(), nullptr))
{
    if (!connection_ || !dbus_bus_register(connection_, nullptr))
        throw std::runtime_error("no connection to " + address);
    dbus_connection_set_exit_on_disconnect(connection_, FALSE);
    dbus_bus_add_match(connection_, ("type='signal',interface='" + std::string(INTERFACE) + "'").c_str(),
                       nullptr);
    dbus_connection_flush(connection_);
}

BusClient::~BusClient()
{
    dbus_connection_close(connection_);
    dbus_connection_unref(connection_);
}

DBusPendingCall *BusClient::start(const std::string &member, const Arguments &arguments)
{
    const size_t dot = member.rfind('.');
    const std::string interface = dot == std::string::npos ? INTERFACE : member.substr(0, dot);
    DBusMessage *message =
        dbus_message_new_method_call(SERVICE, OBJECT, interface.c_str(), member.substr(dot + 1).c_str());
    DBusMessageIter writer;
    dbus_message_iter_init_append(message, &writer);
    for (const auto &argument : arguments)
        append(writer, argument);
    DBusPendingCall *pending = nullptr;
    dbus_connection_send_with_reply(connection_, message, &pending, PATIENCE_MS);
    dbus_connection_flush(connection_);
    dbus_message_unref(message);
    return pending;
}

std::string BusClient::finish(DBusPendingCall *pending)
{
    dbus_pending_call_block(pending);
    DBusMessage *answer = dbus_pending_call_steal_reply(pending);
    const std::string text = message_text(answer);
    dbus_message_unref(answer);
    dbus_pending_call_unref(pending);
    return text;
}

std::string BusClient::call(const std::string &member, const Arguments &arguments)
{
    return finish(start(member, arguments));
}

std::string BusClient::next_signal()
{
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::milliseconds(PATIENCE_MS);
    std::string text;
    while (text.empty() && Clock::now() < deadline) {
        DBusMessage *message = dbus_connection_pop_message(connection_);
        if (!message && !dbus_connection_read_write(connection_, 100))
            break;
        if (message && dbus_message_has_interface(message, INTERFACE))
            text = dbus_message_get_member(message) + (' ' + message_text(message));
        if (message)
            dbus_message_unref(message);
    }
    return text;
}
