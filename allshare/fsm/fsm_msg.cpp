/*
 * Sending, receiving, saving and keeping messages.
 *
 * Ownership of a buffer passes: allocator -> sender -> queue (the task's
 * internal list or a pointer queue) -> receiving task (pProcMsg with
 * returnBufToPool set) -> one of: released by the framework after the job;
 * forwarded by a send; kept by the machine; saved in the individual's save
 * queue. Internal lists and save queues belong to one task and are touched
 * only by it; pointer queues are the only meeting point between tasks.
 *
 * Save queues are offered again whenever a job moves an individual to a
 * different state: the whole queue is put in front of the task's internal
 * list, so the saved messages come back in the order they were saved and
 * before anything else the task has waiting. Whatever the new state saves
 * again is appended to the (now empty) save queue in that same order.
 */
#include <sstream>

#include "abstraction/kvos.h"
#include "fsm/fsm_profiling_seams.h"
#include "fsm_internal.h"

using namespace fsm_detail;

namespace {

constexpr unsigned kSaveQueueMax = 32;
constexpr unsigned kSlowMessageMs = 1999;

NORMBUF** saveQueueHead(void* indData)
{
    return static_cast<NORMBUF**>(indData);
}

/* The sending machine's queue; none for a context that runs no specie. */
KVOS_PTRQ_ID queueOf(SPECIE s)
{
    return fsm_verifySpec(s) ? fsm_getGlobalSpecieDesc(s)->RtosQid : KVOS_NO_PTRQ_ID;
}

struct FarFields {
    MSGNAME msg;
    const FSMADDR& src;
    const FSMADDR& dest;
};

FarFields farFields(MSGNAME msg, const FSMADDR& src, const FSMADDR& dest)
{
    return FarFields{msg, src, dest};
}

std::ostream& operator<<(std::ostream& os, const FarFields& f)
{
    return os << kvp("Msg-name", safeMsgName(f.msg)) << kvp("Src-fsm-addr", f.src) << kvp("Dst-fsm-addr", f.dest);
}

/* The part of decoding shared by every machine type: fills the context from
 * the message; null (logged) when the message cannot be handled here. */
GLOB_SPEC_D* decodeStart(PROC_DATA* proc)
{
    NORMBUF* msg = proc->pProcMsg;
    proc->ProcMsgName = msg->MsgName;
    proc->ProcSELF = msg->Dest;
    proc->ProcSENDER = msg->Source;
    GLOB_SPEC_D* d = fsm_getGlobalSpecieDesc(proc->ProcSELF.Spec);
    if (d->pSpecDesc == nullptr) {
        KVLOG_ERROR(fsm_getDeveloperLogger(),
                    kvp("Detail", "Failed to decode fsm message. Destination specie was not in this process msg")
                        << procFields(proc) << bufFields(msg));
        return nullptr;
    }
    proc->specDesc = d->pSpecDesc;
    proc->procTestFlags = 0;
    if (d->traceInd == 0 || static_cast<IND_NO>(d->traceInd - 1) == proc->ProcSELF.Ind) {
        proc->procTestFlags = d->testFlags;
    }
    proc->ProcState = NO_STATE;
    proc->ProcTask = NO_TASK;
    proc->bProcSaveMsg = false;
    proc->pProcSpecData = d->specieData;
    // The tables are sized by the individual count: an address that was
    // never verified must not index them.
    if (proc->ProcSELF.Ind > d->HighInd) {
        KVLOG_ERROR(fsm_getDeveloperLogger(), kvp("Detail", "Failed to decode fsm message. Individ number is too high")
                                                  << kvp("Max-ind", d->HighInd) << procFields(proc)
                                                  << bufFields(msg));
        return nullptr;
    }
    return d;
}

void logSaving(PROC_DATA* proc)
{
    KVLOG_DEBUG(fsm_getDeveloperLogger(),
                kvp("Detail", "Saving fsm message buffer") << procFields(proc) << bufFields(proc->pProcMsg));
}

/* Offers an individual's saved messages again, ahead of the internal list. */
void redeliverSaved(PROC_DATA* proc, GLOB_SPEC_D* d, IND_NO ind)
{
    void* data = d->indInfoArray != nullptr ? d->indInfoArray[ind].pIndData : nullptr;
    if (data == nullptr || *saveQueueHead(data) == nullptr) {
        return;
    }
    NORMBUF* head = *saveQueueHead(data);
    *saveQueueHead(data) = nullptr;
    NORMBUF* tail = head;
    while (tail->pNext != nullptr) {
        tail = tail->pNext;
    }
    tail->pNext = proc->pProcIntMsg;
    if (proc->pProcIntMsg == nullptr) {
        proc->pProcLastIntMsg = tail;
    }
    proc->pProcIntMsg = head;
}

/* Stores the state a job chose and offers the saved messages again when it
 * differs from the state the message was handled in. */
void enterNextState(PROC_DATA* proc, GLOB_SPEC_D* d, IND_NO ind, STATE before)
{
    if (d->stateArray != nullptr) {
        d->stateArray[ind] = proc->ProcNxtState;
    }
    if (proc->ProcNxtState != before) {
        redeliverSaved(proc, d, ind);
    }
}

/* sys_decodeRecMsg, handing back the specie's record when a job is to run. */
GLOB_SPEC_D* decodeStandard(PROC_DATA* proc)
{
    GLOB_SPEC_D* d = decodeStart(proc);
    if (d == nullptr) {
        return nullptr;
    }
    if (d->pSpecDesc->fsmType != FSM_TYPE_STANDARD) {
        KVLOG_ERROR(fsm_getDeveloperLogger(), kvp("Detail", "Failed to decode fsm message. Unknown fsm type")
                                                  << kvp("Fsm-type", static_cast<int>(d->pSpecDesc->fsmType))
                                                  << procFields(proc));
        BOOST_ASSERT_MSG(false, "Invalid fsm type");
    }
    switch (lookupStandard(proc, d)) {
    case LookupResult::Handle:
        return d;
    case LookupResult::Save:
        logSaving(proc);
        sys_saveMsg(proc);
        return nullptr;
    case LookupResult::Reject:
        break;
    }
    return nullptr;
}

void sys_handle_message_sfsm(PROC_DATA* proc)
{
    GLOB_SPEC_D* d = decodeStandard(proc);
    if (d == nullptr) {
        return;
    }
    const IND_NO ind = proc->ProcSELF.Ind;
    const STATE before = proc->ProcState;
    if (proc->specDesc->pTaskProc != nullptr) {
        proc->specDesc->pTaskProc(proc);
    } else {
        KVLOG_ERROR(fsm_getDeveloperLogger(), kvp("Detail", "Failed to run fsm job. Specie has no task procedure")
                                                  << procFields(proc));
    }
    enterNextState(proc, d, ind, before);
}

/* Trivial machines: the job of the current state's record runs; a job that
 * wants the message later sets bProcSaveMsg. */
void sys_handle_message_tfsm(PROC_DATA* proc)
{
    GLOB_SPEC_D* d = decodeStart(proc);
    if (d == nullptr) {
        return;
    }
    const SPEC_DESC* sd = d->pSpecDesc;
    const IND_NO ind = proc->ProcSELF.Ind;
    const STATE s = d->stateArray != nullptr ? d->stateArray[ind] : 0;
    proc->ProcState = s;
    if (s > sd->HighState || sd->pStateNames == nullptr || sd->pStateNames[s].pJob == nullptr) {
        KVLOG_ERROR(fsm_getDeveloperLogger(), kvp("Detail", "Failed to decode fsm message. Fsm is in illegal state")
                                                  << procFields(proc) << bufFields(proc->pProcMsg));
        return;
    }
    proc->pProcIndData = d->indInfoArray != nullptr ? d->indInfoArray[ind].pIndData : nullptr;
    proc->ProcNxtState = s;
    sd->pStateNames[s].pJob(proc);
    if (proc->bProcSaveMsg) {
        logSaving(proc);
        sys_saveMsg(proc);
    }
    enterNextState(proc, d, ind, s);
}

}  // namespace

