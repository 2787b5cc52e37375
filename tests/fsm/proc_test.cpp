/* FSM tasks for real: set-up and the reset handshake, the task loop,
 * contexts, the dump, failures of set-up, and shutdown. */
#include <pthread.h>

#include <atomic>
#include <mutex>
#include <sstream>

#include "abstraction/kvos_seams.h"
#include "abstraction/kvos_task.h"
#include "support.h"

using namespace fsm_test;

namespace {

constexpr MSGNAME HELLO = msg(1), KEEP = msg(2), SAVE = msg(3);

std::mutex gLock;
std::vector<std::string> gTrace;

void note(const std::string& what)
{
    std::lock_guard<std::mutex> guard(gLock);
    gTrace.push_back(what);
}

std::vector<std::string> trace()
{
    std::lock_guard<std::mutex> guard(gLock);
    return gTrace;
}

std::string addr(const FSMADDR& a)
{
    std::ostringstream os;
    os << a;
    return os.str();
}

IndData gData[4][4];
int gSpecieShared;
PROC_DATA* gProcInReset[4];
void* gKeyValueInReset[4];

int resetJob(PROC_DATA* p)
{
    const unsigned s = FSM_ID_INDEX(p->ProcSELF.Spec);
    note("reset " + addr(p->ProcSELF));
    gProcInReset[s] = fsm_getProcData();
    gKeyValueInReset[s] = pthread_getspecific(static_cast<pthread_key_t>(KVOS_getProcdataKey()));
    p->pProcIndData = &gData[s][p->ProcSELF.Ind];
    p->pProcSpecData = &gSpecieShared;
    p->ProcNxtState = 0;
    if (p->ProcSELF.Spec == ALPHA && p->ProcSELF.Ind == 0) {
        fsm_sendMsg(p, HELLO, FSMADDR{ALPHA, 1}, nullptr);  // internal
    }
    if (p->ProcSELF.Spec == BETA && p->ProcSELF.Ind == 0 && fsm_getGlobalSpecieDesc(ALPHA)->pSpecDesc != nullptr) {
        KVOS_msleep(30);                                    // ALPHA waits for this
        fsm_sendMsg(p, HELLO, FSMADDR{ALPHA, 0}, nullptr);  // far
    }
    return 0;
}

NORMBUF* gKept = nullptr;
std::atomic<int> gArmQueueFailure{0};

int taskProc(PROC_DATA* p)
{
    note(std::string(p->ProcRecType == 'I' ? "internal " : "queue ") + addr(p->ProcSELF) + " from " +
         addr(p->ProcSENDER));
    if (p->ProcMsgName == KEEP) {
        gKept = p->pProcMsg;
        fsm_keepMsgBuf(p, p->pProcMsg);
        gArmQueueFailure.fetch_add(1);
    }
    return 0;
}

/* State 0 saves SAVE; everything else is handled without a change. */
const EXP_MSG kState0[] = {{SAVE_MSG, 0, 0}, {SAVE, 0, 0}, {ELSE_MSG, 0, 0}};
const EXP_MSG* const kStates[] = {kState0};
SPEC_DESC gDesc{FSM_TYPE_STANDARD, kStates, 0, taskProc, resetJob, nullptr, nullptr};
SPEC_DESC gNoReset{FSM_TYPE_STANDARD, kStates, 0, taskProc, nullptr, nullptr, nullptr};

/* Two tasks: ALPHA (3 individuals) on task 1, BETA (2) on task 2, DELTA
 * without a reset job on task 1, GAMMA on a task id nobody has. */
struct TwoTasks {
    explicit TwoTasks(std::vector<FSMSPECCONFIG> extra = {})
    {
        initOnce();
        {
            std::lock_guard<std::mutex> guard(gLock);
            gTrace.clear();
        }
        memset(gData, 0, sizeof(gData));
        specs = {{ALPHA, &gDesc, 1, 3}, {BETA, &gDesc, 2, 2}, {DELTA, &gNoReset, 1, 2}, {GAMMA, &gDesc, 99, 1}};
        specs.insert(specs.end(), extra.begin(), extra.end());
        specs.push_back({NO_SPECIE, nullptr, 0, 0});
        fsm_setProductSpecieNames(kTestSpecies);
        sys_initFSMSystem(specs.data());
        fsm_procSetup(procs, 2, specs.data());
    }
    ~TwoTasks() { fsm_procShutdown(); }
    FSMPROCCONFIG procs[2] = {{1, "alphaQ", 16, nullptr}, {2, "betaQ", 16, nullptr}};
    std::vector<FSMSPECCONFIG> specs;
};

bool traceHas(const std::string& line)
{
    auto t = trace();
    return std::find(t.begin(), t.end(), line) != t.end();
}

}  // namespace

