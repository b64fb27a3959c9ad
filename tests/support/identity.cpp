// Throwaway identities and temporary folders.

#include "identity.h"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace test
{

Folder::Folder()
{
    std::string name = std::filesystem::temp_directory_path() / "atls-test-XXXXXX";
    if (!mkdtemp(name.data()))
        throw std::runtime_error("no temporary folder");
    root_ = name;
}

Folder::~Folder()
{
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
}

std::string read_file(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void write_file(const std::string &path, const std::string &bytes)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

void run(const std::string &command)
{
    if (std::system(command.c_str()) != 0) // NOLINT(cert-env33-c): the tests' own commands
        throw std::runtime_error("failed: " + command);
}

const Folder &identity()
{
    static const Folder folder;
    static const bool made = [] {
        run(std::string(MAKE_IDENTITY) + " " + folder.path("") + " >/dev/null");
        return true;
    }();
    (void)made;
    return folder;
}

Device::Device()
{
    std::filesystem::copy(identity().path("device"), folder.path(""));
    setenv("ATLS_PLATFORM_DIR", folder.path("").c_str(), 1);
}

Device::~Device()
{
    free_atls_handle(handle);
    unsetenv("ATLS_PLATFORM_DIR");
}

atls_service::Options service_options()
{
    atls_service::Options options;
    options.front_certificate = identity().path("service/front-cert.pem");
    options.front_key = identity().path("service/front-key.pem");
    options.inner.certificate = identity().path("service/service-cert.pem");
    options.inner.key = identity().path("service/service-key.pem");
    options.inner.device_ca = identity().path("service/device-ca.pem");
    return options;
}

} // namespace test
