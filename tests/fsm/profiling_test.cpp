/* The profiling table: its exact format, the statistics behind it, the
 * operations on GLOB_DATA, the clocks, and samples taken by real FSM tasks
 * around each job (and none at all while profiling is off). */
#include <atomic>
#include <chrono>
#include <sstream>
#include <thread>

#include "support.h"
#include "tasked.h"

using namespace fsm_test;

namespace {

const char kHeader[] =
    "MsgName                   Handler Specie              Num        Time       Min       Max       Avg   %M\n";
const std::string kWide(104, '-');
const std::string kNarrow(69, '-');

std::string show(Profiling& p)
{
    std::ostringstream os;
    p.profiling_show(os);
    return os.str();
}

uint64_t key(MSGNAME msg, SPECIE s)
{
    return (uint64_t{msg} << 32) | s;
}

timespec sec(time_t s, long ns)
{
    return timespec{s, ns};
}

}  // namespace

TEST(FsmProfilingTest, NewTableIsDisabledAndEmpty)
{
    initOnce();
    Profiling p;
    EXPECT_FALSE(p.profiling_enabled());
    EXPECT_EQ(std::string(kHeader) + kWide + "\n" + kNarrow + "\n" +
                  "Total:                                                  0   0.0000000\n",
              show(p));
}

TEST(FsmProfilingTest, ShowingWhileEnabledPrintsOnlyTheRefusal)
{
    FsmSystem sys;
    Profiling p;
    p.profiling_update(key(GEN_timer_1, ALPHA), "GEN_timer_1", sec(0, 5));
    p.profiling_enable();
    EXPECT_TRUE(p.profiling_enabled());
    EXPECT_EQ("Profiling is currently enabled. Disable profiling before showing profiling data.\n", show(p));
    p.profiling_disable();
    EXPECT_NE(std::string::npos, show(p).find("GEN_timer_1"));
}

TEST(FsmProfilingTest, RowsHoldCountTotalMinMaxAverageAndShareMostExpensiveFirst)
{
    FsmSystem sys;
    Profiling p;
    p.profiling_update(key(MNG_command, BETA), "MNG_command", sec(0, 123456));
    p.profiling_update(key(GEN_timer_1, ALPHA), "GEN_timer_1", sec(1, 500000000));
    p.profiling_update(key(GEN_timer_1, ALPHA), "ignored: the entry keeps its first name", sec(0, 250000000));
    // Totals carry nanoseconds into seconds.
    for (int i = 0; i < 3; ++i) {
        p.profiling_update(key(GEN_timer_2, GAMMA), "GEN_timer_2", sec(0, 700000000));
    }
    // A name and a specie longer than their columns are cut to 25.
    p.profiling_update(key(MNG_log_on, ALPHA), "A_MESSAGE_NAME_OF_THIRTY_CHARS", sec(0, 100));
    EXPECT_EQ(std::string(kHeader) + kWide + "\n" +
                  "GEN_timer_2               GAMMA                         3   2.1000000 0.7000000 0.7000000 0.7000000 "
                  "54.5\n"
                  "GEN_timer_1               ALPHA                         2   1.7500000 0.2500000 1.5000000 0.8750000 "
                  "45.5\n"
                  "MNG_command               BETA                          1   0.0001234 0.0001234 0.0001234 0.0001235 "
                  " 0.0\n"
                  "A_MESSAGE_NAME_OF_THIRTY_ ALPHA                         1   0.0000001 0.0000001 0.0000001 0.0000001 "
                  " 0.0\n" +
                  kNarrow + "\n" + "Total:                                                  7   3.8501235\n",
              show(p));
}

/* A new entry's minimum starts at 10000 s: a sample at least that long
 * never becomes the minimum. */
TEST(FsmProfilingTest, MinimumStartsAtTenThousandSeconds)
{
    FsmSystem sys;
    Profiling p;
    p.profiling_update(key(GEN_timer_3, DELTA), "GEN_timer_3", sec(20000, 0));
    const std::string text = show(p);
    EXPECT_NE(std::string::npos, text.find("    1 20000.0000000 10000.0000000 20000.0000000 20000.0000000 100.0\n"))
        << text;
}

TEST(FsmProfilingTest, ClearEmptiesTheTable)
{
    FsmSystem sys;
    Profiling p;
    p.profiling_update(key(GEN_timer_1, ALPHA), "GEN_timer_1", sec(0, 5));
    p.profiling_clear();
    EXPECT_EQ(0u, p.kv_map.size());
    EXPECT_EQ(std::string::npos, show(p).find("GEN_timer_1"));
}

