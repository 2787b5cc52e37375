/* Pointer queues: both layers, statistics, the registry and its dump, the
 * timed waits with their kept 32-bit wrap, and failing system calls. */
#include <sched.h>
#include <stddef.h>

#include <algorithm>
#include <sstream>

#include "support.h"

using namespace kvos_test;

namespace {

void* item(uintptr_t v)
{
    return reinterpret_cast<void*>(v);
}

struct Queue {
    KVOS_PTRQ_ID q;
    Queue(const char* name, unsigned length) : q(KVOS_ptrqCreate(name, length)) {}
    ~Queue() { KVOS_ptrqDelete(q); }
};

/* Waits until n threads wait on the queue for room (or for entries). */
bool waiters(ptrqueue_t* q, unsigned n, bool forRoom)
{
    return waitFor([=] {
        pthread_mutex_lock(&q->qLock);
        unsigned now = forRoom ? q->fullWaiters : q->emptyWaiters;
        pthread_mutex_unlock(&q->qLock);
        return now == n;
    });
}

}  // namespace

TEST(KvosPtrqTest, PostThenTimedPendThenTimeout)
{
    Queue fooq("FOOQ", 100);
    ASSERT_NE(KVOS_NO_PTRQ_ID, fooq.q);
    EXPECT_EQ(1, KVOS_ptrqPost(fooq.q, item(0xDEADBEEF)));
    void* got = nullptr;
    EXPECT_EQ(KV_RET_OK, KVOS_ptrqPendTimeout(fooq.q, &got, 10));
    EXPECT_EQ(item(0xDEADBEEF), got);
    unsigned t0 = KVOS_ticksCurrent();
    uint64_t us0 = KVMISC_now64();
    EXPECT_EQ(KV_RET_TIMEOUT, KVOS_ptrqPendTimeout(fooq.q, &got, 20));
    EXPECT_EQ(ETIMEDOUT, errno);
    EXPECT_GE(KVMISC_now64() - us0, 20000u);
    EXPECT_GE(KVOS_ticksElapsed(t0), 2u);
    EXPECT_EQ(KVOS_NO_PTRQ_ID, KVOS_ptrqCreate("ZEROQ", 0));  // refused: a queue that could never hold anything
    EXPECT_EQ(nullptr, ptrqueue_create("NEGQ", -3));
}

TEST(KvosPtrqTest, RefusalsAreCountedOrderHoldsAcrossTheWrapAndTheDumpShowsIt)
{
    Queue five("FIVEQ", 5);
    void* got;
    for (uintptr_t i = 1; i <= 3; ++i) {
        EXPECT_EQ(1, KVOS_ptrqPost(five.q, item(i)));
    }
    for (uintptr_t i = 1; i <= 3; ++i) {
        EXPECT_EQ(1, KVOS_ptrqPend(five.q, &got));
        EXPECT_EQ(item(i), got);
    }
    EXPECT_EQ(0, KVOS_ptrqCheck(five.q, &got));
    EXPECT_EQ(1u, five.q->timesEmpty);
    for (uintptr_t i = 10; i < 15; ++i) {  // slots 3, 4, 0, 1, 2
        EXPECT_EQ(1, KVOS_ptrqPost(five.q, item(i)));
    }
    EXPECT_EQ(0, KVOS_ptrqPost(five.q, item(99)));
    std::string name(120, 'q');  // a dump line is cut at 99 characters
    Queue longName(name.c_str(), 2);

    std::string dump = collect(KVOS_ptrqDump);
    EXPECT_EQ(0u, dump.find("Name        Max       Curr      Tot       QFull     Watermark \n"));
    EXPECT_EQ(std::vector<std::string>{"FIVEQ       5         5         8         1         5         "},
              linesWith(dump, "FIVEQ"));
    EXPECT_EQ(std::vector<std::string>{std::string(99, 'q')}, linesWith(dump, "qqqq"));
    EXPECT_EQ(1u, linesWith(dump, "reaperQ     20 ").size());
    for (uintptr_t i = 10; i < 15; ++i) {
        EXPECT_EQ(1, KVOS_ptrqCheck(five.q, &got));
        EXPECT_EQ(item(i), got);
    }
    EXPECT_EQ(3u, five.q->putIndex);
    EXPECT_EQ(3u, five.q->getIndex);
}

