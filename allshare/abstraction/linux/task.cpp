/*
 * Linux half of KVOS tasks: stacks with guard pages, thread creation with
 * the scheduling mapping, the thread wrapper, the reaper and the per-thread
 * exit handler.
 *
 * Stacks are anonymous mappings of the usable size plus one guard page on
 * each side, so releasing one gives its memory back to the system at once.
 * glibc keeps the thread's control block at the top of a caller-supplied
 * stack, so nothing may look at a thread through its handle once the reaper
 * has joined it and released the stack: the creator therefore logs the
 * scheduling it requested rather than asking the new thread.
 */
#include <errno.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <mutex>
#include <vector>

#include "abstraction/kvos.h"
#include "abstraction/kvos_ptrq.h"
#include "abstraction/kvos_seams.h"
#include "abstraction/kvos_task.h"
#include "kvlog/kvlog_assert.h"
#include "kvos_log.h"
#include "linux/kvos_os.h"

namespace {

struct CreateContext {
    char* name;
    void* stack;
    size_t stackSize;
    KVOS_TASK_ENTRY entry;
    void* arg;
};

struct ExitHandler {
    void (*fn)(void*);
    void* arg;
};

KVOS_PTRQ_ID threadReaperQueue = KVOS_NO_PTRQ_ID;
pthread_t threadReaper;
pthread_key_t exitHandlerKey;
std::once_flag exitKeyOnce;

/* Contexts of threads whose creation failed. They are deliberately never
 * released (a failed creation may not leave them unused); keeping them here
 * says so to the leak checker. */
std::mutex gAbandonedLock;
std::vector<void*> gAbandoned;

void ensureExitKey()
{
    std::call_once(exitKeyOnce, [] { pthread_key_create(&exitHandlerKey, nullptr); });
}

size_t roundToPages(size_t size)
{
    size_t p = get_pagesize();
    return size == 0 ? p : (size + p - 1) / p * p;
}

[[noreturn]] void creationFault(const char* detail)
{
    KVLOG_ERROR(kvos_logger(), kvp("Detail", detail));
    abort();
}

void runExitHandler()
{
    ensureExitKey();
    auto* handler = static_cast<ExitHandler*>(pthread_getspecific(exitHandlerKey));
    if (handler) {
        pthread_setspecific(exitHandlerKey, nullptr);
        handler->fn(handler->arg);
        free(handler);
    }
}

ThreadInfo* reaperMessage(int command, char* name, int lwp, void* stack, size_t stackSize, void* signalStack,
                          size_t signalStackSize)
{
    auto* msg = static_cast<ThreadInfo*>(calloc(1, sizeof(ThreadInfo)));
    msg->taken = command;
    msg->name = name;
    msg->pid = lwp;
    msg->tid = pthread_self();
    msg->stack = stack;
    msg->stackSize = stackSize;
    msg->signalStack = signalStack;
    msg->signalStackSize = signalStackSize;
    return msg;
}

/* A full reaper queue loses the message (see the header). */
void postToReaper(ThreadInfo* msg)
{
    if (KVOS_ptrqPost(threadReaperQueue, msg) != 1) {
        free(msg);
    }
}

void* pthread_wrapper(void* p)
{
    auto* ctx = static_cast<CreateContext*>(p);
    char* name = ctx->name;
    void* stack = ctx->stack;
    size_t stackSize = ctx->stackSize;
    KVOS_TASK_ENTRY entry = ctx->entry;
    void* arg = ctx->arg;

    void* signalStack = allocate_stack(KVOS_SIGNAL_STACK_SIZE);
    size_t signalStackSize = KVOS_SIGNAL_STACK_SIZE;
    stack_t ss;
    memset(&ss, 0, sizeof(ss));
    ss.ss_sp = signalStack;
    ss.ss_size = KVOS_SIGNAL_STACK_SIZE;
    ss.ss_flags = 0;
    if (signalStack == nullptr || sigaltstack(&ss, nullptr) != 0) {
        KVLOG_ERROR(kvos_logger(), kvp("Detail", "Failed to setup alternate stack"));
        if (signalStack) {
            deallocate_stack(signalStack, KVOS_SIGNAL_STACK_SIZE);
        }
        signalStack = nullptr;
        signalStackSize = 0;
    }
    free(ctx);

    int lwp = kvos_os::currentLwp();
    // The reaper releases the name when it unlists the task, which may
    // happen as soon as the exit message is posted: keep a copy for the
    // last log line.
    char shownName[KVOS_TASK_NAME_LEN];
    snprintf(shownName, sizeof(shownName), "%s", name ? name : "");
    KVLOG_DEBUG(kvos_logger(), kvp("Detail", "Thread Created") << kvp("Name", shownName) << kvp("LWP", lwp));
    postToReaper(reaperMessage(0, name, lwp, stack, stackSize, signalStack, signalStackSize));

    entry(arg);

    runExitHandler();
    if (signalStack) {
        // The reaper frees the signal stack: stop using it first.
        stack_t off;
        memset(&off, 0, sizeof(off));
        off.ss_flags = SS_DISABLE;
        sigaltstack(&off, nullptr);
    }
    postToReaper(reaperMessage(1, name, lwp, nullptr, 0, nullptr, 0));
    KVLOG_DEBUG(kvos_logger(), kvp("Detail", "Thread Exited") << kvp("Name", shownName) << kvp("LWP", lwp));
    return nullptr;
}

void* threadReaperMain(void* p)
{
    auto* ctx = static_cast<CreateContext*>(p);
    registerTask(ctx->name, kvos_os::currentLwp(), pthread_self(), ctx->stack, ctx->stackSize, nullptr, 0);
    free(ctx);
    for (;;) {
        void* m = nullptr;
        if (KVOS_ptrqPend(threadReaperQueue, &m) != 1) {
            continue;
        }
        auto* msg = static_cast<ThreadInfo*>(m);
        switch (msg->taken) {
        case 0:
            KVLOG_DEBUG(kvos_logger(), kvp("Detail", "Received thread starting") << kvp("LWP", msg->pid));
            registerTask(msg->name, msg->pid, msg->tid, msg->stack, msg->stackSize, msg->signalStack,
                         msg->signalStackSize);
            break;
        case 1:
            KVLOG_DEBUG(kvos_logger(), kvp("Detail", "Received thread exiting") << kvp("LWP", msg->pid));
            pthread_join(msg->tid, nullptr);
            unregisterTask(msg->pid, msg->tid);
            break;
        default:
            KVLOG_ERROR(kvos_logger(), kvp("Detail", "Unknown thread reaper command") << kvp("Command", msg->taken));
            break;
        }
        free(msg);
    }
    return nullptr;
}

}  // namespace

