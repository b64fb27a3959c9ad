// The POST with proxy fail-over, on lists that are put into the handle: dead, silent, unresolvable and real
// proxies.

#include "link.h"

#include <cstring>
#include <thread>

#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

namespace
{

constexpr long SHORT_TIMEOUT_MS = 2000;

// A peer that answers whatever it receives with the same bytes and closes.
class Answering
{
public:
    explicit Answering(const std::string &bytes)
        : thread_([this, bytes] {
              for (int client; (client = accept(listener_.fd, nullptr, nullptr)) >= 0; close(client)) {
                  char request[512];
                  if (recv(client, request, sizeof request, 0) > 0)
                      send(client, bytes.data(), bytes.size(), MSG_NOSIGNAL);
              }
          })
    {
    }
    ~Answering()
    {
        shutdown(listener_.fd, SHUT_RDWR);
        thread_.join();
    }
    int port() const { return listener_.port; }

private:
    test::Listener listener_;
    std::thread thread_;
};

std::string address(int port)
{
    return "127.0.0.1:" + std::to_string(port);
}

class FailOver : public testing::Test
{
protected:
    FailOver()
    {
        unsetenv("https_proxy"); // libcurl's default for "no proxy"
        dead_.close();
        reserved_.close();
        link_.start();
    }

    // Gives the handle a list, and the request object the first proxy of it.
    void use_proxies(const std::vector<std::string> &list)
    {
        release_proxy_list(link_.handle);
        link_.handle->proxyUrlCount = static_cast<int32_t>(list.size());
        link_.handle->proxyUrlList = static_cast<char **>(calloc(list.size(), sizeof(char *)));
        for (size_t i = 0; i < list.size(); i++)
            link_.handle->proxyUrlList[i] = list[i].empty() ? nullptr : strdup(list[i].c_str());
        curl_easy_setopt(link_.handle->curl, CURLOPT_PROXY, link_.handle->proxyUrlList[0]);
        interpose::reset(SHORT_TIMEOUT_MS);
    }

    int connect_through(int port, const std::vector<std::string> &list)
    {
        interpose::reset(SHORT_TIMEOUT_MS);
        atls_handle_cleanup(&link_.handle);
        snprintf(link_.handle->hostname, sizeof link_.handle->hostname, "127.0.0.1");
        link_.handle->port = port;
        EXPECT_EQ(init_tl_curl(&link_.handle, "/", nullptr) + init_al_ssl(&link_.handle), ATLS_OK);
        use_proxies(list);
        return atls_handshake(link_.handle);
    }

