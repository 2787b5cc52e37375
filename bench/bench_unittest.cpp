// The cost of one passing check in SUMMARY mode (nothing printed: only the
// counters move) against an empty loop that keeps a comparable value alive.
#include "unittest/unittest.h"

#include <benchmark/benchmark.h>

namespace {

void BM_PassingCheckSummary(benchmark::State& state)
{
    unittest_init("bench", UNITTEST_MODE_SUMMARY);
    int x = 1;
    for (auto _ : state) {
        benchmark::DoNotOptimize(x);
        unittest_assert(x == 1);
    }
    state.counters["checks"] = unittest_tests();
}

void BM_EmptyLoop(benchmark::State& state)
{
    int x = 1;
    for (auto _ : state) {
        benchmark::DoNotOptimize(x);
        benchmark::DoNotOptimize(x == 1);
    }
}

} // namespace

BENCHMARK(BM_PassingCheckSummary);
BENCHMARK(BM_EmptyLoop);
