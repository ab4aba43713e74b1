// Tests of the structured log client: exact line layout and bodies of every level, the header and footer,
// truncation, the ring, directory naming and backups, internal faults, threads and fork. Each test case
// runs in its own simulated handset (fresh process and /data), so the process-wide log state starts clean
// and the real paths under /data/local/log are used.
#include "log/log_client.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace {

const char *const kMod = "zv-qel-pub";
const char *const kSrc = "log/log_client_test";
const std::string kRule(92, '=');
const char *const kColumns =
    "    TIME     |   TID    |              FUNCTION              |  LINE  |    LEVEL     | INFO";
const char *const kFooter =
    "\n========================================= log  end =========================================\n";

std::string ProcName() {
    char name[50] = "";
    EXPECT_EQ(0, get_process_name(name, sizeof(name)));
    return name;
}

std::string Slurp(const std::string &path) {
    std::string out;
    FILE *fp = fopen(path.c_str(), "re");
    if (fp == nullptr) return out;
    char buf[65536];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), fp)) > 0) out.append(buf, n);
    fclose(fp);
    return out;
}

bool Exists(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

long FileSize(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? static_cast<long>(st.st_size) : -1;
}

void MakeFile(const std::string &path, const std::string &text) {
    FILE *fp = fopen(path.c_str(), "we");
    ASSERT_NE(nullptr, fp) << path;
    fputs(text.c_str(), fp);
    fclose(fp);
}

std::vector<std::string> Lines(const std::string &text) {
    std::vector<std::string> out;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t nl = text.find('\n', pos);
        if (nl == std::string::npos) nl = text.size();
        out.push_back(text.substr(pos, nl - pos));
        pos = nl + 1;
    }
    return out;
}

// Pattern match without std::regex: '#' is one digit, '%' one or more digits, anything else itself.
bool MatchAt(const std::string &s, size_t i, const char *pat, size_t *end) {
    for (; *pat != '\0'; pat++) {
        if (*pat == '#' || *pat == '%') {
            if (i >= s.size() || s[i] < '0' || s[i] > '9') return false;
            i++;
            while (*pat == '%' && i < s.size() && s[i] >= '0' && s[i] <= '9') i++;
        } else {
            if (i >= s.size() || s[i] != *pat) return false;
            i++;
        }
    }
    *end = i;
    return true;
}

// The whole text matches the pattern.
bool Like(const std::string &s, const char *pat) {
    size_t end = 0;
    return MatchAt(s, 0, pat, &end) && end == s.size();
}

// How many places of the text the pattern matches.
int Count(const std::string &s, const char *pat) {
    int n = 0;
    size_t end = 0;
    for (size_t i = 0; i < s.size(); i++) n += MatchAt(s, i, pat, &end) ? 1 : 0;
    return n;
}

// The log directory main uses, after the client appended "<process>-log".
std::string MainDir() {
    return "/data/local/log/zv-qel-sa/" + ProcName() + "-log";
}

// Starts log_obj the way main does; returns the log file's path.
std::string StartMain() {
    sfw_log_set_path("/data/local/log/zv-qel-sa");
    EXPECT_EQ(&log_obj, sfw_log_start(1, nullptr));
    return MainDir() + "/" + ProcName() + ".log";
}

std::string LastLine(const std::string &path) {
    std::string text = Slurp(path);
    EXPECT_FALSE(text.empty());
    EXPECT_EQ('\n', text.back());
    std::vector<std::string> lines = Lines(text);
    return lines.empty() ? std::string() : lines.back();
}

struct Fields {
    std::string time, tid, func, line, level, body;
};

// Splits a record line at its first five " | " separators.
Fields Split(const std::string &line) {
    Fields f;
    std::string *parts[] = {&f.time, &f.tid, &f.func, &f.line, &f.level};
    size_t pos = 0;
    for (std::string *p : parts) {
        size_t sep = line.find(" | ", pos);
        if (sep == std::string::npos) return Fields{};
        *p = line.substr(pos, sep - pos);
        pos = sep + 3;
    }
    f.body = line.substr(pos);
    return f;
}

