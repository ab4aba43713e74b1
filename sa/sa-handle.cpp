// The command channel: the command thread's read loop on the command pty, the request grammar and the
// response functions. Handlers are reached only through the command table handed to the dispatcher.
//
// Requests are parsed in place in one 199-byte buffer, without allocation. A request must arrive whole,
// its "\r" included (a "\r" inside double quotes does not end it); whatever is incomplete is answered
// with the error and dropped, and a handler that refuses its arguments leaves the bytes in the buffer
// so the next read appends to them. The "AT\r" probe is answered before anything else is looked at.
#define SA_TRACE_SRC "sa/sa-handle"
#include "sa-handle.h"

#include <errno.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <unistd.h>

#include "sa-trace.h"
#include "util/util.h"

sa_handle_ctx_st g_sa_handle_ctx;

// Usable bytes of a message record (the last byte stays NUL).
static constexpr size_t kMsgRoom = sizeof(sa_msg_st::m_data_a) - 1;
// AT-command direction of an answer in the log client: "ATA -> USR", port index label "PTM idx".
static constexpr unsigned kRspLogDir = 3;

long send_rsp(int fd, sa_msg_st *rsp) {
    int bad_fd = fd < 1;
    int bad_rsp = rsp == nullptr;
    int bad_len = bad_rsp || rsp->m_len == 0;
    if (bad_fd || bad_rsp || bad_len) {
        trace_info("%d, %d, %d", bad_fd, bad_rsp, bad_len);
        return ERR_INVALID_PARAM;
    }
    size_t len = rsp->m_len < kMsgRoom ? rsp->m_len : kMsgRoom;
    sfw_log_full(nullptr, SA_MODULE_NAME, SFW_LOG_AT_CMD, SA_TRACE_SRC, __LINE__, __func__, 0, kRspLogDir,
                 rsp->m_data_a, static_cast<unsigned>(len), 0, nullptr, nullptr);
    ssize_t written = write(fd, rsp->m_data_a, len);
    if (written < 1) {
        int err = errno;
        trace_sys_err("write", err);
    } else if (static_cast<size_t>(written) != len) {
        trace_err(ERR_WRITE_NOT_COMPLETED, "write not completed: to write(%d) != written(%d)",
                  static_cast<int>(len), static_cast<int>(written));
    }
    return 0;
}

long send_rsp_text(int fd, sa_msg_st *rsp, const char *fmt, ...) {
    // Nothing to fill: send_rsp refuses the call and traces why, as it does for a bad descriptor.
    if (rsp == nullptr) return send_rsp(fd, rsp);
    memset(rsp, 0, sizeof(*rsp));
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(rsp->m_data_a, kMsgRoom, fmt, ap);
    va_end(ap);
    rsp->m_len = static_cast<uint16_t>(strlen(rsp->m_data_a));
    return send_rsp(fd, rsp);
}

long send_rsp_ok(int fd, sa_msg_st *rsp) {
    return send_rsp_text(fd, rsp, "%s", "\r\nOK\r\n");
}

long send_rsp_err(int fd, sa_msg_st *rsp, uint32_t code) {
    // Zero extension: the code -1 is sent as 4294967295.
    return send_rsp_text(fd, rsp, "\r\nERROR: %ld\r\n", static_cast<long>(static_cast<uint64_t>(code)));
}

static const char *skip_spaces(const char *p) {
    while (*p == ' ') ++p;
    return p;
}

// True when a "\r" outside double quotes ends the text at p before its NUL.
static bool has_request_terminator(const char *p) {
    bool quoted = false;
    for (; *p != '\0'; ++p) {
        if (*p == '"') {
            quoted = !quoted;
        } else if (*p == '\r' && !quoted) {
            return true;
        }
    }
    return false;
}

long handle_sa_cmd_req(const sa_cmd_st *table, int fd, sa_msg_st *req, sa_msg_st *rsp) {
    int bad_fd = fd < 1;
    int bad_req = req == nullptr;
    int bad_len = bad_req || req->m_len == 0;
    int bad_rsp = rsp == nullptr || table == nullptr;
    if (bad_fd || bad_req || bad_len || bad_rsp) {
        trace_info("%d, %d, %d, %d", bad_fd, bad_req, bad_len, bad_rsp);
        return ERR_INVALID_PARAM;
    }
    req->m_data_a[kMsgRoom] = '\0';
    trace_file("req[%s]", req->m_data_a);

    // The modem-style probe looks at the whole buffer, before anything else.
    if (strstr(req->m_data_a, "AT\r") != nullptr || strstr(req->m_data_a, "at\r") != nullptr) {
        long ret_val = send_rsp_ok(fd, rsp);
        trace_file("AT ret_val[%ld]", ret_val);
        return ret_val;
    }

    const char *p = strstr(req->m_data_a, "SA");
    if (p == nullptr) return send_rsp_err(fd, rsp, SA_RSP_ERR_CODE);
    p = skip_spaces(p + 2);
    if (!has_request_terminator(p)) return send_rsp_err(fd, rsp, SA_RSP_ERR_CODE);

    const sa_cmd_st *cmd = table;
    for (; cmd->m_name != nullptr && cmd->m_name_len != 0; ++cmd) {
        if (strncasecmp(p, cmd->m_name, cmd->m_name_len) == 0) break;
    }
    if (cmd->m_name == nullptr || cmd->m_name_len == 0) return send_rsp_err(fd, rsp, SA_RSP_ERR_CODE);

    p = skip_spaces(p + cmd->m_name_len);
    sa_cmd_handler_fn handler;
    const char *param;
    if (*p == '?') {
        handler = cmd->m_read;
        param = p;
    } else if (*p == '=' && p[1] == '?') {
        handler = cmd->m_test;
        param = p;
    } else if (*p == '=') {
        handler = cmd->m_set;
        param = skip_spaces(p + 1);
    } else {
        handler = cmd->m_set;
        param = skip_spaces(p);
    }
    if (handler == nullptr) return send_rsp_err(fd, rsp, SA_RSP_ERR_CODE);

    long ret_val = handler(fd, req, rsp, param);
    trace_file("SA ret_val[%ld]", ret_val);
    return ret_val;
}

