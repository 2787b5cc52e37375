/*
 * The KVOS layer over pointer queues, and the dump of the queues in the
 * registry (the registry itself is kept by the Linux half, which fills it
 * as queues are created and destroyed).
 */
#include <stdarg.h>
#include <stdio.h>

#include "abstraction/kvos_ptrq.h"
#include "linux/kvos_log.h"
#include "linux/kvos_os.h"

namespace {

inline uint32_t statLoad(const uint32_t& field)
{
    return __atomic_load_n(&field, __ATOMIC_RELAXED);
}

void emit(KVOS_PTRQ_OUT_FUNC out, int arg, const char* fmt, ...) __attribute__((format(printf, 3, 4)));

void emit(KVOS_PTRQ_OUT_FUNC out, int arg, const char* fmt, ...)
{
    char line[100];
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(line, sizeof(line), fmt, ap);
    va_end(ap);
    if (n < 0) {
        return;
    }
    out(arg, line, static_cast<unsigned>(n < static_cast<int>(sizeof(line)) ? n : sizeof(line) - 1));
}

}  // namespace

void ptrqueue_dump(KVOS_PTRQ_OUT_FUNC out, int arg)
{
    emit(out, arg, "%-12s%-10s%-10s%-10s%-10s%-10s\n", "Name", "Max", "Curr", "Tot", "QFull", "Watermark");
    for (int slot = 0; slot < KVOS_PTRQ_REGISTRY_SIZE; ++slot) {
        const ptrqueue_t* q = kvos_os::ptrqRegistered(slot);
        if (q == nullptr) {
            continue;
        }
        emit(out, arg, "%-12s%-10d%-10d%-10d%-10d%-10d\n", q->name ? q->name : "(null)",
             static_cast<int>(q->length), static_cast<int>(statLoad(q->size)),
             static_cast<int>(statLoad(q->numberInserted)), static_cast<int>(statLoad(q->timesFull)),
             static_cast<int>(statLoad(q->watermark)));
    }
}

KVOS_PTRQ_ID KVOS_ptrqCreate(const char* name, unsigned length)
{
    KVLOG_DEBUG(kvos_logger(), kvp("Detail", "Create ptrqueue") << kvp("Name", kvos_str(name))
                                                                << kvp("Length", length));
    return ptrqueue_create(name, static_cast<int>(length));
}

void KVOS_ptrqDelete(KVOS_PTRQ_ID q)
{
    ptrqueue_destroy(q);
}

int KVOS_ptrqPost(KVOS_PTRQ_ID q, void* p)
{
    return ptrqueue_try_enqueue(q, p);
}

int KVOS_ptrqPend(KVOS_PTRQ_ID q, void** p)
{
    return ptrqueue_dequeue(q, p);
}

KV_RET KVOS_ptrqPendTimeout(KVOS_PTRQ_ID q, void** p, int ms)
{
    switch (ptrqueue_timed_dequeue(q, p, ms)) {
    case 0:
        return KV_RET_OK;
    case -1:
        return KV_RET_TIMEOUT;
    default:
        return KV_RET_ERROR;
    }
}

int KVOS_ptrqCheck(KVOS_PTRQ_ID q, void** p)
{
    return ptrqueue_try_dequeue(q, p);
}

void KVOS_ptrqDump(KVOS_PTRQ_OUT_FUNC out, int arg)
{
    ptrqueue_dump(out, arg);
}
