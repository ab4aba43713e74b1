// Calling a command handler of the daemon the way the command thread does, and capturing the bytes it
// answers, for the unit tests of the service-control handlers.
#ifndef ZV_SA_TESTDATA_SVC_HANDLER_CALL_H
#define ZV_SA_TESTDATA_SVC_HANDLER_CALL_H

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "sa-handle.h"
#include "sa-handlers.h"

namespace svctest {

// What a handler returned and the bytes it wrote to its descriptor.
struct Answer {
    long ret = 0;
    std::string bytes;
};

// Zeroes both records and puts param (as much as fits) into the request, its length in m_len.
inline void MakeRequest(const std::string &param, sa_msg_st *req, sa_msg_st *rsp) {
    memset(req, 0, sizeof(*req));
    memset(rsp, 0, sizeof(*rsp));
    snprintf(req->m_data_a, sizeof(req->m_data_a), "%s", param.c_str());
    req->m_len = static_cast<uint16_t>(strlen(req->m_data_a));
}

// Calls handler like the dispatcher does: the request record holds param (its m_len non-zero) and
// param points into it; the descriptor is the write end of a pipe whose other end is drained after.
inline Answer Call(sa_cmd_handler_fn handler, const std::string &param) {
    Answer a;
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        a.ret = -9999;
        return a;
    }
    sa_msg_st req;
    sa_msg_st rsp;
    MakeRequest(param, &req, &rsp);
    if (req.m_len == 0) req.m_len = 1;
    // A parameter longer than a request can hold is handed over whole, to show that the handler
    // bounds it itself.
    const char *p = param.size() < sizeof(req.m_data_a) ? req.m_data_a : param.c_str();
    a.ret = handler(fds[1], &req, &rsp, p);
    close(fds[1]);
    char buf[512];
    ssize_t n;
    while ((n = read(fds[0], buf, sizeof(buf))) > 0) a.bytes.append(buf, static_cast<size_t>(n));
    close(fds[0]);
    return a;
}

// Checks the argument rules shared by every handler: fd below 1, a missing request, response or
// parameter, and an empty request each give -101 and no answer at all.
inline void ExpectRefusesBadArguments(sa_cmd_handler_fn handler, const std::string &param) {
    int fds[2];
    ASSERT_EQ(0, pipe2(fds, O_CLOEXEC | O_NONBLOCK));
    sa_msg_st req;
    sa_msg_st rsp;
    MakeRequest(param, &req, &rsp);
    EXPECT_EQ(-101, handler(0, &req, &rsp, req.m_data_a));
    EXPECT_EQ(-101, handler(fds[1], nullptr, &rsp, req.m_data_a));
    EXPECT_EQ(-101, handler(fds[1], &req, nullptr, req.m_data_a));
    EXPECT_EQ(-101, handler(fds[1], &req, &rsp, nullptr));
    sa_msg_st empty = req;
    empty.m_len = 0;
    EXPECT_EQ(-101, handler(fds[1], &empty, &rsp, empty.m_data_a));
    char byte;
    EXPECT_EQ(-1, read(fds[0], &byte, 1));
    EXPECT_EQ(EAGAIN, errno);
    close(fds[0]);
    close(fds[1]);
}

}  // namespace svctest

#endif  // ZV_SA_TESTDATA_SVC_HANDLER_CALL_H
