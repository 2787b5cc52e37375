/**
 * @file
 * KVOS tasks: threads on stacks the library allocates itself.
 *
 * Every task stack is fenced by an inaccessible guard page below and above
 * it and pre-filled with the marker word 0xdadefee1, so the deepest use can
 * be measured later; an overflow faults on the lower guard page. The C
 * library keeps each thread's control block and thread-local storage at the
 * top of its stack; a task's stack is mapped larger by that block, so the
 * task can use the whole size it asked for, and the dump shows and measures
 * the size asked for. Every task also gets its own alternate signal stack
 * (1,024,000 bytes), so a handler for that fault can still run.
 *
 * Tasks are joined and their memory released by one service thread, the
 * reaper "reaperT", which learns of each start and end through the pointer
 * queue "reaperQ" (20 entries). A task's start and exit posts wait for room
 * in the queue, so no task is lost however many start or end at once; a
 * task that is cancelled still posts its exit. A task that ends through
 * KVOS_taskExit posts no exit message and stays listed.
 *
 * The reaper is the only thread that joins tasks. KVOS_taskJoin does not
 * join: it waits until the task has ended (returned and been reaped, been
 * cancelled and reaped, or called KVOS_taskExit) and then answers true,
 * however long after the end it is called. It answers false for the
 * calling thread itself, and true at once for a handle that is not a live
 * task. Handles are reused once the reaper has released a task, so a join
 * long after the end may wait for a later task with the same handle.
 *
 * kvos_task_cancel_all (KVOS_cleanup) cancels every task created and not
 * yet reaped except the caller, waits until the reaper has joined and
 * released them, for at most 2 seconds, then stops the reaper. Tasks may
 * not be created before KVOS_init or after KVOS_cleanup (an assertion).
 * KVOS_taskBacktraceAllOtherTasks signals a task only while it is still
 * listed, so tasks may end while it runs.
 *
 * When the process runs as root, tasks get round-robin real-time scheduling;
 * attribute priorities count like a classic real-time kernel's (0 is the
 * most urgent) and are inverted onto the system's range. Otherwise the
 * system's default policy applies.
 *
 * Programming faults (a null attribute record, a stack size that is not a
 * multiple of 1024) end the process through an assertion.
 */
#ifndef ABSTRACTION_KVOS_TASK_H
#define ABSTRACTION_KVOS_TASK_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <ostream>

#pragma GCC visibility push(default)

/** Task priority as the attribute records count it: 0 is the most urgent. */
typedef uint32_t KVOS_TASK_PRI;
/** Handle of a task: its thread. */
typedef pthread_t KVOS_TASK_ID;
/** The null task handle: what KVOS_taskCreate returns on failure. */
#define KVOS_NO_TASK_ID ((KVOS_TASK_ID)-1)

/** Scheduler choice kept in a task attribute record; it is stored and returned only, the policy
 * follows from the process's privileges (see the file note). */
typedef enum KVOS_SCHED_TYPE {
    KVOS_SCHED_DEFAULT = 0,
    KVOS_SCHED_RR = 1,
    KVOS_SCHED_OTHER = 2
} KVOS_SCHED_TYPE;

/** Capacity of a task name, terminator included. */
#define KVOS_TASK_NAME_LEN 20
/** The smallest task stack in bytes; smaller sizes are raised to it. */
#define KVOS_TASK_MIN_STACK 16384u
/** Bytes of every task's alternate signal stack. */
#define KVOS_SIGNAL_STACK_SIZE 1024000u
/** The word fresh stacks are filled with, so that their deepest use can be measured. */
#define KVOS_STACK_MARKER 0xdadefee1u

/** Attributes of a task to create. Obtain one from KVOS_taskAttrCreate (all zeroes: priority 0,
 * empty name, default scheduler, minimum stack) and set it through the calls below. */
