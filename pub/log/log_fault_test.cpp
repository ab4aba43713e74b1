// Tests of the structured log client's internal faults: the lines of log_internal.log for a record
// without an open file, a text without a lock, bad arguments and unreadable process names, and the
// fault line's own layout. Some cases re-execute this binary under a chosen argv[0].
#include "logs.h"

using namespace logtest;

namespace {

// Re-executed copies of this binary run one check under a chosen argv[0] before gtest starts.
int ChildHook() {
    const char *mode = getenv("ZV_LOG_CLIENT_TEST_CHILD");
    if (mode != nullptr && strcmp(mode, "empty-name") == 0) {
        // argv[0] is "": the client's folder is "-log" under the directory set here.
        sfw_log_set_path("/data/local/log/empty");
        sfw_log_start(1, "child");
        _exit(log_obj.m_fp != nullptr ? 42 : 1);
    }
    if (mode == nullptr || strcmp(mode, "name-ends-in-slash") != 0) return 0;
    sfw_log_set_path("/data/local/log/child");
    sfw_log_start(1, "child");
    char name[50] = "untouched";
    int rc = get_process_name(name, sizeof(name));
    _exit(rc == -100 && strcmp(name, "untouched") == 0 ? 42 : 1);
}
const int g_child_hook = ChildHook();

}  // namespace

TEST(LogClientFault, RecordWithoutOpenStreamWritesAssertFault) {
    sfw_log_set_path("/data/local/log/fault");
    std::string dir = "/data/local/log/fault/" + ProcName() + "-log";
    ASSERT_EQ(0, system(("mkdir -p " + dir + "/blocked.log").c_str()));
    sfw_log_start(1, "blocked");
    EXPECT_EQ(nullptr, log_obj.m_fp);
    WithMessage(SFW_LOG_INFO, 0, nullptr, "lost");
    EXPECT_TRUE(MutexFree());
    std::string text = Slurp(dir + "/log_internal.log");
    EXPECT_EQ(
        1, Count(text,
                 "##:##:##        log/log_client -> sfw_log_start -> % -> call client_open_file() fail.\n"))
        << text;
    EXPECT_NE(std::string::npos,
              text.find("        log/log_client_test -> test_func -> 78 -> assert(log_obj.m_fp).\n"))
        << text;
}

TEST(LogClientFault, BuildWithoutLockWritesInvalidParamFault) {
    StartMain();
    sfw_log_build_extended_info("orphan %d", 1);
    EXPECT_EQ(0, log_obj.m_ext_pending);
    std::string text = Slurp(MainDir() + "/log_internal.log");
    EXPECT_EQ(1, Count(text,
                       "##:##:##        log/log_client -> sfw_log_build_extended_info -> % -> -101 - "
                       "Invalid parameter.\n"))
        << text;
}

TEST(LogClientFault, GetProcessNameNullOrSizeZeroGivesMinus101) {
    StartMain();
    char buf[8];
    EXPECT_EQ(-101, get_process_name(nullptr, 8));
    EXPECT_EQ(-101, get_process_name(buf, 0));
    std::string text = Slurp(MainDir() + "/log_internal.log");
    EXPECT_EQ(
        2,
        Count(text, "##:##:##        log/log_client -> get_process_name -> % -> -101 - Invalid parameter.\n"))
        << text;
}

TEST(LogClientFault, GetProcessNameCutToSize) {
    char buf[6];
    memset(buf, 'z', sizeof(buf));
    EXPECT_EQ(0, get_process_name(buf, sizeof(buf)));
    EXPECT_EQ(ProcName().substr(0, 5), std::string(buf));
    char exe[256] = "";
    ASSERT_GT(readlink("/proc/self/exe", exe, sizeof(exe) - 1), 0);
    EXPECT_EQ(std::string(strrchr(exe, '/') + 1), ProcName()) << "argv[0] after its last slash";
}

// Re-executes this binary with argv[0] set to arg0 to run the child check `mode` (see ChildHook);
// expects it to pass (exit status 42).
void RunChildCheck(const char *mode, const char *arg0) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        setenv("ZV_LOG_CLIENT_TEST_CHILD", mode, 1);
        std::string name = arg0;
        char *argv[] = {&name[0], nullptr};
        execv("/proc/self/exe", argv);
        _exit(2);
    }
    int status = 0;
    ASSERT_TRUE(WaitChild(pid, &status, 20));
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(42, WEXITSTATUS(status));
}

TEST(LogClientFault, GetProcessNameEndingInSlashRefused) {
    RunChildCheck("name-ends-in-slash", "/data/weird/");
    // The name reads back empty, so the client keeps its files in "<dir>/-log".
    std::string text = Slurp("/data/local/log/child/-log/log_internal.log");
    EXPECT_NE(std::string::npos, text.find("log/log_client -> get_process_name -> ")) << text;
    EXPECT_NE(std::string::npos, text.find(" -> can not get valid name from \"/data/weird/\".\n")) << text;
}

TEST(LogClientFault, EmptyProcessNameStillGetsItsDashLogFolder) {
    RunChildCheck("empty-name", "");
    struct stat st;
    EXPECT_EQ(0, stat("/data/local/log/empty/-log/child.log", &st)) << "the records land in \"<dir>/-log\"";
    EXPECT_NE(0, stat("/data/local/log/empty/child.log", &st)) << "not in the bare directory";
}

TEST(LogClientFault, InternalErrorLineHasTimeAndEightBlanksAndIsBounded) {
    FILE *fp = tmpfile();
    ASSERT_NE(nullptr, fp);
    log_internal_error(fp, "%s -> %s -> %d -> %d - %s.\n", "a/b", "fn", 3, -101, "Invalid parameter");
    log_internal_error(fp, "%s", std::string(1000, 'L').c_str());
    rewind(fp);
    char buf[2048] = "";
    size_t n = fread(buf, 1, sizeof(buf) - 1, fp);
    fclose(fp);
    std::string text(buf, n);
    EXPECT_TRUE(Like(text, ("##:##:##        a/b -> fn -> 3 -> -101 - Invalid parameter.\n##:##:##        " +
                            std::string(299, 'L'))
                               .c_str()))
        << text;
}

TEST(LogClientFault, InternalErrorWithoutStreamPrintsOnStdout) {
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        dup2(fds[1], 1);
        log_internal_error(nullptr, "ignored %d", 1);
        fflush(stdout);
        _exit(0);
    }
    close(fds[1]);
    int status = 0;
    ASSERT_TRUE(WaitChild(pid, &status, 20));
    char buf[256] = "";
    ssize_t n = read(fds[0], buf, sizeof(buf) - 1);
    close(fds[0]);
    std::string out(buf, n > 0 ? static_cast<size_t>(n) : 0);
    EXPECT_TRUE(Like(out, "error: func - log_internal_error, line - %: !fp\n")) << out;
}
