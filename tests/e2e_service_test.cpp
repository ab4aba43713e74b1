// End-to-end tests of service control and the auto-start list. The handset's init boots the daemon from
// its own rc file (sa/zv-qel-sa.rc) next to the test services (sa/testdata/service-control.rc); each test
// then gives the daemon its configuration and restarts it through init, and drives it through the
// command link /dev/ttySA0 as a host tool does, comparing exact answer bytes. Init's property request
// history shows every control request the daemon issued; a restart through init is the daemon's next
// start, which runs the auto-start list kept in /data.
#include <gtest/gtest.h>

#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "service.h"
#include "harness.h"

using namespace zvtest;
using namespace std::chrono_literals;

namespace {

constexpr char kOk[] = "\r\nOK\r\n";
constexpr char kErr[] = "\r\nERROR: 4294967295\r\n";
constexpr char kListFile[] = "/data/zv-qel-sa/auto-start.lst";

using svctest::HistorySince;
using svctest::PidsNamed;

bool Running(const std::string &name) {
    return !PidsNamed(name).empty();
}

// The file image of a list: each name NUL-padded to 40 bytes, "" for a free slot.
std::string Image(const std::vector<std::string> &slots) {
    std::string out;
    for (size_t i = 0; i < 10; ++i) {
        std::string slot = i < slots.size() ? slots[i] : "";
        slot.resize(40, '\0');
        out += slot;
    }
    return out;
}

std::string QueryAnswer(int running) {
    return "\r\nQUERY_SERVICE: " + std::to_string(running) + "\r\n\r\nOK\r\n";
}
std::string MemberAnswer(int member) {
    return "\r\nAUTO_START_SERVICE: " + std::to_string(member) + "\r\n\r\nOK\r\n";
}

class ServiceE2eTest : public ::testing::Test {
   protected:
    void SetUp() override {
        // The boot start had no configuration (init started the daemon before the test could write it).
        ASSERT_TRUE(poll_until([] { return Running(kDaemonPath); }, 20s)) << "init did not boot the daemon";
        prepare_data();
        write_file("/system/etc/zv-qel-sa.cfg", std::string("zv.tty.cmd=") + kCmdLink + "\n");
        ASSERT_NO_FATAL_FAILURE(RestartDaemon());
    }
    void TearDown() override {
        if (fd_ >= 0) close(fd_);
    }

    // Restarts the daemon through init (its next start) and opens the command link of the new one.
    void RestartDaemon() {
        if (fd_ >= 0) close(fd_);
        fd_ = -1;
        std::vector<pid_t> old = PidsNamed(kDaemonPath);
        ASSERT_EQ(0, system("setprop ctl.restart zv-qel-sa"));
        ASSERT_TRUE(poll_until(
            [&] {
                std::vector<pid_t> now = PidsNamed(kDaemonPath);
                return now.size() == 1 && (old.empty() || now[0] != old[0]);
            },
            20s))
            << "the daemon was not started again";
        // The new daemon's command thread publishes the link; the old one's link may still be there, so
        // wait for an answer rather than for the link.
        ASSERT_TRUE(poll_until(
            [&] {
                if (fd_ < 0) fd_ = open_client(kCmdLink);
                if (fd_ < 0) return false;
                if (cmd_request(fd_, "AT\r", 500ms) == kOk) return true;
                close(fd_);
                fd_ = -1;
                return false;
            },
            20s))
            << read_file(kSaLog);
        EXPECT_EQ("running", read_file("/dev/__properties__/init.svc.zv-qel-sa"));
    }
    std::string Request(const std::string &request) { return cmd_request(fd_, request); }

