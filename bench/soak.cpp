// soak: everything at once for some minutes, against the built library through its public interface. Threads
// exchange messages and ask for proxies, while peers die and come back, the configuration changes and the
// client is made anew. Counts every result, compares every answer, and measures what the process keeps.
// Removes the library's dump files from /tmp: to be started with scripts/private-tmp. Ends with status 0 when no answer
// was wrong, no result undefined, and descriptors, threads and memory came back; a stuck call ends it with SIGALRM.

#include "bus.h"
#include "cli.h"
#include "client.h"
#include "peers.h"
#include "proxymanager.h"

#include <atomic>
#include <chrono>
#include <cmath>
#include <fstream>
#include <functional>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <shared_mutex>
#include <thread>

#include <malloc.h>
#include <sysexits.h>

using namespace test;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Codes = std::set<int>;
using Operation = std::function<int()>;

constexpr unsigned HOSTS = 80; // more than the client's cache holds
constexpr double LONGEST_MESSAGE = 200000;
constexpr auto WARM_UP = 20s;     // fills what is allocated once; a shorter run tells nothing of memory
constexpr auto TABLE_EVERY = 30s; // the dump files are removed as often
constexpr unsigned PATIENCE_SECONDS = 240; // no call may take longer

// What the process holds, how much more of it there may be at the end, and at most how much more for each connection to
// the bus that was closed.
struct Held {
    const char *name;
    long now, allowed, kept_by_connection;
};

static std::vector<Held> footprint()
{
    long pages = 0;
    std::ifstream("/proc/self/statm") >> pages >> pages; // the second number
    return {{"resident bytes", pages * sysconf(_SC_PAGESIZE), 8 << 20, 2048},
            {"heap bytes in use", static_cast<long>(heap_in_use()), 256 << 10, 2048},
            {"descriptors", count_in("/proc/self/fd"), 0, 0},
            {"threads", count_in("/proc/self/task"), 0, 0}};
}

class Soak
{
public:
    Soak()
    {
        const auto write = [&](const std::string &name, const std::string &way) {
            write_file(folder_.path(name),
                       "function FindProxyForURL(url, host) { return host == '127.0.0.1' ? 'PROXY " + way +
                           "' : 'PROXY ' + host + ':80;DIRECT'; }");
        };
        write("pac0", a_.address() + ";PROXY " + b_.address());
        write("pac1", "127.0.0.1:1;PROXY " + b_.address() + ";DIRECT");
        bring_manager();
    }

    bool run(Clock::duration time)
    {
        everything_for(std::min<Clock::duration>(time, WARM_UP));
        before_ = footprint();
        closed_connections_ = 0;
        everything_for(time);
        for (const auto &[kind, codes] : codes_) {
            printf("%-22s", kind.c_str());
            for (const auto &[code, calls] : codes)
                printf("%3d: %-8ld", code, calls);
            printf("longest %.6f s\n", longest_.at(kind));
        }
        printf("wrong answers and undefined results: %d\n", faults_.load());
        return (print_table() || time < WARM_UP) && faults_ == 0;
    }

private:
    void fault(const std::string &what)
    {
        faults_++;
        printf("%s\n", what.c_str());
    }
    int count(const std::string &kind, const Codes &defined, const Operation &operation)
    {
        const auto start = Clock::now();
        const int code = operation();
        const std::chrono::duration<double> time = Clock::now() - start;
        const std::lock_guard<std::mutex> lock(results_);
        codes_[kind][code]++;
        longest_[kind] = std::max(longest_[kind], time.count());
        if (defined.count(code) == 0)
            fault("undefined result " + std::to_string(code) + ": " + kind);
        return code;
    }
    // For operations of several threads at once, but not while the client is cleaned up.
    int shared(const std::string &kind, const Codes &defined, const Operation &operation)
    {
        turnstile_.lock(); // held by who waits for all others to finish
        turnstile_.unlock();
        const std::shared_lock<std::shared_mutex> lock(renewal_);
        return count(kind, defined, operation);
    }

