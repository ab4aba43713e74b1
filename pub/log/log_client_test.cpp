// Tests of the structured log client's objects and locking: calls before a start and on null objects,
// a lock taken twice, four threads writing at once, and children forked while another thread writes.
#include "logs.h"

using namespace logtest;

TEST(LogClientRobust, NullObjectsAndCallsBeforeStartNeverCrash) {
    sfw_log_lock(nullptr);
    sfw_log_build_extended_info("early %d", 1);
    sfw_log_full(nullptr, kMod, SFW_LOG_INFO, kSrc, 1, "f", 0, 8, nullptr, 0, 0, nullptr, nullptr);
    sfw_log_full(nullptr, nullptr, SFW_LOG_DATA, nullptr, 1, nullptr, 0, 99, nullptr, 5, 0, nullptr, nullptr);
    sfw_log_stop(nullptr);
    EXPECT_EQ(-1, sfw_log_mark_position());
    EXPECT_EQ(0, log_obj.m_ext_pending);
    EXPECT_FALSE(Exists("/data/local/log/" + ProcName() + "-log")) << "nothing is created before start";
    std::string path = StartMain();
    Full(SFW_LOG_FUNC, 0, SFW_LOG_DIR_NONE, nullptr, 0, 0, nullptr, nullptr);
    EXPECT_EQ(6u, Lines(Slurp(path)).size());
    EXPECT_EQ(std::string::npos, Slurp(path).find("early"));
}

TEST(LogClientRobust, LockTwiceInOneThreadDoesNotDeadlock) {
    std::string path = StartMain();
    sfw_log_lock(nullptr);
    sfw_log_lock(nullptr);
    sfw_log_build_extended_info("once");
    Full(SFW_LOG_INFO, 0, SFW_LOG_DIR_NONE, nullptr, 0, 0, nullptr, nullptr);
    EXPECT_EQ("once", LastBody(path));
    EXPECT_TRUE(MutexFree());
}

// Checks one record line of the concurrency test: fixed columns, the writer's function and line.
static bool IntactLine(const std::string &line, const Fields &f, int writer) {
    if (f.time.size() != 12) return false;
    for (size_t i = 0; i < 12; i++) {
        bool colon = i == 2 || i == 5 || i == 8;
        if (colon ? f.time[i] != ':' : (f.time[i] < '0' || f.time[i] > '9')) return false;
    }
    char func[40];
    snprintf(func, sizeof(func), "writer_%-27d", writer);
    char num[16];
    snprintf(num, sizeof(num), "% 6d", 100 + writer);
    return f.func == func && f.line == num && line.size() < 200;
}

TEST(LogClientConcurrency, FourThreadsTwentyThousandRecordsStayIntact) {
    std::string path = StartMain();
    sfw_log_set_max_size(0x7FFFFFFF);
    constexpr int kThreads = 4;
    constexpr int kRecords = 20000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++) {
        threads.emplace_back([t] {
            char func[16];
            snprintf(func, sizeof(func), "writer_%d", t);
            for (int i = 0; i < kRecords; i++) {
                // Every tenth record has no message: it must not take another thread's pending text.
                if (i % 10 == 9) {
                    sfw_log_full(nullptr, kMod, SFW_LOG_FUNC, kSrc, 100 + t, func, 0, 8, nullptr, 0, 0,
                                 nullptr, nullptr);
                    continue;
                }
                sfw_log_lock(nullptr);
                sfw_log_build_extended_info("thread=%d seq=%06d", t, i);
                sfw_log_full(nullptr, kMod, SFW_LOG_INFO, kSrc, 100 + t, func, 0, 8, nullptr, 0, 0, nullptr,
                             nullptr);
            }
        });
    }
    for (std::thread &th : threads) th.join();
    std::vector<std::string> lines = Lines(Slurp(path));
    ASSERT_EQ(5u + kThreads * kRecords, lines.size());
    int next[kThreads] = {};
    std::string tids[kThreads];
    int bad = 0;
    for (size_t n = 5; n < lines.size(); n++) {
        const std::string &line = lines[n];
        Fields f = Split(line);
        int writer = -1;
        if (f.func.compare(0, 7, "writer_") == 0 && f.func.size() > 7) writer = f.func[7] - '0';
        if (writer < 0 || writer >= kThreads || !IntactLine(line, f, writer)) {
            if (bad++ < 5) ADD_FAILURE() << "broken line " << n << ": " << line;
            continue;
        }
        int seq = next[writer]++;
        char want[48] = "";
        if (seq % 10 != 9) snprintf(want, sizeof(want), "thread=%d seq=%06d", writer, seq);
        const char *level = seq % 10 == 9 ? "func        " : "info        ";
        if (f.level != level || f.body != want) {
            if (bad++ < 5) ADD_FAILURE() << "line " << n << " out of order or mixed: " << line;
        }
        if (tids[writer].empty()) tids[writer] = f.tid;
        if (tids[writer] != f.tid && bad++ < 5) ADD_FAILURE() << "thread column changed: " << line;
    }
    EXPECT_EQ(0, bad);
    for (int t = 0; t < kThreads; t++) EXPECT_EQ(kRecords, next[t]) << t;
    EXPECT_TRUE(MutexFree());
}

TEST(LogClientFork, ChildrenForkedWhileAnotherThreadWritesCanTrace) {
    std::string path = StartMain();
    sfw_log_set_max_size(0x7FFFFFFF);
    std::atomic<bool> stop{false};
    std::atomic<long> written{0};
    std::thread writer([&] {
        while (!stop.load()) {
            sfw_log_lock(nullptr);
            sfw_log_build_extended_info("writer %ld", written.load());
            sfw_log_full(nullptr, kMod, SFW_LOG_INFO, kSrc, 1, "writer", 0, 8, nullptr, 0, 0, nullptr,
                         nullptr);
            written++;
        }
    });
    constexpr int kChildren = 40;
    int hung = 0;
    for (int c = 0; c < kChildren; c++) {
        long seen = written.load();
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            sfw_log_lock(nullptr);
            sfw_log_build_extended_info("child %d", c);
            sfw_log_full(nullptr, kMod, SFW_LOG_INFO, kSrc, 2, "child", 0, 8, nullptr, 0, 0, nullptr,
                         nullptr);
            _exit(0);
        }
        int status = 0;
        if (!WaitChild(pid, &status, 20)) {
            hung++;
            break;
        }
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << c;
        // Let the writer get at least one record in between, so forks meet it mid-record.
        EXPECT_TRUE(PollUntil([&] { return written.load() != seen; }, 20));
    }
    stop = true;
    writer.join();
    EXPECT_EQ(0, hung) << "children hung on the log mutex";
    std::vector<std::string> lines = Lines(Slurp(path));
    std::map<std::string, int> found;
    for (size_t n = 5; n < lines.size(); n++) {
        Fields f = Split(lines[n]);
        if (f.func == "child" + std::string(29, ' ')) found[f.body]++;
    }
    EXPECT_EQ(static_cast<size_t>(kChildren), found.size());
    for (int c = 0; c < kChildren; c++) EXPECT_EQ(1, found["child " + std::to_string(c)]) << c;
    EXPECT_GT(written.load(), 0);
    EXPECT_TRUE(MutexFree());
}
