// Tests of init run as an ordinary child inside a plain handset (the handset's first process is then
// the sandbox's own): the command's exit status becoming init's, the mode without a command that ends
// on SIGTERM or SIGINT, the stop of every service when the handset ends, signals passed on to the
// command, and what init tells on stderr about rc files and services it can't start. Each case writes
// the rc files it needs into /system/etc/init of its own handset.
#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "cutils/properties.h"
#include "init/test_probe.h"

namespace {

constexpr char k_init[] = ZV_INIT_PATH;
constexpr int64_t k_quick_ms = 5000;

std::string Prop(const std::string &key) {
    char value[PROPERTY_VALUE_MAX];
    property_get(key.c_str(), value, "");
    return value;
}

void WriteRc(const std::string &name, const std::string &text) {
    ASSERT_TRUE(probe_write_file("/system/etc/init/" + name, text)) << name << ": " << strerror(errno);
}

// An init started in the background, its stdout on a pipe.
struct BackgroundInit {
    pid_t m_pid = -1;
    int m_out = -1;
};

BackgroundInit StartInit(const std::vector<std::string> &args) {
    BackgroundInit bg;
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return bg;
    std::vector<std::string> argv = {k_init};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char *> cargv;
    for (std::string &a : argv) cargv.push_back(const_cast<char *>(a.c_str()));
    cargv.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(fds[1], STDOUT_FILENO);
        execv(cargv[0], cargv.data());
        _exit(127);
    }
    close(fds[1]);
    bg.m_pid = pid;
    bg.m_out = fds[0];
    return bg;
}

// Reads from fd until text has arrived or the stream ends; everything read.
std::string ReadUntil(int fd, const std::string &text) {
    std::string got;
    char c;
    while (got.find(text) == std::string::npos && read(fd, &c, 1) == 1) got.push_back(c);
    return got;
}

TEST(InitRun, CommandExitStatusBecomesInitsExitStatus) {
    probe_run r = probe_run_program({k_init, "--", "/system/bin/sh", "-c", "exit 7"});
    EXPECT_EQ(7, probe_exit_code(r));
    r = probe_run_program({k_init, "--", "/system/bin/sh", "-c", "exit 0"});
    EXPECT_EQ(0, probe_exit_code(r));
}

TEST(InitRun, CommandKilledBySignalGives128PlusSignal) {
    probe_run r = probe_run_program({k_init, "--", "/system/bin/sh", "-c", "kill -9 $$"});
    EXPECT_EQ(128 + 9, probe_exit_code(r));
    r = probe_run_program({k_init, "--", "/system/bin/sh", "-c", "kill -TERM $$"});
    EXPECT_EQ(128 + 15, probe_exit_code(r));
}

TEST(InitRun, MissingCommandGives127) {
    probe_run r = probe_run_program({k_init, "--", "/system/bin/no-such-program"});
    EXPECT_EQ(127, probe_exit_code(r));
    EXPECT_EQ("init: can't run '/system/bin/no-such-program': No such file or directory\n", r.m_err);
}

TEST(InitRun, CommandIsFoundInPathAndSharesInitsStdout) {
    probe_run r = probe_run_program({k_init, "--", "sh", "-c", "echo out; echo err >&2; pwd"});
    EXPECT_EQ(0, probe_exit_code(r));
    EXPECT_EQ("out\n/\n", r.m_out);
    EXPECT_EQ("err\n", r.m_err);
}

TEST(InitRun, BadArgumentsGiveUsage) {
    for (const std::vector<std::string> &args :
         {std::vector<std::string>{k_init, "foo"}, std::vector<std::string>{k_init, "--"}}) {
        probe_run r = probe_run_program(args);
        EXPECT_EQ(2, probe_exit_code(r));
        EXPECT_EQ(0u, r.m_err.find("usage: init [-- COMMAND [ARG...]]\n")) << r.m_err;
    }
}

TEST(InitRun, ServicesRunBeforeTheCommandStarts) {
    WriteRc("bg.rc", "service bg /system/bin/sleep 2001\n");
    probe_run r = probe_run_program({k_init, "--", "getprop", "init.svc.bg"});
    EXPECT_EQ(0, probe_exit_code(r));
    EXPECT_EQ("running\n", r.m_out);
    EXPECT_EQ("", r.m_err);
}

TEST(InitRun, EveryServiceIsStoppedWhenTheCommandExits) {
    WriteRc("bg.rc",
            "service bg /system/bin/sleep 2001\n"
            "service deaf /system/bin/sh -c \"trap '' TERM; echo >/data/deaf.ready; while :; do sleep 1; "
            "done\"\n");
    // The command returns once the TERM-ignoring service has set its trap.
    const char *wait_ready =
        "i=0; until [ -e /data/deaf.ready ] || [ $i -ge 500 ]; do i=$((i+1)); sleep 0.01; done";
    int64_t t0 = probe_now_ms();
    probe_run r = probe_run_program({k_init, "--", "/system/bin/sh", "-c", wait_ready});
    int64_t elapsed = probe_now_ms() - t0;
    EXPECT_EQ(0, probe_exit_code(r));
    EXPECT_EQ("\n", probe_read_file("/data/deaf.ready"));
    // The deaf service only goes with SIGKILL, after the grace period.
    EXPECT_GE(elapsed, 3000);
    EXPECT_EQ("stopped", Prop("init.svc.bg"));
    EXPECT_EQ("stopped", Prop("init.svc.deaf"));
    EXPECT_TRUE(probe_wait_for(
        [] {
            return probe_pids_of({"/system/bin/sleep", "2001"}).empty();
        },
        k_quick_ms));
    EXPECT_TRUE(probe_wait_for([] { return probe_pids_containing("deaf.ready").empty(); }, k_quick_ms));
    EXPECT_NE(std::string::npos, r.m_err.find("init: service 'deaf' (pid ")) << r.m_err;
    EXPECT_NE(std::string::npos, r.m_err.find(" ms after SIGTERM, sending SIGKILL\n")) << r.m_err;
}

