// The auto-start list. The table is ten 40-byte name slots; the file /data/zv-qel-sa/auto-start.lst is
// exactly the table's 400-byte image (no header, no line ends) and is always rewritten whole. The list
// is read and run once at start-up, before the command thread exists; afterwards only the command
// thread changes it, so nothing is locked. Slots are not packed: a removed name leaves a hole that the
// next addition fills.
//
// A slot read from the file may hold 40 name bytes without a terminator, so every use of a slot is
// bounded by the slot size.
#define SA_TRACE_SRC "sa/sa-autostart"
#include "sa-autostart.h"

#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "sa-handle.h"
#include "sa-trace.h"
#include "util/util.h"

char auto_start_service_list[SA_AUTO_START_SLOTS][SA_SERVICE_NAME_SIZE];
char auto_start_service_list_path[256];

static_assert(sizeof(auto_start_service_list) == 400, "the list file is the 400-byte table image");

// The service family that one list entry stands for at start-up.
static constexpr char kFamilyEntry[] = "zv-qel-mla";
static constexpr const char *kFamilyStartLines[] = {
    "setprop ctl.start zv-qel-mla0", "setprop ctl.start zv-qel-mla1", "setprop ctl.start zv-qel-mla2",
    "setprop ctl.start zv-qel-mla3", "setprop ctl.start zv-qel-mla4",
};

// Trace words of the two changing modes.
static const char *mode_word(int mode) {
    return mode == 1 ? "Enable" : "Disable";
}

// Copies slot i into name (SA_SERVICE_NAME_SIZE + 1 bytes) so it is terminated even when full.
static void slot_name(int i, char *name) {
    memcpy(name, auto_start_service_list[i], SA_SERVICE_NAME_SIZE);
    name[SA_SERVICE_NAME_SIZE] = '\0';
}

// Index of the first slot equal to name (exact, case-sensitive), or -1.
static int slot_find(const char *name) {
    for (int i = 0; i < SA_AUTO_START_SLOTS; ++i) {
        // name is at most 39 characters, so its NUL takes part in the bounded comparison.
        if (strncmp(auto_start_service_list[i], name, SA_SERVICE_NAME_SIZE) == 0) return i;
    }
    return -1;
}

// Traces a list file that could not be opened (errno err) under func, with code -118.
static void list_trace_open_fail(const char *func, int err) {
    trace_both_in(func, "open file \"%s\" fail: %d - %s", auto_start_service_list_path, err, strerror(err));
    trace_err_code_in(func, ERR_CALL_C_FUNCTION);
}

// Warns under func that fewer than the ten records were read or written. The read shares the write's
// wording.
static void list_trace_short(const char *func, size_t count) {
    trace_warn_in(func, "write not completed: to write(%d) != written(%d)", SA_AUTO_START_SLOTS,
                  static_cast<int>(count));
    sa_trace_file_line(func, "write not completed: to write(%d) != written(%d)", SA_AUTO_START_SLOTS,
                       static_cast<int>(count));
}

long auto_start_service_list_read(void) {
    trace_func();
    memset(auto_start_service_list, 0, sizeof(auto_start_service_list));
    memset(auto_start_service_list_path, 0, sizeof(auto_start_service_list_path));
    strncpy(auto_start_service_list_path, SA_AUTO_START_DIR, sizeof(auto_start_service_list_path) - 1);

    mkdir(auto_start_service_list_path, 0770);
    if (access(auto_start_service_list_path, F_OK) != 0) {
        // The path stays the directory's own name: later writes of the list go there.
        int err = errno;
        trace_both("access \"%s\" fail: %d - %s", auto_start_service_list_path, err, strerror(err));
        return ERR_NOT_FOUND;
    }
    size_t used = strlen(auto_start_service_list_path);
    snprintf(auto_start_service_list_path + used, sizeof(auto_start_service_list_path) - used, "%s",
             SA_AUTO_START_FILE_NAME);

    pub_util_unique_file fp(fopen(auto_start_service_list_path, "re"));
    if (!fp.ok()) {
        list_trace_open_fail(__func__, errno);
        return ERR_CALL_C_FUNCTION;
    }
    size_t count = fread(auto_start_service_list, SA_SERVICE_NAME_SIZE, SA_AUTO_START_SLOTS, fp.get());
    if (count < SA_AUTO_START_SLOTS) {
        list_trace_short(__func__, count);
        // Only whole records count; a trailing part-record stays free.
        memset(auto_start_service_list[count], 0, sizeof(auto_start_service_list[count]));
    }
    for (int i = 0; i < SA_AUTO_START_SLOTS; ++i) {
        if (auto_start_service_list[i][0] == '\0') continue;
        char name[SA_SERVICE_NAME_SIZE + 1];
        slot_name(i, name);
        trace_both("auto_start_service_list[%d][%s]", i, name);
    }
    return ERR_NONE;
}