TEST(KvosPtrqTest, TimedWaitsWrapAbove2147Milliseconds)
{
    // ms * 1000000 wraps in signed 32 bits: 3000 ms lands in the past and
    // 5000 ms becomes about 705 ms. Kept so on purpose.
    struct Case {
        bool put;
        int ms;
        uint64_t minUs, maxUs;
    } cases[] = {{false, 3000, 0, 100000}, {false, 5000, 650000, 1500000}, {false, 0, 0, 100000},
                 {false, -5, 0, 100000},   {false, 50, 50000, 1000000},    {true, 3000, 0, 100000},
                 {true, 30, 30000, 1000000}};
    Queue empty("EMPTYQ", 4), full("FULLQ", 1);
    ptrqueue_try_enqueue(full.q, item(1));
    for (const Case& c : cases) {
        void* got;
        uint64_t t0 = KVMISC_now64();
        EXPECT_EQ(-1, c.put ? ptrqueue_timed_enqueue(full.q, item(2), c.ms) : ptrqueue_timed_dequeue(empty.q, &got, c.ms))
            << c.ms;
        uint64_t took = KVMISC_now64() - t0;
        EXPECT_GE(took, c.minUs) << c.ms;
        EXPECT_LE(took, c.maxUs) << c.ms;
    }
    EXPECT_EQ(5u, empty.q->timesEmpty);
    EXPECT_EQ(2u, full.q->timesFull);
}

TEST(KvosPtrqTest, BlockedPutsGoInOnceRoomIsMade)
{
    Queue q("BLOCKQ", 1);
    for (bool timed : {false, true}) {  // blocked gets: the stress test's consumers
        ASSERT_EQ(1, ptrqueue_try_enqueue(q.q, item(1)));
        std::atomic<int> result{-2};
        std::thread t([&] {
            result = timed ? ptrqueue_timed_enqueue(q.q, item(2), 2000) : ptrqueue_enqueue(q.q, item(2)) - 1;
        });
        ASSERT_TRUE(waiters(q.q, 1, true));
        EXPECT_EQ(-2, result.load());
        void* got;
        EXPECT_EQ(1, ptrqueue_dequeue(q.q, &got));
        t.join();
        EXPECT_EQ(0, result.load()) << timed;  // put: 1 from the blocking call, 0 from the timed one
        EXPECT_EQ(1, ptrqueue_try_dequeue(q.q, &got));
        EXPECT_EQ(item(2), got);
    }
}

TEST(KvosPtrqTest, RegistryHoldsOneHundredAndReusesSlots)
{
    size_t listed = linesWith(collect(KVOS_ptrqDump), "").size() - 1;  // minus the header
    std::vector<KVOS_PTRQ_ID> queues;
    for (size_t i = listed; i < KVOS_PTRQ_REGISTRY_SIZE; ++i) {
        queues.push_back(KVOS_ptrqCreate(("R" + std::to_string(i)).c_str(), 1));
        EXPECT_GE(kvos_ptrq_registry_slot(queues.back()), 0);
    }
    KVOS_PTRQ_ID extra = KVOS_ptrqCreate("EXTRAQ", 2);
    ASSERT_NE(KVOS_NO_PTRQ_ID, extra);
    EXPECT_EQ(-1, kvos_ptrq_registry_slot(extra));
    EXPECT_EQ(KVOS_PTRQ_REGISTRY_SIZE + 1u, linesWith(collect(KVOS_ptrqDump), "").size());
    EXPECT_TRUE(linesWith(collect(KVOS_ptrqDump), "EXTRAQ").empty());
    void* got;
    EXPECT_EQ(1, KVOS_ptrqPost(extra, item(7)));  // unlisted, but it works
    EXPECT_EQ(1, KVOS_ptrqCheck(extra, &got));

    int freed = kvos_ptrq_registry_slot(queues[3]);
    KVOS_ptrqDelete(queues[3]);
    queues[3] = KVOS_ptrqCreate("REUSEQ", 1);
    EXPECT_EQ(freed, kvos_ptrq_registry_slot(queues[3]));
    KVOS_ptrqDelete(extra);
    for (KVOS_PTRQ_ID q : queues) {
        KVOS_ptrqDelete(q);
    }
    EXPECT_EQ(listed + 1, linesWith(collect(KVOS_ptrqDump), "").size());
}

