/**
 * @file
 * KVOS mutexes and the quick lock.
 *
 * Every KVOS mutex is error-checking and, when the process runs with an
 * effective user id of 0, priority-inheriting. Misuse (unlocking a mutex the
 * caller does not hold, locking one it already holds, a failed system call)
 * is a programming fault: "Mutex error" is logged with the system's text and
 * number, and the process aborts. Results of 1 mean success.
 *
 * Each mutex counts \#Taken (successful locks) and \#Blocked (locks that found
 * it held and had to wait); both are updated while the mutex is held. All
 * mutexes are kept in one list, in creation order, for KVOS_mutexDump; the
 * list's own lock, "mutexListLock", is its first entry.
 *
 * The quick lock is one recursive mutex, "globalLock", for short critical
 * sections that may nest.
 */
#ifndef ABSTRACTION_KVOS_MUTEX_H
#define ABSTRACTION_KVOS_MUTEX_H

#include <pthread.h>
#include <stdint.h>

#pragma GCC visibility push(default)

/** Handle of a KVOS mutex; the record behind it belongs to the library from KVOS_mutexCreate to
 * KVOS_mutexDelete. */
typedef struct KVOS_MUTEX {
    void* opaque_mutex;
} KVOS_MUTEX;

/** Line sink of the dumps: (arg, text, length). */
typedef int (*KVOS_MUTEX_OUT_FUNC)(int arg, const char* text, unsigned length);

/** Creates an error-checking mutex named `name` (cut to 19 characters) in the caller's handle and
 * appends it to the mutex list. Returns 1; a system failure aborts. */
int KVOS_mutexCreate(KVOS_MUTEX* m, const char* name);
/** KVOS_mutexCreate for a recursive mutex, which its holder may lock again. */
int kvos_recursiveMutexCreate(KVOS_MUTEX* m, const char* name);
/** Removes the mutex from the list, destroys it and frees its record; the handle becomes unusable.
 * Returns 1; destroying a locked mutex aborts. */
int KVOS_mutexDelete(KVOS_MUTEX* m);
/** Locks the mutex, counting \#Taken and, when it had to wait, \#Blocked. Locking a mutex the
 * caller already holds (not recursive) aborts. */
void KVOS_mutexLock(KVOS_MUTEX* m);
/** Unlocks the mutex; unlocking one the caller does not hold aborts. */
void KVOS_mutexUnlock(KVOS_MUTEX* m);
/** Header, one line per listed mutex, then "List info: ...". */
void KVOS_mutexDump(KVOS_MUTEX_OUT_FUNC out, int arg);
/** Initialises a bare system mutex with the KVOS attributes; returns 1. */
int kvos_init_mutex(pthread_mutex_t* m);

/** Statistics of one mutex, for diagnostics and tests. */
const char* KVOS_mutexGetName(const KVOS_MUTEX* m);
/** Successful locks of the mutex so far (\#Taken). */
uint32_t KVOS_mutexTaken(const KVOS_MUTEX* m);
/** Locks of the mutex that had to wait (\#Blocked). */
uint32_t KVOS_mutexBlocked(const KVOS_MUTEX* m);
/** Entries now in the mutex list, read under "mutexListLock". */
int KVOS_mutexCount(void);

/** Takes the quick lock "globalLock" (recursive, created on first use); returns the key to give
 * KVOS_unlockQuick (always 0). */
int KVOS_lockQuick(void);
/** Releases the quick lock once; `key` is ignored. */
void KVOS_unlockQuick(int key);

#pragma GCC visibility pop
#endif
