/*
 * Message buffers and their per-specie statistics.
 *
 * A buffer is one calloc'd block: header, then body. The statistics are
 * counters per allocating specie, changed only under
 * "fsmBuffersStatsMutex"; the over-allocation warning is written while the
 * mutex is held so that its Buffer-count is the count it warns about.
 */
#include <stdlib.h>
#include <string.h>

#include <iomanip>
#include <sstream>

#include "abstraction/kvos.h"
#include "abstraction/kvos_mutex.h"
#include "fsm_internal.h"

using namespace fsm_detail;

namespace {

FSM_SPECIE_BUFFER_STATS* fsmSpecieBufferStats = nullptr;
uint32_t noFsmSpecs = 0;
KVOS_MUTEX fsmBuffersStatsMutex{nullptr};

const FSMADDR kSystemAddr{NO_SPECIE, NO_IND};

FSM_SPECIE_BUFFER_STATS* statsFor(SPECIE specie)
{
    for (uint32_t i = 0; i < noFsmSpecs; ++i) {
        if (fsmSpecieBufferStats[i].allocatingSpecie == specie) {
            return &fsmSpecieBufferStats[i];
        }
    }
    KVLOG_ERROR(fsm_getDeveloperLogger(),
                kvp("Detail", "Unrecognised fsm specie") << kvp("Specie", fsm_getSpecName(specie)));
    return &fsmSpecieBufferStats[0];
}

void raise(uint32_t& peak, uint32_t value)
{
    peak = value > peak ? value : peak;
}

}  // namespace

const kvlog::LoggerPtr& getNormbufCleanupLogger(void)
{
    static const kvlog::LoggerPtr logger = kvlog::getDeveloperLogger("fsm.normbufcleanup");
    return logger;
}

void fsm_poolInit(const FSMSPECCONFIG* config)
{
    uint32_t n = 0;
    while (config != nullptr && config[n].Specie != NO_SPECIE) {
        ++n;
    }
    auto* stats = static_cast<FSM_SPECIE_BUFFER_STATS*>(calloc(n + 1, sizeof(FSM_SPECIE_BUFFER_STATS)));
    BOOST_ASSERT_MSG(stats != NULL, "stats != NULL");
    stats[0].allocatingSpecie = NO_SPECIE;
    for (uint32_t i = 1; i <= n; ++i) {
        stats[i].allocatingSpecie = config[i - 1].Specie;
    }
    free(fsmSpecieBufferStats);
    fsmSpecieBufferStats = stats;
    noFsmSpecs = n + 1;
    // One mutex for the life of the process, however often the system is
    // set up again.
    if (fsmBuffersStatsMutex.opaque_mutex == nullptr &&
        KVOS_mutexCreate(&fsmBuffersStatsMutex, "fsmBuffersStatsMutex") != 1) {
        fsmBuffersStatsMutex.opaque_mutex = nullptr;
        KVLOG_ERROR(fsm_getDeveloperLogger(), kvp("Detail", "Failed to create pool statistics mutex")
                                                  << kvp("Error", KVOS_lastError()));
    }
}

NORMBUF* heap_getBuf(const FSMADDR& allocator, const FSMADDR& dest, uint32_t size)
{
    auto* msgBuf = static_cast<NORMBUF*>(calloc(1, sizeof(NORMBUF) + size));
    BOOST_ASSERT_MSG(msgBuf != NULL, "msgBuf != NULL");
    msgBuf->headerStartMagic = FSM_BUF_MAGIC;
    msgBuf->MsgName = POOL_not_msg;
    msgBuf->Allocator = allocator;
    msgBuf->Source = kSystemAddr;
    msgBuf->Dest = dest;
    msgBuf->BodyLength = size;
    msgBuf->normbufCleanupCb = nullptr;
    msgBuf->pNext = nullptr;
    msgBuf->headerEndMagic = FSM_BUF_MAGIC;

    BOOST_ASSERT_MSG(fsmSpecieBufferStats != NULL, "fsm_poolInit before the first buffer");
    FSM_SPECIE_BUFFER_STATS* s = statsFor(allocator.Spec);
    KVOS_mutexLock(&fsmBuffersStatsMutex);
    s->currentBufferCount += 1;
    s->totalBufferCount += 1;
    raise(s->peakBufferCount, s->currentBufferCount);
    raise(s->peakBufferSize, size);
    s->currentBufferSizeTotal += size;
    raise(s->peakBufferSizeTotal, s->currentBufferSizeTotal);
    if (s->currentBufferCount % FSM_BUF_WARN_STEP == 0) {
        KVLOG_WARN(fsm_getDeveloperLogger(),
                   kvp("Detail", "Over-allocation of fsm buffers")
                       << kvp("Fsm-spec", fsm_getSpecName(s->allocatingSpecie)) << kvp("Max-buffer-count", 5000)
                       << kvp("Buffer-count", s->currentBufferCount) << bufFields(msgBuf));
    }
    KVOS_mutexUnlock(&fsmBuffersStatsMutex);
    return msgBuf;
}

NORMBUF* fsm_getBuf(PROC_DATA* proc, uint32_t size)
{
    BOOST_ASSERT_MSG(proc != NULL, "pProc != NULL");
    NORMBUF* buf = heap_getBuf(proc->ProcSELF, proc->ProcSELF, size);
    KVLOG_TRACE(fsm_getDeveloperLogger(),
                kvp("Detail", "Allocated fsm buffer") << procFields(proc) << bufFields(buf));
    return buf;
}

