// The kernel log reader: a detached thread that copies /proc/kmsg into kmsg.log of the log folder.
// At its start the file's generations move up by one (kmsg.log.1 is the newest old one); afterwards the
// file is written as a wrap-around file: once more than the configured size has been written, writing
// returns to the start of the file without truncating it, so the file never grows beyond the size plus
// one read.
//
// Stopping. A reader is stopped with SIGUSR1 (pub_util_kill_thread), whose handler ends the thread with
// pthread_exit wherever it is. A thread that ends while it holds the log client's mutex or a stdio lock
// would leave them locked for everyone, so a reader keeps SIGUSR1 blocked whenever it traces and lets it
// through only while it copies (read, write, seek). It is created with SIGUSR1 already blocked, so a stop
// that arrives before the copy begins waits until the reader can leave safely. Its two descriptors are
// closed by the destructor of the reader's thread-specific key, which both C libraries run on every
// thread end, pthread_exit included: the handset's C library runs no C++ destructors on pthread_exit,
// and on glibc a pthread_cleanup_push frame in C++ is a destructor that the forced unwind cannot reach
// through the loop's no-throw system calls.
#define SA_TRACE_SRC "sa/sa-kmsg"
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "sa-capture.h"
#include "sa-thread.h"
#include "sa-trace.h"
#include "util/util.h"

static constexpr char kKmsgPath[] = "/proc/kmsg";
static constexpr char kKmsgFileName[] = "/kmsg.log";
static constexpr mode_t kKmsgFileMode = 0644;
// Console log levels: verbose while the kernel log is captured, quiet otherwise.
static constexpr char kPrintkVerboseCmd[] = "echo 7 4 1 7 > /proc/sys/kernel/printk";
static constexpr char kPrintkQuietCmd[] = "echo 3 3 1 3 > /proc/sys/kernel/printk";

// Lets SIGUSR1 reach the calling thread (allow) or holds it pending (not allow).
static void kmsg_allow_stop(bool allow) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR1);
    pthread_sigmask(allow ? SIG_UNBLOCK : SIG_BLOCK, &set, nullptr);
}

// A trace from inside the copy loop, where SIGUSR1 is otherwise let through.
#define kmsg_loop_trace(...)     \
    do {                         \
        kmsg_allow_stop(false);  \
        trace_info(__VA_ARGS__); \
        kmsg_allow_stop(true);   \
    } while (0)

void update_zv_log_file(const char *log_file_org, uint32_t file_num_val, uint32_t file_size_val) {
    trace_func();
    trace_info("update_zv_log_file log_file_org[%s] file_num_val[%lu] file_size_val[%lu]", log_file_org,
               static_cast<unsigned long>(file_num_val), static_cast<unsigned long>(file_size_val));
    if (file_num_val < 2) {
        if (remove(log_file_org) != 0) {
            int err = errno;
            trace_sys_err("remove", err);
        }
        return;
    }

    char log_file_old[99];
    char log_file_new[99];
    snprintf(log_file_old, sizeof(log_file_old), "%s.%ld", log_file_org, static_cast<long>(file_num_val - 1));
    trace_info("update_zv_log_file log_file_old[%s]", log_file_old);
    if (remove(log_file_old) != 0) {
        int err = errno;
        trace_sys_err("remove", err);
    }
    // The generation counter is a plain int: a count that does not fit one moves nothing.
    for (int k = static_cast<int>(file_num_val - 1); k >= 2; --k) {
        snprintf(log_file_old, sizeof(log_file_old), "%s.%d", log_file_org, k - 1);
        snprintf(log_file_new, sizeof(log_file_new), "%s.%d", log_file_org, k);
        trace_info("update_zv_log_file [%d] log_file_old[%s] log_file_new[%s]", k, log_file_old,
                   log_file_new);
        if (rename(log_file_old, log_file_new) != 0) {
            int err = errno;
            trace_sys_err("rename", err);
        }
    }
    snprintf(log_file_new, sizeof(log_file_new), "%s.%d", log_file_org, 1);
    rename(log_file_org, log_file_new);  // no base file yet: nothing to keep
}

