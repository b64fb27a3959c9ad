// The rules and the state file of the stand-in proxy manager's configuration.

#include "proxy_config.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>

#include "descriptor.h"
#include "modewords.h"
#include "proxy_text.h"

namespace proxy_manager_service
{

namespace
{

constexpr size_t LONGEST_URL = 4095;
constexpr size_t LONGEST_CREDENTIAL = 1023;
constexpr size_t LARGEST_STATE = size_t{64} * 1024;

StateError file_error(const std::string &what, const std::string &path)
{
    return StateError("cannot " + what + " the state file " + path + ": " + strerror(errno));
}

StateError damaged(const std::string &path, const std::string &why)
{
    return StateError("the state file " + path + " is damaged (" + why + "); repair or remove it");
}

bool is_credential(const std::string &text)
{
    return text.size() <= LONGEST_CREDENTIAL && proxy_text::is_clean(text);
}

// One byte more than allowed is read, so that a larger file is seen.
std::string read_state(int file, const std::string &path)
{
    std::string text(LARGEST_STATE + 1, '\0');
    size_t length = 0;
    ssize_t got;
    while ((got = read(file, &text[length], text.size() - length)) > 0)
        length += static_cast<size_t>(got);
    if (got < 0)
        throw file_error("read", path);
    text.resize(length);
    return text;
}

Config parse_state(const std::string &text, const std::string &path)
{
    Config config;
    try { // the parser's own texts quote the file, so they are not passed on
        const auto state = nlohmann::json::parse(text);
        state.at("mode").get_to(config.mode);
        state.at("proxyUrl").get_to(config.proxy);
        state.at("pacUrl").get_to(config.pac_url);
        state.at("optionFlag").get_to(config.option_flag);
        state.at("userName").get_to(config.user);
        state.at("password").get_to(config.password);
    } catch (const nlohmann::json::parse_error &error) {
        throw damaged(path, "no JSON from byte " + std::to_string(error.byte) + " on");
    } catch (const nlohmann::json::exception &) {
        throw damaged(path, "a field is missing or of the wrong type");
    }
    const Result result = check(config);
    if (result != ACCEPTED)
        throw damaged(path, meaning(result));
    return config;
}

std::string state_text(const Config &config)
{
    const nlohmann::ordered_json state{{"mode", config.mode},      {"proxyUrl", config.proxy},
                                       {"pacUrl", config.pac_url}, {"optionFlag", config.option_flag},
                                       {"userName", config.user},  {"password", config.password}};
    return state.dump(2) + '\n';
}

bool write_all(int file, const std::string &text)
{
    for (size_t written = 0; written < text.size();) {
        const ssize_t count = write(file, text.data() + written, text.size() - written);
        if (count < 0 && errno != EINTR)
            return false;
        written += static_cast<size_t>(std::max<ssize_t>(count, 0));
    }
    return true;
}

// The new name is only safe after a power failure once the directory is on the disk, too.
void sync_directory_of(const std::string &path)
{
    const size_t slash = path.rfind('/');
    const std::string name = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const Descriptor directory(open(name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory)
        (void)fsync(directory.get());
}

} // namespace

const char *meaning(Result result)
{
    static const char *const TEXTS[] = {"accepted",
                                        "the mode is not off, manual, pacurl or wpad",
                                        "the proxy is not HOST:PORT",
                                        "the PAC URL is not an http or https URL, file:///PATH or /PATH",
                                        "the user name or password is too long or has control characters",
                                        "the state file cannot be written"};
    const auto index = static_cast<size_t>(result);
    return index < std::size(TEXTS) ? TEXTS[index] : "unknown result";
}

Result check(Config &config)
{
    const auto mode = std::find_if(std::begin(MODE_WORDS), std::end(MODE_WORDS), [&config](const char *word) {
        return config.mode.size() == strlen(word) && strcasecmp(config.mode.c_str(), word) == 0;
    });
    if (mode == std::end(MODE_WORDS))
        return BAD_MODE;
    config.mode = *mode;
    if (config.proxy.empty() ? config.mode == "manual" : !proxy_text::is_host_port(config.proxy))
        return BAD_PROXY;
    if (config.pac_url.empty()
            ? config.mode == "pacurl"
            : config.pac_url.size() > LONGEST_URL || !proxy_text::is_pac_url(config.pac_url))
        return BAD_PAC_URL;
    return is_credential(config.user) && is_credential(config.password) ? ACCEPTED : BAD_CREDENTIALS;
}

std::optional<Config> load_state(const std::string &path)
{
    // O_NONBLOCK: a pipe in the place of the file must not hold up the start.
    const Descriptor file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file && errno == ENOENT)
        return std::nullopt;
    if (!file && errno == ELOOP)
        throw StateError("the state file " + path + " is a symbolic link, which is not followed");
    struct stat status;
    if (!file || fstat(file.get(), &status) != 0)
        throw file_error("open", path);
    if (!S_ISREG(status.st_mode))
        throw StateError("the state file " + path + " is not a regular file");
    const std::string text = read_state(file.get(), path);
    if (text.size() > LARGEST_STATE)
        throw damaged(path, "too large");
    return parse_state(text, path);
}

void store_state(const std::string &path, const Config &config)
{
    const std::string temporary = path + ".new";
    unlink(temporary.c_str()); // left over from a run that was killed
    const Descriptor file(open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!file)
        throw file_error("write", path);
    if (!write_all(file.get(), state_text(config)) || fsync(file.get()) != 0 ||
        rename(temporary.c_str(), path.c_str()) != 0) {
        const int reason = errno;
        unlink(temporary.c_str());
        errno = reason;
        throw file_error("write", path);
    }
    sync_directory_of(path);
}

} // namespace proxy_manager_service
