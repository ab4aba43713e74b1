// "+SYSTEM": runs one shell command line given by the host, and do_sys_command, the retrying wrapper
// around system() that other handlers use for their copy steps. A failing line is run five times in
// all, 500 ms apart, so its side effects repeat; that is how the host tool expects it to behave.
#define SA_TRACE_SRC "sa/sa-system"
#include "sa-system.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "sa-handle.h"
#include "sa-trace.h"

static constexpr int kSysCommandAttempts = 5;
static constexpr useconds_t kSysCommandPauseUs = 500000;
// The parameter, quotes and trailing "\r" included, must be shorter than this.
static constexpr size_t kSystemParamLimit = 200;

long do_sys_command(const char *cmd) {
    trace_func();
    trace_info("cmd[%s]", cmd != nullptr ? cmd : "");
    if (cmd == nullptr) return ERR_INVALID_PARAM;
    for (int attempt = 0; attempt < kSysCommandAttempts; ++attempt) {
        int status = system(cmd);
        trace_info("PUB_UTIL_CALL_SYSTEM(%d, %s)", status, cmd);
        if (status == 0) return 0;
        trace_err(ERR_CALL_C_FUNCTION, "error(%d) to exec: %s", status, cmd);
        usleep(kSysCommandPauseUs);
    }
    return ERR_CALL_C_FUNCTION;
}

long handle_sa_system_set(int fd, sa_msg_st *req, sa_msg_st *rsp, const char *param) {
    trace_func();
    SA_CHECK_HANDLER_ARGS(fd, req, rsp, param);
    trace_info("req[%s]", param);

    char cmd[256];
    memset(cmd, 0, sizeof(cmd));
    long ret_val = ERR_UNKNOWN;
    if (strnlen(param, kSystemParamLimit) < kSystemParamLimit && sscanf(param, "\"%255[^\"]\"", cmd) == 1 &&
        cmd[0] != '\0') {
        long sys_ret = do_sys_command(cmd);
        trace_info("command \"%s\": %ld", cmd, sys_ret);
        ret_val = sys_ret == 0 ? 0L : static_cast<long>(ERR_UNKNOWN);
    }
    trace_info("cmd[%s] ret_val[%ld]", cmd, ret_val);
    return ret_val == 0 ? send_rsp_ok(fd, rsp) : send_rsp_err(fd, rsp, SA_RSP_ERR_CODE);
}
