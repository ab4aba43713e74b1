// The structured log client's files: the log directory and the process's own "<name>-log" folder in it,
// the log file opened at each start, the ring that keeps it under its size limit (writing returns to a
// marked position once the limit is passed), and the numbered backup directories rotated through the
// platform's shell tools.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "log/log_internal.h"
#include "owned/owned.h"

static constexpr const char *LOG_BIN_DIR = "/system/bin";

sfw_log_module_st g_log_module = {"/data/local/log", 0, 102400, 0, 0, nullptr};

unsigned log_load(const unsigned *p) {
    return __atomic_load_n(p, __ATOMIC_RELAXED);
}

void log_store(unsigned *p, unsigned value) {
    __atomic_store_n(p, value, __ATOMIC_RELAXED);
}

// Writes one line through the ring's size check. The caller holds the object's mutex.
void log_write_locked(sfw_log_obj *obj, const char *text, const char *file, const char *func, unsigned line) {
    if (obj->m_fp == nullptr) {
        log_fault_no_stream(file, func, static_cast<int>(line));
        return;
    }
    unsigned written = log_load(&g_log_module.m_written);
    if (written > log_load(&g_log_module.m_max_size)) {
        unsigned wrap = log_load(&g_log_module.m_wrap_pos);
        fseek(obj->m_fp, static_cast<long>(wrap), SEEK_SET);
        written = wrap;
    }
    size_t len = strlen(text);
    log_store(&g_log_module.m_written, written + static_cast<unsigned>(len));
    fwrite(text, 1, len, obj->m_fp);
    fflush(obj->m_fp);
}

// Creates every missing component of dir (up to 254 characters) with mode 0777.
void log_make_dirs(const char *dir) {
    char path[255];
    snprintf(path, sizeof(path), "%s", dir);
    size_t n = strlen(path);
    for (size_t i = 1; i <= n; i++) {
        if (path[i] != '/' && path[i] != '\0') continue;
        char c = path[i];
        path[i] = '\0';
        if (access(path, F_OK) != 0) mkdir(path, 0777);
        path[i] = c;
    }
}

// Appends the process's own "<name>-log" folder to the log directory, once.
void log_build_dir() {
    if (g_log_module.m_dir_ready) return;
    char name[50];
    if (get_process_name(name, sizeof(name)) != 0) name[0] = '\0';
    char *dir = g_log_module.m_dir_a;
    size_t len = strlen(dir);
    if (len == 0 || dir[len - 1] != '/') {
        if (len + 1 >= sizeof(g_log_module.m_dir_a)) return;
        dir[len++] = '/';
        dir[len] = '\0';
    }
    while (len >= 2 && dir[len - 2] == '/') dir[--len] = '\0';
    size_t name_len = strlen(name);
    // An empty name (unreadable, or argv[0] is "") still gets its folder: "<dir>/-log".
    if (name_len + 4 > sizeof(g_log_module.m_dir_a) - 1 - len) return;
    snprintf(dir + len, sizeof(g_log_module.m_dir_a) - len, "%s-log", name);
    g_log_module.m_dir_ready = 1;
}

// Name of the running process (argv[0] after its last "/"); 0, -100 or -101.
int get_process_name(char *dst, unsigned size) {
    if (dst == nullptr || size == 0) {
        log_fault_invalid_param(__func__, __LINE__);
        return static_cast<int>(ERR_INVALID_PARAM);
    }
    char path[64];
    snprintf(path, sizeof(path), "/proc/%d/cmdline", static_cast<int>(getpid()));
    pub_util_unique_file fp(fopen(path, "re"));
    if (!fp.ok()) {
        int e = errno;
        log_internal_error(log_internal_fp(), "%s -> %s -> %d -> open \"%s\" fail: %d - %s.\n", LOG_SRC,
                           __func__, __LINE__, path, e, strerror(e));
        return static_cast<int>(ERR_UNKNOWN);
    }
    char cmd[100];
    size_t n = 0;
    int c;
    while (n < sizeof(cmd) - 1 && (c = fgetc(fp.get())) != EOF && c != '\n') cmd[n++] = static_cast<char>(c);
    cmd[n] = '\0';
    fp.reset();
    size_t text_len = strlen(cmd);
    if (text_len > 0 && cmd[text_len - 1] == '/') {
        log_internal_error(log_internal_fp(), "%s -> %s -> %d -> can not get valid name from \"%s\".\n",
                           LOG_SRC, __func__, __LINE__, cmd);
        return static_cast<int>(ERR_UNKNOWN);
    }
    const char *slash = strrchr(cmd, '/');
    const char *name = slash != nullptr ? slash + 1 : cmd;
    memset(dst, 0, size);
    snprintf(dst, size, "%s", name);
    return 0;
}

