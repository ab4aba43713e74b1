// Tests of the configuration file reader against real files at /system/etc/zv-qel-sa.cfg.
#include "sa-cfg.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

namespace {

void WriteCfg(const std::string &content) {
    int fd = open(SA_CFG_FILE, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(static_cast<ssize_t>(content.size()), write(fd, content.data(), content.size()));
    close(fd);
}

TEST(SaCfg, MissingFileLeavesDefaultsAndReturnsZero) {
    unlink(SA_CFG_FILE);
    sa_cfg_st.m_log_size = 77;
    EXPECT_EQ(0, sa_cfg_init());
    EXPECT_STREQ("", sa_cfg_st.m_tty_cmd_a);
    EXPECT_EQ(0u, sa_cfg_st.m_log_size);
}

TEST(SaCfg, PlainKeysAreRead) {
    WriteCfg("zv.tty.cmd=/dev/ttySA0\nzv.log.size=2048\n");
    EXPECT_EQ(0, sa_cfg_init());
    EXPECT_STREQ("/dev/ttySA0", sa_cfg_st.m_tty_cmd_a);
    EXPECT_EQ(2048u, sa_cfg_st.m_log_size);
}

TEST(SaCfg, BlanksAroundKeyAndValueAndCrLfAreTrimmed) {
    WriteCfg("  zv.tty.cmd   =   /dev/ttySA0  \r\n");
    EXPECT_EQ(0, sa_cfg_init());
    EXPECT_STREQ("/dev/ttySA0", sa_cfg_st.m_tty_cmd_a);
}

TEST(SaCfg, CommentAndLineWithoutEqualsAreIgnored) {
    WriteCfg("#zv.tty.cmd=/dev/commented\n   # zv.log.size=5\nzv.tty.cmd /dev/noequals\nzv.log.size=9\n");
    EXPECT_EQ(0, sa_cfg_init());
    EXPECT_STREQ("", sa_cfg_st.m_tty_cmd_a);
    EXPECT_EQ(9u, sa_cfg_st.m_log_size);
}

TEST(SaCfg, EmptyValueIsIgnoredAndKeepsEarlierValue) {
    WriteCfg("zv.tty.cmd=/dev/ttySA0\nzv.tty.cmd=\nzv.tty.cmd =   \r\n");
    EXPECT_EQ(0, sa_cfg_init());
    EXPECT_STREQ("/dev/ttySA0", sa_cfg_st.m_tty_cmd_a);
}

TEST(SaCfg, LastOccurrenceWins) {
    WriteCfg("zv.tty.cmd=/dev/first-long-name\nzv.tty.cmd=/dev/b\n");
    EXPECT_EQ(0, sa_cfg_init());
    EXPECT_STREQ("/dev/b", sa_cfg_st.m_tty_cmd_a);
}

TEST(SaCfg, FortyCharacterValueKeepsFirst27) {
    std::string value = "/dev/" + std::string(35, 'x');
    ASSERT_EQ(40u, value.size());
    WriteCfg("zv.tty.cmd=" + value + "\n");
    EXPECT_EQ(0, sa_cfg_init());
    EXPECT_EQ(value.substr(0, 27), std::string(sa_cfg_st.m_tty_cmd_a));
}

TEST(SaCfg, TabBeforeKeyDoesNotMatch) {
    WriteCfg("\tzv.tty.cmd=/dev/ttySA0\n");
    EXPECT_EQ(0, sa_cfg_init());
    EXPECT_STREQ("", sa_cfg_st.m_tty_cmd_a);
}

TEST(SaCfg, TwoEqualsSplitAtFirstAndValueKeepsSecond) {
    WriteCfg("zv.tty.cmd=/dev/a=b\n");
    EXPECT_EQ(0, sa_cfg_init());
    EXPECT_STREQ("/dev/a=b", sa_cfg_st.m_tty_cmd_a);
}

TEST(SaCfg, NonNumericLogSizeYieldsZero) {
    WriteCfg("zv.log.size=abc\n");
    EXPECT_EQ(0, sa_cfg_init());
    EXPECT_EQ(0u, sa_cfg_st.m_log_size);
}

TEST(SaCfg, LineLongerThan98CharactersIsReadAsTwoLines) {
    // 98 characters of a first chunk; its rest "zv.log.size=321" is parsed as a line of its own.
    std::string first = "zz.unknown=" + std::string(98 - 11, 'u');
    ASSERT_EQ(98u, first.size());
    WriteCfg(first + "zv.log.size=321\n");
    EXPECT_EQ(0, sa_cfg_init());
    EXPECT_EQ(321u, sa_cfg_st.m_log_size);
}

TEST(SaCfg, UnknownKeysAndGarbageAreIgnored) {
    WriteCfg(std::string("\x01\x02garbage\n") + "=\n=x\nk=\nzv.tty.cmdX=/dev/no\nzv.tty.cmd=/dev/yes\n");
    EXPECT_EQ(0, sa_cfg_init());
    EXPECT_STREQ("/dev/yes", sa_cfg_st.m_tty_cmd_a);
}

TEST(SaCfg, UnreadableFileLeavesDefaults) {
    unlink(SA_CFG_FILE);
    ASSERT_EQ(0, mkdir(SA_CFG_FILE, 0755));  // a folder where the file should be
    EXPECT_EQ(0, sa_cfg_init());
    EXPECT_STREQ("", sa_cfg_st.m_tty_cmd_a);
    rmdir(SA_CFG_FILE);
}

}  // namespace
