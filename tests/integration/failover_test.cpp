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
    explicit Answering(const char *bytes)
        : thread_([this, bytes] {
              for (int client; (client = accept(listener_.fd(), nullptr, nullptr)) >= 0; close(client)) {
                  char request[512];
                  if (recv(client, request, sizeof request, 0) > 0)
                      send(client, bytes, strlen(bytes), MSG_NOSIGNAL);
              }
          })
    {
    }
    ~Answering()
    {
        shutdown(listener_.fd(), SHUT_RDWR);
        thread_.join();
    }
    int port() const { return listener_.port(); }

private:
    test::Listener listener_;
    std::thread thread_;
};

class FailOver : public testing::Test
{
protected:
    FailOver()
    {
        unsetenv("https_proxy"); // libcurl's default for "no proxy"
        dead_.close();
        test::write_file(link_.folder.path("tinyproxy.conf"),
                         "Port " + std::to_string(proxy_port_) +
                             "\nListen 127.0.0.1\nMaxClients 20\nLogLevel Connect\n" + "LogFile \"" +
                             link_.folder.path("tinyproxy.log") + "\"\n");
        link_.start();
        interpose::reset(SHORT_TIMEOUT_MS);
    }

    static std::string address(int port) { return "127.0.0.1:" + std::to_string(port); }

    // Gives the handle a list, and the request object the first proxy of it.
    void use_proxies(const std::vector<std::string> &list)
    {
        atls_handle *handle = link_.handle;
        release_proxy_list(handle);
        handle->proxyUrlCount = static_cast<int32_t>(list.size());
        handle->proxyUrlList = static_cast<char **>(calloc(list.size() + 1, sizeof(char *)));
        for (size_t i = 0; i < list.size(); i++)
            handle->proxyUrlList[i] = list[i].empty() ? nullptr : strdup(list[i].c_str());
        curl_easy_setopt(handle->curl, CURLOPT_PROXY, handle->proxyUrlList[0]);
    }

    int connect_through(const std::vector<std::string> &list)
    {
        atls_handle_cleanup(&link_.handle);
        strcpy(link_.handle->hostname, "127.0.0.1");
        link_.handle->port = link_.service().port();
        EXPECT_EQ(init_tl_curl(&link_.handle, "/atls", nullptr), ATLS_OK);
        EXPECT_EQ(init_al_ssl(&link_.handle), ATLS_OK);
        use_proxies(list);
        interpose::reset(SHORT_TIMEOUT_MS);
        return atls_handshake(link_.handle);
    }

    test::Link link_{TLS1_2_VERSION};
    test::Listener dead_;
    test::Listener silent_;
    test::Listener reserved_;
    const int proxy_port_ = [this] {
        reserved_.close();
        return reserved_.port();
    }();
};

TEST_F(FailOver, FollowsTheList)
{
    const test::Daemon tinyproxy({"tinyproxy", "-d", "-c", link_.folder.path("tinyproxy.conf")}, proxy_port_);
    const Answering closing("");
    const std::string dead = address(dead_.port());
    const std::string live = address(proxy_port_);
    const std::string direct = "Direct connect without http proxy\n";
    const auto failed = [](int code, int count, int index) {
        return "NAME: curl_rc:" + std::to_string(code) + ", proxyUrlCount:" + std::to_string(count) +
               ", index:" + std::to_string(index) + "\n";
    };
    const auto through = [](const std::string &proxy) {
        return "NAME connect with http proxy:" + proxy + "\n";
    };
    const struct {
        std::vector<std::string> list;
        bool succeeds;
        std::string decisions; // log lines of the procedure
    } cases[] = {
        {{live}, true, ""},
        {{dead, live}, true, failed(7, 2, 1) + "\n" + through(live)},
        {{"no-such-host.invalid:80", ""}, true, failed(5, 2, 1) + "\n" + direct},
        {{address(silent_.port()), dead, "x DIRECT"},
         true,
         failed(28, 3, 1) + "\n" + through(dead) + "\n" + failed(7, 3, 2) + "\n" + direct},
        {{dead, dead, dead},
         false,
         failed(7, 3, 1) + "\n" + through(dead) + "\n" + failed(7, 3, 2) + "\n" + through(dead) + "\n" +
             failed(7, 3, 3)},
        {{dead}, false, failed(7, 1, 1)},
        {{address(closing.port()), live}, false, failed(56, 2, 1)},
    };
    for (const bool in_handshake : {true, false}) {
        const std::string name = in_handshake ? "atls_handshake" : "atls_easy_perform";
        for (const auto &wanted : cases) {
            int result = ATLS_OK;
            if (in_handshake) {
                result = connect_through(wanted.list);
            } else {
                ASSERT_EQ(connect_through({""}) + link_.exchange("first"), ATLS_OK);
                use_proxies(wanted.list);
                curl_easy_setopt(link_.handle->curl, CURLOPT_FRESH_CONNECT, 1L);
                interpose::reset(SHORT_TIMEOUT_MS);
                result = link_.exchange("second");
            }
            const int failure = in_handshake ? ATLS_HANDSHAKE_FAILED : ATLS_EXCHANGE_FAILED;
            EXPECT_EQ(result, wanted.succeeds ? ATLS_OK : failure);
            EXPECT_EQ(link_.handle->proxyUrlList != nullptr, wanted.succeeds);
            EXPECT_EQ(link_.handle->proxyUrlCount,
                      wanted.succeeds ? static_cast<int>(wanted.list.size()) : 0);
            std::string decisions = wanted.decisions;
            for (size_t at; (at = decisions.find("NAME")) != std::string::npos;)
                decisions.replace(at, 4, name);
            const std::string notices = interpose::log_of(LOG_NOTICE);
            EXPECT_NE(("\n" + notices).find(decisions), std::string::npos) << decisions << "---\n" << notices;
            EXPECT_EQ(notices.find("curl_rc") == std::string::npos, wanted.decisions.empty());
            const std::string errors = interpose::log_of(LOG_ERR);
            EXPECT_EQ(errors.find(name + ": Failed to preform post") == 0, !wanted.succeeds) << errors;
            EXPECT_EQ(errors.find("Curl error") != std::string::npos, in_handshake && !wanted.succeeds)
                << errors;
        }
    }
    const std::string log = test::read_file(link_.folder.path("tinyproxy.log"));
    EXPECT_NE(log.find("CONNECT " + address(link_.service().port())), std::string::npos)
        << "really through it";
}

