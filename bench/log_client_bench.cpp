// Records per second of the structured log client against two baselines. The floor makes the very
// bytes of the same record with the least a record needs: clock_gettime, localtime_r, one snprintf of
// the whole line (time, thread, function, line, level and the message from its format) and one write(2)
// to a descriptor kept open; its first record is compared with the client's, byte for byte but for the
// time, before anything is timed. The reference, kept from before, is one fputs and one fflush of a
// finished line of the same length, which does none of a record's work. All three write to /data of a
// simulated handset and keep their file under the same size by rewinding (the client's ring, with the
// daemon's 100 KiB limit; the others rewind at the same size). For comparison, the rate of lines of the
// daemon's flat trace file sa.log is measured in the same run.
//
// Growth: records written into a ring that sits at its 100 KiB limit (every record past the limit
// returns to the marked position) against records written into an empty log file, just started. Each
// round times kRingRecords records of both kinds, alternating which goes first; the median of the
// per-round ratios counts.
//
// Run inside a handset: sim/zv-handset run --build BUILD -- BUILD/bench/zv-bench-log-client
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "bench-util.h"
#include "log/log_client.h"
#include "sa-trace.h"

static constexpr char kName[] = "log client records/s";
static constexpr char kLogDir[] = "/data/local/log/zv-qel-sa";
static constexpr char kBaselineFile[] = "/data/local/log/bench-baseline.log";
static constexpr char kFloorFile[] = "/data/local/log/bench-floor.log";
// The daemon's limit of its structured log after start-up.
static constexpr unsigned kMaxSize = 102400;

// One record as the daemon's trace_info makes it.
static void log_one_record(int value) {
    sfw_log_lock(nullptr);
    sfw_log_build_extended_info("handle_sa_query_service_set process_name[%s] is_running[%d]", "zv-qel-sa",
                                value);
    sfw_log_full(nullptr, "zv-qel-sa", SFW_LOG_INFO, "sa/sa-service", 123, "handle_sa_query_service_set", 0,
                 SFW_LOG_DIR_NONE, nullptr, 0, 0, nullptr, nullptr);
}

// The floor's record: the same columns and message as log_one_record, made by one snprintf into buf
// (size bytes); its length.
static int floor_format_record(char *buf, size_t size, int value) {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    struct tm tm;
    localtime_r(&ts.tv_sec, &tm);
    return snprintf(buf, size,
                    "%02d:%02d:%02d:%03ld |  %7lu | %-34s |  %5u | info         | "
                    "handle_sa_query_service_set process_name[%s] is_running[%d]\n",
                    tm.tm_hour, tm.tm_min, tm.tm_sec, ts.tv_nsec / 1000000,
                    static_cast<unsigned long>(pthread_self()), "handle_sa_query_service_set", 123u,
                    "zv-qel-sa", value);
}

static long g_record_len;
// Records per timed batch in the ring comparison: about 80 KiB, so an empty log stays under its limit.
static constexpr int kRingRecords = 500;
static constexpr int kRingRounds = 15;

// Microseconds for kRingRecords records.
static double time_records() {
    int64_t t0 = bench_now_ns();
    for (int i = 0; i < kRingRecords; ++i) log_one_record(i % 10);
    return static_cast<double>(bench_now_ns() - t0) / 1000.0;
}

// A fresh, empty log file with the daemon's settings.
static void restart_log() {
    sfw_log_stop(nullptr);
    sfw_log_start(1, nullptr);
    sfw_log_set_max_size(kMaxSize);
    sfw_log_mark_position();
}

