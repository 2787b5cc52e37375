/* KVOS tasks: attributes, stacks and guard pages, the reaper and the task
 * list, exit handlers, scheduling, affinity, and the process-wide calls. */
#include <errno.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "abstraction/kvmisc.h"
#include "abstraction/kvos.h"
#include "abstraction/kvos_ptrq.h"
#include "abstraction/kvos_seams.h"
#include "abstraction/kvos_task.h"
#include "support.h"

using namespace kvos_test;

namespace {

/* A task that reports its LWP and stack, then waits until released. */
struct Parked {
    std::atomic<int> lwp{0};
    std::atomic<bool> release{false};
    void* stackLow = nullptr;
    size_t stackSize = 0;
    bool touchBottom = false;
    std::atomic<bool> done{false};
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
    while (!parked->release) {
        KVOS_msleep(1);
    }
    parked->done = true;
}

KVOS_TASK_ID startTask(const char* name, void (*entry)(void*), void* arg, unsigned stackSize = 0,
                       KVOS_TASK_PRI priority = 100)
{
    KVOS_TASK_ATTR* attr = KVOS_taskAttrCreate();
    KVOS_taskAttrSetName(attr, name);
    KVOS_taskAttrSetStackSize(attr, stackSize);
    KVOS_taskAttrSetPriority(attr, priority);
    KVOS_TASK_ID tid = KVOS_taskCreate(entry, arg, attr);
    KVOS_taskAttrDestroy(attr);
    return tid;
}

std::string dumpLineOf(const std::string& name)
{
    for (const auto& line : linesWith(taskDump(), name)) {
        if (line.compare(0, name.size(), name) == 0) {
            return line;
        }
    }
    return "";
}

bool listed(const std::string& name)
{
    return !dumpLineOf(name).empty();
}

struct DumpLine {
    std::string name, policy;
    int priority = 0, lwp = 0;
    size_t used = 0, size = 0;
};

bool parseLine(const std::string& line, DumpLine* out)
{
    static const std::regex re(
        "(.{20})( {0,4}[A-Z]{0,2})   ([ -]*[0-9]+)  ([ 0-9]{5,})  0x[0-9a-f]{14,} +0x[0-9a-f]+ ([ 0-9]{7,})/([ 0-9]{7,})");
    std::smatch m;
    if (!std::regex_match(line, m, re)) {
        return false;
    }
    out->name = m[1].str();
    out->name.erase(out->name.find_last_not_of(' ') + 1);
    out->policy = m[2].str();
    out->policy.erase(0, out->policy.find_first_not_of(' ') == std::string::npos ? out->policy.size()
                                                                                  : out->policy.find_first_not_of(' '));
    out->priority = std::stoi(m[3].str());
    out->lwp = std::stoi(m[4].str());
    out->used = std::stoul(m[5].str());
    out->size = std::stoul(m[6].str());
    return true;
}

std::string comm(int lwp)
{
    std::ifstream f("/proc/self/task/" + std::to_string(lwp) + "/comm");
    std::string s;
    std::getline(f, s);
    return s;
}

}  // namespace

TEST(KvosTaskAttrTest, FreshRecordIsZeroAndSettersRoundTrip)
{
    KVOS_TASK_ATTR* attr = KVOS_taskAttrCreate();
    EXPECT_EQ(0u, KVOS_taskAttrGetPriority(attr));
    EXPECT_STREQ("", KVOS_taskAttrGetName(attr));
    EXPECT_EQ(KVOS_SCHED_DEFAULT, KVOS_taskAttrGetScheduler(attr));
    EXPECT_EQ(0u, KVOS_taskAttrGetStackSize(attr));
    EXPECT_EQ(0u, KVOS_taskAttrGetStackSegment(attr));

    KVOS_taskAttrSetPriority(attr, 77);
    KVOS_taskAttrSetScheduler(attr, KVOS_SCHED_OTHER);
    KVOS_taskAttrSetStackSize(attr, 3072);
    KVOS_taskAttrSetStackSegment(attr, 9);
    KVOS_taskAttrSetName(attr, "ABCDEFGHIJKLMNOPQRSTUVWXY");
    EXPECT_EQ(77u, KVOS_taskAttrGetPriority(attr));
    EXPECT_EQ(KVOS_SCHED_OTHER, KVOS_taskAttrGetScheduler(attr));
    EXPECT_EQ(3072u, KVOS_taskAttrGetStackSize(attr));
    EXPECT_EQ(9u, KVOS_taskAttrGetStackSegment(attr));
    EXPECT_STREQ("ABCDEFGHIJKLMNOPQRS", KVOS_taskAttrGetName(attr));
    EXPECT_EQ(0, KVOS_SCHED_DEFAULT);
    EXPECT_EQ(1, KVOS_SCHED_RR);
    EXPECT_EQ(2, KVOS_SCHED_OTHER);
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

TEST(KvosStackTest, CheckStackUsageCountsUntouchedMarkerWords)
{
    uint32_t words[8];
    for (auto& w : words) {
        w = KVOS_STACK_MARKER;
    }
    struct Case {
        void* stack;
        size_t size;
        size_t expected;
    } cases[] = {
        {nullptr, 32, 0}, {words, 3, 0}, {words, 32, 32}, {words, 10, 8}, {words, 4, 4},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.expected, check_stack_usage(c.stack, c.size)) << c.size;
    }
    words[3] = 0;
    EXPECT_EQ(12u, check_stack_usage(words, sizeof(words)));
    words[0] = 1;
    EXPECT_EQ(0u, check_stack_usage(words, sizeof(words)));
}

