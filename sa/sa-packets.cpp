// Packet capture. Two separate things carry the name: the IPDATA service (slot 2 of the service table),
// a tcpdump child writing the "ipdata.pcap" ring of the log folder, started with the other capture
// services; and the "+DATA_PACKETS_LOG" switch, whose switch-on runs a detached watcher through a double
// fork and whose switch-off kills the process id kept for it in the handler state.
//
// That id is never assigned, so switching off sends SIGKILL to process group 0, which is the daemon's
// own group: the daemon ends. The capture children survive it (each leads a group of its own). This is
// how the command has always behaved; clients rely on it as a reset.
#define SA_TRACE_SRC "sa/sa-packets"
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "sa-capture.h"
#include "sa-args.h"
#include "sa-trace.h"

static constexpr char kPcapFileName[] = "/ipdata.pcap";
static constexpr mode_t kPcapFileMode = 0644;
// Number of entries of tcpdump's argument vector, the closing null included.
static constexpr int kTcpdumpArgc = 14;

// The export library's entry: writes a tcpdump program to the path given.
typedef int (*export_tcpdump_fn)(const char *path);

int createTcpdump(const char *path) {
    trace_func();
    trace_info("tcpdump_file_ptr[%s]", path != nullptr ? path : "");
    void *lib = dlopen(SA_TCPDUMP_EXPORT_LIB, RTLD_NOW);
    if (lib == nullptr) {
        int err = errno;
        trace_sys_err("dlopen", err);
        trace_info("createTcpdump %s", dlerror());
        return -1;
    }
    export_tcpdump_fn export_tcpdump = reinterpret_cast<export_tcpdump_fn>(dlsym(lib, SA_TCPDUMP_EXPORT_SYM));
    if (export_tcpdump == nullptr) {
        int err = errno;
        trace_sys_err("dlsym", err);
        dlclose(lib);
        return -1;
    }
    int ret_val = export_tcpdump(path);
    dlclose(lib);
    trace_info("ret_val[%d]", ret_val);
    return ret_val;
}

int sa_ipdata_file_size_mb(int32_t file_size_val) {
    return file_size_val <= 999 ? 1 : file_size_val / 1000 + 1;
}

// Finds a tcpdump program, exporting one when neither location holds it; false when none can be had.
static bool ipdata_find_tcpdump(char *tcpdump, size_t size) {
    if (access(SA_TCPDUMP_PATH, F_OK) == 0) {
        snprintf(tcpdump, size, "%s", SA_TCPDUMP_PATH);
        return true;
    }
    if (access(SA_TCPDUMP_ALT_PATH, F_OK) != 0) {
        createTcpdump(SA_TCPDUMP_ALT_PATH);
        if (access(SA_TCPDUMP_ALT_PATH, F_OK) != 0) return false;
    }
    snprintf(tcpdump, size, "%s", SA_TCPDUMP_ALT_PATH);
    return true;
}

long start_ipdata_log_service(const char *func, sa_log_svc_st *svc) {
    if (svc->file_num_val == 0 || svc->file_size_val == 0) {
        svc->svc_pid = 0;
        trace_info_in(func, "start_zv_log_service need no ipdata");
        return ERR_NONE;
    }
    char tcpdump[256];
    if (!ipdata_find_tcpdump(tcpdump, sizeof(tcpdump))) {
        trace_info_in(func, "start_zv_log_service no tcpdump exit");
        return ERR_CALL_C_FUNCTION;
    }
    trace_info_in(func, "start_zv_log_service tcpdump[%s]", tcpdump);

    // tcpdump numbers its ring files itself: "ipdata.pcap0" is the first one.
    char pcap_file[128];
    char first_file[128];
    if (snprintf(pcap_file, sizeof(pcap_file), "%s%s", g_log_path_a, kPcapFileName) >=
        static_cast<int>(sizeof(pcap_file)))
        trace_info_in(func, "start_zv_log_service pcap file cut[%s]", pcap_file);
    if (snprintf(first_file, sizeof(first_file) - 1, "%s0", pcap_file) >=
        static_cast<int>(sizeof(first_file) - 1))
        trace_info_in(func, "start_zv_log_service pcap file cut[%s]", first_file);
    if (access(first_file, F_OK) != 0) {
        int fd = open(first_file, O_WRONLY | O_CREAT | O_CLOEXEC, kPcapFileMode);
        trace_info_in(func, "start_zv_log_service IPDATA open(%s) fd[%d]", first_file, fd);
        if (fd >= 0) close(fd);
    }
    if (chown(first_file, SA_AID_SHELL, SA_AID_LOG) != 0) {
        int err = errno;
        trace_info_in(func, "start_zv_log_service IPDATA chown(%s) error[%d-%s]", first_file, err,
                      strerror(err));
    }
    if (chmod(first_file, kPcapFileMode) != 0) {
        int err = errno;
        trace_info_in(func, "start_zv_log_service IPDATA chmod(%s) error[%d-%s]", first_file, err,
                      strerror(err));
    }

    int file_size_mb = sa_ipdata_file_size_mb(svc->file_size_val);
    char size_a[10];
    char count_a[10];
    if (snprintf(size_a, sizeof(size_a), "%d", file_size_mb) >= static_cast<int>(sizeof(size_a)) ||
        snprintf(count_a, sizeof(count_a), "%d", svc->file_num_val) >= static_cast<int>(sizeof(count_a)))
        trace_info_in(func, "start_zv_log_service argument cut -C[%s] -W[%s]", size_a, count_a);
    trace_info_in(func, "start_zv_log_service command[tcpdump -p -v -s 0 -i any -w %s -C %d -W %d]",
                  pcap_file, file_size_mb, svc->file_num_val);

    // execvp takes the vector as non-const but never writes through it.
    char *argv[kTcpdumpArgc] = {const_cast<char *>("tcpdump"),
                                const_cast<char *>("-p"),
                                const_cast<char *>("-v"),
                                const_cast<char *>("-s"),
                                const_cast<char *>("0"),
                                const_cast<char *>("-i"),
                                const_cast<char *>("any"),
                                const_cast<char *>("-w"),
                                pcap_file,
                                const_cast<char *>("-C"),
                                size_a,
                                const_cast<char *>("-W"),
                                count_a,
                                nullptr};
    int pid = sa_create_subproc_thread(tcpdump, argv, kTcpdumpArgc);
    trace_info_in(func, "start_zv_log_service svc_pid[%d]", pid);
    if (pid > 0) {
        svc->svc_pid = pid;
        return ERR_NONE;
    }
    svc->svc_pid = 0;
    trace_info_in(func, "start_zv_log_service create IPDATA subprocess failed");
    return ERR_UNKNOWN;
}

