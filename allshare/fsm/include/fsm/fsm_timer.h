/**
 * @file
 * Timers: a machine asks for a message to be sent to itself after a number
 * of ticks.
 *
 * The process has one timer system, created by sys_initGlobalData under the
 * name "FsmTimerWheel" with the owner address {FSM_TIMER, 0} and held in
 * GLOB_DATA.Time. It keeps the running timers in one list ordered by expiry;
 * each tick (one call of the advance operation) turns the timers that fall
 * due into far messages whose Source is the system's owner address and whose
 * 8-byte body carries the timer's `data`. The tick period belongs to whoever
 * drives the wheel: the tick source below, or the product's own.
 *
 * A TIMERBUF is owned and stored by the machine that uses it (usually in its
 * individual data) and must stay alive while it runs. Start, stop and tick
 * may come from different threads; the system's mutex serialises them.
 */
#ifndef FSM_FSM_TIMER_H
#define FSM_FSM_TIMER_H

#include <stdint.h>

#include <ostream>

#include "fsm/fsm_types.h"

#pragma GCC visibility push(default)

typedef struct TIMERBUF_ {
    struct TIMERBUF_* next;
    struct TIMERBUF_* prev;
    uint32_t expireAt;  /**< tick count at which the timer falls due */
    bool inwheel;       /**< true while the timer is in the list */
    MSGNAME msgName;    /**< sent on expiry */
    FSMADDR owner;      /**< receives it */
    uintptr_t data;     /**< carried in the expiry message's body */
} TIMERBUF;

/** A timer system; opaque. */
typedef struct TIMER_SYSTEM_ TIMER_SYSTEM;

typedef struct TIME_STR_ {
    TIMER_SYSTEM* timerSystem; /**< the process's timer wheel */
    bool timeOn;               /**< false until the system timer runs */
} TIME_STR;

/** A timer system with an empty list and 0 ticks; asserts "mutexOk" when its
 * mutex (named `name`) cannot be created. */
TIMER_SYSTEM* timerSystemCreate(FSMADDR owner, const char* name);
/** Deletes the mutex (asserts "mutexOk") and frees the system; running
 * timers are not touched. Null is ignored. */
void timerSystemDelete(TIMER_SYSTEM* ts);
uint32_t timerSystemGetTicks(TIMER_SYSTEM* ts);
/** Clears a timer; call once before first use. */
void timerSystemInitTimer(TIMERBUF* timer);
bool timerSystemIsActiveTimer(TIMERBUF* timer);
/** Starts (or restarts) a timer to fall due `interval` ticks from now. A
 * zero interval is deliberately refused: logged, not started. Among timers
 * due at the same tick, the one started last is delivered first. */
void timerSystemStartTimer(TIMER_SYSTEM* ts, TIMERBUF* timer, uint32_t interval, MSGNAME msg, FSMADDR owner,
                           uintptr_t data);
/** Stops a running timer; stopping a stopped timer does nothing. */
void timerSystemStopTimer(TIMER_SYSTEM* ts, TIMERBUF* timer);
/** One tick: advances the count and sends every timer that falls due. */
void timerSystemRunTimerWheel(TIMER_SYSTEM* ts);
/** Diagnostic listing of the running timers. */
void timerSystemListTimers(TIMER_SYSTEM* ts, std::ostream& os);
bool timerSystemIsTimerInList(TIMER_SYSTEM* ts, TIMERBUF* timer);

/** The process's timer system (GLOB_DATA.Time). sys_initSystemTimer
 * remembers the record and leaves the timer stopped; sys_runTimerWheel
 * advances the wheel only while the system timer is started. */
void sys_initSystemTimer(void);
void sys_startSystemTimer(void);
void sys_stopSystemTimer(void);
uint32_t sys_getTimerTicks(void);
void sys_runTimerWheel(void);
void sys_initTimer(TIMERBUF* timer);
void sys_startTimer(TIMERBUF* timer, uint32_t interval, MSGNAME msg, FSMADDR owner, uintptr_t data);
void sys_stopTimer(TIMERBUF* timer);
void sys_listTimers(std::ostream& os);
bool sys_isBufferInList(TIMERBUF* timer);
bool sys_isActiveTimer(TIMERBUF* timer);

/** The tick source: a KVOS task that calls sys_runTimerWheel once every
 * period_ms milliseconds. False when it already runs or cannot be started.
 * sys_stopTickSource stops it and waits for it to end; it does nothing when
 * no tick source runs. fsm_procShutdown stops it. */
bool sys_startTickSource(unsigned period_ms);
void sys_stopTickSource(void);

/** Machine-level calls: the running machine is the owner; start and stop
 * are traced when the machine's trace flags ask for it. */
void fsm_initTimer(PROC_DATA* proc, TIMERBUF* timer);
void fsm_startTimer(PROC_DATA* proc, TIMERBUF* timer, uint32_t interval, MSGNAME msg, uintptr_t data);
void fsm_stopTimer(PROC_DATA* proc, TIMERBUF* timer);

#pragma GCC visibility pop
#endif
