// Remote shells through the daemon's listener; see client-shell.h.
#include "client-shell.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>

#include "client-verbs.h"
#include "client.h"

namespace {

// How long the listener may take to hand out a pty, and the trace file to name the shell's pid.
constexpr long long kHandshakeMs = 10000;
// How long the waiter's line may lag behind the end of the shell's pty.
constexpr long long kStatusWaitMs = 3000;
constexpr useconds_t kPollPauseUs = 20000;
constexpr int kPollPauseMs = kPollPauseUs / 1000;

off_t file_size(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

// What the file holds from offset on.
std::string read_from(const std::string &path, off_t offset) {
    std::string out;
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return out;
    char buf[8192];
    while (true) {
        ssize_t n = pread(fd, buf, sizeof(buf), offset);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        out.append(buf, static_cast<size_t>(n));
        offset += n;
    }
    close(fd);
    return out;
}

// Polls the trace file from offset until find() succeeds on its text or the deadline passes.
template <typename Find>
bool poll_trace(const std::string &path, off_t offset, long long deadline_ms, Find find) {
    while (true) {
        if (find(read_from(path, offset))) return true;
        if (zv_client_now_ms() >= deadline_ms) return false;
        usleep(kPollPauseUs);
    }
}

// A number from 0 to max in square brackets right at text[pos]: "[123]".
bool bracket_number(const std::string &text, size_t pos, long max, long *value) {
    if (pos >= text.size() || text[pos] != '[') return false;
    size_t end = pos + 1;
    long v = 0;
    while (end < text.size() && text[end] >= '0' && text[end] <= '9') {
        v = v * 10 + (text[end] - '0');
        if (v > max) return false;
        ++end;
    }
    if (end == pos + 1 || end >= text.size() || text[end] != ']') return false;
    *value = v;
    return true;
}

// Sends request and reads the name of the pty the listener opened for it; the listener fd or -1.
int listener_handshake(const std::string &listener, const std::string &request, std::string *pts,
                       const zv_client_report &report, std::string *why) {
    long long until = zv_client_now_ms() + kClientOpenRetryMs;
    while (true) {
        int fd = zv_client_open_link(listener, -1, report, why);
        if (fd < 0) return -1;
        zv_client_say(report, "-> %s: %s", listener.c_str(), zv_visible(request).c_str());
        pts->clear();
        zv_read_end end = zv_client_write_all(fd, request.data(), request.size())
                              ? zv_channel_read(
                                    fd, pts, [](const std::string &s) { return !s.empty(); },
                                    zv_client_now_ms() + kHandshakeMs, "shell", report)
                              : zv_read_end::closed;
        if (end == zv_read_end::answered) return fd;
        close(fd);
        if (end == zv_read_end::timeout) {
            *why = "the listener gave no pty within " + std::to_string(kHandshakeMs / 1000) + " s";
            return -1;
        }
        // Closed unanswered: the listener was re-creating its pty and never read the request.
        if (zv_client_now_ms() >= until) {
            *why = "the listener closed " + listener + " without an answer";
            return -1;
        }
        zv_client_say(report, "%s closed before the request was read; sending it again", listener.c_str());
        usleep(kPollPauseUs);
    }
}

// Copies the shell's output to stdout (or into *captured) and stdin to the shell, until the shell's pty
// closes or the deadline passes; calls busy() at least every 20 ms for as long as it returns true.
// False on timeout.
bool relay(int pty, const zv_shell_options &options, std::string *captured,
           const std::function<bool()> &busy) {
    char buf[4096];
    bool stdin_open = options.relay_stdin;
    bool calling = true;
    while (true) {
        if (calling) calling = busy();
        int wait = -1;
        if (options.deadline_ms >= 0) {
            long long left = options.deadline_ms - zv_client_now_ms();
            if (left <= 0) return false;
            wait = static_cast<int>(left);
        }
        if (calling && (wait < 0 || wait > kPollPauseMs)) wait = kPollPauseMs;
        struct pollfd p[2] = {{pty, POLLIN, 0}, {0, static_cast<short>(stdin_open ? POLLIN : 0), 0}};
        int r = poll(p, stdin_open ? 2 : 1, wait);
        if (r < 0 && errno == EINTR) continue;
        if (r < 0) return true;
        if (r == 0) continue;
        if (p[0].revents != 0) {
            ssize_t n = read(pty, buf, sizeof(buf));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return true;  // the shell ended and the daemon closed its pty
            if (captured != nullptr) {
                captured->append(buf, static_cast<size_t>(n));
            } else if (!zv_client_write_all(1, buf, static_cast<size_t>(n))) {
                return true;
            }
        }
        if (stdin_open && p[1].revents != 0) {
            ssize_t n = read(0, buf, sizeof(buf));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) {
                stdin_open = false;
                continue;
            }
            if (!zv_client_write_all(pty, buf, static_cast<size_t>(n))) stdin_open = false;
        }
    }
}

}  // namespace

