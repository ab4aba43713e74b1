// Process lookup over /proc (sa_util_get_pid) against `pgrep -f NAME`, the tool a shell line would use,
// on a handset crowded with 100, then 1000, then 5000 extra sleeping processes (how the cost grows). The
// process looked for is started last at every size, so it is the last entry of /proc and both sides read
// every process before they find it. The pgrep side is the whole command as the daemon would pay for it
// (spawn, scan, exit), without a shell.
//
// Run inside a handset: sim/zv-handset run --build BUILD -- BUILD/bench/zv-bench-proc-lookup
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "bench-util.h"
#include "log/log_client.h"
#include "sa-util.h"

extern char **environ;

static constexpr char kName[] = "/proc lookup vs pgrep -f";
static constexpr int kSizes[] = {100, 1000, 5000};
static constexpr char kTargetName[] = "zv-bench-target";
static constexpr char kSleepApplet[] = "/system/bin/sleep";
// A sleep that does not care about its argv[0], so the target can carry its own name.
static constexpr char kPlainSleep[] = "/usr/bin/sleep";

static pid_t g_target_pid;
static std::vector<pid_t> g_sleepers;

// Starts path with argv; the child's pid or -1.
static pid_t start_sleeper(const char *path, const char *argv0) {
    pid_t pid = fork();
    if (pid == 0) {
        int null_fd = open("/dev/null", O_RDWR | O_CLOEXEC);
        if (null_fd >= 0) {
            dup2(null_fd, 0);
            dup2(null_fd, 1);
            dup2(null_fd, 2);
        }
        execl(path, argv0, "3600", static_cast<char *>(nullptr));
        _exit(127);
    }
    return pid;
}

// Whether pid's command line begins with prefix (that is, it has exec'd).
static bool cmdline_starts_with(pid_t pid, const char *prefix) {
    char path[64];
    snprintf(path, sizeof(path), "/proc/%d/cmdline", static_cast<int>(pid));
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    char buf[64] = "";
    ssize_t n = read(fd, buf, sizeof(buf) - 1);
    close(fd);
    if (n <= 0) return false;
    buf[n] = '\0';
    return strncmp(buf, prefix, strlen(prefix)) == 0;
}

// Runs `pgrep -f name` with its output on out_fd; its wait status, or -1.
static int run_pgrep(const char *name, int out_fd) {
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_adddup2(&fa, out_fd, 1);
    char arg0[] = "pgrep";
    char arg1[] = "-f";
    std::string arg2 = name;
    char *argv[] = {arg0, arg1, &arg2[0], nullptr};
    pid_t pid;
    int rc = posix_spawnp(&pid, "pgrep", &fa, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&fa);
    if (rc != 0) return -1;
    int status = -1;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

static void BM_SaUtilGetPid(benchmark::State &state) {
    for (auto _ : state) {
        int pid = 0;
        long rc = sa_util_get_pid(kTargetName, &pid);
        if (rc != 0 || pid != g_target_pid) {
            state.SkipWithError("sa_util_get_pid did not find the target");
            break;
        }
    }
}

static void BM_PgrepF(benchmark::State &state) {
    int null_fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
    for (auto _ : state) {
        int status = run_pgrep(kTargetName, null_fd);
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            state.SkipWithError("pgrep -f did not find the target");
            break;
        }
    }
    close(null_fd);
}

BENCHMARK(BM_SaUtilGetPid)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PgrepF)->UseRealTime()->Unit(benchmark::kMicrosecond);

static void stop_sleepers() {
    for (pid_t pid : g_sleepers) kill(pid, SIGKILL);
    for (pid_t pid : g_sleepers) {
        int status;
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
    }
    g_sleepers.clear();
}

// What pgrep prints for the target: its pid and a newline, when all is well.
static std::string pgrep_output() {
    char path[] = "/tmp/zv-bench-pgrep.XXXXXX";
    int fd = mkostemp(path, O_CLOEXEC);
    if (fd < 0) return "";
    run_pgrep(kTargetName, fd);
    lseek(fd, 0, SEEK_SET);
    char buf[128] = "";
    ssize_t n = read(fd, buf, sizeof(buf) - 1);
    close(fd);
    unlink(path);
    return n > 0 ? std::string(buf, static_cast<size_t>(n)) : "";
}

