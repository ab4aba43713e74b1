// service: starting, signalling and restarting init's services, and publishing their states. Runs on
// init's single thread; nothing here blocks or waits, the event loop calls back on exits and deadlines.
#include "init/service.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "init/prop_store.h"

int64_t svc_now_ms() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

const char *svc_state_name(svc_state state) {
    switch (state) {
        case SVC_RUNNING:
            return "running";
        case SVC_STOPPING:
            return "stopping";
        case SVC_RESTARTING:
            return "restarting";
        case SVC_STOPPED:
            break;
    }
    return "stopped";
}

void svc_reset_signals() {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    for (int sig = 1; sig < NSIG; ++sig) {
        if (sig == SIGKILL || sig == SIGSTOP) continue;
        signal(sig, SIG_DFL);
    }
}

// Moves s to state and publishes it as init.svc.NAME.
static void svc_set_state(svc_table *t, svc_record *s, svc_state state) {
    s->m_state = state;
    char key[PROPERTY_KEY_MAX];
    snprintf(key, sizeof(key), "init.svc.%s", s->m_def.m_name.c_str());
    const char *value = svc_state_name(state);
    int err = prop_store_set(t->m_prop_dir.c_str(), key, value, strlen(value));
    if (err != 0) fprintf(stderr, "init: can't set %s=%s: %s\n", key, value, strerror(err));
}

// Sends sig to the service's process group, or to its process alone when it left its own group.
static void svc_signal(const svc_record *s, int sig) {
    if (s->m_pid <= 0) return;
    pid_t target = getpgid(s->m_pid) == s->m_pid ? -s->m_pid : s->m_pid;
    if (kill(target, sig) != 0 && errno != ESRCH) {
        int err = errno;
        fprintf(stderr, "init: kill(%d, %d) of service '%s' failed: %s\n", target, sig,
                s->m_def.m_name.c_str(), strerror(err));
    }
}

// In the child: marks every descriptor above stdio close-on-exec, so a service gets nothing that init
// itself inherited from whatever started it; 0 or an errno value.
static int svc_child_close_inherited() {
    if (close_range(3, ~0U, CLOSE_RANGE_CLOEXEC) == 0) return 0;
    DIR *d = opendir("/proc/self/fd");
    if (d == nullptr) return errno;
    int own = dirfd(d);
    while (struct dirent *e = readdir(d)) {
        int fd = atoi(e->d_name);
        if (fd > 2 && fd != own) fcntl(fd, F_SETFD, FD_CLOEXEC);
    }
    closedir(d);
    return 0;
}

// In the child: descriptors, session, folder, stdio, groups and user; returns the errno of the first
// failing step and names the step, or does not return.
static int svc_child_setup(const rc_service *def, char *const argv[], const char **step) {
    *step = "closing inherited descriptors";
    int err = svc_child_close_inherited();
    if (err != 0) return err;
    *step = "setsid";
    if (setsid() < 0) return errno;
    *step = "chdir";
    if (chdir("/") != 0) return errno;
    // No O_CLOEXEC: the program inherits it. With a stdio slot closed in init it may itself be 0 to 2.
    *step = "open /dev/null";
    int null_fd = open("/dev/null", O_RDWR);
    if (null_fd < 0) return errno;
    *step = "dup2";
    for (int fd = 0; fd <= 2; ++fd) {
        if (fd != null_fd && dup2(null_fd, fd) < 0) return errno;
    }
    if (null_fd > 2) close(null_fd);
    *step = "setgroups";
    if (setgroups(def->m_supp_gids.size(), def->m_supp_gids.data()) != 0) return errno;
    *step = "setgid";
    if (setgid(def->m_gid) != 0) return errno;
    *step = "setuid";
    if (setuid(def->m_uid) != 0) return errno;
    *step = "exec";
    execv(argv[0], argv);
    return errno;
}

// Forks and runs s; on success s is running.
static void svc_start(svc_table *t, svc_record *s) {
    const rc_service &def = s->m_def;
    s->m_start_after_stop = false;
    s->m_kill_sent = false;
    struct stat st;
    if (stat(def.m_args[0].c_str(), &st) != 0) {
        int err = errno;
        fprintf(stderr, "init: can't find '%s' (%s), service '%s' not started\n", def.m_args[0].c_str(),
                strerror(err), def.m_name.c_str());
        svc_set_state(t, s, SVC_STOPPED);
        return;
    }
    std::vector<char *> argv;
    for (const std::string &arg : def.m_args) argv.push_back(const_cast<char *>(arg.c_str()));
    argv.push_back(nullptr);

    pid_t pid = fork();
    if (pid < 0) {
        int err = errno;
        fprintf(stderr, "init: fork for service '%s' failed: %s\n", def.m_name.c_str(), strerror(err));
        svc_set_state(t, s, SVC_STOPPED);
        return;
    }
    if (pid == 0) {
        // init's stderr stays reachable for the one message about a failed step.
        int err_fd = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
        svc_reset_signals();
        const char *step = "";
        int err = svc_child_setup(&def, argv.data(), &step);
        if (err_fd >= 0) {
            dprintf(err_fd, "init: service '%s': %s failed: %s\n", def.m_name.c_str(), step, strerror(err));
        }
        _exit(127);
    }
    s->m_pid = pid;
    // Read after fork returned: the child exists by then, so the restart delay counted from here is
    // never shorter than the time since the process really started.
    s->m_started_ms = svc_now_ms();
    s->m_deadline_ms = SVC_NO_DEADLINE;
    svc_set_state(t, s, SVC_RUNNING);
}

