// Internal faults of the structured log client: its own stream "log_internal.log" in the log directory,
// opened at the first start, and the fault lines written there ("hh:mm:ss" and eight blanks, then the
// source path, function and line of the fault). A fault never stops the caller.
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include "log/log_internal.h"

FILE *log_internal_fp() {
    return __atomic_load_n(&g_log_module.m_internal_fp, __ATOMIC_ACQUIRE);
}

void log_open_internal() {
    if (log_internal_fp() != nullptr) return;
    log_make_dirs(g_log_module.m_dir_a);
    char path[512];
    snprintf(path, sizeof(path), "%s/log_internal.log", g_log_module.m_dir_a);
    FILE *fp = fopen(path, "ae");
    __atomic_store_n(&g_log_module.m_internal_fp, fp, __ATOMIC_RELEASE);
}

// Faults of the client's own code: an invalid argument, or a write with no open log file.
void log_fault_invalid_param(const char *func, int line) {
    log_internal_error(log_internal_fp(), "%s -> %s -> %d -> %d - %s.\n", LOG_SRC, func, line,
                       static_cast<int>(ERR_INVALID_PARAM), log_err_text(ERR_INVALID_PARAM));
}

void log_fault_no_stream(const char *file, const char *func, int line) {
    log_internal_error(log_internal_fp(), "%s -> %s -> %d -> assert(log_obj.m_fp).\n", file, func, line);
}

// Writes one client fault line to the internal stream.
void log_internal_error(FILE *fp, const char *fmt, ...) {
    if (fp == nullptr) {
        printf("error: func - %s, line - %d: !fp\n", __func__, __LINE__);
        return;
    }
    struct tm tm;
    long ms;
    log_local_now(&tm, &ms);
    char text[300];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(text, sizeof(text), fmt, ap);
    va_end(ap);
    fprintf(fp, "%02d:%02d:%02d        %s", tm.tm_hour, tm.tm_min, tm.tm_sec, text);
    fflush(fp);
}
