// End-to-end tests of init as the handset's first process. The handset boots from
// sim/testdata/init_boot.rc (one service, "sleeper") and sim/testdata/init_ctl.rc (disabled services),
// and this test binary is init's command, so every case talks to the real property socket, reads the
// real property area and watches real service processes in the handset's /proc.
#include <gtest/gtest.h>

#include <errno.h>
#include <signal.h>
#include <stdint.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "cutils/properties.h"
#include "init/prop_store.h"
#include "init/test_probe.h"

namespace {

const std::vector<std::string> k_sleeper = {"/system/bin/sleep", "1000"};
const std::vector<std::string> k_idle = {"/system/bin/sleep", "1001"};
const std::vector<std::string> k_runner = {"/system/bin/sleep", "1002"};
const std::vector<std::string> k_once = {"/system/bin/sleep", "1003"};
const std::vector<std::string> k_ids = {"/system/bin/sleep", "1004"};
const std::vector<std::string> k_orphan = {"sleep", "1005"};
const char k_history[] = "/dev/__properties__/.history";

// Long enough for anything init does at once; restarts and grace periods have their own bounds.
constexpr int64_t k_quick_ms = 5000;
// Watch window showing that no restart happens: past the 5 s restart delay, with a margin.
constexpr int64_t k_no_restart_window_ms = 6500;

std::string Prop(const std::string &key) {
    char value[PROPERTY_VALUE_MAX];
    property_get(key.c_str(), value, "");
    return value;
}

bool WaitProp(const std::string &key, const std::string &value, int64_t timeout_ms) {
    return probe_wait_for([&] { return Prop(key) == value; }, timeout_ms);
}

// The one live process running argv other than not_pid, once there is exactly one; 0 if none shows up in
// time.
pid_t WaitSinglePid(const std::vector<std::string> &argv, pid_t not_pid = 0,
                    int64_t timeout_ms = k_quick_ms) {
    return probe_wait_single([&] { return probe_pids_of(argv); }, not_pid, timeout_ms);
}

// The one live process whose command line holds needle; 0 if none shows up in time.
pid_t WaitSinglePidContaining(const std::string &needle) {
    return probe_wait_single([&] { return probe_pids_containing(needle); }, 0, k_quick_ms);
}

bool Gone(pid_t pid) {
    return probe_state(pid) == 0;
}

std::string Frame(const std::string &key, const std::string &value, uint32_t cmd = PROP_MSG_SETPROP2) {
    return probe_prop_frame(key, value, cmd);
}

// Sends bytes on a fresh connection to the property socket and ends the sending side; the answer, or
// -1 when the service closed without one.
long long RawRequest(const std::string &bytes) {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -2;
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", PROP_SERVICE_SOCKET);
    if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0) {
        close(fd);
        return -2;
    }
    size_t off = 0;
    while (off < bytes.size()) {
        ssize_t n = send(fd, bytes.data() + off, bytes.size() - off, MSG_NOSIGNAL);
        if (n <= 0) break;
        off += static_cast<size_t>(n);
    }
    shutdown(fd, SHUT_WR);
    uint32_t answer = 0;
    size_t got = 0;
    while (got < sizeof(answer)) {
        ssize_t n = recv(fd, reinterpret_cast<char *>(&answer) + got, sizeof(answer) - got, 0);
        if (n <= 0) break;
        got += static_cast<size_t>(n);
    }
    close(fd);
    return got == sizeof(answer) ? static_cast<long long>(answer) : -1;
}

// ---- boot ----

TEST(InitBoot, BootStartsEnabledServicesAndNotDisabledOnes) {
    EXPECT_EQ("running", Prop("init.svc.sleeper"));
    pid_t sleeper = WaitSinglePid(k_sleeper);
    ASSERT_GT(sleeper, 0);
    EXPECT_EQ(1, probe_stat_field(sleeper, 4));  // child of init
    // States are published before the command starts, so a disabled service has none at all.
    for (const char *name : {"idle", "runner", "once", "termlog", "stubborn", "ids", "orphaner"}) {
        EXPECT_EQ("", Prop(std::string("init.svc.") + name)) << name;
    }
    EXPECT_TRUE(probe_pids_of(k_idle).empty());
    EXPECT_TRUE(probe_pids_of(k_runner).empty());
}

