/* Uses the client from a plain C program, whose own C library comes first in the search for symbols. */
#include "atls.h"

#include <stdio.h>

void atls_set_date_by_http_header(const char *header);

int main(void)
{
    atls_handle *handle = create_atls_handle();
    atls_set_date_by_http_header("Date: Wed, 18 Nov 2037 10:20:30 GMT\r\n");
    printf("port 443: %d\n", atls_connect(&handle, "h", NULL, 443, "/", NULL));
    printf("port 7: %d\n", atls_connect(&handle, "h", NULL, 7, "/", NULL));
    free_atls_handle(handle);
    return 0;
}
