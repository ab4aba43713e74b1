// "+SAVE_LOG": gathers every log and diagnostic dump of the handset into a new folder on the removable
// card, named by the local time to the second, then answers OK. Nothing is deleted at the source.
//
// The work is a fixed list of shell lines run one after the other on the command thread. Copies of the
// log folders go through do_sys_command, so a failing copy is retried (five runs, 2.5 s of pauses);
// the dumps run once through system(). A failing step is traced and never stops the list: the host
// wants whatever could be saved. Only a save folder that cannot be made is answered with ERROR.
#define SA_TRACE_SRC "sa/sa-save"
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "sa-archive.h"
#include "sa-handle.h"
#include "sa-system.h"
#include "sa-trace.h"

static constexpr int kMkdirAttempts = 5;
static constexpr useconds_t kMkdirPauseUs = 50000;

// How a step runs: once through system(), through do_sys_command, or through do_sys_command after its
// target subfolder was made.
enum sa_save_runner_e {
    SA_SAVE_SYSTEM,
    SA_SAVE_SYS_COMMAND,
    SA_SAVE_MKDIR_SYS_COMMAND,
};

// One step of the save: its command line is m_head, the save folder and m_tail.
struct sa_save_step_st {
    const char *m_source;  // the step runs only when this exists; null: always
    sa_save_runner_e m_runner;
    const char *m_head;
    const char *m_tail;
    const char *m_label;   // do_sys_command steps: the step's own name in the trace after it
    const char *m_subdir;  // SA_SAVE_MKDIR_SYS_COMMAND: the subfolder made under the save folder first
};

static constexpr sa_save_step_st kSaveSteps[] = {
    {nullptr, SA_SAVE_SYSTEM, "cat /proc/driver/codec > ", "/zv7750regs.log", nullptr, nullptr},
    {nullptr, SA_SAVE_SYSTEM, "busybox cp /data/rec_dump.txt  ", " -R", nullptr, nullptr},
    {nullptr, SA_SAVE_SYSTEM, "busybox cp /data/play_out_dump.txt  ", " -R", nullptr, nullptr},
    {nullptr, SA_SAVE_SYS_COMMAND, "busybox cp /data/local/log ", "/ -R",
     "[3]do_sys_command cp /data/local/log", nullptr},
    {"/data/local/log-modem", SA_SAVE_SYS_COMMAND, "busybox cp /data/local/log-modem ", "/ -R",
     "[4]do_sys_command cp /data/local/log-modem", nullptr},
    {"/data/local/log-modem-1", SA_SAVE_SYS_COMMAND, "busybox cp /data/local/log-modem-1 ", "/ -R",
     "[5]do_sys_command cp /data/local/log-modem-1", nullptr},
    {"/data/local/log-modem-2", SA_SAVE_SYS_COMMAND, "busybox cp /data/local/log-modem-2 ", "/ -R",
     "[6]do_sys_command cp /data/local/log-modem-2", nullptr},
    {"/data/log", SA_SAVE_SYS_COMMAND, "busybox cp /data/log ", "/data-log -R",
     "[7]do_sys_command cp /data/log", nullptr},
    {"/data/anr", SA_SAVE_SYS_COMMAND, "busybox cp /data/anr ", " -R", "[8]do_sys_command cp /data/anr",
     nullptr},
    {"/data/data/com.android.mms", SA_SAVE_SYS_COMMAND, "busybox cp /data/data/com.android.mms ", " -R",
     "[9]do_sys_command cp /data/data/com.android.mms", nullptr},
    {"/data/data/com.android.providers.telephony", SA_SAVE_MKDIR_SYS_COMMAND,
     "busybox cp /data/data/com.android.providers.telephony ", "/com.android.providers.telephony -R",
     "[10]do_sys_command cp /data/data/com.android.providers.telephony", "/com.android.providers.telephony"},
    {nullptr, SA_SAVE_SYSTEM, "getprop > ", "/getprop.log", nullptr, nullptr},
    {nullptr, SA_SAVE_SYSTEM, "busybox ifconfig > ", "/ifconfig.log", nullptr, nullptr},
    {nullptr, SA_SAVE_SYSTEM, "ls /tmp > ", "/ls_tmp.log", nullptr, nullptr},
    {nullptr, SA_SAVE_SYSTEM, "lsmod > ", "/lsmod.log", nullptr, nullptr},
    {nullptr, SA_SAVE_SYSTEM, "ps > ", "/ps.log", nullptr, nullptr},
    {nullptr, SA_SAVE_SYSTEM, "busybox route > ", "/route.log", nullptr, nullptr},
    {nullptr, SA_SAVE_SYSTEM, "bugreport > ", "/bugreport.log", nullptr, nullptr},
    {nullptr, SA_SAVE_SYSTEM, "busybox cp /data/tombstones  ", " -R", nullptr, nullptr},
};

