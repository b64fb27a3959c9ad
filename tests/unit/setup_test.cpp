// Transport set-up and engine set-up: the request, proxies, signals, the end of the program, faults of the device's
// identity.

#include "link.h"
#include "proxy_double.h"

#include <atomic>
#include <csignal>
#include <cstring>
#include <fstream>
#include <thread>

#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

namespace
{

using proxy_double::Answer;

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
    // The request's header lines, each with a bar behind it.
    std::string headers() const
    {
        std::string lines;
        for (const curl_slist *line = handle_->header_opts; line; line = line->next)
            lines += line->data + std::string("|");
        return lines;
    }

    test::Device device_;
    atls_handle *&handle_ = device_.handle;
};

TEST_F(Setup, PreparesTheRequest)
{
    interpose::arm(2); // behind curl_easy_init
    interpose::inside = true;
    EXPECT_EQ(init_tl_curl(&handle_, "/atls", "track"), ATLS_SETUP_FAILED);
    interpose::inside = false;
    interpose::arm(0);
    EXPECT_TRUE(log_capture::contains("Curl error [48] maps to")) << interpose::failed;

    handle_->proxyUrlCount = 1; // of an earlier connection: it must be released
    handle_->proxyUrlList = static_cast<char **>(calloc(1, sizeof(char *)));
    ASSERT_EQ(init_tl_curl(&handle_, "/atls", "track"), ATLS_OK);
    EXPECT_TRUE(!handle_->proxyUrlList && handle_->proxyUrlCount == 0);
    auto options = interpose::kept().options;
    EXPECT_EQ(options[CURLOPT_URL], "https://host.example:8443/atls");
    EXPECT_EQ(options[CURLOPT_TIMEOUT_MS], "30000");
    EXPECT_EQ(options[CURLOPT_SUPPRESS_CONNECT_HEADERS] + options[CURLOPT_NOSIGNAL], "11");
    EXPECT_EQ(headers(), "Content-Type: application/octet-stream|User-Agent: Halvo-Desktop/desktop-1.0|"
                         "TrackingID: track|Accept:|Expect:|");

    for (const char *line : {"cookie: kept", "Set-Cookie: kept"})
        handle_->header_opts = curl_slist_append(handle_->header_opts, line);
    const std::string others = headers();
    for (const std::string &cookies :
         {std::string("old=1"), std::string(2000, 'c'), std::string("n=1;m=2")}) {
        EXPECT_EQ(atls_set_cookies(&handle_, cookies.c_str()), ATLS_OK);
        EXPECT_EQ(headers(), others + "Cookie: " + cookies.substr(0, 1015) + "|");
    }
}

TEST_F(Setup, CutsLongTextsAndRefusesBadAddresses)
{
    const std::string name(511, 'h'), path = "/" + std::string(2000, 's');
    name_server(name);
    ASSERT_EQ(init_tl_curl(&handle_, path.c_str(), path.c_str()), ATLS_OK);
    EXPECT_EQ(interpose::kept().options[CURLOPT_URL], ("https://" + name + ":8443" + path).substr(0, 1023));
    EXPECT_NE(headers().find("|TrackingID: " + path.substr(0, 1011) + "|"), std::string::npos);
    atls_handle_cleanup(&handle_);
    name_server("h", 65536);
    EXPECT_EQ(init_tl_curl(&handle_, "/", nullptr), ATLS_INVALID_INPUT);
    EXPECT_EQ(log_capture::log_of(LOG_ERR), "init_tl_curl: Invalid Input Parameters...bad host/port");
}

TEST_F(Setup, KeepsTheSignalsOfFailedWritesFromTheProgram)
{
    name_server("127.0.0.1", 1);
    ASSERT_EQ(init_tl_curl(&handle_, "/", nullptr), ATLS_OK);
    const auto write = [&] {
        signal(SIGPIPE, SIG_DFL); // whoever started the tests may ignore it
        signal(SIGXFSZ, SIG_DFL);
        const rlimit largest_file = {};
        setrlimit(RLIMIT_FSIZE, &largest_file);
        save_posted_handshake_data("flight", 6);
        _exit(post_with_failover("test", handle_) != CURLE_OK ? 0 : 1);
    };
    EXPECT_EXIT(write(), testing::ExitedWithCode(0), "");
}

