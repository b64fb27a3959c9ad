// Helpers that the files of the proxy manager client share beside the record functions of the public header.
#ifndef PROXYMANAGER_COMMON_H
#define PROXYMANAGER_COMMON_H

#include "proxymanager.h"

#include <string>
#include <string_view>

// Releases a heap block unless it is NULL, and clears the pointer to it.
void freeMem(char **text);

// The host part of a URL. A text without "://" is its own host.
std::string_view hostOf(std::string_view url);
// Returns a heap copy of it, NULL when it is empty.
char *getHost(const std::string &url);

// string2Char for a whole text. Throws when there is no memory for one that is not empty.
char *copyText(std::string_view text);

// What the exception says that is being handled, as long as it is.
const char *currentError();

inline const char *orEmpty(const char *text)
{
    return text ? text : "";
}

// Begins the log lines of the client object.
constexpr const char *CLASS_PREFIX = "ProxyManagerClientImpl-";
constexpr const char *CALL_FAILED_FORMAT = "%s%s DBus Error occured: %s";

#endif
