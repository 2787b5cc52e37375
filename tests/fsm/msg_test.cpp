/* Sending, receiving, keeping, saving and re-delivery, driven from the test
 * thread through the harness. */
#include "harness.h"

using namespace fsm_test;

namespace {

constexpr MSGNAME X = msg(1);  // moves to the next state
constexpr MSGNAME A = msg(2), B = msg(3), C = msg(4), P = msg(5), I = msg(6), Q = msg(7);

/* Every message handled in one state (0), by task 0. */
const EXP_MSG kAny[] = {{ELSE_MSG, 0, 0}};
const EXP_MSG* const kAnyStates[] = {kAny};
SPEC_DESC gAnyDesc{FSM_TYPE_STANDARD, kAnyStates, 0, Harness::job, nullptr, nullptr, nullptr};

/* State 0 saves A, B, C and Q; X moves to 1. State 1 saves B again and
 * handles everything else; X moves to 2. State 2 handles everything. */
const EXP_MSG kSave0[] = {{X, 1, 1}, {SAVE_MSG, 0, 0}, {A, 0, 0}, {B, 0, 0}, {C, 0, 0}, {Q, 0, 0}, {ELSE_MSG, 0, 0}};
const EXP_MSG kSave1[] = {{X, 2, 1}, {SAVE_MSG, 0, 0}, {B, 0, 0}, {ELSE_MSG, 1, 0}};
const EXP_MSG kSave2[] = {{ELSE_MSG, 2, 0}};
const EXP_MSG* const kSaveStates[] = {kSave0, kSave1, kSave2};
SPEC_DESC gSaveDesc{FSM_TYPE_STANDARD, kSaveStates, 2, Harness::job, nullptr, nullptr, nullptr};

std::vector<MSGNAME> names(const std::vector<Event>& events)
{
    std::vector<MSGNAME> out;
    for (const Event& e : events) {
        out.push_back(e.msg);
    }
    return out;
}

NORMBUF* withSeq(PROC_DATA* p, uint32_t seq)
{
    NORMBUF* b = fsm_getBuf(p, sizeof(seq));
    memcpy(fsm_msgBody(b), &seq, sizeof(seq));
    return b;
}

}  // namespace

TEST(FsmMsgTest, SelfMessagesOvertakeEverythingTheLastOneFirst)
{
    Harness h;
    h.add(ALPHA, &gAnyDesc, 2, h.taskQ, nullptr);
    h.hook = [](PROC_DATA* p) {
        if (p->ProcMsgName == X) {
            fsm_sendMsg(p, I, FSMADDR{ALPHA, 1}, withSeq(p, 10));
            fsm_sendMsg(p, P, p->ProcSELF, withSeq(p, 1));
            fsm_sendMsg(p, P, p->ProcSELF, withSeq(p, 2));
            fsm_sendMsg(p, I, FSMADDR{ALPHA, 1}, withSeq(p, 11));
        }
    };
    h.deliver(X, {ALPHA, 0});
    ASSERT_EQ(5u, h.events.size());
    EXPECT_EQ((std::vector<uint32_t>{0, 2, 1, 10, 11}), h.seqs(NO_MSGNAME));
    EXPECT_EQ(' ', h.events[0].recType);
    for (size_t i = 1; i < 5; ++i) {
        EXPECT_EQ('I', h.events[i].recType);
        EXPECT_EQ((FSMADDR{ALPHA, 0}), h.events[i].sender);
    }
    EXPECT_EQ((FSMADDR{ALPHA, 1}), h.events[3].self);
    EXPECT_EQ(nullptr, h.proc.pProcIntMsg);
    EXPECT_EQ(nullptr, h.proc.pProcLastIntMsg);
    EXPECT_EQ(0u, stats(ALPHA).currentBufferCount);
    EXPECT_EQ(4u, stats(ALPHA).totalBufferCount);
    EXPECT_EQ(0u, stats(NO_SPECIE).currentBufferCount);
}

