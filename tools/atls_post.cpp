// atls-post: posts a message to an ATLS service and prints the answer.

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>
#include <random>
#include <type_traits>

#include <CLI/CLI.hpp>
#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <strings.h>
#include <unistd.h>

#include "atls.h"
#include "cli.h"
#include "explanation.h"
#include "proxymanager.h"

namespace
{

constexpr const char *NAME = "atls-post";
constexpr int EXIT_OUTPUT = 74;

struct Settings {
    std::string url;
    std::string message;
    std::string output;
    std::string tracking_id;
    std::string ip;
    int count = 1;
    int log_level = -1;
    bool with_header = false;
    bool trace = false;
    bool explain = false;
};

struct Address {
    std::string host; // an IPv6 address keeps its brackets
    int port = 443;
    std::string path = "/";
};

void add_options(CLI::App &app, Settings &settings)
{
    app.add_option("URL", settings.url, "https://HOST[:PORT][/PATH] of the service")->required();
    app.add_option("MESSAGE", settings.message,
                   "The message; @FILE takes a file's contents; without it the standard input is read");
    app.add_option("-o,--output", settings.output, "Write the answer to this file");
    app.add_flag("-i,--include", settings.with_header,
                 "Write the response header block in front of the answer");
    app.add_option("--tracking-id", settings.tracking_id, "Send this TrackingID header with every request");
    app.add_option(
        "--ip", settings.ip,
        "Connect to this IP address, IPv6 in brackets, and name it in the request, in place of the URL's "
        "host");
    app.add_option(
           "-n,--count", settings.count,
           "Post the message this many times on one connection, and on a new one after each that did not "
           "bring a whole, encrypted answer")
        ->check(CLI::Range(1, INT_MAX))
        ->capture_default_str();
    cli::add_log_option(
        app, settings.log_level,
        "Show the library's log up to this level: error, notice, info, debug (debug shows answers)");
    app.add_flag("--trace", settings.trace, "Show the trace of the HTTPS layer");
    app.add_flag(
        "--explain", settings.explain,
        "Tell afterwards which proxies were offered and which one carried the message, of the session, "
        "bytes and times; --log then shows at least notices");
    app.footer("Log, trace and explanation go to the standard error.\n"
               "Exit status: 0, or the library's result (1 to 7) for the first message that failed, 64 wrong "
               "usage,\n  74 answer not written.\n"
               "Examples:\n"
               "  atls-post https://service.example/atls 'hello'\n"
               "  atls-post -o answer.bin https://service.example:8443/atls @message.bin\n"
               "  date | atls-post --log notice https://service.example/atls\n"
               "  atls-post --explain https://service.example/atls 'hello'");
}

bool has_control_character(const std::string &text)
{
    return std::any_of(text.begin(), text.end(),
                       [](char c) { return static_cast<unsigned char>(c) <= ' ' || c == '\x7f'; });
}

int parse_port(const std::string &text, const std::string &url)
{
    if (text.empty() || text.size() > 5 || text.find_first_not_of("0123456789") != std::string::npos)
        throw cli::UsageError("not a port number in the URL: " + url);
    return std::stoi(text);
}

Address parse_url(const std::string &url)
{
    constexpr size_t SCHEME_LENGTH = 8;
    if (strncasecmp(url.c_str(), "https://", SCHEME_LENGTH) != 0 || has_control_character(url))
        throw cli::UsageError("not an https:// URL: " + url);
    const size_t path_start = std::min(url.find_first_of("/?#", SCHEME_LENGTH), url.size());
    const std::string authority = url.substr(SCHEME_LENGTH, path_start - SCHEME_LENGTH);
    const size_t bracket = authority.find(']');
    const size_t colon = authority.find(':', bracket == std::string::npos ? 0 : bracket);

    Address address;
    address.host = authority.substr(0, colon);
    if (address.host.empty() || authority.find('@') != std::string::npos)
        throw cli::UsageError("no usable host in the URL: " + url);
    if (colon != std::string::npos)
        address.port = parse_port(authority.substr(colon + 1), url);
    const std::string path = url.substr(path_start, url.find('#') - path_start);
    address.path = path.empty() || path[0] != '/' ? "/" + path : path;
    return address;
}

std::string read_all(FILE *file, const std::string &name)
{
    std::string text;
    std::array<char, 65536> part;
    for (size_t count; (count = fread(part.data(), 1, part.size(), file)) > 0;)
        text.append(part.data(), count);
    if (ferror(file))
        throw cli::UsageError("cannot read " + name + ": " + strerror(errno));
    return text;
}

std::string read_message(const CLI::App &app, const Settings &settings)
{
    std::string message = settings.message;
    if (app.count("MESSAGE") == 0) {
        message = read_all(stdin, "the standard input");
    } else if (!message.empty() && message[0] == '@') {
        const std::string name = message.substr(1);
        const std::unique_ptr<FILE, int (*)(FILE *)> file(fopen(name.c_str(), "rbe"), fclose);
        if (!file)
            throw cli::UsageError("cannot open " + name + ": " + strerror(errno));
        message = read_all(file.get(), name);
    }
    if (message.empty())
        throw cli::UsageError("the message is empty");
    if (message.size() > INT_MAX)
        throw cli::UsageError("the message is longer than 2 GiB");
    return message;
}

// Where answers go. An existing file is only emptied when the first answer is there.
class Output
{
public:
    explicit Output(const std::string &name)
    {
        if (name.empty())
            return;
        created_ = access(name.c_str(), F_OK) != 0 ? name : "";
        const int descriptor = open(name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
        file_ = descriptor < 0 ? nullptr : fdopen(descriptor, "wb");
        if (!file_)
            throw cli::UsageError("cannot write " + name + ": " + strerror(errno));
        truncate_ = true;
    }
    Output(const Output &) = delete;
    Output &operator=(const Output &) = delete;
    ~Output()
    {
        if (file_ != stdout)
            fclose(file_);
        if (!created_.empty())
            unlink(created_.c_str());
    }

    bool write(const atls_resp &answer, bool with_header)
    {
        if (truncate_ && ftruncate(fileno(file_), 0) != 0 &&
            errno != EINVAL) // a pipe or device has no length
            return false;
        truncate_ = false;
        created_.clear();
        if (with_header)
            fwrite(answer.header, 1, answer.header_len, file_);
        fwrite(answer.body, 1, answer.body_len, file_);
        const bool on_terminal = isatty(fileno(file_)) && answer.body[answer.body_len - 1] != '\n';
        if (on_terminal)
            fputc('\n', file_);
        return fflush(file_) == 0 && !ferror(file_);
    }

private:
    FILE *file_ = stdout;
    bool truncate_ = false;
    std::string created_; // the file's name, as long as it is new and holds no answer
};

// libcurl's trace goes to stdio's stderr, the log to descriptor 2. Without --trace this program's own stderr
// is pointed elsewhere for the time of the connection. Where the C library has a constant (musl), the trace shows.
class TraceHidden
{
public:
    explicit TraceHidden(bool hide)
    {
        if (hide && (null_ = fopen("/dev/null", "we")))
            point(stderr, null_);
    }
    TraceHidden(const TraceHidden &) = delete;
    TraceHidden &operator=(const TraceHidden &) = delete;
    ~TraceHidden()
    {
        point(stderr, saved_);
        if (null_)
            fclose(null_);
    }

private:
    template <typename Stream>
    static void point(Stream &stream, FILE *file)
    {
        if constexpr (!std::is_const_v<Stream>)
            stream = file;
    }

