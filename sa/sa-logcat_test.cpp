// Tests of the logcat capture: the exact argument vectors per label, and the start of the fake logcat
// of the handset with the identity and arguments the capture gives it.
#include <gtest/gtest.h>

#include <string>

#include "capture.h"
#include "sa-capture.h"

using namespace sa_capture_test;

namespace {

// A record as the configuration would leave it.
sa_log_svc_st MakeSvc(const char *type, int type_id, const char *num, const char *size) {
    sa_log_svc_st svc;
    memset(&svc, 0, sizeof(svc));
    snprintf(svc.type, sizeof(svc.type), "%s", type);
    svc.type_id = type_id;
    snprintf(svc.file_num, sizeof(svc.file_num), "%s", num);
    svc.file_num_val = static_cast<int32_t>(strtol(num, nullptr, 10));
    snprintf(svc.file_size, sizeof(svc.file_size), "%s", size);
    svc.file_size_val = static_cast<int32_t>(strtol(size, nullptr, 10));
    return svc;
}

// Builds the vector for svc and joins it with blanks; the count through *num.
std::string BuildLine(const sa_log_svc_st &svc, long *ret, int *num) {
    char slots[SA_LOGCAT_ARGV_NUM][SA_LOGCAT_ARG_SIZE];
    char *argv[SA_LOGCAT_ARGV_NUM + 1];
    memset(slots, 0, sizeof(slots));
    for (int i = 0; i < SA_LOGCAT_ARGV_NUM; ++i) argv[i] = slots[i];
    argv[SA_LOGCAT_ARGV_NUM] = nullptr;
    *num = -1;
    *ret = make_logcat_svc_argv_ex(&svc, argv, num);
    std::string line;
    for (int i = 0; i < *num; ++i) line += (i ? " " : "") + std::string(argv[i]);
    if (*num >= 0 && *num <= SA_LOGCAT_ARGV_NUM && argv[*num] != nullptr) line += " <vector not terminated>";
    return line;
}

class LogcatTest : public ::testing::Test {
   protected:
    void SetUp() override {
        start_log_client();
        write_file("/data/local/tmp/fake-logcat.rate", "0\n");
        snprintf(g_log_path_a, sizeof(g_log_path_a), "%s", "/data/local/log");
    }
};

TEST_F(LogcatTest, MainLabelGivesTheThirteenArgumentLine) {
    long ret = 0;
    int num = 0;
    std::string line = BuildLine(MakeSvc("I4", 4, "5", "5120"), &ret, &num);
    EXPECT_EQ(0, ret);
    EXPECT_EQ(13, num);
    EXPECT_EQ(
        "/system/bin/logcat -r 5120 -v threadtime -v usec -v printable -n 5 -f /data/local/log/logcat.log",
        line);
    EXPECT_NE(
        std::string::npos,
        log_find(
            "make_logcat_svc_argv_ex cmdline[/system/bin/logcat -r 5120 -v threadtime -v usec -v printable "
            "-n 5 -f /data/local/log/logcat.log ]"));
}

TEST_F(LogcatTest, EmsdLabelPutsTheTagFilterAfterTheFile) {
    long ret = 0;
    int num = 0;
    std::string line = BuildLine(MakeSvc("I1", 1, "3", "5120"), &ret, &num);
    EXPECT_EQ(0, ret);
    EXPECT_EQ(15, num);
    EXPECT_EQ(
        "/system/bin/logcat -r 5120 -v threadtime -v usec -v printable -n 3 -f /data/local/log/emsd.log -s "
        "EMSD:V",
        line);
}

TEST_F(LogcatTest, EventsAndRadioLabelsChooseTheirBuffers) {
    long ret = 0;
    int num = 0;
    EXPECT_EQ(
        "/system/bin/logcat -r 5120 -v threadtime -v usec -v printable -n 5 -b events -f "
        "/data/local/log/logcat-events.log",
        BuildLine(MakeSvc("I5", 5, "5", "5120"), &ret, &num));
    EXPECT_EQ(15, num);
    EXPECT_EQ(
        "/system/bin/logcat -r 5120 -v threadtime -v usec -v printable -n 5 -b radio -f "
        "/data/local/log/logcat-radio.log",
        BuildLine(MakeSvc("I6", 6, "5", "5120"), &ret, &num));
    EXPECT_EQ(15, num);
}

TEST_F(LogcatTest, UnknownLabelI7FailsWithItsTrace) {
    long ret = 0;
    int num = 0;
    BuildLine(MakeSvc("I7", 4, "5", "5120"), &ret, &num);
    EXPECT_EQ(-100, ret);
    EXPECT_NE(std::string::npos, log_find("make_logcat_svc_argv_ex Invalid Log Type, TypeID=I7"));
    sa_log_svc_st svc = MakeSvc("I7", 4, "5", "5120");
    EXPECT_EQ(-100, start_logcat_service_ex(&svc));
    EXPECT_NE(std::string::npos, log_find("start_logcat_service_ex Make logcat service args failed."));
    EXPECT_EQ(0, svc.svc_pid);
}

TEST_F(LogcatTest, FileSlotKeepsWhatFitsOfALongFolder) {
    snprintf(g_log_path_a, sizeof(g_log_path_a), "%s", "/data/local/log/a-rather-long-folder");
    long ret = 0;
    int num = 0;
    std::string line = BuildLine(MakeSvc("I4", 4, "5", "5120"), &ret, &num);
    EXPECT_EQ(0, ret);
    // 39 characters of "/data/local/log/a-rather-long-folder/logcat.log".
    EXPECT_EQ(std::string("/data/local/log/a-rather-long-folder/logcat.log").substr(0, 39),
              line.substr(line.rfind(' ') + 1));
}

TEST_F(LogcatTest, StartRunsLogcatWithTheVectorAndStoresItsPid) {
    sa_log_svc_st svc = MakeSvc("I4", 4, "5", "5120");
    EXPECT_EQ(0, start_logcat_service_ex(&svc));
    ASSERT_GT(svc.svc_pid, 0);
    ASSERT_TRUE(poll_until([&] { return !recorded_args("logcat-args", svc.svc_pid).empty(); }, 5s));
    EXPECT_EQ(
        "/system/bin/logcat -r 5120 -v threadtime -v usec -v printable -n 5 -f /data/local/log/logcat.log\n",
        recorded_args("logcat-args", svc.svc_pid));
    EXPECT_GE(find_message(sa_log_messages(),
                           "start_logcat_service_ex type[I4] svc_pid[" + std::to_string(svc.svc_pid) + "]"),
              0);
    EXPECT_NE(std::string::npos,
              log_find("start_logcat_service_ex path[/system/bin/logcat] type[I4] file_num_val[5] "
                       "file_size_val[5120]"));
    EXPECT_NE(std::string::npos,
              log_find("start_logcat_service_ex make_logcat_svc_argv_ex[0] svc_argv_num[13]"));
}

TEST_F(LogcatTest, EventsLabelInTheMainSlotCapturesTheEventsBuffer) {
    sa_log_svc_st svc = MakeSvc("I5", 4, "5", "5120");
    EXPECT_EQ(0, start_logcat_service_ex(&svc));
    ASSERT_GT(svc.svc_pid, 0);
    ASSERT_TRUE(poll_until([&] { return !recorded_args("logcat-args", svc.svc_pid).empty(); }, 5s));
    EXPECT_NE(
        std::string::npos,
        recorded_args("logcat-args", svc.svc_pid).find("-b events -f /data/local/log/logcat-events.log"));
}

TEST_F(LogcatTest, CountZeroWithANonZeroSizeStartsNothing) {
    size_t before = log_text().size();
    sa_log_svc_st svc = MakeSvc("I4", 4, "0", "5120");
    svc.svc_pid = 4242;
    EXPECT_EQ(0, start_logcat_service_ex(&svc));
    EXPECT_EQ(4242, svc.svc_pid);
    std::string added = log_text().substr(before);
    EXPECT_NE(std::string::npos, added.find("start_logcat_service_ex need no logcat"));
    EXPECT_EQ(std::string::npos, added.find("sa_create_subproc_thread"));
    sa_log_svc_st off = MakeSvc("I4", 4, "5", "0");
    EXPECT_EQ(0, start_logcat_service_ex(&off));
    EXPECT_EQ(0, off.svc_pid);
}

TEST_F(LogcatTest, MissingLogcatFailsEvenForARecordThatAsksForNoCapture) {
    ASSERT_TRUE(hide_file(SA_LOGCAT_PATH));
    ASSERT_FALSE(file_exists(SA_LOGCAT_PATH));
    sa_log_svc_st svc = MakeSvc("I4", 4, "0", "0");
    EXPECT_EQ(-100, start_logcat_service_ex(&svc));
    EXPECT_NE(std::string::npos,
              log_find("start_logcat_service_ex File \"/system/bin/logcat\" is not exist."));
    sa_log_svc_st on = MakeSvc("I4", 4, "5", "5120");
    EXPECT_EQ(-100, start_logcat_service_ex(&on));
    EXPECT_EQ(0, on.svc_pid);
}

TEST_F(LogcatTest, NullRecordFails) {
    EXPECT_EQ(-100, start_logcat_service_ex(nullptr));
    EXPECT_NE(std::string::npos, log_find("start_logcat_service_ex Invalid parameter."));
}

}  // namespace
