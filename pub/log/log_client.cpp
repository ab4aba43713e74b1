// Structured log client: owns the log file of every program of the family, its ring, its numbered
// backup directories and the internal fault stream "log_internal.log".
//
// Locking. A record is written under the object's mutex. sfw_log_lock() takes it, the message text is
// formatted into the object by sfw_log_build_extended_info(), and sfw_log_full() writes the line and
// releases it. Which object a thread holds is tracked per thread (m_held_obj), so a record without a
// message from one thread can never mistake another thread's pending message for a lock of its own, and
// a thread that locks twice never deadlocks on the non-recursive mutex. The time of a record is taken
// under the mutex too: together with the fork handlers (prepare takes log_obj's mutex, parent and child
// release it) no thread of ours is inside stdio or localtime_r on the log's behalf when another thread
// forks, so a child can trace between fork and exec.
//
// The module-wide counters (m_written, m_wrap_pos, m_max_size) are shared by all objects and are not
// locked separately; they are read and written with relaxed atomics so that concurrent objects cannot
// tear them.
#include "log/log_client.h"

#include "owned/owned.h"

#include <errno.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#define LOG_SRC "log/log_client"

sfw_log_obj log_obj;

namespace {

// State shared by every log object of the process.
struct sfw_log_module_st {
    char m_dir_a[255];
    int m_dir_ready;
    unsigned m_max_size;
    unsigned m_written;
    unsigned m_wrap_pos;
    FILE *m_internal_fp;
};

// Per-thread view: the object chosen by the last sfw_log_lock() of this thread and the object whose
// mutex this thread holds between sfw_log_lock() and sfw_log_full().
struct sfw_log_thread_st {
    sfw_log_obj *m_cur_obj;
    sfw_log_obj *m_held_obj;
};

// One output line under construction: at most LOG_LINE_MAX characters plus the final newline.
struct log_line_st {
    char m_buf_a[1024];
    size_t m_len;
    int m_cut;
};

struct log_level_row_st {
    unsigned m_bit;
    const char *m_name;
};

struct log_err_row_st {
    int32_t m_code;
    const char *m_text;
};

struct log_at_dir_row_st {
    const char *m_dir;
    const char *m_idx;
};

}  // namespace

static constexpr size_t LOG_LINE_MAX = 1022;
static constexpr unsigned LOG_LEVEL_END = 0xFFFFFFFFu;
static constexpr unsigned LOG_DIR_COUNT = 8;
static constexpr const char *LOG_BIN_DIR = "/system/bin";
static constexpr const char *LOG_INVALID_PARAM = "(sfw log error: invalid param)";
static constexpr const char *LOG_RULE =
    "============================================================================================";
static constexpr const char *LOG_COLUMNS =
    "    TIME     |   TID    |              FUNCTION              |  LINE  |    LEVEL     | INFO";
static constexpr const char *LOG_FOOTER =
    "\n========================================= log  end =========================================\n";

static constexpr log_level_row_st k_levels[] = {
    {0x001, "info        "}, {0x002, "func        "}, {0x004, "func param  "},
    {0x008, "warning     "}, {0x010, "error       "}, {0x020, "fatal error "},
    {0x040, "sys error   "}, {0x080, "IPC msg     "}, {0x100, "user msg    "},
    {0x200, "at cmd      "}, {0x400, "data        "}, {LOG_LEVEL_END, "            "},
};

// Descending code order: looked up by halving.
static constexpr log_err_row_st k_errors[] = {
    {0, "No error"},
    {-100, "Unknown error"},
    {-101, "Invalid parameter"},
    {-102, "Parameter pointer is null"},
    {-103, "Invalid parameter value"},
    {-104, "Not found"},
    {-111, "Not ready"},
    {-113, "Timeout"},
    {-116, "Unknown operation"},
    {-117, "Exceed max size"},
    {-118, "Call C function unsuccessfully"},
    {-119, "Write() not completedly"},
    {-600, "for \"\r\nERROR\r\n\""},
    {-601, "can not initialize mux"},
    {-602, "can not de-initialize mux"},
    {-603, "can not open mux port"},
    {-604, "can not close mux port"},
    {-605, "No idle mux port"},
    {-606, "mux response timeout"},
};

