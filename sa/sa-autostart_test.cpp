// Tests of the auto-start list: loading the 400-byte file image at start-up, starting the listed services
// through the simulated init (its property request history shows each request), and the
// "+AUTO_START_SERVICE" handler with its three modes, every answer and the exact bytes on disk. Each
// test runs in a fresh handset, so the list and /data start empty.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include "sa-autostart.h"
#include "sa-handle.h"
#include "handler.h"
#include "service.h"

using namespace svctest;
using namespace zvtest;

namespace {

constexpr char kListFile[] = "/data/zv-qel-sa/auto-start.lst";
constexpr char kListDir[] = "/data/zv-qel-sa";

// The file image of a list: each name NUL-padded to 40 bytes, "" for a free slot.
std::string Image(const std::vector<std::string> &slots) {
    std::string out;
    for (size_t i = 0; i < SA_AUTO_START_SLOTS; ++i) {
        std::string slot = i < slots.size() ? slots[i] : "";
        slot.resize(SA_SERVICE_NAME_SIZE, '\0');
        out += slot;
    }
    return out;
}

std::string Slot(int i) {
    return std::string(auto_start_service_list[i], SA_SERVICE_NAME_SIZE);
}
std::string Padded(const std::string &name) {
    std::string s = name;
    s.resize(SA_SERVICE_NAME_SIZE, '\0');
    return s;
}

handler_call_st Auto(const std::string &param) {
    return call_handler(handle_sa_auto_start_service_set, param);
}
std::string Member(int value) {
    return "\r\nAUTO_START_SERVICE: " + std::to_string(value) + "\r\n\r\nOK\r\n";
}

class AutoStartTest : public ::testing::Test {
   protected:
    void SetUp() override {
        PrepareSaLog();
        umask(0);
    }
    // Loads the list as start-up does; the file (if given) is written first.
    long ReadList(const std::string *file = nullptr) {
        if (file != nullptr) {
            mkdir(kListDir, 0770);
            EXPECT_TRUE(write_file(kListFile, *file));
        }
        return auto_start_service_list_read();
    }
    // Fills the list through the handler with names n0..n(count-1).
    void AddNames(int count) {
        for (int i = 0; i < count; ++i) ASSERT_EQ(kOk, Auto("\"n" + std::to_string(i) + "\",1\r").m_answer);
    }
};

// ---- loading ----

TEST_F(AutoStartTest, ReadCreatesTheDirectoryWithMode0770AndAMissingFileLeavesTheListEmpty) {
    EXPECT_EQ(-118, ReadList());
    struct stat st;
    ASSERT_EQ(0, stat(kListDir, &st));
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(0770u, st.st_mode & 07777);
    EXPECT_STREQ(kListFile, auto_start_service_list_path);
    EXPECT_EQ(std::string(400, '\0'), std::string(&auto_start_service_list[0][0], 400));
    EXPECT_GE(find_message(sa_log_messages(),
                           "auto_start_service_list_read open file \"/data/zv-qel-sa/auto-start.lst\" "
                           "fail: 2 - No such file or directory"),
              0);
}

TEST_F(AutoStartTest, ReadLoadsAFullFile) {
    std::vector<std::string> names;
    for (int i = 0; i < 10; ++i) names.push_back("svc-" + std::to_string(i));
    std::string file = Image(names);
    EXPECT_EQ(0, ReadList(&file));
    EXPECT_EQ(file, std::string(&auto_start_service_list[0][0], 400));
    for (const auto &m : sa_log_messages()) EXPECT_EQ(std::string::npos, m.find("write not completed")) << m;
}

TEST_F(AutoStartTest, FileOf200BytesLoadsSlotsZeroToFourAndLeavesFiveToNineFree) {
    std::string file = Image({"a0", "a1", "a2", "a3", "a4"}).substr(0, 200);
    ASSERT_EQ(200u, file.size());
    EXPECT_EQ(0, ReadList(&file));
    for (int i = 0; i < 5; ++i) EXPECT_EQ(Padded("a" + std::to_string(i)), Slot(i));
    for (int i = 5; i < 10; ++i) EXPECT_EQ(std::string(40, '\0'), Slot(i));
    EXPECT_EQ(1,
              CountMessage(sa_log_messages(),
                           "auto_start_service_list_read write not completed: to write(10) != written(5)"));
    // Mode 1 now fills slot 5, the first free one.
    EXPECT_EQ(kOk, Auto("\"a5\",1\r").m_answer);
    EXPECT_EQ(Image({"a0", "a1", "a2", "a3", "a4", "a5"}), read_file(kListFile));
}

TEST_F(AutoStartTest, APartRecordAtTheEndOfTheFileStaysFree) {
    std::string file = Image({"b0", "b1"}).substr(0, 80) + "partial";
    EXPECT_EQ(0, ReadList(&file));
    EXPECT_EQ(Padded("b1"), Slot(1));
    EXPECT_EQ(std::string(40, '\0'), Slot(2));
    EXPECT_EQ(1,
              CountMessage(sa_log_messages(),
                           "auto_start_service_list_read write not completed: to write(10) != written(2)"));
}

TEST_F(AutoStartTest, ASlotFullOf40NameBytesIsUsedWithinItsBounds) {
    std::string forty(40, 'f');
    std::string file = forty + Image({}).substr(40, 320) + forty;
    ASSERT_EQ(400u, file.size());
    EXPECT_EQ(0, ReadList(&file));
    // The 39-character prefix is another name.
    EXPECT_EQ(Member(0), Auto("\"" + forty.substr(0, 39) + "\",2\r").m_answer);
    size_t before = History().size();
    auto_start_service_list_run();
    EXPECT_EQ(2,
              CountMessage(sa_log_messages(), "auto_start_service_list_run Try to start service: " + forty));
    EXPECT_EQ(before + 2, History().size());
}

TEST_F(AutoStartTest, MissingDirectoryKeepsTheListEmptyAndWritesGoToTheDirectoryPath) {
    // A dangling link: mkdir can't create the directory and access finds none.
    ASSERT_EQ(0, symlink("/data/elsewhere/list", kListDir));
    EXPECT_EQ(-104, ReadList());
    EXPECT_STREQ(kListDir, auto_start_service_list_path);
    EXPECT_EQ(std::string(400, '\0'), std::string(&auto_start_service_list[0][0], 400));
    // Opening "/data/zv-qel-sa" for writing fails here: the answer is the error, the table keeps the name.
    handler_call_st a = Auto("\"zv-svc-plain\",1\r");
    EXPECT_EQ(0, a.m_ret);
    EXPECT_EQ(kError, a.m_answer);
    EXPECT_EQ(Member(1), Auto("\"zv-svc-plain\",2\r").m_answer);
    std::vector<std::string> log = sa_log_messages();
    EXPECT_GE(
        find_message(log,
                     "auto_start_service_list_update open file \"/data/zv-qel-sa\" fail: 2 - No such file "
                     "or directory"),
        0);
    EXPECT_GE(
        find_message(log, "auto_start_service_list_update Enable service \"zv-svc-plain\" auto start fail"),
        0);
}

TEST_F(AutoStartTest, MissingDirectoryWhereTheWriteSucceedsPutsThe400BytesInAPlainFileOfThatName) {
    ASSERT_EQ(0, symlink("/data/plain-list", kListDir));
    EXPECT_EQ(-104, ReadList());
    EXPECT_EQ(kOk, Auto("\"zv-svc-plain\",1\r").m_answer);
    EXPECT_EQ(Image({"zv-svc-plain"}), read_file(kListDir));
    EXPECT_EQ(Image({"zv-svc-plain"}), read_file("/data/plain-list"));
}

// ---- running at start-up ----

TEST_F(AutoStartTest, RunStartsEveryListedServiceInSlotOrderWithoutWaiting) {
    std::string file = Image({"zv-svc-plain", "", "zv-auto-test"});
    EXPECT_EQ(0, ReadList(&file));
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(0, auto_start_service_list_run());
    EXPECT_LT(Since(start), 1.0);
    EXPECT_EQ((std::vector<std::string>{"ctl.start=zv-svc-plain", "ctl.start=zv-auto-test"}), History());
    std::vector<std::string> log = sa_log_messages();
    int first = find_message(log, "auto_start_service_list_run Try to start service: zv-svc-plain");
    EXPECT_GE(first, 0);
    EXPECT_GT(find_message(log, "auto_start_service_list_run Try to start service: zv-auto-test"), first);
    EXPECT_TRUE(WaitRunning("zv-svc-plain", 10s));
    EXPECT_TRUE(WaitRunning("zv-auto-test", 10s));
}

TEST_F(AutoStartTest, FamilyEntryStartsMla0ToMla4) {
    std::string file = Image({"zv-qel-mla"});
    EXPECT_EQ(0, ReadList(&file));
    EXPECT_EQ(0, auto_start_service_list_run());
    EXPECT_EQ(
        (std::vector<std::string>{"ctl.start=zv-qel-mla0", "ctl.start=zv-qel-mla1", "ctl.start=zv-qel-mla2",
                                  "ctl.start=zv-qel-mla3", "ctl.start=zv-qel-mla4"}),
        History());
    for (int i = 0; i <= 4; ++i) EXPECT_TRUE(WaitRunning("zv-qel-mla" + std::to_string(i), 10s)) << i;
    EXPECT_TRUE(PidsNamed("zv-qel-mla5").empty());
}

TEST_F(AutoStartTest, EntryMla1StartsOnlyMla1) {
    std::string file = Image({"zv-qel-mla1"});
    EXPECT_EQ(0, ReadList(&file));
    EXPECT_EQ(0, auto_start_service_list_run());
    EXPECT_EQ(std::vector<std::string>{"ctl.start=zv-qel-mla1"}, History());
}

TEST_F(AutoStartTest, RunTracesAFailedStartAndGoesOnWithTheNextSlot) {
    std::string file = Image({"zv-qel-mla", "zv-svc-plain"});
    EXPECT_EQ(0, ReadList(&file));
    PropertyServiceDown down;
    ASSERT_TRUE(down.ok());
    EXPECT_EQ(-118, auto_start_service_list_run());
    std::vector<std::string> log = sa_log_messages();
    int family = find_message(log, "auto_start_service_list_run error to exec: setprop ctl.start zv-qel-mla");
    EXPECT_GE(family, 0);
    EXPECT_GT(find_message(log, "auto_start_service_list_run error to exec: setprop ctl.start zv-svc-plain"),
              family);
    EXPECT_TRUE(History().empty());
}

// ---- the handler ----

TEST_F(AutoStartTest, AddWritesTheWhole400ByteImage) {
    ReadList();
    handler_call_st a = Auto("\"zv-svc-plain\",1\r");
    EXPECT_EQ(0, a.m_ret);
    EXPECT_EQ(kOk, a.m_answer);
    EXPECT_EQ(Image({"zv-svc-plain"}), read_file(kListFile));
    EXPECT_GE(find_message(sa_log_messages(),
                           "auto_start_service_list_update Enable service \"zv-svc-plain\" auto start OK"),
              0);
    // Adding does not start the service now.
    EXPECT_TRUE(History().empty());
}

TEST_F(AutoStartTest, AddingANameThatIsAlreadyPresentAnswersOkAndWritesNothing) {
    ReadList();
    ASSERT_EQ(kOk, Auto("\"zv-svc-plain\",1\r").m_answer);
    ASSERT_TRUE(write_file(kListFile, "marker"));
    EXPECT_EQ(kOk, Auto("\"zv-svc-plain\",1\r").m_answer);
    EXPECT_EQ("marker", read_file(kListFile));
}

TEST_F(AutoStartTest, RemovingAnAbsentNameAnswersOkAndWritesNothing) {
    ReadList();
    EXPECT_EQ(kOk, Auto("\"zv-svc-plain\",0\r").m_answer);
    EXPECT_FALSE(file_exists(kListFile));
    ASSERT_EQ(kOk, Auto("\"zv-other\",1\r").m_answer);
    ASSERT_TRUE(write_file(kListFile, "marker"));
    EXPECT_EQ(kOk, Auto("\"zv-svc-plain\",0\r").m_answer);
    EXPECT_EQ("marker", read_file(kListFile));
}

TEST_F(AutoStartTest, RemoveFreesTheSlotAndRewritesTheFile) {
    ReadList();
    ASSERT_EQ(kOk, Auto("\"s0\",1\r").m_answer);
    ASSERT_EQ(kOk, Auto("\"s1\",1\r").m_answer);
    ASSERT_EQ(kOk, Auto("\"s2\",1\r").m_answer);
    EXPECT_EQ(kOk, Auto("\"s1\",0\r").m_answer);
    EXPECT_EQ(Image({"s0", "", "s2"}), read_file(kListFile));
    EXPECT_GE(find_message(sa_log_messages(),
                           "auto_start_service_list_update Disable service \"s1\" auto start OK"),
              0);
    EXPECT_EQ(Member(0), Auto("\"s1\",2\r").m_answer);
}

TEST_F(AutoStartTest, WithAllTenSlotsInUseANewNameAnswersErrorAndChangesNothing) {
    ReadList();
    AddNames(10);
    std::string before = read_file(kListFile);
    ASSERT_EQ(400u, before.size());
    handler_call_st a = Auto("\"n10\",1\r");
    EXPECT_EQ(0, a.m_ret);
    EXPECT_EQ(kError, a.m_answer);
    EXPECT_EQ(before, read_file(kListFile));
    EXPECT_EQ(before, std::string(&auto_start_service_list[0][0], 400));
    EXPECT_EQ(Member(0), Auto("\"n10\",2\r").m_answer);
    std::vector<std::string> log = sa_log_messages();
    EXPECT_GE(find_message(log, "auto_start_service_list_update no free space for \"n10\""), 0);
    EXPECT_GE(find_message(log, "auto_start_service_list_update Enable service \"n10\" auto start fail"), 0);
}

TEST_F(AutoStartTest, RemovingSlotThreeOfAFullListAndAddingPutsTheNewNameInSlotThree) {
    ReadList();
    AddNames(10);
    EXPECT_EQ(kOk, Auto("\"n3\",0\r").m_answer);
    EXPECT_EQ(kOk, Auto("\"fresh\",1\r").m_answer);
    EXPECT_EQ(Image({"n0", "n1", "n2", "fresh", "n4", "n5", "n6", "n7", "n8", "n9"}), read_file(kListFile));
}

TEST_F(AutoStartTest, Mode2ForANameNeverListedAnswersZero) {
    ReadList();
    handler_call_st a = Auto("\"zv-never\",2\r");
    EXPECT_EQ(0, a.m_ret);
    EXPECT_EQ(Member(0), a.m_answer);
    EXPECT_FALSE(file_exists(kListFile));
}

TEST_F(AutoStartTest, Mode2ForAListedNameAnswersOne) {
    ReadList();
    ASSERT_EQ(kOk, Auto("\"zv-svc-plain\",1\r").m_answer);
    EXPECT_EQ(Member(1), Auto("\"zv-svc-plain\",2\r").m_answer);
    // Exact and case-sensitive: neither a part nor another case is a member.
    EXPECT_EQ(Member(0), Auto("\"zv-svc\",2\r").m_answer);
    EXPECT_EQ(Member(0), Auto("\"ZV-SVC-PLAIN\",2\r").m_answer);
}

TEST_F(AutoStartTest, BlanksBeforeTheModeAreAllowed) {
    ReadList();
    EXPECT_EQ(kOk, Auto("\"zv-svc-plain\",   1\r").m_answer);
    EXPECT_EQ(Image({"zv-svc-plain"}), read_file(kListFile));
}

TEST_F(AutoStartTest, NameOf39CharactersIsStoredWithItsTerminator) {
    ReadList();
    std::string name(39, 'q');
    EXPECT_EQ(kOk, Auto("\"" + name + "\",1\r").m_answer);
    EXPECT_EQ(Image({name}), read_file(kListFile));
    EXPECT_EQ(Member(1), Auto("\"" + name + "\",2\r").m_answer);
}

TEST_F(AutoStartTest, BadInputAnswersErrorAndChangesNothingOnDisk) {
    ReadList();
    ASSERT_EQ(kOk, Auto("\"keep\",1\r").m_answer);
    const std::string before = read_file(kListFile);
    const std::vector<std::string> bad = {
        "\"zv-x\",3\r",                        // mode 3
        "\"zv-x\",-1\r",                       // negative mode
        "\"zv-x\",4294967296\r",               // wraps to 0 in 32 bits
        "\"zv-x\",4294967297\r",               // wraps to 1 in 32 bits
        "\"zv-x\",99999999999999999999999\r",  // beyond long
        "\"zv-x\"1\r",                         // missing comma
        "\"zv-x\" ,1\r",                       // blank before the comma
        "\"zv-x\",\r",                         // missing mode
        "\"zv-x\",x\r",                        // mode not a number
        "zv-x,1\r",                            // unquoted name
        "\"\",1\r",                            // empty quotes
        "\"zv-x,1\r",                          // unclosed quote
        "\"" + std::string(40, 'z') + "\",1\r",
        "\"" + std::string(199, 'z') + "\",1\r",
        "\"keep\",-1\r",  // a listed name with a bad mode is not removed
        "\"keep\",4294967296\r",
    };
    for (const auto &param : bad) {
        handler_call_st a = Auto(param);
        EXPECT_EQ(0, a.m_ret) << param;
        EXPECT_EQ(kError, a.m_answer) << param;
        EXPECT_EQ(before, read_file(kListFile)) << param;
    }
    EXPECT_EQ(Image({"keep"}), std::string(&auto_start_service_list[0][0], 400));
}

TEST_F(AutoStartTest, BadHandlerArgumentsReturnMinus101AndAnswerNothing) {
    ReadList();
    expect_refuses_bad_arguments(handle_sa_auto_start_service_set, "\"zv-x\",1\r");
    EXPECT_FALSE(file_exists(kListFile));
}

TEST_F(AutoStartTest, AFileThatCannotBeOpenedForWritingAnswersErrorAndTheTableKeepsTheChange) {
    ReadList();
    ASSERT_EQ(0, mkdir(kListFile, 0770));  // a folder where the file should be
    handler_call_st a = Auto("\"first\",1\r");
    EXPECT_EQ(0, a.m_ret);
    EXPECT_EQ(kError, a.m_answer);
    EXPECT_EQ(Member(1), Auto("\"first\",2\r").m_answer);
    EXPECT_GE(find_message(sa_log_messages(),
                           "auto_start_service_list_update open file \"/data/zv-qel-sa/auto-start.lst\" "
                           "fail: 21 - Is a directory"),
              0);
    // The next successful write brings the file in line.
    ASSERT_EQ(0, rmdir(kListFile));
    EXPECT_EQ(kOk, Auto("\"second\",1\r").m_answer);
    EXPECT_EQ(Image({"first", "second"}), read_file(kListFile));
}

TEST_F(AutoStartTest, AShortWriteOnAFullDataPartitionIsTracedAndStillAnswersOk) {
    ReadList();
    // sa.log must keep room for the lines of the call: leave its last page nearly empty, so that
    // appending needs no new page once /data is full.
    std::string pad = read_file(kSaLog);
    size_t size = pad.size();
    size_t want = (size / 4096 + 1) * 4096 + 1;
    {
        std::string filler(want - size - 1, 'P');
        filler += '\n';
        FILE *fp = fopen(kSaLog, "ae");
        ASSERT_NE(nullptr, fp);
        ASSERT_EQ(1u, fwrite(filler.data(), filler.size(), 1, fp));
        ASSERT_EQ(0, fclose(fp));
    }
    ASSERT_EQ(want, read_file(kSaLog).size());
    // Fill /data to its last byte.
    int fd = open("/data/filler", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
    std::string chunk(65536, 'F');
    for (size_t len : {size_t{65536}, size_t{4096}, size_t{1}}) {
        while (write(fd, chunk.data(), len) == static_cast<ssize_t>(len)) {
        }
    }
    close(fd);

    handler_call_st a = Auto("\"zv-svc-plain\",1\r");
    EXPECT_EQ(0, a.m_ret);
    EXPECT_EQ(kOk, a.m_answer);
    EXPECT_TRUE(file_exists(kListFile));
    EXPECT_LT(read_file(kListFile).size(), 400u);
    std::vector<std::string> log = sa_log_messages();
    EXPECT_GE(
        find_message(log, "auto_start_service_list_update write not completed: to write(10) != written(0)"),
        0);
    EXPECT_GE(
        find_message(log, "auto_start_service_list_update Enable service \"zv-svc-plain\" auto start OK"), 0);
    unlink("/data/filler");
}

}  // namespace
