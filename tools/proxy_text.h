// Rules for the texts of a proxy configuration, shared by the stand-in proxy manager and its command-line
// client.
#ifndef TOOLS_PROXY_TEXT_H
#define TOOLS_PROXY_TEXT_H

#include <string>

namespace proxy_text
{

// What a proxy manager needs of a URL; any part may be empty.
struct Url {
    std::string scheme;
    std::string user; // with the password, if there is one
    std::string host; // an IPv6 address without its brackets
    std::string port;
    std::string without_user; // the whole URL without user name and password
};

// Takes a URL apart. A text without "://" has no scheme and begins with the host.
Url split_url(const std::string &text);

// True for UTF-8 without control characters.
bool is_clean(const std::string &text);

// True for HOST:PORT with a host name, an IPv4 address or an IPv6 address in brackets, and a port from 1 to
// 65535.
bool is_host_port(const std::string &text);

// True for SCHEME://HOST[:PORT][/...] without blanks.
bool is_url(const std::string &text);

// True for what names a PAC script: an http or https URL without user information, file:///PATH or /PATH.
bool is_pac_url(const std::string &text);

// The text on one line: control characters, with which it could steer a terminal or forge log lines, become blanks.
std::string on_one_line(std::string text);

} // namespace proxy_text

#endif