static constexpr bool log_errors_descending() {
    for (size_t i = 1; i < sizeof(k_errors) / sizeof(k_errors[0]); i++) {
        if (k_errors[i - 1].m_code <= k_errors[i].m_code) return false;
    }
    return true;
}
static_assert(sizeof(k_errors) / sizeof(k_errors[0]) == 19, "error table has 19 rows");
static_assert(log_errors_descending(), "the halving search needs descending codes");

static constexpr log_at_dir_row_st k_at_dirs[LOG_DIR_COUNT] = {
    {"MUX -> ATA", "MUX idx"}, {"ATA -> MUX", "MUX idx"}, {"USR -> ATA", "PTM idx"},
    {"ATA -> USR", "PTM idx"}, {"ATA -> USR", "PTS idx"}, {"USR -> ATA", "PTS idx"},
    {"receive   ", nullptr},   {"send      ", nullptr},
};

static constexpr const char *k_msg_dirs[LOG_DIR_COUNT] = {"Receive", "Send",  nullptr, nullptr,
                                                          nullptr,   nullptr, nullptr, nullptr};

static sfw_log_module_st g_log_module = {"/data/local/log", 0, 102400, 0, 0, nullptr};
static thread_local sfw_log_thread_st g_log_thread = {nullptr, nullptr};
static pthread_once_t g_log_atfork_once = PTHREAD_ONCE_INIT;
static int g_log_fork_locked;

static int log_is_started(const sfw_log_obj *obj) {
    return __atomic_load_n(&obj->m_started, __ATOMIC_ACQUIRE);
}

static void log_set_started(sfw_log_obj *obj, int value) {
    __atomic_store_n(&obj->m_started, value, __ATOMIC_RELEASE);
}

static unsigned log_load(const unsigned *p) {
    return __atomic_load_n(p, __ATOMIC_RELAXED);
}

static void log_store(unsigned *p, unsigned value) {
    __atomic_store_n(p, value, __ATOMIC_RELAXED);
}

static FILE *log_internal_fp() {
    return __atomic_load_n(&g_log_module.m_internal_fp, __ATOMIC_ACQUIRE);
}

static const char *log_err_text(long err);

// Faults of the client's own code: an invalid argument, or a write with no open log file.
static void log_fault_invalid_param(const char *func, int line) {
    log_internal_error(log_internal_fp(), "%s -> %s -> %d -> %d - %s.\n", LOG_SRC, func, line,
                       static_cast<int>(ERR_INVALID_PARAM), log_err_text(ERR_INVALID_PARAM));
}

static void log_fault_no_stream(const char *file, const char *func, int line) {
    log_internal_error(log_internal_fp(), "%s -> %s -> %d -> assert(log_obj.m_fp).\n", file, func, line);
}

static const char *log_err_text(long err) {
    if (err > 0) return strerror(static_cast<int>(err));
    size_t lo = 0;
    size_t hi = sizeof(k_errors) / sizeof(k_errors[0]);
    while (lo < hi) {
        size_t mid = lo + (hi - lo) / 2;
        if (k_errors[mid].m_code == err) return k_errors[mid].m_text;
        if (k_errors[mid].m_code > err) {
            lo = mid + 1;
        } else {
            hi = mid;
        }
    }
    return " ";
}

static const char *log_level_name(unsigned level) {
    if (level & k_levels[0].m_bit) return k_levels[0].m_name;
    size_t i = 0;
    while (k_levels[i].m_bit != LOG_LEVEL_END && !(level & k_levels[i].m_bit)) i++;
    return k_levels[i].m_name;
}