TEST(KvosPtrqTest, SystemCallFailuresComeBackWithErrno)
{
    Queue q("FAILQ", 1);
    SeamScope lock(kvos_syscalls().mutexLock,
                   [](pthread_mutex_t* m) { return takeArmedFailure(EDEADLK) ? errno : pthread_mutex_lock(m); });
    SeamScope wait(kvos_syscalls().condWait, [](pthread_cond_t* c, pthread_mutex_t* m) {
        return takeArmedFailure(EINVAL) ? errno : pthread_cond_wait(c, m);
    });
    SeamScope timed(kvos_syscalls().condTimedWait, [](pthread_cond_t* c, pthread_mutex_t* m, const timespec* t) {
        return takeArmedFailure(EINVAL) ? errno : pthread_cond_timedwait(c, m, t);
    });
    struct Case {
        const char* what;
        int err;    // EDEADLK: the lock fails; EINVAL: the lock works, the wait fails
        bool full;  // run against a full queue (else an empty one)
        int (*call)(ptrqueue_t*);
        int expected;
    } cases[] = {
        {"enqueue lock", EDEADLK, false, [](ptrqueue_t* x) { return ptrqueue_enqueue(x, item(1)); }, 0},
        {"try_enqueue lock", EDEADLK, false, [](ptrqueue_t* x) { return ptrqueue_try_enqueue(x, item(1)); }, 0},
        {"timed_enqueue lock", EDEADLK, false, [](ptrqueue_t* x) { return ptrqueue_timed_enqueue(x, item(1), 10); },
         1},
        {"dequeue lock", EDEADLK, true, [](ptrqueue_t* x) { void* p; return ptrqueue_dequeue(x, &p); }, 0},
        {"try_dequeue lock", EDEADLK, true, [](ptrqueue_t* x) { void* p; return ptrqueue_try_dequeue(x, &p); }, 0},
        {"timed_dequeue lock", EDEADLK, true, [](ptrqueue_t* x) { void* p; return ptrqueue_timed_dequeue(x, &p, 10); },
         1},
        {"PendTimeout lock", EDEADLK, true,
         [](ptrqueue_t* x) { void* p; return static_cast<int>(KVOS_ptrqPendTimeout(x, &p, 10)); }, KV_RET_ERROR},
        {"dequeue wait", EINVAL, false, [](ptrqueue_t* x) { void* p; return ptrqueue_dequeue(x, &p); }, 0},
        {"PendTimeout wait", EINVAL, false,
         [](ptrqueue_t* x) { void* p; return static_cast<int>(KVOS_ptrqPendTimeout(x, &p, 10)); }, KV_RET_ERROR},
        {"enqueue wait", EINVAL, true, [](ptrqueue_t* x) { return ptrqueue_enqueue(x, item(2)); }, 0},
        {"timed_enqueue wait", EINVAL, true, [](ptrqueue_t* x) { return ptrqueue_timed_enqueue(x, item(2), 10); }, 1},
    };
    for (const Case& c : cases) {
        void* got;
        if (c.full) {
            ptrqueue_try_enqueue(q.q, item(1));
        } else {
            ptrqueue_try_dequeue(q.q, &got);
        }
        uint32_t rounds = q.q->timesFull + q.q->timesEmpty;
        armFailure(c.err, 1);
        errno = 0;
        EXPECT_EQ(c.expected, c.call(q.q)) << c.what;
        EXPECT_EQ(c.err, errno) << c.what;
        EXPECT_EQ(c.err == EINVAL ? 1u : 0u, q.q->timesFull + q.q->timesEmpty - rounds) << c.what << ": wait reached";
        EXPECT_EQ(0u, q.q->fullWaiters + q.q->emptyWaiters) << c.what;
        EXPECT_EQ(0, pthread_mutex_trylock(&q.q->qLock)) << c.what << ": lock left held";
        pthread_mutex_unlock(&q.q->qLock);
    }
}

