// The stand-in proxy manager on GDBus. All of it runs in the main loop; PAC scripts run in processes of their own, so that a
// slow script holds up nobody else.

#include "proxy_manager_service.h"

#include <csignal>
#include <iostream>
#include <map>
#include <utility>

#include <glib-unix.h>

#include "introspection.h"
#include "proxy_text.h"

namespace proxy_manager_service
{

namespace
{

using Strings = std::vector<std::string>;

constexpr char BUS_NAME[] = "com.halvo.ProxyManagerService";
constexpr char OBJECT_PATH[] = "/com/halvo/ProxyManagerService";
constexpr char INTERFACE[] = "com.halvo.ProxyManagerServiceInterface";

constexpr size_t MOST_EVALUATIONS = 16; // at the same time; further ones wait for their turn
constexpr size_t MOST_OF_ONE_CALLER = 4;
constexpr size_t LONGEST_LINE = 1000;
constexpr unsigned FAREWELL_SECONDS = 1;

// For testers; not part of the service's interface.
constexpr char DEBUG_XML[] = R"(<node>
  <interface name="com.halvo.ProxyManagerServiceDebug">
    <method name="emitStateEvent">
      <arg name="eventType" type="i" direction="in"/>
    </method>
  </interface>
</node>)";

// A connection of its own. GDBus's shared one would end the program with the bus.
GDBusConnection *connect()
{
    Error error;
    const std::unique_ptr<char, void (*)(void *)> address(
        g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, error.get()), g_free);
    error.check("cannot connect to the bus");
    GDBusConnection *connection = g_dbus_connection_new_for_address_sync(
        address.get(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, error.get());
    error.check("cannot connect to the bus");
    return connection;
}

GVariant *array_of(const Strings &texts)
{
    std::vector<const char *> pointers;
    for (const auto &text : texts)
        pointers.push_back(text.c_str());
    return g_variant_new_strv(pointers.data(), static_cast<gssize>(pointers.size()));
}

// The call is answered, and nobody's any more.
template <typename Call>
void reply(Call call, GVariant *arguments)
{
    g_dbus_method_invocation_return_value(call.release(), arguments);
}

template <typename Call>
void reply_proxies(Call call, const Strings &texts)
{
    reply(std::move(call), g_variant_new("(@as)", array_of(texts)));
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

} // namespace

// Callers and scripts have a part in the text.
void log(const std::string &line)
{
    std::cerr << "proxymanagerd: " << proxy_text::on_one_line(line.substr(0, LONGEST_LINE)) << std::endl;
}

ProxyManagerService::ProxyManagerService(Options options)
    : options_(std::move(options)), connection_(connect())
{
    register_objects();
    load_configuration();
    subscribe();
    acquire_name();
    // A file that cannot be written shows now, not at the first change.
    if (!options_.state_file.empty())
        store_state(options_.state_file, config_);
    announce();
    emit("ProxyMgrStateEvent", g_variant_new("(i)", STATE_STARTED));
}

ProxyManagerService::~ProxyManagerService()
{
    g_dbus_connection_close_sync(connection_.get(), nullptr, nullptr);
}

void ProxyManagerService::load_configuration()
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

// GDBus refuses what the descriptions do not have, and answers Introspect and Ping.
void ProxyManagerService::register_objects()
{
    static const GDBusInterfaceVTable HANDLERS = {&ProxyManagerService::on_call, nullptr, nullptr, {}};
    for (const char *xml : {INTROSPECTION_XML, DEBUG_XML}) {
        Error error;
        const std::unique_ptr<GDBusNodeInfo, void (*)(GDBusNodeInfo *)> node(
            g_dbus_node_info_new_for_xml(xml, error.get()), g_dbus_node_info_unref);
        error.check("the description of the interface");
        g_dbus_connection_register_object(connection_.get(), OBJECT_PATH, node->interfaces[0], &HANDLERS,
                                          this, nullptr, error.get());
        error.check("cannot serve");
    }
}

void ProxyManagerService::acquire_name()
{
    constexpr guint32 DO_NOT_QUEUE = 4;
    constexpr guint32 PRIMARY_OWNER = 1;
    Error error;
    const std::unique_ptr<GVariant, void (*)(GVariant *)> answer(
        g_dbus_connection_call_sync(connection_.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                    "org.freedesktop.DBus", "RequestName",
                                    g_variant_new("(su)", BUS_NAME, DO_NOT_QUEUE), G_VARIANT_TYPE("(u)"),
                                    G_DBUS_CALL_FLAGS_NONE, -1, nullptr, error.get()),
        g_variant_unref);
    error.check(std::string("cannot have the name ") + BUS_NAME);
    guint32 result = 0;
    g_variant_get(answer.get(), "(u)", &result);
    if (result != PRIMARY_OWNER)
        throw std::runtime_error(std::string("the name ") + BUS_NAME + " has an owner on this bus already");
}

void ProxyManagerService::subscribe()
{
    g_dbus_connection_signal_subscribe(connection_.get(), "org.freedesktop.DBus", "org.freedesktop.DBus",
                                       "NameOwnerChanged", "/org/freedesktop/DBus", nullptr,
                                       G_DBUS_SIGNAL_FLAGS_NONE, &ProxyManagerService::on_owner_changed, this,
                                       nullptr);
    const auto on_closed = +[](GDBusConnection *, gboolean, GError *, ProxyManagerService *service) {
        log("the connection to the bus is lost");
        service->lost_ = true;
        g_main_loop_quit(service->loop_.get());
    };
    g_signal_connect(connection_.get(), "closed", G_CALLBACK(on_closed), this);
    g_unix_signal_add(SIGTERM, &ProxyManagerService::on_end, this);
    g_unix_signal_add(SIGINT, &ProxyManagerService::on_end, this);
}

bool ProxyManagerService::run()
{
    log(std::string("serving as ") + BUS_NAME);
    g_main_loop_run(loop_.get());
    log("ending");
    return !lost_;
}

// A bus that does not read must not hold up the end.
gboolean ProxyManagerService::on_end(void *service)
{
    auto &self = *static_cast<ProxyManagerService *>(service);
    self.questions_.clear();
    self.emit("ProxyMgrStateEvent", g_variant_new("(i)", STATE_STOPPED));
    const auto quit = [](GObject *, GAsyncResult *, void *loop) {
        g_main_loop_quit(static_cast<GMainLoop *>(loop));
    };
    g_dbus_connection_flush(self.connection_.get(), nullptr, quit, self.loop_.get());
    const GSourceFunc quit_anyway = [](void *loop) -> gboolean {
        g_main_loop_quit(static_cast<GMainLoop *>(loop));
        return G_SOURCE_REMOVE;
    };
    g_timeout_add_seconds(FAREWELL_SECONDS, quit_anyway, self.loop_.get());
    return G_SOURCE_CONTINUE;
}

struct ProxyManagerService::Method {
    const char *member;
    void (ProxyManagerService::*handle)(Call call, GVariant *arguments);
};

const ProxyManagerService::Method ProxyManagerService::METHODS[] = {
    {"updateProxyconfig", &ProxyManagerService::update_config},
    {"getProxyconfig", &ProxyManagerService::get_config},
    {"getProxyurl", &ProxyManagerService::get_url},
    {"checkServicestarted", &ProxyManagerService::check_started},
    {"emitStateEvent", &ProxyManagerService::emit_state_event},
};

// GDBus has compared the call with the description.
void ProxyManagerService::on_call(GDBusConnection *, const char *, const char *, const char *,
                                  const char *member, GVariant *arguments, GDBusMethodInvocation *call,
                                  void *service)
{
    for (const auto &method : METHODS) {
        if (std::string(member) == method.member)
            (static_cast<ProxyManagerService *>(service)->*method.handle)(Call(call), arguments);
    }
}

// Nobody waits for the answers of a caller that has left the bus.
void ProxyManagerService::on_owner_changed(GDBusConnection *, const char *, const char *, const char *,
                                           const char *, GVariant *arguments, void *service)
{
    const char *name = nullptr;
    const char *owner = nullptr;
    g_variant_get(arguments, "(&s&s&s)", &name, nullptr, &owner);
    auto &self = *static_cast<ProxyManagerService *>(service);
    if (*owner == '\0')
        self.questions_.remove_if([name](const Question &question) { return question.caller() == name; });
    self.begin_questions();
}

void ProxyManagerService::update_config(Call call, GVariant *arguments)
{
    const char *mode, *proxy, *pac_url, *user, *password;
    gboolean option_flag;
    g_variant_get(arguments, "(&s&s&sb&s&s)", &mode, &proxy, &pac_url, &option_flag, &user, &password);
    const Result result = adopt({mode, proxy, pac_url, option_flag != FALSE, user, password});
    if (result == ACCEPTED)
        log("new configuration: " + described(config_));
    else
        log(std::string("configuration refused: ") + meaning(result));
    // After the signals: the caller's view is up to date when it goes on.
    reply(std::move(call), g_variant_new("(i)", int{result}));
}

Result ProxyManagerService::adopt(Config config)
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
    // Answers computed for the old configuration would stay in the callers' caches.
    for (auto &question : std::exchange(questions_, {}))
        answer_url(std::move(question.call), question.url);
    return ACCEPTED;
}