std::string ThreadColumn() {
    char buf[32];
    long tid = static_cast<long>(pthread_self());
    if (tid < 0) return "  (main)";
    snprintf(buf, sizeof(buf), "% 8ld", tid);
    return buf;
}

void Full(unsigned level, long err, unsigned dir, const void *data, unsigned len, unsigned char idx,
          const char *text, const char *msg_name) {
    sfw_log_full(nullptr, kMod, level, kSrc, 77, "test_func", err, dir, data, len, idx, text, msg_name);
}

void WithMessage(unsigned level, long err, const char *text, const char *msg) {
    sfw_log_lock(nullptr);
    sfw_log_build_extended_info("%s", msg);
    sfw_log_full(nullptr, kMod, level, kSrc, 78, "test_func", err, SFW_LOG_DIR_NONE, nullptr, 0, 0, text,
                 nullptr);
}

// Body of the last record written by one of the calls above.
std::string LastBody(const std::string &path) {
    return Split(LastLine(path)).body;
}

// True when the log object's mutex is free (taken and given back at once).
bool MutexFree() {
    if (pthread_mutex_trylock(&log_obj.m_mutex) != 0) return false;
    pthread_mutex_unlock(&log_obj.m_mutex);
    return true;
}

// Polls cond every millisecond until it holds or the deadline passes; returns its last value.
bool PollUntil(const std::function<bool()> &cond, int seconds) {
    struct timespec start;
    clock_gettime(CLOCK_MONOTONIC, &start);
    for (;;) {
        if (cond()) return true;
        struct timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        if (now.tv_sec - start.tv_sec > seconds) return cond();
        struct timespec pause = {0, 1000000};
        nanosleep(&pause, nullptr);
    }
}

// Waits for a child with a deadline; false (child killed) when it does not end in time.
bool WaitChild(pid_t pid, int *status, int seconds) {
    if (PollUntil([&] { return waitpid(pid, status, WNOHANG) == pid; }, seconds)) return true;
    kill(pid, SIGKILL);
    waitpid(pid, status, 0);
    return false;
}

// Polls until the thread has published its id and sleeps in the kernel (blocked on the log mutex).
bool WaitBlocked(const std::atomic<pid_t> &tid) {
    return PollUntil(
        [&] {
            pid_t t = tid.load();
            if (t == 0) return false;
            std::string stat = Slurp("/proc/self/task/" + std::to_string(t) + "/stat");
            size_t paren = stat.rfind(')');
            return paren != std::string::npos && paren + 2 < stat.size() && stat[paren + 2] == 'S';
        },
        20);
}

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

TEST(LogClientHeader, HeaderHasDateBlankLineRuleColumnsRule) {
    std::string path = StartMain();
    std::vector<std::string> lines = Lines(Slurp(path));
    ASSERT_EQ(5u, lines.size());
    EXPECT_TRUE(Like(lines[0], "####-##-## ##:##:##:###")) << lines[0];
    EXPECT_EQ("", lines[1]);
    EXPECT_EQ(kRule, lines[2]);
    EXPECT_EQ(kColumns, lines[3]);
    EXPECT_EQ(kRule, lines[4]);
    EXPECT_TRUE(Exists(MainDir() + "/log_internal.log"));
}

TEST(LogClientHeader, FooterWrittenAtStopAndFileClosed) {
    std::string path = StartMain();
    Full(SFW_LOG_FUNC, 0, SFW_LOG_DIR_NONE, nullptr, 0, 0, nullptr, nullptr);
    sfw_log_stop(nullptr);
    std::string text = Slurp(path);
    ASSERT_GT(text.size(), strlen(kFooter));
    EXPECT_EQ(kFooter, text.substr(text.size() - strlen(kFooter)));
    EXPECT_EQ(nullptr, log_obj.m_fp);
    EXPECT_EQ(0, log_obj.m_started);
    Full(SFW_LOG_INFO, 0, SFW_LOG_DIR_NONE, nullptr, 0, 0, nullptr, nullptr);
    EXPECT_EQ(text, Slurp(path)) << "a record after stop is ignored";
}

