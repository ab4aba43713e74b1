// Thread attributes for the daemon's threads that only wait: the waiters that reap a child and the kernel
// log reader. They block in waitpid or read and trace a line now and then; their deepest call is a trace
// (a log client record and an sa.log line, a few KiB of stack), so the C library's default stack (8 MiB
// reserved per thread on a PC) is far more than they use.
#ifndef ZV_SA_SA_THREAD_H
#define ZV_SA_SA_THREAD_H

#include <limits.h>
#include <pthread.h>
#include <stddef.h>

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define ZV_SA_THREAD_SANITIZED 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ZV_SA_THREAD_SANITIZED 1
#endif

// Stack of a waiting thread: 64 KiB, several times what the deepest trace needs. Sanitizers enlarge every
// frame, so their builds keep eight times as much.
#ifdef ZV_SA_THREAD_SANITIZED
constexpr size_t SA_WAIT_THREAD_STACK = 512 * 1024;
#else
constexpr size_t SA_WAIT_THREAD_STACK = 64 * 1024;
#endif

// Initialises attr for a detached thread that only waits. A C library whose smallest stack is larger
// keeps its smallest; should the size be refused, the thread gets the default.
inline void sa_thread_attr_waiting(pthread_attr_t *attr) {
    pthread_attr_init(attr);
    pthread_attr_setdetachstate(attr, PTHREAD_CREATE_DETACHED);
    size_t size = SA_WAIT_THREAD_STACK;
#ifdef PTHREAD_STACK_MIN
    if (size < static_cast<size_t>(PTHREAD_STACK_MIN)) size = static_cast<size_t>(PTHREAD_STACK_MIN);
#endif
    pthread_attr_setstacksize(attr, size);
}

#endif  // ZV_SA_SA_THREAD_H
