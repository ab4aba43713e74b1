// Record layout of the structured log client: how one line is built in its 1024-byte buffer (time,
// thread, function padded to 34 characters, line, level name padded to 12, then the body by level, at
// most 1022 characters and a newline, a cut marked with "..."), the level, error and direction tables,
// and the file's header and footer texts. Nothing here writes or locks.
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include "log/log_internal.h"

namespace {

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

static constexpr unsigned LOG_LEVEL_END = 0xFFFFFFFFu;
static constexpr unsigned LOG_DIR_COUNT = 8;
static constexpr const char *LOG_INVALID_PARAM = "(sfw log error: invalid param)";
static constexpr const char *LOG_RULE =
    "============================================================================================";
static constexpr const char *LOG_COLUMNS =
    "    TIME     |   TID    |              FUNCTION              |  LINE  |    LEVEL     | INFO";
const char *const LOG_FOOTER =
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

static constexpr bool log_level_names_fit() {
    for (const log_level_row_st &row : k_levels) {
        size_t n = 0;
        while (row.m_name[n] != '\0') n++;
        if (n != 12) return false;
    }
    return true;
}
static_assert(log_level_names_fit(), "every level name fills the 12 characters of its column");

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

const char *log_err_text(long err) {
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

size_t line_room(const log_line_st *l) {
    return l->m_len < LOG_LINE_MAX ? LOG_LINE_MAX - l->m_len : 0;
}

void line_append(log_line_st *l, const char *s, size_t n) {
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

void log_local_now(struct tm *tm, long *ms) {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    localtime_r(&ts.tv_sec, tm);
    *ms = ts.tv_nsec / 1000000;
}

void log_format_header(char *buf, size_t size) {
    struct tm tm;
    long ms;
    log_local_now(&tm, &ms);
    snprintf(buf, size, "%04d-%02d-%02d %02d:%02d:%02d:%03ld\n\n%s\n%s\n%s\n", tm.tm_year + 1900,
             tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, ms, LOG_RULE, LOG_COLUMNS,
             LOG_RULE);
}

// The fixed columns are written digit by digit rather than through the printf family: they are the same
// for every record, and a record costs little more than its write once they are cheap.

// Two decimal digits of v (0..99).
static char *put_2digits(char *p, int v) {
    p[0] = static_cast<char>('0' + v / 10);
    p[1] = static_cast<char>('0' + v % 10);
    return p + 2;
}

// v right-aligned in width characters with a space before it, as printf's "% *ld" writes a number that is
// not negative. The text ends at end; returns where it begins.
static char *put_spaced_number(char *end, unsigned long v, int width) {
    char *p = end;
    do {
        *--p = static_cast<char>('0' + v % 10);
        v /= 10;
    } while (v != 0);
    *--p = ' ';
    while (end - p < width) *--p = ' ';
    return p;
}

namespace {

// The time of day of one second, "HH:MM:SS:", converted once per second of the real-time clock and per
// thread.
struct log_clock_cache_st {
    time_t m_sec;
    int m_valid;
    char m_hms_a[9];
};

}  // namespace

static thread_local log_clock_cache_st g_log_clock = {0, 0, {}};

// "HH:MM:SS:mmm" of now: 12 characters at p.
static void put_time_of_day(char *p) {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    log_clock_cache_st *c = &g_log_clock;
    if (!c->m_valid || c->m_sec != ts.tv_sec) {
        struct tm tm;
        localtime_r(&ts.tv_sec, &tm);
        char *q = put_2digits(c->m_hms_a, tm.tm_hour);
        *q++ = ':';
        q = put_2digits(q, tm.tm_min);
        *q++ = ':';
        q = put_2digits(q, tm.tm_sec);
        *q = ':';
        c->m_sec = ts.tv_sec;
        c->m_valid = 1;
    }
    memcpy(p, c->m_hms_a, 9);
    long ms = ts.tv_nsec / 1000000;
    p[9] = static_cast<char>('0' + ms / 100);
    p[10] = static_cast<char>('0' + ms / 10 % 10);
    p[11] = static_cast<char>('0' + ms % 10);
}

void log_build_prefix(log_line_st *l, const char *module, unsigned level, const char *file, unsigned line,
                      const char *func) {
    if (module == nullptr || file == nullptr || func == nullptr) {
        line_append(l, LOG_INVALID_PARAM, strlen(LOG_INVALID_PARAM));
        return;
    }
    // "HH:MM:SS:mmm | " and the thread id right-aligned in 8 characters.
    char head[48];
    put_time_of_day(head);
    memcpy(head + 12, " | ", 3);
    size_t head_len = 15;
    long tid = static_cast<long>(pthread_self());
    if (tid < 0) {
        memcpy(head + head_len, "  (main)", 8);
        head_len += 8;
    } else {
        char digits[24];
        char *const digits_end = digits + sizeof(digits);
        char *num = put_spaced_number(digits_end, static_cast<unsigned long>(tid), 8);
        memcpy(head + head_len, num, static_cast<size_t>(digits_end - num));
        head_len += static_cast<size_t>(digits_end - num);
    }
    memcpy(head + head_len, " | ", 3);
    head_len += 3;
    line_append(l, head, head_len);
    // The function padded to 34 characters (never cut short).
    size_t func_len = strlen(func);
    line_append(l, func, func_len);
    static constexpr char k_pad[] = "                                  ";
    static_assert(sizeof(k_pad) - 1 == 34, "the function column is 34 wide");
    if (func_len < 34) line_append(l, k_pad, 34 - func_len);
    // " | " the line right-aligned in 6, " | " the level name, " | ".
    char tail[48];
    char *const tail_end = tail + 24;
    char *num = put_spaced_number(tail_end, line, 6);
    num -= 3;
    memcpy(num, " | ", 3);
    char *q = tail_end;
    memcpy(q, " | ", 3);
    memcpy(q + 3, log_level_name(level), 12);
    memcpy(q + 15, " | ", 3);
    q += 18;
    line_append(l, num, static_cast<size_t>(q - num));
}

// Body of the record by level.
void log_build_body(log_line_st *l, unsigned level, long err, unsigned dir, const void *data,
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
