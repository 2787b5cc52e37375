/*
 * Test and benchmark seams of profiling and trace words. Not part of the
 * interface that machines use: production code never calls these.
 */
#ifndef FSM_FSM_PROFILING_SEAMS_H
#define FSM_FSM_PROFILING_SEAMS_H

#include "fsm/fsm_types.h"

/* Closes "system.par" if it is open and forgets that it was found
 * unavailable, so that the next read or save opens it again as the first
 * one of a process would. Not thread-safe against reads and saves. */
void fsm_traceWordReset(void);

/* sys_interpretMsg built without the profiling samples, as a build with
 * FSM_PROFILING_BUILT=0 has it: the baseline that shows what message
 * handling pays for profiling while it is off. */
void fsm_interpretMsgUnprofiled(PROC_DATA* proc, NORMBUF* buf);

#endif
