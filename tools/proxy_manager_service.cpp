// The stand-in proxy manager on libdbus. One thread owns the connection; PAC scripts run in child processes,
// so that a slow script holds up nobody else.

#include "proxy_manager_service.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <iterator>
#include <list>
#include <new>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <dbus/dbus.h>
#include <poll.h>
#include <sys/eventfd.h>

#include "descriptor.h"
#include "introspection.h"
#include "pac_evaluation.h"
#include "proxy_text.h"

namespace proxy_manager_service
{

namespace
{

using Clock = std::chrono::steady_clock;
using Strings = std::vector<std::string>;

constexpr size_t MOST_EVALUATIONS = 16; // at the same time; further ones wait for their turn
constexpr size_t LONGEST_LINE = 1000;
constexpr auto FAREWELL_LIMIT = std::chrono::seconds(1);

constexpr char HIDDEN_INTERFACES[] = R"(  <interface name="com.halvo.ProxyManagerServiceDebug">
    <method name="emitStateEvent">
      <arg name="eventType" type="i" direction="in"/>
    </method>
  </interface>
  <interface name="org.freedesktop.DBus.Introspectable">
    <method name="Introspect">
      <arg name="xml" type="s" direction="out"/>
    </method>
  </interface>
)";

struct Release {
    void operator()(DBusMessage *message) const { dbus_message_unref(message); }
    void operator()(DBusConnection *connection) const
    {
        dbus_connection_close(connection);
        dbus_connection_unref(connection);
    }
};
using Message = std::unique_ptr<DBusMessage, Release>;
using Connection = std::unique_ptr<DBusConnection, Release>;

// Most of libdbus fails only for want of memory.
void require(dbus_bool_t done)
{
    if (!done)
        throw std::bad_alloc();
}

Message made(DBusMessage *message)
{
    require(message != nullptr);
    return Message(message);
}

class Error
{
public:
    Error() { dbus_error_init(&error_); }
    ~Error() { dbus_error_free(&error_); }
    Error(const Error &) = delete;
    Error &operator=(const Error &) = delete;
    DBusError *get() { return &error_; }
    std::runtime_error exception(const std::string &what) const
    {
        return std::runtime_error(what + ": " + (error_.message ? error_.message : "no reason given"));
    }

private:
    DBusError error_;
};

// A connection of its own, which no other user of libdbus in the process shares.
Connection connect(const std::string &address)
{
    Error error;
    DBusConnection *connection = address.empty() ? dbus_bus_get_private(DBUS_BUS_SYSTEM, error.get())
                                                 : dbus_connection_open_private(address.c_str(), error.get());
    if (!connection)
        throw error.exception("cannot connect to the bus");
    Connection result(connection);
    dbus_connection_set_exit_on_disconnect(connection, FALSE);
    if (!address.empty() && !dbus_bus_register(connection, error.get()))
        throw error.exception("cannot register with the bus");
    return result;
}

void acquire_name(DBusConnection *connection)
{
    Error error;
    const int result = dbus_bus_request_name(connection, BUS_NAME, DBUS_NAME_FLAG_DO_NOT_QUEUE, error.get());
    if (result < 0)
        throw error.exception(std::string("cannot have the name ") + BUS_NAME);
    if (result != DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER)
        throw std::runtime_error(std::string("the name ") + BUS_NAME + " has an owner on this bus already");
}

void append(DBusMessageIter &writer, const std::string &text)
{
    const char *value = text.c_str();
    require(dbus_message_iter_append_basic(&writer, DBUS_TYPE_STRING, &value));
}

void append(DBusMessageIter &writer, dbus_int32_t number)
{
    require(dbus_message_iter_append_basic(&writer, DBUS_TYPE_INT32, &number));
}

void append(DBusMessageIter &writer, bool flag)
{
    const dbus_bool_t value = flag;
    require(dbus_message_iter_append_basic(&writer, DBUS_TYPE_BOOLEAN, &value));
}

// container: the type of what holds the texts, array or structure.
void append_all(DBusMessage *message, int container, const Strings &texts)
{
    DBusMessageIter writer;
    DBusMessageIter inner;
    dbus_message_iter_init_append(message, &writer);
    require(dbus_message_iter_open_container(&writer, container, container == DBUS_TYPE_ARRAY ? "s" : nullptr,
                                             &inner));
    for (const auto &text : texts)
        append(inner, text);
    require(dbus_message_iter_close_container(&writer, &inner));
}

template <typename... Values>
Message with(Message message, const Values &...values)
{
    DBusMessageIter writer;
    dbus_message_iter_init_append(message.get(), &writer);
    (append(writer, values), ...);
    return message;
}

// Reads the next argument, whose type the caller has made sure of.
std::string next_text(DBusMessageIter &reader)
{
    const char *value = nullptr;
    dbus_message_iter_get_basic(&reader, &value);
    dbus_message_iter_next(&reader);
    return value;
}

template <typename Value>
Value next_value(DBusMessageIter &reader)
{
    Value value{};
    dbus_message_iter_get_basic(&reader, &value);
    dbus_message_iter_next(&reader);
    return value;
}

// For poll(): rounded up, -1 for never.
int milliseconds_until(Clock::time_point time)
{
    if (time == Clock::time_point::max())
        return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(time - Clock::now()).count();
    return static_cast<int>(std::clamp<decltype(left)>(left, 0, INT_MAX));
}

// Nothing of it but the proxy and the script's URL goes to the log; check() allows no user information in
// these.
std::string described(const Config &config)
{
    std::string text = config.mode;
    if (config.mode == "manual")
        text += ' ' + config.proxy + (config.user.empty() ? "" : " with a user name");
    if (config.mode == "pacurl")
        text += ' ' + config.pac_url;
    return text;
}

std::string introspection()
{
    std::string xml = INTROSPECTION_XML;
    return xml.insert(xml.rfind("</node>"), HIDDEN_INTERFACES);
}

} // namespace

