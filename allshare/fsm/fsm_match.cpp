/*
 * State-table lookup of standard machines.
 *
 * The message name is looked up in the table of the individual's current
 * state (scan A). Wild cards send the lookup on to the common table (table
 * 0, scan B) and from there, or directly, to the else table (table 1,
 * scan C). The three scans differ on purpose and are kept that way:
 *  - ELSE_MSG clears the save decision in scan A but leaves it in scan B;
 *  - the next state is taken as it stands from scan A, while 0 keeps the
 *    current state in scan B, and 0 and 1 both keep it in scan C.
 * A table has no length: every scan stops only at a match or a wild card
 * that ends it, so table authors must terminate every table.
 */
#include "fsm_internal.h"

using namespace fsm_detail;

namespace fsm_detail {

LookupResult lookupStandard(PROC_DATA* proc, GLOB_SPEC_D* d)
{
    const SPEC_DESC* sd = d->pSpecDesc;
    const IND_NO ind = proc->ProcSELF.Ind;
    const STATE s = d->stateArray != nullptr ? d->stateArray[ind] : 0;
    proc->ProcState = s;
    if (s > sd->HighState || sd->ppStates == nullptr || sd->ppStates[s] == nullptr) {
        KVLOG_ERROR(fsm_getDeveloperLogger(), kvp("Detail", "Failed to decode fsm message. Fsm is in illegal state")
                                                  << procFields(proc) << bufFields(proc->pProcMsg));
        return LookupResult::Reject;
    }
    const MSGNAME msg = proc->ProcMsgName;
    enum { ScanA, ScanB, ScanC } foundBy = ScanA;
    bool save = false, wantCommon = false, wantElse = false;

    const EXP_MSG* e = sd->ppStates[s];
    for (;; ++e) {
        if (e->MsgName == msg) {
            break;
        }
        if (e->MsgName == SAVE_MSG) {
            save = true;
        } else if (e->MsgName == ELSE_MSG) {
            save = false;
            break;
        } else if (e->MsgName == ELSE_STATE) {
            save = false;
            wantElse = true;
            break;
        } else if (e->MsgName == COMMON_STATE) {
            save = false;
            wantCommon = true;
            break;
        }
    }
    if (wantCommon) {
        foundBy = ScanB;
        for (e = sd->ppStates[0];; ++e) {
            if (e->MsgName == msg || e->MsgName == ELSE_MSG) {
                break;  // ELSE_MSG leaves the save decision as it is
            }
            if (e->MsgName == SAVE_MSG) {
                save = true;
            } else if (e->MsgName == ELSE_STATE) {
                save = false;
                wantElse = true;
                break;
            }
        }
    }
    if (wantElse) {
        foundBy = ScanC;
        for (e = sd->ppStates[1];; ++e) {
            if (e->MsgName == msg || e->MsgName == ELSE_MSG) {
                break;
            }
            if (e->MsgName == SAVE_MSG) {
                save = true;
            }
        }
    }

    proc->pProcIndData = d->indInfoArray != nullptr ? d->indInfoArray[ind].pIndData : nullptr;
    proc->bProcSaveMsg = save;
    if (save) {
        return LookupResult::Save;
    }
    proc->ProcTask = e->Task;
    STATE next = e->NxtState;
    if ((foundBy == ScanB && next == 0) || (foundBy == ScanC && (next == 0 || next == 1))) {
        next = s;
    }
    proc->ProcNxtState = next;
    return LookupResult::Handle;
}

}  // namespace fsm_detail
