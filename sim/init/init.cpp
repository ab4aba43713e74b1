// init: the first process of a simulated handset. It keeps the property area and serves the property
// socket, boots the services of /system/etc/init/*.rc, acts on the control properties (ctl.start,
// ctl.stop, ctl.restart), and reaps every process that ends in the handset (as pid 1 it inherits all
// orphans). With "-- COMMAND ARGS..." it also runs COMMAND (a test binary, a shell) after boot, with
// init's own stdio, and when COMMAND ends it stops every service and exits with COMMAND's status.
//
// Everything runs on one thread around poll(): a signalfd brings SIGCHLD, SIGTERM and SIGINT, the
// listening socket brings property requests, and the services' deadlines (restart times, SIGKILL
// times) set the poll timeout. Each property request is one connection: read one frame, act, answer
// one uint32, close.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "init/prop_store.h"
#include "init/rc_parser.h"
#include "init/service.h"

namespace {

constexpr char k_rc_dir[] = "/system/etc/init";
// The handset's own boot script, read before the service definitions (absent in most test handsets).
constexpr char k_boot_rc[] = "/init.rc";
constexpr char k_history_name[] = ".history";
// How long one client may take to send its request.
constexpr int64_t k_request_timeout_ms = 2000;
// After the last SIGKILL of the shutdown, how long init still waits for the processes to go.
constexpr int64_t k_shutdown_extra_ms = 5000;

struct init_ctx {
    int m_signal_fd;
    int m_listen_fd;
    int m_history_fd;
    svc_table m_services;
    char *const *m_command;  // COMMAND and its arguments, or nullptr
    pid_t m_command_pid;     // 0 when not (or no longer) running
    int m_command_status;    // wait status of COMMAND once it ended
    bool m_shutting_down;
    int64_t m_shutdown_deadline_ms;
};

}  // namespace

static void init_usage() {
    fprintf(
        stderr,
        "usage: init [-- COMMAND [ARG...]]\n"
        "Boots the handset's services and serves properties; runs COMMAND after boot and ends with it.\n");
}

// Blocks the signals init takes through its signalfd and opens it; -1 on failure.
static int init_open_signal_fd() {
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGCHLD);
    sigaddset(&mask, SIGTERM);
    sigaddset(&mask, SIGINT);
    if (sigprocmask(SIG_BLOCK, &mask, nullptr) != 0) return -1;
    return signalfd(-1, &mask, SFD_CLOEXEC | SFD_NONBLOCK);
}

