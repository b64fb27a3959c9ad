// Starts dbus-daemon, and runs the scripted peers on it.

#include "proxy_bus.h"

#include <cassert>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

constexpr const char *PATH = "/com/halvo/ProxyManagerService";
constexpr const char *INTERFACE = "com.halvo.ProxyManagerServiceInterface";

// The folder of the socket, removed at the end of the program.
struct BusFolder {
    std::string path;
    BusFolder()
    {
        char name[] = "/tmp/proxy-test-XXXXXX";
        if (!mkdtemp(name))
            throw std::runtime_error("no temporary folder");
        path = name;
        setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + path + "/bus").c_str(), 1);
    }
    ~BusFolder()
    {
        unlink((path + "/bus").c_str());
        unlink((path + "/config").c_str());
        rmdir(path.c_str());
    }
};

const std::string &folder()
{
    static const BusFolder instance;
    return instance.path;
}

void appendTexts(DBusMessageIter *to, int type, const char *signature, const Texts &texts)
{
    DBusMessageIter container;
    dbus_message_iter_open_container(to, type, signature, &container);
    for (const std::string &text : texts) {
        const char *chars = text.c_str();
        dbus_message_iter_append_basic(&container, DBUS_TYPE_STRING, &chars);
    }
    dbus_message_iter_close_container(to, &container);
}

void append(DBusMessage *message, const Arguments &arguments)
{
    DBusMessageIter to;
    dbus_message_iter_init_append(message, &to);
    for (const Argument &argument : arguments) {
        if (const auto *text = std::get_if<std::string>(&argument)) {
            const char *chars = text->c_str();
            dbus_message_iter_append_basic(&to, DBUS_TYPE_STRING, &chars);
        } else if (const auto *number = std::get_if<int32_t>(&argument)) {
            dbus_message_iter_append_basic(&to, DBUS_TYPE_INT32, number);
        } else if (const auto *flag = std::get_if<bool>(&argument)) {
            const dbus_bool_t value = *flag;
            dbus_message_iter_append_basic(&to, DBUS_TYPE_BOOLEAN, &value);
        } else if (const auto *texts = std::get_if<Texts>(&argument)) {
            appendTexts(&to, DBUS_TYPE_ARRAY, "s", *texts);
        } else {
            appendTexts(&to, DBUS_TYPE_STRUCT, nullptr, std::get<Structure>(argument).fields);
        }
    }
}

Arguments readBasics(DBusMessage *message)
{
    Arguments arguments;
    DBusMessageIter from;
    for (bool more = dbus_message_iter_init(message, &from); more; more = dbus_message_iter_next(&from)) {
        const int type = dbus_message_iter_get_arg_type(&from);
        const char *text = nullptr;
        dbus_bool_t flag = 0;
        if (type == DBUS_TYPE_STRING) {
            dbus_message_iter_get_basic(&from, &text);
            arguments.emplace_back(std::string(text));
        } else if (type == DBUS_TYPE_BOOLEAN) {
            dbus_message_iter_get_basic(&from, &flag);
            arguments.emplace_back(flag != 0);
        }
    }
    return arguments;
}

} // namespace

std::string PrivateBus::address()
{
    return "unix:path=" + folder() + "/bus";
}

void PrivateBus::start(const std::string &limits)
{
    unlink((folder() + "/bus").c_str());
    std::ofstream(folder() + "/config")
        << "<busconfig><type>system</type><listen>" << address() << "</listen><auth>EXTERNAL</auth>"
        << "<policy context='default'><allow send_destination='*'/><allow receive_sender='*'/>"
        << "<allow own='*'/></policy>" << limits << "</busconfig>";
    int ready[2];
    if (pipe2(ready, O_CLOEXEC) != 0)
        throw std::runtime_error("no pipe");
    const std::string config = "--config-file=" + folder() + "/config";
    const std::string print = "--print-address=" + std::to_string(ready[1]);
    pid_ = fork();
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        fcntl(ready[1], F_SETFD, 0);
        dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO); // it complains about limits
        execlp("dbus-daemon", "dbus-daemon", "--nofork", config.c_str(), print.c_str(), nullptr);
        _exit(127);
    }
    close(ready[1]);
    char byte;
    const bool started = read(ready[0], &byte, 1) == 1;
    close(ready[0]);
    if (!started)
        throw std::runtime_error("dbus-daemon does not start");
}

