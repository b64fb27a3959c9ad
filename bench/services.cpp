// What is measured and soaked talks to this process: services with TLS up to 1.2 and 1.3, and an echo over HTTPS alone.
// Prints their ports and serves until it is killed.
// usage: bench-services FOLDER proxies|""      (made by scripts/make-identity; whether to be the proxy manager, too)

#include "atls_service.h"
#include "bus.h"

#include <iostream>

#include <httplib.h>

static const std::string ORDER = "bytes wanted: "; // and how many; all other messages are echoed

static atls_service::AtlsService start(atls_service::Options options, int max_version)
{
    options.inner.max_version = max_version;
    options.answer = [](const std::string &message) {
        const bool ordered = message.rfind(ORDER, 0) == 0;
        return ordered ? std::string(std::stoul(message.substr(ORDER.size())), 'm') : message;
    };
    return atls_service::AtlsService(options);
}

int main(int, char **arguments)
{
    const auto options = atls_service::options_of(arguments[1]);
    const auto old = start(options, TLS1_2_VERSION), current = start(options, TLS1_3_VERSION);
    httplib::SSLServer echo(options.front_certificate.c_str(), options.front_key.c_str());
    echo.set_tcp_nodelay(true);
    echo.set_keep_alive_max_count(1000000000);
    echo.Post("/echo", [](const httplib::Request &request, httplib::Response &response) {
        response.set_content(request.body, "application/octet-stream");
    });
    const auto proxies = *arguments[2] ? std::make_unique<test::ScriptedService>() : nullptr;
    if (proxies)
        proxies->script("getProxyurl", [](const std::string &url) { // none for the services
            const bool service = url.find("127.0.0.1") != std::string::npos;
            return service ? "(['pacurl', 'DIRECT'],)" : "(['pacurl', 'PROXY p1:80', 'DIRECT'],)";
        });
    const int port = echo.bind_to_any_port("127.0.0.1");
    std::cout << old.port() << ' ' << current.port() << ' ' << port << std::endl;
    echo.listen_after_bind();
}
