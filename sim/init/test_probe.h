// test_probe: what the simulator's tests need to look at a running handset from inside: run a handset
// program and collect its output, poll a condition against a deadline, find processes by their exact
// command line, and read a process's state, parent, ids and start time from /proc.
#ifndef ZV_SIM_INIT_TEST_PROBE_H
#define ZV_SIM_INIT_TEST_PROBE_H

#include <stdint.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "cutils/properties.h"

// Result of one program run.
struct probe_run {
    int m_status;  // wait status; -1 when the program could not be started
    std::string m_out;
    std::string m_err;
};

// COMMAND's exit code from a run, or -1 when it did not exit normally.
int probe_exit_code(const probe_run &run);

// Creates or truncates path with text and then sets mode; false on any failure.
bool probe_write_file(const std::string &path, const std::string &text, mode_t mode = 0644);

// Monotonic clock in milliseconds.
int64_t probe_now_ms();

// Runs argv[0] (searched in PATH) with the rest as arguments and collects its stdout and stderr.
probe_run probe_run_program(const std::vector<std::string> &argv);

// Polls pred every 10 ms until it holds or timeout_ms passed; its last result.
bool probe_wait_for(const std::function<bool()> &pred, int64_t timeout_ms);

// Polls lookup until it finds exactly one pid other than not_pid; that pid, or 0 after timeout_ms.
pid_t probe_wait_single(const std::function<std::vector<pid_t>()> &lookup, pid_t not_pid, int64_t timeout_ms);

// Appends the host-order bytes of v to out.
void probe_put_u32(std::string *out, uint32_t v);

// A property set request in the service's wire format (cmd, key length, key, value length, value).
std::string probe_prop_frame(const std::string &key, const std::string &value,
                             uint32_t cmd = PROP_MSG_SETPROP2);

// Pids of the live (not zombie) processes whose command line is exactly argv.
std::vector<pid_t> probe_pids_of(const std::vector<std::string> &argv);

// Pids of the live (not zombie) processes whose command line (arguments joined by NULs) holds needle.
std::vector<pid_t> probe_pids_containing(const std::string &needle);

// State letter of pid from /proc/PID/stat ('R', 'S', 'Z', ...), or 0 when there is no such process.
char probe_state(pid_t pid);

// Field number field (1-based, as in proc(5)) of /proc/PID/stat as a number; -1 when unreadable.
long long probe_stat_field(pid_t pid, int field);

// The whitespace-separated numbers of the line "name:" of /proc/PID/status.
std::vector<long long> probe_status_ids(pid_t pid, const char *name);

// The open descriptor numbers of pid, sorted.
std::vector<int> probe_fds(pid_t pid);

// Target of the symbolic link path, or "" when unreadable.
std::string probe_readlink(const std::string &path);

// Content of the file path, or "<missing>" when it can't be opened.
std::string probe_read_file(const std::string &path);

// Pids of every zombie process of the handset.
std::vector<pid_t> probe_zombies();

#endif  // ZV_SIM_INIT_TEST_PROBE_H