void fsm_sendMsg(PROC_DATA* proc, MSGNAME msg, FSMADDR dest, NORMBUF* buf)
{
    fsm_sendMsgWithPriority(proc, msg, dest, buf, dest == proc->ProcSELF);
}

void fsm_sendMsgWithPriority(PROC_DATA* proc, MSGNAME msg, FSMADDR dest, NORMBUF* buf, bool priority)
{
    if (buf == nullptr) {
        buf = fsm_getBuf(proc, 0);
    }
    const kvlog::LoggerPtr& logger = fsm_getDeveloperLogger();
    if (buf->Dest.Spec != proc->ProcSELF.Spec) {
        KVLOG_ERROR(logger, kvp("Detail", "Sending fsm message buffer that someone else has manipulated")
                                << procFields(proc) << bufFields(buf));
    }
    buf->Source = proc->ProcSELF;
    if (buf == proc->pProcIntMsg) {
        KVLOG_ERROR(logger, kvp("Detail", "Sending fsm message that has already been sent as an internal message")
                                << procFields(proc) << bufFields(buf));
    }
    fsm_verifyBuffer(buf);
    if (fsm_verifySpec(proc->ProcSELF.Spec)) {
        const kvlog::LoggerPtr& specLogger = *fsm_getGlobalSpecieDesc(proc->ProcSELF.Spec)->specieLogger;
        if (kvlog::isTraceEnabled(specLogger)) {
            KVLOG_TRACE(specLogger, kvp("Detail", "Sending fsm message")
                                        << procFields(proc) << kvp("Msg-name", safeMsgName(msg))
                                        << kvp("Dst-fsm-addr", dest) << bufFields(buf));
        }
    }
    if (!fsm_verifyAddr(&dest)) {
        KVLOG_ERROR(logger, kvp("Detail", "Failed to send fsm message. Invalid destination address")
                                << procFields(proc) << farFields(msg, proc->ProcSELF, dest) << bufFields(buf));
        return;
    }
    KVOS_PTRQ_ID own = queueOf(proc->ProcSELF.Spec);
    if (own != KVOS_NO_PTRQ_ID && own == fsm_getGlobalSpecieDesc(dest.Spec)->RtosQid) {
        buf->pNext = nullptr;
        buf->MsgName = msg;
        buf->Dest = dest;
        fsm_verifyBuffer(buf);
        if (proc->pProcIntMsg == nullptr) {
            proc->pProcIntMsg = proc->pProcLastIntMsg = buf;
        } else if (priority) {
            buf->pNext = proc->pProcIntMsg;
            proc->pProcIntMsg = buf;
        } else {
            proc->pProcLastIntMsg->pNext = buf;
            proc->pProcLastIntMsg = buf;
        }
    } else {
        sys_sendFarMsg(msg, dest, proc->ProcSELF, buf);
    }
    // Forwarding the message being handled: it is in flight now, so the
    // framework must not release it after the job.
    if (buf == proc->pProcMsg) {
        if (!proc->returnBufToPool) {
            KVLOG_ERROR(logger, kvp("Detail", "Input buffer + sent twice, or after call to keepMsgBuf")
                                    << procFields(proc));
        }
        proc->returnBufToPool = false;
        proc->pProcMsg = nullptr;
    }
}

