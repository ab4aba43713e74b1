// Tests of the service start, stop and query handlers, called directly as the command thread calls them,
// in a handset whose init serves the test services of testdata/service-control.rc. Init's property
// request history shows exactly which control requests a handler issued. The one- and ten-second waits
// of the handlers are mandated, so they are asserted as lower bounds.
#include <gtest/gtest.h>

#include <linux/capability.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/syscall.h>

#include <atomic>

#include "sa-handle.h"
#include "sa-service.h"
#include "sa-util.h"
#include "handler.h"
#include "service.h"

using namespace svctest;
using namespace zvtest;

namespace {

const std::vector<std::string> kFamilyStarts = {
    "ctl.start=zv-qel-mla1", "ctl.start=zv-qel-mla2", "ctl.start=zv-qel-mla3",
    "ctl.start=zv-qel-mla4", "ctl.start=zv-qel-mla5",
};
const std::vector<std::string> kFamilyStops = {
    "ctl.stop=zv-qel-mla1", "ctl.stop=zv-qel-mla2", "ctl.stop=zv-qel-mla3",
    "ctl.stop=zv-qel-mla4", "ctl.stop=zv-qel-mla5",
};

std::string Quoted(const std::string &name) {
    return "\"" + name + "\"\r";
}
std::string QueryAnswer(int running) {
    return "\r\nQUERY_SERVICE: " + std::to_string(running) + "\r\n\r\nOK\r\n";
}

// A handler call on its own thread, for tests that act while the handler waits.
class AsyncCall {
   public:
    AsyncCall(sa_cmd_handler_fn handler, const std::string &param)
        : start_(std::chrono::steady_clock::now()), thread_([this, handler, param] {
              answer_ = call_handler(handler, param);
              seconds_ = Since(start_);
              done_ = true;
          }) {}
    ~AsyncCall() {
        if (thread_.joinable()) thread_.join();
    }
    bool done() const { return done_; }
    // Waits for the answer; the seconds the call took.
    double Join() {
        thread_.join();
        return seconds_;
    }
    const handler_call_st &answer() const { return answer_; }

