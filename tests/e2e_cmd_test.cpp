// End-to-end tests of the command channel: the real daemon in the simulated handset, driven through the
// link /dev/ttySA0 exactly as a host tool drives it, comparing the exact answer bytes.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "harness.h"

using namespace zvtest;
using namespace std::chrono_literals;

namespace {

constexpr char kOk[] = "\r\nOK\r\n";
constexpr char kErr[] = "\r\nERROR: 4294967295\r\n";

class CmdTest : public ::testing::Test {
   protected:
    void SetUp() override {
        switch_capture_off();  // descriptor counts below must see the channel alone
        daemon_ = start_daemon_with_links();
        ASSERT_GT(daemon_.pid, 0);
        ASSERT_FALSE(link_target(kCmdLink).empty()) << read_file(kSaLog);
        fd_ = open_client(kCmdLink);
        ASSERT_GE(fd_, 0);
    }
    void TearDown() override {
        if (fd_ >= 0) close(fd_);
        kill_and_reap(daemon_.pid);
    }
    // Number of times needle occurs in the log client's file.
    static int CountInLog(const std::string &needle) { return count_in_file(kLogClientFile, needle); }
    Daemon daemon_;
    int fd_ = -1;
};

TEST_F(CmdTest, AtProbeIsAnsweredOk) {
    EXPECT_EQ(kOk, cmd_request(fd_, "AT\r"));
}

TEST_F(CmdTest, LowerCaseAtProbeIsAnsweredOk) {
    EXPECT_EQ(kOk, cmd_request(fd_, "at\r"));
}

TEST_F(CmdTest, ProbeAnywhereInTheBufferIsAnsweredOk) {
    EXPECT_EQ(kOk, cmd_request(fd_, "xyzAT\rtail"));
}

TEST_F(CmdTest, MixedCaseProbeIsNotAProbe) {
    EXPECT_EQ(kErr, cmd_request(fd_, "At\r"));
}

TEST_F(CmdTest, SystemLineEndingInCatIsTakenForTheProbe) {
    // The buffer holds "at\r" (the end of "cat"), so the probe answers and nothing runs.
    EXPECT_EQ(kOk, cmd_request(fd_, "SA+SYSTEM=\"touch /data/probe-ran; cat\r\"\r"));
    EXPECT_FALSE(file_exists("/data/probe-ran"));
}

TEST_F(CmdTest, LowerCaseSaIsRefused) {
    EXPECT_EQ(kErr, cmd_request(fd_, "sa+system=\"touch /data/lower\"\r"));
    EXPECT_FALSE(file_exists("/data/lower"));
}

TEST_F(CmdTest, CommandNameMatchesWithoutRegardToCase) {
    EXPECT_EQ(kOk, cmd_request(fd_, "SA+system=\"touch /data/mixed\"\r"));
    EXPECT_TRUE(file_exists("/data/mixed"));
}

TEST_F(CmdTest, SpacesAroundNameAndEqualsAreSkipped) {
    EXPECT_EQ(kOk, cmd_request(fd_, "junk SA  +SYSTEM  =  \"touch /data/spaces\"\r"));
    EXPECT_TRUE(file_exists("/data/spaces"));
}

TEST_F(CmdTest, BareParameterFormGoesToTheSetHandler) {
    EXPECT_EQ(kOk, cmd_request(fd_, "SA+SYSTEM\"touch /data/bare\"\r"));
    EXPECT_TRUE(file_exists("/data/bare"));
}

TEST_F(CmdTest, TrailingCharactersAfterNameAreHandedToTheSetHandler) {
    // "+SYSTEMX" matches "+SYSTEM" by prefix; "X\r" is not a quoted command line.
    EXPECT_EQ(kErr, cmd_request(fd_, "SA+SYSTEMX\r"));
    EXPECT_TRUE(poll_until(
        [] { return find_message(sa_log_messages(), "handle_sa_cmd_req SA ret_val[0]") >= 0; }, 5s));
    EXPECT_EQ(1, CountInLog("req[X\r]"));
}

TEST_F(CmdTest, UnknownCommandIsRefused) {
    EXPECT_EQ(kErr, cmd_request(fd_, "SA+NO_SUCH_COMMAND=1\r"));
}

TEST_F(CmdTest, MissingSaIsRefused) {
    EXPECT_EQ(kErr, cmd_request(fd_, "+SYSTEM=\"true\"\r"));
}

TEST_F(CmdTest, EqualsQuestionFormIsRefusedEverywhere) {
    EXPECT_EQ(kErr, cmd_request(fd_, "SA+KERNEL_LOG=?\r"));
    EXPECT_EQ(kErr, cmd_request(fd_, "SA+SYSTEM=?\r"));
}

TEST_F(CmdTest, ReadFormWithoutReadHandlerIsRefused) {
    EXPECT_EQ(kErr, cmd_request(fd_, "SA+START_SERVICE?\r"));
    EXPECT_EQ(kErr, cmd_request(fd_, "SA+SYSTEM?\r"));
}

TEST_F(CmdTest, UnterminatedQuoteIsRefused) {
    EXPECT_EQ(kErr, cmd_request(fd_, "SA+SYSTEM=\"touch /data/unterminated\r"));
    EXPECT_FALSE(file_exists("/data/unterminated"));
}

TEST_F(CmdTest, CarriageReturnInsideQuotesDoesNotEndTheRequest) {
    EXPECT_EQ(kOk, cmd_request(fd_, "SA+SYSTEM=\"printf 'a\rb' > /data/quoted\"\r"));
    EXPECT_EQ("a\rb", read_file("/data/quoted"));
}

TEST_F(CmdTest, RequestSplitOverTwoWritesIsRefusedTwice) {
    EXPECT_EQ(kErr, cmd_request(fd_, "SA+SYSTEM=\"touch /data/split\""));
    EXPECT_EQ(kErr, cmd_request(fd_, "\r"));
    EXPECT_FALSE(file_exists("/data/split"));
    EXPECT_EQ(kOk, cmd_request(fd_, "AT\r"));  // the channel goes on
}

TEST_F(CmdTest, SystemTrueAnswersOkAfterOneRun) {
    EXPECT_EQ(kOk, cmd_request(fd_, "SA+SYSTEM=\"true\"\r"));
    EXPECT_EQ(1, CountInLog("PUB_UTIL_CALL_SYSTEM(0, true)"));
}

TEST_F(CmdTest, SystemFalseAnswersErrorAfterFiveRunsAndTwoAndAHalfSeconds) {
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(kErr, cmd_request(fd_, "SA+SYSTEM=\"false\"\r", 30s));
    auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, 2500ms);
    EXPECT_EQ(5, CountInLog("PUB_UTIL_CALL_SYSTEM(256, false)"));
    EXPECT_EQ(5, CountInLog("error(256) to exec: false"));
}

