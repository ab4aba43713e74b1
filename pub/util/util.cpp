// Process and thread utilities of the common library.
//
// Worker threads of the daemon (the kernel log reader above all) block in read() for their whole life,
// so they are stopped from outside: the controller sends SIGUSR1 with pub_util_kill_thread, and the
// handler the worker installed, pub_util_handle_thread_signal, ends it with pthread_exit wherever it
// is blocked. On glibc pthread_exit unwinds the stack, so thread bodies must not be noexcept and must
// not swallow the unwind with catch (...). There is no join: a short fixed pause lets the thread leave.
//
// The pid file is written directly rather than through a shell line, and the signal name table keeps
// every column of the traditional table although only the names are read.
#include "util/util.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

#include "log/log_client.h"

#define PUB_LOG_SRC "util/util"

// Pause after a successful SIGUSR1, so that the thread is gone when the caller goes on.
static constexpr useconds_t kKillPauseUs = 10000;

const pub_util_sig_st pub_util_sig_table[] = {
    {1, "SIGHUP", 'T', "Hangup (POSIX)."},
    {2, "SIGINT", 'T', "Terminal interrupt signal (ANSI)."},
    {3, "SIGQUIT", 'A', "Terminal quit signal (POSIX)."},
    {4, "SIGILL", 'A', "Illegal instruction (ANSI)."},
    {5, "SIGTRAP", 'A', "Trace/breakpoint trap (POSIX)."},
    {6, "SIGABRT", 'A', "Process abort signal (ANSI)."},
    {6, "SIGIOT", 'A', "IOT trap (4.2 BSD)."},
    {7, "SIGBUS", 'A', "Access to an undefined portion of a memory object (4.2 BSD)."},
    {8, "SIGFPE", 'A', "Erroneous arithmetic operation (ANSI)."},
    {9, "SIGKILL", 'T', "Kill (cannot be caught or ignored) (POSIX)."},
    {10, "SIGUSR1", 'T', "User-defined signal 1 (POSIX)."},
    {11, "SIGSEGV", 'A', "Invalid memory reference (ANSI)."},
    {12, "SIGUSR2", 'T', "User-defined signal 2 (POSIX)."},
    {13, "SIGPIPE", 'T', "Write on a pipe with no one to read it (POSIX)."},
    {14, "SIGALRM", 'T', "Alarm clock (POSIX)."},
    {15, "SIGTERM", 'T', "Termination signal (ANSI)."},
    {16, "SIGSTKFLT", '?', "Stack fault"},
    {17, "SIGCHLD", 'I', "Child process terminated, stopped (POSIX)."},
    {18, "SIGCONT", 'C', "Continue executing, if stopped (POSIX)."},
    {19, "SIGSTOP", 'S', "Stop executing (cannot be caught or ignored) (POSIX)."},
    {20, "SIGTSTP", 'S', "Terminal stop signal (POSIX)."},
    {21, "SIGTTIN", 'S', "Background process attempting read (POSIX)."},
    {22, "SIGTTOU", 'S', "Background process attempting write (POSIX)."},
    {23, "SIGURG", 'I', "High bandwidth data is available at a socket (4.2 BSD)."},
    {24, "SIGXCPU", 'A', "CPU time limit exceeded (4.2 BSD)."},
    {25, "SIGXFSZ", 'A', "File size limit exceeded (4.2 BSD)."},
    {26, "SIGVTALRM", 'T', "Virtual timer expired (4.2 BSD)."},
    {27, "SIGPROF", 'T', "Profiling timer expired (4.2 BSD)."},
    {28, "SIGWINCH", '?', "Window size change (4.3 BSD, Sun)."},
    {29, "SIGPOLL", 'T', "Pollable event (System V)."},
    {29, "SIGIO", 'T', "I/O now possible (4.2 BSD)."},
    {30, "SIGPWR", '?', "Power failure restart (System V)."},
    {31, "SIGSYS", 'A', "Bad system call."},
    {PUB_UTIL_SIG_END, nullptr, '?', nullptr},
};

// True when the thread behind id has already ended. Current glibc answers 0 to pthread_kill(id, 0)
// for a thread that has exited but was not joined, and silently drops any signal sent to it; its
// kernel id is gone, though, which pthread_getcpuclockid reports as ESRCH.
static bool thread_has_ended(pthread_t id) {
    if (pthread_kill(id, 0) == ESRCH) return true;
    clockid_t clock_id;
    return pthread_getcpuclockid(id, &clock_id) == ESRCH;
}

