// <cutils/properties.h> for handset builds outside a platform tree (the development kit has no
// libcutils): the same names, sizes and results as the platform's client, over the property functions
// that the handset's C library itself exports (public since API 21). Platform trees use libcutils.
#ifndef ZV_COMPAT_HANDSET_CUTILS_PROPERTIES_H
#define ZV_COMPAT_HANDSET_CUTILS_PROPERTIES_H

#define PROPERTY_KEY_MAX 32
#define PROPERTY_VALUE_MAX 92

#ifdef __cplusplus
extern "C" {
#endif

// Copies the value of key (or default_value when unset or empty) into value, at most
// PROPERTY_VALUE_MAX - 1 bytes and NUL-terminated; returns its length.
int property_get(const char *key, char *value, const char *default_value);
// Asks the property service to set key to value; 0 when it accepted, -1 otherwise.
int property_set(const char *key, const char *value);

#ifdef __cplusplus
}
#endif

#endif  // ZV_COMPAT_HANDSET_CUTILS_PROPERTIES_H