size_t get_pagesize(void)
{
    static const size_t pagesize = [] {
        long p = sysconf(_SC_PAGESIZE);
        if (p == -1) {
            KVLOG_ERROR(kvos_logger(), kvp("Detail", "Call to sysconf(_SC_PAGESIZE) failed. Setting pagesize to 4k."));
            return static_cast<size_t>(4096);
        }
        return static_cast<size_t>(p);
    }();
    return pagesize;
}

void* allocate_stack(size_t size)
{
    size_t p = get_pagesize();
    size_t usable = roundToPages(size);
    if (usable < size || usable > SIZE_MAX - 2 * p) {
        errno = ENOMEM;
        KVLOG_ERROR(kvos_logger(), kvp("Detail", "Allocation of stack failed"));
        errno = ENOMEM;
        return nullptr;
    }
    void* block = mmap(nullptr, usable + 2 * p, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK,
                       -1, 0);
    if (block == MAP_FAILED) {
        int err = errno;
        KVLOG_ERROR(kvos_logger(), kvp("Detail", "Allocation of stack failed"));
        errno = err;
        return nullptr;
    }
    auto* base = static_cast<char*>(block);
    mprotect(base, p, PROT_NONE);
    mprotect(base + p + usable, p, PROT_NONE);
    auto* word = reinterpret_cast<uint32_t*>(base + p);
    for (size_t i = 0; i < usable / sizeof(uint32_t); ++i) {
        word[i] = KVOS_STACK_MARKER;
    }
    return base + p;
}