class ProxyManagerService::Impl
{
public:
    explicit Impl(Options options);
    ~Impl();

private:
    // A "getProxyurl" call whose answer comes from a script.
    struct Question {
        Message call;
        std::string url;
        std::unique_ptr<PacEvaluation> evaluation; // none before its turn
        Clock::time_point deadline;
    };
    struct Method {
        const char *interface;
        const char *member;
        const char *signature;
        void (Impl::*handle)(Message call);
    };
    static const Method METHODS[];

    void load_configuration();
    void run();
    void wait();
    void say_farewell();

    static DBusHandlerResult on_message(DBusConnection *, DBusMessage *message, void *service);
    DBusHandlerResult dispatch(DBusMessage *message);
    void update_config(Message call);
    void get_config(Message call);
    void get_url(Message call);
    void check_started(Message call);
    void emit_state_event(Message call);
    void introspect(Message call);

    Result adopt(Config config);
    void announce();
    void ask_script(Question &question);
    bool finish(Question &question);
    Strings script_answer(const Question &question, bool ended);
    void attend_questions();
    void ask_again();

    void send(Message message);
    void answer(DBusMessage *call, Message message);
    template <typename... Values>
    void reply(const Message &call, const Values &...values);
    void reply_texts(const Message &call, int container, const Strings &texts);
    template <typename... Values>
    void emit(const char *member, const Values &...values);
    void log(const std::string &line) const;

    Options options_;
    Config config_;
    Descriptor wake_;
    std::atomic<bool> stopping_{false};
    Connection connection_;
    std::list<Question> questions_; // in the order of their calls
    std::thread thread_;
};

