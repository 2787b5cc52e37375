/*
 * The task list: every live task in order of registration, with running
 * counters of additions and removals (never reset), guarded by the KVOS
 * mutex "taskListLock". Only the reaper adds and removes entries, and it
 * releases a task's stacks when it removes the entry.
 *
 * taskList_foreach walks the list without the lock, as it always has; the
 * library's own walkers (cancel-all, backtrace-all) copy the list under the
 * lock instead and touch a thread only while it is still listed.
 *
 * The dumps format every line under the lock and write them after it is
 * released, so an output function or stream may use the library itself.
 */
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

#include <list>
#include <mutex>
#include <sstream>

#include "abstraction/kvos_mutex.h"
#include "abstraction/kvos_task.h"
#include "kvos_task_internal.h"
#include "linux/kvos_os.h"

namespace {

struct TaskList {
    KVOS_MUTEX lock{nullptr};
    std::list<ThreadInfo*> entries;
    size_t additions = 0;
    size_t removals = 0;
};

TaskList& taskList()
{
    static std::once_flag once;
    static TaskList* list;
    std::call_once(once, [] {
        list = new TaskList;
        KVOS_mutexCreate(&list->lock, "taskListLock");
    });
    return *list;
}

/* One dump line, cut at 99 characters like every line of the dump. */
void appendLine(std::ostream& os, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

void appendLine(std::ostream& os, const char* fmt, ...)
{
    char line[100];
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(line, sizeof(line), fmt, ap);
    va_end(ap);
    if (n > 0) {
        os.write(line, n < static_cast<int>(sizeof(line)) ? n : static_cast<int>(sizeof(line)) - 1);
    }
}

size_t readCounter(size_t TaskList::*field)
{
    TaskList& list = taskList();
    KVOS_mutexLock(&list.lock);
    size_t value = list.*field;
    KVOS_mutexUnlock(&list.lock);
    return value;
}

}  // namespace

void registerTask(char* name, int pid, KVOS_TASK_ID tid, void* stack, size_t stackSize, void* signalStack,
                  size_t signalStackSize)
{
    kvos_os::setThreadName(tid, name);
    kvos_taskListAdd(name, pid, tid, stack, stackSize, signalStack, signalStackSize);
}

void kvos_taskListAdd(char* name, int pid, KVOS_TASK_ID tid, void* stack, size_t stackSize, void* signalStack,
                      size_t signalStackSize)
{
    auto* info = static_cast<ThreadInfo*>(calloc(1, sizeof(ThreadInfo)));
    info->taken = 1;
    info->name = name;
    info->pid = pid;
    info->tid = tid;
    info->stack = stack;
    info->stackSize = stackSize;
    info->signalStack = signalStack;
    info->signalStackSize = signalStackSize;

    TaskList& list = taskList();
    KVOS_mutexLock(&list.lock);
    list.entries.push_back(info);
    ++list.additions;
    KVOS_mutexUnlock(&list.lock);
}

void unregisterTask(int pid, KVOS_TASK_ID tid)
{
    // The stacks are released before the removal is counted, so that a
    // caller who sees the count grow also sees the memory back.
    TaskList& list = taskList();
    KVOS_mutexLock(&list.lock);
    for (auto it = list.entries.begin(); it != list.entries.end(); ++it) {
        ThreadInfo* info = *it;
        if (info->pid == pid && info->tid == tid) {
            free(info->name);
            kvos_task_release_stack(info->stack, info->stackSize);
            if (info->signalStack) {
                kvos_task_release_signal_stack(info->signalStack, info->signalStackSize);
            }
            list.entries.erase(it);
            ++list.removals;
            free(info);
            break;
        }
    }
    KVOS_mutexUnlock(&list.lock);
}

std::vector<TaskRef> kvos_taskListSnapshot(void)
{
    TaskList& list = taskList();
    std::vector<TaskRef> refs;
    KVOS_mutexLock(&list.lock);
    refs.reserve(list.entries.size());
    for (ThreadInfo* info : list.entries) {
        refs.push_back({info->tid, info->pid});
    }
    KVOS_mutexUnlock(&list.lock);
    return refs;
}

bool kvos_taskListWithListed(const TaskRef& ref, bool (*fn)(KVOS_TASK_ID))
{
    TaskList& list = taskList();
    bool ran = false;
    KVOS_mutexLock(&list.lock);
    for (ThreadInfo* info : list.entries) {
        if (info->pid == ref.pid && pthread_equal(info->tid, ref.tid)) {
            ran = fn(ref.tid);
            break;
        }
    }
    KVOS_mutexUnlock(&list.lock);
    return ran;
}

void taskList_foreach(void (*fn)(ThreadInfo*))
{
    TaskList& list = taskList();
    for (ThreadInfo* info : list.entries) {
        fn(info);
    }
}

size_t kvos_taskListSize(void)
{
    TaskList& list = taskList();
    KVOS_mutexLock(&list.lock);
    size_t n = list.entries.size();
    KVOS_mutexUnlock(&list.lock);
    return n;
}

bool kvos_taskIsListed(KVOS_TASK_ID tid)
{
    TaskList& list = taskList();
    KVOS_mutexLock(&list.lock);
    bool listed = false;
    for (const ThreadInfo* info : list.entries) {
        listed = listed || pthread_equal(info->tid, tid);
    }
    KVOS_mutexUnlock(&list.lock);
    return listed;
}

size_t kvos_taskListAdditions(void)
{
    return readCounter(&TaskList::additions);
}

size_t kvos_taskListRemovals(void)
{
    return readCounter(&TaskList::removals);
}

/* Reads the stack of a live thread while it runs: by design a racy,
 * word-by-word scan, so the sanitizers are told not to instrument it. */
__attribute__((no_sanitize("address", "thread"))) size_t check_stack_usage(void* stack, size_t size)
{
    if (stack == nullptr || size < 4) {
        return 0;
    }
    const auto* word = static_cast<const volatile uint32_t*>(stack);
    size_t words = size / 4;
    size_t n = 0;
    while (n < words && word[n] == KVOS_STACK_MARKER) {
        ++n;
    }
    return n * 4;
}

void KVOS_taskDump(std::ostream& out)
{
    std::ostringstream os;
    TaskList& list = taskList();
    KVOS_mutexLock(&list.lock);
    for (ThreadInfo* info : list.entries) {
        const char* policy = "";
        int priority = 0;
        kvos_os::threadPolicy(info->pid, &policy, &priority);
        size_t untouched = check_stack_usage(info->stack, info->stackSize);
        appendLine(os, "%-20s%4s   %3d  %5d  %#016lx %16p %7zu/%7zu\n", info->name ? info->name : "", policy,
                   priority, info->pid, static_cast<unsigned long>(info->tid), info->stack,
                   info->stackSize - untouched, info->stackSize);
    }
    size_t size = list.entries.size();
    size_t additions = list.additions;
    size_t removals = list.removals;
    KVOS_mutexUnlock(&list.lock);
    appendLine(os, "List info: size %zu, additions %zu, removals %zu\n", size, additions, removals);
    out << os.str();
}

void KVOS_taskDump(KVOS_TASK_OUT_FUNC out, int arg)
{
    std::ostringstream os;
    KVOS_taskDump(os);
    std::string text = os.str();
    out(arg, text.data(), static_cast<unsigned>(text.size()));
}

void RTOS_tdumplist(unsigned arg, KVOS_TASK_OUT_FUNC out)
{
    KVOS_taskDump(out, static_cast<int>(arg));
}
