/* Concurrency under load: many producers and consumers on one queue, and
 * thousands of short tasks through the reaper. Both run clean under TSan. */
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "abstraction/kvos.h"
#include "abstraction/kvos_ptrq.h"
#include "abstraction/kvos_task.h"
#include "support.h"

using namespace kvos_test;

#if defined(__has_feature)
#if __has_feature(thread_sanitizer) || __has_feature(address_sanitizer)
#define KV_SANITIZED 1
#endif
#endif
#if !defined(KV_SANITIZED) && (defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__))
#define KV_SANITIZED 1
#endif
#ifndef KV_SANITIZED
#define KV_SANITIZED 0
#endif

namespace {

constexpr uintptr_t kStop = ~static_cast<uintptr_t>(0);

void* encode(unsigned producer, unsigned seq)
{
    return reinterpret_cast<void*>((static_cast<uintptr_t>(producer) << 32 | seq) + 1);
}

void decode(void* p, unsigned* producer, unsigned* seq)
{
    uintptr_t v = reinterpret_cast<uintptr_t>(p) - 1;
    *producer = static_cast<unsigned>(v >> 32);
    *seq = static_cast<unsigned>(v & 0xFFFFFFFFu);
}

}  // namespace

TEST(KvosStressTest, EveryAcceptedPostIsDeliveredOnceInProducerOrder)
{
    constexpr unsigned kProducers = 4, kConsumers = 3, kPerProducer = 20000;
    KVOS_PTRQ_ID q = KVOS_ptrqCreate("STRESSQ", 64);

    std::vector<std::vector<char>> accepted(kProducers, std::vector<char>(kPerProducer, 0));
    std::vector<std::vector<void*>> received(kConsumers);
    std::atomic<unsigned> timeouts{0};

    std::vector<std::thread> consumers;
    for (unsigned c = 0; c < kConsumers; ++c) {
        consumers.emplace_back([&, c] {
            for (;;) {
                void* p = nullptr;
                if (c % 2 == 0) {
                    ASSERT_EQ(1, KVOS_ptrqPend(q, &p));
                } else {
                    KV_RET r = KVOS_ptrqPendTimeout(q, &p, 5);
                    if (r == KV_RET_TIMEOUT) {
                        ++timeouts;
                        continue;
                    }
                    ASSERT_EQ(KV_RET_OK, r);
                }
                if (reinterpret_cast<uintptr_t>(p) == kStop) {
                    return;
                }
                received[c].push_back(p);
            }
        });
    }
    std::vector<std::thread> producers;
    for (unsigned pr = 0; pr < kProducers; ++pr) {
        producers.emplace_back([&, pr] {
            for (unsigned seq = 0; seq < kPerProducer; ++seq) {
                // A refused post is simply not retried: it must never arrive.
                accepted[pr][seq] = static_cast<char>(KVOS_ptrqPost(q, encode(pr, seq)) == 1);
                if (!accepted[pr][seq]) {
                    std::this_thread::yield();
                }
            }
        });
    }
    for (auto& t : producers) {
        t.join();
    }
    for (unsigned c = 0; c < kConsumers; ++c) {
        while (KVOS_ptrqPost(q, reinterpret_cast<void*>(kStop)) != 1) {
            std::this_thread::yield();
        }
    }
    for (auto& t : consumers) {
        t.join();
    }

    std::vector<std::vector<int>> seen(kProducers, std::vector<int>(kPerProducer, 0));
    for (unsigned c = 0; c < kConsumers; ++c) {
        std::vector<long> last(kProducers, -1);
        for (void* p : received[c]) {
            unsigned pr, seq;
            decode(p, &pr, &seq);
            ASSERT_LT(pr, kProducers);
            ASSERT_LT(seq, kPerProducer);
            EXPECT_GT(static_cast<long>(seq), last[pr]) << "consumer " << c << " producer " << pr;
            last[pr] = seq;
            ++seen[pr][seq];
        }
    }
    size_t acceptedCount = 0, refused = 0;
    for (unsigned pr = 0; pr < kProducers; ++pr) {
        for (unsigned seq = 0; seq < kPerProducer; ++seq) {
            ASSERT_EQ(accepted[pr][seq] ? 1 : 0, seen[pr][seq]) << "producer " << pr << " seq " << seq;
            acceptedCount += accepted[pr][seq] ? 1 : 0;
        }
    }
    refused = kProducers * kPerProducer - acceptedCount;
    EXPECT_GT(acceptedCount, 0u);
    EXPECT_EQ(acceptedCount + kConsumers, q->numberInserted);
    EXPECT_EQ(q->numberInserted, q->numberRemoved);
    EXPECT_GE(q->timesFull, refused);
    EXPECT_EQ(0u, q->size);
    KVOS_ptrqDelete(q);
    RecordProperty("refused", static_cast<int>(refused));
    RecordProperty("timeouts", static_cast<int>(timeouts.load()));
}

