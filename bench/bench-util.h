// Helpers shared by the benchmarks: a monotonic clock, percentiles of latency samples, polling with a
// deadline, /proc readings, and the one-line results that bench/run.sh gathers into its table.
//
// Every benchmark measures the project's code and a baseline in the same process and the same handset,
// and ends with RESULT lines of the form
//   RESULT<TAB>name<TAB>project<TAB>baseline<TAB>ratio<TAB>goal<TAB>verdict
// where the ratio is always oriented so that the goal reads as written (e.g. "<= 3.00" for a latency
// factor, ">= 0.80" for a throughput share).
#ifndef ZV_BENCH_BENCH_UTIL_H
#define ZV_BENCH_BENCH_UTIL_H

#include <stdint.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

// One repetition of one registered benchmark, as Google Benchmark reported it.
struct bench_run_st {
    std::string m_name;  // the registered name, without the /repeats:... suffixes
    double m_real_ns;    // wall time per iteration, ns
    int64_t m_iterations;
    benchmark::UserCounters m_counters;  // finished counters (rates already per second)
};

// Runs every registered benchmark: the flags in defaults first, then the command line's (which win),
// the usual console table on stdout; returns every repetition that ran, in the order run.
std::vector<bench_run_st> bench_run_registered(int argc, char **argv,
                                               const std::vector<std::string> &defaults);
// The wall time per iteration (ns) of every repetition of the benchmark called name.
std::vector<double> bench_times_of(const std::vector<bench_run_st> &runs, const std::string &name);
// The value of counter `counter` in every repetition of the benchmark called name.
std::vector<double> bench_counters_of(const std::vector<bench_run_st> &runs, const std::string &name,
                                      const std::string &counter);

// Nanoseconds of the monotonic clock.
int64_t bench_now_ns(void);
// The p-th percentile (0..100, nearest rank) of samples; 0 for no samples.
double bench_percentile(std::vector<double> samples, double p);
// The median of samples; 0 for no samples.
double bench_median(std::vector<double> samples);
// Polls pred (about every 200 us) until it holds or timeout passes; its last value.
bool bench_poll_until(const std::function<bool()> &pred, std::chrono::milliseconds timeout);
// VmRSS of pid in KiB from /proc/<pid>/status, or -1.
long bench_vmrss_kb(pid_t pid);
// A field in kB of a file of /proc/<pid> (file "status": "RssAnon:" ...; "smaps_rollup": "Private_Dirty:",
// "Anonymous:" ...), or -1.
long bench_proc_kb(pid_t pid, const char *file, const char *field);
// Size of a file in bytes, or -1.
long long bench_file_size(const char *path);
// Writes all of text to path (created or truncated, mode 0644); false on failure.
bool bench_write_file(const char *path, const std::string &text);
// Prints one result line (see above) and a readable line on stdout.
void bench_result(const char *name, const std::string &project, const std::string &baseline, double ratio,
                  const char *goal, bool met);
// Prints one result line for a figure that has a goal but no baseline.
void bench_result_absolute(const char *name, const std::string &value, const std::string &reference,
                           const char *goal, bool met);
// Prints one result line for a figure shown for comparison only (no goal, no verdict).
void bench_result_info(const char *name, const std::string &value, const std::string &reference);
// printf into a std::string.
std::string bench_fmt(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
// Prints a failure of the benchmark itself on stderr (and as a RESULT line marked FAILED).
void bench_fail(const char *name, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

#endif  // ZV_BENCH_BENCH_UTIL_H
