/**
 * @file
 * The process's table of species, the static name tables and the lookups
 * between numbers and names.
 *
 * GLOB_DATA is one static instance per process, built by
 * sys_initFSMSystem before any FSM task exists and only read afterwards
 * (apart from the fields that task set-up and tracing write), so readers
 * take no lock.
 *
 * Name tables: aFSMSpcNames (specie names) and aFSMMsgNames (message
 * names), each a list of FSMMOD_NAME ended by an entry whose eModule is
 * NO_FSMMOD. The framework supplies the lists of FSMMOD_FSMSTUFF and
 * FSMMOD_GLOBAL; the list of FSMMOD_NONFSM is the product's catalogue of
 * machines and is installed with fsm_setProductSpecieNames before
 * sys_initFSMSystem. Without it module FSMMOD_NONFSM has no species, and
 * since a specie table holding only module 0 is deliberately treated as
 * empty, the process then has no species at all.
 */
#ifndef FSM_FSM_GLOB_H
#define FSM_FSM_GLOB_H

#include <stddef.h>
#include <stdint.h>

#include <ostream>
#include <string>

#include "fsm/fsm_profiling.h"
#include "fsm/fsm_timer.h"
#include "fsm/fsm_types.h"
#include "kvlog/kvlog.h"

#pragma GCC visibility push(default)

typedef struct GLOB_DATA {
    TIME_STR* Time;                                /**< heap-held, the process's timer wheel */
    FSMMOD_SPEC_D aGlobModSpecDesc[FSMMOD_COUNT];  /**< indexed by module */
    const FSMMOD_NAME* pSpcNames;                  /**< name tables re-ordered by module */
    const FSMMOD_NAME* pMsgNames;
    uint32_t iNumSpcMod;
    uint32_t iNumMsgMod;
    size_t numberOfFsmTasks;
    GLOB_PROC_D* fsmTasks;
    int msg_queues_ready;                          /**< set when all task queues exist */
    Profiling profiling;                           /**< per-message timing */
} GLOB_DATA;

/** The static name tables. */
extern const FSMMOD_NAME aFSMSpcNames[];
extern const FSMMOD_NAME aFSMMsgNames[];

/** Installs the product's specie catalogue (module FSMMOD_NONFSM): a list of
 * names ended by a null pointer, whose positions are the specie indices.
 * The list is borrowed and must outlive the FSM system. Null removes it.
 * Takes effect at the next sys_initFSMSystem. */
void fsm_setProductSpecieNames(const char* const* names);
/** The catalogue last installed with fsm_setProductSpecieNames, null when
 * none is. Still the caller's list (borrowed, never copied or freed). It is
 * the list the next sys_initFSMSystem takes, not necessarily the one in the
 * running tables. Read atomically: any thread may call it. */
const char* const* fsm_getProductSpecieNames(void);

/** The process's single instance. */
GLOB_DATA* sys_getGlob(void);

/** Builds the tables from the name tables: the timer record, the name
 * arrays by module and one GLOB_SPEC_D per specie name, each with its own
 * logger. Allocation failures are written to standard error and leave a
 * partly built table. */
void sys_initGlobalData(void);
/** sys_initGlobalData, fsm_poolInit(config), sys_initSystemTimer, in that
 * order. Also releases the tables of a previous run, which must have been
 * shut down (fsm_procShutdown) first: no FSM task may run meanwhile. */
void sys_initFSMSystem(const FSMSPECCONFIG* config);

/** Re-orders a name table by module: a heap array indexed by module number
 * (holes have a null pNames and eModule NO_FSMMOD), its length through
 * `count`. Null, with a line on standard error, when the largest module is
 * 0 (a table of module 0 alone counts as empty) or memory runs out. */
FSMMOD_NAME* fsm_FillGlobNames(const FSMMOD_NAME* list, uint32_t* count);
/** fsm_FillGlobNames over aFSMSpcNames, with the installed product catalogue
 * (fsm_getProductSpecieNames, possibly null) as the list of module
 * FSMMOD_NONFSM. The array is the caller's, to be released with free(); the
 * name lists it points to are not. `count` may be null; it is written only
 * when the result is not null. Called by sys_initGlobalData. */
