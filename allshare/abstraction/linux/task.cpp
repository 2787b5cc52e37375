/*
 * Linux half of KVOS tasks: task stacks and their cache, thread creation
 * with the scheduling mapping, the thread wrapper, the per-thread exit
 * handler, cancel-all, and the system side of the reaper (its thread, its
 * queue's handle, joining). The reaper's loop and the task list are in the
 * portable half (kvos_task.cpp, kvos_tasklist.cpp).
 *
 * Stacks are the guarded mappings of stack.cpp (one guard page on each
 * side; releasing one gives its memory back to the system at once).
 * glibc keeps the thread's control block and static thread-local storage at
 * the top of a caller-supplied stack. A task's stack is therefore mapped
 * larger than asked by that block (measured once, on a probe thread), so
 * that the task itself can use the whole size it asked for; the size shown
 * and measured stays the one asked for.
 *
 * Because the control block lives on the stack, nothing may look at a
 * thread through its handle once the reaper has joined it and released the
 * stack. Hence:
 *  - the creator logs the scheduling it requested rather than asking the
 *    new thread;
 *  - the reaper is the only thread that joins tasks. A process-wide table
 *    of the tasks created and not yet reaped says which handles are still
 *    safe to signal (not being joined) and lets KVOS_taskJoin wait for a
 *    task's end without joining it;
 *  - cancel-all and backtrace-all signal a thread only while it is known
 *    not to be joined.
 *
 * Released stacks and signal stacks are kept in a small bounded cache for
 * the next tasks instead of being unmapped, and new ones mapped and filled
 * with the marker, for every task: their guard pages stay in place, and
 * the marker is restored only where the dump reads it (a task stack's part
 * below the size asked for, from the deepest word the task touched; never
 * on a signal stack, which nobody measures). Cleanup unmaps the cache.
 *
 * The wrapper's posts to the reaper wait for room in "reaperQ" rather than
 * lose a start or exit message, and cannot be cancelled halfway. A task
 * that is cancelled still posts its exit message on the way out (a
 * destructor runs during the cancellation unwind), so cleanup can wait
 * until the reaper has joined and released every task it cancelled.
 */
#include <errno.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <mutex>
#include <unordered_map>
#include <vector>

#include "abstraction/kvos.h"
#include "abstraction/kvos_ptrq.h"
#include "abstraction/kvos_seams.h"
#include "abstraction/kvos_task.h"
#include "kvlog/kvlog_assert.h"
#include "linux/kvos_log.h"
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
pthread_key_t exitHandlerKey;
std::once_flag exitKeyOnce;

/* The reaper runs from kvos_task_init until cleanup stops it by posting
 * gReaperStop (recognised by its address, so no command value is taken). */
std::atomic<bool> gReaperRunning{false};
std::atomic<int> gReaperLwp{0};
ThreadInfo gReaperStop;

/* Tasks created and not yet reaped, with whether the reaper is joining
 * them. An entry is made by the creator before the new thread can be
 * reaped (the creator holds the lock across the thread's creation) and
 * removed by the reaper once the task is joined and unlisted, or by
 * KVOS_taskExit. A thread in the table and not being joined has a valid
 * handle. `reaperDone` is set when the reaper's loop has ended. */
struct LiveTasks {
    /* The lock of a system mutex with the KVOS attributes (priority
     * inheritance when root: tasks of every priority wait here), and a
     * condition on the monotonic clock. */
    pthread_mutex_t lock;
    pthread_cond_t changed;
    std::unordered_map<pthread_t, bool> joining;
    bool reaperDone = false;

    LiveTasks()
    {
        kvos_os::mutexInit(&lock, false);
        pthread_condattr_t attr;
        pthread_condattr_init(&attr);
        pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
        pthread_cond_init(&changed, &attr);
        pthread_condattr_destroy(&attr);
    }

    /* Holds the lock; a cancellation while waiting unwinds through it. */
    struct Guard {
        explicit Guard(LiveTasks& live) : live_(live) { kvos_os::mutexLock(&live_.lock); }
        ~Guard() { kvos_os::mutexUnlock(&live_.lock); }
        Guard(const Guard&) = delete;
        Guard& operator=(const Guard&) = delete;
        LiveTasks& live_;
    };

