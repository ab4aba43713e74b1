// test_probe: /proc readers and a program runner for the simulator's tests. Everything here reads;
// nothing changes the handset except the programs a test chooses to run.
#include "init/test_probe.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

int64_t probe_now_ms() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

int probe_exit_code(const probe_run &run) {
    return run.m_status >= 0 && WIFEXITED(run.m_status) ? WEXITSTATUS(run.m_status) : -1;
}

bool probe_write_file(const std::string &path, const std::string &text, mode_t mode) {
    FILE *f = fopen(path.c_str(), "we");
    if (f == nullptr) return false;
    bool ok = fwrite(text.data(), 1, text.size(), f) == text.size();
    ok = fclose(f) == 0 && ok;
    return ok && chmod(path.c_str(), mode) == 0;
}

probe_run probe_run_program(const std::vector<std::string> &argv) {
    probe_run result{-1, "", ""};
    int out_pipe[2];
    int err_pipe[2];
    if (pipe2(out_pipe, O_CLOEXEC) != 0) return result;
    if (pipe2(err_pipe, O_CLOEXEC) != 0) {
        close(out_pipe[0]);
        close(out_pipe[1]);
        return result;
    }
    std::vector<char *> args;
    for (const std::string &a : argv) args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(out_pipe[1], STDOUT_FILENO);
        dup2(err_pipe[1], STDERR_FILENO);
        execvp(args[0], args.data());
        _exit(127);
    }
    close(out_pipe[1]);
    close(err_pipe[1]);
    if (pid < 0) {
        close(out_pipe[0]);
        close(err_pipe[0]);
        return result;
    }
    struct pollfd fds[2] = {{out_pipe[0], POLLIN, 0}, {err_pipe[0], POLLIN, 0}};
    std::string *sinks[2] = {&result.m_out, &result.m_err};
    int open_count = 2;
    while (open_count > 0) {
        if (poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) continue;
            char buf[4096];
            ssize_t n = read(fds[i].fd, buf, sizeof(buf));
            if (n > 0) {
                sinks[i]->append(buf, static_cast<size_t>(n));
            } else if (n == 0 || errno != EINTR) {
                close(fds[i].fd);
                fds[i].fd = -1;
                --open_count;
            }
        }
    }
    for (struct pollfd &p : fds) {
        if (p.fd >= 0) close(p.fd);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    result.m_status = status;
    return result;
}

bool probe_wait_for(const std::function<bool()> &pred, int64_t timeout_ms) {
    int64_t deadline = probe_now_ms() + timeout_ms;
    for (;;) {
        if (pred()) return true;
        if (probe_now_ms() >= deadline) return pred();
        struct timespec pause = {0, 10 * 1000 * 1000};
        nanosleep(&pause, nullptr);
    }
}

pid_t probe_wait_single(const std::function<std::vector<pid_t>()> &lookup, pid_t not_pid,
                        int64_t timeout_ms) {
    pid_t found = 0;
    probe_wait_for(
        [&] {
            std::vector<pid_t> pids = lookup();
            found = pids.size() == 1 && pids[0] != not_pid ? pids[0] : 0;
            return found != 0;
        },
        timeout_ms);
    return found;
}

void probe_put_u32(std::string *out, uint32_t v) {
    out->append(reinterpret_cast<const char *>(&v), sizeof(v));
}

std::string probe_prop_frame(const std::string &key, const std::string &value, uint32_t cmd) {
    std::string f;
    probe_put_u32(&f, cmd);
    probe_put_u32(&f, static_cast<uint32_t>(key.size()));
    f += key;
    probe_put_u32(&f, static_cast<uint32_t>(value.size()));
    f += value;
    return f;
}

std::string probe_read_file(const std::string &path) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return "<missing>";
    std::string out;
    char buf[4096];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof(buf));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        out.append(buf, static_cast<size_t>(n));
    }
    close(fd);
    return out;
}