TEST(FsmProcTest, EveryResetRunsBeforeAnyMessageAndResetMessagesComeFirst)
{
    TwoTasks fsm;
    ASSERT_TRUE(waitFor([] { return trace().size() >= 7; }));
    auto t = trace();
    ASSERT_EQ(7u, t.size());
    // Five resets (ALPHA 0..2, BETA 0..1) in some interleaving, then the
    // messages; DELTA has no reset job and GAMMA no task.
    for (size_t i = 0; i < 5; ++i) {
        EXPECT_EQ(0u, t[i].rfind("reset ", 0)) << t[i];
    }
    // ALPHA's task handles what its own reset sent internally before it
    // reads the message BETA's reset put on its queue.
    EXPECT_EQ("internal ALPHA:1 from ALPHA:0", t[5]);
    EXPECT_EQ("queue ALPHA:0 from BETA:0", t[6]);
    EXPECT_FALSE(traceHas("reset DELTA:0"));
    EXPECT_FALSE(traceHas("reset GAMMA:0"));
}

TEST(FsmProcTest, SetupBindsSpeciesAndKeepsWhatResetJobsHandOver)
{
    TwoTasks fsm;
    GLOB_DATA* glob = sys_getGlob();
    ASSERT_EQ(2u, glob->numberOfFsmTasks);
    EXPECT_EQ(1, glob->msg_queues_ready);
    const GLOB_SPEC_D* alpha = fsm_getGlobalSpecieDesc(ALPHA);
    const GLOB_SPEC_D* beta = fsm_getGlobalSpecieDesc(BETA);
    const GLOB_SPEC_D* delta = fsm_getGlobalSpecieDesc(DELTA);
    EXPECT_EQ(glob->fsmTasks[0].RtosQid, alpha->RtosQid);
    EXPECT_EQ(glob->fsmTasks[0].RtosQid, delta->RtosQid);
    EXPECT_EQ(glob->fsmTasks[1].RtosQid, beta->RtosQid);
    EXPECT_STREQ("alphaQ", glob->fsmTasks[0].RtosQid->name);
    EXPECT_EQ(16u, glob->fsmTasks[0].RtosQid->length);
    EXPECT_EQ(2u, alpha->HighInd);
    EXPECT_EQ(&gData[0][2], alpha->indInfoArray[2].pIndData);
    EXPECT_EQ(&gSpecieShared, alpha->specieData);
    EXPECT_EQ(nullptr, delta->indInfoArray[1].pIndData);
    EXPECT_EQ(nullptr, delta->specieData);
    EXPECT_EQ(0u, delta->stateArray[1]);
    // A specie whose task id no task entry has is never registered.
    EXPECT_EQ(nullptr, fsm_getGlobalSpecieDesc(GAMMA)->pSpecDesc);
    EXPECT_EQ(nullptr, fsm_getGlobalSpecieDesc(GAMMA)->RtosQid);

    // Each task's context is its thread's, in the table and under the key.
    EXPECT_EQ(&glob->fsmTasks[0].procData, gProcInReset[FSM_ID_INDEX(ALPHA)]);
    EXPECT_EQ(&glob->fsmTasks[1].procData, gProcInReset[FSM_ID_INDEX(BETA)]);
    EXPECT_EQ(&glob->fsmTasks[1].procData, gKeyValueInReset[FSM_ID_INDEX(BETA)]);
    EXPECT_EQ(&glob->fsmTasks[0].procData, fsm_getProcDataFromTID(glob->fsmTasks[0].RtosTid));
    EXPECT_EQ(nullptr, fsm_getProcData());  // not an FSM task
    EXPECT_EQ(nullptr, fsm_getProcDataFromTID(KVOS_taskID()));

    // Tasks without attributes are named after their queues.
    std::ostringstream tasks;
    KVOS_taskDump(tasks);
    EXPECT_NE(std::string::npos, tasks.str().find("alphaQ"));
    EXPECT_NE(std::string::npos, tasks.str().find("betaQ"));
}

