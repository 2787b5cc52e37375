/* The port-range registry: results, messages, the 32 slots, the semaphore
 * and the re-check after the unlocked search. Every test starts from an
 * empty registry. */
#include "kvnet/kvnet.h"

#include <errno.h>
#include <semaphore.h>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <log4cxx/consoleappender.h>
#include <log4cxx/simplelayout.h>

#include "abstraction/kvos_seams.h"
#include "abstraction/kvos_semaphore.h"
#include "platform/linux_logger.h"

namespace {

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

class PortRange : public testing::Test {
protected:
    void SetUp() override { KVNET_portRangeInit(); }
};

TEST_F(PortRange, RegisterLookupAndRangeTest)
{
    ASSERT_EQ(KVNET_portRangeRegister("sip", 5060, 5070), 1);
    int low = 0, high = 0;
    ASSERT_EQ(KVNET_portRangeLookup("sip", &low, &high), 1);
    EXPECT_EQ(low, 5060);
    EXPECT_EQ(high, 5070);
    struct Row {
        int port;
        int registered;
    } rows[] = {{5059, 0}, {5060, 1}, {5065, 1}, {5070, 1}, {5071, 0}, {0, 0}, {-1, 0}};
    for (const Row& r : rows) {
        EXPECT_EQ(KVNET_portIsRegistered(r.port), r.registered) << r.port;
    }
}

TEST_F(PortRange, LookupMissesLeaveTheOutputsAlone)
{
    ASSERT_EQ(KVNET_portRangeRegister("rtp", 10000, 20000), 1);
    int low = -7, high = -8;
    CaptureStderr();
    EXPECT_EQ(KVNET_portRangeLookup("RTP", &low, &high), 0);  // exact, case-sensitive
    EXPECT_EQ(KVNET_portRangeLookup("rt", &low, &high), 0);
    EXPECT_EQ(KVNET_portRangeLookup("rtpx", &low, &high), 0);
    EXPECT_EQ(GetCapturedStderr(), "");
    EXPECT_EQ(low, -7);
    EXPECT_EQ(high, -8);
}

TEST_F(PortRange, EmptyIdentifiersUseTheRegisterFunctionsName)
{
    int low = 1, high = 2;
    CaptureStderr();
    EXPECT_EQ(KVNET_portRangeRegister("", 1, 2), 0);
    EXPECT_EQ(KVNET_portRangeRegister(nullptr, 1, 2), 0);
    EXPECT_EQ(KVNET_portRangeLookup("", &low, &high), 0);
    EXPECT_EQ(GetCapturedStderr(), "KVNET_portRangeRegister(): id required\n"
                                   "KVNET_portRangeRegister(): id required\n"
                                   "KVNET_portRangeRegister(): id required\n");
    EXPECT_EQ(KVNET_portIsRegistered(1), 0);
}

TEST_F(PortRange, ThirtyTwoSlotsThenNoRangesAvailable)
{
    for (int i = 0; i < KVNET_PORT_RANGE_SLOTS; ++i) {
        std::string id = "r" + std::to_string(i);
        ASSERT_EQ(KVNET_portRangeRegister(id.c_str(), 1000 * i, 1000 * i + 9), 1) << i;
    }
    CaptureStderr();
    EXPECT_EQ(KVNET_portRangeRegister("r32", 40000, 40009), 0);
    EXPECT_EQ(GetCapturedStderr(), "KVNET_portRangeRegister(): No ranges available\n");
    EXPECT_EQ(KVNET_portIsRegistered(40005), 0);
    int low = 0, high = 0;
    ASSERT_EQ(KVNET_portRangeLookup("r31", &low, &high), 1);
    EXPECT_EQ(low, 31000);

    // Init empties the registry again.
    KVNET_portRangeInit();
    EXPECT_EQ(KVNET_portIsRegistered(31005), 0);
    EXPECT_EQ(KVNET_portRangeLookup("r31", &low, &high), 0);
    EXPECT_EQ(KVNET_portRangeRegister("r32", 40000, 40009), 1);
}

TEST_F(PortRange, LongIdentifiersKeepThirtyOneCharacters)
{
    std::string id40(40, 'x');
    id40.replace(30, 1, "y");  // the 31st character, the last one kept
    ASSERT_EQ(KVNET_portRangeRegister(id40.c_str(), 7000, 7001), 1);
    int low = 0, high = 0;
    EXPECT_EQ(KVNET_portRangeLookup(id40.c_str(), &low, &high), 0);
    ASSERT_EQ(KVNET_portRangeLookup(id40.substr(0, 31).c_str(), &low, &high), 1);
    EXPECT_EQ(low, 7000);
    EXPECT_EQ(KVNET_portRangeLookup(id40.substr(0, 30).c_str(), &low, &high), 0);
}

TEST_F(PortRange, DuplicatesAndOddRangesAreKept)
{
    ASSERT_EQ(KVNET_portRangeRegister("media", 100, 200), 1);
    ASSERT_EQ(KVNET_portRangeRegister("media", 300, 400), 1);
    ASSERT_EQ(KVNET_portRangeRegister("backwards", 900, 800), 1);  // not checked for order
    ASSERT_EQ(KVNET_portRangeRegister("overlap", 150, 350), 1);    // nor for overlap
    int low = 0, high = 0;
    ASSERT_EQ(KVNET_portRangeLookup("media", &low, &high), 1);
    EXPECT_EQ(low, 100);  // the oldest record
    EXPECT_EQ(high, 200);
    EXPECT_EQ(KVNET_portIsRegistered(350), 1);
    EXPECT_EQ(KVNET_portIsRegistered(850), 0);  // an inverted range holds nothing
    ASSERT_EQ(KVNET_portRangeLookup("backwards", &low, &high), 1);
    EXPECT_EQ(low, 900);
    EXPECT_EQ(high, 800);
}

/* ---- the semaphore ---- */

std::atomic<bool> gFailWaits{false};
int (*gRealSemWait)(sem_t*) = nullptr;

int failingSemWait(sem_t* s)
{
    if (gFailWaits) {
        errno = EDEADLK;
        return -1;
    }
    return gRealSemWait(s);
}

class SemWaitSeam {
public:
    explicit SemWaitSeam(int (*replacement)(sem_t*))
    {
        gRealSemWait = kvos_syscalls().semWait.load();
        kvos_syscalls().semWait = replacement;
    }
    ~SemWaitSeam()
    {
        kvos_syscalls().semWait = gRealSemWait;
        gFailWaits = false;
    }
    SemWaitSeam(const SemWaitSeam&) = delete;
    SemWaitSeam& operator=(const SemWaitSeam&) = delete;
};

TEST_F(PortRange, SemaphoreFailuresAndTheirBorrowedNames)
{
    ASSERT_EQ(KVNET_portRangeRegister("sip", 5060, 5070), 1);
    SemWaitSeam seam(failingSemWait);
    gFailWaits = true;
    int low = -1, high = -1;
    CaptureStderr();
    EXPECT_EQ(KVNET_portRangeRegister("h323", 1719, 1720), 0);
    EXPECT_EQ(KVNET_portRangeLookup("sip", &low, &high), 0);
    EXPECT_EQ(KVNET_portIsRegistered(5065), 0);
    EXPECT_EQ(GetCapturedStderr(), "KVNET_portRangeRegister(): Failed to obtain semaphore\n"
                                   "KVNET_portRangeLookup(): Failed to obtain semaphore\n"
                                   "KVNET_portRangeLookup(): Failed to obtain semaphore\n");
    EXPECT_EQ(low, -1);
    gFailWaits = false;
    EXPECT_EQ(KVNET_portIsRegistered(5065), 1);
    EXPECT_EQ(KVNET_portRangeLookup("h323", &low, &high), 0);  // the failed one left nothing
}

TEST_F(PortRange, TheSemaphoreIsNamedAndFree)
{
    KVOS_SEMAPHORE all[256];
    int n = KVOS_semaphoreList(all, 256);
    int found = 0;
    for (int i = 0; i < n; ++i) {
        if (std::string(KVOS_semaphoreGetName(all[i])) == "PortRange semaphore") {
            ++found;
            EXPECT_EQ(KVOS_semaphoreShow(&all[i]), 1);
        }
    }
    EXPECT_EQ(found, 1);  // re-initialising replaced it rather than adding one
}

/* A registration that loses its free record between the unlocked search and
 * the lock goes on to the next one. The seam lets a second registration run
 * to completion at exactly that moment, on another thread. */
std::atomic<int> gInterleaved{0};

int interleavingSemWait(sem_t* s)
{
    static thread_local bool inside = false;
    if (!inside && gInterleaved.fetch_add(1) == 0) {
        inside = true;
        std::thread other([] { EXPECT_EQ(KVNET_portRangeRegister("second", 2000, 2999), 1); });
        other.join();
        inside = false;
    }
    return gRealSemWait(s);
}

TEST_F(PortRange, RecordTakenMeanwhileIsLookedForAgain)
{
    for (int i = 0; i < KVNET_PORT_RANGE_SLOTS - 2; ++i) {
        ASSERT_EQ(KVNET_portRangeRegister(("fill" + std::to_string(i)).c_str(), 1, 1), 1);
    }
    {
        SemWaitSeam seam(interleavingSemWait);
        gInterleaved = 0;
        EXPECT_EQ(KVNET_portRangeRegister("first", 1000, 1999), 1);
    }
    int low = 0, high = 0;
    ASSERT_EQ(KVNET_portRangeLookup("first", &low, &high), 1);
    EXPECT_EQ(low, 1000);
    ASSERT_EQ(KVNET_portRangeLookup("second", &low, &high), 1);
    EXPECT_EQ(low, 2000);
    // Both of the last two records are used now; "first" had to move on.
    CaptureStderr();
    EXPECT_EQ(KVNET_portRangeRegister("third", 1, 1), 0);
    EXPECT_EQ(GetCapturedStderr(), "KVNET_portRangeRegister(): No ranges available\n");

    // When the record taken meanwhile was the last one, the search that
    // starts over finds none.
    KVNET_portRangeInit();
    for (int i = 0; i < KVNET_PORT_RANGE_SLOTS - 1; ++i) {
        ASSERT_EQ(KVNET_portRangeRegister(("fill" + std::to_string(i)).c_str(), 1, 1), 1);
    }
    {
        SemWaitSeam seam(interleavingSemWait);
        gInterleaved = 0;
        CaptureStderr();
        EXPECT_EQ(KVNET_portRangeRegister("first", 1000, 1999), 0);
        EXPECT_EQ(GetCapturedStderr(), "KVNET_portRangeRegister(): No ranges available\n");
    }
    EXPECT_EQ(KVNET_portRangeLookup("second", &low, &high), 1);
}

TEST_F(PortRange, ConcurrentRegistrationsFillEverySlotOnce)
{
    constexpr int kThreads = 8, kEach = 6;  // 48 attempts for 32 records
    std::atomic<int> ok{0};
    std::vector<std::thread> threads;
    CaptureStderr();
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &ok] {
            for (int i = 0; i < kEach; ++i) {
                int port = 100 * t + i;
                if (KVNET_portRangeRegister(("t" + std::to_string(port)).c_str(), port, port) == 1) {
                    ++ok;
                }
                KVNET_portIsRegistered(port);
            }
        });
    }
    for (std::thread& th : threads) {
        th.join();
    }
    std::string err = GetCapturedStderr();
    EXPECT_EQ(ok.load(), KVNET_PORT_RANGE_SLOTS);
    int found = 0;
    for (int t = 0; t < kThreads; ++t) {
        for (int i = 0; i < kEach; ++i) {
            int port = 100 * t + i, low = -1, high = -1;
            if (KVNET_portRangeLookup(("t" + std::to_string(port)).c_str(), &low, &high) == 1) {
                ++found;
                EXPECT_EQ(low, port);
                EXPECT_EQ(KVNET_portIsRegistered(port), 1);
            }
        }
    }
    EXPECT_EQ(found, KVNET_PORT_RANGE_SLOTS);
    size_t lines = 0;
    for (size_t at = 0; (at = err.find("No ranges available\n", at)) != std::string::npos; ++at) {
        ++lines;
    }
    EXPECT_EQ(lines, static_cast<size_t>(kThreads * kEach - KVNET_PORT_RANGE_SLOTS));
}

using PortRangeDeathTest = testing::Test;

TEST(PortRangeDeathTest, UseBeforeInitIsAProgrammingFault)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            auto logger = getLinuxAbstractionLogger();
            logger->setLevel(log4cxx::Level::getError());
            logger->addAppender(std::make_shared<log4cxx::ConsoleAppender>(
                std::make_shared<log4cxx::SimpleLayout>(), log4cxx::ConsoleAppender::getSystemErr()));
            KVNET_portIsRegistered(5060);
        },
        "Invalid semaphore");
}

}  // namespace
