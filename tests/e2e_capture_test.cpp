// End-to-end tests of the log capture, the log switches, the free-space guard and the signals: the real
// daemon in a simulated handset with the fake logcat, dmesg and tcpdump, driven through its command link
// and by signals as init and a host tool drive it.
//
// The handset's /data is 64 MiB here (see the .simargs), so the capture needs 3,276 KB free to start.
// The daemon's rc file is installed in /system/etc/init; the reset test boots it with the simulator's
// init, run as a child of the test.
#include <gtest/gtest.h>

#include <ctype.h>
#include <dirent.h>
#include <fcntl.h>
#include <libgen.h>
#include <limits.h>
#include <signal.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <sstream>
#include <string>
#include <vector>

#include "harness.h"

using namespace zvtest;
using namespace std::chrono_literals;

namespace {

constexpr char kOk[] = "\r\nOK\r\n";
constexpr char kErr[] = "\r\nERROR: 4294967295\r\n";
constexpr char kKmsgLog[] = "/data/local/log/kmsg.log";
constexpr char kSettings[] = "/data/zv-qel-sa.set";
constexpr char kPropArea[] = "/dev/__properties__";
constexpr char kLogConfigProp[] = "/dev/__properties__/persist.sys.install.zv.log";

// The handset's folders as its init scripts leave them: the log folder belongs to the shell user (the
// logcat children write into it), and the fake logcat records its arguments in a scratch folder.
void PrepareCaptureFolders(const std::string &logcat_rate = "0") {
    make_dirs("/data/local/log");
    chown("/data/local/log", 2000, 2000);
    chmod("/data/local/log", 0771);
    make_dirs("/data/local/tmp/logcat-args");
    chmod("/data/local/tmp", 0771);
    chmod("/data/local/tmp/logcat-args", 0777);
    write_file("/data/local/tmp/fake-logcat.rate", logcat_rate + "\n");
}

std::string Trim(const std::string &s) {
    size_t b = s.find_first_not_of(" \t\n");
    size_t e = s.find_last_not_of(" \t\n");
    return b == std::string::npos ? "" : s.substr(b, e - b + 1);
}

std::string StatusField(pid_t pid, const std::string &name) {
    std::istringstream in(read_file("/proc/" + std::to_string(pid) + "/status"));
    std::string line;
    while (std::getline(in, line))
        if (line.compare(0, name.size(), name) == 0) return Trim(line.substr(name.size()));
    return "";
}

bool Gone(pid_t pid) {
    return !file_exists("/proc/" + std::to_string(pid));
}

bool Running(pid_t pid) {
    std::string state = StatusField(pid, "State:");
    return !state.empty() && state[0] != 'Z';
}

std::string ArgsOf(const std::string &dir, pid_t pid) {
    return read_file("/data/local/tmp/" + dir + "/" + std::to_string(pid));
}

// Live processes whose argv[0] is path.
std::vector<pid_t> ProcessesRunning(const std::string &path) {
    std::vector<pid_t> out;
    DIR *dir = opendir("/proc");
    if (dir == nullptr) return out;
    while (const dirent *e = readdir(dir)) {
        if (!isdigit(static_cast<unsigned char>(e->d_name[0]))) continue;
        pid_t pid = static_cast<pid_t>(atoi(e->d_name));
        std::string cmdline = read_file(std::string("/proc/") + e->d_name + "/cmdline");
        if (cmdline.c_str() == path && Running(pid)) out.push_back(pid);
    }
    closedir(dir);
    return out;
}

bool HasMessage(const std::string &text) {
    return find_message(sa_log_messages(), text) >= 0;
}

// Where each of texts is found in sa.log's messages, each searched after the one before, starting at
// from; -1 for one that is missing (and for every one after it). Other threads may write lines in
// between: sa.log has no lock.
std::vector<int> FindInOrder(const std::vector<std::string> &messages, int from,
                             const std::vector<std::string> &texts) {
    std::vector<int> at;
    int pos = from;
    for (const auto &text : texts) {
        pos = pos < 0 ? -1 : find_message(messages, text, pos);
        at.push_back(pos);
        if (pos >= 0) ++pos;
    }
    return at;
}

bool LogHas(const std::string &text) {
    return read_file(kLogClientFile).find(text) != std::string::npos;
}

// Leaves exactly free_kb KB available on /data with a preallocated filler.
void SetDataAvailableKb(uint64_t free_kb) {
    unlink("/data/filler");
    struct statfs st;
    ASSERT_EQ(0, statfs("/data", &st));
    uint64_t avail = static_cast<uint64_t>(st.f_bavail) * st.f_bsize;
    uint64_t want = free_kb * 1024;
    ASSERT_GE(avail, want);
    int fd = open("/data/filler", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
    if (avail > want) {
        ASSERT_EQ(0, posix_fallocate(fd, 0, static_cast<off_t>(avail - want)));
    }
    close(fd);
}

// Takes away a program or library that the handset binds in.
void Hide(const std::string &path) {
    umount2(path.c_str(), MNT_DETACH);
    unlink(path.c_str());
    ASSERT_FALSE(file_exists(path)) << path;
}

class CaptureTest : public ::testing::Test {
   protected:
    void TearDown() override {
        if (fd_ >= 0) close(fd_);
        if (daemon_.pid > 0) kill_and_reap(daemon_.pid);
    }
    // Starts the daemon with its command link and waits until start-up is over.
    void StartDaemon() {
        daemon_ = start_daemon_with_links();
        ASSERT_GT(daemon_.pid, 0);
        ASSERT_TRUE(poll_until([] { return HasMessage("main sa_handle_init ret_val[0]"); }, 20s))
            << read_file(kSaLog);
        fd_ = open_client(kCmdLink);
        ASSERT_GE(fd_, 0);
    }
    // The capture children of the daemon: tcpdump, then the logcats in start order (by pid).
    void CaptureChildren(pid_t *tcpdump, std::vector<pid_t> *logcats) {
        *tcpdump = 0;
        logcats->clear();
        for (pid_t pid : child_pids(daemon_.pid)) {
            std::string cmdline = read_file("/proc/" + std::to_string(pid) + "/cmdline");
            if (cmdline.c_str() == std::string("tcpdump")) *tcpdump = pid;
            if (cmdline.c_str() == std::string("/system/bin/logcat")) logcats->push_back(pid);
        }
        std::sort(logcats->begin(), logcats->end());
    }
    // Waits for the daemon to end (20 s at most); its wait status, or -1.
    int WaitDaemonEnd() {
        int status = wait_exit(daemon_.pid, 20s);
        if (status != -1) daemon_.pid = -1;
        return status;
    }
    // Waits until tcpdump and the three logcats run; false when they did not within 10 s.
    bool WaitCaptureChildren(pid_t *tcpdump, std::vector<pid_t> *logcats) {
        return poll_until(
            [&] {
                CaptureChildren(tcpdump, logcats);
                return *tcpdump > 0 && logcats->size() == 3;
            },
            10s);
    }
    Daemon daemon_;
    int fd_ = -1;
};

TEST_F(CaptureTest, StartUpRunsTcpdumpAndThreeLogcatsWithTheirIdentitiesAndArguments) {
    PrepareCaptureFolders();
    StartDaemon();
    ASSERT_TRUE(poll_until([] { return HasMessage("start_log_service exit ret_val[0]"); }, 20s))
        << read_file(kSaLog);
    pid_t tcpdump = 0;
    std::vector<pid_t> logcats;
    ASSERT_TRUE(WaitCaptureChildren(&tcpdump, &logcats));

    // Start order: tcpdump, events, radio, main, kernel reader.
    auto messages = sa_log_messages();
    int events = find_message(messages,
                              "start_logcat_service_ex type[I5] svc_pid[" + std::to_string(logcats[0]) + "]");
    int radio = find_message(messages,
                             "start_logcat_service_ex type[I6] svc_pid[" + std::to_string(logcats[1]) + "]");
    int main_buf = find_message(
        messages, "start_logcat_service_ex type[I4] svc_pid[" + std::to_string(logcats[2]) + "]");
    EXPECT_TRUE(events >= 0 && radio > events && main_buf > radio) << read_file(kSaLog);
    EXPECT_TRUE(tcpdump < logcats[0]);
    std::string log = read_file(kLogClientFile);
    size_t kmsg = log.find("start_zv_log_service type_id[3] file_num_val[5] file_size_val[20480]");
    size_t main_start = log.find("start_logcat_service_ex path[/system/bin/logcat] type[I4]");
    ASSERT_NE(std::string::npos, kmsg);
    EXPECT_LT(main_start, kmsg);

    // Exact argument vectors.
    ASSERT_TRUE(poll_until([&] { return !ArgsOf("tcpdump-args", tcpdump).empty(); }, 5s));
    EXPECT_EQ("tcpdump -p -v -s 0 -i any -w /data/local/log/ipdata.pcap -C 9 -W 5\n",
              ArgsOf("tcpdump-args", tcpdump));
    for (pid_t pid : logcats)
        ASSERT_TRUE(poll_until([&] { return !ArgsOf("logcat-args", pid).empty(); }, 5s));
    EXPECT_EQ(
        "/system/bin/logcat -r 5120 -v threadtime -v usec -v printable -n 5 -b events -f "
        "/data/local/log/logcat-events.log\n",
        ArgsOf("logcat-args", logcats[0]));
    EXPECT_EQ(
        "/system/bin/logcat -r 5120 -v threadtime -v usec -v printable -n 5 -b radio -f "
        "/data/local/log/logcat-radio.log\n",
        ArgsOf("logcat-args", logcats[1]));
    EXPECT_EQ(
        "/system/bin/logcat -r 5120 -v threadtime -v usec -v printable -n 5 -f /data/local/log/logcat.log\n",
        ArgsOf("logcat-args", logcats[2]));

    // Logcats: shell user, log group, a process group of their own in the daemon's session, oom_adj 0.
    for (pid_t pid : logcats) {
        EXPECT_EQ("2000\t2000\t2000\t2000", StatusField(pid, "Uid:")) << pid;
        EXPECT_EQ("1007\t1007\t1007\t1007", StatusField(pid, "Gid:")) << pid;
        EXPECT_EQ(pid, getpgid(pid));
        EXPECT_EQ(getsid(daemon_.pid), getsid(pid));
        EXPECT_EQ("0", Trim(read_file("/proc/" + std::to_string(pid) + "/oom_adj")));
    }
    // tcpdump: root, a session of its own, umask 077.
    EXPECT_EQ("0\t0\t0\t0", StatusField(tcpdump, "Uid:"));
    EXPECT_EQ(tcpdump, getsid(tcpdump));
    EXPECT_EQ("0077", StatusField(tcpdump, "Umask:"));
    EXPECT_EQ("7 4 1 7\n", read_file("/proc/sys/kernel/printk"));
}

TEST_F(CaptureTest, CaptureChildrenLowerTheirOomAdjWhateverTheDaemonsValue) {
    // The daemon inherits our raised value (raising is always allowed), so its children must lower it.
    int self = open("/proc/self/oom_adj", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(self, 0);
    ASSERT_EQ(2, write(self, "15", 2));
    close(self);
    ASSERT_EQ("15", Trim(read_file("/proc/self/oom_adj")));
    if (!can_lower_oom_adj())
        GTEST_SKIP() << "this sandbox withholds CAP_SYS_RESOURCE, so no process may lower its oom_adj; the "
                        "capture children's write of \"0\" cannot take effect here";
    PrepareCaptureFolders();
    StartDaemon();
    pid_t tcpdump = 0;
    std::vector<pid_t> logcats;
    ASSERT_TRUE(WaitCaptureChildren(&tcpdump, &logcats));
    for (pid_t pid : logcats) EXPECT_EQ("0", Trim(read_file("/proc/" + std::to_string(pid) + "/oom_adj")));
    EXPECT_EQ("0", Trim(read_file("/proc/" + std::to_string(tcpdump) + "/oom_adj")));
}

TEST_F(CaptureTest, KernelLinesWrittenIntoTheRingAppearInKmsgLogAfterTheBanner) {
    PrepareCaptureFolders();
    write_file(kKmsgLog, "the previous run\n");
    StartDaemon();
    ASSERT_TRUE(poll_until([] { return LogHas("read_kernel_log_loop buf_a["); }, 10s));
    EXPECT_EQ("the previous run\n", read_file(std::string(kKmsgLog) + ".1"));
    int fd = open("/proc/kmsg", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    const std::string lines =
        "<6>[  200.000000] zv: first line for the capture\n<3>[  200.100000] zv: second line\n";
    ASSERT_EQ(static_cast<ssize_t>(lines.size()), write(fd, lines.data(), lines.size()));
    close(fd);
    ASSERT_TRUE(poll_until([&] { return read_file(kKmsgLog).find(lines) != std::string::npos; }, 10s))
        << read_file(kKmsgLog);
    std::string text = read_file(kKmsgLog);
    size_t banner_end = text.find('\n');
    ASSERT_NE(std::string::npos, banner_end);
    EXPECT_EQ('[', text[0]);
    EXPECT_EQ(21u, banner_end);  // "[YYYY-MM-DD hh:mm:ss]"
    EXPECT_EQ(banner_end + 1, text.find(lines));
}

TEST_F(CaptureTest, KernelLogSwitchAnswersAndRecordsTheSettingsBytes) {
    PrepareCaptureFolders();
    StartDaemon();
    EXPECT_EQ("\r\nKERNEL_LOG: 0\r\n\r\nOK\r\n", cmd_request(fd_, "SA+KERNEL_LOG?\r"));
    EXPECT_EQ(kOk, cmd_request(fd_, "SA+KERNEL_LOG=1\r"));
    EXPECT_EQ(std::string("\x01\x20\x00\x20\x00", 5), read_file(kSettings));
    EXPECT_EQ("\r\nKERNEL_LOG: 1\r\n\r\nOK\r\n", cmd_request(fd_, "SA+KERNEL_LOG?\r"));
    EXPECT_EQ(kErr, cmd_request(fd_, "SA+KERNEL_LOG=2\r"));
    EXPECT_EQ(kErr, cmd_request(fd_, "SA+KERNEL_LOG=-1\r"));
    EXPECT_EQ(kErr, cmd_request(fd_, "SA+KERNEL_LOG=?\r"));
    EXPECT_EQ("\r\nKERNEL_LOG: 1\r\n\r\nOK\r\n", cmd_request(fd_, "SA+KERNEL_LOG?\r"));
    EXPECT_EQ(kOk, cmd_request(fd_, "SA+DMESG_LOG=1\r"));
    EXPECT_EQ(std::string("\x01\x20\x01\x20\x00", 5), read_file(kSettings));
    EXPECT_EQ("\r\nDMESG_LOG: 1\r\n\r\nOK\r\n", cmd_request(fd_, "SA+dmesg_log?\r"));
    EXPECT_TRUE(poll_until(
        [] {
            return read_file("/data/local/log/dmesg.log").find("zv-handset: end of ring\n") !=
                   std::string::npos;
        },
        10s));
}

TEST_F(CaptureTest, ConcurrencyKernelLogOnAndOff200TimesLeavesOneReaderAtMost) {
    PrepareCaptureFolders();
    StartDaemon();
    // The start-up reader runs from the start; let the start-up threads settle.
    ASSERT_TRUE(poll_until([] { return HasMessage("start_log_service exit ret_val[0]"); }, 20s));
    int baseline = count_threads(daemon_.pid);
    ASSERT_GT(baseline, 0);
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(kOk, cmd_request(fd_, "SA+KERNEL_LOG=1\r")) << i;
        // The new reader, and at most the one stopped just before, still on its way out: a stopped reader
        // ends at its next copy step, which on a loaded machine may come after the next start. Readers
        // never pile up.
        ASSERT_TRUE(poll_until([&] { return count_threads(daemon_.pid) <= baseline + 2; }, 5s))
            << i << ": " << count_threads(daemon_.pid) << " threads, " << baseline << " at rest";
        ASSERT_EQ(kOk, cmd_request(fd_, "SA+KERNEL_LOG=0\r")) << i;
    }
    EXPECT_TRUE(poll_until([&] { return count_threads(daemon_.pid) == baseline; }, 10s))
        << count_threads(daemon_.pid);
    ASSERT_EQ(kOk, cmd_request(fd_, "SA+KERNEL_LOG=1\r"));
    EXPECT_TRUE(poll_until([&] { return count_threads(daemon_.pid) == baseline + 1; }, 10s));
    EXPECT_EQ(kOk, cmd_request(fd_, "AT\r"));
    EXPECT_TRUE(Running(daemon_.pid));
}

TEST_F(CaptureTest, SigtermWritesTheShutdownLinesAndExitsWithStatusZero) {
    PrepareCaptureFolders();
    StartDaemon();
    ASSERT_EQ(0, kill(daemon_.pid, SIGTERM));
    int status = WaitDaemonEnd();
    ASSERT_TRUE(status != -1 && WIFEXITED(status)) << status;
    EXPECT_EQ(0, WEXITSTATUS(status));
    auto messages = sa_log_messages();
    int first = find_message(messages, "signal_treatment ");
    ASSERT_GE(first, 0) << read_file(kSaLog);
    std::vector<int> at =
        FindInOrder(messages, first,
                    {"signal_treatment signal[15-SIGTERM]", "sa_handle_deinit exit ret_val[0]",
                     "sa_deinit_resource exit ret_val[0]", "signal_treatment exit"});
    for (int i : at) EXPECT_GT(i, first) << read_file(kSaLog);
    EXPECT_TRUE(LogHas("signal_treatment receive signal[15-SIGTERM]"));
    // The command endpoint was closed on the way out.
    EXPECT_TRUE(link_target(kCmdLink).empty());
}

// The build folder (bound into the handset at its own path): the parent of this test's folder.
std::string BuildDir() {
    char exe[PATH_MAX] = {0};
    if (readlink("/proc/self/exe", exe, sizeof(exe) - 1) <= 0) return "";
    std::string dir = dirname(exe);  // BUILD/tests
    return dir.substr(0, dir.rfind('/'));
}

// When the listener cannot even start (its link path is taken by a folder that cannot be replaced), the
// listener loop returns at once and main releases the resources itself, once, without any signal.
TEST_F(CaptureTest, NormalEndOfTheListenerLoopReleasesResourcesOnceFromMain) {
    PrepareCaptureFolders("0");
    make_dirs(std::string(kListenerLink) + "/taken");
    write_file("/system/etc/zv-qel-sa.cfg", std::string("zv.tty.cmd=") + kCmdLink + "\n");
    daemon_ = start_daemon();
    ASSERT_GT(daemon_.pid, 0);
    int status = WaitDaemonEnd();
    ASSERT_TRUE(status != -1 && WIFEXITED(status)) << status;
    EXPECT_EQ(0, WEXITSTATUS(status));
    auto messages = sa_log_messages();
    std::vector<int> at =
        FindInOrder(messages, 0,
                    {"main sa_listener_loop exit", "main exit", "sa_handle_deinit exit ret_val[0]",
                     "sa_deinit_resource exit ret_val[0]"});
    for (int i : at) EXPECT_GE(i, 0) << read_file(kSaLog);
    int deinit = 0;
    for (const auto &m : messages) deinit += m.compare(0, 26, "sa_deinit_resource exit re") == 0 ? 1 : 0;
    EXPECT_EQ(1, deinit);
    EXPECT_EQ(-1, find_message(messages, "signal_treatment "));
}

// Path of the simulator's init in the build tree.
std::string InitPath() {
    return BuildDir() + "/handset/sbin/init";
}

TEST_F(CaptureTest, Sigusr2KillsTheCaptureChildrenAndAsksInitToStopTheDaemon) {
    ASSERT_TRUE(file_exists("/system/etc/init/zv-qel-sa.rc")) << "the .simargs installs the daemon's rc file";
    std::string init = InitPath();
    ASSERT_TRUE(file_exists(init)) << init;
    PrepareCaptureFolders();
    write_file("/system/etc/zv-qel-sa.cfg", std::string("zv.tty.cmd=") + kCmdLink + "\n");
    // init boots the daemon from its rc file.
    pid_t init_pid = spawn({init, "--", "/system/bin/sleep", "100000"}, "/tmp/init.out");
    ASSERT_GT(init_pid, 0);
    pid_t sa = 0;
    ASSERT_TRUE(poll_until(
        [&] {
            auto pids = ProcessesRunning("/system/bin/zv-qel-sa");
            sa = pids.empty() ? 0 : pids[0];
            return sa > 0 && HasMessage("start_log_service exit ret_val[0]");
        },
        20s))
        << read_file("/tmp/init.out") << read_file(kSaLog);
    EXPECT_EQ("running", read_file(std::string(kPropArea) + "/init.svc.zv-qel-sa"));
    std::vector<pid_t> children;
    ASSERT_TRUE(poll_until(
        [&] {
            children = child_pids(sa);
            return children.size() == 4;
        },
        10s));

    ASSERT_EQ(0, kill(sa, SIGUSR2));
    ASSERT_TRUE(
        poll_until([] { return HasMessage("signal_treatment PUB_UTIL_RESET_PROCESS_SIGNAL exit"); }, 20s))
        << read_file(kSaLog);
    EXPECT_NE(std::string::npos,
              read_file(std::string(kPropArea) + "/.history").find("ctl.stop=zv-qel-sa\n"));
    for (pid_t pid : children) EXPECT_TRUE(poll_until([&] { return Gone(pid); }, 10s)) << pid;

    // The handler returned and the daemon lived on: it was init's stop (SIGTERM) that ended it.
    ASSERT_TRUE(poll_until([] { return HasMessage("signal_treatment exit"); }, 20s)) << read_file(kSaLog);
    auto messages = sa_log_messages();
    int first = find_message(messages, "signal_treatment ");
    ASSERT_GE(first, 0);
    int second = find_message(messages, "signal_treatment ", first + 1);
    ASSERT_GT(second, first);
    std::vector<int> at = FindInOrder(
        messages, first,
        {"signal_treatment signal[12-SIGUSR2]", "sa_handle_deinit exit ret_val[0]",
         "sa_deinit_resource exit ret_val[0]", "signal_treatment PUB_UTIL_RESET_PROCESS_SIGNAL exit"});
    for (int i : at) EXPECT_GT(i, first) << read_file(kSaLog);
    int reset = at.back();
    EXPECT_LT(reset, second);
    EXPECT_GT(find_message(messages, "signal_treatment exit", first), second);  // not before init's stop
    EXPECT_GT(find_message(messages, "signal_treatment signal[15-SIGTERM]", first), second);
    EXPECT_TRUE(poll_until([&] { return Gone(sa) || !Running(sa); }, 20s));
    EXPECT_TRUE(poll_until(
        [] { return read_file(std::string(kPropArea) + "/init.svc.zv-qel-sa") == "stopped"; }, 20s));
    kill(init_pid, SIGTERM);
    EXPECT_NE(-1, wait_exit(init_pid, 20s));
}

TEST_F(CaptureTest, LowSpaceOnDataStartsNoCaptureAndTheChannelKeepsAnswering) {
    PrepareCaptureFolders();
    struct statfs st;
    ASSERT_EQ(0, statfs("/data", &st));
    uint64_t total_kb = (static_cast<uint64_t>(st.f_blocks) * st.f_bsize) >> 10;
    ASSERT_EQ(65536u, total_kb);
    SetDataAvailableKb(3200);  // the capture needs 3,276 KB
    StartDaemon();
    EXPECT_TRUE(LogHas("Low space, threshold:3276KB, current available space of data is: "));
    EXPECT_FALSE(LogHas("get_zv_log_config zv_log_config_value="));
    EXPECT_FALSE(LogHas("start_log_service All Log Service Start Success."));
    EXPECT_TRUE(child_pids(daemon_.pid).empty());
    EXPECT_EQ(kOk, cmd_request(fd_, "AT\r"));
    EXPECT_EQ("\r\nKERNEL_LOG: 0\r\n\r\nOK\r\n", cmd_request(fd_, "SA+KERNEL_LOG?\r"));
}

TEST_F(CaptureTest, FullDataIsTracedAndTheChannelKeepsAnswering) {
    PrepareCaptureFolders();
    StartDaemon();
    SetDataAvailableKb(0);
    EXPECT_EQ(kOk, cmd_request(fd_, "AT\r"));
    // The switch and its reader take effect; only the settings file cannot be written.
    EXPECT_EQ(kErr, cmd_request(fd_, "SA+KERNEL_LOG=1\r"));
    EXPECT_EQ("\r\nKERNEL_LOG: 1\r\n\r\nOK\r\n", cmd_request(fd_, "SA+KERNEL_LOG?\r"));
    EXPECT_EQ(kErr, cmd_request(fd_, "SA+DMESG_LOG=1\r"));
    EXPECT_EQ(kOk, cmd_request(fd_, "SA+DATA_PACKETS_LOG=1\r"));
    EXPECT_EQ(kErr, cmd_request(fd_, "SA+KERNEL_LOG=0\r"));
    EXPECT_TRUE(Running(daemon_.pid));
    unlink("/data/filler");
    EXPECT_EQ(kOk, cmd_request(fd_, "SA+DMESG_LOG=0\r"));
    EXPECT_EQ(std::string("\x00\x20\x00\x20\x01", 5), read_file(kSettings));
}

TEST_F(CaptureTest, PropertyValueOfAnyShapeIsTracedAndTheDaemonKeepsServing) {
    const std::vector<std::string> shapes = {",,,,", "/data/local/log,I1", "/data/local/log,I1234,5,5",
                                             "/data/local/log,I1,5," + std::string(45, '9'),
                                             std::string("/data/\x01\xff,I1,x,y,I2")};
    PrepareCaptureFolders();
    for (size_t i = 0; i < shapes.size(); ++i) {
        SCOPED_TRACE(i);
        write_file(kLogConfigProp, shapes[i]);
        StartDaemon();
        EXPECT_TRUE(poll_until([] { return LogHas("Get log config failed!!!"); }, 10s));
        EXPECT_TRUE(LogHas("Parse zv log config failed"));
        EXPECT_TRUE(child_pids(daemon_.pid).empty());
        EXPECT_EQ(kOk, cmd_request(fd_, "AT\r"));
        EXPECT_EQ("\r\nDMESG_LOG: 0\r\n\r\nOK\r\n", cmd_request(fd_, "SA+DMESG_LOG?\r"));
        close(fd_);
        fd_ = -1;
        kill_and_reap(daemon_.pid);
        daemon_.pid = -1;
        // Nothing of this daemon may pass for the next one's: not its records, its sa.log lines (the
        // start-up line StartDaemon waits for) nor its links.
        unlink(kLogClientFile);
        unlink(kSaLog);
        unlink(kCmdLink);
        unlink(kListenerLink);
    }
}

TEST_F(CaptureTest, MissingLogcatAndTcpdumpAreTracedAndTheKernelReaderStillStarts) {
    PrepareCaptureFolders();
    Hide("/system/bin/logcat");
    Hide("/system/xbin/tcpdump");
    Hide("/system/lib/libexport_tcpdump.so");
    StartDaemon();
    ASSERT_TRUE(
        poll_until([] { return LogHas("start_log_service Not All Log Service Start Success."); }, 20s));
    EXPECT_TRUE(LogHas("start_zv_log_service no tcpdump exit"));
    EXPECT_TRUE(LogHas("start_logcat_service_ex File \"/system/bin/logcat\" is not exist."));
    EXPECT_TRUE(poll_until([] { return LogHas("read_kernel_log_loop buf_a["); }, 10s));
    // -118 | -100 | -100 | -100 | 0
    EXPECT_TRUE(HasMessage("start_log_service exit ret_val[" + std::to_string(-118L | -100L) + "]"));
    EXPECT_TRUE(child_pids(daemon_.pid).empty());
    EXPECT_EQ(kOk, cmd_request(fd_, "AT\r"));
}

TEST_F(CaptureTest, PacketsLogOffAfterOnEndsTheDaemonsProcessGroup) {
    PrepareCaptureFolders();
    StartDaemon();
    pid_t tcpdump = 0;
    std::vector<pid_t> logcats;
    ASSERT_TRUE(WaitCaptureChildren(&tcpdump, &logcats));
    EXPECT_EQ(kOk, cmd_request(fd_, "SA+DATA_PACKETS_LOG=1\r"));
    EXPECT_EQ(kOk, cmd_request(fd_, "SA+DATA_PACKETS_LOG=1\r"));
    ASSERT_TRUE(write_all(fd_, "SA+DATA_PACKETS_LOG=0\r"));
    int status = WaitDaemonEnd();
    ASSERT_TRUE(status != -1 && WIFSIGNALED(status)) << status;
    EXPECT_EQ(SIGKILL, WTERMSIG(status));
    // The capture children lead groups of their own and outlive it.
    EXPECT_TRUE(Running(tcpdump));
    for (pid_t pid : logcats) EXPECT_TRUE(Running(pid)) << pid;
}

// The PC's tcpdump in place of the fake one captures the handset's own loopback traffic.
TEST_F(CaptureTest, RealTcpdumpCapturesTheHandsetsLoopbackTraffic) {
    if (!file_exists("/usr/bin/tcpdump")) GTEST_SKIP() << "this PC has no /usr/bin/tcpdump to stand in";
    std::string wrapper = BuildDir() + "/handset/extra/real-tcpdump";
    ASSERT_TRUE(file_exists(wrapper)) << wrapper;
    Hide("/system/xbin/tcpdump");
    write_file("/system/xbin/tcpdump", read_file(wrapper), 0755);
    PrepareCaptureFolders();
    StartDaemon();
    pid_t tcpdump = 0;
    ASSERT_TRUE(poll_until(
        [&] {
            for (pid_t pid : child_pids(daemon_.pid))
                if (read_file("/proc/" + std::to_string(pid) + "/cmdline").find("/usr/bin/tcpdump") == 0)
                    tcpdump = pid;
            return tcpdump > 0;
        },
        10s));
    EXPECT_EQ("0\t0\t0\t0", StatusField(tcpdump, "Uid:"));  // kept root

    // UDP datagrams to a closed loopback port; tcpdump writes them out once its buffer fills.
    int sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(sock, 0);
    sockaddr_in to;
    memset(&to, 0, sizeof(to));
    to.sin_family = AF_INET;
    to.sin_port = htons(9);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const std::string payload = "zv-loopback-probe " + std::string(900, 'p');
    bool captured = poll_until(
        [&] {
            for (int i = 0; i < 20; ++i)
                sendto(sock, payload.data(), payload.size(), 0, reinterpret_cast<sockaddr *>(&to),
                       sizeof(to));
            return read_file("/data/local/log/ipdata.pcap0").find("zv-loopback-probe") != std::string::npos;
        },
        20s);
    close(sock);
    EXPECT_TRUE(captured);
    std::string pcap = read_file("/data/local/log/ipdata.pcap0");
    ASSERT_GE(pcap.size(), 24u);
    uint32_t magic = 0;
    memcpy(&magic, pcap.data(), sizeof(magic));
    EXPECT_EQ(0xa1b2c3d4u, magic);
}

}  // namespace
