// Helpers of the service-control tests (unit and end-to-end): processes with a chosen argv[0], the
// simulated init's property request history, the property service taken away for a while, and the lines
// of sa.log. Waiting is always a poll with a deadline. Nothing here depends on the daemon's code.
#ifndef ZV_TESTSUPPORT_SERVICE_H
#define ZV_TESTSUPPORT_SERVICE_H

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "harness.h"

namespace svctest {

using namespace std::chrono_literals;

constexpr char kHistory[] = "/dev/__properties__/.history";
constexpr char kPropArea[] = "/dev/__properties__";
constexpr char kPropSocket[] = "/dev/socket/property_service";
constexpr char kSaLogDir[] = "/data/local/log";
using zvtest::kSaLog;

constexpr char kOk[] = "\r\nOK\r\n";
constexpr char kError[] = "\r\nERROR: 4294967295\r\n";

// Polling, files and sa.log come from the daemon harness.
using zvtest::file_exists;
using zvtest::find_message;
using zvtest::poll_until;
using zvtest::read_file;
using zvtest::sa_log_messages;
using zvtest::write_file;

inline std::vector<std::string> Lines(const std::string &text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) out.push_back(line);
    return out;
}

// Every property request init received so far, "key=value" each.
inline std::vector<std::string> History() {
    return Lines(read_file(kHistory));
}

// The requests after the first `from` ones.
inline std::vector<std::string> HistorySince(size_t from) {
    std::vector<std::string> all = History();
    if (from >= all.size()) return {};
    return std::vector<std::string>(all.begin() + static_cast<long>(from), all.end());
}

inline std::string Property(const std::string &key) {
    return read_file(std::string(kPropArea) + "/" + key);
}

inline int CountMessage(const std::vector<std::string> &messages, const std::string &text) {
    int n = 0;
    for (const auto &m : messages) n += m == text ? 1 : 0;
    return n;
}

// Prepares the folder of sa.log so that the handlers' file lines can be read back.
inline void PrepareSaLog() {
    mkdir("/data/local", 0771);
    mkdir(kSaLogDir, 0771);
}

// Seconds since start.
inline double Since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// A process of the test whose argv[0] is name (bash's exec -a over sleep); killed and reaped when the
// object goes unless it ended before. With ignore_term it ignores SIGTERM (the disposition survives
// exec).
class NamedProc {
   public:
    explicit NamedProc(const std::string &name, bool ignore_term = false) : name_(name) {
        std::string script = (ignore_term ? "trap '' TERM; " : "") + std::string("exec -a '") + name +
                             "' /usr/bin/sleep 100000";
        pid_ = fork();
        if (pid_ == 0) {
            execl("/bin/bash", "bash", "-c", script.c_str(), static_cast<char *>(nullptr));
            _exit(127);
        }
        poll_until([this] { return Cmdline().rfind(name_, 0) == 0; }, 10s);
    }
    NamedProc(const NamedProc &) = delete;
    NamedProc &operator=(const NamedProc &) = delete;
    ~NamedProc() {
        if (pid_ > 0 && !reaped_) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    pid_t pid() const { return pid_; }
    std::string Cmdline() const { return read_file("/proc/" + std::to_string(pid_) + "/cmdline"); }
    // True once argv[0] is the name.
    bool Ready() const { return Cmdline().rfind(name_, 0) == 0; }
    // Waits for the end within timeout; the wait status, or -1 when it still runs.
    int WaitExit(std::chrono::milliseconds timeout) {
        if (reaped_) return status_;
        poll_until(
            [this] {
                int st = 0;
                if (waitpid(pid_, &st, WNOHANG) != pid_) return false;
                status_ = st;
                reaped_ = true;
                return true;
            },
            timeout);
        return reaped_ ? status_ : -1;
    }

   private:
    std::string name_;
    pid_t pid_ = -1;
    bool reaped_ = false;
    int status_ = -1;
};

// Takes the property service away (its socket renamed) for the object's life, so that every property
// request, setprop's included, fails.
class PropertyServiceDown {
   public:
    PropertyServiceDown() { ok_ = rename(kPropSocket, kMoved) == 0; }
    ~PropertyServiceDown() {
        if (ok_) rename(kMoved, kPropSocket);
    }
    bool ok() const { return ok_; }

   private:
    static constexpr char kMoved[] = "/dev/socket/.property_service.away";
    bool ok_ = false;
};

// Pids of the processes whose argv[0] is exactly name, in /proc order.
inline std::vector<pid_t> PidsNamed(const std::string &name) {
    std::vector<pid_t> out;
    DIR *dir = opendir("/proc");
    if (dir == nullptr) return out;
    while (const struct dirent *e = readdir(dir)) {
        int pid = atoi(e->d_name);
        if (pid < 1) continue;
        std::string cmd = read_file("/proc/" + std::to_string(pid) + "/cmdline");
        if (!cmd.empty() && std::string(cmd.c_str()) == name) out.push_back(pid);
    }
    closedir(dir);
    return out;
}

// Waits until a process with argv[0] name runs (started by init, for example).
inline bool WaitRunning(const std::string &name, std::chrono::milliseconds timeout) {
    return poll_until([&] { return !PidsNamed(name).empty(); }, timeout);
}

// Waits until no process with argv[0] name runs.
inline bool WaitGone(const std::string &name, std::chrono::milliseconds timeout) {
    return poll_until([&] { return PidsNamed(name).empty(); }, timeout);
}

}  // namespace svctest

#endif  // ZV_TESTSUPPORT_SERVICE_H
