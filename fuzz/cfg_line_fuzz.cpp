// Fuzzes the configuration line splitter with any line the line reader can return: the key and value
// it hands back must lie inside the line and be terminated there.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "cfg/cfg.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    char line[100];
    memset(line, 0, sizeof(line));
    memcpy(line, data, size < sizeof(line) - 2 ? size : sizeof(line) - 2);
    char *key = nullptr;
    char *value = nullptr;
    int ret = pub_cfg_get_param_and_value(line, &key, &value);
    if (ret == 0) {
        char *end = line + sizeof(line);
        if (key < line || key >= end || value < line || value >= end) abort();
        if (memchr(key, '\0', static_cast<size_t>(end - key)) == nullptr) abort();
        if (memchr(value, '\0', static_cast<size_t>(end - value)) == nullptr) abort();
        if (strchr(key, '=') != nullptr && key[0] != '\0' && strchr(key, '=') < value) abort();
    } else if (ret != -104 && ret != -101) {
        abort();
    }
    return 0;
}
