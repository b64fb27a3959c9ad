// Device and service in one process, and the peers between them.

#include "link.h"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace test
{

std::string pattern(size_t length)
{
    std::string text(length, 'a');
    for (size_t i = 0; i < length; i++)
        text[i] = static_cast<char>('a' + i % 26);
    return text;
}

Device::Device()
{
    std::filesystem::copy(identity("device"), folder.root);
    setenv("ATLS_PLATFORM_DIR", folder.root.c_str(), 1);
}

Link::Link(int max_tls)
{
    options = atls_service::options_of(identity(""));
    options.inner.max_version = max_tls;
    options.on_reply = [this](const std::string &request, atls_service::Reply &out) {
        const std::lock_guard<std::mutex> lock(mutex_);
        posted.push_back(request.size());
        if (tamper)
            tamper(out);
    };
    options.answer = [this](const std::string &message) { return reply ? pattern(reply) : message; };
    interpose::reset();
}

} // namespace test
