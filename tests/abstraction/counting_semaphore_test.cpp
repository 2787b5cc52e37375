/* CountingSemaphore: tokens, the deliberate silent return of acquire(false),
 * and the exception messages. */
#include <errno.h>
#include <limits.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <string.h>

#include <gtest/gtest.h>

#include <atomic>
#include <sstream>
#include <thread>

#include "semaphore/CountingSemaphore.h"

namespace {

std::string shown(const CountingSemaphore& s)
{
    std::ostringstream os;
    os << s;
    return os.str();
}

void ignoreSignal(int) {}

/* Interrupts `target` with SIGUSR2 (no SA_RESTART) every few milliseconds
 * until stopped. */
class Interrupter {
public:
    explicit Interrupter(pthread_t target) : target_(target)
    {
        struct sigaction sa;
        memset(&sa, 0, sizeof(sa));
        sa.sa_handler = ignoreSignal;
        sigaction(SIGUSR2, &sa, &old_);
        thread_ = std::thread([this] {
            while (!stop_) {
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
                if (stop_) {
                    break;
                }
                pthread_kill(target_, SIGUSR2);
                ++sent_;
            }
        });
    }
    ~Interrupter()
    {
        stop_ = true;
        thread_.join();
        sigaction(SIGUSR2, &old_, nullptr);
    }
    int sent() const { return sent_; }

private:
    pthread_t target_;
    struct sigaction old_;
    std::atomic<bool> stop_{false};
    std::atomic<int> sent_{0};
    std::thread thread_;
};

}  // namespace

TEST(CountingSemaphoreTest, TokensComeAndGo)
{
    CountingSemaphore s(2);
    EXPECT_EQ("2", shown(s));
    s.acquire(true);
    s.acquire(true);
    EXPECT_EQ("0", shown(s));
    s.release();
    EXPECT_EQ(1, s.getValue());
    EXPECT_EQ("1", shown(s));
}

TEST(CountingSemaphoreTest, FailuresThrowWithCallNumberAndText)
{
    struct Case {
        const char* call;
        int err;
        const char* expected;
    } cases[] = {
        {"sem_wait", 22, "sem_wait [errno:22] Invalid argument"},
        {"sem_post", EOVERFLOW, "sem_post [errno:75] Value too large for defined data type"},
        {"x", 0, "x [errno:0] Success"},
    };
    for (const Case& c : cases) {
        EXPECT_STREQ(c.expected, CountingSemaphoreException(c.call, c.err).what());
    }
    try {
        CountingSemaphore tooMany(0x80000000u);
        FAIL() << "no exception";
    } catch (const CountingSemaphoreException& e) {
        EXPECT_STREQ("sem_init [errno:22] Invalid argument", e.what());
    }
    CountingSemaphore full(static_cast<unsigned>(SEM_VALUE_MAX));
    try {
        full.release();
        FAIL() << "no exception";
    } catch (const std::exception& e) {  // catchable as a standard exception
        EXPECT_STREQ("sem_post [errno:75] Value too large for defined data type", e.what());
    }
}

TEST(CountingSemaphoreTest, AnInterruptedAcquireFalseReturnsWithoutAToken)
{
    // Deliberate: acquire(false) treats any failed wait as success.
    CountingSemaphore s(0);
    {
        Interrupter poke(pthread_self());
        s.acquire(false);
    }
    EXPECT_EQ(0, s.getValue());
}

TEST(CountingSemaphoreTest, AcquireTrueWaitsThroughInterruptions)
{
    CountingSemaphore s(0);
    std::atomic<bool> got{false};
    std::thread releaser([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(150));
        s.release();
    });
    {
        Interrupter poke(pthread_self());
        s.acquire(true);
        got = true;
        EXPECT_GE(poke.sent(), 2);
    }
    releaser.join();
    EXPECT_TRUE(got.load());
    EXPECT_EQ(0, s.getValue());
}
