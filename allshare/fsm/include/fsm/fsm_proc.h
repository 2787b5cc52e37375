/**
 * @file
 * FSM tasks: set-up, the task main loop, the tasks' contexts, and
 * shutdown.
 *
 * fsm_procSetup creates one KVOS task per FSMPROCCONFIG entry, each with
 * its own message queue, binds every specie to the task named in its
 * entry, lets every task run the reset jobs of its species and releases
 * the tasks into their main loops only when every task has finished
 * resetting. A task that cannot be created is logged ("Unable to create
 * FSM task"); its species are then left without a queue and set-up goes on
 * with the next entry.
 *
 * Lifecycle of one process: sys_initFSMSystem, fsm_procSetup, traffic,
 * fsm_procShutdown; the cycle may run again. fsm_procShutdown is not
 * thread-safe against a concurrent set-up and must not be called from an
 * FSM task.
 */
#ifndef FSM_FSM_PROC_H
#define FSM_FSM_PROC_H

#include <stddef.h>

#include <ostream>

#include "fsm/fsm_types.h"

#pragma GCC visibility push(default)

/** Creates the tasks and queues, binds the species and runs the reset
 * handshake; returns when every created task is operating. */
void fsm_procSetup(FSMPROCCONFIG* procs, size_t numTasks, FSMSPECCONFIG* specs);
/** Entry of every FSM task. Returns only when fsm_procShutdown stops it. */
void fsm_task_main(void* startRecord);

/** Stops every FSM task (a control token behind the messages already on its
 * queue), waits until each has left the task list, releases every buffer
 * still queued or saved (counted back in the statistics), frees the tables
 * and the timer system. The buffer statistics stay readable until the next
 * sys_initFSMSystem. Buffers that machines keep are theirs to release. */
void fsm_procShutdown(void);

/** The calling FSM task's context; null on any other thread. */
PROC_DATA* fsm_getProcData(void);
/** The context of the FSM task `tid`; null when no FSM task has that id. */
PROC_DATA* fsm_getProcDataFromTID(KVOS_TASK_ID tid);
/** One process-wide context, reset to "none" on every call. */
PROC_DATA* fsm_getDummyProcData(void);

///@{
/** "\n*** Dumping proc start\n", one line per task, "*** Dumping proc end\n";
 * to standard output, or to `os`. A task's line is "%p: %s-%d message %s
 * from %s-%d\n" (its context, the current machine, the current message and
 * its sender) or "%p: no proc data\n" when the task has not started or runs
 * no machine. Reads the task table without a lock, for diagnostics (the
 * fatal path of a failed send uses it): any thread, but not concurrently
 * with fsm_procSetup or fsm_procShutdown. The standard output form writes
 * the report in one piece and flushes it. */
void fsm_dumpAllProc(void);
void fsm_dumpAllProc(std::ostream& os);
///@}

#pragma GCC visibility pop
#endif
