// Start-up: the time from exec of the daemon to its first answer to "AT\r" on the command link, against
// the waits the behaviour mandates on the way (every capture launch pauses 100 ms after it). The daemon
// is started as in a handset (configuration naming the command link, own session, cwd "/") with the
// default capture (the log configuration property unset), and for comparison with capture switched off.
// The client polls for the command link, opens it and repeats "AT\r" until the first answer; the launches
// made by then are counted in the daemon's structured log. Each variant is started kStarts times; the
// median counts.
//
// Run inside a handset: sim/zv-handset run --build BUILD -- BUILD/bench/zv-bench-startup
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
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

// One start; false when the daemon did not answer within 20 s.
static bool start_once(bool capture, start_st *out) {
    if (capture) {
        unlink("/dev/__properties__/persist.sys.install.zv.log");
    } else {
        zvtest::switch_capture_off();
    }
    zvtest::prepare_data();
    zvtest::write_file("/system/etc/zv-qel-sa.cfg", std::string("zv.tty.cmd=") + zvtest::kCmdLink + "\n");
    unlink(zvtest::kCmdLink);
    const int64_t t0 = bench_now_ns();
    pid_t pid = zvtest::spawn({zvtest::kDaemonPath}, zvtest::kDaemonOut);
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
    const int64_t t1 = bench_now_ns();
    if (fd >= 0) close(fd);
    out->m_ms = static_cast<double>(t1 - t0) / 1e6;
    out->m_launches = zvtest::count_in_file(zvtest::kLogClientFile, kLaunchLine);
    stop_all(pid);
    return answered;
}

int main() {
    int failures = 0;
    for (const bool capture : {true, false}) {
        const char *label = capture ? "default capture" : "capture off";
        std::vector<start_st> starts;
        for (int i = 0; i < kStarts; ++i) {
            start_st s = {};
            if (!start_once(capture, &s)) {
                bench_fail(kName, "%s: the daemon did not answer AT", label);
                ++failures;
                break;
            }
            printf("start-up, %s, start %d: %.1f ms, %d capture launches before the answer\n", label, i + 1,
                   s.m_ms, s.m_launches);
            starts.push_back(s);
        }
        if (starts.size() != static_cast<size_t>(kStarts)) continue;
        std::sort(starts.begin(), starts.end(),
                  [](const start_st &a, const start_st &b) { return a.m_ms < b.m_ms; });
        const start_st &median = starts[starts.size() / 2];
        const double waits = kLaunchWaitMs * median.m_launches;
        const double goal = waits + kAllowanceMs;
        const std::string name = std::string(kName) + ", " + label;
        const std::string value = bench_fmt("%.1f ms (median of %d)", median.m_ms, kStarts);
        const std::string reference =
            bench_fmt("mandated waits %.0f ms (%d launches x 100 ms)", waits, median.m_launches);
        const std::string goal_text = bench_fmt("<= %.0f ms (waits + 50)", goal);
        bench_result_absolute(name.c_str(), value, reference, goal_text.c_str(), median.m_ms <= goal);
    }
    return failures == 0 ? 0 : 1;
}
