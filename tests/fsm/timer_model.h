/*
 * The reference for the timer wheel: all running timers in one DList
 * ordered by expiry, exactly as the timers' documented behaviour reads.
 * A start walks from the front and links the timer after the last one
 * whose distance to its expiry (relative to the current tick, unsigned) is
 * strictly smaller than the new timer's, so among equal expiries the one
 * started last is first; a tick pops from the front while the first timer
 * is due. O(n) per start: a model for the differential test and the
 * baseline of the benchmarks, not something to run a product on.
 *
 * Expiries go to a caller's function instead of a far send.
 */
#ifndef TESTS_FSM_TIMER_MODEL_H
#define TESTS_FSM_TIMER_MODEL_H

#include <stdint.h>

#include <functional>

#include "fsm/fsm_timer.h"
#include "libkvc/dlist.h"

namespace fsm_test {

class SortedListTimers {
public:
    using Sink = std::function<void(uint32_t tick, MSGNAME msg, FSMADDR owner, uintptr_t data)>;

    explicit SortedListTimers(Sink sink = nullptr) : sink_(std::move(sink))
    {
        TIMERBUF sample;
        DList_makeDList(&list_, &sample, &sample.next, &sample.prev, nullptr);
    }

    void setTicks(uint32_t ticks) { ticks_ = ticks; }
    uint32_t ticks() const { return ticks_; }
    int running() const { return DList_getCount(&list_); }
    const DList& list() const { return list_; }

    void start(TIMERBUF* t, uint32_t interval, MSGNAME msg, FSMADDR owner, uintptr_t data)
    {
        if (interval == 0) {
            return;
        }
        t->expireAt = ticks_ + interval;
        t->msgName = msg;
        t->owner = owner;
        t->data = data;
        if (t->inwheel) {
            DList_remove(&list_, t);
        }
        const uint32_t d = t->expireAt - ticks_;
        TIMERBUF* after = nullptr;
        for (auto* p = static_cast<TIMERBUF*>(DList_getFirst(&list_)); p != nullptr && p->expireAt - ticks_ < d;
             p = p->next) {
            after = p;
        }
        DList_insertAfter(&list_, after, t);
        t->inwheel = true;
    }

    void stop(TIMERBUF* t)
    {
        if (t->inwheel) {
            DList_remove(&list_, t);
            t->expireAt = 0;
            t->inwheel = false;
        }
    }

    void tick()
    {
        ++ticks_;
        for (auto* p = static_cast<TIMERBUF*>(DList_getFirst(&list_)); p != nullptr && p->expireAt == ticks_;
             p = static_cast<TIMERBUF*>(DList_getFirst(&list_))) {
            DList_remove(&list_, p);
            p->expireAt = 0;
            p->inwheel = false;
            if (sink_) {
                sink_(ticks_, p->msgName, p->owner, p->data);
            }
        }
    }

private:
    Sink sink_;
    DList list_;
    uint32_t ticks_ = 0;
};

}  // namespace fsm_test

#endif