// Begins stopping s (SIGTERM, SIGKILL deadline); start_again asks for a start once it is gone.
static void svc_stop(svc_table *t, svc_record *s, bool start_again) {
    if (s->m_pid == 0) {
        s->m_deadline_ms = SVC_NO_DEADLINE;
        svc_set_state(t, s, SVC_STOPPED);
        return;
    }
    s->m_start_after_stop = start_again;
    if (s->m_state == SVC_STOPPING) return;
    svc_signal(s, SIGTERM);
    s->m_kill_sent = false;
    // Counted from after the signal went out, so the grace period is never short.
    s->m_deadline_ms = svc_now_ms() + SVC_STOP_GRACE_MS;
    svc_set_state(t, s, SVC_STOPPING);
}

void svc_table_init(svc_table *t, const char *prop_dir, const rc_config &cfg) {
    t->m_list.clear();
    t->m_prop_dir = prop_dir;
    t->m_shutting_down = false;
    for (const rc_service &def : cfg.m_services) {
        svc_record s;
        s.m_def = def;
        s.m_state = SVC_STOPPED;
        s.m_pid = 0;
        s.m_started_ms = 0;
        s.m_deadline_ms = SVC_NO_DEADLINE;
        s.m_kill_sent = false;
        s.m_start_after_stop = false;
        t->m_list.push_back(std::move(s));
    }
}

svc_record *svc_find(svc_table *t, const char *name) {
    for (svc_record &s : t->m_list) {
        if (s.m_def.m_name == name) return &s;
    }
    return nullptr;
}

void svc_boot(svc_table *t) {
    for (svc_record &s : t->m_list) {
        if (!s.m_def.m_disabled) svc_start(t, &s);
    }
}

void svc_ctl_start(svc_table *t, svc_record *s) {
    if (t->m_shutting_down) return;
    switch (s->m_state) {
        case SVC_RUNNING:
            return;
        case SVC_STOPPING:
            s->m_start_after_stop = true;
            return;
        case SVC_STOPPED:
        case SVC_RESTARTING:
            svc_start(t, s);
            return;
    }
}

void svc_ctl_stop(svc_table *t, svc_record *s) {
    svc_stop(t, s, false);
}

void svc_ctl_restart(svc_table *t, svc_record *s) {
    if (t->m_shutting_down) return;
    if (s->m_pid != 0) {
        svc_stop(t, s, true);
    } else {
        svc_start(t, s);
    }
}

// Writes why the process of s ended, for the handset's console.
static void svc_report_exit(const svc_record *s, int status, const char *what_next) {
    if (WIFSIGNALED(status)) {
        fprintf(stderr, "init: service '%s' (pid %d) killed by signal %d, %s\n", s->m_def.m_name.c_str(),
                s->m_pid, WTERMSIG(status), what_next);
    } else {
        fprintf(stderr, "init: service '%s' (pid %d) exited with status %d, %s\n", s->m_def.m_name.c_str(),
                s->m_pid, WEXITSTATUS(status), what_next);
    }
}

bool svc_on_exit(svc_table *t, pid_t pid, int status, int64_t now) {
    svc_record *s = nullptr;
    for (svc_record &r : t->m_list) {
        if (r.m_pid == pid) s = &r;
    }
    if (s == nullptr) return false;
    if (s->m_state == SVC_STOPPING) {
        s->m_pid = 0;
        s->m_deadline_ms = SVC_NO_DEADLINE;
        if (s->m_start_after_stop && !t->m_shutting_down) {
            svc_start(t, s);
        } else {
            svc_set_state(t, s, SVC_STOPPED);
        }
        return true;
    }
    // It ended on its own.
    if (s->m_def.m_oneshot || t->m_shutting_down) {
        svc_report_exit(s, status, "not restarted");
        s->m_pid = 0;
        s->m_deadline_ms = SVC_NO_DEADLINE;
        svc_set_state(t, s, SVC_STOPPED);
        return true;
    }
    svc_report_exit(s, status, "restarting");
    s->m_pid = 0;
    int64_t due = s->m_started_ms + SVC_RESTART_DELAY_MS;
    if (now >= due) {
        svc_start(t, s);
    } else {
        s->m_deadline_ms = due;
        svc_set_state(t, s, SVC_RESTARTING);
    }
    return true;
}

void svc_on_timers(svc_table *t, int64_t now) {
    for (svc_record &s : t->m_list) {
        if (now < s.m_deadline_ms) continue;
        if (s.m_state == SVC_RESTARTING) {
            svc_start(t, &s);
        } else if (s.m_state == SVC_STOPPING && !s.m_kill_sent) {
            fprintf(stderr,
                    "init: service '%s' (pid %d) still there %lld ms after SIGTERM, sending SIGKILL\n",
                    s.m_def.m_name.c_str(), s.m_pid, static_cast<long long>(SVC_STOP_GRACE_MS));
            svc_signal(&s, SIGKILL);
            s.m_kill_sent = true;
            s.m_deadline_ms = SVC_NO_DEADLINE;
        }
    }
}

int64_t svc_next_deadline(const svc_table *t) {
    int64_t next = SVC_NO_DEADLINE;
    for (const svc_record &s : t->m_list) {
        if (s.m_deadline_ms < next) next = s.m_deadline_ms;
    }
    return next;
}

void svc_stop_all(svc_table *t) {
    t->m_shutting_down = true;
    for (svc_record &s : t->m_list) {
        if (s.m_pid != 0) {
            svc_stop(t, &s, false);
        } else if (s.m_state != SVC_STOPPED) {
            s.m_deadline_ms = SVC_NO_DEADLINE;
            svc_set_state(t, &s, SVC_STOPPED);
        }
    }
}

bool svc_any_alive(const svc_table *t) {
    for (const svc_record &s : t->m_list) {
        if (s.m_pid != 0) return true;
    }
    return false;
}
