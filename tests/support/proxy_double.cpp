// Stands in the place of the proxy manager client.

#include "proxy_double.h"

using proxy_double::answer;

extern "C" int create_proxy_manager_client(void)
{
    return answer.has_value();
}

// The client's texts are writable, but nobody writes there.
extern "C" ProxyUrlInformation get_proxy_url(const char *)
{
    return {answer->mode, const_cast<char **>(answer->entries.data()), const_cast<char *>(answer->user),
            const_cast<char *>(answer->password), static_cast<int32_t>(answer->entries.size())};
}
