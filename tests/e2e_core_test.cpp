// End-to-end tests of the daemon's start-up: trace file rotation and lines, the structured log header
// and banner, the pid file, the single-instance rule, options and log backups, run as the real binary in
// the simulated handset.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "harness.h"

using namespace zvtest;
using namespace std::chrono_literals;

namespace {

constexpr char kUsage[] =
    "\nUsage: /system/bin/zv-qel-sa [OPTION]\n"
    "  -d <device name>       Set the device that communicate with modem.\n"
    "  -p <log path>          Special the path that save the ATA log files.\n"
    "  -c <count>             Special the count that backup the ATA log files.\n"
    "  -h                     Display this help and exit.\n\n";

constexpr char kLiveLogDir[] = "/data/local/log/zv-qel-sa/zv-qel-sa-log";

class CoreTest : public ::testing::Test {
   protected:
    void SetUp() override { prepare_data(); }
    void TearDown() override {
        if (daemon_.pid > 0) kill_and_reap(daemon_.pid);
    }
    // Starts the daemon and waits until start-up has finished (the ring mark is the last step before
    // the listener), or the process ended.
    void StartAndWaitStartedUp(const std::vector<std::string> &args = {}) {
        daemon_ = start_daemon(args);
        ASSERT_GT(daemon_.pid, 0);
        ASSERT_TRUE(poll_until(
            [] { return find_message(sa_log_messages(), "main sa_cfg_init ret_val[0]") >= 0; }, 20s))
            << read_file(kSaLog);
    }
    Daemon daemon_;
};

TEST_F(CoreTest, StartupWritesTraceLinesHeaderBannerAndPidFile) {
    StartAndWaitStartedUp();
    std::string log = read_file(kLogClientFile);
    EXPECT_TRUE(
        poll_until([] { return read_file(kLogClientFile).find("Build time: ") != std::string::npos; }, 10s));
    log = read_file(kLogClientFile);
    // Header: date line, blank line, rule, column header, rule.
    std::string rule(92, '=');
    std::string header_cols =
        "    TIME     |   TID    |              FUNCTION              |  LINE  |    LEVEL     | INFO";
    EXPECT_NE(std::string::npos, log.find("\n\n" + rule + "\n" + header_cols + "\n" + rule + "\n")) << log;
    // Banner lines.
    EXPECT_NE(std::string::npos, log.find("\n    zv-qel-sa, version 001.001\n    Build time: ")) << log;
    // Pid file: decimal pid and a newline.
    ASSERT_TRUE(poll_until([] { return file_exists("/tmp/zv-qel-sa.pid"); }, 10s));
    EXPECT_EQ(std::to_string(daemon_.pid) + "\n", read_file("/tmp/zv-qel-sa.pid"));
}

TEST_F(CoreTest, TraceLinesHaveTimestampPrefixAndFunctionName) {
    StartAndWaitStartedUp();
    auto lines = read_lines(kSaLog);
    ASSERT_FALSE(lines.empty());
    for (const auto &line : lines) {
        ASSERT_GE(line.size(), 21u) << line;
        // [MM-DD hh:mm:ss.mmm]
        EXPECT_EQ('[', line[0]);
        EXPECT_EQ('-', line[3]);
        EXPECT_EQ(' ', line[6]);
        EXPECT_EQ(':', line[9]);
        EXPECT_EQ(':', line[12]);
        EXPECT_EQ('.', line[15]);
        EXPECT_EQ(']', line[19]);
        for (int i : {1, 2, 4, 5, 7, 8, 10, 11, 13, 14, 16, 17, 18}) EXPECT_TRUE(isdigit(line[i])) << line;
    }
}

TEST_F(CoreTest, SecondStartIsRefusedWhileOneRuns) {
    // Another process of the daemon's name is running.
    pid_t other = spawn({"/bin/bash", "-c", "exec -a zv-qel-sa /usr/bin/sleep 1000"});
    ASSERT_TRUE(poll_until(
        [&] { return read_file("/proc/" + std::to_string(other) + "/cmdline").rfind("zv-qel-sa", 0) == 0; },
        10s));
    daemon_ = start_daemon();
    int status = wait_exit(daemon_.pid, 20s);
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(0, WEXITSTATUS(status));
    daemon_.pid = -1;
    EXPECT_EQ("zv-qel-sa already run.\n", read_file(kDaemonOut));
    auto messages = sa_log_messages();
    ASSERT_FALSE(messages.empty());
    EXPECT_EQ("main already running exit", messages.back());
    EXPECT_FALSE(file_exists("/tmp/zv-qel-sa.pid"));
    EXPECT_FALSE(file_exists(kLogClientFile));  // the log client was never started
    kill_and_reap(other);
}

TEST_F(CoreTest, SecondStartOfTheRealDaemonIsRefused) {
    StartAndWaitStartedUp();
    Daemon second = start_daemon();
    int status = wait_exit(second.pid, 20s);
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(0, WEXITSTATUS(status));
    EXPECT_NE(std::string::npos, read_file(kDaemonOut).find("zv-qel-sa already run.\n"));
    EXPECT_EQ(0, kill(daemon_.pid, 0));  // the first one goes on
    EXPECT_EQ(std::to_string(daemon_.pid) + "\n", read_file("/tmp/zv-qel-sa.pid"));
}

TEST_F(CoreTest, DashDPrintsUsageAndExitsZero) {
    daemon_ = start_daemon({"-d", "/dev/ttyX"});
    int status = wait_exit(daemon_.pid, 20s);
    daemon_.pid = -1;
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status));
    EXPECT_EQ(kUsage, read_file(kDaemonOut));
    auto messages = sa_log_messages();
    ASSERT_FALSE(messages.empty());
    EXPECT_EQ("prompt_usage exit", messages.back());
    EXPECT_FALSE(file_exists("/tmp/zv-qel-sa.pid"));
}

