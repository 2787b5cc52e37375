/*
 * The OS-independent part of KVOS tasks: the reaper's loop and its
 * start-up, the old-style creation call, and backtrace-all. The threads,
 * stacks, signals and the table of tasks not yet reaped are the Linux
 * half's (linux/task.cpp); the task list is kvos_tasklist.cpp.
 *
 * The reaper is the only thread that lists and unlists tasks and the only
 * one that joins them. Every task posts it a start message (command 0)
 * before its entry function runs and an exit message (command 1) when it
 * ends; the reaper lists the task on the first, and on the second joins
 * it, unlists it (which releases its stacks) and marks it reaped. It stops
 * on the Linux half's stop message, posted by cleanup behind everything
 * posted before.
 */
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "abstraction/kvos.h"
#include "abstraction/kvos_ptrq.h"
#include "abstraction/kvos_seams.h"
#include "abstraction/kvos_task.h"
#include "kvos_task_internal.h"
#include "linux/kvos_log.h"
#include "linux/kvos_os.h"

namespace {

struct ReaperContext {
    char* name;
    void* stack;
    size_t stackSize;
};

void* threadReaperMain(void* p)
{
    auto* ctx = static_cast<ReaperContext*>(p);
    int lwp = kvos_os::reaperThreadBegins();
    registerTask(ctx->name, lwp, pthread_self(), ctx->stack, ctx->stackSize, nullptr, 0);
    free(ctx);
    KVOS_PTRQ_ID queue = kvos_task_reaper_queue();
    for (;;) {
        void* m = nullptr;
        if (KVOS_ptrqPend(queue, &m) != 1) {
            continue;
        }
        if (kvos_os::isReaperStop(m)) {
            break;
        }
        auto* msg = static_cast<ThreadInfo*>(m);
        switch (msg->taken) {
        case 0:
            KVLOG_DEBUG(kvos_logger(), kvp("Detail", "Received thread starting") << kvp("LWP", msg->pid));
            kvos_taskListAdd(msg->name, msg->pid, msg->tid, msg->stack, msg->stackSize, msg->signalStack,
                             msg->signalStackSize);
            break;
        case 1:
            KVLOG_DEBUG(kvos_logger(), kvp("Detail", "Received thread exiting") << kvp("LWP", msg->pid));
            kvos_os::reaperJoin(msg->tid);
            unregisterTask(msg->pid, msg->tid);
            kvos_os::reaperReaped(msg->tid);
            break;
        default:
            KVLOG_ERROR(kvos_logger(), kvp("Detail", "Unknown thread reaper command") << kvp("Command", msg->taken));
            break;
        }
        free(msg);
    }
    kvos_os::reaperEnds();
    return nullptr;
}

[[noreturn]] void reaperFault(const std::string& reason)
{
    KVLOG_ERROR(kvos_logger(), kvp("Detail", "Thread creation failed") << kvp("Name", "reaperT")
                                                                      << kvp("Reason", reason));
    abort();
}

}  // namespace

void kvos_task_init(void)
{
    kvos_os::taskSetUp();
    auto* ctx = static_cast<ReaperContext*>(calloc(1, sizeof(ReaperContext)));
    ctx->name = strdup("reaperT");
    ctx->stackSize = KVOS_TASK_MIN_STACK;
    ctx->stack = kvos_os::taskStackAllocate(ctx->stackSize);
    if (ctx->stack == nullptr) {
        reaperFault("Failed to allocate stack space");
    }
    KVOS_PTRQ_ID queue = KVOS_ptrqCreate("reaperQ", 20);
    kvos_os::setReaperQueue(queue);
    if (queue == KVOS_NO_PTRQ_ID) {
        reaperFault("Failed to create reaperQ");
    }
    int rc = kvos_os::startDetachedTask(ctx->stack, ctx->stackSize, threadReaperMain, ctx);
    if (rc != 0) {
        reaperFault(std::to_string(rc));
    }
    kvos_os::reaperStarted();
}

KVOS_TASK_ID KVOS_taskCreateOld(KVOS_TASK_ENTRY entry, KVOS_TASK_PRI priority, void* arg, const char* name,
                                int stackSize)
{
    KVOS_TASK_ATTR* attr = KVOS_taskAttrCreate();
    KVOS_taskAttrSetPriority(attr, priority);
    KVOS_taskAttrSetName(attr, name);
    KVOS_taskAttrSetStackSize(attr, static_cast<unsigned>(stackSize));
    KVOS_TASK_ID tid = KVOS_taskCreate(entry, arg, attr);
    KVOS_taskAttrDestroy(attr);
    return tid;
}

void KVOS_taskBacktraceAllOtherTasks(void)
{
    // A thread is signalled only while it is listed and not being joined.
    for (const TaskRef& ref : kvos_taskListSnapshot()) {
        if (!pthread_equal(ref.tid, pthread_self()) && kvos_taskListWithListed(ref, kvos_os::signalIfNotJoining)) {
            KVOS_msleep(200);
        }
    }
}
