/*
 * Timer system: a hierarchical timer wheel of DLists.
 *
 * What machines see is the behaviour of one list of running timers ordered
 * by expiry: a timer started with interval i at tick t falls due on the
 * tick that brings the count to t + i (modulo 2^32); of the timers due on
 * one tick, the one (re)started last is delivered first; a restart moves a
 * timer to its new expiry; expiry makes the timer idle before its message
 * is sent, and the sends happen inside the tick with the mutex held. One
 * sorted list gives that behaviour at O(n) per start, which at the number
 * of timers a busy appliance runs (10^4 .. 10^5) costs tens to hundreds of
 * microseconds per start under the mutex that every task and the tick
 * source share. The wheel keeps the same behaviour at O(1) per start, stop
 * and restart and O(timers due) per tick, amortised.
 *
 * Layout. Time is kept as a 64-bit count `now` whose low half is the
 * visible 32-bit `ticks`; a running timer's 64-bit expiry is
 * now + (expireAt - ticks), which is unique because no timer runs for
 * 2^32 ticks or more. Level 0 has 256 slots, one per tick; levels 1-4 have
 * 64 slots each, covering bits 8-13, 14-19, 20-25 and 26-31 of the expiry;
 * one more list holds the timers that fall due after the next wrap of the
 * low 32 bits. A timer sits at the level of the highest bit in which its
 * expiry differs from `now` (the "xor" placement), in the slot given by the
 * expiry's bits of that level.
 *
 * Why xor placement rather than placement by distance: the level and slot
 * of a running timer are a function of its expiry and `now` alone. Hence
 *  - stop and restart find the timer's list without a search and without a
 *    field in TIMERBUF to remember it (its layout is the machines');
 *  - every timer due on a given tick is always in the same slot as every
 *    other timer due on that tick, so the delivery order is just the order
 *    inside one list: a start links at the front (started last, delivered
 *    first), and moving a slot down a level (a cascade) appends its timers
 *    in their order, which keeps it.
 * When a tick carries into bit 8, 14, 20, 26 or 32 of `now`, the slot of
 * that level that `now` has just entered is emptied and its timers are
 * placed again; they all move to lower levels. Each timer is moved at most
 * five times in its life, whatever the number of timers running. After the
 * cascades, the level-0 slot of `now` holds exactly the timers due now.
 */
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <new>
#include <sstream>
#include <string>
#include <vector>

#include "abstraction/kvos_mutex.h"
#include "fsm/fsm_buf.h"
#include "fsm/fsm_glob.h"
#include "fsm/fsm_msg.h"
#include "fsm/fsm_timer.h"
#include "fsm/fsm_timer_seams.h"
#include "fsm_internal.h"
#include "libkvc/dlist.h"

using namespace fsm_detail;

namespace {

constexpr unsigned kLevel0Bits = 8;
constexpr unsigned kLevelBits = 6;
constexpr unsigned kUpperLevels = 4;  /* levels 1..4 */
constexpr unsigned kLevel0Slots = 1u << kLevel0Bits;
constexpr unsigned kLevelSlots = 1u << kLevelBits;
/* Level 0, levels 1..4, then the list of timers beyond the next wrap. */
constexpr unsigned kSlotCount = kLevel0Slots + kUpperLevels * kLevelSlots + 1;
constexpr unsigned kBeyondWrap = kSlotCount - 1;
constexpr unsigned kNameLength = 64;

/* The low bit of level `level` (1..4) of an expiry. */
constexpr unsigned levelShift(unsigned level)
{
    return kLevel0Bits + (level - 1) * kLevelBits;
}

}  // namespace

struct TIMER_SYSTEM_ {
    FSMADDR owner;      /* source of every expiry message */
    uint32_t ticks;     /* low half of `now`; what timerSystemGetTicks reports */
    uint64_t now;
    uint32_t running;
    KVOS_MUTEX mutex;
    TIMER_EXPIRY_SINK sink;
    void* sinkArg;
    char name[kNameLength];
    DList slots[kSlotCount];
};

