// Log capture: the log configuration property and its six-slot service table, the capture children
// (logcat, tcpdump) and the kernel log reader, started and stopped as a whole, the two log switches
// with their settings file, and the free-space guard that decides whether capture may start.
//
// The service table belongs to the command thread once start-up is over; the kernel log readers read
// slot 3 once when they start and otherwise share nothing with it.
#ifndef ZV_SA_SA_CAPTURE_H
#define ZV_SA_SA_CAPTURE_H

#include <pthread.h>
#include <stdint.h>
#include <sys/types.h>

#include "sa-handle.h"

// The log configuration property and the value used when it is unset.
#define SA_LOG_CONFIG_PROP "persist.sys.install.zv.log"
#define SA_LOG_CONFIG_DEFAULT "/data/local/log,I1,3,5120,I2,5,8192,I3,5,20480,I4,5,5120,I5,5,5120,I6,5,5120"

// Number of capture service slots; slot k of the configuration is g_zv_log_svc[k - 1].
#define SA_LOG_SVC_NUM 6
// type_id of the slots that have a fixed role.
#define SA_LOG_SVC_EMSD 1
#define SA_LOG_SVC_IPDATA 2
#define SA_LOG_SVC_KMSG 3
#define SA_LOG_SVC_MAIN 4
#define SA_LOG_SVC_EVENTS 5
#define SA_LOG_SVC_RADIO 6

// Owner of capture files and of children other than tcpdump: the shell user and the log group.
#define SA_AID_SHELL 2000
#define SA_AID_LOG 1007

// One capture service: its running child or thread, and its configuration group.
struct sa_log_svc_st {
    int32_t svc_pid;        // running capture child (logcat, tcpdump); 0 when none
    pthread_t mthread_id;   // capture thread (kernel log reader); 0 when none
    char type[4];           // label of the group, e.g. "I4"
    int32_t type_id;        // position of the group in the configuration, 1 to 6
    char file_num[40];      // file count as written
    int32_t file_num_val;   // file count as a number
    char file_size[40];     // file size in KB as written
    int32_t file_size_val;  // file size in KB as a number
};

extern sa_log_svc_st g_zv_log_svc[SA_LOG_SVC_NUM];
// The log folder; every capture file is this folder plus a fixed name.
extern char g_log_path_a[100];

// Reads the log configuration property and parses it into g_zv_log_svc and g_log_path_a; 0 or -100.
long get_zv_log_config(void);
// Parses a configuration value (cut in place by the tokenizer); 0 or -100 with the failure traced.
long parse_zv_log_config(char *value);
// Makes sure the log folder exists (created 0771, owned 2000:2000); 0 or -100.
long check_zv_log_path(const char *path);

// Starts cmd (argv null-terminated, param_size entries, used in traces only) as a capture child with
// its stdio on /dev/null and a detached waiter thread that reaps it; the child's pid, or -1. Every call
// takes at least 100 ms.
int sa_create_subproc_thread(const char *cmd, char **argv, int param_size);
// Forks the child onto fd and hands it to a waiter thread; the child's pid, or -1 (fd then closed).
int create_subproc_thread_ex(int fd, const char *cmd, char **argv, int param_size);
// Forks the capture child (fd becomes its stdio); fd in the parent with *pid set, -1 on failure.
int create_subprocess_ex(int fd, const char *cmd, char **argv, int param_size, pid_t *pid);

// The logcat program every logcat capture runs.
#define SA_LOGCAT_PATH "/system/bin/logcat"
// Slots of a logcat argument table and the size of each slot.
#define SA_LOGCAT_ARGV_NUM 21
#define SA_LOGCAT_ARG_SIZE 40

// Fills the argument slots that argv[0..20] point at (SA_LOGCAT_ARG_SIZE bytes each) for svc's label
// and null-terminates argv after the last one; 0, or -100 for an unknown label.
long make_logcat_svc_argv_ex(const sa_log_svc_st *svc, char **argv, int *svc_argv_num);
// Starts the logcat capture of svc; 0 when started or not wanted, -100 on failure.
long start_logcat_service_ex(sa_log_svc_st *svc);

