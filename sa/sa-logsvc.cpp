// Starting and stopping the log capture as a whole. A start reads the log configuration again, makes
// sure the log folder exists and starts the services in a fixed order: packet capture, logcat events,
// logcat radio, logcat main, kernel log reader. Slot 1 is configured but never started or stopped here.
//
// A stop signals what the table records (SIGUSR1 to a reader thread, SIGKILL to a capture child) and does
// not wait: the waiter threads reap the children. The ids are not cleared, so a second stop signals the
// same old ids again; a reader that has ended is not signalled again but answers ESRCH, since its id is no
// longer a valid one.
#define SA_TRACE_SRC "sa/sa-logsvc"
#include <errno.h>
#include <signal.h>
#include <string.h>

#include "sa-capture.h"
#include "sa-trace.h"

long start_zv_log_service(sa_log_svc_st *svc) {
    trace_func();
    if (svc == nullptr) {
        trace_info("Invalid param.");
        return ERR_UNKNOWN;
    }
    trace_info("start_zv_log_service type_id[%ld] file_num_val[%ld] file_size_val[%ld]",
               static_cast<long>(svc->type_id), static_cast<long>(svc->file_num_val),
               static_cast<long>(svc->file_size_val));
    switch (svc->type_id) {
        case SA_LOG_SVC_KMSG:
            return start_kmsg_log_service(__func__, svc);
        case SA_LOG_SVC_IPDATA:
            return start_ipdata_log_service(__func__, svc);
        default:
            return ERR_NONE;
    }
}

long start_log_service(void) {
    trace_func();
    if (get_zv_log_config() != ERR_NONE) {
        trace_info("Get log config failed!!!");
        return ERR_UNKNOWN;
    }
    if (check_zv_log_path(g_log_path_a) != ERR_NONE) {
        trace_err(ERR_UNKNOWN, "check_zv_log_path");
        return ERR_UNKNOWN;
    }

    long ret_val = 0;
    ret_val |= start_zv_log_service(&g_zv_log_svc[SA_LOG_SVC_IPDATA - 1]);
    ret_val |= start_logcat_service_ex(&g_zv_log_svc[SA_LOG_SVC_EVENTS - 1]);
    ret_val |= start_logcat_service_ex(&g_zv_log_svc[SA_LOG_SVC_RADIO - 1]);
    ret_val |= start_logcat_service_ex(&g_zv_log_svc[SA_LOG_SVC_MAIN - 1]);
    ret_val |= start_zv_log_service(&g_zv_log_svc[SA_LOG_SVC_KMSG - 1]);

    if (ret_val == 0) {
        trace_info("start_log_service All Log Service Start Success.");
    } else {
        trace_info("start_log_service Not All Log Service Start Success.");
    }
    trace_file("exit ret_val[%ld]", ret_val);
    return ret_val;
}

void sa_kill_all_child_service_ex(void) {
    trace_func();
    for (int i = 0; i < SA_LOG_SVC_NUM; ++i) {
        const sa_log_svc_st *svc = &g_zv_log_svc[i];
        trace_info("sa_kill_all_child_service_ex log_type[%s], svc_pid[%d], mthread_id[%lu]", svc->type,
                   static_cast<int>(svc->svc_pid), static_cast<unsigned long>(svc->mthread_id));
        if (svc->mthread_id != 0) {
            int ret_val = sa_kmsg_signal_reader(svc->mthread_id, SIGUSR1);
            trace_info("sa_kill_all_child_service_ex pthread_kill(%lu)=%d",
                       static_cast<unsigned long>(svc->mthread_id), ret_val);
            trace_file("KMSG pthread_kill[%lu] ret_val[%d]", static_cast<unsigned long>(svc->mthread_id),
                       ret_val);
            if (ret_val != 0) {
                trace_info("sa_kill_all_child_service_ex kill thread [%s] failed, mthread_id[%lu], errno[%s]",
                           svc->type, static_cast<unsigned long>(svc->mthread_id), strerror(ret_val));
            }
        }
        bool is_ipdata = svc->type_id == SA_LOG_SVC_IPDATA;
        bool is_logcat = svc->type_id == SA_LOG_SVC_MAIN || svc->type_id == SA_LOG_SVC_EVENTS ||
                         svc->type_id == SA_LOG_SVC_RADIO;
        if (svc->svc_pid == 0 || (!is_ipdata && !is_logcat)) continue;

        int ret_val = kill(svc->svc_pid, SIGKILL);
        int err = errno;
        if (is_ipdata) {
            trace_info("sa_kill_all_child_service_ex kill[%d]", ret_val);
            trace_file("IPDATA kill[%d] ret_val[%d]", static_cast<int>(svc->svc_pid), ret_val);
        } else {
            trace_info("sa_kill_all_child_service_ex kill(%d)=%d", static_cast<int>(svc->svc_pid), ret_val);
            trace_file("LOGCAT kill[%d] ret_val[%d]", static_cast<int>(svc->svc_pid), ret_val);
        }
        if (ret_val != 0) {
            trace_info("sa_kill_all_child_service_ex kill process [%s] failed, svc_pid[%d], errno[%s]",
                       svc->type, static_cast<int>(svc->svc_pid), strerror(err));
        }
    }
}
