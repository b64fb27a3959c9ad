// Messages over one connection, and over a new one where the session cannot go on.

#include "posting.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <iostream>
#include <iterator>
#include <new>

#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <unistd.h>

#include "cli.h"
#include "identity.h"

namespace
{

constexpr curl_off_t FULL_RECORD = 16384;

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

} // namespace

const char *const SHORT_RECORDS =
    "the service wrote it in several short TLS records; let it write the whole at once, "
    "in full records (atls-post(1), SERVICES)";

Handle make_handle()
{
    Handle handle(create_atls_handle(), free_atls_handle);
    if (!handle)
        throw std::bad_alloc();
    return handle;
}

std::string read_message(const Settings &settings)
{
    std::string message = settings.message;
    if (!settings.has_message) {
        if (isatty(STDIN_FILENO))
            std::cerr << "atls-post: type the message; Ctrl-D ends it" << std::endl;
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

int connect_handle(atls_handle *handle, const Settings &settings)
{
    const bool by_ip = !settings.ip.empty();
    const Address &address = settings.address;
    return atls_connect(&handle, by_ip ? nullptr : address.host.c_str(),
                        by_ip ? settings.ip.c_str() : nullptr, address.port, address.path.c_str(),
                        settings.tracking_id.empty() ? nullptr : settings.tracking_id.c_str());
}

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

bool is_encrypted(const atls_resp &answer)
{
    return strstr(answer.header, "Content-Type: application/octet-stream") != nullptr;
}

// An engine that has read all and wants more has seen full records only: nobody can tell that they were the end.
std::string why_bad_response(const atls_handle &handle, const Observer &observer)
{
    if (observer.engine().alert >= 0)
        return "the service refuses, TLS alert \"" + observer.engine().alert_text() +
               "\": under TLS 1.3 that is how it refuses the device's certificate";
    if (observer.responses().empty() || observer.responses().back().header("Content-Type").empty())
        return "";
    if (rest_behind_answer(handle.ssl) != Rest::NOTHING)
        return "the answer does not belong to this session: another service has answered, or it was altered "
               "on the way";
    curl_off_t received = 0;
    curl_easy_getinfo(handle.curl, CURLINFO_SIZE_DOWNLOAD_T, &received);
    return received < FULL_RECORD
               ? ""
               : "an answer of an exact multiple of 16384 bytes has no end that a device could "
                 "see; let the service write a byte more";
}

// ---- Where answers go

Output::Output(const std::string &name)
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

Output::~Output()
{
    if (file_ != stdout)
        fclose(file_);
    abandon();
}

void Output::abandon()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!created_.empty())
        unlink(created_.c_str());
}

bool Output::write(const atls_resp &answer, bool with_header)
{
    if (truncate_ && ftruncate(fileno(file_), 0) != 0 && errno != EINVAL) // a pipe or device has no length
        return false;
    truncate_ = false;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        created_.clear();
    }
    if (with_header)
        fwrite(answer.header, 1, answer.header_len, file_);
    fwrite(answer.body, 1, answer.body_len, file_);
    const bool on_terminal = isatty(fileno(file_)) && answer.body[answer.body_len - 1] != '\n';
    if (on_terminal)
        fputc('\n', file_);
    return fflush(file_) == 0 && !ferror(file_);
}

// ---- Messages

int Posting::report_failure(const char *doing, int result) const
{
    const std::string reason = explanation_.reason();
    explanation_.failed(reason);
    std::cerr << "atls-post: " << doing << ' ' << connection_url(settings_) << ": " << meaning(result)
              << " (result " << result << ')';
    if (!reason.empty())
        std::cerr << ": " << reason;
    if (result == ATLS_SETUP_FAILED)
        std::cerr << "; identity: " << identity_place();
    if (reason.empty() && settings_.log_level < 0)
        std::cerr << "; --log error shows why";
    std::cerr << std::endl;
    return result;
}

int Posting::write_answer(const atls_resp &answer)
{
    if (!output_.write(answer, settings_.with_header)) {
        std::cerr << "atls-post: answer not written: " << strerror(errno) << std::endl;
        return EXIT_OUTPUT;
    }
    if (answer.status_code != 200)
        std::cerr << "atls-post: the service answered with HTTP status " << answer.status_code << std::endl;
    return ATLS_OK;
}

// Says why an answer is not to be written; ATLS_OK if it is.
int Posting::refuse(const atls_resp &answer, bool encrypted, Rest rest) const
{
    constexpr long FIRST_ERROR_STATUS = 400;
    const std::string status = std::to_string(answer.status_code);
    const auto say = [this](const std::string &why, int result) {
        explanation_.failed(why);
        std::cerr << "atls-post: " << why << std::endl;
        return result;
    };
    if (settings_.fail && answer.status_code >= FIRST_ERROR_STATUS)
        return say("the service answered with HTTP status " + status + "; the answer is not written",
                   EXIT_HTTP);
    if (settings_.require_protected && !encrypted)
        return say("the answer, with HTTP status " + status + ", was not encrypted and is not written",
                   EXIT_UNPROTECTED);
    if (rest != Rest::DATA && rest != Rest::GARBAGE)
        return ATLS_OK;
    return say("more waits behind the " + std::to_string(answer.body_len) + " bytes that end the answer: " +
                   (rest == Rest::DATA ? SHORT_RECORDS : "no whole TLS record"),
               ATLS_BAD_RESPONSE);
}

// Judges a response and writes its answer. open tells whether the next message may go over the same session.
int Posting::take_answer(const atls_resp &answer, bool &open)
{
    const bool encrypted = is_encrypted(answer);
    const Rest rest = encrypted ? rest_behind_answer(handle_->ssl) : Rest::NOTHING;
    open = encrypted && rest == Rest::NOTHING;
    if (const int refused = refuse(answer, encrypted, rest))
        return refused;
    const int status = write_answer(answer);
    if (!encrypted)
        std::cerr << "atls-post: the answer was not encrypted: it is not protected by the session"
                  << std::endl;
    return status;
}

// Leaves the handle connected only if the next message may go over the same session: a message without an answer of
// its own may be answered late, in the place of the next.
int Posting::exchange(const std::string &message)
{
    atls_resp answer = {};
    bool open = false;
    explanation_.set_reason(""); // of a proxy that was passed over, perhaps
    int status = atls_easy_perform(handle_, message.data(), static_cast<int>(message.size()),
                                   settings_.address.path.c_str(), &answer);
    observer_.clear_progress();
    if (status != ATLS_OK) {
        if (status == ATLS_BAD_RESPONSE && explanation_.reason().empty())
            explanation_.set_reason(why_bad_response(*handle_, observer_));
        report_failure("posting to", status);
    } else {
        explanation_.exchanged(answer, message.size());
        status = take_answer(answer, open);
    }
    cleanup_atls_resp(&answer);
    if (!open)
        atls_handle_cleanup(&handle_);
    return status;
}

int Posting::connect()
{
    const int status = connect_handle(handle_, settings_);
    observer_.clear_progress();
    explanation_.connected();
    return status == ATLS_OK ? status : report_failure("connecting to", status);
}

int Posting::post(const std::string &message)
{
    int status = ATLS_OK;
    for (int i = 0; i < settings_.count; i++) {
        const int connected = handle_->ssl ? ATLS_OK : connect();
        const int result = connected == ATLS_OK ? exchange(message) : connected;
        status = status == ATLS_OK ? result : status;
        if (connected != ATLS_OK || result == EXIT_OUTPUT)
            break; // the next message would fare no better
    }
    return status;
}
