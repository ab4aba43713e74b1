// Soak tests: the real daemon in the simulated handset takes long runs of the work a test campaign gives
// it, and after each run its open descriptors, threads and child processes are back to the counts taken
// before, no zombie is left, its resident memory has grown by less than 512 KiB, and it still answers.
// Each run is its own test case, so each starts from a fresh handset and a fresh daemon.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <sstream>
#include <string>
#include <vector>

#include "harness.h"

using namespace zvtest;
using namespace std::chrono_literals;

namespace {

constexpr char kOk[] = "\r\nOK\r\n";
constexpr char kError[] = "\r\nERROR: 4294967295\r\n";
constexpr long kMaxRssGrowthKb = 512;

// Under AddressSanitizer or ThreadSanitizer the daemon's allocator keeps freed memory in quarantine and
// shadow memory grows with use, so resident memory says nothing about the daemon's own leaks there; the
// plain run bounds it.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kBoundRss = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kBoundRss = false;
#else
constexpr bool kBoundRss = true;
#endif
#else
constexpr bool kBoundRss = true;
#endif

// VmRSS of pid in KiB, or -1.
long rss_kb(pid_t pid) {
    std::istringstream in(read_file("/proc/" + std::to_string(pid) + "/status"));
    std::string line;
    while (std::getline(in, line))
        if (line.rfind("VmRSS:", 0) == 0) return atol(line.c_str() + 6);
    return -1;
}

// The process state letter of pid ('Z' for a zombie), or '?' when it is gone.
char proc_state(pid_t pid) {
    std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
    size_t paren = stat.rfind(')');
    return paren == std::string::npos || paren + 2 >= stat.size() ? '?' : stat[paren + 2];
}

// Counts of what the daemon holds, taken before a run and compared after it.
struct Holdings {
    int fds = 0;
    int threads = 0;
    size_t children = 0;
    long rss = 0;
};

Holdings holdings_of(pid_t pid) {
    return {count_fds(pid), count_threads(pid), child_pids(pid).size(), rss_kb(pid)};
}

// Counts lines of sa.log that begin with a text, reading only what was appended since the last call.
class SaLogCounter {
   public:
    explicit SaLogCounter(std::string prefix) : prefix_(std::move(prefix)) {}
    int count() {
        int fd = open(kSaLog, O_RDONLY | O_CLOEXEC);
        if (fd < 0) return count_;
        char buf[65536];
        ssize_t n;
        while ((n = pread(fd, buf, sizeof(buf), static_cast<off_t>(offset_))) > 0) {
            offset_ += static_cast<size_t>(n);
            pending_.append(buf, static_cast<size_t>(n));
            size_t nl;
            while ((nl = pending_.find('\n')) != std::string::npos) {
                // "[MM-DD hh:mm:ss.mmm]func message": the message part follows the bracket.
                size_t close = pending_.find(']');
                if (close != std::string::npos && close < nl &&
                    pending_.compare(close + 1, prefix_.size(), prefix_) == 0)
                    ++count_;
                pending_.erase(0, nl + 1);
            }
        }
        close(fd);
        return count_;
    }

