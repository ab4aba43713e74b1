// Tests of the rc reader: services and their options, user and group names and numbers, the
// tokenizer's quotes, escapes, comments and continuations, skipped sections, and every kind of
// malformed line, with the exact warnings they leave.
#include "init/rc_parser.h"
#include "init/test_probe.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

rc_config Parse(const std::string &text) {
    rc_config cfg;
    rc_parse_text(text, "t.rc", &cfg);
    return cfg;
}

std::vector<std::string> Args(const rc_service &svc) {
    return svc.m_args;
}

// The arguments of the one service that text defines, or a note saying how many it defined.
std::vector<std::string> OnlyServiceArgs(const std::string &text) {
    rc_config cfg = Parse(text);
    if (cfg.m_services.size() != 1) return {std::to_string(cfg.m_services.size()) + " services"};
    return cfg.m_services[0].m_args;
}

TEST(RcParser, ServiceWithProgramAndArguments) {
    rc_config cfg = Parse("service sleeper /system/bin/sleep 1000\n");
    ASSERT_EQ(1u, cfg.m_services.size());
    const rc_service &s = cfg.m_services[0];
    EXPECT_EQ("sleeper", s.m_name);
    EXPECT_EQ((std::vector<std::string>{"/system/bin/sleep", "1000"}), Args(s));
    EXPECT_EQ("default", s.m_class);
    EXPECT_EQ(0u, s.m_uid);
    EXPECT_EQ(0u, s.m_gid);
    EXPECT_TRUE(s.m_supp_gids.empty());
    EXPECT_FALSE(s.m_disabled);
    EXPECT_FALSE(s.m_oneshot);
    EXPECT_EQ("t.rc", s.m_file);
    EXPECT_EQ(1, s.m_line);
    EXPECT_TRUE(cfg.m_warnings.empty());
}

TEST(RcParser, ServiceWithoutArguments) {
    EXPECT_EQ((std::vector<std::string>{"/system/bin/zv-qel-sa"}),
              OnlyServiceArgs("service zv-qel-sa /system/bin/zv-qel-sa\n"));
}

TEST(RcParser, AllOptionsApplyToTheirService) {
    rc_config cfg = Parse(
        "service a /system/bin/a\n"
        "    class main\n"
        "    user system\n"
        "    group log radio shell\n"
        "    disabled\n"
        "    oneshot\n"
        "service b /system/bin/b\n"
        "    class late_start\n");
    ASSERT_EQ(2u, cfg.m_services.size());
    const rc_service &a = cfg.m_services[0];
    EXPECT_EQ("main", a.m_class);
    EXPECT_EQ(1000u, a.m_uid);
    EXPECT_EQ(1007u, a.m_gid);
    EXPECT_EQ((std::vector<gid_t>{1001, 2000}), a.m_supp_gids);
    EXPECT_TRUE(a.m_disabled);
    EXPECT_TRUE(a.m_oneshot);
    const rc_service &b = cfg.m_services[1];
    EXPECT_EQ("late_start", b.m_class);
    EXPECT_FALSE(b.m_disabled);
    EXPECT_FALSE(b.m_oneshot);
    EXPECT_EQ(7, b.m_line);
    EXPECT_TRUE(cfg.m_warnings.empty());
}

TEST(RcParser, UserAndGroupNamesAndNumbersGiveIds) {
    const struct {
        const char *text;
        unsigned id;
    } cases[] = {
        {"root", 0},     {"system", 1000}, {"radio", 1001}, {"log", 1007},
        {"shell", 2000}, {"0", 0},         {"1234", 1234},  {"4294967294", 4294967294u},
    };
    for (const auto &c : cases) {
        unsigned id = 12345;
        EXPECT_TRUE(rc_parse_id(c.text, &id)) << c.text;
        EXPECT_EQ(c.id, id) << c.text;
    }
}

TEST(RcParser, UserAndGroupNumbersInOptionsAreTakenAsIds) {
    rc_config cfg = Parse("service n /x\n  user 1234\n  group 4321 55\n");
    ASSERT_EQ(1u, cfg.m_services.size());
    EXPECT_EQ(1234u, cfg.m_services[0].m_uid);
    EXPECT_EQ(4321u, cfg.m_services[0].m_gid);
    EXPECT_EQ((std::vector<gid_t>{55}), cfg.m_services[0].m_supp_gids);
}