// Opens the kmsg file for writing at its start, without truncating it.
static int kmsg_open_file(const char *path) {
    return open(path, O_WRONLY | O_CREAT | O_CLOEXEC, kKmsgFileMode);
}

// Running readers. A detached thread's id is valid only while the thread runs (its resources go when it
// ends, and a new thread may reuse them), so a stop must never hand an ended reader's id to
// pthread_kill. Each reader adds itself to this list as it starts and takes itself out as it ends (the
// destructor of a thread-specific value runs on every way out, pthread_exit from the stop handler
// included); a stop looks the id up and signals it under the list's lock, which the reader also needs to
// finish ending. The same lock carries the start-up handshake: a reader copies its configuration before
// it counts itself as started, and its creator waits for that, so the configuration can change again (a
// new parse) only after every reader took its copy.
struct kmsg_reader_st {
    pthread_t m_id;
    kmsg_reader_st *m_prev;
    kmsg_reader_st *m_next;
    // /proc/kmsg and kmsg.log while the reader copies, else -1; closed when the thread ends.
    int m_fd_read;
    int m_fd_write;
};

static pthread_mutex_t g_kmsg_lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t g_kmsg_started_cond = PTHREAD_COND_INITIALIZER;
static kmsg_reader_st *g_kmsg_readers = nullptr;
static unsigned long g_kmsg_started = 0;
static pthread_key_t g_kmsg_reader_key;
// Serialises the creators, so each waits for its own reader.
static pthread_mutex_t g_kmsg_create_lock = PTHREAD_MUTEX_INITIALIZER;
// A reader's own list entry; it outlives the thread's stack frames until the key's destructor has run.
static thread_local kmsg_reader_st t_kmsg_self;

// Destructor of the reader key, run however the thread ends (its return, or pthread_exit from the stop
// signal's handler): closes the reader's descriptors and takes it out of the list.
static void kmsg_reader_ended(void *entry) {
    kmsg_reader_st *self = static_cast<kmsg_reader_st *>(entry);
    if (self->m_fd_read >= 0) close(self->m_fd_read);
    if (self->m_fd_write >= 0) close(self->m_fd_write);
    self->m_fd_read = -1;
    self->m_fd_write = -1;
    pthread_mutex_lock(&g_kmsg_lock);
    if (self->m_prev != nullptr) {
        self->m_prev->m_next = self->m_next;
    } else {
        g_kmsg_readers = self->m_next;
    }
    if (self->m_next != nullptr) self->m_next->m_prev = self->m_prev;
    pthread_mutex_unlock(&g_kmsg_lock);
}

// Whether id is a running reader; the caller holds g_kmsg_lock.
static bool kmsg_reader_running(pthread_t id) {
    for (const kmsg_reader_st *r = g_kmsg_readers; r != nullptr; r = r->m_next) {
        if (pthread_equal(r->m_id, id)) return true;
    }
    return false;
}

int sa_kmsg_signal_reader(pthread_t tid, int sig) {
    pthread_mutex_lock(&g_kmsg_lock);
    int ret_val = kmsg_reader_running(tid) ? pthread_kill(tid, sig) : ESRCH;
    pthread_mutex_unlock(&g_kmsg_lock);
    return ret_val;
}

int sa_kmsg_stop_reader(pthread_t *tid) {
    pthread_mutex_lock(&g_kmsg_lock);
    int ret_val = kmsg_reader_running(*tid) ? pub_util_kill_thread(tid) : 0;
    pthread_mutex_unlock(&g_kmsg_lock);
    return ret_val;
}

