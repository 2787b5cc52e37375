/* KVOS semaphores: both result conventions, the reset quirk, the list, the
 * recorded errors and the fatal invalid-semaphore path. */
#include <errno.h>
#include <limits.h>
#include <semaphore.h>
#include <string.h>

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "abstraction/kvmisc.h"
#include "abstraction/kvos.h"
#include "abstraction/kvos_seams.h"
#include "abstraction/kvos_semaphore.h"
#include "support.h"

using namespace kvos_test;

namespace {

int failingWait(sem_t* s)
{
    return takeArmedFailure() ? -1 : sem_wait(s);
}
int failingTimedWait(sem_t* s, const struct timespec* t)
{
    return takeArmedFailure() ? -1 : sem_timedwait(s, t);
}
int failingTryWait(sem_t* s)
{
    return takeArmedFailure() ? -1 : sem_trywait(s);
}
int failingGetValue(sem_t* s, int* v)
{
    return takeArmedFailure() ? -1 : sem_getvalue(s, v);
}

struct Sem {
    KVOS_SEMAPHORE s{nullptr};
    Sem(const char* name, unsigned tokens) { EXPECT_EQ(1, KVOS_semaphoreCreate(&s, name, tokens)); }
    ~Sem()
    {
        if (s.opaque_semaphore) {
            KVOS_semaphoreDelete(&s);
        }
    }
};

}  // namespace

TEST(KvosSemaphoreTest, TryWaitAnswersKvRet)
{
    Sem empty("empty", 0);
    EXPECT_EQ(KV_RET_TIMEOUT, KVOS_semaphoreTryWait(&empty.s));
    EXPECT_EQ(EAGAIN, KVOS_getErrno());
    Sem one("one", 1);
    EXPECT_EQ(KV_RET_OK, KVOS_semaphoreTryWait(&one.s));
    EXPECT_EQ(KV_RET_TIMEOUT, KVOS_semaphoreTryWait(&one.s));
}

TEST(KvosSemaphoreTest, WaitAndPostAnswerOneAndZero)
{
    Sem s("onezero", 1);
    EXPECT_EQ(1, KVOS_semaphoreWait(&s.s));
    EXPECT_EQ(1, KVOS_semaphorePost(&s.s));
    EXPECT_EQ(1, KVOS_semaphoreShow(&s.s));

    Sem full("full", static_cast<unsigned>(SEM_VALUE_MAX));
    EXPECT_EQ(0, KVOS_semaphorePost(&full.s));
    EXPECT_EQ(EOVERFLOW, KVOS_getErrno());
}

TEST(KvosSemaphoreTest, TimedWaitTimesOutAfterItsTime)
{
    Sem s("timed", 0);
    uint64_t t0 = KVMISC_now64();
    EXPECT_EQ(KV_RET_TIMEOUT, KVOS_semaphoreTimedWait(&s.s, 20));
    EXPECT_GE(KVMISC_now64() - t0, 20000u);
    EXPECT_EQ(ETIMEDOUT, KVOS_getErrno());
    EXPECT_EQ(std::string(strerror(ETIMEDOUT)), KVOS_lastError());

    KVOS_semaphorePost(&s.s);
    EXPECT_EQ(KV_RET_OK, KVOS_semaphoreTimedWait(&s.s, 1500));  // seconds and remainder
}

TEST(KvosSemaphoreTest, PostReleasesABlockedWaiter)
{
    Sem s("handoff", 0);
    std::atomic<int> result{-1};
    std::thread waiter([&] { result = KVOS_semaphoreWait(&s.s); });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(-1, result.load());
    KVOS_semaphorePost(&s.s);
    waiter.join();
    EXPECT_EQ(1, result.load());
}

TEST(KvosSemaphoreTest, ResetDrainsButReportsTheEagainAsFailure)
{
    // A drained semaphore answers EAGAIN, and reset only calls ETIMEDOUT a
    // success: kept exactly so.
    Sem s("reset", 3);
    EXPECT_EQ(0, KVOS_semaphoreReset(&s.s));
    EXPECT_EQ(0, KVOS_semaphoreShow(&s.s));
    EXPECT_EQ(EAGAIN, KVOS_getErrno());

    KVOS_semaphorePost(&s.s);
    SeamScope<int (*)(sem_t*)> seam(kvos_syscalls().semTryWait, failingTryWait);
    armFailure(ETIMEDOUT, 1);
    EXPECT_EQ(1, KVOS_semaphoreReset(&s.s));  // first take "timed out"
    EXPECT_EQ(1, KVOS_semaphoreShow(&s.s));
    disarmFailure();
}

TEST(KvosSemaphoreTest, CreateFailureKeepsTheRecordAndRecordsTheError)
{
    int count = KVOS_semaphoreCount();
    KVOS_SEMAPHORE s{nullptr};
    EXPECT_EQ(0, KVOS_semaphoreCreate(&s, "toomany", 0x80000000u));
    EXPECT_EQ(EINVAL, KVOS_getErrno());
    EXPECT_NE(nullptr, s.opaque_semaphore);
    EXPECT_EQ(count, KVOS_semaphoreCount());
    KVOS_semaphoreDelete(&s);
    EXPECT_EQ(nullptr, s.opaque_semaphore);
}

