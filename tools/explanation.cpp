// The way of a message, put together from log lines, proxy list and handle.

#include "explanation.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <iomanip>
#include <stdexcept>

#include <curl/curl.h>
#include <fcntl.h>
#include <openssl/ssl.h>

#include "proxy_text.h"

namespace
{

using proxy_text::on_one_line;
using Lines = std::vector<LogReader::Line>;

// A line may end in texts of a peer: only how it begins can be trusted.
bool begins(const LogReader::Line &line, const std::string &text)
{
    return line.text.rfind(text, 0) == 0;
}

// What stands behind a text that the line begins with; false when it begins otherwise.
bool read_behind(const LogReader::Line &line, const std::string &text, std::string &rest)
{
    const bool found = begins(line, text);
    if (found)
        rest = line.text.substr(text.size());
    return found;
}

// The same for a text that stands behind the name of a step that posts.
bool read_of_post(const LogReader::Line &line, const char *text, std::string &rest)
{
    return read_behind(line, std::string("atls_handshake").append(text), rest) ||
           read_behind(line, std::string("atls_easy_perform").append(text), rest);
}

// What was offered, and through what each message went.
struct Route {
    struct Failure {
        std::string proxy;
        int code;
        Clock::duration time;
        bool final; // no other proxy was tried after it
    };
    std::vector<std::string> offered;
    std::vector<Failure> failures;
    std::vector<std::pair<std::string, int>> carriers; // each with the number of messages in a row
};

// Follows the posts from one line of the log to the next.
class Follower
{
public:
    void take(const LogReader::Line &line)
    {
        const std::string query = "ProxyManagerClientImpl-getProxyUrl ";
        std::string rest;
        if (begins(line, "enter setProxyParams "))
            start_anew();
        else if (read_behind(line, query + "proxy mode is manual. proxyUrl:", rest))
            take_offer(rest.substr(0, rest.find(", useName:")));
        else if (read_behind(line, query + "response from proxy manager service, index:", rest) ||
                 read_behind(line, query + "get proxy url from cache, index:", rest))
            take_offer(rest.substr(rest.find(':') + 1)); // behind the index and its name
        else if (read_of_post(line, ": curl_rc:", rest))
            route_.failures.push_back(
                {proxy_, static_cast<int>(strtol(rest.c_str(), nullptr, 10)), line.time - last_, false});
        else if (read_of_post(line, " connect with http proxy:", rest))
            proxy_ = rest;
        else if (begins(line, "Direct connect without http proxy") ||
                 begins(line, "setProxyParams Direct connect without http proxy"))
            proxy_ = "DIRECT";
        else if (read_of_post(line, ": Failed to preform post", rest) && !route_.failures.empty())
            route_.failures.back().final = true;
        else if (begins(line, "atls_easy_perform: ATLS received a ["))
            take_message();
        last_ = line.time;
    }
    const Route &route() const { return route_; }

private:
    void start_anew() // with another connection
    {
        route_.offered.clear();
        proxy_ = NO_PROXY;
    }
    void take_offer(const std::string &entry)
    {
        if (route_.offered.empty())
            proxy_ = entry.rfind("PROXY ", 0) == 0 ? entry.substr(strlen("PROXY ")) : entry;
        route_.offered.push_back(entry);
    }
    void take_message()
    {
        if (route_.carriers.empty() || route_.carriers.back().first != proxy_)
            route_.carriers.emplace_back(proxy_, 0);
        route_.carriers.back().second++;
    }

    static constexpr const char *NO_PROXY = "no proxy";

    Route route_;
    std::string proxy_ = NO_PROXY; // the one in use
    Clock::time_point last_;
};

const char *why_no_proxy(const Lines &log)
{
    static constexpr std::array<std::pair<const char *, const char *>, 3> REASONS = {{
        {"setProxyParams: create_proxy_manager_client fail!", "none: the proxy manager cannot be reached"},
        {"setProxyParams Exit since http proxy mode is off",
         "none: the proxy mode is off, or there was no answer"},
        {"setProxyParams Fail to found any available proxy url", "none: the proxy manager knows of none"},
    }};
    for (const LogReader::Line &line : log)
        for (const auto &[text, reason] : REASONS)
            if (begins(line, text))
                return reason;
    return "not asked for";
}

// The variables that libcurl heeds whatever the library has chosen.
std::string environment()
{
    std::string names;
    for (const char *name : {"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY", "no_proxy", "NO_PROXY"})
        if (const char *value = getenv(name); value && *value)
            names += (names.empty() ? "" : ", ") + std::string(name);
    return names;
}

std::string cookie_names(const curl_slist *headers)
{
    std::string names;
    for (; headers; headers = headers->next) {
        if (strncmp(headers->data, "Cookie: ", strlen("Cookie: ")) != 0)
            continue;
        bool in_name = true;
        for (const char *c = headers->data + strlen("Cookie: "); *c; c++) {
            in_name = *c == ';' || (in_name && *c != '=');
            if (in_name)
                names += *c == ';' ? ',' : *c;
        }
    }
    return names;
}

std::ostream &label(std::ostream &out, const char *name)
{
    return out << "  " << std::left << std::setw(16) << name;
}

std::ostream &operator<<(std::ostream &out, Clock::duration time)
{
    return out << std::fixed << std::setprecision(3) << std::chrono::duration<double>(time).count() << " s";
}

size_t size_info(void *curl, CURLINFO info)
{
    curl_off_t size = 0;
    curl_easy_getinfo(curl, info, &size);
    return static_cast<size_t>(size);
}

} // namespace

// ---- The log