// Ends the text with "..." once it has run out of room; nothing more is appended afterwards.
static void line_cut(log_line_st *l) {
    if (l->m_len + 3 <= LOG_LINE_MAX) {
        memcpy(l->m_buf_a + l->m_len, "...", 3);
        l->m_len += 3;
    } else {
        memcpy(l->m_buf_a + LOG_LINE_MAX - 3, "...", 3);
        l->m_len = LOG_LINE_MAX;
    }
    l->m_buf_a[l->m_len] = '\0';
    l->m_cut = 1;
}

static size_t line_room(const log_line_st *l) {
    return l->m_len < LOG_LINE_MAX ? LOG_LINE_MAX - l->m_len : 0;
}

static void line_append(log_line_st *l, const char *s, size_t n) {
    if (l->m_cut) return;
    size_t room = line_room(l);
    size_t take = n < room ? n : room;
    memcpy(l->m_buf_a + l->m_len, s, take);
    l->m_len += take;
    l->m_buf_a[l->m_len] = '\0';
    if (take < n) line_cut(l);
}

static void line_appendf(log_line_st *l, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
static void line_appendf(log_line_st *l, const char *fmt, ...) {
    char tmp[1024];
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(tmp, sizeof(tmp), fmt, ap);
    va_end(ap);
    if (n < 0) return;
    size_t len = static_cast<size_t>(n) < sizeof(tmp) ? static_cast<size_t>(n) : sizeof(tmp) - 1;
    line_append(l, tmp, len);
}

// Two hex digits per byte while two characters of room remain.
static void line_hex(log_line_st *l, const unsigned char *data, unsigned len) {
    if (l->m_cut) return;
    static constexpr char digits[] = "0123456789ABCDEF";
    unsigned i = 0;
    for (; i < len; i++) {
        if (line_room(l) < 2) break;
        l->m_buf_a[l->m_len++] = digits[data[i] >> 4];
        l->m_buf_a[l->m_len++] = digits[data[i] & 0x0F];
    }
    l->m_buf_a[l->m_len] = '\0';
    if (i < len) line_cut(l);
}

// AT text with control characters made visible. The room is fixed before the first byte; a byte is
// written only while at least 4 characters of it remain ("<ESC>" may take one more).
static void line_at_text(log_line_st *l, const unsigned char *data, unsigned len) {
    if (l->m_cut) return;
    size_t room = line_room(l);
    size_t written = 0;
    unsigned i = 0;
    for (; i < len; i++) {
        if (written + 4 > room) break;
        char esc[8];
        unsigned char c = data[i];
        int n;
        if (c >= 0x20 && c <= 0x7E) {
            esc[0] = static_cast<char>(c);
            esc[1] = '\0';
            n = 1;
        } else if (c == 13) {
            n = snprintf(esc, sizeof(esc), "<CR>");
        } else if (c == 10) {
            n = snprintf(esc, sizeof(esc), "<LF>");
        } else if (c == 27) {
            n = snprintf(esc, sizeof(esc), "<ESC>");
        } else {
            n = snprintf(esc, sizeof(esc), "\\x%02X", c);
        }
        memcpy(l->m_buf_a + l->m_len, esc, static_cast<size_t>(n));
        l->m_len += static_cast<size_t>(n);
        written += static_cast<size_t>(n);
    }
    l->m_buf_a[l->m_len] = '\0';
    if (i < len || l->m_len > LOG_LINE_MAX) line_cut(l);
}

static void log_local_now(struct tm *tm, long *ms) {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    localtime_r(&ts.tv_sec, tm);
    *ms = ts.tv_nsec / 1000000;
}

// Writes one line through the ring's size check. The caller holds the object's mutex.
static void log_write_locked(sfw_log_obj *obj, const char *text, const char *file, const char *func,
                             unsigned line) {
    if (obj->m_fp == nullptr) {
        log_fault_no_stream(file, func, static_cast<int>(line));
        return;
    }
    unsigned written = log_load(&g_log_module.m_written);
    if (written > log_load(&g_log_module.m_max_size)) {
        unsigned wrap = log_load(&g_log_module.m_wrap_pos);
        fseek(obj->m_fp, static_cast<long>(wrap), SEEK_SET);
        written = wrap;
    }
    log_store(&g_log_module.m_written, written + static_cast<unsigned>(strlen(text)));
    fputs(text, obj->m_fp);
    fflush(obj->m_fp);
}

static void log_release(sfw_log_obj *obj) {
    obj->m_ext_pending = 0;
    if (g_log_thread.m_cur_obj == obj) g_log_thread.m_cur_obj = nullptr;
    if (g_log_thread.m_held_obj == obj) {
        g_log_thread.m_held_obj = nullptr;
        pthread_mutex_unlock(&obj->m_mutex);
    }
}

// Takes the mutex of a started object unless this thread already holds it; 0 when the object is not
// (or no longer) started.
static int log_acquire(sfw_log_obj *obj) {
    if (g_log_thread.m_held_obj == obj) return 1;
    if (g_log_thread.m_held_obj != nullptr) log_release(g_log_thread.m_held_obj);
    if (!log_is_started(obj)) return 0;
    pthread_mutex_lock(&obj->m_mutex);
    if (!log_is_started(obj)) {
        pthread_mutex_unlock(&obj->m_mutex);
        return 0;
    }
    g_log_thread.m_held_obj = obj;
    return 1;
}

static void log_atfork_prepare() {
    if (!log_is_started(&log_obj) || g_log_thread.m_held_obj == &log_obj) return;
    pthread_mutex_lock(&log_obj.m_mutex);
    g_log_fork_locked = 1;
}

static void log_atfork_release() {
    if (!g_log_fork_locked) return;
    g_log_fork_locked = 0;
    pthread_mutex_unlock(&log_obj.m_mutex);
}

static void log_atfork_register() {
    pthread_atfork(log_atfork_prepare, log_atfork_release, log_atfork_release);
}

// Creates every missing component of dir (up to 254 characters) with mode 0777.
static void log_make_dirs(const char *dir) {
    char path[255];
    snprintf(path, sizeof(path), "%s", dir);
    size_t n = strlen(path);
    for (size_t i = 1; i <= n; i++) {
        if (path[i] != '/' && path[i] != '\0') continue;
        char c = path[i];
        path[i] = '\0';
        if (access(path, F_OK) != 0) mkdir(path, 0777);
        path[i] = c;
    }
}

// Appends the process's own "<name>-log" folder to the log directory, once.
static void log_build_dir() {
    if (g_log_module.m_dir_ready) return;
    char name[50];
    if (get_process_name(name, sizeof(name)) != 0) name[0] = '\0';
    char *dir = g_log_module.m_dir_a;
    size_t len = strlen(dir);
    if (len == 0 || dir[len - 1] != '/') {
        if (len + 1 >= sizeof(g_log_module.m_dir_a)) return;
        dir[len++] = '/';
        dir[len] = '\0';
    }
    while (len >= 2 && dir[len - 2] == '/') dir[--len] = '\0';
    size_t name_len = strlen(name);
    // An empty name (unreadable, or argv[0] is "") still gets its folder: "<dir>/-log".
    if (name_len + 4 > sizeof(g_log_module.m_dir_a) - 1 - len) return;
    snprintf(dir + len, sizeof(g_log_module.m_dir_a) - len, "%s-log", name);
    g_log_module.m_dir_ready = 1;
}

static void log_open_internal() {
    if (log_internal_fp() != nullptr) return;
    log_make_dirs(g_log_module.m_dir_a);
    char path[512];
    snprintf(path, sizeof(path), "%s/log_internal.log", g_log_module.m_dir_a);
    FILE *fp = fopen(path, "ae");
    __atomic_store_n(&g_log_module.m_internal_fp, fp, __ATOMIC_RELEASE);
}

static void log_write_header(sfw_log_obj *obj) {
    struct tm tm;
    long ms;
    log_local_now(&tm, &ms);
    char header[512];
    snprintf(header, sizeof(header), "%04d-%02d-%02d %02d:%02d:%02d:%03ld\n\n%s\n%s\n%s\n", tm.tm_year + 1900,
             tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, ms, LOG_RULE, LOG_COLUMNS,
             LOG_RULE);
    log_write_locked(obj, header, LOG_SRC, __func__, __LINE__);
}

static void log_build_prefix(log_line_st *l, const char *module, unsigned level, const char *file,
                             unsigned line, const char *func) {
    if (module == nullptr || file == nullptr || func == nullptr) {
        line_appendf(l, "%s", LOG_INVALID_PARAM);
        return;
    }
    struct tm tm;
    long ms;
    log_local_now(&tm, &ms);
    line_appendf(l, "%02d:%02d:%02d:%03ld", tm.tm_hour, tm.tm_min, tm.tm_sec, ms);
    long tid = static_cast<long>(pthread_self());
    if (tid < 0) {
        line_appendf(l, " | %s", "  (main)");
    } else {
        line_appendf(l, " | % 8ld", tid);
    }
    line_appendf(l, " | %-34s | % 6ld | %s | ", func, static_cast<long>(line), log_level_name(level));
}

// Body of the record by level.
static void log_build_body(log_line_st *l, unsigned level, long err, unsigned dir, const void *data,
                           unsigned data_len, unsigned char idx, const char *text, const char *msg_name) {
    const unsigned char *bytes = static_cast<const unsigned char *>(data);
    switch (level) {
        case SFW_LOG_ERROR:
        case SFW_LOG_FATAL:
            line_appendf(l, "%ld - %s", err, log_err_text(err));
            break;
        case SFW_LOG_SYS_ERROR: {
            const char *why = err > 0 ? strerror(static_cast<int>(err)) : "";
            if (text != nullptr) {
                line_appendf(l, "%s: %ld - %s", text, err, why);
            } else {
                line_appendf(l, "%ld - %s", err, why);
            }
            break;
        }
        case SFW_LOG_IPC_MSG:
            line_appendf(l, "%s", "(sfw log error: level not support)");
            break;
        case SFW_LOG_USER_MSG: {
            if (dir >= LOG_DIR_COUNT) {
                line_appendf(l, "%s", LOG_INVALID_PARAM);
                break;
            }
            if (msg_name == nullptr) {
                line_appendf(l, "%s", "(sfw log error: invalid msg name)");
                break;
            }
            const char *label = k_msg_dirs[dir] != nullptr ? k_msg_dirs[dir] : "(null)";
            line_appendf(l, "(%s)msg name = %s, msg data len = %ld, msg data: ", label, msg_name,
                         static_cast<long>(data_len));
            if (bytes == nullptr && data_len != 0) {
                line_appendf(l, "%s", "(sfw log error: msg data len unmatched)");
            } else if (bytes != nullptr) {
                line_hex(l, bytes, data_len);
            }
            break;
        }
        case SFW_LOG_AT_CMD:
            if (dir >= LOG_DIR_COUNT) {
                line_appendf(l, "%s", LOG_INVALID_PARAM);
                break;
            }
            if (k_at_dirs[dir].m_idx == nullptr) {
                line_appendf(l, "%s: ", k_at_dirs[dir].m_dir);
            } else {
                line_appendf(l, "%s(%s = %d): ", k_at_dirs[dir].m_dir, k_at_dirs[dir].m_idx, idx);
            }
            if (bytes == nullptr || data_len == 0 || bytes[0] == 0) {
                line_appendf(
                    l, "%s",
                    data_len != 0 ? "(sfw log error: at data len unmatched)" : "(sfw log error: empty at)");
            } else {
                line_at_text(l, bytes, data_len);
            }
            break;
        case SFW_LOG_DATA:
            if (text != nullptr) line_appendf(l, "%s", text);
            if (bytes == nullptr && data_len != 0) {
                line_appendf(l, "%s", "(sfw log error: data len unmatched)");
            } else {
                line_appendf(l, "(data len = %ld) ", static_cast<long>(data_len));
                if (bytes != nullptr) line_hex(l, bytes, data_len);
            }
            break;
        default:
            break;
    }
}

// Name of the running process (argv[0] after its last "/"); 0, -100 or -101.
int get_process_name(char *dst, unsigned size) {
    if (dst == nullptr || size == 0) {
        log_fault_invalid_param(__func__, __LINE__);
        return static_cast<int>(ERR_INVALID_PARAM);
    }
    char path[64];
    snprintf(path, sizeof(path), "/proc/%d/cmdline", static_cast<int>(getpid()));
    pub_util_unique_file fp(fopen(path, "re"));
    if (!fp.ok()) {
        int e = errno;
        log_internal_error(log_internal_fp(), "%s -> %s -> %d -> open \"%s\" fail: %d - %s.\n", LOG_SRC,
                           __func__, __LINE__, path, e, strerror(e));
        return static_cast<int>(ERR_UNKNOWN);
    }
    char cmd[100];
    size_t n = 0;
    int c;
    while (n < sizeof(cmd) - 1 && (c = fgetc(fp.get())) != EOF && c != '\n') cmd[n++] = static_cast<char>(c);
    cmd[n] = '\0';
    fp.reset();
    size_t text_len = strlen(cmd);
    if (text_len > 0 && cmd[text_len - 1] == '/') {
        log_internal_error(log_internal_fp(), "%s -> %s -> %d -> can not get valid name from \"%s\".\n",
                           LOG_SRC, __func__, __LINE__, cmd);
        return static_cast<int>(ERR_UNKNOWN);
    }
    const char *slash = strrchr(cmd, '/');
    const char *name = slash != nullptr ? slash + 1 : cmd;
    memset(dst, 0, size);
    snprintf(dst, size, "%s", name);
    return 0;
}

// Opens (truncating) the log file in the log directory; the stream or nullptr.
FILE *client_open_file(const char *name) {
    const char *dir = g_log_module.m_dir_a;
    if (dir[0] == '\0') return nullptr;
    log_make_dirs(dir);
    char proc[50] = "";
    const char *base = nullptr;
    if (name != nullptr) {
        const char *slash = strrchr(name, '/');
        base = slash != nullptr ? slash + 1 : name;
    } else if (get_process_name(proc, sizeof(proc)) == 0 && proc[0] != '\0') {
        base = proc;
    }
    char path[512];
    if (base == nullptr || base[0] == '\0') {
        snprintf(path, sizeof(path), "%s/%08X%s", dir, static_cast<unsigned>(getpid()), ".log");
    } else {
        snprintf(path, sizeof(path), "%s/%s", dir, base);
        size_t len = strlen(path);
        if (len < 4 || strcmp(path + len - 4, ".log") != 0) {
            snprintf(path + len, sizeof(path) - len, ".log");
        }
    }
    return fopen(path, "we");
}

// Sets the log directory (1..253 characters; trailing "/" become '0').
void sfw_log_set_path(const char *path) {
    if (path == nullptr) return;
    size_t len = strnlen(path, sizeof(g_log_module.m_dir_a));
    if (len == 0 || len > sizeof(g_log_module.m_dir_a) - 2) return;
    memset(g_log_module.m_dir_a, 0, sizeof(g_log_module.m_dir_a));
    memcpy(g_log_module.m_dir_a, path, len);
    for (size_t i = len; i > 0 && g_log_module.m_dir_a[i - 1] == '/'; i--) g_log_module.m_dir_a[i - 1] = '0';
}

static void log_run(const char *cmd, int n, size_t size) {
    if (n < 0 || static_cast<size_t>(n) >= size) {
        log_internal_error(log_internal_fp(), "%s -> %s -> %d -> command too long: \"%s\".\n", LOG_SRC,
                           __func__, __LINE__, cmd);
        return;
    }
    int rc = system(cmd);
    (void)rc;
}

// Rotates the numbered backup directories of the log directory.
void sfw_log_backup(unsigned char count) {
    log_build_dir();
    const char *dir = g_log_module.m_dir_a;
    char cmd[254];
    int n = snprintf(cmd, sizeof(cmd), "%s/rm %s-%d/*", LOG_BIN_DIR, dir, count);
    log_run(cmd, n, sizeof(cmd));
    n = snprintf(cmd, sizeof(cmd), "%s/rmdir %s-%d", LOG_BIN_DIR, dir, count);
    log_run(cmd, n, sizeof(cmd));
    if (count == 0) return;
    for (int i = count; i >= 2; i--) {
        n = snprintf(cmd, sizeof(cmd), "%s/mv %s-%d %s-%d", LOG_BIN_DIR, dir, i - 1, dir, i);
        log_run(cmd, n, sizeof(cmd));
    }
    n = snprintf(cmd, sizeof(cmd), "%s/mv %s %s-%d", LOG_BIN_DIR, dir, dir, 1);
    log_run(cmd, n, sizeof(cmd));
}

// Byte limit of the log file; 0 is ignored.
void sfw_log_set_max_size(unsigned size) {
    if (size != 0) log_store(&g_log_module.m_max_size, size);
}

// Marks the current end of the log file as the ring's return position; returns it.
long sfw_log_mark_position(void) {
    long pos = -1;
    int was_held = g_log_thread.m_held_obj == &log_obj;
    if (!log_acquire(&log_obj)) {
        log_fault_no_stream(LOG_SRC, __func__, __LINE__);
        return pos;
    }
    if (log_obj.m_fp == nullptr) {
        log_fault_no_stream(LOG_SRC, __func__, __LINE__);
    } else {
        pos = ftell(log_obj.m_fp);
        if (pos >= 0) log_store(&g_log_module.m_wrap_pos, static_cast<unsigned>(pos));
    }
    if (!was_held) {
        g_log_thread.m_held_obj = nullptr;
        pthread_mutex_unlock(&log_obj.m_mutex);
    }
    return pos;
}

// Starts a log object: bit 0 of flags selects log_obj, else a new object owned by the caller.
sfw_log_obj *sfw_log_start(int flags, const char *name) {
    log_build_dir();
    log_open_internal();
    sfw_log_obj *obj;
    if (flags & 1) {
        obj = &log_obj;
        if (log_is_started(obj)) return obj;
        obj->m_ext_pending = 0;
        obj->m_fp = nullptr;
        pthread_once(&g_log_atfork_once, log_atfork_register);
    } else {
        obj = static_cast<sfw_log_obj *>(malloc(sizeof(sfw_log_obj)));
        if (obj == nullptr) {
            int e = errno;
            log_internal_error(log_internal_fp(), "%s -> %s -> %d -> call malloc() fail: %d - %s.\n", LOG_SRC,
                               __func__, __LINE__, e, strerror(e));
            return nullptr;
        }
        memset(obj, 0, sizeof(*obj));
        obj->m_flags = static_cast<unsigned>(flags);
    }
    int rc = pthread_mutex_init(&obj->m_mutex, nullptr);
    if (rc != 0) {
        log_internal_error(log_internal_fp(), "%s -> %s -> %d -> call pthread_mutex_init() fail: %d - %s.\n",
                           LOG_SRC, __func__, __LINE__, rc, strerror(rc));
    }
    pthread_mutex_lock(&obj->m_mutex);
    obj->m_pid = static_cast<int>(getpid());
    if (get_process_name(obj->m_process_name, 20) != 0) obj->m_process_name[0] = '\0';
    obj->m_fp = client_open_file(name);
    if (obj->m_fp == nullptr) {
        log_internal_error(log_internal_fp(), "%s -> %s -> %d -> call client_open_file() fail.\n", LOG_SRC,
                           __func__, __LINE__);
    }
    log_write_header(obj);
    log_set_started(obj, 1);
    pthread_mutex_unlock(&obj->m_mutex);
    return obj;
}

// Writes the footer and closes the object (nullptr: log_obj).
void sfw_log_stop(sfw_log_obj *obj) {
    if (obj == nullptr) obj = &log_obj;
    if (!log_acquire(obj)) return;
    log_write_locked(obj, LOG_FOOTER, LOG_SRC, __func__, __LINE__);
    if (obj->m_fp != nullptr) fclose(obj->m_fp);
    obj->m_fp = nullptr;
    obj->m_ext_pending = 0;
    log_set_started(obj, 0);
    log_release(obj);
    pthread_mutex_destroy(&obj->m_mutex);
    if (obj != &log_obj) free(obj);
}

// Takes the object's mutex (nullptr: log_obj) and selects it for sfw_log_build_extended_info.
void sfw_log_lock(sfw_log_obj *obj) {
    if (obj == nullptr) obj = &log_obj;
    g_log_thread.m_cur_obj = obj;
    log_acquire(obj);
}

// Stores the message text of the next record of the locked object.
void sfw_log_build_extended_info(const char *fmt, ...) {
    sfw_log_obj *obj = g_log_thread.m_cur_obj;
    if (obj == nullptr) {
        log_fault_invalid_param(__func__, __LINE__);
        return;
    }
    // A lock on an object that is not started takes nothing: there is no record to attach a text to.
    if (fmt == nullptr || g_log_thread.m_held_obj != obj) return;
    obj->m_ext_pending = 1;
    memset(obj->m_ext_info, 0, sizeof(obj->m_ext_info));
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(obj->m_ext_info, sizeof(obj->m_ext_info) - 1, fmt, ap);
    va_end(ap);
}

// Formats and writes one record, then releases the mutex. Level 0 only drops a pending message.
void sfw_log_full(sfw_log_obj *obj, const char *module, unsigned level, const char *file, unsigned line,
                  const char *func, long err, unsigned dir, const void *data, unsigned data_len,
                  unsigned char idx, const char *text, const char *msg_name) {
    if (obj == nullptr) obj = &log_obj;
    if (level == 0) {
        if (g_log_thread.m_held_obj == obj) log_release(obj);
        if (g_log_thread.m_cur_obj == obj) g_log_thread.m_cur_obj = nullptr;
        return;
    }
    if (!log_acquire(obj)) {
        if (g_log_thread.m_cur_obj == obj) g_log_thread.m_cur_obj = nullptr;
        return;
    }
    log_line_st l;
    l.m_buf_a[0] = '\0';
    l.m_len = 0;
    l.m_cut = 0;
    log_build_prefix(&l, module, level, file, line, func);
    log_build_body(&l, level, err, dir, data, data_len, idx, text, msg_name);
    if (obj->m_ext_pending) {
        obj->m_ext_pending = 0;
        if (level == SFW_LOG_ERROR && line_room(&l) >= 3) line_append(&l, " | ", 3);
        line_append(&l, obj->m_ext_info, strnlen(obj->m_ext_info, sizeof(obj->m_ext_info)));
    }
    if (l.m_len == 0 || l.m_buf_a[l.m_len - 1] != '\n') {
        l.m_buf_a[l.m_len++] = '\n';
        l.m_buf_a[l.m_len] = '\0';
    }
    log_write_locked(obj, l.m_buf_a, file != nullptr ? file : "(null)", func != nullptr ? func : "(null)",
                     line);
    log_release(obj);
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
