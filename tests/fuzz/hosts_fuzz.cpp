// What is read from the texts of a proxy configuration: hosts of URLs, and the stand-in's rules.

#include "fuzz.h"

#include "common.h"
#include "proxy_text.h"

#include <cstring>

static void read_host(const std::string &url)
{
    char *host = getHost(url);
    const size_t scheme = url.find("://"), start = scheme == std::string::npos ? 0 : scheme + 3;
    REQUIRE(host ? url.compare(start, strlen(host), host) == 0 && (start == 0 || !strchr(host, ':'))
                 : start == url.size() || url[start] == ':');
    free(host);
}

static void read_text(const std::string &text)
{
    const proxy_text::Url url = proxy_text::split_url(text);
    REQUIRE(url.without_user.size() <= text.size() && url.host.size() + url.port.size() <= text.size());
    REQUIRE(!proxy_text::is_url(text) || (!url.scheme.empty() && !url.host.empty()));
    REQUIRE(!proxy_text::is_host_port(text) || text[0] == '[' || proxy_text::is_url("x://" + text));
    REQUIRE(!proxy_text::is_pac_url(text) || proxy_text::is_clean(text));
    REQUIRE(proxy_text::on_one_line(text).find_first_of("\t\r\x1b\x7f") == std::string::npos);
}

// u URL has a host; any other line is some text.
void run(std::istream &input)
{
    for (std::string line; std::getline(input, line);)
        line[0] == 'u' ? read_host(line.substr(1)) : read_text(line);
}
