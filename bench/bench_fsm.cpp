/*
 * The state-machine framework against its baselines, side by side:
 *  - far messages across two FSM tasks (allocate, sys_sendFarMsg, dispatch
 *    to the job, release) against a bare mutex/condition-variable pointer
 *    queue carrying malloc'd blocks of the same size between two KVOS
 *    tasks, and the same over KVOS pointer queues without the framework
 *    (what the queue alone costs); all keep at most kWindow messages in
 *    flight;
 *  - internal send + dispatch + release inside one FSM task against a
 *    malloc/free pair;
 *  - fsm_getBuf + fsm_returnMsgBuf on two threads (one statistics mutex)
 *    against malloc + free.
 * Compare the ratios, not the absolute figures.
 */
#include <pthread.h>
#include <sched.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>

#include <benchmark/benchmark.h>

#include "abstraction/kvos.h"
#include "abstraction/kvos_semaphore.h"
#include "abstraction/kvos_task.h"
#include "fsm/fsm.h"

namespace {

constexpr uint32_t kBody = 32;
constexpr uint32_t kBatch = 20000;
constexpr uint32_t kWindow = 512;
constexpr unsigned kQueueLength = 2048;

const char* const kSpecies[] = {"BENCH_SRC", "BENCH_DST", "BENCH_LOOP", nullptr};
constexpr SPECIE SRC = FSM_MAKE_ID(FSMMOD_NONFSM, 0), DST = FSM_MAKE_ID(FSMMOD_NONFSM, 1),
                 LOOP = FSM_MAKE_ID(FSMMOD_NONFSM, 2);
constexpr MSGNAME START = FSM_MAKE_ID(4, 0), DATA = FSM_MAKE_ID(4, 1);

KVOS_SEMAPHORE gDone;
std::atomic<uint32_t> gInFlight{0};
uint32_t gReceived = 0;  // the consumer's only
volatile uint32_t gSink;

void waitForWindow()
{
    while (gInFlight.load(std::memory_order_acquire) >= kWindow) {
        sched_yield();
    }
}

uint32_t countOf(const NORMBUF* b)
{
    uint32_t n;
    memcpy(&n, fsm_msgBody(b), sizeof(n));
    return n;
}

/* SRC: on START(n), sends n DATA messages to DST, far. */
int srcJob(PROC_DATA* p)
{
    const uint32_t n = countOf(p->pProcMsg);
    for (uint32_t i = 0; i < n; ++i) {
        waitForWindow();
        gInFlight.fetch_add(1, std::memory_order_relaxed);
        NORMBUF* b = fsm_getBuf(p, kBody);
        memcpy(fsm_msgBody(b), &i, sizeof(i));
        sys_sendFarMsg(DATA, FSMADDR{DST, 0}, p->ProcSELF, b);
    }
    return 0;
}

/* DST: counts; the framework releases each message after the job. */
int dstJob(PROC_DATA* p)
{
    gSink = countOf(p->pProcMsg);
    gInFlight.fetch_sub(1, std::memory_order_release);
    if (++gReceived == kBatch) {
        gReceived = 0;
        KVOS_semaphorePost(&gDone);
    }
    return 0;
}

/* LOOP: each message sends the next one, internally, to the other
 * individual, until the count runs out. */
int loopJob(PROC_DATA* p)
{
    const uint32_t n = countOf(p->pProcMsg);
    if (n == 0) {
        KVOS_semaphorePost(&gDone);
        return 0;
    }
    NORMBUF* b = fsm_getBuf(p, kBody);
    const uint32_t next = n - 1;
    memcpy(fsm_msgBody(b), &next, sizeof(next));
    fsm_sendMsg(p, DATA, FSMADDR{LOOP, 1 - p->ProcSELF.Ind}, b);
    return 0;
}

const EXP_MSG kAny[] = {{ELSE_MSG, 0, 0}};
const EXP_MSG* const kStates[] = {kAny};
SPEC_DESC gSrcDesc{FSM_TYPE_STANDARD, kStates, 0, srcJob, nullptr, nullptr, nullptr};
SPEC_DESC gDstDesc{FSM_TYPE_STANDARD, kStates, 0, dstJob, nullptr, nullptr, nullptr};
SPEC_DESC gLoopDesc{FSM_TYPE_STANDARD, kStates, 0, loopJob, nullptr, nullptr, nullptr};

void startFsm()
{
    static FSMSPECCONFIG specs[] = {
        {SRC, &gSrcDesc, 1, 1}, {DST, &gDstDesc, 2, 1}, {LOOP, &gLoopDesc, 3, 2}, {NO_SPECIE, nullptr, 0, 0}};
    static FSMPROCCONFIG procs[] = {
        {1, "benchSrcQ", kQueueLength, nullptr}, {2, "benchDstQ", kQueueLength, nullptr},
        {3, "benchLoopQ", 16, nullptr}};
    fsm_setProductSpecieNames(kSpecies);
    sys_initFSMSystem(specs);
    fsm_procSetup(procs, 3, specs);
}

void sendStart(SPECIE to, uint32_t n)
{
    const FSMADDR dest{to, 0};
    NORMBUF* b = sys_getBuf(&dest, kBody);
    memcpy(fsm_msgBody(b), &n, sizeof(n));
    sys_sendFarMsg(START, dest, FSMADDR{NO_SPECIE, NO_IND}, b);
}

void BM_FsmFarSend(benchmark::State& state)
{
    for (auto _ : state) {
        sendStart(SRC, kBatch);
        KVOS_semaphoreWait(&gDone);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kBatch);
}
BENCHMARK(BM_FsmFarSend)->UseRealTime()->Unit(benchmark::kMillisecond);

/* The baseline queue: a ring, one mutex, two condition variables. */
class BareQueue {
public:
    BareQueue()
    {
        pthread_mutex_init(&lock_, nullptr);
        pthread_cond_init(&notEmpty_, nullptr);
        pthread_cond_init(&notFull_, nullptr);
    }
    void put(void* p)
    {
        pthread_mutex_lock(&lock_);
        while (size_ == kQueueLength) {
            pthread_cond_wait(&notFull_, &lock_);
        }
        ring_[putIndex_] = p;
        putIndex_ = (putIndex_ + 1) % kQueueLength;
        ++size_;
        pthread_cond_signal(&notEmpty_);
        pthread_mutex_unlock(&lock_);
    }
    void* get()
    {
        pthread_mutex_lock(&lock_);
        while (size_ == 0) {
            pthread_cond_wait(&notEmpty_, &lock_);
        }
        void* p = ring_[getIndex_];
        getIndex_ = (getIndex_ + 1) % kQueueLength;
        --size_;
        pthread_cond_signal(&notFull_);
        pthread_mutex_unlock(&lock_);
        return p;
    }

private:
    void* ring_[kQueueLength];
    unsigned size_ = 0, getIndex_ = 0, putIndex_ = 0;
    pthread_mutex_t lock_;
    pthread_cond_t notEmpty_, notFull_;
};

BareQueue* gStartQ;
BareQueue* gDataQ;
KVOS_PTRQ_ID gKvosStartQ;
KVOS_PTRQ_ID gKvosDataQ;
int (*volatile gBareJob)(void*) = [](void* block) {
    gSink = *static_cast<uint32_t*>(block);
    return 0;
};

/* The baseline producer and consumer, KVOS tasks like the FSM tasks. */
void bareProducer(void*)
{
    for (;;) {
        auto n = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(gStartQ->get()));
        for (uint32_t i = 0; i < n; ++i) {
            waitForWindow();
            gInFlight.fetch_add(1, std::memory_order_relaxed);
            auto* block = static_cast<uint8_t*>(calloc(1, sizeof(NORMBUF) + kBody));
            memcpy(block + sizeof(NORMBUF), &i, sizeof(i));
            gDataQ->put(block);
        }
    }
}