void deallocate_stack(void* stack, size_t size)
{
    if (stack == nullptr) {
        return;
    }
    size_t p = get_pagesize();
    size_t usable = roundToPages(size);
    auto* base = static_cast<char*>(stack) - p;
    mprotect(base, p, PROT_READ | PROT_WRITE);
    mprotect(base + p + usable, p, PROT_READ | PROT_WRITE);
    munmap(base, usable + 2 * p);
}

KVOS_TASK_ID KVOS_taskCreate(KVOS_TASK_ENTRY entry, void* arg, KVOS_TASK_ATTR* attr)
{
    BOOST_ASSERT_MSG(attr != NULL, "null task attribute record");
    KVLOG_DEBUG(kvos_logger(), kvp("Detail", "Create thread") << kvp("Name", attr->taskName));

    auto* ctx = static_cast<CreateContext*>(kvos_syscalls().contextAlloc.load()(sizeof(CreateContext)));
    if (ctx == nullptr) {
        KVLOG_ERROR(kvos_logger(), kvp("Detail", "Malloc failed, thread not created")
                                       << kvp("Last-error", KVOS_lastError()));
        return KVOS_NO_TASK_ID;
    }
    ctx->name = strdup(attr->taskName);
    ctx->entry = entry;
    ctx->arg = arg;

    pthread_attr_t tattr;
    if (pthread_attr_init(&tattr) != 0) {
        creationFault("Failed to initialize thread attribute object");
    }
    int policy = SCHED_OTHER;
    struct sched_param param;
    memset(&param, 0, sizeof(param));
    if (kvos_os::isRoot()) {
        if (pthread_attr_setinheritsched(&tattr, PTHREAD_EXPLICIT_SCHED) != 0) {
            creationFault("Failed to set inherit sched");
        }
        if (pthread_attr_setschedpolicy(&tattr, SCHED_RR) != 0) {
            creationFault("Failed to set sched policy");
        }
        int max = sched_get_priority_max(SCHED_RR);
        if (max == -1) {
            creationFault("Failed to get priority max");
        }
        int min = sched_get_priority_min(SCHED_RR);
        if (min == -1) {
            creationFault("Failed to get priority min");
        }
        // Attribute priorities count like a classic real-time kernel's,
        // 0 most urgent; the system's count the other way.
        uint32_t clamped = attr->priority;
        if (clamped < static_cast<uint32_t>(min)) {
            clamped = static_cast<uint32_t>(min);
        }
        if (clamped > static_cast<uint32_t>(max)) {
            clamped = static_cast<uint32_t>(max);
        }
        param.sched_priority = max + min - static_cast<int>(clamped);
        policy = SCHED_RR;
        if (pthread_attr_setschedparam(&tattr, &param) != 0) {
            creationFault("Failed to set sched param");
        }
    }

    size_t stackSize = attr->stackSize < KVOS_TASK_MIN_STACK ? KVOS_TASK_MIN_STACK : attr->stackSize;
    void* stack = allocate_stack(stackSize);
    if (stack == nullptr) {
        int err = errno;
        free(ctx->name);
        free(ctx);
        pthread_attr_destroy(&tattr);
        KVLOG_ERROR(kvos_logger(), kvp("Detail", "Thread creation failed") << kvp("Name", attr->taskName)
                                                                          << kvp("Reason", "Failed to allocate stack space"));
        KVOS_setErrno(err, KVOS_ERR_ORIGIN_LINUX);
        return KVOS_NO_TASK_ID;
    }
    pthread_attr_setstack(&tattr, stack, stackSize);
    ctx->stack = stack;
    ctx->stackSize = stackSize;

    pthread_t tid;
    int rc = kvos_syscalls().threadCreate.load()(&tid, &tattr, pthread_wrapper, ctx);
    pthread_attr_destroy(&tattr);
    if (rc != 0) {
        {
            std::lock_guard<std::mutex> guard(gAbandonedLock);
            gAbandoned.push_back(ctx->name);
            gAbandoned.push_back(ctx);
        }
        KVLOG_ERROR(kvos_logger(), kvp("Detail", "Thread creation failed") << kvp("Name", attr->taskName)
                                                                          << kvp("Reason", rc));
        KVOS_setErrno(rc, KVOS_ERR_ORIGIN_LINUX);
        return KVOS_NO_TASK_ID;
    }
    KVLOG_DEBUG(kvos_logger(), kvp("Detail", "Thread created") << kvp("Name", attr->taskName)
                                                               << kvp("Policy", std::to_string(policy) + ", " +
                                                                                    std::to_string(param.sched_priority)));
    return tid;
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

KVOS_TASK_ID KVOS_taskID(void)
{
    return pthread_self();
}

bool KVOS_taskJoin(KVOS_TASK_ID tid)
{
    return pthread_join(tid, nullptr) == 0;
}

int KVOS_taskResume(KVOS_TASK_ID /*tid*/)
{
    return 1;
}

int KVOS_taskOnExit(void (*fn)(void*), void* arg)
{
    ensureExitKey();
    auto* handler = static_cast<ExitHandler*>(malloc(sizeof(ExitHandler)));
    handler->fn = fn;
    handler->arg = arg;
    free(pthread_getspecific(exitHandlerKey));
    pthread_setspecific(exitHandlerKey, handler);
    return 1;
}

void KVOS_taskExit(void)
{
    runExitHandler();
    pthread_exit(nullptr);
}

int KVOS_taskRelinquish(void)
{
    return sched_yield();
}

bool KVOS_setAffinity(KVOS_TASK_ID tid, unsigned long cpu)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    if (cpu < CPU_SETSIZE) {
        CPU_SET(cpu, &set);
    }
    return pthread_setaffinity_np(tid, sizeof(set), &set) == 0;
}

