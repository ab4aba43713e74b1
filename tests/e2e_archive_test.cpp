// End-to-end tests of the log archive: "+SAVE_LOG" and "+DELETE_LOG" sent to the real daemon through the
// command link /dev/ttySA0, with its log capture running (the handset's fake logcat and tcpdump, the
// kernel log reader). The handset has a 64 MiB card and a 16 MiB /data, so a filler file can take /data
// below the free space the capture needs.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "archive.h"
#include "harness.h"

using namespace zvtest;
using namespace archive_test;
using namespace std::chrono_literals;

namespace {

constexpr char kOk[] = "\r\nOK\r\n";
constexpr char kErr[] = "\r\nERROR: 4294967295\r\n";
constexpr char kMarker[] = "MARKER-before-delete\n";
constexpr char kKeptText[] = "not a capture file\n";
constexpr char kFiller[] = "/data/filler";  // made by leave_data_available_kb
constexpr char kConfigProp[] = "/dev/__properties__/persist.sys.install.zv.log";
// How long the channel is watched after an answer for anything more.
constexpr auto kQuiet = 1500ms;

// Capture files of every kind and generation, and the modem archives next to the log folder.
const std::vector<std::string> kDeleted = {
    "/data/local/log/kmsg.log.4",           "/data/local/log/ipdata.pcap7",
    "/data/local/log/logcat.log.3",         "/data/local/log/logcat-events.log.2",
    "/data/local/log/logcat-radio.log.1",   "/data/local/log/zv-poweron-log.log",
    "/data/local/log/zv-poweron-log.log.1", "/data/local/log-modem.tgz",
    "/data/local/log-modem-2.tgz",
};
// What the delete leaves: the dmesg snapshots, the panic copies and the modem log folders.
const std::vector<std::string> kKept = {
    "/data/local/log/dmesg.log",       "/data/local/log/dmesg.log.1",
    "/data/local/log/apanic_console",  "/data/local/log/apanic_threads.1",
    "/data/local/log-modem/modem.bin", "/data/local/log-modem-1/modem.bin",
};

// The daemon's running (not zombie) logcat and tcpdump children.
std::vector<pid_t> capture_children(pid_t daemon) {
    std::vector<pid_t> out;
    for (pid_t pid : child_pids(daemon)) {
        std::string proc = "/proc/" + std::to_string(pid);
        std::string cmdline = read_file(proc + "/cmdline");
        std::string argv0 = cmdline.substr(0, cmdline.find('\0'));
        std::string base = argv0.substr(argv0.rfind('/') + 1);
        std::string stat = read_file(proc + "/stat");
        size_t paren = stat.rfind(')');
        bool zombie = paren != std::string::npos && paren + 2 < stat.size() && stat[paren + 2] == 'Z';
        if ((base == "logcat" || base == "tcpdump") && !zombie) out.push_back(pid);
    }
    std::sort(out.begin(), out.end());
    return out;
}

bool gone(pid_t pid) {
    std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
    size_t paren = stat.rfind(')');
    return stat.empty() || (paren != std::string::npos && paren + 2 < stat.size() && stat[paren + 2] == 'Z');
}

class ArchiveE2eTest : public ::testing::Test {
   protected:
    void SetUp() override {
        // The fake logcat writes nothing, so nothing but the test fills /data.
        put_file("/data/local/tmp/fake-logcat.rate", "0\n");
        StartDaemon();
    }
    void StartDaemon() {
        // The log folder as the handset's init scripts leave it: logcat runs as the shell user and
        // writes there.
        prepare_data();
        ASSERT_EQ(0, chown("/data/local/log", 2000, 2000));
        daemon_ = start_daemon_with_links();
        ASSERT_GT(daemon_.pid, 0);
        ASSERT_FALSE(link_target(kCmdLink).empty()) << read_file(kDaemonOut);
        fd_ = open_client(kCmdLink);
        ASSERT_GE(fd_, 0);
    }
    void TearDown() override {
        if (fd_ >= 0) close(fd_);
        kill_and_reap(daemon_.pid);
    }
    // Sends one request, then watches the channel: exactly one answer must come.
    std::string RequestOnce(const std::string &request, std::chrono::milliseconds timeout = 30s) {
        std::string answer = cmd_request(fd_, request, timeout);
        // The command thread answers one request after another, so a second answer would come before
        // the fence's; the quiet window before it also catches one written from elsewhere.
        EXPECT_EQ("", read_for(fd_, kQuiet)) << "more than one answer to " << request;
        EXPECT_EQ(0u, read_through_fence(fd_).rfind(kFenceAnswerStart, 0))
            << "more than one answer to " << request;
        return answer;
    }
    Daemon daemon_;
    int fd_ = -1;
};

// ---- +SAVE_LOG ----

TEST_F(ArchiveE2eTest, SaveAnswersOkOnceIntoAFolderNamedByTheLocalTime) {
    time_t before = time(nullptr);
    EXPECT_EQ(kOk, RequestOnce("SA+SAVE_LOG\r"));
    time_t after = time(nullptr);
    std::string folder = only_save_folder();
    ASSERT_FALSE(folder.empty());
    EXPECT_TRUE(is_save_folder_between(folder, before, after)) << folder;
    std::vector<std::string> messages = sa_log_messages();
    EXPECT_GE(find_message(messages, "handle_sa_save_log_set exit ret_val[0]"), 0);
    std::string log = read_file(kLogClientFile);
    EXPECT_NE(std::string::npos, log.find("handle_sa_save_log_set log_path_a[" + folder + "] fd["));
    // A fresh card has no log root: it is made, then the dated folder.
    EXPECT_NE(std::string::npos,
              log.find("handle_sa_save_log_set sa_mkdir(/storage/real_sd/logs) return[0]"));
}

TEST_F(ArchiveE2eTest, SaveCopiesLogFolderAsLogAndDataLogAsDataLog) {
    put_file("/data/log/system.log", "data log\n");
    put_file("/data/local/log/dmesg.log", "dmesg snapshot\n");
    write_file("/dev/__properties__/persist.sys.zv.test", "saved");
    EXPECT_EQ(kOk, RequestOnce("SA+SAVE_LOG\r"));
    std::string folder = only_save_folder();
    ASSERT_FALSE(folder.empty());
    EXPECT_EQ("data log\n", read_file(folder + "/data-log/system.log"));
    EXPECT_EQ("dmesg snapshot\n", read_file(folder + "/log/dmesg.log"));
    // The daemon's own trace, as it was while the copy ran.
    EXPECT_NE(std::string::npos, read_file(folder + "/log/sa.log").find("log_path_a[" + folder + "]"));
    // The capture files that were being written are in the snapshot too.
    EXPECT_TRUE(file_exists(folder + "/log/ipdata.pcap0"));
    // Dumps of the handset's state.
    EXPECT_EQ(0u, read_file(folder + "/bugreport.log")
                      .find("========================================================\n== dumpstate: "));
    EXPECT_NE(std::string::npos, read_file(folder + "/getprop.log").find("[persist.sys.zv.test]: [saved]\n"));
    EXPECT_NE(std::string::npos, read_file(folder + "/ifconfig.log").find("lo"));
    // Nothing is deleted at the source.
    EXPECT_EQ("data log\n", read_file("/data/log/system.log"));
}

TEST_F(ArchiveE2eTest, SaveWithoutModem1SkipsItsStepAndStillCopiesModem2) {
    put_file("/data/local/log-modem-2/modem.bin", "modem 2\n");
    EXPECT_EQ(kOk, RequestOnce("SA+SAVE_LOG\r"));
    std::string folder = only_save_folder();
    ASSERT_FALSE(folder.empty());
    std::string log = read_file(kLogClientFile);
    EXPECT_EQ(std::string::npos, log.find("log-modem-1"));
    EXPECT_EQ(std::string::npos, log.find("[5]do_sys_command"));
    EXPECT_NE(std::string::npos,
              log.find("handle_sa_save_log_set [6]do_sys_command cp /data/local/log-modem-2 ret_val[0] "));
    EXPECT_EQ("modem 2\n", read_file(folder + "/log-modem-2/modem.bin"));
    EXPECT_FALSE(file_exists(folder + "/log-modem-1"));
}

TEST_F(ArchiveE2eTest, SaveMakesTheTelephonyFolderBeforeItsCopy) {
    put_file("/data/data/com.android.providers.telephony/databases/telephony.db", "telephony\n");
    EXPECT_EQ(kOk, RequestOnce("SA+SAVE_LOG\r"));
    std::string folder = only_save_folder();
    ASSERT_FALSE(folder.empty());
    std::string sub = folder + "/com.android.providers.telephony";
    std::string log = read_file(kLogClientFile);
    size_t made = log.find("handle_sa_save_log_set sa_mkdir(" + sub + ") return[0]");
    size_t copied = log.find(
        "handle_sa_save_log_set [10]do_sys_command cp /data/data/com.android.providers.telephony "
        "ret_val[0] ");
    ASSERT_NE(std::string::npos, made);
    ASSERT_NE(std::string::npos, copied);
    EXPECT_LT(made, copied);
    EXPECT_EQ("telephony\n", read_file(sub + "/com.android.providers.telephony/databases/telephony.db"));
}

TEST_F(ArchiveE2eTest, SaveWithCardRootPresentMakesOnlyTheDatedFolder) {
    make_dirs(kSaveRoot);
    EXPECT_EQ(kOk, RequestOnce("SA+SAVE_LOG\r"));
    std::string folder = only_save_folder();
    ASSERT_FALSE(folder.empty());
    std::string log = read_file(kLogClientFile);
    EXPECT_EQ(1u, count_in(log, "sa_mkdir log_path_ptr["));
    EXPECT_EQ(1u, count_in(log, "sa_mkdir log_path_ptr[" + folder + "]"));
}

TEST_F(ArchiveE2eTest, FailingStepsDoNotStopTheSaveAndTheDaemonServesOn) {
    // No codec dump, no audio dumps and no tombstones on this handset: those steps fail.
    EXPECT_EQ(kOk, RequestOnce("SA+SAVE_LOG\r"));
    std::string folder = only_save_folder();
    ASSERT_FALSE(folder.empty());
    std::string log = read_file(kLogClientFile);
    size_t codec = log.find("error(256) to exec: cat /proc/driver/codec > " + folder + "/zv7750regs.log");
    ASSERT_NE(std::string::npos, codec);
    size_t report = log.find("PUB_UTIL_CALL_SYSTEM(0, bugreport > " + folder + "/bugreport.log)", codec);
    ASSERT_NE(std::string::npos, report);
    EXPECT_NE(std::string::npos,
              log.find("error(256) to exec: busybox cp /data/tombstones  " + folder + " -R", report));
    EXPECT_EQ(kOk, RequestOnce("AT\r"));
}

TEST_F(ArchiveE2eTest, TwoSavesWithinOneSecondShareTheFolder) {
    // A second save in the same second as the first finds the first one's folder and does not make it
    // again. The first save's part is stood in for by the folders of the next two minutes, made as a
    // save makes its own, so that the save finds its folder however long it takes to start (see
    // make_save_folders).
    const time_t before = time(nullptr);
    ASSERT_TRUE(make_save_folders(before, 120));
    EXPECT_EQ(kOk, cmd_request(fd_, "SA+SAVE_LOG\r", 60s));
    const time_t after = time(nullptr);
    ASSERT_LT(after, before + 120);
    const std::string log = read_file(kLogClientFile);
    std::string folder;
    for (time_t t = before; t <= after && folder.empty(); ++t) {
        if (count_in(log, "handle_sa_save_log_set log_path_a[" + save_folder_for(t) + "]") == 1)
            folder = save_folder_for(t);
    }
    ASSERT_FALSE(folder.empty()) << log;
    EXPECT_TRUE(file_exists(folder + "/log/sa.log"));
    EXPECT_EQ(0u, count_in(log, "sa_mkdir log_path_ptr[" + folder + "]"));
    EXPECT_EQ(0u, count_in(log, "faild"));
}

// ---- +DELETE_LOG ----

TEST_F(ArchiveE2eTest, DeleteRemovesCaptureFilesKeepsTheRestAndRestartsCapture) {
    std::vector<pid_t> before = capture_children(daemon_.pid);
    ASSERT_EQ(4u, before.size());
    for (const std::string &path : kDeleted) put_file(path, kMarker);
    for (const std::string &path : kKept) put_file(path, kKeptText);

    EXPECT_EQ(kOk, RequestOnce("SA+DELETE_LOG\r"));
    for (const std::string &path : kDeleted) EXPECT_FALSE(file_exists(path)) << path;
    for (const std::string &path : kKept) EXPECT_EQ(kKeptText, read_file(path)) << path;
    EXPECT_EQ(std::vector<std::string>{}, files_containing("/data/local/log", kMarker));
    EXPECT_TRUE(file_exists(kSaLog));
    EXPECT_TRUE(file_exists(kLogClientFile));

    // The old capture children were killed; as many new ones run.
    for (pid_t pid : before) EXPECT_TRUE(poll_until([&] { return gone(pid); }, 5s)) << pid;
    std::vector<pid_t> after;
    EXPECT_TRUE(poll_until(
        [&] {
            after = capture_children(daemon_.pid);
            return after.size() == before.size();
        },
        5s));
    for (pid_t pid : after) EXPECT_EQ(before.end(), std::find(before.begin(), before.end(), pid));
    std::string log = read_file(kLogClientFile);
    EXPECT_NE(std::string::npos, log.find("handle_sa_delete_log_set sa_log_delete_log ret_val[0]"));
}

// A daemon whose log configuration starts no capture, so no capture file ever appears.
class ArchiveNoCaptureE2eTest : public ArchiveE2eTest {
   protected:
    void SetUp() override {
        write_file(kConfigProp, "/data/local/log,I1,0,0,I2,0,0,I3,0,0,I4,0,0,I5,0,0,I6,0,0");
        StartDaemon();
    }
};

TEST_F(ArchiveNoCaptureE2eTest, DeleteWithEmptyLogFolderAnswersOkWhenCaptureRestarts) {
    ASSERT_TRUE(capture_children(daemon_.pid).empty());
    for (const char *name : {"kmsg.log", "ipdata.pcap0", "logcat.log"})
        ASSERT_FALSE(file_exists(std::string("/data/local/log/") + name)) << name;

    EXPECT_EQ(kOk, RequestOnce("SA+DELETE_LOG\r"));
    std::string log = read_file(kLogClientFile);
    const char *patterns[] = {"/data/local/log/kmsg.log*",          "/data/local/log/ipdata.pcap*",
                              "/data/local/log/logcat.log*",        "/data/local/log/logcat-events.log*",
                              "/data/local/log/logcat-radio.log*",  "/data/local/log-modem*.tgz",
                              "/data/local/log/zv-poweron-log.log*"};
    size_t at = log.find("util_delete_ex src_dir[/data/local/log]");
    ASSERT_NE(std::string::npos, at);
    for (const char *pattern : patterns) {
        size_t pos = log.find(std::string("util_delete_ex delete file[") + pattern + "] ret[256]", at);
        ASSERT_NE(std::string::npos, pos) << pattern;
        at = pos;
    }
    EXPECT_NE(std::string::npos, log.find("start_log_service ret_val[0]", at));
    EXPECT_NE(std::string::npos, log.find("handle_sa_delete_log_set sa_log_delete_log ret_val[0]", at));
}

TEST_F(ArchiveE2eTest, DeleteWithTooLittleSpaceAnswersErrorAndNoCaptureRunsAfterwards) {
    std::vector<pid_t> before = capture_children(daemon_.pid);
    ASSERT_EQ(4u, before.size());
    int threads = count_threads(daemon_.pid);
    for (const std::string &path : kDeleted) put_file(path, kMarker);
    // 16 MiB of /data needs 819 KB free for capture; leave 400 KB.
    ASSERT_TRUE(leave_data_available_kb(400));

    EXPECT_EQ(kErr, RequestOnce("SA+DELETE_LOG\r"));
    for (const std::string &path : kDeleted) EXPECT_FALSE(file_exists(path)) << path;
    std::string log = read_file(kLogClientFile);
    EXPECT_NE(std::string::npos, log.find("sa_log_delete_log sa_is_can_start_log_service error"));
    EXPECT_NE(std::string::npos, log.find("handle_sa_delete_log_set sa_log_delete_log ret_val[-117]"));

    // Every child is gone, and so are its waiter thread and the kernel log reader; nothing restarts.
    for (pid_t pid : before) EXPECT_TRUE(poll_until([&] { return gone(pid); }, 5s)) << pid;
    EXPECT_TRUE(capture_children(daemon_.pid).empty());
    int expected = threads - static_cast<int>(before.size()) - 1;
    EXPECT_TRUE(poll_until([&] { return count_threads(daemon_.pid) == expected; }, 5s))
        << count_threads(daemon_.pid) << " threads, expected " << expected;
    EXPECT_EQ(kOk, RequestOnce("AT\r"));
    EXPECT_TRUE(capture_children(daemon_.pid).empty());
}

TEST_F(ArchiveE2eTest, LaterDeleteWithRoomAgainRestartsTheCapture) {
    ASSERT_EQ(4u, capture_children(daemon_.pid).size());
    ASSERT_TRUE(leave_data_available_kb(400));
    EXPECT_EQ(kErr, RequestOnce("SA+DELETE_LOG\r"));
    EXPECT_TRUE(poll_until([&] { return capture_children(daemon_.pid).empty(); }, 5s));
    // Still too little: the answer stays ERROR, and stopping the stopped capture again is harmless.
    EXPECT_EQ(kErr, RequestOnce("SA+DELETE_LOG\r"));
    int status = wait_exit(daemon_.pid, 100ms);
    ASSERT_EQ(-1, status) << "the daemon ended: " << (WIFSIGNALED(status) ? "signal " : "status ")
                          << (WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status)) << "\n"
                          << read_file(kDaemonOut);
    EXPECT_TRUE(capture_children(daemon_.pid).empty());

    ASSERT_EQ(0, unlink(kFiller));
    EXPECT_EQ(kOk, RequestOnce("SA+DELETE_LOG\r"));
    EXPECT_TRUE(poll_until([&] { return capture_children(daemon_.pid).size() == 4; }, 5s));
}

TEST_F(ArchiveE2eTest, DeleteParameterIsIgnoredAndNameCaseDoesNotMatter) {
    put_file("/data/local/log/kmsg.log.4", kMarker);
    EXPECT_EQ(kOk, RequestOnce("SA+delete_log=\"anything\"\r"));
    EXPECT_FALSE(file_exists("/data/local/log/kmsg.log.4"));
    EXPECT_EQ(kOk, RequestOnce("SA+Save_Log=1\r"));
    EXPECT_FALSE(only_save_folder().empty());
}

}  // namespace
