// Command round trip through the daemon's command pty against a bare pty echo. The daemon runs as in a
// handset (its own session, cwd "/", the command link from /system/etc/zv-qel-sa.cfg, log capture
// switched off by the log configuration property so that no capture child competes for the CPU). The
// baseline is a thread of this program echoing every byte back on a pty master of its own. Both sides
// are driven by the same client code: open the slave raw, write the request, read until the expected
// bytes are in. Every round trip is timed; p50 and p99 are reported.
//
// Run inside a handset: sim/zv-handset run --build BUILD -- BUILD/bench/zv-bench-cmd-roundtrip
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "bench-util.h"
#include "harness.h"

static constexpr char kName[] = "command round trip";
static constexpr char kAtRequest[] = "AT\r";
static constexpr char kAtAnswer[] = "\r\nOK\r\n";
static constexpr char kQueryRequest[] = "SA+QUERY_SERVICE=\"zv-qel-sa\"\r";
static constexpr char kQueryAnswer[] = "\r\nQUERY_SERVICE: 1\r\n\r\nOK\r\n";
// Round trips per repetition; repetitions of the four cases are interleaved at random.
static constexpr int kRoundTrips = 500;
static constexpr int kRepetitions = 8;

enum { kEchoAt = 0, kDaemonAt = 1, kEchoQuery = 2, kDaemonQuery = 3, kCases = 4 };

static int g_daemon_fd = -1;
static int g_echo_fd = -1;
static std::vector<double> g_samples_us[kCases];

// Writes req and reads until expect_len bytes came back; they must equal expect. Microseconds, or -1.
static double round_trip(int fd, const char *req, const char *expect) {
    const size_t req_len = strlen(req);
    const size_t expect_len = strlen(expect);
    char got[128];
    size_t have = 0;
    int64_t t0 = bench_now_ns();
    if (!zvtest::write_all(fd, std::string(req, req_len))) return -1;
    while (have < expect_len) {
        pollfd p = {fd, POLLIN, 0};
        int r = poll(&p, 1, 5000);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return -1;
        ssize_t n = read(fd, got + have, sizeof(got) - have);
        if (n <= 0) return -1;
        have += static_cast<size_t>(n);
    }
    int64_t t1 = bench_now_ns();
    if (have != expect_len || memcmp(got, expect, expect_len) != 0) return -1;
    return static_cast<double>(t1 - t0) / 1000.0;
}

static void BM_RoundTrip(benchmark::State &state) {
    const int which = static_cast<int>(state.range(0));
    const bool daemon = which == kDaemonAt || which == kDaemonQuery;
    const bool query = which == kEchoQuery || which == kDaemonQuery;
    const int fd = daemon ? g_daemon_fd : g_echo_fd;
    const char *req = query ? kQueryRequest : kAtRequest;
    // The echo sends the request back; the daemon answers it.
    const char *expect = daemon ? (query ? kQueryAnswer : kAtAnswer) : req;
    for (auto _ : state) {
        double us = round_trip(fd, req, expect);
        if (us < 0) {
            state.SkipWithError("no or wrong answer");
            break;
        }
        g_samples_us[which].push_back(us);
        state.SetIterationTime(us / 1e6);
    }
}

BENCHMARK(BM_RoundTrip)
    ->ArgName("case")
    ->DenseRange(0, kCases - 1)
    ->UseManualTime()
    ->Iterations(kRoundTrips)
    ->Repetitions(kRepetitions)
    ->Unit(benchmark::kMicrosecond);

// The echo side: everything read from the master is written back to it.
static void echo_loop(int master) {
    char buf[256];
    for (;;) {
        ssize_t n = read(master, buf, sizeof(buf));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        ssize_t off = 0;
        while (off < n) {
            ssize_t w = write(master, buf + off, static_cast<size_t>(n - off));
            if (w < 0 && errno == EINTR) continue;
            if (w <= 0) return;
            off += w;
        }
    }
}