// Body of a kernel log reader thread: copies /proc/kmsg into kmsg.log of the log folder.
void *read_kernel_log_loop(void *param);
// Keeps file_num_val generations of log_file_org (.1 newest); below 2 only removes the base file.
void update_zv_log_file(const char *log_file_org, uint32_t file_num_val, uint32_t file_size_val);
// Creates a detached kernel log reader and returns once it has taken its copy of slot 3 and the log
// folder; pthread_create's result (*tid 0 on failure). The reader starts with SIGUSR1 blocked, so a stop
// request that arrives early ends it as soon as it can leave safely.
int sa_kmsg_create_reader(pthread_t *tid);
// Sends sig to tid when it is a running kernel log reader; pthread_kill's result, or ESRCH when it is not
// one (an ended reader's id, which may no longer be valid, is never handed to pthread_kill).
int sa_kmsg_signal_reader(pthread_t tid, int sig);
// Stops the reader *tid with pub_util_kill_thread when it still runs; that result, or 0 with *tid left as
// it is when it does not.
int sa_kmsg_stop_reader(pthread_t *tid);
// The kernel log part of start_zv_log_service (slot 3, svc not null): a reader, or the quiet console
// level. Its traces are filed under func, the dispatcher's name.
long start_kmsg_log_service(const char *func, sa_log_svc_st *svc);

// Program locations tried for the packet capture, and the export library that can provide one.
#define SA_TCPDUMP_PATH "/system/xbin/tcpdump"
#define SA_TCPDUMP_ALT_PATH "/data/local/tmp/tcpdump"
#define SA_TCPDUMP_EXPORT_LIB "/system/lib/libexport_tcpdump.so"
#define SA_TCPDUMP_EXPORT_SYM "export_tcpdump"

// Writes a tcpdump program to path through the export library; its result, or -1 when the library or
// its symbol is missing.
int createTcpdump(const char *path);
// tcpdump's file size argument (-C, millions of bytes) for a size in KB.
int sa_ipdata_file_size_mb(int32_t file_size_val);
// The packet capture part of start_zv_log_service (slot 2, svc not null); 0, -100, or -118 without
// tcpdump. Its traces are filed under func, the dispatcher's name.
long start_ipdata_log_service(const char *func, sa_log_svc_st *svc);
// Runs the packet capture's double fork and answers on fd; the answer's result.
long packets_capture_process(int fd, sa_msg_st *rsp);
// The capture start of the packet capture watcher; it starts nothing. 0.
long reset_real_capture(void);
// Waits until any child of the calling process has ended, then ends the process with status 0.
[[noreturn]] void watch_packets_capture_child_death(void);

// Starts every configured capture service; 0 when all started (or needed no start), -100 when the
// configuration or the log folder failed, otherwise the OR of the services' results.
long start_log_service(void);
// Starts the kernel log reader (type_id 3) or the packet capture (type_id 2); 0 for other slots.
long start_zv_log_service(sa_log_svc_st *svc);
// Stops every capture thread (SIGUSR1) and child (SIGKILL) recorded in the service table.
void sa_kill_all_child_service_ex(void);

// The settings file recording the three log switches.
#define SA_SETTINGS_FILE "/data/zv-qel-sa.set"
// Writes the three switch bytes to the settings file; 0 (also when it cannot be opened), -100 when
// nothing could be written.
long write_setting(void);

// Space figures of /data in KB.
struct sa_data_space_st {
    uint32_t m_total_kb;
    uint32_t m_used_kb;  // reserved blocks count as used
    uint32_t m_available_kb;
};

// Most free space capture ever asks for, in KB.
#define SA_LOG_SPACE_CAP_KB 256000u

// The space figures for a statfs result (block size, total blocks, blocks available to users).
sa_data_space_st sa_data_space_from_blocks(uint64_t bsize, uint64_t blocks, uint64_t bavail);
// The free space capture needs on a partition of total_kb: 5 per cent, at most 256,000 KB.
uint32_t sa_log_space_threshold(uint32_t total_kb);
// Whether available_kb is too little for capture on a partition of total_kb (strictly below the threshold).
bool sa_log_space_is_low(uint32_t total_kb, uint32_t available_kb);
// Measures /data; 0, or -100 when statfs failed (space then all zero).
long sa_get_data_space_info(sa_data_space_st *space);
// Whether /data has room for capture: 0 when it may start, -100 when not (or statfs failed).
long sa_is_can_start_log_service(void);

// The switches of the command channel: "+KERNEL_LOG=0|1" and "+KERNEL_LOG?", "+DMESG_LOG=0|1" and
// "+DMESG_LOG?" (sa-switch.cpp), "+DATA_PACKETS_LOG=0|1" (sa-packets.cpp).
long handle_sa_kernel_log_set(int fd, sa_msg_st *req, sa_msg_st *rsp, const char *param);
long handle_sa_kernel_log_read(int fd, sa_msg_st *req, sa_msg_st *rsp, const char *param);
long handle_sa_dmesg_log_set(int fd, sa_msg_st *req, sa_msg_st *rsp, const char *param);
long handle_sa_dmesg_log_read(int fd, sa_msg_st *req, sa_msg_st *rsp, const char *param);
long handle_sa_packets_log_set(int fd, sa_msg_st *req, sa_msg_st *rsp, const char *param);

#endif  // ZV_SA_SA_CAPTURE_H