typedef struct TaskAttrInternal {
    KVOS_TASK_PRI priority;
    char taskName[KVOS_TASK_NAME_LEN];
    KVOS_SCHED_TYPE schedType;
    uint32_t stackSize;
    uint32_t stackSegment;
} TaskAttrInternal;
/** The attribute record as callers name it. */
typedef TaskAttrInternal KVOS_TASK_ATTR;

/** One task-list entry; also the reaper's message, with `taken` as the
 * command (0 thread starting, 1 thread exiting). */
typedef struct ThreadInfo {
    int32_t taken;
    char* name;
    int32_t pid;
    KVOS_TASK_ID tid;
    void* stack;
    size_t stackSize;
    void* signalStack;
    size_t signalStackSize;
} ThreadInfo;

/** Entry of a task; it runs with the argument given to KVOS_taskCreate and the task ends when it
 * returns. */
typedef void (*KVOS_TASK_ENTRY)(void* arg);
/** Line sink of the task dump: (arg, text, length). */
typedef int (*KVOS_TASK_OUT_FUNC)(int arg, const void* text, unsigned length);

/* Attributes. All but the name setter assert "attr != NULL". */
/** A new, zeroed attribute record owned by the caller; release it with KVOS_taskAttrDestroy.
 * Running out of memory is fatal. */
KVOS_TASK_ATTR* KVOS_taskAttrCreate(void);
/** Frees a record from KVOS_taskAttrCreate. */
void KVOS_taskAttrDestroy(KVOS_TASK_ATTR* attr);
/** Sets the priority (0 most urgent), used when the process runs as root. */
void KVOS_taskAttrSetPriority(KVOS_TASK_ATTR* attr, KVOS_TASK_PRI priority);
/** The priority set, 0 by default. */
KVOS_TASK_PRI KVOS_taskAttrGetPriority(const KVOS_TASK_ATTR* attr);
/** Keeps the first 19 characters. */
void KVOS_taskAttrSetName(KVOS_TASK_ATTR* attr, const char* name);
/** The name set, empty by default; the text lives in the record. */
const char* KVOS_taskAttrGetName(const KVOS_TASK_ATTR* attr);
/** Stores the scheduler choice; it does not change how the task is scheduled. */
void KVOS_taskAttrSetScheduler(KVOS_TASK_ATTR* attr, KVOS_SCHED_TYPE sched);
/** The scheduler choice stored, KVOS_SCHED_DEFAULT by default. */
KVOS_SCHED_TYPE KVOS_taskAttrGetScheduler(const KVOS_TASK_ATTR* attr);
/** Asserts "stackSize % 1024 == 0"; 0 means the minimum, 16384. */
void KVOS_taskAttrSetStackSize(KVOS_TASK_ATTR* attr, unsigned stackSize);
/** The stack size set, 0 (meaning the minimum) by default. */
unsigned KVOS_taskAttrGetStackSize(const KVOS_TASK_ATTR* attr);
/** Stores a stack segment number; kept for callers, not used on this platform. */
void KVOS_taskAttrSetStackSegment(KVOS_TASK_ATTR* attr, unsigned segment);
/** The stack segment number stored, 0 by default. */
unsigned KVOS_taskAttrGetStackSegment(const KVOS_TASK_ATTR* attr);

/* Tasks. KVOS_taskCreate returns the handle, or KVOS_NO_TASK_ID with the
 * error left for KVOS_lastError. */
/** Starts a task running entry(arg) on a stack of the record's size (at least 16384 bytes) with the
 * record's name and priority; the record may be released as soon as this returns. Returns the
 * handle, or KVOS_NO_TASK_ID with the error left for KVOS_lastError. */
KVOS_TASK_ID KVOS_taskCreate(KVOS_TASK_ENTRY entry, void* arg, KVOS_TASK_ATTR* attr);
/** KVOS_taskCreate with the attributes given as arguments (the name cut to 19 characters, the stack
 * size a multiple of 1024 or the process aborts). */
KVOS_TASK_ID KVOS_taskCreateOld(KVOS_TASK_ENTRY entry, KVOS_TASK_PRI priority, void* arg,
                                const char* name, int stackSize);