long reset_real_capture(void) {
    trace_func();
    trace_info("reset_real_capture file_count[%d] file_size[%d]", 0, 0);
    trace_info("reset_real_capture need no ipdata");
    return ERR_NONE;
}

void watch_packets_capture_child_death(void) {
    trace_func();
    for (;;) {
        int status = 0;
        pid_t pid = waitpid(-1, &status, 0);
        if (pid > 0) {
            if (WIFEXITED(status)) {
                trace_info("Process%d exited, status=%d", static_cast<int>(pid), WEXITSTATUS(status));
                break;
            }
            if (WIFSIGNALED(status)) {
                trace_info("Process%d killed by signal %d", static_cast<int>(pid), WTERMSIG(status));
                break;
            }
            continue;  // stopped: wait again
        }
        if (pid == 0) break;
        int err = errno;
        trace_info("Packets capture SIGCHLD error in waitpid: %s", strerror(err));
        break;
    }
    // Only this process's copy of the switch: the daemon's stays as it is.
    g_sa_handle_ctx.m_packets_capture_on = 0;
    _exit(0);
}

long packets_capture_process(int fd, sa_msg_st *rsp) {
    trace_func();
    pid_t child = fork();
    if (child < 0) {
        int err = errno;
        trace_info("error to call fork() to create first child");
        trace_sys_err("fork", err);
        return send_rsp_err(fd, rsp, SA_RSP_ERR_CODE);
    }
    if (child == 0) {
        // The first child only parents the watcher, which init adopts once it has gone.
        pid_t grandchild = fork();
        if (grandchild < 0) {
            trace_info("error to call fork() to create second child");
        } else if (grandchild == 0) {
            reset_real_capture();
            watch_packets_capture_child_death();
        }
        _exit(0);
    }
    int status = 0;
    pid_t pid;
    do {
        pid = waitpid(child, &status, 0);
    } while (pid < 0 && errno == EINTR);
    if (pid != child) {
        trace_info("error to call waitpid()");
        return send_rsp_err(fd, rsp, SA_RSP_ERR_CODE);
    }
    return send_rsp_ok(fd, rsp);
}

long handle_sa_packets_log_set(int fd, sa_msg_st *req, sa_msg_st *rsp, const char *param) {
    trace_func();
    SA_CHECK_HANDLER_ARGS(fd, req, rsp, param);
    int value = 255;
    if (sa_parse_switch_value(param, &value) != 1 || static_cast<unsigned>(value) > 1) {
        trace_info("error to sscanf(\"%s\")", param);
        trace_err_code(ERR_CALL_C_FUNCTION);
        return send_rsp_err(fd, rsp, SA_RSP_ERR_CODE);
    }
    if (value == g_sa_handle_ctx.m_packets_capture_on) return send_rsp_ok(fd, rsp);

    g_sa_handle_ctx.m_packets_capture_on = static_cast<uint8_t>(value);
    if (value == 0) {
        int ret_val = kill(g_sa_handle_ctx.m_packets_capture_pid, SIGKILL);
        trace_info("handle_sa_packets_log_set kill(%d)=%d",
                   static_cast<int>(g_sa_handle_ctx.m_packets_capture_pid), ret_val);
        return send_rsp_ok(fd, rsp);
    }
    return packets_capture_process(fd, rsp);
}