TEST(FsmMsgTest, ExplicitPriorityAndSpeciesOfOneTaskStayInternal)
{
    Harness h;
    h.add(ALPHA, &gAnyDesc, 1, h.taskQ, nullptr);
    h.add(BETA, &gAnyDesc, 1, h.taskQ, nullptr);
    h.add(GAMMA, &gAnyDesc, 1, h.otherQ, nullptr);
    h.hook = [](PROC_DATA* p) {
        if (p->ProcSELF.Spec == ALPHA) {
            fsm_sendMsg(p, A, FSMADDR{BETA, 0}, withSeq(p, 1));
            fsm_sendMsgWithPriority(p, B, FSMADDR{BETA, 0}, withSeq(p, 2), true);
            fsm_sendMsg(p, C, FSMADDR{GAMMA, 0}, withSeq(p, 3));  // another task: far
        }
    };
    h.deliver(X, {ALPHA, 0});
    EXPECT_EQ((std::vector<MSGNAME>{X, B, A}), names(h.events));
    void* far = nullptr;
    ASSERT_EQ(1, KVOS_ptrqCheck(h.otherQ, &far));
    auto* b = static_cast<NORMBUF*>(far);
    EXPECT_EQ(C, b->MsgName);
    EXPECT_EQ((FSMADDR{GAMMA, 0}), b->Dest);
    EXPECT_EQ((FSMADDR{ALPHA, 0}), b->Source);
    EXPECT_EQ((FSMADDR{ALPHA, 0}), b->Allocator);
    sys_interpretMsg(&h.proc, b);
    EXPECT_EQ((FSMADDR{GAMMA, 0}), h.events.back().self);
    EXPECT_EQ(0u, stats(ALPHA).currentBufferCount);
}

TEST(FsmMsgTest, ANullBufferSendsABodylessMessage)
{
    Harness h;
    h.add(ALPHA, &gAnyDesc, 2, h.taskQ, nullptr);
    h.add(GAMMA, &gAnyDesc, 1, h.otherQ, nullptr);
    static uint32_t seenLength;
    h.hook = [](PROC_DATA* p) {
        if (p->ProcMsgName == X) {
            fsm_sendMsg(p, A, FSMADDR{ALPHA, 1}, nullptr);
        } else if (p->ProcMsgName == A) {
            seenLength = p->pProcMsg->BodyLength;
        }
    };
    seenLength = 99;
    h.deliver(X, {ALPHA, 0});
    EXPECT_EQ(0u, seenLength);
    sys_sendFarMsg(B, FSMADDR{GAMMA, 0}, FSMADDR{ALPHA, 0}, nullptr);
    void* far = nullptr;
    ASSERT_EQ(1, KVOS_ptrqCheck(h.otherQ, &far));
    EXPECT_EQ(0u, static_cast<NORMBUF*>(far)->BodyLength);
    EXPECT_EQ((FSMADDR{NO_SPECIE, NO_IND}), static_cast<NORMBUF*>(far)->Allocator);
    fsm_returnMsgBuf(nullptr, static_cast<NORMBUF*>(far));
}

