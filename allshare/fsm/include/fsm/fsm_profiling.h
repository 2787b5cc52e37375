/**
 * @file
 * Profiling and trace words.
 *
 * Profiling: a per-message timing table held in GLOB_DATA.profiling. While
 * it is enabled, the task loop times every message handled (the processor
 * time of the handling thread by default) and adds the sample to the entry
 * of (message name, handling specie). The map is guarded by `lock` for
 * finding and inserting entries only; one key is updated by one task.
 *
 * The object lives in static storage (inside GLOB_DATA), so it is
 * constructed before any KVOS call may be made: it must not need KVOS at
 * construction.
 *
 * Trace words: the per-specie trace flags (GLOB_SPEC_D.testFlags) can be
 * kept across restarts in the binary parameter file "system.par" (magic
 * 0xBEEF, then one 16-bit word per present specie in iteration order). The
 * file is optional: when it cannot be opened both calls are quiet no-ops
 * for the rest of the process; every other file error is written to
 * standard error and leaves the word as it was.
 */
#ifndef FSM_FSM_PROFILING_H
#define FSM_FSM_PROFILING_H

#include <stdint.h>
#include <time.h>

#include <atomic>
#include <mutex>
#include <ostream>
#include <unordered_map>

#include "abstraction/kvos.h"
#include "abstraction/kvos_mutex.h"
#include "fsm/fsm_types.h"

#pragma GCC visibility push(default)

struct GLOB_DATA;

/** Returns the time to measure with. */
typedef struct timespec (*FSM_CLOCK_FUNC)(void);

typedef struct ProfilingData {
    ProfilingData* next;
    const char* name;       /**< borrowed */
    uint32_t num;           /**< updates */
    struct timespec min;    /**< a new entry starts at 10000 s */
    struct timespec max;
    struct timespec accum;
} ProfilingData;

/** The per-message timing table; the process's one is GLOB_DATA.profiling.
 * Construction and destruction are inline: the process record holds one by
 * value, and building or tearing it down needs only this type and KVOS, not
 * the table's code. */
class Profiling {
public:
    Profiling() : profiling(false), clockfn(KVOS_threadClock), lock{nullptr} {}
    ~Profiling()
    {
        if (lock.opaque_mutex != nullptr) {
            KVOS_mutexDelete(&lock);
        }
    }
    Profiling(const Profiling&) = delete;
    Profiling& operator=(const Profiling&) = delete;

    /** Turns timing on: the task loop adds a sample for every message it
     * handles from its next one on. Any thread; the flag is atomic. */
    void profiling_enable();
    /** Turns timing off; a sample already being taken is still added. Any
     * thread. */
    void profiling_disable();
    /** True while timing is on. One relaxed atomic load, cheap enough for
     * the task loop to ask once per message; any thread. */
    bool profiling_enabled() const;
    ///@{
    /** Replaces the clock (the default reads the calling thread's processor
     * time); the current clock's reading. */
    void profiling_setclockfn(FSM_CLOCK_FUNC fn);
    struct timespec profiling_clock() const;
    ///@}
    /** Empties the map. */
    void profiling_clear();
    /** Adds sample t to the entry of key (created with `name` if new). */
    void profiling_update(uint64_t key, const char* name, struct timespec t);
    /** The table; only the refusal line while profiling is enabled. */
    void profiling_show(std::ostream& os);

    std::atomic<bool> profiling;
    FSM_CLOCK_FUNC clockfn;
    KVOS_MUTEX lock;   /**< created on first use: construction precedes KVOS */
    std::unordered_map<uint64_t, ProfilingData> kv_map;

private:
    KVOS_MUTEX* mapLock();
    std::once_flag lockOnce_;
};

///@{
/** The same operations on the Profiling member of a GLOB_DATA. The key of
 * fsmprofiling_update is (first << 32) | second and the entry is named after
 * the message name `first`. */
void fsmprofiling_enable(GLOB_DATA* glob);
void fsmprofiling_disable(GLOB_DATA* glob);
bool fsmprofiling_enabled(GLOB_DATA* glob);
void fsmprofiling_clear(GLOB_DATA* glob);
void fsmprofiling_setclockfn(GLOB_DATA* glob, FSM_CLOCK_FUNC fn);
struct timespec fsmprofiling_clock(GLOB_DATA* glob);
void fsmprofiling_show(GLOB_DATA* glob, std::ostream& os);
void fsmprofiling_update(GLOB_DATA* glob, uint32_t first, uint32_t second, struct timespec t);
///@}

/** Reads the specie's trace word from "system.par" into *word; leaves it
 * unchanged when the file is unavailable or the read fails. */
void fsm_readTraceWord(SPECIE specie, uint16_t* word);
/** Writes the specie's trace word to "system.par". */
void fsm_saveTraceWord(SPECIE specie, uint16_t word);

#pragma GCC visibility pop
#endif
