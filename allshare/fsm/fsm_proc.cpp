/*
 * FSM tasks: set-up with the reset handshake, the task main loop, the
 * tasks' contexts and shutdown.
 *
 * Handshake: every task is created blocked on its own start queue
 * ("taskQ"). The set-up posts one token to each start queue (run the reset
 * jobs), collects one token per task on "masterQ" (reset done), and posts
 * to the start queues again (start operation). So no task reads its message
 * queue before every task has finished resetting, and messages that reset
 * jobs send to other tasks wait in those tasks' queues.
 *
 * Shutdown: a control token (the address of a private object, never a
 * buffer) is posted behind the messages on each task's queue; the task
 * leaves its loop when it reads it, acknowledges on "masterQ" and returns,
 * and the reaper joins it. Everything still queued or saved is then
 * released through the pool, so the statistics show what was leaked.
 */
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

#include "abstraction/kvos.h"
#include "fsm_internal.h"

using namespace fsm_detail;

namespace {

struct StartRecord {
    PROC_DATA* proc;
    KVOS_PTRQ_ID masterQ;
    KVOS_PTRQ_ID startQ;
    KVOS_PTRQ_ID msgQ;
};

char sRunToken;   // posted on start queues and "masterQ"
char sStopToken;  // ends a task's main loop

KVOS_PTRQ_ID sMasterQ = KVOS_NO_PTRQ_ID;
std::vector<KVOS_PTRQ_ID> sStartQueues;  // one per task entry, null if none

PROC_DATA sDummyProcData;

/* Waits for a task to be listed (or to leave the list) without hanging on a
 * reaper message that was lost to a full reaper queue. */
constexpr unsigned kListWaitMs = 10000;

void clearProcData(PROC_DATA* p)
{
    memset(p, 0, sizeof(*p));
    p->ProcSELF = FSMADDR{NO_SPECIE, NO_IND};
    p->ProcSENDER = FSMADDR{NO_SPECIE, NO_IND};
    p->ProcTask = NO_TASK;
    p->ProcNxtState = NO_STATE;
    p->ProcState = NO_STATE;
    p->ProcMsgName = NO_MSGNAME;
}

void pendAny(KVOS_PTRQ_ID q, void** item)
{
    while (KVOS_ptrqPend(q, item) != 1) {
        KVLOG_ERROR(fsm_getDeveloperLogger(), kvp("Detail", "Error processing fsm start queue")
                                                  << kvp("Last-error", KVOS_lastError()));
        KVOS_msleep(1);
    }
}

void postAlways(KVOS_PTRQ_ID q, void* item)
{
    while (KVOS_ptrqPost(q, item) != 1) {
        KVOS_msleep(1);
    }
}

void fsm_checkModules(const FSMSPECCONFIG* specs)
{
    for (const FSMSPECCONFIG* s = specs; s != nullptr && s->Specie != NO_SPECIE; ++s) {
        if (!fsm_verifySpec(s->Specie)) {
            char id[16];
            snprintf(id, sizeof(id), "0x%08x", s->Specie);
            KVLOG_ERROR(fsm_getDeveloperLogger(),
                        kvp("Detail", "Failed to verify specie. Specie is not allocated") << kvp("Spec", id));
        }
    }
}

void sys_allocIndInfo(GLOB_SPEC_D* d, IND_COUNT count)
{
    d->indInfoArray = static_cast<IND_INFO*>(calloc(count, sizeof(IND_INFO)));
    if (d->indInfoArray == nullptr) {
        KVLOG_ERROR(fsm_getDeveloperLogger(), kvp("Detail", "Failed to allocate memory for fsm routing table"));
        abort();
    }
}

void sys_allocStateArray(GLOB_SPEC_D* d, IND_COUNT count)
{
    d->stateArray = static_cast<STATE*>(calloc(count, sizeof(STATE)));
    if (d->stateArray == nullptr) {
        KVLOG_ERROR(fsm_getDeveloperLogger(), kvp("Detail", "Failed to allocate memory for fsm state array"));
        abort();
    }
}

/* Binds one specie to a task. Trivial machines keep their state in the same
 * state array as standard ones. */
void sys_regSpec(PROC_DATA* proc, const FSMSPECCONFIG& entry, KVOS_PTRQ_ID msgQ)
{
    if (!fsm_verifySpec(entry.Specie)) {
        return;  // reported by fsm_checkModules
    }
    const kvlog::LoggerPtr& logger = fsm_getDeveloperLogger();
    GLOB_SPEC_D* d = fsm_getGlobalSpecieDesc(entry.Specie);
    if (d->pSpecDesc != nullptr) {
        KVLOG_ERROR(logger, kvp("Detail", "Failed to register fsm specie. Specie id is already registered")
                                << kvp("Spec", fsm_getSpecName(entry.Specie)) << procFields(proc));
        return;
    }
    if (entry.pSpecDesc == nullptr || entry.iIndCount == 0) {
        KVLOG_ERROR(logger, kvp("Detail", "Failed to register fsm specie. No description or no individuals")
                                << kvp("Spec", fsm_getSpecName(entry.Specie)) << procFields(proc));
        return;
    }
    d->pSpecDesc = entry.pSpecDesc;
    d->RtosQid = msgQ;
    d->HighInd = entry.iIndCount - 1;
    sys_allocIndInfo(d, entry.iIndCount);
    if (entry.pSpecDesc->fsmType == FSM_TYPE_STANDARD || entry.pSpecDesc->fsmType == FSM_TYPE_TRIVIAL) {
        sys_allocStateArray(d, entry.iIndCount);
    }
}

/* Runs the reset job of every individual of every specie of this task. */
void sys_resetFSMSpecies(PROC_DATA* proc, KVOS_PTRQ_ID msgQ)
{
    const kvlog::LoggerPtr& logger = fsm_getDeveloperLogger();
    for (SPECIE s = fsm_firstSpec(); s != NO_SPECIE; s = fsm_nextSpec(s)) {
        GLOB_SPEC_D* d = fsm_getGlobalSpecieDesc(s);
        if (d->RtosQid != msgQ) {
            continue;
        }
        proc->ProcSELF.Spec = s;
        proc->returnBufToPool = false;
        proc->pProcSpecData = d->specieData;
        proc->specDesc = d->pSpecDesc;
        proc->procTestFlags = d->testFlags;
        fsm_readTraceWord(s, &proc->procTestFlags);
        for (IND_NO ind = 0; ind <= d->HighInd; ++ind) {
            proc->ProcSELF.Ind = ind;
            proc->ProcSENDER = FSMADDR{NO_SPECIE, NO_IND};
            proc->pProcMsg = nullptr;
            proc->ProcTask = NO_TASK;
            proc->ProcState = NO_STATE;
            proc->ProcMsgName = NO_MSGNAME;
            proc->ProcNxtState = 0;
            proc->pProcIndData = nullptr;
            if (d->pSpecDesc->pResetTask == nullptr) {
                continue;
            }
            KVLOG_DEBUG(logger, kvp("Detail", "Starting resetTask") << procFields(proc));
            d->pSpecDesc->pResetTask(proc);
            d->indInfoArray[ind].pIndData = proc->pProcIndData;
            if (d->specieData == nullptr) {
                d->specieData = proc->pProcSpecData;
            }
            if (d->stateArray != nullptr) {
                d->stateArray[ind] = proc->ProcNxtState;
            }
            KVLOG_DEBUG(logger, kvp("Detail", "Completed resetTask") << procFields(proc));
        }
    }
}

bool waitListed(KVOS_TASK_ID tid, bool listed)
{
    for (unsigned waited = 0; kvos_taskIsListed(tid) != listed; ++waited) {
        if (waited >= kListWaitMs) {
            return false;
        }
        KVOS_msleep(1);
    }
    return true;
}

}  // namespace

