/*
 * KVOS semaphores: result conventions, error recording and the semaphore
 * list. The system calls are in linux/semaphore.cpp.
 *
 * Wait, Post and Reset answer 1/0; TimedWait and TryWait answer KV_RET.
 * Both conventions are part of the interface (see the header).
 */
#include "abstraction/kvos_semaphore.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <list>
#include <mutex>

#include "abstraction/kvos.h"
#include "abstraction/kvos_mutex.h"
#include "linux/kvos_log.h"
#include "linux/kvos_os.h"

using kvos_os::SemRecord;

namespace {

struct SemList {
    KVOS_MUTEX lock{nullptr};
    std::list<KVOS_SEMAPHORE*> entries;
};

SemList& semList()
{
    static std::once_flag once;
    static SemList* list;
    std::call_once(once, [] {
        list = new SemList;
        KVOS_mutexCreate(&list->lock, "semListLock");
    });
    return *list;
}

[[noreturn]] void invalidSemaphore()
{
    KVLOG_ERROR(kvos_logger(), kvp("Detail", "Invalid semaphore"));
    abort();
}

/* The record of a usable handle; a deleted or never-created handle is a
 * programming fault. */
SemRecord* record(const KVOS_SEMAPHORE* s)
{
    if (s == nullptr || s->opaque_semaphore == nullptr) {
        invalidSemaphore();
    }
    return static_cast<SemRecord*>(s->opaque_semaphore);
}

/* Records err for KVOS_lastError; EINVAL from the system means the
 * semaphore itself is broken and is fatal. */
void recordError(int err)
{
    if (err == EINVAL) {
        invalidSemaphore();
    }
    KVOS_setErrno(err, KVOS_ERR_ORIGIN_LINUX);
}

}  // namespace

int KVOS_semaphoreCreate(KVOS_SEMAPHORE* s, const char* name, unsigned tokens)
{
    KVLOG_DEBUG(kvos_logger(), kvp("Detail", "Create semaphore") << kvp("Name", kvos_str(name))
                                                                 << kvp("Tokens", tokens));
    auto* rec = static_cast<SemRecord*>(calloc(1, sizeof(SemRecord)));
    s->opaque_semaphore = rec;
    int err = kvos_os::semInit(&rec->sem, tokens);
    if (err != 0) {
        // The record stays allocated and in the handle, as callers expect.
        KVOS_setErrno(err, KVOS_ERR_ORIGIN_LINUX);
        return 0;
    }
    if (name) {
        strncpy(rec->name, name, kvos_os::kSemNameMax - 1);
    }
    SemList& list = semList();
    KVOS_mutexLock(&list.lock);
    list.entries.push_back(s);
    KVOS_mutexUnlock(&list.lock);
    return 1;
}

int KVOS_semaphoreDelete(KVOS_SEMAPHORE* s)
{
    SemRecord* rec = record(s);
    if (kvos_os::semDestroy(&rec->sem) != 0) {
        KVLOG_ERROR(kvos_logger(), kvp("Detail", "Not a valid semaphore"));
        abort();
    }
    SemList& list = semList();
    KVOS_mutexLock(&list.lock);
    list.entries.remove(s);
    KVOS_mutexUnlock(&list.lock);
    free(rec);
    s->opaque_semaphore = nullptr;
    return 1;
}

int KVOS_semaphoreWait(KVOS_SEMAPHORE* s)
{
    int err = kvos_os::semWait(&record(s)->sem);
    if (err != 0) {
        recordError(err);
        return 0;
    }
    return 1;
}

KV_RET KVOS_semaphoreTimedWait(KVOS_SEMAPHORE* s, unsigned ms)
{
    int err = kvos_os::semTimedWait(&record(s)->sem, ms);
    if (err == 0) {
        return KV_RET_OK;
    }
    recordError(err);
    return err == ETIMEDOUT ? KV_RET_TIMEOUT : KV_RET_ERROR;
}

KV_RET KVOS_semaphoreTryWait(KVOS_SEMAPHORE* s)
{
    int err = kvos_os::semTryWait(&record(s)->sem);
    if (err == 0) {
        return KV_RET_OK;
    }
    recordError(err);
    return err == EAGAIN ? KV_RET_TIMEOUT : KV_RET_ERROR;
}

int KVOS_semaphorePost(KVOS_SEMAPHORE* s)
{
    int err = kvos_os::semPost(&record(s)->sem);
    if (err != 0) {
        recordError(err);
        return 0;
    }
    return 1;
}

int KVOS_semaphoreReset(KVOS_SEMAPHORE* s)
{
    SemRecord* rec = record(s);
    int err;
    while ((err = kvos_os::semTryWait(&rec->sem)) == 0) {
    }
    // Deliberately compared with ETIMEDOUT although a drained semaphore
    // answers EAGAIN: a successful reset returns 0 (see the header).
    if (err == ETIMEDOUT) {
        return 1;
    }
    recordError(err);
    return 0;
}

int KVOS_semaphoreShow(KVOS_SEMAPHORE* s)
{
    int value = 0;
    int err = kvos_os::semGetValue(&record(s)->sem, &value);
    if (err != 0) {
        recordError(err);
        return 0;
    }
    return value;
}

const char* KVOS_semaphoreGetName(KVOS_SEMAPHORE s)
{
    return record(&s)->name;
}

int KVOS_semaphoreCount(void)
{
    SemList& list = semList();
    KVOS_mutexLock(&list.lock);
    int n = static_cast<int>(list.entries.size());
    KVOS_mutexUnlock(&list.lock);
    return n;
}

int KVOS_semaphoreList(KVOS_SEMAPHORE* out, int max)
{
    SemList& list = semList();
    KVOS_mutexLock(&list.lock);
    int n = 0;
    for (auto it = list.entries.begin(); it != list.entries.end() && n < max; ++it) {
        out[n++] = **it;
    }
    KVOS_mutexUnlock(&list.lock);
    return n;
}
