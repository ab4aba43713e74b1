// Tests of the capture launcher: identity, session, process group, out-of-memory adjustment, standard
// streams and reaping of the children it starts, run in a handset with the fake logcat and tcpdump.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "capture.h"
#include "sa-capture.h"

using namespace sa_capture_test;

namespace {

class LaunchTest : public ::testing::Test {
   protected:
    void SetUp() override {
        start_log_client();
        write_file("/data/local/tmp/fake-logcat.rate", "0\n");
    }
    // Launches the fake logcat writing to file; its pid once it runs logcat's own code.
    pid_t LaunchLogcat(const char *file) {
        char a0[] = "/system/bin/logcat";
        char a1[] = "-f";
        char a2[64];
        snprintf(a2, sizeof(a2), "%s", file);
        char *argv[] = {a0, a1, a2, nullptr};
        int pid = sa_create_subproc_thread("/system/bin/logcat", argv, 3);
        if (pid > 0) poll_until([&] { return !recorded_args("logcat-args", pid).empty(); }, 5s);
        return pid;
    }
};

std::string Trim(const std::string &s) {
    size_t b = s.find_first_not_of(" \t\n");
    size_t e = s.find_last_not_of(" \t\n");
    return b == std::string::npos ? "" : s.substr(b, e - b + 1);
}

TEST_F(LaunchTest, LogcatRunsAsShellUserAndLogGroupInAProcessGroupOfItsOwn) {
    pid_t pid = LaunchLogcat("/data/local/log/launch.log");
    ASSERT_GT(pid, 0);
    EXPECT_EQ("/system/bin/logcat -f /data/local/log/launch.log\n", recorded_args("logcat-args", pid));
    EXPECT_EQ("2000\t2000\t2000\t2000", Trim(proc_status_field(pid, "Uid:")));
    EXPECT_EQ("1007\t1007\t1007\t1007", Trim(proc_status_field(pid, "Gid:")));
    // It leads a group of its own; its setsid fails (a group leader cannot), so it stays in our session.
    EXPECT_EQ(pid, getpgid(pid));
    EXPECT_EQ(getsid(0), getsid(pid));
    EXPECT_EQ("0", Trim(read_file("/proc/" + std::to_string(pid) + "/oom_adj")));
    // Its standard streams are /dev/null.
    char target[64] = {0};
    std::string fd0 = "/proc/" + std::to_string(pid) + "/fd/0";
    ASSERT_GT(readlink(fd0.c_str(), target, sizeof(target) - 1), 0);
    EXPECT_STREQ("/dev/null", target);
    auto messages = sa_log_messages();
    EXPECT_GE(find_message(messages, "create_subprocess_ex child process pid[" + std::to_string(pid) + "]"),
              0);
    EXPECT_NE(std::string::npos, log_find("create_subprocess_ex tcpdump[0]"));
    EXPECT_NE(std::string::npos, log_find("sa_create_subproc_thread cmd[/system/bin/logcat] param_size[3]"));
}

TEST_F(LaunchTest, ChildLowersItsOomAdjToZeroWhateverTheDaemonsValue) {
    // Raise our own value (always allowed) so the child inherits 15 and has to lower it.
    int fd = open("/proc/self/oom_adj", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(2, write(fd, "15", 2));
    close(fd);
    ASSERT_EQ("15", Trim(read_file("/proc/self/oom_adj")));
    if (!zvtest::can_lower_oom_adj())
        GTEST_SKIP() << "this sandbox withholds CAP_SYS_RESOURCE, so no process may lower its oom_adj; "
                        "the launcher's write of \"0\" cannot take effect here";
    pid_t pid = LaunchLogcat("/data/local/log/oom.log");
    ASSERT_GT(pid, 0);
    EXPECT_EQ("0", Trim(read_file("/proc/" + std::to_string(pid) + "/oom_adj")));
}

TEST_F(LaunchTest, TcpdumpPathKeepsRootWithUmask077InTheRootFolder) {
    ASSERT_EQ(0, chdir("/data"));
    char a0[] = "tcpdump";
    char a1[] = "-w";
    char a2[] = "/data/local/log/launch.pcap";
    char *argv[] = {a0, a1, a2, nullptr};
    int pid = sa_create_subproc_thread("/system/xbin/tcpdump", argv, 3);
    ASSERT_EQ(0, chdir("/"));
    ASSERT_GT(pid, 0);
    ASSERT_TRUE(poll_until([] { return file_size("/data/local/log/launch.pcap") == 24; }, 5s));
    EXPECT_EQ("0\t0\t0\t0", Trim(proc_status_field(pid, "Uid:")));
    EXPECT_EQ("0\t0\t0\t0", Trim(proc_status_field(pid, "Gid:")));
    EXPECT_EQ("0077", Trim(proc_status_field(pid, "Umask:")));
    char cwd[64] = {0};
    std::string link = "/proc/" + std::to_string(pid) + "/cwd";
    ASSERT_GT(readlink(link.c_str(), cwd, sizeof(cwd) - 1), 0);
    EXPECT_STREQ("/", cwd);
    EXPECT_EQ(pid, getsid(pid));
    struct stat st;
    ASSERT_EQ(0, stat("/data/local/log/launch.pcap", &st));
    EXPECT_EQ(0600u, st.st_mode & 0777);
    EXPECT_NE(std::string::npos, log_find("create_subprocess_ex tcpdump[1]"));
}

TEST_F(LaunchTest, WrongProgramPathStillReturnsAPidAndTheWaiterReportsStatus255) {
    char a0[] = "/system/bin/no-such-logcat";
    char *argv[] = {a0, nullptr};
    int pid = sa_create_subproc_thread("/system/bin/no-such-logcat", argv, 1);
    ASSERT_GT(pid, 0);
    ASSERT_TRUE(poll_until(
        [] { return log_find("subproc_waiter_service Exit code[255]") != std::string::npos; }, 5s));
    EXPECT_NE(
        std::string::npos,
        log_find(
            "create_subprocess_ex execvp(/system/bin/no-such-logcat) ret_val[-1] error[2-No such file or "
            "directory]"));
    EXPECT_TRUE(poll_until([&] { return process_gone(pid); }, 5s));
    EXPECT_GE(find_message(sa_log_messages(),
                           "subproc_waiter_service pid[" + std::to_string(pid) + "] exit code[255]"),
              0);
}

TEST_F(LaunchTest, EverySuccessfulCallTakesAtLeast100Milliseconds) {
    for (int i = 0; i < 3; ++i) {
        auto start = std::chrono::steady_clock::now();
        char a0[] = "/system/bin/logcat";
        char *argv[] = {a0, nullptr};
        int pid = sa_create_subproc_thread("/system/bin/logcat", argv, 1);
        auto elapsed = std::chrono::steady_clock::now() - start;
        EXPECT_GT(pid, 0);
        EXPECT_GE(elapsed, 100ms);
    }
}

TEST_F(LaunchTest, MissingCommandOrVectorFailsAtOnce) {
    char a0[] = "x";
    char *argv[] = {a0, nullptr};
    EXPECT_EQ(-1, sa_create_subproc_thread(nullptr, argv, 1));
    EXPECT_EQ(-1, sa_create_subproc_thread("/system/bin/logcat", nullptr, 0));
    EXPECT_NE(std::string::npos, log_find("sa_create_subproc_thread parameters invalid"));
}

TEST_F(LaunchTest, ConcurrencyKilledChildrenAreReapedByTheirWaitersAndLeaveNoZombie) {
    std::vector<pid_t> pids;
    for (int i = 0; i < 4; ++i) {
        std::string file = "/data/local/log/kill" + std::to_string(i) + ".log";
        pid_t pid = LaunchLogcat(file.c_str());
        ASSERT_GT(pid, 0);
        pids.push_back(pid);
    }
    for (pid_t pid : pids) ASSERT_EQ(0, kill(pid, SIGKILL));
    for (pid_t pid : pids) EXPECT_TRUE(poll_until([&] { return process_gone(pid); }, 5s)) << pid;
    for (pid_t pid : pids) {
        std::string line = "subproc_waiter_service pid[" + std::to_string(pid) + "] killed by signal[9]";
        EXPECT_TRUE(poll_until([&] { return find_message(sa_log_messages(), line) >= 0; }, 5s)) << line;
    }
}

}  // namespace
