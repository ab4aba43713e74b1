// Footprint of the daemon: the memory of an idle daemon after start-up and the size of a stripped copy
// of its binary. The daemon is started as in a handset twice: with log capture switched off by the log
// configuration property, and with the property unset (the default capture: logcat children, the kernel
// log reader, the packet capture). For comparison only, two link variants of the same sources (C++
// runtime linked statically, and fully static) are measured the same way. Idle means: both links
// published, one AT answered, then two seconds without requests; the sample with the largest VmRSS in
// those two seconds counts.
//
// Two kinds of memory are reported. VmRSS (/proc/<pid>/status) counts every page the process has
// mapped in, most of them the C library's file pages that every dynamically linked program shares; only
// its capture-off figure keeps a goal (under 2 MiB), the rest is shown for comparison. The private memory is what the process itself has written or allocated:
// Private_Dirty and Anonymous from /proc/<pid>/smaps_rollup. The two sets overlap (an anonymous page the
// process wrote is in both), so the figure is their union counted as the larger of the two, exact when
// one holds the other as it does in every process measured here (both are printed). Its goal: at most
// 1.2 times that of a minimal C++ program linked as the daemon is (zv-bench-minimal-cxx), capture off.
// A process that does nothing (/usr/bin/sleep, dynamically linked to the same C library) is measured in
// the same handset as the floor every dynamically linked program pays.
//
// Run inside a handset: sim/zv-handset run --build BUILD -- BUILD/bench/zv-bench-footprint
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "bench-util.h"
#include "harness.h"

static constexpr char kStripped[] = "/tmp/zv-qel-sa.stripped";
static constexpr long kRssGoalKb = 2048;
static constexpr long kSizeGoalBytes = 400 * 1024;
static constexpr double kPrivateFactor = 1.2;

struct rss_st {
    long m_rss_kb;
    long m_anon_kb;  // of VmRSS (RssAnon)
    long m_file_kb;  // of VmRSS (RssFile)
    long m_private_dirty_kb;
    long m_anonymous_kb;  // smaps_rollup's Anonymous
    // The private memory: the union of Private_Dirty and Anonymous, counted as the larger.
    long private_kb() const {
        return m_private_dirty_kb > m_anonymous_kb ? m_private_dirty_kb : m_anonymous_kb;
    }
};

// The sample of pid with the largest VmRSS over two seconds (sampled every 50 ms).
static rss_st idle_rss(pid_t pid) {
    rss_st best = {-1, -1, -1, -1, -1};
    for (int i = 0; i < 40; ++i) {
        long rss = bench_vmrss_kb(pid);
        if (rss > best.m_rss_kb) {
            best = {rss, bench_proc_kb(pid, "status", "RssAnon:"), bench_proc_kb(pid, "status", "RssFile:"),
                    bench_proc_kb(pid, "smaps_rollup", "Private_Dirty:"),
                    bench_proc_kb(pid, "smaps_rollup", "Anonymous:")};
        }
        struct timespec ts = {0, 50 * 1000 * 1000};
        nanosleep(&ts, nullptr);
    }
    return best;
}

// Starts the daemon binary at path as the harness starts the staged one (configuration naming the
// command link, own session, cwd "/"), waits until it answers AT, measures it idle and stops it; false
// when it did not come up.
static bool measure_daemon(const std::string &path, rss_st *rss) {
    zvtest::prepare_data();
    zvtest::write_file("/system/etc/zv-qel-sa.cfg", std::string("zv.tty.cmd=") + zvtest::kCmdLink + "\n");
    pid_t pid = zvtest::spawn({path}, zvtest::kDaemonOut);
    bool up = pid > 0 &&
              zvtest::poll_until(
                  [] {
                      return !zvtest::link_target(zvtest::kCmdLink).empty() &&
                             !zvtest::link_target(zvtest::kListenerLink).empty();
                  },
                  std::chrono::seconds(20)) &&
              zvtest::cmd_request_once("AT\r", std::chrono::seconds(10)) == "\r\nOK\r\n";
    if (up) *rss = idle_rss(pid);
    zvtest::kill_and_reap(pid);
    unlink(zvtest::kCmdLink);
    unlink(zvtest::kListenerLink);
    return up;
}

static std::string rss_text(const rss_st &r) {
    return bench_fmt("VmRSS %ld KiB (anon %ld, file %ld)", r.m_rss_kb, r.m_anon_kb, r.m_file_kb);
}

static std::string private_text(const rss_st &r) {
    return bench_fmt("private %ld KiB (Private_Dirty %ld, Anonymous %ld)", r.private_kb(),
                     r.m_private_dirty_kb, r.m_anonymous_kb);
}

// The folder of this program, where the link variants of the daemon are built.
static std::string bench_dir() {
    char self[512];
    ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (n <= 0) return ".";
    self[n] = '\0';
    std::string path = self;
    return path.substr(0, path.rfind('/'));
}

