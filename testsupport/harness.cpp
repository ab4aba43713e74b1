// End-to-end test harness; see harness.h.
#include "harness.h"

#include "client.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <dirent.h>
#include <poll.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <thread>

namespace zvtest {

pid_t spawn(const std::vector<std::string> &argv, const std::string &out_path) {
    std::vector<char *> cargv;
    for (const auto &a : argv) cargv.push_back(const_cast<char *>(a.c_str()));
    cargv.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        setsid();
        if (chdir("/") != 0) _exit(126);
        if (!out_path.empty()) {
            int fd = open(out_path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
            if (fd >= 0) {
                dup2(fd, 1);
                dup2(fd, 2);
                close(fd);
            }
        }
        int null_fd = open("/dev/null", O_RDONLY);
        if (null_fd >= 0) {
            dup2(null_fd, 0);
            close(null_fd);
        }
        // Like init, hand the program nothing but its standard streams.
        closefrom(3);
        execv(cargv[0], cargv.data());
        _exit(127);
    }
    return pid;
}

Daemon start_daemon(const std::vector<std::string> &args, const std::string &argv0) {
    std::vector<std::string> argv{kDaemonPath};
    argv.insert(argv.end(), args.begin(), args.end());
    if (argv0.empty()) return Daemon{spawn(argv, kDaemonOut)};

    // Run the binary under another argv[0] through bash's exec -a.
    std::string cmd = "exec -a '" + argv0 + "' " + kDaemonPath;
    for (const auto &a : args) cmd += " '" + a + "'";
    return Daemon{spawn({"/bin/bash", "-c", cmd}, kDaemonOut)};
}

int wait_exit(pid_t pid, std::chrono::milliseconds timeout) {
    int status = -1;
    bool done = poll_until(
        [&] {
            pid_t r = waitpid(pid, &status, WNOHANG);
            return r == pid || (r < 0 && errno == ECHILD);
        },
        timeout);
    return done ? status : -1;
}

void kill_and_reap(pid_t pid) {
    if (pid <= 0) return;
    kill(-pid, SIGKILL);
    kill(pid, SIGKILL);
    int status;
    waitpid(pid, &status, 0);
}

bool poll_until(const std::function<bool()> &pred, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (true) {
        if (pred()) return true;
        if (std::chrono::steady_clock::now() >= deadline) return pred();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

bool file_exists(const std::string &path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool write_file(const std::string &path, const std::string &content, int mode) {
    size_t slash = path.rfind('/');
    if (slash != std::string::npos && slash > 0) make_dirs(path.substr(0, slash));
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (fd < 0) return false;
    ssize_t n = write(fd, content.data(), content.size());
    close(fd);
    return n == static_cast<ssize_t>(content.size());
}

void make_dirs(const std::string &path) {
    for (size_t pos = 1; pos <= path.size(); ++pos) {
        if (pos == path.size() || path[pos] == '/') mkdir(path.substr(0, pos).c_str(), 0775);
    }
}

std::vector<std::string> read_lines(const std::string &path) {
    std::vector<std::string> lines;
    std::ifstream in(path, std::ios::binary);
    std::string line;
    while (std::getline(in, line)) lines.push_back(line);
    return lines;
}

int count_in_file(const std::string &path, const std::string &needle) {
    std::string text = read_file(path);
    int n = 0;
    for (size_t pos = text.find(needle); pos != std::string::npos; pos = text.find(needle, pos + 1)) ++n;
    return n;
}

std::vector<std::string> sa_log_messages(const std::string &path) {
    std::vector<std::string> out;
    for (const auto &line : read_lines(path)) {
        // "[MM-DD hh:mm:ss.mmm]" is 20 characters.
        if (line.size() >= 20 && line[0] == '[' && line[19] == ']') {
            out.push_back(line.substr(20));
        } else {
            out.push_back(line);
        }
    }
    return out;
}

int find_message(const std::vector<std::string> &messages, const std::string &text, int from) {
    for (size_t i = static_cast<size_t>(from); i < messages.size(); ++i) {
        if (messages[i] == text) return static_cast<int>(i);
    }
    return -1;
}

void prepare_data() {
    // As the daemon's own log set-up makes it: mode 0771, owned by the shell user, so capture children
    // (user 2000) can write their files.
    make_dirs("/data/local/log");
    chmod("/data/local/log", 0771);
    if (chown("/data/local/log", 2000, 2000) != 0) perror("chown /data/local/log");
}

void switch_capture_off() {
    write_file("/dev/__properties__/persist.sys.install.zv.log",
               "/data/local/log,I1,0,0,I2,0,0,I3,0,0,I4,0,0,I5,0,0,I6,0,0");
}

Daemon start_daemon_with_links(const std::vector<std::string> &args) {
    prepare_data();
    write_file("/system/etc/zv-qel-sa.cfg", std::string("zv.tty.cmd=") + kCmdLink + "\n");
    Daemon d = start_daemon(args);
    poll_until([] { return !link_target(kCmdLink).empty() && !link_target(kListenerLink).empty(); },
               std::chrono::seconds(20));
    return d;
}

int open_client(const std::string &path) {
    return zv_client_open(path.c_str());
}

bool write_all(int fd, const std::string &data) {
    return zv_client_write_all(fd, data.data(), data.size());
}

std::string read_until(int fd, const std::function<bool(const std::string &)> &done,
                       std::chrono::milliseconds timeout) {
    std::string got;
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done(got)) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline -
                                                                          std::chrono::steady_clock::now());
        if (left.count() <= 0) break;
        pollfd p{fd, POLLIN, 0};
        int r = poll(&p, 1, static_cast<int>(left.count()));
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) break;
        char buf[512];
        ssize_t n = read(fd, buf, sizeof(buf));
        if (n <= 0) break;
        got.append(buf, static_cast<size_t>(n));
    }
    return got;
}

