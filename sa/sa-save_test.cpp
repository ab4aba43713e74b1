// Tests of "+SAVE_LOG" and sa_mkdir, called directly with a pipe as the command channel, inside a
// handset with a 64 MiB card at /storage/real_sd. A missing card is made by taking that mount away.
#include <gtest/gtest.h>

#include <errno.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "archive.h"
#include "sa-archive.h"
#include "capture.h"
#include "sa-handle.h"

using zvtest::call_with_bad_arguments;
using namespace sa_capture_test;
using namespace archive_test;

namespace {

constexpr char kRoot[] = "/storage/real_sd/logs";
constexpr char kCard[] = "/storage/real_sd";

bool is_dir(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// Takes the card away: its mount, then the empty mount point, so nothing below /storage/real_sd can be made.
void remove_card() {
    ASSERT_EQ(0, umount2(kCard, MNT_DETACH)) << strerror(errno);
    ASSERT_EQ(0, rmdir(kCard)) << strerror(errno);
}

class SaveLogTest : public ::testing::Test {
   protected:
    void SetUp() override {
        start_log_client();
        put_file("/data/local/log/kmsg.log", "<6>kernel line\n");
    }
    // Runs the handler once; the save folder it reports in its first trace is then in folder_.
    handler_call_st Save() {
        auto start = std::chrono::steady_clock::now();
        handler_call_st call = call_handler(handle_sa_save_log_set, "\r");
        elapsed_ = std::chrono::steady_clock::now() - start;
        return call;
    }
    std::chrono::steady_clock::duration elapsed_{};
};

// ---- sa_mkdir ----

TEST_F(SaveLogTest, MkdirMakesOneLevelAndTracesSuccess) {
    EXPECT_EQ(0, sa_mkdir("/data/one"));
    EXPECT_TRUE(is_dir("/data/one"));
    std::string log = log_text();
    size_t at = log.find("sa_mkdir log_path_ptr[/data/one]");
    ASSERT_NE(std::string::npos, at);
    at = log.find("sa_mkdir mkdir return[0]", at);
    ASSERT_NE(std::string::npos, at);
    EXPECT_NE(std::string::npos, log.find("sa_mkdir mkdir(/data/one) successfully", at));
    EXPECT_EQ(0u, count_of(log, "faild"));
}

TEST_F(SaveLogTest, MkdirOnAnExistingFolderFailsFiveTimes) {
    ASSERT_EQ(0, mkdir("/data/there", 0755));
    auto start = std::chrono::steady_clock::now();
    errno = 0;
    EXPECT_EQ(-1, sa_mkdir("/data/there"));
    EXPECT_EQ(EEXIST, errno);
    // Every failure, the fifth too, is followed by a 50 ms pause.
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(250));
    std::string log = log_text();
    EXPECT_EQ(5u, count_of(log, "sa_mkdir mkdir return[-1]"));
    EXPECT_EQ(5u, count_of(log, "sa_mkdir mkdir(/data/there) faild errno[17] strerror[File exists]"));
    EXPECT_EQ(0u, count_of(log, "successfully"));
}

TEST_F(SaveLogTest, MkdirMakesOnlyOneLevel) {
    EXPECT_EQ(-1, sa_mkdir("/data/missing/child"));
    EXPECT_FALSE(file_exists("/data/missing"));
    EXPECT_EQ(
        5u,
        count_of(log_text(),
                 "sa_mkdir mkdir(/data/missing/child) faild errno[2] strerror[No such file or directory]"));
}

TEST_F(SaveLogTest, MkdirOfNullPathIsAnInvalidParameter) {
    EXPECT_EQ(-101, sa_mkdir(nullptr));
    EXPECT_NE(std::string::npos, log_text().find("log_path_ptr invalid"));
}

// ---- the handler's argument check ----

TEST_F(SaveLogTest, BadArgumentsAreRefusedWithoutAnswerOrSave) {
    std::vector<std::string> results = call_with_bad_arguments(handle_sa_save_log_set, "SA+SAVE_LOG");
    EXPECT_EQ((std::vector<std::string>{"-101", "-101", "-101", "-101", "-101", ""}), results);
    std::string log = log_text();
    size_t at = 0;
    for (const std::string &flags : bad_argument_traces()) {
        at = log.find(flags, at);
        ASSERT_NE(std::string::npos, at) << flags;
    }
    EXPECT_EQ(std::string::npos, log.find("log_path_a["));
    EXPECT_FALSE(file_exists(kRoot));
}

// ---- where the save goes ----

TEST_F(SaveLogTest, NoCardMountedFailsFiveTimesForRootAndFolderAndAnswersError) {
    remove_card();
    time_t before = time(nullptr);
    handler_call_st call = Save();
    time_t after = time(nullptr);
    EXPECT_EQ(0, call.m_ret);
    EXPECT_EQ(kError, call.m_answer);
    // Ten failed attempts, each followed by its 50 ms pause.
    EXPECT_GE(elapsed_, std::chrono::milliseconds(500));

    std::string log = log_text();
    EXPECT_EQ(
        5u,
        count_of(log,
                 "sa_mkdir mkdir(/storage/real_sd/logs) faild errno[2] strerror[No such file or directory]"));
    EXPECT_EQ(10u, count_of(log, "faild errno[2] strerror[No such file or directory]"));
    EXPECT_NE(std::string::npos,
              log.find("handle_sa_save_log_set sa_mkdir(/storage/real_sd/logs) return[-1]"));
    bool folder_traced = false;
    for (time_t t = before; t <= after; ++t) {
        std::string folder = save_folder_for(t);
        if (count_of(log, "sa_mkdir mkdir(" + folder + ") faild errno[2]") != 5) continue;
        folder_traced = true;
        EXPECT_NE(std::string::npos, log.find("handle_sa_save_log_set sa_mkdir(" + folder + ") return[-1]"));
        EXPECT_NE(std::string::npos, log.find("can not open path \"" + folder + "\""));
    }
    EXPECT_TRUE(folder_traced);
    EXPECT_NE(std::string::npos, log.find("handle_sa_save_log_set ret_val[-118]"));
    EXPECT_EQ(std::string::npos, log.find("handle_sa_save_log_set ret_val[0]"));
    // Nothing was copied or dumped.
    EXPECT_EQ(std::string::npos, log.find("PUB_UTIL_CALL_SYSTEM"));
    EXPECT_EQ(std::string::npos, log.find("cmd["));
}

TEST_F(SaveLogTest, WithCardRootPresentOnlyTheDatedFolderIsMade) {
    ASSERT_EQ(0, mkdir(kRoot, 0755));
    handler_call_st call = Save();
    EXPECT_EQ(0, call.m_ret);
    EXPECT_EQ(kOk, call.m_answer);
    std::string log = log_text();
    EXPECT_EQ(1u, count_of(log, "sa_mkdir log_path_ptr["));
    EXPECT_EQ(std::string::npos, log.find("sa_mkdir(/storage/real_sd/logs) return"));
    std::string folder = only_save_folder();
    ASSERT_FALSE(folder.empty());
    EXPECT_NE(std::string::npos, log.find("sa_mkdir mkdir(" + folder + ") successfully"));
}

TEST_F(SaveLogTest, MissingCardRootIsMadeBeforeTheDatedFolder) {
    handler_call_st call = Save();
    EXPECT_EQ(kOk, call.m_answer);
    std::string log = log_text();
    size_t root = log.find("handle_sa_save_log_set sa_mkdir(/storage/real_sd/logs) return[0]");
    ASSERT_NE(std::string::npos, root);
    std::string path = only_save_folder();
    ASSERT_FALSE(path.empty());
    size_t folder = log.find("handle_sa_save_log_set sa_mkdir(" + path + ") return[0]");
    ASSERT_NE(std::string::npos, folder);
    EXPECT_LT(root, folder);
    EXPECT_NE(std::string::npos, log.find("handle_sa_save_log_set ret_val[0]", folder));
}

TEST_F(SaveLogTest, FolderIsNamedByTheLocalTimeOfTheRequest) {
    time_t before = time(nullptr);
    handler_call_st call = Save();
    time_t after = time(nullptr);
    EXPECT_EQ(kOk, call.m_answer);
    std::string folder = only_save_folder();
    ASSERT_FALSE(folder.empty());
    EXPECT_TRUE(is_save_folder_between(folder, before, after)) << folder;
    // Four-digit year, then two digits each for month, day, hour, minute and second.
    std::string name = folder.substr(strlen(kRoot) + 1);
    ASSERT_EQ(19u, name.size());
    for (size_t i = 0; i < name.size(); ++i) {
        bool sep = i == 4 || i == 7 || i == 10 || i == 13 || i == 16;
        EXPECT_EQ(sep, name[i] == '_') << name;
        if (!sep) {
            EXPECT_TRUE(isdigit(static_cast<unsigned char>(name[i]))) << name;
        }
    }
    EXPECT_NE(std::string::npos, log_text().find("handle_sa_save_log_set log_path_a[" + folder + "] fd["));
}

TEST_F(SaveLogTest, TwoSavesWithinOneSecondShareTheFolder) {
    // The first save makes the folder of its second; a second save in the same second finds it there
    // and does not make it again. The first save's part is stood in for by the folders of the next two
    // minutes, made as a save makes its own, so that the second save finds its folder however long it
    // takes to start (see make_save_folders).
    const size_t from = log_text().size();
    const time_t before = time(nullptr);
    ASSERT_TRUE(make_save_folders(before, 120));
    handler_call_st second = Save();
    const time_t after = time(nullptr);
    ASSERT_LT(after, before + 120);
    EXPECT_EQ(kOk, second.m_answer);
    const std::string log = log_text().substr(from);
    std::string folder;
    for (time_t t = before; t <= after && folder.empty(); ++t) {
        if (count_of(log, "handle_sa_save_log_set log_path_a[" + save_folder_for(t) + "]") == 1)
            folder = save_folder_for(t);
    }
    ASSERT_FALSE(folder.empty()) << log;
    // The second save found the folder and did not try to make it again.
    EXPECT_EQ(0u, count_of(log, "sa_mkdir log_path_ptr[" + folder + "]"));
    EXPECT_EQ(0u, count_of(log, "faild"));
    EXPECT_EQ(1u, count_of(log, "handle_sa_save_log_set ret_val[0]"));
    EXPECT_TRUE(is_dir(folder + "/log"));
}

// ---- what is saved ----

class SaveLogSourcesTest : public SaveLogTest {
   protected:
    void SetUp() override {
        SaveLogTest::SetUp();
        put_file("/data/local/log/dmesg.log", "dmesg snapshot\n");
        put_file("/data/rec_dump.txt", "rec dump\n");
        put_file("/data/play_out_dump.txt", "play dump\n");
        put_file("/data/local/log-modem/modem.bin", "modem 0\n");
        put_file("/data/local/log-modem-1/modem.bin", "modem 1\n");
        put_file("/data/local/log-modem-2/modem.bin", "modem 2\n");
        put_file("/data/log/system.log", "data log\n");
        put_file("/data/anr/traces.txt", "anr traces\n");
        put_file("/data/data/com.android.mms/databases/mms.db", "mms\n");
        put_file("/data/data/com.android.providers.telephony/databases/telephony.db", "telephony\n");
        put_file("/data/tombstones/tombstone_00", "tombstone\n");
    }
};

TEST_F(SaveLogSourcesTest, EveryStepRunsInOrderWithItsExactLine) {
    handler_call_st call = Save();
    EXPECT_EQ(0, call.m_ret);
    EXPECT_EQ(kOk, call.m_answer);
    std::string f = only_save_folder();
    ASSERT_FALSE(f.empty());
    const std::string lines[] = {
        ", cat /proc/driver/codec > " + f + "/zv7750regs.log)",
        ", busybox cp /data/rec_dump.txt  " + f + " -R)",
        ", busybox cp /data/play_out_dump.txt  " + f + " -R)",
        "cmd[busybox cp /data/local/log " + f + "/ -R]",
        "handle_sa_save_log_set [3]do_sys_command cp /data/local/log ret_val[0] ",
        "cmd[busybox cp /data/local/log-modem " + f + "/ -R]",
        "handle_sa_save_log_set [4]do_sys_command cp /data/local/log-modem ret_val[0] ",
        "cmd[busybox cp /data/local/log-modem-1 " + f + "/ -R]",
        "handle_sa_save_log_set [5]do_sys_command cp /data/local/log-modem-1 ret_val[0] ",
        "cmd[busybox cp /data/local/log-modem-2 " + f + "/ -R]",
        "handle_sa_save_log_set [6]do_sys_command cp /data/local/log-modem-2 ret_val[0] ",
        "cmd[busybox cp /data/log " + f + "/data-log -R]",
        "handle_sa_save_log_set [7]do_sys_command cp /data/log ret_val[0] ",
        "cmd[busybox cp /data/anr " + f + " -R]",
        "handle_sa_save_log_set [8]do_sys_command cp /data/anr ret_val[0] ",
        "cmd[busybox cp /data/data/com.android.mms " + f + " -R]",
        "handle_sa_save_log_set [9]do_sys_command cp /data/data/com.android.mms ret_val[0] ",
        "handle_sa_save_log_set sa_mkdir(" + f + "/com.android.providers.telephony) return[0]",
        "cmd[busybox cp /data/data/com.android.providers.telephony " + f +
            "/com.android.providers.telephony -R]",
        "handle_sa_save_log_set [10]do_sys_command cp /data/data/com.android.providers.telephony ret_val[0] ",
        "PUB_UTIL_CALL_SYSTEM(0, getprop > " + f + "/getprop.log)",
        "PUB_UTIL_CALL_SYSTEM(0, busybox ifconfig > " + f + "/ifconfig.log)",
        "PUB_UTIL_CALL_SYSTEM(0, ls /tmp > " + f + "/ls_tmp.log)",
        ", lsmod > " + f + "/lsmod.log)",
        ", ps > " + f + "/ps.log)",
        "PUB_UTIL_CALL_SYSTEM(0, busybox route > " + f + "/route.log)",
        "PUB_UTIL_CALL_SYSTEM(0, bugreport > " + f + "/bugreport.log)",
        "PUB_UTIL_CALL_SYSTEM(0, busybox cp /data/tombstones  " + f + " -R)",
    };
    std::string log = log_text();
    size_t at = log.find("handle_sa_save_log_set ret_val[0]");
    ASSERT_NE(std::string::npos, at);
    for (const std::string &line : lines) {
        size_t pos = log.find(line, at);
        ASSERT_NE(std::string::npos, pos) << line;
        at = pos + line.size();
    }
    // Each copy succeeded at its first run.
    for (const std::string &line : lines) {
        if (line.compare(0, 4, "cmd[") != 0) continue;
        std::string cmd = line.substr(4, line.size() - 5);
        EXPECT_EQ(1u, count_of(log, "PUB_UTIL_CALL_SYSTEM(0, " + cmd + ")")) << cmd;
        EXPECT_EQ(0u, count_of(log, "to exec: " + cmd)) << cmd;
    }
}

TEST_F(SaveLogSourcesTest, LogFolderLandsAsLogAndDataLogAsDataLog) {
    EXPECT_EQ(kOk, Save().m_answer);
    std::string f = only_save_folder();
    ASSERT_FALSE(f.empty());
    EXPECT_EQ("<6>kernel line\n", read_file(f + "/log/kmsg.log"));
    EXPECT_EQ("dmesg snapshot\n", read_file(f + "/log/dmesg.log"));
    EXPECT_EQ("data log\n", read_file(f + "/data-log/system.log"));
    EXPECT_EQ("modem 0\n", read_file(f + "/log-modem/modem.bin"));
    EXPECT_EQ("modem 1\n", read_file(f + "/log-modem-1/modem.bin"));
    EXPECT_EQ("modem 2\n", read_file(f + "/log-modem-2/modem.bin"));
    EXPECT_EQ("anr traces\n", read_file(f + "/anr/traces.txt"));
    EXPECT_EQ("mms\n", read_file(f + "/com.android.mms/databases/mms.db"));
    EXPECT_EQ("rec dump\n", read_file(f + "/rec_dump.txt"));
    EXPECT_EQ("play dump\n", read_file(f + "/play_out_dump.txt"));
    EXPECT_EQ("tombstone\n", read_file(f + "/tombstones/tombstone_00"));
    // Nothing is taken away at the source.
    EXPECT_EQ("<6>kernel line\n", read_file("/data/local/log/kmsg.log"));
    EXPECT_EQ("data log\n", read_file("/data/log/system.log"));
    EXPECT_EQ("tombstone\n", read_file("/data/tombstones/tombstone_00"));
}

TEST_F(SaveLogSourcesTest, TelephonyFolderIsMadeBeforeTheCopyIntoIt) {
    EXPECT_EQ(kOk, Save().m_answer);
    std::string f = only_save_folder();
    ASSERT_FALSE(f.empty());
    std::string sub = f + "/com.android.providers.telephony";
    std::string log = log_text();
    size_t made = log.find("sa_mkdir mkdir(" + sub + ") successfully");
    size_t copy = log.find("cmd[busybox cp /data/data/com.android.providers.telephony " + sub + " -R]");
    ASSERT_NE(std::string::npos, made);
    ASSERT_NE(std::string::npos, copy);
    EXPECT_LT(made, copy);
    // The copy goes into the folder made for it.
    EXPECT_EQ("telephony\n", read_file(sub + "/com.android.providers.telephony/databases/telephony.db"));
}

TEST_F(SaveLogSourcesTest, DumpsAreWrittenIntoTheFolder) {
    put_file("/tmp/marker-in-tmp", "x");
    write_file("/dev/__properties__/persist.sys.zv.test", "save-me");
    EXPECT_EQ(kOk, Save().m_answer);
    std::string f = only_save_folder();
    ASSERT_FALSE(f.empty());
    EXPECT_NE(std::string::npos, read_file(f + "/ls_tmp.log").find("marker-in-tmp\n"));
    EXPECT_NE(std::string::npos, read_file(f + "/getprop.log").find("[persist.sys.zv.test]: [save-me]"));
    EXPECT_NE(std::string::npos, read_file(f + "/ifconfig.log").find("lo"));
    EXPECT_TRUE(file_exists(f + "/route.log"));
    std::string report = read_file(f + "/bugreport.log");
    EXPECT_EQ(0u, report.find("========================================================\n== dumpstate: "));
    EXPECT_NE(std::string::npos, report.find("------ SYSTEM PROPERTIES (getprop) ------\n"));
    // The codec dump has no source on this handset: its file is made by the redirection and stays empty.
    EXPECT_TRUE(file_exists(f + "/zv7750regs.log"));
    EXPECT_EQ("", read_file(f + "/zv7750regs.log"));
}

// ---- conditional steps ----

TEST_F(SaveLogTest, MissingModem1IsSkippedSilentlyAndModem2StillRuns) {
    put_file("/data/local/log-modem-2/modem.bin", "modem 2\n");
    EXPECT_EQ(kOk, Save().m_answer);
    std::string log = log_text();
    EXPECT_EQ(std::string::npos, log.find("log-modem-1"));
    EXPECT_EQ(std::string::npos, log.find("[5]do_sys_command"));
    EXPECT_EQ(std::string::npos, log.find("[4]do_sys_command"));
    EXPECT_NE(std::string::npos,
              log.find("handle_sa_save_log_set [6]do_sys_command cp /data/local/log-modem-2 ret_val[0] "));
    std::string folder = only_save_folder();
    ASSERT_FALSE(folder.empty());
    EXPECT_EQ("modem 2\n", read_file(folder + "/log-modem-2/modem.bin"));
}

TEST_F(SaveLogTest, StepsWhoseSourceIsMissingAreSkipped) {
    EXPECT_EQ(kOk, Save().m_answer);
    std::string log = log_text();
    EXPECT_NE(std::string::npos,
              log.find("handle_sa_save_log_set [3]do_sys_command cp /data/local/log ret_val[0] "));
    for (const char *step : {"[4]", "[5]", "[6]", "[7]", "[8]", "[9]", "[10]"})
        EXPECT_EQ(std::string::npos, log.find(std::string("handle_sa_save_log_set ") + step)) << step;
    EXPECT_EQ(std::string::npos, log.find("com.android.providers.telephony"));
    EXPECT_EQ(std::string::npos, log.find("/data-log"));
    // The unconditional copies still run, and fail, without a source.
    EXPECT_NE(std::string::npos, log.find("error(256) to exec: busybox cp /data/tombstones  "));
    EXPECT_NE(std::string::npos, log.find("error(256) to exec: busybox cp /data/rec_dump.txt  "));
}

// ---- failing steps ----

TEST_F(SaveLogTest, FailingStepsNeverStopTheSequence) {
    // The codec dump, the two audio dumps and the tombstones fail here; everything after them still runs.
    EXPECT_EQ(kOk, Save().m_answer);
    std::string log = log_text();
    std::string f = only_save_folder();
    ASSERT_FALSE(f.empty());
    size_t codec = log.find("error(256) to exec: cat /proc/driver/codec > " + f + "/zv7750regs.log");
    ASSERT_NE(std::string::npos, codec);
    size_t rec = log.find("error(256) to exec: busybox cp /data/rec_dump.txt  " + f + " -R", codec);
    ASSERT_NE(std::string::npos, rec);
    size_t copy = log.find("handle_sa_save_log_set [3]do_sys_command cp /data/local/log ret_val[0] ", rec);
    ASSERT_NE(std::string::npos, copy);
    size_t report = log.find("PUB_UTIL_CALL_SYSTEM(0, bugreport > " + f + "/bugreport.log)", copy);
    ASSERT_NE(std::string::npos, report);
    EXPECT_NE(std::string::npos,
              log.find("error(256) to exec: busybox cp /data/tombstones  " + f + " -R", report));
    EXPECT_TRUE(file_exists(f + "/bugreport.log"));
}

TEST_F(SaveLogTest, FullCardRetriesEachCopyAndStillAnswersOk) {
    ASSERT_EQ(0, mkdir(kRoot, 0755));
    ASSERT_TRUE(fill_file_system(kCard));
    handler_call_st call = Save();
    EXPECT_EQ(0, call.m_ret);
    EXPECT_EQ(kOk, call.m_answer);
    // The log folder copy ran five times, each run followed by a 500 ms pause.
    EXPECT_GE(elapsed_, std::chrono::milliseconds(2500));
    std::string log = log_text();
    std::string f = only_save_folder();
    ASSERT_FALSE(f.empty());
    std::string line = "busybox cp /data/local/log " + f + "/ -R";
    EXPECT_EQ(5u, count_of(log, "to exec: " + line));
    size_t failed = log.find("handle_sa_save_log_set [3]do_sys_command cp /data/local/log ret_val[-118] ");
    ASSERT_NE(std::string::npos, failed);
    EXPECT_NE(std::string::npos, log.find(", bugreport > " + f + "/bugreport.log)", failed));
    EXPECT_NE(std::string::npos, log.find(", busybox cp /data/tombstones  " + f + " -R)", failed));
}

}  // namespace