   private:
    std::chrono::steady_clock::time_point start_;
    handler_call_st answer_;
    double seconds_ = 0;
    std::atomic<bool> done_{false};
    std::thread thread_;
};

class ServiceTest : public ::testing::Test {
   protected:
    void SetUp() override { PrepareSaLog(); }
};

// ---- argument checks and the name grammar ----

constexpr sa_cmd_handler_fn kHandlers[] = {handle_sa_start_service_set, handle_sa_stop_service_set,
                                           handle_sa_query_service_set};

// Every handler answers param with ERROR -1 and returns 0 (answered); nothing reaches init.
void ExpectErrorFromEveryHandler(const std::string &param) {
    for (sa_cmd_handler_fn handler : kHandlers) {
        handler_call_st a = call_handler(handler, param);
        EXPECT_EQ(0, a.m_ret) << param;
        EXPECT_EQ(kError, a.m_answer) << param;
    }
    EXPECT_TRUE(History().empty()) << param;
}

TEST_F(ServiceTest, BadHandlerArgumentsReturnMinus101AndAnswerNothing) {
    for (sa_cmd_handler_fn handler : kHandlers) expect_refuses_bad_arguments(handler, "\"zv-svc-plain\"\r");
    EXPECT_TRUE(History().empty());
}

TEST_F(ServiceTest, UnquotedNameAnswersErrorForEveryCommand) {
    ExpectErrorFromEveryHandler("zv-svc-plain\r");
}

TEST_F(ServiceTest, EmptyQuotesAnswerErrorForEveryCommand) {
    ExpectErrorFromEveryHandler("\"\"\r");
}

TEST_F(ServiceTest, QueryWithEmptyQuotesAnswersError) {
    handler_call_st a = call_handler(handle_sa_query_service_set, "\"\"\r");
    EXPECT_EQ(0, a.m_ret);
    EXPECT_EQ(kError, a.m_answer);
}

TEST_F(ServiceTest, UnclosedQuoteAnswersError) {
    NamedProc p("zv-open-quote");
    ASSERT_TRUE(p.Ready());
    handler_call_st a = call_handler(handle_sa_query_service_set, "\"zv-open-quote\r");
    EXPECT_EQ(kError, a.m_answer);
}

TEST_F(ServiceTest, TextAfterTheClosingQuoteIsIgnored) {
    NamedProc p("zv-trailing");
    ASSERT_TRUE(p.Ready());
    handler_call_st a = call_handler(handle_sa_query_service_set, "\"zv-trailing\",1 junk\r");
    EXPECT_EQ(QueryAnswer(1), a.m_answer);
}

TEST_F(ServiceTest, NameOf39CharactersIsAccepted) {
    std::string name = "zv-" + std::string(36, 'n');
    ASSERT_EQ(39u, name.size());
    NamedProc p(name);
    ASSERT_TRUE(p.Ready());
    EXPECT_EQ(QueryAnswer(1), call_handler(handle_sa_query_service_set, Quoted(name)).m_answer);
    EXPECT_EQ(kOk, call_handler(handle_sa_start_service_set, Quoted(name)).m_answer);
    EXPECT_TRUE(History().empty());
}

TEST_F(ServiceTest, NameOf40CharactersIsRefusedNotCut) {
    // A process whose argv[0] is the name's first 39 characters would match a cut name.
    std::string name = "zv-" + std::string(37, 'n');
    ASSERT_EQ(40u, name.size());
    NamedProc p(name.substr(0, 39));
    ASSERT_TRUE(p.Ready());
    ExpectErrorFromEveryHandler(Quoted(name));
    EXPECT_EQ(-1, p.WaitExit(0ms)) << "the process must not have been signalled";
}

TEST_F(ServiceTest, NameOf199CharactersIsRefused) {
    ExpectErrorFromEveryHandler(Quoted(std::string(199, 'z')));
}

// ---- query ----

TEST_F(ServiceTest, QueryOfRunningServiceAnswersOne) {
    ASSERT_EQ(0, system("setprop ctl.start zv-svc-plain"));
    ASSERT_TRUE(WaitRunning("zv-svc-plain", 10s));
    handler_call_st a = call_handler(handle_sa_query_service_set, "\"zv-svc-plain\"\r");
    EXPECT_EQ(0, a.m_ret);
    EXPECT_EQ(QueryAnswer(1), a.m_answer);
    std::vector<std::string> log = sa_log_messages();
    EXPECT_GE(find_message(log, "handle_sa_query_service_set is_run[1]"), 0);
    EXPECT_GE(find_message(log, "handle_sa_query_service_set service[zv-svc-plain] sa_err[0]"), 0);
}

TEST_F(ServiceTest, QueryOfStoppedServiceAnswersZero) {
    handler_call_st a = call_handler(handle_sa_query_service_set, "\"zv-svc-plain\"\r");
    EXPECT_EQ(0, a.m_ret);
    EXPECT_EQ(QueryAnswer(0), a.m_answer);
}

TEST_F(ServiceTest, QueryMatchesAPartOfArgv0) {
    NamedProc p("/system/bin/zv-qel-mla3");
    ASSERT_TRUE(p.Ready());
    EXPECT_EQ(QueryAnswer(1), call_handler(handle_sa_query_service_set, "\"zv-qel-mla\"\r").m_answer);
}

// Drops the capabilities that let root read what its mode forbids.
bool DropDacOverride() {
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2];
    if (syscall(SYS_capget, &header, data) != 0) return false;
    for (int bit : {CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH}) data[0].effective &= ~(1u << bit);
    return syscall(SYS_capset, &header, data) == 0;
}

TEST_F(ServiceTest, QueryWhenProcCannotBeReadReportsZero) {
    NamedProc p("zv-behind-proc");
    ASSERT_TRUE(p.Ready());
    int fds[2];
    ASSERT_EQ(0, pipe2(fds, O_CLOEXEC));
    pid_t child = fork();
    if (child == 0) {
        // In a mount namespace of its own, /proc becomes an empty folder that root can't open.
        close(fds[0]);
        if (unshare(CLONE_NEWNS) != 0) _exit(10);
        if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) _exit(11);
        if (mount("none", "/proc", "tmpfs", 0, "mode=000") != 0) _exit(12);
        if (!DropDacOverride()) _exit(13);
        if (opendir("/proc") != nullptr) _exit(14);
        sa_msg_st req;
        sa_msg_st rsp;
        make_request("\"zv-behind-proc\"\r", &req, &rsp);
        long ret = handle_sa_query_service_set(fds[1], &req, &rsp, req.m_data_a);
        _exit(ret == 0 ? 0 : 15);
    }
    close(fds[1]);
    std::string bytes;
    char buf[256];
    ssize_t n;
    while ((n = read(fds[0], buf, sizeof(buf))) > 0) bytes.append(buf, static_cast<size_t>(n));
    close(fds[0]);
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    ASSERT_TRUE(WIFEXITED(status));
    ASSERT_EQ(0, WEXITSTATUS(status)) << "child step failed";
    EXPECT_EQ(QueryAnswer(0), bytes);
    // The same query with /proc readable finds it.
    EXPECT_EQ(QueryAnswer(1), call_handler(handle_sa_query_service_set, "\"zv-behind-proc\"\r").m_answer);
}

