// The URL of the command line.

#include <algorithm>

#include <strings.h>

#include "cli.h"
#include "proxy_text.h"
#include "settings.h"

namespace
{

constexpr size_t SCHEME_LENGTH = 8;

// What may be shown of a text that could not be taken apart: nothing in front of its last "@", which may be a password.
std::string shown(const std::string &url)
{
    const size_t at = url.rfind('@');
    return proxy_text::on_one_line(at == std::string::npos ? url : "..." + url.substr(at));
}

int parse_port(const std::string &text, const std::string &url)
{
    const bool is_number =
        !text.empty() && text.size() <= 5 && text.find_first_not_of("0123456789") == std::string::npos;
    const int port = is_number ? std::stoi(text) : 0;
    if (port < 1 || port > 65535)
        throw cli::UsageError("not a port number (1 to 65535) in the URL: " + shown(url));
    return port;
}

} // namespace

bool has_control_character(const std::string &text)
{
    return std::any_of(text.begin(), text.end(),
                       [](char c) { return static_cast<unsigned char>(c) <= ' ' || c == '\x7f'; });
}

Address parse_url(const std::string &url)
{
    if (strncasecmp(url.c_str(), "https://", SCHEME_LENGTH) != 0 || has_control_character(url))
        throw cli::UsageError("not an https:// URL: " + shown(url));
    const size_t path_start = std::min(url.find_first_of("/?#", SCHEME_LENGTH), url.size());
    const std::string authority = url.substr(SCHEME_LENGTH, path_start - SCHEME_LENGTH);
    const size_t bracket = authority.find(']');
    const size_t colon = authority.find(':', bracket == std::string::npos ? 0 : bracket);

    Address address;
    address.host = authority.substr(0, colon);
    if (authority.find('@') != std::string::npos)
        throw cli::UsageError(
            "the URL names a user; the device's certificate is what is shown to a service: " + shown(url));
    if (address.host.empty())
        throw cli::UsageError("no usable host in the URL: " + shown(url));
    if (colon != std::string::npos)
        address.port = parse_port(authority.substr(colon + 1), url);
    const std::string path = url.substr(path_start, url.find('#') - path_start);
    address.path = path.empty() || path[0] != '/' ? "/" + path : path;
    return address;
}

std::string connection_url(const Settings &settings)
{
    return "https://" + (settings.ip.empty() ? settings.address.host : settings.ip) + ":" +
           std::to_string(settings.address.port) + settings.address.path;
}