namespace {

/* `inwheel` is written under the mutex but may be read without it (a
 * machine asking whether its timer still runs while the tick source expires
 * it), so every write and the unlocked read are atomic. */
void setInWheel(TIMERBUF* timer, bool on)
{
    __atomic_store_n(&timer->inwheel, on, __ATOMIC_RELEASE);
}

/* The slot of a timer that falls due at `expiry` (64-bit), seen from `now`. */
unsigned slotOf(uint64_t now, uint64_t expiry)
{
    const uint64_t diff = now ^ expiry;
    if (diff < kLevel0Slots) {
        return static_cast<unsigned>(expiry & (kLevel0Slots - 1));
    }
    if (diff >> 32 != 0) {
        return kBeyondWrap;
    }
    const unsigned high = 63u - static_cast<unsigned>(__builtin_clzll(diff));
    const unsigned level = 1 + (high - kLevel0Bits) / kLevelBits;
    return kLevel0Slots + (level - 1) * kLevelSlots +
           static_cast<unsigned>((expiry >> levelShift(level)) & (kLevelSlots - 1));
}

/* The 64-bit expiry of a running timer. */
uint64_t expiryOf(const TIMER_SYSTEM* ts, const TIMERBUF* timer)
{
    return ts->now + static_cast<uint32_t>(timer->expireAt - ts->ticks);
}

DList* listOf(TIMER_SYSTEM* ts, const TIMERBUF* timer)
{
    return &ts->slots[slotOf(ts->now, expiryOf(ts, timer))];
}

void unlinkTimer(TIMER_SYSTEM* ts, TIMERBUF* timer)
{
    DList_remove(listOf(ts, timer), timer);
    timer->expireAt = 0;
    setInWheel(timer, false);
    --ts->running;
}

/* Places again every timer of one slot, keeping their order. */
void cascade(TIMER_SYSTEM* ts, unsigned slot)
{
    DList* from = &ts->slots[slot];
    while (void* p = DList_removeFirst(from)) {
        auto* timer = static_cast<TIMERBUF*>(p);
        DList_insertLast(listOf(ts, timer), timer);
    }
}

/* True when a message to `addr` can be posted; the same checks as
 * fsm_verifyAddr, without its log line. */
bool deliverable(const FSMADDR& addr)
{
    if (!fsm_verifySpec(addr.Spec)) {
        return false;
    }
    const GLOB_SPEC_D* d = fsm_getGlobalSpecieDesc(addr.Spec);
    return d->pSpecDesc != nullptr && addr.Ind <= d->HighInd;
}

/* The expiry message: the data as the 8-byte body, from the system's owner
 * to the timer's owner through the owner's task queue. */
void sendExpiry(TIMER_SYSTEM* ts, MSGNAME msg, const FSMADDR& owner, uintptr_t data)
{
    NORMBUF* buf = sys_getBuf(&ts->owner, sizeof(uint64_t));
    const uint64_t body = data;
    memcpy(fsm_msgBody(buf), &body, sizeof(body));
    const bool valid = deliverable(owner);
    sys_sendFarMsg(msg, owner, ts->owner, buf);
    if (!valid) {
        // The send logged the bad address and left the buffer with us.
        fsm_returnMsgBuf(nullptr, buf);
    }
}

class Locked {
public:
    explicit Locked(TIMER_SYSTEM* ts) : ts_(ts) { KVOS_mutexLock(&ts_->mutex); }
    ~Locked() { KVOS_mutexUnlock(&ts_->mutex); }
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;

private:
    TIMER_SYSTEM* ts_;
};

TIMERBUF sLayout;  // only its field addresses are used, to build the lists

}  // namespace

TIMER_SYSTEM* timerSystemCreate(FSMADDR owner, const char* name)
{
    auto* ts = new TIMER_SYSTEM;
    ts->owner = owner;
    ts->ticks = 0;
    ts->now = 0;
    ts->running = 0;
    ts->sink = nullptr;
    ts->sinkArg = nullptr;
    snprintf(ts->name, sizeof(ts->name), "%s", name != nullptr ? name : "");
    for (DList& list : ts->slots) {
        DList_makeDList(&list, &sLayout, &sLayout.next, &sLayout.prev, nullptr);
    }
    const bool mutexOk = KVOS_mutexCreate(&ts->mutex, name) == 1;
    BOOST_ASSERT_MSG(mutexOk, "mutexOk");
    return ts;
}

void timerSystemDelete(TIMER_SYSTEM* ts)
{
    if (ts == nullptr) {
        return;
    }
    const bool mutexOk = KVOS_mutexDelete(&ts->mutex) == 1;
    BOOST_ASSERT_MSG(mutexOk, "mutexOk");
    delete ts;
}

uint32_t timerSystemGetTicks(TIMER_SYSTEM* ts)
{
    Locked lock(ts);
    return ts->ticks;
}

