// A device connected to a reference service that runs in the test program.
#ifndef TESTS_LINK_H
#define TESTS_LINK_H

#include "identity.h"
#include "interpose.h"

#include <functional>
#include <memory>
#include <mutex>

#include <gtest/gtest.h>

namespace test
{

class Link : public Device
{
public:
    // max_tls is the highest version of the inner TLS, TLS1_2_VERSION or TLS1_3_VERSION.
    explicit Link(int max_tls = TLS1_3_VERSION);
    ~Link();

    void start(); // starts the service with options
    void stop() { service_.reset(); }
    atls_service::AtlsService &service() { return *service_; }
    int connect() { return atls_connect(&handle, "127.0.0.1", nullptr, service_->port(), "/atls", "track"); }
    // Posts a message into answer, which is released first.
    int exchange(const std::string &message);
    std::string body() const { return {answer.body, answer.body_len}; }

    std::string service_log() const;
    std::vector<size_t> posted() const; // lengths of the bodies that the service received

    atls_service::Options options; // the service answers with `reply` bytes when that is set
    std::function<void(atls_service::Reply &)> tamper; // changes what the service sends back
    size_t reply = 0;
    atls_resp answer = {};

private:
    mutable std::mutex mutex_;
    std::string log_;
    std::vector<size_t> posted_;
    std::unique_ptr<atls_service::AtlsService> service_;
};

std::string pattern(size_t length);

// A socket on loopback that is listened on. Nothing accepts: a peer that connects waits for ever.
class Listener
{
public:
    Listener();
    ~Listener();
    Listener(const Listener &) = delete;
    Listener &operator=(const Listener &) = delete;
    int port() const { return port_; }
    int fd() const { return fd_; }
    void close(); // the port is dead from now on

private:
    int fd_;
    int port_;
};

// A program that runs until the object goes; its port answers when the constructor returns.
class Daemon
{
public:
    Daemon(const std::vector<std::string> &command, int port);
    ~Daemon();
    Daemon(const Daemon &) = delete;
    Daemon &operator=(const Daemon &) = delete;

private:
    int pid_;
};

} // namespace test

#endif