TEST(KvosStackTest, StacksAreMarkedAndReleasedWholly)
{
    size_t page = get_pagesize();
    EXPECT_EQ(static_cast<size_t>(sysconf(_SC_PAGESIZE)), page);
    size_t maps = mappingCount();
    struct Case {
        size_t size, usable;
    } cases[] = {{0, page}, {1, page}, {page, page}, {16384 + 1, 16384 + page}};
    for (const Case& c : cases) {
        auto* stack = static_cast<uint32_t*>(allocate_stack(c.size));
        ASSERT_NE(nullptr, stack);
        EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(stack) % page);
        EXPECT_EQ(c.usable, check_stack_usage(stack, c.usable)) << c.size;
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
    stack[0] = stack[2 * page - 1] = 1;  // the usable area is writable
    deallocate_stack(stack, 2 * page);
}

TEST(KvosTaskTest, ListedTaskShowsInTheDump)
{
    struct Case {
        const char* name;
        unsigned stackSize;
        size_t shown;
    } cases[] = {{"zeroStack", 0, 16384}, {"smallStack", 4096, 16384}, {"bigStack", 65536, 65536}};
    for (const Case& c : cases) {
        Parked parked;
        KVOS_TASK_ID tid = startTask(c.name, parkedEntry, &parked, c.stackSize);
        ASSERT_NE(KVOS_NO_TASK_ID, tid);
        // The start message goes out before the entry runs: wait for both.
        ASSERT_TRUE(waitFor([&] { return listed(c.name) && parked.lwp != 0; })) << taskDump();
        std::string line = dumpLineOf(c.name);
        DumpLine d;
        ASSERT_TRUE(parseLine(line, &d)) << line;
        EXPECT_EQ(c.name, d.name);
        EXPECT_EQ(c.shown, d.size) << line;
        EXPECT_EQ(parked.lwp.load(), d.lwp);
        // A fresh task has used little: its frames and the thread's control
        // block (sanitizer builds use most of a 16 KiB stack for that).
        EXPECT_GT(d.used, 0u);
        EXPECT_LT(d.used, c.shown >= 65536 ? d.size / 2 : d.size) << line;
        EXPECT_EQ(c.shown, parked.stackSize);
        char handle[32];
        snprintf(handle, sizeof(handle), "%#016lx", static_cast<unsigned long>(tid));
        EXPECT_NE(std::string::npos, line.find(handle));
        parked.release = true;
        ASSERT_TRUE(waitFor([&] { return !listed(c.name); }));
    }
}

TEST(KvosTaskTest, NamesAreCutFor19AndTheKernelShows15)
{
    Parked parked;
    startTask("ABCDEFGHIJKLMNOPQRSTUVWXY", parkedEntry, &parked);
    ASSERT_TRUE(waitFor([&] { return listed("ABCDEFGHIJKLMNOPQRS") && parked.lwp != 0; }));
    EXPECT_TRUE(dumpLineOf("ABCDEFGHIJKLMNOPQRST").empty());
    EXPECT_EQ("ABCDEFGHIJKLMNO", comm(parked.lwp));
    parked.release = true;
    ASSERT_TRUE(waitFor([&] { return !listed("ABCDEFGHIJKLMNOPQRS"); }));
}

