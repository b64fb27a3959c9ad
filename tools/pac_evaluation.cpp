// The evaluation of a PAC script in a child process.

#include "pac_evaluation.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>

#include <curl/curl.h>
#include <fcntl.h>
#include <pacparser.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include "proxy_text.h"

namespace proxy_manager_service
{

namespace
{

constexpr size_t LARGEST_SCRIPT = size_t{1024} * 1024;
constexpr size_t LARGEST_ANSWER = size_t{64} * 1024;
// The first byte that a child sends tells what follows.
constexpr char ANSWER = 'A';
constexpr char FAILURE = 'F';

std::string engine_messages; // of the child's one evaluation

int note_engine_message(const char *format, va_list arguments)
{
    char line[512];
    const int length = vsnprintf(line, sizeof(line), format, arguments);
    if (strncmp(line, "DEBUG:", 6) != 0 && strncmp(line, "WARNING:", 8) != 0)
        engine_messages += line;
    return length;
}

// The engine pastes URL and host into a script between quotes.
std::string quoted(const std::string &text)
{
    std::string result;
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte > 0x20 && byte < 0x7f && !strchr("'\"\\", character)) {
            result += character;
        } else {
            char code[4];
            snprintf(code, sizeof(code), "%%%02X", static_cast<unsigned>(byte));
            result += code;
        }
    }
    return result;
}

std::string read_script(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    std::string script(LARGEST_SCRIPT + 1, '\0');
    if (!file || (!file.read(script.data(), static_cast<std::streamsize>(script.size())) && !file.eof()))
        throw std::runtime_error("cannot read " + path + ": " + strerror(errno));
    script.resize(static_cast<size_t>(file.gcount()));
    return script;
}

size_t take_script(char *data, size_t size, size_t count, void *user)
{
    auto &script = *static_cast<std::string *>(user);
    script.append(data, size * count);
    return script.size() <= LARGEST_SCRIPT ? size * count : 0;
}

std::string fetch_script(const std::string &url)
{
    const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> request(curl_easy_init(), curl_easy_cleanup);
    if (!request)
        throw std::bad_alloc();
    std::string script;
    curl_easy_setopt(request.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(request.get(), CURLOPT_PROXY, ""); // what tells the proxies is fetched without one
    curl_easy_setopt(request.get(), CURLOPT_FAILONERROR, 1L);
    curl_easy_setopt(request.get(), CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(request.get(), CURLOPT_MAXREDIRS, 5L);
    curl_easy_setopt(request.get(), CURLOPT_WRITEFUNCTION, take_script);
    curl_easy_setopt(request.get(), CURLOPT_WRITEDATA, &script);
    const CURLcode result = curl_easy_perform(request.get());
    if (result != CURLE_OK && script.size() <= LARGEST_SCRIPT)
        throw std::runtime_error("cannot fetch " + url + ": " + curl_easy_strerror(result));
    return script;
}

std::string load_script(const std::string &source)
{
    std::string script = source[0] == '/' ? read_script(source) : fetch_script(source);
    if (script.size() > LARGEST_SCRIPT)
        throw std::runtime_error(source + " is larger than 1 MiB");
    return script;
}

std::string evaluate(const std::string &source, const std::string &url)
{
    const auto parts = proxy_text::split_url(url);
    const std::string script = load_script(source);
    pacparser_set_error_printer(note_engine_message);
    // Browsers have alert() for scripts, the engine has not.
    const bool ready = pacparser_init() && pacparser_parse_pac_string("function alert() {}") &&
                       pacparser_parse_pac_string(script.c_str());
    const char *answer =
        ready ? pacparser_find_proxy(quoted(parts.without_user).c_str(), quoted(parts.host).c_str())
              : nullptr;
    if (!answer)
        throw std::runtime_error(source + ": " + engine_messages);
    return answer;
}

void send(int output, const std::string &text)
{
    for (size_t sent = 0; sent < text.size();) {
        const ssize_t count = write(output, text.data() + sent, text.size() - sent);
        if (count < 0 && errno != EINTR)
            return;
        sent += static_cast<size_t>(count < 0 ? 0 : count);
    }
}

// closefrom came with glibc 2.34, close_range with Linux 5.9.
void close_above(int descriptor)
{
    if (syscall(__NR_close_range, descriptor + 1, ~0U, 0) == 0)
        return;
    for (int last = static_cast<int>(sysconf(_SC_OPEN_MAX)) - 1; last > descriptor; last--)
        close(last);
}

// The child's life. It holds nothing of its parent but the standard streams and the pipe: the bus must notice
// the end of the parent at once.
[[noreturn]] void run_child(int output, pid_t parent, const std::string &source, const std::string &url)
{
    constexpr int KEPT = STDERR_FILENO + 1;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent || dup2(output, KEPT) < 0)
        _exit(1);
    close_above(KEPT);
    try {
        send(KEPT, ANSWER + evaluate(source, url).substr(0, LARGEST_ANSWER));
    } catch (const std::exception &error) {
        send(KEPT, FAILURE + std::string(error.what()).substr(0, LARGEST_ANSWER));
    }
    _exit(0);
}

} // namespace

PacEvaluation::PacEvaluation(const std::string &script, const std::string &url)
{
    int ends[2] = {-1, -1};
    const bool piped = pipe2(ends, O_CLOEXEC) == 0;
    output_ = Descriptor(ends[0]);
    const Descriptor input(ends[1]);
    const pid_t parent = getpid();
    if (piped)
        child_ = fork();
    if (child_ < 0)
        received_ = FAILURE + std::string("no process for the script: ") + strerror(errno);
    if (child_ == 0)
        run_child(input.get(), parent, script, url);
}

PacEvaluation::~PacEvaluation()
{
    if (child_ < 0)
        return;
    kill(child_, SIGKILL);
    while (waitpid(child_, nullptr, 0) < 0 && errno == EINTR) {
    }
}

bool PacEvaluation::receive()
{
    char buffer[4096];
    const ssize_t count = read(output_.get(), buffer, sizeof(buffer));
    if (count > 0)
        received_.append(buffer, static_cast<size_t>(count));
    return count == 0 || (count < 0 && errno != EINTR && errno != EAGAIN);
}

std::string PacEvaluation::answer() const
{
    if (received_.empty())
        throw std::runtime_error("the script engine has crashed");
    if (received_[0] == FAILURE)
        throw std::runtime_error(received_.substr(1));
    return received_.substr(1);
}

std::vector<std::string> pac_entries(const std::string &answer, std::string &dropped)
{
    std::vector<std::string> entries;
    std::istringstream parts(answer);
    for (std::string part; std::getline(parts, part, ';');) {
        std::string kind, proxy, rest;
        std::istringstream words(part);
        words >> kind >> proxy >> rest;
        const bool http = strcasecmp(kind.c_str(), "PROXY") == 0 || strcasecmp(kind.c_str(), "HTTP") == 0;
        if (http && proxy_text::is_host_port(proxy) && rest.empty())
            entries.push_back("PROXY " + proxy);
        else if (strcasecmp(kind.c_str(), "DIRECT") == 0 && proxy.empty())
            entries.emplace_back("DIRECT");
        else if (!kind.empty())
            dropped += part + ';';
    }
    return entries;
}

} // namespace proxy_manager_service
