// The command channel: the handler context, the request/response records, the command table's row
// type, the request grammar and the response functions shared by every command handler. The channel
// knows the handlers only through a table of that type (sa-handlers.cpp defines the daemon's table).
//
// A client writes AT-style request lines ("SA+QUERY_SERVICE=\"zv-elog\"\r") into the slave of the
// command pty; the command thread reads them from the master, dispatches them through a command table and
// answers on the same descriptor ("\r\nOK\r\n", "\r\nERROR: %ld\r\n", or an item line and OK). Every
// handler runs on the command thread, one after the other, so handler state needs no lock.
#ifndef ZV_SA_SA_HANDLE_H
#define ZV_SA_SA_HANDLE_H

#include <pthread.h>
#include <stdint.h>
#include <sys/types.h>

#include "pty/pty.h"

// A request or response: at most 199 bytes used, the last byte stays NUL.
struct sa_msg_st {
    uint16_t m_len;
    char m_data_a[200];
};

// Handlers answer through the response functions and return 0 once answered, or a negative code of
// the common library (the request then stays in the buffer). param points into req->m_data_a and still
// carries the request's trailing "\r".
typedef long (*sa_cmd_handler_fn)(int fd, sa_msg_st *req, sa_msg_st *rsp, const char *param);

// One command: its name (prefix-matched without regard to case) and its set ("=" or bare), read ("?")
// and test ("=?") handlers, any of which may be null.
struct sa_cmd_st {
    const char *m_name;
    uint32_t m_name_len;
    sa_cmd_handler_fn m_set;
    sa_cmd_handler_fn m_read;
    sa_cmd_handler_fn m_test;
};

// The daemon's ten commands in matching order, ended by an all-zero row (defined with the handlers, in
// sa-handlers.cpp).
extern const sa_cmd_st sa_cmd_table[];

// The one handler context, zeroed whole by sa_handle_init before any thread uses it.
struct sa_handle_ctx_st {
    pthread_t m_read_cmd_thread_id;   // the command thread
    pub_pty_st m_pty;                 // the command channel's endpoint (blocking reads)
    sa_msg_st m_req;                  // request buffer
    sa_msg_st m_rsp;                  // response buffer
    uint8_t m_kernel_log_on;          // "+KERNEL_LOG" switch
    uint8_t m_dmesg_log_on;           // "+DMESG_LOG" switch
    uint8_t m_packets_capture_on;     // "+DATA_PACKETS_LOG" switch
    pthread_t m_read_kernel_log_tid;  // kernel log reader thread
    pid_t m_packets_capture_pid;      // killed when packet capture is switched off; never assigned
};

extern sa_handle_ctx_st g_sa_handle_ctx;

// Writes rsp->m_len bytes of rsp to fd once; 0 (also after a failed or short write), or -101 when
// fd < 1, rsp is null or empty.
long send_rsp(int fd, sa_msg_st *rsp);
// Answers "\r\nOK\r\n"; send_rsp's result, or -101 for fd < 1 or a null rsp.
long send_rsp_ok(int fd, sa_msg_st *rsp);
// Answers "\r\nERROR: %ld\r\n" with code zero-extended from 32 bits (-1 is sent as 4294967295).
long send_rsp_err(int fd, sa_msg_st *rsp, uint32_t code);
// Answers text (formatted, at most 199 characters) followed by nothing else; send_rsp's result.
long send_rsp_text(int fd, sa_msg_st *rsp, const char *fmt, ...) __attribute__((format(printf, 3, 4)));

// Recognises the request held in req and dispatches it through table (sa_cmd_table; the fuzz target
// passes recording handlers); the handler's or response function's result.
long handle_sa_cmd_req(const sa_cmd_st *table, int fd, sa_msg_st *req, sa_msg_st *rsp);
// Body of the command thread: opens the endpoint and serves requests until the endpoint fails.
void *sa_handle_read_cmd_loop(void *param);

// Runs cmd with system() and traces its raw status ("PUB_UTIL_CALL_SYSTEM(%d, %s)", and on failure
// "error(%d) to exec: %s" with code -118) under the caller's name. Returns the raw status.
#define sa_call_system(cmd) sa_call_system_at(SA_TRACE_SRC, __LINE__, __func__, (cmd))
int sa_call_system_at(const char *src, unsigned line, const char *func, const char *cmd);

// The argument check shared by every command handler: fd at least 1, req present with a non-zero
// length, rsp present, param present. On failure traces one 0/1 flag per condition, logs -101 and
// returns -101 from the handler without answering.
#define SA_CHECK_HANDLER_ARGS(fd, req, rsp, param)                                               \
    do {                                                                                         \
        int bad_fd_ = (fd) < 1;                                                                  \
        int bad_req_ = (req) == nullptr;                                                         \
        int bad_len_ = bad_req_ || (req)->m_len == 0;                                            \
        int bad_rsp_ = (rsp) == nullptr;                                                         \
        int bad_param_ = (param) == nullptr;                                                     \
        if (bad_fd_ || bad_req_ || bad_len_ || bad_rsp_ || bad_param_) {                         \
            trace_info("%d, %d, %d, %d, %d", bad_fd_, bad_req_, bad_len_, bad_rsp_, bad_param_); \
            trace_err_code(ERR_INVALID_PARAM);                                                   \
            return ERR_INVALID_PARAM;                                                            \
        }                                                                                        \
    } while (0)

// The error code every handler reports to the client, whatever went wrong inside.
#define SA_RSP_ERR_CODE static_cast<uint32_t>(-1)

#endif  // ZV_SA_SA_HANDLE_H
