// service: the life of init's services. Each service from the rc files has one record with a small
// state machine (stopped, running, stopping, restarting) that init drives from four events: a control
// request (ctl.start / ctl.stop / ctl.restart), the exit of the service's process, the expiry of the
// record's deadline, and the end of the handset (stop everything). Every state change is published as
// the property init.svc.NAME, which is how the daemon and the tests watch services.
//
// A service runs in its own session (so it is its own process group and signals reach its children
// too), with the working folder "/", stdio on /dev/null, and its group then its user. A stop sends
// SIGTERM and, if the process is still there after SVC_STOP_GRACE_MS, SIGKILL; a stopped service stays
// stopped. A service that ends on its own is started again, unless it is oneshot, no earlier than
// SVC_RESTART_DELAY_MS after its previous start, so a service that dies at once can't spin.
#ifndef ZV_SIM_INIT_SERVICE_H
#define ZV_SIM_INIT_SERVICE_H

#include <stdint.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "init/rc_parser.h"

constexpr int64_t SVC_STOP_GRACE_MS = 3000;
constexpr int64_t SVC_RESTART_DELAY_MS = 5000;
// Deadline value meaning "none".
constexpr int64_t SVC_NO_DEADLINE = INT64_MAX;

enum svc_state { SVC_STOPPED, SVC_RUNNING, SVC_STOPPING, SVC_RESTARTING };

struct svc_record {
    rc_service m_def;
    svc_state m_state;
    pid_t m_pid;              // the live (not yet reaped) process; 0 when there is none
    int64_t m_started_ms;     // monotonic time of the last start
    int64_t m_deadline_ms;    // RESTARTING: when to start again; STOPPING: when to send SIGKILL
    bool m_kill_sent;         // SIGKILL already sent during this stop
    bool m_start_after_stop;  // start again once the stopping process is gone (ctl.restart)
};

struct svc_table {
    std::vector<svc_record> m_list;
    std::string m_prop_dir;  // property area that receives init.svc.NAME
    bool m_shutting_down;    // no start and no restart any more
};

// Monotonic clock in milliseconds.
int64_t svc_now_ms();

// Fills t with one stopped record per service of cfg; state properties go to prop_dir.
void svc_table_init(svc_table *t, const char *prop_dir, const rc_config &cfg);

// The record of the service called name, or nullptr.
svc_record *svc_find(svc_table *t, const char *name);

// Starts every service that is not disabled.
void svc_boot(svc_table *t);

// ctl.start: starts s unless it runs; a stopping s starts again once its process is gone.
void svc_ctl_start(svc_table *t, svc_record *s);

// ctl.stop: SIGTERM now, SIGKILL after the grace period; s is not started again.
void svc_ctl_stop(svc_table *t, svc_record *s);

// ctl.restart: stops s if it runs and starts it once its process is gone; starts a stopped s now.
void svc_ctl_restart(svc_table *t, svc_record *s);

// Handles the reaped process pid with wait status; false when pid was no service's process.
bool svc_on_exit(svc_table *t, pid_t pid, int status, int64_t now);

// Acts on every deadline that has passed: due restarts, due SIGKILLs.
void svc_on_timers(svc_table *t, int64_t now);

// The earliest pending deadline, or SVC_NO_DEADLINE.
int64_t svc_next_deadline(const svc_table *t);

// Ends the handset's services: every running one is stopped, no restart happens from now on.
void svc_stop_all(svc_table *t);

// True while any service's process has not been reaped.
bool svc_any_alive(const svc_table *t);

// The property text of a state: "stopped", "running", "stopping" or "restarting".
const char *svc_state_name(svc_state state);

// In a freshly forked child: empties the signal mask and puts every signal back to its default.
void svc_reset_signals();

#endif  // ZV_SIM_INIT_SERVICE_H
