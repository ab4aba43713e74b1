// Fuzzes the small value parsers that request arguments reach: the log switches' value (decimal, must
// fit an int and never wrap) and the quoted service name of the service and auto-start requests (at most
// 39 characters, terminated inside its 40-byte buffer, the rest pointing behind the closing quote).
#include <errno.h>
#include <limits.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "fuzz-setup.h"
#include "sa-args.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz_setup_logs();
    const std::string text(reinterpret_cast<const char *>(data), size);
    const char *param = text.c_str();  // stops at the first NUL byte, as the request text does

    int value = 12345;
    int ok = sa_parse_switch_value(param, &value);
    errno = 0;
    char *end = nullptr;
    long want = strtol(param, &end, 10);
    bool fits = end != param && errno != ERANGE && want >= INT_MIN && want <= INT_MAX;
    if (ok != (fits ? 1 : 0)) abort();
    if (ok == 1 && value != static_cast<int>(want)) abort();
    if (ok == 0 && value != 12345) abort();

    char name[SA_SERVICE_NAME_SIZE + 8];
    memset(name, 0x5a, sizeof(name));
    const char *rest = nullptr;
    long parsed = sa_service_name_parse(param, name, &rest);
    if (memchr(name, '\0', SA_SERVICE_NAME_SIZE) == nullptr) abort();
    for (size_t i = SA_SERVICE_NAME_SIZE; i < sizeof(name); ++i) {
        if (name[i] != 0x5a) abort();  // nothing written past the 40-byte buffer
    }
    if (parsed == 0) {
        size_t len = strlen(name);
        if (len == 0 || len > SA_SERVICE_NAME_SIZE - 1 || param[0] != '"' ||
            memcmp(param + 1, name, len) != 0 || param[len + 1] != '"')
            abort();
        if (rest != param + len + 2) abort();
    } else if (parsed != -1 || name[0] != '\0') {
        abort();
    }
    return 0;
}
