// Tests of the process and thread utilities: signal names, descriptor mode, thread stop, pid file and
// the move-only owners. Each test case runs in its own simulated handset, so /tmp is private.
#include "util/util.h"
#include "logs.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <set>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "log/log_client.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kDeadline = std::chrono::seconds(10);

int count_dir_entries(const char *path) {
    DIR *dir = opendir(path);
    if (dir == nullptr) return -1;
    int n = 0;
    while (dirent *e = readdir(dir)) {
        if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) ++n;
    }
    closedir(dir);
    return n;
}

int count_tasks() {
    return count_dir_entries("/proc/self/task");
}

// Polls until the thread count of this process is at most want, or the deadline passes.
bool wait_task_count_at_most(int want) {
    return zvtest::poll_until([&] { return count_tasks() <= want; }, kDeadline);
}

std::string read_file(const char *path) {
    std::string out;
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return "<missing>";
    char buf[256];
    ssize_t n;
    while ((n = read(fd, buf, sizeof(buf))) > 0) out.append(buf, static_cast<size_t>(n));
    close(fd);
    return out;
}

// ---- signal names ----

TEST(UtilSignalName, OneIsSighup) {
    EXPECT_STREQ("SIGHUP", pub_util_get_signal_name(1));
}

TEST(UtilSignalName, SixIsSigabrtTheFirstOfItsRows) {
    EXPECT_STREQ("SIGABRT", pub_util_get_signal_name(6));
}

TEST(UtilSignalName, TwentyNineIsSigpollTheFirstOfItsRows) {
    EXPECT_STREQ("SIGPOLL", pub_util_get_signal_name(29));
}

TEST(UtilSignalName, SeventeenIsSigchld) {
    EXPECT_STREQ("SIGCHLD", pub_util_get_signal_name(17));
}

TEST(UtilSignalName, SixtyFourIsEmptyText) {
    const char *name = pub_util_get_signal_name(64);
    ASSERT_NE(nullptr, name);
    EXPECT_STREQ("", name);
}

TEST(UtilSignalName, UnknownNumbersAndEndRowNumberAreEmptyText) {
    EXPECT_STREQ("", pub_util_get_signal_name(0));
    EXPECT_STREQ("", pub_util_get_signal_name(-1));
    EXPECT_STREQ("", pub_util_get_signal_name(32));
    EXPECT_STREQ("", pub_util_get_signal_name(PUB_UTIL_SIG_END));
}

TEST(UtilSignalName, EveryNumberFromOneToThirtyOneHasAName) {
    for (int sig = 1; sig <= 31; ++sig) {
        EXPECT_STRNE("", pub_util_get_signal_name(sig)) << sig;
    }
    EXPECT_STREQ("SIGUSR1", pub_util_get_signal_name(10));
    EXPECT_STREQ("SIGSTKFLT", pub_util_get_signal_name(16));
    EXPECT_STREQ("SIGSYS", pub_util_get_signal_name(31));
}

// The table's numbers agree with the platform's own signal numbers.
TEST(UtilSignalTable, NumbersMatchThePlatform) {
    struct {
        const char *name;
        int sig;
    } const platform[] = {
        {"SIGHUP", SIGHUP},       {"SIGINT", SIGINT},   {"SIGQUIT", SIGQUIT},     {"SIGILL", SIGILL},
        {"SIGTRAP", SIGTRAP},     {"SIGABRT", SIGABRT}, {"SIGIOT", SIGIOT},       {"SIGBUS", SIGBUS},
        {"SIGFPE", SIGFPE},       {"SIGKILL", SIGKILL}, {"SIGUSR1", SIGUSR1},     {"SIGSEGV", SIGSEGV},
        {"SIGUSR2", SIGUSR2},     {"SIGPIPE", SIGPIPE}, {"SIGALRM", SIGALRM},     {"SIGTERM", SIGTERM},
        {"SIGSTKFLT", SIGSTKFLT}, {"SIGCHLD", SIGCHLD}, {"SIGCONT", SIGCONT},     {"SIGSTOP", SIGSTOP},
        {"SIGTSTP", SIGTSTP},     {"SIGTTIN", SIGTTIN}, {"SIGTTOU", SIGTTOU},     {"SIGURG", SIGURG},
        {"SIGXCPU", SIGXCPU},     {"SIGXFSZ", SIGXFSZ}, {"SIGVTALRM", SIGVTALRM}, {"SIGPROF", SIGPROF},
        {"SIGWINCH", SIGWINCH},   {"SIGPOLL", SIGPOLL}, {"SIGIO", SIGIO},         {"SIGPWR", SIGPWR},
        {"SIGSYS", SIGSYS},
    };
    size_t rows = 0;
    for (const pub_util_sig_st *row = pub_util_sig_table; row->m_sig != PUB_UTIL_SIG_END; ++row, ++rows) {
        ASSERT_LT(rows, sizeof(platform) / sizeof(platform[0]));
        EXPECT_STREQ(platform[rows].name, row->m_name);
        EXPECT_EQ(platform[rows].sig, row->m_sig) << row->m_name;
    }
    EXPECT_EQ(sizeof(platform) / sizeof(platform[0]), rows);
}