namespace {
void signalOne(ThreadInfo* info)
{
    if (!pthread_equal(info->tid, pthread_self())) {
        pthread_kill(info->tid, SIGUSR1);
        KVOS_msleep(200);
    }
}

void cancelOne(ThreadInfo* info)
{
    if (!pthread_equal(info->tid, pthread_self())) {
        pthread_cancel(info->tid);
    }
}
}  // namespace

void KVOS_taskBacktraceAllOtherTasks(void)
{
    taskList_foreach(signalOne);
}

int kvos_task_cancel_all(void)
{
    taskList_foreach(cancelOne);
    return KVOS_sleep(2);
}

KVOS_PTRQ_ID kvos_task_reaper_queue(void)
{
    return threadReaperQueue;
}

void kvos_task_init(void)
{
    auto* ctx = static_cast<CreateContext*>(calloc(1, sizeof(CreateContext)));
    ctx->name = strdup("reaperT");
    ctx->stackSize = KVOS_TASK_MIN_STACK;
    ctx->stack = allocate_stack(ctx->stackSize);
    threadReaperQueue = KVOS_ptrqCreate("reaperQ", 20);

    pthread_attr_t tattr;
    pthread_attr_init(&tattr);
    pthread_attr_setdetachstate(&tattr, PTHREAD_CREATE_DETACHED);
    pthread_attr_setstack(&tattr, ctx->stack, ctx->stackSize);
    pthread_create(&threadReaper, &tattr, threadReaperMain, ctx);
    pthread_attr_destroy(&tattr);
    ensureExitKey();
}
