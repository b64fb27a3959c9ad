// The stand-in proxy manager service on a D-Bus bus: modes off, manual, PAC and WPAD, with the methods and
// signals that data/com.halvo.ProxyManagerServiceInterface.xml describes.
#ifndef TOOLS_PROXY_MANAGER_SERVICE_H
#define TOOLS_PROXY_MANAGER_SERVICE_H

#include <chrono>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "objects.h"
#include "pac_evaluation.h"
#include "proxy_config.h"

namespace proxy_manager_service
{

// The values that the service itself sends as "ProxyMgrStateEvent".
constexpr int STATE_STOPPED = 0;
constexpr int STATE_STARTED = 1;

struct Options {
    Config config;           // used when the state file does not exist yet
    std::string state_file;  // empty: the configuration is lost at the end
    std::string wpad_script; // URL or path of the PAC script of the mode wpad; empty: every answer is DIRECT
    std::chrono::milliseconds script_limit =
        std::chrono::seconds(10); // a script that takes longer has failed
};

class ProxyManagerService
{
public:
    // The service is on the system bus when it returns. Throws StateError, std::invalid_argument for a configuration
    // that check() refuses, and std::runtime_error when there is no bus or the name has an owner.
    explicit ProxyManagerService(Options options);
    ~ProxyManagerService();
    ProxyManagerService(const ProxyManagerService &) = delete;
    ProxyManagerService &operator=(const ProxyManagerService &) = delete;

    // Serves until SIGTERM or SIGINT, and then sends the state event "stopped"; false when the bus was lost.
    bool run();

private:
    using Call = Object<GDBusMethodInvocation>;
    // A "getProxyurl" call whose answer comes from a script.
    struct Question {
        Call call;
        std::string url;
        std::unique_ptr<PacEvaluation> evaluation; // none before its turn
        std::string caller() const { return g_dbus_method_invocation_get_sender(call.get()); }
    };
    using Questions = std::list<Question>;
    struct Method;
    static const Method METHODS[];

    void load_configuration();
    void register_objects();
    void acquire_name();
    void subscribe();
    static gboolean on_end(void *service);

    static void on_call(GDBusConnection *, const char *sender, const char *path, const char *interface,
                        const char *member, GVariant *arguments, GDBusMethodInvocation *call, void *service);
    static void on_owner_changed(GDBusConnection *, const char *sender, const char *path,
                                 const char *interface, const char *signal, GVariant *arguments,
                                 void *service);
    void update_config(Call call, GVariant *arguments);
    void get_config(Call call, GVariant *arguments);
    void get_url(Call call, GVariant *arguments);
    void check_started(Call call, GVariant *arguments);
    void emit_state_event(Call call, GVariant *arguments);

    Result adopt(Config config);
    void announce();
    void answer_url(Call call, const std::string &url);
    void begin_questions();
    void begin(Questions::iterator question);
    void finish(Questions::iterator question, const std::string &answer, const std::string &failure);
    void emit(const char *signal, GVariant *arguments);

    const Options options_;
    Config config_;
    Object<GDBusConnection> connection_;
    std::unique_ptr<GMainLoop, void (*)(GMainLoop *)> loop_{g_main_loop_new(nullptr, FALSE),
                                                            g_main_loop_unref};
    bool lost_ = false;
    Questions questions_; // in the order of their calls
};

// Writes a line to the standard error.
void log(const std::string &line);

} // namespace proxy_manager_service

#endif
