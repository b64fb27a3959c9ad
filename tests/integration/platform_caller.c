/* A plain C program: its own C library comes first in the search for symbols. */
#include <stdio.h>

void atls_set_date_by_http_header(const char *header);

int main(void)
{
    atls_set_date_by_http_header("Date: Wed, 18 Nov 2037 10:20:30 GMT\r\n");
    return 0;
}
