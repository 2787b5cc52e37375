/*
 * Test seam of the trace-word file. Not part of the interface that
 * machines use: production code never calls it.
 */
#ifndef FSM_FSM_TRACE_SEAMS_H
#define FSM_FSM_TRACE_SEAMS_H

/* Closes "system.par" if it is open and forgets that it was found
 * unavailable, so that the next read or save opens it again as the first
 * one of a process would. Not thread-safe against reads and saves. */
void fsm_traceWordReset(void);

#endif
