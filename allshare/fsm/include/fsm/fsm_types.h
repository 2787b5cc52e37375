/**
 * @file
 * Records and scalar types of the state-machine framework.
 *
 * Many finite-state machines run inside one process and talk only by
 * messages. Every machine is an individual of a specie (a class of
 * machines: one behaviour, many instances) and is addressed by the pair
 * {specie, individual}. Species and message names are 32-bit values: the
 * module in the high half and the index of the name in that module's name
 * list in the low half, so specie index 4 of module 0 is 0x00000004 and
 * message index 4 of module 1 is 0x00010004. The all-ones value means
 * "none" for every scalar here.
 *
 * Everything in this header is a plain record shared between the framework
 * and the code that implements species; the framework never owns a
 * SPEC_DESC or the tables it points at.
 */
#ifndef FSM_FSM_TYPES_H
#define FSM_FSM_TYPES_H

#include <stddef.h>
#include <stdint.h>

#include "abstraction/kvos_ptrq.h"
#include "abstraction/kvos_task.h"
#include "kvlog/kvlog.h"

#pragma GCC visibility push(default)

typedef uint32_t SPECIE;
typedef uint32_t IND_NO;
typedef uint32_t IND_COUNT;
typedef uint32_t MSGNAME;
typedef uint32_t STATE;
typedef uint32_t TASK;
typedef uint32_t FSMMOD;

#define NO_SPECIE ((SPECIE)0xFFFFFFFFu)
#define NO_IND ((IND_NO)0xFFFFFFFFu)
#define NO_MSGNAME ((MSGNAME)0xFFFFFFFFu)
#define NO_STATE ((STATE)0xFFFFFFFFu)
#define NO_TASK ((TASK)0xFFFFFFFFu)
#define NO_FSMMOD ((FSMMOD)0xFFFFFFFFu)

/** Builds a specie or message value from its module and index. */
#define FSM_MAKE_ID(module, index) ((uint32_t)(((uint32_t)(module) << 16) | ((uint32_t)(index) & 0xFFFFu)))
#define FSM_ID_MODULE(id) ((uint32_t)(id) >> 16)
#define FSM_ID_INDEX(id) ((uint32_t)(id) & 0xFFFFu)

/** Modules. A module number of FSMMOD_COUNT or more is invalid everywhere. */
enum {
    FSMMOD_FSMSTUFF = 0,    /**< the framework's own species and messages */
    FSMMOD_GLOBAL = 1,      /**< messages known to every machine; no species */
    FSMMOD_FIRST_PRINT = 1, /**< first module whose names are printed */
    FSMMOD_NONFSM = 2,      /**< the product's species */
    FSMMOD_COUNT = 3
};

/** The framework's species (module FSMMOD_FSMSTUFF), in name-list order. */
enum { SYSTEM = 0, LOGGER = 1, TEST_SPEC = 2, POOL_SPEC = 3, FSM_TIMER = 4, PCI_IF = 5, FSMSYS_FSM = 6 };

/** The framework's message names (module FSMMOD_FSMSTUFF). ELSE_MSG,
 * SAVE_MSG, ELSE_STATE and COMMON_STATE are the wild cards of state tables;
 * POOL_not_msg marks a buffer nobody has sent yet. */
enum { ELSE_MSG = 0, SAVE_MSG = 1, ELSE_STATE = 2, COMMON_STATE = 3, POOL_msg = 4, POOL_not_msg = 5, TEST_set = 6 };

/** Message names of module FSMMOD_GLOBAL, 0x00010000 upwards. */
enum {
    MNG_list_data = 0x00010000,
    MNG_command = 0x00010001,
    MNG_log_on = 0x00010002,
    MNG_log_off = 0x00010003,
    GEN_timer_1 = 0x00010004,
    GEN_timer_2 = 0x00010005,
    GEN_timer_3 = 0x00010006,
    GEN_timer_4 = 0x00010007,
    GEN_timer_5 = 0x00010008,
    GEN_timer_6 = 0x00010009,
    GEN_timer_7 = 0x0001000A
};

/** Trace flags of a specie (GLOB_SPEC_D.testFlags) and of the message being
 * handled (PROC_DATA.procTestFlags). */
enum FsmTestFlags {
    Trace0 = 0x1,
    Trace1 = 0x2,
    Trace2 = 0x4,
    Trace3 = 0x8,
    Trace4 = 0x10,
    Trace5 = 0x20,
    Trace6 = 0x40,
    Trace7 = 0x80,
    Trace8 = 0x100,
    TraceReceive = 0x200,
    TraceReLong = 0x400,
    TracePool = 0x800,
    TraceSend = 0x1000,
    TraceSeLong = 0x2000,
    TraceTimers = 0x4000,
    PrintWarnings = 0x8000
};

/** Kinds of machine. */
enum FsmType {
    FSM_TYPE_STANDARD = 1, /**< driven by the expected-message tables ppStates */
    FSM_TYPE_TRIVIAL = 4,  /**< each state is a job function (pStateNames) */
    FSM_TYPE_REMOTE = 5    /**< served elsewhere; never handled in this process */
};

/** The address of one machine. */
typedef struct FSMADDR_ {
    SPECIE Spec;
    IND_NO Ind;
} FSMADDR;

///@{
/** Two addresses are equal when both specie and individual are; NO_IND is
 * an ordinary value here, not a wildcard. */
inline bool operator==(const FSMADDR& a, const FSMADDR& b)
{
    return a.Spec == b.Spec && a.Ind == b.Ind;
}
inline bool operator!=(const FSMADDR& a, const FSMADDR& b)
{
    return !(a == b);
}
///@}

