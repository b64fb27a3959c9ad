// A device with a throwaway identity, a reference service that runs in the test program, and peers between
// them.
#ifndef TESTS_LINK_H
#define TESTS_LINK_H

#include "atls_internals.h"
#include "atls_service.h"
#include "client.h"
#include "interpose.h"
#include "program.h"

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>

#include <gtest/gtest.h>

namespace test
{

inline std::string pattern(size_t length)
{
    std::string text;
    while (text.size() < length)
        text += "abcdefghijklmnopqrstuvwxyz";
    return text.substr(0, length);
}

// A handle, and a copy of the identity that the platform layer reads while the object lives.
struct Device : Client {
    Device()
    {
        std::filesystem::copy(identity("device"), folder.root);
        setenv("ATLS_PLATFORM_DIR", folder.root.c_str(), 1);
        interpose::reset();
    }
    Folder folder;
};

// A device and the service that it talks to.
struct Link : Device {
    explicit Link(int max_tls = TLS1_3_VERSION) // highest version of the inner TLS
    {
        options.inner.max_version = max_tls;
        options.on_reply = [this](const std::string &request, atls_service::Reply &out) {
            posted.push_back(request.size());
            if (tamper)
                tamper(out);
        };
        options.answer = [this](const std::string &message) { return reply ? pattern(reply) : message; };
    }
    ~Link() { atls_handle_cleanup(&handle); } // the service ends when its connections have
    void start() { service = std::make_unique<atls_service::AtlsService>(options); }
    int connect() { return Client::connect(service->port(), "track"); }

    atls_service::Options options = atls_service::options_of(identity(""));
    std::function<void(atls_service::Reply &)> tamper; // changes what the service sends back
    size_t reply = 0;                                  // length of its answers; 0: it echoes
    std::vector<size_t> posted;                        // lengths of the bodies that it received
    std::unique_ptr<atls_service::AtlsService> service;
};

} // namespace test

#endif