// Clients have their configuration, and their answers, from a service that may have ended since.
void ProxyManagerService::announce()
{
    emit("notifyProxyConfigupdated", g_variant_new("(ssss)", config_.mode.c_str(), config_.proxy.c_str(),
                                                   config_.user.c_str(), config_.password.c_str()));
    emit("notifyClearcache", nullptr);
}

void ProxyManagerService::get_config(Call call, GVariant *)
{
    reply(std::move(call),
          g_variant_new("((ssssss))", config_.mode.c_str(), config_.proxy.c_str(), config_.pac_url.c_str(),
                        config_.option_flag ? "y" : "n", config_.user.c_str(), config_.password.c_str()));
}

void ProxyManagerService::get_url(Call call, GVariant *arguments)
{
    const char *url;
    g_variant_get(arguments, "(&s)", &url);
    answer_url(std::move(call), url);
}

void ProxyManagerService::answer_url(Call call, const std::string &url)
{
    if (config_.mode == "off") {
        reply_proxies(std::move(call), {config_.mode});
    } else if (config_.mode == "manual") {
        reply_proxies(std::move(call), {config_.mode, config_.proxy});
    } else if (config_.mode == "wpad" && options_.wpad_script.empty()) {
        log("no script for the mode wpad; the answer is DIRECT");
        reply_proxies(std::move(call), {config_.mode, "DIRECT"});
    } else {
        questions_.push_back({std::move(call), url, nullptr});
        begin_questions();
    }
}