// Opens (truncating) the log file in the log directory; the stream or nullptr.
FILE *client_open_file(const char *name) {
    const char *dir = g_log_module.m_dir_a;
    if (dir[0] == '\0') return nullptr;
    log_make_dirs(dir);
    char proc[50] = "";
    const char *base = nullptr;
    if (name != nullptr) {
        const char *slash = strrchr(name, '/');
        base = slash != nullptr ? slash + 1 : name;
    } else if (get_process_name(proc, sizeof(proc)) == 0 && proc[0] != '\0') {
        base = proc;
    }
    char path[512];
    if (base == nullptr || base[0] == '\0') {
        snprintf(path, sizeof(path), "%s/%08X%s", dir, static_cast<unsigned>(getpid()), ".log");
    } else {
        snprintf(path, sizeof(path), "%s/%s", dir, base);
        size_t len = strlen(path);
        if (len < 4 || strcmp(path + len - 4, ".log") != 0) {
            snprintf(path + len, sizeof(path) - len, ".log");
        }
    }
    return fopen(path, "we");
}

// Sets the log directory (1..253 characters; trailing "/" become '0').
void sfw_log_set_path(const char *path) {
    if (path == nullptr) return;
    size_t len = strnlen(path, sizeof(g_log_module.m_dir_a));
    if (len == 0 || len > sizeof(g_log_module.m_dir_a) - 2) return;
    memset(g_log_module.m_dir_a, 0, sizeof(g_log_module.m_dir_a));
    memcpy(g_log_module.m_dir_a, path, len);
    for (size_t i = len; i > 0 && g_log_module.m_dir_a[i - 1] == '/'; i--) g_log_module.m_dir_a[i - 1] = '0';
}

static void log_run(const char *cmd, int n, size_t size) {
    if (n < 0 || static_cast<size_t>(n) >= size) {
        log_internal_error(log_internal_fp(), "%s -> %s -> %d -> command too long: \"%s\".\n", LOG_SRC,
                           __func__, __LINE__, cmd);
        return;
    }
    int rc = system(cmd);
    (void)rc;
}

// Rotates the numbered backup directories of the log directory.
void sfw_log_backup(unsigned char count) {
    log_build_dir();
    const char *dir = g_log_module.m_dir_a;
    char cmd[254];
    int n = snprintf(cmd, sizeof(cmd), "%s/rm %s-%d/*", LOG_BIN_DIR, dir, count);
    log_run(cmd, n, sizeof(cmd));
    n = snprintf(cmd, sizeof(cmd), "%s/rmdir %s-%d", LOG_BIN_DIR, dir, count);
    log_run(cmd, n, sizeof(cmd));
    if (count == 0) return;
    for (int i = count; i >= 2; i--) {
        n = snprintf(cmd, sizeof(cmd), "%s/mv %s-%d %s-%d", LOG_BIN_DIR, dir, i - 1, dir, i);
        log_run(cmd, n, sizeof(cmd));
    }
    n = snprintf(cmd, sizeof(cmd), "%s/mv %s %s-%d", LOG_BIN_DIR, dir, dir, 1);
    log_run(cmd, n, sizeof(cmd));
}

// Byte limit of the log file; 0 is ignored.
void sfw_log_set_max_size(unsigned size) {
    if (size != 0) log_store(&g_log_module.m_max_size, size);
}