TEST(UtilSignalTable, AscendingWithActionsDescriptionsAndEndRow) {
    const std::set<char> actions = {'T', 'A', 'I', 'C', 'S', '?'};
    const pub_util_sig_st *row = pub_util_sig_table;
    int32_t last = 0;
    for (; row->m_sig != PUB_UTIL_SIG_END; ++row) {
        EXPECT_GE(row->m_sig, last);
        last = row->m_sig;
        EXPECT_EQ(1u, actions.count(row->m_action)) << row->m_name;
        ASSERT_NE(nullptr, row->m_desc);
        EXPECT_STRNE("", row->m_desc);
    }
    EXPECT_EQ(nullptr, row->m_name);
    EXPECT_EQ(33, row - pub_util_sig_table);

    EXPECT_EQ('A', pub_util_sig_table[5].m_action);
    EXPECT_STREQ("Process abort signal (ANSI).", pub_util_sig_table[5].m_desc);
    EXPECT_EQ('?', pub_util_sig_table[16].m_action);
    EXPECT_STREQ("Stack fault", pub_util_sig_table[16].m_desc);
    EXPECT_EQ('I', pub_util_sig_table[17].m_action);
    EXPECT_STREQ("Child process terminated, stopped (POSIX).", pub_util_sig_table[17].m_desc);
    EXPECT_STREQ("Bad system call.", pub_util_sig_table[32].m_desc);
}

// ---- descriptor mode ----

TEST(UtilSetFdMode, NegativeFdReturnsInvalidParameterWithoutFcntl) {
    // fcntl(-1) would fail with EBADF and give -118; -101 shows the call was not made.
    EXPECT_EQ(-101, pub_util_set_fd_mode(-1, 1));
    EXPECT_EQ(-101, pub_util_set_fd_mode(-5, 0));
}

TEST(UtilSetFdMode, RoundTripOnPipe) {
    int p[2];
    ASSERT_EQ(0, pipe2(p, O_CLOEXEC));
    ASSERT_EQ(0, fcntl(p[0], F_GETFL) & O_NONBLOCK);

    EXPECT_EQ(0, pub_util_set_fd_mode(p[0], 1));
    EXPECT_NE(0, fcntl(p[0], F_GETFL) & O_NONBLOCK);
    char c;
    errno = 0;
    EXPECT_EQ(-1, read(p[0], &c, 1));
    EXPECT_EQ(EAGAIN, errno);

    EXPECT_EQ(0, pub_util_set_fd_mode(p[0], 0));
    EXPECT_EQ(0, fcntl(p[0], F_GETFL) & O_NONBLOCK);
    // Only O_NONBLOCK changed: the close-on-exec flag (descriptor flag) and access mode stay.
    EXPECT_EQ(FD_CLOEXEC, fcntl(p[0], F_GETFD) & FD_CLOEXEC);
    EXPECT_EQ(O_RDONLY, fcntl(p[0], F_GETFL) & O_ACCMODE);
    close(p[0]);
    close(p[1]);
}

