// Tests of the kernel log and dmesg switches and the settings file, with the handlers called directly on
// a pipe; the kernel log reader and the fake dmesg of the handset run for real.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <string>

#include "capture.h"
#include "sa-capture.h"

using namespace sa_capture_test;

namespace {

constexpr char kDmesg[] = "/data/local/log/dmesg.log";
constexpr char kDmesg1[] = "/data/local/log/dmesg.log.1";
constexpr char kDmesg2[] = "/data/local/log/dmesg.log.2";
constexpr char kDmesg3[] = "/data/local/log/dmesg.log.3";
// The fake dmesg prints five lines.
constexpr int kDmesgLines = 5;

class SwitchTest : public ::testing::Test {
   protected:
    void SetUp() override {
        start_log_client();
        reset_capture_state();
        sa_log_svc_st *kmsg = &g_zv_log_svc[SA_LOG_SVC_KMSG - 1];
        kmsg->type_id = SA_LOG_SVC_KMSG;
        kmsg->file_num_val = 2;
        kmsg->file_size_val = 64;
        unlink(SA_SETTINGS_FILE);
        settle_threads();
        baseline_threads_ = thread_count();
    }
    int baseline_threads_ = 0;
};

bool SnapshotComplete(const char *path) {
    std::string text = read_file(path);
    return std::count(text.begin(), text.end(), '\n') == kDmesgLines;
}

TEST_F(SwitchTest, KernelLogOnWritesTheFiveSettingsBytesAndReadAnswersOne) {
    EXPECT_EQ((handler_call_st{0, kOk}).m_answer, call_handler(handle_sa_kernel_log_set, "1\r").m_answer);
    EXPECT_EQ(1, g_sa_handle_ctx.m_kernel_log_on);
    EXPECT_EQ(std::string("\x01\x20\x00\x20\x00", 5), read_file(SA_SETTINGS_FILE));
    handler_call_st read = call_handler(handle_sa_kernel_log_read, "?\r");
    EXPECT_EQ(0, read.m_ret);
    EXPECT_EQ("\r\nKERNEL_LOG: 1\r\n\r\nOK\r\n", read.m_answer);
    EXPECT_NE(std::string::npos, log_find("kernel log: Yes"));
    EXPECT_NE(std::string::npos, log_find("dmesg log: No"));
    EXPECT_NE(std::string::npos, log_find("packets capture: No"));
    EXPECT_TRUE(poll_until([&] { return thread_count() == baseline_threads_ + 1; }, 5s));
    EXPECT_NE(0u, static_cast<unsigned long>(g_sa_handle_ctx.m_read_kernel_log_tid));
}

TEST_F(SwitchTest, SettingTheKernelLogToItsCurrentValueHasNoSideEffect) {
    handler_call_st off = call_handler(handle_sa_kernel_log_set, "0\r");
    EXPECT_EQ(0, off.m_ret);
    EXPECT_EQ(kOk, off.m_answer);
    EXPECT_FALSE(file_exists(SA_SETTINGS_FILE));
    EXPECT_EQ(baseline_threads_, thread_count());

    ASSERT_EQ(kOk, call_handler(handle_sa_kernel_log_set, "1\r").m_answer);
    ASSERT_TRUE(poll_until([&] { return thread_count() == baseline_threads_ + 1; }, 5s));
    ASSERT_TRUE(poll_until([] { return log_find("read_kernel_log_loop buf_a[") != std::string::npos; }, 5s));
    pthread_t reader = g_sa_handle_ctx.m_read_kernel_log_tid;
    ASSERT_EQ(0, unlink(SA_SETTINGS_FILE));
    size_t before = log_text().size();

    handler_call_st again = call_handler(handle_sa_kernel_log_set, "1\r");
    EXPECT_EQ(kOk, again.m_answer);
    EXPECT_FALSE(file_exists(SA_SETTINGS_FILE));               // not written
    EXPECT_EQ(reader, g_sa_handle_ctx.m_read_kernel_log_tid);  // no new reader
    EXPECT_EQ(baseline_threads_ + 1, thread_count());          // none killed either
    EXPECT_EQ(std::string::npos, log_text().substr(before).find("update_zv_log_file"));
}

TEST_F(SwitchTest, KernelLogOffStopsTheReader) {
    ASSERT_EQ(kOk, call_handler(handle_sa_kernel_log_set, "1\r").m_answer);
    ASSERT_TRUE(poll_until([&] { return thread_count() == baseline_threads_ + 1; }, 5s));
    EXPECT_EQ(kOk, call_handler(handle_sa_kernel_log_set, "0\r").m_answer);
    EXPECT_TRUE(poll_until([&] { return thread_count() == baseline_threads_; }, 5s));
    EXPECT_EQ(0u, static_cast<unsigned long>(g_sa_handle_ctx.m_read_kernel_log_tid));
    EXPECT_EQ(std::string("\x00\x20\x00\x20\x00", 5), read_file(SA_SETTINGS_FILE));
    EXPECT_EQ("\r\nKERNEL_LOG: 0\r\n\r\nOK\r\n", call_handler(handle_sa_kernel_log_read, "?\r").m_answer);
}

TEST_F(SwitchTest, ArgumentsOtherThanZeroOrOneAnswerErrorAndLeaveTheSwitch) {
    ASSERT_EQ(kOk, call_handler(handle_sa_dmesg_log_set, "1\r").m_answer);
    for (const char *bad :
         {"2\r", "-1\r", "abc\r", "\r", "", "4294967297\r", "99999999999999999999\r", "+2\r"}) {
        handler_call_st k = call_handler(handle_sa_kernel_log_set, bad);
        EXPECT_EQ(kError, k.m_answer) << bad;
        EXPECT_EQ(0, k.m_ret) << bad;
        EXPECT_EQ(0, g_sa_handle_ctx.m_kernel_log_on) << bad;
        handler_call_st d = call_handler(handle_sa_dmesg_log_set, bad);
        EXPECT_EQ(kError, d.m_answer) << bad;
        EXPECT_EQ(1, g_sa_handle_ctx.m_dmesg_log_on) << bad;
    }
    EXPECT_NE(std::string::npos, log_find("error to sscanf(\"2\r\")"));
    EXPECT_NE(std::string::npos, log_find("error to sscanf(\"-1\r\")"));
    EXPECT_NE(std::string::npos, log_find("Call C function unsuccessfully"));
    EXPECT_EQ(baseline_threads_, thread_count());
}

TEST_F(SwitchTest, LeadingBlanksAndTrailingTextDoNoHarm) {
    EXPECT_EQ(kOk, call_handler(handle_sa_kernel_log_set, "  1\r").m_answer);
    EXPECT_EQ(1, g_sa_handle_ctx.m_kernel_log_on);
    EXPECT_EQ(kOk, call_handler(handle_sa_kernel_log_set, "0x\r").m_answer);
    EXPECT_EQ(0, g_sa_handle_ctx.m_kernel_log_on);
}

TEST_F(SwitchTest, DmesgSetOneThenZeroThenOneRotatesTwice) {
    write_file(kDmesg2, "two-before");
    ASSERT_EQ(kOk, call_handler(handle_sa_dmesg_log_set, "1\r").m_answer);
    EXPECT_EQ(std::string("\x00\x20\x01\x20\x00", 5), read_file(SA_SETTINGS_FILE));
    ASSERT_TRUE(poll_until([] { return SnapshotComplete(kDmesg); }, 5s)) << read_file(kDmesg);
    EXPECT_EQ("two-before", read_file(kDmesg3));
    // Mark the first snapshot so it can be followed through the rotation.
    write_file(kDmesg, read_file(kDmesg) + "first snapshot\n");

    ASSERT_EQ(kOk, call_handler(handle_sa_dmesg_log_set, "0\r").m_answer);
    EXPECT_TRUE(file_exists(kDmesg));  // switching off moves nothing
    EXPECT_FALSE(file_exists(kDmesg1));
    ASSERT_EQ(kOk, call_handler(handle_sa_dmesg_log_set, "1\r").m_answer);
    ASSERT_TRUE(poll_until([] { return SnapshotComplete(kDmesg); }, 5s));
    EXPECT_NE(std::string::npos, read_file(kDmesg1).find("first snapshot\n"));
    EXPECT_EQ(std::string::npos, read_file(kDmesg).find("first snapshot"));
    EXPECT_EQ(0u, read_file(kDmesg).find("<6>[    0.000000] Booting Linux on physical CPU 0x0\n"));
    EXPECT_FALSE(file_exists(kDmesg2));  // there was no .1 to move the second time
    EXPECT_FALSE(file_exists(kDmesg3));  // the oldest went, and there was no .2 to take its place
    EXPECT_EQ("\r\nDMESG_LOG: 1\r\n\r\nOK\r\n", call_handler(handle_sa_dmesg_log_read, "?\r").m_answer);
}

TEST_F(SwitchTest, DmesgReadAnswersZeroAtStart) {
    handler_call_st read = call_handler(handle_sa_dmesg_log_read, "?\r");
    EXPECT_EQ(0, read.m_ret);
    EXPECT_EQ("\r\nDMESG_LOG: 0\r\n\r\nOK\r\n", read.m_answer);
}

TEST_F(SwitchTest, SettingsFileThatCannotBeOpenedStillAnswersOk) {
    ASSERT_EQ(0, mkdir(SA_SETTINGS_FILE, 0700));
    EXPECT_EQ(kOk, call_handler(handle_sa_dmesg_log_set, "1\r").m_answer);
    EXPECT_EQ(1, g_sa_handle_ctx.m_dmesg_log_on);
    EXPECT_NE(std::string::npos, log_find("open"));
    EXPECT_EQ(0, write_setting());
}

TEST_F(SwitchTest, SettingsFileThatCannotBeWrittenAnswersErrorAndKeepsTheSwitch) {
    ASSERT_EQ(0, symlink("/dev/full", SA_SETTINGS_FILE));
    handler_call_st set = call_handler(handle_sa_kernel_log_set, "1\r");
    EXPECT_EQ(kError, set.m_answer);
    EXPECT_EQ(1, g_sa_handle_ctx.m_kernel_log_on);
    EXPECT_TRUE(
        poll_until([&] { return thread_count() == baseline_threads_ + 1; }, 5s));  // the action stays done
    EXPECT_NE(std::string::npos, log_find("fscanf"));
    EXPECT_EQ(-100, write_setting());
    EXPECT_EQ("\r\nKERNEL_LOG: 1\r\n\r\nOK\r\n", call_handler(handle_sa_kernel_log_read, "?\r").m_answer);
}

TEST_F(SwitchTest, BadHandlerArgumentsReturnMinus101WithoutAnswer) {
    sa_msg_st req;
    sa_msg_st rsp;
    memset(&req, 0, sizeof(req));
    memset(&rsp, 0, sizeof(rsp));
    EXPECT_EQ(-101, handle_sa_kernel_log_set(0, &req, &rsp, "1\r"));
    EXPECT_NE(std::string::npos, log_find("1, 0, 1, 0, 0"));
    req.m_len = 3;
    EXPECT_EQ(-101, handle_sa_dmesg_log_set(5, &req, nullptr, "1\r"));
    EXPECT_EQ(-101, handle_sa_kernel_log_read(5, &req, &rsp, nullptr));
    EXPECT_EQ(-101, handle_sa_dmesg_log_read(5, nullptr, &rsp, "?"));
    EXPECT_EQ(0, g_sa_handle_ctx.m_kernel_log_on);
    EXPECT_EQ(0, g_sa_handle_ctx.m_dmesg_log_on);
}

TEST_F(SwitchTest, ConcurrencyKernelLogOnAndOff200TimesLeavesOneReaderAtMost) {
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(kOk, call_handler(handle_sa_kernel_log_set, "1\r").m_answer) << i;
        // The new reader, and at most one stopped reader still on its way out (on a loaded machine it may
        // take longer than the killer's 10 ms pause to go).
        ASSERT_TRUE(poll_until([&] { return thread_count() <= baseline_threads_ + 2; }, 5s))
            << i << ": " << thread_count();
        ASSERT_EQ(kOk, call_handler(handle_sa_kernel_log_set, "0\r").m_answer) << i;
    }
    EXPECT_TRUE(poll_until([&] { return thread_count() == baseline_threads_; }, 10s)) << thread_count();
    ASSERT_EQ(kOk, call_handler(handle_sa_kernel_log_set, "1\r").m_answer);
    EXPECT_TRUE(poll_until([&] { return thread_count() == baseline_threads_ + 1; }, 5s));
    // The reader left running still copies.
    int fd = open("/proc/kmsg", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(poll_until([] { return log_find("read_kernel_log_loop buf_a[") != std::string::npos; }, 5s));
    const char line[] = "<6>[  1.0] after 200 switches\n";
    ASSERT_EQ(static_cast<ssize_t>(sizeof(line) - 1), write(fd, line, sizeof(line) - 1));
    close(fd);
    EXPECT_TRUE(poll_until(
        [] { return read_file("/data/local/log/kmsg.log").find("after 200 switches") != std::string::npos; },
        5s));
    EXPECT_EQ(baseline_threads_ + 1, thread_count());
}

}  // namespace
