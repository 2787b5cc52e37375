/*
 * The pointer queue on one mutex and two condition variables.
 *
 * Contracts beyond the header:
 *  - One waiter is woken per put or get, and only when one is registered.
 *  - The statistics shown by ptrqueue_dump (size, numberInserted,
 *    timesFull, watermark) are written with relaxed atomic stores under
 *    qLock, because the dump reads them without the lock.
 *  - A thread cancelled while it waits unwinds through the guards below,
 *    which deregister it and release qLock, so the queue stays usable.
 *  - Timed waits compute the deadline with ms * 1000000 in signed 32-bit
 *    arithmetic (see the header: the wrap is kept).
 */
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "abstraction/kvos.h"
#include "abstraction/kvos_ptrq.h"
#include "abstraction/kvos_seams.h"
#include "kvos_internal.h"
#include "kvos_log.h"
#include "linux/kvos_os.h"

namespace {

inline void statStore(uint32_t& field, uint32_t value)
{
    __atomic_store_n(&field, value, __ATOMIC_RELAXED);
}

inline void statIncrement(uint32_t& field)
{
    statStore(field, field + 1);
}

/* qLock for one operation; the destructor releases it on every path,
 * cancellation included. */
class QueueLock {
public:
    explicit QueueLock(ptrqueue_t* q) : q_(q), err_(kvos_syscall_table.mutexLock.load()(&q->qLock)) {}
    ~QueueLock()
    {
        if (err_ == 0) {
            pthread_mutex_unlock(&q_->qLock);
        }
    }
    int error() const { return err_; }
    QueueLock(const QueueLock&) = delete;
    QueueLock& operator=(const QueueLock&) = delete;

private:
    ptrqueue_t* q_;
    int err_;
};

/* One wait round: counts the round and registers the waiter for its
 * duration. */
class WaitRound {
public:
    WaitRound(uint32_t& waiters, uint32_t& rounds) : waiters_(waiters)
    {
        statIncrement(rounds);
        ++waiters_;
    }
    ~WaitRound() { --waiters_; }
    WaitRound(const WaitRound&) = delete;
    WaitRound& operator=(const WaitRound&) = delete;

private:
    uint32_t& waiters_;
};

bool isFull(const ptrqueue_t* q)
{
    return q->size == q->length;
}

bool isEmpty(const ptrqueue_t* q)
{
    return q->size == 0;
}

inline void put(ptrqueue_t* q, void* p)
{
    q->ringBuffer[q->putIndex] = p;
    statStore(q->size, q->size + 1);
    if (++q->putIndex == q->length) {
        q->putIndex = 0;
    }
    statIncrement(q->numberInserted);
    if (q->size > q->watermark) {
        statStore(q->watermark, q->size);
    }
    if (q->emptyWaiters != 0) {
        pthread_cond_signal(&q->notEmpty);
    }
}

inline void* get(ptrqueue_t* q)
{
    void* p = q->ringBuffer[q->getIndex];
    statStore(q->size, q->size - 1);
    if (++q->getIndex == q->length) {
        q->getIndex = 0;
    }
    ++q->numberRemoved;
    if (q->fullWaiters != 0) {
        pthread_cond_signal(&q->notFull);
    }
    return p;
}

/* Deadline for one timed round: now on the queue's clock plus ms * 1e6 ns,
 * the product wrapped to signed 32 bits, then normalised. */
struct timespec timedDeadline(const ptrqueue_t* q, int ms)
{
    struct timespec ts;
    clock_gettime(q->clock_id, &ts);
    auto addNs = static_cast<int32_t>(static_cast<uint32_t>(ms) * 1000000u);
    long long total = static_cast<long long>(ts.tv_nsec) + addNs;
    long long sec = static_cast<long long>(ts.tv_sec) + total / 1000000000LL;
    total %= 1000000000LL;
    if (total < 0) {
        total += 1000000000LL;
        sec -= 1;
    }
    ts.tv_sec = static_cast<time_t>(sec);
    ts.tv_nsec = static_cast<long>(total);
    return ts;
}

/* Blocking put or get: waits while `blocked` holds. 1 done, 0 failed. */
template <typename Blocked, typename Op>
int blockingOp(ptrqueue_t* q, pthread_cond_t* cond, uint32_t& waiters, uint32_t& rounds, Blocked blocked, Op op)
{
    int err;
    {
        QueueLock lock(q);
        err = lock.error();
        while (err == 0 && blocked(q)) {
            WaitRound round(waiters, rounds);
            err = kvos_syscall_table.condWait.load()(cond, &q->qLock);
        }
        if (err == 0) {
            op(q);
            return 1;
        }
    }
    errno = err;
    return 0;
}

/* Non-blocking put or get. 1 done, 0 blocked or failed. */
template <typename Blocked, typename Op>
int tryOp(ptrqueue_t* q, uint32_t& rounds, Blocked blocked, Op op)
{
    int err;
    {
        QueueLock lock(q);
        err = lock.error();
        if (err == 0) {
            if (blocked(q)) {
                statIncrement(rounds);
                return 0;
            }
            op(q);
            return 1;
        }
    }
    errno = err;
    return 0;
}

/* Timed put or get. 0 done, -1 timed out, 1 another failure. */
template <typename Blocked, typename Op>
int timedOp(ptrqueue_t* q, pthread_cond_t* cond, uint32_t& waiters, uint32_t& rounds, int ms, Blocked blocked,
            Op op)
{
    int err;
    {
        QueueLock lock(q);
        err = lock.error();
        while (err == 0 && blocked(q)) {
            // A wake-up without an entry starts a full timeout again.
            struct timespec deadline = timedDeadline(q, ms);
            WaitRound round(waiters, rounds);
            err = kvos_syscall_table.condTimedWait.load()(cond, &q->qLock, &deadline);
        }
        if (err == 0) {
            op(q);
            return 0;
        }
    }
    errno = err;
    return err == ETIMEDOUT ? -1 : 1;
}

[[noreturn]] void initFailure(const char* detail)
{
    KVLOG_ERROR(kvos_logger(), kvp("Detail", detail) << kvp("Last-error", KVOS_lastError()));
    abort();
}

}  // namespace