void fsm_task_main(void* startRecord)
{
    auto* record = static_cast<StartRecord*>(startRecord);
    const StartRecord start = *record;
    delete record;
    PROC_DATA* proc = start.proc;
    if (KVOS_isInited()) {
        pthread_setspecific(static_cast<pthread_key_t>(KVOS_getProcdataKey()), proc);
    }

    void* token = nullptr;
    pendAny(start.startQ, &token);
    sys_resetFSMSpecies(proc, start.msgQ);
    postAlways(start.masterQ, &sRunToken);
    pendAny(start.startQ, &token);
    sys_interpretMsg(proc, nullptr);

    void* item = nullptr;
    for (;;) {
        if (KVOS_ptrqPend(start.msgQ, &item) == 1) {
            if (item == &sStopToken) {
                break;
            }
        } else {
            KVLOG_ERROR(fsm_getDeveloperLogger(), kvp("Detail", "Error processing main fsm message queue")
                                                      << procFields(proc) << kvp("Last-error", KVOS_lastError()));
        }
        // After a failed read `item` still holds the previous message: it is
        // interpreted again. Kept as it is; a blocking read fails only when
        // the queue itself is broken.
        sys_interpretMsg(proc, static_cast<NORMBUF*>(item));
    }
    if (KVOS_isInited()) {
        pthread_setspecific(static_cast<pthread_key_t>(KVOS_getProcdataKey()), nullptr);
    }
    postAlways(start.masterQ, &sStopToken);
}

