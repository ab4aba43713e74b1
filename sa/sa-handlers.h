// The command handlers as a set: sa_cmd_table (defined in sa-handlers.cpp from the handlers that each
// subsystem's header declares), and the start-up and teardown of the handler state (auto-start list,
// log capture, the command thread, panic dumps, /data/local.prop, the remount). Only the daemon's start
// and stop include this header; no subsystem does.
#ifndef ZV_SA_SA_HANDLERS_H
#define ZV_SA_SA_HANDLERS_H

#include "sa-handle.h"

// Starts the auto-start services, zeroes the context, starts log capture when space allows, creates the
// command thread, preserves panic dumps and prepares /data/local.prop. 0, or pthread_create's error.
long sa_handle_init(void);
// Closes the command endpoint (the command thread and capture are left running); pub_pty_close's result.
long sa_handle_deinit(void);

#endif  // ZV_SA_SA_HANDLERS_H
