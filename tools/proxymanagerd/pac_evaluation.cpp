// The evaluation of a PAC script by the program evaluate-pac.

#include "pac_evaluation.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <utility>

#include <gio/gunixinputstream.h>
#include <glib-unix.h>
#include <strings.h>
#include <unistd.h>

#include "proxy_text.h"

namespace proxy_manager_service
{

namespace
{

constexpr size_t LONGEST_ANSWER = size_t{64} * 1024;

// Beside this program in a build folder; an installed folder may have been moved.
std::string evaluator()
{
    if (const char *chosen = getenv("PROXYMANAGERD_EVALUATE_PAC"))
        return chosen;
    std::error_code unknown;
    const auto folder = std::filesystem::read_symlink("/proc/self/exe", unknown).parent_path();
    const auto beside = folder / "evaluate-pac";
    return exists(beside, unknown) ? beside : folder / FROM_PROGRAMS_TO_EVALUATOR / "evaluate-pac";
}

// The environment tells, for all accounts can see arguments.
GSubprocess *start(const std::string &script, const std::string &url, Error &error)
{
    const auto parts = proxy_text::split_url(url);
    const Object<GSubprocessLauncher> launcher(g_subprocess_launcher_new(
        static_cast<GSubprocessFlags>(G_SUBPROCESS_FLAGS_STDOUT_PIPE | G_SUBPROCESS_FLAGS_STDERR_SILENCE)));
    g_subprocess_launcher_setenv(launcher.get(), "PAC_SCRIPT", script.c_str(), TRUE);
    g_subprocess_launcher_setenv(launcher.get(), "PAC_URL", parts.without_user.c_str(), TRUE);
    g_subprocess_launcher_setenv(launcher.get(), "PAC_HOST", parts.host.c_str(), TRUE);
    const std::string program = evaluator();
    const char *const arguments[] = {program.c_str(), nullptr};
    return g_subprocess_launcher_spawnv(launcher.get(), arguments, error.get());
}

bool is_one_of(const std::string &kind, std::initializer_list<const char *> kinds)
{
    for (const char *candidate : kinds) {
        if (strcasecmp(kind.c_str(), candidate) == 0)
            return true;
    }
    return false;
}

// The entry of a proxy as clients get it; empty when it is none.
std::string entry_of(const std::string &kind, const std::string &proxy)
{
    const bool has_port = proxy_text::is_host_port(proxy);
    if (!has_port && !proxy_text::is_host_port(proxy + ":80"))
        return {};
    if (is_one_of(kind, {"PROXY", "HTTP"})) // to libcurl no port means 1080
        return "PROXY " + proxy + (has_port ? "" : ":80");
    return is_one_of(kind, {"HTTPS", "SOCKS", "SOCKS4", "SOCKS5"}) ? kind + ' ' + proxy : std::string();
}

} // namespace

PacEvaluation::PacEvaluation(const std::string &script, const std::string &url,
                             std::chrono::milliseconds limit, Done done)
    : done_(std::move(done))
{
    Error error;
    process_.reset(start(script, url, error));
    if (error) {
        failure_ = "no process for the script: " + error.text();
        limit = std::chrono::milliseconds(0);
    } else {
        GInputStream *output = g_subprocess_get_stdout_pipe(process_.get());
        const int pipe = g_unix_input_stream_get_fd(G_UNIX_INPUT_STREAM(output));
        const GUnixFDSourceFunc on_readable = [](int readable, GIOCondition, void *evaluation) -> gboolean {
            return static_cast<PacEvaluation *>(evaluation)->receive(readable);
        };
        reader_ = g_unix_fd_add(pipe, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP), on_readable, this);
    }
    const GSourceFunc on_time = [](void *evaluation) -> gboolean {
        static_cast<PacEvaluation *>(evaluation)->finish();
        return G_SOURCE_REMOVE;
    };
    timer_ = g_timeout_add(static_cast<unsigned>(limit.count()), on_time, this);
}

PacEvaluation::~PacEvaluation()
{
    if (reader_)
        g_source_remove(reader_);
    if (timer_)
        g_source_remove(timer_);
    if (process_)
        g_subprocess_force_exit(process_.get());
}

// False when nothing more is to come.
bool PacEvaluation::receive(int pipe)
{
    char buffer[4096];
    const ssize_t count = read(pipe, buffer, sizeof(buffer));
    if (count > 0)
        received_.append(buffer, static_cast<size_t>(count));
    if (count > 0 ? received_.size() < LONGEST_ANSWER : count < 0 && (errno == EINTR || errno == EAGAIN))
        return true;
    if (received_.empty())
        failure_ = "the script engine has crashed";
    else
        failure_ = received_[0] == 'F' ? received_.substr(1) : "";
    finish();
    return false;
}

// This object may be gone when it returns.
void PacEvaluation::finish()
{
    const Done done = std::move(done_);
    const std::string failure = std::move(failure_);
    const std::string answer = failure.empty() ? received_.substr(1) : "";
    done(answer, failure);
}

std::vector<std::string> pac_entries(const std::string &answer, std::string &dropped)
{
    std::vector<std::string> entries;
    std::istringstream parts(answer);
    for (std::string part; std::getline(parts, part, ';');) {
        std::string kind, proxy, rest;
        std::istringstream words(part);
        words >> kind >> proxy >> rest;
        const bool direct = is_one_of(kind, {"DIRECT"}) && proxy.empty();
        const std::string entry = direct ? "DIRECT" : rest.empty() ? entry_of(kind, proxy) : "";
        if (!entry.empty())
            entries.push_back(entry);
        else if (!kind.empty())
            dropped += part + ';';
    }
    return entries;
}

} // namespace proxy_manager_service