TEST(FsmMsgTest, ForwardingKeepingAndTheirMisuse)
{
    Harness h;
    h.add(ALPHA, &gAnyDesc, 1, h.taskQ, nullptr);
    h.add(BETA, &gAnyDesc, 1, h.taskQ, nullptr);
    static NORMBUF* kept;
    static bool flagAfterForward;
    kept = nullptr;
    h.hook = [](PROC_DATA* p) {
        if (p->ProcSELF.Spec != ALPHA) {
            return;
        }
        if (p->ProcMsgName == A) {  // forward: the framework lets go of it
            fsm_sendMsg(p, A, FSMADDR{BETA, 0}, p->pProcMsg);
            flagAfterForward = p->returnBufToPool;
        } else if (p->ProcMsgName == B) {  // keep, then forward
            NORMBUF* m = p->pProcMsg;
            fsm_keepMsgBuf(p, m);
            fsm_sendMsg(p, B, FSMADDR{BETA, 0}, m);
        } else if (p->ProcMsgName == C) {  // keep twice, and keep a stranger
            kept = p->pProcMsg;
            fsm_keepMsgBuf(p, kept);
            fsm_keepMsgBuf(p, kept);
        } else if (p->ProcMsgName == Q) {
            NORMBUF* stranger = fsm_getBuf(p, 0);
            fsm_keepMsgBuf(p, stranger);
            fsm_returnMsgBuf(p, stranger);
        }
    };
    {
        LogCapture log;
        flagAfterForward = true;
        h.deliver(A, {ALPHA, 0}, 7);
        EXPECT_FALSE(flagAfterForward);
        EXPECT_EQ((std::vector<uint32_t>{7, 7}), h.seqs(A));
        EXPECT_EQ(0u, log.count("ERROR"));
        EXPECT_EQ(0u, stats(NO_SPECIE).currentBufferCount);
    }
    {
        LogCapture log;
        h.deliver(B, {ALPHA, 0}, 8);
        EXPECT_EQ(1u, log.count("ERROR Detail=\"Input buffer + sent twice, or after call to keepMsgBuf\" Self=\"ALPHA:0\""))
            << log.text();
        EXPECT_EQ((std::vector<uint32_t>{8, 8}), h.seqs(B));
        EXPECT_EQ(0u, stats(NO_SPECIE).currentBufferCount);
    }
    {
        LogCapture log;
        h.deliver(C, {ALPHA, 0}, 9);
        EXPECT_EQ(1u, log.count("Failed to keep fsm message buffer. Buffer already sent or keepMsgBuf called twice"));
        EXPECT_EQ(1u, stats(NO_SPECIE).currentBufferCount);  // the machine owns it now
        PROC_DATA owner = *fsm_getDummyProcData();
        owner.ProcSELF = FSMADDR{ALPHA, 0};
        fsm_returnMsgBuf(&owner, kept);
        EXPECT_EQ(0u, stats(NO_SPECIE).currentBufferCount);
    }
    {
        LogCapture log;
        h.deliver(Q, {ALPHA, 0});
        EXPECT_EQ(1u, log.count("ERROR Detail=\"Failed to keep fsm message buffer. Fsm message is not the message "
                                "currently being processed by the fsm system\""));
        // Ownership unchanged: the framework still released the message.
        EXPECT_EQ(0u, stats(NO_SPECIE).currentBufferCount);
        EXPECT_EQ(0u, stats(ALPHA).currentBufferCount);
    }
}

TEST(FsmMsgTest, SendingMisuseIsLoggedAndTheSendGoesOn)
{
    Harness h;
    h.add(ALPHA, &gAnyDesc, 2, h.taskQ, nullptr);
    h.add(BETA, &gAnyDesc, 1, h.taskQ, nullptr);
    h.hook = [](PROC_DATA* p) {
        if (p->ProcMsgName == X) {
            NORMBUF* foreign = fsm_getBuf(p, 0);
            foreign->Dest = FSMADDR{BETA, 0};  // someone else's
            fsm_sendMsg(p, A, FSMADDR{ALPHA, 1}, foreign);
        }
    };
    LogCapture log;
    h.deliver(X, {ALPHA, 0});
    EXPECT_EQ(1u, log.count("ERROR Detail=\"Sending fsm message buffer that someone else has manipulated\""));
    EXPECT_EQ((std::vector<MSGNAME>{X, A}), names(h.events));
    EXPECT_EQ(0u, stats(ALPHA).currentBufferCount);
}

