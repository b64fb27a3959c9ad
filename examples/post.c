/* Posts one message to an ATLS service and prints the answer: post HOST PORT PATH MESSAGE */
#include <atls.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

int main(int argc, char **argv)
{
    if (argc != 5)
        return 64;
    atls_handle *handle = create_atls_handle();
    int result = atls_connect(&handle, argv[1], NULL, atoi(argv[2]), argv[3], NULL);
    if (result == ATLS_OK) {
        atls_resp answer = {0};
        result = atls_easy_perform(handle, argv[4], (int)strlen(argv[4]), argv[3], &answer);
        if (result == ATLS_OK)
            fwrite(answer.body, 1, answer.body_len, stdout);
        cleanup_atls_resp(&answer);
    }
    free_atls_handle(handle);
    return result;
}
