// The launcher of capture children (logcat, tcpdump). A child gets /dev/null as its stdio, the
// out-of-memory adjustment 0, and, unless it is tcpdump, the shell user and the log group; tcpdump keeps
// root in a session of its own, with umask 077 in "/". Each child is handed to a detached waiter thread
// of the shell machinery, which reaps exactly that pid, so the daemon never waits for "any child" and
// never steals the child of a system() call.
//
// Between fork and exec the child writes the traces below; the log client holds its mutex across fork,
// so no other thread can leave it locked in the child.
#define SA_TRACE_SRC "sa/sa-launch"
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "sa-capture.h"
#include "sa-shell.h"
#include "sa-trace.h"

// Pause after every launch, so the child is running (or has failed) before the next one starts.
static constexpr useconds_t kLaunchPauseUs = 100000;
static constexpr char kDevNull[] = "/dev/null";

// Puts the child's own out-of-memory adjustment to 0. A failure is traced (under func, the launcher's
// name) and tolerated.
static void launch_reset_oom_adj(const char *func) {
    char text[64];
    snprintf(text, sizeof(text), "/proc/%d/oom_adj", static_cast<int>(getpid()));
    trace_info_in(func, "create_subprocess_ex text[%s]", text);
    int fdoo = open(text, O_WRONLY | O_CLOEXEC);
    trace_info_in(func, "create_subprocess_ex fdoo[%d]", fdoo);
    if (fdoo < 0) {
        int err = errno;
        trace_info_in(func, "create_subprocess_ex open(fdoo) error[%d-%s]", err, strerror(err));
        return;
    }
    if (write(fdoo, "0", 1) != 1) {
        int err = errno;
        trace_info_in(func, "create_subprocess_ex write(fdoo) error[%d-%s]", err, strerror(err));
    }
    close(fdoo);
}

int create_subprocess_ex(int fd, const char *cmd, char **argv, int param_size, pid_t *pid) {
    trace_func();
    pid_t child = fork();
    int err = errno;
    trace_info("create_subprocess_ex fd[%d] cmd[%s] arg0_size[%d] pid[%d]", fd, cmd, param_size,
               static_cast<int>(child));
    if (child < 0) {
        trace_info("create_subprocess_ex fork errno[%d-%s]", err, strerror(err));
        close(fd);
        return -1;
    }
    if (child == 0) {
        // The child: identity, session and stdio of a capture program, then the program itself.
        int is_tcpdump = strstr(cmd, "tcpdump") != nullptr ? 1 : 0;
        trace_info("create_subprocess_ex tcpdump[%d]", is_tcpdump);
        if (is_tcpdump) {
            // The capture keeps root rights, in a session of its own; its files are private. The results
            // do not matter: a failure leaves the child as it was.
            long ignored = setsid();
            umask(077);
            ignored |= chdir("/");
            ignored |= setuid(0);
            ignored |= setgid(getegid());
            (void)ignored;
        } else {
            // setsid fails for a group leader: the child stays in a group of its own in our session.
            long ignored = setpgid(0, getpid());
            ignored |= setsid();
            (void)ignored;
        }
        dup2(fd, STDIN_FILENO);
        dup2(fd, STDOUT_FILENO);
        dup2(fd, STDERR_FILENO);
        close(fd);

        launch_reset_oom_adj(__func__);

        if (!is_tcpdump) {
            // Group before user: once the user is dropped the group can no longer change.
            if (setgid(SA_AID_LOG) != 0) {
                err = errno;
                trace_info("create_subprocess_ex setgid(AID_LOG) error[%d-%s]", err, strerror(err));
                _exit(-1);
            }
            if (setuid(SA_AID_SHELL) != 0) {
                err = errno;
                trace_info("create_subprocess_ex setuid(AID_SHELL) error[%d-%s]", err, strerror(err));
                _exit(-1);
            }
        }

        trace_file("child process pid[%d]", static_cast<int>(getpid()));
        int ret_val = execvp(cmd, argv);
        err = errno;
        trace_info("create_subprocess_ex execvp(%s) ret_val[%d] error[%d-%s]", cmd, ret_val, err,
                   strerror(err));
        fprintf(stderr, "create_subprocess_ex execvp(%s) errno[%d-%s] -\n", cmd, err, strerror(err));
        _exit(-1);
    }
    if (pid != nullptr) *pid = child;
    return fd;
}

int create_subproc_thread_ex(int fd, const char *cmd, char **argv, int param_size) {
    trace_func();
    trace_info("create_subproc_thread_ex fd[%d] cmd[%s] param_size[%d]", fd, cmd, param_size);
    pid_t pid = 0;
    int ret_fd = create_subprocess_ex(fd, cmd, argv, param_size, &pid);
    int err = errno;
    trace_info("create_subproc_thread_ex ret_fd[%d] pid[%d]", ret_fd, static_cast<int>(pid));
    if (ret_fd < 0) {
        trace_info("create_subproc_thread_ex create_subprocess_ex error[%d-%s]", err, strerror(err));
        return -1;
    }

    subproc_info *stinfo = static_cast<subproc_info *>(malloc(sizeof(subproc_info)));
    if (stinfo == nullptr) {
        err = errno;
        close(ret_fd);
        trace_info("create_subproc_thread_ex malloc error[%d-%s]", err, strerror(err));
        return -1;
    }
    stinfo->func = subproc_waiter_service;
    stinfo->fd = ret_fd;
    stinfo->pid = pid;

    pthread_t thread = 0;
    int rc = thread_create(&thread, stinfo);
    if (rc != 0) {
        free(stinfo);
        close(ret_fd);
        trace_info("create_subproc_thread_ex thread_create error[%d-%s]", rc, strerror(rc));
        return -1;
    }
    trace_info("create_subproc_thread_ex pid[%d]", static_cast<int>(pid));
    return static_cast<int>(pid);
}

int sa_create_subproc_thread(const char *cmd, char **argv, int param_size) {
    trace_func();
    if (cmd == nullptr || argv == nullptr) {
        trace_info("sa_create_subproc_thread parameters invalid");
        return -1;
    }
    trace_info("sa_create_subproc_thread cmd[%s] param_size[%d]", cmd, param_size);
    // The child inherits this descriptor onto its stdio; the waiter closes our copy.
    int fd = open(kDevNull, O_RDWR | O_CLOEXEC);
    int err = errno;
    trace_info("sa_create_subproc_thread fd[%d]", fd);
    if (fd <= 0) {
        // A descriptor 0 is kept: it stands in for our missing stdin and lets the next open succeed.
        trace_info("sa_create_subproc_thread open error[%d-%s]", err, strerror(err));
        return -1;
    }
    int ret = create_subproc_thread_ex(fd, cmd, argv, param_size);
    trace_info("sa_create_subproc_thread ret[%d]", ret);
    usleep(kLaunchPauseUs);
    return ret;
}
