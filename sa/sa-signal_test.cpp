// Tests of the signals and the shutdown sequence. Each case runs the daemon's handlers in a forked child
// (the sequence ends the process) and watches it from the test: exit status, sa.log lines, the init
// request of the reset signal (served here by a stand-in property service), and the capture children.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <dirent.h>
#include <string>
#include <vector>

#include <cutils/properties.h>

#include "capture.h"
#include "sa-capture.h"
#include "sa-signal.h"

using namespace sa_capture_test;

namespace {

class SignalTest : public ::testing::Test {
   protected:
    void SetUp() override {
        start_log_client();
        write_file("/data/local/tmp/fake-logcat.rate", "0\n");
        reset_capture_state();
        g_sa_handle_ctx.m_pty.m_ptm_fd = -1;  // no command endpoint was opened
    }
    // Forks a child that installs the handlers, runs prepare, reports a number on the pipe and waits for
    // signals; its pid.
    pid_t StartChild(const std::function<int()> &prepare, int *reported) {
        int fds[2];
        if (pipe(fds) != 0) return -1;
        pid_t pid = fork();
        if (pid == 0) {
            close(fds[0]);
            if (sa_signal_install() != 0) _exit(5);
            int value = prepare ? prepare() : 0;
            if (write(fds[1], &value, sizeof(value)) != static_cast<ssize_t>(sizeof(value))) _exit(6);
            close(fds[1]);
            for (;;) pause();
        }
        close(fds[1]);
        int value = -1;
        if (read(fds[0], &value, sizeof(value)) != static_cast<ssize_t>(sizeof(value))) value = -1;
        close(fds[0]);
        if (reported != nullptr) *reported = value;
        return pid;
    }
};

// The messages from the first empty-message line of signal_treatment on.
std::vector<std::string> ShutdownLines() {
    auto messages = sa_log_messages();
    int from = find_message(messages, "signal_treatment ");
    if (from < 0) return {};
    return std::vector<std::string>(messages.begin() + from, messages.end());
}

bool StartsWith(const std::string &s, const std::string &prefix) {
    return s.compare(0, prefix.size(), prefix) == 0;
}

void ExpectTermSequence(int signo, const char *name) {
    std::vector<std::string> lines = ShutdownLines();
    ASSERT_GE(lines.size(), 5u);
    EXPECT_EQ("signal_treatment ", lines[0]);
    EXPECT_EQ("signal_treatment signal[" + std::to_string(signo) + "-" + name + "]", lines[1]);
    EXPECT_TRUE(StartsWith(lines[2], "sa_handle_deinit exit ret_val[")) << lines[2];
    EXPECT_TRUE(StartsWith(lines[3], "sa_deinit_resource exit ret_val[")) << lines[3];
    EXPECT_EQ("signal_treatment exit", lines[4]);
}

// Sends signo to a fresh child with the handlers installed; true when the child exited with status 0.
bool EndsWithStatusZero(pid_t pid, int signo) {
    if (pid <= 0 || kill(pid, signo) != 0) return false;
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) return false;
    EXPECT_TRUE(WIFEXITED(status)) << "signalled " << WTERMSIG(status);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST_F(SignalTest, SigtermWritesTheShutdownLinesInOrderAndExitsWithStatusZero) {
    EXPECT_TRUE(EndsWithStatusZero(StartChild(nullptr, nullptr), SIGTERM));
    ExpectTermSequence(15, "SIGTERM");
    EXPECT_NE(std::string::npos, log_find("signal_treatment receive signal[15-SIGTERM]"));
    EXPECT_NE(std::string::npos, log_find("sa_deinit_resource exit"));
}

TEST_F(SignalTest, SigintEndsTheSameWay) {
    EXPECT_TRUE(EndsWithStatusZero(StartChild(nullptr, nullptr), SIGINT));
    ExpectTermSequence(2, "SIGINT");
}

TEST_F(SignalTest, SigsegvRunsTheSequenceInTheHandlerAndExitsWithStatusZero) {
    EXPECT_TRUE(EndsWithStatusZero(StartChild(nullptr, nullptr), SIGSEGV));
    ExpectTermSequence(11, "SIGSEGV");
}

TEST_F(SignalTest, SigbusExitsWithStatusZero) {
    EXPECT_TRUE(EndsWithStatusZero(StartChild(nullptr, nullptr), SIGBUS));
    ExpectTermSequence(7, "SIGBUS");
}

// A stand-in for init's property service: accepts one request and records it as "key=value".
class PropertyServiceStub {
   public:
    PropertyServiceStub() {
        mkdir("/dev/socket", 0755);
        unlink(PROP_SERVICE_SOCKET);
        fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr;
        memset(&addr, 0, sizeof(addr));
        addr.sun_family = AF_UNIX;
        snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", PROP_SERVICE_SOCKET);
        ok_ = fd_ >= 0 && bind(fd_, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) == 0 &&
              listen(fd_, 4) == 0;
    }
    ~PropertyServiceStub() {
        if (fd_ >= 0) close(fd_);
    }
    bool ok() const { return ok_; }
    // Serves one request; "key=value", or "" on a malformed one.
    std::string ServeOne() {
        int c = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (c < 0) return "";
        uint32_t cmd = 0;
        uint32_t len = 0;
        std::string key;
        std::string value;
        bool good = ReadAll(c, &cmd, sizeof(cmd)) && cmd == PROP_MSG_SETPROP2 &&
                    ReadAll(c, &len, sizeof(len)) && len < 256 && ReadString(c, len, &key) &&
                    ReadAll(c, &len, sizeof(len)) && len < 256 && ReadString(c, len, &value);
        uint32_t result = good ? 0 : 1;
        if (write(c, &result, sizeof(result)) < 0) good = false;
        close(c);
        return good ? key + "=" + value : "";
    }

