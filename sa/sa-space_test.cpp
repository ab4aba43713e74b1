// Tests of the free-space guard: the arithmetic as a pure function, and the guard on the handset's real
// /data (a 16 MiB tmpfs here) with its free space set by a preallocated filler.
#include <gtest/gtest.h>

#include <sys/mount.h>
#include <unistd.h>

#include <string>

#include "capture.h"
#include "sa-capture.h"

using namespace sa_capture_test;

namespace {

TEST(LogSpaceThreshold, MillionKbPartitionNeeds50000Kb) {
    EXPECT_EQ(50000u, sa_log_space_threshold(1000000));
    EXPECT_TRUE(sa_log_space_is_low(1000000, 49999));
    EXPECT_FALSE(sa_log_space_is_low(1000000, 50000));
    // The same figures as statfs would give them: 1 KiB blocks.
    sa_data_space_st space = sa_data_space_from_blocks(1024, 1000000, 49999);
    EXPECT_EQ(1000000u, space.m_total_kb);
    EXPECT_EQ(49999u, space.m_available_kb);
    EXPECT_TRUE(sa_log_space_is_low(space.m_total_kb, space.m_available_kb));
}

TEST(LogSpaceThreshold, TwentyMillionKbPartitionIsCappedAt256000Kb) {
    EXPECT_EQ(256000u, sa_log_space_threshold(20000000));  // 5 per cent would be 1,000,000
    EXPECT_TRUE(sa_log_space_is_low(20000000, 255999));
    EXPECT_FALSE(sa_log_space_is_low(20000000, 256000));
    EXPECT_EQ(256000u, sa_log_space_threshold(5120000));  // exactly at the cap
    EXPECT_EQ(255999u, sa_log_space_threshold(5119980));
}

TEST(LogSpaceThreshold, FivePerCentIsTakenOfA32BitProduct) {
    // 858,993,460 KB x 5 wraps to 4 in 32 bits, so such a partition needs nothing.
    EXPECT_EQ(0u, sa_log_space_threshold(858993460u));
    EXPECT_EQ(256000u, sa_log_space_threshold(858993459u));
}

TEST(LogSpaceFigures, ReservedBlocksCountAsUsed) {
    // 1000 blocks of 4 KiB; 900 free but only 800 available to ordinary users.
    sa_data_space_st space = sa_data_space_from_blocks(4096, 1000, 800);
    EXPECT_EQ(4000u, space.m_total_kb);
    EXPECT_EQ(3200u, space.m_available_kb);
    EXPECT_EQ(800u, space.m_used_kb);  // 400 KB in use plus 400 KB reserved
}

TEST(LogSpaceFigures, ProductsAreFormedIn64Bits) {
    // 8 TiB in 4 KiB blocks: the byte count does not fit 32 bits, the KB figure is cut to 32 bits.
    sa_data_space_st space = sa_data_space_from_blocks(4096, 2147483648ull, 1048576);
    EXPECT_EQ(static_cast<uint32_t>(8796093022208ull >> 10), space.m_total_kb);
    EXPECT_EQ(4194304u, space.m_available_kb);
}

class LogSpaceGuardTest : public ::testing::Test {
   protected:
    void SetUp() override { start_log_client(); }
};

TEST_F(LogSpaceGuardTest, RefusesBelowFivePerCentOfData) {
    sa_data_space_st space;
    ASSERT_EQ(0, sa_get_data_space_info(&space));
    ASSERT_EQ(16384u, space.m_total_kb);
    uint32_t threshold = sa_log_space_threshold(space.m_total_kb);
    ASSERT_EQ(819u, threshold);
    set_data_available_kb(816);  // the nearest multiple of 4 KB below 819
    EXPECT_EQ(-100, sa_is_can_start_log_service());
    EXPECT_NE(std::string::npos, log_find("data space, total[16384KB], used[15568KB], available[816KB]."));
    EXPECT_NE(std::string::npos,
              log_find("Low space, threshold:819KB, current available space of data is: 816KB"));
    EXPECT_NE(std::string::npos, log_find("ret_val[-100]"));
}

TEST_F(LogSpaceGuardTest, AllowsFromTheThresholdUp) {
    set_data_available_kb(820);
    EXPECT_EQ(0, sa_is_can_start_log_service());
    EXPECT_NE(std::string::npos, log_find("available[820KB]."));
    EXPECT_EQ(std::string::npos, log_find("Low space"));
    EXPECT_NE(std::string::npos, log_find("ret_val[0]"));
}

TEST_F(LogSpaceGuardTest, MissingDataPartitionRefuses) {
    // Take /data away (the log client keeps its open file in the detached mount).
    ASSERT_EQ(0, umount2("/data", MNT_DETACH));
    rmdir("/data");
    sa_data_space_st space;
    EXPECT_EQ(-100, sa_get_data_space_info(&space));
    EXPECT_EQ(0u, space.m_total_kb);
    EXPECT_EQ(0u, space.m_available_kb);
    EXPECT_EQ(-100, sa_is_can_start_log_service());
}

}  // namespace