NORMBUF* sys_getBuf(const FSMADDR* dest, uint32_t size)
{
    BOOST_ASSERT_MSG(dest != NULL, "pAddr != NULL");
    NORMBUF* buf = heap_getBuf(kSystemAddr, *dest, size);
    KVLOG_TRACE(fsm_getDeveloperLogger(), kvp("Detail", "Allocated fsm buffer") << bufFields(buf));
    return buf;
}

void fsm_verifyBuffer(NORMBUF* buf)
{
    if (buf->headerStartMagic != FSM_BUF_MAGIC) {
        KVLOG_ERROR(fsm_getDeveloperLogger(), kvp("Detail", "Invalid fsm buffer")
                                                  << kvp("Reason", "Invalid header start magic cookie")
                                                  << bufFields(buf));
        BOOST_ASSERT_MSG(false, "Invalid fsm buffer. Corrupt header start magic");
    }
    if (buf->headerEndMagic != FSM_BUF_MAGIC) {
        KVLOG_ERROR(fsm_getDeveloperLogger(), kvp("Detail", "Invalid fsm buffer")
                                                  << kvp("Reason", "Invalid header end magic cookie")
                                                  << bufFields(buf));
        BOOST_ASSERT_MSG(false, "Invalid fsm buffer. Corrupt header end magic");
    }
}

void fsm_returnMsgBuf(PROC_DATA* proc, NORMBUF* buf)
{
    if (buf == nullptr) {
        return;
    }
    fsm_verifyBuffer(buf);
    const kvlog::LoggerPtr& logger = fsm_getDeveloperLogger();
    if (proc != nullptr) {
        KVLOG_TRACE(logger, kvp("Detail", "Deallocating fsm buffer") << procFields(proc) << bufFields(buf));
        // Deliberately the specie only: any individual of the destination
        // specie may release the buffer.
        if (buf->Dest.Spec != proc->ProcSELF.Spec) {
            KVLOG_ERROR(logger, kvp("Detail", "Failed to deallocate buffer. Buffer was not owned by this fsm")
                                    << procFields(proc) << bufFields(buf));
            return;
        }
        if (proc->pProcMsg == buf) {
            proc->pProcMsg = nullptr;
        }
    } else {
        KVLOG_TRACE(logger, kvp("Detail", "Deallocating fsm buffer") << bufFields(buf));
    }
    if (buf->normbufCleanupCb != nullptr) {
        KVLOG_TRACE(logger, kvp("Detail", "Normbuf cleanup function is set. Calling it.") << bufFields(buf));
        buf->normbufCleanupCb(buf);
    }
    FSM_SPECIE_BUFFER_STATS* s = statsFor(buf->Allocator.Spec);
    KVOS_mutexLock(&fsmBuffersStatsMutex);
    BOOST_ASSERT_MSG(s->currentBufferCount > 0, "pStats->currentBufferCount > 0");
    BOOST_ASSERT_MSG(s->currentBufferSizeTotal >= buf->BodyLength,
                     "pStats->currentBufferSizeTotal >= pBuffer->BodyLength");
    s->currentBufferCount -= 1;
    s->currentBufferSizeTotal -= buf->BodyLength;
    KVOS_mutexUnlock(&fsmBuffersStatsMutex);
    free(buf);
}

void fsm_logPoolStats(void)
{
    for (uint32_t i = 0; i < noFsmSpecs; ++i) {
        const FSM_SPECIE_BUFFER_STATS& s = fsmSpecieBufferStats[i];
        KVLOG_INFO(fsm_getDeveloperLogger(),
                   kvp("Detail", "Fsm buffer pool statistics")
                       << kvp("Fsm-spec", fsm_getSpecName(s.allocatingSpecie))
                       << kvp("Buffer-count", s.currentBufferCount) << kvp("Peak-buffer_count", s.peakBufferCount)
                       << kvp("Total-buffer-count", s.totalBufferCount)
                       << kvp("Buffers-size-total", s.currentBufferSizeTotal)
                       << kvp("Peak-buffers-size-total", s.peakBufferSizeTotal)
                       << kvp("Peak-buffer-size", s.peakBufferSize));
    }
}

std::ostream& fsm_streamPoolStats(std::ostream& os)
{
    auto line = [&os](const char* label, uint32_t value) {
        os << "  " << std::left << std::setw(25) << label << std::right << value << '\n';
    };
    for (uint32_t i = 0; i < noFsmSpecs; ++i) {
        const FSM_SPECIE_BUFFER_STATS& s = fsmSpecieBufferStats[i];
        os << "Fsm pool stats for fsm " << fsm_getSpecName(s.allocatingSpecie) << ":\n";
        line("Buffer-count:", s.currentBufferCount);
        line("Peak-buffer_count:", s.peakBufferCount);
        line("Total-buffer_count:", s.totalBufferCount);
        line("Buffers-size-total:", s.currentBufferSizeTotal);
        line("Peak-buffers-size-total:", s.peakBufferSizeTotal);
        line("Peak-buffer-size:", s.peakBufferSize);
    }
    return os;
}

bool fsm_getPoolStats(SPECIE specie, FSM_SPECIE_BUFFER_STATS* out)
{
    for (uint32_t i = 0; i < noFsmSpecs; ++i) {
        if (fsmSpecieBufferStats[i].allocatingSpecie == specie) {
            KVOS_mutexLock(&fsmBuffersStatsMutex);
            *out = fsmSpecieBufferStats[i];
            KVOS_mutexUnlock(&fsmBuffersStatsMutex);
            return true;
        }
    }
    return false;
}

uint32_t fsm_poolStatsCount(void)
{
    return noFsmSpecs;
}