TEST(InitBoot, CommandIsChildOfInitInRootFolder) {
    EXPECT_EQ(1, getppid());
    char cwd[256];
    ASSERT_NE(nullptr, getcwd(cwd, sizeof(cwd)));
    EXPECT_STREQ("/", cwd);
    std::string init_cmdline = probe_read_file("/proc/1/cmdline");
    EXPECT_EQ(0u, init_cmdline.find(std::string("/init\0--\0", 9))) << init_cmdline;
}

TEST(InitBoot, ServiceRunsInOwnSessionInRootWithNullStdio) {
    pid_t pid = WaitSinglePid(k_sleeper);
    ASSERT_GT(pid, 0);
    EXPECT_EQ(pid, probe_stat_field(pid, 5));  // process group
    EXPECT_EQ(pid, probe_stat_field(pid, 6));  // session
    std::string proc = "/proc/" + std::to_string(pid);
    EXPECT_EQ("/", probe_readlink(proc + "/cwd"));
    for (int fd = 0; fd <= 2; ++fd)
        EXPECT_EQ("/dev/null", probe_readlink(proc + "/fd/" + std::to_string(fd)));
    // Nothing else: descriptors init itself inherited stay out of services.
    EXPECT_EQ((std::vector<int>{0, 1, 2}), probe_fds(pid));
    EXPECT_EQ((std::vector<long long>{0, 0, 0, 0}), probe_status_ids(pid, "Uid"));
}

// ---- properties ----

TEST(InitProps, SetpropGetpropRoundTrip) {
    probe_run set = probe_run_program({"setprop", "zv.test.key", "hello world"});
    EXPECT_EQ(0, probe_exit_code(set));
    EXPECT_EQ("", set.m_out);
    EXPECT_EQ("", set.m_err);
    probe_run get = probe_run_program({"getprop", "zv.test.key"});
    EXPECT_EQ(0, probe_exit_code(get));
    EXPECT_EQ("hello world\n", get.m_out);
    EXPECT_EQ("hello world", probe_read_file("/dev/__properties__/zv.test.key"));
}

TEST(InitProps, PropertySetFromLibraryIsStoredAsFileWithoutNewline) {
    ASSERT_EQ(0, property_set("zv.lib.key", "first value"));
    EXPECT_EQ("first value", probe_read_file("/dev/__properties__/zv.lib.key"));
    EXPECT_EQ("first value", Prop("zv.lib.key"));
    ASSERT_EQ(0, property_set("zv.lib.key", "v2"));
    EXPECT_EQ("v2", probe_read_file("/dev/__properties__/zv.lib.key"));
    ASSERT_EQ(0, property_set("zv.lib.key", ""));
    EXPECT_EQ("", probe_read_file("/dev/__properties__/zv.lib.key"));
    EXPECT_EQ("fallback", [] {
        char v[PROPERTY_VALUE_MAX];
        property_get("zv.lib.key", v, "fallback");
        return std::string(v);
    }());
}

TEST(InitProps, HistoryRecordsEveryRequestInArrivalOrder) {
    EXPECT_EQ("", probe_read_file(k_history));
    ASSERT_EQ(0, property_set("a.one", "1"));
    ASSERT_EQ(0, probe_exit_code(probe_run_program({"setprop", "b.two", "2"})));
    ASSERT_EQ(0, property_set("ctl.start", "idle"));
    ASSERT_EQ(0, property_set("ctl.start", "nosuch"));
    ASSERT_EQ(0, property_set("a.one", "3"));
    ASSERT_EQ(0, property_set("empty.v", ""));
    ASSERT_EQ(0, property_set("ctl.stop", "idle"));
    EXPECT_EQ("a.one=1\nb.two=2\nctl.start=idle\nctl.start=nosuch\na.one=3\nempty.v=\nctl.stop=idle\n",
              probe_read_file(k_history));
    // Control requests act; they are not stored as properties.
    EXPECT_EQ("<missing>", probe_read_file("/dev/__properties__/ctl.start"));
    EXPECT_EQ("<missing>", probe_read_file("/dev/__properties__/ctl.stop"));
}

