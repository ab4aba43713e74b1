// Tests of the log configuration: the property grammar, the service table, and the log folder set-up.
#include <gtest/gtest.h>

#include <stdint.h>
#include <sys/stat.h>

#include <string>

#include "capture.h"
#include "sa-capture.h"

using namespace sa_capture_test;

namespace {

constexpr char kPropFile[] = "/dev/__properties__/" SA_LOG_CONFIG_PROP;

class LogCfgTest : public ::testing::Test {
   protected:
    void SetUp() override {
        start_log_client();
        memset(g_zv_log_svc, 0, sizeof(g_zv_log_svc));
    }
    // Parses a copy of text.
    long Parse(const std::string &text) {
        std::vector<char> buf(text.begin(), text.end());
        buf.push_back('\0');
        return parse_zv_log_config(buf.data());
    }
    // Marks every record so that untouched fields can be told apart.
    void MarkTable() {
        for (int i = 0; i < SA_LOG_SVC_NUM; ++i) {
            sa_log_svc_st *svc = &g_zv_log_svc[i];
            svc->svc_pid = 1000 + i;
            svc->mthread_id = static_cast<pthread_t>(2000 + i);
            snprintf(svc->type, sizeof(svc->type), "Z%d", i);
            svc->type_id = 90 + i;
            snprintf(svc->file_num, sizeof(svc->file_num), "old");
            svc->file_num_val = 77;
            snprintf(svc->file_size, sizeof(svc->file_size), "old");
            svc->file_size_val = 88;
        }
    }
};

void ExpectRecord(int slot, const char *type, const char *num, int32_t num_val, const char *size,
                  int32_t size_val) {
    const sa_log_svc_st &svc = g_zv_log_svc[slot - 1];
    EXPECT_STREQ(type, svc.type) << "slot " << slot;
    EXPECT_EQ(slot, svc.type_id) << "slot " << slot;
    EXPECT_STREQ(num, svc.file_num) << "slot " << slot;
    EXPECT_EQ(num_val, svc.file_num_val) << "slot " << slot;
    EXPECT_STREQ(size, svc.file_size) << "slot " << slot;
    EXPECT_EQ(size_val, svc.file_size_val) << "slot " << slot;
}

TEST_F(LogCfgTest, UnsetPropertyGivesTheDefaultTable) {
    unlink(kPropFile);
    EXPECT_EQ(0, get_zv_log_config());
    EXPECT_STREQ("/data/local/log", g_log_path_a);
    ExpectRecord(1, "I1", "3", 3, "5120", 5120);
    ExpectRecord(2, "I2", "5", 5, "8192", 8192);
    ExpectRecord(3, "I3", "5", 5, "20480", 20480);
    ExpectRecord(4, "I4", "5", 5, "5120", 5120);
    ExpectRecord(5, "I5", "5", 5, "5120", 5120);
    ExpectRecord(6, "I6", "5", 5, "5120", 5120);
    EXPECT_NE(std::string::npos,
              log_find("get_zv_log_config zv_log_config_value=[" SA_LOG_CONFIG_DEFAULT "]"));
    EXPECT_NE(std::string::npos,
              log_find("parse_zv_log_config g_zv_log_svc[2]: type[I3] type_id[3] file_num[5] file_num_val[5] "
                       "file_size[20480] file_size_val[20480]"));
    auto messages = sa_log_messages();
    EXPECT_GE(find_message(messages, "get_zv_log_config exit ret_val[0]"), 0);
}

TEST_F(LogCfgTest, EmptyPropertyFileGivesTheDefault) {
    write_file(kPropFile, "");
    EXPECT_EQ(0, get_zv_log_config());
    ExpectRecord(6, "I6", "5", 5, "5120", 5120);
}

TEST_F(LogCfgTest, PropertyValueIsReadFromThePropertyArea) {
    write_file(kPropFile, "/data/x,I1,1,2,I2,3,4,I3,5,6,I4,7,8,I5,9,10,I6,11,12");
    EXPECT_EQ(0, get_zv_log_config());
    EXPECT_STREQ("/data/x", g_log_path_a);
    ExpectRecord(1, "I1", "1", 1, "2", 2);
    ExpectRecord(6, "I6", "11", 11, "12", 12);
}

TEST_F(LogCfgTest, FiveGroupsFailWithLogTypeI6AfterFiveRecordsWereOverwritten) {
    MarkTable();
    write_file(kPropFile, "/data/x,I1,1,1,I2,1,1,I3,1,1,I4,1,1,I5,1,1");
    EXPECT_EQ(-100, get_zv_log_config());
    EXPECT_NE(std::string::npos, log_find("Get Log Type Failed. LogTypeID=I6"));
    EXPECT_NE(std::string::npos, log_find("Parse zv log config failed"));
    EXPECT_STREQ("/data/x", g_log_path_a);
    for (int slot = 1; slot <= 5; ++slot) {
        std::string type = "I" + std::to_string(slot);
        ExpectRecord(slot, type.c_str(), "1", 1, "1", 1);
    }
    // The sixth record keeps its old content: no roll-back, no partial write.
    EXPECT_STREQ("Z5", g_zv_log_svc[5].type);
    EXPECT_EQ(95, g_zv_log_svc[5].type_id);
    EXPECT_EQ(77, g_zv_log_svc[5].file_num_val);
    EXPECT_EQ(-1, find_message(sa_log_messages(), "get_zv_log_config exit ret_val[0]"));
}

TEST_F(LogCfgTest, DoubledCommasParseLikeSingleCommas) {
    ASSERT_EQ(0, Parse("/data/y,I1,2,3,I2,4,5,I3,6,7,I4,8,9,I5,10,11,I6,12,13"));
    sa_log_svc_st single[SA_LOG_SVC_NUM];
    memcpy(single, g_zv_log_svc, sizeof(single));
    memset(g_zv_log_svc, 0, sizeof(g_zv_log_svc));
    ASSERT_EQ(0, Parse(",,/data/y,,I1,,2,,3,,I2,,4,,5,,I3,6,,,7,I4,,8,,9,,I5,,10,,11,,I6,,12,,13,,"));
    EXPECT_STREQ("/data/y", g_log_path_a);
    EXPECT_EQ(0, memcmp(single, g_zv_log_svc, sizeof(single)));
}

TEST_F(LogCfgTest, SeventhGroupIsIgnoredWithoutAnyTrace) {
    size_t before = log_text().size();
    ASSERT_EQ(0, Parse("/d,I1,1,1,I2,1,1,I3,1,1,I4,1,1,I5,1,1,I6,1,1,I7,9,9"));
    std::string added = log_text().substr(before);
    EXPECT_NE(std::string::npos, added.find("g_zv_log_svc[5]: type[I6]"));
    EXPECT_EQ(std::string::npos, added.find("I7"));
    EXPECT_EQ(std::string::npos, added.find("g_zv_log_svc[6]"));
}

TEST_F(LogCfgTest, MissingCountAndMissingSizeAreTracedWithTheirSlot) {
    EXPECT_EQ(-100, Parse("/d,I1,1,1,I2"));
    EXPECT_NE(std::string::npos, log_find("Get Log File Num Failed. LogTypeID=I2"));
    // The label of the failing group is already stored.
    EXPECT_STREQ("I2", g_zv_log_svc[1].type);
    EXPECT_EQ(2, g_zv_log_svc[1].type_id);
    EXPECT_EQ(-100, Parse("/d,I1,1,1,I2,1,1,I3,4"));
    EXPECT_NE(std::string::npos, log_find("Get Log File Size Failed. LogTypeID=I3"));
    EXPECT_EQ(4, g_zv_log_svc[2].file_num_val);
}

TEST_F(LogCfgTest, EmptyValueHasNoLogPath) {
    EXPECT_EQ(-100, Parse(""));
    EXPECT_EQ(-100, Parse(",,,"));
    EXPECT_NE(std::string::npos, log_find("Log path is null!!!"));
}

TEST_F(LogCfgTest, LabelOfFourCharactersFailsTheParseWithATrace) {
    MarkTable();
    EXPECT_EQ(-100, Parse("/d,I1,1,1,I222,1,1,I3,1,1,I4,1,1,I5,1,1,I6,1,1"));
    EXPECT_NE(std::string::npos, log_find("Log Type[I222] too long. LogTypeID=I2"));
    ExpectRecord(1, "I1", "1", 1, "1", 1);
    EXPECT_STREQ("Z1", g_zv_log_svc[1].type);
    // Three characters fit.
    EXPECT_EQ(0, Parse("/d,I1,1,1,I22,1,1,I3,1,1,I4,1,1,I5,1,1,I6,1,1"));
    EXPECT_STREQ("I22", g_zv_log_svc[1].type);
}

TEST_F(LogCfgTest, CountOrSizeTextOfFortyCharactersFailsTheParse) {
    std::string n39(39, '7');
    std::string n40(40, '7');
    EXPECT_EQ(-100, Parse("/d,I1," + n40 + ",1,I2,1,1,I3,1,1,I4,1,1,I5,1,1,I6,1,1"));
    EXPECT_NE(std::string::npos, log_find("Log File Num[" + n40 + "] too long. LogTypeID=I1"));
    EXPECT_EQ(-100, Parse("/d,I1,1," + n40 + ",I2,1,1"));
    EXPECT_NE(std::string::npos, log_find("Log File Size[" + n40 + "] too long. LogTypeID=I1"));
    EXPECT_EQ(-100, Parse("/d,I1," + n39 + "," + n39));  // fits; fails later for the missing groups
    EXPECT_EQ(n39, std::string(g_zv_log_svc[0].file_num));
    EXPECT_EQ(n39, std::string(g_zv_log_svc[0].file_size));
}

TEST_F(LogCfgTest, NumbersAreConvertedLikeStrtol) {
    ASSERT_EQ(0, Parse("/d,I1,abc,12abc,I2,-3,+4,I3, 5,0x10,I4,0,0,I5,1,1,I6,1,1"));
    ExpectRecord(1, "I1", "abc", 0, "12abc", 12);
    ExpectRecord(2, "I2", "-3", -3, "+4", 4);
    ExpectRecord(3, "I3", " 5", 5, "0x10", 0);
    ExpectRecord(4, "I4", "0", 0, "0", 0);
}

TEST_F(LogCfgTest, ParseLeavesPidsAndThreadIdsAlone) {
    MarkTable();
    ASSERT_EQ(0, Parse(SA_LOG_CONFIG_DEFAULT));
    for (int i = 0; i < SA_LOG_SVC_NUM; ++i) {
        EXPECT_EQ(1000 + i, g_zv_log_svc[i].svc_pid);
        EXPECT_EQ(static_cast<pthread_t>(2000 + i), g_zv_log_svc[i].mthread_id);
    }
}

TEST_F(LogCfgTest, LabelInTheFourthGroupIsStoredInTheFourthSlot) {
    ASSERT_EQ(0, Parse("/d,I1,1,1,I2,1,1,I3,1,1,I5,2,3,I4,1,1,I6,1,1"));
    EXPECT_STREQ("I5", g_zv_log_svc[3].type);
    EXPECT_EQ(4, g_zv_log_svc[3].type_id);
    EXPECT_STREQ("I4", g_zv_log_svc[4].type);
    EXPECT_EQ(5, g_zv_log_svc[4].type_id);
}

// Every shape a property value can take parses or fails cleanly, with the folder text terminated.
TEST_F(LogCfgTest, PropertyValueOfAnyShapeNeverCrashes) {
    const std::vector<std::string> shapes = {"",
                                             ",",
                                             ",,,,,,,,",
                                             "/x",
                                             "/x,",
                                             "/x,I1",
                                             "/x,I1,",
                                             "/x,I1,1",
                                             "/x,I1,1,",
                                             std::string(91, ','),
                                             std::string(91, 'a'),
                                             "/x,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,I1,1,1",
                                             "\x01\x02,\xff,\x80\x7f,9",
                                             "/x,I1,99999999999999999999,-99999999999999999999,I2,1,1"};
    for (const auto &s : shapes) {
        long ret = Parse(s);
        EXPECT_TRUE(ret == 0 || ret == -100) << s;
        EXPECT_LT(strlen(g_log_path_a), sizeof(g_log_path_a));
    }
    uint32_t seed = 12345;
    for (int round = 0; round < 3000; ++round) {
        std::string s;
        size_t len = (seed >> 8) % 92;
        for (size_t i = 0; i < len; ++i) {
            seed = seed * 1103515245u + 12345u;
            unsigned c = (seed >> 16) & 0xff;
            // Mostly commas, digits and labels, sometimes anything.
            static const char kAlphabet[] = ",,,,I1234567890-/";
            s.push_back(c % 4 == 0 ? static_cast<char>(c | 1) : kAlphabet[c % (sizeof(kAlphabet) - 1)]);
        }
        seed = seed * 1103515245u + 12345u;
        write_file(kPropFile, s);
        long ret = get_zv_log_config();
        ASSERT_TRUE(ret == 0 || ret == -100) << s;
        for (const auto &svc : g_zv_log_svc) {
            ASSERT_LT(strlen(svc.type), sizeof(svc.type));
            ASSERT_LT(strlen(svc.file_num), sizeof(svc.file_num));
            ASSERT_LT(strlen(svc.file_size), sizeof(svc.file_size));
        }
    }
}

TEST_F(LogCfgTest, ExistingFolderIsLeftUntouched) {
    mkdir("/data/kept", 0700);
    chmod("/data/kept", 0700);
    ASSERT_EQ(0, chown("/data/kept", 0, 0));
    EXPECT_EQ(0, check_zv_log_path("/data/kept"));
    struct stat st;
    ASSERT_EQ(0, stat("/data/kept", &st));
    EXPECT_EQ(0700u, st.st_mode & 07777);
    EXPECT_EQ(0u, st.st_uid);
    EXPECT_EQ(0u, st.st_gid);
    EXPECT_NE(std::string::npos, log_find("ZV log path \"/data/kept\" exist."));
    EXPECT_EQ(std::string::npos, log_find("not exist, now create"));
}

TEST_F(LogCfgTest, MissingFolderIsCreatedForTheShellUser) {
    EXPECT_EQ(0, check_zv_log_path("/data/newlog"));
    struct stat st;
    ASSERT_EQ(0, stat("/data/newlog", &st));
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(static_cast<uid_t>(SA_AID_SHELL), st.st_uid);
    EXPECT_EQ(static_cast<gid_t>(SA_AID_SHELL), st.st_gid);
    EXPECT_NE(std::string::npos, log_find("ZV log path \"/data/newlog\" not exist, now create."));
    EXPECT_NE(std::string::npos, log_find("ZV log path \"/data/newlog\" setup."));
}

TEST_F(LogCfgTest, ModeLineAlwaysNamesDataLocalLogRelativeToTheRoot) {
    // The fixed shell line acts on data/local/log from "/", whatever folder was created.
    ASSERT_EQ(0, chdir("/"));
    umask(022);
    ASSERT_EQ(0, chmod("/data/local/log", 0700));
    EXPECT_EQ(0, check_zv_log_path("/data/other"));
    struct stat st;
    ASSERT_EQ(0, stat("/data/local/log", &st));
    EXPECT_EQ(0771u, st.st_mode & 07777);
    ASSERT_EQ(0, stat("/data/other", &st));
    EXPECT_EQ(0771u & ~022u, st.st_mode & 07777);  // mkdir under the usual umask; no chmod of its own
}

TEST_F(LogCfgTest, NullPathAndUncreatableFolderFail) {
    EXPECT_EQ(-100, check_zv_log_path(nullptr));
    EXPECT_NE(std::string::npos, log_find("Invalid param."));
    EXPECT_EQ(-100, check_zv_log_path("/data/no/such/parent"));
    EXPECT_NE(std::string::npos, log_find("mkdir"));
}

}  // namespace
