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

/** Handle of a KVOS semaphore; the record behind it belongs to the library from
 * KVOS_semaphoreCreate to KVOS_semaphoreDelete. Handles are copied by value into lists. */
typedef struct KVOS_SEMAPHORE {
    void* opaque_semaphore;
} KVOS_SEMAPHORE;

/** Creates a semaphore holding `tokens` tokens, named `name` (cut to 511 characters), in the
 * caller's handle and lists it. 1 on success; 0 when the system refuses (too many tokens), with
 * the error recorded and the record left in the handle, unlisted. */
int KVOS_semaphoreCreate(KVOS_SEMAPHORE* s, const char* name, unsigned tokens);
/** Unlists and destroys the semaphore and frees its record; the handle becomes invalid. Returns 1;
 * an invalid semaphore aborts. */
int KVOS_semaphoreDelete(KVOS_SEMAPHORE* s);
/** Takes a token, waiting as long as it takes (interrupted waits are resumed): 1 on success, 0
 * on failure with the error recorded. */
int KVOS_semaphoreWait(KVOS_SEMAPHORE* s);
/** Waits at most ms milliseconds, measured on the real-time clock. */
KV_RET KVOS_semaphoreTimedWait(KVOS_SEMAPHORE* s, unsigned ms);
/** Takes a token if one is there: KV_RET_OK, KV_RET_TIMEOUT when none is, KV_RET_ERROR for another
 * failure. */
KV_RET KVOS_semaphoreTryWait(KVOS_SEMAPHORE* s);
/** Gives back a token: 1 on success, 0 on failure (beyond the system's maximum count) with the
 * error recorded. */
int KVOS_semaphorePost(KVOS_SEMAPHORE* s);
/** Takes every token there is. Returns 0 with EAGAIN recorded after a successful drain (see the
 * file note): callers rely on it. */
int KVOS_semaphoreReset(KVOS_SEMAPHORE* s);
/** The current token count; 0 with the error recorded if it cannot be read. */
int KVOS_semaphoreShow(KVOS_SEMAPHORE* s);
/** The name given at creation; the text belongs to the semaphore. */
const char* KVOS_semaphoreGetName(KVOS_SEMAPHORE s);
/** Semaphores now listed. */
int KVOS_semaphoreCount(void);
/** Handles of the first `max` list entries, oldest first; returns how many. */
int KVOS_semaphoreList(KVOS_SEMAPHORE* out, int max);

#pragma GCC visibility pop
#endif