bool zv_trace_shell_pid(const std::string &trace, const std::string &request, int *pid) {
    // "[time]sa_listener_loop sa_listener_loop service[REQUEST]" and then, once the shell is forked,
    // "[time]service_bootstrap_func fd[F] pid[P]" from the thread that waits for it.
    std::string served = "sa_listener_loop service[" + request + "]\n";
    size_t at = trace.find(served);
    if (at == std::string::npos) return false;
    static const std::string kWaiter = "]service_bootstrap_func fd[";
    for (size_t pos = trace.find(kWaiter, at); pos != std::string::npos; pos = trace.find(kWaiter, pos + 1)) {
        size_t p = trace.find("] pid", pos + kWaiter.size());
        size_t eol = trace.find('\n', pos);
        if (p == std::string::npos || (eol != std::string::npos && p > eol)) continue;
        long value = 0;
        if (bracket_number(trace, p + 5, INT_MAX, &value) && value > 0) {
            *pid = static_cast<int>(value);
            return true;
        }
    }
    return false;
}

bool zv_trace_shell_status(const std::string &trace, int pid, int *status) {
    // "[time]subproc_waiter_service pid[P] exit code[N]" or "... pid[P] killed by signal[S]".
    std::string head = "]subproc_waiter_service pid[" + std::to_string(pid) + "] ";
    for (size_t pos = trace.find(head); pos != std::string::npos; pos = trace.find(head, pos + 1)) {
        size_t p = pos + head.size();
        long value = 0;
        if (trace.compare(p, 9, "exit code") == 0 && bracket_number(trace, p + 9, 255, &value)) {
            *status = static_cast<int>(value);
            return true;
        }
        if (trace.compare(p, 16, "killed by signal") == 0 && bracket_number(trace, p + 16, 127, &value)) {
            *status = 128 + static_cast<int>(value);
            return true;
        }
    }
    return false;
}

zv_shell_result zv_shell_run(const std::string &request, const zv_shell_options &options,
                             const zv_client_report &report) {
    zv_shell_result result;
    // One client at a time between the request and the moment its shell's pid is known, so that the
    // trace lines of two connections are never taken for each other.
    zv_channel_lock lock(options.listener);
    if (!lock.acquire(zv_client_now_ms() + 600000, report)) {
        result.exit_code = kExitTimeout;
        result.why = "another client held " + options.listener + " too long";
        return result;
    }
    off_t offset = file_size(options.sa_log);
    std::string pts;
    int listener = listener_handshake(options.listener, request, &pts, report, &result.why);
    if (listener < 0) return result;
    zv_client_say(report, "<- %s", zv_visible(pts).c_str());
    int pty = zv_client_open(pts.c_str());
    if (pty < 0) {
        result.why = "cannot open the shell's pty " + pts + ": " + strerror(errno);
        close(listener);
        return result;
    }
    // The acknowledgement that lets the listener start the shell.
    zv_client_write_all(listener, "ok", 2);

    // The output is copied from its first byte on while the trace file is read for the shell's pid: a
    // shell that ends before the pid is known would otherwise take its output with its pty.
    int pid = 0;
    bool have_pid = false;
    bool looking = true;
    long long look_until = zv_client_now_ms() + kHandshakeMs;
    auto look = [&](bool last) {
        if (!looking) return false;
        have_pid = offset >= 0 && zv_trace_shell_pid(read_from(options.sa_log, offset), request, &pid);
        if (!have_pid && !last && offset >= 0 && zv_client_now_ms() < look_until) return true;
        looking = false;
        if (have_pid) {
            zv_client_say(report, "shell pid %d", pid);
        } else {
            zv_client_say(report, "the trace file %s does not name the shell's pid", options.sa_log.c_str());
        }
        // The pid is known (or never will be): the next client may use the listener.
        close(listener);
        lock.release();
        return false;
    };
    bool ended = relay(pty, options, options.capture ? &result.output : nullptr, [&] { return look(false); });
    close(pty);
    // The waiter names the pid before the shell's pty closes, so once it closed one more look does.
    look(true);
    if (!ended) {
        result.exit_code = kExitTimeout;
        result.why = "the shell did not end in time";
        return result;
    }
    if (have_pid &&
        poll_trace(options.sa_log, offset, zv_client_now_ms() + kStatusWaitMs, [&](const std::string &text) {
            return zv_trace_shell_status(text, pid, &result.status);
        })) {
        result.status_known = true;
        result.exit_code = result.status;
        zv_client_say(report, "shell pid %d ended with status %d", pid, result.status);
        return result;
    }
    result.why = "the shell's exit status is unknown: " + options.sa_log + " does not say how it ended";
    return result;
}

bool zv_listener_kill(const std::string &listener, const zv_client_report &report, std::string *why) {
    zv_channel_lock lock(listener);
    if (!lock.acquire(zv_client_now_ms() + 600000, report)) {
        *why = "another client held " + listener + " too long";
        return false;
    }
    int fd = zv_client_open_link(listener, -1, report, why);
    if (fd < 0) return false;
    zv_client_say(report, "-> %s: host:kill", listener.c_str());
    bool sent = zv_client_write_all(fd, "host:kill", 9);
    close(fd);
    if (!sent) *why = "cannot write to " + listener;
    return sent;
}
