// The structured log as the tests read it: start the process-wide log client and read back what it wrote
// (the one reader of the client's file, for the library's and the daemon's unit tests alike); and, in
// namespace logtest, the helpers of the log client's own tests (the exact texts of the file, the columns
// of a record, threads and children).
#ifndef ZV_TESTSUPPORT_LOGS_H
#define ZV_TESTSUPPORT_LOGS_H

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "harness.h"
#include "log/log_client.h"

// Starts the process-wide log client (its file lands under /data/local/log in the handset).
inline void start_log() {
    sfw_log_start(1, nullptr);
}

// Everything written to the log file so far.
inline std::string log_text() {
    if (log_obj.m_fp == nullptr) return "<no log>";
    fflush(log_obj.m_fp);
    // The log's own stream is write-only: read the same file through a second descriptor.
    char path[64];
    snprintf(path, sizeof(path), "/proc/self/fd/%d", fileno(log_obj.m_fp));
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return "<unreadable log>";
    std::string out;
    char buf[4096];
    ssize_t n;
    while ((n = read(fd, buf, sizeof(buf))) > 0) out.append(buf, static_cast<size_t>(n));
    close(fd);
    return out;
}

// The first log line that contains text, without its newline; "" when there is none.
inline std::string log_line_with(const std::string &text) {
    const std::string all = log_text();
    size_t at = all.find(text);
    if (at == std::string::npos) return "";
    size_t begin = all.rfind('\n', at);
    begin = begin == std::string::npos ? 0 : begin + 1;
    size_t end = all.find('\n', at);
    return all.substr(begin, end == std::string::npos ? std::string::npos : end - begin);
}