/** One module's list of names: pNames ends with a null pointer and the
 * position of a name is its index. Static name tables are arrays of these
 * ended by an entry whose eModule is NO_FSMMOD. */
typedef struct FSMMOD_NAME_ {
    const char* const* pNames;
    FSMMOD eModule;
    const char* szModule;
} FSMMOD_NAME;

struct PROC_DATA_;
struct NORMBUF_;
typedef struct PROC_DATA_ PROC_DATA;
typedef struct NORMBUF_ NORMBUF;

/** A job function: runs one step of a machine with its context. The result
 * is the job's own; the framework does not interpret it. */
typedef int (*FUPTR)(PROC_DATA* proc);

#define FSM_NAME_LEN 64
typedef char FSM_NAME64[FSM_NAME_LEN];

/** One entry of a state's table of expected messages. */
typedef struct EXP_MSG_ {
    MSGNAME MsgName;
    STATE NxtState;
    TASK Task;
} EXP_MSG;

/** One state record: the state's job (run by trivial machines; informative
 * for standard ones) and its name. A table of state records ends at a
 * record whose name is empty. */
typedef struct STATE_NAME_ {
    FUPTR pJob;
    FSM_NAME64 szName;
} STATE_NAME;

/** A specie's static description, supplied by the code that implements the
 * specie and never owned by the framework.
 *  - ppStates: standard machines: per state, that state's EXP_MSG table.
 *    Tables 0 and 1 double as the common table and the else table. Every
 *    table must end with a terminating wild card (ELSE_MSG, ELSE_STATE or
 *    COMMON_STATE); a scan has no other way to stop.
 *  - pTaskProc: standard machines: runs the job chosen by the table, with
 *    PROC_DATA.ProcTask set to the entry's Task.
 *  - pResetTask: run once per individual when the task starts; it sets the
 *    individual's data (pProcIndData) and first state (ProcNxtState).
 *  - pStateNames: one record per state (trivial machines run the record's
 *    job); also used to print state names.
 *  - pTaskNames: names of the jobs, indexed by TASK. */
typedef struct SPEC_DESC_ {
    FsmType fsmType;
    const EXP_MSG* const* ppStates;
    STATE HighState;
    FUPTR pTaskProc;
    FUPTR pResetTask;
    const STATE_NAME* pStateNames;
    const FSM_NAME64* pTaskNames;
} SPEC_DESC;

typedef struct IND_INFO_ {
    void* pIndData;
} IND_INFO;

/** The process's record of one specie. pSpecDesc null means that the specie
 * is not present in this process. */
typedef struct GLOB_SPEC_D_ {
    KVOS_PTRQ_ID RtosQid;      /**< queue of the task running the specie */
    SPEC_DESC* pSpecDesc;
    IND_NO HighInd;            /**< highest valid individual, inclusive */
    IND_INFO* indInfoArray;    /**< one record per individual */
    uint16_t testFlags;        /**< FsmTestFlags */
    uint16_t traceInd;         /**< 0: trace all; n: trace individual n - 1 */
    void* specieData;          /**< shared by all individuals */
    STATE* stateArray;         /**< current state of each individual */
    MSGNAME tracedMsgMask;
    kvlog::LoggerPtr* specieLogger;   /**< "developer.fsm.<name>" */
} GLOB_SPEC_D;

typedef struct FSMMOD_SPEC_D_ {
    GLOB_SPEC_D* pModSpecies; /**< one per name of the module's specie list */
    uint32_t iSpecCount;
} FSMMOD_SPEC_D;

/** The context of the machine a task is running, handed to every job.
 * The first pointer-sized word of an individual's data (pProcIndData) is
 * reserved by the framework: it heads the individual's save queue and must
 * be null when the reset job hands the data over. */
typedef struct PROC_DATA_ {
    FSMADDR ProcSELF;          /**< the machine being run */
    FSMADDR ProcSENDER;        /**< source of the current message */
    NORMBUF* pProcMsg;         /**< the message being handled */
    void* pProcIndData;
    void* pProcSpecData;
    SPEC_DESC* specDesc;
    NORMBUF* pProcIntMsg;      /**< head of the task's internal messages */
    NORMBUF* pProcLastIntMsg;  /**< tail */
    TASK ProcTask;
    STATE ProcNxtState;
    STATE ProcState;
    MSGNAME ProcMsgName;
    uint16_t procTestFlags;
    uint8_t ProcRecType;       /**< ' ' queue message, 'I' internal message */
    bool returnBufToPool;      /**< the framework releases pProcMsg after the job */
    bool bProcSaveMsg;         /**< the message is to be saved, not handled */
} PROC_DATA;

/** One FSM task. */
typedef struct GLOB_PROC_D_ {
    KVOS_TASK_ID RtosTid;
    PROC_DATA procData;
    KVOS_PTRQ_ID RtosQid;
} GLOB_PROC_D;

/** One specie of the process configuration; a list ends with an entry whose
 * Specie is NO_SPECIE. */
typedef struct FSMSPECCONFIG_ {
    SPECIE Specie;
    SPEC_DESC* pSpecDesc;
    unsigned int fsmTaskId;
    IND_COUNT iIndCount;
} FSMSPECCONFIG;

/** One FSM task of the process configuration. A null taskAttr gives the
 * default attributes with the queue's name as the task's name and a stack
 * of FSM_TASK_DEFAULT_STACK bytes. */
#define FSM_TASK_DEFAULT_STACK (256u * 1024u)

typedef struct FSMPROCCONFIG_ {
    unsigned int fsmTaskId;
    const char* queueName;
    int queueLength;
    KVOS_TASK_ATTR* taskAttr;
} FSMPROCCONFIG;

#pragma GCC visibility pop
#endif
