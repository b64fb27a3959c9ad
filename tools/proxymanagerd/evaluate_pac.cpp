// evaluate-pac: asks a PAC script for the proxies of a URL; for proxymanagerd only. A script may come from anywhere, so it
// runs in a process of its own that holds nothing secret and may take little. The environment says what to do:
// PAC_SCRIPT (http or https URL, file URL or path), PAC_URL and PAC_HOST. The output is 'A' and the script's answer, or 'F'
// and what is wrong.

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>

#include <curl/curl.h>
#include <pacparser.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace
{

constexpr size_t LARGEST_SCRIPT = size_t{1024} * 1024;
constexpr size_t LONGEST_ANSWER = size_t{32} * 1024;
constexpr rlim_t MOST_MEMORY = rlim_t{32} * 1024 * 1024; // beyond what the process has without a script
constexpr rlim_t MOST_SECONDS = 20;                      // the longest --script-limit
constexpr char BYTE_ORDER_MARK[] = "\xef\xbb\xbf";

std::string engine_messages;

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

void limit(__rlimit_resource resource, rlim_t most)
{
    const rlimit both{most, most};
    if (setrlimit(resource, &both) != 0)
        throw std::system_error(errno, std::generic_category(), "cannot limit the script");
}

// What is mapped already counts, sanitizers' terabytes as well.
void limit_memory()
{
    rlim_t pages = 0;
    if (!(std::ifstream("/proc/self/statm") >> pages))
        throw std::runtime_error("cannot limit the script's memory: no /proc/self/statm");
    limit(RLIMIT_AS, pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + MOST_MEMORY);
}

// It ends with its parent, and when memory is short the kernel ends it before others.
void confine()
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::ofstream("/proc/self/oom_score_adj") << 1000;
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0)
        throw std::system_error(errno, std::generic_category(), "cannot give up privileges");
    limit(RLIMIT_CPU, MOST_SECONDS);
    limit(RLIMIT_CORE, 0);
    setenv("RES_OPTIONS", "timeout:1 attempts:1",
           1); // a name server that is silent must not take all the time
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
    return script.compare(0, strlen(BYTE_ORDER_MARK), BYTE_ORDER_MARK) == 0 ? script.substr(3) : script;
}

std::string setting(const char *name)
{
    const char *value = getenv(name);
    if (!value || !*value)
        throw std::runtime_error(std::string(name) + " is not set; this program is proxymanagerd's own");
    return value;
}

std::string evaluate()
{
    confine();
    const std::string source = setting("PAC_SCRIPT");
    const std::string url = quoted(setting("PAC_URL"));
    const char *host = getenv("PAC_HOST"); // a URL may have none
    const std::string script = load_script(source);
    limit_memory();
    pacparser_set_error_printer(note_engine_message);
    // Browsers have alert() for scripts, the engine has not.
    const bool ready = pacparser_init() && pacparser_parse_pac_string("function alert() {}") &&
                       pacparser_parse_pac_string(script.c_str());
    const char *answer =
        ready ? pacparser_find_proxy(url.c_str(), quoted(host ? host : "").c_str()) : nullptr;
    if (!answer)
        throw std::runtime_error(source + ": " + engine_messages);
    return answer;
}

} // namespace

int main()
{
    std::string result;
    try {
        result = 'A' + evaluate();
    } catch (const std::exception &error) {
        result = 'F' + std::string(error.what());
    }
    std::cout.write(result.data(), static_cast<std::streamsize>(std::min(result.size(), LONGEST_ANSWER)))
        .flush();
    _exit(0); // the engine has nothing that needs an end
}
