// Tests of the client's command channel against a stand-in daemon on a pty of the test's own: a request
// that the daemon never answered because it closed the pty at that moment is sent again on the pty it
// publishes next, unless the request may end the daemon or the close came long after the request.
#include "client-channel.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>
#include <thread>

namespace {

constexpr char kLink[] = "/tmp/zv-channel-test-link";

// A pty master published under kLink, as the daemon publishes its command channel.
int Publish() {
    int m = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (m < 0 || grantpt(m) != 0 || unlockpt(m) != 0) return -1;
    unlink(kLink);
    if (symlink(ptsname(m), kLink) != 0) return -1;
    return m;
}

// Reads one request from the master; "" when none came within timeout_ms.
std::string ReadRequest(int m, int timeout_ms) {
    struct pollfd p = {m, POLLIN, 0};
    if (poll(&p, 1, timeout_ms) != 1) return "";
    char buf[256];
    ssize_t n = read(m, buf, sizeof(buf));
    return n > 0 ? std::string(buf, static_cast<size_t>(n)) : "";
}

struct StandIn {
    std::string first, second;
    std::thread thread;
    // Reads the first request and closes its pty without an answer after close_after_ms; then answers
    // the next request on a fresh pty.
    void Start(int close_after_ms) {
        int m1 = Publish();
        ASSERT_GE(m1, 0);
        thread = std::thread([this, m1, close_after_ms] {
            first = ReadRequest(m1, 10000);
            if (close_after_ms > 0) usleep(close_after_ms * 1000);  // a daemon busy with the request
            unlink(kLink);
            close(m1);
            int m2 = Publish();
            second = ReadRequest(m2, 3000);
            if (!second.empty()) {
                ssize_t n = write(m2, "\r\nOK\r\n", 6);
                (void)n;
            }
            ReadRequest(m2, 500);  // until the client closes
            close(m2);
            unlink(kLink);
        });
    }
};

// Sends request through a client channel to a stand-in that closes the first pty after close_after_ms.
struct Exchange {
    zv_read_end end;
    std::string answer, why, first, second;
};

Exchange Send(const std::string &request, int close_after_ms, bool may_resend) {
    StandIn daemon;
    daemon.Start(close_after_ms);
    Exchange x;
    zv_client_report report;
    {
        zv_command_channel channel(kLink);
        x.end = channel.request(request, &x.answer, zv_client_now_ms() + 10000, "test", may_resend, nullptr,
                                report, &x.why);
    }
    if (daemon.thread.joinable()) daemon.thread.join();
    x.first = daemon.first;
    x.second = daemon.second;
    return x;
}

TEST(ClientChannel, RequestLostToAClosingPtyIsSentAgainOnTheNextOne) {
    Exchange x = Send("AT\r", 0, true);
    EXPECT_EQ(zv_read_end::answered, x.end) << x.why;
    EXPECT_EQ("AT\r", x.first);
    EXPECT_EQ("AT\r", x.second);
    EXPECT_EQ("\r\nOK\r\n", x.answer);
}

TEST(ClientChannel, RequestThatMayEndTheDaemonIsNotSentAgain) {
    Exchange x = Send("SA+DATA_PACKETS_LOG=0\r", 0, false);
    EXPECT_EQ(zv_read_end::closed, x.end);
    EXPECT_EQ("SA+DATA_PACKETS_LOG=0\r", x.first);
    EXPECT_EQ("", x.second);
    EXPECT_EQ("", x.answer);
}

TEST(ClientChannel, ChannelClosedLongAfterTheRequestIsNotSentAgain) {
    Exchange x = Send("SA+SYSTEM=\"x\"\r", 1500, true);
    EXPECT_EQ(zv_read_end::closed, x.end);
    EXPECT_EQ("SA+SYSTEM=\"x\"\r", x.first);
    EXPECT_EQ("", x.second);
    EXPECT_NE(std::string::npos, x.why.find("without an answer")) << x.why;
}

TEST(ClientChannel, MissingLinkIsAChannelFailure) {
    unlink(kLink);
    std::string answer, why;
    zv_client_report report;
    zv_command_channel channel(kLink);
    EXPECT_EQ(zv_read_end::closed,
              channel.request("AT\r", &answer, zv_client_now_ms() + 300, "AT", true, nullptr, report, &why));
    EXPECT_NE(std::string::npos, why.find("cannot open /tmp/zv-channel-test-link")) << why;
}

}  // namespace
