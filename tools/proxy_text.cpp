// Rules for the texts of a proxy configuration.

#include "proxy_text.h"

#include <algorithm>
#include <charconv>

#include <arpa/inet.h>
#include <dbus/dbus.h>

namespace proxy_text
{

namespace
{

#define LETTERS "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
#define DIGITS "0123456789"

constexpr size_t LONGEST_HOST = 253;

bool starts_with(const std::string &text, const std::string &start)
{
    return text.compare(0, start.size(), start) == 0;
}

bool consists_of(const std::string &text, const char *characters)
{
    return !text.empty() && text.find_first_not_of(characters) == std::string::npos;
}

bool is_control(char character)
{
    return static_cast<unsigned char>(character) < 0x20 || character == 0x7f;
}

bool is_port(const std::string &text)
{
    unsigned port = 0;
    const char *end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, port);
    return parsed.ec == std::errc() && parsed.ptr == end && text.size() <= 5 && port >= 1 && port <= 65535;
}

bool is_ipv6(const std::string &text)
{
    in6_addr address;
    return inet_pton(AF_INET6, text.c_str(), &address) == 1;
}

bool is_host_name(const std::string &text)
{
    return consists_of(text, LETTERS DIGITS "-._") && text.size() <= LONGEST_HOST && text.front() != '-' &&
           text.front() != '.' && text.find("..") == std::string::npos;
}

// Divides "host", "host:port", "[address]" or "[address]:port".
void split_authority(const std::string &authority, Url &url)
{
    const bool bracketed = !authority.empty() && authority.front() == '[';
    const size_t close = bracketed ? authority.find(']') : 0;
    const size_t colon =
        std::min(authority.find(':', close == std::string::npos ? 0 : close), authority.size());
    url.host =
        bracketed && close != std::string::npos ? authority.substr(1, close - 1) : authority.substr(0, colon);
    if (colon < authority.size())
        url.port = authority.substr(colon + 1);
}

} // namespace

Url split_url(const std::string &text)
{
    Url url;
    const size_t scheme_end = text.find("://");
    const size_t start = scheme_end == std::string::npos ? 0 : scheme_end + 3;
    if (scheme_end != std::string::npos)
        url.scheme = text.substr(0, scheme_end);
    const size_t end = std::min(text.find_first_of("/?#", start), text.size());
    std::string authority = text.substr(start, end - start);
    const size_t at = authority.rfind('@');
    if (at != std::string::npos) {
        url.user = authority.substr(0, at);
        authority.erase(0, at + 1);
    }
    url.without_user = text.substr(0, start) + authority + text.substr(end);
    split_authority(authority, url);
    return url;
}

bool is_clean(const std::string &text)
{
    return std::none_of(text.begin(), text.end(), is_control) && dbus_validate_utf8(text.c_str(), nullptr);
}

bool is_host_port(const std::string &text)
{
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos || !is_port(text.substr(colon + 1)))
        return false;
    const std::string host = text.substr(0, colon);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']')
        return is_ipv6(host.substr(1, host.size() - 2));
    return is_host_name(host);
}

bool is_url(const std::string &text)
{
    const Url url = split_url(text);
    return is_clean(text) && text.find(' ') == std::string::npos &&
           consists_of(url.scheme, LETTERS DIGITS "+-.") && !url.host.empty() &&
           url.host.find_first_of("[]") == std::string::npos && (url.port.empty() || is_port(url.port));
}

bool is_pac_url(const std::string &text)
{
    const Url url = split_url(text);
    if (starts_with(text, "/") || starts_with(text, "file:///"))
        return is_clean(text);
    return is_url(text) && (url.scheme == "http" || url.scheme == "https") && url.user.empty();
}

std::string on_one_line(std::string text)
{
    std::replace_if(text.begin(), text.end(), is_control, ' ');
    return text.substr(0, text.find_last_not_of(' ') + 1);
}

} // namespace proxy_text