TEST(InitProps, GetpropWithoutArgumentListsAllSortedByName) {
    ASSERT_EQ(0, property_set("zz.last", "z"));
    ASSERT_EQ(0, property_set("aa.first", "a"));
    ASSERT_EQ(0, property_set("m.mid", "with space"));
    ASSERT_EQ(0, property_set("m.empty", ""));
    probe_run r = probe_run_program({"getprop"});
    EXPECT_EQ(0, probe_exit_code(r));
    EXPECT_EQ(
        "[aa.first]: [a]\n[init.svc.sleeper]: [running]\n[m.empty]: []\n[m.mid]: [with space]\n[zz.last]: "
        "[z]\n",
        r.m_out);
    EXPECT_EQ("", r.m_err);
}

TEST(InitProps, GetpropOfUnsetKeyPrintsEmptyLineOrDefault) {
    probe_run r = probe_run_program({"getprop", "zv.none"});
    EXPECT_EQ(0, probe_exit_code(r));
    EXPECT_EQ("\n", r.m_out);
    r = probe_run_program({"getprop", "zv.none", "dflt"});
    EXPECT_EQ(0, probe_exit_code(r));
    EXPECT_EQ("dflt\n", r.m_out);
    ASSERT_EQ(0, property_set("zv.some", "set"));
    r = probe_run_program({"getprop", "zv.some", "dflt"});
    EXPECT_EQ("set\n", r.m_out);
}

TEST(InitProps, WrongArgumentsGiveUsageText) {
    probe_run r = probe_run_program({"setprop", "only.key"});
    EXPECT_EQ(1, probe_exit_code(r));
    EXPECT_EQ("", r.m_out);
    EXPECT_EQ("usage: setprop <key> <value>\n", r.m_err);
    r = probe_run_program({"setprop", "a", "b", "c"});
    EXPECT_EQ(1, probe_exit_code(r));
    EXPECT_EQ("usage: setprop <key> <value>\n", r.m_err);
    r = probe_run_program({"setprop"});
    EXPECT_EQ(1, probe_exit_code(r));
    r = probe_run_program({"getprop", "a", "b", "c"});
    EXPECT_EQ(1, probe_exit_code(r));
    EXPECT_EQ("", r.m_out);
    EXPECT_EQ("usage: getprop [<key> [<default>]]\n", r.m_err);
    EXPECT_EQ("", probe_read_file(k_history));
}

TEST(InitProps, KeyOf32CharactersIsRefusedAnd31Accepted) {
    std::string key31(31, 'k');
    std::string key32(32, 'k');
    long long answer = RawRequest(Frame(key32, "v"));
    EXPECT_GT(answer, 0);
    EXPECT_EQ("<missing>", probe_read_file("/dev/__properties__/" + key32));
    EXPECT_EQ(0, RawRequest(Frame(key31, "v")));
    EXPECT_EQ("v", probe_read_file("/dev/__properties__/" + key31));
    // The client refuses before sending; setprop reports it.
    probe_run r = probe_run_program({"setprop", key32, "v"});
    EXPECT_EQ(1, probe_exit_code(r));
    EXPECT_EQ("setprop: failed to set property '" + key32 + "' to 'v'\n", r.m_err);
    EXPECT_EQ(key31 + "=v\n", probe_read_file(k_history));
}

