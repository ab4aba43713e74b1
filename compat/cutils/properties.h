// Host stand-in for <cutils/properties.h>: same names, sizes and results as the platform's client.
//
// property_get reads the regular file /dev/__properties__/<key> (the value's bytes, no newline).
// property_set speaks the property service's wire format on /dev/socket/property_service:
// uint32 0x00020001, uint32 strlen(key), key, uint32 strlen(value), value (host byte order), then
// reads one uint32 result. Other tools depend on this format; keep it fixed.
#ifndef ZV_COMPAT_CUTILS_PROPERTIES_H
#define ZV_COMPAT_CUTILS_PROPERTIES_H

#define PROPERTY_KEY_MAX 32
#define PROPERTY_VALUE_MAX 92

// Directory of the property area and path of the property service socket.
#define PROP_AREA_DIR "/dev/__properties__"
#define PROP_SERVICE_SOCKET "/dev/socket/property_service"
// Command word of a set request.
#define PROP_MSG_SETPROP2 0x00020001u

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

#endif  // ZV_COMPAT_CUTILS_PROPERTIES_H
