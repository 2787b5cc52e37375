// The timer wheel against the one sorted list of running timers (the model
// the wheel must behave like), and message handling with profiling off,
// compiled out and on.
//
// Timers: a start+stop pair with N timers running (the wheel's cost must
// not grow with N; the list's grows linearly), one tick with N running and
// none due, and N starts into an empty system. Expiries go to a sink, so
// only the timer structures are measured.
//
// Message handling: the task loop's handling of one message (decode, job,
// release) driven from the benchmark thread. "Interleaved" runs the
// profiled-off and the compiled-out loops alternately in short rounds and
// reports their ratio, which keeps load changes on a shared machine out of
// the comparison.
#include <stdlib.h>
#include <string.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <random>
#include <vector>

#include "abstraction/kvos.h"
#include "fsm/fsm.h"
#include "fsm/fsm_profiling_seams.h"
#include "fsm/fsm_timer_seams.h"
#include "timer_model.h"

namespace {

using fsm_test::SortedListTimers;

constexpr FSMADDR kOwner{FSM_TIMER, 0};
constexpr FSMADDR kDest{FSM_MAKE_ID(FSMMOD_NONFSM, 0), 0};

void kvosInit()
{
    static bool done = [] {
        char tmpl[] = "/tmp/fsm_bench.XXXXXX";
        kvos_set_path_map(KVOS_addPathMap(nullptr, PATH_TYPE_TMP, mkdtemp(tmpl)));
        KVOS_init();
        return true;
    }();
    (void)done;
}

void ignoreExpiry(void*, MSGNAME, FSMADDR, FSMADDR, uintptr_t) {}

/* Intervals of running timers: spread over the first 2^20 ticks. */
std::vector<uint32_t> randomIntervals(size_t n, uint32_t low, uint32_t high, unsigned seed)
{
    std::mt19937 rng(seed);
    std::uniform_int_distribution<uint32_t> dist(low, high);
    std::vector<uint32_t> v(n);
    for (uint32_t& x : v) {
        x = dist(rng);
    }
    return v;
}

class WheelFixture {
public:
    WheelFixture() : ts_(timerSystemCreate(kOwner, "BenchWheel"))
    {
        timerSystemSetExpirySink(ts_, ignoreExpiry, nullptr);
    }
    ~WheelFixture() { timerSystemDelete(ts_); }
    TIMER_SYSTEM* ts() const { return ts_; }

private:
    TIMER_SYSTEM* ts_;
};

std::vector<TIMERBUF> idleTimers(size_t n)
{
    std::vector<TIMERBUF> v(n);
    for (TIMERBUF& t : v) {
        timerSystemInitTimer(&t);
    }
    return v;
}

/* Loads the model with timers in decreasing order of interval, which puts
 * each at the front: O(n) instead of the O(n^2) of random order. */
void loadModel(SortedListTimers& model, std::vector<TIMERBUF>& timers, std::vector<uint32_t> intervals)
{
    std::sort(intervals.begin(), intervals.end(), std::greater<uint32_t>());
    for (size_t i = 0; i < timers.size(); ++i) {
        model.start(&timers[i], intervals[i], GEN_timer_1, kDest, i);
    }
}

constexpr size_t kPairs = 4096;

void BM_StartStop_Wheel(benchmark::State& state)
{
    kvosInit();
    const auto n = static_cast<size_t>(state.range(0));
    WheelFixture w;
    std::vector<TIMERBUF> running = idleTimers(n);
    const std::vector<uint32_t> iv = randomIntervals(n, 1, 1u << 20, 1);
    for (size_t i = 0; i < n; ++i) {
        timerSystemStartTimer(w.ts(), &running[i], iv[i], GEN_timer_1, kDest, i);
    }
    const std::vector<uint32_t> pairIv = randomIntervals(kPairs, 1, 1u << 20, 2);
    TIMERBUF t;
    timerSystemInitTimer(&t);
    size_t k = 0;
    for (auto _ : state) {
        timerSystemStartTimer(w.ts(), &t, pairIv[k++ % kPairs], GEN_timer_2, kDest, 0);
        timerSystemStopTimer(w.ts(), &t);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}

void BM_StartStop_SortedList(benchmark::State& state)
{
    const auto n = static_cast<size_t>(state.range(0));
    SortedListTimers model;
    std::vector<TIMERBUF> running = idleTimers(n);
    loadModel(model, running, randomIntervals(n, 1, 1u << 20, 1));
    const std::vector<uint32_t> pairIv = randomIntervals(kPairs, 1, 1u << 20, 2);
    TIMERBUF t;
    timerSystemInitTimer(&t);
    size_t k = 0;
    for (auto _ : state) {
        model.start(&t, pairIv[k++ % kPairs], GEN_timer_2, kDest, 0);
        model.stop(&t);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}

/* Running timers all fall due after 2^28 ticks or later: no run gets there. */
void BM_TickNoneDue_Wheel(benchmark::State& state)
{
    kvosInit();
    const auto n = static_cast<size_t>(state.range(0));
    WheelFixture w;
    std::vector<TIMERBUF> running = idleTimers(n);
    const std::vector<uint32_t> iv = randomIntervals(n, 1u << 28, 0xFFFFFFFFu, 3);
    for (size_t i = 0; i < n; ++i) {
        timerSystemStartTimer(w.ts(), &running[i], iv[i], GEN_timer_1, kDest, i);
    }
    for (auto _ : state) {
        timerSystemRunTimerWheel(w.ts());
    }
    if (timerSystemRunningCount(w.ts()) != n) {
        state.SkipWithError("a timer fell due");
    }
}

void BM_TickNoneDue_SortedList(benchmark::State& state)
{
    const auto n = static_cast<size_t>(state.range(0));
    SortedListTimers model;
    std::vector<TIMERBUF> running = idleTimers(n);
    loadModel(model, running, randomIntervals(n, 1u << 28, 0xFFFFFFFFu, 3));
    for (auto _ : state) {
        model.tick();
    }
}

void BM_StartsFromEmpty_Wheel(benchmark::State& state)
{
    kvosInit();
    const auto n = static_cast<size_t>(state.range(0));
    const std::vector<uint32_t> iv = randomIntervals(n, 1, 1u << 20, 4);
    for (auto _ : state) {
        WheelFixture w;
        std::vector<TIMERBUF> timers = idleTimers(n);
        for (size_t i = 0; i < n; ++i) {
            timerSystemStartTimer(w.ts(), &timers[i], iv[i], GEN_timer_1, kDest, i);
        }
        benchmark::DoNotOptimize(timers.data());
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * n));
}

void BM_StartsFromEmpty_SortedList(benchmark::State& state)
{
    const auto n = static_cast<size_t>(state.range(0));
    const std::vector<uint32_t> iv = randomIntervals(n, 1, 1u << 20, 4);
    for (auto _ : state) {
        SortedListTimers model;
        std::vector<TIMERBUF> timers = idleTimers(n);
        for (size_t i = 0; i < n; ++i) {
            model.start(&timers[i], iv[i], GEN_timer_1, kDest, i);
        }
        benchmark::DoNotOptimize(timers.data());
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * n));
}

BENCHMARK(BM_StartStop_Wheel)->Arg(100)->Arg(10000)->Arg(100000);
BENCHMARK(BM_StartStop_SortedList)->Arg(100)->Arg(10000)->Arg(100000);
BENCHMARK(BM_TickNoneDue_Wheel)->Arg(100)->Arg(100000);
BENCHMARK(BM_TickNoneDue_SortedList)->Arg(100)->Arg(100000);
BENCHMARK(BM_StartsFromEmpty_Wheel)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StartsFromEmpty_SortedList)->Arg(10000)->Arg(100000)->Iterations(1)->Unit(benchmark::kMillisecond);