inline bool ends_with(const std::string &s, const std::string &tail) {
    return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

namespace logtest {

inline const char *const kMod = "zv-qel-pub";
inline const char *const kSrc = "log/log_client_test";
inline const std::string kRule(92, '=');
inline const char *const kColumns =
    "    TIME     |   TID    |              FUNCTION              |  LINE  |    LEVEL     | INFO";
inline const char *const kFooter =
    "\n========================================= log  end =========================================\n";

inline std::string ProcName() {
    char name[50] = "";
    EXPECT_EQ(0, get_process_name(name, sizeof(name)));
    return name;
}

inline std::string Slurp(const std::string &path) {
    return zvtest::read_file(path);
}

inline bool Exists(const std::string &path) {
    return zvtest::file_exists(path);
}

inline long FileSize(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? static_cast<long>(st.st_size) : -1;
}

inline void MakeFile(const std::string &path, const std::string &text) {
    FILE *fp = fopen(path.c_str(), "we");
    ASSERT_NE(nullptr, fp) << path;
    fputs(text.c_str(), fp);
    fclose(fp);
}

std::vector<std::string> Lines(const std::string &text) {
    std::vector<std::string> out;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t nl = text.find('\n', pos);
        if (nl == std::string::npos) nl = text.size();
        out.push_back(text.substr(pos, nl - pos));
        pos = nl + 1;
    }
    return out;
}

// Pattern match without std::regex: '#' is one digit, '%' one or more digits, anything else itself.
inline bool MatchAt(const std::string &s, size_t i, const char *pat, size_t *end) {
    for (; *pat != '\0'; pat++) {
        if (*pat == '#' || *pat == '%') {
            if (i >= s.size() || s[i] < '0' || s[i] > '9') return false;
            i++;
            while (*pat == '%' && i < s.size() && s[i] >= '0' && s[i] <= '9') i++;
        } else {
            if (i >= s.size() || s[i] != *pat) return false;
            i++;
        }
    }
    *end = i;
    return true;
}

// The whole text matches the pattern.
inline bool Like(const std::string &s, const char *pat) {
    size_t end = 0;
    return MatchAt(s, 0, pat, &end) && end == s.size();
}

// How many places of the text the pattern matches.
inline int Count(const std::string &s, const char *pat) {
    int n = 0;
    size_t end = 0;
    for (size_t i = 0; i < s.size(); i++) n += MatchAt(s, i, pat, &end) ? 1 : 0;
    return n;
}

// The log directory main uses, after the client appended "<process>-log".
inline std::string MainDir() {
    return "/data/local/log/zv-qel-sa/" + ProcName() + "-log";
}

// Starts log_obj the way main does; returns the log file's path.
inline std::string StartMain() {
    sfw_log_set_path("/data/local/log/zv-qel-sa");
    EXPECT_EQ(&log_obj, sfw_log_start(1, nullptr));
    return MainDir() + "/" + ProcName() + ".log";
}

inline std::string LastLine(const std::string &path) {
    std::string text = Slurp(path);
    EXPECT_FALSE(text.empty());
    EXPECT_EQ('\n', text.back());
    std::vector<std::string> lines = Lines(text);
    return lines.empty() ? std::string() : lines.back();
}

struct Fields {
    std::string time, tid, func, line, level, body;
};

// Splits a record line at its first five " | " separators.
inline Fields Split(const std::string &line) {
    Fields f;
    std::string *parts[] = {&f.time, &f.tid, &f.func, &f.line, &f.level};
    size_t pos = 0;
    for (std::string *p : parts) {
        size_t sep = line.find(" | ", pos);
        if (sep == std::string::npos) return Fields{};
        *p = line.substr(pos, sep - pos);
        pos = sep + 3;
    }
    f.body = line.substr(pos);
    return f;
}

inline std::string ThreadColumn() {
    char buf[32];
    long tid = static_cast<long>(pthread_self());
    if (tid < 0) return "  (main)";
    snprintf(buf, sizeof(buf), "% 8ld", tid);
    return buf;
}

inline void Full(unsigned level, long err, unsigned dir, const void *data, unsigned len, unsigned char idx,
                 const char *text, const char *msg_name) {
    sfw_log_full(nullptr, kMod, level, kSrc, 77, "test_func", err, dir, data, len, idx, text, msg_name);
}

inline void WithMessage(unsigned level, long err, const char *text, const char *msg) {
    sfw_log_lock(nullptr);
    sfw_log_build_extended_info("%s", msg);
    sfw_log_full(nullptr, kMod, level, kSrc, 78, "test_func", err, SFW_LOG_DIR_NONE, nullptr, 0, 0, text,
                 nullptr);
}

// Body of the last record written by one of the calls above.
inline std::string LastBody(const std::string &path) {
    return Split(LastLine(path)).body;
}

// True when the log object's mutex is free (taken and given back at once).
inline bool MutexFree() {
    if (pthread_mutex_trylock(&log_obj.m_mutex) != 0) return false;
    pthread_mutex_unlock(&log_obj.m_mutex);
    return true;
}

// Polls cond every millisecond until it holds or the deadline passes; returns its last value.
inline bool PollUntil(const std::function<bool()> &cond, int seconds) {
    return zvtest::poll_until(cond, std::chrono::seconds(seconds));
}

// Waits for a child with a deadline; false (child killed) when it does not end in time.
inline bool WaitChild(pid_t pid, int *status, int seconds) {
    if (PollUntil([&] { return waitpid(pid, status, WNOHANG) == pid; }, seconds)) return true;
    kill(pid, SIGKILL);
    waitpid(pid, status, 0);
    return false;
}

// Polls until the thread has published its id and sleeps in the kernel (blocked on the log mutex).
inline bool WaitBlocked(const std::atomic<pid_t> &tid) {
    return PollUntil(
        [&] {
            pid_t t = tid.load();
            if (t == 0) return false;
            std::string stat = Slurp("/proc/self/task/" + std::to_string(t) + "/stat");
            size_t paren = stat.rfind(')');
            return paren != std::string::npos && paren + 2 < stat.size() && stat[paren + 2] == 'S';
        },
        20);
}

}  // namespace logtest

#endif  // ZV_TESTSUPPORT_LOGS_H
