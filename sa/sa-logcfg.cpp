// The log configuration: one property names the log folder and, for each of the six capture slots, a
// label, a file count and a file size in KB. It is read again at every start of the capture, so the
// table below is rewritten in place; only the configuration fields are touched, the running pid and
// thread id of each slot survive a re-parse.
//
// A label of 4 or more characters, or a count or size text of 40 or more, does not fit its field: the
// parse fails with a trace and the capture does not start, but the daemon keeps running.
#define SA_TRACE_SRC "sa/sa-logcfg"
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cutils/properties.h>

#include "sa-capture.h"
#include "sa-trace.h"

sa_log_svc_st g_zv_log_svc[SA_LOG_SVC_NUM];
char g_log_path_a[100] = SA_LOG_DIR;

static constexpr char kLogConfigSep[] = ",";
static constexpr mode_t kLogDirMode = 0771;
static constexpr uid_t kLogDirUid = SA_AID_SHELL;
static constexpr gid_t kLogDirGid = SA_AID_SHELL;
// The folder's mode is also set by this fixed shell line, relative to "/" where init starts us.
static constexpr char kLogDirChmodCmd[] = "chmod 771 data/local/log";

// Takes the next token as a count or size: its text into text (when it fits) and its value (strtol,
// base 10). false, traced under func (the parser's name) with the field's name and the slot, when the
// token is missing or too long.
static bool log_config_number(const char *func, char **save, const char *field, int slot, char *text,
                              size_t text_size, int32_t *value) {
    const char *token = strtok_r(nullptr, kLogConfigSep, save);
    if (token == nullptr) {
        trace_info_in(func, "Get Log File %s Failed. LogTypeID=I%d", field, slot);
        return false;
    }
    if (strlen(token) >= text_size) {
        trace_info_in(func, "Log File %s[%s] too long. LogTypeID=I%d", field, token, slot);
        return false;
    }
    memcpy(text, token, strlen(token) + 1);
    *value = static_cast<int32_t>(strtol(token, nullptr, 10));
    return true;
}

long parse_zv_log_config(char *value) {
    trace_func();
    if (value == nullptr) {
        trace_info("Invalid param.");
        return ERR_UNKNOWN;
    }
    char *save = nullptr;
    char *token = strtok_r(value, kLogConfigSep, &save);
    if (token == nullptr) {
        trace_info("Log path is null!!!");
        return ERR_UNKNOWN;
    }
    snprintf(g_log_path_a, sizeof(g_log_path_a), "%s", token);

    for (int i = 0; i < SA_LOG_SVC_NUM; ++i) {
        sa_log_svc_st *svc = &g_zv_log_svc[i];
        token = strtok_r(nullptr, kLogConfigSep, &save);
        if (token == nullptr) {
            trace_info("Get Log Type Failed. LogTypeID=I%d", i + 1);
            return ERR_UNKNOWN;
        }
        if (strlen(token) >= sizeof(svc->type)) {
            trace_info("Log Type[%s] too long. LogTypeID=I%d", token, i + 1);
            return ERR_UNKNOWN;
        }
        snprintf(svc->type, sizeof(svc->type), "%s", token);
        svc->type_id = i + 1;

        if (!log_config_number(__func__, &save, "Num", i + 1, svc->file_num, sizeof(svc->file_num),
                               &svc->file_num_val) ||
            !log_config_number(__func__, &save, "Size", i + 1, svc->file_size, sizeof(svc->file_size),
                               &svc->file_size_val))
            return ERR_UNKNOWN;

        trace_info(
            "parse_zv_log_config g_zv_log_svc[%d]: type[%s] type_id[%ld] file_num[%s] file_num_val[%ld] "
            "file_size[%s] file_size_val[%ld]",
            i, svc->type, static_cast<long>(svc->type_id), svc->file_num,
            static_cast<long>(svc->file_num_val), svc->file_size, static_cast<long>(svc->file_size_val));
    }
    return ERR_NONE;
}

long get_zv_log_config(void) {
    trace_func();
    char value[PROPERTY_VALUE_MAX];
    memset(value, 0, sizeof(value));
    int len = property_get(SA_LOG_CONFIG_PROP, value, SA_LOG_CONFIG_DEFAULT);
    if (len == 0) {
        trace_info("Get property[%s] failed", SA_LOG_CONFIG_PROP);
        return ERR_UNKNOWN;
    }
    trace_info("get_zv_log_config zv_log_config_value=[%s]", value);
    if (parse_zv_log_config(value) != ERR_NONE) {
        trace_info("Parse zv log config failed");
        return ERR_UNKNOWN;
    }
    trace_file("exit ret_val[%ld]", static_cast<long>(ERR_NONE));
    return ERR_NONE;
}

long check_zv_log_path(const char *path) {
    trace_func();
    if (path == nullptr) {
        trace_info("Invalid param.");
        return ERR_UNKNOWN;
    }
    trace_info("check_zv_log_path log_path=[%s]", path);
    if (access(path, F_OK) == 0) {
        trace_info("ZV log path \"%s\" exist.", path);
        return ERR_NONE;
    }
    trace_info("ZV log path \"%s\" not exist, now create.", path);
    if (mkdir(path, kLogDirMode) != 0) {
        int err = errno;
        trace_sys_err("mkdir", err);
        return ERR_UNKNOWN;
    }
    if (chown(path, kLogDirUid, kLogDirGid) != 0) {
        int err = errno;
        trace_sys_err("chown", err);
        return ERR_UNKNOWN;
    }
    if (system(kLogDirChmodCmd) != 0) {
        int err = errno;
        trace_info("chmod 771 %s failed, errno(%d)", path, err);
    }
    trace_info("ZV log path \"%s\" setup.", path);
    return ERR_NONE;
}