TEST(LogClientLayout, ColumnsHaveTheirWidths) {
    std::string path = StartMain();
    sfw_log_full(nullptr, kMod, SFW_LOG_FUNC, kSrc, 42, "short_fn", 0, SFW_LOG_DIR_NONE, nullptr, 0, 0,
                 nullptr, nullptr);
    std::string line = LastLine(path);
    Fields f = Split(line);
    EXPECT_TRUE(Like(f.time, "##:##:##:###")) << line;
    EXPECT_EQ(ThreadColumn(), f.tid);
    EXPECT_EQ("short_fn" + std::string(34 - 8, ' '), f.func);
    EXPECT_EQ("    42", f.line);
    EXPECT_EQ("func        ", f.level);
    EXPECT_EQ("", f.body);
}

TEST(LogClientLayout, FortyCharacterFunctionNamePrintedWholeThenSeparator) {
    std::string path = StartMain();
    std::string name(40, 'f');
    sfw_log_full(nullptr, kMod, SFW_LOG_FUNC, kSrc, 1, name.c_str(), 0, 8, nullptr, 0, 0, nullptr, nullptr);
    std::string line = LastLine(path);
    EXPECT_NE(std::string::npos, line.find(" | " + name + " | ")) << line;
    EXPECT_EQ(name, Split(line).func);
}

TEST(LogClientLevel, EveryLevelBitHasItsName) {
    std::string path = StartMain();
    const std::pair<unsigned, const char *> rows[] = {
        {0x001, "info        "}, {0x002, "func        "}, {0x004, "func param  "}, {0x008, "warning     "},
        {0x010, "error       "}, {0x020, "fatal error "}, {0x040, "sys error   "}, {0x080, "IPC msg     "},
        {0x100, "user msg    "}, {0x200, "at cmd      "}, {0x400, "data        "}};
    for (const auto &row : rows) {
        Full(row.first, 0, 0, "A", 1, 0, nullptr, "m");
        EXPECT_EQ(row.second, Split(LastLine(path)).level) << row.first;
    }
}

TEST(LogClientLevel, Level3PrintsInfoBecauseBitZeroWins) {
    std::string path = StartMain();
    Full(0x3, 0, SFW_LOG_DIR_NONE, nullptr, 0, 0, nullptr, nullptr);
    EXPECT_EQ("info        ", Split(LastLine(path)).level);
    Full(0x6, 0, SFW_LOG_DIR_NONE, nullptr, 0, 0, nullptr, nullptr);
    EXPECT_EQ("func        ", Split(LastLine(path)).level) << "lowest known bit names the level";
}

TEST(LogClientLevel, UnknownLevelBitsGiveTwelveBlanks) {
    std::string path = StartMain();
    Full(0x800, 0, SFW_LOG_DIR_NONE, nullptr, 0, 0, nullptr, nullptr);
    Fields f = Split(LastLine(path));
    EXPECT_EQ(std::string(12, ' '), f.level);
    EXPECT_EQ("", f.body);
}

TEST(LogClientLevel, UnknownLevelsNeverCrashAndKeepTheLock) {
    std::string path = StartMain();
    const unsigned levels[] = {0x7FF, 0x411, 0xFFFFFFFFu, 0x80000000u, 0x1000, 0x800};
    for (unsigned level : levels) {
        WithMessage(level, -1, "t", "msg");
        EXPECT_TRUE(MutexFree()) << level;
    }
    EXPECT_EQ(std::string(12, ' ') + " | msg", LastLine(path).substr(LastLine(path).size() - 18));
}