/* ---- Message handling ---- */

const char* const kSpecies[] = {"BENCH_SPECIE", nullptr};
int gHandled = 0;

int benchJob(PROC_DATA*)
{
    benchmark::DoNotOptimize(++gHandled);
    return 0;
}

int benchReset(PROC_DATA* proc)
{
    proc->ProcNxtState = 0;
    return 0;
}

/* One trivial specie registered by hand; messages are handled on the
 * benchmark thread exactly as a task handles what it takes off its queue. */
struct Handling {
    Handling()
    {
        kvosInit();
        memset(states, 0, sizeof(states));
        states[0].pJob = benchJob;
        strncpy(states[0].szName, "RUNNING", sizeof(states[0].szName) - 1);
        desc = SPEC_DESC{FSM_TYPE_TRIVIAL, nullptr, 0, nullptr, benchReset, states, nullptr};
        fsm_setProductSpecieNames(kSpecies);
        config[0] = FSMSPECCONFIG{kDest.Spec, &desc, 0, 1};
        config[1] = FSMSPECCONFIG{NO_SPECIE, nullptr, 0, 0};
        sys_initFSMSystem(config);
        GLOB_SPEC_D* d = fsm_getGlobalSpecieDesc(kDest.Spec);
        d->pSpecDesc = &desc;
        d->HighInd = 0;
        d->indInfoArray = static_cast<IND_INFO*>(calloc(1, sizeof(IND_INFO)));
        d->stateArray = static_cast<STATE*>(calloc(1, sizeof(STATE)));
        proc = *fsm_getDummyProcData();
    }
    ~Handling()
    {
        fsmprofiling_disable(sys_getGlob());
        fsmprofiling_clear(sys_getGlob());
        fsm_procShutdown();
    }

