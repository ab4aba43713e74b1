// Tests of the property area and the request format: frame decoding byte by byte, the limits on key
// and value lengths, legal names and values, read-only keys, the temp-and-rename store, the history
// line, and the sorted listing. Each case uses a scratch area under /tmp of its own handset.
#include "init/prop_store.h"
#include "init/test_probe.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

std::string Frame(const std::string &key, const std::string &value, uint32_t cmd = PROP_MSG_SETPROP2) {
    return probe_prop_frame(key, value, cmd);
}

prop_frame_status Decode(const std::string &bytes, prop_request *req) {
    return prop_frame_decode(reinterpret_cast<const unsigned char *>(bytes.data()), bytes.size(), req);
}

class PropArea : public ::testing::Test {
   protected:
    void SetUp() override {
        char dir[] = "/tmp/props.XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(dir));
        dir_ = dir;
    }
    std::string dir_;
};

TEST(PropFrame, CompleteRequestIsDecoded) {
    prop_request req;
    ASSERT_EQ(PROP_FRAME_COMPLETE, Decode(Frame("sys.a", "hello"), &req));
    EXPECT_STREQ("sys.a", req.m_key);
    EXPECT_EQ(5u, req.m_key_len);
    EXPECT_STREQ("hello", req.m_value);
    EXPECT_EQ(5u, req.m_value_len);
}

TEST(PropFrame, EveryShorterPrefixIsIncomplete) {
    std::string f = Frame("k.x", "v");
    prop_request req;
    for (size_t len = 0; len < f.size(); ++len) {
        EXPECT_EQ(PROP_FRAME_INCOMPLETE, Decode(f.substr(0, len), &req)) << len;
    }
    EXPECT_EQ(PROP_FRAME_COMPLETE, Decode(f, &req));
}

TEST(PropFrame, EmptyValueIsDecoded) {
    prop_request req;
    ASSERT_EQ(PROP_FRAME_COMPLETE, Decode(Frame("a", ""), &req));
    EXPECT_STREQ("", req.m_value);
    EXPECT_EQ(0u, req.m_value_len);
}

TEST(PropFrame, UnknownCommandWordIsBad) {
    prop_request req;
    EXPECT_EQ(PROP_FRAME_BAD, Decode(Frame("a", "b", 0x00020002u), &req));
    EXPECT_EQ(PROP_FRAME_BAD, Decode(Frame("a", "b", 1u), &req));
    // Known as soon as the first word is in.
    EXPECT_EQ(PROP_FRAME_BAD, Decode(Frame("a", "b", 0).substr(0, 4), &req));
}

TEST(PropFrame, KeyOf31IsTakenAndKeyOf32IsBad) {
    prop_request req;
    std::string key31(31, 'k');
    ASSERT_EQ(PROP_FRAME_COMPLETE, Decode(Frame(key31, "v"), &req));
    EXPECT_EQ(key31, req.m_key);
    // Refused from the length word on, without waiting for the key's bytes.
    EXPECT_EQ(PROP_FRAME_BAD, Decode(Frame(std::string(32, 'k'), "v").substr(0, 8), &req));
    EXPECT_EQ(PROP_FRAME_BAD, Decode(Frame(std::string(32, 'k'), "v"), &req));
}

TEST(PropFrame, ValueOf91IsTakenAndValueOf92IsBad) {
    prop_request req;
    std::string value91(91, 'v');
    ASSERT_EQ(PROP_FRAME_COMPLETE, Decode(Frame("k", value91), &req));
    EXPECT_EQ(value91, req.m_value);
    EXPECT_EQ(PROP_FRAME_BAD, Decode(Frame("k", std::string(92, 'v')), &req));
}

