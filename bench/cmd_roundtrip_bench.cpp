// Command round trip through the daemon's command pty against two baselines on ptys of their own: a
// bare pty echo, and a floor server that does exactly the work the daemon must do for the request, in the
// daemon's order, and nothing else. The daemon runs as in a handset (its own session, cwd "/", the command
// link from /system/etc/zv-qel-sa.cfg, log capture switched off by the log configuration property so that
// no capture child competes for the CPU). All three sides are driven by the same client code: open the
// slave raw, write the request, read until the expected bytes are in. Every round trip is timed; p50 and
// p99 are reported, and the percentiles of every side as DIST lines for the picture bench/run.sh draws.
//
// The floor follows the daemon step by step. Its script per kind of request (kAtScript, kQueryScript)
// lists, in the command thread's order, every record of the structured log (R), every line of sa.log (S),
// the /proc scan (P) and the answer (|). Before anything is timed, a few requests of each kind are sent
// to the daemon and its files are read: the records and lines of one request must number what the
// script says, and the record of the answer must stand where the script puts it; otherwise the benchmark
// fails, as the floor no longer matches the daemon. The texts of that request's records and lines are
// kept, and the floor writes them again as the daemon does:
//   - a record: under a mutex, the time of day (clock_gettime, localtime_r once a second) put into the
//     record, then one write(2) to a descriptor kept open (the daemon's stream is unbuffered), rewinding
//     at the daemon's 100 KiB limit;
//   - a line of sa.log: fopen("a"), time + localtime_r + clock_gettime, fprintf of the stamp and the
//     text, fputc of the newline, fflush, fclose (a buffered stream opened per line);
//   - the scan: every process's cmdline, cut at its first blank, until the first match.
// The floor and the echo run in processes and sessions of their own, as the daemon does. Requests are sent
// back to back, so the work that the daemon (and the floor) does after writing its answer delays the next
// request exactly as far as it is not done by the time that request arrives; both sides meet it the same way.
//
// Growth: the +QUERY_SERVICE round trip is measured again with sa.log padded to 1 MB and to 100 MB.
//
// Run inside a handset: sim/zv-handset run --build BUILD -- BUILD/bench/zv-bench-cmd-roundtrip
#include <ctype.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdarg.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <string>
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

// Requests per kind sent to read the daemon's writes.
static constexpr int kCountRequests = 10;
// The daemon's limit of its structured log after start-up; the floor rewinds its records at it too.
static constexpr long kRecordLimit = 102400;
static constexpr char kFloorSaLog[] = "/data/local/log/floor-sa.log";
static constexpr char kFloorRecords[] = "/data/local/log/floor-records.log";
static constexpr char kServiceName[] = "zv-qel-sa";
// The command thread's work per request, in its order (sa/sa-handle.cpp, sa/sa-service.cpp,
// sa/sa-util.cpp): R a record, S a line of sa.log, P the /proc scan, | the answer.
//   AT: the read (R, S), the request (S), the answer's record (R) | "AT ret_val" (S), the request's
//   result (R, S).
static constexpr char kAtScript[] = "RSSR|SRS";
//   +QUERY_SERVICE: the read (R, S), the request (S), the handler's entry (R), its request (R, S), the
//   lookup's entry (R), the scan's entry and name (R, R), the scan (P) and its match (R), the lookup's
//   two results (R, R), "is_run" (R, S), the answer's record (R) | the verdict (R, S), "SA ret_val" (S),
//   the request's result (R, S).
static constexpr char kQueryScript[] = "RSSRRSRRRPRRRRSR|RSSRS";
// Length of the stamp "[MM-DD hh:mm:ss.mmm]" in front of every sa.log line.
static constexpr size_t kSaStampLen = 20;
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

// What the daemon writes for one request of a kind, read from its own files.
struct floor_work_st {
    const char *m_script;
    std::vector<std::string> m_records;   // whole records, newline included, in order
    std::vector<std::string> m_sa_texts;  // sa.log lines without their stamp and newline, in order
};
static floor_work_st g_work[2] = {{kAtScript, {}, {}}, {kQueryScript, {}, {}}};  // [0] AT, [1] query

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

static int g_floor_records_fd = -1;
static long g_floor_records_written;
static pthread_mutex_t g_floor_mutex = PTHREAD_MUTEX_INITIALIZER;
// The time of day of the last second seen, "hh:mm:ss:", as the log client keeps it.
static time_t g_floor_clock_sec = -1;
static char g_floor_hms[10];

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

