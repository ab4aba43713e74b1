// Tests of the pseudo-terminal endpoint. Each test case runs in its own simulated handset with a
// private /dev and devpts instance, so the links are made under the real /dev and a client opens the
// published path exactly as the modem-side tool does.
#include "pty/pty.h"
#include "logs.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include <gtest/gtest.h>

#include "log/log_client.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kDeadline = std::chrono::seconds(5);
constexpr const char *kLink = "/dev/ttySA0";

// Descriptor 0 must be in use, or the first master could land on it (0 counts as closed).
class StdinEnvironment : public ::testing::Environment {
   public:
    void SetUp() override {
        if (fcntl(0, F_GETFD) < 0) {
            int fd = open("/dev/null", O_RDONLY);
            if (fd > 0) {
                dup2(fd, 0);
                close(fd);
            }
        }
    }
};
const auto *const g_env = ::testing::AddGlobalTestEnvironment(new StdinEnvironment);

int count_fds() {
    DIR *dir = opendir("/proc/self/fd");
    if (dir == nullptr) return -1;
    int n = 0;
    while (dirent *e = readdir(dir)) {
        if (e->d_name[0] != '.') ++n;
    }
    closedir(dir);
    return n;
}

pub_pty_st make_record(const char *mapping, bool nonblock = false) {
    pub_pty_st pty;
    memset(&pty, 0, sizeof(pty));
    snprintf(pty.m_pts_mapping_name_a, sizeof(pty.m_pts_mapping_name_a), "%s", mapping);
    pty.m_is_nonblock_mode = nonblock ? 1 : 0;
    return pty;
}

std::string link_target(const char *path) {
    char buf[256];
    ssize_t n = readlink(path, buf, sizeof(buf) - 1);
    if (n < 0) return "<no link>";
    return std::string(buf, static_cast<size_t>(n));
}

bool is_symlink(const char *path) {
    struct stat st;
    return lstat(path, &st) == 0 && S_ISLNK(st.st_mode);
}

int open_client(const char *path) {
    return open(path, O_RDWR | O_NOCTTY | O_CLOEXEC);
}

// Reads from fd until at least want bytes arrived or the deadline passed; returns all bytes read.
std::string read_for(int fd, size_t want) {
    std::string out;
    auto until = Clock::now() + kDeadline;
    while (out.size() < want) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now()).count();
        if (left <= 0) break;
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(left)) <= 0) continue;
        char buf[256];
        ssize_t n = read(fd, buf, sizeof(buf));
        if (n <= 0) break;
        out.append(buf, static_cast<size_t>(n));
    }
    return out;
}

