// The flat trace file /data/local/log/sa.log: one line per step, appended without a lock (each line is
// one open-append-close sequence, relying on append mode), and its rotation at every start.
#define SA_TRACE_SRC "sa/sa-trace"
#include "sa-trace.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

// Owner and mode of sa.log: the shell user and the log group, readable by all.
static constexpr uid_t kTraceFileUid = 2000;
static constexpr gid_t kTraceFileGid = 1007;
static constexpr mode_t kTraceFileMode = 0644;
static constexpr int kTraceGenerations = 5;

void sa_trace_file_line(const char *func, const char *fmt, ...) {
    FILE *fp = fopen(SA_TRACE_FILE, "ae");
    if (fp == nullptr) return;

    // The calendar time and the milliseconds are read separately, as two independent clocks.
    time_t now = time(nullptr);
    struct tm tm_now;
    localtime_r(&now, &tm_now);
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    fprintf(fp, "[%02d-%02d %02d:%02d:%02d.%03ld]%s ", tm_now.tm_mon + 1, tm_now.tm_mday, tm_now.tm_hour,
            tm_now.tm_min, tm_now.tm_sec, ts.tv_nsec / 1000000, func != nullptr ? func : "");
    va_list ap;
    va_start(ap, fmt);
    vfprintf(fp, fmt, ap);
    va_end(ap);
    fputc('\n', fp);
    fflush(fp);
    fclose(fp);
}

static bool file_exists(const char *path) {
    return access(path, F_OK) == 0;
}

long update_sa_logs(void) {
    trace_func();
    char log_file_old[40];
    char log_file_new[40];

    snprintf(log_file_old, sizeof(log_file_old), "%s.%d", SA_TRACE_FILE, kTraceGenerations);
    trace_info("update_sa_logs log_file_old[%s]", log_file_old);
    if (file_exists(log_file_old) && remove(log_file_old) != 0) {
        int err = errno;
        trace_info("update_sa_logs remove errno[%d-%s]", err, strerror(err));
    }

    for (int n = kTraceGenerations - 1; n >= 1; --n) {
        snprintf(log_file_old, sizeof(log_file_old), "%s.%d", SA_TRACE_FILE, n);
        if (!file_exists(log_file_old)) continue;
        snprintf(log_file_new, sizeof(log_file_new), "%s.%d", SA_TRACE_FILE, n + 1);
        trace_info("update_sa_logs [%d] log_file_old[%s] log_file_new[%s]", n + 1, log_file_old,
                   log_file_new);
        if (rename(log_file_old, log_file_new) != 0) {
            int err = errno;
            trace_info("update_sa_logs rename errno[%d-%s]", err, strerror(err));
        }
    }

    if (file_exists(SA_TRACE_FILE)) {
        snprintf(log_file_new, sizeof(log_file_new), "%s.%d", SA_TRACE_FILE, 1);
        if (rename(SA_TRACE_FILE, log_file_new) != 0) {
            int err = errno;
            trace_info("update_sa_logs rename errno[%d-%s]", err, strerror(err));
        }
    }

    if (!file_exists(SA_TRACE_FILE)) {
        FILE *fp = fopen(SA_TRACE_FILE, "ae");
        trace_info("update_sa_logs open(%s) fp[%p]", SA_TRACE_FILE, static_cast<void *>(fp));
        if (fp != nullptr) fclose(fp);
    }

    if (chown(SA_TRACE_FILE, kTraceFileUid, kTraceFileGid) != 0) {
        int err = errno;
        trace_info("update_sa_logs chown error[%d-%s]", err, strerror(err));
    }
    if (chmod(SA_TRACE_FILE, kTraceFileMode) != 0) {
        int err = errno;
        trace_info("update_sa_logs chmod error[%d-%s]", err, strerror(err));
    }
    return 0;
}
