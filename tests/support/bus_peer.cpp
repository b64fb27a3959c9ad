// Runs the scripted peers.

#include "bus_peer.h"

#include <stdexcept>

#include <poll.h>
#include <sys/eventfd.h>

namespace test
{

namespace
{

struct Appender {
    DBusMessageIter to;

    void basic(int type, const void *value) { dbus_message_iter_append_basic(&to, type, value); }
    void container(int type, const char *signature, const Texts &texts)
    {
        Appender inner{};
        dbus_message_iter_open_container(&to, type, signature, &inner.to);
        for (const std::string &text : texts)
            inner(text);
        dbus_message_iter_close_container(&to, &inner.to);
    }
    void operator()(const std::string &text)
    {
        const char *chars = text.c_str();
        basic(DBUS_TYPE_STRING, &chars);
    }
    void operator()(int32_t number) { basic(DBUS_TYPE_INT32, &number); }
    void operator()(bool flag)
    {
        const dbus_bool_t value = flag;
        basic(DBUS_TYPE_BOOLEAN, &value);
    }
    void operator()(const Texts &texts) { container(DBUS_TYPE_ARRAY, "s", texts); }
    void operator()(const Structure &structure) { container(DBUS_TYPE_STRUCT, nullptr, structure); }
};

DBusMessage *append(DBusMessage *message, const Arguments &arguments)
{
    Appender appender{};
    dbus_message_iter_init_append(message, &appender.to);
    for (const Argument &argument : arguments)
        std::visit(appender, argument);
    return message;
}

// The strings and booleans of a call.
Arguments readArguments(DBusMessage *message)
{
    Arguments arguments;
    DBusMessageIter from;
    for (bool more = dbus_message_iter_init(message, &from); more; more = dbus_message_iter_next(&from)) {
        DBusBasicValue value;
        dbus_message_iter_get_basic(&from, &value);
        if (dbus_message_iter_get_arg_type(&from) == DBUS_TYPE_STRING)
            arguments.emplace_back(std::string(value.str));
        else
            arguments.emplace_back(value.bool_val != 0);
    }
    return arguments;
}

} // namespace

BusPeer::BusPeer(const std::string &name) : wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    connection_ = dbus_connection_open_private(PrivateBus::address().c_str(), nullptr);
    if (!connection_ || !dbus_bus_register(connection_, nullptr))
        throw std::runtime_error("no connection to the private bus");
    dbus_connection_set_exit_on_disconnect(connection_, false);
    if (!name.empty())
        dbus_bus_request_name(connection_, name.c_str(), 0, nullptr);
    thread_ = std::thread([this] { loop(); });
}

BusPeer::~BusPeer()
{
    run([this](DBusConnection *) { stop_ = true; });
    thread_.join();
    for (DBusMessage *call : held_)
        dbus_message_unref(call);
    dbus_connection_close(connection_);
    dbus_connection_unref(connection_);
}

void BusPeer::loop()
{
    int socket = -1;
    dbus_connection_get_unix_fd(connection_, &socket);
    while (true) {
        dbus_connection_read_write(connection_, 0);
        while (DBusMessage *message = dbus_connection_pop_message(connection_)) {
            handle(message);
            dbus_message_unref(message);
        }
        std::deque<std::function<void()>> tasks;
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            tasks.swap(tasks_);
        }
        for (const auto &task : tasks)
            task();
        if (stop_)
            return;
        if (!dbus_connection_get_is_connected(connection_))
            socket = -1;
        pollfd waits[] = {{wake_.get(), POLLIN, 0}, {socket, POLLIN, 0}};
        poll(waits, 2, -1);
        eventfd_t count;
        eventfd_read(wake_.get(), &count);
    }
}

void BusPeer::run(const std::function<void(DBusConnection *)> &task)
{
    bool done = false;
    std::unique_lock<std::mutex> lock(mutex_);
    tasks_.push_back([&] {
        task(connection_);
        const std::lock_guard<std::mutex> inner(mutex_);
        done = true;
        changed_.notify_all();
    });
    eventfd_write(wake_.get(), 1);
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
        lastArguments_ = readArguments(message);
        answer = answers_[member];
    }
    DBusMessage *reply =
        answer ? answer(message) : dbus_message_new_error(message, DBUS_ERROR_UNKNOWN_METHOD, "");
    if (reply)
        send(connection_, reply);
    changed_.notify_all();
}

void BusPeer::send(DBusConnection *connection, DBusMessage *message)
{
    dbus_connection_send(connection, message, nullptr);
    dbus_connection_flush(connection);
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
    run([&](DBusConnection *connection) {
        for (DBusMessage *call : held_) {
            send(connection, makeReply(call, arguments));
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

DBusMessage *BusPeer::makeReply(DBusMessage *call, const Arguments &arguments)
{
    return append(dbus_message_new_method_return(call), arguments);
}

void BusPeer::emit(const std::string &member, const Arguments &arguments, const std::string &destination)
{
    run([&](DBusConnection *connection) {
        DBusMessage *signal = dbus_message_new_signal(SERVICE_PATH, SERVICE_INTERFACE, member.c_str());
        if (!destination.empty())
            dbus_message_set_destination(signal, destination.c_str());
        send(connection, append(signal, arguments));
    });
}

void BusPeer::sync()
{
    run([](DBusConnection *connection) { dbus_bus_name_has_owner(connection, SERVICE_NAME, nullptr); });
}

ScriptedService::ScriptedService(const Texts &config) : BusPeer(SERVICE_NAME)
{
    answer("getProxyconfig", {Structure{config}});
    answer("checkServicestarted", {true});
    answer("updateProxyconfig", {int32_t{0}});
    answer("getProxyurl", {Texts{"pacurl", "PROXY p1:80", "DIRECT"}});
}

} // namespace test
