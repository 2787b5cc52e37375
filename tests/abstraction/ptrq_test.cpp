/* Pointer queues: both layers, statistics, the registry and its dump, the
 * timed waits with their kept 32-bit wrap, and failing system calls. */
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