// Records per second into a ring at its limit and into an empty log; false when the log did not start.
static bool measure_ring(double *at_limit_rate, double *empty_rate, double *ratio) {
    std::vector<double> full_us;
    std::vector<double> empty_us;
    std::vector<double> ratios;
    for (int round = 0; round < kRingRounds; ++round) {
        double empty = 0;
        double full = 0;
        for (int side = 0; side < 2; ++side) {
            if ((side == 0) == (round % 2 == 0)) {
                restart_log();
                if (log_obj.m_fp == nullptr) return false;
                empty = time_records();
            } else {
                // Fill past the limit first: from here on the ring returns to its mark again and again.
                restart_log();
                if (log_obj.m_fp == nullptr) return false;
                while (ftell(log_obj.m_fp) <= static_cast<long>(kMaxSize)) log_one_record(0);
                full = time_records();
            }
        }
        full_us.push_back(full);
        empty_us.push_back(empty);
        ratios.push_back(empty / full);
    }
    *at_limit_rate = kRingRecords / (bench_median(full_us) / 1e6);
    *empty_rate = kRingRecords / (bench_median(empty_us) / 1e6);
    *ratio = bench_median(ratios);
    return true;
}

static void BM_LogClientRecord(benchmark::State &state) {
    int value = 0;
    for (auto _ : state) {
        log_one_record(value);
        value = (value + 1) % 10;
    }
    state.SetItemsProcessed(state.iterations());
}

static void BM_FputsFflushSameLength(benchmark::State &state) {
    FILE *fp = fopen(kBaselineFile, "we");
    if (fp == nullptr) {
        state.SkipWithError("cannot open the baseline file");
        return;
    }
    std::string line(static_cast<size_t>(g_record_len - 1), 'x');
    line += '\n';
    unsigned written = 0;
    for (auto _ : state) {
        if (written > kMaxSize) {
            fseek(fp, 0, SEEK_SET);
            written = 0;
        }
        fputs(line.c_str(), fp);
        fflush(fp);
        written += static_cast<unsigned>(line.size());
    }
    fclose(fp);
    state.SetItemsProcessed(state.iterations());
}

static void BM_RecordFloor(benchmark::State &state) {
    int fd = open(kFloorFile, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        state.SkipWithError("cannot open the floor's file");
        return;
    }
    char buf[1024];
    int value = 0;
    unsigned written = 0;
    for (auto _ : state) {
        if (written > kMaxSize) {
            lseek(fd, 0, SEEK_SET);
            written = 0;
        }
        int len = floor_format_record(buf, sizeof(buf), value);
        if (write(fd, buf, static_cast<size_t>(len)) != len) {
            state.SkipWithError("a write of the floor failed");
            break;
        }
        written += static_cast<unsigned>(len);
        value = (value + 1) % 10;
    }
    close(fd);
    state.SetItemsProcessed(state.iterations());
}

// For comparison only: one line of the daemon's flat trace file sa.log, which is opened, appended and
// closed for every line. A command costs the daemon several of both kinds.
static void BM_SaTraceFileLine(benchmark::State &state) {
    int value = 0;
    for (auto _ : state) {
        sa_trace_file_line("handle_sa_query_service_set", "service[%s] sa_err[%d]", "zv-qel-sa", value);
        value = (value + 1) % 10;
    }
    state.SetItemsProcessed(state.iterations());
}

// Rates are taken from wall time: the writes of both are what the handset waits for.
BENCHMARK(BM_LogClientRecord)->UseRealTime();
BENCHMARK(BM_RecordFloor)->UseRealTime();
BENCHMARK(BM_FputsFflushSameLength)->UseRealTime();
BENCHMARK(BM_SaTraceFileLine)->UseRealTime();

