/* KVOS semaphores: both result conventions, the reset quirk, the list, the
 * recorded errors and the fatal invalid-semaphore path. */
#include <limits.h>
#include <semaphore.h>

#include "support.h"

using namespace kvos_test;

namespace {

struct Sem {
    KVOS_SEMAPHORE s{nullptr};
    Sem(const char* name, unsigned tokens) { EXPECT_EQ(1, KVOS_semaphoreCreate(&s, name, tokens)); }
    ~Sem() { KVOS_semaphoreDelete(&s); }
};

int failingTimedWait(sem_t* s, const struct timespec* t)
{
    return takeArmedFailure() ? -1 : sem_timedwait(s, t);
}

}  // namespace

TEST(KvosSemaphoreTest, WaitAndPostAnswerOneOrZeroTheTimedAndTryWaitsKvRet)
{
    Sem s("conventions", 1);
    EXPECT_EQ(KV_RET_OK, KVOS_semaphoreTryWait(&s.s));
    EXPECT_EQ(KV_RET_TIMEOUT, KVOS_semaphoreTryWait(&s.s));
    EXPECT_EQ(EAGAIN, KVOS_getErrno());
    uint64_t t0 = KVMISC_now64();
    EXPECT_EQ(KV_RET_TIMEOUT, KVOS_semaphoreTimedWait(&s.s, 20));
    EXPECT_GE(KVMISC_now64() - t0, 20000u);
    EXPECT_EQ(std::string(strerror(ETIMEDOUT)), KVOS_lastError());
    std::atomic<int> result{-1};
    std::thread waiter([&] { result = KVOS_semaphoreWait(&s.s); });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(-1, result.load());
    EXPECT_EQ(1, KVOS_semaphorePost(&s.s));
    waiter.join();
    EXPECT_EQ(1, result.load());
    std::thread poster([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        KVOS_semaphorePost(&s.s);
    });
    EXPECT_EQ(KV_RET_OK, KVOS_semaphoreTimedWait(&s.s, 1999));  // a deadline normalised, or EINVAL and abort
    poster.join();
    EXPECT_EQ(0, KVOS_semaphoreShow(&s.s));

    Sem full("full", static_cast<unsigned>(SEM_VALUE_MAX));
    EXPECT_EQ(0, KVOS_semaphorePost(&full.s));
    EXPECT_EQ(EOVERFLOW, KVOS_getErrno());
}

TEST(KvosSemaphoreTest, ResetDrainsButCallsOnlyEtimedoutASuccess)
{
    Sem s("reset", 3);
    EXPECT_EQ(0, KVOS_semaphoreReset(&s.s));  // a drained semaphore answers EAGAIN: kept so
    EXPECT_EQ(0, KVOS_semaphoreShow(&s.s));
    EXPECT_EQ(EAGAIN, KVOS_getErrno());
    KVOS_semaphorePost(&s.s);
    SeamScope seam(kvos_syscalls().semTryWait, [](sem_t* x) { return takeArmedFailure() ? -1 : sem_trywait(x); });
    armFailure(ETIMEDOUT, 1);
    EXPECT_EQ(1, KVOS_semaphoreReset(&s.s));  // the first take "timed out"
    EXPECT_EQ(1, KVOS_semaphoreShow(&s.s));
}

TEST(KvosSemaphoreTest, SystemFailuresComeBackInEachConvention)
{
    int count = KVOS_semaphoreCount();
    KVOS_SEMAPHORE bad{nullptr};
    EXPECT_EQ(0, KVOS_semaphoreCreate(&bad, "toomany", 0x80000000u));
    EXPECT_EQ(EINVAL, KVOS_getErrno());
    EXPECT_NE(nullptr, bad.opaque_semaphore);  // the record stays, unlisted
    EXPECT_EQ(count, KVOS_semaphoreCount());
    EXPECT_EQ(1, KVOS_semaphoreDelete(&bad));
    EXPECT_EQ(nullptr, bad.opaque_semaphore);

    Sem s("failing", 1);
    SeamScope wait(kvos_syscalls().semWait, [](sem_t* x) { return takeArmedFailure() ? -1 : sem_wait(x); });
    SeamScope timed(kvos_syscalls().semTimedWait, failingTimedWait);
    SeamScope tryw(kvos_syscalls().semTryWait, [](sem_t* x) { return takeArmedFailure() ? -1 : sem_trywait(x); });
    SeamScope get(kvos_syscalls().semGetValue, [](sem_t* x, int* v) { return takeArmedFailure() ? -1 : sem_getvalue(x, v); });
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
    armFailure(EINTR, 2);  // an interrupted wait is repeated, not reported
    EXPECT_EQ(1, KVOS_semaphoreWait(&s.s));
    KVOS_semaphorePost(&s.s);
    armFailure(EINTR, 1);
    EXPECT_EQ(KV_RET_OK, KVOS_semaphoreTimedWait(&s.s, 10));
}

TEST(KvosSemaphoreTest, ListKeepsCreationOrderAndNamesUpTo511)
{
    int base = KVOS_semaphoreCount();
    std::string longName(600, 'n');
    Sem a("s1", 0), b("s2", 0), c(longName.c_str(), 0), d("s4", 0), e("s5", 0);
    EXPECT_EQ(base + 5, KVOS_semaphoreCount());
    std::vector<KVOS_SEMAPHORE> all(static_cast<size_t>(base + 5));
    ASSERT_EQ(base + 5, KVOS_semaphoreList(all.data(), base + 50));
    EXPECT_EQ(a.s.opaque_semaphore, all[static_cast<size_t>(base)].opaque_semaphore);
    EXPECT_EQ(e.s.opaque_semaphore, all[static_cast<size_t>(base + 4)].opaque_semaphore);
    EXPECT_EQ(std::string(511, 'n'), KVOS_semaphoreGetName(all[static_cast<size_t>(base + 2)]));

    KVOS_SEMAPHORE two[3] = {{nullptr}, {nullptr}, {nullptr}};
    EXPECT_EQ(0, KVOS_semaphoreList(two, 0));
    EXPECT_EQ(2, KVOS_semaphoreList(two, 2));
    EXPECT_EQ(all[0].opaque_semaphore, two[0].opaque_semaphore);
    EXPECT_EQ(all[1].opaque_semaphore, two[1].opaque_semaphore);
    EXPECT_EQ(nullptr, two[2].opaque_semaphore);
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
            SeamScope timed(kvos_syscalls().semTimedWait, failingTimedWait);
            armFailure(EINVAL, 1);
            KVOS_semaphoreTimedWait(&live.s, 10);
        },
        "ERROR -  Detail=\"Invalid semaphore\"");
}