ptrqueue_t* ptrqueue_create(const char* name, int length)
{
    if (length <= 0) {
        return nullptr;
    }
    auto* q = static_cast<ptrqueue_t*>(calloc(1, sizeof(ptrqueue_t)));
    q->name = name ? strdup(name) : nullptr;
    q->length = static_cast<uint32_t>(length);
    q->ringBuffer = static_cast<void**>(calloc(q->length, sizeof(void*)));
    q->size = 0;

    pthread_condattr_t cattr;
    pthread_condattr_init(&cattr);
    q->clock_id = CLOCK_MONOTONIC;
    if (pthread_condattr_setclock(&cattr, CLOCK_MONOTONIC) != 0) {
        q->clock_id = CLOCK_REALTIME;
        KVLOG_ERROR(kvos_logger(), kvp("Detail", "Failed to set clock MONOTONIC"));
    }
    int err = pthread_cond_init(&q->notFull, &cattr);
    if (err == 0) {
        err = pthread_cond_init(&q->notEmpty, &cattr);
    }
    pthread_condattr_destroy(&cattr);
    if (err != 0) {
        KVOS_setErrno(err, KVOS_ERR_ORIGIN_LINUX);
        initFailure("Failed to initialize ptrqueue");
    }

    pthread_mutexattr_t mattr;
    pthread_mutexattr_init(&mattr);
    if (pthread_mutexattr_settype(&mattr, PTHREAD_MUTEX_ERRORCHECK) != 0) {
        KVLOG_ERROR(kvos_logger(), kvp("Detail", "Failed to set type MUTEX_ERRORCHECK"));
    }
    if (kvos_os::isRoot() && pthread_mutexattr_setprotocol(&mattr, PTHREAD_PRIO_INHERIT) != 0) {
        KVLOG_ERROR(kvos_logger(), kvp("Detail", "Failed to set protocol PRIO_INHERIT"));
    }
    err = pthread_mutex_init(&q->qLock, &mattr);
    pthread_mutexattr_destroy(&mattr);
    if (err != 0) {
        KVOS_setErrno(err, KVOS_ERR_ORIGIN_LINUX);
        initFailure("Failed to initialize ptrqueue mutex");
    }
    // calloc zeroed the indices, counters and waiter counts.
    kvos_ptrq_register(q);
    return q;
}

void ptrqueue_destroy(ptrqueue_t* q)
{
    if (q == nullptr) {
        return;
    }
    kvos_ptrq_unregister(q);
    free(q->ringBuffer);
    free(q->name);
    pthread_cond_destroy(&q->notFull);
    pthread_cond_destroy(&q->notEmpty);
    pthread_mutex_destroy(&q->qLock);
    free(q);
}

int ptrqueue_enqueue(ptrqueue_t* q, void* p)
{
    return blockingOp(q, &q->notFull, q->fullWaiters, q->timesFull, isFull, [p](ptrqueue_t* x) { put(x, p); });
}

int ptrqueue_try_enqueue(ptrqueue_t* q, void* p)
{
    return tryOp(q, q->timesFull, isFull, [p](ptrqueue_t* x) { put(x, p); });
}

int ptrqueue_timed_enqueue(ptrqueue_t* q, void* p, int ms)
{
    return timedOp(q, &q->notFull, q->fullWaiters, q->timesFull, ms, isFull, [p](ptrqueue_t* x) { put(x, p); });
}

int ptrqueue_dequeue(ptrqueue_t* q, void** p)
{
    return blockingOp(q, &q->notEmpty, q->emptyWaiters, q->timesEmpty, isEmpty,
                      [p](ptrqueue_t* x) { *p = get(x); });
}

int ptrqueue_try_dequeue(ptrqueue_t* q, void** p)
{
    return tryOp(q, q->timesEmpty, isEmpty, [p](ptrqueue_t* x) { *p = get(x); });
}

int ptrqueue_timed_dequeue(ptrqueue_t* q, void** p, int ms)
{
    return timedOp(q, &q->notEmpty, q->emptyWaiters, q->timesEmpty, ms, isEmpty,
                   [p](ptrqueue_t* x) { *p = get(x); });
}