TEST(RcParser, UnknownNamesAndBadNumbersAreNotIds) {
    unsigned id = 77;
    EXPECT_FALSE(rc_parse_id("nobody", &id));
    EXPECT_FALSE(rc_parse_id("", &id));
    EXPECT_FALSE(rc_parse_id("12a", &id));
    EXPECT_FALSE(rc_parse_id("-1", &id));
    EXPECT_FALSE(rc_parse_id("4294967295", &id));  // (uid_t)-1
    EXPECT_FALSE(rc_parse_id("99999999999", &id));
    EXPECT_FALSE(rc_parse_id("System", &id));
    EXPECT_EQ(77u, id);
}

TEST(RcParser, UnknownUserWarnsAndKeepsRoot) {
    rc_config cfg = Parse("service a /x\n    user nobody\n");
    ASSERT_EQ(1u, cfg.m_services.size());
    EXPECT_EQ(0u, cfg.m_services[0].m_uid);
    EXPECT_EQ((std::vector<std::string>{"t.rc:2: unknown user 'nobody', skipped"}), cfg.m_warnings);
}

TEST(RcParser, UnknownGroupWarnsAndLeavesAllGroupsUnchanged) {
    rc_config cfg = Parse("service a /x\n    group log wheel\n");
    ASSERT_EQ(1u, cfg.m_services.size());
    EXPECT_EQ(0u, cfg.m_services[0].m_gid);
    EXPECT_TRUE(cfg.m_services[0].m_supp_gids.empty());
    EXPECT_EQ((std::vector<std::string>{"t.rc:2: unknown group 'wheel', skipped"}), cfg.m_warnings);
}

TEST(RcParser, CommentsAndBlankLinesAreIgnored) {
    rc_config cfg = Parse(
        "# leading comment\n"
        "\n"
        "   \t \n"
        "service a /system/bin/a arg # trailing comment\n"
        "    # an indented comment\n"
        "\n"
        "    disabled\n");
    ASSERT_EQ(1u, cfg.m_services.size());
    EXPECT_EQ((std::vector<std::string>{"/system/bin/a", "arg"}), Args(cfg.m_services[0]));
    EXPECT_TRUE(cfg.m_services[0].m_disabled);
    EXPECT_EQ(4, cfg.m_services[0].m_line);
    EXPECT_TRUE(cfg.m_warnings.empty());
}

TEST(RcParser, HashInsideATokenIsNoComment) {
    EXPECT_EQ((std::vector<std::string>{"/x", "a#b", "#c"}), OnlyServiceArgs("service a /x a#b \"#c\"\n"));
}

TEST(RcParser, QuotesGroupBlanksIntoOneArgument) {
    EXPECT_EQ((std::vector<std::string>{"/system/bin/sh", "-c", "trap '' TERM; while :; do sleep 1; done"}),
              OnlyServiceArgs("service sh1 /system/bin/sh -c \"trap '' TERM; while :; do sleep 1; done\"\n"));
}

TEST(RcParser, EmptyQuotesGiveAnEmptyArgument) {
    EXPECT_EQ((std::vector<std::string>{"/x", "", "b"}), OnlyServiceArgs("service a /x \"\" b\n"));
}

TEST(RcParser, EscapesGiveTheirCharacters) {
    EXPECT_EQ((std::vector<std::string>{"/x", "a b", "q\"q", "\n\t\r", "\\", "z"}),
              OnlyServiceArgs("service a /x a\\ b \"q\\\"q\" \\n\\t\\r \\\\ \\z\n"));
}

TEST(RcParser, BackslashAtLineEndContinuesTheLine) {
    rc_config cfg = Parse("service a /x \\\n    one \\\n    two\n    oneshot\n");
    ASSERT_EQ(1u, cfg.m_services.size());
    EXPECT_EQ((std::vector<std::string>{"/x", "one", "two"}), Args(cfg.m_services[0]));
    EXPECT_TRUE(cfg.m_services[0].m_oneshot);
    EXPECT_TRUE(cfg.m_warnings.empty());
}

TEST(RcParser, CarriageReturnLineEndsAreBlanks) {
    rc_config cfg = Parse("service a /x 1\r\n    disabled\r\n");
    ASSERT_EQ(1u, cfg.m_services.size());
    EXPECT_EQ((std::vector<std::string>{"/x", "1"}), Args(cfg.m_services[0]));
    EXPECT_TRUE(cfg.m_services[0].m_disabled);
    EXPECT_TRUE(cfg.m_warnings.empty());
}

TEST(RcParser, LastLineWithoutNewlineIsRead) {
    rc_config cfg = Parse("service a /x\n    oneshot");
    ASSERT_EQ(1u, cfg.m_services.size());
    EXPECT_TRUE(cfg.m_services[0].m_oneshot);
}