// Opens a pty pair; the master, with the slave's path in slave.
static int open_echo_pty(std::string *slave) {
    int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (master < 0) return -1;
    char name[128];
    if (grantpt(master) != 0 || unlockpt(master) != 0 || ptsname_r(master, name, sizeof(name)) != 0) {
        close(master);
        return -1;
    }
    *slave = name;
    return master;
}

static void report(const char *label, int echo_case, int daemon_case) {
    double echo50 = bench_percentile(g_samples_us[echo_case], 50);
    double echo99 = bench_percentile(g_samples_us[echo_case], 99);
    double d50 = bench_percentile(g_samples_us[daemon_case], 50);
    double d99 = bench_percentile(g_samples_us[daemon_case], 99);
    printf(
        "%s: daemon p50 %.1f us p99 %.1f us (%zu samples); bare echo p50 %.1f us p99 %.1f us (%zu samples); "
        "p99 ratio %.2f\n",
        label, d50, d99, g_samples_us[daemon_case].size(), echo50, echo99, g_samples_us[echo_case].size(),
        echo99 > 0 ? d99 / echo99 : 0.0);
    double ratio = echo50 > 0 ? d50 / echo50 : 0.0;
    std::string name = std::string(kName) + " " + label;
    bench_result(name.c_str(), bench_fmt("p50 %.1f us, p99 %.1f us", d50, d99),
                 bench_fmt("echo p50 %.1f us, p99 %.1f us", echo50, echo99), ratio, "<= 3.00 (p50)",
                 ratio > 0 && ratio <= 3.0);
}

int main(int argc, char **argv) {
    zvtest::switch_capture_off();
    zvtest::Daemon daemon = zvtest::start_daemon_with_links();
    g_daemon_fd = zvtest::open_client(zvtest::kCmdLink);
    if (daemon.pid <= 0 || g_daemon_fd < 0) {
        bench_fail(kName, "the daemon did not publish %s", zvtest::kCmdLink);
        zvtest::kill_and_reap(daemon.pid);
        return 1;
    }
    std::string slave;
    int master = open_echo_pty(&slave);
    g_echo_fd = master < 0 ? -1 : zvtest::open_client(slave);
    if (g_echo_fd < 0) {
        bench_fail(kName, "cannot open a pty for the echo");
        zvtest::kill_and_reap(daemon.pid);
        return 1;
    }
    std::thread echo(echo_loop, master);

    // Both answers checked once, and both paths warmed up.
    bool ok = true;
    for (int i = 0; i < 50 && ok; ++i) {
        ok = round_trip(g_daemon_fd, kAtRequest, kAtAnswer) >= 0 &&
             round_trip(g_daemon_fd, kQueryRequest, kQueryAnswer) >= 0 &&
             round_trip(g_echo_fd, kAtRequest, kAtRequest) >= 0 &&
             round_trip(g_echo_fd, kQueryRequest, kQueryRequest) >= 0;
    }
    if (!ok) {
        bench_fail(kName, "a warm-up request got no or a wrong answer");
    } else {
        printf("daemon pid %d, VmRSS %ld KiB after the warm-up\n", static_cast<int>(daemon.pid),
               bench_vmrss_kb(daemon.pid));
        fflush(stdout);
        bench_run_registered(argc, argv, {"--benchmark_enable_random_interleaving=true"});
        if (!g_samples_us[kDaemonAt].empty() && !g_samples_us[kDaemonQuery].empty()) {
            report("AT", kEchoAt, kDaemonAt);
            report("+QUERY_SERVICE", kEchoQuery, kDaemonQuery);
        } else {
            bench_fail(kName, "the benchmark did not run");
            ok = false;
        }
    }

    // With its slave closed, a read on the master fails (EIO) and the echo thread ends.
    close(g_echo_fd);
    echo.join();
    close(master);
    close(g_daemon_fd);
    zvtest::kill_and_reap(daemon.pid);
    return ok ? 0 : 1;
}