    test::Link link_;
    test::Listener dead_;
    test::Listener silent_;
    test::Listener reserved_; // a free port for a daemon
};

TEST_F(FailOver, FollowsTheList)
{
    test::write_file(link_.folder.path("conf"), "Port " + std::to_string(reserved_.port) +
                                                    "\nListen 127.0.0.1\n" + "LogFile \"" +
                                                    link_.folder.path("log") + "\"\n");
    const test::Daemon tinyproxy("tinyproxy -d -c " + link_.folder.path("conf"), reserved_.port);
    const Answering closing("");
    const std::string dead = address(dead_.port);
    const std::string live = address(reserved_.port);
    const std::string direct = "Direct connect without http proxy\n\n";
    const auto failed = [](int code, int count, int index) {
        return "NAME: curl_rc:" + std::to_string(code) + ", proxyUrlCount:" + std::to_string(count) +
               ", index:" + std::to_string(index) + "\n\n";
    };
    const auto through = [](const std::string &proxy) {
        return "NAME connect with http proxy:" + proxy + "\n\n";
    };
    const struct {
        std::vector<std::string> list;
        bool succeeds;
        std::string decisions; // log lines of the procedure
    } cases[] = {
        {{live}, true, ""},
        {{dead, live}, true, failed(7, 2, 1) + through(live)},
        {{"no-such-host.invalid:80", ""}, true, failed(5, 2, 1) + direct},
        {{address(silent_.port), dead, "x DIRECT"},
         true,
         failed(28, 3, 1) + through(dead) + failed(7, 3, 2) + direct},
        {{dead, dead, dead},
         false,
         failed(7, 3, 1) + through(dead) + failed(7, 3, 2) + through(dead) + failed(7, 3, 3)},
        {{dead}, false, failed(7, 1, 1)},
        {{address(closing.port()), live}, false, failed(56, 2, 1)},
    };
    for (const std::string name : {"atls_handshake", "atls_easy_perform"}) {
        for (const auto &wanted : cases) {
            const bool in_handshake = name == "atls_handshake";
            int result = connect_through(link_.service->port(),
                                         in_handshake ? wanted.list : std::vector<std::string>{""});
            if (!in_handshake) {
                ASSERT_EQ(result + link_.exchange("first"), ATLS_OK);
                use_proxies(wanted.list);
                curl_easy_setopt(link_.handle->curl, CURLOPT_FRESH_CONNECT, 1L);
                result = link_.exchange("second");
            }
            const int failure = in_handshake ? ATLS_HANDSHAKE_FAILED : ATLS_EXCHANGE_FAILED;
            EXPECT_EQ(result, wanted.succeeds ? ATLS_OK : failure);
            EXPECT_EQ(link_.handle->proxyUrlCount,
                      wanted.succeeds ? static_cast<int>(wanted.list.size()) : 0);
            EXPECT_EQ(link_.handle->proxyUrlList != nullptr, wanted.succeeds);
            std::string decisions = wanted.decisions;
            for (size_t at; (at = decisions.find("NAME")) != std::string::npos;)
                decisions.replace(at, 4, name);
            const std::string notices = interpose::log_of(LOG_NOTICE) + "\n";
            EXPECT_NE(notices.find(decisions), std::string::npos) << decisions << "---\n" << notices;
            EXPECT_EQ(notices.find("curl_rc") == std::string::npos, decisions.empty()) << notices;
            EXPECT_EQ(interpose::logged(name + ": Failed to preform post"), !wanted.succeeds);
            EXPECT_EQ(interpose::logged("Curl error"), in_handshake && !wanted.succeeds);
        }
    }
    const std::string log = test::read_file(link_.folder.path("log"));
    EXPECT_NE(log.find("CONNECT " + address(link_.service->port())), std::string::npos)
        << "really through it";
}

TEST_F(FailOver, IsNotForFaultsOfTheServer)
{
    const Answering plain("HTTP/1.1 200 OK\r\n\r\n"); // speaks no TLS
    EXPECT_EQ(connect_through(plain.port(), {"", "DIRECT"}), ATLS_HANDSHAKE_FAILED);
    EXPECT_TRUE(interpose::logged("curl_rc:35, proxyUrlCount:2, index:1\n"));
    EXPECT_FALSE(interpose::logged("Direct connect"));
}

// A real HTTPS front end that offers HTTP/2: header names must still arrive as the service wrote them.
TEST_F(FailOver, PassesAnHttp2FrontEnd)
{
    if (access("/usr/sbin/nginx", X_OK) != 0)
        GTEST_SKIP() << "nginx is not installed";
    const std::string root = link_.folder.root;
    std::string settings = "user root; daemon off; pid " + root + "/pid; error_log " + root +
                           "/error; events {}\n" + "http { access_log off; client_max_body_size 8m;\n";
    for (const char *kind : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"})
        settings += std::string(kind) + "_temp_path " + root + "/" + kind + "; ";
    settings += "server { listen " + address(reserved_.port) + " ssl http2; ssl_certificate " +
                test::identity("service/front-cert.pem") + "; ssl_certificate_key " +
                test::identity("service/front-key.pem") + "; location / { proxy_pass https://" +
                address(link_.service->port()) + "; } } }\n";
    test::write_file(root + "/nginx.conf", settings);
    const test::Daemon nginx("/usr/sbin/nginx -e " + root + "/error -c " + root + "/nginx.conf",
                             reserved_.port);
    ASSERT_EQ(atls_connect(&link_.handle, "127.0.0.1", nullptr, reserved_.port, "/", nullptr), ATLS_OK);
    for (const size_t size : {5, 20000, 1000000})
        EXPECT_TRUE(link_.exchange(test::pattern(size)) == ATLS_OK && link_.body() == test::pattern(size))
            << size;
    EXPECT_NE(std::string(link_.answer.header).find("Server: nginx"), std::string::npos);
    atls_handle_cleanup(&link_.handle);
}

} // namespace
