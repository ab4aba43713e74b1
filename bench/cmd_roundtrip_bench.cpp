// Command round trip through the daemon's command pty against two baselines on ptys of their own: a
// bare pty echo, and a floor server that does exactly the work the daemon must do for the request and
// nothing else. The daemon runs as in a handset (its own session, cwd "/", the command link from
// /system/etc/zv-qel-sa.cfg, log capture switched off by the log configuration property so that no
// capture child competes for the CPU). All three sides are driven by the same client code: open the slave
// raw, write the request, read until the expected bytes are in. Every round trip is timed; p50 and p99 are
// reported, and the percentiles of every side as DIST lines for the picture bench/run.sh draws.
//
// The floor follows the daemon: before anything is timed, a few requests of each kind are sent to the
// daemon and the growth of its own files is counted (lines of sa.log and their length, records of the
// structured log and their length). Per request, the floor then appends as many sa.log lines of that
// length to a file of its own, each through fopen("a")/fprintf/fclose, writes as many records of that
// length to a file of its own through one write() each (rewinding at the daemon's 100 KiB limit), and for
// +QUERY_SERVICE scans /proc once as the daemon does (every process's cmdline until the first match).
//
// Growth: the +QUERY_SERVICE round trip is measured again with sa.log padded to 1 MB and to 100 MB.
//
// Run inside a handset: sim/zv-handset run --build BUILD -- BUILD/bench/zv-bench-cmd-roundtrip
#include <ctype.h>
#include <dirent.h>
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

// Requests per kind sent to count the daemon's writes.
static constexpr int kCountRequests = 10;
// The daemon's limit of its structured log after start-up; the floor rewinds its records at it too.
static constexpr long kRecordLimit = 102400;
static constexpr char kFloorSaLog[] = "/data/local/log/floor-sa.log";
static constexpr char kFloorRecords[] = "/data/local/log/floor-records.log";
static constexpr char kServiceName[] = "zv-qel-sa";
// Round trips per sa.log size in the growth figures.
static constexpr int kGrowthRoundTrips = 500;

enum {
    kEchoAt = 0,
    kDaemonAt = 1,
    kFloorAt = 2,
    kEchoQuery = 3,
    kDaemonQuery = 4,
    kFloorQuery = 5,
    kCases = 6
};
static const char *const kCaseLabels[kCases] = {"echo AT",
                                                "daemon AT",
                                                "floor AT",
                                                "echo +QUERY_SERVICE",
                                                "daemon +QUERY_SERVICE",
                                                "floor +QUERY_SERVICE"};

static int g_daemon_fd = -1;
static int g_echo_fd = -1;
static int g_floor_fd = -1;
static std::vector<double> g_samples_us[kCases];

// What the daemon writes for one request of a kind, counted on its own files.
struct floor_work_st {
    int m_sa_lines;
    size_t m_sa_line_len;  // with its newline
    int m_records;
    size_t m_record_len;  // with its newline
};
static floor_work_st g_work[2];  // [0] AT, [1] +QUERY_SERVICE

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
    const bool query = which >= kEchoQuery;
    const int side = which % 3;  // 0 echo, 1 daemon, 2 floor
    const int fd = side == 0 ? g_echo_fd : side == 1 ? g_daemon_fd : g_floor_fd;
    const char *req = query ? kQueryRequest : kAtRequest;
    // The echo sends the request back; the daemon and the floor answer it.
    const char *expect = side == 0 ? req : (query ? kQueryAnswer : kAtAnswer);
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

// ---- The floor server ----

static std::string g_floor_sa_line[2];
static std::string g_floor_record[2];
static int g_floor_records_fd = -1;
static long g_floor_records_written;

// One scan of /proc as the daemon makes it: every process's cmdline, cut at its first blank, searched
// for name, until the first match. The pid found, or 0.
static int floor_scan_proc(const char *name) {
    DIR *dir = opendir("/proc");
    if (dir == nullptr) return 0;
    int found = 0;
    char path[300];
    char text[512];
    while (const struct dirent *entry = readdir(dir)) {
        if (!isdigit(static_cast<unsigned char>(entry->d_name[0]))) continue;
        snprintf(path, sizeof(path), "/proc/%s/cmdline", entry->d_name);
        int fd = open(path, O_RDONLY | O_CLOEXEC);
        if (fd < 0) continue;
        ssize_t n = read(fd, text, sizeof(text) - 1);
        close(fd);
        if (n <= 0) continue;
        text[n] = '\0';
        char *blank = static_cast<char *>(memchr(text, ' ', static_cast<size_t>(n)));
        if (blank != nullptr) *blank = '\0';
        if (strstr(text, name) != nullptr) {
            found = atoi(entry->d_name);
            break;
        }
    }
    closedir(dir);
    return found;
}

