// Tests of the fake handset programs, run inside a handset where they are installed at their real paths.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <string.h>
#include <signal.h>
#include <stdint.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "harness.h"

namespace {

using namespace std::chrono_literals;

std::string ReadFile(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void WriteFile(const std::string &path, const std::string &text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

off_t FileSize(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

// Starts argv with stdout into out_path (or /dev/null); its pid.
pid_t Spawn(const std::vector<std::string> &argv, const std::string &out_path = "/dev/null") {
    pid_t pid = fork();
    if (pid == 0) {
        int fd = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd >= 0) dup2(fd, 1);
        std::vector<char *> args;
        for (const auto &a : argv) args.push_back(const_cast<char *>(a.c_str()));
        args.push_back(nullptr);
        execv(args[0], args.data());
        _exit(127);
    }
    return pid;
}

int KillAndReap(pid_t pid) {
    kill(pid, SIGKILL);
    int status = 0;
    waitpid(pid, &status, 0);
    return status;
}

class ToolsTest : public ::testing::Test {
   protected:
    void SetUp() override {
        mkdir("/data/local", 0751);
        mkdir("/data/local/tmp", 0771);
        mkdir("/data/local/tmp/logcat-args", 0777);
        mkdir("/data/local/log", 0771);
    }
};

TEST_F(ToolsTest, LogcatRecordsItsArgumentsAndWritesThreadtimeLines) {
    WriteFile("/data/local/tmp/fake-logcat.rate", "200\n");
    pid_t pid = Spawn({"/system/bin/logcat", "-r", "64", "-v", "threadtime", "-n", "3", "-f",
                       "/data/local/log/logcat.log"});
    ASSERT_GT(pid, 0);
    std::string args_file = "/data/local/tmp/logcat-args/" + std::to_string(pid);
    ASSERT_TRUE(zvtest::poll_until([&] { return !ReadFile(args_file).empty(); }, 5s));
    EXPECT_EQ("/system/bin/logcat -r 64 -v threadtime -n 3 -f /data/local/log/logcat.log\n",
              ReadFile(args_file));
    ASSERT_TRUE(zvtest::poll_until([] { return FileSize("/data/local/log/logcat.log") > 200; }, 5s));
    KillAndReap(pid);
    std::string text = ReadFile("/data/local/log/logcat.log");
    // "MM-DD hh:mm:ss.uuuuuu  PID  TID L TAG     : text"
    std::string first = text.substr(0, text.find('\n'));
    ASSERT_GT(first.size(), 40u) << first;
    EXPECT_EQ('-', first[2]);
    EXPECT_EQ('.', first[14]);
    EXPECT_NE(std::string::npos, first.find(" ActivityManager: fake log line 0")) << first;
}

TEST_F(ToolsTest, LogcatRotatesIntoCountMinusOneGenerations) {
    WriteFile("/data/local/tmp/fake-logcat.rate", "20000\n");
    pid_t pid = Spawn({"/system/bin/logcat", "-r", "1", "-n", "3", "-f", "/data/local/log/rot.log"});
    ASSERT_TRUE(zvtest::poll_until([] { return FileSize("/data/local/log/rot.log.2") > 1024; }, 10s));
    // Stop the writing before the kill, so that no rotation is half done (one generation renamed, the
    // next not yet) when the files are read. The fake reads its rate once a second: once no file has
    // changed for 1.5 s it writes no more and rotates no more.
    WriteFile("/data/local/tmp/fake-logcat.rate", "0\n");
    auto sizes = [] {
        return std::vector<long long>{FileSize("/data/local/log/rot.log"), FileSize("/data/local/log/rot.log.1"),
                                      FileSize("/data/local/log/rot.log.2")};
    };
    std::vector<long long> last = sizes();
    auto since = std::chrono::steady_clock::now();
    ASSERT_TRUE(zvtest::poll_until(
        [&] {
            std::vector<long long> now = sizes();
            if (now != last) {
                last = now;
                since = std::chrono::steady_clock::now();
            }
            return std::chrono::steady_clock::now() - since >= 1500ms;
        },
        20s));
    KillAndReap(pid);
    EXPECT_LE(FileSize("/data/local/log/rot.log"), 1024 + 256);
    EXPECT_GT(FileSize("/data/local/log/rot.log.1"), 1024);
    EXPECT_EQ(-1, FileSize("/data/local/log/rot.log.3"));
}

TEST_F(ToolsTest, LogcatRateZeroWritesNothingAndFilterNamesTheTag) {
    WriteFile("/data/local/tmp/fake-logcat.rate", "0\n");
    pid_t pid = Spawn({"/system/bin/logcat", "-f", "/data/local/log/emsd.log", "-s", "EMSD:V"});
    std::string args_file = "/data/local/tmp/logcat-args/" + std::to_string(pid);
    ASSERT_TRUE(zvtest::poll_until([&] { return !ReadFile(args_file).empty(); }, 5s));
    // With rate 0 nothing is written: once the output file is open the loop runs, and 300 ms are 30 of
    // its 10 ms ticks, in which a logcat that ignored the rate (default 10 lines/s) would have written
    // about three lines. Then raise the rate: lines appear, all with the filter's tag.
    ASSERT_TRUE(zvtest::poll_until([] { return FileSize("/data/local/log/emsd.log") >= 0; }, 5s));
    ASSERT_FALSE(zvtest::poll_until([] { return FileSize("/data/local/log/emsd.log") > 0; }, 300ms));
    WriteFile("/data/local/tmp/fake-logcat.rate", "500\n");
    ASSERT_TRUE(zvtest::poll_until([] { return FileSize("/data/local/log/emsd.log") > 100; }, 5s));
    KillAndReap(pid);
    std::string text = ReadFile("/data/local/log/emsd.log");
    EXPECT_NE(std::string::npos, text.find(" EMSD    : fake log line")) << text;
    EXPECT_EQ(std::string::npos, text.find("ActivityManager"));
}

TEST_F(ToolsTest, LogcatEventsBufferUsesAnEventsTag) {
    WriteFile("/data/local/tmp/fake-logcat.rate", "500\n");
    pid_t pid = Spawn({"/system/bin/logcat", "-b", "events", "-f", "/data/local/log/ev.log"});
    ASSERT_TRUE(zvtest::poll_until([] { return FileSize("/data/local/log/ev.log") > 100; }, 5s));
    KillAndReap(pid);
    EXPECT_NE(std::string::npos, ReadFile("/data/local/log/ev.log").find(" am_proc_start: fake log line"));
}

TEST_F(ToolsTest, DmesgPrintsKernelStyleLines) {
    pid_t pid = Spawn({"/system/bin/dmesg"}, "/data/dmesg.out");
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    std::string text = ReadFile("/data/dmesg.out");
    EXPECT_EQ(0u, text.find("<6>[    0.000000] Booting Linux on physical CPU 0x0\n"));
    EXPECT_EQ(5, std::count(text.begin(), text.end(), '\n'));
}

TEST_F(ToolsTest, TcpdumpRecordsArgumentsAndStartsTheFirstRingFile) {
    pid_t pid = Spawn({"/system/xbin/tcpdump", "-p", "-i", "any", "-w", "/data/local/log/ipdata.pcap", "-C",
                       "9", "-W", "5"});
    ASSERT_TRUE(zvtest::poll_until([] { return FileSize("/data/local/log/ipdata.pcap0") == 24; }, 5s));
    std::string args_file = "/data/local/tmp/tcpdump-args/" + std::to_string(pid);
    ASSERT_TRUE(zvtest::poll_until([&] { return !ReadFile(args_file).empty(); }, 5s));
    EXPECT_EQ("/system/xbin/tcpdump -p -i any -w /data/local/log/ipdata.pcap -C 9 -W 5\n",
              ReadFile(args_file));
    std::string header = ReadFile("/data/local/log/ipdata.pcap0");
    uint32_t magic = 0;
    memcpy(&magic, header.data(), sizeof(magic));
    EXPECT_EQ(0xa1b2c3d4u, magic);
    // It keeps running until killed.
    EXPECT_EQ(0, waitpid(pid, nullptr, WNOHANG));
    int status = KillAndReap(pid);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
}

}  // namespace
