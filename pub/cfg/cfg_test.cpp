// Tests of the configuration line reader and key/value splitter, on real files under the handset's
// private /tmp.
#include "cfg/cfg.h"
#include "logs.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "log/log_client.h"

namespace {

constexpr const char *kPath = "/tmp/cfg-test.cfg";

// Writes content to kPath and opens it for reading.
FILE *open_with(const std::string &content) {
    FILE *w = fopen(kPath, "we");
    if (w == nullptr) return nullptr;
    fwrite(content.data(), 1, content.size(), w);
    fclose(w);
    return fopen(kPath, "re");
}

struct chunk {
    int ret;
    std::string text;
    int len;
    int eof;
};

chunk next_chunk(FILE *fp, int size = 100) {
    char buf[100];
    chunk c{};
    c.len = -7;
    c.eof = -7;
    c.ret = pub_cfg_get_line(fp, buf, size, &c.len, &c.eof);
    c.text = buf;
    return c;
}

// ---- line reader ----

TEST(CfgGetLine, NullArgumentsReturnInvalidParameter) {
    FILE *fp = open_with("a=b\n");
    ASSERT_NE(nullptr, fp);
    char buf[100];
    int len = 5, eof = 5;
    EXPECT_EQ(-101, pub_cfg_get_line(nullptr, buf, sizeof(buf), &len, &eof));
    EXPECT_EQ(-101, pub_cfg_get_line(fp, nullptr, sizeof(buf), &len, &eof));
    EXPECT_EQ(-101, pub_cfg_get_line(fp, buf, sizeof(buf), nullptr, &eof));
    EXPECT_EQ(-101, pub_cfg_get_line(fp, buf, sizeof(buf), &len, nullptr));
    // Nothing was consumed by the refused calls.
    chunk c = next_chunk(fp);
    EXPECT_EQ("a=b\n", c.text);
    fclose(fp);
}

TEST(CfgGetLine, SizeBelowTwoReturnsInvalidParameter) {
    FILE *fp = open_with("a=b\n");
    ASSERT_NE(nullptr, fp);
    char buf[4];
    int len, eof;
    EXPECT_EQ(-101, pub_cfg_get_line(fp, buf, 1, &len, &eof));
    EXPECT_EQ(-101, pub_cfg_get_line(fp, buf, 0, &len, &eof));
    EXPECT_EQ(-101, pub_cfg_get_line(fp, buf, -1, &len, &eof));
    fclose(fp);
}

TEST(CfgGetLine, ReadsOneLineWithItsLineEnd) {
    FILE *fp = open_with("zv.tty.cmd=/dev/ttyA\r\nzv.log.size=5\n");
    ASSERT_NE(nullptr, fp);
    chunk c = next_chunk(fp);
    EXPECT_EQ(0, c.ret);
    EXPECT_EQ("zv.tty.cmd=/dev/ttyA\r\n", c.text);
    EXPECT_EQ(22, c.len);
    EXPECT_EQ(0, c.eof);
    c = next_chunk(fp);
    EXPECT_EQ("zv.log.size=5\n", c.text);
    EXPECT_EQ(14, c.len);
    EXPECT_EQ(0, c.eof);
    fclose(fp);
}

TEST(CfgGetLine, FileEndingInNewlineGivesOneEmptyChunkBeforeEofFlag) {
    FILE *fp = open_with("a=b\n");
    ASSERT_NE(nullptr, fp);
    chunk c = next_chunk(fp);
    EXPECT_EQ("a=b\n", c.text);
    EXPECT_EQ(0, c.eof);
    c = next_chunk(fp);
    EXPECT_EQ(0, c.ret);
    EXPECT_EQ("", c.text);
    EXPECT_EQ(0, c.len);
    EXPECT_EQ(0, c.eof);
    c = next_chunk(fp);
    EXPECT_EQ(0, c.ret);
    EXPECT_EQ("", c.text);
    EXPECT_EQ(0, c.len);
    EXPECT_EQ(1, c.eof);
    // The flag stays set on every later call.
    EXPECT_EQ(1, next_chunk(fp).eof);
    fclose(fp);
}

TEST(CfgGetLine, LastLineWithoutNewlineSetsEofFlagOnNextCall) {
    FILE *fp = open_with("a=b");
    ASSERT_NE(nullptr, fp);
    chunk c = next_chunk(fp);
    EXPECT_EQ("a=b", c.text);
    EXPECT_EQ(3, c.len);
    EXPECT_EQ(0, c.eof);
    c = next_chunk(fp);
    EXPECT_EQ("", c.text);
    EXPECT_EQ(0, c.len);
    EXPECT_EQ(1, c.eof);
    fclose(fp);
}

TEST(CfgGetLine, EmptyFileGivesEmptyChunkThenEofFlag) {
    FILE *fp = open_with("");
    ASSERT_NE(nullptr, fp);
    chunk c = next_chunk(fp);
    EXPECT_EQ(0, c.len);
    EXPECT_EQ(0, c.eof);
    c = next_chunk(fp);
    EXPECT_EQ(0, c.len);
    EXPECT_EQ(1, c.eof);
    fclose(fp);
}

TEST(CfgGetLine, LongLineIsReadIn98CharacterChunks) {
    const std::string line(150, 'x');
    FILE *fp = open_with(line + "\nk=v\n");
    ASSERT_NE(nullptr, fp);
    chunk c = next_chunk(fp, 100);
    EXPECT_EQ(std::string(98, 'x'), c.text);
    EXPECT_EQ(98, c.len);
    EXPECT_EQ(0, c.eof);
    c = next_chunk(fp, 100);
    EXPECT_EQ(std::string(52, 'x') + "\n", c.text);
    EXPECT_EQ(53, c.len);
    c = next_chunk(fp, 100);
    EXPECT_EQ("k=v\n", c.text);
    fclose(fp);
}

TEST(CfgGetLine, WholeBufferOfSizeBytesIsZeroedAndNothingBeyond) {
    FILE *fp = open_with("ab\n");
    ASSERT_NE(nullptr, fp);
    char buf[64];
    memset(buf, 'Z', sizeof(buf));
    int len, eof;
    ASSERT_EQ(0, pub_cfg_get_line(fp, buf, 48, &len, &eof));
    EXPECT_EQ(0, memcmp(buf, "ab\n", 3));
    for (int i = 3; i < 48; ++i) EXPECT_EQ('\0', buf[i]) << i;
    for (size_t i = 48; i < sizeof(buf); ++i) EXPECT_EQ('Z', buf[i]) << i;

    // At end of file too: the buffer comes back zeroed.
    ASSERT_EQ(0, pub_cfg_get_line(fp, buf, 48, &len, &eof));
    memset(buf, 'Z', sizeof(buf));
    ASSERT_EQ(0, pub_cfg_get_line(fp, buf, 48, &len, &eof));
    EXPECT_EQ(1, eof);
    for (int i = 0; i < 48; ++i) EXPECT_EQ('\0', buf[i]) << i;
    EXPECT_EQ('Z', buf[48]);
    fclose(fp);
}

TEST(CfgGetLine, SmallBufferLeavesItsLastByteUnusedByTheRead) {
    FILE *fp = open_with("abcdef\n");
    ASSERT_NE(nullptr, fp);
    EXPECT_EQ("abc", next_chunk(fp, 5).text);
    EXPECT_EQ("def", next_chunk(fp, 5).text);
    EXPECT_EQ("\n", next_chunk(fp, 5).text);
    fclose(fp);
}

// ---- splitter ----

struct split {
    int ret;
    std::string key;
    std::string value;
    bool inside;  // both pointers point into the line buffer
};

split split_line(const std::string &text) {
    char line[128];
    snprintf(line, sizeof(line), "%s", text.c_str());
    char *key = nullptr;
    char *value = nullptr;
    split s{};
    s.ret = pub_cfg_get_param_and_value(line, &key, &value);
    if (key != nullptr) s.key = key;
    if (value != nullptr) s.value = value;
    s.inside = key >= line && key < line + sizeof(line) && value >= line && value < line + sizeof(line);
    return s;
}

TEST(CfgSplit, LeadingAndTrailingBlanksAroundKeyAndValueAreRemoved) {
    split s = split_line("  zv.tty.cmd   =   /dev/ttySA0  \r\n");
    EXPECT_EQ(0, s.ret);
    EXPECT_EQ("zv.tty.cmd", s.key);
    EXPECT_EQ("/dev/ttySA0", s.value);
    EXPECT_TRUE(s.inside);
}

TEST(CfgSplit, CrlfAndLfLineEndsAreCutFromValue) {
    EXPECT_EQ("5", split_line("zv.log.size=5\r\n").value);
    EXPECT_EQ("5", split_line("zv.log.size=5\n").value);
    EXPECT_EQ("5", split_line("zv.log.size=5 \r \n").value);
}

TEST(CfgSplit, InnerBlanksAreKept) {
    split s = split_line("a b = c d \n");
    EXPECT_EQ(0, s.ret);
    EXPECT_EQ("a b", s.key);
    EXPECT_EQ("c d", s.value);
}

TEST(CfgSplit, CommentLineReturnsNotFound) {
    char line[] = "   # zv.tty.cmd = /dev/x\n";
    char *key = line, *value = line;
    EXPECT_EQ(-104, pub_cfg_get_param_and_value(line, &key, &value));
    EXPECT_EQ(line, key);
    EXPECT_EQ(line, value);
    EXPECT_EQ(-104, split_line("#zv.tty.cmd=/dev/x").ret);
}

TEST(CfgSplit, HashAfterKeyIsNotAComment) {
    split s = split_line("zv.log.size=5 # five\n");
    EXPECT_EQ(0, s.ret);
    EXPECT_EQ("5 # five", s.value);
}

TEST(CfgSplit, LineWithoutEqualsReturnsNotFound) {
    EXPECT_EQ(-104, split_line("zv.tty.cmd /dev/ttySA0\n").ret);
    EXPECT_EQ(-104, split_line("").ret);
    EXPECT_EQ(-104, split_line("   \r\n").ret);
}

TEST(CfgSplit, TwoEqualsSplitAtFirstAndValueKeepsSecond) {
    split s = split_line("zv.tty.cmd = a=b \n");
    EXPECT_EQ(0, s.ret);
    EXPECT_EQ("zv.tty.cmd", s.key);
    EXPECT_EQ("a=b", s.value);
}

TEST(CfgSplit, TabBeforeKeyIsKeptInKey) {
    split s = split_line("\tzv.tty.cmd=/dev/ttySA0\n");
    EXPECT_EQ(0, s.ret);
    EXPECT_EQ("\tzv.tty.cmd", s.key);
    EXPECT_NE(0, strcmp(s.key.c_str(), "zv.tty.cmd"));
}

TEST(CfgSplit, TabsAndCarriageReturnInsideKeyOrValueAreKept) {
    split s = split_line("k\t=\tv\t\n");
    EXPECT_EQ("k\t", s.key);
    EXPECT_EQ("\tv\t", s.value);
    EXPECT_EQ("k\r", split_line("k\r=v").key);
}

TEST(CfgSplit, EmptyValueGivesPointerToEmptyText) {
    split s = split_line("zv.tty.cmd=\r\n");
    EXPECT_EQ(0, s.ret);
    EXPECT_EQ("zv.tty.cmd", s.key);
    EXPECT_EQ("", s.value);
    EXPECT_TRUE(s.inside);
    EXPECT_EQ("", split_line("zv.tty.cmd =    ").value);
}

TEST(CfgSplit, EmptyKeyGivesPointerToEmptyText) {
    split s = split_line("   =  /dev/x\n");
    EXPECT_EQ(0, s.ret);
    EXPECT_EQ("", s.key);
    EXPECT_EQ("/dev/x", s.value);
    EXPECT_TRUE(s.inside);
}

TEST(CfgSplit, NullArgumentsReturnInvalidParameter) {
    char line[] = "a=b";
    char *key, *value;
    EXPECT_EQ(-101, pub_cfg_get_param_and_value(nullptr, &key, &value));
    EXPECT_EQ(-101, pub_cfg_get_param_and_value(line, nullptr, &value));
    EXPECT_EQ(-101, pub_cfg_get_param_and_value(line, &key, nullptr));
    EXPECT_STREQ("a=b", line);
}

// Reader and splitter together, as a configuration parser drives them.
TEST(CfgReaderAndSplit, RestOfLongLineIsParsedAsALineOfItsOwn) {
    const std::string value(120, 'v');
    FILE *fp = open_with("zv.tty.cmd=" + value + "\nzv.log.size=7\n");
    ASSERT_NE(nullptr, fp);
    char buf[100];
    int len, eof;
    char *key, *val;

    ASSERT_EQ(0, pub_cfg_get_line(fp, buf, sizeof(buf), &len, &eof));
    ASSERT_EQ(0, pub_cfg_get_param_and_value(buf, &key, &val));
    EXPECT_STREQ("zv.tty.cmd", key);
    EXPECT_EQ(std::string(98 - 11, 'v'), val);

    ASSERT_EQ(0, pub_cfg_get_line(fp, buf, sizeof(buf), &len, &eof));
    EXPECT_EQ(std::string(120 - 87, 'v') + "\n", buf);
    EXPECT_EQ(-104, pub_cfg_get_param_and_value(buf, &key, &val));

    ASSERT_EQ(0, pub_cfg_get_line(fp, buf, sizeof(buf), &len, &eof));
    ASSERT_EQ(0, pub_cfg_get_param_and_value(buf, &key, &val));
    EXPECT_STREQ("zv.log.size", key);
    EXPECT_STREQ("7", val);
    fclose(fp);
}

// ---- traces ----

TEST(CfgTrace, NullArgumentIsTracedAsInvalidParameterWithFunction) {
    start_log();
    char buf[100];
    int len, eof;
    ASSERT_EQ(-101, pub_cfg_get_line(nullptr, buf, sizeof(buf), &len, &eof));
    const std::string line = log_line_with("stream[");
    EXPECT_NE(std::string::npos, line.find("| pub_cfg_get_line ")) << line;
    EXPECT_NE(std::string::npos, line.find("error        | -101 - Invalid parameter | stream[(nil)] buf[0x"))
        << line;

    char *key, *value;
    ASSERT_EQ(-101, pub_cfg_get_param_and_value(nullptr, &key, &value));
    const std::string split_line_text = log_line_with("line[");
    EXPECT_NE(std::string::npos, split_line_text.find("| pub_cfg_get_param_and_value ")) << split_line_text;
    EXPECT_NE(std::string::npos,
              split_line_text.find("error        | -101 - Invalid parameter | line[(nil)] key_out[0x"))
        << split_line_text;
}

}  // namespace
