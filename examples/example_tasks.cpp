// First lesson in the OS abstraction: start it, run a producer and a consumer
// task that meet at a bounded pointer queue, wait for both, and shut down.
//
// Every task runs on its own guarded stack; the reaper thread releases it
// when the task returns, so a creator never has to join (KVOS_taskJoin only
// waits for the end). A queue carries pointers, not copies: the receiver owns
// what it takes out.
//
//   build/bin/example_tasks; echo "status: $?"
#include "abstraction/kvos.h"
#include "abstraction/kvos_ptrq.h"
#include "abstraction/kvos_task.h"

#include <cstdio>

namespace {

constexpr int kMessages = 1000;
constexpr int kStop = -1;

struct Work {
    KVOS_PTRQ_ID queue;
    long sum = 0;
    int received = 0;
};

void producer(void* arg)
{
    auto* work = static_cast<Work*>(arg);
    for (int i = 1; i <= kMessages + 1; ++i) {
        int* item = new int(i <= kMessages ? i : kStop);
        while (KVOS_ptrqPost(work->queue, item) != 1) {
            KVOS_msleep(1);
        }
    }
}

void consumer(void* arg)
{
    auto* work = static_cast<Work*>(arg);
    for (;;) {
        void* p = nullptr;
        if (!KV_RET_IS_OK(KVOS_ptrqPendTimeout(work->queue, &p, 2000))) {
            std::printf("consumer: nothing arrived for 2 s\n");
            return;
        }
        const int value = *static_cast<int*>(p);
        delete static_cast<int*>(p);
        if (value == kStop) {
            return;
        }
        work->sum += value;
        ++work->received;
    }
}

KVOS_TASK_ID start(const char* name, KVOS_TASK_ENTRY entry, Work* work)
{
    KVOS_TASK_ATTR* attr = KVOS_taskAttrCreate();
    KVOS_taskAttrSetName(attr, name);
    KVOS_taskAttrSetStackSize(attr, 64 * 1024); // a multiple of 1024
    KVOS_TASK_ID tid = KVOS_taskCreate(entry, work, attr);
    KVOS_taskAttrDestroy(attr);
    return tid;
}

} // namespace

int main()
{
    KVOS_init(); // the reaper and the D-Bus dispatcher start here

    Work work;
    work.queue = KVOS_ptrqCreate("exampleQ", 16);
    KVOS_TASK_ID c = start("consumer", consumer, &work);
    KVOS_TASK_ID p = start("producer", producer, &work);
    const bool ended = KVOS_taskJoin(p) && KVOS_taskJoin(c);
    KVOS_ptrqDelete(work.queue);

    std::printf("received %d messages, sum %ld\n", work.received, work.sum);
    KVOS_cleanup();

    const long expected = static_cast<long>(kMessages) * (kMessages + 1) / 2;
    return ended && work.received == kMessages && work.sum == expected ? 0 : 1;
}
