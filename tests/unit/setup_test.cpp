// Handles, transport set-up and engine set-up: layout, options in order, unwinding, faults of the device's
// identity.

#include "link.h"

#include <cstddef>
#include <cstring>

#include <openssl/err.h>
#include <syslog.h>
#include <unistd.h>

namespace
{

// Programs are compiled against this layout.
constexpr size_t WORD = sizeof(void *);
static_assert(offsetof(atls_handle, port) == 512 && offsetof(atls_handle, proxyUrlList) == 512 + WORD);
static_assert(offsetof(atls_handle, curl) == 512 + 3 * WORD && sizeof(atls_handle) == 512 + 6 * WORD);
static_assert(offsetof(atls_resp, tracking_id) == 5 * WORD && sizeof(atls_resp) == 6 * WORD);

class Setup : public testing::Test
{
protected:
    Setup() { name_server("host.example"); }

    void name_server(const std::string &host, int port = 8443)
    {
        snprintf(handle_->hostname, sizeof handle_->hostname, "%s", host.c_str());
        handle_->port = port;
        interpose::reset();
    }
    bool empty() const
    {
        return !handle_->curl && !handle_->header_opts && !handle_->ssl && !handle_->port &&
               !*handle_->hostname;
    }
    std::vector<std::string> headers() const
    {
        std::vector<std::string> lines;
        for (const curl_slist *line = handle_->header_opts; line; line = line->next)
            lines.push_back(line->data);
        return lines;
    }

