// The whole road: the proxy manager says which proxies to use, real proxies carry the posts, and some of them
// die on the way. Each proxy's own log tells what went through it.

#include "bus.h"
#include "link.h"
#include "log_capture.h"
#include "proxy.h"
#include "proxymanager.h"

#include <atomic>
#include <cstring>
#include <thread>

#include <syslog.h>

namespace
{

using namespace test;

constexpr long SHORT_TIMEOUT_MS = 3000; // where something is silent

class Proxied : public testing::Test
{
protected:
    Proxied()
    {
        for (const char *name :
             {"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY", "no_proxy", "NO_PROXY"})
            unsetenv(name);
        link_.start();
        interpose::reset();
        EXPECT_EQ(create_proxy_manager_client(), 1);
    }
    ~Proxied() override { cleanup_proxy_manager_client(); }

    // Changes the configuration, as somebody else would. The client knows of it when this returns.
    static void configure(const std::string &mode, const std::string &proxy, const std::string &pac,
                          const std::string &user = "", const std::string &password = "")
    {
        EXPECT_EQ(ask("updateProxyconfig", {mode, proxy, pac, "false", user, password}), "(0,)");
        EXPECT_TRUE(check_service_started());
    }
    // A, B, S (silent), X (dead), R (dead, said to refuse) and U (unknown) stand for proxies, D for none.
    std::string names_to_addresses(const std::string &names)
    {
        std::string answer;
        for (const char name : names)
            answer += name == 'D' ? "DIRECT;" : "PROXY " + address(name) + ";";
        return answer;
    }
    void use_script(const std::string &names)
    {
        const std::string script =
            "function FindProxyForURL() { return '" + names_to_addresses(names) + "'; }";
        configure("pacurl", "", "file://" + link_.folder.write(names + ".pac", script));
    }
    std::string address(char name)
    {
        return name == 'A'                  ? a_.address()
               : name == 'B'                ? b_.address()
               : name == 'S'                ? "127.0.0.1:" + std::to_string(silent_.port)
               : name == 'X' || name == 'R' ? "127.0.0.1:1"
                                            : "no-such-host.invalid:80";
    }
    // Which proxies were asked, "AAB" say, since the last time.
    std::string way() { return std::string(a_.requests(), 'A') + std::string(b_.requests(), 'B'); }
    int connect(long timeout_ms = 0)
    {
        atls_handle_cleanup(&link_.handle);
        interpose::reset(timeout_ms);
        return link_.connect();
    }
    bool echoes(const std::string &message)
    {
        return link_.exchange(message) == ATLS_OK && link_.body() == message;
    }

