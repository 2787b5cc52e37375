/*
 * KVOS mutexes: statistics, the mutex list and its dump, the quick lock.
 *
 * The list holds the callers' handle pointers in creation order. Its lock,
 * "mutexListLock", is itself a KVOS mutex and the list's first entry, so
 * the additions counter starts at 1 and the dump always shows that lock as
 * "locked" (the dump holds it while it formats). Misuse of any mutex is fatal: it is logged
 * and the process aborts, because a broken lock discipline cannot be
 * recovered from at run time.
 */
#include "abstraction/kvos_mutex.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <list>
#include <mutex>
#include <string>
#include <vector>

#include "linux/kvos_log.h"
#include "linux/kvos_os.h"

using kvos_os::MutexRecord;

namespace {

struct MutexList {
    KVOS_MUTEX lock{nullptr};
    std::list<KVOS_MUTEX*> entries;
    size_t additions = 0;
    size_t removals = 0;
};

MutexList* gList;
std::once_flag gListOnce;

[[noreturn]] void mutexFatal(int err)
{
    KVLOG_ERROR(kvos_logger(), kvp("Detail", "Mutex error") << kvp("Error", kvos_os::errorText(err))
                                                            << kvp("ErrorNum", err));
    abort();
}

MutexRecord* record(const KVOS_MUTEX* m)
{
    return static_cast<MutexRecord*>(m->opaque_mutex);
}

void createRecord(KVOS_MUTEX* m, const char* name, bool recursive)
{
    auto* rec = static_cast<MutexRecord*>(calloc(1, sizeof(MutexRecord)));
    if (name) {
        strncpy(rec->name, name, sizeof(rec->name) - 1);
    }
    int err = kvos_os::mutexInit(&rec->sys, recursive);
    if (err != 0) {
        mutexFatal(err);
    }
    m->opaque_mutex = rec;
}

MutexList& mutexList()
{
    std::call_once(gListOnce, [] {
        auto* list = new MutexList;
        createRecord(&list->lock, "mutexListLock", false);
        list->entries.push_back(&list->lock);
        list->additions = 1;
        gList = list;
    });
    return *gList;
}

int createListed(KVOS_MUTEX* m, const char* name, bool recursive)
{
    MutexList& list = mutexList();
    createRecord(m, name, recursive);
    KVOS_mutexLock(&list.lock);
    list.entries.push_back(m);
    ++list.additions;
    KVOS_mutexUnlock(&list.lock);
    return 1;
}

}  // namespace

int KVOS_mutexCreate(KVOS_MUTEX* m, const char* name)
{
    return createListed(m, name, false);
}

int kvos_recursiveMutexCreate(KVOS_MUTEX* m, const char* name)
{
    return createListed(m, name, true);
}

int KVOS_mutexDelete(KVOS_MUTEX* m)
{
    MutexList& list = mutexList();
    KVOS_mutexLock(&list.lock);
    list.entries.remove(m);
    ++list.removals;  // counted even when the handle was not listed
    KVOS_mutexUnlock(&list.lock);

    MutexRecord* rec = record(m);
    int err = kvos_os::mutexDestroy(&rec->sys);
    if (err != 0) {
        mutexFatal(err);
    }
    free(rec);
    m->opaque_mutex = nullptr;
    return 1;
}

void KVOS_mutexLock(KVOS_MUTEX* m)
{
    MutexRecord* rec = record(m);
    int err = kvos_os::mutexTryLock(&rec->sys);
    if (err == EBUSY) {
        err = kvos_os::mutexLock(&rec->sys);
        if (err != 0) {
            mutexFatal(err);
        }
        rec->count(rec->blocked);
    } else if (err != 0) {
        mutexFatal(err);
    }
    rec->count(rec->taken);
}

void KVOS_mutexUnlock(KVOS_MUTEX* m)
{
    int err = kvos_os::mutexUnlock(&record(m)->sys);
    if (err != 0) {
        mutexFatal(err);
    }
}

int kvos_init_mutex(pthread_mutex_t* m)
{
    int err = kvos_os::mutexInit(m, false);
    if (err != 0) {
        mutexFatal(err);
    }
    return 1;
}

const char* KVOS_mutexGetName(const KVOS_MUTEX* m)
{
    return record(m)->name;
}

uint32_t KVOS_mutexTaken(const KVOS_MUTEX* m)
{
    return record(m)->taken.load(std::memory_order_relaxed);
}

uint32_t KVOS_mutexBlocked(const KVOS_MUTEX* m)
{
    return record(m)->blocked.load(std::memory_order_relaxed);
}

int KVOS_mutexCount(void)
{
    MutexList& list = mutexList();
    KVOS_mutexLock(&list.lock);
    int n = static_cast<int>(list.entries.size());
    KVOS_mutexUnlock(&list.lock);
    return n;
}

void KVOS_mutexDump(KVOS_MUTEX_OUT_FUNC out, int arg)
{
    static const char kHeader[] =
        "Mutex                Address    Status     #Taken  #Blocked\n"
        "-----------------------------------------------------------\n";
    static_assert(sizeof(kHeader) - 1 == 120, "the dump header is 120 characters");
    out(arg, kHeader, 120);

    // The lines are formatted under the list lock and written after it is
    // released: the output function may itself use mutexes.
    std::vector<std::string> lines;
    MutexList& list = mutexList();
    KVOS_mutexLock(&list.lock);
    lines.reserve(list.entries.size());
    for (KVOS_MUTEX* m : list.entries) {
        MutexRecord* rec = record(m);
        const char* status = "locked";
        if (m != &list.lock && kvos_os::mutexTryLock(&rec->sys) == 0) {
            kvos_os::mutexUnlock(&rec->sys);
            status = "unlocked";
        }
        char line[80];
        int n = snprintf(line, sizeof(line), "%-20s %p %8s %8u  %8u\n", rec->name,
                         static_cast<void*>(rec), status, rec->taken.load(std::memory_order_relaxed),
                         rec->blocked.load(std::memory_order_relaxed));
        lines.emplace_back(line, n < static_cast<int>(sizeof(line)) ? n : sizeof(line) - 1);
    }
    size_t size = list.entries.size();
    size_t additions = list.additions;
    size_t removals = list.removals;
    KVOS_mutexUnlock(&list.lock);

    for (const std::string& line : lines) {
        out(arg, line.data(), static_cast<unsigned>(line.size()));
    }
    char info[100];
    int n = snprintf(info, sizeof(info), "List info: size %zu, additions %zu, removals %zu\n", size,
                     additions, removals);
    out(arg, info, static_cast<unsigned>(n < static_cast<int>(sizeof(info)) ? n : sizeof(info) - 1));
}

/* The quick lock. */
namespace {
KVOS_MUTEX gQuickLock{nullptr};
std::once_flag gQuickOnce;
}  // namespace

int KVOS_lockQuick(void)
{
    std::call_once(gQuickOnce, [] { kvos_recursiveMutexCreate(&gQuickLock, "globalLock"); });
    KVOS_mutexLock(&gQuickLock);
    return 0;
}

void KVOS_unlockQuick(int /*key*/)
{
    KVOS_mutexUnlock(&gQuickLock);
}