TEST_F(CoreTest, DashHPrintsUsageAndExitsZero) {
    daemon_ = start_daemon({"-h"});
    int status = wait_exit(daemon_.pid, 20s);
    daemon_.pid = -1;
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status));
    EXPECT_EQ(kUsage, read_file(kDaemonOut));
}

TEST_F(CoreTest, UnknownOptionPrintsUsage) {
    daemon_ = start_daemon({"-x"});
    int status = wait_exit(daemon_.pid, 20s);
    daemon_.pid = -1;
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status));
    // getopt complains on stderr (same file) before the usage text.
    EXPECT_NE(std::string::npos, read_file(kDaemonOut).find(kUsage));
}

// Marks a folder with a file naming its origin.
void MakeGeneration(const std::string &dir, const std::string &tag) {
    make_dirs(dir);
    write_file(dir + "/origin", tag);
}

TEST_F(CoreTest, DashCFiveRotatesFiveLogBackups) {
    std::string live = kLiveLogDir;
    MakeGeneration(live, "live");
    for (int i = 1; i <= 5; ++i) MakeGeneration(live + "-" + std::to_string(i), "backup" + std::to_string(i));
    StartAndWaitStartedUp({"-c", "5"});
    EXPECT_EQ("live", read_file(live + "-1/origin"));
    for (int i = 2; i <= 5; ++i)
        EXPECT_EQ("backup" + std::to_string(i - 1), read_file(live + "-" + std::to_string(i) + "/origin"))
            << i;
    EXPECT_FALSE(file_exists(live + "-6"));
    EXPECT_FALSE(file_exists(live + "/origin"));  // a new live folder
    EXPECT_TRUE(file_exists(kLogClientFile));
}

TEST_F(CoreTest, DefaultBackupCountIsTwo) {
    std::string live = kLiveLogDir;
    MakeGeneration(live, "live");
    MakeGeneration(live + "-1", "backup1");
    MakeGeneration(live + "-2", "backup2");
    MakeGeneration(live + "-3", "backup3");
    StartAndWaitStartedUp();
    EXPECT_EQ("live", read_file(live + "-1/origin"));
    EXPECT_EQ("backup1", read_file(live + "-2/origin"));
    EXPECT_EQ("backup3", read_file(live + "-3/origin"));  // beyond the count: untouched
}

TEST_F(CoreTest, DashPHasNoLastingEffectOnTheLogFolder) {
    StartAndWaitStartedUp({"-p", "/data/elsewhere"});
    EXPECT_TRUE(file_exists(kLogClientFile));
    EXPECT_FALSE(file_exists("/data/elsewhere"));
}

TEST_F(CoreTest, SaLogRotationKeepsFiveGenerations) {
    write_file(kSaLog, "gen0");
    for (int i = 1; i <= 5; ++i)
        write_file(std::string(kSaLog) + "." + std::to_string(i), "gen" + std::to_string(i));
    StartAndWaitStartedUp();
    for (int i = 1; i <= 5; ++i)
        EXPECT_EQ("gen" + std::to_string(i - 1), read_file(std::string(kSaLog) + "." + std::to_string(i)))
            << i;
    EXPECT_FALSE(file_exists(std::string(kSaLog) + ".6"));
    std::string fresh = read_file(kSaLog);
    EXPECT_EQ(std::string::npos, fresh.find("gen"));
    struct stat st;
    ASSERT_EQ(0, stat(kSaLog, &st));
    EXPECT_EQ(2000u, st.st_uid);
    EXPECT_EQ(1007u, st.st_gid);
    EXPECT_EQ(0644u, st.st_mode & 07777);
}

TEST_F(CoreTest, SaLogRotationWithGapMovesOnlyThatFile) {
    write_file(std::string(kSaLog) + ".3", "gen3");
    StartAndWaitStartedUp();
    EXPECT_EQ("gen3", read_file(std::string(kSaLog) + ".4"));
    EXPECT_FALSE(file_exists(std::string(kSaLog) + ".3"));
    EXPECT_FALSE(file_exists(std::string(kSaLog) + ".1"));
    EXPECT_FALSE(file_exists(std::string(kSaLog) + ".2"));
    EXPECT_FALSE(file_exists(std::string(kSaLog) + ".5"));
}

TEST_F(CoreTest, MissingConfigurationIsNotFatal) {
    unlink("/system/etc/zv-qel-sa.cfg");
    StartAndWaitStartedUp();
    EXPECT_NE(std::string::npos,
              read_file(kLogClientFile).find("fail to open file: /system/etc/zv-qel-sa.cfg"));
}

TEST_F(CoreTest, GarbageConfigurationIsNotFatal) {
    std::string garbage;
    for (int i = 0; i < 4096; ++i) garbage.push_back(static_cast<char>((i * 37 + 11) % 256));
    write_file("/system/etc/zv-qel-sa.cfg", garbage);
    StartAndWaitStartedUp();
}

TEST_F(CoreTest, ConfigurationValuesAreTraced) {
    write_file("/system/etc/zv-qel-sa.cfg", "zv.tty.cmd = /dev/ttySA0\nzv.log.size = 1234\n");
    StartAndWaitStartedUp();
    std::string log = read_file(kLogClientFile);
    EXPECT_NE(std::string::npos, log.find("[cfg]zv.tty.cmd = /dev/ttySA0"));
    EXPECT_NE(std::string::npos, log.find("[cfg]zv.log.size = 1234"));
}

}  // namespace
