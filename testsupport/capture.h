// Helpers of the daemon's unit tests that run capture, switches and archive code inside a simulated
// handset: the handset's folders, the log client started as the daemon starts it, the handler state
// reset, processes and threads seen through /proc, free space on /data, and hiding a program that the
// handset binds in. Handler calls, the structured log and sa.log, polling and files come from
// handler.h, logs.h and harness.h, which this header brings along.
#ifndef ZV_TESTSUPPORT_CAPTURE_H
#define ZV_TESTSUPPORT_CAPTURE_H

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "log/log_client.h"
#include "sa-capture.h"
#include "handler.h"
#include "logs.h"
#include "harness.h"
#include "sa-handle.h"
#include "sa-trace.h"

namespace sa_capture_test {

using namespace std::chrono_literals;

constexpr char kLogClientDir[] = "/data/local/log/zv-qel-sa";
using zvtest::kSaLog;

// Polling, files and sa.log come from the end-to-end harness.
using zvtest::file_exists;
using zvtest::find_message;
using zvtest::poll_until;
using zvtest::read_file;
using zvtest::sa_log_messages;
using zvtest::write_file;

inline long long file_size(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : -1;
}

inline size_t count_of(const std::string &text, const std::string &needle) {
    size_t n = 0;
    for (size_t pos = text.find(needle); pos != std::string::npos;
         pos = text.find(needle, pos + needle.size()))
        ++n;
    return n;
}

// The handset's folders as its init scripts leave them: the log folder owned by the shell user, and a
// scratch folder where the fake logcat records its arguments.
inline void prepare_folders() {
    mkdir("/data/local", 0751);
    mkdir("/data/local/log", 0771);
    chown("/data/local/log", SA_AID_SHELL, SA_AID_SHELL);
    chmod("/data/local/log", 0771);
    mkdir("/data/local/tmp", 0771);
    chmod("/data/local/tmp", 0771);
    mkdir("/data/local/tmp/logcat-args", 0777);
    chmod("/data/local/tmp/logcat-args", 0777);
}

// Starts sa.log as the daemon does (owned by the shell user, so children that dropped root can append
// to it) and the process-wide log client in the daemon's folder, large enough never to wrap.
inline void start_log_client() {
    prepare_folders();
    update_sa_logs();
    sfw_log_set_path(kLogClientDir);
    sfw_log_set_max_size(256u * 1024u * 1024u);
    sfw_log_start(1, nullptr);
}

// Clears the service table and the handler state, and points the log folder at its default.
inline void reset_capture_state() {
    memset(g_zv_log_svc, 0, sizeof(g_zv_log_svc));
    memset(&g_sa_handle_ctx, 0, sizeof(g_sa_handle_ctx));
    snprintf(g_log_path_a, sizeof(g_log_path_a), "%s", SA_LOG_DIR);
}

// The log client's records come from logs.h (log_text reads the process-wide client's file).

// Position of the first record at or after from that contains text, or npos.
inline size_t log_find(const std::string &text, size_t from = 0) {
    return log_text().find(text, from);
}

// Handler calls come from handler.h.
using zvtest::call_handler;
using zvtest::handler_call_st;

constexpr char kOk[] = "\r\nOK\r\n";
constexpr char kError[] = "\r\nERROR: 4294967295\r\n";

// A line of /proc/<pid>/status ("Uid:", "Gid:", "State:" ...) without its name, or "".
inline std::string proc_status_field(pid_t pid, const std::string &name) {
    std::istringstream in(read_file("/proc/" + std::to_string(pid) + "/status"));
    std::string line;
    while (std::getline(in, line))
        if (line.compare(0, name.size(), name) == 0) return line.substr(name.size());
    return "";
}

// Whether pid is gone (reaped) rather than running or a zombie.
inline bool process_gone(pid_t pid) {
    return !file_exists("/proc/" + std::to_string(pid));
}

inline bool process_running(pid_t pid) {
    std::string state = proc_status_field(pid, "State:");
    return !state.empty() && state.find('Z') == std::string::npos;
}

// Threads of this process. Some runtimes (ThreadSanitizer) add a helper thread of their own when the
// first thread is created; settle_threads() makes that happen, and waits for its own thread to be gone,
// before a test takes its baseline.
inline int thread_count() {
    int n = 0;
    DIR *dir = opendir("/proc/self/task");
    if (dir == nullptr) return -1;
    while (dirent *d = readdir(dir))
        if (d->d_name[0] != '.') ++n;
    closedir(dir);
    return n;
}

inline void settle_threads() {
    pid_t tid = 0;
    std::thread([&tid] { tid = static_cast<pid_t>(syscall(SYS_gettid)); }).join();
    // Joined is not yet gone: under a user-mode emulator the thread's host thread outlives the join for a
    // moment, and a baseline taken meanwhile would count it.
    const std::string task = "/proc/self/task/" + std::to_string(tid);
    poll_until([&] { return !file_exists(task); }, 2s);
}

// Leaves exactly `bytes` available on /data (a whole number of blocks) with a preallocated filler.
inline void set_data_available_bytes(uint64_t bytes) {
    ASSERT_TRUE(zvtest::leave_data_available(bytes)) << bytes;
    struct statfs st;
    ASSERT_EQ(0, statfs("/data", &st));
    ASSERT_EQ(bytes, static_cast<uint64_t>(st.f_bavail) * st.f_bsize);
}

// The same in KB, which must be a whole number of blocks.
inline void set_data_available_kb(uint64_t free_kb) {
    set_data_available_bytes(free_kb * 1024);
}

// Takes away a program or library that the handset binds in (the bind mount, then the file under it).
inline bool hide_file(const std::string &path) {
    umount2(path.c_str(), MNT_DETACH);
    return unlink(path.c_str()) == 0 || errno == ENOENT;
}

// The recorded argument line of a fake program's run, e.g. dir "logcat-args".
inline std::string recorded_args(const std::string &dir, pid_t pid) {
    return read_file("/data/local/tmp/" + dir + "/" + std::to_string(pid));
}

}  // namespace sa_capture_test

#endif  // ZV_TESTSUPPORT_CAPTURE_H