// Grows the handset to `size` extra sleepers, starts the target anew as the last process, checks what
// pgrep prints, runs both benchmarks and reports them; false when something did not work.
static bool measure_at(int size, int argc, char **argv) {
    const std::string name = bench_fmt("%s, %d processes", kName, size);
    if (g_target_pid > 0) {
        kill(g_target_pid, SIGKILL);
        int status;
        while (waitpid(g_target_pid, &status, 0) < 0 && errno == EINTR) {
        }
        g_sleepers.pop_back();
        g_target_pid = 0;
    }
    while (static_cast<int>(g_sleepers.size()) < size) {
        pid_t pid = start_sleeper(kSleepApplet, "sleep");
        if (pid < 0) {
            int err = errno;
            bench_fail(name.c_str(), "fork of sleeper %zu failed: %s", g_sleepers.size(), strerror(err));
            return false;
        }
        g_sleepers.push_back(pid);
    }
    g_target_pid = start_sleeper(kPlainSleep, kTargetName);
    if (g_target_pid > 0) g_sleepers.push_back(g_target_pid);
    bool ready = bench_poll_until(
        [] {
            for (size_t i = 0; i + 1 < g_sleepers.size(); ++i)
                if (!cmdline_starts_with(g_sleepers[i], "sleep")) return false;
            return g_target_pid > 0 && cmdline_starts_with(g_target_pid, kTargetName);
        },
        std::chrono::seconds(120));
    if (!ready) {
        bench_fail(name.c_str(), "the %d sleepers did not all start", size);
        return false;
    }
    int entries = 0;
    if (DIR *dir = opendir("/proc")) {
        while (const dirent *e = readdir(dir))
            if (e->d_name[0] >= '1' && e->d_name[0] <= '9') ++entries;
        closedir(dir);
    }
    std::string seen = pgrep_output();
    printf("processes in the handset: %d; target pid %d; pgrep -f prints \"%.*s\"\n", entries,
           static_cast<int>(g_target_pid), seen.empty() ? 0 : static_cast<int>(seen.size() - 1),
           seen.c_str());
    fflush(stdout);
    if (seen != std::to_string(g_target_pid) + "\n") {
        bench_fail(name.c_str(), "pgrep -f does not report the target alone");
        return false;
    }

    std::vector<bench_run_st> runs = bench_run_registered(
        argc, argv, {"--benchmark_repetitions=5", "--benchmark_enable_random_interleaving=true"});
    double lookup_us = bench_median(bench_times_of(runs, "BM_SaUtilGetPid")) / 1000.0;
    double pgrep_us = bench_median(bench_times_of(runs, "BM_PgrepF")) / 1000.0;
    if (lookup_us <= 0 || pgrep_us <= 0) {
        bench_fail(name.c_str(), "a benchmark did not run");
        return false;
    }
    printf("lookup at %d processes: %.0f us (%.2f us per process); pgrep -f: %.0f us\n", entries, lookup_us,
           lookup_us / entries, pgrep_us);
    double speedup = pgrep_us / lookup_us;
    bench_result(name.c_str(), bench_fmt("%.0f us per lookup", lookup_us),
                 bench_fmt("%.0f us per pgrep", pgrep_us), speedup, "> 1.00 (pgrep time / lookup time)",
                 speedup > 1.0);
    return true;
}

int main(int argc, char **argv) {
    // The lookup traces as it does in the daemon, into a log client with the daemon's settings.
    mkdir("/data/local", 0771);
    mkdir("/data/local/log", 0771);
    sfw_log_set_path("/data/local/log/zv-qel-sa");
    sfw_log_start(1, nullptr);
    sfw_log_set_max_size(102400);
    sfw_log_mark_position();

    int failures = 0;
    for (const int size : kSizes) {
        if (!measure_at(size, argc, argv)) {
            ++failures;
            break;
        }
    }
    stop_sleepers();
    sfw_log_stop(nullptr);
    return failures == 0 ? 0 : 1;
}