TEST(KvosTaskTest, TouchingTheWholeStackShowsItAllUsed)
{
    Parked parked;
    parked.touchBottom = true;
    startTask("deepTask", parkedEntry, &parked, 32768);
    ASSERT_TRUE(waitFor([&] { return listed("deepTask") && parked.lwp != 0; }));
    DumpLine d;
    ASSERT_TRUE(parseLine(dumpLineOf("deepTask"), &d));
    EXPECT_EQ(d.size, d.used);
    parked.release = true;
    ASSERT_TRUE(waitFor([&] { return !listed("deepTask"); }));
}

TEST(KvosTaskTest, RootTasksRunRoundRobinWithInvertedPriorities)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root";
    }
    int max = sched_get_priority_max(SCHED_RR), min = sched_get_priority_min(SCHED_RR);
    struct Case {
        KVOS_TASK_PRI priority;
        int shown;
    } cases[] = {{0, max}, {1, max}, {50, max + min - 50}, {98, max + min - 98}, {200, min}, {0xFFFFFFFFu, min}};
    for (const Case& c : cases) {
        Parked parked;
        startTask("rrTask", parkedEntry, &parked, 0, c.priority);
        ASSERT_TRUE(waitFor([&] { return listed("rrTask") && parked.lwp != 0; }));
        DumpLine d;
        ASSERT_TRUE(parseLine(dumpLineOf("rrTask"), &d));
        EXPECT_EQ("RR", d.policy);
        EXPECT_EQ(c.shown, d.priority) << c.priority;
        struct sched_param sp;
        sched_getparam(parked.lwp, &sp);
        EXPECT_EQ(c.shown, sp.sched_priority);
        parked.release = true;
        ASSERT_TRUE(waitFor([&] { return !listed("rrTask"); }));
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
            if (!waitFor([&] { return listed("plainTask"); })) {
                _exit(3);
            }
            DumpLine d;
            parseLine(dumpLineOf("plainTask"), &d);
            fprintf(stderr, "policy=%s nice=%d\n", d.policy.c_str(), d.priority);
            _exit(0);
        },
        ::testing::ExitedWithCode(0), "policy=OT nice=0");
}

namespace {
std::atomic<int> gExitRuns{0};
std::atomic<intptr_t> gExitArg{0};
void countExit(void* arg)
{
    gExitArg = reinterpret_cast<intptr_t>(arg);
    ++gExitRuns;
}
void neverRun(void*)
{
    gExitRuns += 100;
}
void returnsWithHandler(void*)
{
    KVOS_taskOnExit(neverRun, nullptr);
    EXPECT_EQ(1, KVOS_taskOnExit(countExit, reinterpret_cast<void*>(42)));  // replaces the first
}
void exitsWithHandler(void* p)
{
    KVOS_taskOnExit(countExit, reinterpret_cast<void*>(7));
    auto* parked = static_cast<Parked*>(p);
    parked->lwp = static_cast<int>(gettid());
    KVOS_taskExit();
}
}  // namespace

TEST(KvosTaskTest, ReturningUnlistsAndTaskExitStaysListed)
{
    size_t adds = kvos_taskListAdditions(), removes = kvos_taskListRemovals();
    gExitRuns = 0;
    ASSERT_NE(KVOS_NO_TASK_ID, startTask("returner", returnsWithHandler, nullptr));
    ASSERT_TRUE(waitFor([&] { return kvos_taskListRemovals() == removes + 1; }));
    EXPECT_EQ(1, gExitRuns.load());
    EXPECT_EQ(42, gExitArg.load());
    EXPECT_EQ(adds + 1, kvos_taskListAdditions());
    EXPECT_FALSE(listed("returner"));

    Parked parked;
    KVOS_TASK_ID exiter = startTask("exiter", exitsWithHandler, &parked);
    ASSERT_NE(KVOS_NO_TASK_ID, exiter);
    ASSERT_TRUE(waitFor([&] { return gExitRuns == 2 && listed("exiter"); }));
    EXPECT_EQ(7, gExitArg.load());
    KVOS_msleep(50);
    EXPECT_TRUE(listed("exiter"));  // no exit message: never joined, never unlisted
    EXPECT_EQ(removes + 1, kvos_taskListRemovals());
    EXPECT_TRUE(KVOS_taskJoin(exiter));  // nobody else ever will
}

