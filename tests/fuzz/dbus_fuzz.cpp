// D-Bus replies and signals, and URLs, into the client of the proxy manager, whose connection has nobody at its other end.

#include "fuzz.h"

#include "common.h"
#include "pollloop.h"
#include "proxymanagerclientimpl.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include <dbus/dbus.h>
#include <unistd.h>

using MessagePtr = std::unique_ptr<DBusMessage, decltype(&dbus_message_unref)>;

static std::vector<std::pair<DBusHandleMessageFunction, void *>> filters;
static std::istream *script;

// The message that begins here, NULL when it is none.
static MessagePtr read_message()
{
    std::string bytes(DBUS_MINIMUM_HEADER_SIZE, '\0');
    script->read(bytes.data(), DBUS_MINIMUM_HEADER_SIZE);
    const int length = dbus_message_demarshal_bytes_needed(bytes.data(), DBUS_MINIMUM_HEADER_SIZE);
    bytes.resize(static_cast<size_t>(std::clamp(length, DBUS_MINIMUM_HEADER_SIZE, 10000)));
    script->read(&bytes[DBUS_MINIMUM_HEADER_SIZE], static_cast<int>(bytes.size()) - DBUS_MINIMUM_HEADER_SIZE);
    return {dbus_message_demarshal(bytes.data(), static_cast<int>(bytes.size()), nullptr),
            dbus_message_unref};
}

extern "C" {

dbus_bool_t dbus_connection_add_filter(DBusConnection *, DBusHandleMessageFunction filter, void *data,
                                       DBusFreeFunction)
{
    filters.emplace_back(filter, data);
    return TRUE;
}

// They go with the client, before any more is delivered.
void dbus_connection_remove_filter(DBusConnection *, DBusHandleMessageFunction, void *)
{
}
void dbus_bus_add_match(DBusConnection *, const char *, DBusError *)
{
}
void dbus_bus_remove_match(DBusConnection *, const char *, DBusError *)
{
}

// The next message of the script is the reply.
DBusMessage *dbus_connection_send_with_reply_and_block(DBusConnection *, DBusMessage *, int, DBusError *error)
{
    MessagePtr reply = read_message();
    if (!reply)
        dbus_set_error_const(error, DBUS_ERROR_NO_REPLY, "no reply");
    return !reply || dbus_set_error_from_message(error, reply.get()) ? nullptr : reply.release();
}

} // extern "C"

// Hands the messages that begin here to what listens on the connection.
static void deliver()
{
    while (script->peek() == 'l') // for little-endian
        if (const MessagePtr message = read_message())
            for (size_t i = 0; i < filters.size(); i++)
                filters[i].first(nullptr, message.get(), filters[i].second);
}

static PollLoop *const loop = new PollLoop;

// A connection to somebody who never answers.
static DBus::Connection &connection()
{
    const std::string listening = "unix:abstract=fuzz-" + std::to_string(getpid()); // no file is left of it
    static DBusServer *const server = dbus_server_listen(listening.c_str(), nullptr);
    static char *const address = dbus_server_get_address(server);
    DBus::default_dispatcher = loop;
    static auto *const opened = new DBus::Connection(address);
    return *opened;
}

// The host of a URL, which the answer is kept under, is a part of it.
static void read_host(const std::string &url)
{
    const size_t left = std::exchange(calls_left, 0); // without memory it has none
    char *host = getHost(url);
    const size_t scheme = url.find("://"), start = scheme == std::string::npos ? 0 : scheme + 3;
    REQUIRE(host ? url.compare(start, strlen(host), host) == 0 && (start == 0 || !strchr(host, ':'))
                 : start == url.size() || url[start] == ':');
    free(host);
    calls_left = left;
}

// All texts of an answer can be read.
static void read_answer(const ProxyUrlInformation &answer)
{
    std::string texts = answer.userName ? answer.userName : "";
    for (int32_t i = 0; i < answer.proxyUrlCount; i++)
        texts += answer.proxyUrlList[i] ? answer.proxyUrlList[i] : "";
    REQUIRE(answer.mode >= PROXY_MODE_OFF && answer.mode <= PROXY_MODE_WPAD && texts.size() < 1000000);
}

// u URL asks for a proxy, h N listens to an event, c reads the configuration and writes it, k asks whether the service
// is there; the messages between the lines come by themselves.
static void converse(ProxyManagerClientImpl &client)
{
    ProxyUrlInformation answer = {}; // can be read until the next is asked for
    for (std::string line; std::getline(*script, line); read_answer(answer)) {
        const std::string text = line.substr(std::min<size_t>(line.size(), 1));
        if (line[0] == 'u') {
            read_host(text);
            answer = client.getProxyUrl(text.c_str());
        } else if (line[0] == 'h') {
            client.AddEventNotifyHandler(static_cast<int>(strtol(text.c_str(), nullptr, 10)),
                                         [](int type) { type == 9 ? throw type : void(); });
        } else if (line[0] == 'c') {
            ProxyManagerConfig config = {};
            client.getProxyConfig(&config);
            client.updateProxyConfig(config);
            cleanupProxyConfig(&config);
        } else if (line[0] == 'k') {
            client.checkServicestarted();
        }
        deliver();
    }
}

// The failing allocation, the messages that answer the first two calls, and a conversation.
void run(std::istream &input)
{
    script = &input;
    calls_left = number(input);
    DBus::Connection &unused = connection();
    const size_t own = filters.size();
    try {
        ProxyManagerClientImpl client(unused, "/com/halvo/ProxyManagerService",
                                      "com.halvo.ProxyManagerService", loop->calls());
        deliver();
        converse(client);
    } catch (const std::exception &) { // a client that could not be made leaves its filter to the connection
    }
    filters.resize(own);
}
