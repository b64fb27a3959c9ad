// atls-server: the reference ATLS service as a program.

#include "atls_service.h"

#include <atomic>
#include <climits>
#include <csignal>
#include <fstream>
#include <iostream>
#include <map>
#include <mutex>

#include <CLI/CLI.hpp>

#include "cli.h"

namespace
{

struct Settings {
    atls_service::Options service;
    std::string capture;
    int idle_seconds = 300;
};

void add_options(CLI::App &app, Settings &settings)
{
    const std::map<std::string, int> versions{{"1.2", TLS1_2_VERSION}, {"1.3", TLS1_3_VERSION}};
    auto &service = settings.service;
    app.add_option("--host", service.host, "Address to listen on")->capture_default_str();
    app.add_option("--port", service.port, "Port to listen on; 0 takes any free port")
        ->check(CLI::Range(0, 65535))
        ->capture_default_str();
    auto *front = app.add_option("--front-cert", service.front_certificate,
                                 "Certificate of the HTTPS front end (PEM); needed unless --plain is given");
    auto *front_key = app.add_option("--front-key", service.front_key, "Key of the HTTPS front end (PEM)");
    front->needs(front_key);
    front_key->needs(front);
    app.add_flag("--plain", service.plain, "Serve HTTP, behind a front end of another program that ends TLS");
    app.add_option("--cert", service.inner.certificate, "Certificate that devices verify (PEM chain)")
        ->required();
    app.add_option("--key", service.inner.key, "Key of that certificate (PEM)")->required();
    app.add_option("--device-ca", service.inner.device_ca, "CAs of the device certificates (PEM)")
        ->required();
    app.add_option("--min-tls", service.inner.min_version, "Lowest version of the inner TLS: 1.2 or 1.3")
        ->transform(cli::one_of(versions))
        ->default_str("1.2");
    app.add_option("--max-tls", service.inner.max_version, "Highest version of the inner TLS: 1.2 or 1.3")
        ->transform(cli::one_of(versions))
        ->default_str("1.3");
    app.add_option(
           "--max-fragment", service.inner.max_fragment,
           "Write answers in records of at most this many bytes; a device takes the first record below "
           "16384 for the last")
        ->check(CLI::Range(512, 16384))
        ->capture_default_str();
    app.add_flag("--key-updates", service.inner.key_updates,
                 "Change the keys behind each answer, with TLS 1.3");
    app.add_option("--idle", settings.idle_seconds, "Drop a session unused for this many seconds")
        ->check(CLI::Range(1, INT_MAX))
        ->capture_default_str();
    app.add_option("--max-sessions", service.max_sessions, "Drop the oldest session above this number")
        ->check(CLI::Range(1, INT_MAX))
        ->capture_default_str();
    app.add_option("--capture", settings.capture,
                   "Write each body that it receives to request-N and response-N in this directory")
        ->check(CLI::ExistingDirectory);
    app.footer(
        "Example, with the keys of scripts/make-identity DIR:\n"
        "  atls-server --port 8443 --front-cert DIR/service/front-cert.pem --front-key "
        "DIR/service/front-key.pem \\\n"
        "    --cert DIR/service/service-cert.pem --key DIR/service/service-key.pem \\\n"
        "    --device-ca DIR/service/device-ca.pem\n"
        "  atls-server --plain --port 8001 --cert ... --key ... --device-ca ...     # behind a front end\n"
        "Lines about sessions go to the standard error. SIGTERM or SIGINT ends the service.");
}

void write_log_line(const std::string &line)
{
    static std::mutex mutex;
    const std::lock_guard<std::mutex> lock(mutex);
    std::cerr << "atls-server: " << line << std::endl;
}

void write_capture(const std::string &directory, const std::string &body, const atls_service::Reply &reply)
{
    static std::atomic<int> count{0};
    const std::string number = std::to_string(++count);
    std::ofstream(directory + "/request-" + number, std::ios::binary) << body;
    std::ofstream(directory + "/response-" + number, std::ios::binary) << reply.body;
}

int run(Settings settings)
{
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGINT);
    sigaddset(&ends, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &ends, nullptr); // before the service starts its threads

    if (settings.service.inner.min_version > settings.service.inner.max_version)
        throw cli::UsageError("--min-tls is above --max-tls");
    if (!settings.service.plain && settings.service.front_certificate.empty())
        throw cli::UsageError("--front-cert and --front-key, or --plain, are needed");
    settings.service.idle_limit = std::chrono::seconds(settings.idle_seconds);
    settings.service.log = write_log_line;
    if (!settings.capture.empty())
        settings.service.on_reply = [directory = settings.capture](const std::string &body,
                                                                   const atls_service::Reply &reply) {
            write_capture(directory, body, reply);
        };
    const std::string host = settings.service.host;
    const std::string scheme = settings.service.plain ? "http" : "https";
    const atls_service::AtlsService service(std::move(settings.service));
    const bool ipv6 = host.find(':') != std::string::npos;
    write_log_line("listening on " + scheme + "://" + (ipv6 ? "[" + host + "]" : host) + ":" +
                   std::to_string(service.port()));
    int signal = 0;
    sigwait(&ends, &signal);
    write_log_line("ending");
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    return cli::guarded("atls-server", [&] {
        CLI::App app(
            "Reference ATLS service: inner TLS sessions in the bodies of HTTPS POSTs; echoes each message.",
            "atls-server");
        Settings settings;
        add_options(app, settings);
        if (const auto status = cli::parse(app, argc, argv))
            return *status;
        return run(std::move(settings));
    });
}
