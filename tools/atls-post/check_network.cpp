// Steps of --check up to the front end: proxy manager, proxies, names, connections, HTTPS, clock. Requests are made by
// copies of the request object that the library sets up for this URL.

#include <array>
#include <cstdlib>
#include <cstring>
#include <new>

#include <curl/curl.h>

#include "check_steps.h"
#include "proxy_text.h"
#include "proxymanager.h"

extern "C" int init_tl_curl(atls_handle **handle, const char *service, const char *tracking_id); // exported

namespace
{

constexpr long HTTP_BAD_REQUEST = 400;

template <typename Value>
Value info(CURL *curl, CURLINFO what)
{
    Value value{};
    curl_easy_getinfo(curl, what, &value);
    return value;
}

bool is_direct(const char *entry)
{
    return !entry || strstr(entry, "DIRECT");
}

// libcurl's own words on a failure, or its general ones.
std::string failure_text(CURLcode code, const char *words)
{
    return code == CURLE_OK ? "" : proxy_text::on_one_line(*words ? words : curl_easy_strerror(code));
}

std::string resolver()
{
    const curl_version_info_data *version = curl_version_info(CURLVERSION_NOW);
    if (version->ares)
        return "c-ares";
    return version->features & CURL_VERSION_ASYNCHDNS
               ? "threaded: a post ends no earlier than the look-up does"
               : "blocking: no time limit holds during a look-up";
}

std::string describe(const Route &route)
{
    if (route.carries())
        return route.name + " connects" + (route.connect_status ? ", CONNECT is answered with 200" : "");
    if (route.connect_status >= HTTP_BAD_REQUEST)
        return route.name + " refuses CONNECT with status " + std::to_string(route.connect_status) +
               (route.demanded.empty() ? "" : ", it demands " + route.demanded);
    return route.name + ": " + route.text;
}

std::string advice_on(const Route &route)
{
    if (route.connect_status == 407 || route.connect_status == 401) // some refuse wrong ones with the latter
        return "give the proxy manager the right user name and password, which only its mode manual has";
    if (route.connect_status >= HTTP_BAD_REQUEST)
        return "let the proxy allow CONNECT to this host and port, or have another one offered";
    if (route.direct)
        return "see to name, network and firewall, or have a proxy offered";
    return "start the proxy, see to the network, or have another one offered";
}

size_t take_header_line(char *text, size_t size, size_t count, void *response)
{
    try {
        const std::string line(text, size * count);
        static_cast<Response *>(response)->headers.push_back(proxy_text::on_one_line(line));
        return size * count;
    } catch (const std::bad_alloc &) {
        return 0;
    }
}

} // namespace

World::World(const Settings &chosen)
    : settings(chosen), observer(*connection, chosen.trace),
      explanation(connection_url(chosen), *connection, observer)
{
}

std::unique_ptr<CURL, CurlCleanup> World::request(size_t route)
{
    if (!transport_) {
        transport_ = make_handle();
        atls_handle *handle = transport_->get();
        const std::string &host = settings.ip.empty() ? settings.address.host : settings.ip;
        snprintf(handle->hostname, sizeof handle->hostname, "%s", host.c_str());
        handle->port = settings.address.port;
        init_tl_curl(&handle, settings.address.path.c_str(),
                     settings.tracking_id.empty() ? nullptr : settings.tracking_id.c_str());
    }
    const Handle &handle = *transport_;
    std::unique_ptr<CURL, CurlCleanup> curl(handle->curl ? curl_easy_duphandle(handle->curl) : nullptr);
    if (!curl)
        throw std::bad_alloc();
    keep_quiet(curl.get());
    if (route > 0) {
        const char *entry = handle->proxyUrlList[route];
        curl_easy_setopt(curl.get(), CURLOPT_PROXY, is_direct(entry) ? nullptr : entry);
    }
    return curl;
}

std::vector<Route> &World::routes()
{
    if (!routes_) {
        request(0);
        const Handle &handle = *transport_;
        routes_.emplace();
        for (int i = 0; i < handle->proxyUrlCount; i++) {
            const char *entry = handle->proxyUrlList[i];
            routes_->push_back({is_direct(entry) ? "DIRECT" : without_credentials(entry), is_direct(entry)});
        }
        if (routes_->empty())
            routes_->push_back({"DIRECT"});
    }
    return *routes_;
}

const Route &World::tried(Route &route)
{
    if (route.is_tried)
        return route;
    std::array<char, CURL_ERROR_SIZE> words{};
    const auto curl = request(static_cast<size_t>(&route - routes().data()));
    curl_easy_setopt(curl.get(), CURLOPT_ERRORBUFFER, words.data());
    curl_easy_setopt(curl.get(), CURLOPT_CONNECT_ONLY, 1L);
    route.code = curl_easy_perform(curl.get());
    route.text = failure_text(route.code, words.data());
    route.connect_status = info<long>(curl.get(), CURLINFO_HTTP_CONNECTCODE);
    route.demanded = demanded_authentication(curl.get());
    route.address = peer_of(curl.get());
    route.lookup_seconds = info<double>(curl.get(), CURLINFO_NAMELOOKUP_TIME);
    route.is_tried = true;
    return route;
}