TEST(RcParser, OnSectionKeepsMkdirAndSkipsOtherCommands) {
    rc_config cfg = Parse(
        "on boot\n"
        "    setprop a b\n"
        "    mkdir /data/local/log 0771 shell shell\n"
        "    disabled\n"
        "service sleeper /x\n"
        "on property:sys.x=1\n"
        "    oneshot\n"
        "    mkdir /data/a\n"
        "    mkdir /data/b 0700 system\n");
    ASSERT_EQ(1u, cfg.m_services.size());
    // The oneshot line belongs to the second on section, not to the service.
    EXPECT_FALSE(cfg.m_services[0].m_oneshot);
    EXPECT_FALSE(cfg.m_services[0].m_disabled);
    EXPECT_EQ((std::vector<std::string>{"t.rc:2: 'setprop' in an 'on' section skipped",
                                        "t.rc:4: 'disabled' in an 'on' section skipped",
                                        "t.rc:7: 'oneshot' in an 'on' section skipped"}),
              cfg.m_warnings);
    ASSERT_EQ(3u, cfg.m_mkdirs.size());
    EXPECT_EQ("/data/local/log", cfg.m_mkdirs[0].m_path);
    EXPECT_EQ(0771u, cfg.m_mkdirs[0].m_mode);
    EXPECT_EQ(2000u, cfg.m_mkdirs[0].m_uid);
    EXPECT_EQ(2000u, cfg.m_mkdirs[0].m_gid);
    EXPECT_EQ("/data/a", cfg.m_mkdirs[1].m_path);
    EXPECT_EQ(0755u, cfg.m_mkdirs[1].m_mode);
    EXPECT_EQ(0u, cfg.m_mkdirs[1].m_uid);
    EXPECT_EQ(1000u, cfg.m_mkdirs[2].m_uid);
    EXPECT_EQ(1000u, cfg.m_mkdirs[2].m_gid);
}

TEST(RcParser, MalformedMkdirIsSkippedWithAWarning) {
    rc_config cfg = Parse(
        "on boot\n"
        "    mkdir\n"
        "    mkdir relative 0700\n"
        "    mkdir /a 0789\n"
        "    mkdir /b 0700 nobody\n"
        "    mkdir /c 0700 root wheel\n"
        "    mkdir /d 0700 root root extra\n");
    EXPECT_TRUE(cfg.m_mkdirs.empty());
    EXPECT_EQ(6u, cfg.m_warnings.size());
}

TEST(RcParser, ImportIsSkippedWithAWarning) {
    rc_config cfg = Parse("import /init.${ro.hardware}.rc\nservice a /x\n");
    ASSERT_EQ(1u, cfg.m_services.size());
    EXPECT_EQ((std::vector<std::string>{"t.rc:1: 'import' skipped"}), cfg.m_warnings);
}

TEST(RcParser, UnknownOptionsAreSkippedWithAWarning) {
    rc_config cfg = Parse(
        "service a /x\n"
        "    seclabel u:r:sa:s0\n"
        "    socket sa stream 0660 root system\n"
        "    oneshot\n");
    ASSERT_EQ(1u, cfg.m_services.size());
    EXPECT_TRUE(cfg.m_services[0].m_oneshot);
    EXPECT_EQ((std::vector<std::string>{"t.rc:2: unknown option 'seclabel' of service 'a', skipped",
                                        "t.rc:3: unknown option 'socket' of service 'a', skipped"}),
              cfg.m_warnings);
}

TEST(RcParser, ServiceLineWithoutProgramIsSkippedWithItsOptions) {
    rc_config cfg = Parse("service lonely\n    user system\nservice ok /x\n");
    ASSERT_EQ(1u, cfg.m_services.size());
    EXPECT_EQ("ok", cfg.m_services[0].m_name);
    EXPECT_EQ((std::vector<std::string>{"t.rc:1: service needs a name and a program, skipped"}),
              cfg.m_warnings);
}

TEST(RcParser, BareServiceKeywordIsMalformed) {
    rc_config cfg = Parse("service\n");
    EXPECT_TRUE(cfg.m_services.empty());
    EXPECT_EQ((std::vector<std::string>{"t.rc:1: service needs a name and a program, skipped"}),
              cfg.m_warnings);
}

