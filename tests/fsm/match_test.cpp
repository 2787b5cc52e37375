/* The state-table lookup of standard machines, one table per case. Every
 * case runs in state 2 (tables 0 and 1 are the common and else tables). */
#include "harness.h"

using namespace fsm_test;

namespace {

constexpr MSGNAME M1 = msg(1), M2 = msg(2), M5 = msg(5), M7 = msg(7), M8 = msg(8), M9 = msg(9);
constexpr EXP_MSG END = {ELSE_MSG, 0, 0};

struct LookupCase {
    const char* name;
    std::vector<EXP_MSG> common, elseTable, state;
    MSGNAME msg;
    bool saved;
    TASK task;
    STATE next;
};

const STATE S = 2;

const LookupCase kCases[] = {
    // Scan A takes the next state as it stands, even 0.
    {"direct match", {END}, {END}, {{M1, 5, 2}, {ELSE_MSG, 0, 9}}, M1, false, 2, 5},
    {"own ELSE_MSG", {END}, {END}, {{M1, 5, 2}, {ELSE_MSG, 0, 9}}, M8, false, 9, 0},
    {"before SAVE_MSG", {END}, {END}, {{M1, 1, 1}, {SAVE_MSG, 0, 0}, {M2, 1, 1}, {ELSE_MSG, 0, 3}}, M1, false, 1, 1},
    {"after SAVE_MSG", {END}, {END}, {{M1, 1, 1}, {SAVE_MSG, 0, 0}, {M2, 1, 1}, {ELSE_MSG, 0, 3}}, M2, true, NO_TASK, 0},
    {"ELSE_MSG clears save in A", {END}, {END}, {{M1, 1, 1}, {SAVE_MSG, 0, 0}, {M2, 1, 1}, {ELSE_MSG, 0, 3}}, M5,
     false, 3, 0},
    // Scan B: 0 keeps the state, any other value is taken.
    {"common match keeps state", {{M7, 0, 4}, END}, {END}, {{M1, 5, 2}, {COMMON_STATE, 0, 0}}, M7, false, 4, S},
    {"common match 1 taken", {{M7, 1, 4}, END}, {END}, {{COMMON_STATE, 0, 0}}, M7, false, 4, 1},
    {"common ELSE_MSG", {{M7, 0, 4}, {ELSE_MSG, 6, 5}}, {END}, {{COMMON_STATE, 0, 0}}, M8, false, 5, 6},
    {"save before COMMON_STATE cleared", {{M1, 3, 6}, END}, {END}, {{SAVE_MSG, 0, 0}, {COMMON_STATE, 0, 0}}, M1,
     false, 6, 3},
    {"ELSE_MSG keeps save in B", {{SAVE_MSG, 0, 0}, {ELSE_MSG, 0, 1}}, {END}, {{COMMON_STATE, 0, 0}}, M5, true,
     NO_TASK, 0},
    {"COMMON_STATE skipped in B", {{COMMON_STATE, 0, 0}, {M5, 4, 3}, END}, {END}, {{COMMON_STATE, 0, 0}}, M5, false,
     3, 4},
    // Scan C: 0 and 1 keep the state.
    {"else from common, 1 keeps", {{ELSE_STATE, 0, 0}}, {{M8, 1, 6}, END}, {{COMMON_STATE, 0, 0}}, M8, false, 6, S},
    {"else from state, 0 keeps", {END}, {{M9, 0, 7}, END}, {{ELSE_STATE, 0, 0}}, M9, false, 7, S},
    {"else ELSE_MSG 4 taken", {END}, {{M9, 0, 7}, {ELSE_MSG, 4, 8}}, {{ELSE_STATE, 0, 0}}, M1, false, 8, 4},
    {"save in C", {END}, {{SAVE_MSG, 0, 0}, {ELSE_MSG, 0, 1}}, {{ELSE_STATE, 0, 0}}, M1, true, NO_TASK, 0},
    {"ELSE_STATE in B clears save", {{SAVE_MSG, 0, 0}, {ELSE_STATE, 0, 0}}, {{ELSE_MSG, 1, 2}},
     {{COMMON_STATE, 0, 0}}, M1, false, 2, S},
    {"wild cards skipped in C", {END}, {{ELSE_STATE, 0, 0}, {COMMON_STATE, 0, 0}, {M1, 3, 5}, END},
     {{ELSE_STATE, 0, 0}}, M1, false, 5, 3},
};

}  // namespace

