// A connection of the library's to a service on loopback, and its last answer.
#ifndef TESTS_CLIENT_H
#define TESTS_CLIENT_H

#include "atls.h"

#include <string>

namespace test
{

struct Client {
    ~Client() { cleanup_atls_resp(&answer), free_atls_handle(handle); }
    int connect(int port, const char *track = nullptr)
    {
        return atls_connect(&handle, "127.0.0.1", nullptr, port, "/atls", track);
    }
    int exchange(const std::string &message)
    {
        return atls_easy_perform(handle, message.data(), static_cast<int>(message.size()), "/atls", &answer);
    }
    std::string body() const { return {answer.body, answer.body_len}; }

    atls_handle *handle = create_atls_handle();
    atls_resp answer = {};
};

} // namespace test

#endif