TEST(KvosTaskTest, OldFormAndTheSmallCalls)
{
    Parked parked;
    KVOS_TASK_ID tid = KVOS_taskCreateOld(parkedEntry, 100, &parked, "oldForm", 20480);
    ASSERT_NE(KVOS_NO_TASK_ID, tid);
    ASSERT_TRUE(waitFor([&] { return listed("oldForm"); }));
    DumpLine d;
    ASSERT_TRUE(parseLine(dumpLineOf("oldForm"), &d));
    EXPECT_EQ(20480u, d.size);
    EXPECT_EQ(1, KVOS_taskResume(tid));
    EXPECT_EQ(0, KVOS_taskRelinquish());
    EXPECT_TRUE(pthread_equal(pthread_self(), KVOS_taskID()));
#if !KV_TSAN
    EXPECT_FALSE(KVOS_taskJoin(KVOS_taskID()));  // a thread cannot join itself
#endif
    parked.release = true;
    ASSERT_TRUE(waitFor([&] { return !listed("oldForm"); }));

    pthread_t raw;
    pthread_create(&raw, nullptr, [](void*) -> void* { return nullptr; }, nullptr);
    EXPECT_TRUE(KVOS_taskJoin(raw));
}

TEST(KvosTaskTest, AffinityBindsToOneProcessor)
{
    cpu_set_t saved;
    pthread_getaffinity_np(pthread_self(), sizeof(saved), &saved);
    EXPECT_TRUE(KVOS_setAffinity(KVOS_taskID(), 0));
    EXPECT_EQ(0, sched_getcpu());
    cpu_set_t now;
    pthread_getaffinity_np(pthread_self(), sizeof(now), &now);
    EXPECT_EQ(1, CPU_COUNT(&now));
    EXPECT_FALSE(KVOS_setAffinity(KVOS_taskID(), 1024));  // an empty set is refused
    pthread_setaffinity_np(pthread_self(), sizeof(saved), &saved);
}

namespace {
void* failAlloc(size_t size)
{
    return takeArmedFailure(ENOMEM) ? nullptr : malloc(size);
}
int failCreate(pthread_t* t, const pthread_attr_t* a, void* (*fn)(void*), void* arg)
{
    return takeArmedFailure(EAGAIN) ? errno : pthread_create(t, a, fn, arg);
}
}  // namespace

TEST(KvosTaskTest, CreationFailuresReturnNoTaskAndLeaveTheError)
{
    SeamScope<void* (*)(size_t)> alloc(kvos_syscalls().contextAlloc, failAlloc);
    SeamScope<int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)> create(
        kvos_syscalls().threadCreate, failCreate);
    LogCapture log;
    size_t maps = mappingCount();

    armFailure(ENOMEM, 1);
    EXPECT_EQ(KVOS_NO_TASK_ID, startTask("noContext", parkedEntry, nullptr));
    EXPECT_TRUE(log.contains("ERROR Detail=\"Malloc failed, thread not created\" Last-error=\"" +
                             std::string(strerror(ENOMEM)) + "\""))
        << log.text();

    armFailure(EAGAIN, 1);
    EXPECT_EQ(KVOS_NO_TASK_ID, startTask("noThread", parkedEntry, nullptr));
    EXPECT_EQ(std::string(strerror(EAGAIN)), KVOS_lastError());
    EXPECT_TRUE(log.contains("ERROR Detail=\"Thread creation failed\" Name=\"noThread\" Reason=\"11\""));
    // The stack of a thread that could not be created is deliberately kept.
    EXPECT_LT(maps, mappingCount());
    disarmFailure();
}