void sys_sendFarMsg(MSGNAME msg, FSMADDR dest, FSMADDR src, NORMBUF* buf)
{
    const kvlog::LoggerPtr& logger = fsm_getDeveloperLogger();
    if (!fsm_verifyAddr(&dest)) {
        KVLOG_ERROR(logger, kvp("Detail", "Failed to send fsm message. Invalid destination address")
                                << farFields(msg, src, dest));
        return;
    }
    if (buf == nullptr) {
        buf = sys_getBuf(&dest, 0);
    }
    buf->MsgName = msg;
    buf->Dest = dest;
    buf->Source = src;
    fsm_verifyBuffer(buf);
    KVOS_PTRQ_ID q = fsm_getGlobalSpecieDesc(dest.Spec)->RtosQid;
    if (q == KVOS_NO_PTRQ_ID) {
        KVLOG_ERROR(logger, kvp("Detail", "Failed to send fsm message. No queue for destination specie")
                                << farFields(msg, src, dest));
        fsm_returnMsgBuf(nullptr, buf);
        return;
    }
    if (KVOS_ptrqPost(q, buf) == 1) {
        return;
    }
    // A full queue means the system is overloaded beyond recovery.
    KVLOG_ERROR(logger, kvp("Detail", "Failed to send fsm message. Post failure on queue")
                            << farFields(msg, src, dest) << kvp("Last-error", KVOS_lastError()));
    fsm_returnMsgBuf(nullptr, buf);
    fsm_logPoolStats();
    fsm_dumpAllProc();
    sys_fatalError();
}