TEST(FsmProfilingTest, GlobalOperationsKeyByMessageAndSpecie)
{
    FsmSystem sys;
    GLOB_DATA* glob = sys_getGlob();
    fsmprofiling_clear(glob);
    fsmprofiling_enable(glob);
    EXPECT_TRUE(fsmprofiling_enabled(glob));
    fsmprofiling_update(glob, GEN_timer_2, GAMMA, sec(0, 300));
    fsmprofiling_update(glob, FSM_MAKE_ID(9, 1), FSM_MAKE_ID(9, 2), sec(0, 100));
    std::ostringstream refused;
    fsmprofiling_show(glob, refused);
    EXPECT_EQ("Profiling is currently enabled. Disable profiling before showing profiling data.\n", refused.str());
    fsmprofiling_disable(glob);
    EXPECT_EQ(1u, glob->profiling.kv_map.count(key(GEN_timer_2, GAMMA)));
    std::ostringstream os;
    fsmprofiling_show(glob, os);
    EXPECT_NE(std::string::npos, os.str().find("GEN_timer_2               GAMMA                         1"));
    EXPECT_NE(std::string::npos, os.str().find("**********                ***                           1"));
    fsmprofiling_clear(glob);
    EXPECT_TRUE(glob->profiling.kv_map.empty());
}

namespace {

std::atomic<int> gClockReads{0};

/* One millisecond per reading, counted per thread: each task sees its own
 * clock advance by exactly 1 ms across a job. */
timespec steppingClock()
{
    thread_local long n = 0;
    gClockReads.fetch_add(1);
    ++n;
    return timespec{n / 1000, (n % 1000) * 1000000L};
}

timespec fixedClock()
{
    return timespec{42, 7};
}

}  // namespace

TEST(FsmProfilingTest, DefaultClockIsTheThreadsProcessorTime)
{
    FsmSystem sys;
    GLOB_DATA* glob = sys_getGlob();
    auto ns = [](timespec t) { return int64_t{t.tv_sec} * 1000000000 + t.tv_nsec; };
    auto threadCpu = [] {
        timespec t;
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
        return t;
    };
    // Bracketed by the thread's own processor-time readings, far below the
    // monotonic clock, and standing still while the thread sleeps.
    const timespec before = threadCpu();
    const timespec a = fsmprofiling_clock(glob);
    const timespec after = threadCpu();
    EXPECT_LE(ns(before), ns(a));
    EXPECT_LE(ns(a), ns(after));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_LT(ns(fsmprofiling_clock(glob)) - ns(a), 20000000) << "sleeping does not count";

    fsmprofiling_setclockfn(glob, fixedClock);
    EXPECT_EQ(42, fsmprofiling_clock(glob).tv_sec);
    EXPECT_EQ(7, fsmprofiling_clock(glob).tv_nsec);
    fsmprofiling_setclockfn(glob, KVOS_threadClock);
}

namespace {

int countJob(PROC_DATA*)
{
    return 0;
}

int plainReset(PROC_DATA* proc)
{
    proc->ProcNxtState = 0;
    return 0;
}

}  // namespace

/* Samples are taken by the task around each job, keyed by message name and
 * handling specie; with profiling off the clock is never read. */
TEST(FsmProfilingTest, TasksSampleEachJobOnlyWhileEnabled)
{
    TrivialSpecie type(countJob, plainReset);
    TaskedSystem sys({{ALPHA, &type, 0, 1}, {BETA, &type, 1, 2}}, 2);
    GLOB_DATA* glob = sys_getGlob();
    fsmprofiling_clear(glob);
    fsmprofiling_setclockfn(glob, steppingClock);
    gClockReads = 0;
    auto sendMany = [](MSGNAME msg, FSMADDR dest, int n) {
        for (int i = 0; i < n; ++i) {
            sys_sendFarMsg(msg, dest, FSMADDR{SYSTEM, 0}, nullptr);
        }
    };
    auto drained = [] { return stats(NO_SPECIE).currentBufferCount == 0; };

    sendMany(MNG_command, {ALPHA, 0}, 10);
    ASSERT_TRUE(waitFor(drained));
    EXPECT_EQ(0, gClockReads.load()) << "no clock read while profiling is off";

    fsmprofiling_enable(glob);
    sendMany(MNG_command, {ALPHA, 0}, 10);
    sendMany(MNG_log_on, {BETA, 1}, 4);
    ASSERT_TRUE(waitFor(drained));
    fsmprofiling_disable(glob);
    EXPECT_EQ(28, gClockReads.load());
    sendMany(MNG_command, {ALPHA, 0}, 5);
    ASSERT_TRUE(waitFor(drained));
    EXPECT_EQ(28, gClockReads.load());

    std::ostringstream os;
    fsmprofiling_show(glob, os);
    fsmprofiling_setclockfn(glob, KVOS_threadClock);
    fsmprofiling_clear(glob);
    EXPECT_EQ(std::string(kHeader) + kWide + "\n" +
                  "MNG_command               ALPHA                        10   0.0100000 0.0010000 0.0010000 0.0010000 "
                  "71.4\n"
                  "MNG_log_on                BETA                          4   0.0040000 0.0010000 0.0010000 0.0010000 "
                  "28.6\n" +
                  kNarrow + "\n" + "Total:                                                 14   0.0140000\n",
              os.str());
}
