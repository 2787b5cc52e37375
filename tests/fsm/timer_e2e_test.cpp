/* Timers through the whole framework: expiry messages arriving on the
 * owner's FSM task, timers restarted from their own expiry, timers of
 * several tasks against the tick source, the process-level calls and their
 * traces, failed expiry sends, and the tick source itself. */
#include <math.h>

#include <array>
#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "abstraction/kvmisc.h"
#include "fsm/fsm_timer_seams.h"
#include "support.h"
#include "tasked.h"

using namespace fsm_test;

namespace {

constexpr MSGNAME kKick = FSM_MAKE_ID(5, 1);

struct Ind {
    NORMBUF* saveQueue = nullptr;  // reserved first word
    TIMERBUF a;
    TIMERBUF b;
    std::atomic<int> fired{0};
    std::atomic<int> bFired{0};
};

/* Individual data of up to three species with up to 8 individuals each. */
std::array<std::array<Ind, 8>, 3> gInds;

Ind& indOf(const FSMADDR& a)
{
    return gInds[FSM_ID_INDEX(a.Spec)][a.Ind];
}

int resetJob(PROC_DATA* proc)
{
    Ind& ind = indOf(proc->ProcSELF);
    ind.saveQueue = nullptr;
    fsm_initTimer(proc, &ind.a);
    fsm_initTimer(proc, &ind.b);
    ind.fired = 0;
    ind.bFired = 0;
    proc->pProcIndData = &ind;
    proc->ProcNxtState = 0;
    return 0;
}

/* What a job saw of one message. */
struct Seen {
    FSMADDR self, sender, source, dest;
    MSGNAME msg;
    uint32_t bodyLength;
    uint64_t body;
    uint8_t recType;
    bool timerActive;
    uint32_t tick;
};

std::mutex gSeenLock;
std::vector<Seen> gSeen;

std::vector<Seen> seen()
{
    std::lock_guard<std::mutex> g(gSeenLock);
    return gSeen;
}

size_t seenCount()
{
    std::lock_guard<std::mutex> g(gSeenLock);
    return gSeen.size();
}

void record(PROC_DATA* proc)
{
    const NORMBUF* m = proc->pProcMsg;
    Seen s{proc->ProcSELF, proc->ProcSENDER, m->Source, m->Dest, m->MsgName, m->BodyLength, 0, proc->ProcRecType,
           sys_isActiveTimer(&indOf(proc->ProcSELF).a), sys_getTimerTicks()};
    if (m->BodyLength >= sizeof(uint64_t)) {
        memcpy(&s.body, fsm_msgBody(m), sizeof(s.body));
    }
    std::lock_guard<std::mutex> g(gSeenLock);
    gSeen.push_back(s);
}

int recordJob(PROC_DATA* proc)
{
    record(proc);
    return 0;
}

/* On the kick: timer a in 2 ticks. On its expiry: again, five times. */
int restartJob(PROC_DATA* proc)
{
    Ind& ind = *static_cast<Ind*>(proc->pProcIndData);
    if (proc->ProcMsgName == GEN_timer_1) {
        record(proc);
        if (++ind.fired < 5) {
            fsm_startTimer(proc, &ind.a, 2, GEN_timer_1, static_cast<uintptr_t>(ind.fired.load()));
        }
    } else if (proc->ProcMsgName == kKick) {
        fsm_startTimer(proc, &ind.a, 2, GEN_timer_1, 0);
    }
    return 0;
}

class FsmTimerSystemTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::lock_guard<std::mutex> g(gSeenLock);
        gSeen.clear();
    }
};

void kick(FSMADDR dest)
{
    sys_sendFarMsg(kKick, dest, FSMADDR{SYSTEM, 0}, nullptr);
}

}  // namespace

TEST_F(FsmTimerSystemTest, ExpiryArrivesOnTheOwnersTaskFromTheTimerSpecie)
{
    TrivialSpecie type(recordJob, resetJob);
    TaskedSystem sys({{ALPHA, &type, 0, 2}, {BETA, &type, 1, 1}}, 2);
    TIMERBUF t;
    sys_initTimer(&t);
    sys_startTimer(&t, 3, GEN_timer_4, FSMADDR{ALPHA, 1}, 0x1122334455667788u);
    EXPECT_TRUE(sys_isActiveTimer(&t));
    EXPECT_TRUE(sys_isBufferInList(&t));
    sys_runTimerWheel();
    sys_runTimerWheel();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(0u, seenCount());
    sys_runTimerWheel();
    ASSERT_TRUE(waitFor([] { return seenCount() == 1; }));
    EXPECT_FALSE(sys_isActiveTimer(&t));
    EXPECT_FALSE(sys_isBufferInList(&t));
    const Seen s = seen()[0];
    EXPECT_EQ((FSMADDR{ALPHA, 1}), s.self);
    EXPECT_EQ((FSMADDR{FSM_TIMER, 0}), s.sender);
    EXPECT_EQ((FSMADDR{FSM_TIMER, 0}), s.source);
    EXPECT_EQ((FSMADDR{ALPHA, 1}), s.dest);
    EXPECT_EQ(MSGNAME{GEN_timer_4}, s.msg);
    EXPECT_EQ(8u, s.bodyLength);
    EXPECT_EQ(0x1122334455667788u, s.body);
    EXPECT_EQ(' ', s.recType);  // came through the task's queue
    EXPECT_EQ(3u, s.tick);
    // The framework released the buffer after the job.
    EXPECT_TRUE(waitFor([] { return stats(NO_SPECIE).currentBufferCount == 0; }));
}

