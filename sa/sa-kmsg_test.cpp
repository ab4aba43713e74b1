// Tests of the kernel log reader: the generation rotation at its start, the copy of /proc/kmsg (a FIFO
// in the handset) into kmsg.log after the banner, the wrap without truncation, and its stop by SIGUSR1.
#include <gtest/gtest.h>

#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>

#include <atomic>
#include <string>
#include <thread>

#include "capture.h"
#include "sa-capture.h"
#include "util/util.h"

using namespace sa_capture_test;

namespace {

constexpr char kBase[] = "/data/local/log/kmsg.log";

std::string Gen(int k) {
    return std::string(kBase) + "." + std::to_string(k);
}

// Whether text is exactly a banner "[YYYY-MM-DD hh:mm:ss]\n".
bool IsBanner(const std::string &text) {
    const std::string shape = "[dddd-dd-dd dd:dd:dd]\n";
    if (text.size() != shape.size()) return false;
    for (size_t i = 0; i < shape.size(); ++i) {
        if (shape[i] == 'd' ? !isdigit(static_cast<unsigned char>(text[i])) : text[i] != shape[i])
            return false;
    }
    return true;
}

class KmsgTest : public ::testing::Test {
   protected:
    void SetUp() override {
        start_log_client();
        reset_capture_state();
        settle_threads();
        baseline_threads_ = thread_count();
    }
    void TearDown() override {
        if (writer_ >= 0) close(writer_);
    }
    void ConfigureKmsg(int32_t num, int32_t size) {
        sa_log_svc_st *svc = &g_zv_log_svc[SA_LOG_SVC_KMSG - 1];
        snprintf(svc->type, sizeof(svc->type), "I3");
        svc->type_id = SA_LOG_SVC_KMSG;
        svc->file_num_val = num;
        svc->file_size_val = size;
    }
    // Writes kernel bytes into the ring stand-in.
    void Feed(const std::string &bytes) {
        if (writer_ < 0) writer_ = open("/proc/kmsg", O_WRONLY | O_CLOEXEC);
        ASSERT_GE(writer_, 0);
        ASSERT_EQ(static_cast<ssize_t>(bytes.size()), write(writer_, bytes.data(), bytes.size()));
    }
    // Starts a reader and waits until it wrote its banner; the banner's length.
    size_t StartReader(pthread_t *tid) {
        EXPECT_EQ(0, sa_kmsg_create_reader(tid));
        EXPECT_NE(0u, static_cast<unsigned long>(*tid));
        EXPECT_TRUE(
            poll_until([] { return log_find("read_kernel_log_loop buf_a[") != std::string::npos; }, 5s));
        return static_cast<size_t>(file_size(kBase));
    }
    int baseline_threads_ = 0;
    int writer_ = -1;
};

TEST_F(KmsgTest, CountZeroDeletesTheOldFileAtStart) {
    write_file(kBase, "old");
    write_file(Gen(1), "gen1");
    update_zv_log_file(kBase, 0, 1);
    EXPECT_FALSE(file_exists(kBase));
    EXPECT_EQ("gen1", read_file(Gen(1)));
    EXPECT_NE(std::string::npos,
              log_find("update_zv_log_file log_file_org[/data/local/log/kmsg.log] file_num_val[0] "
                       "file_size_val[1]"));
}

TEST_F(KmsgTest, CountOneDeletesTheOldFileAtStart) {
    write_file(kBase, "old");
    update_zv_log_file(kBase, 1, 1);
    EXPECT_FALSE(file_exists(kBase));
    EXPECT_FALSE(file_exists(Gen(1)));
    // With nothing left to delete the failure is only recorded.
    update_zv_log_file(kBase, 1, 1);
    EXPECT_NE(std::string::npos, log_find("remove"));
}

TEST_F(KmsgTest, CountThreeKeepsTwoGenerations) {
    write_file(kBase, "base");
    write_file(Gen(1), "gen1");
    write_file(Gen(2), "gen2");
    update_zv_log_file(kBase, 3, 20480);
    EXPECT_FALSE(file_exists(kBase));
    EXPECT_EQ("base", read_file(Gen(1)));
    EXPECT_EQ("gen1", read_file(Gen(2)));
    EXPECT_FALSE(file_exists(Gen(3)));
    EXPECT_NE(std::string::npos, log_find("update_zv_log_file log_file_old[/data/local/log/kmsg.log.2]"));
    EXPECT_NE(std::string::npos, log_find("update_zv_log_file [2] log_file_old[/data/local/log/kmsg.log.1] "
                                          "log_file_new[/data/local/log/kmsg.log.2]"));
}

TEST_F(KmsgTest, CountFiveKeepsFourGenerations) {
    write_file(kBase, "base");
    for (int k = 1; k <= 4; ++k) write_file(Gen(k), "gen" + std::to_string(k));
    update_zv_log_file(kBase, 5, 20480);
    EXPECT_FALSE(file_exists(kBase));
    EXPECT_EQ("base", read_file(Gen(1)));
    EXPECT_EQ("gen1", read_file(Gen(2)));
    EXPECT_EQ("gen2", read_file(Gen(3)));
    EXPECT_EQ("gen3", read_file(Gen(4)));
    EXPECT_FALSE(file_exists(Gen(5)));
}

TEST_F(KmsgTest, MissingGenerationsOnlyProduceTracedRenameFailures) {
    write_file(kBase, "base");
    write_file(Gen(2), "gen2");
    size_t before = log_text().size();
    update_zv_log_file(kBase, 5, 20480);
    std::string added = log_text().substr(before);
    EXPECT_EQ("base", read_file(Gen(1)));
    EXPECT_FALSE(file_exists(Gen(2)));
    EXPECT_EQ("gen2", read_file(Gen(3)));
    EXPECT_FALSE(file_exists(Gen(4)));
    // .4 to remove, .3 -> .4 and .1 -> .2 to rename were missing: one remove and two rename failures.
    EXPECT_EQ(1u, count_of(added, "remove"));
    EXPECT_EQ(2u, count_of(added, "rename"));
    EXPECT_NE(std::string::npos,
              added.find("update_zv_log_file [3] log_file_old[/data/local/log/kmsg.log.2]"));
}

TEST_F(KmsgTest, KernelLinesWrittenIntoTheRingAppearAfterTheBanner) {
    ConfigureKmsg(5, 20480);
    write_file(kBase, "previous run");
    pthread_t tid = 0;
    size_t banner = StartReader(&tid);
    EXPECT_EQ("previous run", read_file(Gen(1)));
    std::string text = read_file(kBase);
    ASSERT_EQ(banner, text.size());
    EXPECT_TRUE(IsBanner(text)) << text;

    Feed("<6>[  100.000000] zv: first kernel line\n<4>[  100.500000] zv: second kernel line\n");
    const std::string lines =
        "<6>[  100.000000] zv: first kernel line\n<4>[  100.500000] zv: second kernel line\n";
    ASSERT_TRUE(poll_until([&] { return read_file(kBase).size() == banner + lines.size(); }, 5s));
    EXPECT_EQ(text + lines, read_file(kBase));

    struct stat st;
    ASSERT_EQ(0, stat(kBase, &st));
    EXPECT_EQ(static_cast<uid_t>(SA_AID_SHELL), st.st_uid);
    EXPECT_EQ(static_cast<gid_t>(SA_AID_LOG), st.st_gid);
    EXPECT_EQ(0644u, st.st_mode & 07777);
    EXPECT_EQ(0, pub_util_kill_thread(&tid));
}

TEST_F(KmsgTest, SizeOneRewindsAfterTheFirstWriteAbove1024Bytes) {
    ConfigureKmsg(1, 1);
    pthread_t tid = 0;
    size_t banner = StartReader(&tid);
    size_t expect = banner;
    // Each piece is read on its own: wait for it before sending the next.
    auto feed_and_wait = [&](const std::string &piece, size_t size_after) {
        Feed(piece);
        ASSERT_TRUE(poll_until([&] { return static_cast<size_t>(file_size(kBase)) == size_after; }, 5s))
            << file_size(kBase) << " != " << size_after;
    };
    for (int i = 0; i < 10; ++i) {
        expect += 99;
        feed_and_wait(std::string(99, 'a'), expect);
    }
    expect += 34;
    feed_and_wait(std::string(34, 'b'), expect);  // 1024 bytes counted: not above the limit yet
    expect += 1;
    feed_and_wait("c", expect);  // 1025: this write is still appended, then the writer rewinds
    Feed("ZZZZZ");
    ASSERT_TRUE(poll_until([] { return read_file(kBase).compare(0, 5, "ZZZZZ") == 0; }, 5s));
    std::string text = read_file(kBase);
    EXPECT_EQ(expect, text.size());  // no truncation
    EXPECT_EQ('c', text[banner + 1024]);
    EXPECT_EQ('a', text[banner]);
    EXPECT_EQ('b', text[banner + 990]);
    EXPECT_EQ(0, pub_util_kill_thread(&tid));
}

TEST_F(KmsgTest, CountZeroReaderDeletesTheOldFileAndStartsAfresh) {
    ConfigureKmsg(0, 100);
    write_file(kBase, std::string(500, 'o'));
    pthread_t tid = 0;
    size_t banner = StartReader(&tid);
    EXPECT_LT(banner, 40u);
    EXPECT_FALSE(file_exists(Gen(1)));
    EXPECT_EQ(0, pub_util_kill_thread(&tid));
}

TEST_F(KmsgTest, UnopenableFileEndsTheReaderWithATrace) {
    ConfigureKmsg(5, 10);
    snprintf(g_log_path_a, sizeof(g_log_path_a), "%s", "/data/no-such-folder");
    pthread_t tid = 0;
    ASSERT_EQ(0, sa_kmsg_create_reader(&tid));
    EXPECT_TRUE(poll_until(
        [] {
            return log_find(
                       "read_kernel_log_loop open(/data/no-such-folder/kmsg.log) errno[2-No such file or "
                       "directory]") != std::string::npos;
        },
        5s));
    EXPECT_TRUE(poll_until([&] { return thread_count() == baseline_threads_; }, 5s));
}

TEST_F(KmsgTest, ConcurrencyStopEndsTheReaderEvenRightAfterItsStart) {
    ConfigureKmsg(2, 10);
    for (int i = 0; i < 50; ++i) {
        pthread_t tid = 0;
        ASSERT_EQ(0, sa_kmsg_create_reader(&tid));
        // No pause: the stop may arrive while the reader still rotates and traces.
        EXPECT_EQ(0, pub_util_kill_thread(&tid));
        EXPECT_EQ(0u, static_cast<unsigned long>(tid));
    }
    EXPECT_TRUE(poll_until([&] { return thread_count() == baseline_threads_; }, 10s)) << thread_count();
    // The process survived every stop and the log client still takes records.
    ConfigureKmsg(2, 10);
    pthread_t tid = 0;
    StartReader(&tid);
    Feed("after the stops\n");
    EXPECT_TRUE(
        poll_until([] { return read_file(kBase).find("after the stops\n") != std::string::npos; }, 5s));
    EXPECT_EQ(0, pub_util_kill_thread(&tid));
    EXPECT_TRUE(poll_until([&] { return thread_count() == baseline_threads_; }, 5s));
}

// A reader stopped by SIGUSR1 while it copies closes /proc/kmsg and kmsg.log on its way out: switching
// the kernel log on and off for months must not use up the daemon's descriptors.
TEST_F(KmsgTest, ConcurrencyStoppedReaderGivesBackBothDescriptors) {
    ConfigureKmsg(2, 10);
    const int baseline_fds = zvtest::count_fds(getpid());
    for (int i = 0; i < 20; ++i) {
        pthread_t tid = 0;
        ASSERT_EQ(0, sa_kmsg_create_reader(&tid));
        // In the copy loop, where the stop may reach it.
        ASSERT_TRUE(
            poll_until([] { return log_find("read_kernel_log_loop buf_a[") != std::string::npos; }, 5s));
        EXPECT_EQ(0, sa_kmsg_stop_reader(&tid));
        ASSERT_TRUE(poll_until([&] { return thread_count() == baseline_threads_; }, 5s)) << i;
    }
    EXPECT_EQ(baseline_fds, zvtest::count_fds(getpid()));
    // The ended readers read nothing more: the ring's bytes stay unread in the FIFO. The thread count
    // back at its baseline already says that no reader is left; the 300 ms only have to cover one pass
    // of a reader's copy loop (a read of the FIFO and a write), which takes well under a millisecond.
    const long long size = file_size(kBase);
    Feed("after the last stop\n");
    EXPECT_FALSE(poll_until([&] { return file_size(kBase) != size; }, 300ms));
}

// An ended reader's id may be reused by any new thread; it must never be signalled again.
TEST_F(KmsgTest, ConcurrencyEndedReaderIdIsNeverSignalledAgain) {
    ConfigureKmsg(2, 10);
    pthread_t tid = 0;
    StartReader(&tid);
    pthread_t old = tid;
    EXPECT_EQ(0, sa_kmsg_signal_reader(old, 0));  // running
    EXPECT_EQ(0, sa_kmsg_stop_reader(&tid));
    EXPECT_EQ(0u, static_cast<unsigned long>(tid));
    ASSERT_TRUE(poll_until([&] { return thread_count() == baseline_threads_; }, 5s));
    // New threads take over the ended reader's resources; none of them may be hit.
    for (int i = 0; i < 20; ++i) std::thread([] {}).join();
    std::atomic<bool> stop{false};
    std::thread bystander([&] {
        while (!stop) std::this_thread::sleep_for(1ms);
    });
    EXPECT_EQ(ESRCH, sa_kmsg_signal_reader(old, SIGUSR1));
    pthread_t again = old;
    EXPECT_EQ(0, sa_kmsg_stop_reader(&again));
    EXPECT_TRUE(pthread_equal(old, again));  // left as it was
    stop = true;
    bystander.join();
}

TEST_F(KmsgTest, SlotThreeStartRecordsTheThreadAndRaisesTheConsoleLevel) {
    ConfigureKmsg(5, 20480);
    sa_log_svc_st *svc = &g_zv_log_svc[SA_LOG_SVC_KMSG - 1];
    EXPECT_EQ(0, start_zv_log_service(svc));
    EXPECT_NE(0u, static_cast<unsigned long>(svc->mthread_id));
    EXPECT_EQ(g_sa_handle_ctx.m_read_kernel_log_tid, svc->mthread_id);
    EXPECT_EQ("7 4 1 7\n", read_file("/proc/sys/kernel/printk"));
    EXPECT_NE(std::string::npos,
              log_find("start_zv_log_service type_id[3] file_num_val[5] file_size_val[20480]"));
    EXPECT_NE(std::string::npos,
              log_find("start_zv_log_service m_read_kernel_log_tid[" +
                       std::to_string(static_cast<unsigned long>(svc->mthread_id)) + "] ret_val[0]"));
    EXPECT_TRUE(poll_until([&] { return thread_count() == baseline_threads_ + 1; }, 5s));
}

TEST_F(KmsgTest, SlotThreeSwitchedOffQuietsTheConsoleWithoutAThread) {
    ConfigureKmsg(5, 0);
    sa_log_svc_st *svc = &g_zv_log_svc[SA_LOG_SVC_KMSG - 1];
    EXPECT_EQ(0, start_zv_log_service(svc));
    EXPECT_EQ(0u, static_cast<unsigned long>(svc->mthread_id));
    EXPECT_EQ("3 3 1 3\n", read_file("/proc/sys/kernel/printk"));
    EXPECT_NE(std::string::npos, log_find("start_zv_log_service echo 3 3 1 3 > /proc/sys/kernel/printk"));
    EXPECT_EQ(baseline_threads_, thread_count());
}

}  // namespace