TEST(LogClientError, ErrorMinus604WithMessage) {
    std::string path = StartMain();
    WithMessage(SFW_LOG_ERROR, -604, nullptr, "port 3 stuck");
    Fields f = Split(LastLine(path));
    EXPECT_EQ("error       ", f.level);
    EXPECT_EQ("-604 - can not close mux port | port 3 stuck", f.body);
}

TEST(LogClientError, UnknownCodeMinus5GivesSingleBlank) {
    std::string path = StartMain();
    Full(SFW_LOG_ERROR, -5, SFW_LOG_DIR_NONE, nullptr, 0, 0, nullptr, nullptr);
    EXPECT_EQ("-5 -  ", LastBody(path));
}

TEST(LogClientError, PositiveCodeUsesSystemText) {
    std::string path = StartMain();
    Full(SFW_LOG_ERROR, 2, SFW_LOG_DIR_NONE, nullptr, 0, 0, nullptr, nullptr);
    EXPECT_EQ(std::string("2 - ") + strerror(ENOENT), LastBody(path));
}

TEST(LogClientError, EveryTableCodeFoundByItsText) {
    std::string path = StartMain();
    const std::pair<long, const char *> rows[] = {
        {0, "No error"},
        {-100, "Unknown error"},
        {-101, "Invalid parameter"},
        {-102, "Parameter pointer is null"},
        {-103, "Invalid parameter value"},
        {-104, "Not found"},
        {-111, "Not ready"},
        {-113, "Timeout"},
        {-116, "Unknown operation"},
        {-117, "Exceed max size"},
        {-118, "Call C function unsuccessfully"},
        {-119, "Write() not completedly"},
        {-601, "can not initialize mux"},
        {-602, "can not de-initialize mux"},
        {-603, "can not open mux port"},
        {-604, "can not close mux port"},
        {-605, "No idle mux port"},
        {-606, "mux response timeout"},
    };
    for (const auto &row : rows) {
        Full(SFW_LOG_FATAL, row.first, SFW_LOG_DIR_NONE, nullptr, 0, 0, nullptr, nullptr);
        EXPECT_EQ(std::to_string(row.first) + " - " + row.second, LastBody(path));
    }
    const long unknown[] = {-1, -99, -105, -112, -120, -599, -607, -1000, 1L - 0x7FFFFFFF};
    for (long code : unknown) {
        Full(SFW_LOG_ERROR, code, SFW_LOG_DIR_NONE, nullptr, 0, 0, nullptr, nullptr);
        EXPECT_EQ(std::to_string(code) + " -  ", LastBody(path));
    }
}

TEST(LogClientError, Minus600TextHasQuotedCrLfError) {
    std::string path = StartMain();
    Full(SFW_LOG_ERROR, -600, SFW_LOG_DIR_NONE, nullptr, 0, 0, nullptr, nullptr);
    std::string text = Slurp(path);
    const std::string want = "| -600 - for \"\r\nERROR\r\n\"\n";
    ASSERT_GE(text.size(), want.size());
    EXPECT_EQ(want, text.substr(text.size() - want.size()));
}

TEST(LogClientError, FatalErrorMessageFollowsWithoutSeparator) {
    std::string path = StartMain();
    WithMessage(SFW_LOG_FATAL, -113, nullptr, "late");
    EXPECT_EQ("-113 - Timeoutlate", LastBody(path));
}

TEST(LogClientSysError, WithCallNameAndMessage) {
    std::string path = StartMain();
    WithMessage(SFW_LOG_SYS_ERROR, EACCES, "open", " of x");
    EXPECT_EQ(std::string("open: 13 - ") + strerror(EACCES) + " of x", LastBody(path));
}

TEST(LogClientSysError, WithoutCallName) {
    std::string path = StartMain();
    Full(SFW_LOG_SYS_ERROR, ENOENT, SFW_LOG_DIR_NONE, nullptr, 0, 0, nullptr, nullptr);
    EXPECT_EQ(std::string("2 - ") + strerror(ENOENT), LastBody(path));
}

