// Process and thread utilities of the common library (module "zv-qel-pub").
//
// Stopping a worker thread with SIGUSR1 and the handler such threads install, switching a descriptor
// between blocking and non-blocking mode, the pid file under /tmp, the signal name table used in
// traces. Every utility traces its entry and its outcome through the log client. The move-only owners of
// descriptors, streams and directories live in owned/owned.h (included here for the daemon's files),
// which depends on nothing of the library, so the log client can use them without depending on util.
#ifndef ZV_PUB_UTIL_UTIL_H
#define ZV_PUB_UTIL_UTIL_H

#include <dirent.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <unistd.h>

#include "owned/owned.h"

// One row of the signal table: number, name, action letter (T terminate, A abort with core, I ignore,
// C continue, S stop, ? not defined) and description. Only the name is read by the code.
struct pub_util_sig_st {
    int32_t m_sig;
    const char *m_name;
    char m_action;
    const char *m_desc;
};

// Number of the row that ends pub_util_sig_table (its name is null).
constexpr int32_t PUB_UTIL_SIG_END = 65535;

// Signals 1 to 31 in ascending number (aliases share a number), then the end row.
extern const pub_util_sig_st pub_util_sig_table[];

// Stops a worker thread with SIGUSR1; 0 (also when there is nothing to stop) or pthread_kill's error.
// A thread that was signalled gets *thread = 0; an id of 0 or of an ended thread is left as it is.
int pub_util_kill_thread(pthread_t *thread);
// SIGUSR1 handler of worker threads: ends the calling thread; any other signal is traced and ignored.
void pub_util_handle_thread_signal(int sig);
// Sets (is_nonblock non-zero) or clears O_NONBLOCK on fd; 0, -101 for a negative fd, -118 on fcntl.
int pub_util_set_fd_mode(int fd, int is_nonblock);
// Name of a signal number from pub_util_sig_table; "" for an unknown number, never null.
const char *pub_util_get_signal_name(int sig);
// Writes the calling process's decimal pid and a newline to /tmp/<name>.pid.
void pub_util_create_pid_file(const char *name);

#endif  // ZV_PUB_UTIL_UTIL_H
