// "+DELETE_LOG": empties the daemon's log folder of the files the capture services write, then starts
// the capture again. The capture is stopped first so that no writer recreates a file during the delete;
// it is started again only when /data has room for it, and otherwise stays down until the next start of
// the daemon or a later successful delete.
//
// Only the capture files go: the daemon's own sa.log, the dmesg snapshots, the panic copies and the
// modem log folders stay. The log folder is always /data/local/log, whatever the log configuration
// names. Each delete line runs once; a line that finds nothing to delete is normal and only traced.
#define SA_TRACE_SRC "sa/sa-delete"
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "sa-archive.h"
#include "sa-capture.h"
#include "sa-handle.h"
#include "sa-trace.h"

// One delete line: "busybox rm -r " followed by the folder (when m_in_dir) and m_pattern.
struct sa_delete_line_st {
    bool m_in_dir;
    const char *m_pattern;
};

static constexpr sa_delete_line_st kDeleteLines[] = {
    {true, "/kmsg.log*"},
    {true, "/ipdata.pcap*"},
    {true, "/logcat.log*"},
    {true, "/logcat-events.log*"},
    {true, "/logcat-radio.log*"},
    // The modem log archives lie next to the log folder, not in it.
    {false, "/data/local/log-modem*.tgz"},
    {true, "/zv-poweron-log.log*"},
};

long util_delete_ex(const char *src_dir) {
    trace_func();
    if (src_dir == nullptr) {
        trace_info("src_dir invalid");
        return ERR_INVALID_PARAM;
    }
    trace_info("util_delete_ex src_dir[%s]", src_dir);
    char cmd_a[256];
    memset(cmd_a, 0, sizeof(cmd_a));
    for (const sa_delete_line_st &line : kDeleteLines) {
        const char *dir = line.m_in_dir ? src_dir : "";
        snprintf(cmd_a, sizeof(cmd_a), "busybox rm -r %s%s", dir, line.m_pattern);
        int status = system(cmd_a);
        trace_info("util_delete_ex delete file[%s%s] ret[%d]", dir, line.m_pattern, status);
    }
    return ERR_NONE;
}

long sa_log_delete_log(void) {
    trace_func();
    sa_kill_all_child_service_ex();
    trace_info("log_path[%s]", SA_LOG_DIR);
    long delete_ret = util_delete_ex(SA_LOG_DIR);
    trace_info("sa_log_delete_log util_delete_ex[%s] ret_val[%ld]", SA_LOG_DIR, delete_ret);

    long ret_val = ERR_NONE;
    if (sa_is_can_start_log_service() != ERR_NONE) {
        ret_val = ERR_EXCEED_MAX_SIZE;
        trace_info("sa_log_delete_log sa_is_can_start_log_service error");
    } else {
        ret_val = start_log_service();
        trace_info("start_log_service ret_val[%ld]", ret_val);
    }
    trace_file("exit ret_val[%ld]", ret_val);
    return ret_val;
}

long handle_sa_delete_log_set(int fd, sa_msg_st *req, sa_msg_st *rsp, const char *param) {
    trace_func();
    SA_CHECK_HANDLER_ARGS(fd, req, rsp, param);
    trace_info("req[%s]", param);

    long ret_val = sa_log_delete_log();
    trace_info("handle_sa_delete_log_set sa_log_delete_log ret_val[%ld]", ret_val);
    trace_file("ret_val[%ld]", ret_val);
    return ret_val == ERR_NONE ? send_rsp_ok(fd, rsp) : send_rsp_err(fd, rsp, SA_RSP_ERR_CODE);
}
