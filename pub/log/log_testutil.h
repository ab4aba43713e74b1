// Test helpers shared by the common library's unit tests: start the process-wide log client and read
// back what it wrote.
#ifndef ZV_PUB_LOG_LOG_TESTUTIL_H
#define ZV_PUB_LOG_LOG_TESTUTIL_H

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <string>

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

#endif  // ZV_PUB_LOG_LOG_TESTUTIL_H