void ProxyManagerService::check_started(Call call, GVariant *)
{
    reply(std::move(call), g_variant_new("(b)", TRUE));
}

void ProxyManagerService::emit_state_event(Call call, GVariant *arguments)
{
    emit("ProxyMgrStateEvent", arguments);
    reply(std::move(call), nullptr);
}

// Gives questions their turn: each caller's first, then each caller's second, and so on.
void ProxyManagerService::begin_questions()
{
    size_t running = 0;
    std::map<std::string, size_t> running_of;
    for (const auto &question : questions_) {
        running += question.evaluation ? 1 : 0;
        running_of[question.caller()] += question.evaluation ? 1 : 0;
    }
    for (size_t share = 1; share <= MOST_OF_ONE_CALLER; share++) {
        for (auto question = questions_.begin(); question != questions_.end(); ++question) {
            auto &of_caller = running_of[question->caller()];
            if (question->evaluation || of_caller >= share || running >= MOST_EVALUATIONS)
                continue;
            begin(question);
            of_caller++;
            running++;
        }
    }
}

void ProxyManagerService::begin(Questions::iterator question)
{
    const std::string &script = config_.mode == "wpad" ? options_.wpad_script : config_.pac_url;
    question->evaluation = std::make_unique<PacEvaluation>(
        script, question->url, options_.script_limit,
        [this, question](const std::string &answer, const std::string &failure) {
            finish(question, answer, failure);
        });
}

void ProxyManagerService::finish(Questions::iterator question, const std::string &answer,
                                 const std::string &failure)
{
    const std::string host = proxy_text::split_url(question->url).host;
    std::string dropped;
    Strings texts = pac_entries(answer, dropped);
    if (!failure.empty())
        log("the script has failed for the host " + host + ": " + failure);
    if (!dropped.empty())
        log("not usable in the script's answer for the host " + host + ": " + dropped);
    if (texts.empty())
        texts.emplace_back("DIRECT");
    texts.insert(texts.begin(), config_.mode);
    reply_proxies(std::move(question->call), texts);
    questions_.erase(question);
    begin_questions();
}

// Nobody listens when the bus is lost.
void ProxyManagerService::emit(const char *signal, GVariant *arguments)
{
    g_dbus_connection_emit_signal(connection_.get(), nullptr, OBJECT_PATH, INTERFACE, signal, arguments,
                                  nullptr);
}

} // namespace proxy_manager_service
