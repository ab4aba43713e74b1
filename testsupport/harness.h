// The daemon harness of the test-support library: starts the real daemon binary inside the simulated
// handset the way init does (working folder "/", its own session), and offers the one set of file,
// process, polling, sa.log and pty-client helpers that unit and end-to-end tests share. Waiting is always
// a poll with a deadline, never a fixed sleep.
#ifndef ZV_TESTSUPPORT_HARNESS_H
#define ZV_TESTSUPPORT_HARNESS_H

#include <stdint.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace zvtest {

constexpr char kDaemonPath[] = "/system/bin/zv-qel-sa";
constexpr char kSaLog[] = "/data/local/log/sa.log";
constexpr char kLogClientFile[] = "/data/local/log/zv-qel-sa/zv-qel-sa-log/zv-qel-sa.log";
constexpr char kDaemonOut[] = "/tmp/zv-qel-sa.out";

// A daemon process started by the harness.
struct Daemon {
    pid_t pid = -1;
};

// Starts the daemon with extra arguments: own session, cwd "/", stdout and stderr to kDaemonOut.
// argv0 replaces the program name seen in /proc/<pid>/cmdline when given.
Daemon start_daemon(const std::vector<std::string> &args = {}, const std::string &argv0 = "");
// Starts any program the same way (own session, cwd "/"), output to out_path ("" keeps the test's).
pid_t spawn(const std::vector<std::string> &argv, const std::string &out_path = "");
// Waits for pid to end; returns its wait status, or -1 when the deadline passed first.
int wait_exit(pid_t pid, std::chrono::milliseconds timeout);
// Kills pid (and its process group) with SIGKILL and reaps it.
void kill_and_reap(pid_t pid);

// Polls pred every few milliseconds until it holds or the deadline passes; returns its last value.
bool poll_until(const std::function<bool()> &pred, std::chrono::milliseconds timeout);

bool file_exists(const std::string &path);
std::string read_file(const std::string &path);
// Writes content to path (its folders made first); true when all of it was written.
bool write_file(const std::string &path, const std::string &content, int mode = 0644);
// Creates every missing folder of path.
void make_dirs(const std::string &path);
std::vector<std::string> read_lines(const std::string &path);
// How often needle occurs in the file at path (0 when it cannot be read).
int count_in_file(const std::string &path, const std::string &needle);

// The messages of sa.log: each line with its "[MM-DD hh:mm:ss.mmm]" prefix removed, so that
// "func message" remains. Lines that lack the prefix are returned unchanged.
std::vector<std::string> sa_log_messages(const std::string &path = kSaLog);
// Index of the first message at or after `from` that equals text, or -1.
int find_message(const std::vector<std::string> &messages, const std::string &text, int from = 0);

// Prepares the handset's /data as its init scripts do before the daemon starts.
void prepare_data();
// Sets the log configuration property so that the next daemon start captures nothing (every count and
// size 0), for tests that count the daemon's threads, children or descriptors.
void switch_capture_off();

// ---- Clients of the daemon's ptys ----

constexpr char kCmdLink[] = "/dev/ttySA0";
constexpr char kListenerLink[] = "/dev/ttysa1";

// Writes a configuration naming kCmdLink as the command link, starts the daemon and waits until the
// command link and the listener link resolve to their slaves.
Daemon start_daemon_with_links(const std::vector<std::string> &args = {});
// Opens a pty slave (through a link) as a client does: read-write, no controlling tty, raw mode.
int open_client(const std::string &path);
// Writes all of data to fd.
bool write_all(int fd, const std::string &data);
// Reads from fd until done(received) holds or the deadline passes; returns what was received.
std::string read_until(int fd, const std::function<bool(const std::string &)> &done,
                       std::chrono::milliseconds timeout);
// Reads whatever arrives within `quiet` of silence (at most `timeout` in all).
std::string read_for(int fd, std::chrono::milliseconds timeout);
// True when text ends with a final answer of the command channel ("\r\nOK\r\n" or an ERROR line).
bool is_final_answer(const std::string &text);
// Sends one request and reads until its final answer or the deadline.
std::string cmd_request(int fd, const std::string &request,
                        std::chrono::milliseconds timeout = std::chrono::seconds(20));
// Sends a fence, "SA+KERNEL_LOG?\r", and returns everything read up to and including its answer
// ("\r\nKERNEL_LOG: N\r\n\r\nOK\r\n", which no other request shares). The command thread answers
// requests one after another, so anything it still wrote for an earlier request arrives before the
// fence's answer, and the result then does not start with kFenceAnswerStart.
constexpr char kFenceAnswerStart[] = "\r\nKERNEL_LOG: ";
std::string read_through_fence(int fd, std::chrono::milliseconds timeout = std::chrono::seconds(20));
// Opens kCmdLink, sends one request, returns the answer, closes.
std::string cmd_request_once(const std::string &request,
                             std::chrono::milliseconds timeout = std::chrono::seconds(20));

// Leaves `bytes` available on /data with a preallocated filler, /data/filler (made anew each time); false
// when /data has less than that or the filler cannot be made. Exact to the byte only while nothing else
// writes to /data, and when bytes is a whole number of blocks.
bool leave_data_available(uint64_t bytes);

// Whether a process in this handset may lower its own oom_adj: it needs CAP_SYS_RESOURCE of the machine,
// which a container or a user namespace may withhold whatever the capability sets inside say.
bool can_lower_oom_adj();

// Number of open descriptors of a process, and of its threads and its child processes.
int count_fds(pid_t pid);
int count_threads(pid_t pid);
std::vector<pid_t> child_pids(pid_t pid);
// The resolved target of a link, or "".
std::string link_target(const std::string &path);

}  // namespace zvtest

#endif  // ZV_TESTSUPPORT_HARNESS_H
