// Tests of starting and stopping the log capture as a whole, with the fake logcat and tcpdump of the
// handset and the real kernel log reader.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>

#include <string>
#include <vector>

#include "capture.h"
#include "sa-capture.h"

using namespace sa_capture_test;

namespace {

constexpr char kPropFile[] = "/dev/__properties__/" SA_LOG_CONFIG_PROP;

class LogSvcTest : public ::testing::Test {
   protected:
    void SetUp() override {
        start_log_client();
        write_file("/data/local/tmp/fake-logcat.rate", "0\n");
        reset_capture_state();
        unlink(kPropFile);
        settle_threads();
        baseline_threads_ = thread_count();
    }
    // Pids of the four capture children in slot order 2, 5, 6, 4.
    std::vector<pid_t> CapturePids() {
        return {g_zv_log_svc[1].svc_pid, g_zv_log_svc[4].svc_pid, g_zv_log_svc[5].svc_pid,
                g_zv_log_svc[3].svc_pid};
    }
    int baseline_threads_ = 0;
};

TEST_F(LogSvcTest, DefaultStartOrderIsTcpdumpEventsRadioMainKernelReader) {
    EXPECT_EQ(0, start_log_service());
    std::string log = log_text();
    std::vector<std::string> steps = {
        "start_zv_log_service type_id[2] file_num_val[5] file_size_val[8192]",
        "start_logcat_service_ex path[/system/bin/logcat] type[I5]",
        "start_logcat_service_ex path[/system/bin/logcat] type[I6]",
        "start_logcat_service_ex path[/system/bin/logcat] type[I4]",
        "start_zv_log_service type_id[3] file_num_val[5] file_size_val[20480]",
        "start_log_service All Log Service Start Success.",
    };
    size_t at = 0;
    for (const auto &step : steps) {
        size_t pos = log.find(step, at);
        ASSERT_NE(std::string::npos, pos) << step;
        at = pos + step.size();
    }
    EXPECT_EQ(std::string::npos,
              log.find("start_logcat_service_ex path[/system/bin/logcat] type[I1]"));  // slot 1
    EXPECT_EQ(std::string::npos, log.find("start_zv_log_service type_id[1]"));
    EXPECT_GE(find_message(sa_log_messages(), "start_log_service exit ret_val[0]"), 0);

    // Each child runs the program and arguments of its slot, started in that order.
    std::vector<pid_t> pids = CapturePids();
    for (pid_t pid : pids) ASSERT_GT(pid, 0);
    for (size_t i = 1; i < pids.size(); ++i) EXPECT_LT(pids[i - 1], pids[i]);
    ASSERT_TRUE(poll_until([&] { return !recorded_args("tcpdump-args", pids[0]).empty(); }, 5s));
    EXPECT_EQ("tcpdump -p -v -s 0 -i any -w /data/local/log/ipdata.pcap -C 9 -W 5\n",
              recorded_args("tcpdump-args", pids[0]));
    const char *files[] = {"-b events -f /data/local/log/logcat-events.log\n",
                           "-b radio -f /data/local/log/logcat-radio.log\n",
                           "-n 5 -f /data/local/log/logcat.log\n"};
    for (int i = 0; i < 3; ++i) {
        pid_t pid = pids[static_cast<size_t>(i) + 1];
        ASSERT_TRUE(poll_until([&] { return !recorded_args("logcat-args", pid).empty(); }, 5s));
        std::string args = recorded_args("logcat-args", pid);
        EXPECT_EQ(args.size() - strlen(files[i]), args.rfind(files[i])) << args;
    }
    EXPECT_NE(0u, static_cast<unsigned long>(g_zv_log_svc[2].mthread_id));
    EXPECT_EQ("7 4 1 7\n", read_file("/proc/sys/kernel/printk"));
}

TEST_F(LogSvcTest, FailingLogcatDoesNotPreventTheKernelReader) {
    ASSERT_TRUE(hide_file(SA_LOGCAT_PATH));
    EXPECT_EQ(-100, start_log_service());
    EXPECT_NE(0u, static_cast<unsigned long>(g_zv_log_svc[2].mthread_id));
    EXPECT_GT(g_zv_log_svc[1].svc_pid, 0);  // tcpdump started before
    EXPECT_NE(std::string::npos, log_find("start_log_service Not All Log Service Start Success."));
    EXPECT_GE(find_message(sa_log_messages(), "start_log_service exit ret_val[-100]"), 0);
    EXPECT_TRUE(poll_until([&] { return thread_count() >= baseline_threads_ + 1; }, 5s));
}

TEST_F(LogSvcTest, AllZeroSizesStartNothingAndQuietTheConsole) {
    write_file(kPropFile, "/data/local/log,I1,3,0,I2,5,0,I3,5,0,I4,5,0,I5,5,0,I6,5,0");
    EXPECT_EQ(0, start_log_service());
    for (const auto &svc : g_zv_log_svc) {
        EXPECT_EQ(0, svc.svc_pid) << svc.type;
        EXPECT_EQ(0u, static_cast<unsigned long>(svc.mthread_id)) << svc.type;
    }
    EXPECT_EQ("3 3 1 3\n", read_file("/proc/sys/kernel/printk"));
    EXPECT_EQ(std::string::npos, log_find("sa_create_subproc_thread"));
    EXPECT_EQ(baseline_threads_, thread_count());
}

TEST_F(LogSvcTest, BadConfigurationOrFolderStartsNothing) {
    write_file(kPropFile, "/data/x,I1,1,1,I2,1,1,I3,1,1,I4,1,1,I5,1,1");
    EXPECT_EQ(-100, start_log_service());
    EXPECT_NE(std::string::npos, log_find("Get log config failed!!!"));
    write_file(kPropFile, "/data/no/such/folder,I1,1,1,I2,1,1,I3,1,1,I4,1,1,I5,1,1,I6,1,1");
    EXPECT_EQ(-100, start_log_service());
    EXPECT_NE(std::string::npos, log_find("check_zv_log_path"));
    EXPECT_EQ(std::string::npos, log_find("sa_create_subproc_thread"));
}

TEST_F(LogSvcTest, StoppingTwiceSignalsTheSameOldIdsTwice) {
    ASSERT_EQ(0, start_log_service());
    ASSERT_TRUE(poll_until([] { return log_find("read_kernel_log_loop buf_a[") != std::string::npos; }, 5s));
    std::vector<pid_t> pids = CapturePids();
    pthread_t reader = g_zv_log_svc[2].mthread_id;
    sa_kill_all_child_service_ex();
    for (pid_t pid : pids) ASSERT_TRUE(poll_until([&] { return process_gone(pid); }, 5s));
    // The reader ends on its own after the first stop's signal; until its thread is gone the second
    // stop's pthread_kill still reaches it. Its task leaving /proc/self/task is the last step of its end.
    ASSERT_TRUE(poll_until([&] { return thread_count() == baseline_threads_; }, 10s))
        << thread_count() << " threads, " << baseline_threads_ << " before";
    sa_kill_all_child_service_ex();
    EXPECT_EQ(pids, CapturePids());  // nothing cleared
    EXPECT_EQ(reader, g_zv_log_svc[2].mthread_id);

    auto messages = sa_log_messages();
    auto count = [&](const std::string &prefix) {
        int n = 0;
        for (const auto &m : messages)
            if (m.compare(0, prefix.size(), prefix) == 0) ++n;
        return n;
    };
    std::string tid = std::to_string(static_cast<unsigned long>(reader));
    EXPECT_EQ(2, count("sa_kill_all_child_service_ex KMSG pthread_kill[" + tid + "] ret_val["));
    // The reader ended with the first stop: the second finds no such thread.
    EXPECT_GE(
        find_message(messages, "sa_kill_all_child_service_ex KMSG pthread_kill[" + tid + "] ret_val[0]"), 0);
    EXPECT_GE(
        find_message(messages, "sa_kill_all_child_service_ex KMSG pthread_kill[" + tid + "] ret_val[3]"), 0);
    EXPECT_NE(std::string::npos,
              log_find("sa_kill_all_child_service_ex kill thread [I3] failed, mthread_id[" + tid +
                       "], errno[No such process]"));
    EXPECT_EQ(2, count("sa_kill_all_child_service_ex IPDATA kill[" + std::to_string(pids[0]) + "] ret_val["));
    for (size_t i = 1; i < pids.size(); ++i)
        EXPECT_EQ(
            2, count("sa_kill_all_child_service_ex LOGCAT kill[" + std::to_string(pids[i]) + "] ret_val["));
    EXPECT_GE(find_message(messages, "sa_kill_all_child_service_ex LOGCAT kill[" + std::to_string(pids[1]) +
                                         "] ret_val[0]"),
              0);
    // The second kill finds the children gone.
    EXPECT_GE(find_message(messages, "sa_kill_all_child_service_ex LOGCAT kill[" + std::to_string(pids[1]) +
                                         "] ret_val[-1]"),
              0);
    EXPECT_NE(std::string::npos,
              log_find("sa_kill_all_child_service_ex log_type[I1], svc_pid[0], mthread_id[0]"));
    EXPECT_NE(std::string::npos, log_find("sa_kill_all_child_service_ex kill process [I5] failed, svc_pid[" +
                                          std::to_string(pids[1]) + "], errno[No such process]"));
}

TEST_F(LogSvcTest, SlotOneAndTheKernelSlotPidGetNoKill) {
    pid_t sleeper = fork();
    if (sleeper == 0) {
        execl("/system/bin/sleep", "sleep", "1000", static_cast<char *>(nullptr));
        _exit(127);
    }
    ASSERT_GT(sleeper, 0);
    g_zv_log_svc[0].type_id = SA_LOG_SVC_EMSD;
    g_zv_log_svc[0].svc_pid = sleeper;
    g_zv_log_svc[2].type_id = SA_LOG_SVC_KMSG;
    g_zv_log_svc[2].svc_pid = sleeper;
    sa_kill_all_child_service_ex();
    EXPECT_EQ(0, waitpid(sleeper, nullptr, WNOHANG));
    EXPECT_TRUE(process_running(sleeper));
    kill(sleeper, SIGKILL);
    waitpid(sleeper, nullptr, 0);
}

TEST_F(LogSvcTest, ConcurrencyKillingAllCaptureChildrenLeavesNoZombie) {
    ASSERT_EQ(0, start_log_service());
    std::vector<pid_t> pids = CapturePids();
    for (pid_t pid : pids) ASSERT_TRUE(process_running(pid)) << pid;
    sa_kill_all_child_service_ex();
    for (pid_t pid : pids) EXPECT_TRUE(poll_until([&] { return process_gone(pid); }, 5s)) << pid;
    EXPECT_TRUE(poll_until([&] { return thread_count() == baseline_threads_; }, 5s)) << thread_count();
}

TEST_F(LogSvcTest, NullRecordAndOtherSlotsAreHarmless) {
    EXPECT_EQ(-100, start_zv_log_service(nullptr));
    sa_log_svc_st svc;
    memset(&svc, 0, sizeof(svc));
    svc.type_id = SA_LOG_SVC_MAIN;
    svc.file_num_val = 5;
    svc.file_size_val = 5;
    EXPECT_EQ(0, start_zv_log_service(&svc));
    EXPECT_EQ(0, svc.svc_pid);
}

}  // namespace