TEST_F(CmdTest, SystemLineEndingInAmpersandAnswersWhileTheWorkGoesOn) {
    EXPECT_EQ(kOk, cmd_request(fd_, "SA+SYSTEM=\"(sleep 2; touch /data/bg) &\"\r"));
    EXPECT_FALSE(file_exists("/data/bg"));
    EXPECT_TRUE(poll_until([] { return file_exists("/data/bg"); }, 20s));
}

TEST_F(CmdTest, BackgroundLineAnswersWithinTwoSeconds) {
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(kOk, cmd_request(fd_, "SA+SYSTEM=\"sleep 4 &\"\r"));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
}

TEST_F(CmdTest, EmptyQuotesAndMissingQuotesAreRefusedWithoutRunning) {
    EXPECT_EQ(kErr, cmd_request(fd_, "SA+SYSTEM=\"\"\r"));
    EXPECT_EQ(kErr, cmd_request(fd_, "SA+SYSTEM=true\r"));
    EXPECT_EQ(kErr, cmd_request(fd_, "SA+SYSTEM=\r"));
    EXPECT_EQ(0, CountInLog("PUB_UTIL_CALL_SYSTEM("));
}

TEST_F(CmdTest, RequestOf199BytesIsServedAnd200BytesIsSplit) {
    // "SA+SYSTEM=" (10) + quoted line + "\r": 199 bytes in all fit the request buffer.
    std::string line = "touch /data/r199 #";
    std::string req = "SA+SYSTEM=\"" + line + std::string(199 - 10 - 2 - 1 - line.size(), 'x') + "\"\r";
    ASSERT_EQ(199u, req.size());
    EXPECT_EQ(kOk, cmd_request(fd_, req));
    EXPECT_TRUE(file_exists("/data/r199"));

    // 200 bytes: the first 199 lack the "\r" (error), the last byte is judged on its own (error).
    std::string line2 = "touch /data/r200 #";
    std::string req2 = "SA+SYSTEM=\"" + line2 + std::string(200 - 10 - 2 - 1 - line2.size(), 'x') + "\"\r";
    ASSERT_EQ(200u, req2.size());
    std::string answer = cmd_request(fd_, req2);
    answer += read_until(
        fd_, [](const std::string &s) { return s.size() >= std::string(kErr).size(); }, 3s);
    EXPECT_EQ(std::string(kErr) + kErr, answer);
    EXPECT_FALSE(file_exists("/data/r200"));
}

