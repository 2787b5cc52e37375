/*
 * Load: 4 FSM tasks, 8 species of 4 individuals, 32 message chains hopping
 * between machines until 10^6 messages were handled (scaled down under the
 * sanitizers). Each hop is one of: a far send, an internal send, a send to
 * itself (priority), a forward of the received buffer, a keep (released at
 * the machine's next message) plus a new send, a message that the receiver
 * saves in state 0, or a message that toggles the receiver's state (which
 * offers its saved messages again).
 *
 * Checked at the end: every message handled exactly once, order kept per
 * sender-receiver pair (for messages neither saved nor sent to oneself),
 * every chain finished, and every buffer released exactly once
 * (currentBufferCount 0 everywhere, totalBufferCount summing to the
 * allocations made).
 */
#include <string.h>

#include <atomic>
#include <memory>
#include <random>

#include "support.h"

using namespace fsm_test;

namespace {

#if KV_SANITIZED
constexpr uint32_t kMessages = 40000;
#else
constexpr uint32_t kMessages = 1000000;
#endif
constexpr unsigned kTasks = 4, kSpecies = 8, kInds = 4, kMachines = kSpecies * kInds, kChains = 32;
constexpr unsigned kOutside = kMachines;  // the test thread as a sender
constexpr uint32_t kHops = kMessages / kChains;

constexpr MSGNAME NORMAL = msg(1), SAVEK = msg(2), TOGGLE = msg(3), FLUSH = msg(4);

struct Body {
    uint32_t id;       // unique per message
    uint32_t src;      // sender machine index
    uint32_t seq;      // per (src, dst) pair
    uint32_t hops;     // left in the chain
    uint32_t ordered;  // part of the per-pair order check
    uint32_t rng;
};

struct Machine {
    NORMBUF* saveQueue = nullptr;  // the framework's word
    NORMBUF* kept = nullptr;
};

struct World {
    std::unique_ptr<std::atomic<uint8_t>[]> handled{new std::atomic<uint8_t>[kMessages * 2 + 4096]()};
    std::atomic<uint32_t> nextId{0};
    std::atomic<uint32_t> allocations{0};
    std::atomic<uint32_t> chainsEnded{0};
    std::atomic<uint32_t> handledTotal{0};
    std::atomic<uint32_t> orderViolations{0};
    std::atomic<uint32_t> duplicates{0};
    std::atomic<uint32_t> redelivered{0};  // far SAVEK messages handled from the internal list
    std::atomic<uint32_t> actions[16] = {};
    uint32_t pairSeq[kMachines + 1][kMachines] = {};   // written by the sender's task only
    uint32_t lastSeen[kMachines + 1][kMachines] = {};  // written by the receiver's task only
    Machine machines[kMachines];
} * gWorld;

unsigned indexOf(FSMADDR a)
{
    return FSM_ID_INDEX(a.Spec) * kInds + a.Ind;
}
FSMADDR addrOf(unsigned idx)
{
    return FSMADDR{FSM_MAKE_ID(FSMMOD_NONFSM, idx / kInds), idx % kInds};
}
unsigned taskOf(unsigned idx)
{
    return idx / kInds / 2;
}

uint32_t next(uint32_t& rng)
{
    rng ^= rng << 13;
    rng ^= rng >> 17;
    rng ^= rng << 5;
    return rng;
}

/* Fills a body for a new hop from `src` to `dst`. */
void stamp(Body& b, unsigned src, unsigned dst, uint32_t hops, uint32_t rng, bool ordered)
{
    b.id = gWorld->nextId.fetch_add(1);
    b.src = src;
    b.hops = hops;
    b.rng = rng;
    b.ordered = ordered && src != dst;
    b.seq = ++gWorld->pairSeq[src][dst];
}

NORMBUF* newBuf(PROC_DATA* p)
{
    gWorld->allocations.fetch_add(1);
    return fsm_getBuf(p, sizeof(Body));
}

Body& bodyOf(NORMBUF* b)
{
    return *reinterpret_cast<Body*>(fsm_msgBody(b));
}

int job(PROC_DATA* p)
{
    World& w = *gWorld;
    const unsigned self = indexOf(p->ProcSELF);
    Machine& m = w.machines[self];
    if (m.kept != nullptr) {
        fsm_returnMsgBuf(p, m.kept);
        m.kept = nullptr;
    }
    const Body in = bodyOf(p->pProcMsg);
    if (w.handled[in.id].fetch_add(1) != 0) {
        w.duplicates.fetch_add(1);
    }
    w.handledTotal.fetch_add(1);
    if (in.ordered) {
        if (in.seq <= w.lastSeen[in.src][self]) {
            w.orderViolations.fetch_add(1);
        }
        w.lastSeen[in.src][self] = in.seq;
    }
    if (p->ProcMsgName == FLUSH) {
        return 0;
    }
    if (p->ProcMsgName == SAVEK && p->ProcRecType == 'I' && in.src != kOutside &&
        taskOf(in.src) != taskOf(self)) {
        w.redelivered.fetch_add(1);
    }
    if (in.hops == 0) {
        w.chainsEnded.fetch_add(1);
        return 0;
    }
    uint32_t rng = in.rng;
    const uint32_t action = next(rng) % 16;
    const uint32_t pick = next(rng);
    w.actions[action].fetch_add(1);
    unsigned dst = pick % kMachines;
    MSGNAME name = NORMAL;
    bool ordered = true;
    NORMBUF* out = nullptr;
    if (action <= 5) {  // far
        while (taskOf(dst) == taskOf(self)) {
            dst = (dst + kInds) % kMachines;
        }
    } else if (action <= 8) {  // internal, another machine
        dst = taskOf(self) * 2 * kInds + pick % (2 * kInds);
        if (dst == self) {
            dst = taskOf(self) * 2 * kInds + (pick + 1) % (2 * kInds);
        }
    } else if (action <= 10) {  // to itself
        dst = self;
    } else if (action <= 12) {  // forward what was received
        out = p->pProcMsg;
    } else if (action == 13) {  // keep it, send a new one
        m.kept = p->pProcMsg;
        fsm_keepMsgBuf(p, m.kept);
    } else if (action == 14) {  // saved by a receiver in state 0
        name = SAVEK;
        ordered = false;
    } else {
        name = TOGGLE;
    }
    if (out == nullptr) {
        out = newBuf(p);
    }
    stamp(bodyOf(out), self, dst, in.hops - 1, rng, ordered);
    fsm_sendMsg(p, name, addrOf(dst), out);
    return 0;
}

/* State 0 saves SAVEK; TOGGLE switches between 0 and 1; FLUSH goes to 1. */
const EXP_MSG kState0[] = {{TOGGLE, 1, 0}, {FLUSH, 1, 0}, {SAVE_MSG, 0, 0}, {SAVEK, 0, 0}, {ELSE_MSG, 0, 0}};
const EXP_MSG kState1[] = {{TOGGLE, 0, 0}, {ELSE_MSG, 1, 0}};
const EXP_MSG* const kStates[] = {kState0, kState1};

int reset(PROC_DATA* p)
{
    p->pProcIndData = &gWorld->machines[indexOf(p->ProcSELF)];
    return 0;
}

SPEC_DESC gDesc{FSM_TYPE_STANDARD, kStates, 1, job, reset, nullptr, nullptr};

void inject(MSGNAME name, unsigned dst, uint32_t hops, uint32_t rng)
{
    const FSMADDR dest = addrOf(dst);
    gWorld->allocations.fetch_add(1);
    NORMBUF* b = sys_getBuf(&dest, sizeof(Body));
    stamp(bodyOf(b), kOutside, dst, hops, rng, name != FLUSH);
    sys_sendFarMsg(name, dest, FSMADDR{NO_SPECIE, NO_IND}, b);
}

}  // namespace

