/*
 * The tick source: one KVOS task that calls sys_runTimerWheel once per
 * period.
 *
 * Deadlines are absolute on the monotonic clock (start + k * period), not
 * "period after the last tick", so lateness of one wake-up (scheduling,
 * a long expiry send) does not accumulate: the count stays within one tick
 * of the elapsed time however long it runs. When the task falls behind it
 * runs the missed ticks back to back, one by one, so no expiry is skipped
 * and every timer still falls due on its own tick.
 *
 * The task sleeps in slices of at most kSliceUs so that a stop request is
 * seen promptly even with a long period. Tasks are joined by the thread
 * reaper, so sys_stopTickSource waits until the task has left its loop and
 * the reaper has taken it off the task list; start waits until the reaper
 * has listed it, so that "not listed" at stop cannot mean "not yet listed".
 */
#include <algorithm>
#include <atomic>
#include <mutex>

#include "abstraction/kvmisc.h"
#include "abstraction/kvos.h"
#include "abstraction/kvos_task.h"
#include "abstraction/kvos_semaphore.h"
#include "fsm/fsm_glob.h"
#include "fsm/fsm_timer.h"
#include "fsm_internal.h"

using namespace fsm_detail;

namespace {

constexpr uint64_t kSliceUs = 20000;
constexpr unsigned kListWaitMs = 10000;
/* The wheel's expiry sends log through log4cxx on failures: far more than
 * the 16 KiB minimum of a KVOS task. */
constexpr unsigned kStackSize = 256 * 1024;

struct TickSource {
    uint64_t periodUs = 0;
    std::atomic<bool> stop{false};
    KVOS_SEMAPHORE done{nullptr};  // posted by the task as its last act
    KVOS_TASK_ID tid = KVOS_NO_TASK_ID;
};

/* Start and stop are serialised; the running source is reached only here. */
std::mutex sControl;
TickSource* sSource = nullptr;

void tickMain(void* arg)
{
    auto* src = static_cast<TickSource*>(arg);
    uint64_t deadline = KVMISC_now64() + src->periodUs;
    while (!src->stop.load(std::memory_order_acquire)) {
        const uint64_t now = KVMISC_now64();
        if (now >= deadline) {
            sys_runTimerWheel();
            deadline += src->periodUs;
            continue;
        }
        KVOS_usleep(static_cast<unsigned>(std::min(deadline - now, kSliceUs)));
    }
    KVOS_semaphorePost(&src->done);
}

bool waitListed(KVOS_TASK_ID tid, bool listed)
{
    for (unsigned waited = 0; kvos_taskIsListed(tid) != listed; ++waited) {
        if (waited >= kListWaitMs) {
            return false;
        }
        KVOS_msleep(1);
    }
    return true;
}

}  // namespace

bool sys_startTickSource(unsigned period_ms)
{
    std::lock_guard<std::mutex> guard(sControl);
    if (sSource != nullptr || period_ms == 0) {
        return false;
    }
    auto* src = new TickSource;
    src->periodUs = uint64_t{period_ms} * 1000u;
    if (KVOS_semaphoreCreate(&src->done, "fsmTickDone", 0) != 1) {
        delete src;
        return false;
    }
    KVOS_TASK_ATTR* attr = KVOS_taskAttrCreate();
    KVOS_taskAttrSetName(attr, "fsmTick");
    KVOS_taskAttrSetStackSize(attr, kStackSize);
    src->tid = KVOS_taskCreate(tickMain, src, attr);
    KVOS_taskAttrDestroy(attr);
    if (src->tid == KVOS_NO_TASK_ID) {
        KVLOG_ERROR(fsm_getDeveloperLogger(),
                    kvp("Detail", "Unable to create tick source task") << kvp("Last-error", KVOS_lastError()));
        KVOS_semaphoreDelete(&src->done);
        delete src;
        return false;
    }
    waitListed(src->tid, true);
    sSource = src;
    KVLOG_DEBUG(fsm_getDeveloperLogger(), kvp("Detail", "Tick source started") << kvp("Period-ms", period_ms));
    return true;
}

void sys_stopTickSource(void)
{
    std::lock_guard<std::mutex> guard(sControl);
    TickSource* src = sSource;
    if (src == nullptr) {
        return;
    }
    src->stop.store(true, std::memory_order_release);
    KVOS_semaphoreWait(&src->done);
    if (!waitListed(src->tid, false)) {
        KVLOG_ERROR(fsm_getDeveloperLogger(), kvp("Detail", "Tick source task still listed after stop"));
    }
    KVOS_semaphoreDelete(&src->done);
    delete src;
    sSource = nullptr;
    KVLOG_DEBUG(fsm_getDeveloperLogger(), kvp("Detail", "Tick source stopped"));
}