    int fd_ = -1;
};

TEST_F(ServiceE2eTest, StartQueryAndStopAServiceThroughTheCommandLink) {
    size_t before = svctest::History().size();
    EXPECT_EQ(QueryAnswer(0), Request("SA+QUERY_SERVICE=\"zv-svc-plain\"\r"));
    EXPECT_EQ(kOk, Request("SA+START_SERVICE=\"zv-svc-plain\"\r"));
    EXPECT_EQ(std::vector<std::string>{"ctl.start=zv-svc-plain"}, HistorySince(before));
    EXPECT_EQ(QueryAnswer(1), Request("SA+QUERY_SERVICE=\"zv-svc-plain\"\r"));
    EXPECT_EQ(kOk, Request("SA+STOP_SERVICE=\"zv-svc-plain\"\r"));
    EXPECT_FALSE(Running("zv-svc-plain"));
    EXPECT_EQ(QueryAnswer(0), Request("SA+QUERY_SERVICE=\"zv-svc-plain\"\r"));
    // The stop went by SIGTERM, not through init.
    EXPECT_EQ(std::vector<std::string>{"ctl.start=zv-svc-plain"}, HistorySince(before));
}

TEST_F(ServiceE2eTest, StartOfARunningServiceAnswersOkAtOnceAndIssuesNothing) {
    ASSERT_EQ(0, system("setprop ctl.start zv-qel-mla3"));
    ASSERT_TRUE(poll_until([] { return Running("zv-qel-mla3"); }, 10s));
    size_t before = svctest::History().size();
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(kOk, Request("SA+START_SERVICE=\"zv-qel-mla3\"\r"));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
    EXPECT_TRUE(HistorySince(before).empty());
}

TEST_F(ServiceE2eTest, StartOfTheFamilyNameStartsTheFiveCompanionsThenItsOwnName) {
    size_t before = svctest::History().size();
    EXPECT_EQ(kErr, Request("sa+start_service=\"zv-qel-mla\"\r"));
    EXPECT_TRUE(HistorySince(before).empty()) << "\"sa\" is case-sensitive";
    EXPECT_EQ(kOk, Request("SA+start_service=\"zv-qel-mla\"\r"));
    EXPECT_EQ(
        (std::vector<std::string>{"ctl.start=zv-qel-mla1", "ctl.start=zv-qel-mla2", "ctl.start=zv-qel-mla3",
                                  "ctl.start=zv-qel-mla4", "ctl.start=zv-qel-mla5", "ctl.start=zv-qel-mla"}),
        HistorySince(before));
}

TEST_F(ServiceE2eTest, AutoStartListIsRunAtTheNextStartOfTheDaemon) {
    EXPECT_EQ(kOk, Request("SA+AUTO_START_SERVICE=\"zv-svc-plain\",1\r"));
    EXPECT_EQ(kOk, Request("SA+AUTO_START_SERVICE=\"zv-qel-mla\",1\r"));
    EXPECT_EQ(MemberAnswer(1), Request("SA+AUTO_START_SERVICE=\"zv-qel-mla\",2\r"));
    EXPECT_EQ(Image({"zv-svc-plain", "zv-qel-mla"}), read_file(kListFile));
    // Adding does not start anything now.
    EXPECT_FALSE(Running("zv-svc-plain"));

    size_t before = svctest::History().size();
    ASSERT_NO_FATAL_FAILURE(RestartDaemon());
    const std::vector<std::string> expected = {
        "ctl.restart=zv-qel-sa", "ctl.start=zv-svc-plain", "ctl.start=zv-qel-mla0", "ctl.start=zv-qel-mla1",
        "ctl.start=zv-qel-mla2", "ctl.start=zv-qel-mla3",  "ctl.start=zv-qel-mla4",
    };
    EXPECT_EQ(expected, HistorySince(before));
    EXPECT_TRUE(poll_until([] { return Running("zv-svc-plain"); }, 10s));
    for (int i = 0; i <= 4; ++i)
        EXPECT_TRUE(poll_until([&] { return Running("zv-qel-mla" + std::to_string(i)); }, 10s));
    EXPECT_FALSE(Running("zv-qel-mla5"));
    // The list survived the restart.
    EXPECT_EQ(MemberAnswer(1), Request("SA+AUTO_START_SERVICE=\"zv-svc-plain\",2\r"));
}

TEST_F(ServiceE2eTest, EntryMla1StartsOnlyMla1AndARemovedEntryIsNotStartedAtTheNextStart) {
    EXPECT_EQ(kOk, Request("SA+AUTO_START_SERVICE=\"zv-svc-plain\",1\r"));
    EXPECT_EQ(kOk, Request("SA+AUTO_START_SERVICE=\"zv-qel-mla1\",1\r"));
    EXPECT_EQ(kOk, Request("SA+AUTO_START_SERVICE=\"zv-svc-plain\",0\r"));
    EXPECT_EQ(Image({"", "zv-qel-mla1"}), read_file(kListFile));
    size_t before = svctest::History().size();
    ASSERT_NO_FATAL_FAILURE(RestartDaemon());
    EXPECT_EQ((std::vector<std::string>{"ctl.restart=zv-qel-sa", "ctl.start=zv-qel-mla1"}),
              HistorySince(before));
}

TEST_F(ServiceE2eTest, BadAutoStartRequestsAnswerErrorChangeNothingAndTheDaemonGoesOn) {
    EXPECT_EQ(kOk, Request("SA+AUTO_START_SERVICE=\"keep\",1\r"));
    const std::string before = read_file(kListFile);
    ASSERT_EQ(Image({"keep"}), before);
    const std::vector<std::string> bad = {
        "SA+AUTO_START_SERVICE=keep,0\r",                               // unquoted
        "SA+AUTO_START_SERVICE=\"\",1\r",                               // empty quotes
        "SA+AUTO_START_SERVICE=\"keep\"0\r",                            // missing comma
        "SA+AUTO_START_SERVICE=\"keep\",4294967296\r",                  // wraps to 0
        "SA+AUTO_START_SERVICE=\"zv-x\",99999999999999999999\r",        // huge
        "SA+AUTO_START_SERVICE=\"zv-x\",3\r",                           // mode 3
        "SA+AUTO_START_SERVICE=\"keep\",-1\r",                          // negative
        "SA+AUTO_START_SERVICE=\"" + std::string(40, 'z') + "\",1\r",   // 40 characters
        "SA+AUTO_START_SERVICE=\"" + std::string(150, 'z') + "\",1\r",  // as long as a request allows
        "SA+START_SERVICE=\"" + std::string(40, 'z') + "\"\r",          // the other commands too
        "SA+STOP_SERVICE=\"\"\r",
        "SA+QUERY_SERVICE=zv-svc-plain\r",
    };
    for (const auto &request : bad) {
        EXPECT_EQ(kErr, Request(request)) << request;
        EXPECT_EQ(before, read_file(kListFile)) << request;
    }
    EXPECT_EQ(kOk, Request("SA+AUTO_START_SERVICE=\"" + std::string(39, 'q') + "\",1\r"));
    EXPECT_EQ(Image({"keep", std::string(39, 'q')}), read_file(kListFile));
    EXPECT_EQ(kOk, Request("AT\r"));
    EXPECT_EQ(1u, PidsNamed(kDaemonPath).size());
}

}  // namespace