    void wait() { pthread_cond_wait(&changed, &lock); }
    /* False once `deadline` (monotonic) has passed. */
    bool waitUntil(const struct timespec& deadline)
    {
        return pthread_cond_timedwait(&changed, &lock, &deadline) != ETIMEDOUT;
    }
    void notifyAll() { pthread_cond_broadcast(&changed); }
};

LiveTasks& liveTasks()
{
    static auto* live = new LiveTasks;
    return *live;
}

struct timespec monotonicIn(int seconds)
{
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    t.tv_sec += seconds;
    return t;
}

bool passed(const struct timespec& deadline)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec > deadline.tv_sec || (now.tv_sec == deadline.tv_sec && now.tv_nsec >= deadline.tv_nsec);
}

/* Set by KVOS_taskExit: the task ends without an exit message. */
thread_local bool tEndsThroughTaskExit = false;

bool reaperRunning()
{
    return gReaperRunning.load(std::memory_order_acquire);
}

/* Contexts of threads whose creation failed. They are deliberately never
 * released (a failed creation may not leave them unused); keeping them here
 * says so to the leak checker. The list itself is never destroyed, so they
 * stay reachable after static destruction, when the leak checker looks. */
std::mutex gAbandonedLock;
std::vector<void*>& gAbandoned = *new std::vector<void*>;

void ensureExitKey()
{
    std::call_once(exitKeyOnce, [] { pthread_key_create(&exitHandlerKey, nullptr); });
}

/* Bytes at the top of a caller-supplied stack that a thread uses before
 * its start function runs: glibc's thread control block, static TLS and
 * the start-up frames (the sanitizer runtimes add their own). Measured on
 * a probe thread started on a generous stack of our own. */
struct Probe {
    uintptr_t frame;
};

void* probeMain(void* p)
{
    static_cast<Probe*>(p)->frame = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
    return nullptr;
}

/* A margin for the alignment glibc applies to the block, and for the
 * wrapper's own frame, which the task's entry function runs below. */
constexpr size_t kThreadBlockMargin = 512;

size_t threadBlockSize()
{
    static const size_t size = [] {
        const size_t area = 8u << 20;  // untouched pages cost nothing
        void* stack = allocate_stack(area);
        if (stack == nullptr) {
            return static_cast<size_t>(64u << 10);
        }
        Probe probe{0};
        pthread_attr_t attr;
        pthread_attr_init(&attr);
        pthread_attr_setstack(&attr, stack, area);
        pthread_t t;
        size_t measured = 64u << 10;
        if (pthread_create(&t, &attr, probeMain, &probe) == 0) {
            pthread_join(t, nullptr);
            measured = reinterpret_cast<uintptr_t>(stack) + area - probe.frame;
        }
        pthread_attr_destroy(&attr);
        deallocate_stack(stack, area);
        return (measured + kThreadBlockMargin + 63) & ~static_cast<size_t>(63);
    }();
    return size;
}

/* What a task that asked for `size` bytes is given: the size asked for
 * below the thread's own block. */
size_t taskStackArea(size_t size)
{
    return size + threadBlockSize();
}

/* Stacks released by the reaper, kept for the next tasks. Bounded by count
 * and bytes; a stack released while the cache is full is unmapped. Task
 * stacks are reused only for the same size asked for, so the part the dump
 * reads is exactly the part whose marker was restored. The lock is a KVOS-
 * style system mutex (priority inheritance when root): tasks of any
 * priority take signal stacks from it. */
class StackCache {
public:
    static constexpr size_t kMaxTaskStacks = 16;
    static constexpr size_t kMaxTaskBytes = 4u << 20;
    static constexpr size_t kMaxSignalStacks = 4;

    StackCache()
    {
        kvos_os::mutexInit(&lock_, false);
        task_.reserve(kMaxTaskStacks);
        signal_.reserve(kMaxSignalStacks);
    }

    void* takeTaskStack(size_t size)
    {
        Guard guard(lock_);
        for (size_t i = task_.size(); i-- > 0;) {
            if (task_[i].size == size) {
                void* stack = task_[i].stack;
                taskBytes_ -= taskStackArea(size);
                task_[i] = task_.back();
                task_.pop_back();
                return stack;
            }
        }
        return nullptr;
    }

