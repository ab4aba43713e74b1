// logcat for the simulated handset: writes plausible log lines of one buffer into a file and rotates it
// the way the daemon expects logcat to, so the capture can be exercised on a PC.
//
// Options: -f FILE (default: standard output), -r KB (rotate when FILE passes KB kilobytes, 0: never),
// -n COUNT (keep FILE.1 .. FILE.COUNT-1), -b BUFFER (main, events, radio, ...), -s (the positional
// filter that follows, e.g. "EMSD:V", names the only tag written), -v FORMAT (accepted and recorded).
// Other options and arguments are accepted and ignored.
//
// Rate: lines per second from the file /data/local/tmp/fake-logcat.rate (read again every second, so a
// test can change it while logcat runs), else from the environment variable FAKE_LOGCAT_RATE, else 10.
// 0 writes nothing.
//
// For tests, the argument vector is recorded in /data/local/tmp/logcat-args/<pid> as one line, the
// arguments joined by single blanks (the folder must exist and be writable: logcat runs as the shell
// user on a handset).
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

static constexpr char kRateFile[] = "/data/local/tmp/fake-logcat.rate";
static constexpr char kRateEnv[] = "FAKE_LOGCAT_RATE";
static constexpr char kArgsDir[] = "/data/local/tmp/logcat-args";
static constexpr long kDefaultRate = 10;
// Lines are written in ticks of this length.
static constexpr long kTickMs = 10;

struct logcat_opts_st {
    const char *m_file = nullptr;
    long m_rotate_kb = 0;
    long m_count = 4;
    const char *m_buffer = "main";
    char m_tag_a[64] = "";
};

// Records argv for tests; silently skipped when the folder is missing or not writable.
static void record_args(int argc, char **argv) {
    char path[128];
    snprintf(path, sizeof(path), "%s/%d", kArgsDir, static_cast<int>(getpid()));
    FILE *fp = fopen(path, "we");
    if (fp == nullptr) return;
    for (int i = 0; i < argc; ++i) fprintf(fp, "%s%s", i == 0 ? "" : " ", argv[i]);
    fputc('\n', fp);
    fclose(fp);
}

static void parse_args(int argc, char **argv, logcat_opts_st *opts) {
    bool filter_next = false;
    for (int i = 1; i < argc; ++i) {
        const char *a = argv[i];
        const char *next = i + 1 < argc ? argv[i + 1] : nullptr;
        if (strcmp(a, "-f") == 0 && next != nullptr) {
            opts->m_file = next;
            ++i;
        } else if (strcmp(a, "-r") == 0 && next != nullptr) {
            opts->m_rotate_kb = strtol(next, nullptr, 10);
            ++i;
        } else if (strcmp(a, "-n") == 0 && next != nullptr) {
            opts->m_count = strtol(next, nullptr, 10);
            ++i;
        } else if (strcmp(a, "-b") == 0 && next != nullptr) {
            opts->m_buffer = next;
            ++i;
        } else if (strcmp(a, "-v") == 0 && next != nullptr) {
            ++i;
        } else if (strcmp(a, "-s") == 0) {
            filter_next = true;
        } else if (a[0] != '-' && filter_next && opts->m_tag_a[0] == '\0') {
            // "TAG:LEVEL": the tag is what comes before the colon.
            snprintf(opts->m_tag_a, sizeof(opts->m_tag_a), "%.*s", static_cast<int>(strcspn(a, ":")), a);
        }
    }
}

// Current rate in lines per second.
static long current_rate(void) {
    FILE *fp = fopen(kRateFile, "re");
    if (fp != nullptr) {
        long rate = -1;
        int n = fscanf(fp, "%9ld", &rate);
        fclose(fp);
        if (n == 1 && rate >= 0) return rate;
    }
    const char *env = getenv(kRateEnv);
    if (env != nullptr && *env != '\0') return strtol(env, nullptr, 10);
    return kDefaultRate;
}

static int open_output(const logcat_opts_st *opts) {
    if (opts->m_file == nullptr) return STDOUT_FILENO;
    return open(opts->m_file, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
}

// Moves FILE to FILE.1 and older generations up by one, keeping FILE.1 .. FILE.(count-1).
static void rotate(const logcat_opts_st *opts) {
    char older[512];
    char newer[512];
    for (long k = opts->m_count - 1; k >= 2; --k) {
        snprintf(older, sizeof(older), "%s.%ld", opts->m_file, k - 1);
        snprintf(newer, sizeof(newer), "%s.%ld", opts->m_file, k);
        rename(older, newer);
    }
    if (opts->m_count >= 2) {
        snprintf(newer, sizeof(newer), "%s.1", opts->m_file);
        rename(opts->m_file, newer);
    } else {
        unlink(opts->m_file);
    }
}

static const char *default_tag(const char *buffer) {
    if (strcmp(buffer, "events") == 0) return "am_proc_start";
    if (strcmp(buffer, "radio") == 0) return "RILJ";
    return "ActivityManager";
}

// Formats one line in the threadtime format with microseconds.
static int format_line(char *line, size_t size, const char *tag, unsigned long seq) {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    struct tm tm_now;
    localtime_r(&ts.tv_sec, &tm_now);
    static const char kLevels[] = "VDIWE";
    int pid = static_cast<int>(getpid());
    return snprintf(line, size, "%02d-%02d %02d:%02d:%02d.%06ld %5d %5d %c %-8s: fake log line %lu\n",
                    tm_now.tm_mon + 1, tm_now.tm_mday, tm_now.tm_hour, tm_now.tm_min, tm_now.tm_sec,
                    ts.tv_nsec / 1000, pid, pid, kLevels[seq % 5], tag, seq);
}

int main(int argc, char **argv) {
    signal(SIGPIPE, SIG_DFL);
    record_args(argc, argv);
    logcat_opts_st opts;
    parse_args(argc, argv, &opts);
    const char *tag = opts.m_tag_a[0] != '\0' ? opts.m_tag_a : default_tag(opts.m_buffer);

    int fd = open_output(&opts);
    if (fd < 0) {
        fprintf(stderr, "logcat: %s: %s\n", opts.m_file, strerror(errno));
        return 1;
    }
    struct stat st;
    long long size = (opts.m_file != nullptr && fstat(fd, &st) == 0) ? static_cast<long long>(st.st_size) : 0;

    unsigned long seq = 0;
    long rate = current_rate();
    long ticks_per_second = 1000 / kTickMs;
    double owed = 0;
    for (long tick = 0;; ++tick) {
        if (tick % ticks_per_second == 0) rate = current_rate();
        owed += static_cast<double>(rate) / static_cast<double>(ticks_per_second);
        while (owed >= 1.0) {
            owed -= 1.0;
            char line[256];
            int len = format_line(line, sizeof(line), tag, seq++);
            if (len < 0) continue;
            if (write(fd, line, static_cast<size_t>(len)) < 0) return 1;
            size += len;
            if (opts.m_file != nullptr && opts.m_rotate_kb > 0 && size > opts.m_rotate_kb * 1024) {
                close(fd);
                rotate(&opts);
                fd = open_output(&opts);
                if (fd < 0) return 1;
                size = 0;
            }
        }
        struct timespec pause = {0, kTickMs * 1000000L};
        nanosleep(&pause, nullptr);
    }
}