TEST(KvosTaskDeathTest, NoRoomForTheStack)
{
    EXPECT_EXIT(
        {
            struct rlimit lim;
            lim.rlim_cur = lim.rlim_max = 512u << 20;
            std::ifstream status("/proc/self/status");
            std::string line;
            while (std::getline(status, line)) {
                if (line.rfind("VmSize:", 0) == 0) {
                    lim.rlim_cur = lim.rlim_max = (std::stoul(line.substr(7)) << 10) + (64u << 20);
                }
            }
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
    char stackMark;
    bool onAlt = true;
    stack_t ss;
    sigaltstack(nullptr, &ss);
    onAlt = (ss.ss_flags & SS_ONSTACK) != 0;
    (void)stackMark;
    if (info->si_addr >= gGuardLow && info->si_addr < gGuardHigh && onAlt) {
        static const char msg[] = "guard page hit on the signal stack\n";
        write(2, msg, sizeof(msg) - 1);
        _exit(3);
    }
    _exit(4);
}

/* Recurses until the stack runs out (the limit is never reached). */
int recurse(volatile char* p, int depth)
{
    volatile char frame[256];
    frame[0] = static_cast<char>(depth);
    if (depth == 1 << 30) {
        return p[0];
    }
    return recurse(frame, depth + 1) + p[0];
}

void overflowEntry(void*)
{
    pthread_attr_t attr;
    void* low;
    size_t size;
    pthread_getattr_np(pthread_self(), &attr);
    pthread_attr_getstack(&attr, &low, &size);
    pthread_attr_destroy(&attr);
    gGuardHigh = low;
    gGuardLow = static_cast<char*>(low) - get_pagesize();
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

TEST(KvosTaskTest, ReaperLogsAndDropsUnknownCommands)
{
    LogCapture log;
    auto* msg = static_cast<ThreadInfo*>(calloc(1, sizeof(ThreadInfo)));
    msg->taken = 7;
    ASSERT_EQ(1, KVOS_ptrqPost(kvos_task_reaper_queue(), msg));
    ASSERT_TRUE(waitFor([&] { return log.contains("Unknown thread reaper command"); }));
    EXPECT_TRUE(log.contains("ERROR Detail=\"Unknown thread reaper command\" Command=\"7\""));
}

TEST(KvosTaskTest, TaskLifeIsLogged)
{
    LogCapture log;
    Parked parked;
    parked.release = true;
    startTask("loggedTask", parkedEntry, &parked);
    ASSERT_TRUE(waitFor([&] { return log.contains("Received thread exiting"); }));
    ASSERT_TRUE(waitFor([&] { return log.contains("Detail=\"Thread Exited\" Name=\"loggedTask\""); }));
    std::string lwp = std::to_string(parked.lwp.load());
    std::string text = log.text();
    size_t create = text.find("DEBUG Detail=\"Create thread\" Name=\"loggedTask\"");
    size_t created = text.find("DEBUG Detail=\"Thread Created\" Name=\"loggedTask\" LWP=\"" + lwp + "\"");
    size_t starting = text.find("DEBUG Detail=\"Received thread starting\" LWP=\"" + lwp + "\"");
    size_t exiting = text.find("DEBUG Detail=\"Received thread exiting\" LWP=\"" + lwp + "\"");
    EXPECT_NE(std::string::npos, create);
    EXPECT_NE(std::string::npos, created);
    EXPECT_LT(starting, exiting);
    EXPECT_NE(std::string::npos, text.find("Detail=\"Thread created\" Name=\"loggedTask\" Policy=\""));
}

namespace {
std::atomic<int> gUsr1{0};
void onUsr1(int)
{
    ++gUsr1;
}
}  // namespace

TEST(KvosTaskDeathTest, BacktraceSignalsEveryOtherTask)
{
    EXPECT_EXIT(
        {
            signal(SIGUSR1, onUsr1);
            Parked a;
            Parked b;
            startTask("btA", parkedEntry, &a);
            startTask("btB", parkedEntry, &b);
            if (!waitFor([&] { return listed("btA") && listed("btB"); })) {
                _exit(2);
            }
            size_t others = kvos_taskListSize();  // the caller is not listed
            uint64_t t0 = KVMISC_now64();
            KVOS_taskBacktraceAllOtherTasks();
            uint64_t took = KVMISC_now64() - t0;
            fprintf(stderr, "signals=%d of %zu slow=%d\n", gUsr1.load(), others, took >= others * 200000 ? 1 : 0);
            _exit(gUsr1.load() == static_cast<int>(others) ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "slow=1");
}

TEST(KvosTaskDeathTest, CleanupCancelsEveryOtherTask)
{
    if (KV_TSAN) {
        GTEST_SKIP() << "cancelled tasks are never joined, which ThreadSanitizer reports as leaks";
    }
    EXPECT_EXIT(
        {
            Parked a;
            startTask("victim", parkedEntry, &a);
            if (!waitFor([&] { return listed("victim"); })) {
                _exit(2);
            }
            uint64_t t0 = KVMISC_now64();
            int rc = KVOS_cleanup();
            uint64_t took = KVMISC_now64() - t0;
            fprintf(stderr, "rc=%d threads=%zu slept=%d done=%d\n", rc, threadCount(), took >= 2000000 ? 1 : 0,
                    a.done.load() ? 1 : 0);
            _exit(0);
        },
        ::testing::ExitedWithCode(0), "rc=0 threads=1 slept=1 done=0");
}
