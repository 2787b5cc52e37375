/*
 * Set-up of the framework in a process: the species table, the buffer pool
 * and the timer system.
 *
 * This sits above the tables, the pool and the timers because it is what
 * brings them up: none of them calls back into it. Set-up may run again
 * (the self-tests do): the tables of the previous run are released first.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "fsm/fsm_buf.h"
#include "fsm/fsm_timer.h"
#include "fsm_internal.h"

namespace {

/* The tables of a previous initialisation; the buffer statistics keep
 * naming species through them until the tables are built again. */
void releaseTables(GLOB_DATA* glob)
{
    for (auto& mod : glob->aGlobModSpecDesc) {
        for (uint32_t i = 0; mod.pModSpecies != nullptr && i < mod.iSpecCount; ++i) {
            delete mod.pModSpecies[i].specieLogger;
        }
        free(mod.pModSpecies);
        mod.pModSpecies = nullptr;
        mod.iSpecCount = 0;
    }
    free(const_cast<FSMMOD_NAME*>(glob->pSpcNames));
    free(const_cast<FSMMOD_NAME*>(glob->pMsgNames));
    glob->pSpcNames = glob->pMsgNames = nullptr;
    glob->iNumSpcMod = glob->iNumMsgMod = 0;
    if (glob->Time != nullptr) {
        timerSystemDelete(glob->Time->timerSystem);
        delete glob->Time;
        glob->Time = nullptr;
    }
}

}  // namespace

void sys_initFSMSystem(const FSMSPECCONFIG* config)
{
    sys_initGlobalData();
    fsm_poolInit(config);
    sys_initSystemTimer();
}

void sys_initGlobalData(void)
{
    GLOB_DATA* glob = sys_getGlob();
    releaseTables(glob);
    glob->Time = new TIME_STR;
    glob->Time->timerSystem = timerSystemCreate(FSMADDR{FSM_TIMER, 0}, "FsmTimerWheel");
    glob->Time->timeOn = false;

    glob->iNumSpcMod = 0;
    glob->iNumMsgMod = 0;
    glob->pSpcNames = fsm_FillGlobSpcNames(&glob->iNumSpcMod);
    glob->pMsgNames = fsm_FillGlobMsgNames(&glob->iNumMsgMod);
    if (glob->pSpcNames == nullptr) {
        glob->iNumSpcMod = 0;
    }
    if (glob->pMsgNames == nullptr) {
        glob->iNumMsgMod = 0;
    }

    for (auto& mod : glob->aGlobModSpecDesc) {
        mod.pModSpecies = nullptr;
        mod.iSpecCount = 0;
    }
    glob->numberOfFsmTasks = 0;
    glob->fsmTasks = nullptr;
    for (uint32_t m = 0; m < glob->iNumSpcMod && m < FSMMOD_COUNT; ++m) {
        uint32_t n = fsm_countNamesForMod(glob->pSpcNames, m);
        if (n == 0) {
            continue;
        }
        auto* species = static_cast<GLOB_SPEC_D*>(malloc(n * sizeof(GLOB_SPEC_D)));
        if (species == nullptr) {
            fprintf(stderr, "sys_initGlobalData: Unable to allocate spec table of size %d\n",
                    static_cast<int>(n * sizeof(GLOB_SPEC_D)));
            return;
        }
        for (uint32_t i = 0; i < n; ++i) {
            GLOB_SPEC_D& d = species[i];
            memset(&d, 0, sizeof(d));
            d.tracedMsgMask = NO_MSGNAME;
            const char* name = fsm_getSpecName(FSM_MAKE_ID(m, i));
            d.specieLogger = new kvlog::LoggerPtr(kvlog::getDeveloperLogger(
                name == nullptr || *name == '\0' ? std::string("fsm.noname") : std::string("fsm.") + name));
        }
        glob->aGlobModSpecDesc[m].pModSpecies = species;
        glob->aGlobModSpecDesc[m].iSpecCount = n;
    }
}
