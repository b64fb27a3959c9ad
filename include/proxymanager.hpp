/**
 * @file proxymanager.hpp
 * Client of the device's proxy manager service, for C++17 programs: proxymanager.h with its rules built in.
 *
 *     const proxymanager::Client client;
 *     for (const std::string &proxy : client.proxies_for("https://service.example/").addresses)
 *         use(proxy);
 *
 * A header and nothing else: programs link libatls. All that it returns are values of the caller's own. Events wait in a
 * queue for the program's own loop, which learns of them by a file descriptor and may call anything when it handles one.
 * What fails throws std::system_error from constructors, and is an empty std::optional from the functions open. Without
 * exceptions (-fno-exceptions) there are the latter only; RTTI is not needed.
 *
 * Threads: a Client may be used on any thread, also on several at once; an Events belongs to one thread at a time. Clients
 * and Events may be made and destroyed on any thread. The process's client of proxymanager.h is cleaned up with the last
 * of them: let no atls_connect, and no atls::Connection that connects, be under way then, and no Client of another
 * thread's be in use while it is destroyed. Neither is to be made in a callback that was registered through
 * proxymanager.h, whose callbacks for the events that an Events has asked for are replaced.
 *
 * Fork: a child whose parent has a client cannot make one. The parent's objects give neutral results there, and destroying
 * them touches nothing but the child's copy of the descriptor.
 */
#ifndef PROXYMANAGER_HPP
#define PROXYMANAGER_HPP

#include "proxymanager.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <string.h>
#include <sys/eventfd.h>
#include <unistd.h>

/** The C++ interface of proxymanager.h. */
namespace proxymanager
{

/** How proxies are chosen. */
enum class Mode : std::int32_t {
    off = PROXY_MODE_OFF,       /**< no proxy */
    manual = PROXY_MODE_MANUAL, /**< one proxy, configured by hand */
    pacurl = PROXY_MODE_PACURL, /**< a script from a configured URL */
    wpad = PROXY_MODE_WPAD      /**< a script that the service finds by itself */
};

/** The proxies to use for one URL. */
struct Proxies {
    Mode mode = Mode::off;              /**< off: use no proxy */
    std::vector<std::string> addresses; /**< best first, host:port; an empty one is a direct connection */
    std::string user_name;              /**< mode manual only */
    std::string password;               /**< mode manual only */
};

/** A configuration of the service. Texts that are absent are empty. */
struct Config {
    Mode mode = Mode::off;    /**< how proxies are chosen */
    std::string proxy;        /**< the proxy of mode manual: host:port */
    std::string pac_url;      /**< the URL of the script of mode pacurl */
    bool option_flag = false; /**< a yes-or-no setting of the service, which is only carried */
    std::string user_name;    /**< for authentication at the proxy */
    std::string password;     /**< for authentication at the proxy */

    /** @return no proxy */
    static Config off() { return {}; }
    /** One proxy. @param host_and_port  the proxy, "http://" may stand in front @return the configuration */
    static Config manual(std::string host_and_port)
    {
        Config config;
        config.mode = Mode::manual;
        config.proxy = std::move(host_and_port);
        return config;
    }
    /** A script. @param url  where it is @return the configuration */
    static Config pac(std::string url)
    {
        Config config;
        config.mode = Mode::pacurl;
        config.pac_url = std::move(url);
        return config;
    }
    /** @return a script that the service finds by itself */
    static Config wpad()
    {
        Config config;
        config.mode = Mode::wpad;
        return config;
    }

    /** This, with who one is at the proxy. @param user  the name @param secret  the password @return the configuration */
    Config with_credentials(std::string user, std::string secret) const
    {
        Config config = *this;
        config.user_name = std::move(user);
        config.password = std::move(secret);
        return config;
    }
    /** This, with the option flag. @param flag  the setting @return the configuration */
    Config with_option_flag(bool flag) const
    {
        Config config = *this;
        config.option_flag = flag;
        return config;
    }

