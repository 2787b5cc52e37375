/*
 * Self-test of the state-machine framework through the runner: the name
 * tables and lookups, buffers and their statistics and, when KVOS runs in
 * the process, two real FSM tasks playing ping-pong with a message that is
 * saved and offered again, then shut down without a buffer left.
 *
 * FSM tasks are KVOS tasks: without KVOS_init (the plain runner) the task
 * part is not run, and the unit says so.
 */
#include <string.h>

#include <atomic>
#include <sstream>
#include <string>

#include "abstraction/kvos.h"
#include "fsm/fsm.h"
#include "fsm/unittests.h"
#include "unittest/unittest.h"

namespace {

const char* const kUnitSpecies[] = {"UNIT_PING", "UNIT_PONG", nullptr};
constexpr SPECIE PING = FSM_MAKE_ID(FSMMOD_NONFSM, 0);
constexpr SPECIE PONG = FSM_MAKE_ID(FSMMOD_NONFSM, 1);
constexpr MSGNAME BALL = FSM_MAKE_ID(4, 1), LATER = FSM_MAKE_ID(4, 2), WAKE = FSM_MAKE_ID(4, 3);

FSM_SPECIE_BUFFER_STATS poolStats(SPECIE s)
{
    FSM_SPECIE_BUFFER_STATS out{};
    unittest_assert(fsm_getPoolStats(s, &out));
    return out;
}

void testNames()
{
    unittest_context("names");
    fsm_setProductSpecieNames(kUnitSpecies);
    sys_initFSMSystem(nullptr);
    unittest_assert(fsm_findSpecieFromName("fsm_timer") == FSM_TIMER);
    unittest_assert(fsm_findSpecieFromName("unit_pong") == PONG);
    unittest_assert(fsm_findMessageNameFromString("GEN_timer_1") == GEN_timer_1);
    unittest_assert(fsm_findMessageNameFromString("gen_timer_1") == NO_MSGNAME);
    unittest_assert(fsm_verifySpec(FSMSYS_FSM) && !fsm_verifySpec(FSMSYS_FSM + 1));
    unittest_assert(!fsm_verifySpec(0x00010000) && !fsm_verifySpec(0x00030000));
    unittest_assert(strcmp(fsm_getSpecName(NO_SPECIE), "NO_SPECIE") == 0);
    unittest_assert(strcmp(fsm_getMsgName(0x00070000), "**********") == 0);
    std::ostringstream os;
    os << FSMADDR{FSM_TIMER, 0} << ' ' << FSMADDR{FSM_TIMER, NO_IND};
    unittest_assert(os.str() == "FSM_TIMER:0 FSM_TIMER:NO_IND");
    fsm_procShutdown();
}

void testBuffers()
{
    unittest_context("buffers");
    const FSMSPECCONFIG config[] = {{PING, nullptr, 0, 1}, {NO_SPECIE, nullptr, 0, 0}};
    fsm_setProductSpecieNames(kUnitSpecies);
    sys_initFSMSystem(config);
    const FSMADDR dest{PING, 0};
    NORMBUF* sys = sys_getBuf(&dest, 10);
    unittest_assert(sys->MsgName == POOL_not_msg && sys->BodyLength == 10 && sys->Dest == dest);
    unittest_assert(sys->headerStartMagic == FSM_BUF_MAGIC && sys->headerEndMagic == FSM_BUF_MAGIC);
    unittest_assert(poolStats(NO_SPECIE).currentBufferCount == 1);

    PROC_DATA ping = *fsm_getDummyProcData();
    ping.ProcSELF = dest;
    NORMBUF* first = fsm_getBuf(&ping, 10);
    NORMBUF* second = fsm_getBuf(&ping, 30);
    fsm_returnMsgBuf(&ping, first);
    FSM_SPECIE_BUFFER_STATS s = poolStats(PING);
    unittest_assert(s.currentBufferCount == 1 && s.peakBufferCount == 2 && s.totalBufferCount == 2);
    unittest_assert(s.currentBufferSizeTotal == 30 && s.peakBufferSizeTotal == 40 && s.peakBufferSize == 30);

    // Another specie may not release it; any individual of PING may.
    PROC_DATA pong = *fsm_getDummyProcData();
    pong.ProcSELF = FSMADDR{PONG, 0};
    fsm_returnMsgBuf(&pong, second);
    unittest_assert(poolStats(PING).currentBufferCount == 1);
    ping.ProcSELF.Ind = 7;
    fsm_returnMsgBuf(&ping, second);
    fsm_returnMsgBuf(nullptr, sys);
    unittest_assert(poolStats(PING).currentBufferCount == 0 && poolStats(NO_SPECIE).currentBufferCount == 0);
    std::ostringstream report;
    fsm_streamPoolStats(report);
    unittest_assert(report.str().find("Fsm pool stats for fsm UNIT_PING:\n  Buffer-count:            0\n") !=
                    std::string::npos);
    fsm_procShutdown();
}

/* Ping-pong: PING (task 1) and PONG (task 2) bounce BALL, counting down in
 * its body. PONG saves LATER in state 0; WAKE moves it to state 1, which
 * offers LATER again. */
struct Ind {
    NORMBUF* saveQueue;
};
Ind gPingInd, gPongInd;
std::atomic<int> gBounces{0};
std::atomic<int> gLaterHandled{0};
std::atomic<bool> gDone{false};

int pingReset(PROC_DATA* p)
{
    p->pProcIndData = &gPingInd;
    NORMBUF* ball = fsm_getBuf(p, sizeof(uint32_t));
    const uint32_t count = 20;
    memcpy(fsm_msgBody(ball), &count, sizeof(count));
    fsm_sendMsg(p, BALL, FSMADDR{PONG, 0}, ball);
    fsm_sendMsg(p, LATER, FSMADDR{PONG, 0}, nullptr);
    return 0;
}

int pongReset(PROC_DATA* p)
{
    p->pProcIndData = &gPongInd;
    return 0;
}

int bounce(PROC_DATA* p)
{
    if (p->ProcMsgName == LATER) {
        // Offered again only once WAKE has moved PONG on.
        gLaterHandled.fetch_add(gDone ? 1 : 100);
        return 0;
    }
    if (p->ProcMsgName != BALL) {
        return 0;
    }
    uint32_t count = 0;
    memcpy(&count, fsm_msgBody(p->pProcMsg), sizeof(count));
    gBounces.fetch_add(1);
    if (count == 0) {
        fsm_sendMsg(p, WAKE, FSMADDR{PONG, 0}, nullptr);
        return 0;
    }
    --count;
    memcpy(fsm_msgBody(p->pProcMsg), &count, sizeof(count));
    fsm_sendMsg(p, BALL, p->ProcSENDER, p->pProcMsg);  // the same buffer goes back
    return 0;
}

int wake(PROC_DATA* p)
{
    gDone = true;
    (void)p;
    return 0;
}

const EXP_MSG kPing[] = {{ELSE_MSG, 0, 0}};
const EXP_MSG* const kPingStates[] = {kPing};
const EXP_MSG kPong0[] = {{WAKE, 1, 1}, {SAVE_MSG, 0, 0}, {LATER, 0, 0}, {ELSE_MSG, 0, 0}};
const EXP_MSG kPong1[] = {{ELSE_MSG, 1, 0}};
const EXP_MSG* const kPongStates[] = {kPong0, kPong1};

int pongTask(PROC_DATA* p)
{
    return p->ProcTask == 1 ? wake(p) : bounce(p);
}

SPEC_DESC gPingDesc{FSM_TYPE_STANDARD, kPingStates, 0, bounce, pingReset, nullptr, nullptr};
SPEC_DESC gPongDesc{FSM_TYPE_STANDARD, kPongStates, 1, pongTask, pongReset, nullptr, nullptr};

void testTasks()
{
    unittest_context("tasks");
    if (!KVOS_isInited()) {
        unittest_log(UNITTEST_MODE_STANDARD, "FSM tasks need KVOS_init: task checks not run");
        return;
    }
    FSMSPECCONFIG specs[] = {{PING, &gPingDesc, 1, 1}, {PONG, &gPongDesc, 2, 1}, {NO_SPECIE, nullptr, 0, 0}};
    FSMPROCCONFIG procs[] = {{1, "unitPingQ", 8, nullptr}, {2, "unitPongQ", 8, nullptr}};
    gBounces = 0;
    gLaterHandled = 0;
    gDone = false;
    fsm_setProductSpecieNames(kUnitSpecies);
    sys_initFSMSystem(specs);
    fsm_procSetup(procs, 2, specs);
    // LATER comes back only after PONG's new state is stored.
    for (int waited = 0; gLaterHandled.load() == 0 && waited < 5000; ++waited) {
        KVOS_msleep(1);
    }
    unittest_assert(gDone);
    unittest_assert(gBounces == 21);
    unittest_assert(gLaterHandled == 1);
    fsm_procShutdown();
    unittest_assert(poolStats(PING).currentBufferCount == 0);
    unittest_assert(poolStats(PING).totalBufferCount == 2);  // BALL and LATER
    unittest_assert(poolStats(PONG).totalBufferCount == 1);
    unittest_assert(poolStats(PONG).currentBufferCount == 0);
    unittest_assert(sys_getGlob()->fsmTasks == nullptr);
}

}  // namespace

void unittest_fsm(void)
{
    testNames();
    testBuffers();
    testTasks();
}
