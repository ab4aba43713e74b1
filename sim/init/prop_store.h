// prop_store: the handset's property area and the property service's request format. A property is
// the regular file <dir>/<key> holding the value's bytes without a newline, replaced whole through a
// temporary file and a rename so a reader never sees half a value. Names beginning with '.' never are
// keys, which leaves the area's own files (the request history, the temporary file) out of listings.
//
// A set request on the service socket is: uint32 0x00020001, uint32 key length, the key, uint32 value
// length, the value (host byte order); the service answers one uint32, 0 when it accepted. Other tools
// speak exactly this format, so it never changes.
#ifndef ZV_SIM_INIT_PROP_STORE_H
#define ZV_SIM_INIT_PROP_STORE_H

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "cutils/properties.h"

// Answers of the property service: 0 accepted, anything else refused.
enum : uint32_t {
    PROP_ANSWER_OK = 0,
    PROP_ANSWER_BAD_FRAME = 1,  // unknown command word, or a length over its limit
    PROP_ANSWER_BAD_NAME = 2,   // key not a legal property name
    PROP_ANSWER_BAD_VALUE = 3,  // value holds a NUL or a line end
    PROP_ANSWER_READ_ONLY = 4,  // "ro." key that already has a value
    PROP_ANSWER_STORE = 5,      // the area could not be written
};

// Largest well-formed set request, in bytes.
constexpr size_t PROP_FRAME_MAX = 3 * sizeof(uint32_t) + (PROPERTY_KEY_MAX - 1) + (PROPERTY_VALUE_MAX - 1);

// One decoded set request; key and value are NUL-terminated copies of the received bytes.
struct prop_request {
    char m_key[PROPERTY_KEY_MAX];
    size_t m_key_len;
    char m_value[PROPERTY_VALUE_MAX];
    size_t m_value_len;
};

enum prop_frame_status { PROP_FRAME_INCOMPLETE, PROP_FRAME_COMPLETE, PROP_FRAME_BAD };

// One property as listed from the area.
struct prop_entry {
    std::string m_key;
    std::string m_value;
};

// Decodes the set request in buf[0..len): COMPLETE fills req; INCOMPLETE wants more bytes; BAD means
// an unknown command word or a key of PROPERTY_KEY_MAX or a value of PROPERTY_VALUE_MAX bytes or more.
prop_frame_status prop_frame_decode(const unsigned char *buf, size_t len, prop_request *req);

// True when name[0..len) is a legal key: 1 to 31 of letters, digits and "._-:@", no '.' first or last,
// no "..".
bool prop_name_is_legal(const char *name, size_t len);

// True when value[0..len) may be stored: no NUL, no line end (each history entry is one line).
bool prop_value_is_legal(const char *value, size_t len);

// Checks a decoded request against the area dir: PROP_ANSWER_OK or the reason to refuse it.
uint32_t prop_request_check(const char *dir, const prop_request *req);

// Sets key to value[0..len) in the area dir (temporary file, then rename); 0 or an errno value.
int prop_store_set(const char *dir, const char *key, const char *value, size_t len);

// Appends "key=value" and a newline to the history descriptor fd in one write; 0 or an errno value.
int prop_history_append(int fd, const prop_request *req);

// Reads every property of the area dir into out, sorted by key; 0 or an errno value.
int prop_store_list(const char *dir, std::vector<prop_entry> *out);

#endif  // ZV_SIM_INIT_PROP_STORE_H
