/* KVOS mutexes: results, statistics, the list and its dump, the quick lock,
 * and the fatal misuse path. */
#include <regex>

#include "support.h"

using namespace kvos_test;

namespace {
std::string lineOf(const std::string& dump, const std::string& name)
{
    auto lines = linesWith(dump, name + " ");
    return lines.empty() ? "" : lines[0];
}
}  // namespace

TEST(KvosMutexTest, DeleteUnlistsEveryEqualEntryAndAlwaysCountsOne)
{
    ListInfo start = listInfo(collect(KVOS_mutexDump));
    KVOS_MUTEX m;
    EXPECT_EQ(1, KVOS_mutexCreate(&m, "alias"));
    ListInfo created = listInfo(collect(KVOS_mutexDump));
    EXPECT_EQ(start.size + 1, created.size);
    EXPECT_EQ(start.additions + 1, created.additions);
    EXPECT_EQ(static_cast<int>(created.size), KVOS_mutexCount());

    KVOS_MUTEX alias = m;  // same record, but a handle the list does not know
    EXPECT_EQ(1, KVOS_mutexDelete(&alias));
    EXPECT_EQ(nullptr, alias.opaque_mutex);
    KVOS_mutexCreate(&m, "alias");  // lists the same handle a second time
    ListInfo twice = listInfo(collect(KVOS_mutexDump));
    EXPECT_EQ(start.size + 2, twice.size);
    EXPECT_EQ(start.removals + 1, twice.removals);  // counted though nothing matched
    EXPECT_EQ(2u, linesWith(collect(KVOS_mutexDump), "alias ").size());
    EXPECT_EQ(1, KVOS_mutexDelete(&m));
    ListInfo end = listInfo(collect(KVOS_mutexDump));
    EXPECT_EQ(start.size, end.size);  // both entries went
    EXPECT_EQ(start.removals + 2, end.removals);
}

TEST(KvosMutexTest, DumpFormatAndStatus)
{
    KVOS_MUTEX held, idle;
    KVOS_mutexCreate(&held, "ABCDEFGHIJKLMNOPQRSTUVWXY");  // 25 characters
    KVOS_mutexCreate(&idle, "idleOne");
    KVOS_mutexLock(&held);
    std::string dump = collect(KVOS_mutexDump);
    EXPECT_EQ(0u, dump.find("Mutex                Address    Status     #Taken  #Blocked\n" + std::string(59, '-') + "\n"));
    std::string first = dump.substr(120, dump.find('\n', 120) - 120);  // the list lock, held by the dump
    EXPECT_TRUE(std::regex_match(first, std::regex("mutexListLock        0x[0-9a-f]+   locked +[0-9]+ +[0-9]+")))
        << first;
    EXPECT_TRUE(std::regex_match(lineOf(dump, "ABCDEFGHIJKLMNOPQRS"),
                                 std::regex("ABCDEFGHIJKLMNOPQRS  0x[0-9a-f]+   locked        1         0")))
        << dump;
    EXPECT_NE(std::string::npos, lineOf(dump, "idleOne").find(" unlocked        0         0"));
    EXPECT_EQ(0u, KVOS_mutexTaken(&idle));  // the dump's try-lock is no take
    KVOS_mutexUnlock(&held);
    KVOS_mutexDelete(&held);
    KVOS_mutexDelete(&idle);
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
    std::thread waiter([&] {
        lwp = static_cast<int>(gettid());
        KVOS_mutexLock(&m);
        KVOS_mutexUnlock(&m);
    });
    // Release only once the waiter sleeps on the mutex.
    ASSERT_TRUE(waitFor([&] { return lwp != 0 && threadStat(lwp)[0] == 'S'; }));
    KVOS_mutexUnlock(&m);
    waiter.join();
    EXPECT_EQ(5u, KVOS_mutexTaken(&m));
    EXPECT_EQ(1u, KVOS_mutexBlocked(&m));
    KVOS_mutexDelete(&m);
}

TEST(KvosMutexTest, QuickLockNestsAndBareMutexesGetTheKvosAttributes)
{
    EXPECT_EQ(0, KVOS_lockQuick());
    EXPECT_EQ(0, KVOS_lockQuick());
    KVOS_unlockQuick(0);
    KVOS_unlockQuick(12345);  // the key is ignored
    std::atomic<bool> got{false};
    std::thread([&] {
        KVOS_lockQuick();
        got = true;
        KVOS_unlockQuick(0);
    }).join();
    EXPECT_TRUE(got.load());
    EXPECT_NE("", lineOf(collect(KVOS_mutexDump), "globalLock"));

    pthread_mutex_t m;
    EXPECT_EQ(1, kvos_init_mutex(&m));
    constexpr int kPrioInherit = 32;  // glibc's bit for the protocol in the kind word
    EXPECT_EQ(PTHREAD_MUTEX_ERRORCHECK | (geteuid() == 0 ? kPrioInherit : 0),
              m.__data.__kind & (PTHREAD_MUTEX_ERRORCHECK | PTHREAD_MUTEX_RECURSIVE | kPrioInherit));
#if !KV_TSAN
    ASSERT_EQ(0, pthread_mutex_lock(&m));
    EXPECT_EQ(EDEADLK, pthread_mutex_lock(&m));
    int fromOther = 0;
    std::thread([&] { fromOther = pthread_mutex_unlock(&m); }).join();
    EXPECT_EQ(EPERM, fromOther);
    EXPECT_EQ(0, pthread_mutex_unlock(&m));
#endif
    pthread_mutex_destroy(&m);
}

TEST(KvosMutexDeathTest, MisuseIsFatal)
{
    KVOS_MUTEX m;
    KVOS_mutexCreate(&m, "victim");
    EXPECT_DEATH(
        {
            logToStderr();
            KVOS_mutexLock(&m);
            KVOS_mutexLock(&m);
        },
        "ERROR -  Detail=\"Mutex error\" Error=\"Resource deadlock avoided\" ErrorNum=\"35\"");
    if (!KV_TSAN) {  // ThreadSanitizer reports the wrong-thread unlock before the library can
        KVOS_mutexLock(&m);
        EXPECT_DEATH(
            {
                logToStderr();
                std::thread([&] { KVOS_mutexUnlock(&m); }).join();
            },
            "ERROR -  Detail=\"Mutex error\" Error=\"Operation not permitted\" ErrorNum=\"1\"");
        KVOS_mutexUnlock(&m);
    }
    KVOS_mutexDelete(&m);
}
