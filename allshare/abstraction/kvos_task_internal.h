/*
 * What the task list offers the rest of the portable half beyond the
 * public interface: the reaper's listing of a task that has named itself,
 * and safe access to listed threads for the calls that signal them. (The
 * release of a task's stacks, which the Linux half owns, is declared in
 * linux/kvos_os.h.)
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

#endif
