// The readers of the response headers, on one header block.

#include "fuzz.h"

#include "atls_internals.h"

#include <cstring>
#include <vector>

// A list of cookies that was cut to its buffer is the beginning of the whole list.
static void read_cookies(const char *header)
{
    std::string whole(strlen(header) + 1, '\0'); // no list is longer than its headers
    const int found = atls_get_cookie_from_header(header, whole.data(), static_cast<int>(whole.size()));
    whole.resize(strlen(whole.c_str()));
    for (const size_t size : {2, 3, 8, 64, 1024}) {
        std::vector<char> cookies(size); // a block of this very size
        const int result = atls_get_cookie_from_header(header, cookies.data(), static_cast<int>(size));
        REQUIRE(result == (found == ATLS_OK && whole.size() >= size - 1 ? ATLS_BAD_RESPONSE : found));
        REQUIRE(whole.substr(0, size - 1) == cookies.data());
    }
}

// The failing allocation, and a header block.
void run(std::istream &input)
{
    calls_left = number(input);
    const std::string text = upto(input, '\0');
    const std::vector<char> header(text.c_str(), text.c_str() + text.size() + 1);
    read_cookies(header.data());
    char *id = nullptr;
    const int result = atls_get_tracking_id_from_header(header.data(), &id);
    REQUIRE(result == ATLS_OK || (result == ATLS_BAD_RESPONSE && !id));
    REQUIRE(!id || (*id != '\0' && strlen(id) <= 64 && !strchr(id, '\r')));
    free(id);
    atls_set_date_by_http_header(header.data());
}