TEST_F(FsmTimerSystemTest, JobRestartsTheTimerWhoseExpiryItHandles)
{
    TrivialSpecie type(restartJob, resetJob);
    TaskedSystem sys({{ALPHA, &type, 0, 1}}, 1);
    kick(FSMADDR{ALPHA, 0});
    ASSERT_TRUE(waitFor([] { return sys_isActiveTimer(&gInds[0][0].a); }));
    // Tick by hand, each time letting the job run before the next tick, so
    // that a restart made on expiry counts from the expiry's own tick.
    for (uint32_t tick = 1; tick <= 12; ++tick) {
        sys_runTimerWheel();
        const size_t expected = std::min<size_t>(tick / 2, 5);
        ASSERT_TRUE(waitFor([&] { return seenCount() == expected; })) << "tick " << tick;
        if (tick % 2 == 0 && tick <= 8) {
            ASSERT_TRUE(waitFor([] { return sys_isActiveTimer(&gInds[0][0].a); })) << "tick " << tick;
        }
    }
    const std::vector<Seen> all = seen();
    ASSERT_EQ(5u, all.size());
    for (size_t i = 0; i < all.size(); ++i) {
        EXPECT_EQ(2 * (i + 1), all[i].tick);
        EXPECT_EQ(i, all[i].body);
        EXPECT_FALSE(all[i].timerActive) << "the timer is idle when its expiry is handled";
    }
    EXPECT_FALSE(sys_isActiveTimer(&gInds[0][0].a));
}

namespace {

constexpr int kRounds = KV_SANITIZED ? 40 : 150;
constexpr uint32_t kGuardInterval = 400;

/* Timer a: a short interval, restarted from its own expiry kRounds times.
 * Timer b: a guard far in the future, stopped and restarted on every
 * expiry of a, stopped for good at the end: it must never fire. */
int churnJob(PROC_DATA* proc)
{
    Ind& ind = *static_cast<Ind*>(proc->pProcIndData);
    switch (proc->ProcMsgName) {
    case kKick:
        fsm_startTimer(proc, &ind.a, 1 + proc->ProcSELF.Ind % 3, GEN_timer_1, 0);
        fsm_startTimer(proc, &ind.b, kGuardInterval, GEN_timer_2, 0);
        break;
    case GEN_timer_1: {
        const int n = ++ind.fired;
        fsm_stopTimer(proc, &ind.b);
        if (n < kRounds) {
            fsm_startTimer(proc, &ind.a, 1 + n % 4, GEN_timer_1, static_cast<uintptr_t>(n));
            fsm_startTimer(proc, &ind.b, kGuardInterval, GEN_timer_2, 0);
        }
        break;
    }
    case GEN_timer_2:
        ++ind.bFired;
        break;
    default:
        break;
    }
    return 0;
}

}  // namespace

TEST_F(FsmTimerSystemTest, TasksStartAndStopTimersWhileTheTickSourceRuns)
{
    TrivialSpecie type(churnJob, resetJob);
    TaskedSystem sys({{ALPHA, &type, 0, 8}, {BETA, &type, 1, 8}, {GAMMA, &type, 2, 8}}, 3);
    ASSERT_TRUE(sys_startTickSource(2));
    for (SPECIE s : {ALPHA, BETA, GAMMA}) {
        for (IND_NO i = 0; i < 8; ++i) {
            kick(FSMADDR{s, i});
        }
    }
    auto allDone = [] {
        for (auto& specie : gInds) {
            for (Ind& ind : specie) {
                if (ind.fired < kRounds) {
                    return false;
                }
            }
        }
        return true;
    };
    ASSERT_TRUE(waitFor(allDone, 60000));
    sys_stopTickSource();
    for (auto& specie : gInds) {
        for (Ind& ind : specie) {
            EXPECT_EQ(kRounds, ind.fired.load());
            EXPECT_EQ(0, ind.bFired.load());
            EXPECT_FALSE(sys_isActiveTimer(&ind.a));
            EXPECT_FALSE(sys_isActiveTimer(&ind.b));
        }
    }
    EXPECT_EQ(0u, timerSystemRunningCount(sys_getGlob()->Time->timerSystem));
    EXPECT_TRUE(waitFor([] { return stats(NO_SPECIE).currentBufferCount == 0; }));
}