long auto_start_service_list_run(void) {
    trace_func();
    long ret_val = ERR_NONE;
    for (int i = 0; i < SA_AUTO_START_SLOTS; ++i) {
        if (auto_start_service_list[i][0] == '\0') continue;
        char name[SA_SERVICE_NAME_SIZE + 1];
        slot_name(i, name);
        trace_both("Try to start service: %s", name);

        char cmd[100];
        memset(cmd, 0, sizeof(cmd));
        snprintf(cmd, sizeof(cmd), "setprop ctl.start %s", name);
        int status = 0;
        if (strcmp(name, kFamilyEntry) == 0) {
            // The family entry stands for its five members; the last one's status decides.
            for (const char *line : kFamilyStartLines) status = system(line);
        } else {
            status = system(cmd);
        }
        if (status != 0) {
            trace_both("error to exec: %s", cmd);
            trace_err_code(ERR_CALL_C_FUNCTION);
            ret_val = ERR_CALL_C_FUNCTION;
        }
    }
    return ret_val;
}

long auto_start_service_list_update(const char *name, int mode) {
    trace_func();
    if (name == nullptr || name[0] == '\0' || (mode != 0 && mode != 1)) return ERR_INVALID_PARAM;
    if (mode == 1) {
        int slot = -1;
        for (int i = 0; i < SA_AUTO_START_SLOTS && slot < 0; ++i) {
            if (auto_start_service_list[i][0] == '\0') slot = i;
        }
        if (slot < 0) {
            trace_both("no free space for \"%s\"", name);
            trace_err_code(ERR_EXCEED_MAX_SIZE);
            trace_both("%s service \"%s\" auto start %s", mode_word(mode), name, "fail");
            return ERR_EXCEED_MAX_SIZE;
        }
        // strncpy pads the rest of the slot with NUL bytes.
        strncpy(auto_start_service_list[slot], name, sizeof(auto_start_service_list[slot]));
    } else {
        int slot = slot_find(name);
        if (slot >= 0) memset(auto_start_service_list[slot], 0, sizeof(auto_start_service_list[slot]));
    }

    pub_util_unique_file fp(fopen(auto_start_service_list_path, "we"));
    if (!fp.ok()) {
        // The table keeps the change; the next successful write brings the file in line.
        list_trace_open_fail(__func__, errno);
        trace_both("%s service \"%s\" auto start %s", mode_word(mode), name, "fail");
        return ERR_CALL_C_FUNCTION;
    }
    // Unbuffered, so the count below is what reached the file and not what reached a buffer.
    setvbuf(fp.get(), nullptr, _IONBF, 0);
    size_t count = fwrite(auto_start_service_list, SA_SERVICE_NAME_SIZE, SA_AUTO_START_SLOTS, fp.get());
    if (count < SA_AUTO_START_SLOTS) list_trace_short(__func__, count);
    fp.reset();
    trace_both("%s service \"%s\" auto start %s", mode_word(mode), name, "OK");
    return ERR_NONE;
}

// Parses "\"NAME\",MODE": the comma right after the closing quote, blanks allowed before the decimal
// mode. A mode outside int is refused (it must not wrap into a valid one). 0 or -1.
static long auto_start_parse(const char *param, char *name, int *mode) {
    const char *rest = nullptr;
    if (sa_service_name_parse(param, name, &rest) != 0 || *rest != ',') return -1;
    const char *num = rest + 1;
    char *end = nullptr;
    errno = 0;
    long value = strtol(num, &end, 10);
    if (end == num || errno == ERANGE || value < INT_MIN || value > INT_MAX) return -1;
    *mode = static_cast<int>(value);
    return 0;
}

// "+AUTO_START_SERVICE": adds (mode 1), removes (mode 0) or looks up (mode 2) the quoted name in the list.
long handle_sa_auto_start_service_set(int fd, sa_msg_st *req, sa_msg_st *rsp, const char *param) {
    trace_func();
    SA_CHECK_HANDLER_ARGS(fd, req, rsp, param);
    trace_both("req[%s]", param);

    char name[SA_SERVICE_NAME_SIZE];
    int mode = -1;
    if (auto_start_parse(param, name, &mode) != 0 || static_cast<unsigned>(mode) >= 3) {
        trace_info("handle_sa_auto_start_service_set invalid param[%s]", param);
        trace_file("invalid param[%s]", param);
        return send_rsp_err(fd, rsp, SA_RSP_ERR_CODE);
    }

    int is_member = slot_find(name) >= 0 ? 1 : 0;
    trace_info("handle_sa_auto_start_service_set service[%s] mode[%d] is_member[%d]", name, mode, is_member);
    trace_file("service[%s] mode[%d] is_member[%d]", name, mode, is_member);
    if (mode == 2) return send_rsp_text(fd, rsp, "\r\nAUTO_START_SERVICE: %d\r\n\r\nOK\r\n", is_member);
    if (mode == is_member) return send_rsp_ok(fd, rsp);

    long ret_val = auto_start_service_list_update(name, mode);
    trace_info("handle_sa_auto_start_service_set auto_start_service_list_update ret_val[%ld]", ret_val);
    trace_file("ret_val[%ld]", ret_val);
    if (ret_val != ERR_NONE) return send_rsp_err(fd, rsp, SA_RSP_ERR_CODE);
    return send_rsp_ok(fd, rsp);
}
