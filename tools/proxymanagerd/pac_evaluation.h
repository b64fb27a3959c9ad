// One question to a PAC script. A program of its own evaluates it, so that neither a script that never ends, nor one that
// takes all memory or breaks the script engine, does harm to the service, or sees what the service knows.
#ifndef TOOLS_PAC_EVALUATION_H
#define TOOLS_PAC_EVALUATION_H

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "objects.h"

namespace proxy_manager_service
{

class PacEvaluation
{
public:
    // Gets the script's answer, or why there is none.
    using Done = std::function<void(const std::string &answer, const std::string &failure)>;

    // Starts to fetch the script from its URL or path and to ask it for the URL's proxies. The main loop calls done once,
    // after the limit at the latest; it may delete this object.
    PacEvaluation(const std::string &script, const std::string &url, std::chrono::milliseconds limit,
                  Done done);
    // Ends the program, wherever it is; done is not called any more.
    ~PacEvaluation();
    PacEvaluation(const PacEvaluation &) = delete;
    PacEvaluation &operator=(const PacEvaluation &) = delete;

private:
    bool receive(int pipe);
    void finish();

    Done done_;
    std::string received_;
    std::string failure_ = "no answer in time";
    Object<GSubprocess> process_;
    unsigned reader_ = 0; // sources of the main loop
    unsigned timer_ = 0;
};

// Divides a PAC answer into entries: "PROXY HOST:PORT", "DIRECT", and those of other kinds as the script has them. What is
// none is added to dropped.
std::vector<std::string> pac_entries(const std::string &answer, std::string &dropped);

} // namespace proxy_manager_service

#endif