TEST(PropFrame, HugeLengthWordsAreBad) {
    std::string f;
    probe_put_u32(&f, PROP_MSG_SETPROP2);
    probe_put_u32(&f, 0xFFFFFFFFu);
    prop_request req;
    EXPECT_EQ(PROP_FRAME_BAD, Decode(f, &req));
    f = Frame("k", "");
    f.resize(f.size() - 4);
    probe_put_u32(&f, 0x80000000u);
    EXPECT_EQ(PROP_FRAME_BAD, Decode(f, &req));
}

TEST(PropFrame, LargestRequestFitsTheFrameBuffer) {
    EXPECT_EQ(Frame(std::string(31, 'k'), std::string(91, 'v')).size(), PROP_FRAME_MAX);
}

TEST(PropName, LegalNames) {
    for (const char *name : {"a", "sys.zv.log", "init.svc.zv-qel-sa", "ctl.start", "A_b-c:d@e", "1.2"}) {
        EXPECT_TRUE(prop_name_is_legal(name, strlen(name))) << name;
    }
    std::string key31(31, 'x');
    EXPECT_TRUE(prop_name_is_legal(key31.c_str(), key31.size()));
}

TEST(PropName, IllegalNames) {
    for (const char *name :
         {"", ".history", ".tmp", "a.", "a..b", "..", "a/b", "../x", "a b", "a=b", "a\nb", "\xc3\xa9"}) {
        EXPECT_FALSE(prop_name_is_legal(name, strlen(name))) << name;
    }
    std::string key32(32, 'x');
    EXPECT_FALSE(prop_name_is_legal(key32.c_str(), key32.size()));
    EXPECT_FALSE(prop_name_is_legal("a\0b", 3));
}

TEST(PropValue, LineEndsAndNulAreIllegal) {
    EXPECT_TRUE(prop_value_is_legal("", 0));
    EXPECT_TRUE(prop_value_is_legal("a b\t=[]", 7));
    EXPECT_FALSE(prop_value_is_legal("a\nb", 3));
    EXPECT_FALSE(prop_value_is_legal("a\rb", 3));
    EXPECT_FALSE(prop_value_is_legal("a\0b", 3));
    std::string v92(92, 'v');
    EXPECT_FALSE(prop_value_is_legal(v92.c_str(), v92.size()));
}

TEST_F(PropArea, SetWritesTheValueBytesWithoutNewline) {
    ASSERT_EQ(0, prop_store_set(dir_.c_str(), "sys.a", "hello", 5));
    EXPECT_EQ("hello", probe_read_file(dir_ + "/sys.a"));
    ASSERT_EQ(0, prop_store_set(dir_.c_str(), "sys.a", "hi", 2));
    EXPECT_EQ("hi", probe_read_file(dir_ + "/sys.a"));
    ASSERT_EQ(0, prop_store_set(dir_.c_str(), "sys.a", "", 0));
    EXPECT_EQ("", probe_read_file(dir_ + "/sys.a"));
    // The temporary file is gone after the rename.
    EXPECT_EQ("<missing>", probe_read_file(dir_ + "/.tmp"));
}

TEST_F(PropArea, SetIntoMissingAreaFails) {
    EXPECT_EQ(ENOENT, prop_store_set((dir_ + "/nope").c_str(), "a", "b", 1));
}

TEST_F(PropArea, CheckRefusesBadNamesAndValues) {
    prop_request req;
    ASSERT_EQ(PROP_FRAME_COMPLETE, Decode(Frame("../escape", "x"), &req));
    EXPECT_EQ(PROP_ANSWER_BAD_NAME, prop_request_check(dir_.c_str(), &req));
    ASSERT_EQ(PROP_FRAME_COMPLETE, Decode(Frame(".history", "x"), &req));
    EXPECT_EQ(PROP_ANSWER_BAD_NAME, prop_request_check(dir_.c_str(), &req));
    ASSERT_EQ(PROP_FRAME_COMPLETE, Decode(Frame("", "x"), &req));
    EXPECT_EQ(PROP_ANSWER_BAD_NAME, prop_request_check(dir_.c_str(), &req));
    ASSERT_EQ(PROP_FRAME_COMPLETE, Decode(Frame(std::string("a\0b", 3), "x"), &req));
    EXPECT_EQ(PROP_ANSWER_BAD_NAME, prop_request_check(dir_.c_str(), &req));
    ASSERT_EQ(PROP_FRAME_COMPLETE, Decode(Frame("a.b", "two\nlines"), &req));
    EXPECT_EQ(PROP_ANSWER_BAD_VALUE, prop_request_check(dir_.c_str(), &req));
    ASSERT_EQ(PROP_FRAME_COMPLETE, Decode(Frame("a.b", "fine"), &req));
    EXPECT_EQ(PROP_ANSWER_OK, prop_request_check(dir_.c_str(), &req));
}

