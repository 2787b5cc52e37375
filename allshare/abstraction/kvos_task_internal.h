/*
 * What the task list and the Linux task half share beyond the public
 * interface: safe access to listed threads for the calls that signal them,
 * and the release of a task's stacks, which the task half owns (it knows
 * how they were mapped and may keep them for the next task).
 */
#ifndef ABSTRACTION_KVOS_TASK_INTERNAL_H
#define ABSTRACTION_KVOS_TASK_INTERNAL_H

#include <stddef.h>

#include <vector>

#include "abstraction/kvos_task.h"

struct TaskRef {
    KVOS_TASK_ID tid;
    int pid;
};

/* registerTask without naming the thread: for a task that has named
 * itself (cheaply, from its own thread) before it was registered. */
void kvos_taskListAdd(char* name, int pid, KVOS_TASK_ID tid, void* stack, size_t stackSize, void* signalStack,
                      size_t signalStackSize);

/* The listed tasks, in list order, copied under "taskListLock". */
std::vector<TaskRef> kvos_taskListSnapshot(void);
/* Runs fn(ref.tid) under "taskListLock" if ref is still listed; answers
 * whether it ran. A listed thread has not been released by the reaper. */
bool kvos_taskListWithListed(const TaskRef& ref, bool (*fn)(KVOS_TASK_ID));

/* Releases the stacks of an unlisted task (task half). */
void kvos_task_release_stack(void* stack, size_t stackSize);
void kvos_task_release_signal_stack(void* stack, size_t size);

#endif
