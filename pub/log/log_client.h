// Structured log client of the common library (module "zv-qel-pub").
//
// One header, then one fixed-column line per record, then a footer, written to
// <dir>/<process>-log/<process>.log. A record is built under the object's mutex: sfw_log_lock() takes
// it, sfw_log_build_extended_info() stores the message text, sfw_log_full() formats and writes the line
// and releases it. The file is kept under m_max_size by rewinding to a marked position (a ring after
// the start-up records). Faults of the client itself go to "log_internal.log" in the log directory.
#ifndef ZV_PUB_LOG_LOG_CLIENT_H
#define ZV_PUB_LOG_LOG_CLIENT_H

#include <pthread.h>
#include <stdio.h>
#include <sys/types.h>

// Levels: one bit each.
enum : unsigned {
    SFW_LOG_INFO = 0x001,
    SFW_LOG_FUNC = 0x002,
    SFW_LOG_FUNC_PARAM = 0x004,
    SFW_LOG_WARNING = 0x008,
    SFW_LOG_ERROR = 0x010,
    SFW_LOG_FATAL = 0x020,
    SFW_LOG_SYS_ERROR = 0x040,
    SFW_LOG_IPC_MSG = 0x080,
    SFW_LOG_USER_MSG = 0x100,
    SFW_LOG_AT_CMD = 0x200,
    SFW_LOG_DATA = 0x400,
};

// Direction index passed by ordinary traces (no direction).
enum : unsigned { SFW_LOG_DIR_NONE = 8 };

// Result codes of the common library. Positive values are errno numbers.
enum : long {
    ERR_NONE = 0,
    ERR_UNKNOWN = -100,
    ERR_INVALID_PARAM = -101,
    ERR_NULL_POINTER = -102,
    ERR_INVALID_VALUE = -103,
    ERR_NOT_FOUND = -104,
    ERR_NOT_READY = -111,
    ERR_TIMEOUT = -113,
    ERR_UNKNOWN_OPERATION = -116,
    ERR_EXCEED_MAX_SIZE = -117,
    ERR_CALL_C_FUNCTION = -118,
    ERR_WRITE_NOT_COMPLETED = -119,
};

struct sfw_log_obj {
    FILE *m_fp;
    int m_started;
    int m_ext_pending;
    char m_ext_info[1024];
    pthread_mutex_t m_mutex;
    unsigned m_flags;
    int m_pid;
    char m_process_name[48];
};

// The process-wide log object.
extern sfw_log_obj log_obj;

// Name of the running process (argv[0] after its last "/"); 0, -100 or -101.
int get_process_name(char *dst, unsigned size);
// Opens (truncating) the log file in the log directory; the stream or nullptr.
FILE *client_open_file(const char *name);
// Sets the log directory (1..253 characters; trailing "/" become '0').
void sfw_log_set_path(const char *path);
// Rotates the numbered backup directories of the log directory.
void sfw_log_backup(unsigned char count);
// Byte limit of the log file; 0 is ignored.
void sfw_log_set_max_size(unsigned size);
// Marks the current end of the log file as the ring's return position; returns it.
long sfw_log_mark_position(void);
// Starts a log object: bit 0 of flags selects log_obj, else a new object owned by the caller.
sfw_log_obj *sfw_log_start(int flags, const char *name);
// Writes the footer and closes the object (nullptr: log_obj).
void sfw_log_stop(sfw_log_obj *obj);
// Takes the object's mutex (nullptr: log_obj) and selects it for sfw_log_build_extended_info.
void sfw_log_lock(sfw_log_obj *obj);
// Stores the message text of the next record of the locked object.
void sfw_log_build_extended_info(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
// Formats and writes one record, then releases the mutex. Level 0 only drops a pending message.
void sfw_log_full(sfw_log_obj *obj, const char *module, unsigned level, const char *file, unsigned line,
                  const char *func, long err, unsigned dir, const void *data, unsigned data_len,
                  unsigned char idx, const char *text, const char *msg_name);
// Writes one client fault line to the internal stream.
void log_internal_error(FILE *fp, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

// Trace statements of the common library's own code (module "zv-qel-pub"). PUB_LOG_SRC must be defined
// by each source file as its cut source path, e.g. "pty/pty".
#define PUB_LOG_FUNC()                                                                                      \
    sfw_log_full(nullptr, "zv-qel-pub", SFW_LOG_FUNC, PUB_LOG_SRC, __LINE__, __func__, 0, SFW_LOG_DIR_NONE, \
                 nullptr, 0, 0, nullptr, nullptr)
#define PUB_LOG_AT_LEVEL(level, err, text, ...)                                              \
    do {                                                                                     \
        sfw_log_lock(nullptr);                                                               \
        sfw_log_build_extended_info(__VA_ARGS__);                                            \
        sfw_log_full(nullptr, "zv-qel-pub", (level), PUB_LOG_SRC, __LINE__, __func__, (err), \
                     SFW_LOG_DIR_NONE, nullptr, 0, 0, (text), nullptr);                      \
    } while (0)
#define PUB_LOG_INFO(...) PUB_LOG_AT_LEVEL(SFW_LOG_INFO, 0, nullptr, __VA_ARGS__)
#define PUB_LOG_WARN(...) PUB_LOG_AT_LEVEL(SFW_LOG_WARNING, 0, nullptr, __VA_ARGS__)
#define PUB_LOG_ERR(err, ...) PUB_LOG_AT_LEVEL(SFW_LOG_ERROR, (err), nullptr, __VA_ARGS__)
// A failed system call: the call's name and errno, no message text.
#define PUB_LOG_SYS_ERR(call, err)                                                                 \
    sfw_log_full(nullptr, "zv-qel-pub", SFW_LOG_SYS_ERROR, PUB_LOG_SRC, __LINE__, __func__, (err), \
                 SFW_LOG_DIR_NONE, nullptr, 0, 0, (call), nullptr)

#endif  // ZV_PUB_LOG_LOG_CLIENT_H