void bareConsumer(void*)
{
    uint32_t received = 0;
    for (;;) {
        auto* block = static_cast<uint8_t*>(gDataQ->get());
        gBareJob(block + sizeof(NORMBUF));
        free(block);
        gInFlight.fetch_sub(1, std::memory_order_release);
        if (++received == kBatch) {
            received = 0;
            KVOS_semaphorePost(&gDone);
        }
    }
}

/* The same two tasks' work over KVOS pointer queues: what the queue alone
 * costs, without the framework. */
void kvosProducer(void*)
{
    for (;;) {
        void* start = nullptr;
        KVOS_ptrqPend(gKvosStartQ, &start);
        auto n = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(start));
        for (uint32_t i = 0; i < n; ++i) {
            waitForWindow();
            gInFlight.fetch_add(1, std::memory_order_relaxed);
            auto* block = static_cast<uint8_t*>(calloc(1, sizeof(NORMBUF) + kBody));
            memcpy(block + sizeof(NORMBUF), &i, sizeof(i));
            KVOS_ptrqPost(gKvosDataQ, block);
        }
    }
}

void kvosConsumer(void*)
{
    uint32_t received = 0;
    for (;;) {
        void* p = nullptr;
        KVOS_ptrqPend(gKvosDataQ, &p);
        auto* block = static_cast<uint8_t*>(p);
        gBareJob(block + sizeof(NORMBUF));
        free(block);
        gInFlight.fetch_sub(1, std::memory_order_release);
        if (++received == kBatch) {
            received = 0;
            KVOS_semaphorePost(&gDone);
        }
    }
}

