// Fuzzes the listener's handling of one request as its loop reads it (at most 1023 bytes, ended after
// the bytes read): the request is classified without reading past its end, a shell's command text lies
// inside the request, and a request that is neither a shell nor "host:kill" gets its connection
// descriptor closed and no shell. Shell requests are only classified here; running them would fork.
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "fuzz-setup.h"
#include "sa-listener.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz_setup_logs();
    static char request[1024];
    memset(request, 0, sizeof(request));
    size_t n = size < sizeof(request) - 1 ? size : sizeof(request) - 1;
    memcpy(request, data, n);
    request[n] = '\0';

    const char *command = reinterpret_cast<const char *>(1);
    sa_listener_request_kind kind = sa_listener_request(request, &command);
    switch (kind) {
        case SA_LISTENER_KILL:
            if (strcmp(request, "host:kill") != 0 || command != nullptr) abort();
            break;
        case SA_LISTENER_SHELL:
            if (strncmp(request, "shell:", 6) != 0) abort();
            if (command == nullptr ? request[6] != '\0' : (command != request + 6 || command[0] == '\0'))
                abort();
            break;
        case SA_LISTENER_UNKNOWN: {
            if (command != nullptr || strncmp(request, "shell:", 6) == 0 || strcmp(request, "host:kill") == 0)
                abort();
            int conn = open("/dev/null", O_RDWR | O_CLOEXEC);
            if (conn < 0) abort();
            if (handle_service(conn, request) != -1) abort();
            // The connection was given back.
            if (fcntl(conn, F_GETFD) != -1) abort();
            break;
        }
        default:
            abort();
    }
    return 0;
}