TEST(KvosPtrqTest, ACancelledWaiterLeavesTheQueueUsable)
{
    Queue q("CANCELQ", 2);
    pthread_t t;
    auto pend = [](void* x) -> void* {
        void* got;
        return KVOS_ptrqPend(static_cast<KVOS_PTRQ_ID>(x), &got) ? got : nullptr;
    };
    ASSERT_EQ(0, pthread_create(&t, nullptr, pend, q.q));
    ASSERT_TRUE(waiters(q.q, 1, false));
    pthread_cancel(t);
    pthread_join(t, nullptr);
    EXPECT_EQ(0u, q.q->emptyWaiters);
    EXPECT_EQ(1, KVOS_ptrqPost(q.q, item(5)));  // the lock was given back
}

/* What the lock and wake-up shortcuts of the queue could break: entries
 * lost, doubled or reordered; a waiter that no wake reaches; a lock held
 * elsewhere not waited for; priority inheritance lost; timeouts. */
namespace {

/* The calling thread under the round-robin real-time policy of KVOS tasks
 * (root only) for the scope. */
class RealTime {
public:
    explicit RealTime(bool wanted, int priority = 10)
    {
        active_ = wanted && geteuid() == 0 && pthread_getschedparam(pthread_self(), &policy_, &saved_) == 0;
        if (active_) {
            struct sched_param rr = {};
            rr.sched_priority = priority;
            active_ = pthread_setschedparam(pthread_self(), SCHED_RR, &rr) == 0;
        }
    }
    ~RealTime()
    {
        if (active_) {
            pthread_setschedparam(pthread_self(), policy_, &saved_);
        }
    }
    RealTime(const RealTime&) = delete;
    RealTime& operator=(const RealTime&) = delete;

private:
    bool active_ = false;
    int policy_ = SCHED_OTHER;
    struct sched_param saved_ = {};
};

/* The kernel's scheduling priority of a thread (field 18 of its stat):
 * 20 for an ordinary thread at nice 0, negative under a real-time policy or
 * while a real-time thread's priority is lent to it. */
int kernelPriority(int lwp)
{
    std::istringstream fields(threadStat(lwp));
    std::string field;
    for (int i = 0; i < 16 && fields >> field; ++i) {
    }
    return std::stoi(field);
}

/* Waits for done while the queue makes progress; fails and aborts rather
 * than hang when nothing has moved for 10 s (a waiter never woken). */
void finishOrAbort(const std::function<bool()>& done, ptrqueue_t* q, const char* what)
{
    auto moved = [q] {
        pthread_mutex_lock(&q->qLock);
        uint64_t n = uint64_t{q->numberInserted} + q->numberRemoved;
        pthread_mutex_unlock(&q->qLock);
        return n;
    };
    for (uint64_t last = moved(), idleMs = 0; !done(); idleMs += 10) {
        usleep(10000);
        if (uint64_t now = moved(); now != last) {
            last = now;
            idleMs = 0;
        } else if (idleMs >= 10000) {
            ADD_FAILURE() << what << ": stuck with size " << q->size << ", " << q->emptyWaiters
                          << " waiting for entries, " << q->fullWaiters << " waiting for room";
            abort();
        }
    }
}

}  // namespace

// The field order of the record is part of the interface.
static_assert(offsetof(ptrqueue_t, name) < offsetof(ptrqueue_t, length) &&
                  offsetof(ptrqueue_t, length) < offsetof(ptrqueue_t, ringBuffer) &&
                  offsetof(ptrqueue_t, ringBuffer) < offsetof(ptrqueue_t, clock_id) &&
                  offsetof(ptrqueue_t, clock_id) < offsetof(ptrqueue_t, size) &&
                  offsetof(ptrqueue_t, size) < offsetof(ptrqueue_t, notFull) &&
                  offsetof(ptrqueue_t, notFull) < offsetof(ptrqueue_t, notEmpty) &&
                  offsetof(ptrqueue_t, notEmpty) < offsetof(ptrqueue_t, qLock) &&
                  offsetof(ptrqueue_t, qLock) < offsetof(ptrqueue_t, fullWaiters) &&
                  offsetof(ptrqueue_t, fullWaiters) < offsetof(ptrqueue_t, emptyWaiters) &&
                  offsetof(ptrqueue_t, emptyWaiters) < offsetof(ptrqueue_t, getIndex) &&
                  offsetof(ptrqueue_t, getIndex) < offsetof(ptrqueue_t, putIndex) &&
                  offsetof(ptrqueue_t, putIndex) < offsetof(ptrqueue_t, numberInserted) &&
                  offsetof(ptrqueue_t, numberInserted) < offsetof(ptrqueue_t, numberRemoved) &&
                  offsetof(ptrqueue_t, numberRemoved) < offsetof(ptrqueue_t, watermark) &&
                  offsetof(ptrqueue_t, watermark) < offsetof(ptrqueue_t, timesFull) &&
                  offsetof(ptrqueue_t, timesFull) < offsetof(ptrqueue_t, timesEmpty),
              "ptrqueue_t keeps its field order");

