// property_get / property_set over the handset C library's __system_property_get / _set, with
// libcutils' results: a missing or empty value gives the default, a set answers 0 or -1.
#include "cutils/properties.h"

#include <string.h>
#include <sys/system_properties.h>

static_assert(PROPERTY_VALUE_MAX == PROP_VALUE_MAX, "the value buffer is the C library's");

int property_get(const char *key, char *value, const char *default_value) {
    int len = __system_property_get(key, value);
    if (len > 0) return len;
    if (default_value == nullptr) {
        value[0] = '\0';
        return 0;
    }
    size_t n = strlen(default_value);
    if (n > PROPERTY_VALUE_MAX - 1) n = PROPERTY_VALUE_MAX - 1;
    memcpy(value, default_value, n);
    value[n] = '\0';
    return static_cast<int>(n);
}

int property_set(const char *key, const char *value) {
    return __system_property_set(key, value) == 0 ? 0 : -1;
}