TEST(RcParser, InvalidServiceNamesAreSkipped) {
    rc_config cfg = Parse(
        "service bad/name /x\n"
        "service bad.name /x\n"
        "service a23456789012345678901234 /x\n"
        "service a2345678901234567890ab /x\n");
    ASSERT_EQ(1u, cfg.m_services.size());
    EXPECT_EQ("a2345678901234567890ab", cfg.m_services[0].m_name);  // 22 characters: the longest allowed
    EXPECT_EQ((std::vector<std::string>{"t.rc:1: invalid service name 'bad/name', skipped",
                                        "t.rc:2: invalid service name 'bad.name', skipped",
                                        "t.rc:3: invalid service name 'a23456789012345678901234', skipped"}),
              cfg.m_warnings);
}

TEST(RcParser, RelativeProgramPathIsSkipped) {
    rc_config cfg = Parse("service a sleep 5\n    oneshot\n");
    EXPECT_TRUE(cfg.m_services.empty());
    EXPECT_EQ(
        (std::vector<std::string>{"t.rc:1: program 'sleep' of service 'a' is not an absolute path, skipped"}),
        cfg.m_warnings);
}

TEST(RcParser, DuplicateServiceKeepsTheFirstDefinition) {
    rc_config cfg = Parse("service a /first\nservice a /second\n    disabled\n");
    ASSERT_EQ(1u, cfg.m_services.size());
    EXPECT_EQ("/first", cfg.m_services[0].m_args[0]);
    EXPECT_FALSE(cfg.m_services[0].m_disabled);
    EXPECT_EQ((std::vector<std::string>{"t.rc:2: service 'a' already defined at t.rc:1, skipped"}),
              cfg.m_warnings);
}

TEST(RcParser, OptionsWithWrongArgumentCountsAreSkipped) {
    rc_config cfg = Parse(
        "service a /x\n"
        "    disabled now\n"
        "    oneshot 1\n"
        "    class\n"
        "    class a b\n"
        "    user\n"
        "    user root system\n"
        "    group\n"
        "    group 1 2 3 4 5 6 7 8 9 10 11 12 13 14\n");
    ASSERT_EQ(1u, cfg.m_services.size());
    const rc_service &s = cfg.m_services[0];
    EXPECT_FALSE(s.m_disabled);
    EXPECT_FALSE(s.m_oneshot);
    EXPECT_EQ("default", s.m_class);
    EXPECT_EQ(0u, s.m_uid);
    EXPECT_EQ(0u, s.m_gid);
    EXPECT_EQ((std::vector<std::string>{
                  "t.rc:2: option 'disabled' takes no arguments, skipped",
                  "t.rc:3: option 'oneshot' takes no arguments, skipped",
                  "t.rc:4: option 'class' needs one name, skipped",
                  "t.rc:5: option 'class' needs one name, skipped",
                  "t.rc:6: option 'user' needs one user, skipped",
                  "t.rc:7: option 'user' needs one user, skipped",
                  "t.rc:8: option 'group' needs 1 to 13 groups, skipped",
                  "t.rc:9: option 'group' needs 1 to 13 groups, skipped",
              }),
              cfg.m_warnings);
}

TEST(RcParser, GroupWithThirteenIdsIsAccepted) {
    rc_config cfg = Parse("service a /x\n    group 1 2 3 4 5 6 7 8 9 10 11 12 13\n");
    ASSERT_EQ(1u, cfg.m_services.size());
    EXPECT_EQ(1u, cfg.m_services[0].m_gid);
    EXPECT_EQ(12u, cfg.m_services[0].m_supp_gids.size());
    EXPECT_TRUE(cfg.m_warnings.empty());
}

TEST(RcParser, OptionOutsideAServiceIsSkipped) {
    rc_config cfg = Parse("disabled\nservice a /x\n");
    ASSERT_EQ(1u, cfg.m_services.size());
    EXPECT_FALSE(cfg.m_services[0].m_disabled);
    EXPECT_EQ((std::vector<std::string>{"t.rc:1: 'disabled' outside a service, skipped"}), cfg.m_warnings);
}

TEST(RcParser, UnterminatedQuoteSkipsTheLine) {
    rc_config cfg = Parse("service a /x \"open\n    disabled\nservice b /y\n    class \"main\n    oneshot\n");
    // The broken service line drops the service and its options; the broken option line drops only itself.
    ASSERT_EQ(1u, cfg.m_services.size());
    EXPECT_EQ("b", cfg.m_services[0].m_name);
    EXPECT_EQ("default", cfg.m_services[0].m_class);
    EXPECT_TRUE(cfg.m_services[0].m_oneshot);
    EXPECT_EQ((std::vector<std::string>{"t.rc:1: unterminated quote, line skipped",
                                        "t.rc:4: unterminated quote, line skipped"}),
              cfg.m_warnings);
}

