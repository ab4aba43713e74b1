// End-to-end tests of the client tool's verbs: init boots the daemon from its own rc file with its
// shipped configuration, next to the test services, and each test drives it with zv-sa-client as a test
// engineer's script does, comparing exact output, exit status, files and processes. The test service
// zv-qel-mla0 runs throughout; zv-svc-plain runs only where a test starts it.
#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "client_run.h"
#include "harness.h"
#include "service.h"

using namespace zvtest;
using namespace std::chrono_literals;
using clienttest::Client;
using clienttest::Result;

namespace {

constexpr char kLogRoot[] = "/storage/real_sd/logs";
constexpr char kErrorText[] = "(ERROR: 4294967295)";

// The daemon's pid from its pid file, while that process lives. (Its command line would not do: under
// user-mode emulation it names the emulator.)
pid_t DaemonPid() {
    pid_t pid = static_cast<pid_t>(atoi(read_file("/tmp/zv-qel-sa.pid").c_str()));
    return pid > 0 && kill(pid, 0) == 0 ? pid : -1;
}

bool Contains(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

std::vector<std::string> Folders(const std::string &dir) {
    std::vector<std::string> out;
    if (DIR *d = opendir(dir.c_str())) {
        while (struct dirent *e = readdir(d)) {
            if (e->d_name[0] != '.') out.push_back(e->d_name);
        }
        closedir(d);
    }
    return out;
}

class ClientVerbsTest : public ::testing::Test {
   protected:
    void SetUp() override {
        ASSERT_TRUE(poll_until([] { return DaemonPid() > 0; }, 20s)) << "init did not boot the daemon";
        ASSERT_TRUE(clienttest::DaemonAnswers()) << read_file(kSaLog);
        // A service that runs for every test (the daemon tells that a service runs by its name).
        ASSERT_EQ(0, system("setprop ctl.start zv-qel-mla0"));
        ASSERT_TRUE(poll_until([] { return !svctest::PidsNamed("zv-qel-mla0").empty(); }, 10s));
    }
    // Expects status and exact standard output, and nothing on standard error.
    static void Expect(const std::string &args, int status, const std::string &out) {
        Result r = Client(args);
        EXPECT_EQ(status, r.status) << args << "\n" << r.out << r.err;
        EXPECT_EQ(out, r.out) << args;
        EXPECT_EQ("", r.err) << args;
    }
};

TEST_F(ClientVerbsTest, QueryAnswersThroughTheExitStatus) {
    Expect("query zv-qel-mla0", 0, "zv-qel-mla0: running\n");
    Expect("query zv-svc-plain", 3, "zv-svc-plain: not running\n");
}

TEST_F(ClientVerbsTest, StartAndStopAService) {
    Expect("start zv-svc-plain", 0, "zv-svc-plain: running\n");
    EXPECT_FALSE(svctest::PidsNamed("zv-svc-plain").empty());
    Expect("query zv-svc-plain", 0, "zv-svc-plain: running\n");
    Expect("stop zv-svc-plain", 0, "zv-svc-plain: stopped\n");
    EXPECT_TRUE(svctest::PidsNamed("zv-svc-plain").empty());
}

TEST_F(ClientVerbsTest, StartOfAServiceInitDoesNotKnowIsAnError) {
    Expect("start zv-no-such-svc", 1,
           "zv-no-such-svc: not running after the daemon's 8 s " + std::string(kErrorText) + "\n");
}

TEST_F(ClientVerbsTest, AutoStartList) {
    Expect("autostart status zv-svc-plain", 3, "zv-svc-plain: not in the auto-start list\n");
    Expect("autostart add zv-svc-plain", 0, "zv-svc-plain: in the auto-start list\n");
    Expect("autostart status zv-svc-plain", 0, "zv-svc-plain: in the auto-start list\n");
    Expect("autostart remove zv-svc-plain", 0, "zv-svc-plain: not in the auto-start list\n");
    Expect("autostart status zv-svc-plain", 3, "zv-svc-plain: not in the auto-start list\n");
}

TEST_F(ClientVerbsTest, KernelAndDmesgLogSwitches) {
    for (std::string verb : {"kernel-log", "dmesg-log"}) {
        std::string label = verb == "kernel-log" ? "kernel log: " : "dmesg log: ";
        for (std::string value : {"on", "off"}) {
            Expect(verb + " " + value, 0, label + value + "\n");
            Expect(verb + " status", 0, label + value + "\n");
        }
    }
}

TEST_F(ClientVerbsTest, PacketsOffIsRefusedWithoutYes) {
    Expect("packets on", 0, "packet capture: on\n");
    pid_t before = DaemonPid();
    Result r = Client("packets off");
    EXPECT_EQ(2, r.status);
    EXPECT_EQ("", r.out);
    EXPECT_TRUE(Contains(r.err, "ends the daemon itself")) << r.err;
    EXPECT_TRUE(Contains(r.err, "--yes")) << r.err;
    EXPECT_EQ(before, DaemonPid()) << "nothing was sent";
    EXPECT_EQ(0, count_in_file(kSaLog, "DATA_PACKETS_LOG=0"));
}

TEST_F(ClientVerbsTest, PacketsOffWhileOffIsAnsweredAndEndsNothing) {
    pid_t before = DaemonPid();
    Expect("--yes packets off", 0, "packet capture: off\n");
    EXPECT_EQ(before, DaemonPid());
}

TEST_F(ClientVerbsTest, PacketsOffWithYesEndsTheDaemonAndInitRestartsIt) {
    Expect("packets on", 0, "packet capture: on\n");
    pid_t before = DaemonPid();
    Expect("--yes packets off", 0, "packet capture: off; the daemon ended itself (init restarts it)\n");
    EXPECT_TRUE(poll_until([&] { return DaemonPid() > 0 && DaemonPid() != before; }, 20s));
    // The next call finds the restarted daemon.
    ASSERT_TRUE(clienttest::DaemonAnswers());
    Expect("query zv-qel-mla0", 0, "zv-qel-mla0: running\n");
}

TEST_F(ClientVerbsTest, SaveLogNamesTheFolderItMade) {
    Result r = Client("save-log");
    EXPECT_EQ(0, r.status) << r.err;
    std::vector<std::string> folders = Folders(kLogRoot);
    ASSERT_EQ(1u, folders.size());
    EXPECT_EQ("saved to " + std::string(kLogRoot) + "/" + folders[0] + "\n", r.out);
    EXPECT_TRUE(file_exists(std::string(kLogRoot) + "/" + folders[0] + "/log/sa.log"));
}

TEST_F(ClientVerbsTest, DeleteLog) {
    Expect("delete-log", 0, "captured logs deleted; capture restarted\n");
}

TEST_F(ClientVerbsTest, SystemRunsACommandLine) {
    Expect("system touch /data/by-system", 0, "system: the command line exited 0\n");
    EXPECT_TRUE(file_exists("/data/by-system"));
    Expect("system false", 1,
           "system: no run of the command line exited 0 (five tries) " + std::string(kErrorText) + "\n");
}

TEST_F(ClientVerbsTest, RequestLinesAreTheDefaultAndRawSendsAnyLine) {
    Expect("AT 'SA+KERNEL_LOG?'", 0, "\\r\\nOK\\r\\n\n\\r\\nKERNEL_LOG: 0\\r\\n\\r\\nOK\\r\\n\n");
    Expect("raw hello", 1, "\\r\\nERROR: 4294967295\\r\\n\n");
}

TEST_F(ClientVerbsTest, VerboseShowsTheRequestAndTheAnswer) {
    Result r = Client("-v query zv-qel-mla0");
    EXPECT_EQ(0, r.status);
    EXPECT_EQ("zv-qel-mla0: running\n", r.out);
    EXPECT_TRUE(Contains(r.err, "zv-sa-client: -> SA+QUERY_SERVICE=\"zv-qel-mla0\"\\r\n")) << r.err;
    EXPECT_TRUE(Contains(r.err, "zv-sa-client: <- \\r\\nQUERY_SERVICE: 1\\r\\n\\r\\nOK\\r\\n (")) << r.err;
}

TEST_F(ClientVerbsTest, UsageErrorsExitTwo) {
    for (const char *args : {"frobnicate", "query", "-t 0 AT", "kernel-log maybe", "system 'echo \"x\"'"}) {
        Result r = Client(args);
        EXPECT_EQ(2, r.status) << args;
        EXPECT_EQ("", r.out) << args;
        EXPECT_TRUE(Contains(r.err, "zv-sa-client: ")) << args;
    }
    Result help = Client("--help");
    EXPECT_EQ(0, help.status);
    EXPECT_TRUE(Contains(help.out, "124  the answer did not come in time")) << help.out;
}

TEST_F(ClientVerbsTest, LinesFromStandardInputTakeVerbsAndRequests) {
    ASSERT_TRUE(write_file("/tmp/lines.txt", "query zv-qel-mla0\nAT\n\nkernel-log status\n"));
    Result r = Client("</tmp/lines.txt");
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ("zv-qel-mla0: running\n\\r\\nOK\\r\\n\nkernel log: off\n", r.out);
}

TEST_F(ClientVerbsTest, AnAnswerThatComesTooLateGives124) {
    Result r = Client("-t 1 system sleep 4");
    EXPECT_EQ(124, r.status);
    EXPECT_EQ("", r.out);
    EXPECT_EQ("zv-sa-client: system: no answer within 1 s\n", r.err);
}

TEST_F(ClientVerbsTest, TheLateAnswerOfAnAbandonedRequestIsNotTakenForTheNextOne) {
    // The daemon answers "system" two seconds after its client gave up; the next client, already
    // waiting, must get its own answer, not that one.
    Result late = Client("-t 0.5 system 'sleep 2; true'");
    EXPECT_EQ(124, late.status);
    Result next = Client("-v query zv-qel-mla0");
    EXPECT_EQ(0, next.status) << next.err;
    EXPECT_EQ("zv-qel-mla0: running\n", next.out) << next.err;
    // Unless the daemon had already published another pty, the next client said what it dropped.
    if (Contains(next.err, "earlier request")) {
        EXPECT_TRUE(Contains(next.err, "dropped its answer \\r\\nOK\\r\\n")) << next.err;
    }
    Expect("query zv-svc-plain", 3, "zv-svc-plain: not running\n");
}

TEST_F(ClientVerbsTest, ShellExitsWithTheRemoteStatus) {
    Expect("shell 'echo from-remote; exit 0'", 0, "from-remote\n");
    Expect("shell 'exit 3'", 3, "");
    Result missing = Client("shell zv-no-such-command");
    EXPECT_EQ(127, missing.status);
    EXPECT_TRUE(Contains(missing.out, "zv-no-such-command: inaccessible or not found")) << missing.out;
    Expect("shell 'kill -9 $$'", 137, "");
    Expect("shell 'kill -TERM $$'", 143, "");
    // The old option, too.
    Expect("-s 'exit 4'", 4, "");
}

TEST_F(ClientVerbsTest, ShellCommandRunsAsTheListenerGivesIt) {
    // Its text reaches the daemon unchanged, and its stdin and stdout are the shell's pty.
    Expect("shell 'test -t 0 && test -t 1 && echo \"on a tty: $0\"'", 0, "on a tty: /system/bin/sh\n");
    EXPECT_EQ(
        1, count_in_file(
               kSaLog, "sa_listener_loop service[shell:test -t 0 && test -t 1 && echo \"on a tty: $0\"]\n"));
}

TEST_F(ClientVerbsTest, InteractiveShellReturnsTheShellsStatus) {
    ASSERT_TRUE(write_file("/tmp/lines.txt", "echo inside\nexit 5\n"));
    Result r = Client("shell </tmp/lines.txt");
    EXPECT_EQ(5, r.status) << r.err;
    EXPECT_TRUE(Contains(r.out, "inside")) << r.out;
}

TEST_F(ClientVerbsTest, ShellThatRunsTooLongGives124) {
    Result r = Client("-t 1 shell 'sleep 10'");
    EXPECT_EQ(124, r.status);
    EXPECT_EQ("zv-sa-client: the shell did not end in time\n", r.err);
}

TEST_F(ClientVerbsTest, JsonObjectsParseWithAJsonParser) {
    std::string script = "/tmp/client.json";
    std::string c = std::string(clienttest::kClient) + " --json ";
    pid_t run = spawn({"/bin/sh", "-c",
                       "{ " + c + "query zv-qel-mla0; " + c + "query zv-svc-plain; " + c + "system false; " +
                           c + "shell 'echo out; exit 3'; " + c + "save-log; " + c +
                           "-t 1 system sleep 3; } >" + script + " 2>/tmp/client.err"});
    ASSERT_NE(-1, wait_exit(run, 60s));
    EXPECT_EQ("", read_file("/tmp/client.err"));
    // Python's own parser reads each line; the fields are printed back one per line.
    pid_t pid =
        spawn({"/usr/bin/python3", "-c",
               "import json, sys\n"
               "for line in open(sys.argv[1]):\n"
               "    o = json.loads(line)\n"
               "    assert set(o) == {'verb', 'request', 'answer', 'ok', 'value', 'elapsed_ms', "
               "'exit_code', 'message'}, o\n"
               "    assert isinstance(o['elapsed_ms'], int) and o['elapsed_ms'] >= 0\n"
               "    print(repr((o['verb'], o['request'], o['answer'], o['ok'], o['value'], o['exit_code'], "
               "o['message'])))\n",
               script},
              "/tmp/parsed.txt");
    int status = wait_exit(pid, 30s);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << read_file("/tmp/parsed.txt") << read_file(script);
    std::vector<std::string> lines = svctest::Lines(read_file("/tmp/parsed.txt"));
    ASSERT_EQ(6u, lines.size()) << read_file("/tmp/parsed.txt");
    EXPECT_EQ(
        "('query', 'SA+QUERY_SERVICE=\"zv-qel-mla0\"\\r', '\\r\\nQUERY_SERVICE: 1\\r\\n\\r\\nOK\\r\\n', "
        "True, "
        "1, 0, "
        "'zv-qel-mla0: running')",
        lines[0]);
    EXPECT_EQ(
        "('query', 'SA+QUERY_SERVICE=\"zv-svc-plain\"\\r', '\\r\\nQUERY_SERVICE: 0\\r\\n\\r\\nOK\\r\\n', "
        "True, 0, "
        "3, 'zv-svc-plain: not running')",
        lines[1]);
    EXPECT_EQ(
        "('system', 'SA+SYSTEM=\"false\"\\r', '\\r\\nERROR: 4294967295\\r\\n', False, None, 1, 'system: no "
        "run of "
        "the command line exited 0 (five tries) (ERROR: 4294967295)')",
        lines[2]);
    EXPECT_EQ("('shell', 'shell:echo out; exit 3', 'out\\n', True, 3, 3, 'the shell ended with status 3')",
              lines[3]);
    std::vector<std::string> folders = Folders(kLogRoot);
    ASSERT_EQ(1u, folders.size());
    std::string folder = std::string(kLogRoot) + "/" + folders[0];
    EXPECT_EQ("('save-log', 'SA+SAVE_LOG\\r', '\\r\\nOK\\r\\n', True, '" + folder + "', 0, 'saved to " +
                  folder + "')",
              lines[4]);
    EXPECT_EQ("('system', 'SA+SYSTEM=\"sleep 3\"\\r', '', False, None, 124, 'system: no answer within 1 s')",
              lines[5]);
}

TEST_F(ClientVerbsTest, TwoClientsAtOnceAreBothAnsweredInTurn) {
    // Both send a request that keeps the daemon busy for a second, at the same moment; the lock makes
    // one wait for the other instead of interleaving on the one channel.
    std::string a = std::string(clienttest::kClient) +
                    " -v -t 20 system 'sleep 1; touch /data/a' >/tmp/a.out 2>/tmp/a.err";
    std::string b = std::string(clienttest::kClient) +
                    " -v -t 20 system 'sleep 1; touch /data/b' >/tmp/b.out 2>/tmp/b.err";
    std::string c = std::string(clienttest::kClient) + " -v -t 20 query zv-qel-mla0 >/tmp/c.out 2>/tmp/c.err";
    // By pid: the handset's shell, without job control, forgets a job that ended before its "wait %N".
    pid_t pid = spawn({"/bin/sh", "-c",
                       a + " & pa=$!; " + b + " & pb=$!; " + c +
                           " & pc=$!; wait $pa && wait $pb && wait $pc; echo $? >/tmp/all.status"});
    ASSERT_NE(-1, wait_exit(pid, 60s));
    EXPECT_EQ("0\n", read_file("/tmp/all.status"));
    EXPECT_EQ("system: the command line exited 0\n", read_file("/tmp/a.out")) << read_file("/tmp/a.err");
    EXPECT_EQ("system: the command line exited 0\n", read_file("/tmp/b.out")) << read_file("/tmp/b.err");
    EXPECT_EQ("zv-qel-mla0: running\n", read_file("/tmp/c.out")) << read_file("/tmp/c.err");
    EXPECT_TRUE(file_exists("/data/a") && file_exists("/data/b"));
    int waited = 0;
    for (const char *err : {"/tmp/a.err", "/tmp/b.err", "/tmp/c.err"}) {
        if (Contains(read_file(err), "zv-sa-client: waited ")) ++waited;
    }
    EXPECT_GE(waited, 1) << "no client said that it waited for another";
}

// Runs "zv-sa-client ARGS" times times in a row in one shell; the number of the first failing call, or -1.
int FirstFailingCall(const std::string &args, int times) {
    pid_t pid = spawn({"/bin/sh", "-c",
                       "n=0; while [ $n -lt " + std::to_string(times) + " ]; do " + clienttest::kClient +
                           " " + args + " </dev/null >/dev/null || exit $((100 + n)); n=$((n + 1)); done"});
    int status = wait_exit(pid, 60s);
    if (!WIFEXITED(status)) return -2;
    return WEXITSTATUS(status) == 0 ? -1 : WEXITSTATUS(status) - 100;
}

TEST_F(ClientVerbsTest, CallsRightAfterEachOtherAllWork) {
    // Each call's exit closes the command pty; the daemon re-creates its link while the next call starts.
    EXPECT_EQ(-1, FirstFailingCall("query zv-qel-mla0", 30));
    // The same for the listener, which a shell call leaves as soon as its shell runs.
    EXPECT_EQ(-1, FirstFailingCall("shell 'exit 0'", 10));
}

TEST_F(ClientVerbsTest, WaitsLongerThanASecondShowElapsedTimeOnATerminalOnly) {
    int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(master, 0);
    ASSERT_EQ(0, grantpt(master));
    ASSERT_EQ(0, unlockpt(master));
    std::string slave = ptsname(master);
    pid_t pid = spawn(
        {"/bin/sh", "-c", std::string(clienttest::kClient) + " system 'sleep 2.5' >/tmp/tty.out 2>" + slave});
    std::string shown = read_until(
        master, [](const std::string &) { return false; }, 15s);
    int status = wait_exit(pid, 15s);
    close(master);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status));
    EXPECT_EQ("system: the command line exited 0\n", read_file("/tmp/tty.out"));
    EXPECT_TRUE(Contains(shown, "\rzv-sa-client: system: waiting 1 s")) << shown;
    EXPECT_TRUE(Contains(shown, "\rzv-sa-client: system: waiting 2 s")) << shown;
    // The line is cleared at the end.
    EXPECT_TRUE(shown.size() >= 4 && shown.compare(shown.size() - 4, 4, "\r\033[K") == 0) << shown;
    // Not on a file.
    Result r = Client("system 'sleep 1.5'");
    EXPECT_EQ(0, r.status);
    EXPECT_EQ("", r.err);
}

TEST_F(ClientVerbsTest, KillEndsTheDaemon) {
    pid_t before = DaemonPid();
    Expect("kill", 0, "kill: the daemon was told to exit\n");
    EXPECT_TRUE(poll_until([&] { return DaemonPid() != before; }, 20s));
}

}  // namespace
