// Fuzzes the command channel's request grammar: any bytes in the 199-byte request buffer must be
// answered or left waiting, never read or written out of bounds. The command names are the daemon's;
// the handlers only record and check what the dispatcher hands them (the real ones would run shell
// lines and start services).
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "sa-handle.h"

static const sa_msg_st *g_current_req;

// A handler's param must point into the request text, at or before its terminating NUL.
static long check_param(int fd, sa_msg_st *req, sa_msg_st *rsp, const char *param) {
    if (req != g_current_req || param < req->m_data_a || param > req->m_data_a + sizeof(req->m_data_a) - 1)
        abort();
    if (memchr(param, '\0', static_cast<size_t>(req->m_data_a + sizeof(req->m_data_a) - param)) == nullptr)
        abort();
    return send_rsp_ok(fd, rsp);
}

static const sa_cmd_st kRecordingTable[] = {
    {"+START_SERVICE", 14, check_param, nullptr, nullptr},
    {"+STOP_SERVICE", 13, check_param, nullptr, nullptr},
    {"+QUERY_SERVICE", 14, check_param, nullptr, nullptr},
    {"+AUTO_START_SERVICE", 19, check_param, nullptr, nullptr},
    {"+SAVE_LOG", 9, check_param, nullptr, nullptr},
    {"+SYSTEM", 7, check_param, nullptr, nullptr},
    {"+KERNEL_LOG", 11, check_param, check_param, nullptr},
    {"+DMESG_LOG", 10, check_param, check_param, nullptr},
    {"+DATA_PACKETS_LOG", 17, check_param, nullptr, nullptr},
    {"+DELETE_LOG", 11, check_param, nullptr, nullptr},
    {nullptr, 0, nullptr, nullptr, nullptr},
};

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static int out_fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
    static sa_msg_st req;
    static sa_msg_st rsp;
    // Like the read loop: a request record that may already hold bytes, then one read's worth more.
    memset(&req, 0, sizeof(req));
    size_t n = size < sizeof(req.m_data_a) - 1 ? size : sizeof(req.m_data_a) - 1;
    memcpy(req.m_data_a, data, n);
    req.m_len = static_cast<uint16_t>(n);
    g_current_req = &req;
    handle_sa_cmd_req(kRecordingTable, out_fd, &req, &rsp);
    if (rsp.m_len > sizeof(rsp.m_data_a) - 1 || rsp.m_data_a[sizeof(rsp.m_data_a) - 1] != '\0') abort();
    return 0;
}
