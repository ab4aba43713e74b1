// setprop: the handset's command-line property setter. Sends one set request to init's property
// service through the platform's property client; shell lines of the daemon and tests use it.
// Exit status: 0 when the service accepted the request, 1 otherwise (also for wrong arguments).
#include <stdio.h>

#include "cutils/properties.h"

int main(int argc, char **argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: setprop <key> <value>\n");
        return 1;
    }
    if (property_set(argv[1], argv[2]) != 0) {
        fprintf(stderr, "setprop: failed to set property '%s' to '%s'\n", argv[1], argv[2]);
        return 1;
    }
    return 0;
}
