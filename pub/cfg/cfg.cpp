// Configuration line reader and key/value splitter.
//
// The reader deliberately leaves one byte of the buffer unused by fgets (size - 1), so a 100-byte
// buffer takes lines in chunks of at most 98 characters, and it reports end of file only on the call
// after the stream hit it: a file that ends in a newline yields one more, empty, chunk before the end
// flag. Callers skip empty and malformed lines, so both are harmless and kept as the file format's
// established behaviour.
#include "cfg/cfg.h"

#include <string.h>

#include "log/log_client.h"

#define PUB_LOG_SRC "cfg/cfg"

int pub_cfg_get_line(FILE *stream, char *buf, int size, int *len_out, int *eof_out) {
    PUB_LOG_FUNC();
    if (stream == nullptr || buf == nullptr || len_out == nullptr || eof_out == nullptr || size < 2) {
        PUB_LOG_ERR(ERR_INVALID_PARAM, "stream[%p] buf[%p] size[%d] len_out[%p] eof_out[%p]",
                    static_cast<void *>(stream), static_cast<void *>(buf), size, static_cast<void *>(len_out),
                    static_cast<void *>(eof_out));
        return ERR_INVALID_PARAM;
    }
    *len_out = 0;
    *eof_out = 0;
    memset(buf, 0, static_cast<size_t>(size));
    if (feof(stream)) {
        *eof_out = 1;
        return ERR_NONE;
    }
    // At end of file fgets leaves the zeroed buffer as it is; the empty chunk is the answer.
    if (fgets(buf, size - 1, stream) == nullptr) buf[0] = '\0';
    *len_out = static_cast<int>(strlen(buf));
    return ERR_NONE;
}

static bool is_value_tail(char c) {
    return c == ' ' || c == '\r' || c == '\n';
}

int pub_cfg_get_param_and_value(char *line, char **key_out, char **value_out) {
    PUB_LOG_FUNC();
    if (line == nullptr || key_out == nullptr || value_out == nullptr) {
        PUB_LOG_ERR(ERR_INVALID_PARAM, "line[%p] key_out[%p] value_out[%p]", static_cast<void *>(line),
                    static_cast<void *>(key_out), static_cast<void *>(value_out));
        return ERR_INVALID_PARAM;
    }
    char *key = line;
    while (*key == ' ') ++key;
    if (*key == '#') return ERR_NOT_FOUND;

    char *eq = strchr(key, '=');
    if (eq == nullptr) return ERR_NOT_FOUND;
    *eq = '\0';
    for (char *p = eq; p > key && p[-1] == ' ';) *--p = '\0';

    char *value = eq + 1;
    while (*value == ' ') ++value;
    size_t len = strlen(value);
    while (len > 0 && is_value_tail(value[len - 1])) value[--len] = '\0';

    *key_out = key;
    *value_out = value;
    return ERR_NONE;
}