    // A message of random bytes, as often short as long.
    int exchange(Client &client, std::mt19937 &random)
    {
        const double exponent = std::uniform_real_distribution<>(0, std::log(LONGEST_MESSAGE))(random);
        std::string message(static_cast<size_t>(std::exp(exponent)), '\0');
        if (message.size() % 16384 == 0)
            message.pop_back(); // such an answer cannot be received
        std::generate(message.begin(), message.end(), [&] { return static_cast<char>(random()); });
        const int result = client.exchange(message);
        if (result == ATLS_OK && client.body() != message)
            fault("wrong answer to a message of " + std::to_string(message.size()) + " bytes");
        return result;
    }
    void exchange_messages(unsigned seed)
    {
        std::mt19937 random(seed);
        Client client;
        while (!stop_) {
            const bool old = random() % 2 == 0;
            const std::string connect = old ? "connect, TLS 1.2" : "connect, TLS 1.3";
            const int port = old ? peers_.tls12 : peers_.tls13;
            int result = shared(connect, {ATLS_OK, ATLS_HANDSHAKE_FAILED},
                                [&] { return client.connect(port, "soak"); });
            for (auto left = random() % 10; left > 0 && result == ATLS_OK && !stop_; left--)
                result = shared("exchange", {ATLS_OK, ATLS_BAD_RESPONSE, ATLS_EXCHANGE_FAILED},
                                [&] { return exchange(client, random); });
            std::this_thread::sleep_for(result == ATLS_OK ? 0ms : 20ms);
            atls_handle_cleanup(&client.handle);
            if (random() % 2 == 0)
                free_atls_handle(std::exchange(client.handle, create_atls_handle()));
        }
    }

    void ask_for_proxies(unsigned seed)
    {
        for (std::mt19937 random(seed); !stop_; std::this_thread::sleep_for(2ms)) {
            const std::string host = "host" + std::to_string(random() % HOSTS) + ".example";
            shared("resolve (its mode)", {0, 1, 2, 3}, [&] { return resolve(host); });
            if (random() % 16 == 0)
                shared("service started?", {0, 1}, check_service_started);
        }
    }
    ProxyMode resolve(const std::string &host)
    {
        const ProxyUrlInformation proxies = get_proxy_url(("https://" + host + "/").c_str());
        std::this_thread::yield(); // the texts stay readable, whatever the others do
        std::string entries;
        for (int i = 0; i < proxies.proxyUrlCount; i++)
            entries += (proxies.proxyUrlList[i] ? proxies.proxyUrlList[i] : "NULL") + std::string(";");
        if (entries != (proxies.mode == PROXY_MODE_OFF      ? ""
                        : proxies.mode == PROXY_MODE_MANUAL ? a_.address() + ";"
                                                            : "PROXY " + host + ":80;DIRECT;"))
            fault("wrong answer: " + host + ", mode " + std::to_string(proxies.mode) + ": " + entries);
        return proxies.mode;
    }
    void bring_manager() { manager_.emplace(manager_command_, "serving as"); }
    // Changes the configuration, from here or from another process. The client must know of it afterwards.
    void configure(unsigned number)
    {
        const auto mode = static_cast<ProxyMode>(number / 3 % 5 % 4);
        const bool manual = mode == PROXY_MODE_MANUAL;
        std::string proxy = manual ? a_.address() : "", user = manual ? "device" : "";
        std::string pac = mode == PROXY_MODE_PACURL ? folder_.path("pac1") : "";
        const std::string words = manual                      ? "manual " + proxy + " --user " + user
                                  : mode == PROXY_MODE_PACURL ? "pac " + pac
                                                              : proxyMode2Str(mode);
        if (number % 2 == 0)
            shared("configure", {0}, [&] {
                return update_proxy_config({mode, proxy.data(), pac.data(), false, user.data(), user.data()});
            });
        else if (Program({"sh", "-c", "exec \"$0\" set " + words, PROXYMANAGERCTL}).end() != 0)
            fault("wrong answer to proxymanagerctl");
        shared("service started?", {1}, check_service_started); // the answer comes behind the signals
        shared("configured (its mode)", {mode}, [] {
            ProxyManagerConfig config = get_http_proxy_config();
            const ProxyMode current = config.mode;
            cleanupProxyConfig(&config);
            return current;
        });
    }