    PrivateBus bus_;
    std::unique_ptr<Program> manager_ = start_manager();
    Link link_;
    Proxy a_;
    Proxy b_{"BasicAuth device open-sesame\n"}; // in script modes nobody tells the password
    Listener silent_;
};

TEST_F(Proxied, TheConfigurationDecides)
{
    EXPECT_TRUE(connect() == ATLS_OK && echoes("off") && way().empty());
    EXPECT_TRUE(log_capture::contains("setProxyParams Exit since http proxy mode is off"));
    const struct {
        std::string mode, proxy, user, password;
        int result;
        std::string way;
    } cases[] = {{"manual", "A", "", "", ATLS_OK, "A"},
                 {"manual", "A", "somebody", "unasked", ATLS_OK, "A"},
                 {"manual", "B", "device", "open-sesame", ATLS_OK, "BB"}, // asked for the password first
                 {"manual", "B", "device", "wrong", ATLS_HANDSHAKE_FAILED, "BB"},
                 {"manual", "B", "", "", ATLS_HANDSHAKE_FAILED, "B"},
                 {"manual", "X", "", "", ATLS_HANDSHAKE_FAILED, ""},
                 {"manual", "A", "", "", ATLS_OK, "A"},
                 {"off", "", "", "", ATLS_OK, ""}};
    for (const auto &[mode, proxy, user, password, result, way_taken] : cases) {
        SCOPED_TRACE(testing::Message() << mode << ' ' << proxy << ' ' << user);
        configure(mode, proxy.empty() ? "" : address(proxy[0]), "", user, password);
        EXPECT_EQ(connect(), result);
        EXPECT_TRUE(result != ATLS_OK || (echoes("first") && echoes("second")));
        EXPECT_EQ(way(), way_taken);
        EXPECT_EQ(link_.handle->proxyUrlCount, result == ATLS_OK && mode != "off");
        EXPECT_FALSE(log_capture::contains("open-sesame")) << "the password is in the log";
    }
}

TEST_F(Proxied, FollowsTheScript)
{
    const int refused = curl_version_info(CURLVERSION_NOW)->version_num < 0x081400 ? 56 : 7;
    const struct {
        std::string names;
        int result;
        std::string way;
        std::vector<int> failures; // results of libcurl
    } cases[] = {{"AD", ATLS_OK, "A", {}},
                 {"DA", ATLS_OK, "", {}},
                 {"XAD", ATLS_OK, "A", {7}},
                 {"UD", ATLS_OK, "", {5}},
                 {"SXA", ATLS_OK, "A", {28, 7}},
                 {"XSD", ATLS_OK, "", {7, 28}},
                 {"XSX", ATLS_HANDSHAKE_FAILED, "", {7, 28, 7}},
                 {"RD", ATLS_HANDSHAKE_FAILED, "", {7}},         // as the newest libcurl tells a refusal
                 {"BD", ATLS_HANDSHAKE_FAILED, "B", {refused}}}; // it is not passed over
    for (const auto &[names, result, way_taken, failures] : cases) {
        SCOPED_TRACE(names);
        use_script(names);
        interpose::connect_status = names[0] == 'R' ? 403 : 0;
        EXPECT_EQ(connect(names.find('S') == std::string::npos ? 0 : SHORT_TIMEOUT_MS), result);
        std::string expected; // of the log
        for (size_t i = 1; i <= failures.size(); i++) {
            expected.append("atls_handshake: curl_rc:").append(std::to_string(failures[i - 1]));
            expected.append(", proxyUrlCount:").append(std::to_string(names.size()));
            expected.append(", index:").append(std::to_string(i)).append("\n\n");
            if (!strchr("BR", names[i - 1]) && i < names.size())
                expected += names[i] == 'D'
                                ? "Direct connect without http proxy\n\n"
                                : "atls_handshake connect with http proxy:" + address(names[i]) + "\n\n";
        }
        const std::string notices = interpose::log_of(LOG_NOTICE) + "\n";
        const size_t start = std::min(notices.find("atls_handshake: curl_rc"), notices.size());
        EXPECT_EQ(notices.substr(start, expected.size()), expected) << notices;
        EXPECT_EQ(notices.find("curl_rc", start + expected.size()), std::string::npos) << notices;
        EXPECT_EQ(log_capture::contains("atls_handshake: Failed to preform post"), result != ATLS_OK);
        EXPECT_EQ(log_capture::contains("Curl error"), result != ATLS_OK);
        EXPECT_EQ(link_.handle->proxyUrlList != nullptr, result == ATLS_OK);
        EXPECT_TRUE(result != ATLS_OK || echoes("message"));
        EXPECT_EQ(way(), way_taken);
    }
}

// A proxy that dies after the handshake: the message, with the end of a TLS 1.3 handshake in front of it,
// goes through the next one.
TEST_F(Proxied, SurvivesTheDeathOfAProxy)
{
    use_script("A");
    ASSERT_EQ(connect(), ATLS_OK);
    a_.die();
    EXPECT_EQ(link_.exchange("lost"), ATLS_EXCHANGE_FAILED);
    EXPECT_TRUE(log_capture::contains("atls_easy_perform: Failed to preform post"));
    EXPECT_TRUE(link_.handle->proxyUrlCount == 0 && !link_.handle->proxyUrlList);
    a_.start();
    for (const int version : {TLS1_3_VERSION, TLS1_2_VERSION}) {
        Link link(version);
        link.start();
        use_script("AXD");
        interpose::reset();
        ASSERT_EQ(link.connect(), ATLS_OK);
        a_.die();
        EXPECT_EQ(link.exchange("first"), ATLS_OK);
        EXPECT_EQ(link.body(), "first");
        EXPECT_TRUE(log_capture::contains("atls_easy_perform: curl_rc:7, proxyUrlCount:3, index:2"));
        EXPECT_TRUE(link.exchange("second") == ATLS_OK && link.body() == "second");
        a_.start();
    }
    EXPECT_EQ(way(), "AAA");
}

// The service has the message, but its answer does not come in time: the same records are posted once more,
// which the session takes for an attack. The service answers each message at most once.
TEST_F(Proxied, EndsTheSessionWhenAMessageArrivesTwice)
{
    std::atomic<int> answered{0};
    link_.options.answer = [&](const std::string &message) {
        if (answered++ == 0)
            for (int i = 0; i < 2000 && !log_capture::contains("curl_rc:28"); i++)
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return message;
    };
    link_.start();
    use_script("AD");
    ASSERT_EQ(connect(SHORT_TIMEOUT_MS), ATLS_OK);
    EXPECT_EQ(link_.exchange("once"), ATLS_BAD_RESPONSE);
    EXPECT_EQ(link_.exchange("later"), ATLS_INVALID_INPUT);
    EXPECT_EQ(answered, 1);
    EXPECT_EQ(way(), "A");
    EXPECT_TRUE(connect() == ATLS_OK && echoes("on a new session"));
}

TEST_F(Proxied, DoesWithoutServiceAndBus)
{
    use_script("A");
    cleanup_proxy_manager_client();
    manager_.reset();
    for (const char *missing : {"service", "bus"}) {
        EXPECT_TRUE(connect() == ATLS_OK && echoes("direct")) << missing;
        EXPECT_TRUE(log_capture::contains("setProxyParams: create_proxy_manager_client fail!")) << missing;
        EXPECT_TRUE(way().empty() && !link_.handle->proxyUrlList) << missing;
        bus_.kill();
    }
    bus_.start();
    manager_ = start_manager({"--pac", link_.folder.path("A.pac")});
    EXPECT_TRUE(connect() == ATLS_OK && echoes("with the proxy again") && way() == "A");
}

// On eight threads, while answers are thrown away and proxy A comes and goes: every call gives a result, and
// an answer is always that of its own message.
TEST_F(Proxied, StaysRightWhileProxiesAndAnswersChange)
{
    std::atomic<int> left{40};
    std::atomic<int> succeeded{0};
    const auto connect_and_exchange = [&](int thread) {
        Client client;
        while (left-- > 0) {
            int result = client.connect(link_.service->port());
            EXPECT_TRUE(result == ATLS_OK || result == ATLS_HANDSHAKE_FAILED) << result;
            for (int i = 0; i < 3 && result == ATLS_OK; i++) {
                const std::string message = std::to_string(thread) + " " + std::to_string(left) + " " +
                                            pattern(size_t{100} * static_cast<size_t>(i));
                result = client.exchange(message);
                EXPECT_TRUE(result == ATLS_OK || result == ATLS_BAD_RESPONSE ||
                            result == ATLS_EXCHANGE_FAILED)
                    << result;
                EXPECT_TRUE(result != ATLS_OK || client.body() == message);
            }
            succeeded += result == ATLS_OK;
            atls_handle_cleanup(&client.handle);
        }
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; i++)
        threads.emplace_back(connect_and_exchange, i);
    for (int round = 0; left > 0; round++) {
        use_script(round % 2 ? "AXD" : "XAD");
        a_.die();
        a_.start();
    }
    for (auto &thread : threads)
        thread.join();
    EXPECT_GT(succeeded, 0);
}

// A real HTTPS front end that offers HTTP/2: header names must still arrive as the service wrote them. On another
// port it speaks no TLS: no proxy mends that.
TEST_F(Proxied, PassesAnHttp2FrontEnd)
{
    Listener front, plain;
    front.close();
    plain.close();
    const std::string root = link_.folder.root;
    std::string settings = "user root; daemon off; pid " + root + "/pid; error_log " + root +
                           "/error; events {}\nhttp { access_log off; client_max_body_size 8m;\n";
    for (const char *kind : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"})
        settings += std::string(kind) + "_temp_path " + root + "/" + kind + "; ";
    settings +=
        "server { listen 127.0.0.1:" + std::to_string(plain.port) +
        "; listen 127.0.0.1:" + std::to_string(front.port) + " ssl http2; ssl_certificate " +
        identity("service/front-cert.pem") + "; ssl_certificate_key " + identity("service/front-key.pem") +
        "; location / { proxy_pass https://127.0.0.1:" + std::to_string(link_.service->port()) + "; } } }\n";
    const Daemon nginx(
        "/usr/sbin/nginx -e " + root + "/error -c " + link_.folder.write("nginx.conf", settings), front.port);
    use_script("DD");
    EXPECT_EQ(atls_connect(&link_.handle, "127.0.0.1", nullptr, plain.port, "/", nullptr),
              ATLS_HANDSHAKE_FAILED);
    EXPECT_TRUE(log_capture::contains("curl_rc:35, proxyUrlCount:2, index:1\n"));
    EXPECT_FALSE(log_capture::contains("index:2"));
    ASSERT_EQ(atls_connect(&link_.handle, "127.0.0.1", nullptr, front.port, "/", nullptr), ATLS_OK);
    for (const size_t size : {5, 20000, 1000000})
        EXPECT_TRUE(echoes(pattern(size))) << size;
    EXPECT_NE(std::string(link_.answer.header).find("Server: nginx"), std::string::npos);
    atls_handle_cleanup(&link_.handle);
}

} // namespace
