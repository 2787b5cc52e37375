/* KVOS tasks: attributes, stacks and guard pages, the reaper and the task
 * list, exit handlers, scheduling, affinity and the process-wide calls. */
#include <sched.h>
#include <sys/resource.h>

#include <algorithm>
#include <fstream>

#include "abstraction/dbusthread.h"
#include "support.h"

using namespace kvos_test;

namespace {

/* Waits until flag is set, at a cancellation point. ThreadSanitizer's
 * runtime cannot follow a thread cancelled inside one of its intercepted
 * blocking calls (the thread's later locks go unrecorded and show up as
 * false races), so in that build the wait polls pthread_testcancel. */
void waitCancellably(const std::atomic<bool>& flag)
{
    while (!flag.load()) {
        if (KV_TSAN) {
            pthread_testcancel();
            sched_yield();
        } else {
            KVOS_usleep(500);
        }
    }
}

/* Before a cleanup under ThreadSanitizer: the dispatcher task waits in
 * poll, where a cancellation would confuse the runtime (see above); it is
 * stopped the documented way instead. */
void stopDispatcherUnderTsan()
{
    if (KV_TSAN) {
        DBusThread::instance().stop();
    }
}

/* A task that reports its LWP and stack, then waits until released. */
struct Parked {
    std::atomic<int> lwp{0};
    std::atomic<bool> release{false}, done{false};
    bool touchBottom = false;
    void* stackLow = nullptr;
    size_t stackSize = 0;
};

void parkedEntry(void* p)
{
    auto* parked = static_cast<Parked*>(p);
    pthread_attr_t attr;
    pthread_getattr_np(pthread_self(), &attr);
    pthread_attr_getstack(&attr, &parked->stackLow, &parked->stackSize);
    pthread_attr_destroy(&attr);
    if (parked->touchBottom) {
        *static_cast<volatile uint32_t*>(parked->stackLow) = 0;  // the deepest word
    }
    parked->lwp = static_cast<int>(gettid());
    waitCancellably(parked->release);
    parked->done = true;
}

KVOS_TASK_ID startTask(const char* name, void (*entry)(void*), void* arg, unsigned stackSize = 0,
                       KVOS_TASK_PRI priority = 100)
{
    KVOS_TASK_ATTR* attr = KVOS_taskAttrCreate();
    KVOS_taskAttrSetName(attr, name);
    KVOS_taskAttrSetStackSize(attr, stackSize);
    KVOS_taskAttrSetPriority(attr, priority);
    KVOS_taskAttrSetScheduler(attr, KVOS_SCHED_OTHER);  // stored only: root tasks run round-robin regardless
    KVOS_TASK_ID tid = KVOS_taskCreate(entry, arg, attr);
    KVOS_taskAttrDestroy(attr);
    return tid;
}

struct DumpLine {
    std::string policy;
    int priority = 0, lwp = 0;
    unsigned long tid = 0;
    size_t used = 0, size = 0;
};

/* Finds the task dump line of name; its format is checked by rendering the
 * parsed fields again. */
bool findTask(const std::string& name, DumpLine* out = nullptr)
{
    for (const auto& line : linesWith(taskDump(), name)) {
        DumpLine d;
        char again[100];
        void* stack;
        if (line.size() < 24 || line.compare(0, 20, (name + std::string(20, ' ')).substr(0, 20)) != 0 ||
            sscanf(line.c_str() + 24, "%d %d %lx %p %zu/%zu", &d.priority, &d.lwp, &d.tid, &stack, &d.used, &d.size) != 6) {
            continue;
        }
        d.policy = line.substr(20, 4);
        snprintf(again, sizeof(again), "%-20s%4s   %3d  %5d  %#016lx %16p %7zu/%7zu", name.c_str(), d.policy.c_str(),
                 d.priority, d.lwp, d.tid, stack, d.used, d.size);
        EXPECT_EQ(again, line);
        d.policy.erase(0, d.policy.find_first_not_of(' '));
        if (out) {
            *out = d;
        }
        return true;
    }
    return false;
}

}  // namespace

TEST(KvosTaskAttrTest, FreshRecordIsZeroAndNamesAreCutTo19)
{
    KVOS_TASK_ATTR* attr = KVOS_taskAttrCreate();
    EXPECT_EQ(0u, KVOS_taskAttrGetPriority(attr));
    EXPECT_STREQ("", KVOS_taskAttrGetName(attr));
    EXPECT_EQ(KVOS_SCHED_DEFAULT, KVOS_taskAttrGetScheduler(attr));
    EXPECT_EQ(0u, KVOS_taskAttrGetStackSize(attr));
    EXPECT_EQ(0u, KVOS_taskAttrGetStackSegment(attr));
    KVOS_taskAttrSetName(attr, "ABCDEFGHIJKLMNOPQRSTUVWXY");
    EXPECT_STREQ("ABCDEFGHIJKLMNOPQRS", KVOS_taskAttrGetName(attr));
    KVOS_taskAttrDestroy(attr);
}

