/**
 * @file
 * Message buffers.
 *
 * Every message travels in a NORMBUF: one zero-filled heap block holding
 * the header below and, right behind it, BodyLength bytes of body. Both
 * header cookies are FSM_BUF_MAGIC in a valid buffer; a buffer whose cookie
 * was overwritten ends the process on its next verification.
 *
 * The "pool" is a set of counters per allocating specie, not a store of
 * blocks: record 0 counts buffers allocated on behalf of no specie (and of
 * species that are not configured), records 1..n the configured species in
 * configuration order. Every counter change happens under the mutex
 * "fsmBuffersStatsMutex"; the reports read without it.
 *
 * Ownership: a buffer is released exactly once, by its receiver (the
 * framework after the job, or the machine after fsm_keepMsgBuf), by the
 * system after a failed send, or by the set-up's clean-up paths. Release
 * through a running machine is refused unless the buffer's destination is
 * of the machine's own specie (the individual is deliberately not checked).
 */
#ifndef FSM_FSM_BUF_H
#define FSM_FSM_BUF_H

#include <stdint.h>

#include <ostream>

#include "fsm/fsm_types.h"
#include "kvlog/kvlog.h"

#pragma GCC visibility push(default)

#define FSM_BUF_MAGIC 0x4D736700u /**< "Msg\0" */
/** Every 5000th live buffer of one specie logs a warning; never a limit. */
#define FSM_BUF_WARN_STEP 5000u

/** Run just before the block of a buffer is freed; the header is intact. */
typedef void (*NORMBUF_CLEANUP_FUNC)(NORMBUF* buf);

typedef struct NORMBUF_ {
    uint32_t headerStartMagic;
    MSGNAME MsgName;          /**< POOL_not_msg until sent */
    FSMADDR Allocator;        /**< decides which statistics record counts it */
    FSMADDR Source;           /**< all ones until a send fills it */
    FSMADDR Dest;             /**< receiver, and owner for the release check */
    uint32_t BodyLength;
    NORMBUF_CLEANUP_FUNC normbufCleanupCb;
    NORMBUF* pNext;           /**< internal and save queues */
    uint32_t headerEndMagic;
} NORMBUF;

///@{
/** The body of a buffer: BodyLength bytes right behind the header. Only
 * computes the address (no verification, no lock), so any task may call it;
 * the pointer is part of the buffer's block and dies with it when the buffer
 * is released. */
inline uint8_t* fsm_msgBody(NORMBUF* buf)
{
    return reinterpret_cast<uint8_t*>(buf + 1);
}
inline const uint8_t* fsm_msgBody(const NORMBUF* buf)
{
    return reinterpret_cast<const uint8_t*>(buf + 1);
}
///@}

typedef struct _FSM_SPECIE_BUFFER_STATS {
    SPECIE allocatingSpecie;
    uint32_t currentBufferCount;
    uint32_t peakBufferCount;
    uint32_t totalBufferCount;     /**< allocations ever */
    uint32_t currentBufferSizeTotal;
    uint32_t peakBufferSizeTotal;
    uint32_t peakBufferSize;
} FSM_SPECIE_BUFFER_STATS;

/** Builds the statistics (record 0 the catch-all, then one record per entry
 * of `config` up to its NO_SPECIE terminator; a null config gives record 0
 * only) and creates the mutex on first use. Called by sys_initFSMSystem;
 * a new call replaces the previous statistics. */
void fsm_poolInit(const FSMSPECCONFIG* config);

/** Allocation on behalf of the running machine: allocator and destination
 * are proc->ProcSELF. Asserts "pProc != NULL"; out of memory asserts
 * "msgBuf != NULL". Never returns null. */
NORMBUF* fsm_getBuf(PROC_DATA* proc, uint32_t size);
/** Allocation on behalf of the system: allocator {NO_SPECIE, NO_IND},
 * destination *dest. Asserts "pAddr != NULL". */
NORMBUF* sys_getBuf(const FSMADDR* dest, uint32_t size);
/** The common allocation behind both. */
NORMBUF* heap_getBuf(const FSMADDR& allocator, const FSMADDR& dest, uint32_t size);

/** Releases a buffer; null is ignored, proc may be null (release by the
 * system). A buffer not owned by proc's specie is logged and left alive.
 * Runs the clean-up call-back, then counts the buffer back (asserting that
 * the counters do not underflow) and frees it. */
void fsm_returnMsgBuf(PROC_DATA* proc, NORMBUF* buf);

/** Returns only if both cookies hold; otherwise logs and fails the assertion
 * "Invalid fsm buffer. Corrupt header start magic" (or "... end magic"). */
void fsm_verifyBuffer(NORMBUF* buf);

/** One info line per statistics record. */
void fsm_logPoolStats(void);
/** The statistics report, every record in order (record 0 as NO_SPECIE). */
std::ostream& fsm_streamPoolStats(std::ostream& os);

/** A copy, taken under the mutex, of the statistics record of `specie`
 * (record 0 for NO_SPECIE); false, and *out untouched, when there is none.
 * Safe while traffic runs. */
bool fsm_getPoolStats(SPECIE specie, FSM_SPECIE_BUFFER_STATS* out);
/** The number of statistics records. */
uint32_t fsm_poolStatsCount(void);

/** The developer logger "fsm.normbufcleanup", for clean-up call-backs. */
const kvlog::LoggerPtr& getNormbufCleanupLogger(void);

#pragma GCC visibility pop
#endif
