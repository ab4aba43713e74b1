// Process lookup over /proc. Each numeric entry's cmdline (at most 511 bytes) is cut at its first blank
// and searched for the name as a substring: "zv-qel-mla" matches "zv-qel-mla1", and a bare name matches
// a process started under its full path. Kernel threads (empty cmdline) never match. No heap is used:
// the service handlers scan once a second while they wait.
#define SA_TRACE_SRC "sa/sa-util"
#include "sa-util.h"

#include <ctype.h>
#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "sa-trace.h"

static constexpr size_t kProcBufSize = 512;

// Reads the compared text of one /proc entry into text (kProcBufSize bytes). Returns the pid, or 0 when
// the entry is not a process or its cmdline cannot be read.
static int read_proc_entry(const struct dirent *entry, char *path, char *text) {
    const char *name = entry->d_name;
    if (strcmp(name, "..") == 0 || !isdigit(static_cast<unsigned char>(name[0]))) return 0;
    int pid = atoi(name);
    if (pid < 1) return 0;

    memset(path, 0, kProcBufSize);
    memset(text, 0, kProcBufSize);
    snprintf(path, kProcBufSize, "/proc/%d/cmdline", pid);
    FILE *fp = fopen(path, "re");
    if (fp == nullptr) return 0;
    size_t n = fread(text, 1, kProcBufSize - 1, fp);
    fclose(fp);
    text[n] = '\0';

    // Cut at the first blank: a leading blank empties the text; otherwise the first blank found among
    // the bytes read (from the second on) ends it. NUL-separated arguments already end argv[0].
    if (n > 0) {
        if (text[0] == ' ') {
            text[0] = '\0';
        } else {
            char *blank = static_cast<char *>(memchr(text + 1, ' ', n - 1));
            if (blank != nullptr) *blank = '\0';
        }
    }
    return pid;
}

static bool proc_text_matches(const char *text, const char *process_name) {
    return strstr(text, process_name) != nullptr;
}

long sa_util_get_pid(const char *process_name, int *pid) {
    trace_func();
    if (process_name == nullptr || process_name[0] == '\0' || pid == nullptr) {
        trace_info("sa_util_get_pid invalid parameter");
        return -1;
    }
    trace_info("sa_util_get_pid process_name[%s]", process_name);
    *pid = 0;
    DIR *dir = opendir("/proc");
    if (dir == nullptr) {
        trace_info("sa_util_get_pid cannot open /proc");
        trace_file("cannot open /proc");
        return -1;
    }
    char path[kProcBufSize];
    char text[kProcBufSize];
    while (const struct dirent *entry = readdir(dir)) {
        int candidate = read_proc_entry(entry, path, text);
        if (candidate < 1 || !proc_text_matches(text, process_name)) continue;
        *pid = candidate;
        trace_info("sa_util_get_pid find pid[%d] buffer[%s]", candidate, text);
        break;
    }
    closedir(dir);
    return 0;
}

long sa_util_get_pids(const char *process_name, int *pids, int pids_length, int *count) {
    trace_func();
    if (process_name == nullptr || process_name[0] == '\0' || pids == nullptr || pids_length < 2 ||
        count == nullptr) {
        trace_info("sa_util_get_pids invalid parameter");
        return -1;
    }
    trace_info("sa_util_get_pids process_name[%s] pids_length[%d]", process_name, pids_length);
    DIR *dir = opendir("/proc");
    if (dir == nullptr) {
        trace_info("sa_util_get_pids cannot open /proc");
        return -1;
    }
    pids[0] = 0;
    int found = 0;
    char path[kProcBufSize];
    char text[kProcBufSize];
    while (const struct dirent *entry = readdir(dir)) {
        int candidate = read_proc_entry(entry, path, text);
        if (candidate < 1 || !proc_text_matches(text, process_name)) continue;
        pids[found++] = candidate;
        trace_info("sa_util_get_pids find pid[%d] count[%d]", candidate, found);
        if (found >= pids_length - 1) break;
    }
    pids[found] = 0;
    *count = found;
    trace_info("sa_util_get_pids found_count[%d]", found);
    closedir(dir);
    return 0;
}

long util_is_process_running(const char *name, int *is_running, int *pid) {
    trace_func();
    if (name == nullptr || name[0] == '\0' || is_running == nullptr || pid == nullptr) {
        trace_info("util_is_process_running invalid parameter");
        return ERR_INVALID_PARAM;
    }
    *is_running = 0;
    *pid = 0;
    long ret_val = sa_util_get_pid(name, pid);
    trace_info("util_is_process_running ret_val[%ld] pid[%d]", ret_val, *pid);
    if (ret_val == 0 && *pid > 0) *is_running = 1;
    trace_info("util_is_process_running is_running[%d] pid[%d]", *is_running, *pid);
    return 0;
}