const ProxyManagerService::Impl::Method ProxyManagerService::Impl::METHODS[] = {
    {INTERFACE, "updateProxyconfig", "sssbss", &Impl::update_config},
    {INTERFACE, "getProxyconfig", "", &Impl::get_config},
    {INTERFACE, "getProxyurl", "s", &Impl::get_url},
    {INTERFACE, "checkServicestarted", "", &Impl::check_started},
    {DEBUG_INTERFACE, "emitStateEvent", "i", &Impl::emit_state_event},
    {DBUS_INTERFACE_INTROSPECTABLE, "Introspect", "", &Impl::introspect},
};

ProxyManagerService::Impl::Impl(Options options)
    : options_(std::move(options)), wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    static const DBusObjectPathVTable TABLE = {nullptr, &Impl::on_message, nullptr,
                                               nullptr, nullptr,           nullptr};
    if (!wake_)
        throw std::system_error(errno, std::generic_category(), "eventfd");
    connection_ = connect(options_.bus_address);
    require(dbus_connection_register_object_path(connection_.get(), OBJECT_PATH, &TABLE, this));
    load_configuration();
    acquire_name(connection_.get());
    // A file that cannot be written shows now, not at the first change.
    if (!options_.state_file.empty())
        store_state(options_.state_file, config_);
    announce();
    emit("ProxyMgrStateEvent", dbus_int32_t{STATE_STARTED});
    thread_ = std::thread(&Impl::run, this);
}

ProxyManagerService::Impl::~Impl()
{
    stopping_ = true;
    eventfd_write(wake_.get(), 1);
    thread_.join();
}

void ProxyManagerService::Impl::load_configuration()
{
    config_ = options_.config;
    const Result result = check(config_);
    if (result != ACCEPTED)
        throw std::invalid_argument(meaning(result));
    const auto stored = options_.state_file.empty() ? std::nullopt : load_state(options_.state_file);
    if (stored)
        config_ = *stored;
    log("configuration" + (stored ? " of " + options_.state_file : std::string()) + ": " +
        described(config_));
}

void ProxyManagerService::Impl::run()
{
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, nullptr); // signals are the program's business
    while (!stopping_) {
        while (dbus_connection_dispatch(connection_.get()) == DBUS_DISPATCH_DATA_REMAINS) {
        }
        if (!dbus_connection_get_is_connected(connection_.get())) {
            log("the connection to the bus is lost");
            questions_.clear();
            if (options_.on_lost)
                options_.on_lost();
            return;
        }
        attend_questions();
        wait();
    }
    questions_.clear();
    say_farewell();
}

// Waits for the bus, the scripts and the end; reads and writes what the bus is ready for.
void ProxyManagerService::Impl::wait()
{
    DBusConnection *bus = connection_.get();
    int bus_descriptor = -1;
    dbus_connection_get_unix_fd(bus, &bus_descriptor);
    const short writing = dbus_connection_has_messages_to_send(bus) ? POLLOUT : 0;
    std::vector<pollfd> watched{{wake_.get(), POLLIN, 0},
                                {bus_descriptor, static_cast<short>(POLLIN | writing), 0}};
    auto soonest = Clock::time_point::max();
    for (const auto &question : questions_) {
        if (!question.evaluation)
            continue;
        watched.push_back({question.evaluation->descriptor(), POLLIN, 0});
        soonest = std::min(soonest, question.deadline);
    }
    poll(watched.data(), watched.size(), milliseconds_until(soonest));
    if (watched[1].revents)
        dbus_connection_read_write(bus, 0);
}

// A bus that does not read must not hold up the end.
void ProxyManagerService::Impl::say_farewell()
{
    const auto deadline = Clock::now() + FAREWELL_LIMIT;
    emit("ProxyMgrStateEvent", dbus_int32_t{STATE_STOPPED});
    while (dbus_connection_has_messages_to_send(connection_.get()) && Clock::now() < deadline &&
           dbus_connection_read_write(connection_.get(), 50)) {
    }
}

