// A throwaway identity of device and service, made once per test program in a folder that goes with it.
#ifndef TESTS_IDENTITY_H
#define TESTS_IDENTITY_H

#include <filesystem>
#include <string>

#include "atls_internals.h"
#include "atls_service.h"

namespace test
{

// A temporary folder.
class Folder
{
public:
    Folder();
    Folder(const Folder &) = delete;
    Folder &operator=(const Folder &) = delete;
    ~Folder();
    std::string path(const std::string &name) const { return (root_ / name).string(); }

private:
    std::filesystem::path root_;
};

std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &bytes);

// Runs a shell command; throws when it fails.
void run(const std::string &command);

// The folder that scripts/make-identity filled.
const Folder &identity();

// A device: a handle, and a copy of the identity that the platform layer reads while the object lives.
struct Device {
    Device();
    Device(const Device &) = delete;
    Device &operator=(const Device &) = delete;
    ~Device();

    Folder folder;
    atls_handle *handle = create_atls_handle();
};

// Options of a service that the device trusts.
atls_service::Options service_options();

} // namespace test

#endif