int pub_util_kill_thread(pthread_t *thread) {
    PUB_LOG_FUNC();
    if (thread == nullptr) {
        PUB_LOG_ERR(ERR_INVALID_PARAM, "thread[%p]", static_cast<void *>(thread));
        return 0;
    }
    if (*thread == 0 || thread_has_ended(*thread)) return 0;

    int err = pthread_kill(*thread, SIGUSR1);
    if (err != 0) {
        PUB_LOG_ERR(ERR_CALL_C_FUNCTION, "pthread_kill(): %d - %s", err, strerror(err));
        return err;
    }
    usleep(kKillPauseUs);
    *thread = 0;
    return 0;
}

void pub_util_handle_thread_signal(int sig) {
    PUB_LOG_FUNC();
    if (sig != SIGUSR1) {
        PUB_LOG_ERR(ERR_INVALID_PARAM, "unknown signal: %d", sig);
        return;
    }
    PUB_LOG_INFO("thread %d will be end", static_cast<int>(pthread_self()));
    pthread_exit(nullptr);
}

int pub_util_set_fd_mode(int fd, int is_nonblock) {
    PUB_LOG_FUNC();
    if (fd < 0) {
        PUB_LOG_ERR(ERR_INVALID_PARAM, "fd[%d]", fd);
        return ERR_INVALID_PARAM;
    }
    PUB_LOG_INFO("pub_util_set_fd_mode fd[%d] is_nonblock_mode[%d]", fd, is_nonblock);

    int flags = fcntl(fd, F_GETFL);
    if (flags < 0) {
        int err = errno;
        PUB_LOG_SYS_ERR("fcntl", err);
        return ERR_CALL_C_FUNCTION;
    }
    if (is_nonblock != 0) {
        flags |= O_NONBLOCK;
    } else {
        flags &= ~O_NONBLOCK;
    }
    if (fcntl(fd, F_SETFL, flags) < 0) {
        int err = errno;
        PUB_LOG_SYS_ERR("fcntl", err);
        return ERR_CALL_C_FUNCTION;
    }
    PUB_LOG_INFO("pub_util_set_fd_mode return ERR_NONE");
    return ERR_NONE;
}

const char *pub_util_get_signal_name(int sig) {
    // The first row answers at once; the scan starts after it.
    if (sig == pub_util_sig_table[0].m_sig) return pub_util_sig_table[0].m_name;
    for (const pub_util_sig_st *row = &pub_util_sig_table[1]; row->m_sig != PUB_UTIL_SIG_END; ++row) {
        if (row->m_sig == sig) return row->m_name;
    }
    return "";
}

// Writes all of text to fd; 0 or the errno of the failing write.
static int write_all(int fd, const char *text, size_t len) {
    while (len > 0) {
        ssize_t n = write(fd, text, len);
        if (n < 0) {
            if (errno == EINTR) continue;
            return errno;
        }
        text += n;
        len -= static_cast<size_t>(n);
    }
    return 0;
}

void pub_util_create_pid_file(const char *name) {
    PUB_LOG_FUNC();
    if (name == nullptr) {
        PUB_LOG_ERR(ERR_INVALID_PARAM, "name[%p]", static_cast<const void *>(name));
        return;
    }
    char path[256];
    int path_len = snprintf(path, sizeof(path), "/tmp/%s.pid", name);
    if (path_len < 0 || static_cast<size_t>(path_len) >= sizeof(path)) {
        // A cut path would name some other file: refuse instead.
        PUB_LOG_ERR(ERR_EXCEED_MAX_SIZE, "pid file name too long: %s", name);
        return;
    }
    int pid = static_cast<int>(getpid());
    char content[24];
    int content_len = snprintf(content, sizeof(content), "%d\n", pid);

    // Mode as a shell redirection would create it: 0666 less the umask.
    pub_util_unique_fd fd(open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    if (!fd.ok()) {
        int err = errno;
        PUB_LOG_SYS_ERR("open", err);
    } else {
        int err = write_all(fd.get(), content, static_cast<size_t>(content_len));
        if (err != 0) PUB_LOG_SYS_ERR("write", err);
    }
    PUB_LOG_INFO("PID of %s: %d", name, pid);
}