TEST(FsmProcTest, DummyContextIsResetOnEveryCall)
{
    PROC_DATA* p = fsm_getDummyProcData();
    p->ProcSELF = FSMADDR{ALPHA, 1};
    p->returnBufToPool = true;
    PROC_DATA* again = fsm_getDummyProcData();
    EXPECT_EQ(p, again);
    EXPECT_EQ((FSMADDR{NO_SPECIE, NO_IND}), again->ProcSELF);
    EXPECT_EQ(NO_STATE, again->ProcNxtState);
    EXPECT_EQ(NO_MSGNAME, again->ProcMsgName);
    EXPECT_EQ(nullptr, again->pProcMsg);
    EXPECT_FALSE(again->returnBufToPool);
}

TEST(FsmProcTest, DumpListsEveryTask)
{
    initOnce();
    static const FSMPROCCONFIG procs[] = {{1, "alphaQ", 8, nullptr}, {3, "idleQ", 8, nullptr}};
    std::vector<FSMSPECCONFIG> specs = {{ALPHA, &gDesc, 1, 3}, {NO_SPECIE, nullptr, 0, 0}};
    fsm_setProductSpecieNames(kTestSpecies);
    sys_initFSMSystem(specs.data());
    fsm_procSetup(const_cast<FSMPROCCONFIG*>(procs), 2, specs.data());
    ASSERT_TRUE(waitFor([] { return traceHas("internal ALPHA:1 from ALPHA:0"); }));
    GLOB_DATA* glob = sys_getGlob();
    char expected[256];
    snprintf(expected, sizeof(expected),
             "\n*** Dumping proc start\n%p: ALPHA-1 message ********** from ALPHA-0\n%p: no proc data\n"
             "*** Dumping proc end\n",
             static_cast<void*>(&glob->fsmTasks[0].procData), static_cast<void*>(&glob->fsmTasks[1].procData));
    std::ostringstream os;
    fsm_dumpAllProc(os);
    EXPECT_EQ(expected, os.str());
    fsm_procShutdown();
}

TEST(FsmProcTest, SetupProblemsAreLoggedAndSetupGoesOn)
{
    LogCapture log;
    TwoTasks fsm({{ALPHA, &gDesc, 2, 1}, {0x00030000, &gDesc, 1, 1}});
    EXPECT_EQ(1u, log.count("ERROR Detail=\"Failed to register fsm specie. Specie id is already registered\" "
                            "Spec=\"ALPHA\" Self=\"NO_SPECIE:NO_IND\""))
        << log.text();
    EXPECT_EQ(1u, log.count("ERROR Detail=\"Failed to verify specie. Specie is not allocated\" Spec=\"0x00030000\""));
    EXPECT_EQ(1u, log.count("INFO Detail=\"Initialize data structures\""));
    EXPECT_EQ(1u, log.count("INFO Detail=\"Create all FSM tasks\" numTasks=\"2\""));
    EXPECT_EQ(1u, log.count("DEBUG Detail=\"Signal tasks to run resetTask\""));
    EXPECT_EQ(1u, log.count("DEBUG Detail=\"wait for resetTask(s) to finish\""));
    EXPECT_EQ(1u, log.count("DEBUG Detail=\"Signal tasks that operation can start\""));
    EXPECT_EQ(5u, log.count("DEBUG Detail=\"Starting resetTask\""));
    EXPECT_EQ(5u, log.count("DEBUG Detail=\"Completed resetTask\""));
    EXPECT_EQ(fsm_getGlobalSpecieDesc(ALPHA)->RtosQid, sys_getGlob()->fsmTasks[0].RtosQid);
}