    /** @param other  to compare with @return whether all fields are equal */
    bool operator==(const Config &other) const
    {
        return mode == other.mode && proxy == other.proxy && pac_url == other.pac_url &&
               option_flag == other.option_flag && user_name == other.user_name && password == other.password;
    }
    /** @param other  to compare with @return whether a field differs */
    bool operator!=(const Config &other) const { return !(*this == other); }
};

/** What has happened. */
struct Event {
    /** Kinds of events. */
    enum class Kind {
        configuration_changed, /**< look at Client::config */
        state,                 /**< a state event of the service */
        lost                   /**< the queue was full: look at everything anew */
    };
    Kind kind = Kind::lost;   /**< what it is */
    std::int32_t state = 0;   /**< kind state: its number */
    std::uint64_t number = 1; /**< kind lost: how many there were */
};

/// @cond
namespace detail
{

// An Events' own queue, of a fixed size: the dispatch thread asks for no memory. The process's delivery mutex guards it.
struct Inbox {
    std::array<ProxyMgrEventType, 256> events;
    std::size_t first = 0, count = 0;
    std::uint64_t lost = 0;
    int descriptor = -1; // readable while something waits
    bool wants_states = false;
    Inbox *next = nullptr;

    void put(ProxyMgrEventType type) noexcept
    {
        if (count == 0 && lost == 0)
            (void)eventfd_write(descriptor, 1);
        if (count == events.size() || lost > 0) // what is lost comes last
            lost++;
        else
            events[(first + count++) % events.size()] = type;
    }

    std::optional<Event> take() noexcept
    {
        Event event;
        if (count > 0) {
            const ProxyMgrEventType type = events[first];
            first = (first + 1) % events.size();
            count--;
            event.kind = type == PROXY_MGR_EVENT_CONFIG_UPDATED ? Event::Kind::configuration_changed
                                                                : Event::Kind::state;
            event.state = type;
        } else if (lost > 0) {
            event.number = std::exchange(lost, 0);
        } else {
            return std::nullopt;
        }
        eventfd_t wakes;
        if (count == 0 && lost == 0)
            (void)eventfd_read(descriptor, &wakes);
        return event;
    }
};

// What all clients of the process share. No call of proxymanager.h is made under the delivery mutex, which its callback
// takes; the callback takes no other.
struct Process {
    std::mutex lifetime; // guards the next three, and makes them agree with the library
    int clients = 0;
    bool hears_changes = false;
    bool hears_states = false;
    std::atomic<pid_t> owner{0}; // the process that has clients; 0: none

    std::mutex delivery;
    Inbox *inboxes = nullptr;