// Pids of every process under /proc.
static std::vector<pid_t> probe_all_pids() {
    std::vector<pid_t> pids;
    DIR *d = opendir("/proc");
    if (d == nullptr) return pids;
    while (struct dirent *e = readdir(d)) {
        char *end = nullptr;
        long pid = strtol(e->d_name, &end, 10);
        if (end != e->d_name && *end == '\0' && pid > 0) pids.push_back(static_cast<pid_t>(pid));
    }
    closedir(d);
    return pids;
}

// Pids of the live processes whose command line passes match.
static std::vector<pid_t> probe_pids_where(const std::function<bool(const std::string &)> &match) {
    std::vector<pid_t> found;
    for (pid_t pid : probe_all_pids()) {
        if (!match(probe_read_file("/proc/" + std::to_string(pid) + "/cmdline"))) continue;
        char state = probe_state(pid);
        if (state != 0 && state != 'Z') found.push_back(pid);
    }
    return found;
}

std::vector<pid_t> probe_pids_of(const std::vector<std::string> &argv) {
    std::string want;
    for (const std::string &a : argv) {
        want += a;
        want.push_back('\0');
    }
    return probe_pids_where([&want](const std::string &cmdline) { return cmdline == want; });
}

std::vector<pid_t> probe_pids_containing(const std::string &needle) {
    return probe_pids_where([&needle](const std::string &cmdline) {
        return cmdline != "<missing>" && cmdline.find(needle) != std::string::npos;
    });
}

// The fields of /proc/PID/stat after the command name, starting with field 3 (the state).
static std::vector<std::string> probe_stat_tail(pid_t pid) {
    std::vector<std::string> fields;
    std::string stat = probe_read_file("/proc/" + std::to_string(pid) + "/stat");
    size_t close_paren = stat.rfind(')');
    if (stat == "<missing>" || close_paren == std::string::npos) return fields;
    size_t pos = close_paren + 1;
    while (pos < stat.size()) {
        while (pos < stat.size() && (stat[pos] == ' ' || stat[pos] == '\n')) ++pos;
        size_t end = pos;
        while (end < stat.size() && stat[end] != ' ' && stat[end] != '\n') ++end;
        if (end > pos) fields.push_back(stat.substr(pos, end - pos));
        pos = end;
    }
    return fields;
}

char probe_state(pid_t pid) {
    std::vector<std::string> tail = probe_stat_tail(pid);
    return tail.empty() || tail[0].empty() ? 0 : tail[0][0];
}

long long probe_stat_field(pid_t pid, int field) {
    std::vector<std::string> tail = probe_stat_tail(pid);
    size_t index = static_cast<size_t>(field - 3);
    if (field < 3 || index >= tail.size()) return -1;
    return strtoll(tail[index].c_str(), nullptr, 10);
}

std::vector<long long> probe_status_ids(pid_t pid, const char *name) {
    std::vector<long long> ids;
    std::string status = probe_read_file("/proc/" + std::to_string(pid) + "/status");
    std::string label = std::string("\n") + name + ":";
    size_t pos = status.find(label);
    if (pos == std::string::npos) return ids;
    pos += label.size();
    size_t end = status.find('\n', pos);
    std::string line = status.substr(pos, end == std::string::npos ? std::string::npos : end - pos);
    const char *p = line.c_str();
    for (;;) {
        char *next = nullptr;
        long long v = strtoll(p, &next, 10);
        if (next == p) break;
        ids.push_back(v);
        p = next;
    }
    return ids;
}

std::vector<int> probe_fds(pid_t pid) {
    std::vector<int> fds;
    DIR *d = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
    if (d == nullptr) return fds;
    while (struct dirent *e = readdir(d)) {
        if (e->d_name[0] != '.') fds.push_back(atoi(e->d_name));
    }
    closedir(d);
    std::sort(fds.begin(), fds.end());
    return fds;
}

std::string probe_readlink(const std::string &path) {
    char buf[512];
    ssize_t n = readlink(path.c_str(), buf, sizeof(buf) - 1);
    if (n < 0) return "";
    return std::string(buf, static_cast<size_t>(n));
}

std::vector<pid_t> probe_zombies() {
    std::vector<pid_t> zombies;
    for (pid_t pid : probe_all_pids()) {
        if (probe_state(pid) == 'Z') zombies.push_back(pid);
    }
    return zombies;
}
