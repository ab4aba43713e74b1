// Tests of how the client reads a remote shell's pid and exit status from the daemon's trace file.
#include "client-shell.h"

#include <gtest/gtest.h>

namespace {

// The lines the listener and the shell's waiter write for one connection.
std::string connection(const std::string &request, int pid, const std::string &end) {
    return "[11-25 11:36:26.554]sa_listener_loop sa_listener_loop size[21] service[" + request +
           "]\n"
           "[11-25 11:36:26.554]sa_listener_loop sa_listener_loop service[" +
           request +
           "]\n"
           "[11-25 11:36:26.555]handle_service handle_service fd[15] name[" +
           request +
           "]\n"
           "[11-25 11:36:26.555]create_subprocess parent process\n"
           "[11-25 11:36:26.555]service_bootstrap_func fd[15] pid[" +
           std::to_string(pid) +
           "]\n"
           "[11-25 11:36:26.555]create_subprocess child process pid[" +
           std::to_string(pid) +
           "]\n"
           "[11-25 11:36:26.557]subproc_waiter_service p[" +
           std::to_string(pid) + "] status[1792]\n[11-25 11:36:26.557]subproc_waiter_service pid[" +
           std::to_string(pid) + "] " + end + "\n";
}

TEST(ClientShellTrace, PidOfTheShellThatServesTheRequest) {
    std::string trace =
        connection("shell:echo a", 39, "exit code[0]") + connection("shell:echo b", 41, "exit code[7]");
    int pid = 0;
    ASSERT_TRUE(zv_trace_shell_pid(trace, "shell:echo b", &pid));
    EXPECT_EQ(41, pid);
    ASSERT_TRUE(zv_trace_shell_pid(trace, "shell:echo a", &pid));
    EXPECT_EQ(39, pid);
    EXPECT_FALSE(zv_trace_shell_pid(trace, "shell:echo", &pid));
}

TEST(ClientShellTrace, PidIsNotKnownBeforeTheWaiterStarts) {
    std::string trace = connection("shell:x", 39, "exit code[0]");
    trace = trace.substr(0, trace.find("[11-25 11:36:26.555]service_bootstrap_func"));
    int pid = 0;
    EXPECT_FALSE(zv_trace_shell_pid(trace, "shell:x", &pid));
}

TEST(ClientShellTrace, NumbersOutOfRangeAreNotTakenForAPidOrAStatus) {
    int pid = 0;
    EXPECT_FALSE(zv_trace_shell_pid(connection("shell:x", 0, "exit code[0]"), "shell:x", &pid));
    std::string huge = connection("shell:x", 39, "exit code[0]");
    huge.replace(huge.find("pid[39]"), 7, "pid[3111355000000000000000]");
    EXPECT_FALSE(zv_trace_shell_pid(huge, "shell:x", &pid));
    huge.replace(huge.find("pid[3111355000000000000000]"), 27, "pid[2147483648]");
    EXPECT_FALSE(zv_trace_shell_pid(huge, "shell:x", &pid));
    int status = -1;
    EXPECT_FALSE(zv_trace_shell_status(connection("shell:x", 39, "exit code[256]"), 39, &status));
    EXPECT_FALSE(zv_trace_shell_status(connection("shell:x", 39, "exit code[-1]"), 39, &status));
    EXPECT_FALSE(zv_trace_shell_status(connection("shell:x", 39, "killed by signal[128]"), 39, &status));
    EXPECT_FALSE(zv_trace_shell_status(connection("shell:x", 39, "exit code[]"), 39, &status));
}

TEST(ClientShellTrace, ExitCodeOrSignal) {
    int status = -1;
    ASSERT_TRUE(zv_trace_shell_status(connection("shell:x", 39, "exit code[127]"), 39, &status));
    EXPECT_EQ(127, status);
    ASSERT_TRUE(zv_trace_shell_status(connection("shell:x", 39, "killed by signal[9]"), 39, &status));
    EXPECT_EQ(137, status);
    // Another pid, a prefix of the pid, or a shell that is still running give nothing.
    EXPECT_FALSE(zv_trace_shell_status(connection("shell:x", 39, "exit code[1]"), 3, &status));
    EXPECT_FALSE(zv_trace_shell_status(connection("shell:x", 391, "exit code[1]"), 39, &status));
    EXPECT_FALSE(zv_trace_shell_status(connection("shell:x", 39, "exit errno[0-Success]"), 39, &status));
}

}  // namespace
