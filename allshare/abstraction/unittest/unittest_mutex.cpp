/* Self-test of KVOS mutexes: results, statistics, the dump and the quick
 * lock. Runs without KVOS_init. */
#include <stdio.h>
#include <string.h>

#include <atomic>
#include <string>
#include <thread>

#include "abstraction/kvos.h"
#include "abstraction/kvos_mutex.h"
#include "abstraction/unittests.h"
#include "unittest/unittest.h"

namespace {

std::string gDump;

int collect(int, const char* text, unsigned length)
{
    gDump.append(text, length);
    return 0;
}

std::string dump()
{
    gDump.clear();
    KVOS_mutexDump(collect, 0);
    return gDump;
}

/* The dump line of the mutex called name, or "". */
std::string lineOf(const std::string& text, const std::string& name)
{
    size_t at = 0;
    while ((at = text.find(name, at)) != std::string::npos) {
        if (at == 0 || text[at - 1] == '\n') {
            return text.substr(at, text.find('\n', at) - at);
        }
        ++at;
    }
    return "";
}

void testCreateDelete()
{
    unittest_context("create and delete");
    KVOS_MUTEX mutex;
    int before = KVOS_mutexCount();
    unittest_assert(KVOS_mutexCreate(&mutex, "Mutex") == 1);
    unittest_assert(KVOS_mutexCount() == before + 1);
    unittest_assert(strcmp(KVOS_mutexGetName(&mutex), "Mutex") == 0);
    unittest_assert(KVOS_mutexDelete(&mutex) == 1);
    unittest_assert(KVOS_mutexCount() == before);
}

void testStatistics()
{
    unittest_context("statistics");
    KVOS_MUTEX m;
    KVOS_mutexCreate(&m, "unitStats");
    KVOS_mutexLock(&m);
    KVOS_mutexUnlock(&m);
    KVOS_mutexLock(&m);
    KVOS_mutexUnlock(&m);
    unittest_assert(KVOS_mutexTaken(&m) == 2);
    unittest_assert(KVOS_mutexBlocked(&m) == 0);

    // Hold it while another thread locks: one block and one take more.
    KVOS_mutexLock(&m);
    std::atomic<bool> started{false};
    std::thread other([&] {
        started = true;
        KVOS_mutexLock(&m);
        KVOS_mutexUnlock(&m);
    });
    while (!started) {
        KVOS_msleep(1);
    }
    KVOS_msleep(50);
    KVOS_mutexUnlock(&m);
    other.join();
    unittest_assert(KVOS_mutexTaken(&m) == 4);
    unittest_assert(KVOS_mutexBlocked(&m) == 1);
    KVOS_mutexDelete(&m);
}

void testDump()
{
    unittest_context("dump");
    KVOS_MUTEX longName;
    KVOS_mutexCreate(&longName, "ABCDEFGHIJKLMNOPQRSTUVWXY");
    std::string text = dump();
    unittest_assert(text.compare(0, 60, "Mutex                Address    Status     #Taken  #Blocked\n") == 0);
    unittest_assert(text.compare(60, 60, std::string(59, '-') + "\n") == 0);
    unittest_assert(text.compare(120, 14, "mutexListLock ") == 0);
    std::string first = text.substr(120, text.find('\n', 120) - 120);
    unittest_assert(first.find("   locked ") != std::string::npos);
    std::string line = lineOf(text, "ABCDEFGHIJKLMNOPQRS");
    unittest_assert(line.compare(0, 21, "ABCDEFGHIJKLMNOPQRS  ") == 0);
    unittest_assert(line.find(" unlocked ") != std::string::npos);
    unittest_assert(text.find("List info: size ") != std::string::npos);
    KVOS_mutexDelete(&longName);
}

void testQuickLock()
{
    unittest_context("quick lock");
    unittest_assert(KVOS_lockQuick() == 0);
    unittest_assert(KVOS_lockQuick() == 0);
    KVOS_unlockQuick(0);
    KVOS_unlockQuick(0);
    std::atomic<bool> got{false};
    std::thread other([&] {
        KVOS_lockQuick();
        got = true;
        KVOS_unlockQuick(0);
    });
    other.join();
    unittest_assert(got.load());
}

}  // namespace

void unittest_mutex(void)
{
    testCreateDelete();
    testStatistics();
    testDump();
    testQuickLock();
}
