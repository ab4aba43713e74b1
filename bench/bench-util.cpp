// Helpers shared by the benchmarks; see bench-util.h.
#include "bench-util.h"

#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>

// The console table as usual, and a copy of every non-aggregate run.
namespace {
class CaptureReporter : public benchmark::ConsoleReporter {
   public:
    // Plain tabular output, no colours: it usually goes to a file.
    explicit CaptureReporter(std::vector<bench_run_st> *out) : ConsoleReporter(OO_Tabular), out_(out) {}
    void ReportRuns(const std::vector<Run> &reports) override {
        for (const Run &r : reports) {
            if (r.run_type != Run::RT_Iteration || r.error_occurred) continue;
            bench_run_st run;
            run.m_name = r.run_name.function_name + (r.run_name.args.empty() ? "" : "/" + r.run_name.args);
            run.m_iterations = r.iterations;
            run.m_real_ns =
                r.iterations > 0 ? r.real_accumulated_time * 1e9 / static_cast<double>(r.iterations) : 0.0;
            run.m_counters = r.counters;
            out_->push_back(run);
        }
        ConsoleReporter::ReportRuns(reports);
    }

   private:
    std::vector<bench_run_st> *out_;
};
}  // namespace

std::vector<bench_run_st> bench_run_registered(int argc, char **argv,
                                               const std::vector<std::string> &defaults) {
    std::vector<std::string> args{argc > 0 ? argv[0] : "bench"};
    args.insert(args.end(), defaults.begin(), defaults.end());
    for (int i = 1; i < argc; ++i) args.push_back(argv[i]);
    std::vector<char *> cargs;
    for (std::string &a : args) cargs.push_back(&a[0]);
    cargs.push_back(nullptr);
    int n = static_cast<int>(args.size());
    benchmark::Initialize(&n, cargs.data());
    std::vector<bench_run_st> runs;
    CaptureReporter reporter(&runs);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return runs;
}

std::vector<double> bench_times_of(const std::vector<bench_run_st> &runs, const std::string &name) {
    std::vector<double> out;
    for (const bench_run_st &r : runs)
        if (r.m_name == name) out.push_back(r.m_real_ns);
    return out;
}

std::vector<double> bench_counters_of(const std::vector<bench_run_st> &runs, const std::string &name,
                                      const std::string &counter) {
    std::vector<double> out;
    for (const bench_run_st &r : runs) {
        if (r.m_name != name) continue;
        auto it = r.m_counters.find(counter);
        if (it != r.m_counters.end()) out.push_back(it->second.value);
    }
    return out;
}

int64_t bench_now_ns(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

double bench_percentile(std::vector<double> samples, double p) {
    if (samples.empty()) return 0.0;
    std::sort(samples.begin(), samples.end());
    size_t rank = static_cast<size_t>(std::ceil(p / 100.0 * static_cast<double>(samples.size())));
    if (rank < 1) rank = 1;
    if (rank > samples.size()) rank = samples.size();
    return samples[rank - 1];
}

double bench_median(std::vector<double> samples) {
    return bench_percentile(std::move(samples), 50.0);
}

bool bench_poll_until(const std::function<bool()> &pred, std::chrono::milliseconds timeout) {
    const int64_t deadline = bench_now_ns() + static_cast<int64_t>(timeout.count()) * 1000000LL;
    while (!pred()) {
        if (bench_now_ns() >= deadline) return pred();
        struct timespec ts = {0, 200000};
        nanosleep(&ts, nullptr);
    }
    return true;
}

long bench_proc_kb(pid_t pid, const char *file, const char *field) {
    char path[64];
    snprintf(path, sizeof(path), "/proc/%d/%s", static_cast<int>(pid), file);
    FILE *fp = fopen(path, "re");
    if (fp == nullptr) return -1;
    char line[256];
    long kb = -1;
    const size_t len = strlen(field);
    while (fgets(line, sizeof(line), fp) != nullptr) {
        if (strncmp(line, field, len) == 0) {
            kb = strtol(line + len, nullptr, 10);
            break;
        }
    }
    fclose(fp);
    return kb;
}

long bench_vmrss_kb(pid_t pid) {
    return bench_proc_kb(pid, "status", "VmRSS:");
}

long long bench_file_size(const char *path) {
    struct stat st;
    return stat(path, &st) == 0 ? static_cast<long long>(st.st_size) : -1;
}

bool bench_write_file(const char *path, const std::string &text) {
    int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n <= 0) break;
        done += static_cast<size_t>(n);
    }
    close(fd);
    return done == text.size();
}

std::string bench_fmt(const char *fmt, ...) {
    char buf[512];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(buf, sizeof(buf), fmt, ap);
    va_end(ap);
    return buf;
}

void bench_result(const char *name, const std::string &project, const std::string &baseline, double ratio,
                  const char *goal, bool met) {
    printf("\n%s: project %s, baseline %s, ratio %.2f (goal %s): %s\n", name, project.c_str(),
           baseline.c_str(), ratio, goal, met ? "met" : "MISSED");
    printf("RESULT\t%s\t%s\t%s\t%.2f\t%s\t%s\n", name, project.c_str(), baseline.c_str(), ratio, goal,
           met ? "met" : "MISSED");
    fflush(stdout);
}

void bench_result_absolute(const char *name, const std::string &value, const std::string &reference,
                           const char *goal, bool met) {
    printf("\n%s: %s (reference %s; goal %s): %s\n", name, value.c_str(), reference.c_str(), goal,
           met ? "met" : "MISSED");
    printf("RESULT\t%s\t%s\t%s\t-\t%s\t%s\n", name, value.c_str(), reference.c_str(), goal,
           met ? "met" : "MISSED");
    fflush(stdout);
}

void bench_result_info(const char *name, const std::string &value, const std::string &reference) {
    printf("\n%s: %s (reference %s; for comparison only)\n", name, value.c_str(), reference.c_str());
    printf("RESULT\t%s\t%s\t%s\t-\t-\tinfo\n", name, value.c_str(), reference.c_str());
    fflush(stdout);
}

void bench_fail(const char *name, const char *fmt, ...) {
    char buf[512];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(buf, sizeof(buf), fmt, ap);
    va_end(ap);
    fprintf(stderr, "%s: %s\n", name, buf);
    printf("RESULT\t%s\t-\t-\t-\t-\tFAILED (%s)\n", name, buf);
    fflush(stdout);
}
