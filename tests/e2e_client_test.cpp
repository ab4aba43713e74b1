// End-to-end tests of the client tool zv-sa-client against the real daemon in the handset.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "harness.h"

using namespace zvtest;
using namespace std::chrono_literals;

namespace {

constexpr char kClient[] = "/system/bin/zv-sa-client";
constexpr char kOut[] = "/tmp/client.out";

class ClientTest : public ::testing::Test {
   protected:
    void SetUp() override {
        daemon_ = start_daemon_with_links();
        ASSERT_FALSE(link_target(kCmdLink).empty());
    }
    void TearDown() override { kill_and_reap(daemon_.pid); }
    // Runs the client with a shell line (for redirections); returns its exit status, output in kOut.
    static int Run(const std::string &line) {
        unlink(kOut);
        pid_t pid = spawn({"/bin/sh", "-c", line + " >" + kOut + " 2>&1"});
        int status = wait_exit(pid, 60s);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    Daemon daemon_;
};

TEST_F(ClientTest, RequestsFromArgumentsPrintVisibleAnswers) {
    EXPECT_EQ(0, Run(std::string(kClient) + " AT 'SA+SYSTEM=\"touch /data/by-client\"'"));
    EXPECT_EQ("\\r\\nOK\\r\\n\n\\r\\nOK\\r\\n\n", read_file(kOut));
    EXPECT_TRUE(file_exists("/data/by-client"));
}

TEST_F(ClientTest, ErrorAnswerGivesExitStatusOne) {
    EXPECT_EQ(1, Run(std::string(kClient) + " 'SA+NO_SUCH=1'"));
    EXPECT_EQ("\\r\\nERROR: 4294967295\\r\\n\n", read_file(kOut));
}

TEST_F(ClientTest, RequestLinesFromStandardInput) {
    EXPECT_EQ(0, Run("printf 'AT\\n\\nat\\n' | " + std::string(kClient)));
    EXPECT_EQ("\\r\\nOK\\r\\n\n\\r\\nOK\\r\\n\n", read_file(kOut));
}

TEST_F(ClientTest, MissingLinkGivesExitStatusTwo) {
    EXPECT_EQ(2, Run(std::string(kClient) + " -l /dev/no-such-link AT"));
}

TEST_F(ClientTest, ShellCommandThroughTheListener) {
    EXPECT_EQ(0, Run(std::string(kClient) + " -s echo from-the-shell </dev/null"));
    EXPECT_NE(std::string::npos, read_file(kOut).find("from-the-shell"));
}

TEST_F(ClientTest, KillEndsTheDaemon) {
    EXPECT_EQ(0, Run(std::string(kClient) + " -k"));
    int status = wait_exit(daemon_.pid, 10s);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status));
    daemon_.pid = -1;
}

}  // namespace