TEST_F(PropArea, ReadOnlyKeyIsSetOnce) {
    prop_request req;
    ASSERT_EQ(PROP_FRAME_COMPLETE, Decode(Frame("ro.zv.x", "1"), &req));
    EXPECT_EQ(PROP_ANSWER_OK, prop_request_check(dir_.c_str(), &req));
    ASSERT_EQ(0, prop_store_set(dir_.c_str(), "ro.zv.x", "1", 1));
    EXPECT_EQ(PROP_ANSWER_READ_ONLY, prop_request_check(dir_.c_str(), &req));
}

TEST_F(PropArea, HistoryLineIsKeyEqualsValue) {
    std::string path = dir_ + "/.history";
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0);
    prop_request req;
    ASSERT_EQ(PROP_FRAME_COMPLETE, Decode(Frame("ctl.start", "zv-qel-sa"), &req));
    ASSERT_EQ(0, prop_history_append(fd, &req));
    ASSERT_EQ(PROP_FRAME_COMPLETE, Decode(Frame("a", ""), &req));
    ASSERT_EQ(0, prop_history_append(fd, &req));
    ASSERT_EQ(PROP_FRAME_COMPLETE, Decode(Frame(std::string(31, 'k'), std::string(91, 'v')), &req));
    ASSERT_EQ(0, prop_history_append(fd, &req));
    close(fd);
    EXPECT_EQ("ctl.start=zv-qel-sa\na=\n" + std::string(31, 'k') + "=" + std::string(91, 'v') + "\n",
              probe_read_file(path));
}

TEST_F(PropArea, ListIsSortedAndSkipsTheAreasOwnFiles) {
    ASSERT_EQ(0, prop_store_set(dir_.c_str(), "zz", "last", 4));
    ASSERT_EQ(0, prop_store_set(dir_.c_str(), "aa.b", "first", 5));
    ASSERT_EQ(0, prop_store_set(dir_.c_str(), "init.svc.x", "running", 7));
    ASSERT_EQ(0, prop_store_set(dir_.c_str(), "empty", "", 0));
    int fd = open((dir_ + "/.history").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0);
    close(fd);
    ASSERT_EQ(0, mkdir((dir_ + "/subdir").c_str(), 0755));
    std::vector<prop_entry> all;
    ASSERT_EQ(0, prop_store_list(dir_.c_str(), &all));
    ASSERT_EQ(4u, all.size());
    EXPECT_EQ("aa.b", all[0].m_key);
    EXPECT_EQ("first", all[0].m_value);
    EXPECT_EQ("empty", all[1].m_key);
    EXPECT_EQ("", all[1].m_value);
    EXPECT_EQ("init.svc.x", all[2].m_key);
    EXPECT_EQ("running", all[2].m_value);
    EXPECT_EQ("zz", all[3].m_key);
    EXPECT_EQ("last", all[3].m_value);
}

TEST_F(PropArea, ListOfMissingAreaFails) {
    std::vector<prop_entry> all;
    EXPECT_EQ(ENOENT, prop_store_list((dir_ + "/nope").c_str(), &all));
    EXPECT_TRUE(all.empty());
}

}  // namespace
