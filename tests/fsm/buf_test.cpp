/* Message buffers: header, cookies, ownership on release, clean-up
 * call-backs, and the per-specie statistics with their reports. */
#include <string.h>

#include <sstream>

#include "abstraction/kvos_mutex.h"
#include "support.h"

using namespace fsm_test;

namespace {

PROC_DATA procAt(FSMADDR self)
{
    PROC_DATA p = *fsm_getDummyProcData();
    p.ProcSELF = self;
    return p;
}

std::string report()
{
    std::ostringstream os;
    fsm_streamPoolStats(os);
    return os.str();
}

}  // namespace

TEST(FsmBufTest, FreshSystemBufferHeaderAndZeroedBody)
{
    FsmSystem sys;
    const FSMADDR dest{TEST_SPEC, 0};
    NORMBUF* b = sys_getBuf(&dest, 10);
    EXPECT_EQ(FSM_BUF_MAGIC, b->headerStartMagic);
    EXPECT_EQ(FSM_BUF_MAGIC, b->headerEndMagic);
    EXPECT_EQ(MSGNAME{5}, b->MsgName);
    EXPECT_EQ((FSMADDR{NO_SPECIE, NO_IND}), b->Allocator);
    EXPECT_EQ((FSMADDR{NO_SPECIE, NO_IND}), b->Source);
    EXPECT_EQ(dest, b->Dest);
    EXPECT_EQ(10u, b->BodyLength);
    EXPECT_EQ(nullptr, b->normbufCleanupCb);
    EXPECT_EQ(nullptr, b->pNext);
    EXPECT_EQ(reinterpret_cast<uint8_t*>(b) + sizeof(NORMBUF), fsm_msgBody(b));
    static const uint8_t zeros[10] = {};
    EXPECT_EQ(0, memcmp(zeros, fsm_msgBody(b), 10));
    EXPECT_EQ(1u, stats(NO_SPECIE).currentBufferCount);
    fsm_returnMsgBuf(nullptr, b);
    EXPECT_EQ(0u, stats(NO_SPECIE).currentBufferCount);
}

TEST(FsmBufTest, MachineBuffersAreCountedForTheAllocatingSpecie)
{
    FsmSystem sys({ALPHA, BETA});
    EXPECT_EQ(3u, fsm_poolStatsCount());
    FSM_SPECIE_BUFFER_STATS none{};
    none.peakBufferSize = 77;
    EXPECT_FALSE(fsm_getPoolStats(GAMMA, &none));
    EXPECT_EQ(77u, none.peakBufferSize);
    PROC_DATA alpha = procAt({ALPHA, 1});
    NORMBUF* b = fsm_getBuf(&alpha, 3);
    EXPECT_EQ((FSMADDR{ALPHA, 1}), b->Allocator);
    EXPECT_EQ((FSMADDR{ALPHA, 1}), b->Dest);
    EXPECT_EQ(1u, stats(ALPHA).currentBufferCount);
    EXPECT_EQ(0u, stats(NO_SPECIE).currentBufferCount);

    // A specie that is not configured is counted in record 0, with a line.
    LogCapture log;
    PROC_DATA gamma = procAt({GAMMA, 0});
    NORMBUF* g = fsm_getBuf(&gamma, 1);
    EXPECT_TRUE(log.contains("ERROR Detail=\"Unrecognised fsm specie\" Specie=\"GAMMA\"\n")) << log.text();
    EXPECT_EQ(1u, stats(NO_SPECIE).currentBufferCount);
    fsm_returnMsgBuf(&gamma, g);
    fsm_returnMsgBuf(&alpha, b);
    EXPECT_EQ(0u, stats(NO_SPECIE).currentBufferCount);
    EXPECT_EQ(0u, stats(ALPHA).currentBufferCount);
}

