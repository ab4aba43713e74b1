// Tests of the function column of the daemon's records: every traced step is filed under the function
// the step belongs to (the handler, the list reader or writer, the configuration parser, the capture
// dispatcher or launcher), also when a shared helper formats the trace on that function's behalf.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include "sa-autostart.h"
#include "sa-service.h"
#include "capture.h"

using namespace sa_capture_test;

namespace {

// The function column of the first record at or after byte from that contains text, trimmed; "<none>"
// without such a record. The function is the third column counted back from the message
// ("... | <function> | <line> | <level> | <message>").
std::string record_function(const std::string &text, size_t from_byte = 0) {
    const std::string all = log_text();
    size_t at = all.find(text, from_byte);
    if (at == std::string::npos) return "<none>";
    size_t begin = all.rfind('\n', at);
    begin = begin == std::string::npos ? 0 : begin + 1;
    std::string line = all.substr(begin, at - begin);
    // The function column is the one just before the line number column, counted from the message.
    std::vector<std::string> cols;
    size_t from = 0;
    for (size_t bar = line.find(" | "); bar != std::string::npos; bar = line.find(" | ", from)) {
        cols.push_back(line.substr(from, bar - from));
        from = bar + 3;
    }
    if (cols.size() < 3) return "<unparsed: " + line + ">";
    std::string func = cols[cols.size() - 3];
    size_t end = func.find_last_not_of(' ');
    return end == std::string::npos ? "" : func.substr(func.find_first_not_of(' '), end + 1);
}

class TraceNamesTest : public ::testing::Test {
   protected:
    void SetUp() override {
        start_log_client();
        reset_capture_state();
    }
};

// A child whose argv[0] is name, ended by SIGTERM; reaped by the test.
pid_t spawn_named(const char *name) {
    pid_t pid = fork();
    if (pid == 0) {
        execl("/usr/bin/sleep", name, "100000", static_cast<char *>(nullptr));
        _exit(127);
    }
    poll_until([&] { return read_file("/proc/" + std::to_string(pid) + "/cmdline").rfind(name, 0) == 0; },
               5s);
    return pid;
}

TEST_F(TraceNamesTest, QueryRequestParseTracesAreFiledUnderTheQueryHandler) {
    EXPECT_EQ(kError, call_handler(handle_sa_query_service_set, "\"\"\r").m_answer);
    EXPECT_EQ("handle_sa_query_service_set", record_function("req[\"\""));
    EXPECT_EQ("handle_sa_query_service_set", record_function("service[] sa_err[-1]"));
}

TEST_F(TraceNamesTest, ElogPropertyStartAndAnswerTracesAreFiledUnderTheStartHandler) {
    // No init in this handset: every property request fails.
    EXPECT_EQ(kError, call_handler(handle_sa_start_service_set, "\"zv-elog\"\r").m_answer);
    EXPECT_EQ("handle_sa_start_service_set", record_function("req[\"zv-elog\""));
    EXPECT_EQ("handle_sa_start_service_set", record_function("property_set:ril.zv.elog.state faild"));
    EXPECT_EQ("handle_sa_start_service_set", record_function("\"zv-elog\" sa_err: -1"));
    EXPECT_EQ("handle_sa_start_service_set", record_function("service[zv-elog] sa_err[-1]"));
}

TEST_F(TraceNamesTest, StopPollTracesAreFiledUnderTheStopHandler) {
    pid_t pid = spawn_named("zv-trace-stop-probe");
    ASSERT_GT(pid, 0);
    // The handler's SIGTERM leaves a zombie, which the lookup no longer counts (its cmdline is empty).
    EXPECT_EQ(kOk, call_handler(handle_sa_stop_service_set, "\"zv-trace-stop-probe\"\r").m_answer);
    waitpid(pid, nullptr, 0);
    EXPECT_EQ("handle_sa_stop_service_set", record_function("is_run[0]"));
    EXPECT_EQ("handle_sa_stop_service_set", record_function("\"zv-trace-stop-probe\" sa_err: 0"));
}

TEST_F(TraceNamesTest, ListReaderOpenFailureAndShortReadAreFiledUnderTheReader) {
    mkdir(SA_AUTO_START_DIR, 0770);
    unlink(SA_AUTO_START_DIR SA_AUTO_START_FILE_NAME);
    EXPECT_NE(0, auto_start_service_list_read());
    EXPECT_EQ("auto_start_service_list_read", record_function("open file \""));

    write_file(SA_AUTO_START_DIR SA_AUTO_START_FILE_NAME, std::string(100, '\0'));
    EXPECT_EQ(0, auto_start_service_list_read());
    EXPECT_EQ("auto_start_service_list_read",
              record_function("write not completed: to write(10) != written(2)"));
}

TEST_F(TraceNamesTest, ListWriterOpenFailureIsFiledUnderTheWriter) {
    mkdir(SA_AUTO_START_DIR, 0770);
    unlink(SA_AUTO_START_DIR SA_AUTO_START_FILE_NAME);
    auto_start_service_list_read();
    const size_t before = log_text().size();
    // A folder where the list file belongs: the rewrite cannot open it.
    ASSERT_EQ(0, mkdir(SA_AUTO_START_DIR SA_AUTO_START_FILE_NAME, 0770));
    EXPECT_NE(0, auto_start_service_list_update("zv-trace-list", 1));
    EXPECT_EQ("auto_start_service_list_update", record_function("open file \"", before));
    rmdir(SA_AUTO_START_DIR SA_AUTO_START_FILE_NAME);
}

TEST_F(TraceNamesTest, SwitchValueRefusalIsFiledUnderTheSwitchHandler) {
    EXPECT_EQ(kError, call_handler(handle_sa_kernel_log_set, "7\r").m_answer);
    EXPECT_EQ("handle_sa_kernel_log_set", record_function("error to sscanf(\"7"));
    EXPECT_EQ(kError, call_handler(handle_sa_dmesg_log_set, "-1\r").m_answer);
    EXPECT_EQ("handle_sa_dmesg_log_set", record_function("error to sscanf(\"-1"));
}

TEST_F(TraceNamesTest, DmesgSnapshotTraceIsFiledUnderTheDmesgHandler) {
    call_handler(handle_sa_dmesg_log_set, "1\r");
    EXPECT_EQ("handle_sa_dmesg_log_set", record_function("handle_sa_dmesg_log_set system("));
}

TEST_F(TraceNamesTest, MissingCountInTheLogConfigurationIsFiledUnderTheParser) {
    char value[] = "/data/y,I1,2";
    EXPECT_NE(0, parse_zv_log_config(value));
    EXPECT_EQ("parse_zv_log_config", record_function("Get Log File Size Failed. LogTypeID=I1"));
}

TEST_F(TraceNamesTest, KernelAndPacketStartsAreFiledUnderTheServiceDispatcher) {
    sa_log_svc_st kmsg;
    memset(&kmsg, 0, sizeof(kmsg));
    kmsg.type_id = SA_LOG_SVC_KMSG;
    EXPECT_EQ(0, start_zv_log_service(&kmsg));
    EXPECT_EQ("start_zv_log_service", record_function("start_zv_log_service echo 3 3 1 3"));
    EXPECT_EQ("start_zv_log_service", record_function("start_zv_log_service system(echo 3 3 1 3"));

    sa_log_svc_st ipdata;
    memset(&ipdata, 0, sizeof(ipdata));
    ipdata.type_id = SA_LOG_SVC_IPDATA;
    EXPECT_EQ(0, start_zv_log_service(&ipdata));
    EXPECT_EQ("start_zv_log_service", record_function("start_zv_log_service need no ipdata"));
}

TEST_F(TraceNamesTest, ChildOomAdjustmentTracesAreFiledUnderTheLauncher) {
    write_file("/data/local/tmp/fake-logcat.rate", "0\n");
    char a0[] = "/system/bin/logcat";
    char a1[] = "-f";
    char a2[] = "/data/local/log/trace-names.log";
    char *argv[] = {a0, a1, a2, nullptr};
    int pid = sa_create_subproc_thread("/system/bin/logcat", argv, 3);
    ASSERT_GT(pid, 0);
    EXPECT_TRUE(poll_until([] { return record_function("create_subprocess_ex fdoo[") != "<none>"; }, 5s));
    EXPECT_EQ("create_subprocess_ex", record_function("create_subprocess_ex text[/proc/"));
    EXPECT_EQ("create_subprocess_ex", record_function("create_subprocess_ex fdoo["));
    kill(pid, SIGKILL);
    poll_until([&] { return process_gone(pid); }, 5s);
}

TEST_F(TraceNamesTest, AnswerToABadDescriptorIsRefusedUnderSendRsp) {
    sa_msg_st rsp;
    memset(&rsp, 0, sizeof(rsp));
    EXPECT_EQ(-101, send_rsp_ok(0, &rsp));
    EXPECT_EQ("send_rsp", record_function("1, 0, 0"));
    EXPECT_EQ(-101, send_rsp_err(1, nullptr, 5));
    EXPECT_EQ("send_rsp", record_function("0, 1, 1"));
}

}  // namespace
