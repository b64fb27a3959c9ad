// Messages and their answers: where they come from, where they go, and what is said of them.
#ifndef TOOLS_ATLS_POST_POSTING_H
#define TOOLS_ATLS_POST_POSTING_H

#include <cstdio>
#include <memory>
#include <mutex>
#include <string>

#include "atls.h"
#include "explanation.h"
#include "observer.h"
#include "settings.h"

using Handle = std::unique_ptr<atls_handle, decltype(&free_atls_handle)>;

Handle make_handle(); // throws std::bad_alloc

// The message of the command line, a file or the standard input; throws cli::UsageError.
std::string read_message(const Settings &settings);

// Connects to what the settings name.
int connect_handle(atls_handle *handle, const Settings &settings);

// What the engine still holds once an answer has been read from it.
enum class Rest {
    NOTHING, // but perhaps session tickets or new keys, which are no data
    END,     // the service has closed the session, or wants it negotiated anew
    DATA,    // more of an answer
    GARBAGE  // no whole record
};
Rest rest_behind_answer(SSL *ssl);

// The library decrypts a body only when the header says so, and anybody on the way may say otherwise.
bool is_encrypted(const atls_resp &answer);

// Why an exchange ended with ATLS_BAD_RESPONSE; empty when that is not known.
std::string why_bad_response(const atls_handle &handle, const Observer &observer);

extern const char *const SHORT_RECORDS;

// Where answers go. An existing file is only emptied when the first answer is there.
class Output
{
public:
    explicit Output(const std::string &name);
    Output(const Output &) = delete;
    Output &operator=(const Output &) = delete;
    ~Output();

    bool write(const atls_resp &answer, bool with_header);
    // On any thread: removes a file that is new and holds no answer.
    void abandon();

private:
    FILE *file_ = stdout;
    bool truncate_ = false;
    std::mutex mutex_;    // of created_
    std::string created_; // the file's name, as long as it is new and holds no answer
};

// The messages of one run.
class Posting
{
public:
    Posting(const Settings &settings, Output &output, atls_handle *handle, Observer &observer,
            Explanation &explanation)
        : settings_(settings), output_(output), handle_(handle), observer_(observer),
          explanation_(explanation)
    {
    }

    // Returns the status of the first message that failed.
    int post(const std::string &message);

private:
    int connect();
    int exchange(const std::string &message);
    int take_answer(const atls_resp &answer, bool &open);
    int refuse(const atls_resp &answer, bool encrypted, Rest rest) const;
    int write_answer(const atls_resp &answer);
    int report_failure(const char *doing, int result) const;

    const Settings &settings_;
    Output &output_;
    atls_handle *handle_;
    Observer &observer_;
    Explanation &explanation_;
};

#endif