namespace {
std::atomic<int> gFailContexts{0};
void* (*gRealContextAlloc)(size_t) = nullptr;
}  // namespace

TEST(FsmProcTest, ATaskThatCannotBeCreatedLeavesItsSpeciesWithoutAQueue)
{
    initOnce();
    gRealContextAlloc = kvos_syscalls().contextAlloc.load();
    kvos_syscalls().contextAlloc = [](size_t n) -> void* {
        return gFailContexts.fetch_sub(1) > 0 ? nullptr : gRealContextAlloc(n);
    };
    gFailContexts = 1;  // the first task
    LogCapture log;
    {
        TwoTasks fsm;
        kvos_syscalls().contextAlloc = gRealContextAlloc;
        EXPECT_EQ(1u, log.count("ERROR Detail=\"Unable to create FSM task\" Fsm-task-id=\"1\" Queue=\"alphaQ\""))
            << log.text();
        GLOB_DATA* glob = sys_getGlob();
        EXPECT_EQ(KVOS_NO_TASK_ID, glob->fsmTasks[0].RtosTid);
        EXPECT_EQ(KVOS_NO_PTRQ_ID, glob->fsmTasks[0].RtosQid);
        EXPECT_EQ(nullptr, fsm_getGlobalSpecieDesc(ALPHA)->pSpecDesc);
        EXPECT_NE(nullptr, fsm_getGlobalSpecieDesc(BETA)->pSpecDesc);
        // The other task runs; messages to ALPHA are refused and stay with
        // the sender.
        EXPECT_TRUE(waitFor([] { return traceHas("reset BETA:1"); }));
        const FSMADDR beta{BETA, 0};
        NORMBUF* b = sys_getBuf(&beta, 0);
        sys_sendFarMsg(HELLO, FSMADDR{ALPHA, 0}, beta, b);
        EXPECT_TRUE(log.contains("Failed to send fsm message. Invalid destination address"));
        EXPECT_EQ(1u, stats(NO_SPECIE).currentBufferCount);
        fsm_returnMsgBuf(nullptr, b);
        sys_sendFarMsg(HELLO, beta, beta, nullptr);
        EXPECT_TRUE(waitFor([] { return traceHas("queue BETA:0 from BETA:0"); }));
        std::ostringstream dump;
        fsm_dumpAllProc(dump);
        EXPECT_NE(std::string::npos, dump.str().find(": no proc data\n"));
    }
    kvos_syscalls().contextAlloc = gRealContextAlloc;
    EXPECT_EQ(0u, stats(NO_SPECIE).currentBufferCount);
}

