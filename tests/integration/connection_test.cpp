// Connection and exchange against the reference service: lengths, statuses, refusals, odd answers, files.

#include "link.h"

#include <utility>

#include <fcntl.h>
#include <openssl/buffer.h>
#include <openssl/err.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

namespace
{

using atls_service::Reply;

// The memory that a BIO holds.
size_t room_of(BIO *bio)
{
    BUF_MEM *block = nullptr;
    return BIO_get_mem_ptr(bio, &block) == 1 ? block->max : SIZE_MAX;
}

class Connection : public testing::TestWithParam<int>
{
protected:
    bool tls13() const { return GetParam() == TLS1_3_VERSION; }

    test::Link link_{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(Tls, Connection, testing::Values(TLS1_2_VERSION, TLS1_3_VERSION));

TEST_P(Connection, CarriesMessagesOfAnyLength)
{
    link_.start();
    for (const size_t size : {1, 16355, 16356, 16361, 16362, 16363, 20000, 1000000}) {
        ASSERT_EQ(link_.connect(), ATLS_OK);
        for (int i = 0; i < 2; i++) { // the first message, with what the handshake left, and a later one
            ASSERT_EQ(link_.exchange(test::pattern(size)), ATLS_OK) << size;
            EXPECT_TRUE(link_.body() == test::pattern(size) && link_.answer.body[size] == '\0') << size;
        }
        for (BIO *bio : {SSL_get_rbio(link_.handle->ssl), SSL_get_wbio(link_.handle->ssl)})
            EXPECT_LE(room_of(bio), 32768u) << size;
        atls_handle_cleanup(&link_.handle);
    }
    // The least posts, on one TCP connection.
    link_.posted.clear();
    const size_t sessions = link_.service->session_count();
    ASSERT_EQ(link_.connect(), ATLS_OK);
    EXPECT_EQ(link_.posted.size(), tls13() ? 1u : 2u);
    EXPECT_EQ(log_capture::log_of(LOG_ERR), "");
    for (const size_t size : {100, 16383, 16384, 16385, 32768, 1048577, 3000000}) {
        link_.reply = size;
        const bool readable = size % 16384 != 0; // full records cannot be read
        EXPECT_EQ(link_.exchange("x"), readable ? ATLS_OK : ATLS_BAD_RESPONSE) << size;
        EXPECT_TRUE(link_.body() == (readable ? test::pattern(size) : "")) << size;
        long connects = -1;
        curl_easy_getinfo(link_.handle->curl, CURLINFO_NUM_CONNECTS, &connects);
        EXPECT_EQ(connects, 0);
    }
    EXPECT_EQ(link_.service->session_count(), sessions + 1) << "the cookie led to the session each time";
    EXPECT_STREQ(link_.answer.tracking_id, "track");
    EXPECT_EQ(link_.connect(), ATLS_INVALID_INPUT) << "connected already";
    EXPECT_EQ(link_.exchange("still connected"), ATLS_OK);
}

// What the service may send in the place of its response, in the handshake and in an exchange.
TEST_P(Connection, TakesOddResponses)
{
    constexpr int ANY = -1; // the handshake is not tried, or goes on as if nothing were odd
    const auto header = [](const char *replaced, const char *name, const std::string &value) {
        return [=](Reply &reply) {
            reply.headers.erase(replaced);
            reply.headers.emplace(name, value);
        };
    };
    const auto huge_header = [](Reply &reply) {
        for (int i = 10; i < 22; i++) // in front of Content-Type
            reply.headers.emplace("A-" + std::to_string(i), std::string(5000, 'a'));
    };
    // What is odd; the results of handshake and exchange, whether its answer is decrypted, the result of the next one.
    const std::tuple<const char *, std::function<void(Reply &)>, int, int, bool, int> cases[] = {
        {"bad request", [](Reply &reply) { reply.status = 400; }, 4, 0, true, 0},
        {"moved", [](Reply &reply) { reply.status = 302; }, 7, 0, true, 0},
        {"no body", [](Reply &reply) { reply.body.clear(); }, 3, 6, false, 4},
        {"garbage", [](Reply &reply) { reply.body = "garbage that is no record"; }, 3, 4, false, 1},
        {"cookies", header("Set-Cookie", "Set-Cookie", std::string(1023, 'c')), 4, 4, false, 4},
        {"no cookie", header("Set-Cookie", "X", "1"), ANY, 0, true, 0},
        {"lower case", header("Content-Type", "content-type", "application/octet-stream"), ANY, 0, false, 4},
        {"not encrypted", header("Content-Type", "Content-Type", "text/plain"), ANY, 0, false, 4},
        {"header above 32 KB", huge_header, ANY, 0, true, 0},
        {"identifier", header("TrackingID", "TrackingID", std::string(65, 'i')), ANY, 0, true, 0},
        {"cut record", [](Reply &reply) { reply.body.resize(reply.body.size() - 8); }, ANY, 4, false, 4},
        {"doubled", [](Reply &reply) { reply.body += reply.body; }, ANY, 0, true, 4},
    };
    link_.start();
    for (const auto &[name, tamper, handshake, exchange, decrypted, next] : cases) {
        SCOPED_TRACE(name);
        atls_handle_cleanup(&link_.handle);
        if (handshake != ANY) {
            link_.tamper = tamper;
            EXPECT_EQ(link_.connect(), handshake);
            EXPECT_TRUE(!link_.handle->curl && !link_.handle->ssl && !link_.handle->port &&
                        !*link_.handle->hostname);
            link_.tamper = nullptr;
        }
        ASSERT_EQ(link_.connect(), ATLS_OK);
        ASSERT_EQ(link_.exchange("one"), ATLS_OK);
        link_.tamper = tamper;
        EXPECT_EQ(link_.exchange("two"), exchange);
        EXPECT_EQ(link_.body() == "two", decrypted);
        EXPECT_EQ(link_.answer.header != nullptr, exchange == 0);
        link_.tamper = nullptr;
        EXPECT_EQ(link_.exchange("three"), next);
    }
}

// An answer that is held back comes in front of the next: what is left of that must not be the one after it.
TEST_P(Connection, LeavesNothingOfAnAnswerToTheNext)
{
    std::string held, answers;
    const auto hold_back = [&](Reply &reply) {
        held = std::exchange(reply.body, "held");
        reply.headers.erase("Content-Type");
    };
    const auto bring = [&](Reply &reply) { reply.body = held + reply.body; };
    link_.start();
    ASSERT_EQ(link_.connect(), ATLS_OK);
    SSL_set_read_ahead(link_.handle->ssl, tls13()); // a platform may choose so
    for (const auto &tamper : std::vector<decltype(link_.tamper)>{hold_back, bring, hold_back, bring, {}}) {
        link_.tamper = tamper;
        EXPECT_EQ(link_.exchange(std::string(30000, static_cast<char>('0' + answers.size()))), ATLS_OK);
        answers += link_.body()[0];
        EXPECT_TRUE(answers.back() != 'h' || room_of(SSL_get_rbio(link_.handle->ssl)) <= 24576);
    }
    EXPECT_EQ(answers, "h0h24");
    const char *dropped = "atls_easy_perform: [30000] bytes behind the end of the last answer dropped";
    EXPECT_EQ(log_capture::log_of(LOG_ERR), std::string(dropped) + "\n" + dropped);
}

TEST_P(Connection, EndsWhenACertificateIsRefused)
{
    link_.options.inner.device_ca = test::identity("ca/service-cert.pem"); // not the device's
    link_.start();
    EXPECT_EQ(link_.connect(), tls13() ? ATLS_OK : ATLS_HANDSHAKE_FAILED);
    EXPECT_EQ(ERR_GET_REASON(ERR_peek_error()), tls13() ? 0 : SSL_R_TLSV1_ALERT_UNKNOWN_CA);
    if (tls13()) { // the refusal comes with the first answer
        EXPECT_EQ(link_.exchange("one"), ATLS_BAD_RESPONSE);
        EXPECT_EQ(link_.exchange("two"), ATLS_INVALID_INPUT);
    }
    atls_handle_cleanup(&link_.handle);
    test::run("cp " + test::identity("ca/device-cert.pem") + " " + link_.folder.path("truststore.pem"));
    EXPECT_EQ(link_.connect(), ATLS_HANDSHAKE_FAILED) << "the service is not trusted";
    EXPECT_EQ(ERR_GET_REASON(ERR_peek_error()), SSL_R_CERTIFICATE_VERIFY_FAILED);
    EXPECT_TRUE(log_capture::contains("<3> atls_handshake: TLS handshake failed ["));
    EXPECT_EQ(atls_connect(&link_.handle, "127.0.0.1", nullptr, 1, "/", nullptr), ATLS_HANDSHAKE_FAILED);
    EXPECT_EQ(ERR_GET_REASON(ERR_peek_error()), 0) << "it is not TLS that refuses";
    test::write_file(link_.folder.path("device-key.der"), "no key");
    EXPECT_EQ(link_.connect(), ATLS_SETUP_FAILED);
    EXPECT_EQ(ERR_peek_error(), 0u) << "why is in the log";
}

TEST(Arguments, AreChecked)
{
    test::Link link;
    atls_handle **handle = &link.handle;
    const std::string long_name(512, 'h');
    EXPECT_EQ(atls_connect(handle, nullptr, nullptr, 1, "/", nullptr), ATLS_INVALID_INPUT);
    EXPECT_EQ(atls_connect(handle, "h", nullptr, 1, nullptr, nullptr), ATLS_INVALID_INPUT);
    EXPECT_EQ(atls_connect(handle, "h", nullptr, 65536, "/", nullptr), ATLS_INVALID_INPUT);
    EXPECT_EQ(atls_connect(handle, long_name.c_str(), nullptr, 1, "/", nullptr), ATLS_SETUP_FAILED);
    EXPECT_EQ(atls_connect(handle, "", "127.0.0.1", 1, "/", nullptr), ATLS_INVALID_INPUT);
    for (const char *id : {"a\r\nInjected: b", "a\nb", "\r"})
        EXPECT_EQ(atls_connect(handle, "127.0.0.1", nullptr, 1, "/", id), ATLS_INVALID_INPUT) << id;
    EXPECT_TRUE(link.handle->port == 0 && link.handle->hostname[0] == '\0');
    EXPECT_EQ(link.exchange("x"), ATLS_INVALID_INPUT) << "not connected";
    link.start();
    ASSERT_EQ(link.connect() + link.exchange("first"), ATLS_OK);
    EXPECT_EQ(atls_easy_perform(link.handle, nullptr, 1, "/", &link.answer), ATLS_INVALID_INPUT);
    EXPECT_EQ(atls_easy_perform(link.handle, "m", 0, "/", &link.answer), ATLS_INVALID_INPUT);
    EXPECT_EQ(atls_easy_perform(link.handle, "m", 1, nullptr, &link.answer), ATLS_INVALID_INPUT);
    EXPECT_EQ(atls_easy_perform(link.handle, "m", 1, "/", nullptr), ATLS_INVALID_INPUT);
    EXPECT_EQ(link.body(), "first") << "the earlier answer is still there";
}

// Sent and received flights go to numbered files; one that cannot be written keeps its number.
TEST(Handshake, DumpsItsFlights)
{
    const auto file = [](const std::string &direction, int index) {
        return "/tmp/atls_handshake_data_" + direction + "_" + std::to_string(index);
    };
    test::Link link(TLS1_2_VERSION);
    std::vector<std::string> received;
    link.tamper = [&](Reply &reply) { received.push_back(reply.body); };
    link.start();
    int next = 1; // of both directions, as long as every flight has been answered
    while (mkdir(file("received", next).c_str(), 0700) != 0)
        next++;
    ASSERT_EQ(link.connect(), ATLS_OK);
    rmdir(file("received", next).c_str());
    atls_handle_cleanup(&link.handle);
    ASSERT_EQ(link.connect(), ATLS_OK);
    for (int i = 0; i < 2; i++) {
        EXPECT_EQ(test::read_file(file("sent", next + i)).size(), link.posted[static_cast<size_t>(i)]);
        EXPECT_EQ(test::read_file(file("received", next + i)), received[2 + static_cast<size_t>(i)]);
    }
}

// libcurl's trace would go to whatever has the number 2, and what the program prints into the connection.
TEST(Handshake, NeedsNoStandardStreams)
{
    test::Link link;
    const auto connects = [&](bool numbers_are_taken) {
        link.start(); // not before the fork, which would copy locks of the service's threads
        for (int stream = 0; stream < 3; stream++)
            close(stream);
        for (int stream = 0; stream < 3 && numbers_are_taken; stream++)
            open("/dev/null", O_RDWR | O_CLOEXEC); // as libraries open what is their own
        curl_socket_t socket = CURL_SOCKET_BAD;
        if (link.connect() == ATLS_OK)
            curl_easy_getinfo(link.handle->curl, CURLINFO_ACTIVESOCKET, &socket);
        return socket > 2 && fcntl(socket, F_GETFD) == FD_CLOEXEC &&
               log_capture::contains("<5> init_tl_curl: Standard error is not open");
    };
    for (const bool taken : {false, true})
        EXPECT_EXIT(_exit(connects(taken) ? 0 : 1), testing::ExitedWithCode(0), "") << taken;
}

// The Date header is looked at in each cycle until one of three files says that the clock has been set.
TEST(Handshake, SetsTheClockUnlessItIsSet)
{
    test::Link link(TLS1_2_VERSION); // two cycles
    link.tamper = [](Reply &reply) {
        reply.headers.erase("Date");
        reply.headers.emplace("Date", "Wed, 18 Nov 2037 10:20:30 GMT");
    };
    link.start();
    for (const std::string setter : {"nobody", "http", "ntp", "user"}) {
        const std::string marker = "/tmp/.stime-by-" + setter;
        test::write_file(marker, "");
        interpose::reset(); // the clock cannot be set
        EXPECT_EQ(link.connect(), ATLS_OK);
        EXPECT_EQ(interpose::kept().clock_settings.size(), setter == "nobody" ? 2u : 0u) << setter;
        EXPECT_EQ(log_capture::contains("Looking up Date"), setter == "nobody") << setter;
        unlink(marker.c_str());
        atls_handle_cleanup(&link.handle);
    }
}

} // namespace