// ---- start ----

TEST_F(ServiceTest, StartOfRunningServiceAnswersOkAtOnceAndIssuesNothing) {
    // A family member runs: not even the companions are requested.
    NamedProc p("zv-qel-mla2");
    ASSERT_TRUE(p.Ready());
    auto start = std::chrono::steady_clock::now();
    handler_call_st a = call_handler(handle_sa_start_service_set, "\"zv-qel-mla2\"\r");
    EXPECT_LT(Since(start), 1.0);
    EXPECT_EQ(0, a.m_ret);
    EXPECT_EQ(kOk, a.m_answer);
    EXPECT_TRUE(History().empty());
}

TEST_F(ServiceTest, StartOfPlainServiceIssuesCtlStartAndSucceedsWhenItRuns) {
    auto start = std::chrono::steady_clock::now();
    handler_call_st a = call_handler(handle_sa_start_service_set, "\"zv-svc-plain\"\r");
    EXPECT_GE(Since(start), 1.0);
    EXPECT_EQ(0, a.m_ret);
    EXPECT_EQ(kOk, a.m_answer);
    EXPECT_EQ(std::vector<std::string>{"ctl.start=zv-svc-plain"}, History());
    EXPECT_FALSE(PidsNamed("zv-svc-plain").empty());
    std::vector<std::string> log = sa_log_messages();
    EXPECT_GE(find_message(log, "handle_sa_start_service_set ret_val[0]"), 0);
    EXPECT_GE(find_message(log, "handle_sa_start_service_set service[zv-svc-plain] sa_err[0]"), 0);
}

TEST_F(ServiceTest, StartOfFamilyNameIssuesFiveCompanionsThenItsOwnAndSucceedsOnACompanion) {
    auto start = std::chrono::steady_clock::now();
    handler_call_st a = call_handler(handle_sa_start_service_set, "\"zv-qel-mla\"\r");
    EXPECT_GE(Since(start), 1.0);
    EXPECT_EQ(0, a.m_ret);
    EXPECT_EQ(kOk, a.m_answer);
    std::vector<std::string> expected = kFamilyStarts;
    expected.push_back("ctl.start=zv-qel-mla");
    EXPECT_EQ(expected, History());
    // There is no service of the family's own name: a member is what was found.
    EXPECT_TRUE(PidsNamed("zv-qel-mla").empty());
    EXPECT_FALSE(PidsNamed("zv-qel-mla1").empty());
    std::vector<std::string> log = sa_log_messages();
    bool found = false;
    for (const auto &m : log)
        found |= m.rfind("handle_sa_start_service_set 0 \"zv-qel-mla\" is running: ", 0) == 0;
    EXPECT_TRUE(found);
}

TEST_F(ServiceTest, StartOfAutoTestStartsTheCompanionsThenItself) {
    handler_call_st a = call_handler(handle_sa_start_service_set, "\"zv-auto-test\"\r");
    EXPECT_EQ(kOk, a.m_answer);
    std::vector<std::string> expected = kFamilyStarts;
    expected.push_back("ctl.start=zv-auto-test");
    EXPECT_EQ(expected, History());
    EXPECT_FALSE(PidsNamed("zv-auto-test").empty());
}

TEST_F(ServiceTest, StartOfElogSetsItsPropertyAndNeverUsesCtlStart) {
    AsyncCall call(handle_sa_start_service_set, "\"zv-elog\"\r");
    // Nothing in the handset reacts to the property: the test plays the service.
    ASSERT_TRUE(poll_until([] { return Property("ril.zv.elog.state") == "1"; }, 5s));
    NamedProc elog("zv-elog");
    ASSERT_TRUE(elog.Ready());
    double seconds = call.Join();
    EXPECT_GE(seconds, 1.0);
    EXPECT_EQ(0, call.answer().m_ret);
    EXPECT_EQ(kOk, call.answer().m_answer);
    EXPECT_EQ(std::vector<std::string>{"ril.zv.elog.state=1"}, History());
    EXPECT_EQ(1, CountMessage(sa_log_messages(),
                              "handle_sa_start_service_set property_set:ril.zv.elog.state successfully"));
}