TEST_F(FsmTimerSystemTest, SystemTimerAdvancesOnlyWhileStarted)
{
    FsmSystem sys;
    TIMERBUF t;
    sys_initTimer(&t);
    EXPECT_EQ(0u, sys_getTimerTicks());
    sys_runTimerWheel();
    EXPECT_EQ(0u, sys_getTimerTicks());  // not started yet
    sys_startSystemTimer();
    sys_runTimerWheel();
    sys_runTimerWheel();
    EXPECT_EQ(2u, sys_getTimerTicks());
    sys_stopSystemTimer();
    sys_runTimerWheel();
    EXPECT_EQ(2u, sys_getTimerTicks());
    sys_startTimer(&t, 4, GEN_timer_1, FSMADDR{ALPHA, 0}, 0);
    sys_stopTimer(&t);
    EXPECT_FALSE(sys_isActiveTimer(&t));
    std::ostringstream os;
    sys_listTimers(os);
    EXPECT_EQ("Timer system FsmTimerWheel: tick 2, 0 running\n", os.str());
    // A new system starts over, stopped.
    sys_initFSMSystem(nullptr);
    EXPECT_EQ(0u, sys_getTimerTicks());
    sys_runTimerWheel();
    EXPECT_EQ(0u, sys_getTimerTicks());
}

TEST_F(FsmTimerSystemTest, MachineCallsTraceWhenTheTimerFlagIsSet)
{
    FsmSystem sys;
    PROC_DATA proc = *fsm_getDummyProcData();
    proc.ProcSELF = FSMADDR{BETA, 0};
    TIMERBUF t;
    fsm_initTimer(&proc, &t);
    {
        LogCapture log(log4cxx::Level::getTrace());
        fsm_startTimer(&proc, &t, 9, GEN_timer_5, 1);
        fsm_stopTimer(&proc, &t);
        EXPECT_EQ(std::string::npos, log.text().find("timer\"")) << log.text();
    }
    proc.procTestFlags = TraceTimers;
    LogCapture log;
    fsm_startTimer(&proc, &t, 9, GEN_timer_5, 1);
    EXPECT_EQ((FSMADDR{BETA, 0}), t.owner);
    EXPECT_EQ(9u, t.expireAt);
    fsm_stopTimer(&proc, &t);
    EXPECT_FALSE(sys_isActiveTimer(&t));
    const std::string text = log.text();
    EXPECT_NE(std::string::npos,
              text.find("INFO Detail=\"Starting timer\" Self=\"BETA:0\" Sender=\"NO_SPECIE:NO_IND\""))
        << text;
    EXPECT_NE(std::string::npos, text.find("Msg-name=\"GEN_timer_5\" Interval=\"9\"\n")) << text;
    EXPECT_NE(std::string::npos, text.find("INFO Detail=\"Stopping timer\" Self=\"BETA:0\"")) << text;
    EXPECT_EQ(2u, log.count("Msg-name=\"GEN_timer_5\""));
}

TEST_F(FsmTimerSystemTest, FailedExpirySendsReleaseTheirBuffers)
{
    FsmSystem sys({ALPHA, BETA});
    SPEC_DESC desc{};
    desc.fsmType = FSM_TYPE_TRIVIAL;
    sys.registerSpecie(ALPHA, &desc, 1, KVOS_NO_PTRQ_ID);
    sys_startSystemTimer();
    const uint32_t before = stats(NO_SPECIE).totalBufferCount;
    TIMERBUF noQueue, tooHigh;
    sys_initTimer(&noQueue);
    sys_initTimer(&tooHigh);
    sys_startTimer(&noQueue, 1, GEN_timer_1, FSMADDR{ALPHA, 0}, 0);
    sys_startTimer(&tooHigh, 1, GEN_timer_2, FSMADDR{ALPHA, 1}, 0);
    LogCapture log;
    sys_runTimerWheel();
    EXPECT_EQ(1u, log.count("Failed to send fsm message. No queue for destination specie"));
    EXPECT_EQ(1u, log.count("Failed to send fsm message. Invalid destination address"));
    EXPECT_EQ(before + 2, stats(NO_SPECIE).totalBufferCount);
    EXPECT_EQ(0u, stats(NO_SPECIE).currentBufferCount);
}