void *sa_handle_read_cmd_loop(void *param) {
    trace_func();
    trace_file("param[%p]", param);
    signal(SIGUSR1, pub_util_handle_thread_signal);

    sa_handle_ctx_st *ctx = &g_sa_handle_ctx;
    pub_pty_st *pty = &ctx->m_pty;
    sa_msg_st *req = &ctx->m_req;
    sa_msg_st *rsp = &ctx->m_rsp;
    memset(req, 0, sizeof(*req));
    memset(rsp, 0, sizeof(*rsp));

    long ret_val = pub_pty_open(pty);
    trace_info(
        "sa_handle_read_cmd_loop pub_pty_open m_ptm_fd[%d] pts_name_a[%s] pts_mapping_name_a[%s] "
        "is_nonblock_mode[%d] ret_val[%ld]",
        pty->m_ptm_fd, pty->m_pts_name_a, pty->m_pts_mapping_name_a, pty->m_is_nonblock_mode, ret_val);
    trace_file("ptm_fd[%d] pts_name[%s] pts_mapping_name[%s] ret_val[%ld]", pty->m_ptm_fd, pty->m_pts_name_a,
               pty->m_pts_mapping_name_a, ret_val);

    while (ret_val == 0) {
        ssize_t read_len = read(pty->m_ptm_fd, req->m_data_a + req->m_len, kMsgRoom - req->m_len);
        int err = errno;
        trace_info("sa_handle_read_cmd_loop read_len[%d]", static_cast<int>(read_len));
        trace_file("read_len[%d]", static_cast<int>(read_len));

        if (read_len > 0) {
            req->m_len = static_cast<uint16_t>(req->m_len + read_len);
            long req_ret = handle_sa_cmd_req(sa_cmd_table, pty->m_ptm_fd, req, rsp);
            trace_info("sa_handle_read_cmd_loop handle_sa_cmd_req(%s) ret_val[%ld]", req->m_data_a, req_ret);
            trace_file("req[%s] ret_val[%ld]", req->m_data_a, req_ret);
            if (req_ret == 0) memset(req, 0, sizeof(*req));
            continue;
        }
        if (read_len == 0) {
            trace_warn("read empty data");
            trace_info("sa_handle_read_cmd_loop read empty");
            trace_file("read empty");
            continue;
        }

        trace_info("sa_handle_read_cmd_loop errno[%d][%s]", err, strerror(err));
        trace_file("read errno[%d-%s]", err, strerror(err));
        memset(req, 0, sizeof(*req));
        if (err == EAGAIN) {
            trace_info("sa_handle_read_cmd_loop EAGAIN sleep 50ms then continue");
            usleep(50000);
        } else if (err == EIO) {
            // The client closed the slave: publish a fresh pty under the same link.
            long close_ret = pub_pty_close(pty);
            trace_info("sa_handle_read_cmd_loop EIO pub_pty_close ret_val[%ld]", close_ret);
            ret_val = pub_pty_open(pty);
            int open_err = errno;
            trace_info(
                "sa_handle_read_cmd_loop EIO pub_pty_open m_ptm_fd[%d] pts_name_a[%s] "
                "pts_mapping_name_a[%s] is_nonblock_mode[%d] ret_val[%ld]",
                pty->m_ptm_fd, pty->m_pts_name_a, pty->m_pts_mapping_name_a, pty->m_is_nonblock_mode,
                ret_val);
            trace_file("reopen m_ptm_fd[%d] pts_name_a[%s] pts_mapping_name_a[%s] ret_val[%ld]",
                       pty->m_ptm_fd, pty->m_pts_name_a, pty->m_pts_mapping_name_a, ret_val);
            if (ret_val != 0) trace_file("reopen errno[%d-%s]", open_err, strerror(open_err));
        } else if (err != EINTR) {
            trace_info("sa_handle_read_cmd_loop other error");
            ret_val = ERR_CALL_C_FUNCTION;
        }
    }

    long close_ret = pub_pty_close(pty);
    trace_info("sa_handle_read_cmd_loop pub_pty_close ret_val[%ld]", close_ret);
    trace_file("exit ret_val[%ld]", close_ret);
    return nullptr;
}

int sa_call_system_at(const char *src, unsigned line, const char *func, const char *cmd) {
    int status = system(cmd);
    sfw_log_lock(nullptr);
    sfw_log_build_extended_info("PUB_UTIL_CALL_SYSTEM(%d, %s)", status, cmd);
    sfw_log_full(nullptr, SA_MODULE_NAME, SFW_LOG_INFO, src, line, func, 0, SFW_LOG_DIR_NONE, nullptr, 0, 0,
                 nullptr, nullptr);
    if (status != 0) {
        sfw_log_lock(nullptr);
        sfw_log_build_extended_info("error(%d) to exec: %s", status, cmd);
        sfw_log_full(nullptr, SA_MODULE_NAME, SFW_LOG_ERROR, src, line, func, ERR_CALL_C_FUNCTION,
                     SFW_LOG_DIR_NONE, nullptr, 0, 0, nullptr, nullptr);
    }
    return status;
}
