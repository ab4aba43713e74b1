// End-to-end test of the client's save-log on a handset without a card: init boots the daemon with its
// shipped configuration and no /storage/real_sd exists.
#include <gtest/gtest.h>

#include <unistd.h>

#include "client_run.h"
#include "harness.h"

using namespace zvtest;
using clienttest::Client;
using clienttest::Result;

namespace {

TEST(ClientNoCardTest, SaveLogSaysThereIsNoCard) {
    ASSERT_TRUE(clienttest::DaemonAnswers()) << read_file(kSaLog);
    ASSERT_NE(0, access("/storage/real_sd", F_OK));
    Result r = Client("save-log");
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("save-log: no card (/storage/real_sd is absent); nothing saved (ERROR: 4294967295)\n", r.out);
    EXPECT_EQ("", r.err);
}

}  // namespace