int main(int argc, char **argv) {
    mkdir("/data/local", 0771);
    mkdir("/data/local/log", 0771);
    update_sa_logs();
    sfw_log_set_path(kLogDir);
    sfw_log_start(1, nullptr);
    if (log_obj.m_fp == nullptr) {
        bench_fail(kName, "the log client did not open its file under %s", kLogDir);
        return 1;
    }
    // The length of one record, measured on the file itself.
    long before = ftell(log_obj.m_fp);
    log_one_record(0);
    g_record_len = ftell(log_obj.m_fp) - before;
    if (g_record_len < 2) {
        bench_fail(kName, "no record was written");
        return 1;
    }
    printf("one record: %ld bytes\n", g_record_len);
    // The floor must make the same bytes: its record against the client's, but for the time of day.
    std::string record(static_cast<size_t>(g_record_len), '\0');
    // The stream is open for writing only: read the file through its own name.
    char link[64];
    char path[512];
    snprintf(link, sizeof(link), "/proc/self/fd/%d", fileno(log_obj.m_fp));
    const ssize_t path_len = readlink(link, path, sizeof(path) - 1);
    ssize_t got = -1;
    if (path_len > 0) {
        path[path_len] = '\0';
        const int in = open(path, O_RDONLY | O_CLOEXEC);
        if (in >= 0) {
            got = pread(in, &record[0], record.size(), before);
            close(in);
        }
    }
    if (got != g_record_len) {
        bench_fail(kName, "cannot read the record back");
        return 1;
    }
    char floor_record[1024];
    const int floor_len = floor_format_record(floor_record, sizeof(floor_record), 0);
    if (floor_len != g_record_len || record.compare(12, std::string::npos, floor_record + 12) != 0) {
        bench_fail("log client vs its floor", "the floor's record differs from the client's:\n%s%.*s",
                   record.c_str(), floor_len, floor_record);
        return 1;
    }
    sfw_log_set_max_size(kMaxSize);
    sfw_log_mark_position();

    std::vector<bench_run_st> runs = bench_run_registered(
        argc, argv, {"--benchmark_repetitions=5", "--benchmark_enable_random_interleaving=true"});
    double at_limit = 0;
    double empty = 0;
    double ring_ratio = 0;
    const bool ring_ok = measure_ring(&at_limit, &empty, &ring_ratio);
    sfw_log_stop(nullptr);

    double client = bench_median(bench_counters_of(runs, "BM_LogClientRecord", "items_per_second"));
    double raw = bench_median(bench_counters_of(runs, "BM_FputsFflushSameLength", "items_per_second"));
    if (client <= 0 || raw <= 0) {
        bench_fail(kName, "a benchmark did not run");
        return 1;
    }
    double ratio = client / raw;
    bench_result(kName, bench_fmt("%.0f rec/s", client), bench_fmt("%.0f lines/s (fputs+fflush)", raw), ratio,
                 ">= 1.00", ratio >= 1.0);
    double floor = bench_median(bench_counters_of(runs, "BM_RecordFloor", "items_per_second"));
    if (floor > 0) {
        const double floor_ratio = client / floor;
        bench_result("log client records/s vs its floor", bench_fmt("%.0f rec/s", client),
                     bench_fmt("%.0f rec/s (snprintf + write)", floor), floor_ratio, ">= 0.90",
                     floor_ratio >= 0.9);
    } else {
        bench_fail("log client records/s vs its floor", "the floor did not run");
    }
    if (ring_ok) {
        printf("ring: %d rounds of %d records; at its limit %.0f rec/s, empty %.0f rec/s\n", kRingRounds,
               kRingRecords, at_limit, empty);
        bench_result("log client ring at its 100 KiB limit vs empty", bench_fmt("%.0f rec/s", at_limit),
                     bench_fmt("%.0f rec/s (empty log)", empty), ring_ratio, ">= 0.90", ring_ratio >= 0.9);
    } else {
        bench_fail("log client ring at its 100 KiB limit vs empty", "the log did not restart");
    }
    double sa_lines = bench_median(bench_counters_of(runs, "BM_SaTraceFileLine", "items_per_second"));
    if (sa_lines > 0)
        bench_result_info("sa.log lines/s (comparison)", bench_fmt("%.0f lines/s", sa_lines),
                          bench_fmt("%.0f lines/s (fputs+fflush)", raw));
    return 0;
}
