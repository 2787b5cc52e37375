/*
 * The pointer queue on one mutex and two condition variables.
 *
 * Contracts beyond the header:
 *  - One waiter is woken per put or get, and only when one is registered
 *    that needs it.
 *  - The statistics shown by ptrqueue_dump (size, numberInserted,
 *    timesFull, watermark) are written with relaxed atomic stores under
 *    qLock, because the dump reads them without the lock.
 *  - A thread cancelled while it waits unwinds through the guards below,
 *    which deregister it and release qLock, so the queue stays usable.
 *  - Timed waits compute the deadline with ms * 1000000 in signed 32-bit
 *    arithmetic (see the header: the wrap is kept).
 *
 * Locking qLock: a real-time thread spins briefly, then blocks.
 * Every operation holds qLock for well under a microsecond (a few when it
 * wakes a waiter). Unlocking a priority-inheriting mutex (root) that has a
 * waiter in the kernel hands the ownership to that waiter while it is
 * still asleep: nobody can take the lock until the waiter has run. Once a
 * producer and a consumer on two processors collide, they fall into a
 * convoy where every put and get costs a lock and an unlock system call
 * and a context switch: about 70 times slower than the same queue without
 * the protocol. Polling the lock word for a bounded time (2 microseconds)
 * before the blocking lock keeps the hand-offs in user space. Priority
 * inheritance is kept: a thread that has to block blocks in the kernel on
 * the same mutex and lends its priority to the owner as before; what it
 * may lose to a preempted owner is one spin.
 * Only real-time callers spin, which as root is every KVOS task: nothing
 * of ordinary priority preempts a real-time owner, so a short spin almost
 * always finds the lock released. An ordinary thread's lock owner is often
 * preempted on a busy machine, and spinning then takes the processor the
 * owner needs; measured, it cost such threads more than the convoys it
 * saved them. Without the protocol a blocked locker costs one wake-up and
 * no hand-off, so ordinary users' queues never spin; nor does anything on
 * a single processor. A lock call replaced through the seams (tests) is
 * used as it stands.
 *
 * Wake-ups: a put (get) signals a waiter only while more threads wait than
 * wakes are under way (see QueueRecord), not again for every entry that
 * comes before the woken thread runs.
 */
#include <errno.h>
#include <sched.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <new>

#include "abstraction/kvos.h"
#include "abstraction/kvos_ptrq.h"
#include "abstraction/kvos_seams.h"
#include "linux/kvos_log.h"
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

constexpr size_t kCacheLine = 64;

/* The record behind a handle: the public fields, then what only this file
 * uses. A handle points at `pub`, the first member. */
struct alignas(kCacheLine) QueueRecord {
    ptrqueue_t pub;
    /* Wakes sent on notEmpty (notFull) whose waiter has not yet returned
     * from its wait. A put (get) signals only while more threads wait than
     * wakes are under way: a waiter that is already on its way back would
     * otherwise be signalled again by every entry put before it runs, each
     * signal a locked update of the condition variable that wakes nobody.
     * Never more than the wakes really under way (timeouts and spurious
     * returns only lower it), so a waiter that needs a wake still gets one. */
    uint32_t emptyWakesInFlight;
    uint32_t fullWakesInFlight;
    /* qLock is priority-inheriting and there is more than one processor:
     * real-time callers spin before blocking on it (top of the file). */
    bool spinBeforeBlocking;
};
static_assert(offsetof(QueueRecord, pub) == 0, "a handle is the address of the record");
static_assert(offsetof(ptrqueue_t, qLock) / kCacheLine == offsetof(ptrqueue_t, numberRemoved) / kCacheLine,
              "the lock and the fields written under it on every put and get share a cache line");

inline QueueRecord* record(ptrqueue_t* q)
{
    return reinterpret_cast<QueueRecord*>(q);
}

const bool kMultiProcessor = sysconf(_SC_NPROCESSORS_ONLN) > 1;