TEST_F(Setup, DumpsInTheChildOfAForkDuringADump)
{
    const char *slow = "/tmp/atls_handshake_data_sent_1"; // the first of this process
    unlink(slow);
    mkfifo(slow, 0600);
    pollfd reader = {open(slow, O_RDONLY | O_NONBLOCK), POLLIN, 0};
    const std::string large(1000000, 'x');
    std::thread writer(save_posted_handshake_data, large.data(), large.size());
    EXPECT_EQ(poll(&reader, 1, 10000), 1);
    const pid_t child = fork();
    if (child == 0) {
        alarm(10);
        save_posted_handshake_data("flight", 6);
        _exit(0);
    }
    waitpid(child, nullptr, 0);
    EXPECT_EQ(test::read_file("/tmp/atls_handshake_data_sent_2"), "flight");
    close(reader.fd);
    writer.join();
}

// OpenSSL's clean-up, which exit() runs, waits for a call that is under way; later ones are refused.
TEST_F(Setup, ProgramMayEndWhileAThreadConnects)
{
    const std::string certificate = device_.folder.path("device-cert.der");
    unlink(certificate.c_str());
    ASSERT_EQ(mkfifo(certificate.c_str(), 0600), 0); // holds up who reads it
    const auto connect = [&] { return atls_connect(&handle_, "h", nullptr, 1, "/", nullptr); };
    const auto is_waited_for = [&] {
        std::thread(connect).detach();
        const int end = open(certificate.c_str(), O_WRONLY | O_CLOEXEC);
        std::atomic<bool> let_go{false};
        std::thread([&] { usleep(100000), let_go = true, close(end); }).detach();
        OPENSSL_cleanup();
        return let_go && connect() == ATLS_SETUP_FAILED && log_capture::contains("The program is ending");
    };
    EXPECT_EXIT(_exit(is_waited_for() ? 0 : 1), testing::ExitedWithCode(0), "");
}

// What reaches the request object, the handle and the log of an answer of the proxy manager.
TEST_F(Setup, ChoosesProxies)
{
    const auto auth = [](unsigned long methods) { return std::to_string(static_cast<long>(methods)); };
    const std::string direct = "<5> setProxyParams Direct connect without http proxy\n";
    const std::string name(300, 'x'), long_name = "PROXY " + name;
    const auto script = [](const std::vector<const char *> &entries) {
        return Answer{PROXY_MODE_PACURL, entries, "user", "secret"};
    };
    const struct {
        std::optional<Answer> answer;
        std::string options; // the proxy and what it is told: methods, user, password
        std::string list, log;
        bool fips = false;
    } cases[] = {
        {std::nullopt, "   ", "", "<3> setProxyParams: create_proxy_manager_client fail!\n"},
        {Answer{}, "   ", "", "<5> setProxyParams Exit since http proxy mode is off\n"},
        {script({}), "   ", "", "<3> setProxyParams Fail to found any available proxy url\n"},
        {script({"PROXY p1:80", "DIRECT"}), "p1:80   ", "p1:80|DIRECT|",
         "<7> setProxyParams ProxyUrlList[0] = PROXY p1:80\n"},
        {Answer{PROXY_MODE_WPAD, {"DIRECT", "PROXY p2:80"}}, "NULL   ", "DIRECT|p2:80|", direct},
        {script({"PROXY", nullptr, "PROXY ", long_name.c_str(), "socks:1", "HTTP PROXY", "proxy p:1", ""}),
         "NULL   ", "NULL|NULL||" + name + "|socks:1|ROXY|proxy p:1||", direct},
        {script({"PROXY x-DIRECT:1"}), "NULL   ", "x-DIRECT:1|", direct},
        {script({"direct:1"}), "direct:1   ", "direct:1|", ""},
        {Answer{PROXY_MODE_MANUAL, {"PROXY p:1"}, nullptr, "unused"}, "PROXY p:1   ", "p:1|", ""},
        {Answer{PROXY_MODE_MANUAL, {"p:3128"}, "user"}, "p:3128 " + auth(CURLAUTH_ANY) + " user NULL",
         "p:3128|", ""},
        {Answer{PROXY_MODE_MANUAL, {"p:3128"}, "user", "secret"},
         "p:3128 " + auth(CURLAUTH_ANY & ~CURLAUTH_DIGEST) + " user secret", "p:3128|", "", true},
        {Answer{4, {"PROXY p:1"}}, "   ", "p:1|", ""},
    };
    for (const auto &expected : cases) {
        SCOPED_TRACE(&expected - cases);
        atls_handle_cleanup(&handle_);
        name_server("host.example");
        interpose::fips_mode = expected.fips;
        proxy_double::answer = expected.answer;
        ASSERT_EQ(init_tl_curl(&handle_, "/atls", nullptr), ATLS_OK);
        auto set = interpose::kept().options;
        EXPECT_EQ(set[CURLOPT_PROXY] + " " + set[CURLOPT_PROXYAUTH] + " " + set[CURLOPT_PROXYUSERNAME] + " " +
                      set[CURLOPT_PROXYPASSWORD],
                  expected.options);
        std::string list;
        for (int i = 0; i < handle_->proxyUrlCount; i++)
            list += std::string(handle_->proxyUrlList[i] ? handle_->proxyUrlList[i] : "NULL") + "|";
        EXPECT_EQ(list, expected.list);
        EXPECT_EQ(handle_->proxyUrlList == nullptr, list.empty());
        EXPECT_TRUE(log_capture::contains(expected.log));
        EXPECT_EQ(log_capture::log_of(LOG_ERR).empty(), expected.log.find("<3>") != 0);
    }
    proxy_double::answer = Answer{};
}