TEST(FsmBufTest, ReportAfterTwoAllocationsAndOneRelease)
{
    FsmSystem sys({ALPHA});
    PROC_DATA alpha = procAt({ALPHA, 0});
    NORMBUF* first = fsm_getBuf(&alpha, 10);
    NORMBUF* second = fsm_getBuf(&alpha, 30);
    fsm_returnMsgBuf(&alpha, first);
    EXPECT_EQ("Fsm pool stats for fsm NO_SPECIE:\n"
              "  Buffer-count:            0\n"
              "  Peak-buffer_count:       0\n"
              "  Total-buffer_count:      0\n"
              "  Buffers-size-total:      0\n"
              "  Peak-buffers-size-total: 0\n"
              "  Peak-buffer-size:        0\n"
              "Fsm pool stats for fsm ALPHA:\n"
              "  Buffer-count:            1\n"
              "  Peak-buffer_count:       2\n"
              "  Total-buffer_count:      2\n"
              "  Buffers-size-total:      30\n"
              "  Peak-buffers-size-total: 40\n"
              "  Peak-buffer-size:        30\n",
              report());
    LogCapture log(log4cxx::Level::getInfo());
    fsm_logPoolStats();
    EXPECT_TRUE(log.contains("INFO Detail=\"Fsm buffer pool statistics\" Fsm-spec=\"ALPHA\" Buffer-count=\"1\" "
                             "Peak-buffer_count=\"2\" Total-buffer-count=\"2\" Buffers-size-total=\"30\" "
                             "Peak-buffers-size-total=\"40\" Peak-buffer-size=\"30\"\n"))
        << log.text();
    EXPECT_EQ(2u, log.count("Fsm buffer pool statistics"));
    fsm_returnMsgBuf(&alpha, second);
}

TEST(FsmBufTest, EveryFiveThousandthLiveBufferWarnsOnceAndNothingIsRefused)
{
    FsmSystem sys({ALPHA});
    PROC_DATA alpha = procAt({ALPHA, 0});
    std::vector<NORMBUF*> live;
    LogCapture log(log4cxx::Level::getWarn());
    for (int i = 0; i < 4999; ++i) {
        live.push_back(fsm_getBuf(&alpha, 1));
    }
    EXPECT_EQ(0u, log.count("Over-allocation"));
    live.push_back(fsm_getBuf(&alpha, 1));
    EXPECT_EQ(1u, log.count("Over-allocation"));
    EXPECT_TRUE(log.contains("WARN Detail=\"Over-allocation of fsm buffers\" Fsm-spec=\"ALPHA\" "
                             "Max-buffer-count=\"5000\" Buffer-count=\"5000\" Msg-src=\"NO_SPECIE:NO_IND\" "
                             "Msg-dst=\"ALPHA:0\" Msg-name=\"POOL_not_msg\" Msg-size=\"1\" Msg-buf=\""))
        << log.text().substr(0, 400);
    live.push_back(fsm_getBuf(&alpha, 1));
    EXPECT_EQ(1u, log.count("Over-allocation"));
    // Falling back and rising again to a multiple warns again.
    fsm_returnMsgBuf(&alpha, live.back());
    live.pop_back();
    fsm_returnMsgBuf(&alpha, live.back());
    live.pop_back();
    live.push_back(fsm_getBuf(&alpha, 1));
    EXPECT_EQ(2u, log.count("Over-allocation"));
    while (live.size() < 10000) {
        live.push_back(fsm_getBuf(&alpha, 1));
    }
    EXPECT_EQ(3u, log.count("Over-allocation"));
    EXPECT_TRUE(log.contains("Buffer-count=\"10000\""));
    for (NORMBUF* b : live) {
        fsm_returnMsgBuf(&alpha, b);
    }
    EXPECT_EQ(0u, stats(ALPHA).currentBufferCount);
    EXPECT_EQ(10000u, stats(ALPHA).peakBufferCount);
}

TEST(FsmBufTest, OwnershipIsCheckedOnTheSpecieOnly)
{
    FsmSystem sys({ALPHA, BETA});
    PROC_DATA alpha0 = procAt({ALPHA, 0});
    PROC_DATA alpha3 = procAt({ALPHA, 3});
    PROC_DATA beta = procAt({BETA, 0});
    NORMBUF* b = fsm_getBuf(&alpha0, 4);
    {
        LogCapture log;
        fsm_returnMsgBuf(&beta, b);
        EXPECT_TRUE(log.contains("ERROR Detail=\"Failed to deallocate buffer. Buffer was not owned by this fsm\" "
                                 "Self=\"BETA:0\""))
            << log.text();
        EXPECT_EQ(1u, stats(ALPHA).currentBufferCount);
        EXPECT_EQ(FSM_BUF_MAGIC, b->headerStartMagic);  // still alive
    }
    // Another individual of the destination specie may release it.
    alpha3.pProcMsg = b;
    fsm_returnMsgBuf(&alpha3, b);
    EXPECT_EQ(nullptr, alpha3.pProcMsg);
    EXPECT_EQ(0u, stats(ALPHA).currentBufferCount);

    LogCapture log;
    fsm_returnMsgBuf(&alpha0, nullptr);
    fsm_returnMsgBuf(nullptr, nullptr);
    EXPECT_EQ("", log.text());
}

