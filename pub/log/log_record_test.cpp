// Tests of the structured log client's record layout: the header and footer, the columns and their
// widths, every level's name and body, messages, prefixes and the bounds of a line. Each test case runs
// in its own simulated handset (fresh process and /data), so the process-wide log state starts clean.
#include "logs.h"

using namespace logtest;

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
