/* CountingSemaphore: tokens, the deliberate silent return of acquire(false),
 * and the exception messages. */
#include <limits.h>

#include <sstream>

#include "semaphore/CountingSemaphore.h"
#include "support.h"

using namespace kvos_test;

TEST(CountingSemaphoreTest, TokensComeAndGo)
{
    CountingSemaphore s(2);
    std::ostringstream shown;
    shown << s;
    s.acquire(true);
    s.acquire(true);
    shown << s;
    s.release();
    shown << s;
    EXPECT_EQ("201", shown.str());
    EXPECT_EQ(1, s.getValue());
}

TEST(CountingSemaphoreTest, FailuresThrowWithCallNumberAndText)
{
    EXPECT_STREQ("sem_wait [errno:22] Invalid argument", CountingSemaphoreException("sem_wait", 22).what());
    try {
        CountingSemaphore tooMany(0x80000000u);
        ADD_FAILURE() << "no exception";
    } catch (const CountingSemaphoreException& e) {
        EXPECT_STREQ("sem_init [errno:22] Invalid argument", e.what());
    }
    CountingSemaphore full(static_cast<unsigned>(SEM_VALUE_MAX));
    try {
        full.release();
        ADD_FAILURE() << "no exception";
    } catch (const std::exception& e) {  // catchable as a standard exception
        EXPECT_STREQ("sem_post [errno:75] Value too large for defined data type", e.what());
    }
}

TEST(CountingSemaphoreTest, InterruptedAcquireFalseReturnsWithoutATokenAndTrueWaitsOn)
{
    CountingSemaphore s(0);
    {
        Interrupter poke;
        s.acquire(false);  // deliberate: any failed wait counts as taken
    }
    EXPECT_EQ(0, s.getValue());
    std::thread releaser([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(150));
        s.release();
    });
    {
        Interrupter poke;
        s.acquire(true);
        EXPECT_GE(poke.sent.load(), 2);
    }
    releaser.join();
    EXPECT_EQ(0, s.getValue());
}
