// What the command line of atls-post asks for, and how the program ends.
#ifndef TOOLS_ATLS_POST_SETTINGS_H
#define TOOLS_ATLS_POST_SETTINGS_H

#include <string>

constexpr const char *NAME = "atls-post";

// Beside the library's results (1 to 7), those of cli.h, and those of the steps of --check (10 to 20).
constexpr int EXIT_HTTP = 22; // as other clients of HTTP have it
constexpr int EXIT_TIME = 28; // likewise
constexpr int EXIT_OUTPUT = 74;
constexpr int EXIT_UNPROTECTED = 76;

struct Address {
    std::string host; // an IPv6 address keeps its brackets
    int port = 443;
    std::string path = "/";
};

struct Settings {
    std::string url;
    Address address; // of the URL
    std::string message;
    bool has_message = false;
    std::string output;
    std::string tracking_id;
    std::string ip;
    std::string explain; // "", "text" or "json"
    int count = 1;
    int log_level = -1;
    int warn_days = 30;
    double max_seconds = 0; // none
    bool with_header = false;
    bool trace = false;
    bool require_protected = false;
    bool fail = false;
    bool check = false;
    bool json = false;
};

// Takes the URL apart; throws cli::UsageError.
Address parse_url(const std::string &url);

// The URL that the connection is set up with, which is the one that the proxies are asked for.
std::string connection_url(const Settings &settings);

bool has_control_character(const std::string &text);

#endif
