// Connection and exchange against the reference service: lengths, statuses, cookies, refusals, odd answers.

#include "link.h"

#include <thread>

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

namespace
{

using atls_service::Reply;

bool has(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

void set_header(Reply &reply, const std::string &name, const std::string &value)
{
    reply.headers.erase(name);
    reply.headers.emplace(name, value);
}

class Connection : public testing::TestWithParam<int>
{
protected:
    bool tls13() const { return GetParam() == TLS1_3_VERSION; }

    void expect_empty() const
    {
        EXPECT_TRUE(!link_.handle->curl && !link_.handle->header_opts && !link_.handle->ssl);
        EXPECT_TRUE(link_.handle->hostname[0] == '\0' && link_.handle->port == 0);
    }

    test::Link link_{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(Tls, Connection, testing::Values(TLS1_2_VERSION, TLS1_3_VERSION),
                         [](const auto &version) { return version.param == TLS1_2_VERSION ? "12" : "13"; });

TEST_P(Connection, CarriesMessagesOfAnyLength)
{
    link_.start();
    for (const size_t size :
         {1, 14000, 16355, 16356, 16357, 16358, 16359, 16360, 16361, 16362, 16363, 20000, 1000000}) {
        ASSERT_EQ(link_.connect(), ATLS_OK);
        for (int i = 0; i < 2; i++) { // the first message, with what the handshake left, and a later one
            ASSERT_EQ(link_.exchange(test::pattern(size)), ATLS_OK) << size;
            EXPECT_TRUE(link_.body() == test::pattern(size)) << size;
            EXPECT_EQ(link_.body().data()[size], '\0');
        }
        atls_handle_cleanup(&link_.handle);
    }
}

TEST_P(Connection, NeedsTheLeastPostsAndOneTcpConnection)
{
    link_.start();
    ASSERT_EQ(link_.connect(), ATLS_OK);
    EXPECT_EQ(link_.posted().size(), tls13() ? 1u : 2u);
    long connects = 0;
    for (int i = 0; i < 10; i++) {
        ASSERT_EQ(link_.exchange("hello"), ATLS_OK);
        curl_easy_getinfo(link_.handle->curl, CURLINFO_NUM_CONNECTS, &connects);
        EXPECT_EQ(connects, 0);
    }
    EXPECT_EQ(link_.service().session_count(), 1u) << "the cookie led to the session each time";
    EXPECT_STREQ(link_.answer.tracking_id, "track");
    EXPECT_EQ(interpose::log_of(LOG_ERR), "");
    EXPECT_EQ(link_.connect(), ATLS_INVALID_INPUT);
    EXPECT_EQ(interpose::log_of(LOG_ERR), "atls_connect: Invalid Input Parameters...bad curl/ssl");
    EXPECT_EQ(link_.exchange("still connected"), ATLS_OK);
}

TEST_P(Connection, ReadsAnswersOfEveryLengthButFullRecords)
{
    link_.start();
    ASSERT_EQ(link_.connect(), ATLS_OK);
    for (const size_t size : {1, 100, 16383, 16384, 16385, 20000, 32768, 1048575, 1048577}) {
        link_.reply = size;
        const bool readable = size % 16384 != 0;
        EXPECT_EQ(link_.exchange("x"), readable ? ATLS_OK : ATLS_BAD_RESPONSE) << size;
        EXPECT_TRUE(link_.body() == (readable ? test::pattern(size) : "")) << size;
    }
}

TEST_P(Connection, SendsNothingStaleAfterAFailure)
{
    const struct {
        const char *function;
        int nth;
        bool lost; // a message was encrypted that never arrived
        const char *error;
    } cases[] = {{"curl_easy_setopt", 1, false, "Failed to set curl response body buffer"},
                 {"curl_easy_setopt", 2, false, "Failed to set curl response header buffer"},
                 {"curl_easy_setopt", 3, false, "Failed to set curl URI"},
                 {"curl_easy_setopt", 4, true, "Failed to set curl post body size"},
                 {"curl_easy_setopt", 5, true, "Failed to set curl post body"},
                 {"curl_easy_perform", 1, true, "Failed to preform post"}};
    link_.start();
    for (const auto &wanted : cases) {
        for (const bool first : {true, false}) {
            ASSERT_EQ(link_.connect(), ATLS_OK);
            ASSERT_EQ(first ? ATLS_OK : link_.exchange("one"), ATLS_OK);
            interpose::reset();
            interpose::fail(wanted.function, wanted.nth);
            EXPECT_EQ(link_.exchange(test::pattern(50000)), ATLS_EXCHANGE_FAILED);
            EXPECT_EQ(interpose::log_of(LOG_ERR), std::string("atls_easy_perform: ") + wanted.error);
            EXPECT_EQ(link_.exchange("two"), wanted.lost ? ATLS_BAD_RESPONSE : ATLS_OK);
            const bool alone = wanted.lost || !first; // else the flight of the handshake goes in front
            EXPECT_TRUE(!alone || link_.posted().back() < 100) << "one short record";
            EXPECT_EQ(link_.exchange("three"), wanted.lost ? ATLS_INVALID_INPUT : ATLS_OK);
            atls_handle_cleanup(&link_.handle);
        }
    }
}

TEST_P(Connection, TellsHandshakeResponsesApart)
{
    const struct {
        std::function<void(Reply &)> tamper;
        int result;
        const char *error;
    } cases[] = {
        {[](Reply &reply) { reply.status = 400; }, 4,
         "Failed to get valid server response status_code=>[400]"},
        {[](Reply &reply) { reply.status = 403; }, 7,
         "Failed to get valid server response status_code=>[403]"},
        {[](Reply &reply) { reply.status = 302; }, 7,
         "Failed to get valid server response status_code=>[302]"},
        {[](Reply &reply) { reply.body.clear(); }, 3, "Failed to receieve handshake response"},
        {[](Reply &reply) { set_header(reply, "Set-Cookie", std::string(1023, 'c')); }, 4,
         "Failed to get ATLS cookies"},
        {[](Reply &reply) { reply.body = "garbage"; }, 3,
         "Failed to read ATLS flight from BIO bytes read=>[-1]"},
    };
    link_.start();
    for (const auto &wanted : cases) {
        interpose::reset();
        link_.tamper = wanted.tamper;
        EXPECT_EQ(link_.connect(), wanted.result) << wanted.error;
        expect_empty();
        EXPECT_EQ(interpose::log_of(LOG_ERR),
                  std::string("atls_handshake: ") + wanted.error +
                      "\natls_connect: Failed to complete ATLS Handshake: atls_rc=>[" +
                      std::to_string(wanted.result) + "]");
    }
    link_.tamper = nullptr;
    EXPECT_EQ(link_.connect(), ATLS_OK) << "the emptied handle can be connected again";
}

TEST_P(Connection, HandsBackOddAnswers)
{
    const std::string encrypted = "Content-Type: application/octet-stream";
    const std::string long_id(65, 'i');
    const struct {
        const char *name;
        std::function<void(Reply &)> tamper;
        int result;
        long status;
        bool decrypted;
        int next; // result of the exchange after it
    } cases[] = {
        {"lower case",
         [](Reply &r) {
             r.headers.erase("Content-Type");
             set_header(r, "content-type", "application/octet-stream");
         },
         0, 200, false, 4},
        {"not encrypted",
         [](Reply &r) {
             r.status = 500;
             set_header(r, "Content-Type", "text/plain");
         },
         0, 500, false, 4},
        {"error status", [](Reply &r) { r.status = 503; }, 0, 503, true, 0},
        {"no body", [](Reply &r) { r.body.clear(); }, 6, 0, false, 4},
        {"huge header",
         [](Reply &r) {
             for (int i = 10; i < 22; i++)
                 set_header(r, "A-" + std::to_string(i), std::string(5000, 'a'));
         },
         0, 200, true, 0},
        {"long identifier", [&](Reply &r) { set_header(r, "TrackingID", long_id); }, 0, 200, true, 0},
        {"long cookies", [](Reply &r) { set_header(r, "Set-Cookie", std::string(1023, 'c')); }, 4, 0, false,
         4},
        {"garbage", [](Reply &r) { r.body = "garbage that is no record"; }, 4, 0, false, 1},
        {"cut record", [](Reply &r) { r.body.pop_back(); }, 4, 0, false, 4},
        {"doubled", [](Reply &r) { r.body += r.body; }, 0, 200, true, 4},
    };
    link_.start();
    for (const auto &wanted : cases) {
        SCOPED_TRACE(wanted.name);
        atls_handle_cleanup(&link_.handle);
        ASSERT_EQ(link_.connect(), ATLS_OK);
        ASSERT_EQ(link_.exchange("one"), ATLS_OK);
        link_.tamper = wanted.tamper;
        EXPECT_EQ(link_.exchange("two"), wanted.result);
        EXPECT_EQ(link_.answer.status_code, wanted.status);
        EXPECT_EQ(link_.body() == "two", wanted.decrypted);
        EXPECT_EQ(link_.answer.header != nullptr, wanted.result == 0);
        link_.tamper = nullptr;
        EXPECT_EQ(link_.exchange("three"), wanted.next);
    }
}

TEST_P(Connection, EndsWhenACertificateIsRefused)
{
    const test::Folder &identity = test::identity();
    link_.options.inner.device_ca = identity.path("ca/service-cert.pem"); // not the device's
    link_.start();
    EXPECT_EQ(link_.connect(), tls13() ? ATLS_OK : ATLS_HANDSHAKE_FAILED);
    if (tls13()) { // the refusal comes with the first answer
        EXPECT_EQ(link_.exchange("one"), ATLS_BAD_RESPONSE);
        EXPECT_EQ(link_.exchange("two"), ATLS_INVALID_INPUT);
    }
    EXPECT_TRUE(
        has(link_.service_log(), "device certificate /CN=Throwaway device: unable to get local issuer"));
    EXPECT_TRUE(has(link_.service_log(), "alert sent: unknown CA"));
    atls_handle_cleanup(&link_.handle);
    link_.stop();

    test::run("cp " + identity.path("ca/device-cert.pem") + " " + link_.folder.path("truststore.pem"));
    link_.start();
    EXPECT_EQ(link_.connect(), ATLS_HANDSHAKE_FAILED) << "the service is not trusted";
    EXPECT_TRUE(has(link_.service_log(), "alert received: unknown CA")) << link_.service_log();
}

TEST_P(Connection, LosesASessionThatTheServiceDropped)
{
    link_.options.max_sessions = 1;
    link_.options.idle_limit = std::chrono::seconds(1);
    link_.start();
    ASSERT_EQ(link_.connect(), ATLS_OK);
    ASSERT_EQ(link_.exchange("one"), ATLS_OK);
    while (link_.service().session_count() != 0)
        usleep(20000);
    EXPECT_TRUE(has(link_.service_log(), "dropped: idle"));
    EXPECT_EQ(link_.exchange("two"), ATLS_BAD_RESPONSE);

    atls_handle_cleanup(&link_.handle);
    ASSERT_EQ(link_.connect(), ATLS_OK);
    test::Link other;
    ASSERT_EQ(atls_connect(&other.handle, "127.0.0.1", nullptr, link_.service().port(), "/atls", nullptr),
              ATLS_OK);
    EXPECT_TRUE(has(link_.service_log(), "dropped: too many sessions"));
    EXPECT_EQ(link_.exchange("three"), ATLS_BAD_RESPONSE);
}

TEST_P(Connection, ServesEightThreadsAtOnce)
{
    link_.start();
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; i++)
        threads.emplace_back([this, i] {
            atls_handle *handle = create_atls_handle();
            atls_resp answer = {};
            EXPECT_EQ(atls_connect(&handle, nullptr, "127.0.0.1", link_.service().port(), "/atls", nullptr),
                      ATLS_OK);
            for (int n = 0; n < 20; n++) {
                const std::string message = std::to_string(i) + ":" + std::to_string(n);
                EXPECT_EQ(atls_easy_perform(handle, message.data(), static_cast<int>(message.size()), "/atls",
                                            &answer),
                          ATLS_OK);
                EXPECT_EQ(std::string(answer.body, answer.body_len), message);
            }
            cleanup_atls_resp(&answer);
            free_atls_handle(handle);
        });
    for (std::thread &thread : threads)
        thread.join();
}

TEST(ConnectionSequence, ChecksArgumentsInOrder)
{
    test::Link link;
    const std::string too_long(512, 'h');
    const struct {
        const char *host, *ip;
        int port;
        const char *service;
        int result;
        const char *error;
    } cases[] = {
        {nullptr, nullptr, 0, "/", 1, "Invalid Input Parameters...bad handle/host/ip/service"},
        {"h", nullptr, 0, nullptr, 1, "Invalid Input Parameters...bad handle/host/ip/service"},
        {"h", nullptr, 65536, "/", 1, "Invalid Input Parameters...bad port"},
        {too_long.c_str(), nullptr, 1, "/", 2, "Failed to initialize handle hostname"},
        {"", "127.0.0.1", 1, "/", 1, "Failed to Initialize transport layer curl: atls_rc=>[1]"},
    };
    for (const auto &wanted : cases) {
        interpose::reset();
        EXPECT_EQ(atls_connect(&link.handle, wanted.host, wanted.ip, wanted.port, wanted.service, nullptr),
                  wanted.result);
        EXPECT_TRUE(
            has(interpose::log_of(LOG_ERR) + "\n", std::string("atls_connect: ") + wanted.error + "\n"));
        EXPECT_TRUE(link.handle->port == 0 && link.handle->hostname[0] == '\0');
    }
    EXPECT_EQ(atls_connect(nullptr, "h", nullptr, 1, "/", nullptr), ATLS_INVALID_INPUT);
}

TEST(Exchange, ChecksArgumentsInOrder)
{
    test::Link link;
    link.start();
    EXPECT_EQ(link.exchange("x"), ATLS_INVALID_INPUT) << "not connected";
    ASSERT_EQ(link.connect(), ATLS_OK);
    ASSERT_EQ(link.exchange("first"), ATLS_OK);
    interpose::reset();
    atls_resp *answer = &link.answer;
    EXPECT_EQ(atls_easy_perform(nullptr, "m", 1, "/", answer), ATLS_INVALID_INPUT);
    EXPECT_EQ(atls_easy_perform(link.handle, nullptr, 1, "/", answer), ATLS_INVALID_INPUT);
    EXPECT_EQ(atls_easy_perform(link.handle, "m", 0, "/", answer), ATLS_INVALID_INPUT);
    EXPECT_EQ(atls_easy_perform(link.handle, "m", 1, nullptr, nullptr), ATLS_INVALID_INPUT);
    EXPECT_EQ(atls_easy_perform(link.handle, "m", 1, "/", nullptr), ATLS_INVALID_INPUT);
    EXPECT_EQ(interpose::log_of(LOG_ERR),
              "atls_easy_perform: Invalid Input Parameters...bad handle\n"
              "atls_easy_perform: Invalid Input Parameters...bad msg/msg_len/service\n"
              "atls_easy_perform: Invalid Input Parameters...bad msg/msg_len/service\n"
              "atls_easy_perform: Invalid Input Parameters...bad msg/msg_len/service\n"
              "atls_easy_perform: Invalid Output Parameters...bad atls_resp");
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
    int next = 1;
    while (access(file("sent", next).c_str(), F_OK) == 0)
        next++;
    ASSERT_EQ(mkdir(file("received", next).c_str(), 0700), 0);
    ASSERT_EQ(link.connect(), ATLS_OK);
    EXPECT_EQ(test::read_file(file("sent", next)).size(), link.posted()[0]);
    EXPECT_EQ(test::read_file(file("sent", next + 1)).size(), link.posted()[1]);
    EXPECT_EQ(interpose::log_of(LOG_ERR).find("save_received_handshake_data: Failed to open " +
                                              file("received", next) +
                                              " for write, error:Is a directory(21)\n"),
              0u);
    rmdir(file("received", next).c_str());
    atls_handle_cleanup(&link.handle);
    ASSERT_EQ(link.connect(), ATLS_OK);
    EXPECT_EQ(test::read_file(file("received", next)), received[2]);
    EXPECT_EQ(test::read_file(file("received", next + 1)), received[3]);
    interpose::reset();
    save_posted_handshake_data(nullptr, 1);
    save_posted_handshake_data("x", 0);
    EXPECT_EQ(interpose::log_of(LOG_ERR),
              "save_posted_handshake_data: data is null\nsave_posted_handshake_data: length is zero");
}

// The Date header is looked at in each cycle until one of three files says that the clock has been set.
TEST(Handshake, SetsTheClockUnlessItIsSet)
{
    const std::string look_up = "atls_handshake: timer not sync by ntp/user/http, check Date header";
    test::Link link(TLS1_2_VERSION); // two cycles
    link.tamper = [](Reply &reply) { set_header(reply, "Date", "Wed, 18 Nov 2037 10:20:30 GMT"); };
    link.start();
    const auto looked_up = [&](bool settable) {
        interpose::reset(0, 0, settable);
        EXPECT_EQ(link.connect(), ATLS_OK);
        atls_handle_cleanup(&link.handle);
        return interpose::kept().clock_settings.size();
    };
    EXPECT_EQ(looked_up(false), 2u);
    EXPECT_EQ(looked_up(true), 1u) << "the marker is there in the second cycle";
    for (const char *marker : {"/tmp/.stime-by-http", "/tmp/.stime-by-ntp", "/tmp/.stime-by-user"}) {
        test::write_file(marker, "");
        EXPECT_EQ(looked_up(true), 0u) << marker;
        EXPECT_FALSE(has(interpose::log_of(LOG_NOTICE), look_up));
        unlink(marker);
    }
}

} // namespace
