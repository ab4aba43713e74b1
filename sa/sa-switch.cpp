// The kernel log and dmesg switches of the command channel, and the settings file that records all
// three log switches. Every run of the daemon starts with the switches off; the settings file is
// written whenever the kernel or the dmesg switch changes and is never read back.
//
// Switching the kernel log on starts one more kernel log reader; switching it off stops the reader
// started last. Switching dmesg on moves the dmesg files up by one generation and takes one snapshot of
// the kernel ring in the background; switching it off does nothing else.
#define SA_TRACE_SRC "sa/sa-switch"
#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "sa-args.h"
#include "sa-capture.h"
#include "sa-trace.h"

// The dmesg snapshot and its older generations (.1 newest, .3 oldest).
static constexpr char kDmesgFile[] = SA_LOG_DIR "/dmesg.log";
static constexpr char kDmesgFile1[] = SA_LOG_DIR "/dmesg.log.1";
static constexpr char kDmesgFile2[] = SA_LOG_DIR "/dmesg.log.2";
static constexpr char kDmesgFile3[] = SA_LOG_DIR "/dmesg.log.3";
static constexpr char kDmesgSnapshotCmd[] = "dmesg > " SA_LOG_DIR "/dmesg.log &";

static const char *switch_yes_no(uint8_t on) {
    return on == 1 ? "Yes" : "No";
}

long write_setting(void) {
    trace_func();
    FILE *fp = fopen(SA_SETTINGS_FILE, "we");
    if (fp == nullptr) {
        int err = errno;
        trace_sys_err("open", err);
        return ERR_NONE;
    }
    // Unbuffered, so a write that fails (a full /data) shows in the result instead of at fclose.
    setvbuf(fp, nullptr, _IONBF, 0);
    // Raw switch bytes (0x00 or 0x01) with one blank between them and no line end.
    int written = fprintf(fp, "%c %c %c", g_sa_handle_ctx.m_kernel_log_on, g_sa_handle_ctx.m_dmesg_log_on,
                          g_sa_handle_ctx.m_packets_capture_on);
    int err = errno;
    if (written < 1) {
        trace_sys_err("fscanf", err);
        fclose(fp);
        return ERR_UNKNOWN;
    }
    trace_info("kernel log: %s", switch_yes_no(g_sa_handle_ctx.m_kernel_log_on));
    trace_info("dmesg log: %s", switch_yes_no(g_sa_handle_ctx.m_dmesg_log_on));
    trace_info("packets capture: %s", switch_yes_no(g_sa_handle_ctx.m_packets_capture_on));
    if (fclose(fp) != 0) {
        err = errno;
        trace_sys_err("fclose", err);
    }
    return ERR_NONE;
}

// Parses a set argument into 0 or 1; false for anything else, traced (-118 logged) under the handler's
// name func.
static bool switch_parse(const char *func, const char *param, uint8_t *on) {
    int value = 255;
    if (sa_parse_switch_value(param, &value) != 1 || static_cast<unsigned>(value) > 1) {
        trace_info_in(func, "error to sscanf(\"%s\")", param);
        trace_err_code_in(func, ERR_CALL_C_FUNCTION);
        return false;
    }
    *on = static_cast<uint8_t>(value);
    return true;
}

// Records the switches after a change and answers: OK, or ERROR when the file could not be written.
static long switch_record_and_answer(int fd, sa_msg_st *rsp) {
    if (write_setting() != ERR_NONE) return send_rsp_err(fd, rsp, SA_RSP_ERR_CODE);
    return send_rsp_ok(fd, rsp);
}

long handle_sa_kernel_log_set(int fd, sa_msg_st *req, sa_msg_st *rsp, const char *param) {
    trace_func();
    SA_CHECK_HANDLER_ARGS(fd, req, rsp, param);
    uint8_t on = 0;
    if (!switch_parse(__func__, param, &on)) return send_rsp_err(fd, rsp, SA_RSP_ERR_CODE);
    if (on == g_sa_handle_ctx.m_kernel_log_on) return send_rsp_ok(fd, rsp);

    g_sa_handle_ctx.m_kernel_log_on = on;
    if (on == 1) {
        int rc = sa_kmsg_create_reader(&g_sa_handle_ctx.m_read_kernel_log_tid);
        trace_info("handle_sa_kernel_log_set m_read_kernel_log_tid[%lu] ret_val[%d]",
                   static_cast<unsigned long>(g_sa_handle_ctx.m_read_kernel_log_tid), rc);
    } else {
        int rc = sa_kmsg_stop_reader(&g_sa_handle_ctx.m_read_kernel_log_tid);
        trace_info("handle_sa_kernel_log_set pub_util_kill_thread ret_val[%d]", rc);
    }
    return switch_record_and_answer(fd, rsp);
}

long handle_sa_kernel_log_read(int fd, sa_msg_st *req, sa_msg_st *rsp, const char *param) {
    trace_func();
    SA_CHECK_HANDLER_ARGS(fd, req, rsp, param);
    return send_rsp_text(fd, rsp, "\r\nKERNEL_LOG: %d\r\n\r\nOK\r\n", g_sa_handle_ctx.m_kernel_log_on);
}

// Moves the dmesg files up by one generation and starts one snapshot in the background, traced under
// the handler's name func.
static void switch_dmesg_snapshot(const char *func) {
    remove(kDmesgFile3);
    rename(kDmesgFile2, kDmesgFile3);
    rename(kDmesgFile1, kDmesgFile2);
    rename(kDmesgFile, kDmesgFile1);
    int status = system(kDmesgSnapshotCmd);
    trace_info_in(func, "handle_sa_dmesg_log_set system(%s) status[%d]", kDmesgSnapshotCmd, status);
}

long handle_sa_dmesg_log_set(int fd, sa_msg_st *req, sa_msg_st *rsp, const char *param) {
    trace_func();
    SA_CHECK_HANDLER_ARGS(fd, req, rsp, param);
    uint8_t on = 0;
    if (!switch_parse(__func__, param, &on)) return send_rsp_err(fd, rsp, SA_RSP_ERR_CODE);
    if (on == g_sa_handle_ctx.m_dmesg_log_on) return send_rsp_ok(fd, rsp);

    g_sa_handle_ctx.m_dmesg_log_on = on;
    if (on == 1) switch_dmesg_snapshot(__func__);
    return switch_record_and_answer(fd, rsp);
}

long handle_sa_dmesg_log_read(int fd, sa_msg_st *req, sa_msg_st *rsp, const char *param) {
    trace_func();
    SA_CHECK_HANDLER_ARGS(fd, req, rsp, param);
    return send_rsp_text(fd, rsp, "\r\nDMESG_LOG: %d\r\n\r\nOK\r\n", g_sa_handle_ctx.m_dmesg_log_on);
}