// Starts init without a command, waits for its service, ends it with sig and checks the ending.
void ExpectEndsCleanlyOn(int sig) {
    WriteRc("bg.rc", "service bg /system/bin/sleep 2002\n");
    BackgroundInit init = StartInit({});
    ASSERT_GT(init.m_pid, 0);
    ASSERT_TRUE(probe_wait_for(
        [] {
            return probe_pids_of({"/system/bin/sleep", "2002"}).size() == 1;
        },
        k_quick_ms));
    // Serving properties: a set goes through.
    ASSERT_TRUE(probe_wait_for([] { return property_set("zv.up", "1") == 0; }, k_quick_ms));
    ASSERT_EQ(0, kill(init.m_pid, sig));
    int status = -1;
    ASSERT_EQ(init.m_pid, waitpid(init.m_pid, &status, 0));
    close(init.m_out);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status));
    EXPECT_EQ("stopped", Prop("init.svc.bg"));
    EXPECT_TRUE(probe_wait_for(
        [] {
            return probe_pids_of({"/system/bin/sleep", "2002"}).empty();
        },
        k_quick_ms));
    // The socket is gone with init.
    EXPECT_EQ(-1, property_set("zv.up", "2"));
}

TEST(InitRun, WithoutCommandRunsUntilSigtermThenStopsServicesAndExitsZero) {
    ExpectEndsCleanlyOn(SIGTERM);
}

TEST(InitRun, WithoutCommandRunsUntilSigintThenStopsServicesAndExitsZero) {
    ExpectEndsCleanlyOn(SIGINT);
}

TEST(InitRun, SigtermWhileCommandRunsIsPassedToTheCommand) {
    BackgroundInit init =
        StartInit({"--", "/system/bin/sh", "-c",
                   "trap 'echo got-term; exit 5' TERM; echo ready; while :; do sleep 1; done"});
    ASSERT_GT(init.m_pid, 0);
    EXPECT_EQ("ready\n", ReadUntil(init.m_out, "ready\n"));
    ASSERT_EQ(0, kill(init.m_pid, SIGTERM));
    EXPECT_EQ("got-term\n", ReadUntil(init.m_out, "got-term\n"));
    int status = -1;
    ASSERT_EQ(init.m_pid, waitpid(init.m_pid, &status, 0));
    close(init.m_out);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(5, WEXITSTATUS(status));
}

TEST(InitRun, RcWarningsGoToStderr) {
    WriteRc(
        "w.rc",
        "service w /system/bin/sleep 2003\n    bogus 1\non boot\n    start w\n    mkdir /data/made 0700\n");
    probe_run r = probe_run_program({k_init, "--", "/system/bin/sh", "-c", "exit 0"});
    EXPECT_EQ(0, probe_exit_code(r));
    EXPECT_EQ(
        "init: /system/etc/init/w.rc:2: unknown option 'bogus' of service 'w', skipped\n"
        "init: /system/etc/init/w.rc:4: 'start' in an 'on' section skipped\n",
        r.m_err);
}

TEST(InitRun, BootScriptFoldersAreMadeBeforeServicesStart) {
    WriteRc("m.rc",
            "on post-fs-data\n    mkdir /data/made 0750 shell log\n"
            "service m /bin/sh -c \"stat -c '%a %u %g' /data/made > /data/m.out\"\n    oneshot\n");
    probe_run r = probe_run_program({k_init, "--", "/bin/sh", "-c",
                                     "for i in $(seq 100); do [ -s /data/m.out ] && break; sleep 0.05; done; "
                                     "cat /data/m.out"});
    EXPECT_EQ(0, probe_exit_code(r)) << r.m_err;
    EXPECT_EQ("750 2000 1007\n", r.m_out);
}

TEST(InitRun, ServiceWithMissingProgramIsNotStarted) {
    WriteRc("ghost.rc", "service ghost /system/bin/no-such-program\n");
    probe_run r = probe_run_program({k_init, "--", "getprop", "init.svc.ghost"});
    EXPECT_EQ(0, probe_exit_code(r));
    EXPECT_EQ("stopped\n", r.m_out);
    EXPECT_EQ(
        "init: can't find '/system/bin/no-such-program' (No such file or directory), service 'ghost' not "
        "started\n",
        r.m_err);
}

TEST(InitRun, ServiceThatFailsToExecIsReportedAndRestarting) {
    int fd = open("/data/not-executable", O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0);
    close(fd);
    WriteRc("noexec.rc", "service noexec /data/not-executable\n");
    const char *wait_restarting =
        "i=0; until [ \"$(getprop init.svc.noexec)\" = restarting ] || [ $i -ge 500 ]; do i=$((i+1)); sleep "
        "0.01; "
        "done; getprop init.svc.noexec";
    probe_run r = probe_run_program({k_init, "--", "/system/bin/sh", "-c", wait_restarting});
    EXPECT_EQ(0, probe_exit_code(r));
    EXPECT_EQ("restarting\n", r.m_out);
    EXPECT_NE(std::string::npos, r.m_err.find("init: service 'noexec': exec failed: Permission denied\n"))
        << r.m_err;
    EXPECT_NE(std::string::npos, r.m_err.find("init: service 'noexec' (pid ")) << r.m_err;
    EXPECT_NE(std::string::npos, r.m_err.find(") exited with status 127, restarting\n")) << r.m_err;
}

}  // namespace
