/*
 * The process's table of species and tasks: address checks, the species'
 * records, iteration over the present species, and the dump of what every
 * task is handling.
 *
 * set-up (fsm_system.cpp) builds one GLOB_SPEC_D per specie name; after
 * that the table is only read, without locks, except for the fields that
 * task set-up writes before any message flows. Everything here reads the
 * table and logs through the names below it; nothing calls back up into
 * buffers, messages, tasks or timers.
 */
#include <stdio.h>
#include <stdlib.h>

#include <sstream>

#include "abstraction/kvos.h"
#include "fsm_internal.h"

using namespace fsm_detail;

namespace {

constexpr uint32_t kNoOffset = 0xFFFFFFFFu;

}  // namespace

void sys_fatalError(void)
{
    KVOS_sleep(2);
    abort();
}

bool fsm_verifySpec(SPECIE s)
{
    uint32_t m = FSM_ID_MODULE(s);
    if (m > FSMMOD_NONFSM) {
        return false;
    }
    const FSMMOD_SPEC_D& mod = sys_getGlob()->aGlobModSpecDesc[m];
    return mod.pModSpecies != nullptr && FSM_ID_INDEX(s) < mod.iSpecCount;
}

bool fsm_verifyAddr(const FSMADDR* addr)
{
    const char* detail = nullptr;
    bool tooHigh = false;
    IND_NO high = 0;
    if (!fsm_verifySpec(addr->Spec)) {
        detail = "Invalid fsm address. Specie is invalid";
    } else {
        const GLOB_SPEC_D* d = fsm_getGlobalSpecieDesc(addr->Spec);
        if (d->pSpecDesc == nullptr) {
            detail = "Invalid fsm address. Specie description is invalid";
        } else if (addr->Ind > d->HighInd) {
            detail = "Invalid fsm address. Individ number is too high";
            tooHigh = true;
            high = d->HighInd;
        }
    }
    if (detail == nullptr) {
        return true;
    }
    const kvlog::LoggerPtr& logger = fsm_getDeveloperLogger();
    if (kvlog::isErrorEnabled(logger)) {
        std::ostringstream os;
        // The location of the record, not its contents: kept as it is.
        os << kvp("Detail", detail) << kvp("Fsm-addr", ptrText(addr));
        if (tooHigh) {
            os << kvp("Max-ind", high);
        }
        KVLOG_ERROR(logger, os.str());
    }
    return false;
}

GLOB_SPEC_D* fsm_getGlobalSpecieDesc(SPECIE s)
{
    GLOB_DATA* glob = sys_getGlob();
    BOOST_ASSERT_MSG(glob != NULL, "glob != NULL");
    BOOST_ASSERT_MSG(fsm_verifySpec(s), "Unknown specie");
    uint32_t m = FSM_ID_MODULE(s), i = FSM_ID_INDEX(s);
    BOOST_ASSERT_MSG(m < FSMMOD_COUNT, "Index out of bounds");
    BOOST_ASSERT_MSG(i < glob->aGlobModSpecDesc[m].iSpecCount, "Index out of bounds, no such specie");
    return &glob->aGlobModSpecDesc[m].pModSpecies[i];
}

namespace {

/* The first present specie at or after (module m, index i). */
SPECIE presentFrom(uint32_t m, uint32_t i)
{
    const GLOB_DATA* glob = sys_getGlob();
    for (; m < FSMMOD_COUNT; ++m, i = 0) {
        const FSMMOD_SPEC_D& mod = glob->aGlobModSpecDesc[m];
        for (; mod.pModSpecies != nullptr && i < mod.iSpecCount; ++i) {
            if (mod.pModSpecies[i].pSpecDesc != nullptr) {
                return FSM_MAKE_ID(m, i);
            }
        }
    }
    return NO_SPECIE;
}

}  // namespace

SPECIE fsm_firstSpec(void)
{
    return presentFrom(0, 0);
}

SPECIE fsm_nextSpec(SPECIE s)
{
    if (s == NO_SPECIE || FSM_ID_MODULE(s) > FSMMOD_NONFSM) {
        return NO_SPECIE;
    }
    return presentFrom(FSM_ID_MODULE(s), FSM_ID_INDEX(s) + 1);
}

uint32_t fsm_specieOffset(SPECIE s)
{
    uint32_t k = 0;
    for (SPECIE it = fsm_firstSpec(); it != NO_SPECIE; it = fsm_nextSpec(it), ++k) {
        if (it == s) {
            return k;
        }
    }
    return kNoOffset;
}

uint32_t fsm_numberOfSpecInMod(FSMMOD module)
{
    return sys_getGlob()->aGlobModSpecDesc[module].iSpecCount;
}

void fsm_dumpAllProc(std::ostream& os)
{
    GLOB_DATA* glob = sys_getGlob();
    os << "\n*** Dumping proc start\n";
    for (size_t i = 0; i < glob->numberOfFsmTasks; ++i) {
        const PROC_DATA* p = &glob->fsmTasks[i].procData;
        char line[256];
        if (glob->fsmTasks[i].RtosTid == KVOS_NO_TASK_ID || p->ProcSELF.Spec == NO_SPECIE) {
            snprintf(line, sizeof(line), "%p: no proc data\n", static_cast<const void*>(p));
        } else {
            snprintf(line, sizeof(line), "%p: %s-%d message %s from %s-%d\n", static_cast<const void*>(p),
                     safeSpecName(p->ProcSELF.Spec), static_cast<int>(p->ProcSELF.Ind), safeMsgName(p->ProcMsgName),
                     safeSpecName(p->ProcSENDER.Spec), static_cast<int>(p->ProcSENDER.Ind));
        }
        os << line;
    }
    os << "*** Dumping proc end\n";
}

void fsm_dumpAllProc(void)
{
    std::ostringstream os;
    fsm_dumpAllProc(os);
    fputs(os.str().c_str(), stdout);
    fflush(stdout);
}
