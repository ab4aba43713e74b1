// Tests of the /proc process lookup against real processes in the handset's own pid namespace. Test
// processes get chosen command lines through bash's "exec -a".
#include "sa-util.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <vector>
#include <fstream>
#include <string>
#include <thread>

#include "harness.h"

namespace {

// A process whose argv[0] is `argv0`; killed and reaped when the object goes.
class Proc {
   public:
    explicit Proc(const std::string &argv0, const std::string &seconds = "1000") {
        pid_ = fork();
        if (pid_ == 0) {
            execl("/bin/bash", "bash", "-c", ("exec -a '" + argv0 + "' /usr/bin/sleep " + seconds).c_str(),
                  static_cast<char *>(nullptr));
            _exit(127);
        }
        // Wait until the exec has replaced the command line.
        zvtest::poll_until([&] { return Cmdline().rfind(argv0, 0) == 0; }, std::chrono::seconds(10));
    }
    ~Proc() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    std::string Cmdline() const {
        std::ifstream in("/proc/" + std::to_string(pid_) + "/cmdline");
        return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    }
    pid_t pid() const { return pid_; }

   private:
    pid_t pid_;
};

TEST(SaUtilGetPid, FindsProcessByExactName) {
    Proc p("zvprobe-exact");
    int pid = -1;
    EXPECT_EQ(0, sa_util_get_pid("zvprobe-exact", &pid));
    EXPECT_EQ(p.pid(), pid);
}

TEST(SaUtilGetPid, NoMatchGivesZeroPidAndSuccess) {
    int pid = -1;
    EXPECT_EQ(0, sa_util_get_pid("zvprobe-nobody-has-this", &pid));
    EXPECT_EQ(0, pid);
}

TEST(SaUtilGetPid, PrefixOrMiddlePartOfArgv0Matches) {
    Proc p("/system/bin/zv-qel-mla1");
    int pid = 0;
    EXPECT_EQ(0, sa_util_get_pid("zv-qel-mla", &pid));
    EXPECT_EQ(p.pid(), pid);
    EXPECT_EQ(0, sa_util_get_pid("qel-mla1", &pid));
    EXPECT_EQ(p.pid(), pid);
}

TEST(SaUtilGetPid, ArgumentsAfterArgv0DoNotMatch) {
    Proc p("zvprobe-args", "987654");
    int pid = -1;
    EXPECT_EQ(0, sa_util_get_pid("987654", &pid));
    EXPECT_EQ(0, pid);
}

TEST(SaUtilGetPid, CommandLineStartingWithBlankNeverMatches) {
    Proc p(" zvprobe-blank");
    ASSERT_EQ(' ', p.Cmdline()[0]);
    int pid = -1;
    EXPECT_EQ(0, sa_util_get_pid("zvprobe-blank", &pid));
    EXPECT_EQ(0, pid);
}

TEST(SaUtilGetPid, BlankLedRewrittenCommandLineComparesFirstWordOnly) {
    Proc p("zvprobe-word second-word");
    int pid = -1;
    EXPECT_EQ(0, sa_util_get_pid("second-word", &pid));
    EXPECT_EQ(0, pid);
    EXPECT_EQ(0, sa_util_get_pid("zvprobe-word", &pid));
    EXPECT_EQ(p.pid(), pid);
}

TEST(SaUtilGetPid, EmptyCommandLineLikeKernelThreadNeverMatches) {
    // A zombie has an empty cmdline, as a kernel thread does.
    pid_t child = fork();
    if (child == 0) {
        execl("/bin/bash", "bash", "-c", "exec -a zvprobe-kthread /usr/bin/true",
              static_cast<char *>(nullptr));
        _exit(127);
    }
    std::string stat_path = "/proc/" + std::to_string(child) + "/stat";
    bool zombie = zvtest::poll_until(
        [&] {
            std::ifstream in(stat_path);
            std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
            size_t close_paren = stat.rfind(')');
            return close_paren != std::string::npos && stat.size() > close_paren + 2 &&
                   stat[close_paren + 2] == 'Z';
        },
        std::chrono::seconds(10));
    ASSERT_TRUE(zombie);
    std::ifstream in("/proc/" + std::to_string(child) + "/cmdline");
    std::string cmdline((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ("", cmdline);
    int pid = -1;
    EXPECT_EQ(0, sa_util_get_pid("zvprobe-kthread", &pid));
    EXPECT_EQ(0, pid);
    waitpid(child, nullptr, 0);
}

TEST(SaUtilGetPid, CommandLineIsComparedOnFirst511BytesOnly) {
    std::string inside = std::string(490, 'a') + "zvprobe-in";    // ends at byte 500
    std::string outside = std::string(505, 'b') + "zvprobe-out";  // starts at byte 505, ends past 511
    Proc p1(inside);
    Proc p2(outside);
    int pid = -1;
    EXPECT_EQ(0, sa_util_get_pid("zvprobe-in", &pid));
    EXPECT_EQ(p1.pid(), pid);
    EXPECT_EQ(0, sa_util_get_pid("zvprobe-out", &pid));
    EXPECT_EQ(0, pid);
    EXPECT_EQ(0, sa_util_get_pid(std::string(505, 'b').c_str(), &pid));
    EXPECT_EQ(p2.pid(), pid);
}

TEST(SaUtilGetPid, InvalidArgumentsReturnMinusOneAndLeavePid) {
    int pid = 42;
    EXPECT_EQ(-1, sa_util_get_pid(nullptr, &pid));
    EXPECT_EQ(-1, sa_util_get_pid("", &pid));
    EXPECT_EQ(42, pid);
    EXPECT_EQ(-1, sa_util_get_pid("x", nullptr));
}

TEST(SaUtilGetPids, CollectsAllMatchesZeroTerminated) {
    Proc a("zvprobe-many-1");
    Proc b("zvprobe-many-2");
    Proc c("zvprobe-many-3");
    int pids[8];
    for (int &p : pids) p = -7;
    int count = -1;
    EXPECT_EQ(0, sa_util_get_pids("zvprobe-many", pids, 8, &count));
    ASSERT_EQ(3, count);
    EXPECT_EQ(0, pids[3]);
    std::sort(pids, pids + 3);
    std::vector<int> expected{a.pid(), b.pid(), c.pid()};
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(expected, std::vector<int>(pids, pids + 3));
}

TEST(SaUtilGetPids, LengthTwoStoresOnePidAndStops) {
    Proc a("zvprobe-two-1");
    Proc b("zvprobe-two-2");
    int pids[4] = {-7, -7, -7, -7};
    int count = -1;
    EXPECT_EQ(0, sa_util_get_pids("zvprobe-two", pids, 2, &count));
    EXPECT_EQ(1, count);
    EXPECT_TRUE(pids[0] == a.pid() || pids[0] == b.pid());
    EXPECT_EQ(0, pids[1]);
    EXPECT_EQ(-7, pids[2]);  // nothing written past pids_length
}

TEST(SaUtilGetPids, NoMatchGivesCountZeroAndZeroFirstSlot) {
    int pids[4] = {9, 9, 9, 9};
    int count = -1;
    EXPECT_EQ(0, sa_util_get_pids("zvprobe-none-at-all", pids, 4, &count));
    EXPECT_EQ(0, count);
    EXPECT_EQ(0, pids[0]);
}

TEST(SaUtilGetPids, FindsTheCallingProcessItself) {
    std::ifstream in("/proc/self/cmdline");
    std::string self;
    std::getline(in, self, '\0');
    std::string name = self.substr(self.rfind('/') + 1);
    int pids[8];
    int count = 0;
    EXPECT_EQ(0, sa_util_get_pids(name.c_str(), pids, 8, &count));
    EXPECT_GE(count, 1);
    EXPECT_NE(pids + count, std::find(pids, pids + count, getpid()));
}

TEST(SaUtilGetPids, InvalidArgumentsReturnMinusOne) {
    int pids[4];
    int count = 0;
    EXPECT_EQ(-1, sa_util_get_pids(nullptr, pids, 4, &count));
    EXPECT_EQ(-1, sa_util_get_pids("", pids, 4, &count));
    EXPECT_EQ(-1, sa_util_get_pids("x", nullptr, 4, &count));
    EXPECT_EQ(-1, sa_util_get_pids("x", pids, 1, &count));
    EXPECT_EQ(-1, sa_util_get_pids("x", pids, 4, nullptr));
}

TEST(UtilIsProcessRunning, RunningAndNotRunning) {
    Proc p("zvprobe-running");
    int is_running = -1;
    int pid = -1;
    EXPECT_EQ(0, util_is_process_running("zvprobe-running", &is_running, &pid));
    EXPECT_EQ(1, is_running);
    EXPECT_EQ(p.pid(), pid);
    EXPECT_EQ(0, util_is_process_running("zvprobe-not-running", &is_running, &pid));
    EXPECT_EQ(0, is_running);
    EXPECT_EQ(0, pid);
}

TEST(UtilIsProcessRunning, InvalidArgumentsReturnMinus101) {
    int is_running = 0;
    int pid = 0;
    EXPECT_EQ(-101, util_is_process_running(nullptr, &is_running, &pid));
    EXPECT_EQ(-101, util_is_process_running("", &is_running, &pid));
    EXPECT_EQ(-101, util_is_process_running("x", nullptr, &pid));
    EXPECT_EQ(-101, util_is_process_running("x", &is_running, nullptr));
}

}  // namespace