// Number of times the command thread has re-published its pty after the client closed the slave. The
// kernel reuses the lowest free pty number, so the link's target name alone does not tell.
int ReopenCount() {
    int n = 0;
    for (const auto &m : sa_log_messages()) n += m.rfind("sa_handle_read_cmd_loop reopen m_ptm_fd[", 0) == 0;
    return n;
}

TEST_F(CmdTest, ReconnectGetsANewSlaveThroughTheSameLink) {
    EXPECT_EQ(kOk, cmd_request(fd_, "AT\r"));
    close(fd_);
    fd_ = -1;
    ASSERT_TRUE(poll_until([] { return ReopenCount() == 1; }, 10s)) << read_file(kSaLog);
    ASSERT_FALSE(link_target(kCmdLink).empty());
    fd_ = open_client(kCmdLink);
    ASSERT_GE(fd_, 0);
    EXPECT_EQ(kOk, cmd_request(fd_, "AT\r"));
    struct stat st;
    ASSERT_EQ(0, stat(kCmdLink, &st));
    EXPECT_EQ(0660u, st.st_mode & 0777);
    EXPECT_EQ(1000u, st.st_uid);
    EXPECT_EQ(1001u, st.st_gid);
}

TEST_F(CmdTest, TwoHundredReconnectsLeaveNoDescriptorBehind) {
    EXPECT_EQ(kOk, cmd_request(fd_, "AT\r"));
    close(fd_);
    fd_ = -1;
    ASSERT_TRUE(poll_until([] { return ReopenCount() == 1; }, 10s));
    int baseline = count_fds(daemon_.pid);
    for (int i = 0; i < 200; ++i) {
        int c = open_client(kCmdLink);
        ASSERT_GE(c, 0) << i;
        ASSERT_EQ(kOk, cmd_request(c, "AT\r")) << i;
        close(c);
        ASSERT_TRUE(poll_until([&] { return ReopenCount() == i + 2; }, 10s)) << i;
    }
    EXPECT_EQ(baseline, count_fds(daemon_.pid));
    EXPECT_FALSE(link_target(kCmdLink).empty());
}

TEST_F(CmdTest, ArbitraryBytesNeverCrashTheChannel) {
    unsigned seed = 12345;
    for (int i = 0; i < 300; ++i) {
        std::string junk;
        int len = 1 + static_cast<int>((seed = seed * 1103515245 + 12345) % 120);
        for (int k = 0; k < len; ++k)
            junk.push_back(static_cast<char>((seed = seed * 1103515245 + 12345) >> 16));
        ASSERT_TRUE(write_all(fd_, junk));
        read_for(fd_, 2ms);
    }
    // A last "\r" ends whatever was pending; every answer to the junk comes before the fence's (one
    // request after another), so after it the probe's answer is the only thing left to read.
    write_all(fd_, "\r");
    EXPECT_NE(std::string::npos, read_through_fence(fd_).find(kFenceAnswerStart));
    EXPECT_EQ(kOk, cmd_request(fd_, "AT\r"));
    EXPECT_EQ(0, kill(daemon_.pid, 0));
}

TEST_F(CmdTest, LocalPropIsPreparedAtStartUp) {
    ASSERT_TRUE(poll_until([] { return file_exists("/data/local.prop"); }, 10s));
    struct stat st;
    ASSERT_EQ(0, stat("/data/local.prop", &st));
    EXPECT_EQ(0666u, st.st_mode & 0777);
}

// ---- Start-up cases that need their own configuration ----

TEST(CmdStartup, EmptyMappingNameEndsTheCommandThreadButNotTheDaemon) {
    prepare_data();
    write_file("/system/etc/zv-qel-sa.cfg", "zv.log.size=1\n");
    Daemon d = start_daemon();
    ASSERT_TRUE(poll_until([] { return !link_target(kListenerLink).empty(); }, 20s));
    EXPECT_TRUE(poll_until(
        [] { return find_message(sa_log_messages(), "sa_handle_read_cmd_loop exit ret_val[-1]") >= 0; }, 10s))
        << read_file(kSaLog);
    EXPECT_EQ(0, kill(d.pid, 0));
    EXPECT_FALSE(file_exists(kCmdLink));
    EXPECT_NE(std::string::npos, read_file(kLogClientFile).find("[PTY]"));
    kill_and_reap(d.pid);
}

