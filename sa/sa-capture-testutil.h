// Helpers shared by the unit tests of the log capture, which run inside a simulated handset: the log
// client's records and the sa.log lines as text, handler calls through a pipe, polling with a deadline,
// files, processes and threads seen through /proc, and hiding a program that the handset binds in.
#ifndef ZV_SA_SA_CAPTURE_TESTUTIL_H
#define ZV_SA_SA_CAPTURE_TESTUTIL_H

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
#include "harness.h"
#include "sa-handle.h"
#include "sa-handlers.h"
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

// The log client's records so far (the file in <dir>/<process>-log/ that is not the fault file).
inline std::string log_text() {
    std::string text;
    DIR *top = opendir(kLogClientDir);
    if (top == nullptr) return text;
    while (dirent *d = readdir(top)) {
        std::string name = d->d_name;
        if (name.size() < 4 || name.compare(name.size() - 4, 4, "-log") != 0) continue;
        std::string sub = std::string(kLogClientDir) + "/" + name;
        DIR *dir = opendir(sub.c_str());
        if (dir == nullptr) continue;
        while (dirent *f = readdir(dir)) {
            std::string file = f->d_name;
            if (file.size() > 4 && file.compare(file.size() - 4, 4, ".log") == 0 &&
                file != "log_internal.log")
                text += read_file(sub + "/" + file);
        }
        closedir(dir);
    }
    closedir(top);
    return text;
}

// Position of the first record at or after from that contains text, or npos.
inline size_t log_find(const std::string &text, size_t from = 0) {
    return log_text().find(text, from);
}

// One handler call with a pipe as the channel: the result and the bytes answered.
struct handler_call_st {
    long m_ret;
    std::string m_answer;
};

inline handler_call_st call_handler(sa_cmd_handler_fn fn, const std::string &param) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return {-1000, ""};
    sa_msg_st req;
    sa_msg_st rsp;
    memset(&req, 0, sizeof(req));
    memset(&rsp, 0, sizeof(rsp));
    snprintf(req.m_data_a, sizeof(req.m_data_a), "SA+X=%s", param.c_str());
    req.m_len = static_cast<uint16_t>(strlen(req.m_data_a));
    const char *p = req.m_data_a + 5;
    long ret = fn(fds[1], &req, &rsp, p);
    close(fds[1]);
    std::string answer;
    char buf[256];
    ssize_t n;
    while ((n = read(fds[0], buf, sizeof(buf))) > 0) answer.append(buf, static_cast<size_t>(n));
    close(fds[0]);
    return {ret, answer};
}

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

// Leaves exactly free_kb KB (a multiple of the block size) available on /data with a preallocated filler.
inline void set_data_available_kb(uint64_t free_kb) {
    constexpr char kFiller[] = "/data/filler";
    unlink(kFiller);
    struct statfs st;
    ASSERT_EQ(0, statfs("/data", &st));
    uint64_t avail = static_cast<uint64_t>(st.f_bavail) * st.f_bsize;
    uint64_t want = free_kb * 1024;
    ASSERT_EQ(0u, want % st.f_bsize);
    ASSERT_GE(avail, want);
    int fd = open(kFiller, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
    if (avail > want) {
        ASSERT_EQ(0, posix_fallocate(fd, 0, static_cast<off_t>(avail - want)));
    }
    close(fd);
    ASSERT_EQ(0, statfs("/data", &st));
    ASSERT_EQ(want, static_cast<uint64_t>(st.f_bavail) * st.f_bsize);
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

#endif  // ZV_SA_SA_CAPTURE_TESTUTIL_H