    bool keepTaskStack(void* stack, size_t size)
    {
        Guard guard(lock_);
        size_t bytes = taskStackArea(size);
        if (task_.size() == kMaxTaskStacks || bytes > kMaxTaskBytes - taskBytes_) {
            return false;
        }
        task_.push_back({stack, size});
        taskBytes_ += bytes;
        return true;
    }

    void* takeSignalStack()
    {
        Guard guard(lock_);
        if (signal_.empty()) {
            return nullptr;
        }
        void* stack = signal_.back();
        signal_.pop_back();
        return stack;
    }

    bool keepSignalStack(void* stack)
    {
        Guard guard(lock_);
        if (signal_.size() == kMaxSignalStacks) {
            return false;
        }
        signal_.push_back(stack);
        return true;
    }

    size_t count()
    {
        Guard guard(lock_);
        return task_.size() + signal_.size();
    }

    void releaseAll()
    {
        std::vector<Entry> task;
        std::vector<void*> signal;
        {
            Guard guard(lock_);
            task.swap(task_);
            signal.swap(signal_);
            taskBytes_ = 0;
            task_.reserve(kMaxTaskStacks);
            signal_.reserve(kMaxSignalStacks);
        }
        for (const Entry& e : task) {
            deallocate_stack(e.stack, taskStackArea(e.size));
        }
        for (void* stack : signal) {
            deallocate_stack(stack, KVOS_SIGNAL_STACK_SIZE);
        }
    }

private:
    struct Entry {
        void* stack;
        size_t size;
    };
    struct Guard {
        explicit Guard(pthread_mutex_t& m) : m_(m) { kvos_os::mutexLock(&m_); }
        ~Guard() { kvos_os::mutexUnlock(&m_); }
        pthread_mutex_t& m_;
    };

    pthread_mutex_t lock_;
    std::vector<Entry> task_;
    std::vector<void*> signal_;
    size_t taskBytes_ = 0;
};

StackCache& stackCache()
{
    static auto* cache = new StackCache;
    return *cache;
}

/* Makes the part of a released task stack that the dump reads all marker
 * again: from the deepest word the last task touched up to the size asked
 * for. Below that word it never changed. The thread is gone, so plain
 * (vectorisable) reads will do; it used the memory, hence no sanitizer
 * instrumentation. */
__attribute__((no_sanitize("address", "thread"))) void restoreMarker(void* stack, size_t size)
{
    auto* word = static_cast<uint32_t*>(stack);
    size_t words = size / sizeof(uint32_t), untouched = 0;
    while (untouched < words && word[untouched] == KVOS_STACK_MARKER) {
        ++untouched;
    }
    // A loop here, not std::fill: a call out would be instrumented.
    for (size_t i = untouched; i < words; ++i) {
        word[i] = KVOS_STACK_MARKER;
    }
}

void* allocateTaskStack(size_t size)
{
    void* stack = stackCache().takeTaskStack(size);
    return stack ? stack : allocate_stack(taskStackArea(size));
}