TEST(InitProps, ValueOf92CharactersIsRefusedAnd91Accepted) {
    std::string value91(91, 'v');
    std::string value92(92, 'v');
    EXPECT_GT(RawRequest(Frame("zv.long", value92)), 0);
    EXPECT_EQ("<missing>", probe_read_file("/dev/__properties__/zv.long"));
    EXPECT_EQ(0, RawRequest(Frame("zv.long", value91)));
    EXPECT_EQ(value91, probe_read_file("/dev/__properties__/zv.long"));
    EXPECT_EQ(1, probe_exit_code(probe_run_program({"setprop", "zv.long", value92})));
    EXPECT_EQ(value91, Prop("zv.long"));
    EXPECT_EQ("zv.long=" + value91 + "\n", probe_read_file(k_history));
}

TEST(InitProps, UnknownCommandWordIsRefused) {
    EXPECT_GT(RawRequest(Frame("zv.a", "b", 0x00020002u)), 0);
    EXPECT_GT(RawRequest(Frame("zv.a", "b", 0u)), 0);
    EXPECT_EQ("<missing>", probe_read_file("/dev/__properties__/zv.a"));
    EXPECT_EQ("", probe_read_file(k_history));
}

TEST(InitProps, TruncatedRequestGetsNoAnswerAndServiceGoesOn) {
    std::string frame = Frame("zv.cut", "value");
    EXPECT_EQ(-1, RawRequest(frame.substr(0, frame.size() - 1)));
    EXPECT_EQ(-1, RawRequest(""));
    EXPECT_EQ("<missing>", probe_read_file("/dev/__properties__/zv.cut"));
    EXPECT_EQ(0, property_set("zv.after", "ok"));
    EXPECT_EQ("ok", Prop("zv.after"));
    EXPECT_EQ("zv.after=ok\n", probe_read_file(k_history));
}

TEST(InitProps, IllegalKeysAndValuesAreRefused) {
    EXPECT_GT(RawRequest(Frame("../escape", "x")), 0);
    EXPECT_GT(RawRequest(Frame(".history", "x")), 0);
    EXPECT_GT(RawRequest(Frame("", "x")), 0);
    EXPECT_GT(RawRequest(Frame("a/b", "x")), 0);
    EXPECT_GT(RawRequest(Frame("zv.nl", "two\nlines")), 0);
    EXPECT_EQ("<missing>", probe_read_file("/dev/escape"));
    EXPECT_EQ("<missing>", probe_read_file("/dev/__properties__/zv.nl"));
    EXPECT_EQ("", probe_read_file(k_history));
}

TEST(InitProps, ReadOnlyPropertyIsSetOnce) {
    EXPECT_EQ(0, property_set("ro.zv.once", "1"));
    EXPECT_EQ(-1, property_set("ro.zv.once", "2"));
    EXPECT_EQ("1", Prop("ro.zv.once"));
    EXPECT_EQ("ro.zv.once=1\n", probe_read_file(k_history));
}

// ---- control requests ----

TEST(InitCtl, CtlStartRunsDisabledService) {
    ASSERT_EQ(0, property_set("ctl.start", "idle"));
    EXPECT_EQ("running", Prop("init.svc.idle"));
    pid_t pid = WaitSinglePid(k_idle);
    ASSERT_GT(pid, 0);
    EXPECT_EQ(1, probe_stat_field(pid, 4));
    EXPECT_EQ("ctl.start=idle\n", probe_read_file(k_history));
}

TEST(InitCtl, CtlStartOfRunningServiceKeepsItsProcess) {
    pid_t before = WaitSinglePid(k_sleeper);
    ASSERT_GT(before, 0);
    ASSERT_EQ(0, property_set("ctl.start", "sleeper"));
    EXPECT_EQ("running", Prop("init.svc.sleeper"));
    EXPECT_EQ((std::vector<pid_t>{before}), probe_pids_of(k_sleeper));
}

