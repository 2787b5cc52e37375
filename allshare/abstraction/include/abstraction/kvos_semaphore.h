/**
 * @file
 * KVOS semaphores: named, process-private counting semaphores kept in one
 * list for diagnostics.
 *
 * Two result conventions live side by side, and both are relied on:
 *  - KVOS_semaphoreCreate, Wait, Post and Reset return 1 for success and 0
 *    for failure;
 *  - KVOS_semaphoreTimedWait and TryWait return a KV_RET: KV_RET_OK,
 *    KV_RET_TIMEOUT when the time ran out or no token was there, KV_RET_ERROR
 *    for anything else.
 * Failures leave the error for KVOS_lastError. An invalid semaphore (a
 * deleted handle, or one the system rejects) is a programming fault:
 * "Invalid semaphore" is logged and the process aborts.
 *
 * KVOS_semaphoreReset drains the semaphore and then reports success only if
 * the final, failing take said ETIMEDOUT. A non-blocking take reports EAGAIN,
 * so a successful reset returns 0 and leaves EAGAIN as the last error. This
 * is how callers have always seen it and it stays.
 */
#ifndef ABSTRACTION_KVOS_SEMAPHORE_H
#define ABSTRACTION_KVOS_SEMAPHORE_H

#include "libkvc/kvtypes.h"

#pragma GCC visibility push(default)

typedef struct KVOS_SEMAPHORE {
    void* opaque_semaphore;
} KVOS_SEMAPHORE;

int KVOS_semaphoreCreate(KVOS_SEMAPHORE* s, const char* name, unsigned tokens);
int KVOS_semaphoreDelete(KVOS_SEMAPHORE* s);
int KVOS_semaphoreWait(KVOS_SEMAPHORE* s);
/** Waits at most ms milliseconds, measured on the real-time clock. */
KV_RET KVOS_semaphoreTimedWait(KVOS_SEMAPHORE* s, unsigned ms);
KV_RET KVOS_semaphoreTryWait(KVOS_SEMAPHORE* s);
int KVOS_semaphorePost(KVOS_SEMAPHORE* s);
int KVOS_semaphoreReset(KVOS_SEMAPHORE* s);
/** The current token count; 0 with the error recorded if it cannot be read. */
int KVOS_semaphoreShow(KVOS_SEMAPHORE* s);
const char* KVOS_semaphoreGetName(KVOS_SEMAPHORE s);
int KVOS_semaphoreCount(void);
/** Handles of the first `max` list entries, oldest first; returns how many. */
int KVOS_semaphoreList(KVOS_SEMAPHORE* out, int max);

#pragma GCC visibility pop
#endif