// The mandated work of one request of kind (0 AT, 1 +QUERY_SERVICE), then its answer.
static bool floor_serve(int master, int kind) {
    const floor_work_st &w = g_work[kind];
    for (int i = 0; i < w.m_sa_lines; ++i) {
        FILE *fp = fopen(kFloorSaLog, "ae");
        if (fp == nullptr) return false;
        fprintf(fp, "%s\n", g_floor_sa_line[kind].c_str());
        fclose(fp);
    }
    for (int i = 0; i < w.m_records; ++i) {
        if (g_floor_records_written > kRecordLimit) {
            lseek(g_floor_records_fd, 0, SEEK_SET);
            g_floor_records_written = 0;
        }
        ssize_t n = write(g_floor_records_fd, g_floor_record[kind].data(), g_floor_record[kind].size());
        if (n != static_cast<ssize_t>(g_floor_record[kind].size())) return false;
        g_floor_records_written += n;
    }
    std::string answer;
    if (kind == 1) {
        answer = bench_fmt("\r\nQUERY_SERVICE: %d\r\n\r\nOK\r\n", floor_scan_proc(kServiceName) > 0 ? 1 : 0);
    } else {
        answer = kAtAnswer;
    }
    return zvtest::write_all(master, answer);
}

// The floor's loop: a request ends with "\r"; one that begins with "SA+QUERY_SERVICE" is a query.
static void floor_loop(int master) {
    std::string pending;
    char buf[256];
    for (;;) {
        ssize_t n = read(master, buf, sizeof(buf));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        pending.append(buf, static_cast<size_t>(n));
        size_t end;
        while ((end = pending.find('\r')) != std::string::npos) {
            const bool query = pending.compare(0, 16, "SA+QUERY_SERVICE") == 0;
            pending.erase(0, end + 1);
            if (!floor_serve(master, query ? 1 : 0)) return;
        }
    }
}

// ---- Counting the daemon's writes ----

struct file_count_st {
    long long m_bytes;
    long long m_lines;
};

static file_count_st count_file(const char *path) {
    std::string text = zvtest::read_file(path);
    file_count_st c = {static_cast<long long>(text.size()), 0};
    for (char ch : text) c.m_lines += ch == '\n';
    return c;
}

// Waits until neither of the daemon's files has grown for 30 ms (at most 5 s).
static void wait_files_quiet() {
    long long last = -1;
    int still = 0;
    bench_poll_until(
        [&] {
            long long now = bench_file_size(zvtest::kSaLog) + bench_file_size(zvtest::kLogClientFile);
            still = now == last ? still + 1 : 0;
            last = now;
            return still >= 15;
        },
        std::chrono::seconds(5));
}

