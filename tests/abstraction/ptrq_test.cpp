/* Pointer queues: both layers, statistics, the registry and its dump, the
 * timed waits with their kept 32-bit wrap, and failures of the system
 * calls. */
#include <errno.h>
#include <pthread.h>

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "abstraction/kvmisc.h"
#include "abstraction/kvos.h"
#include "abstraction/kvos_ptrq.h"
#include "abstraction/kvos_seams.h"
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

/* Evaluates pred under the queue's lock. */
bool locked(ptrqueue_t* q, bool (*pred)(ptrqueue_t*))
{
    pthread_mutex_lock(&q->qLock);
    bool result = pred(q);
    pthread_mutex_unlock(&q->qLock);
    return result;
}

int failingLock(pthread_mutex_t* m)
{
    return takeArmedFailure() ? errno : pthread_mutex_lock(m);
}
int failingWait(pthread_cond_t* c, pthread_mutex_t* m)
{
    return takeArmedFailure() ? errno : pthread_cond_wait(c, m);
}
int failingTimedWait(pthread_cond_t* c, pthread_mutex_t* m, const struct timespec* t)
{
    return takeArmedFailure() ? errno : pthread_cond_timedwait(c, m, t);
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
    EXPECT_GE(KVMISC_now64() - us0, 20000u);
    EXPECT_GE(KVOS_ticksElapsed(t0), 2u);
    EXPECT_EQ(ETIMEDOUT, errno);
}

TEST(KvosPtrqTest, FullAndEmptyAreRefusedAndCounted)
{
    Queue one("ONEQ", 1);
    EXPECT_EQ(1, KVOS_ptrqPost(one.q, item(1)));
    EXPECT_EQ(0, KVOS_ptrqPost(one.q, item(2)));
    EXPECT_EQ(1u, one.q->timesFull);
    void* got = nullptr;
    EXPECT_EQ(1, KVOS_ptrqCheck(one.q, &got));
    EXPECT_EQ(item(1), got);
    EXPECT_EQ(0, KVOS_ptrqCheck(one.q, &got));
    EXPECT_EQ(1u, one.q->timesEmpty);
    EXPECT_EQ(1u, one.q->numberInserted);
    EXPECT_EQ(1u, one.q->numberRemoved);
    EXPECT_EQ(1u, one.q->watermark);
}

TEST(KvosPtrqTest, DumpShowsTheStatistics)
{
    Queue five("FIVEQ", 5);
    for (uintptr_t i = 1; i <= 3; ++i) {
        KVOS_ptrqPost(five.q, item(i));
    }
    void* got;
    for (int i = 0; i < 3; ++i) {
        KVOS_ptrqPend(five.q, &got);
    }
    KVOS_ptrqPost(five.q, item(9));
    KVOS_ptrqPost(five.q, item(9));
    KVOS_ptrqPost(five.q, item(9));
    KVOS_ptrqPost(five.q, item(9));
    KVOS_ptrqPost(five.q, item(9));
    KVOS_ptrqPost(five.q, item(9));  // refused: QFull 1
    std::string dump = ptrqDump();
    EXPECT_EQ(0u, dump.find("Name        Max       Curr      Tot       QFull     Watermark \n"));
    auto lines = linesWith(dump, "FIVEQ");
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ("FIVEQ       5         5         8         1         5         ", lines[0]);
    EXPECT_EQ(1u, linesWith(dump, "reaperQ     20 ").size());
}

TEST(KvosPtrqTest, LongNamesAreCutWithTheLine)
{
    std::string name(120, 'q');
    Queue q(name.c_str(), 2);
    auto lines = linesWith(ptrqDump(), "qqqq");
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(std::string(99, 'q'), lines[0]);
}

TEST(KvosPtrqTest, OrderIsKeptAcrossTheRingWrap)
{
    Queue three("WRAPQ", 3);
    uintptr_t next = 1, expected = 1;
    for (int round = 0; round < 7; ++round) {
        ASSERT_EQ(1, KVOS_ptrqPost(three.q, item(next++)));
        ASSERT_EQ(1, KVOS_ptrqPost(three.q, item(next++)));
        void* got;
        ASSERT_EQ(1, KVOS_ptrqCheck(three.q, &got));
        EXPECT_EQ(item(expected++), got);
        ASSERT_EQ(1, KVOS_ptrqCheck(three.q, &got));
        EXPECT_EQ(item(expected++), got);
        EXPECT_LT(three.q->putIndex, 3u);
        EXPECT_LT(three.q->getIndex, 3u);
    }
    EXPECT_EQ(14u % 3u, three.q->putIndex);
}