void timerSystemInitTimer(TIMERBUF* timer)
{
    timer->next = nullptr;
    timer->prev = nullptr;
    timer->expireAt = 0;
    timer->inwheel = false;
    timer->msgName = NO_MSGNAME;
    timer->owner = FSMADDR{NO_SPECIE, NO_IND};
    timer->data = 0;
}

bool timerSystemIsActiveTimer(TIMERBUF* timer)
{
    return __atomic_load_n(&timer->inwheel, __ATOMIC_ACQUIRE);
}

void timerSystemStartTimer(TIMER_SYSTEM* ts, TIMERBUF* timer, uint32_t interval, MSGNAME msg, FSMADDR owner,
                           uintptr_t data)
{
    if (interval == 0) {
        // Deliberately refused rather than delivered at once.
        KVLOG_ERROR(fsm_getDeveloperLogger(), kvp("Detail", "Timer will not be executed due to zero length interval")
                                                  << kvp("Fsm-owner", owner)
                                                  << kvp("Msg-name", safeMsgName(msg)));
        return;
    }
    Locked lock(ts);
    if (timer->inwheel) {
        unlinkTimer(ts, timer);
    }
    timer->expireAt = ts->ticks + interval;
    timer->msgName = msg;
    timer->owner = owner;
    timer->data = data;
    DList_insertFirst(listOf(ts, timer), timer);
    setInWheel(timer, true);
    ++ts->running;
}

void timerSystemStopTimer(TIMER_SYSTEM* ts, TIMERBUF* timer)
{
    Locked lock(ts);
    if (timer->inwheel) {
        unlinkTimer(ts, timer);
    }
}

void timerSystemRunTimerWheel(TIMER_SYSTEM* ts)
{
    Locked lock(ts);
    const uint64_t now = ++ts->now;
    ts->ticks = static_cast<uint32_t>(now);

    if ((now & (kLevel0Slots - 1)) == 0) {
        if (static_cast<uint32_t>(now) == 0) {
            cascade(ts, kBeyondWrap);
        }
        for (unsigned level = kUpperLevels; level >= 1; --level) {
            const unsigned shift = levelShift(level);
            if ((now & ((uint64_t{1} << shift) - 1)) == 0) {
                cascade(ts, kLevel0Slots + (level - 1) * kLevelSlots +
                                static_cast<unsigned>((now >> shift) & (kLevelSlots - 1)));
            }
        }
    }

    DList* due = &ts->slots[now & (kLevel0Slots - 1)];
    while (void* p = DList_removeFirst(due)) {
        auto* timer = static_cast<TIMERBUF*>(p);
        const MSGNAME msg = timer->msgName;
        const FSMADDR owner = timer->owner;
        const uintptr_t data = timer->data;
        // Idle before the message leaves, so that its job may restart it.
        timer->expireAt = 0;
        setInWheel(timer, false);
        --ts->running;
        if (ts->sink != nullptr) {
            ts->sink(ts->sinkArg, msg, owner, ts->owner, data);
        } else {
            sendExpiry(ts, msg, owner, data);
        }
    }
}

void timerSystemListTimers(TIMER_SYSTEM* ts, std::ostream& os)
{
    struct Entry {
        uint64_t expiry;
        const TIMERBUF* timer;
    };
    std::vector<Entry> entries;
    std::ostringstream text;
    {
        Locked lock(ts);
        entries.reserve(ts->running);
        for (const DList& list : ts->slots) {
            for (const void* p = list.pHead; p != nullptr; p = static_cast<const TIMERBUF*>(p)->next) {
                const auto* timer = static_cast<const TIMERBUF*>(p);
                entries.push_back(Entry{expiryOf(ts, timer), timer});
            }
        }
        // Timers due on one tick share a slot, in delivery order: a stable
        // sort by expiry gives the order in which they will be delivered.
        std::stable_sort(entries.begin(), entries.end(),
                         [](const Entry& a, const Entry& b) { return a.expiry < b.expiry; });
        text << "Timer system " << ts->name << ": tick " << ts->ticks << ", " << entries.size()
             << " running\n";
        for (const Entry& e : entries) {
            text << "  tick " << e.timer->expireAt << " (in " << e.expiry - ts->now << "): "
                 << safeMsgName(e.timer->msgName) << " to " << e.timer->owner << " data " << e.timer->data
                 << " timer " << ptrText(e.timer) << '\n';
        }
    }
    os << text.str();
}

