// Start-up: the time from exec of the daemon to its first answer to "AT\r" on the command link, against
// the work the behaviour mandates on the way: every capture launch pauses 100 ms after it, and the
// shell lines that start-up runs through system() before it answers (the rotation of the daemon's own log
// folders and the console level). The daemon is started as in a handset (configuration naming the
// command link, own session, cwd "/") with the default capture (the log configuration property unset),
// and for comparison with capture switched off.
//
// The shell lines are not written down here: one start of each variant runs under strace, and the lines
// that the daemon's start-up handed to /bin/sh -c before it started its command thread are replayed,
// through system() in the same order and from the same prepared state, as the floor of that variant. A traced start that ran no
// shell line at all fails the benchmark: the trace would have missed them, not the daemon.
//
// The client polls for the command link, opens it and repeats "AT\r" until the first answer; the
// launches made by then are counted in the daemon's structured log. Each variant is started kStarts
// times, and its floor replayed kStarts times between them; the medians count.
//
// Run inside a handset: sim/zv-handset run --build BUILD -- BUILD/bench/zv-bench-startup
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "bench-util.h"
#include "harness.h"

static constexpr char kName[] = "start-up to first AT answer";
static constexpr int kStarts = 7;
// What every capture launch waits after starting its child, and the allowance on top of the waits.
static constexpr double kLaunchWaitMs = 100.0;
static constexpr double kAllowanceMs = 50.0;
// The structured log's line for every capture launch.
static constexpr char kLaunchLine[] = "sa_create_subproc_thread ret[";
// Where the traced start writes its system calls; /tmp is the handset's own.
static constexpr char kTraceFile[] = "/tmp/zv-bench-startup.trace";

struct start_st {
    double m_ms;     // exec to the first answer
    int m_launches;  // capture launches made by then
};

// Sends "AT\r" on fd and waits up to timeout_ms for "\r\nOK\r\n"; true when it came.
static bool at_answered(int fd, int timeout_ms) {
    if (!zvtest::write_all(fd, "AT\r")) return false;
    std::string got;
    const int64_t deadline = bench_now_ns() + static_cast<int64_t>(timeout_ms) * 1000000;
    while (got.find("\r\nOK\r\n") == std::string::npos) {
        const int64_t left_ms = (deadline - bench_now_ns()) / 1000000;
        if (left_ms <= 0) return false;
        pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(left_ms)) <= 0) continue;
        char buf[128];
        ssize_t n = read(fd, buf, sizeof(buf));
        if (n <= 0) return false;
        got.append(buf, static_cast<size_t>(n));
    }
    return true;
}

// Kills the daemon and every child it launched (they run in sessions of their own), and waits until
// they are gone.
static void stop_all(pid_t daemon) {
    std::vector<pid_t> children = zvtest::child_pids(daemon);
    zvtest::kill_and_reap(daemon);
    for (pid_t c : children) kill(c, SIGKILL);
    bench_poll_until(
        [&] {
            for (pid_t c : children) {
                if (kill(c, 0) == 0) return false;
            }
            return true;
        },
        std::chrono::seconds(10));
    unlink(zvtest::kCmdLink);
    unlink(zvtest::kListenerLink);
}

// The state every start (and every replay of the floor) begins from.
static void prepare(bool capture) {
    if (capture) {
        unlink("/dev/__properties__/persist.sys.install.zv.log");
    } else {
        zvtest::switch_capture_off();
    }
    zvtest::prepare_data();
    zvtest::write_file("/system/etc/zv-qel-sa.cfg", std::string("zv.tty.cmd=") + zvtest::kCmdLink + "\n");
    unlink(zvtest::kCmdLink);
}

// Polls for the command link, opens it and asks "AT\r" until the first answer (20 s at most); true when
// it came. The link's descriptor is closed before returning.
static bool wait_first_answer() {
    int fd = -1;
    bool answered = false;
    // Polls about every 200 us: open the link once it resolves, then ask until the answer comes.
    bench_poll_until(
        [&] {
            if (fd < 0) {
                if (zvtest::link_target(zvtest::kCmdLink).empty()) return false;
                fd = zvtest::open_client(zvtest::kCmdLink);
                if (fd < 0) return false;
            }
            answered = at_answered(fd, 5);
            return answered;
        },
        std::chrono::seconds(20));
    if (fd >= 0) close(fd);
    return answered;
}

// One start; false when the daemon did not answer within 20 s.
static bool start_once(bool capture, start_st *out) {
    prepare(capture);
    const int64_t t0 = bench_now_ns();
    pid_t pid = zvtest::spawn({zvtest::kDaemonPath}, zvtest::kDaemonOut);
    const bool answered = wait_first_answer();
    const int64_t t1 = bench_now_ns();
    out->m_ms = static_cast<double>(t1 - t0) / 1e6;
    out->m_launches = zvtest::count_in_file(zvtest::kLogClientFile, kLaunchLine);
    stop_all(pid);
    return answered;
}