// Sends kCountRequests requests of kind to the daemon and derives the floor's work from the growth of
// its files; false when a request failed or the structured log reached its limit (it would rewind and
// the count would be short).
static bool count_daemon_work(int kind) {
    const char *req = kind == 1 ? kQueryRequest : kAtRequest;
    const char *expect = kind == 1 ? kQueryAnswer : kAtAnswer;
    wait_files_quiet();
    file_count_st sa0 = count_file(zvtest::kSaLog);
    file_count_st rec0 = count_file(zvtest::kLogClientFile);
    for (int i = 0; i < kCountRequests; ++i) {
        if (round_trip(g_daemon_fd, req, expect) < 0) return false;
    }
    wait_files_quiet();
    file_count_st sa1 = count_file(zvtest::kSaLog);
    file_count_st rec1 = count_file(zvtest::kLogClientFile);
    if (rec1.m_bytes > kRecordLimit) {
        bench_fail(kName, "the structured log reached its limit while counting (%lld bytes)", rec1.m_bytes);
        return false;
    }
    floor_work_st &w = g_work[kind];
    const long long sa_lines = sa1.m_lines - sa0.m_lines;
    const long long records = rec1.m_lines - rec0.m_lines;
    if (sa_lines <= 0 || records <= 0 || sa_lines % kCountRequests != 0 || records % kCountRequests != 0) {
        bench_fail(kName, "%s: %lld sa.log lines and %lld records for %d requests", req, sa_lines, records,
                   kCountRequests);
        return false;
    }
    w.m_sa_lines = static_cast<int>(sa_lines / kCountRequests);
    w.m_sa_line_len = static_cast<size_t>((sa1.m_bytes - sa0.m_bytes) / sa_lines);
    w.m_records = static_cast<int>(records / kCountRequests);
    w.m_record_len = static_cast<size_t>((rec1.m_bytes - rec0.m_bytes) / records);
    g_floor_sa_line[kind] = std::string(w.m_sa_line_len > 1 ? w.m_sa_line_len - 1 : 0, 's');
    g_floor_record[kind] = std::string(w.m_record_len > 1 ? w.m_record_len - 1 : 0, 'r') + "\n";
    printf("%s: the daemon writes %d sa.log lines of %zu bytes and %d records of %zu bytes per request%s\n",
           kind == 1 ? "+QUERY_SERVICE" : "AT", w.m_sa_lines, w.m_sa_line_len, w.m_records, w.m_record_len,
           kind == 1 ? ", and scans /proc once" : "");
    return true;
}

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

static void report(const char *label, int echo_case, int daemon_case, int floor_case) {
    const double echo50 = bench_percentile(g_samples_us[echo_case], 50);
    const double echo99 = bench_percentile(g_samples_us[echo_case], 99);
    const double d50 = bench_percentile(g_samples_us[daemon_case], 50);
    const double d99 = bench_percentile(g_samples_us[daemon_case], 99);
    const double f50 = bench_percentile(g_samples_us[floor_case], 50);
    const double f99 = bench_percentile(g_samples_us[floor_case], 99);
    printf(
        "%s: daemon p50 %.1f us p99 %.1f us; floor p50 %.1f us p99 %.1f us; bare echo p50 %.1f us p99 "
        "%.1f us (%zu samples each)\n",
        label, d50, d99, f50, f99, echo50, echo99, g_samples_us[daemon_case].size());
    const std::string name = std::string(kName) + " " + label;
    const std::string daemon_text = bench_fmt("p50 %.1f us, p99 %.1f us", d50, d99);
    const double echo_ratio = echo50 > 0 ? d50 / echo50 : 0.0;
    bench_result(name.c_str(), daemon_text, bench_fmt("echo p50 %.1f us, p99 %.1f us", echo50, echo99),
                 echo_ratio, "<= 3.00 (p50)", echo_ratio > 0 && echo_ratio <= 3.0);
    const double floor50 = f50 > 0 ? d50 / f50 : 0.0;
    const double floor99 = f99 > 0 ? d99 / f99 : 0.0;
    bench_result((name + " vs floor, p50").c_str(), bench_fmt("p50 %.1f us", d50),
                 bench_fmt("floor p50 %.1f us", f50), floor50, "<= 1.20", floor50 > 0 && floor50 <= 1.2);
    bench_result((name + " vs floor, p99").c_str(), bench_fmt("p99 %.1f us", d99),
                 bench_fmt("floor p99 %.1f us", f99), floor99, "<= 1.20", floor99 > 0 && floor99 <= 1.2);
}

// The distribution of every side: DIST<TAB>label<TAB>percentile<TAB>microseconds.
static void print_distributions() {
    for (int c = 0; c < kCases; ++c) {
        for (double p = 0.5; p < 99.95; p += p < 99.0 ? 0.5 : 0.1) {
            printf("DIST\t%s\t%.1f\t%.2f\n", kCaseLabels[c], p, bench_percentile(g_samples_us[c], p));
        }
    }
}