TEST(KvosSemaphoreTest, SystemFailuresComeBackInEachConvention)
{
    Sem s("failing", 1);
    SeamScope<int (*)(sem_t*)> wait(kvos_syscalls().semWait, failingWait);
    SeamScope<int (*)(sem_t*, const struct timespec*)> timed(kvos_syscalls().semTimedWait, failingTimedWait);
    SeamScope<int (*)(sem_t*)> tryw(kvos_syscalls().semTryWait, failingTryWait);
    SeamScope<int (*)(sem_t*, int*)> get(kvos_syscalls().semGetValue, failingGetValue);

    struct Case {
        const char* what;
        int (*call)(KVOS_SEMAPHORE*);
        int expected;
    } cases[] = {
        {"wait", [](KVOS_SEMAPHORE* x) { return KVOS_semaphoreWait(x); }, 0},
        {"timed", [](KVOS_SEMAPHORE* x) { return static_cast<int>(KVOS_semaphoreTimedWait(x, 10)); }, KV_RET_ERROR},
        {"try", [](KVOS_SEMAPHORE* x) { return static_cast<int>(KVOS_semaphoreTryWait(x)); }, KV_RET_ERROR},
        {"show", [](KVOS_SEMAPHORE* x) { return KVOS_semaphoreShow(x); }, 0},
    };
    for (const Case& c : cases) {
        armFailure(EDEADLK, 1);
        KVOS_setErrno(0, KVOS_ERR_ORIGIN_LINUX);
        EXPECT_EQ(c.expected, c.call(&s.s)) << c.what;
        EXPECT_EQ(EDEADLK, KVOS_getErrno()) << c.what;
    }
    // An interrupted wait is repeated, not reported.
    armFailure(EINTR, 2);
    EXPECT_EQ(1, KVOS_semaphoreWait(&s.s));
    KVOS_semaphorePost(&s.s);
    armFailure(EINTR, 1);
    EXPECT_EQ(KV_RET_OK, KVOS_semaphoreTimedWait(&s.s, 10));
    disarmFailure();
}

TEST(KvosSemaphoreTest, ListKeepsCreationOrder)
{
    int base = KVOS_semaphoreCount();
    Sem a("s1", 0), b("s2", 0), c("s3", 0), d("s4", 0), e("s5", 0);
    EXPECT_EQ(base + 5, KVOS_semaphoreCount());
    std::vector<KVOS_SEMAPHORE> all(static_cast<size_t>(base + 5));
    ASSERT_EQ(base + 5, KVOS_semaphoreList(all.data(), base + 5));
    EXPECT_EQ(a.s.opaque_semaphore, all[static_cast<size_t>(base)].opaque_semaphore);
    EXPECT_EQ(e.s.opaque_semaphore, all[static_cast<size_t>(base + 4)].opaque_semaphore);
    EXPECT_STREQ("s3", KVOS_semaphoreGetName(all[static_cast<size_t>(base + 2)]));

    KVOS_SEMAPHORE two[3] = {{nullptr}, {nullptr}, {nullptr}};
    EXPECT_EQ(2, KVOS_semaphoreList(two, 2));
    EXPECT_EQ(all[0].opaque_semaphore, two[0].opaque_semaphore);
    EXPECT_EQ(all[1].opaque_semaphore, two[1].opaque_semaphore);
    EXPECT_EQ(nullptr, two[2].opaque_semaphore);
    EXPECT_EQ(0, KVOS_semaphoreList(two, 0));
    EXPECT_EQ(base + 5, KVOS_semaphoreList(all.data(), base + 50) );
}

TEST(KvosSemaphoreTest, NamesAreKeptTo511Characters)
{
    std::string longName(600, 'n');
    Sem s(longName.c_str(), 0);
    EXPECT_EQ(std::string(511, 'n'), KVOS_semaphoreGetName(s.s));
}

TEST(KvosSemaphoreDeathTest, InvalidSemaphoresAreFatal)
{
    KVOS_SEMAPHORE s{nullptr};
    KVOS_semaphoreCreate(&s, "gone", 0);
    KVOS_semaphoreDelete(&s);
    EXPECT_DEATH(
        {
            logToStderr();
            KVOS_semaphoreWait(&s);
        },
        "ERROR -  Detail=\"Invalid semaphore\"");
    Sem live("einval", 0);
    EXPECT_DEATH(
        {
            logToStderr();
            SeamScope<int (*)(sem_t*, const struct timespec*)> timed(kvos_syscalls().semTimedWait, failingTimedWait);
            armFailure(EINVAL, 1);
            KVOS_semaphoreTimedWait(&live.s, 10);
        },
        "ERROR -  Detail=\"Invalid semaphore\"");
}
