// End-to-end tests of the remote shell listener on /dev/ttysa1: a peer writes a request, reads back the
// name of a fresh pty, opens it, acknowledges, and talks to the shell on it.
#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

#include "handset_shell.h"
#include "harness.h"

using namespace zvtest;
using namespace std::chrono_literals;

namespace {

// One request on the listener: the connection's slave, opened before the acknowledgement.
struct Connection {
    std::string name;
    int slave = -1;
};

class ListenerTest : public ::testing::Test {
   protected:
    void SetUp() override {
        switch_capture_off();  // thread, child and descriptor counts below must see the listener alone
        daemon_ = start_daemon_with_links();
        ASSERT_GT(daemon_.pid, 0);
        ASSERT_FALSE(link_target(kListenerLink).empty()) << read_file(kSaLog);
        listener_ = open_client(kListenerLink);
        ASSERT_GE(listener_, 0);
    }
    void TearDown() override {
        if (listener_ >= 0) close(listener_);
        kill_and_reap(daemon_.pid);
    }
    // Sends request, reads the connection name, opens it, then acknowledges.
    Connection Request(const std::string &request) {
        Connection c;
        EXPECT_TRUE(write_all(listener_, request));
        c.name = read_until(
            listener_, [](const std::string &s) { return !s.empty(); }, 10s);
        EXPECT_EQ(0u, c.name.rfind("/dev/pts/", 0)) << c.name;
        c.slave = open_client(c.name);
        EXPECT_GE(c.slave, 0) << c.name;
        EXPECT_TRUE(write_all(listener_, "ok"));
        return c;
    }
    // Reads the slave until the master is closed (read fails or ends); returns everything read.
    static std::string ReadToClose(int fd, std::chrono::milliseconds timeout, bool *closed = nullptr) {
        std::string got;
        auto deadline = std::chrono::steady_clock::now() + timeout;
        while (std::chrono::steady_clock::now() < deadline) {
            pollfd p{fd, POLLIN, 0};
            if (poll(&p, 1, 50) <= 0) continue;
            char buf[256];
            ssize_t n = read(fd, buf, sizeof(buf));
            if (n <= 0) {
                if (closed != nullptr) *closed = true;
                return got;
            }
            got.append(buf, static_cast<size_t>(n));
        }
        if (closed != nullptr) *closed = false;
        return got;
    }
    static int CountInLog(const std::string &needle) { return count_in_file(kLogClientFile, needle); }
    Daemon daemon_;
    int listener_ = -1;
};

TEST_F(ListenerTest, ShellWithCommandRunsItOnTheNewPty) {
    make_dirs("/data/zz-marker");
    Connection c = Request("shell:ls /data");
    bool closed = false;
    std::string out = ReadToClose(c.slave, 10s, &closed);
    EXPECT_NE(std::string::npos, out.find("zz-marker")) << out;
    EXPECT_TRUE(closed);
    close(c.slave);
    EXPECT_TRUE(poll_until([] { return CountInLog("subproc_waiter_service Exit code[0]") == 1; }, 10s));
    // The shell's own lines in sa.log, written between fork and exec and after the wait.
    auto messages = sa_log_messages();
    bool child_line = false;
    for (const auto &m : messages)
        child_line = child_line || m.rfind("create_subprocess child process pid[", 0) == 0;
    EXPECT_TRUE(child_line);
    EXPECT_GE(find_message(messages, "create_subprocess parent process"), 0);
}

// Milliseconds since midnight of a sa.log line's "[MM-DD hh:mm:ss.mmm]" stamp, or -1.
long StampMs(const std::string &line) {
    int mon, day, h, m, sec, ms;
    if (sscanf(line.c_str(), "[%2d-%2d %2d:%2d:%2d.%3d]", &mon, &day, &h, &m, &sec, &ms) != 6) return -1;
    return ((h * 60L + m) * 60L + sec) * 1000L + ms;
}

long NowMs() {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    struct tm tm_now;
    localtime_r(&ts.tv_sec, &tm_now);
    return ((tm_now.tm_hour * 60L + tm_now.tm_min) * 60L + tm_now.tm_sec) * 1000L + ts.tv_nsec / 1000000;
}

TEST_F(ListenerTest, InteractiveShellExitCodeIsTracedAndMasterClosedAfterGrace) {
    Connection c = Request("shell:");
    ASSERT_TRUE(write_all(c.slave, "echo hi; exit 3\n"));
    std::string out = read_until(
        c.slave, [](const std::string &s) { return s.find("hi\n") != std::string::npos; }, 10s);
    ASSERT_NE(std::string::npos, out.find("hi\n")) << out;
    bool closed = false;
    ReadToClose(c.slave, 10s, &closed);
    long closed_ms = NowMs();
    EXPECT_TRUE(closed);
    EXPECT_TRUE(poll_until([] { return CountInLog("subproc_waiter_service Exit code[3]") == 1; }, 10s));
    // The waiter writes "pid[N] exit code[3]" just before its grace period; the master closes after it.
    long exit_ms = -1;
    for (const auto &line : read_lines(kSaLog)) {
        if (line.find("] exit code[3]") != std::string::npos) exit_ms = StampMs(line);
    }
    ASSERT_GE(exit_ms, 0);
    EXPECT_GE(closed_ms - exit_ms, 195);  // stamps are cut to the millisecond
    EXPECT_LT(closed_ms - exit_ms, 5000);
    close(c.slave);
}

TEST_F(ListenerTest, ShellKilledBySigkillIsReportedAsSignalNine) {
    Connection c = Request("shell:sleep 100");
    pid_t shell = 0;
    ASSERT_TRUE(poll_until(
        [&] {
            for (pid_t p : child_pids(daemon_.pid)) {
                if (read_file("/proc/" + std::to_string(p) + "/cmdline").find("sleep") != std::string::npos)
                    shell = p;
            }
            return shell > 0;
        },
        10s));
    ASSERT_EQ(0, kill(shell, SIGKILL));
    EXPECT_TRUE(
        poll_until([] { return CountInLog("subproc_waiter_service Killed by signal[9]") == 1; }, 10s));
    close(c.slave);
}

TEST_F(ListenerTest, HostKillEndsTheDaemonWithStatusZero) {
    ASSERT_TRUE(write_all(listener_, "host:kill"));
    int status = wait_exit(daemon_.pid, 10s);
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(0, WEXITSTATUS(status));
    daemon_.pid = -1;
    auto messages = sa_log_messages();
    EXPECT_GE(find_message(messages, "sa_listener_loop host:kill exit"), 0);
}

TEST_F(ListenerTest, HostKillWithNewlineIsServedAsUnknownRequest) {
    Connection c = Request("host:kill\n");
    bool closed = false;
    std::string out = ReadToClose(c.slave, 10s, &closed);
    EXPECT_TRUE(closed);
    EXPECT_EQ("", out);
    close(c.slave);
    EXPECT_EQ(0, kill(daemon_.pid, 0));
    EXPECT_EQ(1, CountInLog("handle_service ret[-1]"));
    EXPECT_TRUE(child_pids(daemon_.pid).empty());
}

TEST_F(ListenerTest, TwoRequestsInOneReadFormOneRequest) {
    Connection c = Request("shell:echo oneshell:echo two");
    std::string out = ReadToClose(c.slave, 10s);
    EXPECT_NE(std::string::npos, out.find("oneshell:echo two")) << out;
    close(c.slave);
}

TEST_F(ListenerTest, ClosingThePeerSideRecreatesTheLinkAndTheLoopGoesOn) {
    close(listener_);
    listener_ = -1;
    ASSERT_TRUE(poll_until(
        [] {
            return find_message(sa_log_messages(), "sa_listener_loop exit") < 0 &&
                   read_file(kLogClientFile).find("sa_listener_loop reopen fd[") != std::string::npos;
        },
        10s));
    ASSERT_FALSE(link_target(kListenerLink).empty());
    listener_ = open_client(kListenerLink);
    ASSERT_GE(listener_, 0);
    Connection c = Request("shell:echo again");
    EXPECT_NE(std::string::npos, ReadToClose(c.slave, 10s).find("again"));
    close(c.slave);
}

TEST_F(ListenerTest, PeerThatNeverAcknowledgesBlocksOnlyTheListener) {
    ASSERT_TRUE(write_all(listener_, "shell:true"));
    std::string name = read_until(
        listener_, [](const std::string &s) { return !s.empty(); }, 10s);
    ASSERT_EQ(0u, name.rfind("/dev/pts/", 0));
    // No acknowledgement: the command channel still answers.
    EXPECT_EQ("\r\nOK\r\n", cmd_request_once("AT\r"));
}

TEST_F(ListenerTest, ShellOomAdjustmentIsZero) {
    // Raise the daemon's own value first, so that the shell has to lower it.
    write_file("/proc/" + std::to_string(daemon_.pid) + "/oom_adj", "5");
    ASSERT_NE("0\n", read_file("/proc/" + std::to_string(daemon_.pid) + "/oom_adj"));
    if (!can_lower_oom_adj())
        GTEST_SKIP() << "the handset runs without CAP_SYS_RESOURCE: a process may not lower its oom_adj here";
    Connection c = Request("shell:cat /proc/self/oom_adj");
    EXPECT_EQ("0\n", ReadToClose(c.slave, 10s));
    close(c.slave);
}

TEST_F(ListenerTest, ShellInheritsNoDescriptorButItsPty) {
    // ls is run by the shell; what it inherited besides 0, 1 and 2 came from the daemon.
    Connection c = Request("shell:ls -l /proc/self/fd | cat");
    std::string out = ReadToClose(c.slave, 10s);
    close(c.slave);
    std::vector<std::string> fds;
    size_t pos = 0;
    while ((pos = out.find(" -> ", pos)) != std::string::npos) {
        size_t start = out.rfind(' ', pos - 1) + 1;
        pos += 4;
        // The handset's ls (toybox) reads the folder through descriptors of its own: /proc/<its pid>/fd.
        std::string target = out.substr(pos, out.find('\n', pos) - pos);
        bool own = target.rfind("/proc/", 0) == 0 && target.find("/fd", 6) == target.size() - 3;
        if (!own) fds.push_back(out.substr(start, pos - 4 - start));
    }
    // 0 and 2 are the pty, 1 the pipe to cat.
    EXPECT_EQ((std::vector<std::string>{"0", "1", "2"}), fds) << out;
}

TEST_F(ListenerTest, HundredShellsLeaveNoZombieThreadOrDescriptor) {
    int threads = count_threads(daemon_.pid);
    Connection warm = Request("shell:true");
    ReadToClose(warm.slave, 10s);
    close(warm.slave);
    ASSERT_TRUE(poll_until([&] { return count_threads(daemon_.pid) == threads; }, 10s))
        << count_threads(daemon_.pid);
    int fds = count_fds(daemon_.pid);
    for (int i = 0; i < 100; ++i) {
        Connection c = Request("shell:true");
        bool closed = false;
        ReadToClose(c.slave, 10s, &closed);
        ASSERT_TRUE(closed) << i;
        close(c.slave);
    }
    EXPECT_TRUE(poll_until([&] { return count_threads(daemon_.pid) == threads; }, 10s))
        << count_threads(daemon_.pid);
    EXPECT_TRUE(poll_until([&] { return count_fds(daemon_.pid) == fds; }, 10s)) << count_fds(daemon_.pid);
    EXPECT_TRUE(child_pids(daemon_.pid).empty());
    // sa.log keeps every line (the structured log is a ring of 100 KB).
    EXPECT_TRUE(poll_until(
        [] {
            int n = 0;
            for (const auto &m : sa_log_messages()) n += m.find("] exit code[0]") != std::string::npos;
            return n == 101;
        },
        10s));
}

TEST_F(ListenerTest, AnyRequestUpToTheReadLimitIsServedWithoutCrash) {
    std::string junk;
    for (int i = 0; i < 1023; ++i) junk.push_back(static_cast<char>(1 + (i * 7919) % 255));
    Connection c = Request(junk);
    bool closed = false;
    ReadToClose(c.slave, 10s, &closed);
    EXPECT_TRUE(closed);
    close(c.slave);
    Connection s = Request("shell:echo alive");
    EXPECT_NE(std::string::npos, ReadToClose(s.slave, 10s).find("alive"));
    close(s.slave);
}

// Whether some sa.log message begins with prefix.
bool HasMessageStarting(const std::string &prefix) {
    for (const auto &m : sa_log_messages())
        if (m.rfind(prefix, 0) == 0) return true;
    return false;
}

TEST_F(ListenerTest, EveryListenerStepLeavesItsSaLogLine) {
    Connection c = Request("zv-unknown");
    ASSERT_TRUE(poll_until([] { return HasMessageStarting("handle_service handle_service ret[-1]"); }, 10s))
        << read_file(kSaLog);
    close(c.slave);
    for (const char *prefix : {
             "sa_listener_loop sa_listener_loop fd[",
             "sa_listener_loop sa_listener_loop size[10] service[zv-unknown]",
             "sa_listener_loop sa_listener_loop service[zv-unknown]",
             "open_ptm_connection open_ptm_connection fd1[",
             "open_ptm_connection open_ptm_connection fd[",
             "open_ptm_connection open_ptm_connection write size[",
             "open_ptm_connection open_ptm_connection read size[2]",
             "sa_listener_loop sa_listener_loop fd_pair[",
             "handle_service handle_service fd[",
         })
        EXPECT_TRUE(HasMessageStarting(prefix)) << prefix;
    // The peer hangs up: the reopen has its line too.
    close(listener_);
    listener_ = -1;
    EXPECT_TRUE(
        poll_until([] { return HasMessageStarting("sa_listener_loop sa_listener_loop reopen fd["); }, 10s))
        << read_file(kSaLog);
}

// A non-empty folder where the listener's link belongs: no link can be made there.
void BlockListenerName() {
    unlink(kListenerLink);
    make_dirs(std::string(kListenerLink) + "/blocked");
}

void UnblockListenerName() {
    rmdir((std::string(kListenerLink) + "/blocked").c_str());
    rmdir(kListenerLink);
}

TEST_F(ListenerTest, FailedReopenStillClosesTheListenerNameAndEndsTheLoop) {
    BlockListenerName();
    // The open client keeps the old slave; closing it makes the daemon's read fail with EIO.
    close(listener_);
    listener_ = -1;
    int status = wait_exit(daemon_.pid, 20s);
    UnblockListenerName();
    EXPECT_TRUE(WIFEXITED(status)) << status;
    const std::string records = read_file(kLogClientFile);
    EXPECT_NE(std::string::npos, records.find("sa_listener_loop reopen fd[-1]")) << records;
    EXPECT_NE(std::string::npos, records.find("close_ptm fd[-1] symname[/dev/ttysa1]")) << records;
    EXPECT_NE(std::string::npos, records.find("sa_listener_loop exit loop"));
    EXPECT_GE(find_message(sa_log_messages(), "sa_listener_loop exit"), 0);
    if (status != -1) daemon_.pid = -1;  // reaped: nothing left for the tear-down to kill
}

TEST_F(ListenerTest, InteractiveShellWarnsTwiceThenPromptsAndEchoesEachLine) {
    Connection c = Request("shell:");
    EXPECT_EQ(std::string(kShellWarnings) + kShellPrompt, read_to_prompt(c.slave));
    ASSERT_TRUE(write_all(c.slave, "echo hi\n"));
    EXPECT_EQ(shell_echo("echo hi") + "hi\n" + kShellPrompt, read_to_prompt(c.slave));
    ASSERT_TRUE(write_all(c.slave, "zv-nosuch\n"));
    EXPECT_EQ(shell_echo("zv-nosuch") + shell_not_found("zv-nosuch") + kShellPrompt, read_to_prompt(c.slave));
    ASSERT_TRUE(write_all(c.slave, "exit 3\n"));
    bool closed = false;
    EXPECT_EQ(shell_echo("exit 3"), ReadToClose(c.slave, 10s, &closed));
    EXPECT_TRUE(closed);
    close(c.slave);
    EXPECT_TRUE(poll_until([] { return CountInLog("subproc_waiter_service Exit code[3]") == 1; }, 10s));
}

TEST_F(ListenerTest, InteractiveShellReadsLinesSentBeforeItsFirstPrompt) {
    // A client that copies a file sends every line at once, before the shell has started.
    Connection c = Request("shell:");
    ASSERT_TRUE(write_all(c.slave, "echo one\necho two\nexit 4\n"));
    bool closed = false;
    std::string out = ReadToClose(c.slave, 10s, &closed);
    EXPECT_TRUE(closed);
    EXPECT_EQ(std::string(kShellWarnings) + kShellPrompt + shell_echo("echo one") + "one\n" + kShellPrompt +
                  shell_echo("echo two") + "two\n" + kShellPrompt + shell_echo("exit 4"),
              out);
    close(c.slave);
    EXPECT_TRUE(poll_until([] { return CountInLog("subproc_waiter_service Exit code[4]") == 1; }, 10s));
}

TEST_F(ListenerTest, ShellWithCommandNeitherWarnsNorEchoes) {
    // Not interactive: the shell writes the command's output alone, and ends with its status.
    Connection c = Request("shell:echo out; zv-nosuch; exit 7");
    bool closed = false;
    EXPECT_EQ("out\n" + shell_not_found("zv-nosuch"), ReadToClose(c.slave, 10s, &closed));
    EXPECT_TRUE(closed);
    close(c.slave);
    EXPECT_TRUE(poll_until([] { return CountInLog("subproc_waiter_service Exit code[7]") == 1; }, 10s));
}

TEST(ListenerStartup, ListenerThatCannotOpenStillClosesItsNameAndTheDaemonEnds) {
    prepare_data();
    write_file("/system/etc/zv-qel-sa.cfg", std::string("zv.tty.cmd=") + kCmdLink + "\n");
    BlockListenerName();
    Daemon d = start_daemon();
    int status = wait_exit(d.pid, 20s);
    UnblockListenerName();
    EXPECT_TRUE(WIFEXITED(status)) << status;
    if (!WIFEXITED(status)) kill_and_reap(d.pid);
    const std::string records = read_file(kLogClientFile);
    EXPECT_NE(std::string::npos, records.find("sa_listener_loop fd[-1]")) << records;
    EXPECT_NE(std::string::npos, records.find("close_ptm fd[-1] symname[/dev/ttysa1]")) << records;
    EXPECT_NE(std::string::npos, records.find("sa_listener_loop exit loop"));
    EXPECT_GE(find_message(sa_log_messages(), "sa_listener_loop sa_listener_loop fd[-1]"), 0);
}

TEST(ListenerStartup, ExistingFileAtTheLinkNameIsReplaced) {
    write_file(kListenerLink, "not a link");
    Daemon d = start_daemon_with_links();
    struct stat st;
    ASSERT_EQ(0, lstat(kListenerLink, &st));
    EXPECT_TRUE(S_ISLNK(st.st_mode));
    EXPECT_EQ(0u, link_target(kListenerLink).rfind("/dev/pts/", 0));
    kill_and_reap(d.pid);
}

}  // namespace