FSMMOD_NAME* fsm_FillGlobSpcNames(uint32_t* count);
/** fsm_FillGlobNames over aFSMMsgNames. The array is the caller's, to be
 * released with free(); `count` may be null. Called by sys_initGlobalData. */
FSMMOD_NAME* fsm_FillGlobMsgNames(uint32_t* count);

/** True when the specie's module is valid and has a table, and its index is
 * below the module's count. Does not look at pSpecDesc. */
bool fsm_verifySpec(SPECIE s);
/** fsm_verifySpec, then a description, then Ind <= HighInd. On the first
 * failure logs one error line and returns false. The "Fsm-addr" field of
 * that line is the location of *addr, not its contents. */
bool fsm_verifyAddr(const FSMADDR* addr);
/** The specie's record. Asserts "glob != NULL", "Unknown specie",
 * "Index out of bounds", "Index out of bounds, no such specie". */
GLOB_SPEC_D* fsm_getGlobalSpecieDesc(SPECIE s);

///@{
/** Present species (with a description), module by module, index by index;
 * NO_SPECIE at the end. fsm_firstSpec gives the first one; fsm_nextSpec(s)
 * the first present specie after `s` (which need not be present itself),
 * and NO_SPECIE for NO_SPECIE or a module above FSMMOD_NONFSM. A specie
 * becomes present when fsm_procSetup binds it and stops being so at
 * fsm_procShutdown. Both read the tables without a lock: any task, but not
 * while sys_initFSMSystem or fsm_procShutdown runs. */
SPECIE fsm_firstSpec(void);
SPECIE fsm_nextSpec(SPECIE s);
///@}
/** 0-based position in that order, or 0xFFFFFFFF when not present. */
uint32_t fsm_specieOffset(SPECIE s);
/** iSpecCount of a module; the module is not checked. */
uint32_t fsm_numberOfSpecInMod(FSMMOD module);
/** Names of a module in a table indexed by module (fsm_FillGlobNames). */
uint32_t fsm_countNamesForMod(const FSMMOD_NAME* names, FSMMOD module);

/** Case-insensitive, over at most 30 characters: a name or text of 30
 * characters or more never matches. NO_SPECIE when not found. */
SPECIE fsm_findSpecieFromName(const char* text);
/** Case-sensitive over at most 64 characters; NO_MSGNAME when not found. */
MSGNAME fsm_findMessageNameFromString(const char* text);
/** Exact comparison; -1 when not found. */
int fsm_getMsgNumber(const char* text);
/** strtol base 10, deliberately without validation: garbage gives 0. */
IND_NO fsm_findIndFromString(const char* text);

/** "NO_SPECIE" for NO_SPECIE, "***" for a module without names. The index
 * is not checked against the list. */
const char* fsm_getSpecName(SPECIE s);
/** "**********" for a module without names; the index is not checked. */
const char* fsm_getMsgName(MSGNAME m);
/** "NO_STATE", the record's name, or the number in a static buffer shared
 * by all threads when the specie has no state records. */
const char* fsm_getStateName(const SPEC_DESC* desc, STATE state);
/** Asserts "pSpec"; "NO_TASK", the task's name, or the number in a shared
 * static buffer when the specie has no task names. */
const char* fsm_getTaskName(const SPEC_DESC* desc, TASK task);
/** The name of a job function in a specie's state records, or its location
 * ("%p") when it is not listed. */
std::string fsm_getJobName(const SPEC_DESC* desc, FUPTR job);

/** "<specie name>:<individual>", "NO_IND" for NO_IND; e.g. FSM_TIMER:0. */
std::ostream& operator<<(std::ostream& os, const FSMADDR& addr);

/** The framework's logger, "developer.fsm", created once and kept for the
 * life of the process (a reference: callers on hot paths copy nothing). */
const kvlog::LoggerPtr& fsm_getDeveloperLogger(void);

/** Sleeps 2 seconds so that logs can be flushed, then aborts. */
[[noreturn]] void sys_fatalError(void);

#pragma GCC visibility pop
#endif
