// The command handlers as a set: the command table, and the start-up and teardown of the handler state.
// At start-up the auto-start list is read and run, the context is zeroed, capture starts when /data has
// room, the command thread is created, kernel panic dumps of the previous boot are preserved in the log
// folder, /data/local.prop is prepared and the board's block device is remounted read-write.
#define SA_TRACE_SRC "sa/sa-handlers"
#include "sa-handlers.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "sa-archive.h"
#include "sa-autostart.h"
#include "sa-capture.h"
#include "sa-cfg.h"
#include "sa-service.h"
#include "sa-system.h"
#include "sa-trace.h"

const sa_cmd_st sa_cmd_table[] = {
    {"+START_SERVICE", 14, handle_sa_start_service_set, nullptr, nullptr},
    {"+STOP_SERVICE", 13, handle_sa_stop_service_set, nullptr, nullptr},
    {"+QUERY_SERVICE", 14, handle_sa_query_service_set, nullptr, nullptr},
    {"+AUTO_START_SERVICE", 19, handle_sa_auto_start_service_set, nullptr, nullptr},
    {"+SAVE_LOG", 9, handle_sa_save_log_set, nullptr, nullptr},
    {"+SYSTEM", 7, handle_sa_system_set, nullptr, nullptr},
    {"+KERNEL_LOG", 11, handle_sa_kernel_log_set, handle_sa_kernel_log_read, nullptr},
    {"+DMESG_LOG", 10, handle_sa_dmesg_log_set, handle_sa_dmesg_log_read, nullptr},
    {"+DATA_PACKETS_LOG", 17, handle_sa_packets_log_set, nullptr, nullptr},
    {"+DELETE_LOG", 11, handle_sa_delete_log_set, nullptr, nullptr},
    {nullptr, 0, nullptr, nullptr, nullptr},
};

// One kernel panic dump kept by the previous boot, and how it is preserved in the log folder.
struct sa_panic_dump_st {
    const char *m_src;
    const char *m_dst;
    const char *m_copy_cmd;
    const char *m_stamp_cmd;
};

static constexpr sa_panic_dump_st kPanicDumps[] = {
    {"/data/dontpanic/apanic_minidump", "/data/local/log/apanic_minidump",
     "cp /data/dontpanic/apanic_minidump /data/local/log", "date >> /data/local/log/apanic_minidump"},
    {"/data/dontpanic/apanic_console", "/data/local/log/apanic_console",
     "cp /data/dontpanic/apanic_console /data/local/log", "date >> /data/local/log/apanic_console"},
    {"/data/dontpanic/apanic_threads", "/data/local/log/apanic_threads",
     "cp /data/dontpanic/apanic_threads /data/local/log", "date >> /data/local/log/apanic_threads"},
};

// Keeps three older generations of dst (.1 newest .. .3 oldest) before a new copy lands.
static void sa_rotate_panic_copy(const char *dst) {
    char older[64];
    char newer[64];
    snprintf(older, sizeof(older), "%s.3", dst);
    remove(older);
    for (int n = 3; n >= 2; --n) {
        snprintf(older, sizeof(older), "%s.%d", dst, n);
        snprintf(newer, sizeof(newer), "%s.%d", dst, n - 1);
        rename(newer, older);
    }
    snprintf(older, sizeof(older), "%s.1", dst);
    rename(dst, older);
}

// Moves the panic dumps of /data/dontpanic into the log folder, each stamped with the time of the copy.
static void sa_preserve_panic_dumps(void) {
    bool any = false;
    for (const auto &dump : kPanicDumps) any = any || access(dump.m_src, F_OK) == 0;
    if (!any) return;
    for (const auto &dump : kPanicDumps) {
        sa_rotate_panic_copy(dump.m_dst);
        sa_call_system(dump.m_copy_cmd);
        if (access(dump.m_dst, F_OK) == 0) sa_call_system(dump.m_stamp_cmd);
        remove(dump.m_src);
    }
}

long sa_handle_init(void) {
    trace_func();

    long list_ret = auto_start_service_list_read();
    trace_info("sa_handle_init auto_start_service_list_read ret_val[%ld]", list_ret);
    list_ret = auto_start_service_list_run();
    trace_info("sa_handle_init auto_start_service_list_run ret_val[%ld]", list_ret);

    sa_handle_ctx_st *ctx = &g_sa_handle_ctx;
    memset(ctx, 0, sizeof(*ctx));
    snprintf(ctx->m_pty.m_pts_mapping_name_a, sizeof(ctx->m_pty.m_pts_mapping_name_a), "%s",
             sa_cfg_st.m_tty_cmd_a);
    trace_info("sa_handle_init m_pts_mapping_name_a[%s]", ctx->m_pty.m_pts_mapping_name_a);
    trace_file("m_pts_mapping_name_a[%s]", ctx->m_pty.m_pts_mapping_name_a);

    // Capture runs only while /data has room for it.
    if (sa_is_can_start_log_service() == 0) start_log_service();

    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    long ret_val = pthread_create(&ctx->m_read_cmd_thread_id, &attr, sa_handle_read_cmd_loop, nullptr);
    pthread_attr_destroy(&attr);
    trace_info("sa_handle_init m_read_cmd_thread_id[%lu] ret_val[%ld]",
               static_cast<unsigned long>(ctx->m_read_cmd_thread_id), ret_val);
    trace_file("m_read_cmd_thread_id[%lu] ret_val[%ld]",
               static_cast<unsigned long>(ctx->m_read_cmd_thread_id), ret_val);
    if (ret_val != 0) {
        trace_info("pthread_create() fail: %ld", ret_val);
    } else {
        sa_preserve_panic_dumps();
    }

    system("touch /data/local.prop");
    system("chmod 666 /data/local.prop");
    system("mount -o remount,rw " ZV_REMOUNT_BLOCK_DEVICE);

    trace_info("sa_handle_init exit");
    trace_file("exit ret_val[%ld]", ret_val);
    return ret_val;
}

long sa_handle_deinit(void) {
    trace_func();
    long ret_val = pub_pty_close(&g_sa_handle_ctx.m_pty);
    trace_file("exit ret_val[%ld]", ret_val);
    return ret_val;
}