// One record: its time of day renewed, one write to the descriptor kept open.
static bool floor_record(std::string *record) {
    pthread_mutex_lock(&g_floor_mutex);
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    if (ts.tv_sec != g_floor_clock_sec) {
        struct tm tm;
        localtime_r(&ts.tv_sec, &tm);
        snprintf(g_floor_hms, sizeof(g_floor_hms), "%02d:%02d:%02d:", tm.tm_hour, tm.tm_min, tm.tm_sec);
        g_floor_clock_sec = ts.tv_sec;
    }
    if (record->size() >= 12) {
        memcpy(&(*record)[0], g_floor_hms, 9);
        const long ms = ts.tv_nsec / 1000000;
        (*record)[9] = static_cast<char>('0' + ms / 100);
        (*record)[10] = static_cast<char>('0' + ms / 10 % 10);
        (*record)[11] = static_cast<char>('0' + ms % 10);
    }
    if (g_floor_records_written > kRecordLimit) {
        lseek(g_floor_records_fd, 0, SEEK_SET);
        g_floor_records_written = 0;
    }
    ssize_t n = write(g_floor_records_fd, record->data(), record->size());
    if (n > 0) g_floor_records_written += n;
    pthread_mutex_unlock(&g_floor_mutex);
    return n == static_cast<ssize_t>(record->size());
}

// One line of sa.log: opened, stamped, written, flushed and closed.
static void floor_sa_line(const std::string &text) {
    FILE *fp = fopen(kFloorSaLog, "ae");
    if (fp == nullptr) return;
    time_t now = time(nullptr);
    struct tm tm_now;
    localtime_r(&now, &tm_now);
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    fprintf(fp, "[%02d-%02d %02d:%02d:%02d.%03ld]%s", tm_now.tm_mon + 1, tm_now.tm_mday, tm_now.tm_hour,
            tm_now.tm_min, tm_now.tm_sec, ts.tv_nsec / 1000000, text.c_str());
    fputc('\n', fp);
    fflush(fp);
    fclose(fp);
}