   private:
    std::string prefix_;
    size_t offset_ = 0;
    std::string pending_;
    int count_ = 0;
};

class SoakTest : public ::testing::Test {
   protected:
    void SetUp() override {
        switch_capture_off();  // counts must see only what the runs below create
        daemon_ = start_daemon_with_links();
        ASSERT_GT(daemon_.pid, 0);
        ASSERT_FALSE(link_target(kCmdLink).empty()) << read_file(kSaLog);
        cmd_ = open_client(kCmdLink);
        ASSERT_GE(cmd_, 0);
        // One request of each kind first, so lazily made state (stdio buffers, the structured log's
        // file, the settings file) exists before the baseline.
        ASSERT_EQ(kOk, cmd_request(cmd_, "AT\r"));
        ASSERT_EQ("\r\nQUERY_SERVICE: 1\r\n\r\nOK\r\n",
                  cmd_request(cmd_, "SA+QUERY_SERVICE=\"zv-qel-sa\"\r"));
        ASSERT_EQ(kOk, cmd_request(cmd_, "SA+KERNEL_LOG=0\r"));
        // The command thread traces each request after its answer: the baseline waits for the last one.
        SaLogCounter served("sa_handle_read_cmd_loop req[");
        ASSERT_TRUE(poll_until([&] { return served.count() == 3; }, 10s)) << read_file(kSaLog);
        // And for the daemon to be at rest (start-up's last steps may still hold a descriptor): the same
        // counts over several readings in a row.
        int same = 0;
        Holdings last = holdings_of(daemon_.pid);
        ASSERT_TRUE(poll_until(
            [&] {
                Holdings now = holdings_of(daemon_.pid);
                same = now.fds == last.fds && now.threads == last.threads && now.children == last.children
                           ? same + 1
                           : 0;
                last = now;
                return same >= 10;
            },
            20s));
        before_ = holdings_of(daemon_.pid);
    }
    void TearDown() override {
        if (cmd_ >= 0) close(cmd_);
        kill_and_reap(daemon_.pid);
    }
    // Whether the daemon's descriptors, threads and children are back to the baseline, within a deadline
    // for what ends asynchronously (shell waiters, stopped readers).
    bool Settled() {
        const pid_t pid = daemon_.pid;
        return poll_until(
            [&] {
                return count_threads(pid) == before_.threads && count_fds(pid) == before_.fds &&
                       child_pids(pid).size() == before_.children;
            },
            20s);
    }
    // A first, smaller run of the same work goes before the baseline of resident memory: what is made once
    // on first use (stdio and thread-stack caches; an emulator's translated code) must not count as growth.
    void Rebaseline() {
        ASSERT_TRUE(Settled()) << "the warm-up run left something behind: " << Counts();
        before_.rss = rss_kb(daemon_.pid);
    }
    std::string Counts() {
        const pid_t pid = daemon_.pid;
        return std::to_string(count_threads(pid)) + " threads (" + std::to_string(before_.threads) +
               " before), " + std::to_string(count_fds(pid)) + " descriptors (" +
               std::to_string(before_.fds) + "), " + std::to_string(child_pids(pid).size()) + " children (" +
               std::to_string(before_.children) + ")";
    }
    // After a run: everything the daemon holds is back to the baseline.
    void ExpectBackToBaseline() {
        const pid_t pid = daemon_.pid;
        EXPECT_TRUE(Settled()) << Counts();
        for (pid_t child : child_pids(pid)) EXPECT_NE('Z', proc_state(child)) << "zombie " << child;
        long rss = rss_kb(pid);
        if (kBoundRss) {
            EXPECT_LT(rss - before_.rss, kMaxRssGrowthKb)
                << rss << " KiB resident, " << before_.rss << " before";
        }
        int c = cmd_ >= 0 ? cmd_ : open_client(kCmdLink);
        EXPECT_EQ(kOk, cmd_request(c, "AT\r")) << "the daemon still answers";
        if (c != cmd_) close(c);
    }
    Daemon daemon_;
    int cmd_ = -1;
    Holdings before_;
};

TEST_F(SoakTest, TwentyThousandMixedRequests) {
    const std::string over_long = "SA+QUERY_SERVICE=\"" + std::string(300, 'x') + "\"\r";
    struct Kind {
        std::string request;
        std::string answer;
    };
    const std::vector<Kind> kinds = {
        {"AT\r", kOk},
        {"SA+QUERY_SERVICE=\"zv-qel-sa\"\r", "\r\nQUERY_SERVICE: 1\r\n\r\nOK\r\n"},
        {"SA+KERNEL_LOG?\r", "\r\nKERNEL_LOG: 0\r\n\r\nOK\r\n"},
        {"SA+NO_SUCH_COMMAND=1\r", kError},
        {"SA+KERNEL_LOG=7\r", kError},
    };
    auto run = [&](int count) {
        for (int i = 0; i < count; ++i) {
            if (i % 6 == 5) {
                // Over-long: the channel reads it in pieces, and each piece is answered ERROR (the first
                // lacks the terminator, the others "SA"). A probe behind it marks the end of those answers.
                ASSERT_TRUE(write_all(cmd_, over_long));
                ASSERT_TRUE(write_all(cmd_, "AT\r"));
                std::string got = read_until(
                    cmd_,
                    [](const std::string &s) {
                        return s.size() >= sizeof(kOk) - 1 &&
                               s.compare(s.size() - (sizeof(kOk) - 1), std::string::npos, kOk) == 0;
                    },
                    10s);
                ASSERT_EQ(0u, got.rfind(kError, 0)) << i << ": " << got;
                continue;
            }
            const Kind &k = kinds[static_cast<size_t>(i % 6)];
            ASSERT_EQ(k.answer, cmd_request(cmd_, k.request, 10s)) << i << ": " << k.request;
        }
    };
    ASSERT_NO_FATAL_FAILURE(run(1000));
    Rebaseline();
    ASSERT_NO_FATAL_FAILURE(run(20000));
    ExpectBackToBaseline();
}

TEST_F(SoakTest, FiveHundredHangUpsOfTheCommandLink) {
    SaLogCounter reopens("sa_handle_read_cmd_loop reopen m_ptm_fd[");
    close(cmd_);
    cmd_ = -1;
    ASSERT_TRUE(poll_until([&] { return reopens.count() == 1; }, 10s));
    before_ = holdings_of(daemon_.pid);
    int hang_ups = 1;
    auto run = [&](int count) {
        for (int i = 0; i < count; ++i) {
            int c = open_client(kCmdLink);
            ASSERT_GE(c, 0) << i;
            ASSERT_EQ(kOk, cmd_request(c, "AT\r", 10s)) << i;
            close(c);
            ++hang_ups;
            ASSERT_TRUE(poll_until([&] { return reopens.count() == hang_ups; }, 10s)) << i;
        }
    };
    ASSERT_NO_FATAL_FAILURE(run(50));
    Rebaseline();
    ASSERT_NO_FATAL_FAILURE(run(500));
    ExpectBackToBaseline();
}

TEST_F(SoakTest, TwoHundredRemoteShellsRunToTheirEnd) {
    int listener = open_client(kListenerLink);
    ASSERT_GE(listener, 0);
    // The peer's acknowledgement must be read before the next request is written, or the two would
    // arrive in one read and form one request.
    SaLogCounter acknowledged("open_ptm_connection open_ptm_connection read size[");
    int started = 0;
    // Twenty shells at a time; each ends by itself ("true") and its master is closed by its waiter.
    auto run = [&](int batches) {
        for (int batch = 0; batch < batches; ++batch) {
            std::vector<int> slaves;
            for (int k = 0; k < 20; ++k) {
                ASSERT_TRUE(write_all(listener, "shell:true"));
                std::string name = read_until(
                    listener, [](const std::string &s) { return !s.empty(); }, 10s);
                ASSERT_EQ(0u, name.rfind("/dev/pts/", 0)) << name;
                int slave = open_client(name);
                ASSERT_GE(slave, 0) << name;
                ASSERT_TRUE(write_all(listener, "ok"));
                slaves.push_back(slave);
                ++started;
                ASSERT_TRUE(poll_until([&] { return acknowledged.count() == started; }, 10s)) << started;
            }
            for (int slave : slaves) {
                // Read to the end: the waiter closes the master after the shell ended.
                char buf[256];
                auto deadline = std::chrono::steady_clock::now() + 10s;
                bool closed = false;
                while (!closed && std::chrono::steady_clock::now() < deadline) {
                    pollfd p{slave, POLLIN, 0};
                    if (poll(&p, 1, 50) <= 0) continue;
                    closed = read(slave, buf, sizeof(buf)) <= 0;
                }
                EXPECT_TRUE(closed);
                close(slave);
            }
        }
    };
    // The listener's own descriptor counts in the baseline while the peer is connected.
    ASSERT_NO_FATAL_FAILURE(run(1));
    Rebaseline();
    ASSERT_NO_FATAL_FAILURE(run(10));
    close(listener);
    EXPECT_EQ(220, started);
    ExpectBackToBaseline();
}

TEST_F(SoakTest, ThreeHundredKernelLogSwitchesOnAndOff) {
    auto run = [&](int count) {
        for (int i = 0; i < count; ++i) {
            ASSERT_EQ(kOk, cmd_request(cmd_, "SA+KERNEL_LOG=1\r", 10s)) << i;
            ASSERT_EQ(kOk, cmd_request(cmd_, "SA+KERNEL_LOG=0\r", 10s)) << i;
        }
    };
    ASSERT_NO_FATAL_FAILURE(run(30));
    Rebaseline();
    ASSERT_NO_FATAL_FAILURE(run(300));
    ExpectBackToBaseline();
}

TEST_F(SoakTest, TwoThousandAutoStartEdits) {
    auto run = [&](int count) {
        for (int i = 0; i < count / 2; ++i) {
            const std::string name = "\"zv-soak-" + std::to_string(i % 10) + "\"";
            ASSERT_EQ(kOk, cmd_request(cmd_, "SA+AUTO_START_SERVICE=" + name + ",1\r", 10s)) << i;
            ASSERT_EQ(kOk, cmd_request(cmd_, "SA+AUTO_START_SERVICE=" + name + ",0\r", 10s)) << i;
        }
    };
    ASSERT_NO_FATAL_FAILURE(run(200));
    Rebaseline();
    ASSERT_NO_FATAL_FAILURE(run(2000));
    EXPECT_EQ("\r\nAUTO_START_SERVICE: 0\r\n\r\nOK\r\n",
              cmd_request(cmd_, "SA+AUTO_START_SERVICE=\"zv-soak-3\",2\r"));
    ExpectBackToBaseline();
}

}  // namespace
