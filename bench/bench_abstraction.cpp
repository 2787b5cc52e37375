/*
 * KVOS against its baselines, side by side:
 *  - pointer queue, one producer and one consumer through 1024 entries:
 *    the KVOS queue, a bare queue of the same design (one mutex, two
 *    condition variables, no statistics, no registry) and a lock-free
 *    single-producer queue as the limit;
 *  - ping-pong round trips through two queues, KVOS and bare;
 *    as root, the queue benchmarks run twice: with the threads' default
 *    policy (rt:0) and with both threads under the round-robin real-time
 *    policy that KVOS tasks get (rt:1), the KVOS and the bare queues alike;
 *  - an uncontended KVOS_mutexLock + KVOS_mutexUnlock against a raw
 *    error-checking pthread mutex;
 *  - a task created, run and reaped against pthread_create + pthread_join,
 *    with the parts of a task's cost measured on their own.
 * Compare the ratios, not the absolute figures.
 */
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include <benchmark/benchmark.h>
#include <boost/lockfree/spsc_queue.hpp>

#include "abstraction/kvos.h"
#include "abstraction/kvos_mutex.h"
#include "abstraction/kvos_ptrq.h"
#include "abstraction/kvos_task.h"

namespace {

constexpr unsigned kQueueLength = 1024;
void* const kStop = reinterpret_cast<void*>(~static_cast<uintptr_t>(0));

const bool kRoot = geteuid() == 0;

/* The calling thread under the real-time policy of KVOS tasks for the
 * scope, when asked to and allowed to (root). Both queue threads use it,
 * so the KVOS and the bare queues meet the same scheduler. */
class RealTimeScope {
public:
    explicit RealTimeScope(bool wanted)
    {
        active_ = wanted && kRoot && pthread_getschedparam(pthread_self(), &policy_, &param_) == 0;
        if (active_) {
            struct sched_param rr = {};
            rr.sched_priority = 50;
            active_ = pthread_setschedparam(pthread_self(), SCHED_RR, &rr) == 0;
        }
    }
    ~RealTimeScope()
    {
        if (active_) {
            pthread_setschedparam(pthread_self(), policy_, &param_);
        }
    }
    RealTimeScope(const RealTimeScope&) = delete;
    RealTimeScope& operator=(const RealTimeScope&) = delete;

private:
    bool active_ = false;
    int policy_ = SCHED_OTHER;
    struct sched_param param_ = {};
};

/* rt:0 always; rt:1 (real-time threads) only where it can be had. */
void kvosArgs(benchmark::internal::Benchmark* b)
{
    b->ArgNames({"rt"});
    for (int rt = 0; rt <= (kRoot ? 1 : 0); ++rt) {
        b->Arg(rt);
    }
}

/* bare:0 compact fields, default mutex; bare:1 compact, the KVOS mutex
 * attributes; bare:2 the KVOS record's field order and mutex attributes. */
void bareArgs(benchmark::internal::Benchmark* b)
{
    b->ArgNames({"bare", "rt"});
    for (int rt = 0; rt <= (kRoot ? 1 : 0); ++rt) {
        for (int bare = 0; bare <= 2; ++bare) {
            b->Args({bare, rt});
        }
    }
}

/* Field orders of the baseline: compact (hot fields in one cache line) and
 * the KVOS record's order (size, then the two condition variables, then the
 * lock, then the indices: the hot fields spread over four lines). */
struct CompactFields {
    void** ring_;
    unsigned length_;
    unsigned size_ = 0, getIndex_ = 0, putIndex_ = 0, fullWaiters_ = 0, emptyWaiters_ = 0;
    pthread_mutex_t lock_;
    pthread_cond_t notFull_, notEmpty_;
};
struct KvosOrderFields {
    void* name_ = nullptr;
    void** ring_;
    unsigned length_;
    int clock_ = CLOCK_MONOTONIC;
    unsigned size_ = 0;
    pthread_cond_t notFull_, notEmpty_;
    pthread_mutex_t lock_;
    unsigned fullWaiters_ = 0, emptyWaiters_ = 0, getIndex_ = 0, putIndex_ = 0;
};

/* The baseline: the same ring and signalling, nothing else. */
template <typename Fields>
class BareQueue : private Fields {
    using Fields::ring_, Fields::length_, Fields::size_, Fields::getIndex_, Fields::putIndex_,
        Fields::fullWaiters_, Fields::emptyWaiters_, Fields::lock_, Fields::notFull_, Fields::notEmpty_;

public:
    /* sameLock: the KVOS queue's mutex attributes (error-checking, and
     * priority inheritance when root), which the design requires. */
    BareQueue(unsigned length, bool sameLock)
    {
        ring_ = new void*[length];
        length_ = length;
        pthread_mutexattr_t mattr;
        pthread_mutexattr_init(&mattr);
        if (sameLock) {
            pthread_mutexattr_settype(&mattr, PTHREAD_MUTEX_ERRORCHECK);
            if (kRoot) {
                pthread_mutexattr_setprotocol(&mattr, PTHREAD_PRIO_INHERIT);
            }
        }
        pthread_mutex_init(&lock_, &mattr);
        pthread_mutexattr_destroy(&mattr);
        pthread_condattr_t attr;
        pthread_condattr_init(&attr);
        pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
        pthread_cond_init(&notFull_, &attr);
        pthread_cond_init(&notEmpty_, &attr);
        pthread_condattr_destroy(&attr);
    }
    ~BareQueue()
    {
        pthread_cond_destroy(&notFull_);
        pthread_cond_destroy(&notEmpty_);
        pthread_mutex_destroy(&lock_);
        delete[] ring_;
    }
    void put(void* p)
    {
        pthread_mutex_lock(&lock_);
        while (size_ == length_) {
            ++fullWaiters_;
            pthread_cond_wait(&notFull_, &lock_);
            --fullWaiters_;
        }
        ring_[putIndex_] = p;
        ++size_;
        if (++putIndex_ == length_) {
            putIndex_ = 0;
        }
        if (emptyWaiters_) {
            pthread_cond_signal(&notEmpty_);
        }
        pthread_mutex_unlock(&lock_);
    }
    void* get()
    {
        pthread_mutex_lock(&lock_);
        while (size_ == 0) {
            ++emptyWaiters_;
            pthread_cond_wait(&notEmpty_, &lock_);
            --emptyWaiters_;
        }
        void* p = ring_[getIndex_];
        --size_;
        if (++getIndex_ == length_) {
            getIndex_ = 0;
        }
        if (fullWaiters_) {
            pthread_cond_signal(&notFull_);
        }
        pthread_mutex_unlock(&lock_);
        return p;
    }
};

template <typename Body>
void withBareQueue(benchmark::State& state, unsigned length, Body body)
{
    bool sameLock = state.range(0) != 0;
    if (state.range(0) == 2) {
        BareQueue<KvosOrderFields> a(length, sameLock), b(length, sameLock);
        body(a, b);
    } else {
        BareQueue<CompactFields> a(length, sameLock), b(length, sameLock);
        body(a, b);
    }
}

void kvosInit()
{
    static bool done = [] {
        char tmpl[] = "/tmp/kvos_bench.XXXXXX";
        kvos_set_path_map(KVOS_addPathMap(nullptr, PATH_TYPE_TMP, mkdtemp(tmpl)));
        KVOS_init();
        return true;
    }();
    (void)done;
}

void BM_Throughput_KvosPtrq(benchmark::State& state)
{
    bool rt = state.range(0) != 0;
    RealTimeScope policy(rt);
    KVOS_PTRQ_ID q = KVOS_ptrqCreate("BENCHQ", kQueueLength);
    std::thread consumer([q, rt] {
        RealTimeScope consumerPolicy(rt);
        void* p = nullptr;
        while (KVOS_ptrqPend(q, &p) == 1 && p != kStop) {
        }
    });
    uintptr_t n = 1;
    for (auto _ : state) {
        // The KVOS post never blocks, so a producer that must not lose
        // messages uses the queue's blocking put.
        ptrqueue_enqueue(q, reinterpret_cast<void*>(n++));
    }
    ptrqueue_enqueue(q, kStop);
    consumer.join();
    state.SetItemsProcessed(state.iterations());
    KVOS_ptrqDelete(q);
}
BENCHMARK(BM_Throughput_KvosPtrq)->Apply(kvosArgs)->UseRealTime();

void BM_Throughput_BareQueue(benchmark::State& state)
{
    bool rt = state.range(1) != 0;
    RealTimeScope policy(rt);
    withBareQueue(state, kQueueLength, [&state, rt](auto& q, auto&) {
        std::thread consumer([&q, rt] {
            RealTimeScope consumerPolicy(rt);
            while (q.get() != kStop) {
            }
        });
        uintptr_t n = 1;
        for (auto _ : state) {
            q.put(reinterpret_cast<void*>(n++));
        }
        q.put(kStop);
        consumer.join();
    });
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Throughput_BareQueue)->Apply(bareArgs)->UseRealTime();

void BM_Throughput_LockfreeSpsc(benchmark::State& state)
{
    boost::lockfree::spsc_queue<void*, boost::lockfree::capacity<kQueueLength>> q;
    std::thread consumer([&q] {
        void* p = nullptr;
        for (;;) {
            if (q.pop(p)) {
                if (p == kStop) {
                    return;
                }
            } else {
                sched_yield();
            }
        }
    });
    uintptr_t n = 1;
    for (auto _ : state) {
        while (!q.push(reinterpret_cast<void*>(n))) {
            sched_yield();
        }
        ++n;
    }
    while (!q.push(kStop)) {
        sched_yield();
    }
    consumer.join();
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Throughput_LockfreeSpsc)->UseRealTime();

void BM_PingPong_KvosPtrq(benchmark::State& state)
{
    bool rt = state.range(0) != 0;
    RealTimeScope policy(rt);
    KVOS_PTRQ_ID ping = KVOS_ptrqCreate("PINGQ", 4), pong = KVOS_ptrqCreate("PONGQ", 4);
    std::thread echo([ping, pong, rt] {
        RealTimeScope echoPolicy(rt);
        void* p = nullptr;
        while (KVOS_ptrqPend(ping, &p) == 1 && p != kStop) {
            KVOS_ptrqPost(pong, p);
        }
    });
    void* back = nullptr;
    for (auto _ : state) {
        KVOS_ptrqPost(ping, reinterpret_cast<void*>(1));
        KVOS_ptrqPend(pong, &back);
    }
    KVOS_ptrqPost(ping, kStop);
    echo.join();
    KVOS_ptrqDelete(ping);
    KVOS_ptrqDelete(pong);
}
BENCHMARK(BM_PingPong_KvosPtrq)->Apply(kvosArgs)->UseRealTime();

void BM_PingPong_BareQueue(benchmark::State& state)
{
    bool rt = state.range(1) != 0;
    RealTimeScope policy(rt);
    withBareQueue(state, 4, [&state, rt](auto& ping, auto& pong) {
        std::thread echo([&] {
            RealTimeScope echoPolicy(rt);
            void* p;
            while ((p = ping.get()) != kStop) {
                pong.put(p);
            }
        });
        for (auto _ : state) {
            ping.put(reinterpret_cast<void*>(1));
            benchmark::DoNotOptimize(pong.get());
        }
        ping.put(kStop);
        echo.join();
    });
}
BENCHMARK(BM_PingPong_BareQueue)->Apply(bareArgs)->UseRealTime();

void BM_Mutex_Kvos(benchmark::State& state)
{
    KVOS_MUTEX m;
    KVOS_mutexCreate(&m, "benchMutex");
    for (auto _ : state) {
        KVOS_mutexLock(&m);
        KVOS_mutexUnlock(&m);
    }
    KVOS_mutexDelete(&m);
}
BENCHMARK(BM_Mutex_Kvos);

/* Arg 0: error-checking; arg 1: also priority-inheriting when root, as
 * every KVOS mutex is then. */
void BM_Mutex_RawErrorCheck(benchmark::State& state)
{
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK);
    if (state.range(0) != 0 && geteuid() == 0) {
        pthread_mutexattr_setprotocol(&attr, PTHREAD_PRIO_INHERIT);
    }
    pthread_mutex_t m;
    pthread_mutex_init(&m, &attr);
    for (auto _ : state) {
        pthread_mutex_lock(&m);
        pthread_mutex_unlock(&m);
    }
    pthread_mutex_destroy(&m);
    pthread_mutexattr_destroy(&attr);
}
BENCHMARK(BM_Mutex_RawErrorCheck)->Arg(0)->Arg(1);

