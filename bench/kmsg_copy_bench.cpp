// Kernel log copy: the daemon's kernel log reader (read_kernel_log_loop, started as the daemon starts
// it) against `dd bs=99` copying from the same /proc/kmsg FIFO of a simulated handset into a file on the
// same /data. Each round first sends a small untimed primer and waits until it came through, so the
// copier is known to be running and blocked in read; then the clock starts, a writer process pushes the
// same kernel-like lines into the FIFO, and the clock stops when the copy's file holds every byte. Both
// copiers copy in blocks of at most 99 bytes, so the figure is the cost of the copy loop itself. dd runs
// with iflag=fullblock,count_bytes: without fullblock, a short read from the FIFO counts as a whole block
// and dd would stop before the last bytes.
//
// Run inside a handset: sim/zv-handset run --build BUILD -- BUILD/bench/zv-bench-kmsg-copy
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "bench-util.h"
#include "log/log_client.h"
#include "sa-capture.h"
#include "sa-handle.h"
#include "util/util.h"

extern char **environ;

static constexpr char kName[] = "kernel log copy vs dd bs=99";
static constexpr char kKmsg[] = "/proc/kmsg";
static constexpr char kLogDir[] = "/data/local/log";
static constexpr char kReaderFile[] = "/data/local/log/kmsg.log";
static constexpr char kDdFile[] = "/data/local/log/dd-kmsg.out";
// Bytes copied per timed round, and the untimed primer before them.
static constexpr size_t kCopyBytes = 8u * 1024u * 1024u;
static constexpr size_t kPrimerBytes = 99;

static std::string g_lines;  // kCopyBytes of kernel-like lines
static int g_writer_fd = -1;

// Kernel-like lines ("<6>[ 1234.567890] ...\n") filling exactly size bytes.
static std::string make_kernel_lines(size_t size) {
    std::string out;
    out.reserve(size + 128);
    for (unsigned i = 0; out.size() < size; ++i) {
        char line[128];
        snprintf(line, sizeof(line), "<6>[%5u.%06u] zv-bench: kernel line %08u, payload of the ring\n",
                 i / 1000, (i % 1000) * 997, i);
        out += line;
    }
    out.resize(size);
    out.back() = '\n';
    return out;
}