int main() {
    // The floor: a dynamically linked program that only sleeps.
    pid_t sleeper = zvtest::spawn({"/usr/bin/sleep", "3600"});
    bench_poll_until(
        [&] {
            std::string cmd = zvtest::read_file("/proc/" + std::to_string(sleeper) + "/cmdline");
            return cmd.compare(0, 15, "/usr/bin/sleep") == 0;
        },
        std::chrono::seconds(10));
    rss_st floor = idle_rss(sleeper);
    zvtest::kill_and_reap(sleeper);
    std::string floor_text = bench_fmt("/usr/bin/sleep %ld KiB (anon %ld, file %ld)", floor.m_rss_kb,
                                       floor.m_anon_kb, floor.m_file_kb);

    // The floor of the capture-off figure: a minimal C++ program linked the same way, idle.
    const std::string dir = bench_dir();
    const std::string minimal_path = dir + "/zv-bench-minimal-cxx";
    pid_t minimal = zvtest::spawn({minimal_path});
    bool minimal_up = bench_poll_until(
        [&] {
            std::string cmd = zvtest::read_file("/proc/" + std::to_string(minimal) + "/cmdline");
            return cmd.compare(0, minimal_path.size(), minimal_path) == 0;
        },
        std::chrono::seconds(10));
    rss_st minimal_rss = minimal_up ? idle_rss(minimal) : rss_st{-1, -1, -1, -1, -1};
    zvtest::kill_and_reap(minimal);

    int failures = 0;
    if (!minimal_up || minimal_rss.m_rss_kb <= 0 || minimal_rss.private_kb() <= 0) {
        bench_fail("idle private memory, capture off, vs a minimal C++ program", "%s did not start",
                   minimal_path.c_str());
        ++failures;
    }
    const std::string minimal_rss_text =
        bench_fmt("minimal C++ program %ld KiB (anon %ld, file %ld)", minimal_rss.m_rss_kb,
                  minimal_rss.m_anon_kb, minimal_rss.m_file_kb);
    const std::string minimal_private_text = "minimal C++ program " + private_text(minimal_rss);
    struct variant_st {
        const char *m_label;
        const char *m_link;  // "" for the staged daemon, else the link variant's options
        std::string m_path;
        bool m_capture;
    };
    const variant_st variants[] = {
        {"idle VmRSS, capture off", "", zvtest::kDaemonPath, false},
        {"idle VmRSS, default capture", "", zvtest::kDaemonPath, true},
        {"idle VmRSS, capture off, linked -static-libstdc++ (comparison)", "linked -static-libstdc++",
         dir + "/zv-bench-daemon-static-cxx", false},
        {"idle VmRSS, capture off, linked -static (comparison)", "linked -static",
         dir + "/zv-bench-daemon-static", false},
    };
    for (const variant_st &v : variants) {
        if (access(v.m_path.c_str(), X_OK) != 0) {
            bench_fail(v.m_label, "%s is not built", v.m_path.c_str());
            ++failures;
            continue;
        }
        if (v.m_capture) {
            unlink("/dev/__properties__/persist.sys.install.zv.log");
        } else {
            zvtest::switch_capture_off();
        }
        rss_st r = {};
        if (!measure_daemon(v.m_path, &r)) {
            bench_fail(v.m_label, "the daemon did not answer AT");
            ++failures;
            continue;
        }
        if (v.m_link[0] == '\0' && !v.m_capture) {
            bench_result_absolute(v.m_label, rss_text(r), floor_text, "< 2048 KiB", r.m_rss_kb < kRssGoalKb);
            if (minimal_rss.m_rss_kb > 0) {
                const double ratio =
                    static_cast<double>(r.m_rss_kb) / static_cast<double>(minimal_rss.m_rss_kb);
                // For comparison only: mostly the C library's shared file pages, not the daemon's own.
                bench_result_info("idle VmRSS, capture off, vs a minimal C++ program",
                                  rss_text(r) + bench_fmt(" = %.2fx", ratio), minimal_rss_text);
            }
            if (minimal_rss.private_kb() > 0) {
                const double ratio =
                    static_cast<double>(r.private_kb()) / static_cast<double>(minimal_rss.private_kb());
                bench_result("idle private memory, capture off, vs a minimal C++ program", private_text(r),
                             minimal_private_text, ratio, "<= 1.20", ratio <= kPrivateFactor);
            }
        } else if (v.m_link[0] == '\0') {
            // For comparison only, as above: the capture's children and threads reach more of the C
            // library's pages (and load libgcc_s), none of which the daemon allocates.
            bench_result_info(v.m_label, rss_text(r), floor_text);
            bench_result_info("idle private memory, default capture", private_text(r), minimal_private_text);
        } else {
            bench_result_info(v.m_label, rss_text(r), floor_text);
        }
    }

    // Stripped copies: the binary the handset runs (the goal), and the link variants for comparison.
    for (const variant_st &v : variants) {
        if (v.m_capture) continue;  // the same binary as the row before it
        const bool staged = v.m_link[0] == '\0';
        const std::string label = staged ? std::string("stripped binary size")
                                         : bench_fmt("stripped binary size, %s (comparison)", v.m_link);
        unlink(kStripped);
        pid_t strip = zvtest::spawn({"/usr/bin/strip", "-o", kStripped, v.m_path});
        int status = zvtest::wait_exit(strip, std::chrono::seconds(60));
        long long full = bench_file_size(v.m_path.c_str());
        long long stripped = bench_file_size(kStripped);
        if (status != 0 || stripped <= 0) {
            bench_fail(label.c_str(), "strip failed (status %d)", status);
            ++failures;
            continue;
        }
        std::string value =
            bench_fmt("%lld bytes (%.1f KiB)", stripped, static_cast<double>(stripped) / 1024.0);
        std::string reference = bench_fmt("unstripped %lld bytes", full);
        if (staged) {
            bench_result_absolute(label.c_str(), value, reference, "< 400 KiB", stripped < kSizeGoalBytes);
        } else {
            bench_result_info(label.c_str(), value, reference);
        }
    }
    return failures == 0 ? 0 : 1;
}