TEST(KvosPtrqTest, BlockingProducersAndConsumersPassEveryEntryOnceInOrder)
{
    // Entries are producer << 32 | seq, plus 1 so none is null. Producers
    // block on a full queue, so nothing may be lost; consumers with a
    // timeout of 1 ms keep timing out while wakes are on their way to
    // others. As root the queue's lock inherits priorities, and the
    // real-time rows run every thread as a KVOS task would. In the posting
    // row producers go through the KVOS calls without waiting and never
    // retry a refused post: exactly the accepted entries must arrive.
    struct Case {
        unsigned producers, consumers, length, perProducer;
        bool timedConsumers, realTime, posting;
    } cases[] = {
        {1, 1, 1024, 100000, false, false, false}, {1, 1, 1024, 100000, false, true, false},
        {4, 3, 8, 10000, true, false, false},      {4, 3, 8, 10000, true, true, false},
        {3, 4, 1, 3000, false, false, false},      {3, 4, 1, 3000, true, true, false},
        {4, 3, 64, 20000, true, false, true},
    };
    constexpr uintptr_t kStop = ~static_cast<uintptr_t>(0);
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.producers << "x" << c.consumers << " through " << c.length
                                          << (c.timedConsumers ? ", timed" : "") << (c.realTime ? ", real-time" : "")
                                          << (c.posting ? ", posting" : ""));
        Queue q("SEQQ", c.length);
        std::vector<std::vector<uintptr_t>> received(c.consumers);
        std::vector<std::vector<int>> accepted(c.producers, std::vector<int>(c.perProducer, 1));
        std::atomic<unsigned> finished{0};
        std::vector<std::thread> threads;
        for (unsigned k = 0; k < c.consumers; ++k) {
            threads.emplace_back([&, k] {
                RealTime policy(c.realTime);
                for (;;) {
                    void* p = nullptr;
                    bool timed = c.timedConsumers && k % 2 == 0;
                    int r;
                    if (!c.posting) {
                        r = timed ? ptrqueue_timed_dequeue(q.q, &p, 1) : ptrqueue_dequeue(q.q, &p) - 1;
                    } else if (timed) {
                        KV_RET t = KVOS_ptrqPendTimeout(q.q, &p, 5);
                        r = t == KV_RET_OK ? 0 : (t == KV_RET_TIMEOUT ? -1 : 1);
                    } else {
                        r = KVOS_ptrqPend(q.q, &p) - 1;
                    }
                    if (r == -1) {
                        continue;  // timed out
                    }
                    if (r != 0 || reinterpret_cast<uintptr_t>(p) == kStop) {
                        break;
                    }
                    received[k].push_back(reinterpret_cast<uintptr_t>(p) - 1);
                }
                ++finished;
            });
        }
        for (unsigned pr = 0; pr < c.producers; ++pr) {
            threads.emplace_back([&, pr] {
                RealTime policy(c.realTime);
                for (unsigned seq = 0; seq < c.perProducer; ++seq) {
                    void* v = reinterpret_cast<void*>((uintptr_t{pr} << 32 | seq) + 1);
                    if (!c.posting) {
                        ASSERT_EQ(1, ptrqueue_enqueue(q.q, v));
                    } else if (!(accepted[pr][seq] = KVOS_ptrqPost(q.q, v) == 1)) {
                        std::this_thread::yield();
                    }
                }
                ++finished;
            });
        }
        finishOrAbort([&] { return finished == c.producers; }, q.q, "producers");
        for (unsigned k = 0; k < c.consumers; ++k) {
            ASSERT_EQ(1, ptrqueue_enqueue(q.q, reinterpret_cast<void*>(kStop)));
        }
        finishOrAbort([&] { return finished == c.producers + c.consumers; }, q.q, "consumers");
        for (auto& t : threads) {
            t.join();
        }

        std::vector<std::vector<int>> seen(c.producers, std::vector<int>(c.perProducer, 0));
        for (unsigned k = 0; k < c.consumers; ++k) {
            std::vector<long> last(c.producers, -1);
            for (uintptr_t v : received[k]) {
                unsigned pr = static_cast<unsigned>(v >> 32), seq = static_cast<unsigned>(v);
                ASSERT_TRUE(pr < c.producers && seq < c.perProducer) << v;
                ASSERT_GT(static_cast<long>(seq), last[pr])
                    << "consumer " << k << " got producer " << pr << " out of order";
                last[pr] = seq;
                ++seen[pr][seq];
            }
        }
        uint32_t total = c.consumers, refused = 0;
        for (unsigned pr = 0; pr < c.producers; ++pr) {
            for (unsigned seq = 0; seq < c.perProducer; ++seq) {
                ASSERT_EQ(accepted[pr][seq], seen[pr][seq])
                    << "producer " << pr << " seq " << seq << ": lost, doubled or a refused one delivered";
                total += accepted[pr][seq];
                refused += 1 - accepted[pr][seq];
            }
        }
        EXPECT_GT(total, c.consumers);
        EXPECT_GE(q.q->timesFull, refused);
        EXPECT_EQ(total, q.q->numberInserted);
        EXPECT_EQ(total, q.q->numberRemoved);
        EXPECT_EQ(0u, q.q->size);
        EXPECT_LE(q.q->watermark, c.length);
        EXPECT_EQ(0u, q.q->fullWaiters + q.q->emptyWaiters);
    }
}