TEST(KvosTaskAttrDeathTest, ProgrammingFaultsStopTheProcess)
{
    KVOS_TASK_ATTR* attr = KVOS_taskAttrCreate();
    EXPECT_DEATH(KVOS_taskAttrSetStackSize(attr, 1000),
                 "\\*\\*\\*\\*\\* Internal Program Error - assertion \\(stackSize % 1024 == 0\\) failed in ");
    EXPECT_DEATH(KVOS_taskAttrGetPriority(nullptr), "assertion \\(attr != NULL\\) failed");
    EXPECT_DEATH(KVOS_taskCreate(parkedEntry, nullptr, nullptr), "assertion \\(attr != NULL\\) failed");
    KVOS_taskAttrDestroy(attr);
}

TEST(KvosStackTest, StacksAreMarkedMeasuredAndReleasedWholly)
{
    uint32_t words[8];
    std::fill(std::begin(words), std::end(words), KVOS_STACK_MARKER);
    words[3] = 0;
    struct Usage {
        void* stack;
        size_t size, expected;
    } usages[] = {{nullptr, 32, 0}, {words, 3, 0}, {words, 4, 4}, {words, 10, 8}, {words, 32, 12}, {words + 4, 16, 16}};
    for (const Usage& c : usages) {
        EXPECT_EQ(c.expected, check_stack_usage(c.stack, c.size)) << c.size;
    }
    words[0] = 1;
    EXPECT_EQ(0u, check_stack_usage(words, sizeof(words)));

    size_t page = get_pagesize(), maps = mappingCount();
    EXPECT_EQ(static_cast<size_t>(sysconf(_SC_PAGESIZE)), page);
    struct Alloc {
        size_t size, usable;
    } allocs[] = {{0, page}, {1, page}, {page, page}, {16384 + 1, 16384 + page}};
    for (const Alloc& c : allocs) {
        void* stack = allocate_stack(c.size);
        ASSERT_NE(nullptr, stack);
        EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(stack) % page);
        EXPECT_EQ(c.usable, check_stack_usage(stack, c.usable)) << c.size;  // marked throughout
        deallocate_stack(stack, c.size);
    }
    EXPECT_EQ(maps, mappingCount());
}

TEST(KvosStackDeathTest, GuardPagesFenceBothEnds)
{
    size_t page = get_pagesize();
    auto* stack = static_cast<char*>(allocate_stack(2 * page));
    EXPECT_DEATH(stack[-1] = 1, "");
    EXPECT_DEATH(stack[2 * page] = 1, "");
    stack[0] = stack[2 * page - 1] = 1;
    deallocate_stack(stack, 2 * page);
}

