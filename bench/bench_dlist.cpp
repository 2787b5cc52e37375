// DList against std::list doing the same work: sorted insertion of random
// keys into a list of N records, and positional access by walking from the
// head.
#include "libkvc/dlist.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <iterator>
#include <list>
#include <random>
#include <vector>

namespace {

struct Rec {
    int key;
    Rec* next;
    Rec* prev;
};

int cmpRec(const void* a, const void* b)
{
    return static_cast<const Rec*>(a)->key - static_cast<const Rec*>(b)->key;
}

std::vector<int> randomKeys(size_t n)
{
    std::mt19937 rng(42);
    std::vector<int> keys(n);
    for (int& k : keys) {
        k = static_cast<int>(rng() % 1000000);
    }
    return keys;
}

void BM_DList_insertSorted(benchmark::State& state)
{
    const auto n = static_cast<size_t>(state.range(0));
    const std::vector<int> keys = randomKeys(n);
    std::vector<Rec> recs(n);
    for (auto _ : state) {
        DList list;
        Rec sample{};
        DList_makeDList(&list, &sample, &sample.next, &sample.prev, cmpRec);
        for (size_t i = 0; i < n; ++i) {
            recs[i].key = keys[i];
            DList_insertSorted(&list, &recs[i]);
        }
        benchmark::DoNotOptimize(list.pHead);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(n));
}

void BM_StdList_insertSorted(benchmark::State& state)
{
    const auto n = static_cast<size_t>(state.range(0));
    const std::vector<int> keys = randomKeys(n);
    for (auto _ : state) {
        std::list<int> list;
        for (size_t i = 0; i < n; ++i) {
            // Same rule as DList: before the first element not below the key.
            auto it = std::find_if(list.begin(), list.end(), [&](int v) { return v >= keys[i]; });
            list.insert(it, keys[i]);
        }
        benchmark::DoNotOptimize(list.front());
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(n));
}

void BM_DList_getAt(benchmark::State& state)
{
    const int n = static_cast<int>(state.range(0));
    std::vector<Rec> recs(static_cast<size_t>(n));
    DList list;
    Rec sample{};
    DList_makeDList(&list, &sample, &sample.next, &sample.prev, cmpRec);
    for (Rec& r : recs) {
        DList_insertLast(&list, &r);
    }
    int idx = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(DList_getAt(&list, idx));
        idx = (idx + 7919) % n;
    }
}

void BM_StdList_getAt(benchmark::State& state)
{
    const int n = static_cast<int>(state.range(0));
    std::list<int> list(static_cast<size_t>(n), 1);
    int idx = 0;
    for (auto _ : state) {
        auto it = list.begin();
        std::advance(it, idx);
        benchmark::DoNotOptimize(*it);
        idx = (idx + 7919) % n;
    }
}

} // namespace

BENCHMARK(BM_DList_insertSorted)->RangeMultiplier(10)->Range(10, 10000);
BENCHMARK(BM_StdList_insertSorted)->RangeMultiplier(10)->Range(10, 10000);
BENCHMARK(BM_DList_getAt)->RangeMultiplier(10)->Range(10, 10000);
BENCHMARK(BM_StdList_getAt)->RangeMultiplier(10)->Range(10, 10000);
