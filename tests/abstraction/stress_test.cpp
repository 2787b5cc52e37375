/* Concurrency under load: thousands of short tasks through the reaper.
 * (Producers and consumers under load are in ptrq_test.cpp.) */
#include <fstream>

#include "support.h"

using namespace kvos_test;

namespace {

/* Bytes of small inaccessible mappings (guard pages), and stack-shaped
 * regions: anonymous read-write mappings of at most 2 MiB right between
 * two small inaccessible ones. Both fences must be small: a malloc arena
 * is a read-write head followed by the large inaccessible rest of its
 * 64 MiB reservation, and more arenas appear whenever more threads happen
 * to allocate at once. */
struct StackMappings {
    size_t guardBytes = 0, fenced = 0;
};

StackMappings stackMappings()
{
    struct Mapping {
        uintptr_t start, end;
        bool none, anonRw;
    };
    std::vector<Mapping> all;
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        size_t dash = line.find('-');
        all.push_back({std::stoul(line.substr(0, dash), nullptr, 16), std::stoul(line.substr(dash + 1), nullptr, 16),
                       line.find(" ---p ") != std::string::npos,
                       line.find(" rw-p 00000000 00:00 0 ") != std::string::npos});
    }
    StackMappings out;
    for (size_t i = 0; i < all.size(); ++i) {
        size_t size = all[i].end - all[i].start;
        if (all[i].none && size <= (1u << 20)) {
            out.guardBytes += size;
        }
        auto smallGuard = [&](size_t k) { return all[k].none && all[k].end - all[k].start <= (1u << 20); };
        out.fenced += i > 0 && i + 1 < all.size() && all[i].anonRw && size <= (2u << 20) && smallGuard(i - 1) &&
                      all[i - 1].end == all[i].start && smallGuard(i + 1) && all[i + 1].start == all[i].end;
    }
    return out;
}

std::atomic<unsigned> gRuns{0};

/* Starts n short tasks, few in flight so the 20-entry reaper queue never
 * overflows (a full queue loses messages by design). */
void churn(unsigned n, size_t removalsBefore)
{
    KVOS_TASK_ATTR* attr = KVOS_taskAttrCreate();
    KVOS_taskAttrSetName(attr, "churn");
    KVOS_taskAttrSetPriority(attr, 120);
    for (unsigned i = 0; i < n; ++i) {
        while (i - (kvos_taskListRemovals() - removalsBefore) >= 6) {
            KVOS_usleep(100);
        }
        ASSERT_NE(KVOS_NO_TASK_ID, KVOS_taskCreate([](void*) { ++gRuns; }, nullptr, attr));
    }
    KVOS_taskAttrDestroy(attr);
    ASSERT_TRUE(waitFor([&] { return kvos_taskListRemovals() == removalsBefore + n; }, 60000));
}

}  // namespace

TEST(KvosStressTest, TaskChurnReturnsToBaseline)
{
    // Warm up: the first tasks create allocator arenas and logger state
    // that stay for the life of the process.
    churn(50, kvos_taskListRemovals());
    kvos_taskReleaseCachedStacks();
    ListInfo before = listInfo(taskDump());
    size_t threads = threadCount();
    StackMappings maps = stackMappings();
    unsigned runs = gRuns;

    constexpr unsigned kTasks = KV_SANITIZED ? 1000 : 10000;
    churn(kTasks, before.removals);

    EXPECT_EQ(runs + kTasks, gRuns.load());
    ListInfo after = listInfo(taskDump());
    EXPECT_EQ(before.size, after.size);
    EXPECT_EQ(before.additions + kTasks, after.additions);
    EXPECT_EQ(before.removals + kTasks, after.removals);
    EXPECT_EQ(threads, threadCount());  // the reaper joined every task before unlisting it
    EXPECT_LE(kvos_taskCachedStacks(), 20u) << "the stack cache is bounded";
    kvos_taskReleaseCachedStacks();
    StackMappings now = stackMappings();
    EXPECT_EQ(maps.guardBytes, now.guardBytes) << "guard pages of released stacks left mapped";
    if (!KV_SANITIZED) {  // sanitizer runtimes map fenced areas of their own as threads come and go
        EXPECT_GE(maps.fenced, 2u) << "the reaper's stack and the dispatcher's signal stack";
        EXPECT_EQ(maps.fenced, now.fenced) << "stacks or signal stacks left mapped";
    }
}

namespace {
/* A burst: n tasks started together, held at a gate until all run, then
 * ended together, so their start and their exit messages reach the reaper
 * at once. Waits until the reaper has unlisted them all. */
bool burst(unsigned n)
{
    static std::atomic<unsigned> running;
    static std::atomic<bool> go;
    running = 0;
    go = false;
    size_t removals = kvos_taskListRemovals();
    KVOS_TASK_ATTR* attr = KVOS_taskAttrCreate();
    KVOS_taskAttrSetName(attr, "burst");
    KVOS_taskAttrSetPriority(attr, 120);
    unsigned started = 0;
    for (unsigned i = 0; i < n; ++i) {
        started += KVOS_taskCreate(
                       [](void*) {
                           ++running;
                           while (!go) {
                               KVOS_usleep(200);
                           }
                       },
                       nullptr, attr) != KVOS_NO_TASK_ID;
    }
    KVOS_taskAttrDestroy(attr);
    bool allRan = waitFor([&] { return running == started; }, 20000);
    go = true;
    return started == n && allRan &&
           waitFor([&] { return kvos_taskListRemovals() == removals + n; }, 20000);
}
}  // namespace

TEST(KvosStressTest, BurstsOfTasksAreAllReapedAndReleased)
{
    constexpr unsigned kBurst = 40, kBursts = 25;  // 1,000 tasks
    ASSERT_TRUE(burst(kBurst)) << "warm-up";
    kvos_taskReleaseCachedStacks();
    ListInfo before = listInfo(taskDump());
    size_t threads = threadCount();
    StackMappings stacks = stackMappings();
    for (unsigned i = 0; i < kBursts; ++i) {
        ASSERT_TRUE(burst(kBurst)) << "burst " << i << ": exit messages lost\n" << taskDump();
    }
    // 40 tasks' stacks came back at once: the cache keeps its limit of 16
    // task stacks and 4 signal stacks and unmaps the rest.
    EXPECT_EQ(20u, kvos_taskCachedStacks());
    ListInfo after = listInfo(taskDump());
    EXPECT_EQ(before.size, after.size) << "ghost entries left listed";
    EXPECT_EQ(before.additions + kBurst * kBursts, after.additions) << "start messages lost";
    EXPECT_EQ(before.removals + kBurst * kBursts, after.removals);
    EXPECT_EQ(threads, threadCount());
    kvos_taskReleaseCachedStacks();
    // Stack-shaped mappings, not every mapping: malloc's per-thread arenas
    // grow and shrink with 40 threads at once.
    StackMappings now = stackMappings();
    EXPECT_EQ(stacks.guardBytes, now.guardBytes) << "stacks never released";
    if (!KV_SANITIZED) {
        EXPECT_EQ(stacks.fenced, now.fenced) << "stacks or signal stacks left mapped";
    }
}
