// End-to-end tests of the answer that a client gave up on: the daemon still runs the request and writes
// its answer to the command pty later. A client after it must drop that answer when it is still to come
// on the pty it opened, and must not wait for it when the daemon has published another pty since (the
// kernel hands the freed number back, so the new pty often has the old one's name). Each test starts
// its own daemon; the request that outlives its client is a "system" line that sleeps, and the clients
// after it ask for the kernel log switch, whose answer ("KERNEL_LOG: 0") cannot be taken for the late
// "OK" of that line.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "client_run.h"
#include "harness.h"

using namespace zvtest;
using namespace std::chrono_literals;
using clienttest::Client;
using clienttest::Contains;
using clienttest::Result;

namespace {

constexpr char kReopen[] = "]sa_handle_read_cmd_loop reopen m_ptm_fd[";
constexpr char kSwitchOff[] = "kernel log: off\n";

// How many times the daemon has published a fresh command pty after its client left.
int Reopens() {
    return count_in_file(kSaLog, kReopen);
}

class ClientLateAnswerTest : public ::testing::Test {
   protected:
    void TearDown() override {
        if (daemon_.pid > 0) kill_and_reap(daemon_.pid);
    }
    void Start() {
        daemon_ = start_daemon_with_links();
        ASSERT_FALSE(link_target(kCmdLink).empty()) << read_file(kDaemonOut);
    }
    // A client that gives up after one second on a line the daemon runs for `seconds`.
    static void Abandon(int seconds) {
        Result r = Client("-t 1 system 'sleep " + std::to_string(seconds) + "; true'");
        ASSERT_EQ(124, r.status) << r.err;
    }
    // Waits until the daemon has answered the abandoned request into the pty its client left, met the
    // closed pty on its next read and published a fresh one.
    static void WaitForTheFreshPty(int reopens_before) {
        ASSERT_TRUE(poll_until([&] { return Reopens() > reopens_before; }, 20s)) << read_file(kSaLog);
    }
    // A client after the abandoned request gets its own answer at once.
    static void ExpectAnswered(const std::string &flags = "") {
        Result r = Client(flags + "kernel-log status", 30s);
        EXPECT_EQ(0, r.status) << r.err;
        EXPECT_EQ(kSwitchOff, r.out) << r.err;
        EXPECT_FALSE(Contains(r.err, "busy")) << r.err;
    }
    // A client that comes while the daemon still owes the answer drops it and gets its own.
    static void ExpectTheLateAnswerDropped() {
        Result r = Client("-v kernel-log status", 30s);
        EXPECT_EQ(0, r.status) << r.err;
        EXPECT_EQ(kSwitchOff, r.out) << r.err;
        EXPECT_TRUE(Contains(r.err, "dropped its answer \\r\\nOK\\r\\n")) << r.err;
    }
    Daemon daemon_;
};

TEST_F(ClientLateAnswerTest, AfterTheDaemonFinishedEveryLaterClientIsAnsweredOnAPtyOfTheSameName) {
    Start();
    std::string name = link_target(kCmdLink);
    int reopens = Reopens();
    ASSERT_NO_FATAL_FAILURE(Abandon(4));
    ASSERT_NO_FATAL_FAILURE(WaitForTheFreshPty(reopens));
    // The case in point: the fresh pty carries the name of the one the late answer went to.
    ASSERT_EQ(name, link_target(kCmdLink));
    ExpectAnswered();
    ExpectAnswered();
}

TEST_F(ClientLateAnswerTest, AfterTheDaemonFinishedAClientIsAnsweredOnAPtyOfAnotherName) {
    // A pty of the test's own holds the lowest number while the daemon starts, so the daemon's command
    // pty gets a higher one; freed later, the lower number goes to the daemon's fresh pty.
    int held = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(held, 0);
    Start();
    std::string name = link_target(kCmdLink);
    int reopens = Reopens();
    ASSERT_NO_FATAL_FAILURE(Abandon(3));
    close(held);
    ASSERT_NO_FATAL_FAILURE(WaitForTheFreshPty(reopens));
    ASSERT_NE(name, link_target(kCmdLink));
    ExpectAnswered();
    ExpectAnswered();
}

TEST_F(ClientLateAnswerTest, WhileTheDaemonIsBusyTheNextClientDropsTheLateAnswer) {
    Start();
    // The daemon runs the line for three seconds; the next client comes two seconds before its end.
    ASSERT_NO_FATAL_FAILURE(Abandon(3));
    ExpectTheLateAnswerDropped();
    ExpectAnswered();
}

TEST_F(ClientLateAnswerTest, AClientThatGaveUpWaitingForTheLateAnswerBlocksNoLaterOne) {
    Start();
    int reopens = Reopens();
    ASSERT_NO_FATAL_FAILURE(Abandon(4));
    // This one gives up too, before the daemon is done with the first request.
    Result r = Client("-t 1 kernel-log status");
    EXPECT_EQ(124, r.status) << r.err;
    EXPECT_TRUE(Contains(r.err, "still busy with an earlier request")) << r.err;
    ASSERT_NO_FATAL_FAILURE(WaitForTheFreshPty(reopens));
    ExpectAnswered();
    ExpectAnswered();
}

TEST_F(ClientLateAnswerTest, TwoClientsQueuedBehindAnAbandonedRequestAreBothAnswered) {
    Start();
    ASSERT_NO_FATAL_FAILURE(Abandon(3));
    // Both start while the daemon still runs the line; the one that gets the channel first drops the
    // late answer, the other waits for it and finds nothing owed.
    std::string c = std::string(clienttest::kClient) + " -v -t 30 kernel-log status";
    // By pid: the handset's shell, without job control, forgets a job that ended before its "wait %N".
    pid_t pid = spawn({"/bin/sh", "-c",
                       c + " >/tmp/b.out 2>/tmp/b.err & pb=$!; " + c +
                           " >/tmp/c.out 2>/tmp/c.err & pc=$!; wait $pb; b=$?; wait $pc; echo $b $? >/tmp/bc.status"});
    ASSERT_NE(-1, wait_exit(pid, 60s));
    EXPECT_EQ("0 0\n", read_file("/tmp/bc.status")) << read_file("/tmp/b.err") << read_file("/tmp/c.err");
    EXPECT_EQ(kSwitchOff, read_file("/tmp/b.out")) << read_file("/tmp/b.err");
    EXPECT_EQ(kSwitchOff, read_file("/tmp/c.out")) << read_file("/tmp/c.err");
    int dropped = Contains(read_file("/tmp/b.err"), "dropped its answer") +
                  Contains(read_file("/tmp/c.err"), "dropped its answer");
    EXPECT_EQ(1, dropped) << read_file("/tmp/b.err") << read_file("/tmp/c.err");
    ExpectAnswered();
}

TEST_F(ClientLateAnswerTest, AClientKilledWhileWaitingLeavesItsAnswerToBeDropped) {
    Start();
    // Killed with SIGKILL, the client records nothing on its way out.
    pid_t waiting = spawn({clienttest::kClient, "-t", "30", "system", "sleep 3; true"}, "/tmp/a.out");
    ASSERT_TRUE(poll_until([] { return count_in_file(kSaLog, "sleep 3; true") > 0; }, 10s))
        << read_file(kSaLog);
    kill_and_reap(waiting);
    ExpectTheLateAnswerDropped();
    ExpectAnswered();
}

TEST_F(ClientLateAnswerTest, AClientKilledAfterTheDaemonFinishedBlocksNoLaterOne) {
    Start();
    int reopens = Reopens();
    pid_t waiting = spawn({clienttest::kClient, "-t", "30", "system", "sleep 1; true"}, "/tmp/a.out");
    ASSERT_TRUE(poll_until([] { return count_in_file(kSaLog, "sleep 1; true") > 0; }, 10s));
    kill_and_reap(waiting);
    ASSERT_NO_FATAL_FAILURE(WaitForTheFreshPty(reopens));
    ExpectAnswered();
    ExpectAnswered();
}

}  // namespace