/* How long a real-time thread polls a held qLock before it blocks: about
 * the longest regular hold (a put or get that wakes a waiter, a system
 * call included), well below a sleep and a wake-up. Throughput was flat
 * from 1 to 20 microseconds; the shorter, the less is lost to a preempted
 * owner. */
constexpr long long kSpinNs = 2000;

/* Most pauses between two tries after a lost race (doubling from one). */
constexpr unsigned kMaxBackoff = 32;

inline void cpuRelax()
{
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield" ::: "memory");
#endif
}

inline long long nowNs()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

/* The glibc lock word: 0 when the mutex is free (the owner's thread id, or
 * a lock state, otherwise). Read only to decide when a try is worth it. */
inline bool looksFree(pthread_mutex_t* m)
{
    return __atomic_load_n(&m->__data.__lock, __ATOMIC_RELAXED) == 0;
}

/* Whether the calling thread runs under a real-time policy. Asked of the
 * kernel on the first and then every 64th call, since a thread may change
 * its own policy; KVOS itself sets it once, at task creation. */
bool callerIsRealTime()
{
    thread_local unsigned calls = 0;
    thread_local bool realTime = false;
    if (calls++ % 64 == 0) {
        int policy = sched_getscheduler(0);
        realTime = policy == SCHED_RR || policy == SCHED_FIFO;
    }
    return realTime;
}

/* Polls qLock until it is taken or the spin time is up; true when taken.
 * Leaves anything but "busy" to the blocking call, which reports it. */
bool spinLock(pthread_mutex_t* m)
{
    long long deadline = 0;
    unsigned backoff = 1;
    for (unsigned polls = 0;; ++polls) {
        if (looksFree(m)) {
            int err = pthread_mutex_trylock(m);
            if (err != EBUSY) {
                return err == 0;
            }
            // Lost the race for a free lock: the line bounces between the
            // processors, so wait longer before each next try.
            for (unsigned i = 1; i < backoff; ++i) {
                cpuRelax();
            }
            backoff = backoff < kMaxBackoff ? backoff * 2 : backoff;
        }
        if (polls == 0 && !callerIsRealTime()) {
            return false;
        }
        cpuRelax();
        if (polls % 16 == 0) {  // the clock costs more than a poll
            long long now = nowNs();
            if (deadline == 0) {
                deadline = now + kSpinNs;
            } else if (now >= deadline) {
                return false;
            }
        }
    }
}

int lockQueue(ptrqueue_t* q)
{
    auto lock = kvos_syscall_table.mutexLock.load(std::memory_order_relaxed);
    if (lock == &pthread_mutex_lock && record(q)->spinBeforeBlocking && spinLock(&q->qLock)) {
        return 0;
    }
    return lock(&q->qLock);
}

/* qLock for one operation; the destructor releases it on every path,
 * cancellation included. */
