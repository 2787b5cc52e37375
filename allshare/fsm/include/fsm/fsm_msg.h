/**
 * @file
 * Sending, receiving, saving and keeping messages.
 *
 * A send from a running machine stays inside its task when the destination
 * specie runs in the same task (an internal message, queued on the task's
 * own list and handled before the task reads its queue again); otherwise
 * the buffer is posted on the pointer queue of the destination's task (a
 * far message). A machine's message to its own address is a priority send:
 * it goes to the head of the internal list and overtakes everything there.
 *
 * On the receiving side the buffer is decoded into the task's PROC_DATA;
 * a standard machine's state table decides between running a job and
 * saving the message in the individual's save queue (at most 32 buffers).
 * After the job the framework releases the buffer unless the machine has
 * sent it on, kept it (fsm_keepMsgBuf) or it was saved.
 *
 * When a job moves an individual to another state, the individual's saved
 * messages are offered again, in the order they were saved, before any
 * other message the task has waiting; a message saved again goes back to
 * the save queue in the same order.
 *
 * Failures are logged on "developer.fsm" and abandon only that operation,
 * except a refused post on a pointer queue (the system is overloaded beyond
 * recovery: fatal), a corrupt buffer and an unknown machine type
 * (assertions).
 */
#ifndef FSM_FSM_MSG_H
#define FSM_FSM_MSG_H

#include "fsm/fsm_buf.h"
#include "fsm/fsm_types.h"

#pragma GCC visibility push(default)

/** fsm_sendMsgWithPriority, with priority exactly when dest is proc's own
 * address. */
void fsm_sendMsg(PROC_DATA* proc, MSGNAME msg, FSMADDR dest, NORMBUF* buf);
/** Sends buf (a body-less buffer from fsm_getBuf when null) as `msg` to
 * `dest`. An invalid destination is logged and the buffer stays with the
 * caller (if it is the message being handled, the framework still releases
 * it after the job). Sending the message being handled forwards it: the
 * framework no longer releases it. */
void fsm_sendMsgWithPriority(PROC_DATA* proc, MSGNAME msg, FSMADDR dest, NORMBUF* buf, bool priority);
/** The send path of code that is not a running machine (timers, other
 * threads): posts buf (or a body-less sys_getBuf buffer) on the queue of
 * dest's task with Source src. An invalid destination is logged and the
 * buffer stays with the caller; a specie without a queue is logged and the
 * buffer released; a refused post is fatal. */
void sys_sendFarMsg(MSGNAME msg, FSMADDR dest, FSMADDR src, NORMBUF* buf);
/** Takes ownership of the message being handled: the framework will not
 * release it, the machine releases it later or sends it on. */
void fsm_keepMsgBuf(PROC_DATA* proc, NORMBUF* buf);

/** Fills proc from proc->pProcMsg and, for a standard machine, looks the
 * message up in the state table (ProcState, ProcTask, ProcNxtState,
 * pProcIndData); saves the message when the table says so. True when a
 * job is to run; false when the message was rejected (logged) or saved.
 * An unknown machine type fails the assertion "Invalid fsm type". */
bool sys_decodeRecMsg(PROC_DATA* proc);
/** Appends proc->pProcMsg to the individual's save queue (at most 32). */
void sys_saveMsg(PROC_DATA* proc);
/** Handles buf (none: only the internal list) and then every internal
 * message, including those the jobs send meanwhile. */
void sys_interpretMsg(PROC_DATA* proc, NORMBUF* buf);

/** Number of buffers in the save queue of an individual's data (the list
 * headed by its first word); 0 for null data. For diagnostics and tests. */
unsigned fsm_saveQueueLength(const void* indData);

#pragma GCC visibility pop
#endif