std::string read_for(int fd, std::chrono::milliseconds timeout) {
    return read_until(
        fd, [](const std::string &) { return false; }, timeout);
}

bool is_final_answer(const std::string &text) {
    return zv_client_is_final_answer(text);
}

std::string cmd_request(int fd, const std::string &request, std::chrono::milliseconds timeout) {
    if (!write_all(fd, request)) return "<write failed>";
    return read_until(fd, is_final_answer, timeout);
}

std::string read_through_fence(int fd, std::chrono::milliseconds timeout) {
    if (!write_all(fd, "SA+KERNEL_LOG?\r")) return "<write failed>";
    return read_until(
        fd,
        [](const std::string &got) {
            return got.find(kFenceAnswerStart) != std::string::npos && is_final_answer(got);
        },
        timeout);
}

std::string cmd_request_once(const std::string &request, std::chrono::milliseconds timeout) {
    int fd = open_client(kCmdLink);
    if (fd < 0) return "<open failed>";
    std::string answer = cmd_request(fd, request, timeout);
    close(fd);
    return answer;
}

bool leave_data_available(uint64_t bytes) {
    constexpr char kFiller[] = "/data/filler";
    unlink(kFiller);
    struct statfs st;
    if (statfs("/data", &st) != 0) return false;
    uint64_t avail = static_cast<uint64_t>(st.f_bavail) * st.f_bsize;
    if (avail < bytes) return false;
    int fd = open(kFiller, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) return false;
    bool ok = avail == bytes || posix_fallocate(fd, 0, static_cast<off_t>(avail - bytes)) == 0;
    close(fd);
    return ok;
}

bool can_lower_oom_adj() {
    pid_t pid = fork();
    if (pid == 0) {
        // Raised first, so that the write of "0" really lowers it.
        int fd = open("/proc/self/oom_adj", O_WRONLY | O_CLOEXEC);
        if (fd < 0 || write(fd, "15", 2) != 2) _exit(2);
        close(fd);
        fd = open("/proc/self/oom_adj", O_WRONLY | O_CLOEXEC);
        if (fd < 0 || write(fd, "0", 1) != 1) _exit(1);
        close(fd);
        _exit(read_file("/proc/self/oom_adj") == "0\n" ? 0 : 1);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

int count_fds(pid_t pid) {
    int n = 0;
    DIR *dir = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
    if (dir == nullptr) return -1;
    while (const dirent *e = readdir(dir)) {
        if (e->d_name[0] != '.') ++n;
    }
    closedir(dir);
    return n;
}

int count_threads(pid_t pid) {
    int n = 0;
    DIR *dir = opendir(("/proc/" + std::to_string(pid) + "/task").c_str());
    if (dir == nullptr) return -1;
    while (const dirent *e = readdir(dir)) {
        if (e->d_name[0] != '.') ++n;
    }
    closedir(dir);
    return n;
}

std::vector<pid_t> child_pids(pid_t pid) {
    std::vector<pid_t> out;
    DIR *dir = opendir("/proc");
    if (dir == nullptr) return out;
    while (const dirent *e = readdir(dir)) {
        if (!isdigit(static_cast<unsigned char>(e->d_name[0]))) continue;
        std::string stat = read_file(std::string("/proc/") + e->d_name + "/stat");
        size_t close_paren = stat.rfind(')');
        if (close_paren == std::string::npos) continue;
        // ") S ppid ..."
        std::istringstream rest(stat.substr(close_paren + 2));
        std::string state;
        long ppid = 0;
        rest >> state >> ppid;
        if (ppid == pid) out.push_back(static_cast<pid_t>(atoi(e->d_name)));
    }
    closedir(dir);
    return out;
}

std::string link_target(const std::string &path) {
    char buf[256];
    ssize_t n = readlink(path.c_str(), buf, sizeof(buf) - 1);
    if (n <= 0) return "";
    buf[n] = '\0';
    struct stat st;
    if (stat(path.c_str(), &st) != 0) return "";
    return std::string(buf);
}

}  // namespace zvtest
