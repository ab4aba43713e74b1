// Logcat capture: one logcat child per logcat slot, writing its buffer into a file of the log folder
// that logcat rotates by itself. The daemon only chooses the buffer, the format, the file size and the
// file count; the slot's label (not its position) decides which buffer and file a capture gets.
#define SA_TRACE_SRC "sa/sa-logcat"
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "sa-capture.h"
#include "sa-trace.h"

// The tail of the argument vector for one label.
struct logcat_tail_st {
    const char *m_type;
    const char *m_buffer;  // "-b" argument, or null for the main buffer
    const char *m_file;    // file name in the log folder
    const char *m_filter;  // "-s" argument after the file, or null
};

// Labels in the order they are tested.
static constexpr logcat_tail_st kLogcatTails[] = {
    {"I4", nullptr, "/logcat.log", nullptr},
    {"I5", "events", "/logcat-events.log", nullptr},
    {"I6", "radio", "/logcat-radio.log", nullptr},
    {"I1", nullptr, "/emsd.log", "EMSD:V"},
};

// Room for the traced command line.
static constexpr size_t kCmdlineSize = 255;

// Copies text into argument slot n (cut to the slot) and moves n on.
static void logcat_put_arg(char **argv, int *n, const char *text) {
    size_t len = strnlen(text, SA_LOGCAT_ARG_SIZE - 1);
    memcpy(argv[*n], text, len);
    argv[*n][len] = '\0';
    ++*n;
}

long make_logcat_svc_argv_ex(const sa_log_svc_st *svc, char **argv, int *svc_argv_num) {
    trace_func();
    if (svc == nullptr || argv == nullptr || svc_argv_num == nullptr) {
        trace_info("Invalid param.");
        return ERR_UNKNOWN;
    }
    const logcat_tail_st *tail = nullptr;
    for (const logcat_tail_st &t : kLogcatTails) {
        if (strcmp(svc->type, t.m_type) == 0) {
            tail = &t;
            break;
        }
    }
    if (tail == nullptr) {
        trace_info("make_logcat_svc_argv_ex Invalid Log Type, TypeID=%s", svc->type);
        *svc_argv_num = 0;
        return ERR_UNKNOWN;
    }

    int n = 0;
    logcat_put_arg(argv, &n, SA_LOGCAT_PATH);
    logcat_put_arg(argv, &n, "-r");
    logcat_put_arg(argv, &n, svc->file_size);
    logcat_put_arg(argv, &n, "-v");
    logcat_put_arg(argv, &n, "threadtime");
    logcat_put_arg(argv, &n, "-v");
    logcat_put_arg(argv, &n, "usec");
    logcat_put_arg(argv, &n, "-v");
    logcat_put_arg(argv, &n, "printable");
    logcat_put_arg(argv, &n, "-n");
    logcat_put_arg(argv, &n, svc->file_num);
    if (tail->m_buffer != nullptr) {
        logcat_put_arg(argv, &n, "-b");
        logcat_put_arg(argv, &n, tail->m_buffer);
    }
    // The file name is formed at full length first; its slot keeps what fits.
    char file[100];
    snprintf(file, sizeof(file), "%s%s", g_log_path_a, tail->m_file);
    logcat_put_arg(argv, &n, "-f");
    logcat_put_arg(argv, &n, file);
    if (tail->m_filter != nullptr) {
        logcat_put_arg(argv, &n, "-s");
        logcat_put_arg(argv, &n, tail->m_filter);
    }
    argv[n] = nullptr;
    *svc_argv_num = n;

    char cmdline[kCmdlineSize];
    size_t used = 0;
    cmdline[0] = '\0';
    for (int i = 0; i < n && used < sizeof(cmdline) - 1; ++i) {
        int w = snprintf(cmdline + used, sizeof(cmdline) - used, "%s ", argv[i]);
        if (w < 0) break;
        used += static_cast<size_t>(w);
    }
    trace_info("make_logcat_svc_argv_ex cmdline[%s]", cmdline);
    return ERR_NONE;
}

long start_logcat_service_ex(sa_log_svc_st *svc) {
    trace_func();
    if (svc == nullptr) {
        trace_info("start_logcat_service_ex Invalid parameter.");
        return ERR_UNKNOWN;
    }
    trace_info("start_logcat_service_ex path[%s] type[%s] file_num_val[%ld] file_size_val[%ld]",
               SA_LOGCAT_PATH, svc->type, static_cast<long>(svc->file_num_val),
               static_cast<long>(svc->file_size_val));
    if (access(SA_LOGCAT_PATH, F_OK) != 0) {
        trace_info("start_logcat_service_ex File \"%s\" is not exist.", SA_LOGCAT_PATH);
        return ERR_UNKNOWN;
    }
    if (svc->file_num_val == 0 || svc->file_size_val == 0) {
        trace_info("start_logcat_service_ex need no logcat");
        return ERR_NONE;
    }

    char slots[SA_LOGCAT_ARGV_NUM][SA_LOGCAT_ARG_SIZE];
    char *argv[SA_LOGCAT_ARGV_NUM + 1];
    memset(slots, 0, sizeof(slots));
    for (int i = 0; i < SA_LOGCAT_ARGV_NUM; ++i) argv[i] = slots[i];
    argv[SA_LOGCAT_ARGV_NUM] = nullptr;
    int svc_argv_num = 0;
    long ret_val = make_logcat_svc_argv_ex(svc, argv, &svc_argv_num);
    trace_info("start_logcat_service_ex make_logcat_svc_argv_ex[%ld] svc_argv_num[%d]", ret_val,
               svc_argv_num);
    if (ret_val != ERR_NONE) {
        trace_info("start_logcat_service_ex Make logcat service args failed.");
        return ERR_UNKNOWN;
    }

    int pid = sa_create_subproc_thread(SA_LOGCAT_PATH, argv, svc_argv_num);
    trace_info("start_logcat_service_ex sa_create_subproc_thread[%d]", pid);
    trace_file("type[%s] svc_pid[%d]", svc->type, pid);
    if (pid > 0) {
        svc->svc_pid = pid;
        return ERR_NONE;
    }
    trace_info("start_logcat_service_ex create subprocess failed.");
    return ERR_UNKNOWN;
}
