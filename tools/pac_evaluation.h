// One question to a PAC script, evaluated in a child process: a script that never ends, or that makes the
// script engine fail, can be ended without harm to the service, and the engine's global state is never
// shared.
#ifndef TOOLS_PAC_EVALUATION_H
#define TOOLS_PAC_EVALUATION_H

#include <string>
#include <vector>

#include <sys/types.h>

#include "descriptor.h"

namespace proxy_manager_service
{

class PacEvaluation
{
public:
    // Starts to fetch the script from its URL or path, and to ask it for the URL's proxies. A child that
    // cannot be started is a failure that answer() reports.
    PacEvaluation(const std::string &script, const std::string &url);
    // Ends the child, wherever it is.
    ~PacEvaluation();
    PacEvaluation(const PacEvaluation &) = delete;
    PacEvaluation &operator=(const PacEvaluation &) = delete;

    // Readable when receive() has something to do.
    int descriptor() const { return output_.get(); }
    // Takes what has arrived; true when the child has ended.
    bool receive();
    // The script's answer. Throws std::runtime_error with the reason when it failed.
    std::string answer() const;

private:
    Descriptor output_;
    pid_t child_ = -1;
    std::string received_;
};

// Divides a PAC answer into entries of the forms "PROXY HOST:PORT" and "DIRECT". Others, such as SOCKS
// proxies, are not usable for clients and are added to dropped.
std::vector<std::string> pac_entries(const std::string &answer, std::string &dropped);

} // namespace proxy_manager_service

#endif
