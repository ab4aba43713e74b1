// End-to-end test of "+SAVE_LOG" onto a full card (a 64 KiB card that a filler file fills): the folders
// are made, every copy fails and is retried, and the save still answers OK once.
#include <gtest/gtest.h>

#include <string.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "archive.h"
#include "harness.h"

using namespace zvtest;
using namespace archive_test;
using namespace std::chrono_literals;

namespace {

constexpr char kOk[] = "\r\nOK\r\n";

TEST(ArchiveFullCardE2eTest, CopiesFailAndAreRetriedButTheSaveAnswersOkOnce) {
    // The folders first, then a filler takes every block that is left.
    make_dirs("/storage/real_sd/logs");
    ASSERT_TRUE(fill_file_system("/storage/real_sd"));

    Daemon daemon = start_daemon_with_links();
    ASSERT_GT(daemon.pid, 0);
    int fd = open_client(kCmdLink);
    ASSERT_GE(fd, 0);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(kOk, cmd_request(fd, "SA+SAVE_LOG\r", 60s));
    // The log folder copy alone runs five times with a 500 ms pause after each run.
    EXPECT_GE(std::chrono::steady_clock::now() - start, 2500ms);
    // Exactly one answer. The command thread answers one request after another, so a second answer
    // would come before the fence's; the quiet 1.5 s before it (three of the copy's 500 ms pauses) also
    // catches one written from elsewhere.
    EXPECT_EQ("", read_for(fd, 1500ms));
    EXPECT_EQ(0u, read_through_fence(fd).rfind(kFenceAnswerStart, 0));

    std::string log = read_file(kLogClientFile);
    size_t at = log.find("sa_mkdir log_path_ptr[/storage/real_sd/logs/");
    ASSERT_NE(std::string::npos, at);
    at += strlen("sa_mkdir log_path_ptr[");
    std::string folder = log.substr(at, log.find(']', at) - at);
    EXPECT_NE(std::string::npos, log.find("sa_mkdir mkdir(" + folder + ") successfully"));
    EXPECT_EQ(5u, count_in(log, "to exec: busybox cp /data/local/log " + folder + "/ -R"));
    size_t failed = log.find("handle_sa_save_log_set [3]do_sys_command cp /data/local/log ret_val[-118] ");
    ASSERT_NE(std::string::npos, failed);
    // The dumps after it still ran.
    EXPECT_NE(std::string::npos, log.find(", bugreport > " + folder + "/bugreport.log)", failed));
    EXPECT_NE(std::string::npos, log.find(", busybox cp /data/tombstones  " + folder + " -R)", failed));
    EXPECT_GE(find_message(sa_log_messages(), "handle_sa_save_log_set exit ret_val[0]"), 0);
    close(fd);
    kill_and_reap(daemon.pid);
}

}  // namespace