bool write_text(int fd, const std::string &text) {
    return write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

// ---- argument checks ----

TEST(PtyOpen, EmptyMappingNameReturnsInvalidParameterAndLeavesNoDescriptor) {
    const int before = count_fds();
    pub_pty_st pty = make_record("");
    EXPECT_EQ(-101, pub_pty_open(&pty));
    EXPECT_EQ(-1, pty.m_ptm_fd);
    EXPECT_EQ(before, count_fds());
}

TEST(PtyOpen, NullRecordIsRefusedByEveryOperation) {
    EXPECT_EQ(-101, pub_pty_open(nullptr));
    EXPECT_EQ(-1, pub_pty_close(nullptr));
    EXPECT_EQ(-101, pub_pty_delete_mapping(nullptr));
}

// ---- publishing ----

TEST(PtyOpen, PublishesSlaveUnderLink) {
    pub_pty_st pty = make_record(kLink);
    ASSERT_EQ(0, pub_pty_open(&pty));
    EXPECT_GT(pty.m_ptm_fd, 0);
    EXPECT_EQ(0, strncmp(pty.m_pts_name_a, "/dev/pts/", 9)) << pty.m_pts_name_a;
    char expected[40];
    ASSERT_EQ(0, ptsname_r(pty.m_ptm_fd, expected, sizeof(expected)));
    EXPECT_STREQ(expected, pty.m_pts_name_a);
    EXPECT_TRUE(is_symlink(kLink));
    EXPECT_EQ(pty.m_pts_name_a, link_target(kLink));
    EXPECT_EQ(FD_CLOEXEC, fcntl(pty.m_ptm_fd, F_GETFD) & FD_CLOEXEC);
    EXPECT_EQ(O_RDWR, fcntl(pty.m_ptm_fd, F_GETFL) & O_ACCMODE);
    EXPECT_STREQ(kLink, pty.m_pts_mapping_name_a);
    EXPECT_EQ(0, pub_pty_close(&pty));
}

TEST(PtyOpen, PreExistingLinkIsReplacedByLinkToNewSlave) {
    ASSERT_EQ(0, symlink("/dev/null", kLink));
    pub_pty_st pty = make_record(kLink);
    ASSERT_EQ(0, pub_pty_open(&pty));
    EXPECT_EQ(pty.m_pts_name_a, link_target(kLink));
    struct stat st;
    ASSERT_EQ(0, stat("/dev/null", &st));
    EXPECT_EQ(0666u, st.st_mode & 07777u);  // the old target was not touched
    EXPECT_EQ(0, pub_pty_close(&pty));
}

TEST(PtyOpen, RegularFileAtLinkPathIsReplacedByLink) {
    int fd = open(kLink, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0);
    close(fd);
    pub_pty_st pty = make_record(kLink);
    ASSERT_EQ(0, pub_pty_open(&pty));
    EXPECT_TRUE(is_symlink(kLink));
    EXPECT_EQ(pty.m_pts_name_a, link_target(kLink));
    EXPECT_EQ(0, pub_pty_close(&pty));
}

TEST(PtyDeleteMapping, DanglingLinkIsNotRemovedButIsReplacedByNextOpen) {
    ASSERT_EQ(0, symlink("/dev/pts/999", kLink));
    pub_pty_st pty = make_record(kLink);
    EXPECT_EQ(0, pub_pty_delete_mapping(&pty));
    EXPECT_TRUE(is_symlink(kLink));
    EXPECT_EQ("/dev/pts/999", link_target(kLink));

    ASSERT_EQ(0, pub_pty_open(&pty));
    EXPECT_EQ(pty.m_pts_name_a, link_target(kLink));
    EXPECT_EQ(0, pub_pty_close(&pty));
}

TEST(PtyDeleteMapping, MissingLinkReturnsZero) {
    pub_pty_st pty = make_record(kLink);
    EXPECT_EQ(0, pub_pty_delete_mapping(&pty));
    EXPECT_FALSE(is_symlink(kLink));
}

TEST(PtyDeleteMapping, ResolvingLinkIsRemovedAndItsTargetKept) {
    ASSERT_EQ(0, symlink("/dev/null", kLink));
    pub_pty_st pty = make_record(kLink);
    EXPECT_EQ(0, pub_pty_delete_mapping(&pty));
    EXPECT_FALSE(is_symlink(kLink));
    EXPECT_EQ(0, access("/dev/null", F_OK));
}

TEST(PtyOpen, LinkThatCannotBeMadeFailsAndLeavesRecordClosedWithoutDescriptor) {
    const int before = count_fds();
    pub_pty_st pty = make_record("/dev/no-such-dir/ttySA0");
    EXPECT_EQ(-118, pub_pty_open(&pty));
    EXPECT_EQ(-1, pty.m_ptm_fd);
    EXPECT_EQ(before, count_fds());
    EXPECT_EQ('\0', pty.m_pts_name_a[0]);
}

TEST(PtyOpen, MappingNameFillingItsWholeFieldIsCutTo27Characters) {
    pub_pty_st pty = make_record("");
    const std::string full = "/dev/ttySA0123456789abcdefgh";  // 28 characters, no terminator
    ASSERT_EQ(sizeof(pty.m_pts_mapping_name_a), full.size());
    memcpy(pty.m_pts_mapping_name_a, full.data(), full.size());
    ASSERT_EQ(0, pub_pty_open(&pty));
    const std::string cut = full.substr(0, 27);
    EXPECT_EQ(cut, pty.m_pts_mapping_name_a);
    EXPECT_EQ(pty.m_pts_name_a, link_target(cut.c_str()));
    EXPECT_EQ(0, pub_pty_close(&pty));
    EXPECT_FALSE(is_symlink(cut.c_str()));
}

// ---- slave ownership and line settings ----

TEST(PtyOpen, SlaveHasMode0660AndOwner1000Group1001ThroughLink) {
    pub_pty_st pty = make_record(kLink);
    ASSERT_EQ(0, pub_pty_open(&pty));
    struct stat st;
    ASSERT_EQ(0, stat(kLink, &st));
    EXPECT_TRUE(S_ISCHR(st.st_mode));
    EXPECT_EQ(0660u, st.st_mode & 07777u);
    EXPECT_EQ(1000u, st.st_uid);
    EXPECT_EQ(1001u, st.st_gid);
    struct stat direct;
    ASSERT_EQ(0, stat(pty.m_pts_name_a, &direct));
    EXPECT_EQ(st.st_rdev, direct.st_rdev);
    EXPECT_EQ(0, pub_pty_close(&pty));
}

TEST(PtyOpen, MasterLineIsRawWithOtherFlagsAsFreshLine) {
    // Settings of an untouched pseudo-terminal, for the flags that must be left as they were.
    int fresh = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(fresh, 0);
    termios def;
    ASSERT_EQ(0, tcgetattr(fresh, &def));
    close(fresh);

    pub_pty_st pty = make_record(kLink);
    ASSERT_EQ(0, pub_pty_open(&pty));
    termios got;
    ASSERT_EQ(0, tcgetattr(pty.m_ptm_fd, &got));
    EXPECT_EQ(0u, got.c_iflag);
    EXPECT_EQ(0u, got.c_oflag & 0x3Bu);
    EXPECT_EQ(def.c_oflag & ~0x3Bu, got.c_oflag);
    EXPECT_EQ(def.c_oflag & ONLCR, got.c_oflag & ONLCR);
    EXPECT_NE(0u, got.c_oflag & ONLCR);  // kept, although it has no effect without OPOST
    EXPECT_EQ(0u, got.c_lflag & 0x1Bu);
    EXPECT_EQ(def.c_lflag & ~0x1Bu, got.c_lflag);
    EXPECT_NE(0u, got.c_lflag & IEXTEN);
    EXPECT_EQ(def.c_cflag, got.c_cflag);
    EXPECT_EQ(0, memcmp(def.c_cc, got.c_cc, sizeof(def.c_cc)));

    // The slave sees the same settings.
    int client = open_client(kLink);
    ASSERT_GE(client, 0);
    termios slave;
    ASSERT_EQ(0, tcgetattr(client, &slave));
    EXPECT_EQ(0u, slave.c_iflag);
    EXPECT_EQ(got.c_lflag, slave.c_lflag);
    close(client);
    EXPECT_EQ(0, pub_pty_close(&pty));
}

// ---- data path ----

TEST(PtyData, BytesWrittenToMasterArriveAtSlaveUnchanged) {
    pub_pty_st pty = make_record(kLink);
    ASSERT_EQ(0, pub_pty_open(&pty));
    int client = open_client(kLink);
    ASSERT_GE(client, 0);

    ASSERT_TRUE(write_text(pty.m_ptm_fd, "\r\n"));
    EXPECT_EQ("\r\n", read_for(client, 2));
    ASSERT_TRUE(write_text(pty.m_ptm_fd, "\n"));
    EXPECT_EQ("\n", read_for(client, 1));
    ASSERT_TRUE(write_text(pty.m_ptm_fd, "\r\nOK\r\n"));
    EXPECT_EQ("\r\nOK\r\n", read_for(client, 6));
    // No line end needed for the client to see it.
    ASSERT_TRUE(write_text(pty.m_ptm_fd, "\r"));
    EXPECT_EQ("\r", read_for(client, 1));
    ASSERT_TRUE(write_text(pty.m_ptm_fd, "OK"));
    EXPECT_EQ("OK", read_for(client, 2));
    // Control characters are data, not signals or editing.
    const std::string ctl("\x03\x7f\x15\x04", 4);
    ASSERT_TRUE(write_text(pty.m_ptm_fd, ctl));
    EXPECT_EQ(ctl, read_for(client, 4));

    close(client);
    EXPECT_EQ(0, pub_pty_close(&pty));
}

TEST(PtyData, BytesWrittenByClientArriveUnbufferedWithoutNewlineAndUnchanged) {
    pub_pty_st pty = make_record(kLink);
    ASSERT_EQ(0, pub_pty_open(&pty));
    int client = open_client(kLink);
    ASSERT_GE(client, 0);

    ASSERT_TRUE(write_text(client, "AT"));
    EXPECT_EQ("AT", read_for(pty.m_ptm_fd, 2));
    ASSERT_TRUE(write_text(client, "\r"));
    EXPECT_EQ("\r", read_for(pty.m_ptm_fd, 1));
    ASSERT_TRUE(write_text(client, "\n"));
    EXPECT_EQ("\n", read_for(pty.m_ptm_fd, 1));
    ASSERT_TRUE(write_text(client, "SA+QUERY_SERVICE=\"zv-elog\"\r"));
    EXPECT_EQ("SA+QUERY_SERVICE=\"zv-elog\"\r", read_for(pty.m_ptm_fd, 27));

    close(client);
    EXPECT_EQ(0, pub_pty_close(&pty));
}

TEST(PtyData, NothingWrittenToMasterIsEchoedBack) {
    pub_pty_st pty = make_record(kLink);
    ASSERT_EQ(0, pub_pty_open(&pty));
    int client = open_client(kLink);
    ASSERT_GE(client, 0);

    ASSERT_TRUE(write_text(pty.m_ptm_fd, "\r\nOK\r\n"));
    ASSERT_EQ("\r\nOK\r\n", read_for(client, 6));
    // An echo would have been queued for the master before the client saw the bytes; the master's
    // next bytes must be the client's marker alone.
    ASSERT_TRUE(write_text(client, "Z"));
    EXPECT_EQ("Z", read_for(pty.m_ptm_fd, 1));

    close(client);
    EXPECT_EQ(0, pub_pty_close(&pty));
}

TEST(PtyData, ClosingClientSideMakesMasterReadFailWithEio) {
    pub_pty_st pty = make_record(kLink);
    ASSERT_EQ(0, pub_pty_open(&pty));
    int client = open_client(kLink);
    ASSERT_GE(client, 0);
    ASSERT_TRUE(write_text(client, "AT"));
    ASSERT_EQ("AT", read_for(pty.m_ptm_fd, 2));
    close(client);

    pollfd p{pty.m_ptm_fd, POLLIN, 0};
    ASSERT_EQ(1, poll(&p, 1, static_cast<int>(std::chrono::milliseconds(kDeadline).count())));
    char buf[16];
    errno = 0;
    EXPECT_EQ(-1, read(pty.m_ptm_fd, buf, sizeof(buf)));
    EXPECT_EQ(EIO, errno);
    EXPECT_EQ(0, pub_pty_close(&pty));
}

// ---- modes and lifecycle ----

TEST(PtyOpen, NonblockFlagSetsONonblockOnMaster) {
    pub_pty_st pty = make_record(kLink, true);
    ASSERT_EQ(0, pub_pty_open(&pty));
    EXPECT_NE(0, fcntl(pty.m_ptm_fd, F_GETFL) & O_NONBLOCK);
    int client = open_client(kLink);
    ASSERT_GE(client, 0);
    char buf[8];
    errno = 0;
    EXPECT_EQ(-1, read(pty.m_ptm_fd, buf, sizeof(buf)));
    EXPECT_EQ(EAGAIN, errno);
    close(client);
    EXPECT_EQ(0, pub_pty_close(&pty));
}

TEST(PtyOpen, WithoutNonblockFlagMasterBlocks) {
    pub_pty_st pty = make_record(kLink);
    ASSERT_EQ(0, pub_pty_open(&pty));
    EXPECT_EQ(0, fcntl(pty.m_ptm_fd, F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(0, pub_pty_close(&pty));
}

TEST(PtyOpen, ReopenOfOpenRecordGivesNewSlaveAndRepointsLink) {
    pub_pty_st pty = make_record(kLink);
    ASSERT_EQ(0, pub_pty_open(&pty));
    const std::string first = pty.m_pts_name_a;
    // The client keeps the first slave in use, so its number cannot be handed out again.
    int client = open_client(kLink);
    ASSERT_GE(client, 0);
    const int fds = count_fds();

    ASSERT_EQ(0, pub_pty_open(&pty));
    EXPECT_NE(first, pty.m_pts_name_a);
    EXPECT_EQ(pty.m_pts_name_a, link_target(kLink));
    EXPECT_EQ(fds, count_fds());  // the first master was closed

    // The old client sees its master gone.
    pollfd p{client, POLLIN, 0};
    ASSERT_EQ(1, poll(&p, 1, static_cast<int>(std::chrono::milliseconds(kDeadline).count())));
    char buf[8];
    EXPECT_LE(read(client, buf, sizeof(buf)), 0);
    close(client);
    EXPECT_EQ(0, pub_pty_close(&pty));
}

TEST(PtyOpen, ZeroedRecordTreatsDescriptorZeroAsClosed) {
    struct stat before;
    ASSERT_EQ(0, fstat(0, &before));
    pub_pty_st pty = make_record(kLink);
    ASSERT_EQ(0, pty.m_ptm_fd);
    ASSERT_EQ(0, pub_pty_open(&pty));
    struct stat after;
    ASSERT_EQ(0, fstat(0, &after));
    EXPECT_EQ(before.st_dev, after.st_dev);
    EXPECT_EQ(before.st_ino, after.st_ino);
    EXPECT_EQ(0, pub_pty_close(&pty));
}

TEST(PtyClose, RemovesLinkClosesMasterAndKeepsMappingName) {
    pub_pty_st pty = make_record(kLink);
    ASSERT_EQ(0, pub_pty_open(&pty));
    const int master = pty.m_ptm_fd;
    EXPECT_EQ(0, pub_pty_close(&pty));
    EXPECT_EQ(-1, pty.m_ptm_fd);
    EXPECT_FALSE(is_symlink(kLink));
    EXPECT_LT(fcntl(master, F_GETFD), 0);
    EXPECT_STREQ(kLink, pty.m_pts_mapping_name_a);
    const char zero[sizeof(pty.m_pts_name_a)] = {};
    EXPECT_EQ(0, memcmp(zero, pty.m_pts_name_a, sizeof(zero)));

    // Closing again finds the record closed.
    EXPECT_EQ(-1, pub_pty_close(&pty));
    // And the kept name opens it again.
    ASSERT_EQ(0, pub_pty_open(&pty));
    EXPECT_EQ(pty.m_pts_name_a, link_target(kLink));
    EXPECT_EQ(0, pub_pty_close(&pty));
}

TEST(PtyClose, TwoHundredOpenCloseCyclesLeaveNoDescriptorBehind) {
    const int before = count_fds();
    pub_pty_st pty = make_record(kLink);
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(0, pub_pty_open(&pty)) << i;
        ASSERT_EQ(0, pub_pty_close(&pty)) << i;
    }
    EXPECT_EQ(before, count_fds());
    EXPECT_FALSE(is_symlink(kLink));
}

// ---- traces ----

TEST(PtyTrace, OpenTracesEveryStep) {
    start_log();
    pub_pty_st pty = make_record(kLink);
    ASSERT_EQ(0, pub_pty_open(&pty));
    const std::string fd = std::to_string(pty.m_ptm_fd);
    const std::string name = pty.m_pts_name_a;
    const std::string texts[] = {
        "pub_pty_open m_ptm_fd[" + fd + "]",
        "create_pts_mapping pts_name_ptr[" + name + "]",
        "create_pts_mapping unlink(/dev/ttySA0) ret_val[-1]",
        "create_pts_mapping chmod(/dev/ttySA0, 432) ret_val[0]",
        "create_pts_mapping chown(/dev/ttySA0, 1000, 1001) ret_val[0]",
        "set_ptm_attr tcgetattr(" + fd + ") ret_val[0]",
        "set_ptm_attr tcsetattr(" + fd + ") ret_val[0]",
        "set_ptm_attr grantpt(" + fd + ") ret_val[0]",
        "set_ptm_attr unlockpt(" + fd + ") ret_val[0]",
        "pub_pty_open \"/dev/ttySA0\" exists",
        "pub_pty_open m_ptm_fd[" + fd + "]; m_pts_name_a[" + name + "] m_pts_mapping_name_a[/dev/ttySA0]",
    };
    for (const std::string &text : texts) {
        EXPECT_TRUE(ends_with(log_line_with(text), "info         | " + text)) << text << "\n" << log_text();
    }
    // No unlink succeeded, so nothing was said about the old link.
    EXPECT_EQ("", log_line_with("create_pts_mapping \"/dev/ttySA0\""));

    ASSERT_EQ(0, pub_pty_close(&pty));
    EXPECT_TRUE(ends_with(log_line_with("pub_pty_delete_mapping unlink("),
                          "info         | pub_pty_delete_mapping unlink(/dev/ttySA0) ret_val[0]"));
    EXPECT_TRUE(ends_with(log_line_with("pub_pty_close pub_"),
                          "info         | pub_pty_close pub_pty_delete_mapping ret_val[0]"));
}

TEST(PtyTrace, ReplacedLinkIsReportedAfterItsUnlink) {
    start_log();
    ASSERT_EQ(0, symlink("/dev/null", kLink));
    pub_pty_st pty = make_record(kLink);
    ASSERT_EQ(0, pub_pty_open(&pty));
    EXPECT_TRUE(ends_with(log_line_with("create_pts_mapping unlink("),
                          "info         | create_pts_mapping unlink(/dev/ttySA0) ret_val[0]"));
    EXPECT_TRUE(ends_with(log_line_with("create_pts_mapping \"/dev/ttySA0\""),
                          "info         | create_pts_mapping \"/dev/ttySA0\" not exists"));
    EXPECT_EQ(0, pub_pty_close(&pty));
}

TEST(PtyTrace, DanglingLinkIsReportedAtWarningLevel) {
    start_log();
    ASSERT_EQ(0, symlink("/dev/pts/999", kLink));
    pub_pty_st pty = make_record(kLink);
    EXPECT_EQ(0, pub_pty_delete_mapping(&pty));
    EXPECT_TRUE(ends_with(log_line_with("pub_pty_delete_mapping \""),
                          "warning      | pub_pty_delete_mapping \"/dev/ttySA0\" does not exist"))
        << log_text();
}

TEST(PtyTrace, FailedLinkIsReportedWithCallAndCode) {
    start_log();
    pub_pty_st pty = make_record("/dev/no-such-dir/ttySA0");
    ASSERT_EQ(-118, pub_pty_open(&pty));
    EXPECT_TRUE(
        ends_with(log_line_with("symlink: "), "sys error    | symlink: 2 - No such file or directory"))
        << log_text();
    const std::string map_line = log_line_with("[PTY]map ");
    EXPECT_NE(std::string::npos, map_line.find("error        | -118 - Call C function unsuccessfully | "
                                               "[PTY]map /dev/no-such-dir/ttySA0 -> /dev/pts/"))
        << map_line;
    EXPECT_TRUE(ends_with(log_line_with("create_pts_mapping m_pts_mapping_name_a["),
                          "-118 - Call C function unsuccessfully | "
                          "create_pts_mapping m_pts_mapping_name_a[/dev/no-such-dir/ttySA0] ret_val[-118]"));
}

TEST(PtyTrace, EmptyMappingNameIsReportedAsInvalidParameter) {
    start_log();
    pub_pty_st pty = make_record("");
    ASSERT_EQ(-101, pub_pty_open(&pty));
    const std::string line = log_line_with("[PTY]");
    EXPECT_NE(std::string::npos, line.find("| create_pts_mapping ")) << line;
    EXPECT_NE(std::string::npos, line.find("error        | -101 - Invalid parameter | [PTY]0, ")) << line;
    EXPECT_TRUE(ends_with(line, ", 0")) << line;
}

}  // namespace