long sa_mkdir(const char *log_path_ptr) {
    trace_func();
    if (log_path_ptr == nullptr) {
        trace_info("log_path_ptr invalid");
        return ERR_INVALID_PARAM;
    }
    trace_info("sa_mkdir log_path_ptr[%s]", log_path_ptr);
    int ret = -1;
    int err = 0;
    for (int attempt = 0; attempt < kMkdirAttempts; ++attempt) {
        ret = mkdir(log_path_ptr, 0777);
        err = errno;
        trace_info("sa_mkdir mkdir return[%d]", ret);
        if (ret == 0) {
            trace_info("sa_mkdir mkdir(%s) successfully", log_path_ptr);
            return 0;
        }
        trace_info("sa_mkdir mkdir(%s) faild errno[%d] strerror[%s]", log_path_ptr, err, strerror(err));
        usleep(kMkdirPauseUs);
    }
    // The caller reports the failure with the errno of the last attempt.
    errno = err;
    return ret;
}

long handle_sa_save_log_set(int fd, sa_msg_st *req, sa_msg_st *rsp, const char *param) {
    trace_func();
    SA_CHECK_HANDLER_ARGS(fd, req, rsp, param);

    time_t now = time(nullptr);
    struct tm local;
    memset(&local, 0, sizeof(local));
    localtime_r(&now, &local);
    char log_path_a[256];
    snprintf(log_path_a, sizeof(log_path_a), "%s/%04d_%02d_%02d_%02d_%02d_%02d", SA_SAVE_ROOT,
             local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min,
             local.tm_sec);
    trace_info("handle_sa_save_log_set log_path_a[%s] fd[%d]", log_path_a, fd);
    trace_file("log_path_a[%s] fd[%d]", log_path_a, fd);

    // The card root, then the save folder; a failure is judged by the access test below.
    const char *const folders[] = {SA_SAVE_ROOT, log_path_a};
    for (const char *folder : folders) {
        if (access(folder, F_OK) == 0) continue;
        long mkdir_ret = sa_mkdir(folder);
        int err = errno;
        trace_info("handle_sa_save_log_set sa_mkdir(%s) return[%ld]", folder, mkdir_ret);
        if (mkdir_ret != 0) trace_sys_err("mkdir", err);
    }
    if (access(log_path_a, F_OK) != 0) {
        int err = errno;
        trace_sys_err("access", err);
        trace_info("can not open path \"%s\"", log_path_a);
        trace_info("handle_sa_save_log_set ret_val[%ld]", static_cast<long>(ERR_CALL_C_FUNCTION));
        trace_file("exit ret_val[%ld]", static_cast<long>(ERR_CALL_C_FUNCTION));
        return send_rsp_err(fd, rsp, SA_RSP_ERR_CODE);
    }
    trace_info("handle_sa_save_log_set ret_val[%ld]", 0L);

    char cmd_a[256];
    for (const sa_save_step_st &step : kSaveSteps) {
        if (step.m_source != nullptr && access(step.m_source, F_OK) != 0) continue;
        memset(cmd_a, 0, sizeof(cmd_a));
        snprintf(cmd_a, sizeof(cmd_a), "%s%s%s", step.m_head, log_path_a, step.m_tail);
        if (step.m_runner == SA_SAVE_SYSTEM) {
            sa_call_system(cmd_a);
            continue;
        }
        if (step.m_runner == SA_SAVE_MKDIR_SYS_COMMAND) {
            char subdir_a[256];
            snprintf(subdir_a, sizeof(subdir_a), "%s%s", log_path_a, step.m_subdir);
            long mkdir_ret = sa_mkdir(subdir_a);
            int err = errno;
            trace_info("handle_sa_save_log_set sa_mkdir(%s) return[%ld]", subdir_a, mkdir_ret);
            if (mkdir_ret != 0) trace_sys_err("mkdir", err);
        }
        long step_ret = do_sys_command(cmd_a);
        trace_info("handle_sa_save_log_set %s ret_val[%ld] ", step.m_label, step_ret);
    }

    trace_file("exit ret_val[%ld]", 0L);
    return send_rsp_ok(fd, rsp);
}