const Route &World::final_route()
{
    for (Route &route : routes())
        if (!tried(route).is_passed_over())
            return route;
    return routes().back();
}

const FrontEnd &World::front_end()
{
    if (front_end_)
        return *front_end_;
    front_end_ = FrontEnd{CURLE_COULDNT_CONNECT, "", std::nullopt};
    const Route &route = final_route();
    if (!route.carries())
        return *front_end_;
    Response response;
    std::array<char, CURL_ERROR_SIZE> words{};
    const auto curl = request(static_cast<size_t>(&route - routes().data()));
    curl_easy_setopt(curl.get(), CURLOPT_ERRORBUFFER, words.data());
    curl_easy_setopt(curl.get(), CURLOPT_NOBODY, 1L);
    curl_easy_setopt(curl.get(), CURLOPT_HEADERDATA, &response);
    curl_easy_setopt(curl.get(), CURLOPT_HEADERFUNCTION, take_header_line);
    front_end_->code = curl_easy_perform(curl.get());
    front_end_->text = failure_text(front_end_->code, words.data());
    const time_t date = curl_getdate(response.header("Date").c_str(), nullptr);
    if (date >= 0)
        front_end_->date = date;
    return *front_end_;
}

int World::connect()
{
    if (!connect_result_) {
        connect_result_ = connect_handle(connection.get(), settings);
        observer.clear_progress();
        explanation.connected();
    }
    return *connect_result_;
}

// ---- The steps

Finding ask_proxy_manager(World &world)
{
    if (create_proxy_manager_client() != 1) {
        const char *bus = getenv("DBUS_SYSTEM_BUS_ADDRESS");
        return wrong(std::string("cannot be reached on ") + (bus ? bus : "the system bus") +
                         ", connections are made without asking for proxies",
                     "start the bus and the proxy manager, and let this user talk to it; needless where "
                     "there is none");
    }
    const bool started = check_service_started();
    ProxyManagerConfig config = get_http_proxy_config();
    const ProxyUrlInformation answer = get_proxy_url(connection_url(world.settings).c_str());
    std::string detail = std::string("mode ") + proxyMode2Str(config.mode);
    for (int i = 0; i < answer.proxyUrlCount; i++) {
        const char *entry = answer.proxyUrlList[i];
        detail += (i == 0 ? ": " : "; ") + without_credentials(entry ? entry : "(nothing)");
    }
    const bool unanswered = config.mode != PROXY_MODE_OFF && answer.proxyUrlCount == 0;
    cleanupProxyConfig(&config);
    if (!started)
        return warning(detail + "; it says that it has not started", "wait for it, or see to its log");
    if (unanswered)
        return warning(detail + ": no answer for this URL",
                       "see to the proxy manager's log, and to its script");
    return ok(detail);
}

Finding try_proxies(World &world)
{
    std::string detail;
    const Route *faulty = nullptr;   // the first one
    const Route *decisive = nullptr; // behind which the library tries no other
    for (Route &route : world.routes()) {
        detail += (detail.empty() ? "" : "; ") + (route.direct ? route.name : describe(world.tried(route)));
        if (!decisive && (route.direct || !route.is_passed_over()))
            decisive = &route;
        if (!faulty && !route.direct && !route.carries())
            faulty = &route;
    }
    if (!faulty)
        return ok(detail);
    if (!decisive)
        return wrong(detail, advice_on(*faulty));
    return decisive->direct || decisive->carries() ? warning(detail, advice_on(*faulty))
                                                   : wrong(detail, advice_on(*decisive));
}

Finding reach_front_end(World &world)
{
    const Route &route = world.final_route();
    const std::string names = joined(proxy_environment(), ", ");
    const std::string seen =
        "; resolver of libcurl: " + resolver() +
        (names.empty() ? "" : "; the environment has " + names + ", which libcurl heeds");
    if (!route.carries())
        return wrong(describe(route) + seen, advice_on(route));
    std::array<char, 64> lookup{};
    if (route.direct)
        snprintf(lookup.data(), lookup.size(), ", name looked up in %.3f s", route.lookup_seconds);
    const std::string way = (route.direct ? "to " : "through ") + route.address + lookup.data() + seen;
    const FrontEnd &front_end = world.front_end();
    return front_end.code == CURLE_OK
               ? ok(way)
               : wrong(front_end.text + ", " + way, "see whether an HTTPS server answers there");
}

Finding compare_clock(World &world)
{
    constexpr time_t WARN = 60, TOO_MUCH = 3600;
    const auto &date = world.front_end().date;
    if (!date)
        return ok("not compared: the front end sends no Date header");
    const time_t ahead = time(nullptr) - *date;
    const std::string detail = "this clock is " + std::to_string(std::abs(static_cast<long long>(ahead))) +
                               (ahead < 0 ? " s behind" : " s ahead of") + " the Date header";
    if (std::abs(static_cast<long long>(ahead)) >= TOO_MUCH)
        return wrong(detail, "set the clock, by NTP say: certificates are judged by it");
    return std::abs(static_cast<long long>(ahead)) > WARN ? warning(detail, "set the clock") : ok(detail);
}
