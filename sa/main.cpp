// Process entry of zv-qel-sa, started by init. The start-up order matters: sa.log is rotated before
// anything is written to it, a second instance is refused before it can disturb the running one, the
// log client is set up before the first record, and the log file's ring mark is set only after
// start-up so the header and every start-up record survive the wrap.
#define SA_TRACE_SRC "sa/main"

#include <errno.h>
#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/types.h>
#include <unistd.h>

#include "sa-cfg.h"
#include "sa-handle.h"
#include "sa-handlers.h"
#include "sa-listener.h"
#include "sa-protect.h"
#include "sa-signal.h"
#include "sa-trace.h"
#include "sa-util.h"
#include "util/util.h"

static constexpr char kVersion[] = "001.001";
static constexpr char kLogClientPath[] = "/data/local/log/zv-qel-sa";
static constexpr int kDefaultBackupCount = 2;
static constexpr unsigned kLogMaxSize = 102400;
static constexpr int kMaxPids = 128;

// Single-instance rule: another instance runs when the scan finds more than one process of our name
// and one of them is not this process. A count of 1 is this process itself.
static int util_is_sa_running(pid_t pid) {
    if (pid < 1) {
        trace_info("util_is_sa_running invalid parameter");
        return 0;
    }
    int pids[kMaxPids];
    memset(pids, 0, sizeof(pids));
    int count = 0;
    long ret_val = sa_util_get_pids(SA_MODULE_NAME, pids, kMaxPids, &count);
    trace_info("util_is_sa_running ret_val[%ld] count[%d]", ret_val, count);
    int is_running = 0;
    if (ret_val == 0 && count > 1) {
        for (int i = 0; i < count; ++i) {
            if (pids[i] != pid) is_running = 1;
        }
    }
    trace_info("util_is_sa_running is_running[%d]", is_running);
    return is_running;
}

[[noreturn]] static void prompt_usage(const char *prog) {
    printf(
        "\nUsage: %s [OPTION]\n"
        "  -d <device name>       Set the device that communicate with modem.\n"
        "  -p <log path>          Special the path that save the ATA log files.\n"
        "  -c <count>             Special the count that backup the ATA log files.\n"
        "  -h                     Display this help and exit.\n\n",
        prog);
    sfw_log_stop(nullptr);
    trace_file("exit");
    exit(0);
}

int main(int argc, char **argv) {
    trace_func();
    update_sa_logs();

    pid_t pid = getpid();
    trace_info("main pid[%d]", pid);
    if (util_is_sa_running(pid) != 0) {
        printf("%s already run.\n", SA_MODULE_NAME);
        trace_file("already running exit");
        return 0;
    }

    int backup_count = kDefaultBackupCount;
    if (argc > 1) {
        int opt;
        while ((opt = getopt(argc, argv, "d:p:c:h")) != -1) {
            switch (opt) {
                case 'c':
                    backup_count = atoi(optarg);
                    break;
                case 'p':
                    sfw_log_set_path(optarg);
                    break;
                default:  // -d, -h, unknown options, missing arguments
                    prompt_usage(argv[0]);
            }
        }
    }

    sfw_log_set_path(kLogClientPath);
    sfw_log_backup(static_cast<unsigned char>(backup_count));
    sfw_log_start(1, nullptr);
    trace_info("\n    %s, version %s\n    Build time: %s %s\n", SA_MODULE_NAME, kVersion, __DATE__, __TIME__);

    pub_util_create_pid_file(SA_MODULE_NAME);

    // SIGINT, SIGTERM, SIGSEGV, SIGBUS and SIGUSR2 end the daemon (SIGUSR2 through init).
    sa_signal_install();

    protect_data();

    long ret_val = sa_cfg_init();
    trace_file("sa_cfg_init ret_val[%ld]", ret_val);
    if (ret_val == 0) {
        ret_val = sa_handle_init();
        trace_file("sa_handle_init ret_val[%ld]", ret_val);
    }

    sfw_log_set_max_size(kLogMaxSize);
    sfw_log_mark_position();

    if (ret_val != 0) {
        int err = errno;
        trace_info("main no loop error[%d-%s]", err, strerror(err));
        trace_file("no loop errno[%d-%s]", err, strerror(err));
    } else {
        sa_listener_loop();
        trace_file("sa_listener_loop exit");
    }

    trace_info("main sa_deinit_resource");
    trace_file("exit");
    sa_deinit_resource();
    return static_cast<int>(ret_val);
}