TEST(LogClientSysError, NonPositiveCodeHasEmptyText) {
    std::string path = StartMain();
    Full(SFW_LOG_SYS_ERROR, -101, SFW_LOG_DIR_NONE, nullptr, 0, 0, "read", nullptr);
    EXPECT_EQ("read: -101 - ", LastBody(path));
    Full(SFW_LOG_SYS_ERROR, 0, SFW_LOG_DIR_NONE, nullptr, 0, 0, nullptr, nullptr);
    EXPECT_EQ("0 - ", LastBody(path));
}

TEST(LogClientIpc, IpcMsgIsNotSupported) {
    std::string path = StartMain();
    WithMessage(SFW_LOG_IPC_MSG, 0, nullptr, "tail");
    EXPECT_EQ("(sfw log error: level not support)tail", LastBody(path));
}

TEST(LogClientUserMsg, ReceiveWithHexDump) {
    std::string path = StartMain();
    const unsigned char data[] = {0x00, 0x1A, 0xFF, 0x41};
    Full(SFW_LOG_USER_MSG, 0, 0, data, sizeof(data), 0, nullptr, "PING");
    EXPECT_EQ("(Receive)msg name = PING, msg data len = 4, msg data: 001AFF41", LastBody(path));
}

TEST(LogClientUserMsg, SendLabelAndEmptyData) {
    std::string path = StartMain();
    Full(SFW_LOG_USER_MSG, 0, 1, nullptr, 0, 0, nullptr, "PONG");
    EXPECT_EQ("(Send)msg name = PONG, msg data len = 0, msg data: ", LastBody(path));
}

TEST(LogClientUserMsg, DirectionWithoutLabelPrintedAsNull) {
    std::string path = StartMain();
    for (unsigned dir = 2; dir <= 7; dir++) {
        Full(SFW_LOG_USER_MSG, 0, dir, "\x01", 1, 0, nullptr, "N");
        EXPECT_EQ("((null))msg name = N, msg data len = 1, msg data: 01", LastBody(path)) << dir;
    }
}

TEST(LogClientUserMsg, InvalidDirectionRefused) {
    std::string path = StartMain();
    sfw_log_lock(nullptr);
    sfw_log_build_extended_info("after");
    Full(SFW_LOG_USER_MSG, 0, 8, "\x01", 1, 0, nullptr, "N");
    EXPECT_EQ("(sfw log error: invalid param)after", LastBody(path));
}

TEST(LogClientUserMsg, MissingNameRefused) {
    std::string path = StartMain();
    Full(SFW_LOG_USER_MSG, 0, 0, "\x01", 1, 0, nullptr, nullptr);
    EXPECT_EQ("(sfw log error: invalid msg name)", LastBody(path));
}

TEST(LogClientUserMsg, MissingDataWithLength) {
    std::string path = StartMain();
    Full(SFW_LOG_USER_MSG, 0, 1, nullptr, 3, 0, nullptr, "N");
    EXPECT_EQ("(Send)msg name = N, msg data len = 3, msg data: (sfw log error: msg data len unmatched)",
              LastBody(path));
}

TEST(LogClientAtCmd, CrLfInDirection2WithIndex3) {
    std::string path = StartMain();
    Full(SFW_LOG_AT_CMD, 0, 2, "AT\r\n", 4, 3, nullptr, nullptr);
    Fields f = Split(LastLine(path));
    EXPECT_EQ("at cmd      ", f.level);
    EXPECT_EQ("USR -> ATA(PTM idx = 3): AT<CR><LF>", f.body);
}

TEST(LogClientAtCmd, EscapesEscAndOtherControlBytes) {
    std::string path = StartMain();
    const unsigned char data[] = {'A', 27, 0x01, 0x7F, 0x80, '~', ' ', 0x00, 'Z'};
    Full(SFW_LOG_AT_CMD, 0, 0, data, sizeof(data), 9, nullptr, nullptr);
    EXPECT_EQ("MUX -> ATA(MUX idx = 9): A<ESC>\\x01\\x7F\\x80~ \\x00Z", LastBody(path));
}