TEST(InitCtl, CtlStopSendsTermAndServiceStaysStopped) {
    ASSERT_EQ(0, property_set("ctl.start", "termlog"));
    ASSERT_TRUE(probe_wait_for([] { return probe_read_file("/data/termlog.ready") == "\n"; }, k_quick_ms));
    pid_t pid = WaitSinglePidContaining("termlog.ready");
    ASSERT_GT(pid, 0);
    ASSERT_EQ(0, property_set("ctl.stop", "termlog"));
    ASSERT_TRUE(WaitProp("init.svc.termlog", "stopped", k_quick_ms)) << Prop("init.svc.termlog");
    EXPECT_EQ("term\n", probe_read_file("/data/termlog"));
    EXPECT_TRUE(Gone(pid));
    // A stopped service is not restarted: nothing comes back past the restart delay.
    bool came_back = probe_wait_for(
        [] {
            return !probe_pids_containing("termlog.ready").empty() || Prop("init.svc.termlog") != "stopped";
        },
        k_no_restart_window_ms);
    EXPECT_FALSE(came_back);
}

TEST(InitCtl, ServiceIgnoringTermIsKilledAfterGracePeriod) {
    ASSERT_EQ(0, property_set("ctl.start", "stubborn"));
    ASSERT_TRUE(probe_wait_for([] { return probe_read_file("/data/stubborn.ready") == "\n"; }, k_quick_ms));
    pid_t pid = WaitSinglePidContaining("stubborn.ready");
    ASSERT_GT(pid, 0);
    int64_t t0 = probe_now_ms();
    ASSERT_EQ(0, property_set("ctl.stop", "stubborn"));
    EXPECT_EQ("stopping", Prop("init.svc.stubborn"));
    ASSERT_TRUE(WaitProp("init.svc.stubborn", "stopped", 3000 + 5000)) << Prop("init.svc.stubborn");
    int64_t elapsed = probe_now_ms() - t0;
    EXPECT_GE(elapsed, 3000);
    EXPECT_TRUE(Gone(pid));
    // The SIGKILL went to the service's whole process group; a member other than the service itself
    // is init's orphan and goes in its own time.
    EXPECT_TRUE(probe_wait_for([] { return probe_pids_containing("stubborn.ready").empty(); }, k_quick_ms));
}

TEST(InitCtl, KilledServiceRestartsNoEarlierThanFiveSecondsAfterItsStart) {
    int64_t t0 = probe_now_ms();
    ASSERT_EQ(0, property_set("ctl.start", "runner"));
    pid_t first = WaitSinglePid(k_runner);
    ASSERT_GT(first, 0);
    long long first_start = probe_stat_field(first, 22);
    ASSERT_GT(first_start, 0);
    ASSERT_EQ(0, kill(first, SIGKILL));
    // Killed well within 5 s of its start, it has to wait in the restarting state.
    EXPECT_TRUE(WaitProp("init.svc.runner", "restarting", k_quick_ms)) << Prop("init.svc.runner");
    pid_t second = WaitSinglePid(k_runner, first, 5000 + k_quick_ms);
    ASSERT_GT(second, 0);
    EXPECT_GE(probe_now_ms() - t0, 5000);
    long long second_start = probe_stat_field(second, 22);
    EXPECT_GE(second_start - first_start, 5 * sysconf(_SC_CLK_TCK));
    EXPECT_TRUE(WaitProp("init.svc.runner", "running", k_quick_ms));
}

TEST(InitCtl, BootServiceKilledExternallyIsRestarted) {
    pid_t first = WaitSinglePid(k_sleeper);
    ASSERT_GT(first, 0);
    long long first_start = probe_stat_field(first, 22);
    ASSERT_EQ(0, kill(first, SIGTERM));
    pid_t second = WaitSinglePid(k_sleeper, first, 5000 + k_quick_ms);
    ASSERT_GT(second, 0);
    EXPECT_GE(probe_stat_field(second, 22) - first_start, 5 * sysconf(_SC_CLK_TCK));
    EXPECT_TRUE(WaitProp("init.svc.sleeper", "running", k_quick_ms));
}

