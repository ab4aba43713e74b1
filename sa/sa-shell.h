// Pseudo-terminal and process plumbing shared by the remote shell listener and the capture launcher:
// a raw pty with a named slave, a shell forked onto it, and a detached waiter thread per child that
// reaps it, traces how it ended and closes its descriptor.
#ifndef ZV_SA_SA_SHELL_H
#define ZV_SA_SA_SHELL_H

#include <pthread.h>
#include <sys/types.h>

// The block handed to a waiter thread, which frees it.
struct subproc_info {
    void (*func)(int fd, pid_t pid);  // run on the new thread: always subproc_waiter_service
    int fd;                           // descriptor closed after the child ended
    pid_t pid;                        // the child
};

// Opens a raw pty. Non-empty symname: its slave is published as a link of that name; empty symname:
// the slave path is copied into symname (room for 128 bytes). The master, or -1.
int open_ptm(char *symname);
// Removes the link symname and closes fd; 0.
int close_ptm(int fd, const char *symname);
// Forks "/system/bin/sh" with arguments arg0 and arg1 on the pty master fd as its stdio; fd in the
// parent, -1 on failure (fd closed).
int create_subprocess(int fd, const char *arg0, const char *arg1, pid_t *pid);
// Starts a detached thread running service_bootstrap_func(arg); pthread_create's result.
int thread_create(pthread_t *thread, void *arg);
// Thread entry: runs the subproc_info's func with its fd and pid, then frees it.
void *service_bootstrap_func(void *arg);
// Waits for pid, traces how it ended, waits 200 ms so a peer can read the last output, closes fd.
void subproc_waiter_service(int fd, pid_t pid);
// Runs a shell on fd ("-c command", or interactive when command is null) with a waiter thread; fd or -1.
int create_subproc_thread(int fd, const char *command);

#endif  // ZV_SA_SA_SHELL_H
