// Tests of the host property client against a property service peer written here: the exact bytes of a
// set request, the service's answer, and reads from the property area. Runs inside a simulated handset,
// so /dev/socket and /dev/__properties__ are private to the test.
#include "cutils/properties.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdint.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

namespace {

// One accepted request as the peer saw it.
struct Request {
    bool connected = false;
    std::string bytes;  // everything the client sent before the answer
};

// A one-shot property service: accepts one connection, reads one set request (cmd, key, value),
// answers `answer`, and records what it received.
class ServicePeer {
   public:
    explicit ServicePeer(uint32_t answer) : answer_(answer) {
        unlink(PROP_SERVICE_SOCKET);
        fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_GE(fd_, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        strncpy(addr.sun_path, PROP_SERVICE_SOCKET, sizeof(addr.sun_path) - 1);
        EXPECT_EQ(0, bind(fd_, reinterpret_cast<sockaddr *>(&addr), sizeof(addr))) << strerror(errno);
        EXPECT_EQ(0, listen(fd_, 4));
        thread_ = std::thread([this] { Serve(); });
    }
    ~ServicePeer() {
        stop_ = true;
        thread_.join();
        close(fd_);
        unlink(PROP_SERVICE_SOCKET);
    }
    Request Take() {
        stop_ = true;
        thread_.join();
        thread_ = std::thread([] {});
        return req_;
    }

   private:
    static bool ReadExact(int fd, void *buf, size_t len) {
        char *p = static_cast<char *>(buf);
        while (len > 0) {
            ssize_t n = read(fd, p, len);
            if (n <= 0) return false;
            p += n;
            len -= static_cast<size_t>(n);
        }
        return true;
    }
    void Serve() {
        // Poll for a connection until told to stop; a client that never connects leaves req_ empty.
        while (!stop_) {
            pollfd p{fd_, POLLIN, 0};
            if (poll(&p, 1, 20) <= 0) continue;
            int c = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (c < 0) continue;
            req_.connected = true;
            uint32_t word;
            if (ReadExact(c, &word, 4)) {
                req_.bytes.append(reinterpret_cast<char *>(&word), 4);
                for (int field = 0; field < 2; ++field) {
                    uint32_t len;
                    if (!ReadExact(c, &len, 4)) break;
                    req_.bytes.append(reinterpret_cast<char *>(&len), 4);
                    std::string s(len, '\0');
                    if (len > 0 && !ReadExact(c, &s[0], len)) break;
                    req_.bytes += s;
                }
                ssize_t ignored = write(c, &answer_, sizeof(answer_));
                (void)ignored;
            }
            close(c);
            return;
        }
    }

    uint32_t answer_;
    int fd_ = -1;
    std::atomic<bool> stop_{false};
    Request req_;
    std::thread thread_;
};

std::string Frame(const std::string &key, const std::string &value) {
    std::string out;
    uint32_t w = PROP_MSG_SETPROP2;
    out.append(reinterpret_cast<char *>(&w), 4);
    w = static_cast<uint32_t>(key.size());
    out.append(reinterpret_cast<char *>(&w), 4);
    out += key;
    w = static_cast<uint32_t>(value.size());
    out.append(reinterpret_cast<char *>(&w), 4);
    out += value;
    return out;
}

void WriteArea(const std::string &key, const std::string &value) {
    std::string path = std::string(PROP_AREA_DIR) + "/" + key;
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0) << strerror(errno);
    ASSERT_EQ(static_cast<ssize_t>(value.size()), write(fd, value.data(), value.size()));
    close(fd);
}

TEST(PropertySet, AcceptedRequestSendsExactFrameAndReturnsZero) {
    ServicePeer peer(0);
    EXPECT_EQ(0, property_set("ctl.start", "zv-qel-mla1"));
    Request r = peer.Take();
    EXPECT_TRUE(r.connected);
    EXPECT_EQ(Frame("ctl.start", "zv-qel-mla1"), r.bytes);
}

TEST(PropertySet, RefusedRequestReturnsMinusOne) {
    ServicePeer peer(1);
    EXPECT_EQ(-1, property_set("ril.zv.elog.state", "1"));
    EXPECT_EQ(Frame("ril.zv.elog.state", "1"), peer.Take().bytes);
}

TEST(PropertySet, EmptyValueIsSent) {
    ServicePeer peer(0);
    EXPECT_EQ(0, property_set("a.b", ""));
    EXPECT_EQ(Frame("a.b", ""), peer.Take().bytes);
}

TEST(PropertySet, NoServiceReturnsMinusOne) {
    unlink(PROP_SERVICE_SOCKET);
    EXPECT_EQ(-1, property_set("ctl.stop", "zv-qel-sa"));
}

TEST(PropertySet, KeyOf31CharactersIsSentAnd32IsRefusedUnsent) {
    {
        ServicePeer peer(0);
        std::string key(31, 'k');
        EXPECT_EQ(0, property_set(key.c_str(), "v"));
        EXPECT_EQ(Frame(key, "v"), peer.Take().bytes);
    }
    ServicePeer peer(0);
    EXPECT_EQ(-1, property_set(std::string(32, 'k').c_str(), "v"));
    EXPECT_FALSE(peer.Take().connected);
}

TEST(PropertySet, ValueOf91CharactersIsSentAnd92IsRefusedUnsent) {
    {
        ServicePeer peer(0);
        std::string value(91, 'v');
        EXPECT_EQ(0, property_set("k", value.c_str()));
        EXPECT_EQ(Frame("k", value), peer.Take().bytes);
    }
    ServicePeer peer(0);
    EXPECT_EQ(-1, property_set("k", std::string(92, 'v').c_str()));
    EXPECT_FALSE(peer.Take().connected);
}

TEST(PropertySet, NullArgumentsReturnMinusOne) {
    EXPECT_EQ(-1, property_set(nullptr, "v"));
    EXPECT_EQ(-1, property_set("k", nullptr));
}

TEST(PropertyGet, ReadsValueFromArea) {
    WriteArea("persist.sys.install.zv.log", "/data/x,I1,1,1");
    char value[PROPERTY_VALUE_MAX];
    EXPECT_EQ(14, property_get("persist.sys.install.zv.log", value, "dflt"));
    EXPECT_STREQ("/data/x,I1,1,1", value);
}

TEST(PropertyGet, MissingFileYieldsDefault) {
    char value[PROPERTY_VALUE_MAX];
    EXPECT_EQ(4, property_get("no.such.key", value, "dflt"));
    EXPECT_STREQ("dflt", value);
}

TEST(PropertyGet, MissingFileAndNoDefaultYieldsEmpty) {
    char value[PROPERTY_VALUE_MAX];
    memset(value, 'x', sizeof(value));
    EXPECT_EQ(0, property_get("no.such.key", value, nullptr));
    EXPECT_STREQ("", value);
}

TEST(PropertyGet, EmptyFileYieldsDefault) {
    WriteArea("empty.key", "");
    char value[PROPERTY_VALUE_MAX];
    EXPECT_EQ(3, property_get("empty.key", value, "abc"));
    EXPECT_STREQ("abc", value);
}

TEST(PropertyGet, DefaultIsTruncatedTo91Bytes) {
    std::string dflt(200, 'd');
    char value[PROPERTY_VALUE_MAX + 8];
    memset(value, 'x', sizeof(value));
    EXPECT_EQ(91, property_get("no.such.key", value, dflt.c_str()));
    EXPECT_EQ(std::string(91, 'd'), std::string(value));
    EXPECT_EQ('x', value[PROPERTY_VALUE_MAX]);  // nothing written past the value buffer
}

TEST(PropertyGet, StoredValueIsTruncatedTo91Bytes) {
    WriteArea("long.key", std::string(120, 'L'));
    char value[PROPERTY_VALUE_MAX];
    EXPECT_EQ(91, property_get("long.key", value, ""));
    EXPECT_EQ(std::string(91, 'L'), std::string(value));
}

TEST(PropertyGet, KeyWithSlashIsNotLookedUpOutsideTheArea) {
    char value[PROPERTY_VALUE_MAX];
    EXPECT_EQ(1, property_get("../socket/x", value, "d"));
    EXPECT_STREQ("d", value);
}

}  // namespace