TEST(InitCtl, OneshotServiceIsNotRestarted) {
    ASSERT_EQ(0, property_set("ctl.start", "once"));
    pid_t pid = WaitSinglePid(k_once);
    ASSERT_GT(pid, 0);
    ASSERT_EQ(0, kill(pid, SIGKILL));
    ASSERT_TRUE(WaitProp("init.svc.once", "stopped", k_quick_ms)) << Prop("init.svc.once");
    bool came_back =
        probe_wait_for([] { return !probe_pids_of(k_once).empty() || Prop("init.svc.once") != "stopped"; },
                       k_no_restart_window_ms);
    EXPECT_FALSE(came_back);
}

TEST(InitCtl, CtlStopDuringRestartDelayCancelsTheRestart) {
    ASSERT_EQ(0, property_set("ctl.start", "runner"));
    pid_t pid = WaitSinglePid(k_runner);
    ASSERT_GT(pid, 0);
    ASSERT_EQ(0, kill(pid, SIGKILL));
    ASSERT_TRUE(WaitProp("init.svc.runner", "restarting", k_quick_ms)) << Prop("init.svc.runner");
    ASSERT_EQ(0, property_set("ctl.stop", "runner"));
    EXPECT_EQ("stopped", Prop("init.svc.runner"));
    bool came_back = probe_wait_for(
        [] { return !probe_pids_of(k_runner).empty() || Prop("init.svc.runner") != "stopped"; },
        k_no_restart_window_ms);
    EXPECT_FALSE(came_back);
}

TEST(InitCtl, CtlRestartReplacesTheRunningProcess) {
    pid_t first = WaitSinglePid(k_sleeper);
    ASSERT_GT(first, 0);
    ASSERT_EQ(0, property_set("ctl.restart", "sleeper"));
    pid_t second = WaitSinglePid(k_sleeper, first, k_quick_ms);
    ASSERT_GT(second, 0);
    EXPECT_TRUE(probe_wait_for([&] { return Gone(first); }, k_quick_ms));
    EXPECT_TRUE(WaitProp("init.svc.sleeper", "running", k_quick_ms));
    EXPECT_EQ("ctl.restart=sleeper\n", probe_read_file(k_history));
}

TEST(InitCtl, CtlRestartOfStoppedServiceStartsIt) {
    ASSERT_EQ(0, property_set("ctl.restart", "idle"));
    EXPECT_EQ("running", Prop("init.svc.idle"));
    EXPECT_GT(WaitSinglePid(k_idle), 0);
}

TEST(InitCtl, UnknownServiceInControlRequestIsHarmless) {
    pid_t sleeper = WaitSinglePid(k_sleeper);
    ASSERT_GT(sleeper, 0);
    EXPECT_EQ(0, property_set("ctl.start", "nosuch"));
    EXPECT_EQ(0, property_set("ctl.stop", "nosuch"));
    EXPECT_EQ(0, property_set("ctl.restart", "nosuch"));
    EXPECT_EQ(0, property_set("ctl.bogus", "sleeper"));
    EXPECT_EQ("ctl.start=nosuch\nctl.stop=nosuch\nctl.restart=nosuch\nctl.bogus=sleeper\n",
              probe_read_file(k_history));
    EXPECT_EQ("", Prop("init.svc.nosuch"));
    EXPECT_EQ((std::vector<pid_t>{sleeper}), probe_pids_of(k_sleeper));
    EXPECT_EQ("running", Prop("init.svc.sleeper"));
    EXPECT_EQ(0, property_set("zv.still", "served"));
    EXPECT_EQ("served", Prop("zv.still"));
}