TEST(FsmStressTest, MillionMessagesAcrossFourTasksLoseAndDuplicateNothing)
{
    initOnce();
    auto world = std::make_unique<World>();
    gWorld = world.get();
    std::vector<FSMSPECCONFIG> specs;
    for (unsigned s = 0; s < kSpecies; ++s) {
        specs.push_back({FSM_MAKE_ID(FSMMOD_NONFSM, s), &gDesc, s / 2, kInds});
    }
    specs.push_back({NO_SPECIE, nullptr, 0, 0});
    FSMPROCCONFIG procs[kTasks] = {
        {0, "stressQ0", 256, nullptr}, {1, "stressQ1", 256, nullptr}, {2, "stressQ2", 256, nullptr},
        {3, "stressQ3", 256, nullptr}};
    fsm_setProductSpecieNames(kTestSpecies);
    sys_initFSMSystem(specs.data());
    fsm_procSetup(procs, kTasks, specs.data());

    std::mt19937 seed(12345);
    for (unsigned c = 0; c < kChains; ++c) {
        inject(NORMAL, c % kMachines, kHops, seed() | 1);
    }
    // Chains parked in a save queue come back when their machine changes
    // state; once nothing moves, every machine is flushed into state 1.
    uint32_t lastHandled = 0;
    unsigned idlePolls = 0, flushes = 0;
    while (gWorld->chainsEnded.load() < kChains && idlePolls < 400) {
        KVOS_msleep(25);
        uint32_t now = gWorld->handledTotal.load();
        if (now != lastHandled) {
            lastHandled = now;
            idlePolls = 0;
            continue;
        }
        ++idlePolls;
        for (unsigned i = 0; i < kMachines; ++i) {
            inject(FLUSH, i, 0, 1);
        }
        ++flushes;
    }
    fsm_procShutdown();

    World& w = *gWorld;
    EXPECT_EQ(kChains, w.chainsEnded.load());
    EXPECT_EQ(0u, w.duplicates.load());
    EXPECT_EQ(0u, w.orderViolations.load());
    uint32_t ids = w.nextId.load(), never = 0;
    for (uint32_t id = 0; id < ids; ++id) {
        never += w.handled[id].load() == 0;
    }
    EXPECT_EQ(0u, never) << "messages never handled";
    EXPECT_EQ(ids, w.handledTotal.load());
    EXPECT_GE(w.handledTotal.load(), kChains * (kHops + 1));
    for (auto& a : w.actions) {
        EXPECT_GT(a.load(), 0u);  // every kind of hop was taken
    }
    EXPECT_GT(w.redelivered.load(), 0u);

    // Kept buffers are the machines' to release.
    for (unsigned i = 0; i < kMachines; ++i) {
        if (w.machines[i].kept != nullptr) {
            PROC_DATA owner = *fsm_getDummyProcData();
            owner.ProcSELF = addrOf(i);
            fsm_returnMsgBuf(&owner, w.machines[i].kept);
        }
        EXPECT_EQ(nullptr, w.machines[i].saveQueue);
    }
    uint64_t total = 0;
    for (uint32_t r = 0; r < fsm_poolStatsCount(); ++r) {
        const FSM_SPECIE_BUFFER_STATS s = stats(r == 0 ? NO_SPECIE : FSM_MAKE_ID(FSMMOD_NONFSM, r - 1));
        EXPECT_EQ(0u, s.currentBufferCount) << "record " << r;
        EXPECT_EQ(0u, s.currentBufferSizeTotal) << "record " << r;
        total += s.totalBufferCount;
    }
    EXPECT_EQ(w.allocations.load(), total);
    RecordProperty("messages", static_cast<int>(w.handledTotal.load()));
    RecordProperty("flushes", static_cast<int>(flushes));
    RecordProperty("redelivered", static_cast<int>(w.redelivered.load()));
    gWorld = nullptr;
}
