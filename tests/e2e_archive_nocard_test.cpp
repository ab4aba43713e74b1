// End-to-end test of "+SAVE_LOG" on a handset without a card: /storage has no real_sd at all, so neither
// the card's log root nor the dated folder under it can be made.
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
constexpr char kErr[] = "\r\nERROR: 4294967295\r\n";

TEST(ArchiveNoCardE2eTest, SaveFailsFiveTimesForRootAndFolderAndAnswersErrorOnce) {
    ASSERT_FALSE(file_exists("/storage/real_sd"));
    Daemon daemon = start_daemon_with_links();
    ASSERT_GT(daemon.pid, 0);
    int fd = open_client(kCmdLink);
    ASSERT_GE(fd, 0);

    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(kErr, cmd_request(fd, "SA+SAVE_LOG\r"));
    // Ten failed attempts, each followed by a 50 ms pause.
    EXPECT_GE(std::chrono::steady_clock::now() - start, 500ms);
    // Exactly one answer. The command thread answers one request after another, so a second answer
    // would come before the fence's; the quiet 1.5 s before it also catches one written from elsewhere
    // (the attempts above are 50 ms apart, so a late writer would have shown itself well within it).
    EXPECT_EQ("", read_for(fd, 1500ms));
    EXPECT_EQ(0u, read_through_fence(fd).rfind(kFenceAnswerStart, 0));

    std::string log = read_file(kLogClientFile);
    const std::string enoent = ") faild errno[2] strerror[No such file or directory]";
    EXPECT_EQ(5u, count_in(log, "sa_mkdir mkdir(/storage/real_sd/logs" + enoent));
    EXPECT_EQ(10u, count_in(log, enoent));
    size_t folder_at = log.find("sa_mkdir log_path_ptr[/storage/real_sd/logs/");
    ASSERT_NE(std::string::npos, folder_at);
    size_t end = log.find(']', folder_at);
    std::string folder = log.substr(folder_at + strlen("sa_mkdir log_path_ptr["),
                                    end - folder_at - strlen("sa_mkdir log_path_ptr["));
    EXPECT_EQ(5u, count_in(log, "sa_mkdir mkdir(" + folder + enoent));
    EXPECT_NE(std::string::npos, log.find("can not open path \"" + folder + "\""));
    EXPECT_NE(std::string::npos, log.find("handle_sa_save_log_set ret_val[-118]"));
    EXPECT_EQ(0u, count_in(log, "PUB_UTIL_CALL_SYSTEM(0, busybox cp /data/local/log "));
    EXPECT_GE(find_message(sa_log_messages(), "handle_sa_save_log_set exit ret_val[-118]"), 0);
    EXPECT_FALSE(file_exists("/storage/real_sd"));

    // The daemon goes on serving.
    EXPECT_EQ(kOk, cmd_request(fd, "AT\r"));
    close(fd);
    kill_and_reap(daemon.pid);
}

}  // namespace
