// Start, stop and query of init services ("+START_SERVICE", "+STOP_SERVICE", "+QUERY_SERVICE").
//
// A service counts as running exactly when a process whose argv[0] contains its name exists (the /proc
// lookup of sa-util), so the name doubles as the init service name and as the search pattern. Starts go
// through init's control property (a "setprop ctl.start" shell line), except "zv-elog", which is woken
// by a property of its own; stops send SIGTERM to the first matching process and never use ctl.stop for
// the service itself, leaving init free to restart it. Both then poll once a second for the outcome,
// holding the command thread meanwhile (up to 8 s for a start, 10 s for a stop).
//
// Names that contain "zv-auto-test" or "zv-qel-mla" bring their companion family zv-qel-mla1..5 along
// on start; only "zv-auto-test" names take the family down on stop.
#define SA_TRACE_SRC "sa/sa-service"
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <cutils/properties.h>

#include "sa-service.h"

#include "sa-args.h"
#include "sa-handle.h"
#include "sa-trace.h"
#include "sa-util.h"

static constexpr int kStartPolls = 8;
static constexpr int kStopPolls = 10;
static constexpr int kElogAttempts = 5;
static constexpr useconds_t kElogPauseUs = 50000;

static constexpr char kElogService[] = "zv-elog";
static constexpr char kElogProperty[] = "ril.zv.elog.state";
static constexpr char kAutoTestMark[] = "zv-auto-test";
static constexpr char kFamilyMark[] = "zv-qel-mla";

static constexpr const char *kFamilyStartLines[] = {
    "setprop ctl.start zv-qel-mla1", "setprop ctl.start zv-qel-mla2", "setprop ctl.start zv-qel-mla3",
    "setprop ctl.start zv-qel-mla4", "setprop ctl.start zv-qel-mla5",
};
static constexpr const char *kFamilyStopLines[] = {
    "setprop ctl.stop zv-qel-mla1", "setprop ctl.stop zv-qel-mla2", "setprop ctl.stop zv-qel-mla3",
    "setprop ctl.stop zv-qel-mla4", "setprop ctl.stop zv-qel-mla5",
};

// Runs each line with system(); the companions are fire-and-forget, so statuses are dropped.
static void run_lines_ignoring_status(const char *const *lines, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        int status = system(lines[i]);
        (void)status;
    }
}

// Wakes "zv-elog" through its property: up to kElogAttempts tries kElogPauseUs apart, traced under
// func. The last attempt's result (0 or -1).
static long start_elog_by_property(const char *func) {
    long ret_val = -1;
    for (int attempt = 0; attempt < kElogAttempts; ++attempt) {
        ret_val = property_set(kElogProperty, "1");
        if (ret_val == 0) {
            trace_both_in(func, "property_set:ril.zv.elog.state successfully");
            break;
        }
        trace_both_in(func, "property_set:ril.zv.elog.state faild");
        usleep(kElogPauseUs);
    }
    return ret_val;
}

// Traces the request and parses its quoted name into name (SA_SERVICE_NAME_SIZE bytes); a request
// without a usable name gets its verdict traced. 0, or -1 when the name is refused.
static long service_request_parse(const char *func, const char *param, char *name) {
    trace_both_in(func, "req[%s]", param);
    if (sa_service_name_parse(param, name, nullptr) == 0) return 0;
    trace_both_in(func, "service[%s] sa_err[%ld]", name, -1L);
    return -1;
}

// One lookup of name (is_running and pid zeroed first); a failed scan reads as "not running".
static void service_lookup(const char *name, int *is_running, int *pid) {
    *is_running = 0;
    *pid = 0;
    util_is_process_running(name, is_running, pid);
}

// Waits up to polls seconds, looking name up after each one, until its running state is want_running.
// The 0-based poll that saw it (pid of the process found in *pid), or -1.
static int service_poll(const char *func, const char *name, int polls, int want_running, int *pid) {
    for (int tries = 0; tries < polls; ++tries) {
        sleep(1);
        int is_running = 0;
        service_lookup(name, &is_running, pid);
        trace_both_in(func, "is_run[%d]", is_running);
        if (is_running == want_running) return tries;
    }
    return -1;
}

// Traces the verdict of a start or stop and answers OK for 0, ERROR -1 otherwise.
static long service_answer(const char *func, int fd, sa_msg_st *rsp, const char *name, long sa_err) {
    trace_info_in(func, "%s \"%s\" sa_err: %ld", func, name, sa_err);
    trace_both_in(func, "service[%s] sa_err[%ld]", name, sa_err);
    if (sa_err == 0) return send_rsp_ok(fd, rsp);
    return send_rsp_err(fd, rsp, SA_RSP_ERR_CODE);
}

