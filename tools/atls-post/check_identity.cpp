// Steps of --check that need no network: who the device is, and whom it trusts.

#include <array>
#include <cstdlib>

#include <dlfcn.h>
#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/x509.h>

#include "check_steps.h"
#include "identity.h"

extern "C" int atls_add_mic_to_ctx(SSL_CTX *ctx); // exported by the library for programs of this kind

namespace
{

constexpr long long DAY = 86400;

std::string text_of(const ASN1_TIME *time)
{
    const std::unique_ptr<BIO, decltype(&BIO_free)> out(BIO_new(BIO_s_mem()), BIO_free);
    std::array<char, 64> text{};
    if (out && ASN1_TIME_print(out.get(), time) == 1)
        BIO_read(out.get(), text.data(), static_cast<int>(text.size()) - 1);
    return text.data();
}

// Seconds from one time to another, negative when that is earlier.
long long seconds_until(const ASN1_TIME *time, time_t from)
{
    const std::unique_ptr<ASN1_TIME, decltype(&ASN1_TIME_free)> start(ASN1_TIME_set(nullptr, from),
                                                                      ASN1_TIME_free);
    int days = 0, seconds = 0;
    if (!start || ASN1_TIME_diff(&days, &seconds, start.get(), time) != 1)
        return 0;
    return days * DAY + seconds;
}

// The fault of a certificate's dates at some time; empty if there is none.
std::string date_fault(const X509 *certificate, time_t now)
{
    if (seconds_until(X509_get0_notBefore(certificate), now) > 0)
        return "not valid before " + text_of(X509_get0_notBefore(certificate));
    if (seconds_until(X509_get0_notAfter(certificate), now) <= 0)
        return "expired on " + text_of(X509_get0_notAfter(certificate));
    return "";
}

Finding judge_dates(World &world, const X509 *certificate)
{
    const std::string name = name_text(X509_get_subject_name(certificate));
    const time_t now = time(nullptr);
    const std::string fault = date_fault(certificate, now);
    if (fault.empty()) {
        const long long days = seconds_until(X509_get0_notAfter(certificate), now) / DAY;
        const std::string detail = name + ", its key fits, valid until " +
                                   text_of(X509_get0_notAfter(certificate)) + ", " + std::to_string(days) +
                                   " days left";
        return days < world.settings.warn_days ? warning(detail, "renew the device certificate") : ok(detail);
    }
    // It may be the clock that is wrong: a device without a battery wakes up in the past.
    const auto date = world.front_end().date;
    if (date && date_fault(certificate, *date).empty())
        return warning(name + ": " + fault + " by this clock, valid by that of the service",
                       "see the clock, below");
    return wrong(name + ": " + fault, "give the device a new certificate, or set its clock");
}

struct Authorities {
    int count = 0;
    int valid = 0;
    std::string faults;
};

Authorities look_at_authorities(const SSL_CTX *context, time_t now)
{
    Authorities found;
    const STACK_OF(X509_OBJECT) *objects = X509_STORE_get0_objects(SSL_CTX_get_cert_store(context));
    for (int i = 0; i < sk_X509_OBJECT_num(objects); i++) {
        const X509 *ca = X509_OBJECT_get0_X509(sk_X509_OBJECT_value(objects, i));
        if (!ca)
            continue;
        const std::string fault = date_fault(ca, now);
        found.count++;
        found.valid += fault.empty() ? 1 : 0;
        if (!fault.empty())
            found.faults += "; " + name_text(X509_get_subject_name(ca)) + ": " + fault;
    }
    return found;
}

} // namespace

std::string identity_place()
{
    Dl_info info = {};
    void *function = dlsym(RTLD_DEFAULT, "secstore_get_device_cert");
    const bool found = function && dladdr(function, &info) != 0 && info.dli_fname;
    const char *folder = getenv("ATLS_PLATFORM_DIR");
    return std::string("platform library ") + (found ? info.dli_fname : "unknown") +
           (folder ? std::string(", ATLS_PLATFORM_DIR is ") + folder
                   : std::string(", ATLS_PLATFORM_DIR is not set: the stand-in reads /etc/atls"));
}

SSL_CTX *World::security_context()
{
    if (!context_) {
        tlsplat_sec_ctx made = nullptr;
        if (tlsplat_api_init() != 0 || tlsplat_create_sec_ctx(&made) != 0)
            return nullptr;
        context_.reset(made);
        truststore_result = tlsplat_setopt_sec_ctx(made, TLSPLAT_OPT_DEFAULT_TRUSTSTORE, 1);
    }
    const tlsplat_pvt_ctx *record = tlsplat_get_ssl_ctx(context_.get());
    return record ? record->ssl_ctx : nullptr;
}

Finding find_identity(World &world)
{
    const std::string place = identity_place();
    if (!world.security_context())
        return wrong(place + ": it gives no TLS context", "ask whoever made the platform library");
    secstore_init_ssl_lib();
    std::array<unsigned char, 4096> buffer{};
    auto length = static_cast<uint32_t>(buffer.size());
    const bool has_certificate = secstore_get_device_cert(0, buffer.data(), &length) == 0;
    length = static_cast<uint32_t>(buffer.size());
    const bool has_key = secstore_get_private_key(0, buffer.data(), &length) == 0;
    OPENSSL_cleanse(buffer.data(), buffer.size());
    if (has_certificate && has_key)
        return ok(place);
    return wrong(
        place + (has_certificate ? "" : ": no device certificate") +
            (has_key ? "" : std::string(has_certificate ? ":" : ",") + " no device key"),
        "put device-cert.der and device-key.der, at most 4096 bytes each, there and let this user read "
        "them; on a device, see to its secure storage");
}

Finding check_certificate(World &world)
{
    SSL_CTX *context = world.security_context();
    if (atls_add_mic_to_ctx(context) != ATLS_OK)
        return wrong(world.explanation.reason(),
                     "install the certificate and the RSA key that belong together, as DER");
    return judge_dates(world, SSL_CTX_get0_certificate(context));
}

Finding check_trust_store(World &world)
{
    SSL_CTX *context = world.security_context();
    if (world.truststore_result != 0)
        return wrong("the platform cannot set it, code " + std::to_string(world.truststore_result),
                     "put a readable PEM file of CAs there: truststore.pem for the stand-in");
    Authorities found = look_at_authorities(context, time(nullptr));
    if (found.valid < found.count) // unless it is the clock
        if (const auto date = world.front_end().date)
            found = look_at_authorities(context, *date);
    const std::string detail = std::to_string(found.count) + (found.count == 1 ? " CA, " : " CAs, ") +
                               std::to_string(found.valid) + " valid" + found.faults;
    if (found.count == 0)
        return warning("no CA is to be seen in it", "make sure that the platform finds them");
    if (found.valid == 0)
        return wrong(detail, "install the CA of the service");
    return found.valid < found.count ? warning(detail, "remove what has ended") : ok(detail);
}
