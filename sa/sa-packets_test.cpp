// Tests of the packet capture: tcpdump's place and arguments, the ring file, the export library, and the
// "+DATA_PACKETS_LOG" switch with its double fork and its switch-off that ends the daemon's process group.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <string>

#include "capture.h"
#include "sa-capture.h"

using namespace sa_capture_test;

namespace {

constexpr char kRing0[] = "/data/local/log/ipdata.pcap0";
constexpr char kTcpdumpArgs[] = "tcpdump -p -v -s 0 -i any -w /data/local/log/ipdata.pcap -C 9 -W 5\n";

class PacketsTest : public ::testing::Test {
   protected:
    void SetUp() override {
        start_log_client();
        reset_capture_state();
        svc_ = &g_zv_log_svc[SA_LOG_SVC_IPDATA - 1];
        snprintf(svc_->type, sizeof(svc_->type), "I2");
        svc_->type_id = SA_LOG_SVC_IPDATA;
        svc_->file_num_val = 5;
        svc_->file_size_val = 8192;
    }
    sa_log_svc_st *svc_ = nullptr;
};

bool LibraryLoaded() {
    return read_file("/proc/self/maps").find("libexport_tcpdump") != std::string::npos;
}

TEST_F(PacketsTest, FileSizeArgumentFor999And1000And8192) {
    EXPECT_EQ(1, sa_ipdata_file_size_mb(999));
    EXPECT_EQ(2, sa_ipdata_file_size_mb(1000));
    EXPECT_EQ(9, sa_ipdata_file_size_mb(8192));
    EXPECT_EQ(1, sa_ipdata_file_size_mb(1));
    EXPECT_EQ(2, sa_ipdata_file_size_mb(1999));
    EXPECT_EQ(3, sa_ipdata_file_size_mb(2000));
    EXPECT_EQ(1, sa_ipdata_file_size_mb(-5000));
}

TEST_F(PacketsTest, DefaultStartRunsTcpdumpWithTheFourteenEntryVector) {
    EXPECT_EQ(0, start_zv_log_service(svc_));
    ASSERT_GT(svc_->svc_pid, 0);
    ASSERT_TRUE(poll_until([&] { return !recorded_args("tcpdump-args", svc_->svc_pid).empty(); }, 5s));
    EXPECT_EQ(kTcpdumpArgs, recorded_args("tcpdump-args", svc_->svc_pid));
    EXPECT_NE(std::string::npos,
              log_find("start_zv_log_service type_id[2] file_num_val[5] file_size_val[8192]"));
    EXPECT_NE(std::string::npos, log_find("start_zv_log_service tcpdump[/system/xbin/tcpdump]"));
    EXPECT_NE(std::string::npos, log_find("start_zv_log_service command[tcpdump -p -v -s 0 -i any -w "
                                          "/data/local/log/ipdata.pcap -C 9 -W 5]"));
    EXPECT_NE(std::string::npos,
              log_find("start_zv_log_service IPDATA open(/data/local/log/ipdata.pcap0) fd["));
    EXPECT_NE(std::string::npos,
              log_find("sa_create_subproc_thread cmd[/system/xbin/tcpdump] param_size[14]"));
    EXPECT_NE(std::string::npos,
              log_find("start_zv_log_service svc_pid[" + std::to_string(svc_->svc_pid) + "]"));
    ASSERT_TRUE(poll_until([] { return file_size(kRing0) == 24; }, 5s));
    struct stat st;
    ASSERT_EQ(0, stat(kRing0, &st));
    EXPECT_EQ(static_cast<uid_t>(SA_AID_SHELL), st.st_uid);
    EXPECT_EQ(static_cast<gid_t>(SA_AID_LOG), st.st_gid);
    EXPECT_EQ(0644u, st.st_mode & 07777);
    // tcpdump keeps root.
    EXPECT_EQ(0u, proc_status_field(svc_->svc_pid, "Uid:").find("\t0\t"));
}

TEST_F(PacketsTest, ExistingRingFileIsKeptButGetsTheCaptureOwnerAndMode) {
    write_file(kRing0, "old");
    ASSERT_EQ(0, chmod(kRing0, 0600));
    EXPECT_EQ(0, start_zv_log_service(svc_));
    EXPECT_EQ(std::string::npos, log_find("IPDATA open("));
    struct stat st;
    ASSERT_EQ(0, stat(kRing0, &st));
    EXPECT_EQ(static_cast<uid_t>(SA_AID_SHELL), st.st_uid);
    EXPECT_EQ(0644u, st.st_mode & 07777);
}

TEST_F(PacketsTest, WithXbinTcpdumpPresentTheExportLibraryIsNeverLoaded) {
    ASSERT_TRUE(file_exists(SA_TCPDUMP_EXPORT_LIB));
    EXPECT_EQ(0, start_zv_log_service(svc_));
    EXPECT_FALSE(LibraryLoaded());
    EXPECT_EQ(std::string::npos, log_find("tcpdump_file_ptr["));
    EXPECT_FALSE(file_exists(SA_TCPDUMP_ALT_PATH));
}

TEST_F(PacketsTest, MissingXbinTcpdumpIsExportedToDataLocalTmpAndUsed) {
    ASSERT_TRUE(hide_file(SA_TCPDUMP_PATH));
    EXPECT_EQ(0, start_zv_log_service(svc_));
    EXPECT_TRUE(file_exists(SA_TCPDUMP_ALT_PATH));
    EXPECT_NE(std::string::npos, log_find("tcpdump_file_ptr[/data/local/tmp/tcpdump]"));
    EXPECT_NE(std::string::npos, log_find("ret_val[0]"));
    EXPECT_NE(std::string::npos, log_find("start_zv_log_service tcpdump[/data/local/tmp/tcpdump]"));
    ASSERT_GT(svc_->svc_pid, 0);
    ASSERT_TRUE(poll_until([&] { return !recorded_args("tcpdump-args", svc_->svc_pid).empty(); }, 5s));
    EXPECT_EQ(kTcpdumpArgs, recorded_args("tcpdump-args", svc_->svc_pid));
    EXPECT_FALSE(LibraryLoaded());  // closed again after the export
}

TEST_F(PacketsTest, NoTcpdumpAndNoExportLibraryReturnsMinus118) {
    ASSERT_TRUE(hide_file(SA_TCPDUMP_PATH));
    ASSERT_TRUE(hide_file(SA_TCPDUMP_EXPORT_LIB));
    svc_->svc_pid = 0;
    EXPECT_EQ(-118, start_zv_log_service(svc_));
    EXPECT_EQ(0, svc_->svc_pid);
    EXPECT_NE(std::string::npos, log_find("dlopen"));
    EXPECT_NE(std::string::npos, log_find("start_zv_log_service no tcpdump exit"));
    EXPECT_EQ(-1, createTcpdump("/data/local/tmp/tcpdump"));
}

TEST_F(PacketsTest, ZeroCountOrSizeNeedsNoIpdata) {
    svc_->svc_pid = 77;
    svc_->file_num_val = 0;
    EXPECT_EQ(0, start_zv_log_service(svc_));
    EXPECT_EQ(0, svc_->svc_pid);
    EXPECT_NE(std::string::npos, log_find("start_zv_log_service need no ipdata"));
    svc_->file_num_val = 5;
    svc_->file_size_val = 0;
    EXPECT_EQ(0, start_zv_log_service(svc_));
    EXPECT_FALSE(file_exists(kRing0));
}

TEST_F(PacketsTest, SwitchOnRunsTheWatcherWhichStartsNothing) {
    handler_call_st on = call_handler(handle_sa_packets_log_set, "1\r");
    EXPECT_EQ(0, on.m_ret);
    EXPECT_EQ(kOk, on.m_answer);
    EXPECT_EQ(1, g_sa_handle_ctx.m_packets_capture_on);
    EXPECT_TRUE(poll_until(
        [] {
            return log_find("Packets capture SIGCHLD error in waitpid: No child processes") !=
                   std::string::npos;
        },
        5s));
    std::string log = log_text();
    size_t a = log.find("reset_real_capture file_count[0] file_size[0]");
    size_t b = log.find("reset_real_capture need no ipdata");
    ASSERT_NE(std::string::npos, a);
    ASSERT_NE(std::string::npos, b);
    EXPECT_LT(a, b);
    EXPECT_FALSE(file_exists(SA_SETTINGS_FILE));  // this switch is not written by its own handler
}

TEST_F(PacketsTest, SwitchOnTwiceAnswersOkWithoutForkingAgain) {
    ASSERT_EQ(kOk, call_handler(handle_sa_packets_log_set, "1\r").m_answer);
    ASSERT_TRUE(
        poll_until([] { return log_find("reset_real_capture need no ipdata") != std::string::npos; }, 5s));
    size_t forks = count_of(log_text(), "packets_capture_process");
    handler_call_st again = call_handler(handle_sa_packets_log_set, "1\r");
    EXPECT_EQ(kOk, again.m_answer);
    EXPECT_EQ(forks, count_of(log_text(), "packets_capture_process"));
    EXPECT_EQ(1u, count_of(log_text(), "reset_real_capture need no ipdata"));
}

TEST_F(PacketsTest, SwitchOffWhenOffAnswersOkAndSignalsNothing) {
    handler_call_st off = call_handler(handle_sa_packets_log_set, "0\r");
    EXPECT_EQ(kOk, off.m_answer);
    EXPECT_EQ(0, g_sa_handle_ctx.m_packets_capture_on);
}

TEST_F(PacketsTest, BadArgumentsAnswerError) {
    for (const char *bad : {"2\r", "-1\r", "x\r", "\r"}) {
        handler_call_st r = call_handler(handle_sa_packets_log_set, bad);
        EXPECT_EQ(kError, r.m_answer) << bad;
        EXPECT_EQ(0, g_sa_handle_ctx.m_packets_capture_on);
    }
    EXPECT_NE(std::string::npos, log_find("error to sscanf(\"2\r\")"));
    sa_msg_st req;
    memset(&req, 0, sizeof(req));
    EXPECT_EQ(-101, handle_sa_packets_log_set(1, &req, &req, "1\r"));
}

// Switching off after on kills process group 0: the caller's own group. Run it in a child that leads a
// group of its own, with a capture child in yet another group, and watch from outside.
TEST_F(PacketsTest, SwitchOffAfterOnKillsTheCallersOwnProcessGroup) {
    int report[2];
    ASSERT_EQ(0, pipe(report));
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        close(report[0]);
        setsid();
        char a0[] = "/system/bin/logcat";
        char *argv[] = {a0, nullptr};
        int capture = sa_create_subproc_thread("/system/bin/logcat", argv, 1);
        if (write(report[1], &capture, sizeof(capture)) != sizeof(capture)) _exit(4);
        if (call_handler(handle_sa_packets_log_set, "1\r").m_answer != kOk) _exit(2);
        call_handler(handle_sa_packets_log_set, "0\r");
        _exit(3);  // only reached if the switch-off spared us
    }
    close(report[1]);
    int capture = 0;
    ASSERT_EQ(static_cast<ssize_t>(sizeof(capture)), read(report[0], &capture, sizeof(capture)));
    close(report[0]);
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    ASSERT_TRUE(WIFSIGNALED(status)) << "exit status " << WEXITSTATUS(status);
    EXPECT_EQ(SIGKILL, WTERMSIG(status));
    // The capture child leads its own group and survives.
    ASSERT_GT(capture, 0);
    EXPECT_TRUE(process_running(capture));
}

}  // namespace
