/*
 * The registry of pointer queues that the dump lists: a fixed table of
 * slots, filled by ptrqueue_create and cleared by ptrqueue_destroy.
 *
 * The slots are atomics: queues are created and destroyed at set-up and
 * tear-down, but a dump or a creation may still run on another thread, and
 * claiming a slot with a compare-and-swap keeps two creations from taking
 * the same one. Nothing here is on a queue's put or get path.
 */
#include <atomic>

#include "abstraction/kvos_ptrq.h"
#include "linux/kvos_os.h"

namespace {

std::atomic<ptrqueue_t*> sPtrqArray[KVOS_PTRQ_REGISTRY_SIZE];

}  // namespace

void kvos_ptrq_register(ptrqueue_t* q)
{
    for (auto& slot : sPtrqArray) {
        ptrqueue_t* expected = nullptr;
        if (slot.compare_exchange_strong(expected, q)) {
            return;
        }
    }
}

void kvos_ptrq_unregister(ptrqueue_t* q)
{
    for (auto& slot : sPtrqArray) {
        ptrqueue_t* expected = q;
        if (slot.compare_exchange_strong(expected, nullptr)) {
            return;
        }
    }
}

int kvos_ptrq_registry_slot(const ptrqueue_t* q)
{
    for (int i = 0; i < KVOS_PTRQ_REGISTRY_SIZE; ++i) {
        if (sPtrqArray[i].load() == q) {
            return i;
        }
    }
    return -1;
}

namespace kvos_os {

const ptrqueue_t* ptrqRegistered(int slot)
{
    return sPtrqArray[slot].load();
}

}  // namespace kvos_os
