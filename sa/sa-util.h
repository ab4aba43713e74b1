// Finding processes by name: a process matches a name when the name occurs anywhere in the first
// blank-separated word of its command line (in effect argv[0]), read from /proc/<pid>/cmdline.
#ifndef ZV_SA_SA_UTIL_H
#define ZV_SA_SA_UTIL_H

// First matching pid in /proc order, 0 when none; 0 on success, -1 for bad arguments or no /proc.
long sa_util_get_pid(const char *process_name, int *pid);
// All matching pids (at most pids_length - 1, zero-terminated) and their count; 0 or -1.
long sa_util_get_pids(const char *process_name, int *pids, int pids_length, int *count);
// Whether a process matching name runs, and its pid; 0, or -101 for bad arguments. A failed scan
// reads as "not running".
long util_is_process_running(const char *name, int *is_running, int *pid);

#endif  // ZV_SA_SA_UTIL_H
