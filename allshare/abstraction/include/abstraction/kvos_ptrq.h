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

typedef ptrqueue_t* KVOS_PTRQ_ID;
#define KVOS_NO_PTRQ_ID ((KVOS_PTRQ_ID)0)
#define KVOS_PTRQ_REGISTRY_SIZE 100

typedef int (*KVOS_PTRQ_OUT_FUNC)(int arg, const void* text, unsigned length);

/** Queue layer. A length of 0 is refused (null). */
ptrqueue_t* ptrqueue_create(const char* name, int length);
void ptrqueue_destroy(ptrqueue_t* q);
int ptrqueue_enqueue(ptrqueue_t* q, void* p);
int ptrqueue_try_enqueue(ptrqueue_t* q, void* p);
int ptrqueue_timed_enqueue(ptrqueue_t* q, void* p, int ms);
int ptrqueue_dequeue(ptrqueue_t* q, void** p);
int ptrqueue_try_dequeue(ptrqueue_t* q, void** p);
int ptrqueue_timed_dequeue(ptrqueue_t* q, void** p, int ms);
void ptrqueue_dump(KVOS_PTRQ_OUT_FUNC out, int arg);

/** KVOS layer. */
KVOS_PTRQ_ID KVOS_ptrqCreate(const char* name, unsigned length);
void KVOS_ptrqDelete(KVOS_PTRQ_ID q);
int KVOS_ptrqPost(KVOS_PTRQ_ID q, void* p);
int KVOS_ptrqPend(KVOS_PTRQ_ID q, void** p);
KV_RET KVOS_ptrqPendTimeout(KVOS_PTRQ_ID q, void** p, int ms);
int KVOS_ptrqCheck(KVOS_PTRQ_ID q, void** p);
void KVOS_ptrqDump(KVOS_PTRQ_OUT_FUNC out, int arg);

/** Registry slot of q, or -1 when it is not registered (used by the
 * registry's owner and by tests). */
int kvos_ptrq_registry_slot(const ptrqueue_t* q);

#pragma GCC visibility pop
#endif