    void create_client(bool with_service = true)
    {
        const int code = count("create client", {with_service}, create_proxy_manager_client);
        closed_connections_ += code == 0;
        set_proxy_manager_event_cb(PROXY_MGR_EVENT_CONFIG_UPDATED, [](ProxyMgrEventType) { events_++; });
    }
    void clean_up_client()
    {
        count("clean up client", {1}, cleanup_proxy_manager_client);
        closed_connections_++;
    }
    void renew_client(const std::function<void()> &meanwhile = [] {})
    {
        const std::lock_guard<std::mutex> turnstile(turnstile_);
        const std::lock_guard<std::shared_mutex> alone(renewal_);
        clean_up_client();
        meanwhile();
        create_client();
    }

    // One disturbance after the other; after all ten the peers are up.
    void disturb(unsigned number)
    {
        const auto configured = [&] { configure(number); };
        const std::function<void()> disturbances[] = {
            configured,
            [&] { count("kill a proxy", {-SIGKILL}, [&] { return a_.die(); }); },
            configured,
            [&] { a_.start(); },
            [&] { renew_client(); },
            configured,
            [&] { count("stop the service", {0}, [&] { return manager_->end(SIGTERM); }); },
            [&] {
                number % 20 == 7 ? bring_manager()
                                 : renew_client([&] { create_client(false), bring_manager(); });
            },
            [&] { count("kill the bus", {EX_UNAVAILABLE}, [&] { return bus_.kill(), manager_->end(); }); },
            [&] { renew_client([&] { bus_.start(), bring_manager(); }); },
        };
        disturbances[number % 10]();
    }
    // Tells what is held, and whether that is still allowed.
    bool print_table()
    {
        bool good = true;
        const auto now = footprint();
        for (size_t i = 0; i < before_.size(); i++) {
            const long allowed = now[i].allowed + closed_connections_ * now[i].kept_by_connection;
            const long grown = now[i].now - before_[i].now;
            good = good && grown <= allowed;
            printf("%-18sstart %ld, now %ld, grown %ld of %ld allowed\n", now[i].name, before_[i].now,
                   now[i].now, grown, allowed);
        }
        printf("bus connections closed %ld, events %ld\n", closed_connections_, events_.load());
        return good;
    }
    // All has been cleaned up afterwards.
    void everything_for(Clock::duration time)
    {
        create_client();
        stop_ = false;
        std::vector<std::thread> threads;
        for (unsigned i = 0; i < 6; i++)
            threads.emplace_back(i < 4 ? &Soak::exchange_messages : &Soak::ask_for_proxies, this, i);
        const auto end = Clock::now() + time;
        auto table = Clock::now() + TABLE_EVERY;
        for (unsigned number = 0; Clock::now() < end || number % 10 != 0; number++) {
            alarm(PATIENCE_SECONDS); // ends the program when a thread is stuck
            disturb(number);
            std::this_thread::sleep_for(500ms);
            for (; Clock::now() >= table; table += TABLE_EVERY) {
                test::run("find /tmp -maxdepth 1 -name 'atls_handshake_data_*' -delete");
                print_table();
            }
        }
        stop_ = true;
        for (std::thread &thread : threads)
            thread.join();
        clean_up_client();
        malloc_trim(0);
    }

    const Folder folder_;
    const std::vector<std::string> manager_command_{
        PROXYMANAGERD,        "--pac",        folder_.path("pac0"), "--wpad-script",
        folder_.path("pac1"), "--state-file", folder_.path("state")};
    Peers peers_;
    PrivateBus bus_;
    Proxy a_{"LogLevel Critical\n"}, b_{"LogLevel Critical\n"};
    std::optional<Program> manager_;
    std::mutex turnstile_;
    std::shared_mutex renewal_;
    std::atomic<bool> stop_{false};
    std::atomic<int> faults_{0};
    std::mutex results_; // for what follows
    std::map<std::string, std::map<int, long>> codes_;
    std::map<std::string, double> longest_;
    long closed_connections_ = 0;
    std::vector<Held> before_;
    static inline std::atomic<long> events_{0};
};

int main(int argc, char **argv)
{
    return cli::guarded("soak", [&] {
        const double minutes = argc == 2 ? strtod(argv[1], nullptr) : 0;
        if (minutes < 0.1)
            throw cli::UsageError("usage: soak MINUTES, 0.1 or more");
        setvbuf(stdout, nullptr, _IOLBF, 0);
        setlogmask(LOG_UPTO(LOG_ERR));
        Soak soak;

        const bool good = soak.run(std::chrono::seconds(std::lround(minutes * 60)));
        puts(good ? "good" : "NOT GOOD");
        return !good;
    });
}
