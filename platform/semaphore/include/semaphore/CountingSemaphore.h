/**
 * @file
 * A process-private counting semaphore that reports failures by throwing
 * CountingSemaphoreException. It may be shared by any threads of the
 * process.
 *
 * acquire(false) returns as if a token had been taken when the wait fails,
 * whatever the error, an interruption included; callers that must not
 * proceed without a token pass true, which repeats interrupted waits and
 * throws on any other failure. The silent return is relied on and kept.
 */
#ifndef SEMAPHORE_COUNTINGSEMAPHORE_H
#define SEMAPHORE_COUNTINGSEMAPHORE_H

#include <semaphore.h>

#include <ostream>

#include "semaphore/CountingSemaphoreException.h"

#pragma GCC visibility push(default)

/** A counting semaphore for threads of one process (see the file note). Not copyable. */
class CountingSemaphore {
public:
    /** Throws for "sem_init" (for example more than SEM_VALUE_MAX tokens). */
    explicit CountingSemaphore(unsigned initial);
    /** A failure to destroy cannot leave the destructor: it ends the
     * process. */
    ~CountingSemaphore();

    /** Takes a token, waiting until one is there. With retryAndThrow, interrupted waits are
     * repeated and any other failure throws CountingSemaphoreException("sem_wait"); without it, a
     * failed wait returns as if a token had been taken. */
    void acquire(bool retryAndThrow);
    /** Throws for "sem_post" (for example beyond SEM_VALUE_MAX). */
    void release();
    /** Tokens now available; throws CountingSemaphoreException("sem_getvalue") when they cannot be
     * read. */
    int getValue() const;

    CountingSemaphore(const CountingSemaphore&) = delete;
    CountingSemaphore& operator=(const CountingSemaphore&) = delete;

private:
    mutable sem_t mSemaphore;
};

/** Writes getValue() in decimal. */
std::ostream& operator<<(std::ostream& os, const CountingSemaphore& s);

#pragma GCC visibility pop
#endif