void fsm_keepMsgBuf(PROC_DATA* proc, NORMBUF* buf)
{
    const kvlog::LoggerPtr& logger = fsm_getDeveloperLogger();
    KVLOG_DEBUG(logger, kvp("Detail", "Keeping fsm message buffer") << procFields(proc) << bufFields(buf));
    if (!proc->returnBufToPool) {
        KVLOG_ERROR(logger, kvp("Detail", "Failed to keep fsm message buffer. Buffer already sent or keepMsgBuf "
                                          "called twice")
                                << procFields(proc) << bufFields(buf));
    } else if (buf != proc->pProcMsg) {
        KVLOG_ERROR(logger, kvp("Detail", "Failed to keep fsm message buffer. Fsm message is not the message "
                                          "currently being processed by the fsm system")
                                << procFields(proc) << bufFields(buf));
    } else {
        proc->returnBufToPool = false;
    }
}

bool sys_decodeRecMsg(PROC_DATA* proc)
{
    return decodeStandard(proc) != nullptr;
}

void sys_saveMsg(PROC_DATA* proc)
{
    const kvlog::LoggerPtr& logger = fsm_getDeveloperLogger();
    if (!proc->returnBufToPool) {
        KVLOG_ERROR(logger, kvp("Detail", "Failed to save fsm message buffer. Buffer already sent or message marked "
                                          "as keep")
                                << procFields(proc));
        return;
    }
    NORMBUF* buf = proc->pProcMsg;
    if (proc->pProcIndData == nullptr) {
        // No data, no save queue: the framework releases the message.
        KVLOG_ERROR(logger, kvp("Detail", "Failed to save fsm message buffer. Individual has no data")
                                << procFields(proc) << bufFields(buf));
        return;
    }
    buf->pNext = nullptr;
    proc->returnBufToPool = false;
    NORMBUF** head = saveQueueHead(proc->pProcIndData);
    if (*head == nullptr) {
        *head = buf;
        return;
    }
    unsigned behind = 0;
    NORMBUF* tail = *head;
    for (; tail->pNext != nullptr; tail = tail->pNext) {
        ++behind;
    }
    if (behind > kSaveQueueMax - 2) {
        KVLOG_ERROR(logger, kvp("Detail", "Failed to save fsm message buffer. Save queue too long")
                                << kvp("Queue-length", behind + 1) << procFields(proc) << bufFields(buf));
        fsm_returnMsgBuf(proc, buf);
        return;
    }
    tail->pNext = buf;
}

