// Trace statements of the daemon. Every step is traced twice: as a record of the structured log client
// (module "zv-qel-sa") and as one time-stamped line of the flat trace file /data/local/log/sa.log.
//
// Each source file defines SA_TRACE_SRC as its cut source path ("sa/main", "sa/sa-handle", ...) before
// using the macros, so every record carries the caller's source path, line and function.
#ifndef ZV_SA_SA_TRACE_H
#define ZV_SA_SA_TRACE_H

#include "log/log_client.h"

#define SA_MODULE_NAME "zv-qel-sa"
#define SA_LOG_DIR "/data/local/log"
#define SA_TRACE_FILE SA_LOG_DIR "/sa.log"

// Entry mark of a function (level "func", no message).
#define trace_func()                                                                         \
    sfw_log_full(nullptr, SA_MODULE_NAME, SFW_LOG_FUNC, SA_TRACE_SRC, __LINE__, __func__, 0, \
                 SFW_LOG_DIR_NONE, nullptr, 0, 0, nullptr, nullptr)

// One record at `level` with code `err`, call name `text` and a printf-style message, filed under the
// function name `func`. Helpers that trace on behalf of a handler pass the handler's name down, so the
// record names the step's own function and not the helper.
#define trace_at_level_in(func, level, err, text, ...)                                        \
    do {                                                                                      \
        sfw_log_lock(nullptr);                                                                \
        sfw_log_build_extended_info(__VA_ARGS__);                                             \
        sfw_log_full(nullptr, SA_MODULE_NAME, (level), SA_TRACE_SRC, __LINE__, (func), (err), \
                     SFW_LOG_DIR_NONE, nullptr, 0, 0, (text), nullptr);                       \
    } while (0)
#define trace_at_level(level, err, text, ...) trace_at_level_in(__func__, level, err, text, __VA_ARGS__)

// One message record (level "info").
#define trace_info(...) trace_at_level(SFW_LOG_INFO, 0, nullptr, __VA_ARGS__)
#define trace_info_in(func, ...) trace_at_level_in((func), SFW_LOG_INFO, 0, nullptr, __VA_ARGS__)
// A warning record.
#define trace_warn(...) trace_at_level(SFW_LOG_WARNING, 0, nullptr, __VA_ARGS__)
#define trace_warn_in(func, ...) trace_at_level_in((func), SFW_LOG_WARNING, 0, nullptr, __VA_ARGS__)
// An error record with a result code of the common library (or an errno number) and a message.
#define trace_err(err, ...) trace_at_level(SFW_LOG_ERROR, (err), nullptr, __VA_ARGS__)
// An error record carrying only the code.
#define trace_err_code_in(func, err)                                                            \
    sfw_log_full(nullptr, SA_MODULE_NAME, SFW_LOG_ERROR, SA_TRACE_SRC, __LINE__, (func), (err), \
                 SFW_LOG_DIR_NONE, nullptr, 0, 0, nullptr, nullptr)
#define trace_err_code(err) trace_err_code_in(__func__, err)
// A failed system call: its name and errno.
#define trace_sys_err(call, err)                                                                      \
    sfw_log_full(nullptr, SA_MODULE_NAME, SFW_LOG_SYS_ERROR, SA_TRACE_SRC, __LINE__, __func__, (err), \
                 SFW_LOG_DIR_NONE, nullptr, 0, 0, (call), nullptr)

// A message both as an info record and as a line of sa.log, both under the function name `func`.
#define trace_both_in(func, ...)                 \
    do {                                         \
        trace_info_in((func), __VA_ARGS__);      \
        sa_trace_file_line((func), __VA_ARGS__); \
    } while (0)
// The same under the calling function's own name.
#define trace_both(...) trace_both_in(__func__, __VA_ARGS__)

// One line of sa.log, prefixed with the time and the calling function's name.
#define trace_file(...) sa_trace_file_line(__func__, __VA_ARGS__)

// Appends "[MM-DD hh:mm:ss.mmm]func message\n" to sa.log (opened, appended and closed each time; a file
// that cannot be opened drops the line).
void sa_trace_file_line(const char *func, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

// Keeps five generations of sa.log (sa.log.1 newest .. sa.log.5 oldest) and starts a new, empty sa.log
// owned by 2000:1007 with mode 0644. Always returns 0.
long update_sa_logs(void);

#endif  // ZV_SA_SA_TRACE_H