class QueueLock {
public:
    explicit QueueLock(ptrqueue_t* q) : q_(q), err_(lockQueue(q)) {}
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
 * duration; on the way out (woken, timed out or cancelled) it also takes
 * its wake, if one was under way, off the books. */
class WaitRound {
public:
    WaitRound(uint32_t& waiters, uint32_t& wakesInFlight, uint32_t& rounds)
        : waiters_(waiters), wakesInFlight_(wakesInFlight)
    {
        statIncrement(rounds);
        ++waiters_;
    }
    ~WaitRound()
    {
        --waiters_;
        if (wakesInFlight_ != 0) {
            --wakesInFlight_;
        }
    }
    WaitRound(const WaitRound&) = delete;
    WaitRound& operator=(const WaitRound&) = delete;

private:
    uint32_t& waiters_;
    uint32_t& wakesInFlight_;
};

/* Wakes one waiter of cond if one is registered that no wake is yet
 * under way for. Under qLock. */
inline void wakeOne(pthread_cond_t* cond, uint32_t waiters, uint32_t& wakesInFlight)
{
    if (waiters > wakesInFlight) {
        ++wakesInFlight;
        pthread_cond_signal(cond);
    }
}

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
        wakeOne(&q->notEmpty, q->emptyWaiters, record(q)->emptyWakesInFlight);
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
        wakeOne(&q->notFull, q->fullWaiters, record(q)->fullWakesInFlight);
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
int blockingOp(ptrqueue_t* q, pthread_cond_t* cond, uint32_t& waiters, uint32_t& wakesInFlight, uint32_t& rounds,
               Blocked blocked, Op op)
{
    int err;
    {
        QueueLock lock(q);
        err = lock.error();
        while (err == 0 && blocked(q)) {
            WaitRound round(waiters, wakesInFlight, rounds);
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
int timedOp(ptrqueue_t* q, pthread_cond_t* cond, uint32_t& waiters, uint32_t& wakesInFlight, uint32_t& rounds, int ms,
            Blocked blocked, Op op)
{
    int err;
    {
        QueueLock lock(q);
        err = lock.error();
        while (err == 0 && blocked(q)) {
            // A wake-up without an entry starts a full timeout again.
            struct timespec deadline = timedDeadline(q, ms);
            WaitRound round(waiters, wakesInFlight, rounds);
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
    // Cache-line aligned, so that the lock and the indices and counters
    // written under it on every put and get share one line.
    auto* rec = new (aligned_alloc(alignof(QueueRecord), sizeof(QueueRecord))) QueueRecord();
    ptrqueue_t* q = &rec->pub;
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
    if (kvos_os::isRoot()) {
        if (pthread_mutexattr_setprotocol(&mattr, PTHREAD_PRIO_INHERIT) != 0) {
            KVLOG_ERROR(kvos_logger(), kvp("Detail", "Failed to set protocol PRIO_INHERIT"));
        } else {
            rec->spinBeforeBlocking = kMultiProcessor;
        }
    }
    err = pthread_mutex_init(&q->qLock, &mattr);
    pthread_mutexattr_destroy(&mattr);
    if (err != 0) {
        KVOS_setErrno(err, KVOS_ERR_ORIGIN_LINUX);
        initFailure("Failed to initialize ptrqueue mutex");
    }
    // Value-initialisation zeroed the indices, counters and waiter counts.
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
    free(record(q));
}

int ptrqueue_enqueue(ptrqueue_t* q, void* p)
{
    return blockingOp(q, &q->notFull, q->fullWaiters, record(q)->fullWakesInFlight, q->timesFull, isFull,
                      [p](ptrqueue_t* x) { put(x, p); });
}

int ptrqueue_try_enqueue(ptrqueue_t* q, void* p)
{
    return tryOp(q, q->timesFull, isFull, [p](ptrqueue_t* x) { put(x, p); });
}

int ptrqueue_timed_enqueue(ptrqueue_t* q, void* p, int ms)
{
    return timedOp(q, &q->notFull, q->fullWaiters, record(q)->fullWakesInFlight, q->timesFull, ms, isFull,
                   [p](ptrqueue_t* x) { put(x, p); });
}

int ptrqueue_dequeue(ptrqueue_t* q, void** p)
{
    return blockingOp(q, &q->notEmpty, q->emptyWaiters, record(q)->emptyWakesInFlight, q->timesEmpty, isEmpty,
                      [p](ptrqueue_t* x) { *p = get(x); });
}

int ptrqueue_try_dequeue(ptrqueue_t* q, void** p)
{
    return tryOp(q, q->timesEmpty, isEmpty, [p](ptrqueue_t* x) { *p = get(x); });
}

int ptrqueue_timed_dequeue(ptrqueue_t* q, void** p, int ms)
{
    return timedOp(q, &q->notEmpty, q->emptyWaiters, record(q)->emptyWakesInFlight, q->timesEmpty, ms, isEmpty,
                   [p](ptrqueue_t* x) { *p = get(x); });
}