TEST(FsmMsgTest, InvalidDestinationsLeaveTheBufferWithTheCaller)
{
    Harness h;
    h.add(ALPHA, &gAnyDesc, 1, h.taskQ, nullptr);
    h.add(DELTA, &gAnyDesc, 1, nullptr, nullptr);  // present, but no task
    static NORMBUF* own;
    h.hook = [](PROC_DATA* p) {
        own = fsm_getBuf(p, 0);
        fsm_sendMsg(p, A, FSMADDR{ALPHA, 5}, own);        // above HighInd
        fsm_sendMsg(p, A, FSMADDR{BETA, 0}, p->pProcMsg);  // no description
    };
    {
        LogCapture log;
        h.deliver(X, {ALPHA, 0});
        EXPECT_EQ(2u, log.count("ERROR Detail=\"Failed to send fsm message. Invalid destination address\""));
        EXPECT_EQ(1u, log.count("Invalid fsm address. Individ number is too high"));
        EXPECT_EQ(1u, log.count("Invalid fsm address. Specie description is invalid"));
        // The message being handled was still released after the job; the
        // other buffer is the job's.
        EXPECT_EQ(0u, stats(NO_SPECIE).currentBufferCount);
        EXPECT_EQ(1u, stats(ALPHA).currentBufferCount);
        EXPECT_EQ(1u, h.events.size());
    }
    PROC_DATA owner = *fsm_getDummyProcData();
    owner.ProcSELF = FSMADDR{ALPHA, 0};
    fsm_returnMsgBuf(&owner, own);

    LogCapture log;
    NORMBUF* b = Harness::make(A, {ALPHA, 0}, 0);
    sys_sendFarMsg(A, FSMADDR{0x00030000, 0}, FSMADDR{ALPHA, 0}, b);
    EXPECT_TRUE(log.contains("ERROR Detail=\"Failed to send fsm message. Invalid destination address\" "
                             "Msg-name=\"**********\" Src-fsm-addr=\"ALPHA:0\" Dst-fsm-addr=\"***:0\""))
        << log.text();
    EXPECT_EQ(1u, stats(NO_SPECIE).currentBufferCount);
    // A specie without a queue: logged, and the buffer is released.
    sys_sendFarMsg(A, FSMADDR{DELTA, 0}, FSMADDR{ALPHA, 0}, b);
    EXPECT_TRUE(log.contains("ERROR Detail=\"Failed to send fsm message. No queue for destination specie\" "
                             "Msg-name=\"**********\" Src-fsm-addr=\"ALPHA:0\" Dst-fsm-addr=\"DELTA:0\""));
    EXPECT_EQ(0u, stats(NO_SPECIE).currentBufferCount);
}

TEST(FsmMsgTest, MessagesThatCannotBeDecodedAreLoggedAndReleased)
{
    Harness h;
    static const EXP_MSG* const noTable[] = {nullptr};
    SPEC_DESC broken{FSM_TYPE_STANDARD, noTable, 0, Harness::job, nullptr, nullptr, nullptr};
    h.add(ALPHA, &gAnyDesc, 2, h.taskQ, nullptr);
    h.add(BETA, &broken, 1, h.taskQ, nullptr);
    GLOB_SPEC_D* alpha = fsm_getGlobalSpecieDesc(ALPHA);
    alpha->stateArray[1] = 1;  // above HighState 0
    const struct {
        FSMADDR dest;
        const char* detail;
    } cases[] = {
        {{EPSILON, 0}, "Failed to decode fsm message. Destination specie was not in this process msg"},
        {{ALPHA, 2}, "Failed to decode fsm message. Individ number is too high"},
        {{ALPHA, 1}, "Failed to decode fsm message. Fsm is in illegal state"},
        {{BETA, 0}, "Failed to decode fsm message. Fsm is in illegal state"},
    };
    for (const auto& c : cases) {
        LogCapture log;
        h.deliver(A, c.dest);
        EXPECT_EQ(1u, log.count(std::string("ERROR Detail=\"") + c.detail + "\"")) << log.text();
        EXPECT_EQ(0u, stats(NO_SPECIE).currentBufferCount);
    }
    EXPECT_TRUE(h.events.empty());
    EXPECT_EQ(1u, alpha->stateArray[1]);
}

TEST(FsmMsgTest, TheThirtyThirdSaveIsRefusedAndReleased)
{
    std::vector<IndData> data(1);
    Harness h;
    h.add(ALPHA, &gSaveDesc, 1, h.taskQ, &data);
    LogCapture log;
    for (uint32_t i = 0; i < 32; ++i) {
        h.deliver(Q, {ALPHA, 0}, i);
    }
    EXPECT_EQ(32u, fsm_saveQueueLength(&data[0]));
    EXPECT_EQ(0u, log.count("Save queue too long"));
    EXPECT_EQ(32u, log.count("DEBUG Detail=\"Saving fsm message buffer\""));
    h.deliver(Q, {ALPHA, 0}, 32);
    EXPECT_EQ(1u, log.count("ERROR Detail=\"Failed to save fsm message buffer. Save queue too long\" "
                            "Queue-length=\"32\""))
        << log.text();
    EXPECT_EQ(32u, fsm_saveQueueLength(&data[0]));
    EXPECT_EQ(32u, stats(NO_SPECIE).currentBufferCount);
    EXPECT_TRUE(h.events.empty());

    // A change of state offers all 32 again, in the order they were saved.
    h.deliver(X, {ALPHA, 0}, 100);
    std::vector<uint32_t> expected{100};
    for (uint32_t i = 0; i < 32; ++i) {
        expected.push_back(i);
    }
    EXPECT_EQ(expected, h.seqs(NO_MSGNAME));
    EXPECT_EQ(0u, fsm_saveQueueLength(&data[0]));
    EXPECT_EQ(0u, stats(NO_SPECIE).currentBufferCount);
}

