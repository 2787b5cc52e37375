/* KVOS mutexes: results, statistics, the list and its dump, the quick lock,
 * and the fatal misuse path. */
#include <pthread.h>
#include <stdio.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <regex>
#include <string>
#include <thread>

#include "abstraction/kvos_mutex.h"
#include "support.h"

using namespace kvos_test;

namespace {

/* Parses "List info: size N, additions A, removals R". */
struct ListInfo {
    size_t size = 0, additions = 0, removals = 0;
};

ListInfo listInfo(const std::string& dump)
{
    ListInfo info;
    auto lines = linesWith(dump, "List info:");
    EXPECT_EQ(1u, lines.size());
    if (!lines.empty()) {
        sscanf(lines[0].c_str(), "List info: size %zu, additions %zu, removals %zu", &info.size, &info.additions,
               &info.removals);
    }
    return info;
}

std::string lineOf(const std::string& dump, const std::string& name)
{
    for (const auto& line : linesWith(dump, name + " ")) {
        if (line.compare(0, name.size(), name) == 0) {
            return line;
        }
    }
    return "";
}

/* Kernel state letter of a thread of this process. */
char threadState(int lwp)
{
    std::ifstream stat("/proc/self/task/" + std::to_string(lwp) + "/stat");
    std::string all((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    size_t close = all.rfind(')');
    return close == std::string::npos || close + 2 >= all.size() ? '?' : all[close + 2];
}

}  // namespace

TEST(KvosMutexTest, CreateAndDeleteAreListedAndCounted)
{
    ListInfo before = listInfo(mutexDump());
    KVOS_MUTEX mutex;
    EXPECT_EQ(1, KVOS_mutexCreate(&mutex, "Mutex"));
    EXPECT_STREQ("Mutex", KVOS_mutexGetName(&mutex));
    ListInfo during = listInfo(mutexDump());
    EXPECT_EQ(before.size + 1, during.size);
    EXPECT_EQ(before.additions + 1, during.additions);
    EXPECT_EQ(1, KVOS_mutexDelete(&mutex));
    EXPECT_EQ(nullptr, mutex.opaque_mutex);
    ListInfo after = listInfo(mutexDump());
    EXPECT_EQ(before.size, after.size);
    EXPECT_EQ(before.removals + 1, after.removals);
    EXPECT_EQ(static_cast<int>(after.size), KVOS_mutexCount());
}

TEST(KvosMutexTest, DumpFormatAndStatus)
{
    KVOS_MUTEX mine, held, free1;
    KVOS_mutexCreate(&mine, "ABCDEFGHIJKLMNOPQRSTUVWXY");  // 25 characters
    KVOS_mutexCreate(&held, "heldElsewhere");
    KVOS_mutexCreate(&free1, "freeOne");
    KVOS_mutexLock(&mine);

    std::atomic<bool> locked{false}, release{false};
    std::thread holder([&] {
        KVOS_mutexLock(&held);
        locked = true;
        while (!release) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        KVOS_mutexUnlock(&held);
    });
    ASSERT_TRUE(waitFor([&] { return locked.load(); }));
    std::string dump = mutexDump();
    release = true;
    holder.join();

    EXPECT_EQ(0u, dump.find("Mutex                Address    Status     #Taken  #Blocked\n" +
                            std::string(59, '-') + "\n"));
    // The list lock is always first and shown locked (the dump holds it).
    std::string first = dump.substr(120, dump.find('\n', 120) - 120);
    EXPECT_TRUE(std::regex_match(first, std::regex("mutexListLock        0x[0-9a-f]+   locked +[0-9]+ +[0-9]+")))
        << first;

    EXPECT_TRUE(std::regex_match(lineOf(dump, "ABCDEFGHIJKLMNOPQRS"),
                                 std::regex("ABCDEFGHIJKLMNOPQRS  0x[0-9a-f]+   locked        1         0")))
        << dump;
    EXPECT_NE(std::string::npos, lineOf(dump, "heldElsewhere").find("   locked        1         0"));
    EXPECT_NE(std::string::npos, lineOf(dump, "freeOne").find(" unlocked        0         0"));
    // The try-lock of the dump did not count as a take.
    EXPECT_EQ(0u, KVOS_mutexTaken(&free1));
    EXPECT_EQ(std::string::npos, dump.find("ABCDEFGHIJKLMNOPQRST"));

    KVOS_mutexUnlock(&mine);
    KVOS_mutexDelete(&mine);
    KVOS_mutexDelete(&held);
    KVOS_mutexDelete(&free1);
}

TEST(KvosMutexTest, ContentionCountsOneBlockAndOneTake)
{
    KVOS_MUTEX m;
    KVOS_mutexCreate(&m, "contended");
    for (int i = 0; i < 3; ++i) {
        KVOS_mutexLock(&m);
        KVOS_mutexUnlock(&m);
    }
    EXPECT_EQ(3u, KVOS_mutexTaken(&m));
    EXPECT_EQ(0u, KVOS_mutexBlocked(&m));

    KVOS_mutexLock(&m);
    std::atomic<int> lwp{0};
    std::atomic<bool> done{false};
    std::thread waiter([&] {
        lwp = static_cast<int>(gettid());
        KVOS_mutexLock(&m);
        done = true;
        KVOS_mutexUnlock(&m);
    });
    // Release only once the waiter sleeps on the mutex.
    ASSERT_TRUE(waitFor([&] { return lwp.load() != 0 && threadState(lwp) == 'S'; }));
    EXPECT_FALSE(done.load());
    KVOS_mutexUnlock(&m);
    waiter.join();
    EXPECT_TRUE(done.load());
    EXPECT_EQ(5u, KVOS_mutexTaken(&m));
    EXPECT_EQ(1u, KVOS_mutexBlocked(&m));
    KVOS_mutexDelete(&m);
}

TEST(KvosMutexTest, QuickLockNestsAndIsFreeAfterMatchingUnlocks)
{
    EXPECT_EQ(0, KVOS_lockQuick());
    EXPECT_EQ(0, KVOS_lockQuick());
    KVOS_unlockQuick(0);
    KVOS_unlockQuick(12345);  // the key is ignored
    std::atomic<bool> got{false};
    std::thread other([&] {
        KVOS_lockQuick();
        got = true;
        KVOS_unlockQuick(0);
    });
    other.join();
    EXPECT_TRUE(got.load());
    EXPECT_NE("", lineOf(mutexDump(), "globalLock"));
}

TEST(KvosMutexTest, BareMutexGetsTheKvosAttributes)
{
    pthread_mutex_t m;
    EXPECT_EQ(1, kvos_init_mutex(&m));
    // glibc keeps the type and the protocol in the mutex's kind word; 32 is
    // its internal priority-inheritance bit.
    constexpr int kPrioInherit = 32;
    int expectedKind = PTHREAD_MUTEX_ERRORCHECK | (geteuid() == 0 ? kPrioInherit : 0);
    EXPECT_EQ(expectedKind, m.__data.__kind & (PTHREAD_MUTEX_ERRORCHECK | PTHREAD_MUTEX_RECURSIVE | kPrioInherit));
#if !KV_TSAN
    ASSERT_EQ(0, pthread_mutex_lock(&m));
    EXPECT_EQ(EDEADLK, pthread_mutex_lock(&m));  // error-checking
    int fromOther = 0;
    std::thread t([&] { fromOther = pthread_mutex_unlock(&m); });
    t.join();
    EXPECT_EQ(EPERM, fromOther);
    EXPECT_EQ(0, pthread_mutex_unlock(&m));
#endif
    pthread_mutex_destroy(&m);
}

TEST(KvosMutexDeathTest, UnlockByANonHolderIsFatal)
{
    if (KV_TSAN) {
        GTEST_SKIP() << "ThreadSanitizer reports the wrong-thread unlock before the library can";
    }
    KVOS_MUTEX m;
    KVOS_mutexCreate(&m, "victim");
    KVOS_mutexLock(&m);
    EXPECT_DEATH(
        {
            logToStderr();
            std::thread t([&] { KVOS_mutexUnlock(&m); });
            t.join();
        },
        "ERROR -  Detail=\"Mutex error\" Error=\"Operation not permitted\" ErrorNum=\"1\"");
    KVOS_mutexUnlock(&m);
    KVOS_mutexDelete(&m);
}

TEST(KvosMutexDeathTest, RelockingByTheHolderIsFatal)
{
    KVOS_MUTEX m;
    KVOS_mutexCreate(&m, "twice");
    EXPECT_DEATH(
        {
            logToStderr();
            KVOS_mutexLock(&m);
            KVOS_mutexLock(&m);
        },
        " Detail=\"Mutex error\" Error=\"Resource deadlock avoided\" ErrorNum=\"35\"");
    KVOS_mutexDelete(&m);
}

TEST(KvosMutexTest, DeleteRemovesEveryEqualEntryAndAlwaysCountsOne)
{
    KVOS_MUTEX m;
    KVOS_mutexCreate(&m, "alias");
    ListInfo start = listInfo(mutexDump());

    // A copy of the handle: same record, but a handle the list does not know.
    KVOS_MUTEX alias = m;
    EXPECT_EQ(1, KVOS_mutexDelete(&alias));
    // &m is still listed but its record is gone: give it a new one, which
    // lists the same handle a second time.
    KVOS_mutexCreate(&m, "alias");
    ListInfo twice = listInfo(mutexDump());
    EXPECT_EQ(start.size + 1, twice.size);
    EXPECT_EQ(start.removals + 1, twice.removals);  // counted though nothing matched
    EXPECT_EQ(2u, linesWith(mutexDump(), "alias ").size());

    KVOS_mutexDelete(&m);
    ListInfo end = listInfo(mutexDump());
    EXPECT_EQ(start.size - 1, end.size);  // both entries went
    EXPECT_EQ(start.removals + 2, end.removals);
}