TEST(KvosPtrqTest, EveryWaiterIsWokenWhenEntriesOrRoomComeTogether)
{
    // k threads wait; k entries (or k free slots) then arrive back to back,
    // before most of the woken can run. Each needs a wake of its own: one
    // that is already on its way to another waiter does not count.
    for (bool forRoom : {false, true}) {
        for (unsigned k : {1u, 2u, 3u, 5u}) {
            SCOPED_TRACE(::testing::Message() << k << (forRoom ? " blocked puts" : " blocked gets"));
            Queue q("WAKEQ", forRoom ? 1 : 16);
            if (forRoom) {
                ASSERT_EQ(1, ptrqueue_try_enqueue(q.q, item(100)));
            }
            std::atomic<unsigned> done{0};
            std::vector<uintptr_t> got(k, 0);
            std::vector<std::thread> threads;
            for (unsigned i = 0; i < k; ++i) {
                threads.emplace_back([&, i] {
                    void* p = nullptr;
                    if (forRoom) {
                        EXPECT_EQ(1, ptrqueue_enqueue(q.q, item(i + 1)));
                    } else {
                        EXPECT_EQ(1, ptrqueue_dequeue(q.q, &p));
                        got[i] = reinterpret_cast<uintptr_t>(p);
                    }
                    ++done;
                });
            }
            ASSERT_TRUE(waiters(q.q, k, forRoom));
            std::vector<uintptr_t> taken;
            if (forRoom) {
                // Each get frees the one slot; a woken put refills it.
                for (unsigned i = 0; i <= k; ++i) {
                    void* p = nullptr;
                    EXPECT_EQ(0, ptrqueue_timed_dequeue(q.q, &p, 2000)) << i;
                    taken.push_back(reinterpret_cast<uintptr_t>(p));
                }
            } else {
                for (unsigned i = 0; i < k; ++i) {
                    EXPECT_EQ(1, ptrqueue_try_enqueue(q.q, item(i + 1)));
                }
            }
            finishOrAbort([&] { return done == k; }, q.q, "waiters");
            for (auto& t : threads) {
                t.join();
            }
            std::vector<uintptr_t> expected;
            for (unsigned i = 1; i <= k; ++i) {
                expected.push_back(i);
            }
            if (forRoom) {
                EXPECT_EQ(100u, taken.front());
                taken.erase(taken.begin());
                std::sort(taken.begin(), taken.end());
                EXPECT_EQ(expected, taken);
            } else {
                std::sort(got.begin(), got.end());
                EXPECT_EQ(expected, got);
            }
            EXPECT_EQ(0u, q.q->fullWaiters + q.q->emptyWaiters);
        }
    }
}