TEST(FsmMsgTest, SavedMessagesComeBackFirstInOrderAndSavedAgainKeepTheirOrder)
{
    std::vector<IndData> data(2);
    Harness h;
    h.add(ALPHA, &gSaveDesc, 2, h.taskQ, &data);
    h.hook = [](PROC_DATA* p) {
        if (p->ProcMsgName == X && p->ProcSELF.Ind == 0 && p->ProcState == 0) {
            // Sent by the job that changes the state: these wait behind the
            // saved messages.
            fsm_sendMsg(p, I, FSMADDR{ALPHA, 1}, withSeq(p, 50));
            fsm_sendMsg(p, P, p->ProcSELF, withSeq(p, 51));
        }
    };
    h.deliver(A, {ALPHA, 0}, 1);
    h.deliver(B, {ALPHA, 0}, 2);
    h.deliver(C, {ALPHA, 0}, 3);
    h.deliver(B, {ALPHA, 0}, 4);
    h.deliver(A, {ALPHA, 1}, 5);  // another individual's queue is its own
    EXPECT_EQ(4u, fsm_saveQueueLength(&data[0]));
    EXPECT_EQ(1u, fsm_saveQueueLength(&data[1]));

    h.deliver(X, {ALPHA, 0}, 10);
    // State 1: A and C handled, both B saved again; then the job's own
    // messages (self first: it is a priority send).
    EXPECT_EQ((std::vector<uint32_t>{10, 1, 3, 51, 50}), h.seqs(NO_MSGNAME));
    EXPECT_EQ(1u, h.events[1].state);
    EXPECT_EQ('I', h.events[1].recType);
    EXPECT_EQ(2u, fsm_saveQueueLength(&data[0]));
    EXPECT_EQ(1u, fsm_saveQueueLength(&data[1]));  // untouched
    EXPECT_EQ(1u, fsm_getGlobalSpecieDesc(ALPHA)->stateArray[0]);

    h.events.clear();
    h.deliver(X, {ALPHA, 0}, 11);
    EXPECT_EQ((std::vector<uint32_t>{11, 2, 4}), h.seqs(NO_MSGNAME));
    EXPECT_EQ(2u, fsm_getGlobalSpecieDesc(ALPHA)->stateArray[0]);
    EXPECT_EQ(0u, fsm_saveQueueLength(&data[0]));

    // Saving again without a change of state offers nothing.
    h.events.clear();
    h.deliver(A, {ALPHA, 1}, 6);
    EXPECT_EQ(2u, fsm_saveQueueLength(&data[1]));
    EXPECT_TRUE(h.events.empty());
    EXPECT_EQ(2u, stats(NO_SPECIE).currentBufferCount);
    // Shutdown releases what is still saved.
}

TEST(FsmMsgTest, AnIndividualWithoutDataCannotSave)
{
    Harness h;
    h.add(ALPHA, &gSaveDesc, 1, h.taskQ, nullptr);
    LogCapture log;
    h.deliver(A, {ALPHA, 0});
    EXPECT_EQ(1u, log.count("ERROR Detail=\"Failed to save fsm message buffer. Individual has no data\""));
    EXPECT_EQ(0u, stats(NO_SPECIE).currentBufferCount);
}

namespace {

int trivialIdle(PROC_DATA* p)
{
    Harness::job(p);
    if (p->ProcMsgName == X) {
        p->ProcNxtState = 1;
    } else if (p->ProcMsgName == A) {
        p->bProcSaveMsg = true;
    }
    return 0;
}

int trivialBusy(PROC_DATA* p)
{
    Harness::job(p);
    if (p->ProcMsgName == B) {
        p->ProcNxtState = 2;  // no record: every later message is refused
    }
    return 0;
}

const STATE_NAME kTrivialStates[] = {{trivialIdle, "IDLE"}, {trivialBusy, "BUSY"}, {nullptr, ""}};
SPEC_DESC gTrivialDesc{FSM_TYPE_TRIVIAL, nullptr, 2, nullptr, nullptr, kTrivialStates, nullptr};

}  // namespace

