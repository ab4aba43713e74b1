// Pseudo-terminal and process plumbing of the remote shell: a raw pty whose slave is named for a peer,
// "/system/bin/sh" forked with the master as its standard streams, and a detached waiter thread per
// shell that reaps it, traces how it ended, gives the peer 200 ms to read the last output and closes
// the master. The capture launcher hands its children to the same waiter.
//
// Every descriptor the daemon opens is close-on-exec, so a shell inherits nothing but its own pty.
// Children trace between fork and exec; the log client holds its mutex across fork for that.
#define SA_TRACE_SRC "sa/sa-shell"
#include "sa-shell.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include "sa-thread.h"
#include "sa-trace.h"

static constexpr char kShellPath[] = "/system/bin/sh";
// Room of a caller's slave-name buffer (the listener's name buffers are 128 bytes).
static constexpr size_t kSymnameRoom = 128;
static constexpr uid_t kSlaveUid = 1000;
static constexpr gid_t kSlaveGid = 1001;
static constexpr mode_t kSlaveMode = 0660;
// Output processing bits cleared on the master: OPOST, OLCUC, OCRNL, ONOCR, ONLRET.
static constexpr tcflag_t kRawOflagMask = 0x3B;
// Local bits cleared on the master: ISIG, ICANON, ECHO, ECHOE.
static constexpr tcflag_t kRawLflagMask = 0x1B;
static constexpr useconds_t kShellGraceUs = 200000;

// Puts the master into raw mode; a failing tcsetattr is recorded but does not fail the pty.
static void set_ptm_attr(int fd) {
    struct termios tio;
    if (tcgetattr(fd, &tio) != 0) {
        trace_sys_err("tcgetattr", errno);
        return;
    }
    tio.c_iflag = 0;
    tio.c_oflag &= ~kRawOflagMask;
    tio.c_lflag &= ~kRawLflagMask;
    if (tcsetattr(fd, TCSANOW, &tio) != 0) trace_sys_err("tcsetattr", errno);
}

int open_ptm(char *symname) {
    trace_func();
    trace_info("open_ptm symname[%s]", symname);
    int ptm = open("/dev/ptmx", O_RDWR | O_NOCTTY | O_CLOEXEC);
    trace_info("open_ptm ptm[%d]", ptm);
    if (ptm < 0) {
        int err = errno;
        trace_info("open_ptm open error[%d-%s]", err, strerror(err));
        trace_file("open errno[%d-%s]", err, strerror(err));
        return -1;
    }

    char devname[kSymnameRoom];
    if (grantpt(ptm) != 0 || unlockpt(ptm) != 0 || ptsname_r(ptm, devname, sizeof(devname)) != 0) {
        int err = errno;
        close(ptm);
        trace_info("open_ptm ptsname error[%d-%s]", err, strerror(err));
        trace_file("ptsname errno[%d-%s]", err, strerror(err));
        return -1;
    }
    trace_info("open_ptm devname[%s]", devname);

    if (symname[0] != '\0') {
        unlink(symname);
        int ret = symlink(devname, symname);
        trace_info("open_ptm ret[%d]", ret);
        if (ret != 0) {
            int err = errno;
            close(ptm);
            trace_info("open_ptm symlink error[%d-%s]", err, strerror(err));
            trace_file("symlink errno[%d-%s]", err, strerror(err));
            return -1;
        }
    } else {
        size_t len = strnlen(devname, kSymnameRoom - 1);
        memcpy(symname, devname, len);
        symname[len] = '\0';
        trace_info("open_ptm symname[%s]", symname);
    }

    // Through the link where there is one, so the slave device itself gets the peer's rights.
    int chmod_ret = chmod(symname, kSlaveMode);
    int chown_ret = chown(symname, kSlaveUid, kSlaveGid);
    (void)chmod_ret;
    (void)chown_ret;

    set_ptm_attr(ptm);
    return ptm;
}

int close_ptm(int fd, const char *symname) {
    trace_func();
    trace_info("close_ptm fd[%d] symname[%s]", fd, symname);
    unlink(symname);
    close(fd);
    return 0;
}