TEST(KvosPtrqTest, ALockHeldElsewhereIsWaitedForWithItsPriorityLent)
{
    // The queue's lock held for longer than any spin: the put must wait,
    // not fail, and go in once the lock is free. As root the waiting
    // real-time thread lends its priority to the ordinary holder.
    Queue q("HELDQ", 4);
    int holder = static_cast<int>(gettid());
    int ownPriority = kernelPriority(holder);
    ASSERT_EQ(0, pthread_mutex_lock(&q.q->qLock));
    std::atomic<int> result{-2}, lwp{0};
    std::thread poster([&] {
        RealTime policy(true, 30);
        lwp = static_cast<int>(gettid());
        result = KVOS_ptrqPost(q.q, item(9));
    });
    ASSERT_TRUE(waitFor([&] { return lwp != 0 && threadStat(lwp)[0] == 'S'; }));
    usleep(20000);
    EXPECT_EQ(-2, result.load());
    if (geteuid() == 0) {
        EXPECT_EQ(-31, kernelPriority(holder)) << "real-time priority 30 lent to the holder";
    } else {
        EXPECT_EQ(ownPriority, kernelPriority(holder));
    }
    pthread_mutex_unlock(&q.q->qLock);
    poster.join();
    EXPECT_EQ(ownPriority, kernelPriority(holder));
    EXPECT_EQ(1, result.load());
    void* got = nullptr;
    EXPECT_EQ(1, KVOS_ptrqCheck(q.q, &got));
    EXPECT_EQ(item(9), got);

    // The holder itself calling in is still refused by the error check.
    ASSERT_EQ(0, pthread_mutex_lock(&q.q->qLock));
    errno = 0;
    EXPECT_EQ(0, KVOS_ptrqPost(q.q, item(10)));
    EXPECT_EQ(EDEADLK, errno);
    pthread_mutex_unlock(&q.q->qLock);
    EXPECT_EQ(0u, q.q->size);
}

TEST(KvosPtrqTest, TimeoutsHoldWhileOthersHammerTheLock)
{
    // Another thread takes and releases the lock without pause (its tries
    // find nothing to do), so the timed call has to win the lock before and
    // after its wait; the timeout still comes after ms, not much later.
    struct Case {
        bool put;
        int ms;
        bool realTime;
    } cases[] = {{false, 20, false}, {true, 20, false}, {false, 30, true}, {true, 30, true}};
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << (c.put ? "put " : "get ") << c.ms << " ms"
                                          << (c.realTime ? ", real-time" : ""));
        Queue q("HAMMERQ", 1);
        if (c.put) {
            ASSERT_EQ(1, ptrqueue_try_enqueue(q.q, item(1)));
        }
        std::atomic<bool> stop{false};
        std::atomic<unsigned> tries{0};
        std::thread hammer([&] {
            RealTime policy(c.realTime);
            void* p;
            while (!stop) {
                EXPECT_EQ(0, c.put ? ptrqueue_try_enqueue(q.q, item(2)) : ptrqueue_try_dequeue(q.q, &p));
                ++tries;
            }
        });
        ASSERT_TRUE(waitFor([&] { return tries > 1000; }));
        int r;
        uint64_t took;
        {
            RealTime policy(c.realTime);
            void* p = nullptr;
            uint64_t t0 = KVMISC_now64();
            r = c.put ? ptrqueue_timed_enqueue(q.q, item(3), c.ms) : ptrqueue_timed_dequeue(q.q, &p, c.ms);
            took = KVMISC_now64() - t0;
        }
        stop = true;
        hammer.join();
        EXPECT_EQ(-1, r);
        EXPECT_GE(took, c.ms * 1000u);
        EXPECT_LE(took, c.ms * 1000u + 500000u);
        EXPECT_EQ(c.put ? 1u : 0u, q.q->size);
        EXPECT_EQ(tries.load() + 1, c.put ? q.q->timesFull : q.q->timesEmpty);
    }
}
