// End-to-end tests of the remote shell as a user meets it on the handset, whose /system/bin/sh is mksh:
// zv-sa-client's shell verb against the real daemon, with its exact output and exit status, for a
// command line and for an interactive shell fed from a file.
#include <gtest/gtest.h>

#include <string>

#include "client_run.h"
#include "handset_shell.h"
#include "harness.h"

using namespace zvtest;
using namespace std::chrono_literals;
using clienttest::Client;
using clienttest::Result;

namespace {

class RemoteShellTest : public ::testing::Test {
   protected:
    void SetUp() override {
        daemon_ = start_daemon_with_links();
        ASSERT_FALSE(link_target(kListenerLink).empty()) << read_file(kSaLog);
    }
    void TearDown() override { kill_and_reap(daemon_.pid); }
    // Expects status and exact standard output (the shell's stderr is the pty too), nothing on stderr.
    static void Expect(const std::string &args, int status, const std::string &out) {
        Result r = Client(args);
        EXPECT_EQ(status, r.status) << args << "\n" << r.out << r.err;
        EXPECT_EQ(out, r.out) << args;
        EXPECT_EQ("", r.err) << args;
    }
    // Runs an interactive shell whose input is lines, as "zv-sa-client shell <FILE".
    static void ExpectInteractive(const std::string &lines, int status, const std::string &out) {
        ASSERT_TRUE(write_file("/tmp/lines.txt", lines));
        Expect("shell </tmp/lines.txt", status, out);
    }
    Daemon daemon_;
};

TEST_F(RemoteShellTest, CommandLineOutputAndExitStatus) {
    Expect("shell 'echo out; exit 0'", 0, "out\n");
    Expect("shell 'echo out; exit 7'", 7, "out\n");
    Expect("shell 'ls /nope; exit 7'", 7, "ls: /nope: No such file or directory\n");
    Expect("shell zv-nosuch", 127, shell_not_found("zv-nosuch"));
    Expect("shell 'kill -9 $$'", 128 + 9, "");
    Expect("shell 'kill -HUP $$'", 128 + 1, "");
}

TEST_F(RemoteShellTest, InteractiveShellShowsWarningsPromptsAndEchoedLines) {
    const std::string start = std::string(kShellWarnings) + kShellPrompt;
    ExpectInteractive("echo inside\nexit 5\n", 5,
                      start + shell_echo("echo inside") + "inside\n" + kShellPrompt + shell_echo("exit 5"));
    ExpectInteractive("exit\n", 0, start + shell_echo("exit"));
    // "exit" alone ends with the status of the last command.
    ExpectInteractive(
        "zv-nosuch\nexit\n", 127,
        start + shell_echo("zv-nosuch") + shell_not_found("zv-nosuch") + kShellPrompt + shell_echo("exit"));
    ExpectInteractive("kill -9 $$\n", 128 + 9, start + shell_echo("kill -9 $$"));
}

}  // namespace
