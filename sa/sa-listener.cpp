// The remote shell listener on "/dev/ttysa1", run on the main thread after start-up. A peer writes one
// request per read: "host:kill" ends the daemon at once; anything else gets a fresh pty whose slave name
// is written back, and after the peer's acknowledgement "shell:" requests get a shell on it (with the
// text after "shell:" as its -c command when there is one). Requests are served one after another; a
// peer that never acknowledges holds only this loop, never the command channel.
//
// Every step leaves a record and an sa.log line of the same text; only the failures and the two ends of
// the loop write a different, shorter line.
#define SA_TRACE_SRC "sa/sa-listener"
#include "sa-listener.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "sa-shell.h"
#include "sa-trace.h"

static constexpr char kListenerName[] = "/dev/ttysa1";
static constexpr char kShellPrefix[] = "shell:";
static constexpr size_t kShellPrefixLen = sizeof(kShellPrefix) - 1;

sa_listener_request_kind sa_listener_request(const char *request, const char **command) {
    *command = nullptr;
    if (strcmp(request, "host:kill") == 0) return SA_LISTENER_KILL;
    if (strncmp(request, kShellPrefix, kShellPrefixLen) != 0) return SA_LISTENER_UNKNOWN;
    const char *text = request + kShellPrefixLen;
    if (text[0] != '\0') *command = text;
    return SA_LISTENER_SHELL;
}

int open_ptm_connection(int fd) {
    trace_func();
    trace_both("open_ptm_connection fd1[%d]", fd);
    char name[128];
    memset(name, 0, sizeof(name));
    int conn = open_ptm(name);
    trace_both("open_ptm_connection fd[%d]", conn);
    if (conn < 0) {
        int err = errno;
        trace_info("open_ptm_connection open_ptm failed");
        trace_file("open_ptm errno[%d-%s]", err, strerror(err));
        return -1;
    }

    ssize_t size = write(fd, name, strlen(name));
    trace_both("open_ptm_connection write size[%d]", static_cast<int>(size));

    // Any read of 0 or more bytes is the peer's acknowledgement; its content is not looked at.
    char reply[512];
    memset(reply, 0, sizeof(reply));
    size = read(fd, reply, sizeof(reply));
    trace_both("open_ptm_connection read size[%d]", static_cast<int>(size));
    if (size < 0) {
        int err = errno;
        close(conn);
        trace_file("read errno[%d-%s]", err, strerror(err));
        return -1;
    }
    return conn;
}

int handle_service(int fd, const char *service) {
    trace_func();
    trace_both("handle_service fd[%d] name[%s]", fd, service);
    int ret = -1;
    const char *command = nullptr;
    if (sa_listener_request(service, &command) == SA_LISTENER_SHELL) ret = create_subproc_thread(fd, command);
    trace_both("handle_service ret[%d]", ret);
    if (ret < 0) {
        close(fd);
    } else {
        // The descriptor now belongs to the shell's waiter thread.
        fcntl(ret, F_SETFD, FD_CLOEXEC);
    }
    return ret;
}

void sa_listener_loop(void) {
    trace_func();
    char listener_name[128];
    memset(listener_name, 0, sizeof(listener_name));
    strncpy(listener_name, kListenerName, sizeof(listener_name) - 1);

    int fd = open_ptm(listener_name);
    trace_both("sa_listener_loop fd[%d]", fd);
    if (fd > 0) {
        char service[1024];
        while (true) {
            memset(service, 0, sizeof(service));
            ssize_t size = read(fd, service, sizeof(service) - 1);
            int read_err = errno;  // the traces below may change errno
            trace_both("sa_listener_loop size[%d] service[%s]", static_cast<int>(size), service);
            if (size < 0) {
                if (read_err != EIO) {
                    trace_both("sa_listener_loop exit while");
                    break;
                }
                // The peer closed its side: a fresh pty under the same name.
                close_ptm(fd, listener_name);
                fd = open_ptm(listener_name);
                trace_both("sa_listener_loop reopen fd[%d]", fd);
                if (fd < 0) break;
                continue;
            }
            service[size] = '\0';
            trace_both("sa_listener_loop service[%s]", service);

            const char *command = nullptr;
            if (sa_listener_request(service, &command) == SA_LISTENER_KILL) {
                trace_info("sa_listener_loop exit(0)");
                trace_file("host:kill exit");
                exit(0);
            }

            int fd_pair = open_ptm_connection(fd);
            trace_both("sa_listener_loop fd_pair[%d]", fd_pair);
            if (fd_pair != -1) handle_service(fd_pair, service);
        }
    }

    // Also when the listener never opened or its reopen failed: the link is dropped either way.
    close_ptm(fd, listener_name);
    trace_info("sa_listener_loop exit loop");
    trace_file("exit");
}