void *read_kernel_log_loop(void *param) {
    // The configuration is read once; later changes of slot 3 do not reach a running reader.
    const sa_log_svc_st *svc = &g_zv_log_svc[SA_LOG_SVC_KMSG - 1];
    uint32_t file_num_val = static_cast<uint32_t>(svc->file_num_val);
    uint32_t file_size_val = static_cast<uint32_t>(svc->file_size_val);
    char log_path[100];
    int path_len = snprintf(log_path, sizeof(log_path), "%s%s", g_log_path_a, kKmsgFileName);
    pthread_mutex_lock(&g_kmsg_lock);
    t_kmsg_self.m_id = pthread_self();
    t_kmsg_self.m_prev = nullptr;
    t_kmsg_self.m_next = g_kmsg_readers;
    t_kmsg_self.m_fd_read = -1;
    t_kmsg_self.m_fd_write = -1;
    if (g_kmsg_readers != nullptr) g_kmsg_readers->m_prev = &t_kmsg_self;
    g_kmsg_readers = &t_kmsg_self;
    pthread_setspecific(g_kmsg_reader_key, &t_kmsg_self);
    ++g_kmsg_started;
    pthread_cond_broadcast(&g_kmsg_started_cond);
    pthread_mutex_unlock(&g_kmsg_lock);

    trace_func();
    trace_info("read_kernel_log_loop param[%p]", param);
    if (path_len >= static_cast<int>(sizeof(log_path)))
        trace_info("read_kernel_log_loop log_path cut[%s]", log_path);

    update_zv_log_file(log_path, file_num_val, file_size_val);
    trace_info("read_kernel_log_loop log_path[%s]", log_path);

    int fd_r = open(kKmsgPath, O_RDONLY | O_CLOEXEC);
    int err = errno;
    trace_info("read_kernel_log_loop fd_r[%d]", fd_r);
    if (fd_r < 1) {
        trace_info("read_kernel_log_loop open(/proc/kmsg) errno[%d-%s]", err, strerror(err));
        return nullptr;
    }

    int fd_w = kmsg_open_file(log_path);
    err = errno;
    trace_info("read_kernel_log_loop fd_w[%d]", fd_w);
    if (fd_w < 1) {
        close(fd_r);
        trace_info("read_kernel_log_loop open(%s) errno[%d-%s]", log_path, err, strerror(err));
        return nullptr;
    }
    close(fd_w);
    if (chown(log_path, SA_AID_SHELL, SA_AID_LOG) != 0) {
        err = errno;
        trace_info("read_kernel_log_loop chown(%s) error[%d-%s]", log_path, err, strerror(err));
    }
    if (chmod(log_path, kKmsgFileMode) != 0) {
        err = errno;
        trace_info("read_kernel_log_loop chmod(%s) error[%d-%s]", log_path, err, strerror(err));
    }
    fd_w = kmsg_open_file(log_path);
    err = errno;
    if (fd_w < 1) {
        close(fd_r);
        trace_info("read_kernel_log_loop reopen(%s) errno[%d-%s]", log_path, err, strerror(err));
        return nullptr;
    }

    signal(SIGUSR1, pub_util_handle_thread_signal);

    // The banner marks where this reader began; its bytes do not count towards the size.
    char buf_a[100];
    time_t now = time(nullptr);
    struct tm tm_now;
    localtime_r(&now, &tm_now);
    snprintf(buf_a, sizeof(buf_a), "[%04d-%02d-%02d %02d:%02d:%02d]\n", tm_now.tm_year + 1900,
             tm_now.tm_mon + 1, tm_now.tm_mday, tm_now.tm_hour, tm_now.tm_min, tm_now.tm_sec);
    if (write(fd_w, buf_a, strlen(buf_a)) < 0) {
        err = errno;
        trace_info("read_kernel_log_loop write errno[%d-%s]", err, strerror(err));
    }
    trace_info("read_kernel_log_loop buf_a[%s]", buf_a);

    const uint32_t limit = file_size_val * 1024u;
    uint32_t count = 0;
    // From here the thread's end closes both, also when the stop signal ends it inside the loop.
    t_kmsg_self.m_fd_read = fd_r;
    t_kmsg_self.m_fd_write = fd_w;
    kmsg_allow_stop(true);
    for (;;) {
        memset(buf_a, 0, sizeof(buf_a));
        ssize_t read_len = read(fd_r, buf_a, sizeof(buf_a) - 1);
        if (read_len == 0) continue;
        if (read_len > 0) {
            ssize_t write_len = write(fd_w, buf_a, static_cast<size_t>(read_len));
            if (write_len < 0) {
                err = errno;
                kmsg_loop_trace("read_kernel_log_loop write errno[%d-%s]", err, strerror(err));
                continue;
            }
            count += static_cast<uint32_t>(write_len);
            if (count > limit) {
                if (lseek(fd_w, 0, SEEK_SET) < 0) {
                    err = errno;
                    kmsg_loop_trace("read_kernel_log_loop lseek errno[%d-%s]", err, strerror(err));
                }
                count = 0;
            }
            if (write_len != read_len) {
                kmsg_allow_stop(false);
                trace_warn("read_kernel_log_loop read_len[%d] != write_len[%d]", static_cast<int>(read_len),
                           static_cast<int>(write_len));
                kmsg_allow_stop(true);
            }
            continue;
        }
        err = errno;
        kmsg_loop_trace("read_kernel_log_loop read errno[%d-%s]", err, strerror(err));
        if (err == EAGAIN || err == EINTR) continue;
        kmsg_allow_stop(false);
        trace_info("read_kernel_log_loop exit thread");
        return nullptr;  // the thread's end closes both descriptors
    }
}