TEST(KvosPtrqTest, TimedWaitsWrapAbove2147Milliseconds)
{
    // ms * 1000000 is computed in signed 32 bits: 3000 ms lands in the past
    // and 5000 ms becomes about 705 ms. Kept so on purpose.
    struct Case {
        int ms;
        uint64_t minUs, maxUs;
    } cases[] = {
        {3000, 0, 100000},
        {5000, 650000, 1500000},
        {0, 0, 100000},
        {-5, 0, 100000},
        {50, 50000, 1000000},
    };
    Queue empty("EMPTYQ", 4);
    for (const Case& c : cases) {
        void* got;
        uint64_t t0 = KVMISC_now64();
        EXPECT_EQ(-1, ptrqueue_timed_dequeue(empty.q, &got, c.ms)) << c.ms;
        uint64_t took = KVMISC_now64() - t0;
        EXPECT_GE(took, c.minUs) << c.ms;
        EXPECT_LE(took, c.maxUs) << c.ms;
    }
    EXPECT_EQ(5u, empty.q->timesEmpty);

    Queue full("FULLQ", 1);
    ptrqueue_try_enqueue(full.q, item(1));
    uint64_t t0 = KVMISC_now64();
    EXPECT_EQ(-1, ptrqueue_timed_enqueue(full.q, item(2), 3000));
    EXPECT_LT(KVMISC_now64() - t0, 100000u);
    EXPECT_EQ(-1, ptrqueue_timed_enqueue(full.q, item(2), 30));
    EXPECT_EQ(2u, full.q->timesFull);
}

TEST(KvosPtrqTest, BlockingCallsWaitForTheOtherSide)
{
    Queue q("BLOCKQ", 1);
    ASSERT_EQ(1, ptrqueue_enqueue(q.q, item(1)));
    std::atomic<int> putResult{-1};
    std::thread producer([&] { putResult = ptrqueue_enqueue(q.q, item(2)); });
    ASSERT_TRUE(waitFor([&] { return locked(q.q, [](ptrqueue_t* x) { return x->fullWaiters == 1; }); }));
    EXPECT_EQ(-1, putResult.load());
    void* got;
    EXPECT_EQ(1, ptrqueue_dequeue(q.q, &got));
    EXPECT_EQ(item(1), got);
    producer.join();
    EXPECT_EQ(1, putResult.load());

    std::atomic<int> getResult{-1};
    void* late = nullptr;
    EXPECT_EQ(1, ptrqueue_dequeue(q.q, &got));
    std::thread consumer([&] { getResult = ptrqueue_timed_dequeue(q.q, &late, 2000); });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(1, ptrqueue_try_enqueue(q.q, item(3)));
    consumer.join();
    EXPECT_EQ(0, getResult.load());
    EXPECT_EQ(item(3), late);

    ASSERT_EQ(1, ptrqueue_enqueue(q.q, item(5)));
    putResult = -1;
    std::thread timedProducer([&] { putResult = ptrqueue_timed_enqueue(q.q, item(4), 2000); });
    ASSERT_TRUE(waitFor([&] { return locked(q.q, [](ptrqueue_t* x) { return x->fullWaiters == 1; }); }));
    EXPECT_EQ(1, ptrqueue_dequeue(q.q, &got));
    EXPECT_EQ(item(5), got);
    timedProducer.join();
    EXPECT_EQ(0, putResult.load());
    EXPECT_EQ(1, ptrqueue_try_dequeue(q.q, &got));
    EXPECT_EQ(item(4), got);
}

TEST(KvosPtrqTest, ZeroLengthIsRefused)
{
    EXPECT_EQ(KVOS_NO_PTRQ_ID, KVOS_ptrqCreate("ZEROQ", 0));
    EXPECT_EQ(nullptr, ptrqueue_create("NEGQ", -3));
}

TEST(KvosPtrqTest, RegistryHoldsOneHundredAndReusesSlots)
{
    // Fill every free slot, then one more.
    size_t listed = linesWith(ptrqDump(), "").size() - 1;  // minus the header
    std::vector<KVOS_PTRQ_ID> queues;
    for (size_t i = listed; i < KVOS_PTRQ_REGISTRY_SIZE; ++i) {
        queues.push_back(KVOS_ptrqCreate(("R" + std::to_string(i)).c_str(), 1));
        EXPECT_GE(kvos_ptrq_registry_slot(queues.back()), 0);
    }
    KVOS_PTRQ_ID extra = KVOS_ptrqCreate("EXTRAQ", 2);
    ASSERT_NE(KVOS_NO_PTRQ_ID, extra);
    EXPECT_EQ(-1, kvos_ptrq_registry_slot(extra));
    EXPECT_EQ(KVOS_PTRQ_REGISTRY_SIZE + 1u, linesWith(ptrqDump(), "").size());
    EXPECT_TRUE(linesWith(ptrqDump(), "EXTRAQ").empty());
    void* got;
    EXPECT_EQ(1, KVOS_ptrqPost(extra, item(7)));  // unlisted, but it works
    EXPECT_EQ(1, KVOS_ptrqCheck(extra, &got));

    int freed = kvos_ptrq_registry_slot(queues[3]);
    KVOS_ptrqDelete(queues[3]);
    queues.erase(queues.begin() + 3);
    KVOS_PTRQ_ID reuse = KVOS_ptrqCreate("REUSEQ", 1);
    EXPECT_EQ(freed, kvos_ptrq_registry_slot(reuse));
    queues.push_back(reuse);

    KVOS_ptrqDelete(extra);
    for (KVOS_PTRQ_ID q : queues) {
        KVOS_ptrqDelete(q);
    }
    EXPECT_EQ(listed + 1, linesWith(ptrqDump(), "").size());
}

