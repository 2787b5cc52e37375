/**
 * @file
 * Timers: a machine asks for a message to be sent to itself after a number
 * of ticks.
 *
 * The process has one timer system, created by sys_initGlobalData under the
 * name "FsmTimerWheel" with the owner address {FSM_TIMER, 0} and held in
 * GLOB_DATA.Time. It behaves as one list of running timers ordered by
 * expiry (a timer started with interval i falls due on the i-th tick after;
 * of the timers due on one tick, the one started last is delivered first)
 * but is stored as a hierarchical wheel, so start, stop and restart cost
 * O(1) and a tick O(timers due), whatever the number of timers running.
 * Each tick (one call of the advance operation) turns the timers that fall
 * due into far messages whose Source is the system's owner address and whose
 * 8-byte body carries the timer's `data`; the timer is idle again before
 * its message is sent, so the job handling it may restart it. The sends are
 * made inside the tick with the system's mutex held. The tick period belongs
 * to whoever drives the wheel: the tick source below, or the product's own.
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
/** The system's tick count: the number of ticks run since creation, modulo
 * 2^32 (compare counts by unsigned difference). Takes the system's mutex;
 * any thread. */
uint32_t timerSystemGetTicks(TIMER_SYSTEM* ts);
/** Clears a timer; call once before first use. */
void timerSystemInitTimer(TIMERBUF* timer);
/** True while the timer runs: started, and neither stopped nor expired since.
 * Reads the timer's flag without the system's mutex, so any thread may ask,
 * the handler of the expiry message included (the timer is already idle
 * then); the answer can be outdated on return when another thread starts,
 * stops or ticks at the same time. */
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
/** Diagnostic listing of the running timers in the order they will be
 * delivered: "Timer system <name>: tick <t>, <n> running", then per timer
 * "  tick <expireAt> (in <ticks left>): <message> to <owner> data <data>
 * timer <location>". A TIMERBUF is found only in the system it runs in. */
void timerSystemListTimers(TIMER_SYSTEM* ts, std::ostream& os);
/** True when the timer runs in `ts`: unlike timerSystemIsActiveTimer, looks
 * for the record in the system's own lists, under its mutex, so a timer
 * that runs in another system answers false. A diagnostic check; any
 * thread. */
bool timerSystemIsTimerInList(TIMER_SYSTEM* ts, TIMERBUF* timer);

/** The process's timer system (GLOB_DATA.Time). sys_initSystemTimer
 * remembers the record and leaves the timer stopped; sys_runTimerWheel
 * advances the wheel only while the system timer is started. */
void sys_initSystemTimer(void);
/** Starts the system timer: from now on sys_runTimerWheel advances the
 * wheel. Does nothing before sys_initGlobalData has created the system.
 * Any thread; the flag is atomic. */
void sys_startSystemTimer(void);
/** Stops the system timer: sys_runTimerWheel does nothing until it is
 * started again, and running timers keep the ticks they have left. Does
 * nothing before sys_initGlobalData. Any thread; the flag is atomic. */
void sys_stopSystemTimer(void);
/** timerSystemGetTicks of the process's system; 0 before sys_initGlobalData
 * and after the FSM tasks have been shut down. */
uint32_t sys_getTimerTicks(void);
/** One tick of the process's system (timerSystemRunTimerWheel) when the
 * system timer is started; otherwise, and before sys_initGlobalData, does
 * nothing. Called by the tick source, or by the product's own tick driver;
 * the expiry messages are sent on the calling thread. */
void sys_runTimerWheel(void);
/** timerSystemInitTimer: clears a timer; call once before first use. */
void sys_initTimer(TIMERBUF* timer);
/** timerSystemStartTimer on the process's system, with `owner` as the
 * receiver of the expiry message. Asserts "timer system initialised" when
 * called before sys_initGlobalData or after shutdown. */
void sys_startTimer(TIMERBUF* timer, uint32_t interval, MSGNAME msg, FSMADDR owner, uintptr_t data);
/** timerSystemStopTimer on the process's system; asserts "timer system
 * initialised" like sys_startTimer. */
void sys_stopTimer(TIMERBUF* timer);
/** timerSystemListTimers of the process's system; asserts "timer system
 * initialised" like sys_startTimer. */
void sys_listTimers(std::ostream& os);
/** timerSystemIsTimerInList on the process's system; asserts "timer system
 * initialised" like sys_startTimer. */
bool sys_isBufferInList(TIMERBUF* timer);
/** timerSystemIsActiveTimer: true while the timer runs. Needs no timer
 * system and takes no lock. */
bool sys_isActiveTimer(TIMERBUF* timer);

///@{
/** The tick source: a KVOS task ("fsmTick") that calls sys_runTimerWheel
 * once every period_ms milliseconds, on absolute deadlines of the monotonic
 * clock: the count does not drift, and after a stall it catches up tick by
 * tick, so no expiry is skipped. Start it after sys_initFSMSystem. False
 * when it already runs, for a period of 0, or when the task cannot be
 * created. sys_stopTickSource stops it and waits until the task has been
 * joined; it does nothing when no tick source runs. fsm_procShutdown stops
 * it. */
bool sys_startTickSource(unsigned period_ms);
void sys_stopTickSource(void);
///@}

///@{
/** Machine-level calls: the running machine is the owner; start and stop
 * are traced when the machine's trace flags ask for it. */
void fsm_initTimer(PROC_DATA* proc, TIMERBUF* timer);
void fsm_startTimer(PROC_DATA* proc, TIMERBUF* timer, uint32_t interval, MSGNAME msg, uintptr_t data);
void fsm_stopTimer(PROC_DATA* proc, TIMERBUF* timer);
///@}

#pragma GCC visibility pop
#endif