TEST(LogClientAtCmd, EveryDirectionLabel) {
    std::string path = StartMain();
    const char *want[] = {"MUX -> ATA(MUX idx = 5): ",
                          "ATA -> MUX(MUX idx = 5): ",
                          "USR -> ATA(PTM idx = 5): ",
                          "ATA -> USR(PTM idx = 5): ",
                          "ATA -> USR(PTS idx = 5): ",
                          "USR -> ATA(PTS idx = 5): ",
                          "receive   : ",
                          "send      : "};
    for (unsigned dir = 0; dir < 8; dir++) {
        Full(SFW_LOG_AT_CMD, 0, dir, "OK", 2, 5, nullptr, nullptr);
        EXPECT_EQ(std::string(want[dir]) + "OK", LastBody(path)) << dir;
    }
}

TEST(LogClientAtCmd, EmptyAndUnmatchedTexts) {
    std::string path = StartMain();
    Full(SFW_LOG_AT_CMD, 0, 7, "AT", 0, 0, nullptr, nullptr);
    EXPECT_EQ("send      : (sfw log error: empty at)", LastBody(path));
    Full(SFW_LOG_AT_CMD, 0, 7, nullptr, 0, 0, nullptr, nullptr);
    EXPECT_EQ("send      : (sfw log error: empty at)", LastBody(path));
    Full(SFW_LOG_AT_CMD, 0, 7, nullptr, 4, 0, nullptr, nullptr);
    EXPECT_EQ("send      : (sfw log error: at data len unmatched)", LastBody(path));
    Full(SFW_LOG_AT_CMD, 0, 6, "\0AT", 3, 0, nullptr, nullptr);
    EXPECT_EQ("receive   : (sfw log error: at data len unmatched)", LastBody(path));
}

TEST(LogClientAtCmd, InvalidDirectionRefused) {
    std::string path = StartMain();
    Full(SFW_LOG_AT_CMD, 0, 8, "AT", 2, 0, nullptr, nullptr);
    EXPECT_EQ("(sfw log error: invalid param)", LastBody(path));
}

TEST(LogClientAtCmd, LongTextCutWithDots) {
    std::string path = StartMain();
    std::string data(2000, 'A');
    Full(SFW_LOG_AT_CMD, 0, 2, data.data(), static_cast<unsigned>(data.size()), 3, nullptr, nullptr);
    std::string line = LastLine(path);
    EXPECT_EQ(1022u, line.size());
    EXPECT_EQ("A...", line.substr(line.size() - 4));
    std::string body = Split(line).body;
    EXPECT_EQ(0u, body.find("USR -> ATA(PTM idx = 3): AAAA"));
}

TEST(LogClientAtCmd, LongEscapedTextStaysBounded) {
    std::string path = StartMain();
    std::string data(1000, '\x1b');
    Full(SFW_LOG_AT_CMD, 0, 6, data.data(), static_cast<unsigned>(data.size()), 0, nullptr, nullptr);
    std::string line = LastLine(path);
    EXPECT_LE(line.size(), 1022u);
    EXPECT_GE(line.size(), 1018u);
    EXPECT_EQ("...", line.substr(line.size() - 3));
    EXPECT_TRUE(MutexFree());
}

TEST(LogClientData, CaptionAndHexDump) {
    std::string path = StartMain();
    const unsigned char data[] = {0xDE, 0xAD, 0x00, 0x07};
    Full(SFW_LOG_DATA, 0, SFW_LOG_DIR_NONE, data, sizeof(data), 0, "frame: ", nullptr);
    EXPECT_EQ("frame: (data len = 4) DEAD0007", LastBody(path));
    Full(SFW_LOG_DATA, 0, SFW_LOG_DIR_NONE, nullptr, 0, 0, nullptr, nullptr);
    EXPECT_EQ("(data len = 0) ", LastBody(path));
}

