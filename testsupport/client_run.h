// Runs the client tool zv-sa-client inside the handset the way a test script does: a shell line, its
// exit status, its standard output and error kept apart. Also waits for a daemon that init started to
// answer on its command link.
#ifndef ZV_TESTSUPPORT_CLIENT_RUN_H
#define ZV_TESTSUPPORT_CLIENT_RUN_H

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "harness.h"

namespace clienttest {

using namespace std::chrono_literals;

constexpr char kClient[] = "/system/bin/zv-sa-client";

struct Result {
    int status = -1;  // exit status, or -1 when the client did not exit by itself
    std::string out;
    std::string err;
};

// Runs "zv-sa-client ARGS" (a shell line, so quoting and redirections work) with stdin from /dev/null
// unless ARGS redirects it.
inline Result ClientIn(const std::string &dir, const std::string &args,
                    std::chrono::milliseconds timeout = 60s) {
    std::string out = dir + "/client.out", err = dir + "/client.err";
    unlink(out.c_str());
    unlink(err.c_str());
    pid_t pid =
        zvtest::spawn({"/bin/sh", "-c", std::string(kClient) + " " + args + " >" + out + " 2>" + err});
    int status = zvtest::wait_exit(pid, timeout);
    if (status == -1) zvtest::kill_and_reap(pid);
    Result r;
    r.status = status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    r.out = zvtest::read_file(out);
    r.err = zvtest::read_file(err);
    return r;
}

inline Result Client(const std::string &args, std::chrono::milliseconds timeout = 60s) {
    return ClientIn("/tmp", args, timeout);
}

inline bool Contains(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

// Waits until the daemon answers "AT" on its command link (init may still be starting it).
inline bool DaemonAnswers(std::chrono::milliseconds timeout = 20s) {
    return zvtest::poll_until([] { return Client("-t 1 AT").status == 0; }, timeout);
}

}  // namespace clienttest

#endif  // ZV_TESTSUPPORT_CLIENT_RUN_H
