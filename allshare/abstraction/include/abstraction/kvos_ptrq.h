/**
 * @file
 * Pointer queues: bounded FIFO rings of untyped pointers shared between
 * threads, on one mutex and two condition variables.
 *
 * Two layers:
 *  - the queue layer (ptrqueue_*), with blocking, non-blocking and timed put
 *    and get and 1/0 (or 0/-1/1 for the timed calls) results;
 *  - the KVOS layer (KVOS_ptrq*), which is what the system calls. Putting
 *    into a KVOS queue never blocks: a full queue refuses the entry and the
 *    caller decides what to do with it.
 *
 * Timed waits run on the monotonic clock. The deadline adds ms * 1000000
 * nanoseconds computed in signed 32-bit arithmetic, so it wraps above
 * 2147 ms: 3000 ms is already in the past and 5000 ms waits about 0.705 s.
 * Callers rely on timeouts of at most 2147 ms, and the wrap is kept.
 *
 * Every queue keeps statistics and is entered in a registry of 100 slots
 * that ptrqueue_dump lists; a queue created while all slots are taken works
 * but is not listed. Queues are created and destroyed at set-up and
 * tear-down: the registry itself takes no lock, and destroying a queue that
 * threads still use is the caller's error.
 *
 * Failures of a lock or wait call come back as results with errno set to
 * that call's result.
 */
#ifndef ABSTRACTION_KVOS_PTRQ_H
#define ABSTRACTION_KVOS_PTRQ_H

#include <pthread.h>
#include <stdint.h>
#include <time.h>

#include "libkvc/kvtypes.h"

#pragma GCC visibility push(default)

/** A pointer queue: the ring, its lock and condition variables, and the statistics ptrqueue_dump
 * shows. Created and released only by ptrqueue_create and ptrqueue_destroy; fields are for the
 * queue's own code and diagnostics. */
typedef struct ptrqueue_t {
    char* name;
    uint32_t length;
    void** ringBuffer;
    clockid_t clock_id;
    uint32_t size;
    pthread_cond_t notFull;
    pthread_cond_t notEmpty;
    pthread_mutex_t qLock;
    uint32_t fullWaiters;
    uint32_t emptyWaiters;
    uint32_t getIndex;
    uint32_t putIndex;
    uint32_t numberInserted;
    uint32_t numberRemoved;
    uint32_t watermark;
    uint32_t timesFull;
    uint32_t timesEmpty;
} ptrqueue_t;

/** Handle of a KVOS pointer queue. */
typedef ptrqueue_t* KVOS_PTRQ_ID;
/** The null queue handle: what KVOS_ptrqCreate returns on failure. */
#define KVOS_NO_PTRQ_ID ((KVOS_PTRQ_ID)0)
/** Slots of the queue registry that the dump lists. */
#define KVOS_PTRQ_REGISTRY_SIZE 100

/** Line sink of the dumps: (arg, text, length). */
typedef int (*KVOS_PTRQ_OUT_FUNC)(int arg, const void* text, unsigned length);

/* Queue layer. A length of 0 is refused (null). */
/** Creates and registers a queue with room for `length` entries; `name` is copied (null allowed).
 * Null when length is 0 or less. Release it with ptrqueue_destroy. */
ptrqueue_t* ptrqueue_create(const char* name, int length);
/** Unregisters the queue and frees it and its name; null does nothing. Entries still queued are not
 * touched: they belong to the caller. */
void ptrqueue_destroy(ptrqueue_t* q);
/** Appends p, waiting while the queue is full. 1 on success, 0 when a lock or wait call failed
 * (errno is its result). */
int ptrqueue_enqueue(ptrqueue_t* q, void* p);
/** Appends p if there is room. 1 on success, 0 when the queue is full (counted in timesFull) or a
 * lock call failed. */
int ptrqueue_try_enqueue(ptrqueue_t* q, void* p);
/** Appends p, waiting at most about ms milliseconds for room (see the file note for the deadline's
 * wrap). 0 on success, -1 when the time ran out, 1 for another failure (errno set). */
int ptrqueue_timed_enqueue(ptrqueue_t* q, void* p, int ms);
/** Takes the oldest entry into *p, waiting while the queue is empty. 1 on success, 0 when a lock or
 * wait call failed (errno is its result). */
int ptrqueue_dequeue(ptrqueue_t* q, void** p);
/** Takes the oldest entry into *p if there is one. 1 on success, 0 when the queue is empty (counted
 * in timesEmpty) or a lock call failed. */
int ptrqueue_try_dequeue(ptrqueue_t* q, void** p);
/** Takes the oldest entry into *p, waiting at most about ms milliseconds for one; a wake-up without
 * an entry starts the full wait again. 0 on success, -1 when the time ran out, 1 for another
 * failure (errno set). */
int ptrqueue_timed_dequeue(ptrqueue_t* q, void** p, int ms);
/** Writes a header line and one line per registered queue (name, length, entries now, total
 * inserted, times full, watermark) to out; reads the statistics without locking the queues. */
void ptrqueue_dump(KVOS_PTRQ_OUT_FUNC out, int arg);

/* KVOS layer. */
/** Creates a queue of `length` entries (logged at DEBUG); KVOS_NO_PTRQ_ID when length is 0. */
KVOS_PTRQ_ID KVOS_ptrqCreate(const char* name, unsigned length);
/** ptrqueue_destroy. */
void KVOS_ptrqDelete(KVOS_PTRQ_ID q);
/** Appends p without ever blocking: 1 on success, 0 when the queue is full (the caller keeps p) or
 * a lock call failed. */
int KVOS_ptrqPost(KVOS_PTRQ_ID q, void* p);
/** Takes the oldest entry into *p, waiting as long as it takes: 1 on success, 0 on a failed lock or
 * wait call. */
int KVOS_ptrqPend(KVOS_PTRQ_ID q, void** p);
/** Takes the oldest entry into *p, waiting at most about ms milliseconds: KV_RET_OK, KV_RET_TIMEOUT
 * when the time ran out, KV_RET_ERROR for another failure. */
KV_RET KVOS_ptrqPendTimeout(KVOS_PTRQ_ID q, void** p, int ms);
/** Takes the oldest entry into *p if there is one: 1 when taken, 0 when the queue is empty or a
 * lock call failed. */
int KVOS_ptrqCheck(KVOS_PTRQ_ID q, void** p);
/** ptrqueue_dump. */
void KVOS_ptrqDump(KVOS_PTRQ_OUT_FUNC out, int arg);

/** Registry slot of q, or -1 when it is not registered (used by the
 * registry's owner and by tests). */
int kvos_ptrq_registry_slot(const ptrqueue_t* q);

#pragma GCC visibility pop
#endif