// Empties sa.log and fills it with filler lines up to bytes. The daemon opens the file for every line,
// so it appends to whatever is there.
static bool pad_sa_log(long long bytes) {
    if (truncate(zvtest::kSaLog, 0) != 0) return false;
    long long have = 0;
    FILE *fp = fopen(zvtest::kSaLog, "ae");
    if (fp == nullptr) return false;
    const std::string line = "[01-01 00:00:00.000]padding " + std::string(100, 'p') + "\n";
    for (; have < bytes; have += static_cast<long long>(line.size())) fputs(line.c_str(), fp);
    return fclose(fp) == 0;
}

// +QUERY_SERVICE round trips with sa.log at 1 MB and at 100 MB: the time must not grow with the file.
static bool measure_growth() {
    const long long sizes[] = {1000LL * 1000, 100LL * 1000 * 1000};
    double p50[2] = {0, 0};
    for (int i = 0; i < 2; ++i) {
        if (!pad_sa_log(sizes[i])) {
            bench_fail(kName, "cannot pad sa.log to %lld bytes", sizes[i]);
            return false;
        }
        const long long start_size = bench_file_size(zvtest::kSaLog);
        std::vector<double> samples;
        for (int n = 0; n < kGrowthRoundTrips; ++n) {
            double us = round_trip(g_daemon_fd, kQueryRequest, kQueryAnswer);
            if (us < 0) {
                bench_fail(kName, "no or wrong answer with sa.log at %lld bytes", sizes[i]);
                return false;
            }
            samples.push_back(us);
        }
        p50[i] = bench_percentile(samples, 50);
        printf(
            "+QUERY_SERVICE with sa.log at %lld bytes (%lld after): p50 %.1f us p99 %.1f us (%d samples)\n",
            start_size, bench_file_size(zvtest::kSaLog), p50[i], bench_percentile(samples, 99),
            kGrowthRoundTrips);
    }
    const double ratio = p50[0] > 0 ? p50[1] / p50[0] : 0.0;
    bench_result("+QUERY_SERVICE, sa.log 100 MB vs 1 MB", bench_fmt("p50 %.1f us at 100 MB", p50[1]),
                 bench_fmt("p50 %.1f us at 1 MB", p50[0]), ratio, "<= 1.20 (p50)", ratio > 0 && ratio <= 1.2);
    return true;
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

    // The floor's work, counted on the daemon's files before anything else is sent to it.
    bool ok = count_daemon_work(0) && count_daemon_work(1);
    std::string floor_slave;
    int floor_master = ok ? open_echo_pty(&floor_slave) : -1;
    g_floor_fd = floor_master < 0 ? -1 : zvtest::open_client(floor_slave);
    g_floor_records_fd = open(kFloorRecords, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    unlink(kFloorSaLog);
    if (ok && (g_floor_fd < 0 || g_floor_records_fd < 0)) {
        bench_fail(kName, "cannot open a pty or the records file for the floor");
        ok = false;
    }
    std::thread floor;
    if (ok) floor = std::thread(floor_loop, floor_master);

    // Every answer checked once, and every path warmed up.
    for (int i = 0; i < 50 && ok; ++i) {
        ok = round_trip(g_daemon_fd, kAtRequest, kAtAnswer) >= 0 &&
             round_trip(g_daemon_fd, kQueryRequest, kQueryAnswer) >= 0 &&
             round_trip(g_floor_fd, kAtRequest, kAtAnswer) >= 0 &&
             round_trip(g_floor_fd, kQueryRequest, kQueryAnswer) >= 0 &&
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
        bool all = true;
        for (const std::vector<double> &samples : g_samples_us) all = all && !samples.empty();
        if (all) {
            report("AT", kEchoAt, kDaemonAt, kFloorAt);
            report("+QUERY_SERVICE", kEchoQuery, kDaemonQuery, kFloorQuery);
            print_distributions();
            fflush(stdout);
            ok = measure_growth();
        } else {
            bench_fail(kName, "the benchmark did not run");
            ok = false;
        }
    }

    // With its slave closed, a read on the master fails (EIO) and the echo and floor threads end.
    close(g_echo_fd);
    echo.join();
    close(master);
    if (g_floor_fd >= 0) close(g_floor_fd);
    if (floor.joinable()) floor.join();
    if (floor_master >= 0) close(floor_master);
    if (g_floor_records_fd >= 0) close(g_floor_records_fd);
    close(g_daemon_fd);
    zvtest::kill_and_reap(daemon.pid);
    return ok ? 0 : 1;
}