TEST(CmdStartup, StaleLinkIsReplaced) {
    prepare_data();
    ASSERT_EQ(0, symlink("/dev/pts/999", kCmdLink));  // left by a crashed run
    Daemon d = start_daemon_with_links();
    std::string target = link_target(kCmdLink);
    EXPECT_NE("", target);
    EXPECT_NE("/dev/pts/999", target);
    int fd = open_client(kCmdLink);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(kOk, cmd_request(fd, "AT\r"));
    close(fd);
    kill_and_reap(d.pid);
}

TEST(CmdStartup, RegularFileAtLinkPathIsReplaced) {
    prepare_data();
    write_file(kCmdLink, "stale");
    Daemon d = start_daemon_with_links();
    int fd = open_client(kCmdLink);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(kOk, cmd_request(fd, "AT\r"));
    close(fd);
    kill_and_reap(d.pid);
}

// Panic dumps left by the previous boot.
void WritePanic(const std::string &name, const std::string &content) {
    write_file("/data/dontpanic/" + name, content);
}

TEST(CmdStartup, OnlyConsoleDumpPresentRotatesAllThreeAndCopiesConsole) {
    prepare_data();
    WritePanic("apanic_console", "console-dump\n");
    write_file("/data/local/log/apanic_console", "old-console\n");
    write_file("/data/local/log/apanic_minidump", "old-mini\n");
    write_file("/data/local/log/apanic_threads", "old-threads\n");
    write_file("/data/local/log/apanic_threads.1", "older-threads\n");
    Daemon d = start_daemon_with_links();
    ASSERT_TRUE(poll_until([] { return !file_exists("/data/dontpanic/apanic_console"); }, 20s));
    ASSERT_TRUE(poll_until([] { return file_exists("/data/local.prop"); }, 20s));
    std::string copy = read_file("/data/local/log/apanic_console");
    EXPECT_EQ(0u, copy.find("console-dump\n"));
    EXPECT_GT(copy.size(), std::string("console-dump\n").size());  // stamped with the date
    EXPECT_EQ("old-console\n", read_file("/data/local/log/apanic_console.1"));
    EXPECT_EQ("old-mini\n", read_file("/data/local/log/apanic_minidump.1"));
    EXPECT_FALSE(file_exists("/data/local/log/apanic_minidump"));
    EXPECT_EQ("old-threads\n", read_file("/data/local/log/apanic_threads.1"));
    EXPECT_EQ("older-threads\n", read_file("/data/local/log/apanic_threads.2"));
    kill_and_reap(d.pid);
}

TEST(CmdStartup, NoDumpPresentRenamesNothing) {
    prepare_data();
    write_file("/data/local/log/apanic_console", "old-console\n");
    Daemon d = start_daemon_with_links();
    ASSERT_TRUE(poll_until([] { return file_exists("/data/local.prop"); }, 20s));
    EXPECT_EQ("old-console\n", read_file("/data/local/log/apanic_console"));
    EXPECT_FALSE(file_exists("/data/local/log/apanic_console.1"));
    kill_and_reap(d.pid);
}

TEST(CmdStartup, ThreeOlderGenerationsAreKept) {
    prepare_data();
    WritePanic("apanic_threads", "new\n");
    for (auto suffix : {"", ".1", ".2", ".3"})
        write_file(std::string("/data/local/log/apanic_threads") + suffix,
                   std::string("gen") + suffix + "\n");
    Daemon d = start_daemon_with_links();
    ASSERT_TRUE(poll_until([] { return !file_exists("/data/dontpanic/apanic_threads"); }, 20s));
    EXPECT_EQ("gen\n", read_file("/data/local/log/apanic_threads.1"));
    EXPECT_EQ("gen.1\n", read_file("/data/local/log/apanic_threads.2"));
    EXPECT_EQ("gen.2\n", read_file("/data/local/log/apanic_threads.3"));
    EXPECT_FALSE(file_exists("/data/local/log/apanic_threads.4"));
    EXPECT_EQ(0u, read_file("/data/local/log/apanic_threads").find("new\n"));
    kill_and_reap(d.pid);
}

}  // namespace