// The text is built once per process: each case runs in a copy of this one, before any other test has run, which the
// suite's name sees to.
TEST(UserAgentDeathTest, IsMadeOfModelAndLoad)
{
    const std::string digits = "0123456789012345678901234567890123456789";
    const std::string cases[][3] = {
        {"Model", "fw-1.2.3.loads.tail.loads", "Halvo-Model/fw-1.2.3"},
        {"M", digits, "Halvo-M/" + digits.substr(0, 31)},
        {digits, digits, "Halvo-" + digits.substr(0, 19) + "/" + digits.substr(0, 21)},
        {"", "", "Halvo-unknown/unknown"}};
    for (const auto &[model, load, expected] : cases) {
        const test::Device device;
        test::write_file(device.folder.path("device-model"), model);
        test::write_file(device.folder.path("load-id"), load);
        EXPECT_EXIT(atls_get_user_agent(); test::write_file(device.folder.path("device-model"), "Other");
                    _exit(atls_get_user_agent() == expected ? 0 : 1), testing::ExitedWithCode(0), "");
    }
}

TEST(Identity, IsChecked)
{
    // A command in the folder of the identity, D being the device's; the first error, "" when all is well.
    const std::pair<std::string, std::string> cases[] = {
        {"rm $D/truststore.pem", "init_al_ssl: Failed to set default Truststore option: tls_rc=>[3]"},
        {"rm $D/device-cert.der", "atls_add_mic_to_ctx: Failed Fetch the MIC\n"},
        {"head -c 4097 /dev/zero >$D/device-cert.der", "atls_add_mic_to_ctx: Failed Fetch the MIC\n"},
        {"cp ca/unit-cert.pem $D/device-cert.der",
         "atls_add_mic_to_ctx: Failed to load MIC into an openssl X509 object\n"},
        {"head -c 2000 /dev/urandom >>$D/device-cert.der", ""},
        {"openssl req -x509 -newkey rsa:512 -nodes -subj /CN=weak -keyout weak.pem | openssl x509 "
         ">$D/device-cert.der",
         "atls_add_mic_to_ctx:  SSL_CTX_use_certificate failed..\nlog_ssl_error: ssl error ["},
        {"rm $D/device-key.der", "atls_add_mic_to_ctx: Failed Fetch the PKEY\n"},
        {"openssl ecparam -name prime256v1 -genkey -noout | openssl pkcs8 -topk8 -nocrypt >$D/device-key.der",
         "atls_add_mic_to_ctx: Failed to load pkey into an openssl EVP_PKEY object\n"},
        {"openssl genpkey -algorithm RSA >$D/device-key.der",
         "atls_add_mic_to_ctx:  SSL_CTX_use_PrivateKey failed..\nlog_ssl_error: ssl error ["},
        {"openssl pkcs8 -topk8 -nocrypt -in ca/unit-key.pem >$D/device-key.der", ""},
    };
    for (const auto &[make, message] : cases) {
        SCOPED_TRACE(make);
        test::Device device;
        const auto command = testing::Message()
                             << "(cd " << test::identity("") << " && D=" << device.folder.root << " && "
                             << make
                             << (make.find("openssl") == 0 ? " -outform DER) 2>/dev/null" : ") 2>/dev/null");
        test::run(command.GetString());
        ERR_put_error(ERR_LIB_SSL, 0, SSL_R_BAD_LENGTH, "elsewhere", 1); // of other code: not the reason
        EXPECT_EQ(init_al_ssl(&device.handle), message.empty() ? ATLS_OK : ATLS_SETUP_FAILED);
        EXPECT_EQ(device.handle->ssl == nullptr, !message.empty());
        const std::string errors = log_capture::log_of(LOG_ERR);
        EXPECT_EQ(errors.find(message), 0u) << errors;
        EXPECT_EQ(errors.find("bad length"), std::string::npos) << errors;
        EXPECT_EQ(log_capture::contains("init_al_ssl: Failed to add fake cert/key into SSL CTX"),
                  message.find("atls_add_mic") == 0);
    }
    test::Device device;
    const std::string key = device.folder.path("device-key.der");
    test::run("openssl genpkey -algorithm RSA -outform DER -out " + key);
    for (int place = 40; place-- > 0;) { // whatever is wrong with its encoding
        std::fstream(key, std::ios::in | std::ios::out | std::ios::binary).seekp(place) << "\001\201";
        EXPECT_EQ(init_al_ssl(&device.handle), ATLS_SETUP_FAILED) << place;
    }
}

