// Tests of the ballast rule against the handset's real /data tmpfs, with its free space set exactly by a
// preallocated filler file.
#include "sa-protect.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "capture.h"

using sa_capture_test::set_data_available_bytes;

namespace {

constexpr char kFiller[] = "/data/filler";

void MakeBallast(const std::vector<std::string> &names) {
    mkdir(SA_PROTECT_DIR, 0700);
    for (const auto &n : names) {
        int fd = open((std::string(SA_PROTECT_DIR) + n).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        ASSERT_GE(fd, 0);
        close(fd);
    }
}

bool Exists(const std::string &name) {
    return access((std::string(SA_PROTECT_DIR) + name).c_str(), F_OK) == 0;
}

TEST(ProtectDataIsLow, ThresholdIsThreeMebibytes) {
    EXPECT_FALSE(protect_data_is_low(1, 3145728));
    EXPECT_TRUE(protect_data_is_low(1, 3145727));
    EXPECT_FALSE(protect_data_is_low(4096, 768));
    EXPECT_TRUE(protect_data_is_low(4096, 767));
    EXPECT_FALSE(protect_data_is_low(4096, 1ull << 40));  // no overflow of the 64-bit product
}

TEST(ProtectData, ExactlyThreeMebibytesFreeDeletesNothing) {
    MakeBallast({"a", "b", "c"});
    set_data_available_bytes(3145728);
    protect_data();
    EXPECT_TRUE(Exists("a"));
    EXPECT_TRUE(Exists("b"));
    EXPECT_TRUE(Exists("c"));
}

TEST(ProtectData, BelowThreeMebibytesDeletesOnlyTheAlphabeticallyLastFile) {
    MakeBallast({"ballast-1", "ballast-3", "ballast-2"});
    struct statfs st;
    ASSERT_EQ(0, statfs("/data", &st));
    set_data_available_bytes(3145728 - st.f_bsize);  // the closest to 3145727 a block-sized partition gets
    protect_data();
    EXPECT_TRUE(Exists("ballast-1"));
    EXPECT_TRUE(Exists("ballast-2"));
    EXPECT_FALSE(Exists("ballast-3"));
    protect_data();  // one file per call
    EXPECT_TRUE(Exists("ballast-1"));
    EXPECT_FALSE(Exists("ballast-2"));
}

TEST(ProtectData, EmptyFolderDeletesNothing) {
    MakeBallast({});
    set_data_available_bytes(4096);
    protect_data();
    EXPECT_EQ(0, access(SA_PROTECT_DIR, F_OK));
}

TEST(ProtectData, MissingFolderIsHarmless) {
    rmdir(SA_PROTECT_DIR);
    set_data_available_bytes(4096);
    protect_data();
    EXPECT_NE(0, access(SA_PROTECT_DIR, F_OK));
}

}  // namespace