    test::Device device_;
    atls_handle *&handle_ = device_.handle;
};

TEST_F(Setup, CleanupEmptiesAHandleButForItsProxyList)
{
    ASSERT_EQ(init_tl_curl(&handle_, "/", nullptr) + init_al_ssl(&handle_), ATLS_OK);
    handle_->proxyUrlCount = 2; // released by free_atls_handle: a leak is LeakSanitizer's to find
    handle_->proxyUrlList = static_cast<char **>(calloc(2, WORD));
    handle_->proxyUrlList[1] = strdup("p:1");
    atls_handle_cleanup(&handle_);
    EXPECT_TRUE(empty());
    EXPECT_STREQ(handle_->proxyUrlList[1], "p:1");
    atls_resp answer = {nullptr, 5, strdup("h"), 1, 500, strdup("id")};
    cleanup_atls_resp(&answer);
    EXPECT_TRUE(answer.body_len == 5 && answer.header_len == 0 && answer.status_code == 0 &&
                !answer.tracking_id);
}

TEST_F(Setup, SetsOptionsAndHeadersInOrder)
{
    handle_->proxyUrlCount = 1; // of an earlier connection: it must be released
    handle_->proxyUrlList = static_cast<char **>(calloc(1, WORD));
    ASSERT_EQ(init_tl_curl(&handle_, "/atls", "track"), ATLS_OK);
    const decltype(interpose::State::options) expected = {{CURLOPT_VERBOSE, "1"},
                                                          {CURLOPT_ERRORBUFFER, ""},
                                                          {CURLOPT_URL, "https://host.example:8443/atls"},
                                                          {CURLOPT_SSL_VERIFYPEER, "0"},
                                                          {CURLOPT_SSL_VERIFYHOST, "0"},
                                                          {CURLOPT_TIMEOUT_MS, "30000"},
                                                          {CURLOPT_HTTPHEADER, ""},
                                                          {CURLOPT_HTTP_VERSION, "2"},
                                                          {CURLOPT_SUPPRESS_CONNECT_HEADERS, "1"}};
    EXPECT_EQ(interpose::kept().options, expected);
    EXPECT_EQ(headers(), (std::vector<std::string>{"Content-Type: application/octet-stream",
                                                   "User-Agent: Halvo-Desktop/desktop-1.0",
                                                   "TrackingID: track", "Accept:", "Expect:"}));
    EXPECT_TRUE(!handle_->proxyUrlList && handle_->proxyUrlCount == 0);
}

TEST_F(Setup, CutsLongTextsAndRefusesBadAddresses)
{
    name_server(std::string(511, 'h'));
    const std::string path = "/" + std::string(2000, 's');
    ASSERT_EQ(init_tl_curl(&handle_, path.c_str(), path.c_str()), ATLS_OK);
    EXPECT_EQ(interpose::kept().options[2].second,
              ("https://" + std::string(511, 'h') + ":8443" + path).substr(0, 1023));
    EXPECT_EQ(headers()[2], ("TrackingID: " + path).substr(0, 1023));
    atls_handle_cleanup(&handle_);
    for (const auto &[host, port] : {std::pair("h", 0), {"h", -1}, {"h", 65536}, {"", 443}}) {
        name_server(host, port);
        EXPECT_EQ(init_tl_curl(&handle_, "/", nullptr), ATLS_INVALID_INPUT) << port;
        EXPECT_EQ(interpose::log_of(LOG_ERR), "init_tl_curl: Invalid Input Parameters...bad host/port");
    }
}

// Every call of the set-up that can fail is made to, one after the other.
TEST_F(Setup, UnwindsEveryFailure)
{
    ASSERT_EQ(init_tl_curl(&handle_, "/", "track") + init_al_ssl(&handle_), ATLS_OK);
    const auto calls = interpose::kept().calls;
    for (const auto &[function, count] : calls) {
        const bool engine = function == "BIO_new" || function == "SSL_new";
        // Two of the options only help; of the BIOs the last two are the engine's.
        for (int nth = function == "BIO_new" ? count - 1 : 1;
             nth <= (count > 8 && !engine ? count - 2 : count); nth++) {
            SCOPED_TRACE(function + std::to_string(nth));
            atls_handle_cleanup(&handle_);
            name_server("host.example");
            interpose::fail(function, nth);
            const int transport = init_tl_curl(&handle_, "/", "track");
            EXPECT_EQ(transport, engine ? ATLS_OK : ATLS_SETUP_FAILED);
            EXPECT_EQ(engine ? init_al_ssl(&handle_) : transport, ATLS_SETUP_FAILED);
            EXPECT_TRUE(!handle_->curl && !handle_->header_opts && !handle_->ssl);
            const std::string errors = interpose::log_of(LOG_ERR);
            EXPECT_EQ(errors.find(engine ? "init_al_ssl: Failed to create" : "init_tl_curl: "), 0u) << errors;
            EXPECT_EQ(errors.find("\nCurl error [48] maps to") != std::string::npos,
                      function == "curl_easy_setopt");
        }
    }
}

// The text is built once per process: each case runs in a process of its own.
TEST(UserAgent, IsMadeOfModelAndLoad)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    const std::string digits = "0123456789012345678901234567890123456789";
    const std::vector<std::array<std::string, 3>> cases = {
        {"Model", "fw-1.2.3.loads.tail.loads", "Halvo-Model/fw-1.2.3"},
        {"M", digits, "Halvo-M/0123456789012345678901234567890"},
        {"0123456789abcdefghijklmno", digits, "Halvo-0123456789abcdefghi/012345678901234567890"},
        {"", "", "Halvo-unknown/unknown"}};
    for (const auto &[model, load, expected] : cases) {
        const auto is_built = [&, &model = model, &load = load, &expected = expected] {
            const test::Folder folder;
            setenv("ATLS_PLATFORM_DIR", folder.root.c_str(), 1);
            test::write_file(folder.path("device-model"), model);
            test::write_file(folder.path("load-id"), load);
            const std::string built = atls_get_user_agent();
            test::write_file(folder.path("device-model"), "Other");
            return built == expected && built == atls_get_user_agent();
        };
        EXPECT_EXIT(_exit(is_built() ? 0 : 1), testing::ExitedWithCode(0), "") << expected;
    }
}

struct IdentityFault {
    const char *name;
    const char *make; // run in the folder of the identity; D is the device's
    const char
        *message; // the first error; a text that ends in ".." is followed by the ssl error; "": no fault
    friend std::ostream &operator<<(std::ostream &out, const IdentityFault &fault)
    {
        return out << fault.name;
    }
};

class Identity : public Setup, public testing::WithParamInterface<IdentityFault>
{
};