unsigned fsm_saveQueueLength(const void* indData)
{
    unsigned n = 0;
    for (const NORMBUF* b = indData != nullptr ? *static_cast<NORMBUF* const*>(indData) : nullptr; b != nullptr;
         b = b->pNext) {
        ++n;
    }
    return n;
}

/* Profiling can be compiled out of message handling altogether. */
#ifndef FSM_PROFILING_BUILT
#define FSM_PROFILING_BUILT 1
#endif

namespace {

template <bool kProfiled>
void interpretMsg(PROC_DATA* proc, NORMBUF* buf)
{
    GLOB_DATA* glob = sys_getGlob();
    proc->ProcRecType = ' ';
    proc->pProcMsg = buf;
    // The end of one message is the start of the next internal one: the
    // clock is read once per message handled in a row.
    bool haveStart = false;
    unsigned start = 0;
    for (;;) {
        NORMBUF* msg = proc->pProcMsg;
        if (msg != nullptr) {
            fsm_verifyBuffer(msg);
            if (!haveStart) {
                start = KVOS_ticksCurrent();
            }
            const SPECIE specie = msg->Dest.Spec;
            const MSGNAME name = msg->MsgName;
            const GLOB_SPEC_D* d = fsm_getGlobalSpecieDesc(specie);
            proc->returnBufToPool = true;

            // Profiling: one sample per message handled, keyed by message
            // name and handling specie, taken around the handler only.
            const bool profile = kProfiled && fsmprofiling_enabled(glob);
            const struct timespec t0 = profile ? fsmprofiling_clock(glob) : timespec{0, 0};

            const FsmType type = d->pSpecDesc != nullptr ? d->pSpecDesc->fsmType : FSM_TYPE_STANDARD;
            switch (type) {
            case FSM_TYPE_STANDARD:
                sys_handle_message_sfsm(proc);
                break;
            case FSM_TYPE_TRIVIAL:
                sys_handle_message_tfsm(proc);
                break;
            case FSM_TYPE_REMOTE:
            default:
                KVLOG_ERROR(fsm_getDeveloperLogger(),
                            kvp("Detail", "Invalid fsm type") << kvp("Fsm-type", static_cast<int>(type)));
                BOOST_ASSERT_MSG(false, "Invalid fsm type");
            }

            if (profile) {
                struct timespec t1 = fsmprofiling_clock(glob);
                struct timespec dt{t1.tv_sec - t0.tv_sec, t1.tv_nsec - t0.tv_nsec};
                if (dt.tv_nsec < 0) {
                    dt.tv_sec -= 1;
                    dt.tv_nsec += 1000000000L;
                }
                fsmprofiling_update(glob, name, specie, dt);
            }
            const unsigned end = KVOS_ticksCurrent();
            const unsigned ms = KVOS_ticksDiff(start, end) * 10;
            start = end;
            haveStart = true;
            if (ms > kSlowMessageMs) {
                std::ostringstream detail;
                detail << "Took " << ms / 1000 << " secs to process FSM message ";
                KVLOG_ERROR(fsm_getDeveloperLogger(), kvp("Detail", detail.str()) << procFields(proc));
            }
            if (proc->returnBufToPool) {
                fsm_returnMsgBuf(proc, proc->pProcMsg);
            }
        }
        NORMBUF* next = proc->pProcIntMsg;
        if (next == nullptr) {
            return;
        }
        proc->pProcIntMsg = next->pNext;
        if (proc->pProcIntMsg == nullptr) {
            proc->pProcLastIntMsg = nullptr;
        }
        next->pNext = nullptr;
        proc->ProcRecType = 'I';
        proc->pProcMsg = next;
    }
}

}  // namespace

void sys_interpretMsg(PROC_DATA* proc, NORMBUF* buf)
{
    interpretMsg<FSM_PROFILING_BUILT != 0>(proc, buf);
}

void fsm_interpretMsgUnprofiled(PROC_DATA* proc, NORMBUF* buf)
{
    interpretMsg<false>(proc, buf);
}