// Seconds of the real-time clock, the clock of strace's -ttt stamps.
static double realtime_s() {
    timespec ts = {};
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

// The string of an strace line that starts at text (just after its opening quote), unescaped.
static std::string strace_string(const std::string &text) {
    std::string out;
    for (size_t i = 0; i < text.size() && text[i] != '"'; ++i) {
        if (text[i] != '\\' || i + 1 == text.size()) {
            out += text[i];
            continue;
        }
        const char c = text[++i];
        out += c == 'n' ? '\n' : c == 't' ? '\t' : c;
    }
    return out;
}

// Starts the daemon once under strace and returns, in the order run, the lines that its start-up handed
// to /bin/sh -c before the command thread that answers was started: the lines after that run beside the
// answer, not before it. The command thread is the last thread the daemon's main thread starts before the
// first answer. False when it did not answer or the trace could not be read.
static bool traced_shell_lines(bool capture, std::vector<std::string> *lines) {
    prepare(capture);
    unlink(kTraceFile);
    pid_t tracer = zvtest::spawn({"/usr/bin/strace", "-f", "-ttt", "-s", "4096", "-e",
                                  "trace=execve,clone,clone3", "-o", kTraceFile, zvtest::kDaemonPath},
                                 zvtest::kDaemonOut);
    const bool answered = wait_first_answer();
    const double answered_at = realtime_s();
    std::vector<pid_t> daemons = zvtest::child_pids(tracer);
    for (pid_t d : daemons) stop_all(d);
    // strace ends by itself once its last tracee is gone, with every line written.
    if (zvtest::wait_exit(tracer, std::chrono::seconds(10)) == -1) zvtest::kill_and_reap(tracer);
    if (!answered || daemons.size() != 1) return false;
    static const std::string kShellExec = "execve(\"/bin/sh\", [\"sh\", \"-c\", \"";
    std::vector<std::string> before_answer;
    size_t before_last_thread = 0;
    std::istringstream trace(zvtest::read_file(kTraceFile));
    std::string line;
    while (std::getline(trace, line)) {
        long pid = 0;
        double stamp = 0;
        if (sscanf(line.c_str(), "%ld %lf", &pid, &stamp) != 2) continue;
        if (stamp > answered_at) break;
        const size_t at = line.find(kShellExec);
        if (at != std::string::npos) {
            before_answer.push_back(strace_string(line.substr(at + kShellExec.size())));
        } else if (pid == daemons[0] && line.find("CLONE_THREAD") != std::string::npos) {
            before_last_thread = before_answer.size();
        }
    }
    lines->assign(before_answer.begin(), before_answer.begin() + static_cast<long>(before_last_thread));
    return !lines->empty();
}

// Replays lines through system() from the state a start begins from; the milliseconds they took.
static double floor_once(bool capture, const std::vector<std::string> &lines) {
    prepare(capture);
    const int64_t t0 = bench_now_ns();
    for (const auto &line : lines) {
        const int status = system(line.c_str());
        (void)status;  // the daemon does not look at these statuses either
    }
    return static_cast<double>(bench_now_ns() - t0) / 1e6;
}

int main() {
    int failures = 0;
    for (const bool capture : {true, false}) {
        const char *label = capture ? "default capture" : "capture off";
        std::vector<std::string> lines;
        if (!traced_shell_lines(capture, &lines)) {
            bench_fail(kName, "%s: no shell line of the daemon's start-up could be traced", label);
            ++failures;
            continue;
        }
        for (const auto &line : lines) printf("start-up, %s, shell line: %s\n", label, line.c_str());
        std::vector<start_st> starts;
        std::vector<double> floors;
        for (int i = 0; i < kStarts; ++i) {
            start_st s = {};
            if (!start_once(capture, &s)) {
                bench_fail(kName, "%s: the daemon did not answer AT", label);
                ++failures;
                break;
            }
            const double floor_ms = floor_once(capture, lines);
            printf(
                "start-up, %s, start %d: %.1f ms, %d capture launches before the answer; "
                "its %zu shell lines alone: %.1f ms\n",
                label, i + 1, s.m_ms, s.m_launches, lines.size(), floor_ms);
            starts.push_back(s);
            floors.push_back(floor_ms);
        }
        if (starts.size() != static_cast<size_t>(kStarts)) continue;
        std::sort(starts.begin(), starts.end(),
                  [](const start_st &a, const start_st &b) { return a.m_ms < b.m_ms; });
        const start_st &median = starts[starts.size() / 2];
        const double waits = kLaunchWaitMs * median.m_launches;
        const double shell = bench_median(floors);
        const double goal = waits + shell + kAllowanceMs;
        const std::string name = std::string(kName) + ", " + label;
        const std::string value = bench_fmt("%.1f ms (median of %d)", median.m_ms, kStarts);
        const std::string reference =
            bench_fmt("mandated waits %.0f ms (%d launches x 100 ms) + %zu shell lines %.1f ms", waits,
                      median.m_launches, lines.size(), shell);
        const std::string goal_text = bench_fmt("<= %.0f ms (waits + lines + 50)", goal);
        bench_result_absolute(name.c_str(), value, reference, goal_text.c_str(), median.m_ms <= goal);
    }
    return failures == 0 ? 0 : 1;
}