// Creates the property area and truncates its request history; the history descriptor or -1.
static int init_open_property_area() {
    if (mkdir(PROP_AREA_DIR, 0755) != 0 && errno != EEXIST) return -1;
    char path[256];
    snprintf(path, sizeof(path), "%s/%s", PROP_AREA_DIR, k_history_name);
    return open(path, O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
}

// Binds and listens on the property socket (mode 0666: services of any user set properties); the
// descriptor or -1.
static int init_open_property_socket() {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return -1;
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", PROP_SERVICE_SOCKET);
    unlink(addr.sun_path);
    if (bind(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof(addr)) != 0 ||
        chmod(addr.sun_path, 0666) != 0 || listen(fd, 16) != 0) {
        int err = errno;
        close(fd);
        errno = err;
        return -1;
    }
    return fd;
}

// Acts on a control request; unknown services and unknown verbs are only reported.
static void init_handle_control(init_ctx *ctx, const prop_request *req) {
    const char *verb = req->m_key + 4;
    svc_record *s = svc_find(&ctx->m_services, req->m_value);
    if (s == nullptr) {
        fprintf(stderr, "init: %s for unknown service '%s' ignored\n", req->m_key, req->m_value);
        return;
    }
    if (strcmp(verb, "start") == 0) {
        svc_ctl_start(&ctx->m_services, s);
    } else if (strcmp(verb, "stop") == 0) {
        svc_ctl_stop(&ctx->m_services, s);
    } else if (strcmp(verb, "restart") == 0) {
        svc_ctl_restart(&ctx->m_services, s);
    } else {
        fprintf(stderr, "init: unknown control request %s=%s ignored\n", req->m_key, req->m_value);
    }
}

// Checks and carries out one decoded request; the answer for the client.
static uint32_t init_apply_request(init_ctx *ctx, const prop_request *req) {
    uint32_t answer = prop_request_check(PROP_AREA_DIR, req);
    if (answer != PROP_ANSWER_OK) {
        fprintf(stderr, "init: property request for '%s' refused (%u)\n", req->m_key, answer);
        return answer;
    }
    if (strncmp(req->m_key, "ctl.", 4) == 0) {
        init_handle_control(ctx, req);
    } else {
        int err = prop_store_set(PROP_AREA_DIR, req->m_key, req->m_value, req->m_value_len);
        if (err != 0) {
            fprintf(stderr, "init: can't store '%s': %s\n", req->m_key, strerror(err));
            return PROP_ANSWER_STORE;
        }
    }
    int err = prop_history_append(ctx->m_history_fd, req);
    if (err != 0) fprintf(stderr, "init: can't record '%s' in the history: %s\n", req->m_key, strerror(err));
    return PROP_ANSWER_OK;
}

// Reads one request from the connection fd within the request timeout, answers it and closes fd.
// A client that hangs up or stalls before a whole frame arrived gets no answer.
static void init_serve_connection(init_ctx *ctx, int fd) {
    unsigned char buf[PROP_FRAME_MAX];
    size_t len = 0;
    prop_request req;
    int64_t deadline = svc_now_ms() + k_request_timeout_ms;
    prop_frame_status status = PROP_FRAME_INCOMPLETE;
    while ((status = prop_frame_decode(buf, len, &req)) == PROP_FRAME_INCOMPLETE && len < sizeof(buf)) {
        int64_t left = deadline - svc_now_ms();
        if (left <= 0) break;
        struct pollfd pfd = {fd, POLLIN, 0};
        int ready = poll(&pfd, 1, static_cast<int>(left));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) break;
        ssize_t n = recv(fd, buf + len, sizeof(buf) - len, MSG_DONTWAIT);
        if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (n <= 0) break;
        len += static_cast<size_t>(n);
    }
    uint32_t answer;
    if (status == PROP_FRAME_COMPLETE) {
        answer = init_apply_request(ctx, &req);
    } else if (status == PROP_FRAME_BAD) {
        fprintf(stderr, "init: malformed property request refused\n");
        answer = PROP_ANSWER_BAD_FRAME;
    } else {
        close(fd);
        return;
    }
    ssize_t sent;
    do {
        sent = send(fd, &answer, sizeof(answer), MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    close(fd);
}

// Serves every connection waiting on the property socket.
static void init_accept_requests(init_ctx *ctx) {
    for (;;) {
        int fd = accept4(ctx->m_listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED) continue;
            return;
        }
        init_serve_connection(ctx, fd);
    }
}

// Begins the end of the handset: every service is stopped; init exits once they are gone.
static void init_begin_shutdown(init_ctx *ctx) {
    if (ctx->m_shutting_down) return;
    ctx->m_shutting_down = true;
    int64_t now = svc_now_ms();
    svc_stop_all(&ctx->m_services);
    ctx->m_shutdown_deadline_ms = now + SVC_STOP_GRACE_MS + k_shutdown_extra_ms;
}

// Reaps every ended child: COMMAND, services and orphans alike.
static void init_reap(init_ctx *ctx) {
    for (;;) {
        int status = 0;
        pid_t pid = waitpid(-1, &status, WNOHANG);
        if (pid < 0 && errno == EINTR) continue;
        if (pid <= 0) return;
        if (pid == ctx->m_command_pid) {
            ctx->m_command_pid = 0;
            ctx->m_command_status = status;
            init_begin_shutdown(ctx);
            continue;
        }
        svc_on_exit(&ctx->m_services, pid, status, svc_now_ms());
    }
}

// Drains the signalfd: SIGCHLD reaps; SIGTERM and SIGINT end the handset, or are passed on to COMMAND
// while it runs (COMMAND's end then ends the handset).
static void init_handle_signals(init_ctx *ctx) {
    struct signalfd_siginfo info;
    for (;;) {
        ssize_t n = read(ctx->m_signal_fd, &info, sizeof(info));
        if (n < 0 && errno == EINTR) continue;
        if (n != static_cast<ssize_t>(sizeof(info))) break;
        int sig = static_cast<int>(info.ssi_signo);
        if (sig == SIGCHLD) continue;
        if (ctx->m_command_pid != 0) {
            kill(ctx->m_command_pid, sig);
        } else {
            init_begin_shutdown(ctx);
        }
    }
    init_reap(ctx);
}

// Starts COMMAND with init's stdio in "/"; false when it could not be forked.
static bool init_start_command(init_ctx *ctx) {
    pid_t pid = fork();
    if (pid < 0) return false;
    if (pid == 0) {
        svc_reset_signals();
        if (chdir("/") != 0) {
            int err = errno;
            fprintf(stderr, "init: chdir(\"/\") failed: %s\n", strerror(err));
            _exit(127);
        }
        execvp(ctx->m_command[0], ctx->m_command);
        int err = errno;
        fprintf(stderr, "init: can't run '%s': %s\n", ctx->m_command[0], strerror(err));
        _exit(127);
    }
    ctx->m_command_pid = pid;
    return true;
}

// poll timeout until the nearest deadline, -1 when there is none.
static int init_poll_timeout(const init_ctx *ctx, int64_t now) {
    int64_t next = svc_next_deadline(&ctx->m_services);
    if (ctx->m_shutting_down && ctx->m_shutdown_deadline_ms < next) next = ctx->m_shutdown_deadline_ms;
    if (next == SVC_NO_DEADLINE) return -1;
    int64_t wait = next - now;
    if (wait < 0) wait = 0;
    if (wait > 60000) wait = 60000;
    return static_cast<int>(wait);
}

// The event loop; returns once the handset has ended.
static void init_loop(init_ctx *ctx) {
    for (;;) {
        int64_t now = svc_now_ms();
        svc_on_timers(&ctx->m_services, now);
        if (ctx->m_shutting_down) {
            if (!svc_any_alive(&ctx->m_services)) return;
            if (now >= ctx->m_shutdown_deadline_ms) {
                fprintf(stderr, "init: services still alive after SIGKILL, leaving them\n");
                return;
            }
        }
        struct pollfd fds[2] = {{ctx->m_signal_fd, POLLIN, 0}, {ctx->m_listen_fd, POLLIN, 0}};
        int ready = poll(fds, 2, init_poll_timeout(ctx, now));
        if (ready < 0 && errno != EINTR) {
            int err = errno;
            fprintf(stderr, "init: poll failed: %s\n", strerror(err));
            return;
        }
        if (ready <= 0) continue;
        if (fds[0].revents != 0) init_handle_signals(ctx);
        if (fds[1].revents != 0) init_accept_requests(ctx);
    }
}

// Exit status for COMMAND's wait status: its exit code, or 128 plus the signal that killed it.
static int init_exit_status(int status) {
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return 1;
}

// Makes the folders of the boot script's mkdir commands, with their mode and owner, before any
// service starts; an existing folder only gets its mode and owner.
static void init_make_boot_dirs(const rc_config &cfg) {
    for (const rc_mkdir &dir : cfg.m_mkdirs) {
        if (mkdir(dir.m_path.c_str(), dir.m_mode) != 0 && errno != EEXIST) {
            int err = errno;
            fprintf(stderr, "init: mkdir %s: %s\n", dir.m_path.c_str(), strerror(err));
            continue;
        }
        if (chmod(dir.m_path.c_str(), dir.m_mode) != 0 ||
            chown(dir.m_path.c_str(), dir.m_uid, dir.m_gid) != 0) {
            int err = errno;
            fprintf(stderr, "init: setting up %s: %s\n", dir.m_path.c_str(), strerror(err));
        }
    }
}

int main(int argc, char **argv) {
    init_ctx ctx;
    ctx.m_command = nullptr;
    ctx.m_command_pid = 0;
    ctx.m_command_status = 0;
    ctx.m_shutting_down = false;
    ctx.m_shutdown_deadline_ms = SVC_NO_DEADLINE;
    if (argc >= 3 && strcmp(argv[1], "--") == 0) {
        ctx.m_command = argv + 2;
    } else if (argc != 1) {
        init_usage();
        return 2;
    }

    ctx.m_signal_fd = init_open_signal_fd();
    if (ctx.m_signal_fd < 0) {
        int err = errno;
        fprintf(stderr, "init: signalfd failed: %s\n", strerror(err));
        return 1;
    }
    ctx.m_history_fd = init_open_property_area();
    if (ctx.m_history_fd < 0) {
        int err = errno;
        fprintf(stderr, "init: can't open the property area %s: %s\n", PROP_AREA_DIR, strerror(err));
        return 1;
    }
    ctx.m_listen_fd = init_open_property_socket();
    if (ctx.m_listen_fd < 0) {
        int err = errno;
        fprintf(stderr, "init: can't serve %s: %s\n", PROP_SERVICE_SOCKET, strerror(err));
        return 1;
    }

    rc_config cfg;
    rc_parse_file(k_boot_rc, &cfg);
    rc_parse_dir(k_rc_dir, &cfg);
    for (const std::string &warning : cfg.m_warnings) fprintf(stderr, "init: %s\n", warning.c_str());
    init_make_boot_dirs(cfg);
    svc_table_init(&ctx.m_services, PROP_AREA_DIR, cfg);
    svc_boot(&ctx.m_services);

    if (ctx.m_command != nullptr && !init_start_command(&ctx)) {
        int err = errno;
        fprintf(stderr, "init: fork for '%s' failed: %s\n", ctx.m_command[0], strerror(err));
        ctx.m_command_status = 127 << 8;
        init_begin_shutdown(&ctx);
    }
    init_loop(&ctx);

    close(ctx.m_listen_fd);
    unlink(PROP_SERVICE_SOCKET);
    close(ctx.m_history_fd);
    close(ctx.m_signal_fd);
    if (ctx.m_command == nullptr) return 0;
    // The loop only ends early, with COMMAND still running, when poll itself failed.
    return ctx.m_command_pid != 0 ? 1 : init_exit_status(ctx.m_command_status);
}