void emptyEntry(void*) {}

void* emptyThread(void*)
{
    return nullptr;
}

/* Seconds that n pthread create + join take, the baseline of a task. */
double pthreadCreateJoinSeconds(int64_t n)
{
    auto t0 = std::chrono::steady_clock::now();
    for (int64_t i = 0; i < n; ++i) {
        pthread_t t;
        pthread_create(&t, nullptr, emptyThread, nullptr);
        pthread_join(t, nullptr);
    }
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

/* A task created, run and reaped (joined by the reaper, unlisted, its
 * stacks released), one at a time; KVOS_taskJoin returns once it has been
 * reaped. Counter vs_pthread: the task rate over the rate of pthread create
 * + join measured right after, in the same process (higher is better). */
void BM_Task_KvosCreateRunReap(benchmark::State& state)
{
    kvosInit();
    KVOS_TASK_ATTR* attr = KVOS_taskAttrCreate();
    KVOS_taskAttrSetName(attr, "benchTask");
    KVOS_taskAttrSetPriority(attr, 120);
    auto t0 = std::chrono::steady_clock::now();
    for (auto _ : state) {
        KVOS_taskJoin(KVOS_taskCreate(emptyEntry, nullptr, attr));
    }
    double kvos = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    KVOS_taskAttrDestroy(attr);
    state.SetItemsProcessed(state.iterations());
    state.counters["vs_pthread"] = pthreadCreateJoinSeconds(state.iterations()) / kvos;
}
BENCHMARK(BM_Task_KvosCreateRunReap)->UseRealTime();

void BM_Task_PthreadCreateJoin(benchmark::State& state)
{
    for (auto _ : state) {
        pthread_t t;
        pthread_create(&t, nullptr, emptyThread, nullptr);
        pthread_join(t, nullptr);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Task_PthreadCreateJoin)->UseRealTime();

/* Where a task's time goes: its parts on their own. */
void BM_TaskPart_TaskStack16K(benchmark::State& state)
{
    for (auto _ : state) {
        deallocate_stack(allocate_stack(KVOS_TASK_MIN_STACK), KVOS_TASK_MIN_STACK);
    }
}
BENCHMARK(BM_TaskPart_TaskStack16K);

void BM_TaskPart_SignalStack1000K(benchmark::State& state)
{
    for (auto _ : state) {
        deallocate_stack(allocate_stack(KVOS_SIGNAL_STACK_SIZE), KVOS_SIGNAL_STACK_SIZE);
    }
}
BENCHMARK(BM_TaskPart_SignalStack1000K);

void BM_TaskPart_PthreadOnOwnStack(benchmark::State& state)
{
    void* stack = allocate_stack(KVOS_TASK_MIN_STACK);
    for (auto _ : state) {
        pthread_attr_t attr;
        pthread_attr_init(&attr);
        pthread_attr_setstack(&attr, stack, KVOS_TASK_MIN_STACK);
        pthread_t t;
        pthread_create(&t, &attr, emptyThread, nullptr);
        pthread_join(t, nullptr);
        pthread_attr_destroy(&attr);
    }
    deallocate_stack(stack, KVOS_TASK_MIN_STACK);
}
BENCHMARK(BM_TaskPart_PthreadOnOwnStack)->UseRealTime();

}  // namespace