int create_subprocess(int fd, const char *arg0, const char *arg1, pid_t *pid) {
    trace_func();
    *pid = fork();
    trace_info("create_subprocess fd[%d] cmd[%s] arg0[%s] arg1[%s] pid[%d]", fd, kShellPath,
               arg0 != nullptr ? arg0 : "(null)", arg1 != nullptr ? arg1 : "(null)", *pid);
    if (*pid < 0) {
        int err = errno;
        trace_info("create_subprocess fork errno[%d-%s]", err, strerror(err));
        trace_file("fork errno[%d-%s]", err, strerror(err));
        close(fd);
        return -1;
    }
    if (*pid == 0) {
        setsid();
        dup2(fd, 0);
        dup2(fd, 1);
        dup2(fd, 2);
        close(fd);
        // oom_adj "0": the shell is not the kernel's first choice to kill, whatever the daemon's value.
        char text[64];
        snprintf(text, sizeof(text), "/proc/%d/oom_adj", getpid());
        trace_info("create_subprocess text[%s]", text);
        int fdoo = open(text, O_WRONLY | O_CLOEXEC);
        trace_info("create_subprocess fdoo[%d]", fdoo);
        if (fdoo < 0) {
            int err = errno;
            trace_info("create_subprocess open(fdoo) error[%d-%s]", err, strerror(err));
            trace_file("open(fdoo) errno[%d-%s]", err, strerror(err));
        } else {
            ssize_t n = write(fdoo, "0", 1);
            (void)n;
            close(fdoo);
            trace_file("child process pid[%d]", getpid());
        }
        execl(kShellPath, kShellPath, arg0, arg1, static_cast<char *>(nullptr));
        int err = errno;
        trace_info("create_subprocess execl(%s) ret_val[%d] error[%d-%s]", kShellPath, -1, err,
                   strerror(err));
        trace_file("child process errno[%d-%s]", err, strerror(err));
        fprintf(stderr, "create_subprocess execl(%s) errno[%d-%s] -\n", kShellPath, err, strerror(err));
        exit(-1);
    }
    trace_file("parent process");
    return fd;
}

int thread_create(pthread_t *thread, void *arg) {
    trace_func();
    pthread_attr_t attr;
    sa_thread_attr_waiting(&attr);
    int thd = pthread_create(thread, &attr, service_bootstrap_func, arg);
    pthread_attr_destroy(&attr);
    trace_file("thd[%d] pthread[%lu]", thd, static_cast<unsigned long>(*thread));
    return thd;
}

void *service_bootstrap_func(void *arg) {
    trace_func();
    subproc_info *info = static_cast<subproc_info *>(arg);
    trace_file("fd[%d] pid[%d]", info->fd, info->pid);
    info->func(info->fd, info->pid);
    free(info);
    return nullptr;
}

void subproc_waiter_service(int fd, pid_t pid) {
    trace_info("subproc_waiter_service fd[%d] pid[%d]", fd, pid);
    int status = 0;
    pid_t p;
    while (true) {
        p = waitpid(pid, &status, 0);
        trace_info("subproc_waiter_service status[%d] p[%d]", status, p);
        trace_file("p[%d] status[%d]", p, status);
        if (p == pid) break;
        // Keep waiting; a failing waitpid must not turn into a busy loop.
        if (p < 0 && errno != EINTR) usleep(10000);
    }
    trace_info("subproc_waiter_service status[%d] p[%d]", status, p);

    int low = status & 0x7F;
    if (low != 0 && low != 0x7F) {
        trace_info("subproc_waiter_service Killed by signal[%d]", low);
        trace_file("pid[%d] killed by signal[%d]", pid, low);
    } else if (low == 0x7F) {
        trace_info("subproc_waiter_service Didn't exit!!. status[%d]", status);
        trace_file("pid[%d] terminated abnormally", pid);
    } else {
        trace_info("subproc_waiter_service Exit code[%d]", (status >> 8) & 0xFF);
        trace_file("pid[%d] exit code[%d]", pid, (status >> 8) & 0xFF);
    }

    int err = errno;
    trace_info("subproc_waiter_service shell exited fd[%d] pid[%d] errno[%d]", fd, pid, err);
    trace_file("pid[%d] exit errno[%d-%s]", pid, err, strerror(err));
    usleep(kShellGraceUs);
    close(fd);
}

int create_subproc_thread(int fd, const char *command) {
    trace_func();
    trace_info("create_subproc_thread fd[%d] name[%s]", fd, command != nullptr ? command : "(null)");
    pid_t pid = 0;
    int ret_fd = command != nullptr ? create_subprocess(fd, "-c", command, &pid)
                                    : create_subprocess(fd, "-", nullptr, &pid);
    trace_info("create_subproc_thread ret_fd[%d] pid[%d]", ret_fd, pid);
    if (ret_fd < 0) {
        int err = errno;
        trace_info("create_subproc_thread create_subprocess error[%d-%s]", err, strerror(err));
        trace_file("create_subprocess errno[%d-%s]", err, strerror(err));
        return -1;
    }

    subproc_info *stinfo = static_cast<subproc_info *>(malloc(sizeof(subproc_info)));
    if (stinfo == nullptr) {
        int err = errno;
        close(fd);
        printf("malloc stinfo failed\n");
        trace_info("create_subproc_thread malloc error[%d-%s]", err, strerror(err));
        trace_file("malloc errno[%d-%s]", err, strerror(err));
        return -1;
    }
    stinfo->func = subproc_waiter_service;
    stinfo->fd = fd;
    stinfo->pid = pid;
    pthread_t thread;
    int thd = thread_create(&thread, stinfo);
    if (thd != 0) {
        free(stinfo);
        close(fd);
        trace_info("create_subproc_thread thread_create error[%d-%s]", thd, strerror(thd));
        trace_file("thread_create errno[%d-%s]", thd, strerror(thd));
        return -1;
    }
    return fd;
}
