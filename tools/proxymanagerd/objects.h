// Owners of what GLib counts references of.
#ifndef TOOLS_OBJECTS_H
#define TOOLS_OBJECTS_H

#include <memory>
#include <stdexcept>
#include <string>

#include <gio/gio.h>

namespace proxy_manager_service
{

struct Unref {
    void operator()(void *object) const { g_object_unref(object); }
};
template <typename Type>
using Object = std::unique_ptr<Type, Unref>;

// Collects the reason of a failure of GLib's.
class Error
{
public:
    Error() = default;
    ~Error() { g_clear_error(&error_); }
    Error(const Error &) = delete;
    Error &operator=(const Error &) = delete;
    GError **get() { return &error_; }
    explicit operator bool() const { return error_ != nullptr; }
    std::string text() const { return error_ ? error_->message : "no reason given"; }
    // Throws std::runtime_error when there was one.
    void check(const std::string &what) const
    {
        if (error_)
            throw std::runtime_error(what + ": " + text());
    }

private:
    GError *error_ = nullptr;
};

} // namespace proxy_manager_service

#endif