TEST(KvosPtrqTest, SystemCallFailuresComeBackWithErrno)
{
    Queue q("FAILQ", 1);
    SeamScope<int (*)(pthread_mutex_t*)> lock(kvos_syscalls().mutexLock, failingLock);
    SeamScope<int (*)(pthread_cond_t*, pthread_mutex_t*)> wait(kvos_syscalls().condWait, failingWait);
    SeamScope<int (*)(pthread_cond_t*, pthread_mutex_t*, const struct timespec*)> timed(
        kvos_syscalls().condTimedWait, failingTimedWait);
    void* got;
    struct Case {
        const char* what;
        bool fill;  // run against a full queue (puts) or an empty one (gets)
        int (*call)(ptrqueue_t*);
        int expected;
    } cases[] = {
        {"enqueue lock", false, [](ptrqueue_t* x) { return ptrqueue_enqueue(x, item(1)); }, 0},
        {"try_enqueue lock", false, [](ptrqueue_t* x) { return ptrqueue_try_enqueue(x, item(1)); }, 0},
        {"timed_enqueue lock", false, [](ptrqueue_t* x) { return ptrqueue_timed_enqueue(x, item(1), 10); }, 1},
        {"dequeue lock", true, [](ptrqueue_t* x) { void* p; return ptrqueue_dequeue(x, &p); }, 0},
        {"try_dequeue lock", true, [](ptrqueue_t* x) { void* p; return ptrqueue_try_dequeue(x, &p); }, 0},
        {"timed_dequeue lock", true, [](ptrqueue_t* x) { void* p; return ptrqueue_timed_dequeue(x, &p, 10); }, 1},
        {"PendTimeout lock", true, [](ptrqueue_t* x) { void* p; return static_cast<int>(KVOS_ptrqPendTimeout(x, &p, 10)); },
         KV_RET_ERROR},
    };
    for (const Case& c : cases) {
        if (c.fill) {
            ptrqueue_try_enqueue(q.q, item(1));
        } else {
            ptrqueue_try_dequeue(q.q, &got);
        }
        armFailure(EDEADLK, 1);
        errno = 0;
        EXPECT_EQ(c.expected, c.call(q.q)) << c.what;
        EXPECT_EQ(EDEADLK, errno) << c.what;
        EXPECT_EQ(0, pthread_mutex_trylock(&q.q->qLock)) << c.what << ": lock left held";
        pthread_mutex_unlock(&q.q->qLock);
    }
    // Wait failures: the queue blocks, the lock succeeds, the wait fails.
    ptrqueue_try_dequeue(q.q, &got);
    armFailure(EINVAL, 1);
    EXPECT_EQ(0, ptrqueue_dequeue(q.q, &got));
    EXPECT_EQ(EINVAL, errno);
    armFailure(EINVAL, 1);
    EXPECT_EQ(KV_RET_ERROR, KVOS_ptrqPendTimeout(q.q, &got, 10));
    EXPECT_EQ(0u, q.q->emptyWaiters);
    ptrqueue_try_enqueue(q.q, item(1));
    armFailure(EINVAL, 1);
    EXPECT_EQ(0, ptrqueue_enqueue(q.q, item(2)));
    armFailure(EINVAL, 1);
    EXPECT_EQ(1, ptrqueue_timed_enqueue(q.q, item(2), 10));
    EXPECT_EQ(0u, q.q->fullWaiters);
    disarmFailure();
}

namespace {
void* pendForever(void* q)
{
    void* got;
    KVOS_ptrqPend(static_cast<KVOS_PTRQ_ID>(q), &got);
    return nullptr;
}
}  // namespace

TEST(KvosPtrqTest, ACancelledWaiterLeavesTheQueueUsable)
{
    Queue q("CANCELQ", 2);
    pthread_t t;
    ASSERT_EQ(0, pthread_create(&t, nullptr, pendForever, q.q));
    ASSERT_TRUE(waitFor([&] { return locked(q.q, [](ptrqueue_t* x) { return x->emptyWaiters == 1; }); }));
    pthread_cancel(t);
    pthread_join(t, nullptr);
    EXPECT_EQ(0u, q.q->emptyWaiters);
    EXPECT_EQ(1, KVOS_ptrqPost(q.q, item(5)));
    void* got;
    EXPECT_EQ(1, KVOS_ptrqCheck(q.q, &got));
}