TEST_F(ServiceTest, StartOfElogWhenAllFivePropertyAttemptsFailTracesAnEmptyCommand) {
    PropertyServiceDown down;
    ASSERT_TRUE(down.ok());
    auto start = std::chrono::steady_clock::now();
    handler_call_st a = call_handler(handle_sa_start_service_set, "\"zv-elog\"\r");
    double seconds = Since(start);
    EXPECT_GE(seconds, 0.25);  // five pauses of 50 ms
    EXPECT_LT(seconds, 1.0);   // and no wait for the process
    EXPECT_EQ(0, a.m_ret);
    EXPECT_EQ(kError, a.m_answer);
    std::vector<std::string> log = sa_log_messages();
    EXPECT_EQ(5, CountMessage(log, "handle_sa_start_service_set property_set:ril.zv.elog.state faild"));
    EXPECT_GE(find_message(log, "handle_sa_start_service_set error to exec: "), 0);
    EXPECT_GE(find_message(log, "handle_sa_start_service_set ret_val[-1]"), 0);
    EXPECT_EQ(1, CountMessage(log, "handle_sa_start_service_set is_run[0]")) << "no poll may follow";
}

TEST_F(ServiceTest, StartWhoseShellLineFailsAnswersErrorWithoutWaiting) {
    PropertyServiceDown down;
    ASSERT_TRUE(down.ok());
    auto start = std::chrono::steady_clock::now();
    handler_call_st a = call_handler(handle_sa_start_service_set, "\"zv-svc-plain\"\r");
    EXPECT_LT(Since(start), 1.0);
    EXPECT_EQ(kError, a.m_answer);
    std::vector<std::string> log = sa_log_messages();
    EXPECT_GE(find_message(log, "handle_sa_start_service_set error to exec: setprop ctl.start zv-svc-plain"),
              0);
    EXPECT_GE(find_message(log, "handle_sa_start_service_set ret_val[256]"), 0);
}

TEST_F(ServiceTest, StartOfServiceThatNeverAppearsAnswersErrorAfterEightPolls) {
    auto start = std::chrono::steady_clock::now();
    handler_call_st a = call_handler(handle_sa_start_service_set, "\"zv-ghost\"\r");
    EXPECT_GE(Since(start), 8.0);
    EXPECT_EQ(0, a.m_ret);
    EXPECT_EQ(kError, a.m_answer);
    EXPECT_EQ(std::vector<std::string>{"ctl.start=zv-ghost"}, History());
    std::vector<std::string> log = sa_log_messages();
    // One look before the request, then eight polls.
    EXPECT_EQ(9, CountMessage(log, "handle_sa_start_service_set is_run[0]"));
    EXPECT_GE(find_message(log, "handle_sa_start_service_set \"zv-ghost\" is not running finally"), 0);
    EXPECT_GE(find_message(log, "handle_sa_start_service_set service[zv-ghost] sa_err[-1]"), 0);
}

// ---- stop ----

TEST_F(ServiceTest, StopSendsSigtermAndAnswersOkOnceTheProcessIsGone) {
    NamedProc p("zv-stop-me");
    ASSERT_TRUE(p.Ready());
    AsyncCall call(handle_sa_stop_service_set, "\"zv-stop-me\"\r");
    int status = p.WaitExit(10s);
    double seconds = call.Join();
    ASSERT_NE(-1, status);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(SIGTERM, WTERMSIG(status));
    EXPECT_GE(seconds, 1.0);
    EXPECT_EQ(0, call.answer().m_ret);
    EXPECT_EQ(kOk, call.answer().m_answer);
    EXPECT_TRUE(History().empty()) << "the service itself is never stopped through init";
    std::vector<std::string> log = sa_log_messages();
    EXPECT_GE(find_message(log, "handle_sa_stop_service_set is_run[1] pid[" + std::to_string(p.pid()) + "]"),
              0);
    EXPECT_GE(find_message(log, "handle_sa_stop_service_set ret_val[0]"), 0);
    EXPECT_GE(find_message(log, "handle_sa_stop_service_set 0 \"zv-stop-me\" is not running"), 0);
}

TEST_F(ServiceTest, StopOfStoppedServiceAnswersOkAtOnce) {
    auto start = std::chrono::steady_clock::now();
    handler_call_st a = call_handler(handle_sa_stop_service_set, "\"zv-svc-plain\"\r");
    EXPECT_LT(Since(start), 1.0);
    EXPECT_EQ(0, a.m_ret);
    EXPECT_EQ(kOk, a.m_answer);
    EXPECT_TRUE(History().empty());
    EXPECT_GE(find_message(sa_log_messages(), "handle_sa_stop_service_set is_run[0] pid[0]"), 0);
}

