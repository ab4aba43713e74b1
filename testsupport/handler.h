// Calling a command handler of the daemon the way the command thread does, with a pipe as the channel,
// and capturing what it answers: the one way the tests call handlers, including the argument checks
// every handler shares.
#ifndef ZV_TESTSUPPORT_HANDLER_H
#define ZV_TESTSUPPORT_HANDLER_H

#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "sa-handle.h"

namespace zvtest {

// What a handler returned and the bytes it wrote to its descriptor.
struct handler_call_st {
    long m_ret = 0;
    std::string m_answer;
};

// Zeroes both records and puts text (as much as fits) into the request, its length in m_len.
inline void make_request(const std::string &text, sa_msg_st *req, sa_msg_st *rsp) {
    memset(req, 0, sizeof(*req));
    memset(rsp, 0, sizeof(*rsp));
    snprintf(req->m_data_a, sizeof(req->m_data_a), "%s", text.c_str());
    req->m_len = static_cast<uint16_t>(strlen(req->m_data_a));
}

// Drains the read end of a channel and closes both ends; the bytes that were written.
inline std::string drain_channel(int fds[2]) {
    close(fds[1]);
    std::string out;
    char buf[512];
    ssize_t n;
    while ((n = read(fds[0], buf, sizeof(buf))) > 0) out.append(buf, static_cast<size_t>(n));
    close(fds[0]);
    return out;
}

// Calls handler like the dispatcher does: the request record holds param (its m_len non-zero) and
// param points into it; the descriptor is the write end of a pipe whose other end is drained after. A
// parameter longer than a request can hold is handed over whole, to show that the handler bounds it.
inline handler_call_st call_handler(sa_cmd_handler_fn handler, const std::string &param) {
    handler_call_st a;
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        a.m_ret = -9999;
        return a;
    }
    sa_msg_st req;
    sa_msg_st rsp;
    make_request(param, &req, &rsp);
    if (req.m_len == 0) req.m_len = 1;
    const char *p = param.size() < sizeof(req.m_data_a) ? req.m_data_a : param.c_str();
    a.m_ret = handler(fds[1], &req, &rsp, p);
    a.m_answer = drain_channel(fds);
    return a;
}

// Calls handler with each bad argument in turn (fd 0, no request, an empty request, no response, no
// parameter) for a request record holding text whose parameter starts param_at bytes in;
// returns the five results and, last, the bytes that reached the channel (there must be none).
inline std::vector<std::string> call_with_bad_arguments(sa_cmd_handler_fn handler, const std::string &text,
                                                        size_t param_at) {
    std::vector<std::string> out;
    int fds[2];
    if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) return out;
    sa_msg_st req;
    sa_msg_st rsp;
    make_request(text, &req, &rsp);
    const char *param = req.m_data_a + (param_at < req.m_len ? param_at : req.m_len);
    sa_msg_st empty = req;
    empty.m_len = 0;
    out.push_back(std::to_string(handler(0, &req, &rsp, param)));
    out.push_back(std::to_string(handler(fds[1], nullptr, &rsp, param)));
    out.push_back(std::to_string(handler(fds[1], &empty, &rsp, param)));
    out.push_back(std::to_string(handler(fds[1], &req, nullptr, param)));
    out.push_back(std::to_string(handler(fds[1], &req, &rsp, nullptr)));
    out.push_back(drain_channel(fds));
    return out;
}

// The same for a whole request name ("SA+SAVE_LOG"), ended by "\r": the parameter is what follows the
// name.
inline std::vector<std::string> call_with_bad_arguments(sa_cmd_handler_fn handler, const char *request) {
    return call_with_bad_arguments(handler, std::string(request) + "\r", strlen(request));
}

// Checks the argument rules shared by every handler: fd below 1, a missing request, response or
// parameter, and an empty request each give -101 and no answer at all.
inline void expect_refuses_bad_arguments(sa_cmd_handler_fn handler, const std::string &param) {
    std::vector<std::string> got = call_with_bad_arguments(handler, param, 0);
    ASSERT_EQ(6u, got.size());
    for (size_t i = 0; i < 5; ++i) EXPECT_EQ("-101", got[i]) << "bad argument " << i;
    EXPECT_EQ("", got[5]) << "nothing may be answered";
}

}  // namespace zvtest

#endif  // ZV_TESTSUPPORT_HANDLER_H