/* ---- The tick source ---- */

TEST(FsmTickSourceTest, StartStopAndRestart)
{
    FsmSystem sys;
    EXPECT_FALSE(sys_startTickSource(0));
    sys_stopTickSource();  // none running: nothing happens
    ASSERT_TRUE(sys_startTickSource(1));
    EXPECT_FALSE(sys_startTickSource(1));  // already running
    // Inert until the system timer is started.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(0u, sys_getTimerTicks());
    sys_startSystemTimer();
    ASSERT_TRUE(waitFor([] { return sys_getTimerTicks() >= 5; }));
    sys_stopTickSource();
    const uint32_t stopped = sys_getTimerTicks();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(stopped, sys_getTimerTicks());
    ASSERT_TRUE(sys_startTickSource(1));
    ASSERT_TRUE(waitFor([&] { return sys_getTimerTicks() > stopped; }));
    sys_stopTickSource();
}

TEST(FsmTickSourceTest, ShutdownStopsTheTickSource)
{
    {
        FsmSystem sys;
        ASSERT_TRUE(sys_startTickSource(5));
        sys_startSystemTimer();
    }  // fsm_procShutdown
    EXPECT_TRUE(sys_startTickSource(5));  // free to start again
    sys_stopTickSource();
}

namespace {

uint64_t nowUs()
{
    return KVMISC_now64();
}

}  // namespace

/* Ten seconds at 10 ms: the count stays within one tick of elapsed time. */
TEST(FsmTickSourceTest, CountFollowsElapsedTimeWithoutDrift)
{
    FsmSystem sys;
    sys_startSystemTimer();
    const uint64_t t0 = nowUs();
    ASSERT_TRUE(sys_startTickSource(10));
    std::this_thread::sleep_for(std::chrono::milliseconds(10005));
    const uint64_t before = nowUs();
    const uint32_t ticks = sys_getTimerTicks();
    const uint64_t after = nowUs();
    sys_stopTickSource();
    const int64_t low = static_cast<int64_t>((before - t0) / 10000) - 1;
    const int64_t high = static_cast<int64_t>((after - t0) / 10000) + 1;
    EXPECT_GE(static_cast<int64_t>(ticks), low);
    EXPECT_LE(static_cast<int64_t>(ticks), high);
    EXPECT_GE(ticks, 999u);
}

namespace {

struct Stall {
    std::atomic<bool> stalled{false};
    std::atomic<uint64_t> stallEnd{0};
    std::vector<uintptr_t> order;  // written by the tick task only
    std::vector<uint64_t> at;
};

void stallingSink(void* arg, MSGNAME, FSMADDR, FSMADDR, uintptr_t data)
{
    auto* s = static_cast<Stall*>(arg);
    if (!s->stalled.exchange(true)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        s->stallEnd = nowUs();
    }
    s->order.push_back(data);
    s->at.push_back(nowUs());
}

}  // namespace

/* A tick source held up for 300 ms (150 periods) at its first tick catches
 * up tick by tick: every timer due meanwhile fires, in order, in one burst,
 * and the count is back on time within a few periods, not 150 later. */
TEST(FsmTickSourceTest, FallingBehindCatchesUpWithoutSkippingExpiries)
{
    FsmSystem sys;
    TIMER_SYSTEM* ts = sys_getGlob()->Time->timerSystem;
    Stall stall;
    timerSystemSetExpirySink(ts, stallingSink, &stall);
    std::vector<TIMERBUF> timers(60);
    for (size_t i = 0; i < timers.size(); ++i) {
        sys_initTimer(&timers[i]);
        sys_startTimer(&timers[i], static_cast<uint32_t>(i + 1), GEN_timer_1, FSMADDR{ALPHA, 0}, i + 1);
    }
    sys_startSystemTimer();
    ASSERT_TRUE(sys_startTickSource(2));
    ASSERT_TRUE(waitFor([&] { return sys_getTimerTicks() >= 150; }, 5000));
    const uint64_t caughtUp = nowUs();
    sys_stopTickSource();
    std::vector<uintptr_t> expected;
    for (uintptr_t i = 1; i <= timers.size(); ++i) {
        expected.push_back(i);
    }
    ASSERT_EQ(expected, stall.order);
    // Paced at 2 ms a tick, timers 2..60 would take 116 ms and the count
    // 298 ms to get back; caught up, both take next to nothing.
    EXPECT_LT(stall.at.back() - stall.at[1], 60000u);
    EXPECT_LT(caughtUp - stall.stallEnd, 100000u);
    timerSystemSetExpirySink(ts, nullptr, nullptr);
}