void* allocateSignalStack()
{
    void* stack = stackCache().takeSignalStack();
    return stack ? stack : allocate_stack(KVOS_SIGNAL_STACK_SIZE);
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

/* Waits for room: a lost start or exit message would leave a task
 * unlisted, or never joined and its stacks never released. Called with
 * cancellation disabled: a cancellation inside the queue's wait would
 * leave the queue's lock held. */
void postToReaper(ThreadInfo* msg)
{
    if (ptrqueue_enqueue(threadReaperQueue, msg) != 1) {
        free(msg);
    }
}

/* The end of a task, on return from its entry function or when it is
 * cancelled (the destructor runs during the cancellation unwind): stop
 * using the signal stack, which the reaper releases, tell the reaper, and
 * log. A task that ends through KVOS_taskExit posts nothing. */
struct TaskEnd {
    char* name;
    int lwp;
    const char* shownName;
    bool signalStack;

    ~TaskEnd()
    {
        // Runs to the end: a cancellation acted on in here would unwind
        // out of a destructor.
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        if (tEndsThroughTaskExit) {
            return;
        }
        // A cancelled task never ran its exit handler; release the record.
        ensureExitKey();
        free(pthread_getspecific(exitHandlerKey));
        pthread_setspecific(exitHandlerKey, nullptr);
        if (signalStack) {
            stack_t off;
            memset(&off, 0, sizeof(off));
            off.ss_flags = SS_DISABLE;
            sigaltstack(&off, nullptr);
        }
        postToReaper(reaperMessage(1, name, lwp, nullptr, 0, nullptr, 0));
        KVLOG_DEBUG(kvos_logger(), kvp("Detail", "Thread Exited") << kvp("Name", shownName) << kvp("LWP", lwp));
    }
};

void* pthread_wrapper(void* p)
{
    // Until the task is known to the reaper and will tell it of its end, a
    // cancellation would lose it: it is held back until the entry runs.
    int cancelState;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelState);
    auto* ctx = static_cast<CreateContext*>(p);
    char* name = ctx->name;
    void* stack = ctx->stack;
    size_t stackSize = ctx->stackSize;
    KVOS_TASK_ENTRY entry = ctx->entry;
    void* arg = ctx->arg;

    void* signalStack = allocateSignalStack();
    size_t signalStackSize = KVOS_SIGNAL_STACK_SIZE;
    stack_t ss;
    memset(&ss, 0, sizeof(ss));
    ss.ss_sp = signalStack;
    ss.ss_size = KVOS_SIGNAL_STACK_SIZE;
    ss.ss_flags = 0;
    if (signalStack == nullptr || sigaltstack(&ss, nullptr) != 0) {
        KVLOG_ERROR(kvos_logger(), kvp("Detail", "Failed to setup alternate stack"));
        if (signalStack) {
            kvos_task_release_signal_stack(signalStack, KVOS_SIGNAL_STACK_SIZE);
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
    // Named here, by the thread itself (one system call), rather than by
    // the reaper through the thread's /proc entry: the name is in place
    // before the task is listed either way.
    kvos_os::setThreadName(pthread_self(), name);
    postToReaper(reaperMessage(0, name, lwp, stack, stackSize, signalStack, signalStackSize));

    TaskEnd end{name, lwp, shownName, signalStack != nullptr};
    pthread_setcancelstate(cancelState, nullptr);
    entry(arg);
    runExitHandler();
    return nullptr;
}

}  // namespace

KVOS_TASK_ID KVOS_taskCreate(KVOS_TASK_ENTRY entry, void* arg, KVOS_TASK_ATTR* attr)
{
    BOOST_ASSERT_MSG(attr != NULL, "null task attribute record");
    // Without the reaper a task's start and end would go nowhere.
    BOOST_ASSERT_MSG(reaperRunning(), "tasks are created between KVOS_init and KVOS_cleanup");
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
    void* stack = allocateTaskStack(stackSize);
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
    pthread_attr_setstack(&tattr, stack, taskStackArea(stackSize));
    ctx->stack = stack;
    ctx->stackSize = stackSize;

    pthread_t tid;
    int rc;
    {
        LiveTasks& live = liveTasks();
        LiveTasks::Guard guard(live);
        rc = kvos_syscalls().threadCreate.load()(&tid, &tattr, pthread_wrapper, ctx);
        if (rc == 0) {
            live.joining.emplace(tid, false);
        }
    }
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

KVOS_TASK_ID KVOS_taskID(void)
{
    return pthread_self();
}

bool KVOS_taskJoin(KVOS_TASK_ID tid)
{
    if (pthread_equal(tid, pthread_self())) {
        return false;
    }
    LiveTasks& live = liveTasks();
    LiveTasks::Guard guard(live);
    while (live.joining.count(tid) != 0) {
        live.wait();
    }
    return true;
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
    LiveTasks& live = liveTasks();
    {
        // No exit message: the reaper will never join this thread, so it
        // is detached, and it has ended as far as KVOS_taskJoin is
        // concerned. It stays listed with its stacks.
        LiveTasks::Guard guard(live);
        if (live.joining.erase(pthread_self()) != 0) {
            tEndsThroughTaskExit = true;
            pthread_detach(pthread_self());
            live.notifyAll();
        }
    }
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

bool tidGone(int lwp)
{
    return lwp == 0 || (syscall(SYS_tgkill, getpid(), lwp, 0) != 0 && errno == ESRCH);
}

/* Stops the reaper once it has handled everything posted before, and waits
 * (until `deadline`) for its thread to be gone. */
void stopReaper(const struct timespec& deadline)
{
    if (!gReaperRunning.exchange(false)) {
        return;
    }
    if (ptrqueue_timed_enqueue(threadReaperQueue, &gReaperStop, 1000) != 0) {
        return;
    }
    LiveTasks& live = liveTasks();
    {
        LiveTasks::Guard guard(live);
        while (!live.reaperDone) {
            if (!live.waitUntil(deadline)) {
                return;
            }
        }
    }
    while (!tidGone(gReaperLwp) && !passed(deadline)) {
        KVOS_usleep(200);
    }
}

}  // namespace

int kvos_task_cancel_all(void)
{
    const struct timespec deadline = monotonicIn(2);
    LiveTasks& live = liveTasks();
    {
        LiveTasks::Guard guard(live);
        // Every task created and not yet being joined, listed or about to
        // be: their handles stay valid while the table's lock is held.
        std::vector<pthread_t> cancelled;
        for (const auto& task : live.joining) {
            if (!task.second && !pthread_equal(task.first, pthread_self())) {
                pthread_cancel(task.first);
                cancelled.push_back(task.first);
            }
        }
        auto allGone = [&] {
            for (pthread_t tid : cancelled) {
                if (live.joining.count(tid) != 0) {
                    return false;
                }
            }
            return true;
        };
        while (!allGone() && live.waitUntil(deadline)) {
        }
    }
    stopReaper(deadline);
    stackCache().releaseAll();
    return 0;
}

KVOS_PTRQ_ID kvos_task_reaper_queue(void)
{
    return threadReaperQueue;
}

void kvos_task_release_stack(void* stack, size_t stackSize)
{
    if (stack == nullptr) {
        return;
    }
    restoreMarker(stack, stackSize);
    if (!stackCache().keepTaskStack(stack, stackSize)) {
        deallocate_stack(stack, taskStackArea(stackSize));
    }
}

void kvos_task_release_signal_stack(void* stack, size_t size)
{
    if (stack == nullptr) {
        return;
    }
    if (size != KVOS_SIGNAL_STACK_SIZE || !stackCache().keepSignalStack(stack)) {
        deallocate_stack(stack, size);
    }
}

size_t kvos_taskCachedStacks(void)
{
    return stackCache().count();
}

void kvos_taskReleaseCachedStacks(void)
{
    stackCache().releaseAll();
}

namespace kvos_os {

void taskSetUp()
{
    ensureExitKey();
}

void* taskStackAllocate(size_t size)
{
    return allocateTaskStack(size);
}

int startDetachedTask(void* stack, size_t stackSize, void* (*main)(void*), void* arg)
{
    pthread_attr_t tattr;
    pthread_attr_init(&tattr);
    pthread_attr_setdetachstate(&tattr, PTHREAD_CREATE_DETACHED);
    pthread_attr_setstack(&tattr, stack, taskStackArea(stackSize));
    pthread_t tid;
    int rc = kvos_syscalls().threadCreate.load()(&tid, &tattr, main, arg);
    pthread_attr_destroy(&tattr);
    return rc;
}

void setReaperQueue(ptrqueue_t* q)
{
    threadReaperQueue = q;
}

void reaperStarted()
{
    gReaperRunning.store(true, std::memory_order_release);
}

int reaperThreadBegins()
{
    gReaperLwp = currentLwp();
    return gReaperLwp;
}

bool isReaperStop(const void* msg)
{
    return msg == &gReaperStop;
}

void reaperJoin(pthread_t tid)
{
    LiveTasks& live = liveTasks();
    {
        // From here on the task may no longer be signalled.
        LiveTasks::Guard guard(live);
        auto it = live.joining.find(tid);
        if (it != live.joining.end()) {
            it->second = true;
        }
    }
    pthread_join(tid, nullptr);
}

void reaperReaped(pthread_t tid)
{
    LiveTasks& live = liveTasks();
    LiveTasks::Guard guard(live);
    live.joining.erase(tid);
    live.notifyAll();
}

void reaperEnds()
{
    LiveTasks& live = liveTasks();
    LiveTasks::Guard guard(live);
    live.reaperDone = true;
    live.notifyAll();
}

bool signalIfNotJoining(KVOS_TASK_ID tid)
{
    LiveTasks& live = liveTasks();
    LiveTasks::Guard guard(live);
    auto it = live.joining.find(tid);
    if (it != live.joining.end() && it->second) {
        return false;
    }
    pthread_kill(tid, SIGUSR1);
    return true;
}

}  // namespace kvos_os