TEST_F(ServiceTest, StopOfProcessIgnoringSigtermAnswersErrorAfterTenPollsAndSendsNothingElse) {
    NamedProc p("zv-stubborn", true);
    ASSERT_TRUE(p.Ready());
    auto start = std::chrono::steady_clock::now();
    handler_call_st a = call_handler(handle_sa_stop_service_set, "\"zv-stubborn\"\r");
    EXPECT_GE(Since(start), 10.0);
    EXPECT_EQ(0, a.m_ret);
    EXPECT_EQ(kError, a.m_answer);
    // No SIGKILL followed: the process still runs.
    EXPECT_EQ(-1, p.WaitExit(0ms));
    EXPECT_TRUE(p.Ready());
    std::vector<std::string> log = sa_log_messages();
    EXPECT_EQ(10, CountMessage(log, "handle_sa_stop_service_set is_run[1]"));
    EXPECT_GE(find_message(log, "handle_sa_stop_service_set \"zv-stubborn\" is still running finally"), 0);
    EXPECT_GE(find_message(log, "handle_sa_stop_service_set service[zv-stubborn] sa_err[-1]"), 0);
}

TEST_F(ServiceTest, StopOfNameMatchingSeveralProcessesSignalsOnlyTheFirstAndWaitsForAll) {
    NamedProc a("zv-multi-a");
    NamedProc b("zv-multi-b");
    ASSERT_TRUE(a.Ready());
    ASSERT_TRUE(b.Ready());
    int first = 0;
    ASSERT_EQ(0, sa_util_get_pid("zv-multi", &first));
    NamedProc &signalled = first == a.pid() ? a : b;
    NamedProc &other = first == a.pid() ? b : a;
    ASSERT_EQ(first, signalled.pid());

    AsyncCall call(handle_sa_stop_service_set, "\"zv-multi\"\r");
    int status = signalled.WaitExit(10s);
    ASSERT_NE(-1, status);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(SIGTERM, WTERMSIG(status));
    // The other one is left alone, and the handler keeps waiting for it: a poll after the signal still
    // finds a match.
    ASSERT_TRUE(poll_until(
        [] { return CountMessage(sa_log_messages(), "handle_sa_stop_service_set is_run[1]") >= 1; }, 5s));
    EXPECT_EQ(-1, other.WaitExit(0ms));
    EXPECT_FALSE(call.done());
    kill(other.pid(), SIGKILL);
    int other_status = other.WaitExit(10s);
    double seconds = call.Join();
    EXPECT_TRUE(WIFSIGNALED(other_status));
    EXPECT_EQ(SIGKILL, WTERMSIG(other_status));
    EXPECT_GE(seconds, 2.0);
    EXPECT_LT(seconds, 10.0);
    EXPECT_EQ(kOk, call.answer().m_answer);
}

TEST_F(ServiceTest, StopOfAutoTestStopsTheCompanionsThroughInitAndItselfBySigterm) {
    for (int i = 1; i <= 5; ++i)
        ASSERT_EQ(0, system(("setprop ctl.start zv-qel-mla" + std::to_string(i)).c_str()));
    ASSERT_EQ(0, system("setprop ctl.start zv-auto-test"));
    ASSERT_TRUE(poll_until([] { return file_exists("/data/zv-auto-test.ready"); }, 10s));
    for (int i = 1; i <= 5; ++i) ASSERT_TRUE(WaitRunning("zv-qel-mla" + std::to_string(i), 10s));
    size_t before = History().size();

    handler_call_st a = call_handler(handle_sa_stop_service_set, "\"zv-auto-test\"\r");
    EXPECT_EQ(0, a.m_ret);
    EXPECT_EQ(kOk, a.m_answer);
    EXPECT_EQ(kFamilyStops, HistorySince(before));
    EXPECT_EQ("term\n", read_file("/data/zv-auto-test.term"));
    for (int i = 1; i <= 5; ++i) EXPECT_TRUE(WaitGone("zv-qel-mla" + std::to_string(i), 10s));
}

TEST_F(ServiceTest, StopOfFamilyNameDoesNotStopTheCompanions) {
    NamedProc member("zv-qel-mla1");
    ASSERT_TRUE(member.Ready());
    handler_call_st a = call_handler(handle_sa_stop_service_set, "\"zv-qel-mla\"\r");
    EXPECT_EQ(kOk, a.m_answer);
    int status = member.WaitExit(5s);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(SIGTERM, WTERMSIG(status));
    EXPECT_TRUE(History().empty());
}

}  // namespace
