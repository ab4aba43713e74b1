// Reads /system/etc/zv-qel-sa.cfg: one "key = value" setting a line, "#" comments, unknown keys ignored,
// the last occurrence of a key wins. The file is optional: every failure leaves the zero defaults.
#define SA_TRACE_SRC "sa/sa-cfg"
#include "sa-cfg.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "cfg/cfg.h"
#include "sa-trace.h"

sa_cfg_record sa_cfg_st;

// Size of the line buffer handed to the line reader (lines are read in chunks of 98 characters).
static constexpr int kCfgLineSize = 100;

long parse_sa_cfg(void) {
    trace_func();
    FILE *fp = fopen(SA_CFG_FILE, "re");
    if (fp == nullptr) {
        int err = errno;
        trace_sys_err("fopen", err);
        trace_info("fail to open file: %s", SA_CFG_FILE);
        return 0;
    }

    char line[kCfgLineSize];
    int len = 0;
    int eof = 0;
    while (eof == 0) {
        if (pub_cfg_get_line(fp, line, sizeof(line), &len, &eof) != 0) break;
        // A stream that fails without reaching its end (a folder, an I/O error) would never set the
        // end-of-file flag: stop reading it.
        if (ferror(fp) != 0) {
            int err = errno;
            trace_sys_err("fgets", err);
            break;
        }
        if (eof != 0 || len == 0) continue;
        char *key = nullptr;
        char *value = nullptr;
        if (pub_cfg_get_param_and_value(line, &key, &value) != 0) continue;
        if (key == nullptr || value == nullptr || key[0] == '\0' || value[0] == '\0') continue;

        if (strcmp(key, "zv.tty.cmd") == 0) {
            strncpy(sa_cfg_st.m_tty_cmd_a, value, sizeof(sa_cfg_st.m_tty_cmd_a) - 1);
            trace_info("[cfg]zv.tty.cmd = %s", sa_cfg_st.m_tty_cmd_a);
        } else if (strcmp(key, "zv.log.size") == 0) {
            sa_cfg_st.m_log_size = static_cast<uint32_t>(strtol(value, nullptr, 10));
            trace_info("[cfg]zv.log.size = %ld", static_cast<long>(sa_cfg_st.m_log_size));
        }
    }
    fclose(fp);
    return 0;
}

long sa_cfg_init(void) {
    trace_func();
    memset(&sa_cfg_st, 0, sizeof(sa_cfg_st));
    return parse_sa_cfg();
}