TEST(FsmMsgTest, TrivialMachinesRunTheJobOfTheirStateAndSaveOnRequest)
{
    std::vector<IndData> data(1);
    Harness h;
    h.add(ZETA, &gTrivialDesc, 1, h.taskQ, &data);
    h.deliver(A, {ZETA, 0}, 1);
    h.deliver(C, {ZETA, 0}, 2);
    EXPECT_EQ(1u, fsm_saveQueueLength(&data[0]));
    h.deliver(X, {ZETA, 0}, 3);
    ASSERT_EQ(4u, h.events.size());
    EXPECT_EQ((std::vector<uint32_t>{1, 2, 3, 1}), h.seqs(NO_MSGNAME));
    EXPECT_EQ(1u, h.events[3].state);  // re-delivered to the BUSY job
    EXPECT_EQ(0u, fsm_saveQueueLength(&data[0]));
    EXPECT_EQ("BUSY", fsm_getJobName(&gTrivialDesc, trivialBusy));
    EXPECT_NE(std::string::npos, fsm_getJobName(&gTrivialDesc, Harness::job).find("0x"));

    h.deliver(B, {ZETA, 0}, 4);
    EXPECT_EQ(2u, fsm_getGlobalSpecieDesc(ZETA)->stateArray[0]);
    LogCapture log;
    h.deliver(C, {ZETA, 0}, 5);
    EXPECT_EQ(1u, log.count("Failed to decode fsm message. Fsm is in illegal state"));
    EXPECT_EQ(5u, h.events.size());
    EXPECT_EQ(0u, stats(NO_SPECIE).currentBufferCount);
}

TEST(FsmMsgTest, TracingFlagsFollowTheTracedIndividual)
{
    Harness h;
    GLOB_SPEC_D* d = h.add(ALPHA, &gAnyDesc, 3, h.taskQ, nullptr);
    static std::vector<uint16_t> flags;
    flags.clear();
    h.hook = [](PROC_DATA* p) { flags.push_back(p->procTestFlags); };
    d->testFlags = TraceReceive | Trace3;
    const struct {
        uint16_t traceInd;
        IND_NO ind;
        uint16_t expected;
    } cases[] = {{0, 0, TraceReceive | Trace3}, {0, 2, TraceReceive | Trace3}, {2, 1, TraceReceive | Trace3},
                 {2, 2, 0},                     {2, 0, 0},                     {3, 2, TraceReceive | Trace3}};
    for (const auto& c : cases) {
        d->traceInd = c.traceInd;
        h.deliver(A, {ALPHA, c.ind});
        EXPECT_EQ(c.expected, flags.back()) << "traceInd " << c.traceInd << " ind " << c.ind;
    }
}

TEST(FsmMsgTest, ASlowJobIsReportedButNotInterrupted)
{
    Harness h;
    h.add(ALPHA, &gAnyDesc, 1, h.taskQ, nullptr);
    h.hook = [](PROC_DATA*) { KVOS_msleep(2050); };
    LogCapture log;
    h.deliver(A, {ALPHA, 0});
    EXPECT_EQ(1u, log.count("ERROR Detail=\"Took 2 secs to process FSM message \" Self=\"ALPHA:0\""))
        << log.text();
    EXPECT_EQ(1u, h.events.size());
}

TEST(FsmMsgTest, ResendingTheInternalHeadIsLogged)
{
    Harness h;
    h.add(ALPHA, &gAnyDesc, 2, h.taskQ, nullptr);
    h.hook = [](PROC_DATA* p) {
        if (p->ProcMsgName == X) {
            NORMBUF* b = withSeq(p, 1);
            fsm_sendMsg(p, A, FSMADDR{ALPHA, 1}, b);
            fsm_sendMsg(p, A, FSMADDR{ALPHA, 9}, b);  // refused: it stays queued once
        }
    };
    LogCapture log;
    h.deliver(X, {ALPHA, 0});
    EXPECT_EQ(1u, log.count("ERROR Detail=\"Sending fsm message that has already been sent as an internal message\""));
    EXPECT_EQ(1u, log.count("Failed to send fsm message. Invalid destination address"));
    EXPECT_EQ((std::vector<MSGNAME>{X, A}), names(h.events));
    EXPECT_EQ(0u, stats(ALPHA).currentBufferCount);
}