    bool is_own() const noexcept { return owner == getpid(); }
};

// Never destroyed: the dispatch thread and destructors of the program's may come late. One for all libraries of a process.
__attribute__((visibility("default"))) inline Process &process() noexcept
{
    alignas(Process) static unsigned char room[sizeof(Process)];
    static Process *const object = new (room) Process;
    return *object;
}

inline bool acquire() noexcept
{
    Process &shared = process();
    const pid_t owner = shared.owner;
    if (owner != 0 && owner != getpid())
        return false; // the parent's, whose mutexes may be locked for ever
    const std::lock_guard<std::mutex> lock(shared.lifetime);
    if (!create_proxy_manager_client())
        return false;
    shared.clients++;
    shared.owner = getpid();
    return true;
}

inline void release() noexcept
{
    Process &shared = process();
    if (!shared.is_own())
        return;
    const std::lock_guard<std::mutex> lock(shared.lifetime);
    if (--shared.clients > 0)
        return;
    (void)cleanup_proxy_manager_client();
    shared.hears_changes = shared.hears_states = false;
    shared.owner = 0;
}

// On the dispatch thread.
inline void deliver(ProxyMgrEventType type) noexcept
{
    Process &shared = process();
    const std::lock_guard<std::mutex> lock(shared.delivery);
    for (Inbox *inbox = shared.inboxes; inbox; inbox = inbox->next)
        if (inbox->wants_states || type == PROXY_MGR_EVENT_CONFIG_UPDATED)
            inbox->put(type);
}

// Registers no callback twice: each registration for state events absorbs a change of the configuration.
inline void listen(bool for_states)
{
    Process &shared = process();
    const std::lock_guard<std::mutex> lock(shared.lifetime);
    if (for_states && !std::exchange(shared.hears_states, true))
        set_proxy_manager_event_cb(PROXY_MGR_EVENT_STATE_0,
                                   deliver); // and those without a callback of their own
    if (!std::exchange(shared.hears_changes, true))
        set_proxy_manager_event_cb(PROXY_MGR_EVENT_CONFIG_UPDATED, deliver);
}

// None of the numbers of the standard streams, even when these are closed.
inline int open_descriptor() noexcept
{
    const int number = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (number < 0 || number > STDERR_FILENO)
        return number;
    const int higher = fcntl(number, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    close(number);
    return higher;
}

inline std::string text_of(const char *text)
{
    return text ? text : "";
}

// An entry of a script's answer: "PROXY host:port", or "DIRECT".
inline std::string address_of(const char *entry)
{
    std::string text = text_of(entry);
    if (text.find("DIRECT") != text.npos)
        return "";
    if (text.find("PROXY") == text.npos)
        return text;
    return text.size() < 6 ? "" : text.substr(6);
}

inline bool has_nul(const std::string &text)
{
    return text.find('\0') != text.npos;
}

struct CleanUp {
    void operator()(ProxyManagerConfig *config) const { cleanupProxyConfig(config); }
};

} // namespace detail
/// @endcond

/** A use of the process's client. The client lives as long as one of these does. */
class Client
{
public:
    /** Makes a use. @return it; nothing when the bus or the service does not answer */
    static std::optional<Client> open()
    {
        if (!detail::acquire())
            return std::nullopt;
        return Client(true);
    }
#if defined(__cpp_exceptions)
    /** Makes a use; throws std::system_error when the bus or the service does not answer. */
    Client() : counts_(detail::acquire())
    {
        if (!counts_)
            throw std::system_error(std::make_error_code(std::errc::not_connected), "proxy manager");
    }
#endif
    /** Takes another's place. @param other  no use afterwards */
    Client(Client &&other) noexcept : counts_(std::exchange(other.counts_, false))
    {
    }
    /** Takes another's place. @param other  holds what this one held @return this */
    Client &operator=(Client &&other) noexcept
    {
        std::swap(counts_, other.counts_);
        return *this;
    }
    ~Client()
    {
        if (counts_)
            detail::release();
    }

    /**
     * Finds the proxies for a URL, from the cache if its host was asked for before.
     *
     * @param url  the URL, in UTF-8 and without NUL
     *
     * @return the proxies; mode off and nothing else when no proxy is configured, or no answer came in time
     */
    Proxies proxies_for(const std::string &url) const
    {
        Proxies proxies;
        if (detail::has_nul(url))
            return proxies;
        const ProxyUrlInformation answer = get_proxy_url(url.c_str()); // this thread's until it asks again
        proxies.mode = static_cast<Mode>(answer.mode);
        for (std::int32_t i = 0; i < answer.proxyUrlCount; i++) {
            const char *entry = answer.proxyUrlList[i];
            proxies.addresses.push_back(proxies.mode == Mode::manual ? detail::text_of(entry)
                                                                     : detail::address_of(entry));
        }
        proxies.user_name = detail::text_of(answer.userName);
        proxies.password = detail::text_of(answer.password);
        return proxies;
    }

    /** @return the configuration that the client holds. After a change to any mode but manual only the mode is known. */
    Config config() const
    {
        ProxyManagerConfig record = get_http_proxy_config();
        const std::unique_ptr<ProxyManagerConfig, detail::CleanUp> owner(&record);
        Config config;
        config.mode = static_cast<Mode>(record.mode);
        config.proxy = detail::text_of(record.proxyUrl);
        config.pac_url = detail::text_of(record.pacUrl);
        config.option_flag = record.optionFlag;
        config.user_name = detail::text_of(record.userName);
        config.password = detail::text_of(record.password);
        return config;
    }