static bool write_fifo(const char *data, size_t len) {
    size_t done = 0;
    while (done < len) {
        ssize_t n = write(g_writer_fd, data + done, len - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

// What one round measured: wall time of the copy, CPU time of the copier during it (from its
// schedstat), and its read and write calls (whole life, start-up included).
struct copy_round_st {
    double m_secs;
    long long m_cpu_ns;
    long long m_reads;
    long long m_writes;
};

// The first field of a schedstat file: nanoseconds spent on a CPU; -1 when unreadable.
static long long task_cpu_ns(const std::string &dir) {
    FILE *fp = fopen((dir + "/schedstat").c_str(), "re");
    if (fp == nullptr) return -1;
    long long ns = -1;
    if (fscanf(fp, "%lld", &ns) != 1) ns = -1;
    fclose(fp);
    return ns;
}

// Read and write calls of a task so far (from its io file), or -1 each.
static void task_syscalls(const std::string &dir, long long *reads, long long *writes) {
    *reads = -1;
    *writes = -1;
    FILE *fp = fopen((dir + "/io").c_str(), "re");
    if (fp == nullptr) return;
    char line[128];
    while (fgets(line, sizeof(line), fp) != nullptr) {
        sscanf(line, "syscr: %lld", reads);
        sscanf(line, "syscw: %lld", writes);
    }
    fclose(fp);
}

// Sends the primer and waits for the copy to hold base + primer bytes; then times the copy of g_lines
// until path holds base + primer + kCopyBytes. Stores the seconds in round->m_secs and the copier's
// CPU time at the start of the clock in *cpu0_ns; 0, or a negative step number on failure.
static int timed_copy(const char *path, long long base, const std::string &task_dir, copy_round_st *round,
                      long long *cpu0_ns) {
    // Bytes left in the FIFO by an earlier round would be copied into this one.
    int pending = -1;
    if (ioctl(g_writer_fd, FIONREAD, &pending) != 0 || pending != 0) return -1;
    std::string primer(kPrimerBytes - 1, 'p');
    primer += '\n';
    if (!write_fifo(primer.data(), primer.size())) return -2;
    const long long primed = base + static_cast<long long>(kPrimerBytes);
    if (!bench_poll_until([&] { return bench_file_size(path) >= primed; }, std::chrono::seconds(10)))
        return -3;
    const long long full = primed + static_cast<long long>(kCopyBytes);
    // The writer is a process of its own, as the kernel is to the reader: a writer thread inside this
    // process would share it with the daemon's reader but not with dd. It waits for a go byte, so its
    // fork is not timed.
    int go[2];
    if (pipe2(go, O_CLOEXEC) != 0) return -4;
    pid_t writer = fork();
    if (writer == 0) {
        char byte;
        close(go[1]);
        if (read(go[0], &byte, 1) != 1) _exit(2);
        _exit(write_fifo(g_lines.data(), g_lines.size()) ? 0 : 1);
    }
    close(go[0]);
    if (writer < 0) {
        close(go[1]);
        return -4;
    }
    *cpu0_ns = task_cpu_ns(task_dir);
    int64_t t0 = bench_now_ns();
    bool started = write(go[1], "g", 1) == 1;
    close(go[1]);
    // Short sleeps between polls: a busy poller would take one of the two cores from the copy.
    bool done =
        started && bench_poll_until([&] { return bench_file_size(path) >= full; }, std::chrono::seconds(30));
    int64_t t1 = bench_now_ns();
    if (!done) kill(writer, SIGKILL);
    int status = -1;
    while (waitpid(writer, &status, 0) < 0 && errno == EINTR) {
    }
    if (!done || !WIFEXITED(status) || WEXITSTATUS(status) != 0) return -5;
    if (bench_file_size(path) != full) return -6;
    round->m_secs = static_cast<double>(t1 - t0) / 1e9;
    return 0;
}

static std::vector<pid_t> tasks() {
    std::vector<pid_t> out;
    DIR *dir = opendir("/proc/self/task");
    if (dir == nullptr) return out;
    while (const dirent *e = readdir(dir))
        if (e->d_name[0] != '.') out.push_back(static_cast<pid_t>(atoi(e->d_name)));
    closedir(dir);
    return out;
}

// One copy by the daemon's reader, started as the daemon starts it and stopped with SIGUSR1 as the
// daemon stops it; false with *why set on failure.
static bool reader_round(copy_round_st *round, const char **why) {
    std::vector<pid_t> before = tasks();
    // A fresh file: the reader moves an old one aside only after it started, and that old file's size
    // would otherwise be taken for the banner.
    unlink(kReaderFile);
    unlink((std::string(kReaderFile) + ".1").c_str());
    pthread_t tid = 0;
    if (sa_kmsg_create_reader(&tid) != 0) {
        *why = "the kernel log reader did not start";
        return false;
    }
    // The banner is written with one write: its size is known once the file is not empty.
    if (!bench_poll_until([] { return bench_file_size(kReaderFile) > 0; }, std::chrono::seconds(10))) {
        *why = "the kernel log reader wrote no banner";
        return false;
    }
    pid_t reader_task = 0;
    for (pid_t t : tasks())
        if (std::find(before.begin(), before.end(), t) == before.end()) reader_task = t;
    const std::string task_dir = "/proc/self/task/" + std::to_string(reader_task);
    long long cpu0 = -1;
    int rc = timed_copy(kReaderFile, bench_file_size(kReaderFile), task_dir, round, &cpu0);
    // The reader is back in read, waiting: its counts are final for this round.
    round->m_cpu_ns = task_cpu_ns(task_dir) - cpu0;
    task_syscalls(task_dir, &round->m_reads, &round->m_writes);
    pub_util_kill_thread(&tid);
    bool gone = bench_poll_until([&] { return tasks().size() == before.size(); }, std::chrono::seconds(10));
    if (rc != 0 || !gone || reader_task == 0) {
        fprintf(stderr, "reader: copy step %d, stopped %d, task %d, %lld bytes in %s\n", rc, gone ? 1 : 0,
                static_cast<int>(reader_task), bench_file_size(kReaderFile), kReaderFile);
        *why =
            rc != 0 ? "the kernel log reader did not copy every byte" : "the kernel log reader did not stop";
        return false;
    }
    return true;
}

// One copy by `dd bs=99`; false with *why set on failure.
static bool dd_round(copy_round_st *round, const char **why) {
    unlink(kDdFile);
    std::string count = "count=" + std::to_string(kPrimerBytes + kCopyBytes);
    std::vector<std::string> args = {"dd",
                                     std::string("if=") + kKmsg,
                                     std::string("of=") + kDdFile,
                                     "bs=99",
                                     count,
                                     "iflag=fullblock,count_bytes",
                                     "status=none"};
    std::vector<char *> argv;
    for (std::string &a : args) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    pid_t pid;
    if (posix_spawnp(&pid, "dd", nullptr, nullptr, argv.data(), environ) != 0) {
        *why = "dd did not start";
        return false;
    }
    const std::string task_dir = "/proc/" + std::to_string(pid);
    long long cpu0 = -1;
    int rc = timed_copy(kDdFile, 0, task_dir, round, &cpu0);
    // dd ends once it copied everything; until it is reaped its counts can still be read.
    bench_poll_until(
        [&] {
            siginfo_t info;
            memset(&info, 0, sizeof(info));
            return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT | WNOHANG) == 0 &&
                   info.si_pid == pid;
        },
        std::chrono::seconds(5));
    round->m_cpu_ns = task_cpu_ns(task_dir) - cpu0;
    task_syscalls(task_dir, &round->m_reads, &round->m_writes);
    int status = -1;
    if (rc != 0) kill(pid, SIGKILL);
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (rc != 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        fprintf(stderr, "dd: copy step %d, wait status 0x%x, %lld bytes in %s\n", rc, status,
                bench_file_size(kDdFile), kDdFile);
        *why = "dd did not copy every byte";
        return false;
    }
    return true;
}

static std::vector<copy_round_st> g_reader_rounds;
static std::vector<copy_round_st> g_dd_rounds;

// Each iteration is one pair of rounds, the reader first in even pairs and dd first in odd ones, so
// a change in the load of the shared machine touches both sides alike; ratios are taken per pair.
static void BM_KmsgCopyPair(benchmark::State &state) {
    int64_t pair = 0;
    for (auto _ : state) {
        const char *why = nullptr;
        copy_round_st reader = {};
        copy_round_st dd = {};
        bool ok = pair % 2 == 0 ? reader_round(&reader, &why) && dd_round(&dd, &why)
                                : dd_round(&dd, &why) && reader_round(&reader, &why);
        if (!ok) {
            state.SkipWithError(why);
            break;
        }
        g_reader_rounds.push_back(reader);
        g_dd_rounds.push_back(dd);
        state.SetIterationTime(reader.m_secs + dd.m_secs);
        ++pair;
    }
    state.SetBytesProcessed(state.iterations() * 2 * static_cast<int64_t>(kCopyBytes));
}

BENCHMARK(BM_KmsgCopyPair)->UseManualTime()->Iterations(15)->Unit(benchmark::kMillisecond);

int main(int argc, char **argv) {
    // The reader traces as it does in the daemon, into a log client with the daemon's settings.
    mkdir("/data/local", 0771);
    mkdir(kLogDir, 0771);
    sfw_log_set_path("/data/local/log/zv-qel-sa");
    sfw_log_start(1, nullptr);
    sfw_log_set_max_size(102400);
    sfw_log_mark_position();

    // Slot 3 as the log configuration property would set it: two generations, large enough that the
    // timed copy never wraps the file.
    memset(g_zv_log_svc, 0, sizeof(g_zv_log_svc));
    sa_log_svc_st *svc = &g_zv_log_svc[SA_LOG_SVC_KMSG - 1];
    snprintf(svc->type, sizeof(svc->type), "I3");
    svc->type_id = SA_LOG_SVC_KMSG;
    svc->file_num_val = 2;
    svc->file_size_val = static_cast<int32_t>(4 * kCopyBytes / 1024);
    snprintf(svc->file_num, sizeof(svc->file_num), "%d", svc->file_num_val);
    snprintf(svc->file_size, sizeof(svc->file_size), "%d", svc->file_size_val);
    snprintf(g_log_path_a, sizeof(g_log_path_a), "%s", kLogDir);

    g_lines = make_kernel_lines(kCopyBytes);
    g_writer_fd = open(kKmsg, O_WRONLY | O_CLOEXEC);
    if (g_writer_fd < 0) {
        bench_fail(kName, "cannot open %s for writing: %s", kKmsg, strerror(errno));
        return 1;
    }

    std::vector<bench_run_st> runs = bench_run_registered(argc, argv, {});
    close(g_writer_fd);
    if (runs.empty() || g_reader_rounds.empty()) {
        bench_fail(kName, "the benchmark did not run");
        return 1;
    }

    const double mib = 1024.0 * 1024.0;
    std::vector<double> reader_mibs, dd_mibs, wall_ratios, cpu_ratios, reader_cpu, dd_cpu;
    for (size_t i = 0; i < g_reader_rounds.size(); ++i) {
        const copy_round_st &r = g_reader_rounds[i];
        const copy_round_st &d = g_dd_rounds[i];
        reader_mibs.push_back(static_cast<double>(kCopyBytes) / r.m_secs / mib);
        dd_mibs.push_back(static_cast<double>(kCopyBytes) / d.m_secs / mib);
        wall_ratios.push_back(d.m_secs / r.m_secs);
        reader_cpu.push_back(static_cast<double>(r.m_cpu_ns) / 1e6);
        dd_cpu.push_back(static_cast<double>(d.m_cpu_ns) / 1e6);
        if (r.m_cpu_ns > 0 && d.m_cpu_ns > 0)
            cpu_ratios.push_back(static_cast<double>(d.m_cpu_ns) / static_cast<double>(r.m_cpu_ns));
        printf("pair %2zu: reader %6.1f MiB/s %6.1f ms CPU | dd %6.1f MiB/s %6.1f ms CPU | ratio %.2f\n", i,
               reader_mibs.back(), reader_cpu.back(), dd_mibs.back(), dd_cpu.back(), wall_ratios.back());
    }
    const copy_round_st &r = g_reader_rounds.back();
    const copy_round_st &d = g_dd_rounds.back();
    printf(
        "system calls of one round's copier (whole life): reader %lld reads, %lld writes; dd %lld reads, "
        "%lld writes\n",
        r.m_reads, r.m_writes, d.m_reads, d.m_writes);
    printf("CPU time of the copier per round (median): reader %.1f ms, dd %.1f ms, dd/reader %.2f\n",
           bench_median(reader_cpu), bench_median(dd_cpu), bench_median(cpu_ratios));
    double ratio = bench_median(wall_ratios);
    bench_result(kName, bench_fmt("%.1f MiB/s", bench_median(reader_mibs)),
                 bench_fmt("%.1f MiB/s (dd bs=99)", bench_median(dd_mibs)), ratio,
                 ">= 0.90 (median of paired rounds)", ratio >= 0.9);
    return 0;
}