DBusHandlerResult ProxyManagerService::Impl::on_message(DBusConnection *, DBusMessage *message, void *service)
{
    if (dbus_message_get_type(message) != DBUS_MESSAGE_TYPE_METHOD_CALL)
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    try {
        return static_cast<Impl *>(service)->dispatch(message);
    } catch (const std::bad_alloc &) {
        return DBUS_HANDLER_RESULT_NEED_MEMORY;
    }
}

// What is not handled here, libdbus answers with the error UnknownMethod.
DBusHandlerResult ProxyManagerService::Impl::dispatch(DBusMessage *message)
{
    const char *interface = dbus_message_get_interface(message); // optional in a call
    const std::string member = dbus_message_get_member(message);
    const auto method = std::find_if(std::begin(METHODS), std::end(METHODS), [&](const Method &candidate) {
        return member == candidate.member && (!interface || interface == std::string(candidate.interface));
    });
    if (method == std::end(METHODS))
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    if (!dbus_message_has_signature(message, method->signature)) {
        const std::string text = member + " takes arguments of the types (" + method->signature + "), not (" +
                                 dbus_message_get_signature(message) + ")";
        answer(message, made(dbus_message_new_error(message, DBUS_ERROR_INVALID_ARGS, text.c_str())));
        return DBUS_HANDLER_RESULT_HANDLED;
    }
    (this->*method->handle)(Message(dbus_message_ref(message)));
    return DBUS_HANDLER_RESULT_HANDLED;
}

void ProxyManagerService::Impl::update_config(Message call)
{
    DBusMessageIter reader;
    dbus_message_iter_init(call.get(), &reader);
    Config config;
    config.mode = next_text(reader);
    config.proxy = next_text(reader);
    config.pac_url = next_text(reader);
    config.option_flag = next_value<dbus_bool_t>(reader);
    config.user = next_text(reader);
    config.password = next_text(reader);
    const Result result = adopt(std::move(config));
    if (result == ACCEPTED)
        log("new configuration: " + described(config_));
    else
        log(std::string("configuration refused: ") + meaning(result));
    reply(call, dbus_int32_t{result}); // after the signals: the caller's view is up to date when it goes on
}

Result ProxyManagerService::Impl::adopt(Config config)
{
    const Result result = check(config);
    if (result != ACCEPTED)
        return result;
    try {
        if (!options_.state_file.empty())
            store_state(options_.state_file, config);
    } catch (const StateError &error) {
        log(error.what());
        return NOT_STORED;
    }
    config_ = std::move(config);
    announce();
    ask_again();
    return ACCEPTED;
}

// Clients have their configuration, and their answers, from a service that may have ended since.
void ProxyManagerService::Impl::announce()
{
    emit("notifyProxyConfigupdated", config_.mode, config_.proxy, config_.user, config_.password);
    emit("notifyClearcache");
}

void ProxyManagerService::Impl::get_config(Message call)
{
    reply_texts(call, DBUS_TYPE_STRUCT,
                {config_.mode, config_.proxy, config_.pac_url, config_.option_flag ? "y" : "n", config_.user,
                 config_.password});
}

void ProxyManagerService::Impl::get_url(Message call)
{
    DBusMessageIter reader;
    dbus_message_iter_init(call.get(), &reader);
    const std::string url = next_text(reader);
    if (config_.mode == "off") {
        reply_texts(call, DBUS_TYPE_ARRAY, {config_.mode});
    } else if (config_.mode == "manual") {
        reply_texts(call, DBUS_TYPE_ARRAY, {config_.mode, config_.proxy});
    } else if (config_.mode == "wpad" && options_.wpad_script.empty()) {
        log("no script for the mode wpad; the answer is DIRECT");
        reply_texts(call, DBUS_TYPE_ARRAY, {config_.mode, "DIRECT"});
    } else {
        questions_.push_back({std::move(call), url, nullptr, {}});
    }
}

void ProxyManagerService::Impl::check_started(Message call)
{
    reply(call, true);
}

