// The whole road: the proxy manager says which proxies to use, real proxies carry the posts, and some of them
// die on the way. Each proxy's own log tells what went through it.

#include "bus.h"
#include "link.h"
#include "log_capture.h"
#include "proxymanager.h"

#include <syslog.h>

namespace
{

using namespace test;

class Proxied : public testing::Test
{
protected:
    Proxied()
    {
        link_.start();
        interpose::reset();
        EXPECT_EQ(create_proxy_manager_client(), 1);
    }
    ~Proxied() override { cleanup_proxy_manager_client(); }

    // The client knows of the change when this returns. In script modes nobody tells a password.
    void configure(const std::string &mode, const std::string &names, const std::string &user = "",
                   const std::string &password = "")
    {
        std::string answer = "(['" + mode;
        for (const char name : names)
            answer += "', '" + (name == 'D' ? "DIRECT" : "PROXY " + address(name));
        service_.answer("getProxyurl", answer + "'],)");
        service_.emit("notifyClearcache");
        service_.emit("notifyProxyConfigupdated",
                      "('" + mode + "', '" + address(names[0]) + "', '" + user + "', '" + password + "')");
        EXPECT_TRUE(check_service_started());
    }
    // A, B, S (silent), X (dead), R (dead, said to refuse) and U (unknown) stand for proxies, D for none.
    std::string address(char name)
    {
        return name == 'A'   ? a_.address()
               : name == 'B' ? b_.address()
               : name == 'S' ? "127.0.0.1:" + std::to_string(silent_.port)
               : name == 'U' ? "no-such-host.invalid:80"
                             : "127.0.0.1:1";
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
    // The posts that failed, as the log tells them: "1:7 2:28 " are the results of libcurl.
    static std::string failures()
    {
        const std::string begin = "atls_handshake: curl_rc:", log = log_capture::log_of(LOG_NOTICE);
        std::string results;
        for (size_t at = 0; (at = log.find(begin, at)) != std::string::npos;) {
            const size_t index = log.find("index:", at) + 6;
            at += begin.size();
            results.append(log, index, 1).append(":").append(log, at, log.find(',', at) - at).append(" ");
        }
        return results;
    }

    PrivateBus bus_;
    ScriptedService service_;
    Link link_;
    Proxy a_;
    Proxy b_{"BasicAuth device open-sesame\n"};
    Listener silent_;
};

TEST_F(Proxied, FollowsTheConfiguration)
{
    const std::string refused = curl_version_info(CURLVERSION_NOW)->version_num < 0x081400 ? "1:56 " : "1:7 ";
    using Text =
        std::string; // mode, proxies, user, password; result, which proxies were asked, which posts failed
    const std::tuple<Text, Text, Text, Text, int, Text, Text> cases[] = {
        {"off", "", "", "", ATLS_OK, "", ""},
        {"manual", "A", "somebody", "unasked", ATLS_OK, "A", ""},
        {"manual", "B", "device", "open-sesame", ATLS_OK, "BB", ""}, // asked for the password first
        {"manual", "B", "device", "wrong", ATLS_HANDSHAKE_FAILED, "BB", refused},
        {"pacurl", "DA", "", "", ATLS_OK, "", ""},
        {"wpad", "UD", "", "", ATLS_OK, "", "1:5 "},
        {"pacurl", "SXA", "", "", ATLS_OK, "A", "1:28 2:7 "},
        {"pacurl", "XX", "", "", ATLS_HANDSHAKE_FAILED, "", "1:7 2:7 "},
        {"pacurl", "RD", "", "", ATLS_HANDSHAKE_FAILED, "", "1:7 "},    // as the newest libcurl tells it
        {"pacurl", "BD", "", "", ATLS_HANDSHAKE_FAILED, "B", refused}}; // it is not passed over
    for (const auto &[mode, names, user, password, result, way_taken, failed] : cases) {
        SCOPED_TRACE(testing::Message() << mode << ' ' << names << ' ' << password);
        configure(mode, names, user, password);
        interpose::connect_status = names[0] == 'R' ? 403 : 0;
        EXPECT_EQ(connect(names[0] == 'S' ? 3000 : 0), result); // ms, since it is silent
        EXPECT_EQ(failures(), failed);
        EXPECT_EQ(log_capture::contains("atls_handshake: Failed to preform post"), result != ATLS_OK);
        EXPECT_FALSE(log_capture::contains("open-sesame")) << "the password is in the log";
        EXPECT_EQ(link_.handle->proxyUrlCount, result == ATLS_OK ? static_cast<int>(names.size()) : 0);
        EXPECT_TRUE(result != ATLS_OK || (echoes("first") && echoes("second")));
        EXPECT_EQ(way(), way_taken);
    }
    // No proxy mends what is wrong with the host.
    configure("pacurl", "DD");
    atls_handle_cleanup(&link_.handle);
    EXPECT_EQ(atls_connect(&link_.handle, "no-such-host.invalid", nullptr, 1, "/", nullptr),
              ATLS_HANDSHAKE_FAILED);
    EXPECT_TRUE(log_capture::contains("curl_rc:6, proxyUrlCount:2, index:1\n"));
    EXPECT_FALSE(log_capture::contains("index:2"));
}

// A proxy that dies after the handshake: the message, with the end of a TLS 1.3 handshake in front of it,
// goes through the next one.
TEST_F(Proxied, SurvivesTheDeathOfAProxy)
{
    configure("pacurl", "A");
    ASSERT_EQ(connect(), ATLS_OK);
    a_.die();
    EXPECT_EQ(link_.exchange("lost"), ATLS_EXCHANGE_FAILED);
    EXPECT_TRUE(log_capture::contains("atls_easy_perform: Failed to preform post"));
    EXPECT_TRUE(link_.handle->proxyUrlCount == 0 && !link_.handle->proxyUrlList);
    a_.start();
    configure("pacurl", "AXD");
    ASSERT_EQ(connect(), ATLS_OK);
    a_.die();
    EXPECT_TRUE(echoes("first"));
    EXPECT_TRUE(log_capture::contains("atls_easy_perform: curl_rc:7, proxyUrlCount:3, index:2"));
    EXPECT_TRUE(log_capture::contains("<5> Direct connect without http proxy\n"));
    EXPECT_TRUE(echoes("second"));
    EXPECT_EQ(way(), "AA");
}

} // namespace
