// Remote shells through the daemon's listener, and its "host:kill". The exit status of a remote command
// comes from the daemon's trace file: the listener traces the request it serves and the pid of the shell
// it starts for it, and the shell's waiter traces how that pid ended. The client reads those lines, so
// the command runs exactly as the listener gives it (its text, its stdin, its terminal untouched).
#ifndef ZV_TOOLS_CLIENT_SHELL_H
#define ZV_TOOLS_CLIENT_SHELL_H

#include <string>

#include "client-channel.h"

constexpr char kListenerLink[] = "/dev/ttysa1";
constexpr char kSaLogPath[] = "/data/local/log/sa.log";

struct zv_shell_options {
    std::string listener = kListenerLink;
    std::string sa_log = kSaLogPath;
    bool capture = false;        // keep the shell's output in the result instead of writing it to stdout
    bool relay_stdin = true;     // copy the client's stdin to the shell
    long long deadline_ms = -1;  // the whole run must end by then (zv_client_now_ms() time); -1: no limit
};

struct zv_shell_result {
    int exit_code = 2;          // the client's exit status: the remote status, 128+N, 124, or 2
    bool status_known = false;  // the trace file told how the shell ended
    int status = -1;            // the remote exit code, or 128 + signal
    std::string output;         // with capture: what the shell wrote
    std::string why;            // what went wrong, when exit_code is 2 or 124
};

// Runs request ("shell:" and a command, or "shell:" alone) on a pty from the listener.
zv_shell_result zv_shell_run(const std::string &request, const zv_shell_options &options,
                             const zv_client_report &report);

// Asks the listener to end the daemon ("host:kill"); false with *why when the listener can't be reached.
bool zv_listener_kill(const std::string &listener, const zv_client_report &report, std::string *why);

// From the trace text written after the request was sent: the pid of the shell that serves request.
bool zv_trace_shell_pid(const std::string &trace, const std::string &request, int *pid);
// How the shell with pid ended: its exit code, or 128 + the signal that ended it.
bool zv_trace_shell_status(const std::string &trace, int pid, int *status);

#endif  // ZV_TOOLS_CLIENT_SHELL_H
