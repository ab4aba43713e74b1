// Fuzzes the parser of the log configuration property ("<dir>,I1,<count>,<size>,I2,..."), with any value
// the property can hold and with longer ones: the parse never reads or writes out of bounds, and every
// text it leaves in the capture table and in the directory text stays terminated inside its field.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

#include "fuzz-setup.h"
#include "sa-capture.h"

// Whether field holds a NUL within its size.
template <size_t N>
static bool terminated(const char (&field)[N]) {
    return memchr(field, '\0', N) != nullptr;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz_setup_logs();
    memset(g_zv_log_svc, 0, sizeof(g_zv_log_svc));
    std::vector<char> value(data, data + size);
    value.push_back('\0');
    long ret = parse_zv_log_config(value.data());
    if (ret != ERR_NONE && ret != ERR_UNKNOWN) abort();
    if (!terminated(g_log_path_a)) abort();
    for (const sa_log_svc_st &svc : g_zv_log_svc) {
        if (!terminated(svc.type) || !terminated(svc.file_num) || !terminated(svc.file_size)) abort();
    }
    return 0;
}