TEST(FsmProcTest, ShutdownStopsTheTasksAndReleasesSavedMessages)
{
    initOnce();
    size_t tasksBefore = kvos_taskListSize();
    int queuesBefore = 0;
    for (int cycle = 0; cycle < 3; ++cycle) {
        SCOPED_TRACE(cycle);
        KVOS_TASK_ID tids[2];
        {
            TwoTasks fsm;
            tids[0] = sys_getGlob()->fsmTasks[0].RtosTid;
            tids[1] = sys_getGlob()->fsmTasks[1].RtosTid;
            EXPECT_TRUE(kvos_taskIsListed(tids[0]));
            for (uint32_t i = 0; i < 5; ++i) {
                sys_sendFarMsg(SAVE, FSMADDR{ALPHA, i % 3}, FSMADDR{NO_SPECIE, NO_IND}, nullptr);
            }
            sys_sendFarMsg(HELLO, FSMADDR{BETA, 1}, FSMADDR{NO_SPECIE, NO_IND}, nullptr);
            // Handled behind the saves on the same queue: once it shows,
            // ALPHA's task has done with them.
            sys_sendFarMsg(HELLO, FSMADDR{ALPHA, 2}, FSMADDR{NO_SPECIE, NO_IND}, nullptr);
            ASSERT_TRUE(waitFor([] { return traceHas("queue ALPHA:2 from NO_SPECIE:NO_IND"); }));
            EXPECT_EQ(2u, fsm_saveQueueLength(&gData[FSM_ID_INDEX(ALPHA)][0]));
            EXPECT_EQ(2u, fsm_saveQueueLength(&gData[FSM_ID_INDEX(ALPHA)][1]));
            EXPECT_EQ(1u, fsm_saveQueueLength(&gData[FSM_ID_INDEX(ALPHA)][2]));
            if (cycle == 0) {
                queuesBefore = kvos_ptrq_registry_slot(sys_getGlob()->fsmTasks[0].RtosQid);
            }
        }
        EXPECT_FALSE(kvos_taskIsListed(tids[0]));
        EXPECT_FALSE(kvos_taskIsListed(tids[1]));
        EXPECT_EQ(tasksBefore, kvos_taskListSize());
        EXPECT_EQ(nullptr, sys_getGlob()->fsmTasks);
        EXPECT_EQ(0u, sys_getGlob()->numberOfFsmTasks);
        EXPECT_EQ(NO_SPECIE, fsm_firstSpec());
        EXPECT_EQ(0u, fsm_saveQueueLength(&gData[FSM_ID_INDEX(ALPHA)][0]));
        // Statistics stay readable: every buffer came back.
        EXPECT_EQ(0u, stats(NO_SPECIE).currentBufferCount);
        EXPECT_EQ(7u, stats(NO_SPECIE).totalBufferCount);
        EXPECT_EQ(0u, stats(ALPHA).currentBufferCount);
        EXPECT_EQ(1u, stats(ALPHA).totalBufferCount);  // the reset's internal message
        std::ostringstream report;
        fsm_streamPoolStats(report);
        EXPECT_EQ(std::string::npos, report.str().find("Buffer-count:            1"));
    }
    EXPECT_GE(queuesBefore, 0);
}

namespace {
int (*gRealCondWait)(pthread_cond_t*, pthread_mutex_t*) = nullptr;
std::atomic<pthread_cond_t*> gFailCond{nullptr};
}  // namespace

TEST(FsmProcTest, AFailedQueueReadInterpretsThePreviousMessageAgain)
{
    TwoTasks fsm;
    ASSERT_TRUE(waitFor([] { return trace().size() >= 7; }));
    KVOS_PTRQ_ID alphaQ = sys_getGlob()->fsmTasks[0].RtosQid;
    gRealCondWait = kvos_syscalls().condWait.load();
    gFailCond = &alphaQ->notEmpty;
    gArmQueueFailure = 0;
    kvos_syscalls().condWait = [](pthread_cond_t* c, pthread_mutex_t* m) -> int {
        if (c == gFailCond.load() && gArmQueueFailure.load() == 1) {
            gArmQueueFailure = 2;  // once
            return EINVAL;
        }
        return gRealCondWait(c, m);
    };
    LogCapture log;
    sys_sendFarMsg(KEEP, FSMADDR{ALPHA, 2}, FSMADDR{BETA, 0}, nullptr);
    // The machine kept the message, so the stale pointer is still a live
    // buffer: the kept message is handed to the job a second time.
    EXPECT_TRUE(waitFor([] { return gArmQueueFailure.load() >= 3; }));
    kvos_syscalls().condWait = gRealCondWait;
    EXPECT_EQ(1u, log.count("ERROR Detail=\"Error processing main fsm message queue\" Self=\"ALPHA:2\""))
        << log.text();
    EXPECT_TRUE(log.contains("Last-error=\"Invalid argument\""));
    auto t = trace();
    EXPECT_EQ(2, std::count(t.begin(), t.end(), "queue ALPHA:2 from BETA:0"));
    PROC_DATA owner = *fsm_getDummyProcData();
    owner.ProcSELF = FSMADDR{ALPHA, 2};
    fsm_returnMsgBuf(&owner, gKept);
}
