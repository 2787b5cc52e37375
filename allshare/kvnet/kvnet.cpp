/*
 * The port-range registry.
 *
 * Locking: every read and write of a record happens while holding
 * portRangeSem, except the search for a free record when registering. That
 * search runs unlocked so that a full registry is reported without waiting;
 * it reads only the `used` marks, which are atomic, and the chosen record is
 * checked again under the semaphore (another registration may have taken it
 * meanwhile, in which case the search starts over).
 */
#include "kvnet/kvnet.h"

#include <stdio.h>
#include <string.h>

#include <atomic>

#include "abstraction/kvos_semaphore.h"
#include "libkvc/strutil.h"

namespace {

struct PortRange {
    int low;
    int high;
    char id[KVNET_PORT_RANGE_ID_LEN];  // empty: the record is free
};

PortRange gRanges[KVNET_PORT_RANGE_SLOTS];
std::atomic<bool> gUsed[KVNET_PORT_RANGE_SLOTS];
KVOS_SEMAPHORE portRangeSem;

int firstFree()
{
    for (int i = 0; i < KVNET_PORT_RANGE_SLOTS; ++i) {
        if (!gUsed[i].load(std::memory_order_acquire)) {
            return i;
        }
    }
    return -1;
}

}  // namespace

void KVNET_portRangeInit(void)
{
    if (portRangeSem.opaque_semaphore != nullptr) {
        KVOS_semaphoreDelete(&portRangeSem);
    }
    if (KVOS_semaphoreCreate(&portRangeSem, "PortRange semaphore", 1) != 1) {
        fputs("KVNET_portRangeInit(): Failed to create semaphore\n", stderr);
    }
    for (int i = 0; i < KVNET_PORT_RANGE_SLOTS; ++i) {
        gRanges[i].id[0] = '\0';
        gUsed[i].store(false, std::memory_order_release);
    }
}

int KVNET_portRangeRegister(const char* id, int low, int high)
{
    if (id == nullptr || id[0] == '\0') {
        fputs("KVNET_portRangeRegister(): id required\n", stderr);
        return 0;
    }
    for (;;) {
        int slot = firstFree();
        if (slot < 0) {
            fputs("KVNET_portRangeRegister(): No ranges available\n", stderr);
            return 0;
        }
        if (KVOS_semaphoreWait(&portRangeSem) != 1) {
            fputs("KVNET_portRangeRegister(): Failed to obtain semaphore\n", stderr);
            return 0;
        }
        PortRange& r = gRanges[slot];
        if (r.id[0] != '\0') {
            // Taken between the search and the lock: look again.
            KVOS_semaphorePost(&portRangeSem);
            continue;
        }
        kvclib_strcpy(r.id, id, sizeof r.id);
        r.low = low;
        r.high = high;
        gUsed[slot].store(true, std::memory_order_release);
        KVOS_semaphorePost(&portRangeSem);
        return 1;
    }
}

int KVNET_portRangeLookup(const char* id, int* low, int* high)
{
    if (id == nullptr || id[0] == '\0') {
        fputs("KVNET_portRangeRegister(): id required\n", stderr);
        return 0;
    }
    if (KVOS_semaphoreWait(&portRangeSem) != 1) {
        fputs("KVNET_portRangeLookup(): Failed to obtain semaphore\n", stderr);
        return 0;
    }
    int found = 0;
    for (const PortRange& r : gRanges) {
        if (r.id[0] != '\0' && strcmp(r.id, id) == 0) {
            *low = r.low;
            *high = r.high;
            found = 1;
            break;
        }
    }
    KVOS_semaphorePost(&portRangeSem);
    return found;
}

int KVNET_portIsRegistered(int port)
{
    if (KVOS_semaphoreWait(&portRangeSem) != 1) {
        fputs("KVNET_portRangeLookup(): Failed to obtain semaphore\n", stderr);
        return 0;
    }
    int found = 0;
    for (const PortRange& r : gRanges) {
        if (r.id[0] != '\0' && r.low <= port && port <= r.high) {
            found = 1;
            break;
        }
    }
    KVOS_semaphorePost(&portRangeSem);
    return found;
}
