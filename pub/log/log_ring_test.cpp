// Tests of the structured log client's files: the ring that keeps the file under its limit, the log
// directory and the process folder, the file opened at start, and the numbered backups. Each test case
// runs in its own simulated handset, so the real paths under /data/local/log are used.
#include "logs.h"

using namespace logtest;

TEST(LogClientRing, AfterWrittenCountPasses102400NextLineGoesToMarkedOffset) {
    std::string path = StartMain();
    for (int i = 0; i < 3; i++) Full(SFW_LOG_FUNC, 0, SFW_LOG_DIR_NONE, nullptr, 0, 0, nullptr, nullptr);
    long mark = sfw_log_mark_position();
    EXPECT_EQ(FileSize(path), mark);
    std::string kept = Slurp(path);
    // Until the count passes the limit every line is appended at the end.
    for (int seq = 0; FileSize(path) <= 102400; seq++) {
        ASSERT_LT(seq, 5000) << "the file stopped growing before the limit";
        long size = FileSize(path);
        sfw_log_lock(nullptr);
        sfw_log_build_extended_info("seq %06d", seq);
        Full(SFW_LOG_INFO, 0, SFW_LOG_DIR_NONE, nullptr, 0, 0, nullptr, nullptr);
        ASSERT_LT(size, FileSize(path)) << seq;
    }
    std::string before = Slurp(path);
    sfw_log_lock(nullptr);
    sfw_log_build_extended_info("WRAPPED");
    Full(SFW_LOG_INFO, 0, SFW_LOG_DIR_NONE, nullptr, 0, 0, nullptr, nullptr);
    std::string after = Slurp(path);
    ASSERT_EQ(before.size(), after.size()) << "the file is not truncated";
    EXPECT_EQ(kept, after.substr(0, static_cast<size_t>(mark)));
    size_t nl = after.find('\n', static_cast<size_t>(mark));
    std::string wrapped = after.substr(static_cast<size_t>(mark), nl - static_cast<size_t>(mark));
    EXPECT_EQ("WRAPPED", Split(wrapped).body);
    EXPECT_EQ(before.substr(nl + 1), after.substr(nl + 1)) << "older lines after the new one stay";
    Full(SFW_LOG_FUNC, 0, SFW_LOG_DIR_NONE, nullptr, 0, 0, nullptr, nullptr);
    std::string next = Slurp(path);
    EXPECT_EQ(after.substr(0, nl + 1), next.substr(0, nl + 1));
    EXPECT_EQ("func        ", Split(Lines(next.substr(nl + 1))[0]).level);
}

TEST(LogClientRing, WithoutMarkTheRingReturnsToOffsetZero) {
    std::string path = StartMain();
    sfw_log_set_max_size(2000);
    sfw_log_set_max_size(0);
    for (int n = 0; FileSize(path) <= 2000; n++) {
        ASSERT_LT(n, 100) << "the file stopped growing before the limit";
        Full(SFW_LOG_FUNC, 0, SFW_LOG_DIR_NONE, nullptr, 0, 0, nullptr, nullptr);
    }
    long size = FileSize(path);
    EXPECT_LT(size, 2400);
    WithMessage(SFW_LOG_INFO, 0, nullptr, "AT-ZERO");
    std::string text = Slurp(path);
    EXPECT_EQ(size, static_cast<long>(text.size()));
    EXPECT_EQ("AT-ZERO", Split(Lines(text)[0]).body);
}

TEST(LogClientPath, TrailingSlashBecomesZeroDigit) {
    sfw_log_set_path("/data/local/log/a/b/");
    sfw_log_start(1, nullptr);
    EXPECT_TRUE(Exists("/data/local/log/a/b0/" + ProcName() + "-log/" + ProcName() + ".log"));
    EXPECT_FALSE(Exists("/data/local/log/a/b/" + ProcName() + "-log"));
}

TEST(LogClientPath, TwoTrailingSlashesBecomeTwoZeroDigits) {
    sfw_log_set_path("/data/local/log/a/b//");
    sfw_log_start(1, nullptr);
    EXPECT_TRUE(Exists("/data/local/log/a/b00/" + ProcName() + "-log/" + ProcName() + ".log"));
}

TEST(LogClientPath, EmptyNullAnd254CharacterPathsIgnored) {
    sfw_log_set_path("/data/local/log/keep");
    sfw_log_set_path("");
    sfw_log_set_path(nullptr);
    std::string long_path = "/data/local/log/" + std::string(238, 'x');
    ASSERT_EQ(254u, long_path.size());
    sfw_log_set_path(long_path.c_str());
    sfw_log_start(1, nullptr);
    EXPECT_TRUE(Exists("/data/local/log/keep/" + ProcName() + "-log/" + ProcName() + ".log"));
}

TEST(LogClientPath, Path253CharactersAcceptedWithoutProcessFolder) {
    std::string p = "/data/local/log";
    while (p.size() < 253) p += "/" + std::string(std::min<size_t>(100, 253 - p.size() - 1), 'd');
    ASSERT_EQ(253u, p.size());
    sfw_log_set_path(p.c_str());
    sfw_log_start(1, nullptr);
    EXPECT_TRUE(Exists(p + "/" + ProcName() + ".log")) << "no room for the process folder";
    EXPECT_TRUE(Exists(p + "/log_internal.log"));
}

TEST(LogClientPath, DefaultDirectoryAndNameBuiltOnlyOnce) {
    sfw_log_start(1, nullptr);
    std::string dir = "/data/local/log/" + ProcName() + "-log";
    EXPECT_TRUE(Exists(dir + "/" + ProcName() + ".log"));
    sfw_log_stop(nullptr);
    sfw_log_set_path("/data/local/log/later");
    sfw_log_start(1, nullptr);
    EXPECT_TRUE(Exists("/data/local/log/later/" + ProcName() + ".log"));
    EXPECT_FALSE(Exists("/data/local/log/later/" + ProcName() + "-log"));
}