TEST(RcParser, UnterminatedQuoteAtEndOfText) {
    rc_config cfg = Parse("service a /x \"open");
    EXPECT_TRUE(cfg.m_services.empty());
    EXPECT_EQ((std::vector<std::string>{"t.rc:1: unterminated quote, line skipped"}), cfg.m_warnings);
}

TEST(RcParser, LineNumbersCountContinuedLines) {
    rc_config cfg = Parse("service a /x \\\n  y\n    bogus\n");
    EXPECT_EQ((std::vector<std::string>{"t.rc:3: unknown option 'bogus' of service 'a', skipped"}),
              cfg.m_warnings);
}

TEST(RcParser, EmptyTextHasNoServices) {
    rc_config cfg = Parse("");
    EXPECT_TRUE(cfg.m_services.empty());
    EXPECT_TRUE(cfg.m_warnings.empty());
}

TEST(RcParser, ServiceNameValidity) {
    EXPECT_TRUE(rc_service_name_is_valid("zv-qel-sa"));
    EXPECT_TRUE(rc_service_name_is_valid("A_b-9"));
    EXPECT_FALSE(rc_service_name_is_valid(""));
    EXPECT_FALSE(rc_service_name_is_valid("a b"));
    EXPECT_FALSE(rc_service_name_is_valid("a:b"));
    EXPECT_FALSE(rc_service_name_is_valid(std::string(RC_SERVICE_NAME_MAX + 1, 'x')));
    EXPECT_TRUE(rc_service_name_is_valid(std::string(RC_SERVICE_NAME_MAX, 'x')));
}

TEST(RcParser, FolderIsReadInNameOrderAndOnlyRcFiles) {
    char dir[] = "/tmp/rcdir.XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(dir));
    std::string d = dir;
    ASSERT_TRUE(probe_write_file(d + "/b.rc", "service second /x\n"));
    ASSERT_TRUE(probe_write_file(d + "/a.rc", "service first /x\n    bogus\n"));
    ASSERT_TRUE(probe_write_file(d + "/c.rc.bak", "service ignored /x\n"));
    ASSERT_TRUE(probe_write_file(d + "/.hidden.rc", "service hidden /x\n"));
    ASSERT_TRUE(probe_write_file(d + "/notes.txt", "service notes /x\n"));
    rc_config cfg;
    rc_parse_dir(dir, &cfg);
    ASSERT_EQ(2u, cfg.m_services.size());
    EXPECT_EQ("first", cfg.m_services[0].m_name);
    EXPECT_EQ(d + "/a.rc", cfg.m_services[0].m_file);
    EXPECT_EQ("second", cfg.m_services[1].m_name);
    EXPECT_EQ((std::vector<std::string>{d + "/a.rc:2: unknown option 'bogus' of service 'first', skipped"}),
              cfg.m_warnings);
}

TEST(RcParser, DuplicateAcrossFilesNamesTheFirstFile) {
    char dir[] = "/tmp/rcdir.XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(dir));
    std::string d = dir;
    ASSERT_TRUE(probe_write_file(d + "/1.rc", "\nservice a /x\n"));
    ASSERT_TRUE(probe_write_file(d + "/2.rc", "service a /y\n"));
    rc_config cfg;
    rc_parse_dir(dir, &cfg);
    ASSERT_EQ(1u, cfg.m_services.size());
    EXPECT_EQ(
        (std::vector<std::string>{d + "/2.rc:1: service 'a' already defined at " + d + "/1.rc:2, skipped"}),
        cfg.m_warnings);
}

TEST(RcParser, MissingFolderIsAWarning) {
    rc_config cfg;
    rc_parse_dir("/tmp/no-such-rc-folder", &cfg);
    EXPECT_TRUE(cfg.m_services.empty());
    EXPECT_EQ((std::vector<std::string>{
                  "/tmp/no-such-rc-folder:0: can't read the folder: No such file or directory"}),
              cfg.m_warnings);
}

TEST(RcParser, UnreadableRcFileIsAWarning) {
    char dir[] = "/tmp/rcdir.XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(dir));
    std::string d = dir;
    // A folder named like an rc file can be listed but not read.
    ASSERT_EQ(0, mkdir((d + "/dir.rc").c_str(), 0755));
    ASSERT_TRUE(probe_write_file(d + "/ok.rc", "service ok /x\n"));
    rc_config cfg;
    rc_parse_dir(dir, &cfg);
    ASSERT_EQ(1u, cfg.m_services.size());
    EXPECT_EQ((std::vector<std::string>{d + "/dir.rc:0: can't read: Is a directory"}), cfg.m_warnings);
}

}  // namespace