    FILE *saved_ = stderr;
    FILE *null_ = nullptr;
};

const char *meaning(int result)
{
    static const char *const TEXTS[] = {"success",
                                        "invalid arguments, or the session has ended",
                                        "set-up failed: device certificate, key or trust store",
                                        "handshake failed",
                                        "the response could not be processed",
                                        "no cookie",
                                        "the message could not be exchanged",
                                        "unexpected HTTP status in the handshake"};
    const auto index = static_cast<size_t>(result);
    return index < std::size(TEXTS) ? TEXTS[index] : "unknown result";
}

int report_failure(const char *doing, const Settings &settings, int result)
{
    std::cerr << "atls-post: " << doing << ' ' << settings.url << ": " << meaning(result) << " (result "
              << result << ')' << (settings.log_level < 0 ? "; --log error shows why" : "") << std::endl;
    return result;
}

// What the engine still holds once an answer has been read from it.
enum class Rest {
    NOTHING, // but perhaps session tickets or new keys, which are no data
    END,     // the service has closed the session, or wants it negotiated anew
    DATA,    // more of an answer
    GARBAGE  // no whole record
};

Rest rest_behind_answer(SSL *ssl)
{
    char byte = 0;
    ERR_clear_error(); // SSL_get_error looks there, too
    switch (SSL_get_error(ssl, SSL_peek(ssl, &byte, 1))) {
    case SSL_ERROR_NONE:
        return Rest::DATA;
    case SSL_ERROR_WANT_READ: // perhaps for the end of a record
        if (SSL_has_pending(ssl) || BIO_ctrl_pending(SSL_get_rbio(ssl)) > 0)
            return Rest::GARBAGE;
        return SSL_is_init_finished(ssl) ? Rest::NOTHING : Rest::END;
    case SSL_ERROR_ZERO_RETURN:
        return Rest::END;
    default:
        return Rest::GARBAGE;
    }
}

int write_answer(const Settings &settings, const atls_resp &answer, Output &output)
{
    if (!output.write(answer, settings.with_header)) {
        std::cerr << "atls-post: answer not written: " << strerror(errno) << std::endl;
        return EXIT_OUTPUT;
    }
    if (answer.status_code != 200)
        std::cerr << "atls-post: the service answered with HTTP status " << answer.status_code << std::endl;
    return ATLS_OK;
}

// The library decrypts a body only when the header says so, and anybody on the way may say otherwise.
bool is_encrypted(const atls_resp &answer)
{
    return strstr(answer.header, "Content-Type: application/octet-stream") != nullptr;
}

// Judges a response and writes its answer. open tells whether the next message may go over the same session.
int take_answer(SSL *ssl, const Settings &settings, const atls_resp &answer, Output &output, bool &open)
{
    const bool encrypted = is_encrypted(answer);
    const Rest rest = encrypted ? rest_behind_answer(ssl) : Rest::NOTHING;
    open = encrypted && rest == Rest::NOTHING;
    if (rest == Rest::DATA || rest == Rest::GARBAGE) {
        std::cerr
            << "atls-post: more waits behind the " << answer.body_len << " bytes that end the answer: "
            << (rest == Rest::DATA
                    ? "the service wrote it in several short TLS records; let it write the whole at once, "
                      "in full records (atls-post(1), SERVICES)"
                    : "no whole TLS record")
            << std::endl;
        return ATLS_BAD_RESPONSE;
    }
    const int status = write_answer(settings, answer, output);
    if (!encrypted)
        std::cerr << "atls-post: the answer was not encrypted: it is not protected by the session"
                  << std::endl;
    return status;
}

// Leaves the handle connected only if the next message may go over the same session: a message without an answer of
// its own may be answered late, in the place of the next.
int exchange(atls_handle *handle, const Settings &settings, const std::string &path,
             const std::string &message, Output &output, Explanation &explanation)
{
    atls_resp answer = {};
    bool open = false;
    int status =
        atls_easy_perform(handle, message.data(), static_cast<int>(message.size()), path.c_str(), &answer);
    if (status != ATLS_OK) {
        report_failure("posting to", settings, status);
    } else {
        explanation.exchanged(*handle, answer, message.size());
        status = take_answer(handle->ssl, settings, answer, output, open);
    }
    cleanup_atls_resp(&answer);
    if (!open)
        atls_handle_cleanup(&handle);
    return status;
}

int connect_handle(atls_handle *handle, const Settings &settings, const Address &address,
                   Explanation &explanation)
{
    const bool by_ip = !settings.ip.empty();
    const char *tracking_id = settings.tracking_id.empty() ? nullptr : settings.tracking_id.c_str();
    const int status =
        atls_connect(&handle, by_ip ? nullptr : address.host.c_str(), by_ip ? settings.ip.c_str() : nullptr,
                     address.port, address.path.c_str(), tracking_id);
    explanation.connected(*handle);
    return status == ATLS_OK ? status : report_failure("connecting to", settings, status);
}

// Returns the status of the first message that failed.
int post(atls_handle *handle, const Settings &settings, const Address &address, const std::string &message,
         Output &output, Explanation &explanation)
{
    int status = ATLS_OK;
    for (int i = 0; i < settings.count; i++) {
        const int connected = handle->ssl ? ATLS_OK : connect_handle(handle, settings, address, explanation);
        const int result = connected == ATLS_OK
                               ? exchange(handle, settings, address.path, message, output, explanation)
                               : connected;
        status = status == ATLS_OK ? result : status;
        if (connected != ATLS_OK || result == EXIT_OUTPUT)
            break; // the next message would fare no better
    }
    return status;
}

// The URL that the connection is set up with, which is the one that the proxies are asked for.
std::string connection_url(const Settings &settings, const Address &address)
{
    return "https://" + (settings.ip.empty() ? address.host : settings.ip) + ":" +
           std::to_string(address.port) + address.path;
}

// For lines of the log that are read again: a text of a peer may hold whole lines, but cannot know this name.
std::string secret_name()
{
    std::random_device random;
    return NAME + ('[' + std::to_string(random()) + std::to_string(random()) + ']');
}

int run(const CLI::App &app, const Settings &settings)
{
    const Address address = parse_url(settings.url);
    if (has_control_character(settings.tracking_id) || has_control_character(settings.ip))
        throw cli::UsageError("blanks and control characters are not allowed in --tracking-id and --ip");
    const std::string message = read_message(app, settings);
    Output output(settings.output);
    const int level = settings.explain ? std::max(settings.log_level, LOG_NOTICE) : settings.log_level;
    static const std::string log_name = settings.explain ? secret_name() : NAME;
    cli::set_up_log(log_name.c_str(), level);
    std::optional<LogReader> log;
    if (settings.explain)
        log.emplace(log_name + ": ", settings.log_level >= 0);
    const TraceHidden hidden(!settings.trace);
    const std::unique_ptr<atls_handle, decltype(&free_atls_handle)> handle(create_atls_handle(),
                                                                           free_atls_handle);
    if (!handle)
        throw std::bad_alloc();
    Explanation explanation(connection_url(settings, address));
    const int status = post(handle.get(), settings, address, message, output, explanation);
    if (log) {
        const Clock::time_point end = Clock::now();
        cleanup_proxy_manager_client(); // its thread has nothing to log from now on
        explanation.write(std::cerr, log->finish(), end);
    }
    return status;
}

} // namespace

int main(int argc, char **argv)
{
    return cli::guarded(NAME, [&] {
        CLI::App app("Posts a message to an ATLS service and prints the answer.", NAME);
        Settings settings;
        add_options(app, settings);
        if (const auto status = cli::parse(app, argc, argv))
            return *status;
        return run(app, settings);
    });
}
