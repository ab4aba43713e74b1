// Parsers of the request arguments that several commands share (see sa-args.h).
#include "sa-args.h"

#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static_assert(SA_SERVICE_NAME_SIZE == 40, "the name width in sa_service_name_parse is 39");

long sa_service_name_parse(const char *param, char *name, const char **rest) {
    memset(name, 0, SA_SERVICE_NAME_SIZE);
    if (param == nullptr) return -1;
    // %n after the closing quote is only reached when the quote matched, so a name of 40 or more
    // characters (the width stops at 39) leaves end at 0 and is refused.
    int end = 0;
    if (sscanf(param, "\"%39[^\"]\"%n", name, &end) != 1 || end == 0) {
        memset(name, 0, SA_SERVICE_NAME_SIZE);
        return -1;
    }
    if (rest != nullptr) *rest = param + end;
    return 0;
}

int sa_parse_switch_value(const char *param, int *value) {
    if (param == nullptr || value == nullptr) return 0;
    char *end = nullptr;
    errno = 0;
    long v = strtol(param, &end, 10);
    if (end == param || errno == ERANGE || v < INT_MIN || v > INT_MAX) return 0;
    *value = static_cast<int>(v);
    return 1;
}