    template <void (*Interpret)(PROC_DATA*, NORMBUF*)>
    void handleOne()
    {
        NORMBUF* buf = sys_getBuf(&kDest, 8);
        buf->MsgName = MNG_command;
        buf->Source = kOwner;
        Interpret(&proc, buf);
    }

    SPEC_DESC desc;
    STATE_NAME states[2];
    FSMSPECCONFIG config[2];
    PROC_DATA proc;
};

void BM_Handle_ProfilingOff(benchmark::State& state)
{
    Handling h;
    for (auto _ : state) {
        h.handleOne<sys_interpretMsg>();
    }
}

void BM_Handle_ProfilingCompiledOut(benchmark::State& state)
{
    Handling h;
    for (auto _ : state) {
        h.handleOne<fsm_interpretMsgUnprofiled>();
    }
}

void BM_Handle_ProfilingOn(benchmark::State& state)
{
    Handling h;
    fsmprofiling_enable(sys_getGlob());
    for (auto _ : state) {
        h.handleOne<sys_interpretMsg>();
    }
}

/* The table's own share of the cost above: the same with a clock that
 * costs nothing. */
timespec freeClock()
{
    static long n = 0;
    return timespec{0, ++n};
}

void BM_Handle_ProfilingOnFreeClock(benchmark::State& state)
{
    Handling h;
    fsmprofiling_setclockfn(sys_getGlob(), freeClock);
    fsmprofiling_enable(sys_getGlob());
    for (auto _ : state) {
        h.handleOne<sys_interpretMsg>();
    }
    fsmprofiling_setclockfn(sys_getGlob(), KVOS_threadClock);
}

/* Alternating rounds of both loops, timed on the thread's processor-time
 * clock (a loaded machine then costs the comparison nothing but noise);
 * reports each one's cost per message and off / compiled-out as "ratio". */
void BM_Handle_OffVsCompiledOut_Interleaved(benchmark::State& state)
{
    Handling h;
    constexpr int kRound = 500;
    auto ns = [] {
        const timespec t = KVOS_threadClock();
        return static_cast<int64_t>(t.tv_sec) * 1000000000 + t.tv_nsec;
    };
    int64_t off = 0, out = 0;
    for (auto _ : state) {
        const int64_t t0 = ns();
        for (int i = 0; i < kRound; ++i) {
            h.handleOne<sys_interpretMsg>();
        }
        const int64_t t1 = ns();
        for (int i = 0; i < kRound; ++i) {
            h.handleOne<fsm_interpretMsgUnprofiled>();
        }
        const int64_t t2 = ns();
        off += t1 - t0;
        out += t2 - t1;
    }
    const double msgs = static_cast<double>(state.iterations()) * kRound;
    state.counters["off_ns"] = static_cast<double>(off) / msgs;
    state.counters["compiled_out_ns"] = static_cast<double>(out) / msgs;
    state.counters["ratio"] = static_cast<double>(off) / static_cast<double>(out);
}

BENCHMARK(BM_Handle_ProfilingOff);
BENCHMARK(BM_Handle_ProfilingCompiledOut);
BENCHMARK(BM_Handle_ProfilingOn);
BENCHMARK(BM_Handle_ProfilingOnFreeClock);
BENCHMARK(BM_Handle_OffVsCompiledOut_Interleaved)->Repetitions(7)->ReportAggregatesOnly(true);

}  // namespace