namespace {
std::string readMaps()
{
    FILE* f = fopen("/proc/self/maps", "r");
    std::string out;
    char line[512];
    while (f && fgets(line, sizeof(line), f)) {
        out += line;
    }
    if (f) {
        fclose(f);
    }
    return out;
}

/* Mappings of this process that the allocator does not own: the [heap]
 * and glibc's per-thread arenas (64 MiB-aligned reservations, which
 * appear when threads contend for malloc and stay for the life of the
 * process) are left out. */
std::vector<std::string> ownMappings()
{
    constexpr uintptr_t kArena = 64u << 20;
    struct Mapping {
        uintptr_t start, end;
        std::string line;
    };
    std::vector<Mapping> all;
    std::istringstream is(readMaps());
    std::string line;
    while (std::getline(is, line)) {
        if (line.find("[heap]") != std::string::npos) {
            continue;
        }
        size_t dash = line.find('-');
        all.push_back({std::stoul(line.substr(0, dash), nullptr, 16), std::stoul(line.substr(dash + 1), nullptr, 16),
                       line});
    }
    // An arena: a read-write mapping at a 64 MiB boundary whose 64 MiB
    // reservation ends exactly there (in it or in the inaccessible rest).
    std::vector<uintptr_t> arenas;
    for (size_t i = 0; i < all.size(); ++i) {
        const Mapping& m = all[i];
        if (m.start % kArena != 0 || m.line.find(" rw-p ") == std::string::npos) {
            continue;
        }
        bool reserved = m.end == m.start + kArena ||
                        (i + 1 < all.size() && all[i + 1].start == m.end && all[i + 1].end == m.start + kArena &&
                         all[i + 1].line.find(" ---p ") != std::string::npos);
        if (reserved) {
            arenas.push_back(m.start);
        }
    }
    std::vector<std::string> out;
    for (const auto& m : all) {
        bool inArena = std::any_of(arenas.begin(), arenas.end(),
                                   [&](uintptr_t a) { return m.start >= a && m.start < a + kArena; });
        if (!inArena) {
            out.push_back(m.line);
        }
    }
    return out;
}

/* Anonymous read-write mappings fenced by an inaccessible mapping right
 * below and right above: the shape of every task stack and signal stack.
 * Other libraries map and keep small areas lazily; those are not fenced. */
size_t fencedRegions()
{
    struct Range {
        uintptr_t start, end;
        bool none, anonRw;
    };
    std::vector<Range> ranges;
    for (const auto& line : ownMappings()) {
        size_t dash = line.find('-');
        Range r;
        r.start = std::stoul(line.substr(0, dash), nullptr, 16);
        r.end = std::stoul(line.substr(dash + 1), nullptr, 16);
        r.none = line.find(" ---p ") != std::string::npos;
        r.anonRw = line.find(" rw-p 00000000 00:00 0 ") != std::string::npos;
        ranges.push_back(r);
    }
    size_t n = 0;
    for (size_t i = 1; i + 1 < ranges.size(); ++i) {
        if (ranges[i].anonRw && ranges[i - 1].none && ranges[i - 1].end == ranges[i].start && ranges[i + 1].none &&
            ranges[i + 1].start == ranges[i].end) {
            ++n;
        }
    }
    return n;
}

/* Bytes of small inaccessible mappings: guard pages of live task stacks. */
size_t guardBytes()
{
    size_t total = 0;
    for (const auto& line : ownMappings()) {
        if (line.find(" ---p ") == std::string::npos) {
            continue;
        }
        size_t dash = line.find('-');
        uintptr_t start = std::stoul(line.substr(0, dash), nullptr, 16);
        uintptr_t end = std::stoul(line.substr(dash + 1), nullptr, 16);
        if (end - start <= (1u << 20)) {
            total += end - start;
        }
    }
    return total;
}

std::atomic<unsigned> gRuns{0};
void shortTask(void*)
{
    ++gRuns;
}

/* Starts n short tasks, keeping few in flight so the 20-entry reaper queue
 * never overflows (a full queue loses messages by design). */
void churn(unsigned n, size_t removalsBefore)
{
    KVOS_TASK_ATTR* attr = KVOS_taskAttrCreate();
    KVOS_taskAttrSetName(attr, "churn");
    KVOS_taskAttrSetPriority(attr, 120);
    for (unsigned i = 0; i < n; ++i) {
        while (i - (kvos_taskListRemovals() - removalsBefore) >= 6) {
            KVOS_usleep(100);
        }
        ASSERT_NE(KVOS_NO_TASK_ID, KVOS_taskCreate(shortTask, nullptr, attr));
    }
    KVOS_taskAttrDestroy(attr);
    ASSERT_TRUE(waitFor([&] { return kvos_taskListRemovals() == removalsBefore + n; }, 60000));
}
}  // namespace

TEST(KvosStressTest, TaskChurnReturnsToBaseline)
{
    // Warm up: the first tasks create per-thread allocator arenas and
    // logger state that stay for the life of the process.
    churn(50, kvos_taskListRemovals());

    size_t size = kvos_taskListSize(), adds = kvos_taskListAdditions(), removes = kvos_taskListRemovals();
    size_t threads = threadCount();
    size_t fenced = fencedRegions();
    size_t guards = guardBytes();
    unsigned runs = gRuns;

    constexpr unsigned kTasks = KV_SANITIZED ? 1000 : 3000;
    churn(kTasks, removes);

    EXPECT_EQ(runs + kTasks, gRuns.load());
    EXPECT_EQ(size, kvos_taskListSize());
    EXPECT_EQ(adds + kTasks, kvos_taskListAdditions());
    EXPECT_EQ(removes + kTasks, kvos_taskListRemovals());
    // The reaper has joined every task before unlisting it.
    EXPECT_EQ(threads, threadCount());
    EXPECT_EQ(guards, guardBytes()) << "guard pages of released stacks left mapped";
#if !KV_SANITIZED
    // Sanitizer runtimes map fenced areas of their own as threads come and
    // go; there the guard pages alone tell.
    EXPECT_EQ(fenced, fencedRegions()) << "stacks or signal stacks left mapped";
#else
    (void)fenced;
#endif
    std::string info = linesWith(taskDump(), "List info:").at(0);
    EXPECT_EQ("List info: size " + std::to_string(size) + ", additions " + std::to_string(adds + kTasks) +
                  ", removals " + std::to_string(removes + kTasks),
              info);
}
