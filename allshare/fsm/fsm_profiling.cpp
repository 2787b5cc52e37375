/*
 * Profiling: the per-message timing table.
 *
 * The task loop asks fsmprofiling_enabled once per message; only when it
 * says yes does it read the clock twice and call fsmprofiling_update, so a
 * process that never enables profiling pays one atomic load per message.
 *
 * The map is guarded by `lock` only while an entry is found or inserted;
 * the entry's counters are then updated outside it. That is safe because
 * one key (message name, handling specie) is updated by one task only (a
 * specie runs in exactly one task) and because entries of an unordered_map
 * do not move when it grows. Clearing and showing are for a quiet table:
 * show refuses while profiling is enabled, and clear must not overlap a
 * sample in flight.
 *
 * Rows are shown with the most expensive (by total time) first.
 */
#include <stdio.h>

#include <algorithm>
#include <string>
#include <vector>

#include "abstraction/kvos.h"
#include "abstraction/kvos_mutex.h"
#include "fsm/fsm_glob.h"
#include "fsm/fsm_profiling.h"
#include "fsm_internal.h"

using namespace fsm_detail;

namespace {

constexpr long kNsPerSec = 1000000000L;
/* A new entry's minimum: larger than any sample. */
constexpr time_t kMinStart = 10000;

bool lessThan(const timespec& a, const timespec& b)
{
    return a.tv_sec < b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec < b.tv_nsec);
}

void add(timespec& sum, const timespec& t)
{
    sum.tv_sec += t.tv_sec;
    sum.tv_nsec += t.tv_nsec;
    while (sum.tv_nsec >= kNsPerSec) {
        sum.tv_nsec -= kNsPerSec;
        ++sum.tv_sec;
    }
    while (sum.tv_nsec < 0) {
        sum.tv_nsec += kNsPerSec;
        --sum.tv_sec;
    }
}

double seconds(const timespec& t)
{
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

class Locked {
public:
    explicit Locked(KVOS_MUTEX* m) : m_(m) { KVOS_mutexLock(m_); }
    ~Locked() { KVOS_mutexUnlock(m_); }
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;

private:
    KVOS_MUTEX* m_;
};

}  // namespace

KVOS_MUTEX* Profiling::mapLock()
{
    std::call_once(lockOnce_, [this] { KVOS_mutexCreate(&lock, "fsmProfiling"); });
    return &lock;
}

void Profiling::profiling_enable()
{
    profiling.store(true);
}

void Profiling::profiling_disable()
{
    profiling.store(false);
}

bool Profiling::profiling_enabled() const
{
    return profiling.load(std::memory_order_relaxed);
}

void Profiling::profiling_setclockfn(FSM_CLOCK_FUNC fn)
{
    __atomic_store_n(&clockfn, fn, __ATOMIC_RELEASE);
}

struct timespec Profiling::profiling_clock() const
{
    FSM_CLOCK_FUNC fn = __atomic_load_n(&clockfn, __ATOMIC_ACQUIRE);
    return fn != nullptr ? fn() : timespec{0, 0};
}

void Profiling::profiling_clear()
{
    Locked guard(mapLock());
    kv_map.clear();
}

void Profiling::profiling_update(uint64_t key, const char* name, struct timespec t)
{
    ProfilingData* entry;
    {
        Locked guard(mapLock());
        auto it = kv_map.find(key);
        if (it == kv_map.end()) {
            ProfilingData fresh{};
            fresh.next = nullptr;
            fresh.name = name;
            fresh.num = 0;
            fresh.min = timespec{kMinStart, 0};
            fresh.max = timespec{0, 0};
            fresh.accum = timespec{0, 0};
            it = kv_map.emplace(key, fresh).first;
        }
        entry = &it->second;
    }
    ++entry->num;
    add(entry->accum, t);
    if (lessThan(t, entry->min)) {
        entry->min = t;
    }
    if (lessThan(entry->max, t)) {
        entry->max = t;
    }
}

void Profiling::profiling_show(std::ostream& os)
{
    if (profiling_enabled()) {
        os << "Profiling is currently enabled. Disable profiling before showing profiling data.\n";
        return;
    }
    struct Row {
        uint64_t key;
        ProfilingData data;
    };
    std::vector<Row> rows;
    {
        Locked guard(mapLock());
        for (const auto& kv : kv_map) {
            if (kv.second.num != 0) {
                rows.push_back(Row{kv.first, kv.second});
            }
        }
    }
    timespec total{0, 0};
    uint32_t count = 0;
    for (const Row& r : rows) {
        add(total, r.data.accum);
        count += r.data.num;
    }
    std::sort(rows.begin(), rows.end(), [](const Row& a, const Row& b) {
        if (lessThan(b.data.accum, a.data.accum) || lessThan(a.data.accum, b.data.accum)) {
            return lessThan(b.data.accum, a.data.accum);
        }
        return a.key < b.key;
    });

    char line[256];
    snprintf(line, sizeof(line),
             "MsgName                   Handler Specie              Num        Time       Min       Max       Avg   %%M\n");
    os << line << std::string(104, '-') << '\n';
    const double totalSeconds = seconds(total);
    for (const Row& r : rows) {
        const ProfilingData& d = r.data;
        const double avg = seconds(d.accum) / d.num;
        const double share = totalSeconds > 0 ? seconds(d.accum) * 100.0 / totalSeconds : 0.0;
        snprintf(line, sizeof(line), "%-25.25s %-25.25s %5u %3ld.%07ld %1ld.%07ld %1ld.%07ld %.7f %4.1f\n",
                 d.name != nullptr ? d.name : "", safeSpecName(static_cast<SPECIE>(r.key & 0xFFFFFFFFu)), d.num,
                 static_cast<long>(d.accum.tv_sec), d.accum.tv_nsec / 100, static_cast<long>(d.min.tv_sec),
                 d.min.tv_nsec / 100, static_cast<long>(d.max.tv_sec), d.max.tv_nsec / 100, avg, share);
        os << line;
    }
    os << std::string(69, '-') << '\n';
    snprintf(line, sizeof(line), "Total:                                              %5u   %1ld.%07ld\n", count,
             static_cast<long>(total.tv_sec), total.tv_nsec / 100);
    os << line;
}

void fsmprofiling_enable(GLOB_DATA* glob)
{
    glob->profiling.profiling_enable();
}

void fsmprofiling_disable(GLOB_DATA* glob)
{
    glob->profiling.profiling_disable();
}

bool fsmprofiling_enabled(GLOB_DATA* glob)
{
    return glob->profiling.profiling_enabled();
}

void fsmprofiling_clear(GLOB_DATA* glob)
{
    glob->profiling.profiling_clear();
}

void fsmprofiling_setclockfn(GLOB_DATA* glob, FSM_CLOCK_FUNC fn)
{
    glob->profiling.profiling_setclockfn(fn);
}

struct timespec fsmprofiling_clock(GLOB_DATA* glob)
{
    return glob->profiling.profiling_clock();
}

void fsmprofiling_show(GLOB_DATA* glob, std::ostream& os)
{
    glob->profiling.profiling_show(os);
}

void fsmprofiling_update(GLOB_DATA* glob, uint32_t first, uint32_t second, struct timespec t)
{
    glob->profiling.profiling_update((uint64_t{first} << 32) | second, safeMsgName(first), t);
}