namespace {

int keepAndSave(PROC_DATA* p)
{
    Harness::job(p);
    fsm_keepMsgBuf(p, p->pProcMsg);
    p->bProcSaveMsg = true;
    return 0;
}

const STATE_NAME kKeepAndSave[] = {{keepAndSave, "ONLY"}, {nullptr, ""}};
SPEC_DESC gKeepAndSaveDesc{FSM_TYPE_TRIVIAL, nullptr, 0, nullptr, nullptr, kKeepAndSave, nullptr};

}  // namespace

TEST(FsmMsgTest, AKeptMessageCannotBeSaved)
{
    std::vector<IndData> data(1);
    Harness h;
    h.add(ETA, &gKeepAndSaveDesc, 1, h.taskQ, &data);
    LogCapture log;
    NORMBUF* b = Harness::make(A, {ETA, 0}, 0);
    sys_interpretMsg(&h.proc, b);
    EXPECT_EQ(1u, log.count("ERROR Detail=\"Failed to save fsm message buffer. Buffer already sent or message "
                            "marked as keep\""));
    EXPECT_EQ(0u, fsm_saveQueueLength(&data[0]));
    EXPECT_EQ(1u, stats(NO_SPECIE).currentBufferCount);  // the machine keeps it
    PROC_DATA owner = *fsm_getDummyProcData();
    owner.ProcSELF = FSMADDR{ETA, 0};
    fsm_returnMsgBuf(&owner, b);
}

namespace {

void postOnAFullQueue()
{
    Harness h;
    KVOS_PTRQ_ID tiny = KVOS_ptrqCreate("tinyQ", 1);
    h.add(GAMMA, &gAnyDesc, 1, tiny, nullptr);
    logToStderr();
    sys_sendFarMsg(A, FSMADDR{GAMMA, 0}, FSMADDR{ALPHA, 0}, nullptr);
    sys_sendFarMsg(B, FSMADDR{GAMMA, 0}, FSMADDR{ALPHA, 0}, nullptr);
}

void interpretRemote()
{
    Harness h;
    SPEC_DESC remote{FSM_TYPE_REMOTE, nullptr, 0, nullptr, nullptr, nullptr, nullptr};
    h.add(ALPHA, &remote, 1, h.taskQ, nullptr);
    logToStderr();
    h.deliver(A, {ALPHA, 0});
}

void decodeTrivialAsStandard()
{
    Harness h;
    h.add(ZETA, &gTrivialDesc, 1, h.taskQ, nullptr);
    logToStderr();
    h.proc.pProcMsg = Harness::make(A, {ZETA, 0}, 0);
    sys_decodeRecMsg(&h.proc);
}

void interpretCorrupt()
{
    Harness h;
    h.add(ALPHA, &gAnyDesc, 1, h.taskQ, nullptr);
    NORMBUF* b = Harness::make(A, {ALPHA, 0}, 0);
    b->headerStartMagic = 0;
    sys_interpretMsg(&h.proc, b);
}

}  // namespace

TEST(FsmMsgDeathTest, UnknownMachineTypesAndCorruptBuffersEndTheProcess)
{
    EXPECT_DEATH(interpretRemote(), "Invalid fsm type\" Fsm-type=\"5\"(.|\n)*Invalid fsm type");
    EXPECT_DEATH(decodeTrivialAsStandard(), "Unknown fsm type\" Fsm-type=\"4\"(.|\n)*Invalid fsm type");
    EXPECT_DEATH(interpretCorrupt(), "Corrupt header start magic");
}

TEST(FsmMsgDeathTest, AFullQueueIsFatal)
{
    EXPECT_DEATH(postOnAFullQueue(), "Failed to send fsm message. Post failure on queue\" Msg-name=\"\\*+\" "
                                     "Src-fsm-addr=\"ALPHA:0\" Dst-fsm-addr=\"GAMMA:0\" Last-error=(.|\n)*"
                                     "Fsm buffer pool statistics");
}
