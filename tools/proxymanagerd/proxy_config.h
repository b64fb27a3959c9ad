// The configuration that the stand-in proxy manager holds: its rules, and the file in which it survives a
// restart.
#ifndef TOOLS_PROXY_CONFIG_H
#define TOOLS_PROXY_CONFIG_H

#include <optional>
#include <stdexcept>
#include <string>

namespace proxy_manager_service
{

// An absent text is empty.
struct Config {
    std::string mode = "off"; // off, manual, pacurl or wpad
    std::string proxy;        // HOST:PORT, required for the mode manual
    std::string pac_url;      // required for the mode pacurl
    bool option_flag = false; // carried for the clients; nothing depends on it
    std::string user;
    std::string password;
};

// What "updateProxyconfig" answers. Every value but ACCEPTED means that nothing has changed.
enum Result {
    ACCEPTED = 0,
    BAD_MODE = 1,        // not one of the four modes
    BAD_PROXY = 2,       // not HOST:PORT, or none in the mode manual
    BAD_PAC_URL = 3,     // not a usable URL or path of a PAC script, or none in the mode pacurl
    BAD_CREDENTIALS = 4, // user name or password longer than 1,023 bytes, or with control characters
    NOT_STORED = 5       // the state file could not be written
};

const char *meaning(Result result);

// Checks every text, also one that the mode does not use, and writes the mode in lower case.
Result check(Config &config);

// A state file that cannot be used. The text names the file and never shows what it holds.
class StateError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// Nothing when there is no such file. Throws StateError for anything but a regular, complete and valid file,
// which it leaves as it is; a symbolic link is not followed.
std::optional<Config> load_state(const std::string &path);

// Replaces the file in one step; it is readable for its owner only, for it holds a password. Throws
// StateError and leaves the old file when the new one cannot be written.
void store_state(const std::string &path, const Config &config);

} // namespace proxy_manager_service

#endif