void fsm_procSetup(FSMPROCCONFIG* procs, size_t numTasks, FSMSPECCONFIG* specs)
{
    GLOB_DATA* glob = sys_getGlob();
    const kvlog::LoggerPtr& logger = fsm_getDeveloperLogger();
    sMasterQ = KVOS_ptrqCreate("masterQ", 100);
    BOOST_ASSERT_MSG(sMasterQ != KVOS_NO_PTRQ_ID, "masterQ != NULL");

    KVLOG_INFO(logger, kvp("Detail", "Initialize data structures"));
    glob->numberOfFsmTasks = numTasks;
    glob->fsmTasks = static_cast<GLOB_PROC_D*>(calloc(numTasks > 0 ? numTasks : 1, sizeof(GLOB_PROC_D)));
    BOOST_ASSERT_MSG(glob->fsmTasks != NULL, "fsmTasks != NULL");
    for (size_t i = 0; i < numTasks; ++i) {
        glob->fsmTasks[i].RtosTid = KVOS_NO_TASK_ID;
        glob->fsmTasks[i].RtosQid = KVOS_NO_PTRQ_ID;
        clearProcData(&glob->fsmTasks[i].procData);
    }
    fsm_checkModules(specs);

    KVLOG_INFO(logger, kvp("Detail", "Create all FSM tasks") << kvp("numTasks", numTasks));
    sStartQueues.assign(numTasks, KVOS_NO_PTRQ_ID);
    std::vector<size_t> running;
    for (size_t i = 0; i < numTasks; ++i) {
        const FSMPROCCONFIG& cfg = procs[i];
        GLOB_PROC_D& task = glob->fsmTasks[i];
        KVOS_PTRQ_ID startQ = KVOS_ptrqCreate("taskQ", 5);
        KVOS_PTRQ_ID msgQ =
            cfg.queueLength > 0 ? KVOS_ptrqCreate(cfg.queueName, static_cast<unsigned>(cfg.queueLength))
                                : KVOS_NO_PTRQ_ID;
        KVOS_TASK_ID tid = KVOS_NO_TASK_ID;
        if (startQ != KVOS_NO_PTRQ_ID && msgQ != KVOS_NO_PTRQ_ID) {
            KVOS_TASK_ATTR* attr = cfg.taskAttr;
            if (attr == nullptr) {
                attr = KVOS_taskAttrCreate();
                KVOS_taskAttrSetName(attr, cfg.queueName != nullptr ? cfg.queueName : "fsmTask");
                // Jobs log and format: the KVOS minimum of 16 KiB is too
                // tight for them.
                KVOS_taskAttrSetStackSize(attr, FSM_TASK_DEFAULT_STACK);
            }
            auto* record = new StartRecord{&task.procData, sMasterQ, startQ, msgQ};
            tid = KVOS_taskCreate(fsm_task_main, record, attr);
            if (attr != cfg.taskAttr) {
                KVOS_taskAttrDestroy(attr);
            }
            if (tid == KVOS_NO_TASK_ID) {
                delete record;
            }
        }
        if (tid == KVOS_NO_TASK_ID) {
            // Its species stay without a queue: sends to them are refused
            // and released instead of piling up where nobody reads.
            KVLOG_ERROR(logger, kvp("Detail", "Unable to create FSM task")
                                    << kvp("Fsm-task-id", cfg.fsmTaskId)
                                    << kvp("Queue", cfg.queueName != nullptr ? cfg.queueName : "(null)")
                                    << kvp("Last-error", KVOS_lastError()));
            if (startQ != KVOS_NO_PTRQ_ID) {
                KVOS_ptrqDelete(startQ);
            }
            if (msgQ != KVOS_NO_PTRQ_ID) {
                KVOS_ptrqDelete(msgQ);
            }
            continue;
        }
        task.RtosTid = tid;
        task.RtosQid = msgQ;
        sStartQueues[i] = startQ;
        running.push_back(i);
        for (const FSMSPECCONFIG* s = specs; s != nullptr && s->Specie != NO_SPECIE; ++s) {
            if (s->fsmTaskId == cfg.fsmTaskId) {
                sys_regSpec(&task.procData, *s, msgQ);
            }
        }
    }
    glob->msg_queues_ready = 1;

    KVLOG_DEBUG(logger, kvp("Detail", "Signal tasks to run resetTask"));
    for (size_t i : running) {
        postAlways(sStartQueues[i], &sRunToken);
    }
    KVLOG_DEBUG(logger, kvp("Detail", "wait for resetTask(s) to finish"));
    for (size_t n = 0; n < running.size(); ++n) {
        void* token = nullptr;
        pendAny(sMasterQ, &token);
    }
    KVLOG_DEBUG(logger, kvp("Detail", "Signal tasks that operation can start"));
    for (size_t i : running) {
        postAlways(sStartQueues[i], &sRunToken);
    }
    // Each task has run, so the reaper has its start message: once it is
    // listed, shutdown can tell when it has been joined.
    for (size_t i : running) {
        waitListed(glob->fsmTasks[i].RtosTid, true);
    }
}

