// End-to-end tests of what the client tool sends and what it refuses, against the real daemon: a word
// that is neither a verb nor a request line, and a shell command longer than the listener reads at
// once, are usage errors before anything is sent; a remote shell's output reaches stdout even when
// the trace file never tells the shell's pid or status.
#include <gtest/gtest.h>

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

// One line of sa.log for every request the command thread reads.
constexpr char kRequestRead[] = "]handle_sa_cmd_req req[";
// One line of sa.log for every request the listener reads.
constexpr char kListenerRead[] = "]sa_listener_loop sa_listener_loop service[";

class ClientLinesTest : public ::testing::Test {
   protected:
    void SetUp() override {
        daemon_ = start_daemon_with_links();
        ASSERT_FALSE(link_target(kCmdLink).empty()) << read_file(kDaemonOut);
    }
    void TearDown() override { kill_and_reap(daemon_.pid); }
    Daemon daemon_;
};

TEST_F(ClientLinesTest, MistypedVerbsAreRefusedAndNothingIsSent) {
    int requests = count_in_file(kSaLog, kRequestRead);
    struct Case {
        const char *args;
        const char *err;
    };
    const Case cases[] = {
        {"savelog", "zv-sa-client: unknown verb 'savelog' (did you mean save-log?)\n"},
        {"save", "zv-sa-client: unknown verb 'save' (did you mean save-log?)\n"},
        {"sanity", "zv-sa-client: unknown verb 'sanity' (did you mean start?)\n"},
        {"'Sa+QUERY_SERVICE=\"zv-qel-sa\"'",
         "zv-sa-client: 'Sa+QUERY_SERVICE=\"zv-qel-sa\"' is not a request line: the daemon takes SA in "
         "capitals, and AT or at (raw sends a line as it is)\n"},
        {"At", "zv-sa-client: 'At' is not a request line"},
        {"AT savelog", "zv-sa-client: unknown verb 'savelog' (did you mean save-log?)\n"},
    };
    for (const Case &c : cases) {
        Result r = Client(c.args);
        EXPECT_EQ(2, r.status) << c.args;
        EXPECT_EQ("", r.out) << c.args;
        EXPECT_EQ(0u, r.err.find(c.err)) << c.args << "\n" << r.err;
    }
    // Typed at the prompt, too.
    ASSERT_TRUE(write_file("/tmp/lines.txt", "savelog\nSa+SAVE_LOG\n"));
    Result typed = Client("</tmp/lines.txt");
    EXPECT_EQ(2, typed.status);
    EXPECT_EQ("", typed.out);
    EXPECT_TRUE(Contains(typed.err, "unknown verb 'savelog' (did you mean save-log?)")) << typed.err;
    EXPECT_TRUE(Contains(typed.err, "'Sa+SAVE_LOG' is not a request line")) << typed.err;
    // The daemon reads its requests in order: once the probe is answered, any line one of the calls
    // above had sent would have been read and traced before it.
    Result probe = Client("AT");
    EXPECT_EQ(0, probe.status) << probe.err;
    EXPECT_EQ(requests + 1, count_in_file(kSaLog, kRequestRead)) << read_file(kSaLog);
    EXPECT_EQ(0, count_in_file(kSaLog, "savelog"));
    EXPECT_EQ(0, count_in_file(kSaLog, "Sa+"));
}

TEST_F(ClientLinesTest, TheProbeInLowerCaseIsARequestLine) {
    Result r = Client("at");
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ("\\r\\nOK\\r\\n\n", r.out);
    EXPECT_EQ(1, count_in_file(kSaLog, "]handle_sa_cmd_req req[at\r]"));
}

TEST_F(ClientLinesTest, AShellCommandTheListenerCannotReadWholeIsRefused) {
    // "shell:" and the command in one read of 1023 bytes: a command of 1017 bytes is the longest.
    std::string longest = "echo long-ok; : " + std::string(1017 - 16, 'x');
    ASSERT_EQ(1017u, longest.size());
    int reads = count_in_file(kSaLog, kListenerRead);
    Result refused = Client("shell '" + longest + "x'");
    EXPECT_EQ(2, refused.status);
    EXPECT_EQ("", refused.out);
    EXPECT_TRUE(Contains(refused.err, "so at most 1017")) << refused.err;
    Result whole = Client("shell '" + longest + "'");
    EXPECT_EQ(0, whole.status) << whole.err;
    EXPECT_EQ("long-ok\n", whole.out) << whole.err;
    // The listener read one request between the two calls, the long one, whole.
    EXPECT_EQ(reads + 1, count_in_file(kSaLog, kListenerRead));
    EXPECT_EQ(1, count_in_file(kSaLog, kListenerRead + ("shell:" + longest + "]\n")));
}

TEST_F(ClientLinesTest, ShellOutputIsCopiedWhenTheTraceFileNamesNoPid) {
    // The daemon's trace lines go nowhere: the client never learns the shell's pid or status.
    ASSERT_EQ(0, unlink(kSaLog));
    ASSERT_EQ(0, symlink("/dev/null", kSaLog));
    Result r = Client("shell 'echo out-of-a-shell; exit 3'");
    EXPECT_EQ(2, r.status);
    EXPECT_EQ("out-of-a-shell\n", r.out);
    EXPECT_EQ(
        "zv-sa-client: the shell's exit status is unknown: /data/local/log/sa.log does not say how it "
        "ended\n",
        r.err);
}

}  // namespace