TEST(UtilSetFdMode, AnyNonZeroValueSetsNonBlocking) {
    int p[2];
    ASSERT_EQ(0, pipe2(p, O_CLOEXEC));
    EXPECT_EQ(0, pub_util_set_fd_mode(p[1], 7));
    EXPECT_NE(0, fcntl(p[1], F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(0, pub_util_set_fd_mode(p[1], -3));
    EXPECT_NE(0, fcntl(p[1], F_GETFL) & O_NONBLOCK);
    close(p[0]);
    close(p[1]);
}

TEST(UtilSetFdMode, ClosedFdReturnsCallFailure) {
    int p[2];
    ASSERT_EQ(0, pipe2(p, O_CLOEXEC));
    close(p[0]);
    close(p[1]);
    EXPECT_EQ(-118, pub_util_set_fd_mode(p[0], 1));
}

// ---- thread stop ----

struct worker_st {
    int m_read_fd = -1;
    std::atomic<bool> m_ready{false};
    std::atomic<bool> m_unwound{false};
    std::atomic<bool> m_read_returned{false};
};

// Sets its flag when the stack holding it is unwound.
struct unwind_probe {
    std::atomic<bool> *m_flag;
    ~unwind_probe() { m_flag->store(true); }
};

void *blocked_reader(void *arg) {
    auto *w = static_cast<worker_st *>(arg);
    signal(SIGUSR1, pub_util_handle_thread_signal);
    unwind_probe probe{&w->m_unwound};
    w->m_ready.store(true);
    char c;
    ssize_t n = read(w->m_read_fd, &c, 1);
    (void)n;
    w->m_read_returned.store(true);
    return nullptr;
}

TEST(UtilKillThread, IdZeroReturnsZeroAndSendsNothing) {
    pthread_t id = 0;
    EXPECT_EQ(0, pub_util_kill_thread(&id));
    EXPECT_EQ(0u, static_cast<unsigned long>(id));
}

TEST(UtilKillThread, EndsThreadBlockedInRead) {
    int p[2];
    ASSERT_EQ(0, pipe2(p, O_CLOEXEC));
    worker_st w;
    w.m_read_fd = p[0];
    const int before = count_tasks();

    pthread_t id;
    ASSERT_EQ(0, pthread_create(&id, nullptr, blocked_reader, &w));
    const pthread_t copy = id;
    ASSERT_TRUE(zvtest::poll_until([&] { return w.m_ready.load(); }, kDeadline));
    EXPECT_EQ(before + 1, count_tasks());

    auto start = Clock::now();
    EXPECT_EQ(0, pub_util_kill_thread(&id));
    auto took = Clock::now() - start;
    EXPECT_EQ(0u, static_cast<unsigned long>(id));
    // The pause after the signal is a lower bound of the call's duration.
    EXPECT_GE(took, std::chrono::milliseconds(10));

    ASSERT_TRUE(wait_task_count_at_most(before));
    void *ret = reinterpret_cast<void *>(1);
    ASSERT_EQ(0, pthread_join(copy, &ret));
    EXPECT_EQ(nullptr, ret);
    EXPECT_FALSE(w.m_read_returned.load());
    EXPECT_TRUE(w.m_unwound.load());
    close(p[0]);
    close(p[1]);
    signal(SIGUSR1, SIG_DFL);
}

void *returns_at_once(void *) {
    return nullptr;
}

TEST(UtilKillThread, AlreadyEndedThreadReturnsZeroAndLeavesId) {
    const int before = count_tasks();
    pthread_t id;
    ASSERT_EQ(0, pthread_create(&id, nullptr, returns_at_once, nullptr));
    const pthread_t copy = id;
    ASSERT_TRUE(wait_task_count_at_most(before));

    EXPECT_EQ(0, pub_util_kill_thread(&id));
    EXPECT_TRUE(pthread_equal(copy, id));
    ASSERT_EQ(0, pthread_join(copy, nullptr));
}

TEST(UtilHandleThreadSignal, OtherSignalIsIgnoredAndThreadGoesOn) {
    std::atomic<bool> went_on{false};
    std::thread t([&went_on] {
        pub_util_handle_thread_signal(SIGUSR2);
        went_on.store(true);
    });
    t.join();
    EXPECT_TRUE(went_on.load());
}

// ---- pid file ----

TEST(UtilPidFile, ContainsDecimalPidAndNewline) {
    pub_util_create_pid_file("zv-test");
    EXPECT_EQ(std::to_string(getpid()) + "\n", read_file("/tmp/zv-test.pid"));
}

TEST(UtilPidFile, OlderLongerContentIsReplaced) {
    int fd = open("/tmp/zv-old.pid", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0);
    const char old[] = "1234567890123\n";
    ASSERT_EQ(static_cast<ssize_t>(sizeof(old) - 1), write(fd, old, sizeof(old) - 1));
    close(fd);
    pub_util_create_pid_file("zv-old");
    EXPECT_EQ(std::to_string(getpid()) + "\n", read_file("/tmp/zv-old.pid"));
}

TEST(UtilPidFile, NoNameWritesNothing) {
    const int before = count_dir_entries("/tmp");
    pub_util_create_pid_file(nullptr);
    EXPECT_EQ(before, count_dir_entries("/tmp"));
}

TEST(UtilPidFile, NameTooLongForPathWritesNothing) {
    const int before = count_dir_entries("/tmp");
    pub_util_create_pid_file(std::string(300, 'n').c_str());
    EXPECT_EQ(before, count_dir_entries("/tmp"));
}

// ---- owners ----

bool fd_is_open(int fd) {
    return fcntl(fd, F_GETFD) >= 0;
}

TEST(UtilUniqueFd, ClosesOnDestructionUnlessReleased) {
    int raw;
    {
        pub_util_unique_fd fd(open("/dev/null", O_RDONLY | O_CLOEXEC));
        ASSERT_TRUE(fd.ok());
        raw = fd.get();
        EXPECT_TRUE(fd_is_open(raw));
    }
    EXPECT_FALSE(fd_is_open(raw));

    {
        pub_util_unique_fd fd(open("/dev/null", O_RDONLY | O_CLOEXEC));
        raw = fd.release();
        EXPECT_FALSE(fd.ok());
        EXPECT_EQ(-1, fd.get());
    }
    EXPECT_TRUE(fd_is_open(raw));
    close(raw);
}

TEST(UtilUniqueFd, MoveTransfersOwnershipAndResetCloses) {
    pub_util_unique_fd a(open("/dev/null", O_RDONLY | O_CLOEXEC));
    const int raw = a.get();
    pub_util_unique_fd b(std::move(a));
    EXPECT_FALSE(a.ok());
    EXPECT_EQ(raw, b.get());
    pub_util_unique_fd c;
    c = std::move(b);
    EXPECT_EQ(raw, c.get());
    EXPECT_TRUE(fd_is_open(raw));
    c.reset();
    EXPECT_FALSE(fd_is_open(raw));
}

TEST(UtilUniqueFileAndDir, CloseStreamsOnDestruction) {
    const int before = count_dir_entries("/proc/self/fd");
    {
        pub_util_unique_file fp(fopen("/dev/null", "re"));
        ASSERT_TRUE(fp.ok());
        pub_util_unique_dir dir(opendir("/tmp"));
        ASSERT_TRUE(dir.ok());
        EXPECT_EQ(before + 2, count_dir_entries("/proc/self/fd"));
    }
    EXPECT_EQ(before, count_dir_entries("/proc/self/fd"));
}

// ---- traces ----

TEST(UtilTrace, SetFdModeTracesItsArgumentsAndOutcome) {
    start_log();
    int p[2];
    ASSERT_EQ(0, pipe2(p, O_CLOEXEC));
    ASSERT_EQ(0, pub_util_set_fd_mode(p[0], 1));
    const std::string args = "pub_util_set_fd_mode fd[" + std::to_string(p[0]) + "] is_nonblock_mode[1]";
    EXPECT_TRUE(ends_with(log_line_with(args), "info         | " + args)) << log_text();
    EXPECT_TRUE(
        ends_with(log_line_with("return ERR_NONE"), "info         | pub_util_set_fd_mode return ERR_NONE"));
    EXPECT_NE("", log_line_with("| pub_util_set_fd_mode "));

    EXPECT_EQ(-101, pub_util_set_fd_mode(-1, 1));
    EXPECT_NE(std::string::npos,
              log_line_with("| fd[-1]").find("error        | -101 - Invalid parameter | "));
    close(p[0]);
    close(p[1]);
    EXPECT_EQ(-118, pub_util_set_fd_mode(p[0], 0));
    EXPECT_TRUE(ends_with(log_line_with("fcntl: "), "sys error    | fcntl: 9 - Bad file descriptor"))
        << log_text();
}

TEST(UtilTrace, PidFileTracesNameAndPid) {
    start_log();
    pub_util_create_pid_file("zv-test");
    const std::string text = "PID of zv-test: " + std::to_string(getpid());
    EXPECT_TRUE(ends_with(log_line_with(text), "info         | " + text)) << log_text();
}

TEST(UtilTrace, UnknownSignalIsTracedAsInvalidParameter) {
    start_log();
    pub_util_handle_thread_signal(SIGUSR2);
    EXPECT_TRUE(ends_with(log_line_with("unknown signal"),
                          "error        | -101 - Invalid parameter | unknown signal: 12"))
        << log_text();
}

TEST(UtilTrace, EndingThreadSaysSo) {
    start_log();
    int p[2];
    ASSERT_EQ(0, pipe2(p, O_CLOEXEC));
    worker_st w;
    w.m_read_fd = p[0];
    const int before = count_tasks();
    pthread_t id;
    ASSERT_EQ(0, pthread_create(&id, nullptr, blocked_reader, &w));
    const pthread_t copy = id;
    ASSERT_TRUE(zvtest::poll_until([&] { return w.m_ready.load(); }, kDeadline));
    ASSERT_EQ(0, pub_util_kill_thread(&id));
    ASSERT_TRUE(wait_task_count_at_most(before));
    ASSERT_EQ(0, pthread_join(copy, nullptr));
    const std::string text = "thread " + std::to_string(static_cast<int>(copy)) + " will be end";
    EXPECT_TRUE(ends_with(log_line_with(text), "info         | " + text)) << log_text();
    close(p[0]);
    close(p[1]);
}

}  // namespace
