/*
 * Test and benchmark seams of the timer system. Not part of the interface
 * that machines use: production code never calls these.
 *
 *  - timerSystemSetTicks moves the tick count of a wheel that has no
 *    running timers, so that tests reach the 32-bit wrap without 2^32 ticks.
 *  - An expiry sink replaces the buffer allocation and far send of an
 *    expiry, so that the wheel can be driven and observed without FSM tasks.
 *    The sink runs exactly where the send would: inside the tick, with the
 *    system's mutex held and the timer already idle. It must not call back
 *    into the same timer system.
 */
#ifndef FSM_FSM_TIMER_SEAMS_H
#define FSM_FSM_TIMER_SEAMS_H

#include <stdint.h>

#include "fsm/fsm_timer.h"

/* Sets the tick count; asserts "no running timers" when timers run. */
void timerSystemSetTicks(TIMER_SYSTEM* ts, uint32_t ticks);

/* Receives one expiry: the message, its destination (the timer's owner),
 * its source (the system's owner) and the timer's data. */
typedef void (*TIMER_EXPIRY_SINK)(void* arg, MSGNAME msg, FSMADDR owner, FSMADDR source, uintptr_t data);

/* Installs a sink for the expiries of `ts`; null restores the far send. */
void timerSystemSetExpirySink(TIMER_SYSTEM* ts, TIMER_EXPIRY_SINK sink, void* arg);

/* Number of running timers of `ts`. */
uint32_t timerSystemRunningCount(TIMER_SYSTEM* ts);

#endif