// How many of the pieces are found in the memory of a process that can be written.
size_t count_in_memory(pid_t process, const std::vector<std::string> &pieces)
{
    const std::string folder = "/proc/" + std::to_string(process);
    std::ifstream maps(folder + "/maps"), memory(folder + "/mem", std::ios::binary);
    size_t found = 0;
    for (std::string line; std::getline(maps, line); memory.clear()) {
        char *end = nullptr;
        const size_t from = strtoull(line.c_str(), &end, 16), size = strtoull(end + 1, &end, 16) - from;
        if (strncmp(end, " rw", 3) != 0 || size > 256 << 20) // so large is the sanitizers' own
            continue;
        std::string bytes(size, '\0');
        memory.seekg(static_cast<std::streamoff>(from))
            .read(bytes.data(), static_cast<std::streamsize>(size));
        for (const std::string &piece : pieces)
            found += bytes.find(piece) != std::string::npos;
    }
    return found;
}

// A copy of this process, which alone has read the files of the key, looks for it in this one.
TEST(Identity, LeavesNoKeyInMemory)
{
    test::Device device;
    const std::string file = device.folder.path("device-key.der");
    for (const char *encode : {"openssl pkey -traditional", "openssl pkcs8 -topk8 -nocrypt"}) {
        test::run(encode + (" -in " + test::identity("ca/unit-key.pem")) + " -outform DER -out " + file);
        EXPECT_EQ(init_al_ssl(&device.handle), ATLS_OK);
        atls_handle_cleanup(&device.handle);
    }
    prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY); // where only parents may look
    const auto is_gone = [&] {
        const std::string key = test::read_file(file);
        std::vector<std::string> pieces;
        for (size_t i = 300; i + 16 < key.size(); i += 64) { // behind the public numbers
            pieces.push_back(key.substr(i, 16));
            pieces.emplace_back(pieces.back().rbegin(), pieces.back().rend());
        }
        return count_in_memory(getppid(), pieces) == 0 && count_in_memory(getpid(), pieces) > 0;
    };
    EXPECT_EXIT(_exit(is_gone() ? 0 : 1), testing::ExitedWithCode(0), "");
}

} // namespace
