// "+SYSTEM" and the retrying wrapper around system() that other handlers use for their copy steps.
#ifndef ZV_SA_SA_SYSTEM_H
#define ZV_SA_SA_SYSTEM_H

#include "sa-handle.h"

// "+SYSTEM=\"CMDLINE\"": runs the command line (up to five times) and answers OK when a run exited 0.
long handle_sa_system_set(int fd, sa_msg_st *req, sa_msg_st *rsp, const char *param);

// Runs a shell command line with system(), up to five attempts 500 ms apart; 0 when one run returned
// status 0, -118 after five failures.
long do_sys_command(const char *cmd);

#endif  // ZV_SA_SA_SYSTEM_H
