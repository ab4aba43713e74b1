// Tests of the client's verbs: the request each one sends, its time limit, and what its answer means.
#include "client-verbs.h"

#include <gtest/gtest.h>

namespace {

zv_verb_request parse_one(const std::vector<std::string> &words) {
    std::vector<zv_verb_request> out;
    std::string error;
    EXPECT_TRUE(zv_verb_parse(words, &out, &error)) << error;
    EXPECT_EQ(1u, out.size());
    return out.empty() ? zv_verb_request() : out[0];
}

std::string parse_error(const std::vector<std::string> &words) {
    std::vector<zv_verb_request> out;
    std::string error;
    EXPECT_FALSE(zv_verb_parse(words, &out, &error));
    return error;
}

zv_verb_context answered() {
    zv_verb_context ctx;
    ctx.answered = true;
    return ctx;
}

TEST(ClientVerbs, EachVerbSendsItsRequestLine) {
    EXPECT_EQ("SA+START_SERVICE=\"zv-elog\"\r", parse_one({"start", "zv-elog"}).request);
    EXPECT_EQ("SA+STOP_SERVICE=\"zv-elog\"\r", parse_one({"stop", "zv-elog"}).request);
    EXPECT_EQ("SA+QUERY_SERVICE=\"zv-elog\"\r", parse_one({"query", "zv-elog"}).request);
    EXPECT_EQ("SA+AUTO_START_SERVICE=\"svc\",1\r", parse_one({"autostart", "add", "svc"}).request);
    EXPECT_EQ("SA+AUTO_START_SERVICE=\"svc\",0\r", parse_one({"autostart", "remove", "svc"}).request);
    EXPECT_EQ("SA+AUTO_START_SERVICE=\"svc\",2\r", parse_one({"autostart", "status", "svc"}).request);
    EXPECT_EQ("SA+KERNEL_LOG=1\r", parse_one({"kernel-log", "on"}).request);
    EXPECT_EQ("SA+KERNEL_LOG=0\r", parse_one({"kernel-log", "off"}).request);
    EXPECT_EQ("SA+KERNEL_LOG?\r", parse_one({"kernel-log", "status"}).request);
    EXPECT_EQ("SA+DMESG_LOG=1\r", parse_one({"dmesg-log", "on"}).request);
    EXPECT_EQ("SA+DMESG_LOG?\r", parse_one({"dmesg-log", "status"}).request);
    EXPECT_EQ("SA+DATA_PACKETS_LOG=1\r", parse_one({"packets", "on"}).request);
    EXPECT_EQ("SA+DATA_PACKETS_LOG=0\r", parse_one({"packets", "off"}).request);
    EXPECT_EQ("SA+SAVE_LOG\r", parse_one({"save-log"}).request);
    EXPECT_EQ("SA+DELETE_LOG\r", parse_one({"delete-log"}).request);
    EXPECT_EQ("SA+SYSTEM=\"ls -l /data\"\r", parse_one({"system", "ls", "-l", "/data"}).request);
}

TEST(ClientVerbs, ShellAndKillGoToTheListener) {
    zv_verb_request shell = parse_one({"shell", "ls", "/data"});
    EXPECT_EQ(zv_verb_target::shell, shell.target);
    EXPECT_EQ("shell:ls /data", shell.request);
    EXPECT_FALSE(shell.interactive);
    zv_verb_request interactive = parse_one({"shell"});
    EXPECT_EQ("shell:", interactive.request);
    EXPECT_TRUE(interactive.interactive);
    zv_verb_request kill = parse_one({"kill"});
    EXPECT_EQ(zv_verb_target::kill, kill.target);
    EXPECT_EQ("host:kill", kill.request);
}

TEST(ClientVerbs, RawWordsAreRequestLinesOfTheirOwn) {
    std::vector<zv_verb_request> out;
    std::string error;
    ASSERT_TRUE(zv_verb_parse({"AT", "SA+KERNEL_LOG?"}, &out, &error));
    ASSERT_EQ(2u, out.size());
    EXPECT_EQ("AT\r", out[0].request);
    EXPECT_EQ("SA+KERNEL_LOG?\r", out[1].request);
    EXPECT_EQ(zv_answer_meaning::raw, out[1].meaning);
    out.clear();
    ASSERT_TRUE(zv_verb_parse({"raw", "hello"}, &out, &error));
    ASSERT_EQ(1u, out.size());
    EXPECT_EQ("hello\r", out[0].request);
    // The probe in both spellings the daemon answers, and blanks between SA and "+".
    EXPECT_EQ("at\r", parse_one({"at"}).request);
    EXPECT_EQ("SA +KERNEL_LOG?\r", parse_one({"SA +KERNEL_LOG?"}).request);
    // Any line at all after raw.
    EXPECT_EQ("sa+query_service=\"x\"\r", parse_one({"raw", "sa+query_service=\"x\""}).request);
}

TEST(ClientVerbs, MistypedVerbsAreUsageErrorsThatNameTheNearestVerb) {
    EXPECT_EQ("unknown verb 'savelog' (did you mean save-log?)", parse_error({"savelog"}));
    EXPECT_EQ("unknown verb 'save' (did you mean save-log?)", parse_error({"save"}));
    EXPECT_EQ("unknown verb 'Query' (did you mean query?)", parse_error({"Query", "x"}));
    EXPECT_EQ("unknown verb 'kernellog' (did you mean kernel-log?)", parse_error({"kernellog", "on"}));
    EXPECT_EQ("unknown verb 'sytem' (did you mean system?)", parse_error({"sytem", "true"}));
    // Not a prefix of any verb: the fewest edits.
    EXPECT_EQ("unknown verb 'sanity' (did you mean start?)", parse_error({"sanity"}));
    // Request lines in a case the daemon does not take.
    for (const char *word : {"Sa+QUERY_SERVICE=\"x\"", "sa+query_service=\"x\"", "At"}) {
        EXPECT_EQ(
            "'" + std::string(word) +
                "' is not a request line: the daemon takes SA in capitals, and AT or at (raw sends a line "
                "as it is)",
            parse_error({word}))
            << word;
    }
    // After a request line, every word must be one.
    EXPECT_EQ("unknown verb 'savelog' (did you mean save-log?)", parse_error({"AT", "savelog"}));
    std::vector<zv_verb_request> out;
    std::string error;
    EXPECT_FALSE(zv_verb_parse_line("savelog", &out, &error));
    EXPECT_EQ("unknown verb 'savelog' (did you mean save-log?)", error);
    EXPECT_FALSE(zv_verb_parse_line("Sa+SAVE_LOG", &out, &error));
    EXPECT_TRUE(out.empty());
}

TEST(ClientVerbs, ShellCommandsLongerThanOneListenerReadAreRefused) {
    // "shell:" and the command: 1023 bytes pass, 1024 do not.
    std::string fits(1017, 'x');
    EXPECT_EQ(1023u, parse_one({"shell", fits}).request.size());
    EXPECT_EQ(
        "the shell command is 1018 bytes; the listener reads \"shell:\" and the command in one read of 1023 "
        "bytes, so at most 1017",
        parse_error({"shell", fits + "x"}));
    std::vector<zv_verb_request> out;
    std::string error;
    EXPECT_FALSE(zv_verb_parse_line("shell " + fits + "x", &out, &error));
    EXPECT_TRUE(zv_verb_parse_line("shell " + fits, &out, &error)) << error;
}

TEST(ClientVerbs, UsageErrorsSayWhat) {
    EXPECT_NE(std::string::npos, parse_error({"frobnicate"}).find("unknown verb 'frobnicate'"));
    EXPECT_NE(std::string::npos, parse_error({"query"}).find("one service name"));
    EXPECT_NE(std::string::npos, parse_error({"query", "a", "b"}).find("one service name"));
    EXPECT_NE(std::string::npos, parse_error({"start", "a\"b"}).find("double quote"));
    EXPECT_NE(std::string::npos, parse_error({"start", std::string(40, 'x')}).find("longer than 39"));
    EXPECT_NE(std::string::npos, parse_error({"kernel-log", "maybe"}).find("on, off or status"));
    EXPECT_NE(std::string::npos, parse_error({"packets", "status"}).find("on or off"));
    EXPECT_NE(std::string::npos, parse_error({"autostart", "list", "x"}).find("add, remove or status"));
    EXPECT_NE(std::string::npos, parse_error({"system"}).find("command line"));
    EXPECT_NE(std::string::npos, parse_error({"system", "echo", "\"hi\""}).find("double quote"));
    EXPECT_NE(std::string::npos, parse_error({"save-log", "now"}).find("no arguments"));
    EXPECT_NE(std::string::npos, parse_error({"raw"}).find("one or more"));
}

TEST(ClientVerbs, RequestsLongerThanOneDaemonReadAreRefused) {
    // 199 bytes with the "\r" pass, 200 do not.
    std::string fits(195, 'a');
    EXPECT_EQ(199u, parse_one({"SA+" + fits}).request.size());
    EXPECT_NE(std::string::npos, parse_error({"SA+" + fits + "b"}).find("at most 199"));
    std::string cmd(199 - std::string("SA+SYSTEM=\"\"\r").size(), 'x');
    EXPECT_EQ(199u, parse_one({"system", cmd}).request.size());
    EXPECT_NE(std::string::npos, parse_error({"system", cmd + "x"}).find("200 bytes"));
}

TEST(ClientVerbs, LinesFromStandardInput) {
    std::vector<zv_verb_request> out;
    std::string error;
    ASSERT_TRUE(zv_verb_parse_line("  query   zv-elog ", &out, &error)) << error;
    ASSERT_TRUE(zv_verb_parse_line("system ls  -l   /data", &out, &error)) << error;
    ASSERT_TRUE(zv_verb_parse_line("SA+SYSTEM=\"a b\"", &out, &error)) << error;
    ASSERT_TRUE(zv_verb_parse_line("  SA +KERNEL_LOG?", &out, &error)) << error;
    ASSERT_TRUE(zv_verb_parse_line("shell echo  two  blanks", &out, &error)) << error;
    ASSERT_EQ(5u, out.size());
    EXPECT_EQ("SA+QUERY_SERVICE=\"zv-elog\"\r", out[0].request);
    EXPECT_EQ("SA+SYSTEM=\"ls  -l   /data\"\r", out[1].request);
    EXPECT_EQ("SA+SYSTEM=\"a b\"\r", out[2].request);
    EXPECT_EQ("  SA +KERNEL_LOG?\r", out[3].request);
    EXPECT_EQ("shell:echo  two  blanks", out[4].request);
    EXPECT_FALSE(zv_verb_parse_line("query", &out, &error));
    EXPECT_FALSE(zv_verb_parse_line("anything else", &out, &error));
    EXPECT_EQ(5u, out.size());
}

TEST(ClientVerbs, TimeLimitsFollowTheCommand) {
    EXPECT_EQ(15000, parse_one({"start", "x"}).timeout_ms);
    EXPECT_EQ(20000, parse_one({"stop", "x"}).timeout_ms);
    EXPECT_EQ(600000, parse_one({"save-log"}).timeout_ms);
    EXPECT_EQ(10000, parse_one({"query", "x"}).timeout_ms);
    EXPECT_EQ(120000, parse_one({"system", "true"}).timeout_ms);
    // A raw request gets the limit of the command it names.
    EXPECT_EQ(15000, parse_one({"SA  +start_service=\"x\""}).timeout_ms);
    EXPECT_EQ(10000, parse_one({"AT"}).timeout_ms);
}

TEST(ClientVerbs, QueryAnswersGiveLineValueAndStatus) {
    zv_verb_request q = parse_one({"query", "zv-elog"});
    zv_verb_outcome yes = zv_verb_interpret(q, "\r\nQUERY_SERVICE: 1\r\n\r\nOK\r\n", answered());
    EXPECT_EQ("zv-elog: running", yes.line);
    EXPECT_EQ(kExitOk, yes.exit_code);
    EXPECT_EQ("1", yes.value_json);
    EXPECT_TRUE(yes.ok);
    zv_verb_outcome no = zv_verb_interpret(q, "\r\nQUERY_SERVICE: 0\r\n\r\nOK\r\n", answered());
    EXPECT_EQ("zv-elog: not running", no.line);
    EXPECT_EQ(kExitNegative, no.exit_code);
    EXPECT_EQ("0", no.value_json);
    zv_verb_outcome err = zv_verb_interpret(q, "\r\nERROR: 4294967295\r\n", answered());
    EXPECT_EQ(kExitError, err.exit_code);
    EXPECT_FALSE(err.ok);
    EXPECT_EQ("query: refused (ERROR: 4294967295)", err.line);
}

TEST(ClientVerbs, AutostartStatusAndSwitches) {
    zv_verb_outcome listed = zv_verb_interpret(parse_one({"autostart", "status", "s"}),
                                               "\r\nAUTO_START_SERVICE: 0\r\n\r\nOK\r\n", answered());
    EXPECT_EQ("s: not in the auto-start list", listed.line);
    EXPECT_EQ(kExitNegative, listed.exit_code);
    EXPECT_EQ("s: in the auto-start list",
              zv_verb_interpret(parse_one({"autostart", "add", "s"}), "\r\nOK\r\n", answered()).line);
    zv_verb_outcome off =
        zv_verb_interpret(parse_one({"kernel-log", "status"}), "\r\nKERNEL_LOG: 0\r\n\r\nOK\r\n", answered());
    EXPECT_EQ("kernel log: off", off.line);
    EXPECT_EQ(kExitOk, off.exit_code);
    EXPECT_EQ("dmesg log: on",
              zv_verb_interpret(parse_one({"dmesg-log", "on"}), "\r\nOK\r\n", answered()).line);
    // An item that is neither 0 nor 1 is not taken for either.
    zv_verb_outcome odd =
        zv_verb_interpret(parse_one({"kernel-log", "status"}), "\r\nKERNEL_LOG: 7\r\n\r\nOK\r\n", answered());
    EXPECT_EQ(kExitError, odd.exit_code);
}

TEST(ClientVerbs, SaveLogNamesItsFolderOrTheMissingCard) {
    zv_verb_request save = parse_one({"save-log"});
    zv_verb_context ctx = answered();
    ctx.saved_folder = "/storage/real_sd/logs/2026_11_25_10_00_00";
    zv_verb_outcome out = zv_verb_interpret(save, "\r\nOK\r\n", ctx);
    EXPECT_EQ("saved to /storage/real_sd/logs/2026_11_25_10_00_00", out.line);
    EXPECT_EQ("\"/storage/real_sd/logs/2026_11_25_10_00_00\"", out.value_json);
    ctx.card_present = false;
    out = zv_verb_interpret(save, "\r\nERROR: 4294967295\r\n", ctx);
    EXPECT_EQ("save-log: no card (/storage/real_sd is absent); nothing saved (ERROR: 4294967295)", out.line);
    EXPECT_EQ(kExitError, out.exit_code);
}

TEST(ClientVerbs, NoAnswerIsATimeoutAndAClosedChannelIsAChannelFailure) {
    zv_verb_request q = parse_one({"query", "x"});
    zv_verb_context ctx;
    EXPECT_EQ(kExitTimeout, zv_verb_interpret(q, "", ctx).exit_code);
    EXPECT_EQ("query: no answer within 10 s", zv_verb_interpret(q, "", ctx).line);
    ctx.closed = true;
    EXPECT_EQ(kExitUsage, zv_verb_interpret(q, "", ctx).exit_code);
    // A raw request shows whatever came.
    EXPECT_EQ("\\r\\nQUERY_SERVICE: 1",
              zv_verb_interpret(parse_one({"AT"}), "\r\nQUERY_SERVICE: 1", ctx).line);
}

TEST(ClientVerbs, ItemValue) {
    EXPECT_EQ("1", zv_answer_item_value("\r\nQUERY_SERVICE: 1\r\n\r\nOK\r\n"));
    EXPECT_EQ("", zv_answer_item_value("\r\nOK\r\n"));
    EXPECT_EQ("", zv_answer_item_value("\r\nERROR: 4294967295\r\n"));
    EXPECT_EQ("", zv_answer_item_value(""));
}

TEST(ClientVerbs, JsonStringsEscapeEveryControlByte) {
    EXPECT_EQ("\"a\\\"b\\\\c\\r\\n\\t\\u0001\\u00ff\"", zv_json_string(std::string("a\"b\\c\r\n\t\x01\xff")));
    EXPECT_EQ("\\r\\n\\x01", zv_visible("\r\n\x01"));
}

TEST(ClientVerbs, ExitStatusOfSeveralRequestsIsTheMostTelling) {
    EXPECT_EQ(kExitOk, zv_exit_combine(kExitOk, kExitOk));
    EXPECT_EQ(kExitNegative, zv_exit_combine(kExitOk, kExitNegative));
    EXPECT_EQ(kExitError, zv_exit_combine(kExitNegative, kExitError));
    EXPECT_EQ(kExitTimeout, zv_exit_combine(kExitTimeout, kExitError));
    EXPECT_EQ(kExitUsage, zv_exit_combine(kExitTimeout, kExitUsage));
    EXPECT_EQ(kExitUsage, zv_exit_combine(kExitUsage, kExitOk));
}

}  // namespace