TEST(LogClientData, MissingDataWithLength) {
    std::string path = StartMain();
    Full(SFW_LOG_DATA, 0, SFW_LOG_DIR_NONE, nullptr, 9, 0, "cap", nullptr);
    EXPECT_EQ("cap(sfw log error: data len unmatched)", LastBody(path));
}

TEST(LogClientData, DumpLongerThanLineEndsWithDots) {
    std::string path = StartMain();
    std::vector<unsigned char> data(800, 0xAB);
    sfw_log_lock(nullptr);
    sfw_log_build_extended_info("never");
    Full(SFW_LOG_DATA, 0, SFW_LOG_DIR_NONE, data.data(), static_cast<unsigned>(data.size()), 0, nullptr,
         nullptr);
    std::string line = LastLine(path);
    EXPECT_EQ(1022u, line.size());
    EXPECT_EQ("...", line.substr(1019));
    std::string body = Split(line).body;
    EXPECT_EQ(0u, body.find("(data len = 800) ABABAB"));
    EXPECT_EQ(std::string::npos, line.find("never"));
}

TEST(LogClientMessage, InfoMessageFollowsThePrefix) {
    std::string path = StartMain();
    sfw_log_lock(nullptr);
    sfw_log_build_extended_info("value[%d] name[%s]", 7, "x");
    sfw_log_full(nullptr, kMod, SFW_LOG_INFO, kSrc, 12, "main", 0, 8, nullptr, 0, 0, nullptr, nullptr);
    std::string line = LastLine(path);
    EXPECT_EQ(" | " + ThreadColumn() + " | main" + std::string(30, ' ') +
                  " |     12 | info         | value[7] name[x]",
              line.substr(12));
    EXPECT_TRUE(MutexFree());
}

TEST(LogClientMessage, Pending1023ByteMessageIsBoundedAndEndsWithDots) {
    std::string path = StartMain();
    std::string msg(1023, 'm');
    WithMessage(SFW_LOG_INFO, 0, nullptr, msg.c_str());
    std::string line = LastLine(path);
    EXPECT_EQ(1022u, line.size());
    EXPECT_EQ("mmm...", line.substr(1016));
    EXPECT_EQ(std::string(Split(line).body.size() - 3, 'm') + "...", Split(line).body);
    EXPECT_EQ(1022u, strlen(log_obj.m_ext_info)) << "the text is formatted with at most 1023 bytes";
}

TEST(LogClientMessage, LevelZeroReleasesPendingMessage) {
    std::string path = StartMain();
    std::string before = Slurp(path);
    sfw_log_lock(nullptr);
    sfw_log_build_extended_info("dropped");
    EXPECT_EQ(1, log_obj.m_ext_pending);
    EXPECT_FALSE(MutexFree());
    sfw_log_full(nullptr, kMod, 0, kSrc, 1, "f", 0, 8, nullptr, 0, 0, nullptr, nullptr);
    EXPECT_EQ(0, log_obj.m_ext_pending);
    EXPECT_TRUE(MutexFree());
    EXPECT_EQ(before, Slurp(path)) << "level 0 writes nothing";
    Full(SFW_LOG_INFO, 0, SFW_LOG_DIR_NONE, nullptr, 0, 0, nullptr, nullptr);
    EXPECT_EQ("", LastBody(path));
}

TEST(LogClientMessage, RecordFromAnotherThreadWaitsForPendingMessage) {
    std::string path = StartMain();
    sfw_log_lock(nullptr);
    sfw_log_build_extended_info("first");
    std::atomic<pid_t> other_tid{0};
    std::thread other([&] {
        other_tid = static_cast<pid_t>(syscall(SYS_gettid));
        sfw_log_full(nullptr, kMod, SFW_LOG_FUNC, kSrc, 2, "other", 0, 8, nullptr, 0, 0, nullptr, nullptr);
    });
    EXPECT_TRUE(WaitBlocked(other_tid)) << "the other thread must wait for the held record";
    sfw_log_full(nullptr, kMod, SFW_LOG_INFO, kSrc, 1, "self", 0, 8, nullptr, 0, 0, nullptr, nullptr);
    other.join();
    std::vector<std::string> lines = Lines(Slurp(path));
    ASSERT_EQ(7u, lines.size());
    EXPECT_EQ("self" + std::string(30, ' '), Split(lines[5]).func);
    EXPECT_EQ("first", Split(lines[5]).body);
    EXPECT_EQ("other" + std::string(29, ' '), Split(lines[6]).func);
    EXPECT_EQ("", Split(lines[6]).body) << "the other thread's record has no message of its own";
    EXPECT_TRUE(MutexFree());
}