TEST(FsmMatchTest, LookupTable)
{
    for (const LookupCase& c : kCases) {
        SCOPED_TRACE(c.name);
        std::vector<IndData> data(1);
        Harness h;
        const EXP_MSG* tables[] = {c.common.data(), c.elseTable.data(), c.state.data()};
        SPEC_DESC desc{FSM_TYPE_STANDARD, tables, 2, Harness::job, nullptr, nullptr, nullptr};
        GLOB_SPEC_D* d = h.add(ALPHA, &desc, 1, h.taskQ, &data);
        d->stateArray[0] = S;
        h.proc.pProcMsg = Harness::make(c.msg, {ALPHA, 0}, 0);
        h.proc.returnBufToPool = true;
        bool run = sys_decodeRecMsg(&h.proc);
        EXPECT_EQ(!c.saved, run);
        EXPECT_EQ(c.saved, h.proc.bProcSaveMsg);
        EXPECT_EQ(S, h.proc.ProcState);
        EXPECT_EQ(c.task, h.proc.ProcTask);
        EXPECT_EQ(&data[0], h.proc.pProcIndData);
        EXPECT_EQ(c.saved ? 1u : 0u, fsm_saveQueueLength(&data[0]));
        if (!c.saved) {
            EXPECT_EQ(c.next, h.proc.ProcNxtState);
            fsm_returnMsgBuf(&h.proc, h.proc.pProcMsg);
        }
    }
}

TEST(FsmMatchTest, DecodeFillsTheContextFromTheMessage)
{
    std::vector<IndData> data(3);
    Harness h;
    const EXP_MSG any[] = {END};
    const EXP_MSG* tables[] = {any};
    SPEC_DESC desc{FSM_TYPE_STANDARD, tables, 0, Harness::job, nullptr, nullptr, nullptr};
    GLOB_SPEC_D* d = h.add(ALPHA, &desc, 3, h.taskQ, &data);
    int shared = 0;
    d->specieData = &shared;
    h.proc.pProcMsg = Harness::make(M7, {ALPHA, 2}, 0, {BETA, 4});
    h.proc.returnBufToPool = true;
    h.proc.bProcSaveMsg = true;
    ASSERT_TRUE(sys_decodeRecMsg(&h.proc));
    EXPECT_EQ(M7, h.proc.ProcMsgName);
    EXPECT_EQ((FSMADDR{ALPHA, 2}), h.proc.ProcSELF);
    EXPECT_EQ((FSMADDR{BETA, 4}), h.proc.ProcSENDER);
    EXPECT_EQ(&desc, h.proc.specDesc);
    EXPECT_EQ(&shared, h.proc.pProcSpecData);
    EXPECT_EQ(&data[2], h.proc.pProcIndData);
    EXPECT_FALSE(h.proc.bProcSaveMsg);
    fsm_returnMsgBuf(&h.proc, h.proc.pProcMsg);
}

TEST(FsmMatchTest, AStateAboveTheHighestRejectsEveryMessage)
{
    std::vector<IndData> data(1);
    Harness h;
    const EXP_MSG any[] = {END};
    const EXP_MSG* tables[] = {any, any, any};
    SPEC_DESC desc{FSM_TYPE_STANDARD, tables, 2, Harness::job, nullptr, nullptr, nullptr};
    GLOB_SPEC_D* d = h.add(ALPHA, &desc, 1, h.taskQ, &data);
    d->stateArray[0] = 3;
    for (MSGNAME m : {M1, M2, MSGNAME{ELSE_MSG}}) {
        LogCapture log;
        h.deliver(m, {ALPHA, 0});
        EXPECT_EQ(1u, log.count("ERROR Detail=\"Failed to decode fsm message. Fsm is in illegal state\" "
                                "Self=\"ALPHA:0\""));
        EXPECT_TRUE(log.contains("State=\"3\""));
    }
    EXPECT_TRUE(h.events.empty());
    EXPECT_EQ(0u, stats(NO_SPECIE).currentBufferCount);
}