// Stopping a reader ends it with pthread_exit from a signal handler. pthread_exit needs the unwinder,
// which the C library loads on first use; a plain thread exit here makes that first use, so a stop never
// loads a library in signal context.
static void *kmsg_unwinder_first_use(void *param) {
    pthread_exit(param);
}

// Once per process: the reader key and the unwinder.
static void kmsg_prepare(void) {
    pthread_key_create(&g_kmsg_reader_key, kmsg_reader_ended);
    pthread_t thread;
    if (pthread_create(&thread, nullptr, kmsg_unwinder_first_use, nullptr) == 0)
        pthread_join(thread, nullptr);
}

int sa_kmsg_create_reader(pthread_t *tid) {
    static pthread_once_t prepare_once = PTHREAD_ONCE_INIT;
    pthread_once(&prepare_once, kmsg_prepare);

    pthread_mutex_lock(&g_kmsg_create_lock);
    pthread_mutex_lock(&g_kmsg_lock);
    unsigned long started = g_kmsg_started;
    pthread_mutex_unlock(&g_kmsg_lock);
    pthread_attr_t attr;
    sa_thread_attr_waiting(&attr);
    // The new thread inherits this mask: SIGUSR1 stays pending until it starts copying.
    sigset_t set;
    sigset_t old;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &set, &old);
    pthread_t thread = 0;
    int rc = pthread_create(&thread, &attr, read_kernel_log_loop, nullptr);
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    pthread_attr_destroy(&attr);
    *tid = rc == 0 ? thread : 0;
    if (rc == 0) {
        pthread_mutex_lock(&g_kmsg_lock);
        while (g_kmsg_started == started) pthread_cond_wait(&g_kmsg_started_cond, &g_kmsg_lock);
        pthread_mutex_unlock(&g_kmsg_lock);
    }
    pthread_mutex_unlock(&g_kmsg_create_lock);
    return rc;
}

// Sets the kernel's console log level through its shell line; the result only shows in the trace, filed
// under func.
static void kmsg_set_console_level(const char *func, const char *cmd) {
    int status = system(cmd);
    trace_info_in(func, "start_zv_log_service system(%s) status[%d]", cmd, status);
}

long start_kmsg_log_service(const char *func, sa_log_svc_st *svc) {
    if (svc->file_num_val != 0 && svc->file_size_val != 0) {
        int rc = sa_kmsg_create_reader(&g_sa_handle_ctx.m_read_kernel_log_tid);
        trace_info_in(func, "start_zv_log_service m_read_kernel_log_tid[%lu] ret_val[%ld]",
                      static_cast<unsigned long>(g_sa_handle_ctx.m_read_kernel_log_tid),
                      static_cast<long>(rc));
        if (rc != 0) {
            trace_info_in(func, "cannot create kernel log thread.");
            return ERR_UNKNOWN;
        }
        svc->mthread_id = g_sa_handle_ctx.m_read_kernel_log_tid;
        kmsg_set_console_level(func, kPrintkVerboseCmd);
        return ERR_NONE;
    }
    trace_info_in(func, "start_zv_log_service echo 3 3 1 3 > /proc/sys/kernel/printk\n");
    kmsg_set_console_level(func, kPrintkQuietCmd);
    return ERR_NONE;
}