TEST(KvosTaskTest, ListedTasksShowNameStackUseAndScheduling)
{
    const bool root = geteuid() == 0;
    if (root) {
        ASSERT_EQ(99, sched_get_priority_max(SCHED_RR));
        ASSERT_EQ(1, sched_get_priority_min(SCHED_RR));
    }
    struct Case {
        const char* name;
        unsigned stackSize;
        KVOS_TASK_PRI priority;
        bool touchBottom, oldForm;
        size_t shownSize;
        int rrPriority;  // as root: 0 is the most urgent, inverted onto 99..1
    } cases[] = {
        {"zeroStack", 0, 0, false, false, 16384, 99},          {"smallStack", 4096, 1, false, true, 16384, 99},
        {"ABCDEFGHIJKLMNOPQRSTUVWXY", 65536, 50, false, false, 65536, 50},
        {"deepTask", 32768, 98, true, false, 32768, 2},        {"oldForm", 20480, 200, false, true, 20480, 1},
        {"lowestTask", 0, 0xFFFFFFFFu, false, false, 16384, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Parked parked;
        parked.touchBottom = c.touchBottom;
        KVOS_TASK_ID tid = c.oldForm ? KVOS_taskCreateOld(parkedEntry, c.priority, &parked, c.name, c.stackSize)
                                     : startTask(c.name, parkedEntry, &parked, c.stackSize, c.priority);
        ASSERT_NE(KVOS_NO_TASK_ID, tid);
        std::string shownName = std::string(c.name).substr(0, 19);
        DumpLine d;  // the start message goes out before the entry runs: wait for both
        ASSERT_TRUE(waitFor([&] { return parked.lwp != 0 && findTask(shownName, &d); })) << taskDump();
        EXPECT_EQ(parked.lwp.load(), d.lwp);
        char comm[16];
        pthread_getname_np(tid, comm, sizeof(comm));
        EXPECT_EQ(shownName.substr(0, 15), comm);
        EXPECT_EQ(c.shownSize, d.size);
        // The thread's area also holds the C library's thread block above
        // the size asked for; the dump shows the size asked for.
        EXPECT_LT(c.shownSize, parked.stackSize);
        EXPECT_EQ(static_cast<unsigned long>(tid), d.tid);
        if (c.touchBottom) {
            EXPECT_EQ(d.size, d.used);
        } else {  // frames and the thread's control block (most of 16 KiB in sanitizer builds)
            EXPECT_GT(d.used, 0u);
            EXPECT_LT(d.used, d.size >= 65536 ? d.size / 2 : d.size);
        }
        if (root) {
            EXPECT_EQ("RR", d.policy);
            EXPECT_EQ(c.rrPriority, d.priority);
            struct sched_param sp;
            sched_getparam(parked.lwp, &sp);
            EXPECT_EQ(c.rrPriority, sp.sched_priority);
        }
        parked.release = true;
        ASSERT_TRUE(waitFor([&] { return !findTask(shownName); }));
    }
}

TEST(KvosTaskDeathTest, OrdinaryUsersGetTheDefaultPolicy)
{
    EXPECT_EXIT(
        {
            if (geteuid() == 0 && seteuid(65534) != 0) {
                _exit(2);
            }
            Parked parked;
            startTask("plainTask", parkedEntry, &parked);
            DumpLine d;
            if (!waitFor([&] { return findTask("plainTask", &d); })) {
                _exit(3);
            }
            fprintf(stderr, "policy=%s nice=%d\n", d.policy.c_str(), d.priority);
            _exit(0);
        },
        ::testing::ExitedWithCode(0), "policy=OT nice=0");
}

namespace {
std::atomic<int> gExitRuns{0}, gLwp{0};
std::atomic<intptr_t> gExitArg{0};
void countExit(void* arg)
{
    gExitArg = reinterpret_cast<intptr_t>(arg);
    ++gExitRuns;
}
void returnsWithHandler(void*)
{
    gLwp = static_cast<int>(gettid());
    KVOS_taskOnExit([](void*) { gExitRuns += 100; }, nullptr);
    EXPECT_EQ(1, KVOS_taskOnExit(countExit, reinterpret_cast<void*>(42)));  // replaces the first
}
void exitsWithHandler(void*)
{
    KVOS_taskOnExit(countExit, reinterpret_cast<void*>(7));
    KVOS_taskExit();
}
}  // namespace

TEST(KvosTaskTest, ReturningRunsTheHandlerAndUnlistsButTaskExitStaysListed)
{
    size_t adds = kvos_taskListAdditions(), removes = kvos_taskListRemovals();
    gExitRuns = 0;
    LogCapture log;
    ASSERT_NE(KVOS_NO_TASK_ID, startTask("returner", returnsWithHandler, nullptr));
    ASSERT_TRUE(waitFor([&] {
        return kvos_taskListRemovals() == removes + 1 && log.contains("Detail=\"Thread Exited\" Name=\"returner\"");
    }));
    EXPECT_EQ(1, gExitRuns.load());
    EXPECT_EQ(42, gExitArg.load());
    EXPECT_EQ(adds + 1, kvos_taskListAdditions());
    EXPECT_FALSE(findTask("returner"));
    std::string lwp = std::to_string(gLwp.load()), text = log.text();
    size_t at = 0;
    for (const std::string& step : {std::string("DEBUG Detail=\"Create thread\" Name=\"returner\""),
                                    "DEBUG Detail=\"Thread Created\" Name=\"returner\" LWP=\"" + lwp + "\"",
                                    "DEBUG Detail=\"Received thread starting\" LWP=\"" + lwp + "\"",
                                    "DEBUG Detail=\"Received thread exiting\" LWP=\"" + lwp + "\""}) {
        at = text.find(step, at);
        ASSERT_NE(std::string::npos, at) << step << " not in order in\n" << text;
    }
    EXPECT_TRUE(log.contains("DEBUG Detail=\"Thread created\" Name=\"returner\" Policy=\""));
    auto* unknown = static_cast<ThreadInfo*>(calloc(1, sizeof(ThreadInfo)));
    unknown->taken = 7;
    ASSERT_EQ(1, KVOS_ptrqPost(kvos_task_reaper_queue(), unknown));
    EXPECT_TRUE(waitFor([&] { return log.contains("ERROR Detail=\"Unknown thread reaper command\" Command=\"7\""); }));

    KVOS_TASK_ID exiter = startTask("exiter", exitsWithHandler, nullptr);
    ASSERT_NE(KVOS_NO_TASK_ID, exiter);
    ASSERT_TRUE(waitFor([] { return gExitRuns == 2 && findTask("exiter"); }));
    EXPECT_EQ(7, gExitArg.load());
    KVOS_msleep(50);
    EXPECT_TRUE(findTask("exiter"));  // no exit message: never joined, never unlisted
    EXPECT_EQ(removes + 1, kvos_taskListRemovals());
    EXPECT_TRUE(KVOS_taskJoin(exiter));  // nobody else ever will
}

TEST(KvosTaskTest, TheSmallCalls)
{
    EXPECT_EQ(1, KVOS_taskResume(KVOS_taskID()));
    EXPECT_EQ(0, KVOS_taskRelinquish());
    EXPECT_TRUE(pthread_equal(pthread_self(), KVOS_taskID()));
#if !KV_TSAN
    EXPECT_FALSE(KVOS_taskJoin(KVOS_taskID()));  // a thread cannot join itself
#endif
    cpu_set_t saved, now;
    pthread_getaffinity_np(pthread_self(), sizeof(saved), &saved);
    EXPECT_TRUE(KVOS_setAffinity(KVOS_taskID(), 0));
    EXPECT_EQ(0, sched_getcpu());
    pthread_getaffinity_np(pthread_self(), sizeof(now), &now);
    EXPECT_EQ(1, CPU_COUNT(&now));
    EXPECT_FALSE(KVOS_setAffinity(KVOS_taskID(), 1024));  // an empty set is refused
    pthread_setaffinity_np(pthread_self(), sizeof(saved), &saved);
}

TEST(KvosTaskTest, CreationFailuresReturnNoTaskAndLeaveTheError)
{
    LogCapture log;
    {
        SeamScope alloc(kvos_syscalls().contextAlloc, [](size_t n) { return takeArmedFailure() ? nullptr : malloc(n); });
        armFailure(ENOMEM, 1);
        EXPECT_EQ(KVOS_NO_TASK_ID, startTask("noContext", parkedEntry, nullptr));
    }
    EXPECT_TRUE(log.contains("ERROR Detail=\"Malloc failed, thread not created\" Last-error=\"" +
                             std::string(strerror(ENOMEM)) + "\""))
        << log.text();

    kvos_taskReleaseCachedStacks();  // the stack below is mapped afresh
    size_t maps = mappingCount();
    SeamScope create(kvos_syscalls().threadCreate,
                     [](pthread_t* t, const pthread_attr_t* a, void* (*fn)(void*), void* arg) {
                         return takeArmedFailure() ? errno : pthread_create(t, a, fn, arg);
                     });
    armFailure(EAGAIN, 1);
    EXPECT_EQ(KVOS_NO_TASK_ID, startTask("noThread", parkedEntry, nullptr));
    EXPECT_EQ(std::string(strerror(EAGAIN)), KVOS_lastError());
    EXPECT_TRUE(log.contains("ERROR Detail=\"Thread creation failed\" Name=\"noThread\" Reason=\"11\""));
    EXPECT_LT(maps, mappingCount());  // the stack of a thread never created is deliberately kept
}

TEST(KvosTaskDeathTest, NoRoomForTheStack)
{
    EXPECT_EXIT(
        {
            size_t pages = 0;
            std::ifstream("/proc/self/statm") >> pages;
            struct rlimit lim;  // room for everything but the stack
            lim.rlim_cur = lim.rlim_max = pages * get_pagesize() + (64u << 20);
            setrlimit(RLIMIT_AS, &lim);
            logToStderr();
            KVOS_TASK_ID tid = startTask("hugeStack", parkedEntry, nullptr, 256u << 20);
            fprintf(stderr, "tid=%ld err=%s\n", static_cast<long>(tid), KVOS_lastError().c_str());
            _exit(0);
        },
        ::testing::ExitedWithCode(0),
        "Detail=\"Thread creation failed\" Name=\"hugeStack\" Reason=\"Failed to allocate stack space\"(.|\n)*"
        "tid=-1 err=Cannot allocate memory");
}

namespace {
void* gGuardLow;
void* gGuardHigh;

void onSegv(int, siginfo_t* info, void*)
{
    stack_t ss;
    sigaltstack(nullptr, &ss);
    if (info->si_addr >= gGuardLow && info->si_addr < gGuardHigh && (ss.ss_flags & SS_ONSTACK)) {
        static const char msg[] = "guard page hit on the signal stack\n";
        write(2, msg, sizeof(msg) - 1);
        _exit(3);
    }
    _exit(4);
}

int recurse(volatile char* p, int depth)
{
    volatile char frame[256];
    frame[0] = static_cast<char>(depth);
    return depth == 1 << 30 ? p[0] : recurse(frame, depth + 1) + p[0];
}

void overflowEntry(void*)
{
    pthread_attr_t attr;
    size_t size;
    pthread_getattr_np(pthread_self(), &attr);
    pthread_attr_getstack(&attr, &gGuardHigh, &size);
    pthread_attr_destroy(&attr);
    gGuardLow = static_cast<char*>(gGuardHigh) - get_pagesize();
    char c = 0;
    recurse(&c, 0);
}
}  // namespace

TEST(KvosTaskDeathTest, StackOverflowLandsOnTheGuardPage)
{
    EXPECT_EXIT(
        {
            struct sigaction sa;
            memset(&sa, 0, sizeof(sa));
            sa.sa_sigaction = onSegv;
            sa.sa_flags = SA_SIGINFO | SA_ONSTACK;
            sigaction(SIGSEGV, &sa, nullptr);
            startTask("overflow", overflowEntry, nullptr);
            KVOS_sleep(10);
            _exit(5);
        },
        ::testing::ExitedWithCode(3), "guard page hit on the signal stack");
}

namespace {
std::atomic<int> gUsr1{0};
}  // namespace

TEST(KvosTaskDeathTest, BacktraceSignalsEveryOtherTaskAndCleanupCancelsThem)
{
    EXPECT_EXIT(
        {
            signal(SIGUSR1, [](int) { ++gUsr1; });
            Parked a;
            Parked b;
            startTask("btA", parkedEntry, &a);
            startTask("btB", parkedEntry, &b);
            if (!waitFor([] { return findTask("btA") && findTask("btB"); })) {
                _exit(2);
            }
            size_t others = kvos_taskListSize();  // the caller is not listed
            uint64_t t0 = KVMISC_now64();
            KVOS_taskBacktraceAllOtherTasks();
            bool slow = KVMISC_now64() - t0 >= others * 200000;
            fprintf(stderr, "all=%d slow=%d\n", gUsr1 == static_cast<int>(others), slow);
            stopDispatcherUnderTsan();
            size_t remaining = threadCount() - 3 - (DBusThread::instance().taskId() != 0);  // btA, btB, reaper
            // Cleanup waits until the cancelled tasks are reaped, not a fixed
            // two seconds.
            t0 = KVMISC_now64();
            int rc = KVOS_cleanup();
            uint64_t took = KVMISC_now64() - t0;
            // None of the cancelled tasks is left. A joined thread can stay
            // listed by the kernel for a moment, and a dispatcher stopped just
            // before may leave only now.
            bool left = waitFor([&] { return threadCount() <= remaining; }, 1000);
            fprintf(stderr, "rc=%d threadsLeft=%d prompt=%d done=%d\n", rc, left, took < 1500000, a.done || b.done);
            _exit(0);
        },
        ::testing::ExitedWithCode(0), "all=1 slow=1\nrc=0 threadsLeft=1 prompt=1 done=0");
}

/* The task lifecycle under the calls that race with the reaper: cleanup and
 * backtrace while tasks come and go, joins at any point of a task's life,
 * dump output functions that call back into the library, and a stack used
 * to the full size asked for. */
namespace {

/* Ends the child process if it hangs (a deadlock or a join that never
 * returns) instead of letting the death test wait for ever. */
void watchdog(unsigned seconds)
{
    signal(SIGALRM, [](int) {
        static const char msg[] = "watchdog: hung\n";
        write(2, msg, sizeof(msg) - 1);
        _exit(9);
    });
    alarm(seconds);
}

/* Waits on a cancellation point until released. */
void blockedEntry(void* p)
{
    waitCancellably(*static_cast<std::atomic<bool>*>(p));
}

}  // namespace

TEST(KvosLifecycleDeathTest, CleanupCancelsStartingTasksAndWaitsOnlyUntilTheyAreGone)
{
    // Cleanup straight after a burst of starts: the reaper is still listing
    // (and its queue still full of) tasks while cleanup cancels them.
    for (int round = 0; round < 6; ++round) {
        EXPECT_EXIT(
            {
                watchdog(20);
                stopDispatcherUnderTsan();
                static std::atomic<bool> never{false};
                // What cleanup ends besides the tasks below: the reaper and the
                // dispatcher if it runs (the sanitizer runtime may keep a thread).
                size_t remaining = threadCount() - 1 - (DBusThread::instance().taskId() != 0);
                for (int i = 0; i < 20; ++i) {
                    if (startTask("blocked", blockedEntry, &never) == KVOS_NO_TASK_ID) {
                        _exit(2);
                    }
                }
                uint64_t t0 = KVMISC_now64();
                int rc = KVOS_cleanup();
                uint64_t took = KVMISC_now64() - t0;
                // Left: this thread, and the reaper's entry (never unlisted).
                // None of the cancelled tasks is left; a joined thread can
                // stay listed by the kernel for a moment.
                bool left = waitFor([&] { return threadCount() <= remaining; }, 1000);
                fprintf(stderr, "rc=%d threadsLeft=%d listed=%zu prompt=%d\n", rc, left, kvos_taskListSize(),
                        took < 1500000);
                _exit(0);
            },
            ::testing::ExitedWithCode(0), "rc=0 threadsLeft=1 listed=1 prompt=1")
            << "round " << round;
    }
}

namespace {
thread_local std::atomic<int>* tSignals;
void countSignal(int)
{
    if (tSignals) {
        ++*tSignals;
    }
}
/* Ends as soon as it has been signalled, so that the reaper unlists it while
 * the backtrace still walks the list. */
void endsWhenSignalled(void* p)
{
    auto* count = static_cast<std::atomic<int>*>(p);
    tSignals = count;
    while (count->load() == 0) {
        KVOS_usleep(500);
    }
    tSignals = nullptr;
}
}  // namespace

TEST(KvosLifecycleDeathTest, BacktraceSurvivesTasksThatEndWhileItWalks)
{
    EXPECT_EXIT(
        {
            watchdog(30);
            struct sigaction sa;
            memset(&sa, 0, sizeof(sa));
            sa.sa_handler = countSignal;
            sigaction(SIGUSR1, &sa, nullptr);
            constexpr int kTasks = 6;
            static std::atomic<int> signals[kTasks];
            size_t listed = kvos_taskListSize();
            for (auto& s : signals) {
                startTask("endsOnSignal", endsWhenSignalled, &s);
            }
            if (!waitFor([&] { return kvos_taskListSize() == listed + kTasks; })) {
                _exit(2);
            }
            size_t removals = kvos_taskListRemovals();
            KVOS_taskBacktraceAllOtherTasks();
            int once = 0;
            for (auto& s : signals) {
                once += s.load() == 1;
            }
            bool reaped = waitFor([&] { return kvos_taskListRemovals() == removals + kTasks; });
            fprintf(stderr, "signalled once=%d reaped=%d\n", once, reaped);
            _exit(0);
        },
        ::testing::ExitedWithCode(0), "signalled once=6 reaped=1");
}

namespace {
void returnsAtOnce(void*) {}
}  // namespace

TEST(KvosLifecycleDeathTest, JoinAnswersOnceTheTaskHasEndedWheneverItIsCalled)
{
    EXPECT_EXIT(
        {
            watchdog(20);
            // Joined while it runs, by two threads at once: both wait for
            // the end, and the task is unlisted (reaped) by then.
            std::atomic<bool> release{false};
            size_t removals = kvos_taskListRemovals();
            KVOS_TASK_ID running = startTask("joinRunning", blockedEntry, &release);
            bool second = false;
            std::thread other([&] { second = KVOS_taskJoin(running); });
            KVOS_msleep(50);
            release = true;
            bool first = KVOS_taskJoin(running);
            other.join();
            bool unlisted = kvos_taskListRemovals() == removals + 1 && !findTask("joinRunning");

            // Joined long after the reaper has joined and released it.
            removals = kvos_taskListRemovals();
            KVOS_TASK_ID ended = startTask("joinEnded", returnsAtOnce, nullptr);
            waitFor([&] { return kvos_taskListRemovals() == removals + 1; });
            KVOS_msleep(20);
            bool late = KVOS_taskJoin(ended);
            bool again = KVOS_taskJoin(ended);

            // Joined before the reaper has even listed it.
            KVOS_TASK_ID fresh = startTask("joinFresh", returnsAtOnce, nullptr);
            bool early = KVOS_taskJoin(fresh);
            fprintf(stderr, "running=%d,%d unlisted=%d late=%d,%d early=%d self=%d\n", first, second, unlisted, late,
                    again, early, KVOS_taskJoin(KVOS_taskID()));
            _exit(0);
        },
        ::testing::ExitedWithCode(0), "running=1,1 unlisted=1 late=1,1 early=1 self=0");
}

namespace {
/* Output functions that use the library themselves: they must not be
 * called with a list lock held. */
int countingTasks(int, const void*, unsigned)
{
    return static_cast<int>(kvos_taskListSize());
}
int countingMutexes(int, const char*, unsigned)
{
    return KVOS_mutexCount();
}
class CallingBackBuf : public std::streambuf {
protected:
    int overflow(int c) override
    {
        kvos_taskListAdditions();
        text += static_cast<char>(c);
        return c;
    }

public:
    std::string text;
};
}  // namespace

TEST(KvosLifecycleDeathTest, DumpOutputMayCallTheLibrary)
{
    EXPECT_EXIT(
        {
            watchdog(20);
            KVOS_MUTEX m{nullptr};
            KVOS_mutexCreate(&m, "dumpCallback");
            KVOS_mutexDump(countingMutexes, 0);
            KVOS_taskDump(countingTasks, 0);
            RTOS_tdumplist(0, countingTasks);
            CallingBackBuf buf;
            std::ostream os(&buf);
            KVOS_taskDump(os);
            KVOS_mutexDelete(&m);
            fprintf(stderr, "done listInfo=%d\n", buf.text.find("List info: size ") != std::string::npos);
            _exit(0);
        },
        ::testing::ExitedWithCode(0), "done listInfo=1");
}

namespace {
constexpr size_t kAsked = 16384;
std::atomic<size_t> gDeepest{0};

/* Uses `bytes` of stack below its own frame. */
__attribute__((noinline)) void useStack(size_t bytes)
{
    auto* area = static_cast<volatile char*>(__builtin_alloca(bytes));
    for (size_t i = 0; i < bytes; i += 64) {
        area[i] = 1;
    }
    area[0] = 1;
    gDeepest = reinterpret_cast<uintptr_t>(area);
}

void usesNearlyAll(void* p)
{
    useStack(kAsked - 2048);
    parkedEntry(p);
}
}  // namespace

TEST(KvosLifecycleDeathTest, ATaskCanUseTheWholeStackItAskedFor)
{
    EXPECT_EXIT(
        {
            watchdog(20);
            Parked parked;
            if (startTask("nearlyAll", usesNearlyAll, &parked, kAsked) == KVOS_NO_TASK_ID) {
                _exit(2);
            }
            DumpLine d;
            bool listed = waitFor([&] { return parked.lwp != 0 && findTask("nearlyAll", &d); });
            uintptr_t low = reinterpret_cast<uintptr_t>(parked.stackLow);
            // The dump measures from the size asked for down: nearly all of it.
            fprintf(stderr, "listed=%d size=%zu nearlyAllUsed=%d within=%d\n", listed, d.size,
                    d.used >= kAsked - 3072 && d.used <= kAsked, gDeepest >= low);
            parked.release = true;
            _exit(0);
        },
        ::testing::ExitedWithCode(0), "listed=1 size=16384 nearlyAllUsed=1 within=1");
}

/* Stacks and signal stacks come back from the reaper to a bounded cache and
 * serve later tasks of the same stack size. */
namespace {
struct StackSeen {
    std::atomic<void*> low{nullptr}, signal{nullptr};
    std::atomic<size_t> deepest{0};
};
StackSeen gSeen;

void recordStack(bool touchBottom, size_t useBytes)
{
    pthread_attr_t attr;
    void* low;
    size_t size;
    pthread_getattr_np(pthread_self(), &attr);
    pthread_attr_getstack(&attr, &low, &size);
    pthread_attr_destroy(&attr);
    stack_t ss;
    sigaltstack(nullptr, &ss);
    gSeen.low = low;
    gSeen.signal = ss.ss_sp;
    if (touchBottom) {
        *static_cast<volatile uint32_t*>(low) = 0;
    }
    if (useBytes) {
        useStack(useBytes);
    }
}

/* Runs one task of the minimum stack size to its end and reaping. */
bool runAndReap(void (*entry)(void*))
{
    size_t removals = kvos_taskListRemovals();
    return startTask("cacheWarm", entry, nullptr, KVOS_TASK_MIN_STACK) != KVOS_NO_TASK_ID &&
           waitFor([&] { return kvos_taskListRemovals() == removals + 1; }, 20000);
}
}  // namespace

TEST(KvosStackCacheTest, AReusedStackShowsOnlyItsNewTasksUse)
{
    struct Case {
        const char* what;
        void (*before)(void*);
    } cases[] = {
        {"whole stack touched", [](void*) { recordStack(true, 0); }},
        {"half the stack used", [](void*) { recordStack(false, KVOS_TASK_MIN_STACK / 2); }},
        {"nothing beyond the frames", [](void*) { recordStack(false, 0); }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        kvos_taskReleaseCachedStacks();
        ASSERT_TRUE(runAndReap(c.before));
        void* previous = gSeen.low;
        EXPECT_GE(kvos_taskCachedStacks(), 2u);

        Parked parked;
        ASSERT_NE(KVOS_NO_TASK_ID, startTask("cacheReuse", parkedEntry, &parked, KVOS_TASK_MIN_STACK));
        DumpLine d;
        ASSERT_TRUE(waitFor([&] { return parked.lwp != 0 && findTask("cacheReuse", &d); }));
        EXPECT_EQ(previous, parked.stackLow) << "the released stack was not reused";
        EXPECT_EQ(KVOS_TASK_MIN_STACK, d.size);
        EXPECT_GT(d.used, 0u);
        EXPECT_LT(d.used, d.size / 2) << "the last task's use shows through";
        parked.release = true;
        ASSERT_TRUE(waitFor([&] { return !findTask("cacheReuse"); }));
    }
    // Another size is not served from the cache.
    kvos_taskReleaseCachedStacks();
    ASSERT_TRUE(runAndReap([](void*) { recordStack(false, 0); }));
    void* small = gSeen.low;
    Parked parked;
    ASSERT_NE(KVOS_NO_TASK_ID, startTask("otherSize", parkedEntry, &parked, 2 * KVOS_TASK_MIN_STACK));
    ASSERT_TRUE(waitFor([&] { return parked.lwp != 0 && findTask("otherSize"); }));
    EXPECT_NE(small, parked.stackLow);
    parked.release = true;
    ASSERT_TRUE(waitFor([&] { return !findTask("otherSize"); }));
}

namespace {
void* gWarmLow;
void* gWarmSignal;
void onReusedSegv(int, siginfo_t* info, void*)
{
    stack_t ss;
    sigaltstack(nullptr, &ss);
    if (info->si_addr >= gGuardLow && info->si_addr < gGuardHigh && (ss.ss_flags & SS_ONSTACK)) {
        bool reused = gGuardHigh == gWarmLow && ss.ss_sp == gWarmSignal;
        static const char yes[] = "guard page of a reused stack hit on a reused signal stack\n";
        static const char no[] = "guard page hit, stacks not reused\n";
        write(2, reused ? yes : no, reused ? sizeof(yes) - 1 : sizeof(no) - 1);
        _exit(3);
    }
    _exit(4);
}
}  // namespace

TEST(KvosStackCacheDeathTest, AReusedStackStillFaultsOnItsGuardPage)
{
    EXPECT_EXIT(
        {
            kvos_taskReleaseCachedStacks();
            if (!runAndReap([](void*) { recordStack(false, 0); })) {
                _exit(2);
            }
            gWarmLow = gSeen.low;
            gWarmSignal = gSeen.signal;
            struct sigaction sa;
            memset(&sa, 0, sizeof(sa));
            sa.sa_sigaction = onReusedSegv;
            sa.sa_flags = SA_SIGINFO | SA_ONSTACK;
            sigaction(SIGSEGV, &sa, nullptr);
            startTask("overflow", overflowEntry, nullptr, KVOS_TASK_MIN_STACK);
            KVOS_sleep(10);
            _exit(5);
        },
        ::testing::ExitedWithCode(3), "guard page of a reused stack hit on a reused signal stack");
}

TEST(KvosStackCacheDeathTest, CleanupReleasesTheCache)
{
    EXPECT_EXIT(
        {
            kvos_taskReleaseCachedStacks();
            size_t maps = mappingCount();
            for (int i = 0; i < 3; ++i) {
                if (!runAndReap([](void*) {})) {
                    _exit(2);
                }
            }
            size_t cached = kvos_taskCachedStacks();
            stopDispatcherUnderTsan();
            KVOS_cleanup();
            // Cleanup also ends the dispatcher and the reaper, whose stacks
            // stay mapped (the reaper's) or go to the cache (the dispatcher's).
            fprintf(stderr, "cached=%zu after=%zu", cached, kvos_taskCachedStacks());
            if (!KV_TSAN) {  // its runtime maps memory of its own as threads end
                fprintf(stderr, " fewerMaps=%d", mappingCount() < maps);
            }
            fprintf(stderr, "\n");
            _exit(0);
        },
        ::testing::ExitedWithCode(0), KV_TSAN ? "cached=2 after=0\n" : "cached=2 after=0 fewerMaps=1");
}