void fsm_procShutdown(void)
{
    GLOB_DATA* glob = sys_getGlob();
    const kvlog::LoggerPtr& logger = fsm_getDeveloperLogger();
    sys_stopTickSource();

    size_t live = 0;
    for (size_t i = 0; i < glob->numberOfFsmTasks; ++i) {
        if (glob->fsmTasks[i].RtosTid != KVOS_NO_TASK_ID) {
            postAlways(glob->fsmTasks[i].RtosQid, &sStopToken);
            ++live;
        }
    }
    for (size_t n = 0; n < live; ++n) {
        void* token = nullptr;
        pendAny(sMasterQ, &token);
    }
    for (size_t i = 0; i < glob->numberOfFsmTasks; ++i) {
        GLOB_PROC_D& task = glob->fsmTasks[i];
        if (task.RtosTid != KVOS_NO_TASK_ID && !waitListed(task.RtosTid, false)) {
            KVLOG_ERROR(logger, kvp("Detail", "FSM task still listed after shutdown") << kvp("Task", i));
        }
        if (task.RtosQid != KVOS_NO_PTRQ_ID) {
            void* item = nullptr;
            while (KVOS_ptrqCheck(task.RtosQid, &item) == 1) {
                if (item != &sStopToken) {
                    fsm_returnMsgBuf(nullptr, static_cast<NORMBUF*>(item));
                }
            }
            KVOS_ptrqDelete(task.RtosQid);
        }
        if (i < sStartQueues.size() && sStartQueues[i] != KVOS_NO_PTRQ_ID) {
            KVOS_ptrqDelete(sStartQueues[i]);
        }
        // A task leaves its loop with an empty internal list, but a task
        // whose loop never ran may still hold what its reset jobs sent.
        releaseChain(task.procData.pProcIntMsg);
    }
    sStartQueues.clear();

    for (FSMMOD_SPEC_D& mod : glob->aGlobModSpecDesc) {
        for (uint32_t i = 0; mod.pModSpecies != nullptr && i < mod.iSpecCount; ++i) {
            GLOB_SPEC_D& d = mod.pModSpecies[i];
            if (d.pSpecDesc != nullptr && d.indInfoArray != nullptr) {
                for (IND_NO ind = 0; ind <= d.HighInd; ++ind) {
                    if (void* data = d.indInfoArray[ind].pIndData) {
                        releaseChain(*static_cast<NORMBUF**>(data));
                        *static_cast<NORMBUF**>(data) = nullptr;
                    }
                }
            }
            free(d.indInfoArray);
            free(d.stateArray);
            d.indInfoArray = nullptr;
            d.stateArray = nullptr;
            d.pSpecDesc = nullptr;
            d.RtosQid = KVOS_NO_PTRQ_ID;
            d.HighInd = 0;
            d.specieData = nullptr;
        }
    }
    free(glob->fsmTasks);
    glob->fsmTasks = nullptr;
    glob->numberOfFsmTasks = 0;
    glob->msg_queues_ready = 0;
    if (sMasterQ != KVOS_NO_PTRQ_ID) {
        KVOS_ptrqDelete(sMasterQ);
        sMasterQ = KVOS_NO_PTRQ_ID;
    }
    if (glob->Time != nullptr) {
        timerSystemDelete(glob->Time->timerSystem);
        delete glob->Time;
        glob->Time = nullptr;
    }
    KVLOG_INFO(logger, kvp("Detail", "FSM tasks stopped") << kvp("numTasks", live));
}

PROC_DATA* fsm_getProcDataFromTID(KVOS_TASK_ID tid)
{
    GLOB_DATA* glob = sys_getGlob();
    for (size_t i = 0; i < glob->numberOfFsmTasks; ++i) {
        if (glob->fsmTasks[i].RtosTid != KVOS_NO_TASK_ID && pthread_equal(glob->fsmTasks[i].RtosTid, tid)) {
            return &glob->fsmTasks[i].procData;
        }
    }
    return nullptr;
}

PROC_DATA* fsm_getProcData(void)
{
    return fsm_getProcDataFromTID(KVOS_taskID());
}

PROC_DATA* fsm_getDummyProcData(void)
{
    clearProcData(&sDummyProcData);
    return &sDummyProcData;
}

namespace fsm_detail {

void releaseChain(NORMBUF* head)
{
    while (head != nullptr) {
        NORMBUF* next = head->pNext;
        head->pNext = nullptr;
        fsm_returnMsgBuf(nullptr, head);
        head = next;
    }
}

}  // namespace fsm_detail