   private:
    static bool ReadAll(int fd, void *buf, size_t size) {
        size_t got = 0;
        while (got < size) {
            ssize_t n = read(fd, static_cast<char *>(buf) + got, size - got);
            if (n <= 0) return false;
            got += static_cast<size_t>(n);
        }
        return true;
    }
    static bool ReadString(int fd, uint32_t len, std::string *out) {
        out->assign(len, '\0');
        return len == 0 || ReadAll(fd, &(*out)[0], len);
    }
    int fd_ = -1;
    bool ok_ = false;
};

TEST_F(SignalTest, Sigusr2KillsTheCaptureChildrenAsksInitToStopAndStaysAlive) {
    PropertyServiceStub service;
    ASSERT_TRUE(service.ok());
    int logcat = 0;
    pid_t pid = StartChild(
        [] {
            sa_log_svc_st *svc = &g_zv_log_svc[SA_LOG_SVC_MAIN - 1];
            snprintf(svc->type, sizeof(svc->type), "I4");
            snprintf(svc->file_num, sizeof(svc->file_num), "5");
            snprintf(svc->file_size, sizeof(svc->file_size), "5120");
            svc->type_id = SA_LOG_SVC_MAIN;
            svc->file_num_val = 5;
            svc->file_size_val = 5120;
            return start_logcat_service_ex(svc) == 0 ? svc->svc_pid : -1;
        },
        &logcat);
    ASSERT_GT(pid, 0);
    ASSERT_GT(logcat, 0);
    ASSERT_TRUE(process_running(logcat));

    ASSERT_EQ(0, kill(pid, SIGUSR2));
    EXPECT_EQ("ctl.stop=zv-qel-sa", service.ServeOne());
    ASSERT_TRUE(poll_until(
        [] {
            return find_message(sa_log_messages(), "signal_treatment PUB_UTIL_RESET_PROCESS_SIGNAL exit") >=
                   0;
        },
        5s));
    EXPECT_TRUE(poll_until([&] { return process_gone(logcat); }, 5s));

    std::vector<std::string> lines = ShutdownLines();
    ASSERT_GE(lines.size(), 4u);
    EXPECT_EQ("signal_treatment ", lines[0]);
    EXPECT_EQ("signal_treatment signal[12-SIGUSR2]", lines[1]);
    EXPECT_TRUE(StartsWith(lines[2], "sa_handle_deinit exit ret_val[")) << lines[2];
    EXPECT_TRUE(StartsWith(lines[3], "sa_deinit_resource exit ret_val[")) << lines[3];
    int kill_line = find_message(
        lines, "sa_kill_all_child_service_ex LOGCAT kill[" + std::to_string(logcat) + "] ret_val[0]");
    int reset_line = find_message(lines, "signal_treatment PUB_UTIL_RESET_PROCESS_SIGNAL exit");
    EXPECT_GT(kill_line, 3);
    EXPECT_GT(reset_line, kill_line);
    EXPECT_EQ(-1, find_message(lines, "signal_treatment exit"));
    EXPECT_NE(std::string::npos, log_find("ready to kill all child service"));

    // Still alive after the handler: it goes on until init stops it.
    EXPECT_EQ(0, waitpid(pid, nullptr, WNOHANG));
    EXPECT_TRUE(process_running(pid));
    // And it still answers the next signal with the full sequence.
    EXPECT_TRUE(EndsWithStatusZero(pid, SIGTERM));
}

// Threads of this process whose signal mask is not empty.
int ThreadsBlockingSignals() {
    DIR *dir = opendir("/proc/self/task");
    if (dir == nullptr) return -1;
    int n = 0;
    while (dirent *d = readdir(dir)) {
        if (d->d_name[0] == '.') continue;
        std::string status = read_file(std::string("/proc/self/task/") + d->d_name + "/status");
        size_t at = status.find("SigBlk:\t");
        if (at == std::string::npos || status.compare(at + 8, 16, "0000000000000000") != 0) ++n;
    }
    closedir(dir);
    return n;
}

TEST_F(SignalTest, InstallCatchesTheFiveSignalsAndBlocksNothing) {
    // Threads that block signals before the daemon's code runs: none on a handset or a PC; a user-mode
    // emulator adds a thread of its own that blocks everything.
    const int baseline = ThreadsBlockingSignals();
    ASSERT_GE(baseline, 0);
    int blocked_report = -1;
    pid_t pid = StartChild(
        [baseline] {
            struct sigaction sa;
            for (int sig : {SIGINT, SIGTERM, SIGSEGV, SIGBUS, SIGUSR2}) {
                if (sigaction(sig, nullptr, &sa) != 0 || sa.sa_handler == SIG_DFL || sa.sa_handler == SIG_IGN)
                    return 100 + sig;
            }
            if (sigaction(SIGUSR1, nullptr, &sa) != 0 || sa.sa_handler != SIG_DFL) return 200;
            // No thread of the process blocks any signal (a new thread starts with everything blocked
            // until its start-up code restores the mask, so give it a moment).
            int bad = 0;
            poll_until([&] { return (bad = ThreadsBlockingSignals() - baseline) == 0; }, 2s);
            return bad == 0 ? 0 : 400 + bad;
        },
        &blocked_report);
    ASSERT_GT(pid, 0);
    EXPECT_EQ(0, blocked_report);
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

}  // namespace