bool timerSystemIsTimerInList(TIMER_SYSTEM* ts, TIMERBUF* timer)
{
    Locked lock(ts);
    if (!timer->inwheel) {
        return false;
    }
    // The slot is computed from the timer's own expiry: a record that runs
    // in another system is simply not found there.
    const DList* list = listOf(ts, timer);
    for (const void* p = list->pHead; p != nullptr; p = static_cast<const TIMERBUF*>(p)->next) {
        if (p == timer) {
            return true;
        }
    }
    return false;
}

void timerSystemSetTicks(TIMER_SYSTEM* ts, uint32_t ticks)
{
    Locked lock(ts);
    BOOST_ASSERT_MSG(ts->running == 0, "no running timers");
    ts->ticks = ticks;
    ts->now = ticks;
}

void timerSystemSetExpirySink(TIMER_SYSTEM* ts, TIMER_EXPIRY_SINK sink, void* arg)
{
    Locked lock(ts);
    ts->sink = sink;
    ts->sinkArg = arg;
}

uint32_t timerSystemRunningCount(TIMER_SYSTEM* ts)
{
    Locked lock(ts);
    return ts->running;
}

/* ---- The process's timer system ---- */

namespace {

TIME_STR* processTime()
{
    return sys_getGlob()->Time;
}

TIMER_SYSTEM* processTimers()
{
    TIME_STR* time = processTime();
    BOOST_ASSERT_MSG(time != nullptr && time->timerSystem != nullptr, "timer system initialised");
    return time->timerSystem;
}

/* timeOn is written by the controlling thread and read by the tick source. */
void setTimeOn(TIME_STR* time, bool on)
{
    __atomic_store_n(&time->timeOn, on, __ATOMIC_RELEASE);
}

bool timeOn(TIME_STR* time)
{
    return __atomic_load_n(&time->timeOn, __ATOMIC_ACQUIRE);
}

}  // namespace

void sys_initSystemTimer(void)
{
    if (TIME_STR* time = processTime()) {
        setTimeOn(time, false);
    }
}

void sys_startSystemTimer(void)
{
    if (TIME_STR* time = processTime()) {
        setTimeOn(time, true);
    }
}

void sys_stopSystemTimer(void)
{
    if (TIME_STR* time = processTime()) {
        setTimeOn(time, false);
    }
}

uint32_t sys_getTimerTicks(void)
{
    TIME_STR* time = processTime();
    return time != nullptr && time->timerSystem != nullptr ? timerSystemGetTicks(time->timerSystem) : 0;
}

void sys_runTimerWheel(void)
{
    TIME_STR* time = processTime();
    if (time != nullptr && time->timerSystem != nullptr && timeOn(time)) {
        timerSystemRunTimerWheel(time->timerSystem);
    }
}

void sys_initTimer(TIMERBUF* timer)
{
    timerSystemInitTimer(timer);
}

void sys_startTimer(TIMERBUF* timer, uint32_t interval, MSGNAME msg, FSMADDR owner, uintptr_t data)
{
    timerSystemStartTimer(processTimers(), timer, interval, msg, owner, data);
}

void sys_stopTimer(TIMERBUF* timer)
{
    timerSystemStopTimer(processTimers(), timer);
}

void sys_listTimers(std::ostream& os)
{
    timerSystemListTimers(processTimers(), os);
}

bool sys_isBufferInList(TIMERBUF* timer)
{
    return timerSystemIsTimerInList(processTimers(), timer);
}

bool sys_isActiveTimer(TIMERBUF* timer)
{
    return timerSystemIsActiveTimer(timer);
}

/* ---- Machine-level calls ---- */

void fsm_initTimer(PROC_DATA* /*proc*/, TIMERBUF* timer)
{
    timerSystemInitTimer(timer);
}

void fsm_startTimer(PROC_DATA* proc, TIMERBUF* timer, uint32_t interval, MSGNAME msg, uintptr_t data)
{
    if ((proc->procTestFlags & TraceTimers) != 0) {
        KVLOG_INFO(fsm_getDeveloperLogger(), kvp("Detail", "Starting timer")
                                                 << procFields(proc) << kvp("Msg-name", safeMsgName(msg))
                                                 << kvp("Interval", interval));
    }
    sys_startTimer(timer, interval, msg, proc->ProcSELF, data);
}

void fsm_stopTimer(PROC_DATA* proc, TIMERBUF* timer)
{
    if ((proc->procTestFlags & TraceTimers) != 0) {
        KVLOG_INFO(fsm_getDeveloperLogger(), kvp("Detail", "Stopping timer")
                                                 << procFields(proc)
                                                 << kvp("Msg-name", safeMsgName(timer->msgName)));
    }
    sys_stopTimer(timer);
}