    /**
     * Sends a configuration to the service. What config() tells changes when the service announces it.
     *
     * @param config  texts in UTF-8 without NUL; the copy of the password that is made here is wiped
     *
     * @return the service's own result, 0 of the stand-in when it took it; -1 when the call failed
     */
    [[nodiscard]] int set(Config config) const
    {
        int result = -1;
        if (!detail::has_nul(config.proxy + config.pac_url + config.user_name) &&
            !detail::has_nul(config.password))
            result = update_proxy_config({static_cast<ProxyMode>(config.mode), config.proxy.data(),
                                          config.pac_url.data(), config.option_flag, config.user_name.data(),
                                          config.password.data()});
        explicit_bzero(config.password.data(), config.password.size());
        return result;
    }

    /** @return whether the service says that it has started; false without an answer */
    bool service_started() const
    {
        return check_service_started();
    }

private:
    explicit Client(bool counts) : counts_(counts)
    {
    }

    bool counts_;
};

/**
 * Events, in a queue of 256. One Events hears nothing of what another reads. It keeps the process's client alive.
 */
class Events
{
public:
    /** Which events to hear. */
    enum class Which {
        changes, /**< of the configuration */
        all /**< state events, too: the first change of the configuration after the first Events for all of the
                      process's client is told to nobody */
    };

    /** Begins to listen. @param which  to what @return the events; nothing without client, descriptor or memory */
    static std::optional<Events> open(Which which = Which::changes)
    {
        std::optional<Client> client = Client::open();
        std::unique_ptr<detail::Inbox> inbox(client ? new (std::nothrow) detail::Inbox : nullptr);
        if (!inbox)
            return std::nullopt;
        inbox->descriptor = detail::open_descriptor();
        if (inbox->descriptor < 0)
            return std::nullopt;
        inbox->wants_states = which == Which::all;
        return Events(std::move(*client), std::move(inbox));
    }
#if defined(__cpp_exceptions)
    /** Begins to listen; throws std::system_error without client, descriptor or memory. @param which  to what */
    explicit Events(Which which = Which::changes) : Events(value_of(open(which)))
    {
    }
#endif
    /** Takes another's place. @param other  only to be destroyed or assigned to afterwards */
    Events(Events &&other) noexcept = default;
    /** Takes another's place. @param other  holds what this one held @return this */
    Events &operator=(Events &&other) noexcept
    {
        std::swap(client_, other.client_);
        std::swap(inbox_, other.inbox_);
        return *this;
    }
    ~Events()
    {
        if (!inbox_)
            return;
        unlink();
        close(inbox_->descriptor); // nobody writes to the number any more
    }

    /** @return a descriptor to poll for reading; it is this object's, and closed on exec */
    int descriptor() const noexcept
    {
        return inbox_->descriptor;
    }

    /** Takes the oldest event. @return it; nothing when none waits, and then the descriptor is not readable */
    std::optional<Event> next() noexcept
    {
        detail::Process &shared = detail::process();
        if (!shared.is_own())
            return std::nullopt;
        const std::lock_guard<std::mutex> lock(shared.delivery);
        return inbox_->take();
    }

private:
    Events(Client client, std::unique_ptr<detail::Inbox> inbox)
        : client_(std::move(client)), inbox_(std::move(inbox))
    {
        {
            detail::Process &shared = detail::process();
            const std::lock_guard<std::mutex> lock(shared.delivery);
            inbox_->next = std::exchange(shared.inboxes, inbox_.get());
        }
        detail::listen(inbox_->wants_states);
    }

#if defined(__cpp_exceptions)
    static Events value_of(std::optional<Events> events)
    {
        if (!events)
            throw std::system_error(std::make_error_code(std::errc::not_connected), "proxy manager events");
        return *std::move(events);
    }
#endif

    void unlink() noexcept
    {
        detail::Process &shared = detail::process();
        if (!shared.is_own())
            return; // nothing is delivered in a child
        const std::lock_guard<std::mutex> lock(shared.delivery);
        detail::Inbox **link = &shared.inboxes;
        while (*link != inbox_.get())
            link = &(*link)->next;
        *link = inbox_->next;
    }

    Client client_;
    std::unique_ptr<detail::Inbox> inbox_;
};

} // namespace proxymanager

#endif