/** Handle of the calling task (its thread). */
KVOS_TASK_ID KVOS_taskID(void);
/** Waits until the task has ended (returned and been reaped, been cancelled and reaped, or called
 * KVOS_taskExit) and answers true, however long after the end it is called; it never joins (the
 * reaper does). False for the calling thread itself; true at once for a handle that is not a live
 * task. */
bool KVOS_taskJoin(KVOS_TASK_ID tid);
/** Kept for older callers: tasks never stop, so there is nothing to resume. Returns 1. */
int KVOS_taskResume(KVOS_TASK_ID tid);
/** Registers fn(arg) to run once when the calling task's entry returns or it calls KVOS_taskExit; a
 * later registration replaces the earlier. Returns 1. */
int KVOS_taskOnExit(void (*fn)(void*), void* arg);
/** Ends the calling task after running its exit handler. The task stays listed and its stacks are
 * not released (see the file note). */
void KVOS_taskExit(void) __attribute__((noreturn));
/** Yields the processor; the system's result (0). */
int KVOS_taskRelinquish(void);
/** Pins the thread to the one processor `cpu` (counted from 0); true on success, false when the
 * system refuses, for example for a processor that does not exist. */
bool KVOS_setAffinity(KVOS_TASK_ID tid, unsigned long cpu);
/** Sends SIGUSR1 to every other listed task, 200 ms apart, for a handler that prints backtraces.
 * Works from a snapshot of the list and signals a task only while it is still listed, so tasks may
 * end while it runs. */
void KVOS_taskBacktraceAllOtherTasks(void);
/** Cancels every task created and not yet reaped except the caller, waits until the reaper has
 * joined and released them (at most 2 seconds), then stops the reaper. Backs KVOS_cleanup. */
int kvos_task_cancel_all(void);
/** Starts the reaper task and its queue; KVOS_init calls it once, before any task is created. */
void kvos_task_init(void);

/** Task list dump: one line per task, then "List info: ...". The text is
 * formatted under the list's lock and written after it is released, so the
 * stream or output function may use the library. */
void KVOS_taskDump(std::ostream& os);
/** The same dump, handed to out(arg, text, length) in one piece. */
void KVOS_taskDump(KVOS_TASK_OUT_FUNC out, int arg);
/** KVOS_taskDump to out with arg, in the argument order of older callers. */
void RTOS_tdumplist(unsigned arg, KVOS_TASK_OUT_FUNC out);

#pragma GCC visibility pop

/*
 * The task list and the stack allocator behind the calls above. They are for
 * the library's own use and its tests, and are not exported from the shared
 * library.
 */

/** Task list. registerTask takes over `name` (a heap copy); unregisterTask
 * releases the entry's stacks as task creation allocated them. */
void registerTask(char* name, int pid, KVOS_TASK_ID tid, void* stack, size_t stackSize,
                  void* signalStack, size_t signalStackSize);
void unregisterTask(int pid, KVOS_TASK_ID tid);
/** Walks the list without its lock. */
void taskList_foreach(void (*fn)(ThreadInfo*));
/** Entries now listed, and the running counters; read under the lock. */
size_t kvos_taskListSize(void);
size_t kvos_taskListAdditions(void);
size_t kvos_taskListRemovals(void);
/** True while a task with this handle is listed (read under the lock). A
 * task leaves the list when the reaper has joined it. */
bool kvos_taskIsListed(KVOS_TASK_ID tid);

/** Released task stacks and signal stacks that the reaper keeps for later
 * tasks (at most 16 task stacks of 4 MiB in all, and 4 signal stacks), and
 * their release (KVOS_cleanup releases them too). */
size_t kvos_taskCachedStacks(void);
void kvos_taskReleaseCachedStacks(void);

/** Stacks. allocate_stack returns the lowest usable address, or null. */
void* allocate_stack(size_t size);
void deallocate_stack(void* stack, size_t size);
size_t check_stack_usage(void* stack, size_t size);
size_t get_pagesize(void);

#endif