TEST(InitCtl, ServiceRunsWithConfiguredUserAndGroups) {
    ASSERT_EQ(0, property_set("ctl.start", "ids"));
    pid_t pid = WaitSinglePid(k_ids);
    ASSERT_GT(pid, 0);
    EXPECT_EQ((std::vector<long long>{1000, 1000, 1000, 1000}), probe_status_ids(pid, "Uid"));
    EXPECT_EQ((std::vector<long long>{1007, 1007, 1007, 1007}), probe_status_ids(pid, "Gid"));
    EXPECT_EQ((std::vector<long long>{1001}), probe_status_ids(pid, "Groups"));
}

// ---- reaping ----

TEST(InitReap, OrphanOfServiceIsReaped) {
    ASSERT_EQ(0, property_set("ctl.start", "orphaner"));
    pid_t orphan = WaitSinglePid(k_orphan);
    ASSERT_GT(orphan, 0);
    ASSERT_TRUE(WaitProp("init.svc.orphaner", "stopped", k_quick_ms)) << Prop("init.svc.orphaner");
    EXPECT_EQ(1, probe_stat_field(orphan, 4));
    ASSERT_EQ(0, kill(orphan, SIGKILL));
    EXPECT_TRUE(probe_wait_for([&] { return Gone(orphan); }, k_quick_ms)) << probe_state(orphan);
}

TEST(InitReap, OrphanOfCommandIsReaped) {
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        pid_t grandchild = fork();
        if (grandchild == 0) {
            close(fds[0]);
            close(fds[1]);
            for (;;) pause();
        }
        ssize_t n = write(fds[1], &grandchild, sizeof(grandchild));
        _exit(n == static_cast<ssize_t>(sizeof(grandchild)) ? 0 : 1);
    }
    close(fds[1]);
    pid_t grandchild = 0;
    ASSERT_EQ(static_cast<ssize_t>(sizeof(grandchild)), read(fds[0], &grandchild, sizeof(grandchild)));
    close(fds[0]);
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    ASSERT_GT(grandchild, 0);
    EXPECT_TRUE(probe_wait_for([&] { return probe_stat_field(grandchild, 4) == 1; }, k_quick_ms));
    ASSERT_EQ(0, kill(grandchild, SIGKILL));
    EXPECT_TRUE(probe_wait_for([&] { return Gone(grandchild); }, k_quick_ms)) << probe_state(grandchild);
}

TEST(InitReap, NoZombiesAfterServicesExit) {
    for (const char *name : {"idle", "runner", "once", "ids", "orphaner"}) {
        ASSERT_EQ(0, property_set("ctl.start", name)) << name;
    }
    pid_t once = WaitSinglePid(k_once);
    ASSERT_GT(once, 0);
    pid_t orphan = WaitSinglePid(k_orphan);
    ASSERT_GT(orphan, 0);
    ASSERT_GT(WaitSinglePid(k_idle), 0);
    ASSERT_GT(WaitSinglePid(k_runner), 0);
    ASSERT_GT(WaitSinglePid(k_ids), 0);
    for (const char *name : {"idle", "runner", "ids"}) ASSERT_EQ(0, property_set("ctl.stop", name)) << name;
    ASSERT_EQ(0, kill(once, SIGKILL));
    ASSERT_EQ(0, kill(orphan, SIGKILL));
    for (const char *name : {"idle", "runner", "once", "ids", "orphaner"}) {
        EXPECT_TRUE(WaitProp(std::string("init.svc.") + name, "stopped", k_quick_ms)) << name;
    }
    std::vector<pid_t> zombies;
    EXPECT_TRUE(probe_wait_for(
        [&] {
            zombies = probe_zombies();
            return zombies.empty();
        },
        k_quick_ms))
        << zombies.size() << " zombies, first pid " << zombies[0];
    // The orphan is init's own child, not a service: nothing published says when init reaped it, and
    // it may still be on its way out (neither zombie nor gone yet) when the zombie poll above found none.
    EXPECT_TRUE(probe_wait_for([&] { return Gone(orphan); }, k_quick_ms)) << probe_state(orphan);
}

}  // namespace
