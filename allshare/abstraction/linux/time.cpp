/*
 * Monotonic time, the 10 ms tick clock and sleeps.
 *
 * Ticks count from KVOS_init: 100 per second, unsigned 32-bit, so the
 * counter wraps after about 497 days; KVOS_ticksDiff is correct across the
 * wrap because it subtracts in unsigned arithmetic.
 */
#include <errno.h>
#include <time.h>

#include <atomic>

#include "abstraction/kvmisc.h"
#include "abstraction/kvos.h"
#include "kvlog/kvlog_assert.h"
#include "linux/kvos_os.h"
#include "linux/kvos_log.h"

namespace {
TIMEVAL KVOS_sInitTime;
std::atomic<bool> KVOS_bInited{false};

int relativeSleep(time_t sec, long nsec)
{
    struct timespec ts;
    ts.tv_sec = sec;
    ts.tv_nsec = nsec;
    return clock_nanosleep(CLOCK_MONOTONIC, 0, &ts, nullptr);
}
}  // namespace

TIMEVAL* KVMISC_now(TIMEVAL* tv)
{
    struct timespec ts;
    int retval = clock_gettime(CLOCK_MONOTONIC, &ts);
    BOOST_ASSERT_MSG(retval == 0, "the monotonic clock cannot be read");
    tv->tv_sec = static_cast<uint32_t>(ts.tv_sec);
    tv->tv_usec = static_cast<uint32_t>(ts.tv_nsec / 1000);
    return tv;
}

uint64_t KVMISC_now64(void)
{
    struct timespec ts;
    int retval = clock_gettime(CLOCK_MONOTONIC, &ts);
    BOOST_ASSERT_MSG(retval == 0, "the monotonic clock cannot be read");
    return static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
}

struct timespec KVOS_threadClock(void)
{
    struct timespec ts;
    int retval = clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    BOOST_ASSERT_MSG(retval == 0, "the thread's processor-time clock cannot be read");
    return ts;
}

void kvos_time_start(void)
{
    KVMISC_now(&KVOS_sInitTime);
    KVOS_bInited.store(true, std::memory_order_release);
}

bool KVOS_isInited(void)
{
    return KVOS_bInited.load(std::memory_order_acquire);
}

unsigned KVOS_ticksCurrent(void)
{
    if (!KVOS_isInited()) {
        KVLOG_ERROR(kvos_logger(), kvp("Detail", "OS not inited yet"));
        return 0;
    }
    TIMEVAL now;
    TIMEVAL elapsed;
    KVMISC_now(&now);
    TimeVal_sub(&now, &KVOS_sInitTime, &elapsed);
    return static_cast<uint32_t>(elapsed.tv_sec * 100u + elapsed.tv_usec / 10000u);
}

unsigned KVOS_ticksDiff(unsigned from, unsigned to)
{
    return static_cast<uint32_t>(to - from);
}

unsigned KVOS_ticksElapsed(unsigned since)
{
    return static_cast<uint32_t>(KVOS_ticksCurrent() - since);
}

int KVOS_sleep(unsigned s)
{
    return relativeSleep(static_cast<time_t>(s), 0);
}

int KVOS_msleep(unsigned ms)
{
    return relativeSleep(static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L);
}

int KVOS_usleep(unsigned us)
{
    return relativeSleep(static_cast<time_t>(us / 1000000), static_cast<long>(us % 1000000) * 1000L);
}

int KVOS_nanosleep(unsigned ns)
{
    return relativeSleep(static_cast<time_t>(ns / 1000000000u), static_cast<long>(ns % 1000000000u));
}
