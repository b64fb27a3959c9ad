// Inner TLS engine set-up: every fault of the device's identity and of the platform layer.

#include "identity.h"
#include "interpose.h"

#include <cstring>

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <syslog.h>
#include <unistd.h>

namespace
{

struct IdentityFault {
    const char *name;
    const char *make; // run in the identity's folder; D is the device's folder
    int result;
    friend std::ostream &operator<<(std::ostream &out, const IdentityFault &fault)
    {
        return out << fault.name;
    }

    const char *message; // of atls_add_mic_to_ctx; an ssl error line follows when it ends in ".."
};

class Engine : public testing::TestWithParam<IdentityFault>
{
protected:
    Engine()
    {
        strcpy(handle_->hostname, "host.example");
        handle_->port = 443;
        EXPECT_EQ(init_tl_curl(&handle_, "/", nullptr), ATLS_OK);
        interpose::reset();
    }

    void expect_empty() const
    {
        EXPECT_TRUE(!handle_->curl && !handle_->header_opts && !handle_->ssl && handle_->port == 0);
        EXPECT_EQ(handle_->hostname[0], '\0');
    }

    test::Device device_;
    atls_handle *&handle_ = device_.handle;
};

TEST_F(Engine, WritesAClientHelloFirst)
{
    ASSERT_EQ(init_al_ssl(&handle_), ATLS_OK);
    EXPECT_EQ(interpose::log_of(LOG_ERR), "");
    EXPECT_NE(SSL_get_mode(handle_->ssl) & SSL_MODE_AUTO_RETRY, 0);
    BIO *outgoing = SSL_get_wbio(handle_->ssl);
    EXPECT_EQ(BIO_ctrl_pending(outgoing), 0u);
    EXPECT_EQ(SSL_do_handshake(handle_->ssl), -1);
    char record[6] = {};
    ASSERT_EQ(BIO_read(outgoing, record, sizeof record), 6);
    EXPECT_TRUE(record[0] == 22 && record[5] == 1) << "a handshake record with a ClientHello";
}

TEST_F(Engine, NeedsATrustStore)
{
    unlink(device_.folder.path("truststore.pem").c_str());
    EXPECT_EQ(init_al_ssl(&handle_), ATLS_SETUP_FAILED);
    expect_empty();
    EXPECT_EQ(interpose::log_of(LOG_ERR),
              "init_al_ssl: Failed to set default Truststore option: tls_rc=>[3]");
    EXPECT_EQ(init_al_ssl(nullptr), ATLS_INVALID_INPUT);
    EXPECT_EQ(atls_add_mic_to_ctx(nullptr), ATLS_INVALID_INPUT);
}

TEST_F(Engine, UnwindsWhenAnObjectCannotBeMade)
{
    ASSERT_EQ(init_al_ssl(&handle_), ATLS_OK);
    const int bios = interpose::kept().calls["BIO_new"]; // the last two are the engine's
    const struct {
        const char *function;
        int nth;
        const char *message;
    } cases[] = {{"BIO_new", bios - 1, "Failed to create application layer in read buffer"},
                 {"BIO_new", bios, "Failed to create application layer in write buffer"},
                 {"SSL_new", 1, "Failed to create ATLS SSL object"}};
    for (const auto &wanted : cases) {
        atls_handle_cleanup(&handle_);
        interpose::reset();
        interpose::fail(wanted.function, wanted.nth);
        EXPECT_EQ(init_al_ssl(&handle_), ATLS_SETUP_FAILED);
        expect_empty();
        EXPECT_EQ(interpose::log_of(LOG_ERR), std::string("init_al_ssl: ") + wanted.message);
    }
}

TEST_P(Engine, RefusesAFaultyIdentity)
{
    const IdentityFault &fault = GetParam();
    test::run("cd " + test::identity().path("") + " && D=" + device_.folder.path("") + " && (" + fault.make +
              ") 2>/dev/null");
    // What other code left on the error queue is not what is logged.
    ERR_put_error(ERR_LIB_SSL, 0, SSL_R_BAD_LENGTH, "elsewhere", 1);
    EXPECT_EQ(init_al_ssl(&handle_), fault.result);
    if (fault.result == ATLS_OK)
        return;
    expect_empty();
    const std::string errors = interpose::log_of(LOG_ERR);
    const std::string message = std::string("atls_add_mic_to_ctx: ") + fault.message;
    const std::string last = "init_al_ssl: Failed to add fake cert/key into SSL CTX";
    EXPECT_EQ(errors.find(message + "\n"), 0u) << errors;
    EXPECT_EQ(errors.substr(errors.size() - last.size()), last);
    EXPECT_EQ(errors.find("bad length"), std::string::npos) << errors;
    const bool ssl_error = errors.find("\nlog_ssl_error: ssl error [") != std::string::npos;
    EXPECT_EQ(ssl_error, message.substr(message.size() - 2) == "..") << errors;
}

#define NEW_KEY "openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 "
#define NEW_EC_KEY "openssl ecparam -name prime256v1 -genkey -noout "

const char *const NO_MIC = "Failed Fetch the MIC";
const char *const BAD_MIC = "Failed to load MIC into an openssl X509 object";
const char *const NO_KEY = "Failed Fetch the PKEY";
const char *const BAD_KEY = "Failed to load pkey into an openssl EVP_PKEY object";
const char *const WRONG_KEY = " SSL_CTX_use_PrivateKey failed..";
// OpenSSL 1.1 decodes any kind of key from PKCS#8 and refuses it at the next step.
const char *const OTHER_KIND = OPENSSL_VERSION_NUMBER < 0x30000000L ? WRONG_KEY : BAD_KEY;

INSTANTIATE_TEST_SUITE_P(
    Identity, Engine,
    testing::Values(
        IdentityFault{"NoCertificate", "rm $D/device-cert.der", 2, NO_MIC},
        IdentityFault{"EmptyCertificate", ": >$D/device-cert.der", 2, NO_MIC},
        IdentityFault{"LargeCertificate", "head -c 4097 /dev/zero >$D/device-cert.der", 2, NO_MIC},
        IdentityFault{"CertificateIsAFolder", "rm $D/device-cert.der; mkdir $D/device-cert.der", 2, NO_MIC},
        IdentityFault{"GarbageCertificate", "head -c 4096 /dev/zero >$D/device-cert.der", 2, BAD_MIC},
        IdentityFault{"PemCertificate", "cp ca/unit-cert.pem $D/device-cert.der", 2, BAD_MIC},
        IdentityFault{"CertificateWithATail", "head -c 2000 /dev/urandom >>$D/device-cert.der", 0, ""},
        IdentityFault{"NoKey", "rm $D/device-key.der", 2, NO_KEY},
        IdentityFault{"EmptyKey", ": >$D/device-key.der", 2, NO_KEY},
        IdentityFault{"LargeKey", "head -c 4097 /dev/zero >$D/device-key.der", 2, NO_KEY},
        IdentityFault{"PemKey", "cp ca/unit-key.pem $D/device-key.der", 2, BAD_KEY},
        IdentityFault{"EcKey", NEW_EC_KEY "-outform DER -out $D/device-key.der", 2, BAD_KEY},
        IdentityFault{"OtherKey", NEW_KEY "| openssl rsa -outform DER -out $D/device-key.der", 2, WRONG_KEY},
        IdentityFault{"Pkcs8Key",
                      "openssl pkcs8 -topk8 -nocrypt -in ca/unit-key.pem -outform DER -out $D/device-key.der",
                      0, ""},
        IdentityFault{"OtherPkcs8Key", NEW_KEY "-outform DER -out $D/device-key.der", 2, WRONG_KEY},
        IdentityFault{"EcKeyAsPkcs8",
                      NEW_EC_KEY "| openssl pkcs8 -topk8 -nocrypt -outform DER -out $D/device-key.der", 2,
                      OTHER_KIND}),
    [](const auto &fault) { return std::string(fault.param.name); });

} // namespace
