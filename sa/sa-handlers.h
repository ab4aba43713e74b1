// The command handlers as a set: every handler's entry point (one row each of sa_cmd_table, which
// sa-handlers.cpp defines), and the start-up and teardown of the handler state (auto-start
// list, log capture, the command thread, panic dumps, /data/local.prop, the remount).
#ifndef ZV_SA_SA_HANDLERS_H
#define ZV_SA_SA_HANDLERS_H

#include "sa-handle.h"

// Command handlers, one row each of sa_cmd_table.
long handle_sa_start_service_set(int fd, sa_msg_st *req, sa_msg_st *rsp, const char *param);
long handle_sa_stop_service_set(int fd, sa_msg_st *req, sa_msg_st *rsp, const char *param);
long handle_sa_query_service_set(int fd, sa_msg_st *req, sa_msg_st *rsp, const char *param);
long handle_sa_auto_start_service_set(int fd, sa_msg_st *req, sa_msg_st *rsp, const char *param);
long handle_sa_save_log_set(int fd, sa_msg_st *req, sa_msg_st *rsp, const char *param);
long handle_sa_system_set(int fd, sa_msg_st *req, sa_msg_st *rsp, const char *param);
long handle_sa_kernel_log_set(int fd, sa_msg_st *req, sa_msg_st *rsp, const char *param);
long handle_sa_kernel_log_read(int fd, sa_msg_st *req, sa_msg_st *rsp, const char *param);
long handle_sa_dmesg_log_set(int fd, sa_msg_st *req, sa_msg_st *rsp, const char *param);
long handle_sa_dmesg_log_read(int fd, sa_msg_st *req, sa_msg_st *rsp, const char *param);
long handle_sa_packets_log_set(int fd, sa_msg_st *req, sa_msg_st *rsp, const char *param);
long handle_sa_delete_log_set(int fd, sa_msg_st *req, sa_msg_st *rsp, const char *param);

// Starts the auto-start services, zeroes the context, starts log capture when space allows, creates the
// command thread, preserves panic dumps and prepares /data/local.prop. 0, or pthread_create's error.
long sa_handle_init(void);
// Closes the command endpoint (the command thread and capture are left running); pub_pty_close's result.
long sa_handle_deinit(void);

#endif  // ZV_SA_SA_HANDLERS_H
