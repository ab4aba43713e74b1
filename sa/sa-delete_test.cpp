// Tests of "+DELETE_LOG": the delete lines on the real log folder, and the stop, delete and restart of
// the capture with the handset's fake logcat and tcpdump and the real kernel log reader, on a 16 MiB
// /data whose free space a filler file sets.
#include <gtest/gtest.h>

#include <dirent.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "archive.h"
#include "sa-archive.h"
#include "capture.h"
#include "sa-capture.h"
#include "sa-handle.h"

using zvtest::call_with_bad_arguments;
using namespace sa_capture_test;
using namespace archive_test;

namespace {

constexpr char kLogDir[] = "/data/local/log";
constexpr char kMarker[] = "MARKER-before-delete\n";
constexpr char kPropFile[] = "/dev/__properties__/" SA_LOG_CONFIG_PROP;

// Files the delete takes away: capture files of every kind and generation, and the modem archives.
const std::vector<std::string> kDeleted = {
    "/data/local/log/kmsg.log",
    "/data/local/log/kmsg.log.1",
    "/data/local/log/kmsg.log.4",
    "/data/local/log/ipdata.pcap0",
    "/data/local/log/ipdata.pcap3",
    "/data/local/log/logcat.log",
    "/data/local/log/logcat.log.2",
    "/data/local/log/logcat-events.log",
    "/data/local/log/logcat-events.log.1",
    "/data/local/log/logcat-radio.log",
    "/data/local/log/logcat-radio.log.4",
    "/data/local/log/zv-poweron-log.log",
    "/data/local/log/zv-poweron-log.log.1",
    "/data/local/log-modem.tgz",
    "/data/local/log-modem-1.tgz",
};

// Files that look alike but are not on the delete list.
const std::vector<std::string> kKept = {
    "/data/local/log/sa.log.1",          "/data/local/log/dmesg.log",
    "/data/local/log/dmesg.log.1",       "/data/local/log/dmesg.log.3",
    "/data/local/log/apanic_console",    "/data/local/log/apanic_console.1",
    "/data/local/log/apanic_minidump",   "/data/local/log/apanic_threads.2",
    "/data/local/log/old-kmsg.log",      "/data/local/log-modem/modem.bin",
    "/data/local/log-modem-1/modem.bin", "/data/local/log-modem-2/modem.tgz",
    "/data/local/log-modem.tar",
};

// The seven patterns in the order they are deleted.
const std::vector<std::string> kPatterns = {
    "/data/local/log/kmsg.log*",           "/data/local/log/ipdata.pcap*",      "/data/local/log/logcat.log*",
    "/data/local/log/logcat-events.log*",  "/data/local/log/logcat-radio.log*", "/data/local/log-modem*.tgz",
    "/data/local/log/zv-poweron-log.log*",
};

void put_files(const std::vector<std::string> &paths) {
    for (const std::string &path : paths) put_file(path, kMarker);
}

// Whether a running (not zombie) process runs the program whose file name is name.
bool program_runs(const std::string &name) {
    bool found = false;
    DIR *dir = opendir("/proc");
    if (dir == nullptr) return false;
    while (dirent *d = readdir(dir)) {
        if (d->d_name[0] < '1' || d->d_name[0] > '9') continue;
        std::string cmdline = read_file(std::string("/proc/") + d->d_name + "/cmdline");
        std::string argv0 = cmdline.substr(0, cmdline.find('\0'));
        std::string base = argv0.substr(argv0.rfind('/') + 1);
        if (base == name && process_running(atoi(d->d_name))) found = true;
    }
    closedir(dir);
    return found;
}

bool any_capture_runs() {
    return program_runs("logcat") || program_runs("tcpdump");
}

// Positions of texts in the log, each searched after the previous one; npos from the first one missing.
size_t find_in_order(const std::string &log, const std::vector<std::string> &texts) {
    size_t at = 0;
    for (const std::string &text : texts) {
        size_t pos = log.find(text, at);
        if (pos == std::string::npos) {
            ADD_FAILURE() << "missing in order: " << text;
            return std::string::npos;
        }
        at = pos + text.size();
    }
    return at;
}

class DeleteLogTest : public ::testing::Test {
   protected:
    void SetUp() override {
        start_log_client();
        write_file("/data/local/tmp/fake-logcat.rate", "0\n");
        memset(g_zv_log_svc, 0, sizeof(g_zv_log_svc));
        memset(&g_sa_handle_ctx, 0, sizeof(g_sa_handle_ctx));
        unlink(kPropFile);
        baseline_threads_ = thread_count();
    }
    // Pids of the four capture children in slot order 2, 5, 6, 4.
    static std::vector<pid_t> CapturePids() {
        return {g_zv_log_svc[1].svc_pid, g_zv_log_svc[4].svc_pid, g_zv_log_svc[5].svc_pid,
                g_zv_log_svc[3].svc_pid};
    }
    // Starts the capture as start-up does and waits until its children run.
    void StartCapture() {
        ASSERT_EQ(0, start_log_service());
        for (pid_t pid : CapturePids()) {
            ASSERT_GT(pid, 0);
            ASSERT_TRUE(poll_until([&] { return process_running(pid); }, 5s));
        }
        ASSERT_NE(0u, static_cast<unsigned long>(g_zv_log_svc[2].mthread_id));
        // Wait until the kernel log reader has rotated its generations and written its banner: a reader
        // still rotating would rename files behind a delete that has already listed them.
        ASSERT_TRUE(poll_until(
            [] { return log_text().find("read_kernel_log_loop buf_a[") != std::string::npos; }, 10s));
    }
    int baseline_threads_ = 0;
};

// ---- util_delete_ex ----

TEST_F(DeleteLogTest, DeleteLinesRunInOrderAndRemoveEveryCaptureFile) {
    put_files(kDeleted);
    EXPECT_EQ(0, util_delete_ex(kLogDir));
    for (const std::string &path : kDeleted) EXPECT_FALSE(file_exists(path)) << path;
    std::vector<std::string> traces = {"util_delete_ex src_dir[/data/local/log]"};
    for (const std::string &pattern : kPatterns)
        traces.push_back("util_delete_ex delete file[" + pattern + "] ret[0]");
    find_in_order(log_text(), traces);
}

TEST_F(DeleteLogTest, EmptyLogFolderEveryDeleteLineFailsAndTheTraceShowsTheStatuses) {
    EXPECT_EQ(0, util_delete_ex(kLogDir));
    std::string log = log_text();
    std::vector<std::string> traces;
    // busybox rm ends with status 1 when the pattern matched nothing: raw status 256.
    for (const std::string &pattern : kPatterns)
        traces.push_back("util_delete_ex delete file[" + pattern + "] ret[256]");
    find_in_order(log, traces);
    EXPECT_EQ(7u, count_of(log, "util_delete_ex delete file["));
}

TEST_F(DeleteLogTest, FilesNotOnTheDeleteListStay) {
    put_files(kDeleted);
    put_files(kKept);
    write_file("/data/local/log/sa.log", "sa trace\n");
    EXPECT_EQ(0, util_delete_ex(kLogDir));
    for (const std::string &path : kKept) EXPECT_EQ(kMarker, read_file(path)) << path;
    EXPECT_EQ("sa trace\n", read_file("/data/local/log/sa.log"));
    EXPECT_TRUE(file_exists("/data/local/log/zv-qel-sa"));
    for (const std::string &path : kDeleted) EXPECT_FALSE(file_exists(path)) << path;
}

TEST_F(DeleteLogTest, ModemArchivesGoWhateverTheFolderIs) {
    mkdir("/data/other", 0755);
    put_file("/data/other/kmsg.log", kMarker);
    put_file("/data/local/log-modem-7.tgz", kMarker);
    put_file("/data/local/log/kmsg.log", kMarker);
    EXPECT_EQ(0, util_delete_ex("/data/other"));
    EXPECT_FALSE(file_exists("/data/other/kmsg.log"));
    EXPECT_FALSE(file_exists("/data/local/log-modem-7.tgz"));
    EXPECT_TRUE(file_exists("/data/local/log/kmsg.log"));
    std::string log = log_text();
    EXPECT_NE(std::string::npos, log.find("util_delete_ex delete file[/data/other/kmsg.log*] ret[0]"));
    EXPECT_NE(std::string::npos, log.find("util_delete_ex delete file[/data/local/log-modem*.tgz] ret[0]"));
    EXPECT_NE(std::string::npos, log.find("util_delete_ex delete file[/data/other/logcat.log*] ret[256]"));
}

TEST_F(DeleteLogTest, NullFolderIsAnInvalidParameter) {
    put_files(kDeleted);
    EXPECT_EQ(-101, util_delete_ex(nullptr));
    for (const std::string &path : kDeleted) EXPECT_TRUE(file_exists(path)) << path;
}

// ---- the handler and the capture around the delete ----

TEST_F(DeleteLogTest, CaptureIsStoppedBeforeTheDeleteAndRestartedAfterIt) {
    StartCapture();
    std::vector<pid_t> old_pids = CapturePids();
    put_files(kDeleted);
    size_t from = log_text().size();

    handler_call_st call = call_handler(handle_sa_delete_log_set, "\r");
    EXPECT_EQ(0, call.m_ret);
    EXPECT_EQ(kOk, call.m_answer);

    std::string log = log_text().substr(from);
    find_in_order(log, {
                           "sa_kill_all_child_service_ex log_type[I1]",
                           "sa_kill_all_child_service_ex log_type[I6]",
                           "log_path[/data/local/log]",
                           "util_delete_ex src_dir[/data/local/log]",
                           "util_delete_ex delete file[/data/local/log/zv-poweron-log.log*] ret[0]",
                           "sa_log_delete_log util_delete_ex[/data/local/log] ret_val[0]",
                           "data space, total[",
                           "start_zv_log_service type_id[3]",
                           "start_log_service All Log Service Start Success.",
                           "start_log_service ret_val[0]",
                           "handle_sa_delete_log_set sa_log_delete_log ret_val[0]",
                       });
    // The old children were killed and reaped; new ones run in their place.
    for (pid_t pid : old_pids) EXPECT_TRUE(poll_until([&] { return process_gone(pid); }, 5s)) << pid;
    std::vector<pid_t> new_pids = CapturePids();
    for (size_t i = 0; i < new_pids.size(); ++i) {
        EXPECT_NE(old_pids[i], new_pids[i]);
        EXPECT_TRUE(poll_until([&] { return process_running(new_pids[i]); }, 5s)) << new_pids[i];
    }
    // Whatever the new capture wrote, nothing from before the delete is left.
    EXPECT_EQ(std::vector<std::string>{}, files_containing(kLogDir, kMarker));
    EXPECT_FALSE(file_exists("/data/local/log-modem.tgz"));
    EXPECT_FALSE(file_exists("/data/local/log/zv-poweron-log.log.1"));
    EXPECT_GE(find_message(sa_log_messages(), "sa_log_delete_log exit ret_val[0]"), 0);
}

TEST_F(DeleteLogTest, EmptyLogFolderAnswersOkWhenCaptureRestarts) {
    ASSERT_FALSE(any_capture_runs());
    handler_call_st call = call_handler(handle_sa_delete_log_set, "\r");
    EXPECT_EQ(0, call.m_ret);
    EXPECT_EQ(kOk, call.m_answer);
    std::string log = log_text();
    std::vector<std::string> traces;
    for (const std::string &pattern : kPatterns)
        traces.push_back("util_delete_ex delete file[" + pattern + "] ret[256]");
    traces.push_back("start_log_service ret_val[0]");
    traces.push_back("handle_sa_delete_log_set sa_log_delete_log ret_val[0]");
    find_in_order(log, traces);
    for (pid_t pid : CapturePids()) {
        ASSERT_GT(pid, 0);
        EXPECT_TRUE(poll_until([&] { return process_running(pid); }, 5s)) << pid;
    }
}

TEST_F(DeleteLogTest, TooLittleSpaceLeftAnswersErrorAndNoCaptureRunsAfterwards) {
    StartCapture();
    std::vector<pid_t> old_pids = CapturePids();
    put_files(kDeleted);
    // 16 MiB of /data needs 819 KB free for capture; leave 400 KB.
    ASSERT_TRUE(leave_data_available_kb(400));

    handler_call_st call = call_handler(handle_sa_delete_log_set, "\r");
    EXPECT_EQ(0, call.m_ret);
    EXPECT_EQ(kError, call.m_answer);

    std::string log = log_text();
    find_in_order(log, {
                           "util_delete_ex src_dir[/data/local/log]",
                           "Low space, threshold:819KB, current available space of data is: ",
                           "sa_log_delete_log sa_is_can_start_log_service error",
                           "handle_sa_delete_log_set sa_log_delete_log ret_val[-117]",
                       });
    EXPECT_EQ(std::string::npos, log.find("start_log_service ret_val["));
    for (const std::string &path : kDeleted) EXPECT_FALSE(file_exists(path)) << path;
    // The children are gone, the kernel log reader and the waiters have ended, and nothing restarts them.
    for (pid_t pid : old_pids) EXPECT_TRUE(poll_until([&] { return process_gone(pid); }, 5s)) << pid;
    EXPECT_FALSE(any_capture_runs());
    EXPECT_TRUE(poll_until([&] { return thread_count() == baseline_threads_; }, 5s))
        << thread_count() << " threads, " << baseline_threads_ << " before";
    EXPECT_GE(find_message(sa_log_messages(), "sa_log_delete_log exit ret_val[-117]"), 0);
}

TEST_F(DeleteLogTest, FailingCaptureStartAnswersError) {
    // A configuration that does not parse: the restart fails with -100.
    write_file(kPropFile, "/data/local/log,I1");
    handler_call_st call = call_handler(handle_sa_delete_log_set, "\r");
    EXPECT_EQ(0, call.m_ret);
    EXPECT_EQ(kError, call.m_answer);
    std::string log = log_text();
    find_in_order(log, {
                           "Get log config failed!!!",
                           "start_log_service ret_val[-100]",
                           "handle_sa_delete_log_set sa_log_delete_log ret_val[-100]",
                       });
    EXPECT_FALSE(any_capture_runs());
}

TEST_F(DeleteLogTest, LogFolderIsFixedWhateverTheConfigurationNames) {
    // Another log folder, and no service that would start.
    write_file(kPropFile, "/data/other-log,I1,0,0,I2,0,0,I3,0,0,I4,0,0,I5,0,0,I6,0,0");
    mkdir("/data/other-log", 0771);
    put_file("/data/other-log/kmsg.log", kMarker);
    put_files(kDeleted);
    handler_call_st call = call_handler(handle_sa_delete_log_set, "\r");
    EXPECT_EQ(kOk, call.m_answer);
    EXPECT_EQ(kMarker, read_file("/data/other-log/kmsg.log"));
    for (const std::string &path : kDeleted) EXPECT_FALSE(file_exists(path)) << path;
    std::string log = log_text();
    EXPECT_NE(std::string::npos, log.find("log_path[/data/local/log]"));
    EXPECT_EQ(std::string::npos, log.find("util_delete_ex src_dir[/data/other-log]"));
    EXPECT_FALSE(any_capture_runs());
}

TEST_F(DeleteLogTest, ParameterIsTracedButNotParsed) {
    handler_call_st call = call_handler(handle_sa_delete_log_set, "\"whatever\" 42\r");
    EXPECT_EQ(kOk, call.m_answer);
    EXPECT_NE(std::string::npos, log_text().find("req[\"whatever\" 42"));
}

TEST_F(DeleteLogTest, BadArgumentsAreRefusedWithoutAnswerAndNothingIsDeleted) {
    put_files(kDeleted);
    std::vector<std::string> results = call_with_bad_arguments(handle_sa_delete_log_set, "SA+DELETE_LOG");
    EXPECT_EQ((std::vector<std::string>{"-101", "-101", "-101", "-101", "-101", ""}), results);
    std::string log = log_text();
    find_in_order(log, bad_argument_traces());
    EXPECT_EQ(std::string::npos, log.find("sa_kill_all_child_service_ex"));
    EXPECT_EQ(std::string::npos, log.find("util_delete_ex"));
    for (const std::string &path : kDeleted) EXPECT_TRUE(file_exists(path)) << path;
}

}  // namespace