TEST(LogClientPrefix, NullFunctionModuleOrFileGivesInvalidParamPrefix) {
    std::string path = StartMain();
    sfw_log_lock(nullptr);
    sfw_log_build_extended_info("m1");
    sfw_log_full(nullptr, kMod, SFW_LOG_INFO, kSrc, 1, nullptr, 0, 8, nullptr, 0, 0, nullptr, nullptr);
    EXPECT_EQ("(sfw log error: invalid param)m1", LastLine(path));
    sfw_log_full(nullptr, nullptr, SFW_LOG_ERROR, kSrc, 1, "f", -104, 8, nullptr, 0, 0, nullptr, nullptr);
    EXPECT_EQ("(sfw log error: invalid param)-104 - Not found", LastLine(path));
    sfw_log_full(nullptr, kMod, SFW_LOG_AT_CMD, nullptr, 1, "f", 0, 7, "AT", 2, 0, nullptr, nullptr);
    EXPECT_EQ("(sfw log error: invalid param)send      : AT", LastLine(path));
    EXPECT_TRUE(MutexFree());
}

TEST(LogClientPrefix, OverLongFunctionNameIsBounded) {
    std::string path = StartMain();
    std::string name(3000, 'n');
    sfw_log_lock(nullptr);
    sfw_log_build_extended_info("%s", std::string(5000, 'q').c_str());
    sfw_log_full(nullptr, kMod, SFW_LOG_ERROR, kSrc, 1, name.c_str(), -1, 8, nullptr, 0, 0, nullptr, nullptr);
    std::string line = LastLine(path);
    EXPECT_EQ(1022u, line.size());
    EXPECT_EQ("nnn...", line.substr(1016));
    Full(SFW_LOG_SYS_ERROR, 5, SFW_LOG_DIR_NONE, nullptr, 0, 0, name.c_str(), nullptr);
    EXPECT_EQ(1022u, LastLine(path).size());
    EXPECT_TRUE(MutexFree());
}

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

TEST(LogClientFault, GetProcessNameEndingInSlashRefused) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        setenv("ZV_LOG_CLIENT_TEST_CHILD", "name-ends-in-slash", 1);
        char arg0[] = "/data/weird/";
        char *argv[] = {arg0, nullptr};
        execv("/proc/self/exe", argv);
        _exit(2);
    }
    int status = 0;
    ASSERT_TRUE(WaitChild(pid, &status, 20));
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(42, WEXITSTATUS(status));
    // The name reads back empty, so the client keeps its files in "<dir>/-log".
    std::string text = Slurp("/data/local/log/child/-log/log_internal.log");
    EXPECT_NE(std::string::npos, text.find("log/log_client -> get_process_name -> ")) << text;
    EXPECT_NE(std::string::npos, text.find(" -> can not get valid name from \"/data/weird/\".\n")) << text;
}

TEST(LogClientFault, EmptyProcessNameStillGetsItsDashLogFolder) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        setenv("ZV_LOG_CLIENT_TEST_CHILD", "empty-name", 1);
        char arg0[] = "";
        char *argv[] = {arg0, nullptr};
        execv("/proc/self/exe", argv);
        _exit(2);
    }
    int status = 0;
    ASSERT_TRUE(WaitChild(pid, &status, 20));
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(42, WEXITSTATUS(status));
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