void ProxyManagerService::Impl::emit_state_event(Message call)
{
    DBusMessageIter reader;
    dbus_message_iter_init(call.get(), &reader);
    emit("ProxyMgrStateEvent", next_value<dbus_int32_t>(reader));
    reply(call);
}

void ProxyManagerService::Impl::introspect(Message call)
{
    reply(call, introspection());
}

// Answers what the scripts have answered and gives the next questions their turn.
void ProxyManagerService::Impl::attend_questions()
{
    questions_.remove_if([this](Question &question) { return question.evaluation && finish(question); });
    size_t running = 0;
    for (auto question = questions_.begin(); question != questions_.end() && running < MOST_EVALUATIONS;
         ++question) {
        if (!question->evaluation)
            ask_script(*question);
        running++;
    }
}

void ProxyManagerService::Impl::ask_script(Question &question)
{
    const std::string &script = config_.mode == "wpad" ? options_.wpad_script : config_.pac_url;
    question.evaluation = std::make_unique<PacEvaluation>(script, question.url);
    question.deadline = Clock::now() + options_.script_limit;
}

// True when the question has its answer.
bool ProxyManagerService::Impl::finish(Question &question)
{
    pollfd arrived{question.evaluation->descriptor(), POLLIN, 0};
    const bool ended = poll(&arrived, 1, 0) > 0 && question.evaluation->receive();
    if (!ended && Clock::now() < question.deadline)
        return false;
    Strings texts = script_answer(question, ended);
    texts.insert(texts.begin(), config_.mode);
    reply_texts(question.call, DBUS_TYPE_ARRAY, texts);
    return true;
}

Strings ProxyManagerService::Impl::script_answer(const Question &question, bool ended)
{
    const std::string host = proxy_text::split_url(question.url).host;
    Strings entries;
    std::string dropped;
    try {
        if (!ended)
            throw std::runtime_error("no answer in time");
        entries = pac_entries(question.evaluation->answer(), dropped);
    } catch (const std::runtime_error &error) {
        log("the script has failed for the host " + host + ": " + error.what());
    }
    if (!dropped.empty())
        log("not usable in the script's answer for the host " + host + ": " + dropped);
    if (entries.empty())
        entries.emplace_back("DIRECT");
    return entries;
}

// Answers computed for the old configuration would stay in the callers' caches.
void ProxyManagerService::Impl::ask_again()
{
    for (auto &question : std::exchange(questions_, std::list<Question>()))
        get_url(std::move(question.call));
}

void ProxyManagerService::Impl::send(Message message)
{
    require(dbus_connection_send(connection_.get(), message.get(), nullptr));
}

void ProxyManagerService::Impl::answer(DBusMessage *call, Message message)
{
    if (!dbus_message_get_no_reply(call))
        send(std::move(message));
}

template <typename... Values>
void ProxyManagerService::Impl::reply(const Message &call, const Values &...values)
{
    answer(call.get(), with(made(dbus_message_new_method_return(call.get())), values...));
}

void ProxyManagerService::Impl::reply_texts(const Message &call, int container, const Strings &texts)
{
    Message message = made(dbus_message_new_method_return(call.get()));
    append_all(message.get(), container, texts);
    answer(call.get(), std::move(message));
}

template <typename... Values>
void ProxyManagerService::Impl::emit(const char *member, const Values &...values)
{
    send(with(made(dbus_message_new_signal(OBJECT_PATH, INTERFACE, member)), values...));
}

// Callers and scripts have a part in the text.
void ProxyManagerService::Impl::log(const std::string &line) const
{
    if (options_.log)
        options_.log(proxy_text::on_one_line(line.substr(0, LONGEST_LINE)));
}

ProxyManagerService::ProxyManagerService(Options options) : impl_(std::make_unique<Impl>(std::move(options)))
{
}

ProxyManagerService::~ProxyManagerService() = default;

} // namespace proxy_manager_service