TEST(LogClientOpen, FileNamesFromTheGivenName) {
    sfw_log_set_path("/data/local/log/open");
    sfw_log_start(1, "first");
    std::string dir = "/data/local/log/open/" + ProcName() + "-log";
    EXPECT_TRUE(Exists(dir + "/first.log"));
    const std::pair<const char *, std::string> rows[] = {
        {"plain", "plain.log"},
        {"some/where/named.log", "named.log"},
        {"x.txt", "x.txt.log"},
        {nullptr, ProcName() + ".log"},
    };
    for (const auto &row : rows) {
        FILE *fp = client_open_file(row.first);
        ASSERT_NE(nullptr, fp) << row.second;
        fclose(fp);
        EXPECT_TRUE(Exists(dir + "/" + row.second)) << row.second;
    }
    char pidname[32];
    snprintf(pidname, sizeof(pidname), "/%08X.log", static_cast<unsigned>(getpid()));
    FILE *fp = client_open_file("ends/in/slash/");
    ASSERT_NE(nullptr, fp);
    fclose(fp);
    EXPECT_TRUE(Exists(dir + pidname));
}

TEST(LogClientOpen, OpenTruncatesAndCloseOnExec) {
    sfw_log_set_path("/data/local/log/trunc");
    sfw_log_start(1, nullptr);
    std::string path = "/data/local/log/trunc/" + ProcName() + "-log/t.log";
    MakeFile(path, "old content");
    FILE *fp = client_open_file("t");
    ASSERT_NE(nullptr, fp);
    EXPECT_EQ(0, FileSize(path));
    EXPECT_EQ(FD_CLOEXEC, fcntl(fileno(fp), F_GETFD) & FD_CLOEXEC);
    fclose(fp);
    EXPECT_EQ(FD_CLOEXEC, fcntl(fileno(log_obj.m_fp), F_GETFD) & FD_CLOEXEC);
}

TEST(LogClientStart, StartTwiceReturnsTheSameObject) {
    std::string path = StartMain();
    Full(SFW_LOG_FUNC, 0, SFW_LOG_DIR_NONE, nullptr, 0, 0, nullptr, nullptr);
    std::string text = Slurp(path);
    EXPECT_EQ(&log_obj, sfw_log_start(3, "other"));
    EXPECT_EQ(text, Slurp(path));
    EXPECT_EQ(static_cast<int>(getpid()), log_obj.m_pid);
    EXPECT_EQ(ProcName().substr(0, 19), log_obj.m_process_name);
}

TEST(LogClientStart, AllocatedObjectWritesItsOwnFile) {
    std::string path = StartMain();
    sfw_log_obj *obj = sfw_log_start(0x10, "second");
    ASSERT_NE(nullptr, obj);
    ASSERT_NE(&log_obj, obj);
    EXPECT_EQ(0x10u, obj->m_flags);
    sfw_log_lock(obj);
    sfw_log_build_extended_info("to second");
    sfw_log_full(obj, kMod, SFW_LOG_INFO, kSrc, 3, "f", 0, 8, nullptr, 0, 0, nullptr, nullptr);
    std::string second = MainDir() + "/second.log";
    EXPECT_EQ("to second", LastBody(second));
    EXPECT_EQ(std::string::npos, Slurp(path).find("to second"));
    sfw_log_stop(obj);
    std::string text = Slurp(second);
    EXPECT_EQ(kFooter, text.substr(text.size() - strlen(kFooter)));
    EXPECT_EQ(1, log_obj.m_started) << "stopping another object leaves log_obj running";
}

TEST(LogClientStart, ProcessNameFolderAndFileForMainSettings) {
    std::string path = StartMain();
    EXPECT_EQ("/data/local/log/zv-qel-sa/" + ProcName() + "-log/" + ProcName() + ".log", path);
    EXPECT_TRUE(Exists(path));
}

TEST(LogClientBackup, BackupZeroRemovesOnlyBackupZero) {
    sfw_log_set_path("/data/local/log/bk");
    std::string dir = "/data/local/log/bk/" + ProcName() + "-log";
    for (const char *suffix : {"", "-0", "-1"}) {
        ASSERT_EQ(0, system(("mkdir -p " + dir + suffix).c_str()));
        MakeFile(dir + suffix + "/f.log", suffix);
    }
    sfw_log_backup(0);
    EXPECT_FALSE(Exists(dir + "-0"));
    EXPECT_EQ("-1", Slurp(dir + "-1/f.log"));
    EXPECT_EQ("", Slurp(dir + "/f.log"));
    EXPECT_TRUE(Exists(dir + "/f.log"));
}

TEST(LogClientBackup, BackupTwoShiftsBackupsAndLiveDirectory) {
    sfw_log_set_path("/data/local/log/bk");
    std::string dir = "/data/local/log/bk/" + ProcName() + "-log";
    for (const char *suffix : {"", "-1", "-2"}) {
        ASSERT_EQ(0, system(("mkdir -p " + dir + suffix).c_str()));
        MakeFile(dir + suffix + "/f.log", std::string("was") + suffix);
    }
    sfw_log_backup(2);
    EXPECT_FALSE(Exists(dir));
    EXPECT_EQ("was", Slurp(dir + "-1/f.log"));
    EXPECT_EQ("was-1", Slurp(dir + "-2/f.log"));
    EXPECT_FALSE(Exists(dir + "-3"));
    sfw_log_start(1, nullptr);
    EXPECT_TRUE(Exists(dir + "/" + ProcName() + ".log")) << "a start after the backup makes a fresh folder";
}