TEST_F(FailOver, DoesNotTryOthersWhenTheServerIsAtFault)
{
    const Answering plain("HTTP/1.1 200 OK\r\n\r\n"); // speaks no TLS
    strcpy(link_.handle->hostname, "127.0.0.1");
    link_.handle->port = plain.port();
    EXPECT_EQ(init_tl_curl(&link_.handle, "/", nullptr) + init_al_ssl(&link_.handle), ATLS_OK);
    use_proxies({"", "DIRECT"});
    EXPECT_EQ(atls_handshake(link_.handle), ATLS_HANDSHAKE_FAILED);
    EXPECT_NE(interpose::log_of(LOG_NOTICE).find("curl_rc:35, proxyUrlCount:2, index:1\n"),
              std::string::npos);
    EXPECT_EQ(interpose::log_of(LOG_NOTICE).find("Direct connect"), std::string::npos);
}

// A real HTTPS front end that offers HTTP/2: header names must still arrive as the service wrote them.
TEST_F(FailOver, PassesAnHttp2FrontEnd)
{
    if (access("/usr/sbin/nginx", X_OK) != 0)
        GTEST_SKIP() << "nginx is not installed";
    const std::string folder = link_.folder.path("");
    const test::Folder &identity = test::identity();
    test::write_file(
        link_.folder.path("nginx.conf"),
        "user root; daemon off; worker_processes 1; pid " + folder + "pid; error_log " + folder +
            "error.log;\n" + "events {}\nhttp { access_log off; client_body_temp_path " + folder +
            "body; proxy_temp_path " + folder + "proxy; fastcgi_temp_path " + folder + "f; uwsgi_temp_path " +
            folder + "u; scgi_temp_path " + folder + "s; client_max_body_size 8m;\n server { listen " +
            address(proxy_port_) + " ssl http2; ssl_certificate " + identity.path("service/front-cert.pem") +
            "; ssl_certificate_key " + identity.path("service/front-key.pem") +
            ";\n location / { proxy_pass https://" + address(link_.service().port()) + "; } } }\n");
    const test::Daemon nginx(
        {"/usr/sbin/nginx", "-p", folder, "-e", folder + "error.log", "-c", folder + "nginx.conf"},
        proxy_port_);
    interpose::reset();
    ASSERT_EQ(atls_connect(&link_.handle, "127.0.0.1", nullptr, proxy_port_, "/atls", nullptr), ATLS_OK);
    for (const size_t size : {5, 20000, 1000000}) {
        EXPECT_EQ(link_.exchange(test::pattern(size)), ATLS_OK);
        EXPECT_TRUE(link_.body() == test::pattern(size)) << size;
    }
    EXPECT_NE(std::string(link_.answer.header).find("Server: nginx"), std::string::npos);
    atls_handle_cleanup(&link_.handle);
}

} // namespace