void BM_KvosQueueMalloc(benchmark::State& state)
{
    for (auto _ : state) {
        KVOS_ptrqPost(gKvosStartQ, reinterpret_cast<void*>(static_cast<uintptr_t>(kBatch)));
        KVOS_semaphoreWait(&gDone);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kBatch);
}
BENCHMARK(BM_KvosQueueMalloc)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_BareQueueMalloc(benchmark::State& state)
{
    for (auto _ : state) {
        gStartQ->put(reinterpret_cast<void*>(static_cast<uintptr_t>(kBatch)));
        KVOS_semaphoreWait(&gDone);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kBatch);
}
BENCHMARK(BM_BareQueueMalloc)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_FsmInternalSend(benchmark::State& state)
{
    for (auto _ : state) {
        sendStart(LOOP, kBatch);
        KVOS_semaphoreWait(&gDone);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kBatch);
}
BENCHMARK(BM_FsmInternalSend)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_MallocFree(benchmark::State& state)
{
    for (auto _ : state) {
        void* p = calloc(1, sizeof(NORMBUF) + kBody);
        benchmark::DoNotOptimize(p);
        free(p);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(BM_MallocFree);

void BM_FsmGetReturnBuf(benchmark::State& state)
{
    PROC_DATA proc = *fsm_getDummyProcData();
    proc.ProcSELF = FSMADDR{LOOP, static_cast<IND_NO>(state.thread_index() % 2)};
    for (auto _ : state) {
        NORMBUF* b = fsm_getBuf(&proc, kBody);
        benchmark::DoNotOptimize(b);
        fsm_returnMsgBuf(&proc, b);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(BM_FsmGetReturnBuf)->Threads(2)->UseRealTime();

void BM_MallocFreeTwoThreads(benchmark::State& state)
{
    for (auto _ : state) {
        void* p = calloc(1, sizeof(NORMBUF) + kBody);
        benchmark::DoNotOptimize(p);
        free(p);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(BM_MallocFreeTwoThreads)->Threads(2)->UseRealTime();

}  // namespace

int main(int argc, char** argv)
{
    char dir[] = "/tmp/bench_fsm.XXXXXX";
    if (mkdtemp(dir) == nullptr) {
        return 1;
    }
    kvos_set_path_map(KVOS_addPathMap(nullptr, PATH_TYPE_TMP, dir));
    KVOS_init();
    KVOS_semaphoreCreate(&gDone, "benchDone", 0);
    startFsm();
    gStartQ = new BareQueue;
    gDataQ = new BareQueue;
    KVOS_TASK_ATTR* attr = KVOS_taskAttrCreate();
    KVOS_taskAttrSetName(attr, "bareProducer");
    KVOS_taskCreate(bareProducer, nullptr, attr);
    KVOS_taskAttrSetName(attr, "bareConsumer");
    KVOS_taskCreate(bareConsumer, nullptr, attr);
    gKvosStartQ = KVOS_ptrqCreate("kvosStartQ", 4);
    gKvosDataQ = KVOS_ptrqCreate("kvosDataQ", kQueueLength);
    KVOS_taskAttrSetName(attr, "kvosProducer");
    KVOS_taskCreate(kvosProducer, nullptr, attr);
    KVOS_taskAttrSetName(attr, "kvosConsumer");
    KVOS_taskCreate(kvosConsumer, nullptr, attr);
    KVOS_taskAttrDestroy(attr);

    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    fsm_procShutdown();
    std::string cleanup = std::string("rm -rf ") + dir;
    return system(cleanup.c_str()) == 0 ? 0 : 1;
}
