// End-to-end tests of the ballast rule on a small /data: the real daemon gives up the alphabetically last
// file of /data/.protect/ when less than 3 MiB are free at start-up, and nothing otherwise.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <string>

#include "harness.h"

using namespace zvtest;
using namespace std::chrono_literals;

namespace {

void Fill(uint64_t leave_free) {
    struct statfs st;
    ASSERT_EQ(0, statfs("/data", &st));
    uint64_t avail = static_cast<uint64_t>(st.f_bavail) * st.f_bsize;
    ASSERT_GT(avail, leave_free);
    int fd = open("/data/filler", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(0, posix_fallocate(fd, 0, static_cast<off_t>(avail - leave_free)));
    close(fd);
}

class BallastTest : public ::testing::Test {
   protected:
    void SetUp() override {
        prepare_data();
        mkdir("/data/.protect", 0700);
    }
    void TearDown() override {
        if (daemon_.pid > 0) kill_and_reap(daemon_.pid);
    }
    void StartAndWait() {
        daemon_ = start_daemon();
        ASSERT_TRUE(poll_until(
            [] { return find_message(sa_log_messages(), "main sa_cfg_init ret_val[0]") >= 0; }, 20s));
    }
    Daemon daemon_;
};

TEST_F(BallastTest, LowSpaceDeletesAlphabeticallyLastFileOnly) {
    for (auto name : {"b1", "b3", "b2"}) write_file(std::string("/data/.protect/") + name, "x");
    Fill(1024 * 1024);
    StartAndWait();
    EXPECT_TRUE(file_exists("/data/.protect/b1"));
    EXPECT_TRUE(file_exists("/data/.protect/b2"));
    EXPECT_FALSE(file_exists("/data/.protect/b3"));
    EXPECT_NE(std::string::npos, read_file(kLogClientFile).find("scan line /data/.protect/b3"));
}

TEST_F(BallastTest, EnoughSpaceDeletesNothing) {
    for (auto name : {"b1", "b2"}) write_file(std::string("/data/.protect/") + name, "x");
    Fill(6 * 1024 * 1024);
    StartAndWait();
    EXPECT_TRUE(file_exists("/data/.protect/b1"));
    EXPECT_TRUE(file_exists("/data/.protect/b2"));
}

TEST_F(BallastTest, EmptyFolderLogsThatNothingCanBeDeleted) {
    Fill(1024 * 1024);
    StartAndWait();
    EXPECT_NE(std::string::npos, read_file(kLogClientFile).find("!!!!!!error, no file can be delete."));
}

}  // namespace