// The daemon's work for one request of kind (0 AT, 1 +QUERY_SERVICE), its answer in its place.
static bool floor_serve(int master, int kind) {
    floor_work_st &w = g_work[kind];
    size_t record = 0;
    size_t line = 0;
    int found = 0;
    for (const char *step = w.m_script; *step != '\0'; ++step) {
        switch (*step) {
            case 'R':
                if (!floor_record(&w.m_records[record++])) return false;
                break;
            case 'S':
                floor_sa_line(w.m_sa_texts[line++]);
                break;
            case 'P':
                found = floor_scan_proc(kServiceName);
                break;
            case '|':
                if (!zvtest::write_all(master, kind == 1 ? bench_fmt("\r\nQUERY_SERVICE: %d\r\n\r\nOK\r\n",
                                                                     found > 0 ? 1 : 0)
                                                         : std::string(kAtAnswer)))
                    return false;
                break;
        }
    }
    return true;
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

// The lines of a file (each with its newline; a last line without one is left out).
static std::vector<std::string> file_lines(const char *path) {
    const std::string text = zvtest::read_file(path);
    std::vector<std::string> lines;
    size_t start = 0;
    for (size_t nl; (nl = text.find('\n', start)) != std::string::npos; start = nl + 1)
        lines.push_back(text.substr(start, nl + 1 - start));
    return lines;
}

// Whether the last line of the file at path holds needle.
static bool last_line_has(const char *path, const char *needle) {
    const std::vector<std::string> lines = file_lines(path);
    return !lines.empty() && lines.back().find(needle) != std::string::npos;
}

// Waits until neither of the daemon's files has grown for 30 ms and, with request_done, until both
// end with the command thread's last trace of a request (at most 5 s).
static void wait_files_quiet(bool request_done) {
    long long last = -1;
    int still = 0;
    bench_poll_until(
        [&] {
            long long now = bench_file_size(zvtest::kSaLog) + bench_file_size(zvtest::kLogClientFile);
            still = now == last ? still + 1 : 0;
            last = now;
            return still >= 15 &&
                   (!request_done || (last_line_has(zvtest::kSaLog, "sa_handle_read_cmd_loop req[") &&
                                      last_line_has(zvtest::kLogClientFile, "handle_sa_cmd_req(")));
        },
        std::chrono::seconds(5));
}

static long count_steps(const char *script, char step) {
    long n = 0;
    for (const char *p = script; *p != '\0'; ++p) n += *p == step;
    return n;
}

// A count that went wrong: a failure of the benchmark on the last attempt, else a note.
static void count_failed(bool last_attempt, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
static void count_failed(bool last_attempt, const char *fmt, ...) {
    char buf[512];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(buf, sizeof(buf), fmt, ap);
    va_end(ap);
    if (last_attempt) {
        bench_fail(kName, "%s", buf);
    } else {
        printf("counting again: %s\n", buf);
    }
}

// Sends kCountRequests requests of kind to the daemon, checks the growth of its files against the
// floor's script and keeps the texts of the last request's records and lines; false when a request
// failed, the structured log reached its limit (it would rewind and the count would be short), or the
// daemon's writes do not match the script.
static bool count_daemon_work(int kind, bool last_attempt) {
    const char *req = kind == 1 ? kQueryRequest : kAtRequest;
    const char *expect = kind == 1 ? kQueryAnswer : kAtAnswer;
    floor_work_st &w = g_work[kind];
    wait_files_quiet(false);
    const std::vector<std::string> sa0 = file_lines(zvtest::kSaLog);
    const std::vector<std::string> rec0 = file_lines(zvtest::kLogClientFile);
    for (int i = 0; i < kCountRequests; ++i) {
        if (round_trip(g_daemon_fd, req, expect) < 0) return false;
    }
    wait_files_quiet(true);
    const std::vector<std::string> sa1 = file_lines(zvtest::kSaLog);
    const std::vector<std::string> rec1 = file_lines(zvtest::kLogClientFile);
    if (bench_file_size(zvtest::kLogClientFile) > kRecordLimit) {
        count_failed(last_attempt, "the structured log reached its limit while counting (%lld bytes)",
                     bench_file_size(zvtest::kLogClientFile));
        return false;
    }
    const long sa_lines = static_cast<long>(sa1.size()) - static_cast<long>(sa0.size());
    const long records = static_cast<long>(rec1.size()) - static_cast<long>(rec0.size());
    const long want_lines = count_steps(w.m_script, 'S');
    const long want_records = count_steps(w.m_script, 'R');
    if (sa_lines != want_lines * kCountRequests || records != want_records * kCountRequests) {
        count_failed(last_attempt,
                     "%s: the daemon wrote %ld sa.log lines and %ld records for %d requests, the floor's "
                     "script %ld and %ld per request; the floor no longer matches the daemon",
                     kind == 1 ? "+QUERY_SERVICE" : "AT", sa_lines, records, kCountRequests, want_lines,
                     want_records);
        return false;
    }
    w.m_records.assign(rec1.end() - want_records, rec1.end());
    w.m_sa_texts.clear();
    size_t sa_bytes = 0;
    for (auto it = sa1.end() - want_lines; it != sa1.end(); ++it) {
        sa_bytes += it->size();
        w.m_sa_texts.push_back(
            it->size() > kSaStampLen ? it->substr(kSaStampLen, it->size() - kSaStampLen - 1) : std::string());
    }
    // The answer's record (level "at cmd") is the last record before the answer in the script.
    const long answer_at = count_steps(std::string(w.m_script, strcspn(w.m_script, "|")).c_str(), 'R') - 1;
    long found_at = -1;
    size_t record_bytes = 0;
    for (size_t i = 0; i < w.m_records.size(); ++i) {
        record_bytes += w.m_records[i].size();
        if (found_at < 0 && w.m_records[i].find("| at cmd       |") != std::string::npos)
            found_at = static_cast<long>(i);
    }
    if (found_at != answer_at) {
        count_failed(last_attempt,
                     "%s: the answer's record is record %ld of the request, the floor's script has it at %ld",
                     kind == 1 ? "+QUERY_SERVICE" : "AT", found_at, answer_at);
        return false;
    }
    printf(
        "%s: the daemon writes %ld sa.log lines (%zu bytes) and %ld records (%zu bytes) per request%s; "
        "in order: %s\n",
        kind == 1 ? "+QUERY_SERVICE" : "AT", want_lines, sa_bytes, want_records, record_bytes,
        kind == 1 ? ", and scans /proc once" : "", w.m_script);
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

// Runs loop(master) in a child process in a session of its own with cwd "/", as the daemon runs: the
// scheduler gives every session its own share of the CPU (autogroups), so a server sharing the client's
// session would be handicapped. The child's pid, or -1.
static pid_t start_server(void (*loop)(int), int master) {
    pid_t pid = fork();
    if (pid == 0) {
        setsid();
        if (chdir("/") != 0) _exit(1);
        loop(master);
        _exit(0);
    }
    return pid;
}

static void report(const char *label, int echo_case, int daemon_case, int floor_case, bool echo_goal) {
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
    const std::string echo_text = bench_fmt("echo p50 %.1f us, p99 %.1f us", echo50, echo99);
    if (echo_goal) {
        bench_result(name.c_str(), daemon_text, echo_text, echo_ratio, "<= 3.00 (p50)",
                     echo_ratio > 0 && echo_ratio <= 3.0);
    } else {
        // For comparison only: the mandated work of the request alone is several echoes long, and the
        // daemon does not control it; the floor rows measure what it does control.
        bench_result_info(name.c_str(), daemon_text + bench_fmt(" = %.2fx the echo's p50", echo_ratio),
                          echo_text);
    }
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
    // The floor's work, read from the daemon's files before anything else is sent to it.
    // Start-up goes on after the links are published (main's last steps, the listener's first); a
    // request is read only once it is over and the files are quiet. A count that still caught some of
    // it is taken again: only a mismatch that repeats means that the daemon's work changed.
    bench_poll_until(
        [] { return zvtest::find_message(zvtest::sa_log_messages(), "main sa_handle_init ret_val[0]") >= 0; },
        std::chrono::seconds(20));
    bool ok = true;
    for (int kind = 0; kind < 2 && ok; ++kind) {
        int attempt = 0;
        while (!count_daemon_work(kind, attempt == 2) && ++attempt < 3) continue;
        ok = attempt < 3;
    }
    std::string floor_slave;
    int floor_master = ok ? open_echo_pty(&floor_slave) : -1;
    g_floor_records_fd = open(kFloorRecords, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    unlink(kFloorSaLog);
    if (ok && (floor_master < 0 || g_floor_records_fd < 0)) {
        bench_fail(kName, "cannot open a pty or the records file for the floor");
        ok = false;
    }
    // The floor and the echo in processes of their own, forked while this one has no other thread.
    const pid_t floor = ok ? start_server(floor_loop, floor_master) : -1;
    g_floor_fd = floor > 0 ? zvtest::open_client(floor_slave) : -1;
    if (ok && g_floor_fd < 0) {
        bench_fail(kName, "cannot start the floor");
        ok = false;
    }
    std::string slave;
    int master = open_echo_pty(&slave);
    const pid_t echo = master < 0 ? -1 : start_server(echo_loop, master);
    g_echo_fd = echo > 0 ? zvtest::open_client(slave) : -1;
    if (g_echo_fd < 0) {
        bench_fail(kName, "cannot start the echo");
        if (floor > 0) zvtest::kill_and_reap(floor);
        if (echo > 0) zvtest::kill_and_reap(echo);
        zvtest::kill_and_reap(daemon.pid);
        return 1;
    }

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
            report("AT", kEchoAt, kDaemonAt, kFloorAt, true);
            report("+QUERY_SERVICE", kEchoQuery, kDaemonQuery, kFloorQuery, false);
            print_distributions();
            fflush(stdout);
            ok = measure_growth();
        } else {
            bench_fail(kName, "the benchmark did not run");
            ok = false;
        }
    }

    // With its slave closed, a read on the master fails (EIO) and the echo and the floor end.
    close(g_echo_fd);
    if (zvtest::wait_exit(echo, std::chrono::seconds(5)) == -1) zvtest::kill_and_reap(echo);
    close(master);
    if (g_floor_fd >= 0) close(g_floor_fd);
    if (floor > 0 && zvtest::wait_exit(floor, std::chrono::seconds(5)) == -1) zvtest::kill_and_reap(floor);
    if (floor_master >= 0) close(floor_master);
    if (g_floor_records_fd >= 0) close(g_floor_records_fd);
    close(g_daemon_fd);
    zvtest::kill_and_reap(daemon.pid);
    return ok ? 0 : 1;
}
