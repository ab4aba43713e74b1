// Structured log client: the log objects, their locking and the calls that write records. The record
// layout is in log_record.cpp, the files, ring and backups in log_ring.cpp, the client's own faults in
// log_fault.cpp.
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

#include <errno.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "log/log_internal.h"

sfw_log_obj log_obj;

namespace {

// Per-thread view: the object chosen by the last sfw_log_lock() of this thread and the object whose
// mutex this thread holds between sfw_log_lock() and sfw_log_full().
struct sfw_log_thread_st {
    sfw_log_obj *m_cur_obj;
    sfw_log_obj *m_held_obj;
};

}  // namespace

static thread_local sfw_log_thread_st g_log_thread = {nullptr, nullptr};
static pthread_once_t g_log_atfork_once = PTHREAD_ONCE_INIT;
static int g_log_fork_locked;

static int log_is_started(const sfw_log_obj *obj) {
    return __atomic_load_n(&obj->m_started, __ATOMIC_ACQUIRE);
}

static void log_set_started(sfw_log_obj *obj, int value) {
    __atomic_store_n(&obj->m_started, value, __ATOMIC_RELEASE);
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

static void log_write_header(sfw_log_obj *obj) {
    char header[512];
    log_format_header(header, sizeof(header));
    log_write_locked(obj, header, LOG_SRC, __func__, __LINE__);
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
    // Every text reaches the stream whole and is flushed at once: without a buffer of its own the stream
    // hands it to write() as it is, with no copy.
    if (obj->m_fp != nullptr) setvbuf(obj->m_fp, nullptr, _IONBF, 0);
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
    // At most 1022 characters; the last byte of the buffer stays a terminator.
    obj->m_ext_info[sizeof(obj->m_ext_info) - 1] = '\0';
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
