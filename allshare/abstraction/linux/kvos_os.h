/*
 * The thin Linux half of KVOS as seen by the OS-independent front half:
 * record layouts that embed system objects, and inline wrappers over the
 * pthread calls on the lock path (kept inline so that a KVOS mutex costs
 * little more than the system mutex it wraps). Every wrapper returns 0 or
 * the system's error number.
 */
#ifndef ABSTRACTION_LINUX_KVOS_OS_H
#define ABSTRACTION_LINUX_KVOS_OS_H

#include <pthread.h>
#include <semaphore.h>
#include <stddef.h>
#include <stdint.h>

#include <atomic>
#include <string>

#include "abstraction/kvos.h"
#include "abstraction/kvos_ptrq.h"

struct KVOS_SYSCALLS;
/* The seams (abstraction/kvos_seams.h), for the library's own hot paths. */
extern KVOS_SYSCALLS kvos_syscall_table;

namespace kvos_os {

/* The record behind KVOS_MUTEX::opaque_mutex. The counters change only
 * while the mutex is held; they are atomics (plain loads and stores, no
 * locked instructions) because the dump reads them without the mutex. */
struct MutexRecord {
    pthread_mutex_t sys;
    char name[20];
    std::atomic<uint32_t> taken;
    std::atomic<uint32_t> blocked;

    void count(std::atomic<uint32_t>& c) { c.store(c.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed); }
};

/* The record behind KVOS_SEMAPHORE::opaque_semaphore. */
constexpr unsigned kSemNameArea = 4096;
constexpr unsigned kSemNameMax = 512;
struct SemRecord {
    char name[kSemNameArea];
    sem_t sem;
};

bool isRoot();
std::string errorText(int err);

/* Error-checking (or recursive) type, priority inheritance when root. */
int mutexInit(pthread_mutex_t* m, bool recursive);
int mutexDestroy(pthread_mutex_t* m);
inline int mutexTryLock(pthread_mutex_t* m)
{
    return pthread_mutex_trylock(m);
}
inline int mutexLock(pthread_mutex_t* m)
{
    return pthread_mutex_lock(m);
}
inline int mutexUnlock(pthread_mutex_t* m)
{
    return pthread_mutex_unlock(m);
}

/* Semaphores; waits retry when interrupted. */
int semInit(sem_t* s, unsigned tokens);
int semDestroy(sem_t* s);
int semWait(sem_t* s);
int semTimedWait(sem_t* s, unsigned ms);
int semTryWait(sem_t* s);
int semPost(sem_t* s);
int semGetValue(sem_t* s, int* value);

/* Directories: whether `path` exists, and mkdir with mode 0777 (0 or the
 * system's error number). */
bool pathExists(const char* path);
int makeDirectory(const char* path);

/* Process. */
int processId();
/* Creates the thread-specific key for per-task process data. */
unsigned createProcdataKey();
/* Gives "/tmp/fifos" to the FIFO group (when it exists) and mode 0775;
 * failures are logged and otherwise ignored. */
void adjustFifoOwner();

/* Threads. */
int currentLwp();
void setThreadName(pthread_t tid, const char* name);
/* Scheduling policy text ("OT", "FF", "RR" or "") and the priority shown
 * for it (nice value or real-time priority) of a kernel thread id. */
void threadPolicy(int lwp, const char** text, int* priority);

/* The texts of the per-thread error record: handlers in a singly linked
 * list, newest first, looked up by KVOS_lastError. addErrnoHandler puts h
 * at the head; its caller serialises the additions ("KVOSmutex"). The list
 * is read without a lock: handlers are registered at start-up, before
 * other threads look them up. */
struct ErrnoHandler {
    KVOS_ERR_ORIGIN origin;
    KVOS_ERRNO_TEXT_FUNC text;
    ErrnoHandler* next;
};
void addErrnoHandler(ErrnoHandler* h);

/* The queue in registry slot `slot` (0 to KVOS_PTRQ_REGISTRY_SIZE - 1),
 * or null when the slot is free. */
const ptrqueue_t* ptrqRegistered(int slot);

/* Tasks: the system side of the reaper and of task start-up, for the
 * portable half (kvos_task.cpp). */
/* Creates the key of the per-thread exit handler (once). */
void taskSetUp();
/* A task stack for `size` bytes (usable, below the thread's own block):
 * from the cache when one of that size is kept, else mapped and filled
 * with the marker; null (logged, errno set) when mapping fails. */
void* taskStackAllocate(size_t size);
/* Starts a detached thread running main(arg) on a stack from
 * taskStackAllocate(stackSize), through the thread-creation seam; 0 or
 * the system's error number. */
int startDetachedTask(void* stack, size_t stackSize, void* (*main)(void*), void* arg);
/* The queue the tasks' start and exit messages go to (returned by
 * kvos_task_reaper_queue), and that the reaper runs, so tasks may be
 * created (until cleanup stops it). */
void setReaperQueue(ptrqueue_t* q);
void reaperStarted();
/* On the reaper's thread, first: records its kernel thread id (returned),
 * so cleanup can wait until the thread is gone. */
int reaperThreadBegins();
/* Whether a message taken from the reaper queue is cleanup's stop. */
bool isReaperStop(const void* msg);
/* Joins a task that posted its exit message; from the start of the call
 * the task may no longer be signalled. */
void reaperJoin(pthread_t tid);
/* A joined task is unlisted: it leaves the table of tasks not yet reaped
 * (KVOS_taskJoin and cancel-all wait on that). */
void reaperReaped(pthread_t tid);
/* The reaper's loop has ended (cleanup waits for it). */
void reaperEnds();
/* Sends SIGUSR1 to a listed thread unless the reaper is joining (or has
 * joined) it; answers whether it was sent. A listed thread that is not in
 * the table (the reaper, a task that ended through KVOS_taskExit) keeps
 * its stack, and so its handle, while it is listed. Called under
 * "taskListLock". */
bool signalIfNotJoining(pthread_t tid);

}  // namespace kvos_os

/* Releases the stacks of an unlisted task, keeping them for the next
 * tasks when the cache has room (the task list calls these when it
 * removes an entry). */
void kvos_task_release_stack(void* stack, size_t stackSize);
void kvos_task_release_signal_stack(void* stack, size_t size);

/* Pointer-queue registry, filled by ptrqueue_create and cleared by
 * ptrqueue_destroy: the first free slot gets q (nothing when all are
 * taken); unregistering clears q's slot if it has one. */
void kvos_ptrq_register(ptrqueue_t* q);
void kvos_ptrq_unregister(ptrqueue_t* q);

/* Starts the tick clock (a step of KVOS_init). */
void kvos_time_start(void);

#endif
