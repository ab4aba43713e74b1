// How the daemon ends: the termination signals and the release of its resources.
#ifndef ZV_SA_SA_SIGNAL_H
#define ZV_SA_SA_SIGNAL_H

// Runs the shutdown sequence for signo: traces, sa_deinit_resource, then exit(0); for SIGUSR2 instead
// kills the capture children, asks init to stop the daemon's service and returns.
void signal_treatment(int signo);
// Closes the command channel's endpoint (nothing else: threads and capture keep running); its result.
long sa_deinit_resource(void);
// Installs the daemon's handlers for SIGINT, SIGTERM, SIGSEGV, SIGBUS and SIGUSR2, in this order, and
// starts the thread that runs signal_treatment for SIGINT, SIGTERM and SIGUSR2; 0, or -118 when the
// pipe or the thread could not be made (those three then keep their defaults).
long sa_signal_install(void);

#endif  // ZV_SA_SA_SIGNAL_H
