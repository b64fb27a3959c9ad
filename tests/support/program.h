// What the tests of both halves use: files in temporary folders, child processes, and ports on loopback.
#ifndef TESTS_PROGRAM_H
#define TESTS_PROGRAM_H

#include "descriptor.h"

#include <csignal>
#include <string>
#include <vector>

namespace test
{

// A temporary folder that every user can enter.
struct Folder {
    Folder();
    ~Folder();
    std::string path(const std::string &name) const { return root + "/" + name; }
    std::string root = "/tmp/atls-test-XXXXXX";
};

std::string read_file(const std::string &path);
std::string write_file(const std::string &path, const std::string &bytes); // returns the path
void run(const std::string &command);          // in the shell; throws when it fails
long count_in(const std::string &folder);      // entries
size_t heap_in_use();                          // bytes of this process
std::string identity(const std::string &name); // a file that scripts/make-identity made for this program

// A child process without descriptors of the test's. It does not survive its object, nor the test program.
class Program
{
public:
    // With a text, it waits until the output holds that.
    explicit Program(std::vector<std::string> command, const std::string &ready = "");
    ~Program() { end(SIGTERM); }

    std::string out() const;                      // and its errors
    bool wait_for(const std::string &text) const; // in the output
    // Sends a signal, if one is given, and waits for the end: the exit status, or minus the signal that ended
    // it.
    int end(int signal = 0);

private:
    Descriptor output_; // a file in memory
    pid_t pid_ = -1;
};

// A listening socket on loopback. Nothing accepts: a peer that connects waits for ever.
struct Listener {
    Listener();
    const Descriptor socket;
    int port;
};

} // namespace test

#endif
