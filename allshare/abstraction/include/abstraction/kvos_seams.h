/*
 * Seams in front of the few system calls that a test cannot make fail on
 * demand with real objects: the waits and reads of a glibc semaphore, the
 * lock and waits of a pointer queue, the thread creation, the allocation
 * of a task's creation context, and the epoll wait of a socket event set
 * (so that a test can act in the window between the kernel's answer and
 * the set's own bookkeeping).
 *
 * Production code never changes them. A test installs a replacement that
 * fails for its own object and passes every other call through to the
 * saved original (other threads, the reaper among them, use the same
 * calls), and restores the original afterwards. The entries are atomic so
 * that replacing one while other threads call through it is not a race.
 */
#ifndef ABSTRACTION_KVOS_SEAMS_H
#define ABSTRACTION_KVOS_SEAMS_H

#include <pthread.h>
#include <semaphore.h>
#include <stddef.h>
#include <sys/epoll.h>
#include <time.h>

#include <atomic>

struct KVOS_SYSCALLS {
    std::atomic<int (*)(sem_t*)> semWait;
    std::atomic<int (*)(sem_t*, const struct timespec*)> semTimedWait;
    std::atomic<int (*)(sem_t*)> semTryWait;
    std::atomic<int (*)(sem_t*, int*)> semGetValue;
    std::atomic<int (*)(pthread_mutex_t*)> mutexLock;
    std::atomic<int (*)(pthread_cond_t*, pthread_mutex_t*)> condWait;
    std::atomic<int (*)(pthread_cond_t*, pthread_mutex_t*, const struct timespec*)> condTimedWait;
    std::atomic<int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)> threadCreate;
    std::atomic<void* (*)(size_t)> contextAlloc;
    std::atomic<int (*)(int, struct epoll_event*, int, int)> epollWait;
};

KVOS_SYSCALLS& kvos_syscalls();

/* The group that KVOS_init gives "/tmp/fifos" when it exists; normally
 * "_appmgmt". The pointer is kept, not copied. */
void kvos_set_fifo_group(const char* group);

struct ptrqueue_t;
/* The reaper's queue, "reaperQ" (null before KVOS_init). */
ptrqueue_t* kvos_task_reaper_queue(void);

#endif