TEST_P(Identity, IsChecked)
{
    const IdentityFault &fault = GetParam();
    test::run("cd " + test::identity("") + " && D=" + device_.folder.root + " && (" + fault.make +
              ") 2>/dev/null");
    ASSERT_EQ(init_tl_curl(&handle_, "/", nullptr), ATLS_OK);
    ERR_put_error(ERR_LIB_SSL, 0, SSL_R_BAD_LENGTH, "elsewhere",
                  1); // of other code: not to be logged as the reason
    const std::string message = fault.message;
    EXPECT_EQ(init_al_ssl(&handle_), message.empty() ? ATLS_OK : ATLS_SETUP_FAILED);
    EXPECT_EQ(empty(), !message.empty());
    const std::string errors = interpose::log_of(LOG_ERR);
    EXPECT_EQ(errors.find(message), 0u) << errors;
    EXPECT_EQ(errors.find("bad length"), std::string::npos) << errors;
    EXPECT_EQ(errors.find("ssl error") != std::string::npos, message.find("..") != std::string::npos)
        << errors;
    const bool passed_on =
        errors.find("init_al_ssl: Failed to add fake cert/key into SSL CTX") != std::string::npos;
    EXPECT_EQ(passed_on, message.find("atls_add_mic") == 0) << errors;
}

#define NEW_KEY "openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 "
#define NEW_EC_KEY "openssl ecparam -name prime256v1 -genkey -noout "
#define TO_KEY "-outform DER -out $D/device-key.der"
#define TO_PKCS8 "openssl pkcs8 -topk8 -nocrypt " TO_KEY

const char *const NO_MIC = "atls_add_mic_to_ctx: Failed Fetch the MIC\n";
const char *const BAD_MIC = "atls_add_mic_to_ctx: Failed to load MIC into an openssl X509 object\n";
const char *const NO_KEY = "atls_add_mic_to_ctx: Failed Fetch the PKEY\n";
const char *const BAD_KEY = "atls_add_mic_to_ctx: Failed to load pkey into an openssl EVP_PKEY object\n";
const char *const WRONG_KEY =
    "atls_add_mic_to_ctx:  SSL_CTX_use_PrivateKey failed..\nlog_ssl_error: ssl error [";
// OpenSSL 1.1 decodes any kind of key from PKCS#8 and refuses it at the next step.
const char *const OTHER_KIND = OPENSSL_VERSION_NUMBER < 0x30000000L ? WRONG_KEY : BAD_KEY;

INSTANTIATE_TEST_SUITE_P(
    , Identity,
    testing::Values(
        IdentityFault{"NoTrustStore", "rm $D/truststore.pem",
                      "init_al_ssl: Failed to set default Truststore option: tls_rc=>[3]"},
        IdentityFault{"NoCertificate", "rm $D/device-cert.der", NO_MIC},
        IdentityFault{"EmptyCertificate", ": >$D/device-cert.der", NO_MIC},
        IdentityFault{"LargeCertificate", "head -c 4097 /dev/zero >$D/device-cert.der", NO_MIC},
        IdentityFault{"CertificateIsAFolder", "rm $D/device-cert.der; mkdir $D/device-cert.der", NO_MIC},
        IdentityFault{"GarbageCertificate", "head -c 4096 /dev/zero >$D/device-cert.der", BAD_MIC},
        IdentityFault{"PemCertificate", "cp ca/unit-cert.pem $D/device-cert.der", BAD_MIC},
        IdentityFault{"CertificateWithATail", "head -c 2000 /dev/urandom >>$D/device-cert.der", ""},
        IdentityFault{"NoKey", "rm $D/device-key.der", NO_KEY},
        IdentityFault{"LargeKey", "head -c 4097 /dev/zero >$D/device-key.der", NO_KEY},
        IdentityFault{"PemKey", "cp ca/unit-key.pem $D/device-key.der", BAD_KEY},
        IdentityFault{"EcKey", NEW_EC_KEY TO_KEY, BAD_KEY},
        IdentityFault{"EcKeyAsPkcs8", NEW_EC_KEY "| " TO_PKCS8, OTHER_KIND},
        IdentityFault{"OtherKey", NEW_KEY "| openssl rsa " TO_KEY, WRONG_KEY},
        IdentityFault{"OtherPkcs8Key", NEW_KEY TO_KEY, WRONG_KEY},
        IdentityFault{"Pkcs8Key", TO_PKCS8 " -in ca/unit-key.pem", ""}),
    [](const auto &fault) { return std::string(fault.param.name); });

} // namespace
