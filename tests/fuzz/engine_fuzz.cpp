// Response bodies into the inner TLS engine of an established session.

#include "tls.h"

#include "atls_internals.h"

// The version, 2 or 3, the failing allocation, and a body in each line.
void run(std::istream &input)
{
    const bool old = input.get() == '2';
    const Engine client = make_engine(false, old), server = make_engine(true, old);
    for (int flight = 0; flight < 6; flight++) {
        SSL *const from = (flight % 2 == 0 ? client : server).get();
        SSL_do_handshake(from);
        feed((flight % 2 == 0 ? server : client).get(), atls_service::drain(SSL_get_wbio(from)));
    }
    REQUIRE(SSL_is_init_finished(client.get()) && SSL_is_init_finished(server.get()));
    std::string sent, line;
    size_t read = 0;
    calls_left = number(input);
    bool intact = calls_left == 0; // one message in each body, and nothing has befallen any
    while (std::getline(input, line) && sent.size() < 400000) {
        intact = intact && line[0] == 'w' && line.find_first_not_of("0123456789", 1) == std::string::npos;
        const size_t start = sent.size();
        const std::string body = compose(server.get(), std::istringstream(line), sent);
        char *out = nullptr;
        int length = 0;
        const int result = atls_decrypt_buffer(client.get(), SSL_get_rbio(client.get()), body.data(),
                                               static_cast<int>(body.size()), &out, &length);
        REQUIRE(result == (body.empty() ? ATLS_INVALID_INPUT : out ? ATLS_OK : ATLS_BAD_RESPONSE));
        REQUIRE(!intact || (result == ATLS_OK) == ((sent.size() - start) % ATLS_FLIGHT_SIZE != 0));
        if (out) {
            // Nothing but what the service sent is ever read, and in that order.
            const std::string text(out, static_cast<size_t>(length));
            const size_t found = intact ? start : sent.find(text, read);
            REQUIRE(out[length] == '\0' && found < sent.size() &&
                    sent.compare(found, text.size(), text) == 0);
            REQUIRE(!intact || found + text.size() == sent.size());
            read = found + text.size();
        }
        free(out);
    }
}