namespace {
struct CleanupSeen {
    int calls = 0;
    uint32_t countDuringCall = 0;
    uint32_t magicDuringCall = 0;
    uint8_t firstByte = 0;
} gCleanup;
}  // namespace

TEST(FsmBufTest, CleanupCallbackRunsOnceBeforeTheCountersFall)
{
    FsmSystem sys({ALPHA});
    PROC_DATA alpha = procAt({ALPHA, 0});
    NORMBUF* b = fsm_getBuf(&alpha, 2);
    fsm_msgBody(b)[0] = 0x5A;
    b->normbufCleanupCb = [](NORMBUF* buf) {
        ++gCleanup.calls;
        gCleanup.countDuringCall = stats(ALPHA).currentBufferCount;
        gCleanup.magicDuringCall = buf->headerEndMagic;
        gCleanup.firstByte = fsm_msgBody(buf)[0];
    };
    LogCapture log(log4cxx::Level::getTrace());
    fsm_returnMsgBuf(&alpha, b);
    EXPECT_EQ(1, gCleanup.calls);
    EXPECT_EQ(1u, gCleanup.countDuringCall);
    EXPECT_EQ(FSM_BUF_MAGIC, gCleanup.magicDuringCall);
    EXPECT_EQ(0x5A, gCleanup.firstByte);
    EXPECT_EQ(0u, stats(ALPHA).currentBufferCount);
    EXPECT_TRUE(log.contains("TRACE Detail=\"Normbuf cleanup function is set. Calling it.\" Msg-src="));
    EXPECT_TRUE(log.contains("TRACE Detail=\"Deallocating fsm buffer\" Self=\"ALPHA:0\""));
    EXPECT_EQ("developer.fsm.normbufcleanup", getNormbufCleanupLogger()->getName());
}

TEST(FsmBufTest, StatisticsMutexIsCreatedOnceUnderItsName)
{
    int before = 0;
    {
        FsmSystem sys;
        before = KVOS_mutexCount();
    }
    FsmSystem again;
    EXPECT_EQ(before, KVOS_mutexCount());
    static std::string dump;
    dump.clear();
    KVOS_mutexDump([](int, const char* text, unsigned n) { dump.append(text, n); return 0; }, 0);
    // KVOS keeps the first 19 characters of a mutex name.
    EXPECT_NE(std::string::npos, dump.find("fsmBuffersStatsMute "));
}

namespace {

void releaseWithFlippedByte(size_t offset)
{
    logToStderr();
    FsmSystem sys;
    const FSMADDR dest{ALPHA, 0};
    NORMBUF* b = sys_getBuf(&dest, 8);
    reinterpret_cast<uint8_t*>(b)[offset] ^= 0xFF;
    fsm_returnMsgBuf(nullptr, b);
}

void releaseAfterStatisticsWereRebuilt()
{
    FsmSystem sys({ALPHA});
    PROC_DATA alpha = procAt({ALPHA, 0});
    NORMBUF* b = fsm_getBuf(&alpha, 4);
    const FSMSPECCONFIG cfg[] = {{ALPHA, nullptr, 0, 1}, {NO_SPECIE, nullptr, 0, 0}};
    fsm_poolInit(cfg);  // the count the buffer was in is gone
    fsm_returnMsgBuf(&alpha, b);
}

void releaseWithGrownBody()
{
    FsmSystem sys({ALPHA});
    PROC_DATA alpha = procAt({ALPHA, 0});
    NORMBUF* b = fsm_getBuf(&alpha, 4);
    b->BodyLength = 5;
    fsm_returnMsgBuf(&alpha, b);
}

}  // namespace

TEST(FsmBufDeathTest, CorruptCookiesEndTheProcess)
{
    EXPECT_DEATH(releaseWithFlippedByte(offsetof(NORMBUF, headerStartMagic)),
                 "Invalid header start magic cookie(.|\n)*Corrupt header start magic");
    EXPECT_DEATH(releaseWithFlippedByte(offsetof(NORMBUF, headerEndMagic)),
                 "Invalid header end magic cookie(.|\n)*Corrupt header end magic");
}

TEST(FsmBufDeathTest, CounterUnderflowAndNullArgumentsAreProgrammingFaults)
{
    EXPECT_DEATH(releaseAfterStatisticsWereRebuilt(), "pStats->currentBufferCount > 0");
    EXPECT_DEATH(releaseWithGrownBody(), "pStats->currentBufferSizeTotal >= pBuffer->BodyLength");
    EXPECT_DEATH(fsm_getBuf(nullptr, 1), "pProc != NULL");
    EXPECT_DEATH(sys_getBuf(nullptr, 1), "pAddr != NULL");
}