void PrivateBus::kill()
{
    if (pid_ <= 0)
        return;
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

DBusMessage *makeReply(DBusMessage *call, const Arguments &arguments)
{
    DBusMessage *reply = dbus_message_new_method_return(call);
    append(reply, arguments);
    return reply;
}

BusPeer::BusPeer(const std::string &name)
{
    connection_ = dbus_connection_open_private(PrivateBus::address().c_str(), nullptr);
    if (!connection_ || !dbus_bus_register(connection_, nullptr) || pipe2(wake_, O_CLOEXEC | O_NONBLOCK) != 0)
        throw std::runtime_error("no connection to the private bus");
    dbus_connection_set_exit_on_disconnect(connection_, false);
    if (!name.empty())
        dbus_bus_request_name(connection_, name.c_str(), 0, nullptr);
    thread_ = std::thread([this] { run(); });
}

BusPeer::~BusPeer()
{
    runOnThread([this] { stop_ = true; });
    thread_.join();
    for (DBusMessage *call : held_)
        dbus_message_unref(call);
    dbus_connection_close(connection_);
    dbus_connection_unref(connection_);
    close(wake_[0]);
    close(wake_[1]);
}

void BusPeer::run()
{
    int socket = -1;
    dbus_connection_get_unix_fd(connection_, &socket);
    while (!stop_) {
        dbus_connection_read_write(connection_, 0);
        while (DBusMessage *message = dbus_connection_pop_message(connection_)) {
            handle(message);
            dbus_message_unref(message);
        }
        std::unique_lock<std::mutex> lock(mutex_);
        while (!tasks_.empty()) {
            const auto task = tasks_.front();
            tasks_.pop_front();
            lock.unlock();
            task();
            lock.lock();
        }
        lock.unlock();
        changed_.notify_all();
        if (stop_)
            break;
        const bool connected = dbus_connection_get_is_connected(connection_);
        pollfd waits[] = {{wake_[0], POLLIN, 0}, {connected ? socket : -1, POLLIN, 0}};
        poll(waits, 2, -1);
        char bytes[64];
        while (read(wake_[0], bytes, sizeof bytes) > 0) {
        }
    }
}

// Returns when the task has run.
void BusPeer::runOnThread(std::function<void()> task)
{
    bool done = false;
    std::unique_lock<std::mutex> lock(mutex_);
    tasks_.push_back([&, run = std::move(task)] {
        run();
        const std::lock_guard<std::mutex> inner(mutex_);
        done = true;
        changed_.notify_all();
    });
    (void)!write(wake_[1], "", 1);
    changed_.wait(lock, [&] { return done; });
}

void BusPeer::handle(DBusMessage *message)
{
    if (dbus_message_get_type(message) != DBUS_MESSAGE_TYPE_METHOD_CALL)
        return;
    const std::string member = dbus_message_get_member(message);
    Answer answer;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        calls_[member]++;
        lastArguments_ = readBasics(message);
        answer = answers_[member];
    }
    if (answer) {
        if (DBusMessage *reply = answer(message))
            sendNow(reply);
    } else {
        sendNow(dbus_message_new_error(message, DBUS_ERROR_UNKNOWN_METHOD, "no such method"));
    }
    changed_.notify_all();
}

void BusPeer::sendNow(DBusMessage *message)
{
    dbus_connection_send(connection_, message, nullptr);
    dbus_connection_flush(connection_);
    dbus_message_unref(message);
}

void BusPeer::script(const std::string &member, Answer answer)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    answers_[member] = std::move(answer);
}

void BusPeer::answer(const std::string &member, const Arguments &arguments)
{
    script(member, [arguments](DBusMessage *call) { return makeReply(call, arguments); });
}

void BusPeer::hold(const std::string &member)
{
    script(member, [this](DBusMessage *call) -> DBusMessage * {
        held_.push_back(dbus_message_ref(call));
        return nullptr;
    });
}

void BusPeer::answerHeld(const Arguments &arguments)
{
    runOnThread([&] {
        for (DBusMessage *call : held_) {
            sendNow(makeReply(call, arguments));
            dbus_message_unref(call);
        }
        held_.clear();
    });
}

void BusPeer::waitForCalls(const std::string &member, int count)
{
    std::unique_lock<std::mutex> lock(mutex_);
    if (!changed_.wait_for(lock, std::chrono::seconds(30), [&] { return calls_[member] >= count; }))
        throw std::runtime_error("not called: " + member);
}

int BusPeer::calls(const std::string &member)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return calls_[member];
}

Arguments BusPeer::lastArguments()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return lastArguments_;
}

DBusMessage *BusPeer::makeSignal(const std::string &member, const Arguments &arguments)
{
    DBusMessage *signal = dbus_message_new_signal(PATH, INTERFACE, member.c_str());
    append(signal, arguments);
    return signal;
}

void BusPeer::emit(const std::string &member, const Arguments &arguments, const std::string &destination)
{
    runOnThread([&] {
        DBusMessage *signal = makeSignal(member, arguments);
        if (!destination.empty())
            dbus_message_set_destination(signal, destination.c_str());
        sendNow(signal);
    });
}

void BusPeer::releaseName(const std::string &name)
{
    runOnThread([&] { dbus_bus_release_name(connection_, name.c_str(), nullptr); });
}

void BusPeer::requestName(const std::string &name)
{
    runOnThread([&] { dbus_bus_request_name(connection_, name.c_str(), 0, nullptr); });
}

std::vector<std::string> BusPeer::namesOnBus()
{
    std::vector<std::string> names;
    runOnThread([&] {
        DBusMessage *call =
            dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, "ListNames");
        DBusMessage *reply = dbus_connection_send_with_reply_and_block(connection_, call, 5000, nullptr);
        char **list = nullptr;
        int count = 0;
        dbus_message_get_args(reply, nullptr, DBUS_TYPE_ARRAY, DBUS_TYPE_STRING, &list, &count,
                              DBUS_TYPE_INVALID);
        names.assign(list, list + count);
        dbus_free_string_array(list);
        dbus_message_unref(reply);
        dbus_message_unref(call);
    });
    return names;
}

ScriptedService::ScriptedService(const Texts &config) : BusPeer(SERVICE_NAME)
{
    answer("getProxyconfig", {Structure{config}});
    answer("checkServicestarted", {true});
    answer("updateProxyconfig", {int32_t{0}});
    answer("getProxyurl", {Texts{"pacurl", "PROXY p1:80", "DIRECT"}});
}
