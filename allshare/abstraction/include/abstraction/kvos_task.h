/*
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

typedef uint32_t KVOS_TASK_PRI;
typedef pthread_t KVOS_TASK_ID;
#define KVOS_NO_TASK_ID ((KVOS_TASK_ID)-1)

typedef enum KVOS_SCHED_TYPE {
    KVOS_SCHED_DEFAULT = 0,
    KVOS_SCHED_RR = 1,
    KVOS_SCHED_OTHER = 2
} KVOS_SCHED_TYPE;

#define KVOS_TASK_NAME_LEN 20
#define KVOS_TASK_MIN_STACK 16384u
#define KVOS_SIGNAL_STACK_SIZE 1024000u
#define KVOS_STACK_MARKER 0xdadefee1u

typedef struct TaskAttrInternal {
    KVOS_TASK_PRI priority;
    char taskName[KVOS_TASK_NAME_LEN];
    KVOS_SCHED_TYPE schedType;
    uint32_t stackSize;
    uint32_t stackSegment;
} TaskAttrInternal;
typedef TaskAttrInternal KVOS_TASK_ATTR;

/* One task-list entry; also the reaper's message, with `taken` as the
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

typedef void (*KVOS_TASK_ENTRY)(void* arg);
typedef int (*KVOS_TASK_OUT_FUNC)(int arg, const void* text, unsigned length);

/* Attributes. All but the name setter assert "attr != NULL". */
KVOS_TASK_ATTR* KVOS_taskAttrCreate(void);
void KVOS_taskAttrDestroy(KVOS_TASK_ATTR* attr);
void KVOS_taskAttrSetPriority(KVOS_TASK_ATTR* attr, KVOS_TASK_PRI priority);
KVOS_TASK_PRI KVOS_taskAttrGetPriority(const KVOS_TASK_ATTR* attr);
/* Keeps the first 19 characters. */
void KVOS_taskAttrSetName(KVOS_TASK_ATTR* attr, const char* name);
const char* KVOS_taskAttrGetName(const KVOS_TASK_ATTR* attr);
void KVOS_taskAttrSetScheduler(KVOS_TASK_ATTR* attr, KVOS_SCHED_TYPE sched);
KVOS_SCHED_TYPE KVOS_taskAttrGetScheduler(const KVOS_TASK_ATTR* attr);
/* Asserts "stackSize % 1024 == 0"; 0 means the minimum, 16384. */
void KVOS_taskAttrSetStackSize(KVOS_TASK_ATTR* attr, unsigned stackSize);
unsigned KVOS_taskAttrGetStackSize(const KVOS_TASK_ATTR* attr);
void KVOS_taskAttrSetStackSegment(KVOS_TASK_ATTR* attr, unsigned segment);
unsigned KVOS_taskAttrGetStackSegment(const KVOS_TASK_ATTR* attr);

/* Tasks. KVOS_taskCreate returns the handle, or KVOS_NO_TASK_ID with the
 * error left for KVOS_lastError. */
KVOS_TASK_ID KVOS_taskCreate(KVOS_TASK_ENTRY entry, void* arg, KVOS_TASK_ATTR* attr);
KVOS_TASK_ID KVOS_taskCreateOld(KVOS_TASK_ENTRY entry, KVOS_TASK_PRI priority, void* arg,
                                const char* name, int stackSize);
KVOS_TASK_ID KVOS_taskID(void);
bool KVOS_taskJoin(KVOS_TASK_ID tid);
int KVOS_taskResume(KVOS_TASK_ID tid);
int KVOS_taskOnExit(void (*fn)(void*), void* arg);
void KVOS_taskExit(void) __attribute__((noreturn));
int KVOS_taskRelinquish(void);
bool KVOS_setAffinity(KVOS_TASK_ID tid, unsigned long cpu);
void KVOS_taskBacktraceAllOtherTasks(void);
int kvos_task_cancel_all(void);
void kvos_task_init(void);

/* Task list dump: one line per task, then "List info: ...". The text is
 * formatted under the list's lock and written after it is released, so the
 * stream or output function may use the library. */
void KVOS_taskDump(std::ostream& os);
void KVOS_taskDump(KVOS_TASK_OUT_FUNC out, int arg);
void RTOS_tdumplist(unsigned arg, KVOS_TASK_OUT_FUNC out);

/* Task list. registerTask takes over `name` (a heap copy); unregisterTask
 * releases the entry's stacks as task creation allocated them. */
void registerTask(char* name, int pid, KVOS_TASK_ID tid, void* stack, size_t stackSize,
                  void* signalStack, size_t signalStackSize);
void unregisterTask(int pid, KVOS_TASK_ID tid);
/* Walks the list without its lock. */
void taskList_foreach(void (*fn)(ThreadInfo*));
/* Entries now listed, and the running counters; read under the lock. */
size_t kvos_taskListSize(void);
size_t kvos_taskListAdditions(void);
size_t kvos_taskListRemovals(void);

/* Released task stacks and signal stacks that the reaper keeps for later
 * tasks (at most 16 task stacks of 4 MiB in all, and 4 signal stacks), and
 * their release (KVOS_cleanup releases them too). */
size_t kvos_taskCachedStacks(void);
void kvos_taskReleaseCachedStacks(void);

/* Stacks. allocate_stack returns the lowest usable address, or null. */
void* allocate_stack(size_t size);
void deallocate_stack(void* stack, size_t size);
size_t check_stack_usage(void* stack, size_t size);
size_t get_pagesize(void);

#endif
