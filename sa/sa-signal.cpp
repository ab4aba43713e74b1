// Signals and shutdown. SIGINT and SIGTERM end the daemon with status 0 after closing the command
// endpoint; SIGUSR2 is the reset request: it kills the capture children and asks init to stop the
// daemon's service, and the daemon goes on until init stops it.
//
// The shutdown sequence writes traces (stdio, the log client's mutex) and closes a pty, none of which is
// safe in signal context. So the handler of SIGINT, SIGTERM and SIGUSR2 only writes the signal number to
// a pipe, and a thread of its own reads it and runs signal_treatment. SIGSEGV and SIGBUS cannot wait for
// another thread (the faulting code would fault again), so they run signal_treatment in the handler.
// No signal is blocked in any thread's mask: the children of system() would inherit the mask.
#define SA_TRACE_SRC "sa/sa-signal"
#include "sa-signal.h"
#include "sa-handlers.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <cutils/properties.h>

#include "sa-capture.h"
#include "sa-handle.h"
#include "sa-trace.h"
#include "util/util.h"

// The self-pipe from the handler to the signal thread; -1 until installed.
static int g_signal_pipe_r = -1;
static int g_signal_pipe_w = -1;

long sa_deinit_resource(void) {
    trace_func();
    long ret_val = sa_handle_deinit();
    trace_info("sa_deinit_resource exit");
    trace_file("exit ret_val[%ld]", ret_val);
    return ret_val;
}

void signal_treatment(int signo) {
    trace_func();
    trace_file("%s", "");
    const char *name = pub_util_get_signal_name(signo);
    trace_info("signal_treatment receive signal[%d-%s]", signo, name);
    trace_file("signal[%d-%s]", signo, name);
    sa_deinit_resource();
    if (signo != SIGUSR2) {
        trace_info("signal_treatment exit");
        trace_file("exit");
        exit(0);
    }
    trace_info("ready to kill all child service");
    sa_kill_all_child_service_ex();
    int ret_val = property_set("ctl.stop", SA_MODULE_NAME);
    trace_info("signal_treatment property_set(ctl.stop, %s) ret_val[%d]", SA_MODULE_NAME, ret_val);
    trace_file("PUB_UTIL_RESET_PROCESS_SIGNAL exit");
}

// Handler of SIGINT, SIGTERM and SIGUSR2: hands the number to the signal thread. Async-signal-safe.
static void signal_forward(int signo) {
    int saved_errno = errno;
    if (write(g_signal_pipe_w, &signo, sizeof(signo)) < 0) {
        // A full pipe already holds a pending request; nothing more can be done here.
    }
    errno = saved_errno;
}

// Body of the signal thread: runs the shutdown sequence for every number the handler sends.
static void *signal_thread_loop(void *param) {
    (void)param;
    for (;;) {
        int signo = 0;
        ssize_t n = read(g_signal_pipe_r, &signo, sizeof(signo));
        if (n == static_cast<ssize_t>(sizeof(signo))) {
            signal_treatment(signo);
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        int err = errno;
        trace_info("signal_thread_loop read[%ld] errno[%d-%s]", static_cast<long>(n), err, strerror(err));
        return nullptr;
    }
}

long sa_signal_install(void) {
    trace_func();
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        int err = errno;
        trace_sys_err("pipe2", err);
        return ERR_CALL_C_FUNCTION;
    }
    // The handler must never block: a full pipe drops the number instead.
    fcntl(fds[1], F_SETFL, fcntl(fds[1], F_GETFL) | O_NONBLOCK);
    g_signal_pipe_r = fds[0];
    g_signal_pipe_w = fds[1];

    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_t thread;
    int rc = pthread_create(&thread, &attr, signal_thread_loop, nullptr);
    pthread_attr_destroy(&attr);
    if (rc != 0) {
        trace_sys_err("pthread_create", rc);
        close(fds[0]);
        close(fds[1]);
        g_signal_pipe_r = -1;
        g_signal_pipe_w = -1;
        signal(SIGSEGV, signal_treatment);
        signal(SIGBUS, signal_treatment);
        return ERR_CALL_C_FUNCTION;
    }
    trace_info("sa_signal_install signal thread[%lu]", static_cast<unsigned long>(thread));

    signal(SIGINT, signal_forward);
    signal(SIGTERM, signal_forward);
    signal(SIGSEGV, signal_treatment);
    signal(SIGBUS, signal_treatment);
    signal(SIGUSR2, signal_forward);
    return ERR_NONE;
}
