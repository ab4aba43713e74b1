// Declarations shared by the parts of the structured log client (log_client, log_record, log_ring,
// log_fault) and nothing else: the module-wide state, a record line under construction, and the helpers
// each part offers the others. Not installed, not for users of the library.
#ifndef ZV_PUB_LOG_LOG_INTERNAL_H
#define ZV_PUB_LOG_LOG_INTERNAL_H

#include <stddef.h>
#include <stdio.h>
#include <time.h>

#include "log/log_client.h"

// Source path of the client's own fault lines.
#define LOG_SRC "log/log_client"

// State shared by every log object of the process.
struct sfw_log_module_st {
    char m_dir_a[255];
    int m_dir_ready;
    unsigned m_max_size;
    unsigned m_written;
    unsigned m_wrap_pos;
    FILE *m_internal_fp;
};

// One output line under construction: at most LOG_LINE_MAX characters plus the final newline.
struct log_line_st {
    char m_buf_a[1024];
    size_t m_len;
    int m_cut;
};

// Longest record text; the newline follows it.
constexpr size_t LOG_LINE_MAX = 1022;

// ---- files, ring and backups (log_ring.cpp) ----

// The module's state; shared by every log object of the process.
extern sfw_log_module_st g_log_module;
// Relaxed atomic access to the module-wide counters.
unsigned log_load(const unsigned *p);
void log_store(unsigned *p, unsigned value);
// Writes one line through the ring's size check. The caller holds the object's mutex.
void log_write_locked(sfw_log_obj *obj, const char *text, const char *file, const char *func, unsigned line);
// Creates every missing component of dir (up to 254 characters) with mode 0777.
void log_make_dirs(const char *dir);
// Appends the process's own "<name>-log" folder to the log directory, once.
void log_build_dir();

// ---- record layout (log_record.cpp) ----

// The file's closing text, written by sfw_log_stop.
extern const char *const LOG_FOOTER;
// Local time of the real-time clock, and its milliseconds.
void log_local_now(struct tm *tm, long *ms);
// Text of a result code: strerror for errno numbers, the library's table for its own codes, else " ".
const char *log_err_text(long err);
// Characters left before the line's limit, and an append that cuts the line with "..." when it is full.
size_t line_room(const log_line_st *l);
void line_append(log_line_st *l, const char *s, size_t n);
// The file's header: date and time, a blank line, the column header between two rules.
void log_format_header(char *buf, size_t size);
// The columns before the body (time, thread, function, line, level), or the invalid-parameter mark.
void log_build_prefix(log_line_st *l, const char *module, unsigned level, const char *file, unsigned line,
                      const char *func);
// The body of a record by level.
void log_build_body(log_line_st *l, unsigned level, long err, unsigned dir, const void *data,
                    unsigned data_len, unsigned char idx, const char *text, const char *msg_name);

// ---- the client's own faults (log_fault.cpp) ----

// The internal fault stream, or nullptr before the first start.
FILE *log_internal_fp();
// Opens "log_internal.log" in the log directory, once.
void log_open_internal();
// Fault lines: an invalid argument, a write with no open log file.
void log_fault_invalid_param(const char *func, int line);
void log_fault_no_stream(const char *file, const char *func, int line);

#endif  // ZV_PUB_LOG_LOG_INTERNAL_H