// "+QUERY_SERVICE": answers whether a process of the quoted name runs (1 or 0).
long handle_sa_query_service_set(int fd, sa_msg_st *req, sa_msg_st *rsp, const char *param) {
    trace_func();
    SA_CHECK_HANDLER_ARGS(fd, req, rsp, param);
    char name[SA_SERVICE_NAME_SIZE];
    if (service_request_parse(__func__, param, name) != 0) return send_rsp_err(fd, rsp, SA_RSP_ERR_CODE);

    int is_running = 0;
    int pid = 0;
    service_lookup(name, &is_running, &pid);
    trace_both("is_run[%d]", is_running);
    long ret_val = send_rsp_text(fd, rsp, "\r\nQUERY_SERVICE: %d\r\n\r\nOK\r\n", is_running);
    trace_both("service[%s] sa_err[%ld]", name, 0L);
    return ret_val;
}

// "+START_SERVICE": asks init (or, for "zv-elog", its property) to start the quoted service unless it
// runs, then waits up to 8 s for its process; OK once it runs.
long handle_sa_start_service_set(int fd, sa_msg_st *req, sa_msg_st *rsp, const char *param) {
    trace_func();
    SA_CHECK_HANDLER_ARGS(fd, req, rsp, param);
    char name[SA_SERVICE_NAME_SIZE];
    if (service_request_parse(__func__, param, name) != 0) return send_rsp_err(fd, rsp, SA_RSP_ERR_CODE);

    int is_running = 0;
    int pid = 0;
    service_lookup(name, &is_running, &pid);
    trace_both("is_run[%d]", is_running);
    // Already there: nothing is sent to init, not even the companions.
    if (is_running) return service_answer(__func__, fd, rsp, name, 0);

    if (strstr(name, kAutoTestMark) != nullptr || strstr(name, kFamilyMark) != nullptr)
        run_lines_ignoring_status(kFamilyStartLines,
                                  sizeof(kFamilyStartLines) / sizeof(kFamilyStartLines[0]));

    char cmd[100];
    memset(cmd, 0, sizeof(cmd));
    long ret_val;
    if (strcmp(name, kElogService) != 0) {
        snprintf(cmd, sizeof(cmd), "setprop ctl.start %s", name);
        ret_val = system(cmd);
    } else {
        ret_val = start_elog_by_property(__func__);
    }
    trace_both("ret_val[%ld]", ret_val);
    if (ret_val != 0) {
        // The request never reached init (or the property): there is nothing to wait for.
        trace_both("error to exec: %s", cmd);
        return service_answer(__func__, fd, rsp, name, -1);
    }

    long sa_err = -1;
    int found = service_poll(__func__, name, kStartPolls, 1, &pid);
    if (found >= 0) {
        trace_info("handle_sa_start_service_set %d \"%s\" is running: %d", found, name, pid);
        trace_file("%d \"%s\" is running: %d", found, name, pid);
        sa_err = 0;
    } else {
        trace_info("handle_sa_start_service_set \"%s\" is not running finally", name);
        trace_file("\"%s\" is not running finally", name);
    }
    return service_answer(__func__, fd, rsp, name, sa_err);
}

// "+STOP_SERVICE": sends SIGTERM to the first process of the quoted name, then waits up to 10 s until
// no process of that name is left; OK once none is (or none ran).
long handle_sa_stop_service_set(int fd, sa_msg_st *req, sa_msg_st *rsp, const char *param) {
    trace_func();
    SA_CHECK_HANDLER_ARGS(fd, req, rsp, param);
    char name[SA_SERVICE_NAME_SIZE];
    if (service_request_parse(__func__, param, name) != 0) return send_rsp_err(fd, rsp, SA_RSP_ERR_CODE);

    int is_running = 0;
    int pid = 0;
    service_lookup(name, &is_running, &pid);
    trace_both("is_run[%d] pid[%d]", is_running, pid);
    // Stopping a stopped service is a success.
    if (!is_running) return service_answer(__func__, fd, rsp, name, 0);

    if (strstr(name, kAutoTestMark) != nullptr)
        run_lines_ignoring_status(kFamilyStopLines, sizeof(kFamilyStopLines) / sizeof(kFamilyStopLines[0]));

    // Only the first process found is signalled, once; the wait below lasts until none matches.
    if (kill(pid, SIGTERM) != 0) {
        int err = errno;
        long ret_val = ERR_UNKNOWN;
        trace_both("error to exec: kill(%d, SIGTERM), ret_val=%ld, errno=%d", pid, ret_val, err);
        trace_err_code(ERR_CALL_C_FUNCTION);
        trace_both("ret_val[%ld]", ret_val);
        return service_answer(__func__, fd, rsp, name, -1);
    }
    trace_both("ret_val[%ld]", 0L);

    long sa_err = -1;
    int gone = service_poll(__func__, name, kStopPolls, 0, &pid);
    if (gone >= 0) {
        trace_info("handle_sa_stop_service_set %d \"%s\" is not running", gone, name);
        trace_file("%d \"%s\" is not running", gone, name);
        sa_err = 0;
    } else {
        // No second signal and no SIGKILL: the caller learns the service would not stop.
        trace_info("handle_sa_stop_service_set \"%s\" is still running finally", name);
        trace_file("\"%s\" is still running finally", name);
    }
    return service_answer(__func__, fd, rsp, name, sa_err);
}