LogReader::LogReader(std::string mark, bool show) : mark_(std::move(mark)), show_(show)
{
    int ends[2];
    standard_error_ = Descriptor(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    if (!standard_error_ || pipe2(ends, O_CLOEXEC) != 0)
        throw std::runtime_error("no descriptor for --explain");
    reading_ = Descriptor(ends[0]);
    Descriptor writing(ends[1]);
    thread_ = std::thread([this] { read_all(); });
    dup2(writing.get(), STDERR_FILENO);
}

const Lines &LogReader::finish()
{
    if (thread_.joinable()) {
        dup2(standard_error_.get(), STDERR_FILENO); // closes the last writing end
        thread_.join();
    }
    return lines_;
}

void LogReader::read_all()
{
    std::string text;
    char part[4096];
    for (ssize_t count; (count = read(reading_.get(), part, sizeof part)) > 0;) {
        text.append(part, static_cast<size_t>(count));
        for (size_t end; (end = text.find('\n')) != std::string::npos; text.erase(0, end + 1))
            take(text.substr(0, end + 1));
    }
    take(text);
}

void LogReader::take(const std::string &line)
{
    const bool of_log = line.rfind(mark_, 0) == 0;
    if (of_log)
        lines_.push_back({Clock::now(), on_one_line(line.substr(mark_.size()))});
    // A terminal that is gone is no reason to stop.
    if ((!of_log || show_) && write(standard_error_.get(), line.data(), line.size()) < 0)
        return;
}

// ---- The explanation

void Explanation::connected(const atls_handle &handle)
{
    if (connections_++ == 0)
        connected_ = Clock::now();
    if (handle.ssl)
        session_ = SSL_get_version(handle.ssl) + std::string(", ") + SSL_get_cipher_name(handle.ssl);
}

void Explanation::exchanged(const atls_handle &handle, const atls_resp &answer, size_t message_length)
{
    messages_++;
    sent_ += message_length;
    posted_ += size_info(handle.curl, CURLINFO_SIZE_UPLOAD_T);
    answered_ += answer.body_len;
    received_ += answer.header_len + size_info(handle.curl, CURLINFO_SIZE_DOWNLOAD_T);
    status_ = answer.status_code;
    tracking_id_ = on_one_line(answer.tracking_id ? answer.tracking_id : "");
    cookies_ = on_one_line(cookie_names(handle.header_opts));
    const char *address = nullptr;
    long port = 0;
    curl_easy_getinfo(handle.curl, CURLINFO_PRIMARY_IP, &address);
    curl_easy_getinfo(handle.curl, CURLINFO_PRIMARY_PORT, &port);
    peer_ = (address ? address : "") + std::string(" port ") + std::to_string(port);
}

void Explanation::write(std::ostream &out, const Lines &log, Clock::time_point end) const
{
    out << "atls-post: " << url_ << '\n';
    write_route(out, log);
    if (!session_.empty())
        label(out, "inner session") << session_ << '\n';
    if (connections_ > 1)
        label(out, "connected anew") << connections_ - 1 << (connections_ == 2 ? " time" : " times")
                                     << ", after failures, unencrypted answers or closed sessions\n";
    if (messages_ > 0)
        write_answer(out);
    write_times(out, log, end);
    out.flush();
}

void Explanation::write_route(std::ostream &out, const Lines &log) const
{
    Follower follower;
    for (const LogReader::Line &line : log)
        follower.take(line);
    const Route &route = follower.route();
    label(out, "proxies offered");
    for (const std::string &entry : route.offered)
        out << (&entry == &route.offered.front() ? "" : "; ") << entry;
    out << (route.offered.empty() ? why_no_proxy(log) : "") << '\n';
    for (const auto &[proxy, code, time, final] : route.failures)
        label(out, final ? "failed at" : "passed over")
            << proxy << ": " << curl_easy_strerror(static_cast<CURLcode>(code)) << " (libcurl's result "
            << code << "), after " << time << '\n';
    label(out, "carried by") << (route.carriers.empty() ? "nothing" : "");
    for (const auto &carrier : route.carriers) {
        out << (&carrier == &route.carriers.front() ? "" : ", then ") << carrier.first;
        if (route.carriers.size() > 1)
            out << " (" << carrier.second << " messages)";
    }
    out << (peer_.empty() ? "" : ", connected to " + peer_) << '\n';
    if (const std::string names = environment(); !names.empty())
        label(out, "environment") << names << ", which libcurl heeds as well: see the address\n";
}

void Explanation::write_answer(std::ostream &out) const
{
    label(out, "status") << status_ << '\n';
    label(out, "cookies kept") << (cookies_.empty() ? "none" : cookies_) << '\n';
    label(out, "tracking id") << (tracking_id_.empty() ? "none" : tracking_id_) << '\n';
    label(out, "sent") << sent_ << " bytes in " << messages_
                       << (messages_ == 1 ? " message, " : " messages, ") << posted_ << " as TLS records\n";
    label(out, "received") << answered_ << " bytes, " << received_ << " as response headers and records\n";
}

void Explanation::write_times(std::ostream &out, const Lines &log, Clock::time_point end) const
{
    Clock::time_point chosen = start_;
    const auto set_up = std::find_if(log.begin(), log.end(), [](const LogReader::Line &line) {
        return begins(line, "init_tl_curl: Transport layer initialized!");
    });
    if (set_up != log.end())
        chosen = std::min(set_up->time, connected_); // lines are read a little later
    label(out, "time") << "proxy selection " << chosen - start_ << ", handshake " << connected_ - chosen
                       << ", messages " << end - connected_ << '\n';
}
