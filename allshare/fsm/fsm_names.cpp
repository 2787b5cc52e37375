/*
 * The process's record, the name catalogues and their lookups, and the
 * fields of the framework's log lines.
 *
 * This is the bottom of the framework: every other file names species,
 * messages, states and tasks through it and writes its log lines with its
 * fields, and it calls none of them. The name tables are static data that
 * set-up re-orders by module (fsm_FillGlobNames); after that they are only
 * read, without locks.
 *
 * The product's specie catalogue (module FSMMOD_NONFSM) is not framework
 * data: the product installs it with fsm_setProductSpecieNames, and the
 * re-ordered specie table picks it up at the next initialisation.
 */
#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <string>

#include "fsm_internal.h"

using namespace fsm_detail;

namespace {

const char* const sFsmStuffSpecies[] = {"SYSTEM", "LOGGER", "TEST_SPEC", "POOL_SPEC", "FSM_TIMER", "PCI_IF",
                                        "FSMSYS_FSM", nullptr};
const char* const sFsmStuffMessages[] = {"ELSE_MSG", "SAVE_MSG", "ELSE_STATE", "COMMON_STATE", "POOL_msg",
                                         "POOL_not_msg", "TEST_set", nullptr};
const char* const sGlobalMessages[] = {"MNG_list_data", "MNG_command", "MNG_log_on", "MNG_log_off",
                                       "GEN_timer_1", "GEN_timer_2", "GEN_timer_3", "GEN_timer_4",
                                       "GEN_timer_5", "GEN_timer_6", "GEN_timer_7", nullptr};

std::atomic<const char* const*> sProductSpecies{nullptr};

GLOB_DATA sGlob;
/* Names compared by fsm_findSpecieFromName: both must end within this. */
constexpr int kSpecieNameCompare = 30;

}  // namespace

/* The product's catalogue is filled in by fsm_FillGlobSpcNames. */
const FSMMOD_NAME aFSMSpcNames[] = {
    {sFsmStuffSpecies, FSMMOD_FSMSTUFF, "FSMMOD_FSMSTUFF"},
    {nullptr, FSMMOD_NONFSM, "FSMMOD_NONFSM"},
    {nullptr, NO_FSMMOD, nullptr},
};

const FSMMOD_NAME aFSMMsgNames[] = {
    {sGlobalMessages, FSMMOD_GLOBAL, "FSMMOD_GLOBAL"},
    {sFsmStuffMessages, FSMMOD_FSMSTUFF, "FSMMOD_FSMSTUFF"},
    {nullptr, NO_FSMMOD, nullptr},
};

void fsm_setProductSpecieNames(const char* const* names)
{
    sProductSpecies.store(names);
}

const char* const* fsm_getProductSpecieNames(void)
{
    return sProductSpecies.load();
}

GLOB_DATA* sys_getGlob(void)
{
    return &sGlob;
}

const kvlog::LoggerPtr& fsm_getDeveloperLogger(void)
{
    static const kvlog::LoggerPtr logger = kvlog::getDeveloperLogger("fsm");
    return logger;
}


FSMMOD_NAME* fsm_FillGlobNames(const FSMMOD_NAME* list, uint32_t* count)
{
    uint32_t highest = 0;
    for (const FSMMOD_NAME* e = list; e != nullptr && e->eModule != NO_FSMMOD; ++e) {
        highest = e->eModule > highest ? e->eModule : highest;
    }
    if (highest == 0) {
        fprintf(stderr, "fsm_FillGlobNames: No modules found\n");
        return nullptr;
    }
    size_t bytes = (static_cast<size_t>(highest) + 1) * sizeof(FSMMOD_NAME);
    auto* out = static_cast<FSMMOD_NAME*>(malloc(bytes));
    if (out == nullptr) {
        fprintf(stderr, "fsm_FillGlobNames: Unable to allocate memory of size %d\n", static_cast<int>(bytes));
        return nullptr;
    }
    for (uint32_t m = 0; m <= highest; ++m) {
        out[m] = FSMMOD_NAME{nullptr, NO_FSMMOD, nullptr};
    }
    for (const FSMMOD_NAME* e = list; e->eModule != NO_FSMMOD; ++e) {
        out[e->eModule] = *e;  // a later duplicate wins
    }
    if (count != nullptr) {
        *count = highest + 1;
    }
    return out;
}

FSMMOD_NAME* fsm_FillGlobSpcNames(uint32_t* count)
{
    uint32_t n = 0;
    FSMMOD_NAME* names = fsm_FillGlobNames(aFSMSpcNames, &n);
    if (names != nullptr && n > FSMMOD_NONFSM && names[FSMMOD_NONFSM].eModule == FSMMOD_NONFSM) {
        names[FSMMOD_NONFSM].pNames = sProductSpecies.load();
    }
    if (names != nullptr && count != nullptr) {
        *count = n;
    }
    return names;
}

FSMMOD_NAME* fsm_FillGlobMsgNames(uint32_t* count)
{
    return fsm_FillGlobNames(aFSMMsgNames, count);
}

uint32_t fsm_countNamesForMod(const FSMMOD_NAME* names, FSMMOD module)
{
    const char* const* list = names[module].pNames;
    uint32_t n = 0;
    while (list != nullptr && list[n] != nullptr) {
        ++n;
    }
    return n;
}
SPECIE fsm_findSpecieFromName(const char* text)
{
    for (uint32_t m = 0; sGlob.pSpcNames != nullptr && m < sGlob.iNumSpcMod; ++m) {
        const FSMMOD_NAME& mod = sGlob.pSpcNames[m];
        for (uint32_t i = 0; mod.pNames != nullptr && mod.pNames[i] != nullptr; ++i) {
            const char* name = mod.pNames[i];
            for (int k = 0; k < kSpecieNameCompare; ++k) {
                if (tolower(static_cast<unsigned char>(text[k])) != tolower(static_cast<unsigned char>(name[k]))) {
                    break;
                }
                if (text[k] == '\0') {
                    return FSM_MAKE_ID(mod.eModule, i);
                }
            }
        }
    }
    return NO_SPECIE;
}

namespace {

template <typename Equal>
MSGNAME findMessage(const char* text, Equal equal)
{
    for (uint32_t m = 0; sGlob.pMsgNames != nullptr && m < sGlob.iNumMsgMod; ++m) {
        const FSMMOD_NAME& mod = sGlob.pMsgNames[m];
        for (uint32_t i = 0; mod.pNames != nullptr && mod.pNames[i] != nullptr; ++i) {
            if (equal(text, mod.pNames[i])) {
                return FSM_MAKE_ID(mod.eModule, i);
            }
        }
    }
    return NO_MSGNAME;
}

}  // namespace

MSGNAME fsm_findMessageNameFromString(const char* text)
{
    return findMessage(text, [](const char* a, const char* b) { return strncmp(a, b, FSM_NAME_LEN) == 0; });
}

int fsm_getMsgNumber(const char* text)
{
    return static_cast<int>(findMessage(text, [](const char* a, const char* b) { return strcmp(a, b) == 0; }));
}

IND_NO fsm_findIndFromString(const char* text)
{
    return static_cast<IND_NO>(strtol(text, nullptr, 10));
}

const char* fsm_getSpecName(SPECIE s)
{
    if (s == NO_SPECIE) {
        return "NO_SPECIE";
    }
    uint32_t m = FSM_ID_MODULE(s);
    if (m >= sGlob.iNumSpcMod || sGlob.pSpcNames == nullptr || sGlob.pSpcNames[m].pNames == nullptr) {
        return "***";
    }
    return sGlob.pSpcNames[m].pNames[FSM_ID_INDEX(s)];
}

const char* fsm_getMsgName(MSGNAME msg)
{
    uint32_t m = FSM_ID_MODULE(msg);
    if (m >= sGlob.iNumMsgMod || sGlob.pMsgNames == nullptr || sGlob.pMsgNames[m].pNames == nullptr) {
        return "**********";
    }
    return sGlob.pMsgNames[m].pNames[FSM_ID_INDEX(msg)];
}

const char* fsm_getStateName(const SPEC_DESC* desc, STATE state)
{
    static char number[10];
    if (state == NO_STATE) {
        return "NO_STATE";
    }
    if (desc == nullptr || desc->pStateNames == nullptr) {
        // Ten characters: the largest numbers lose their last digit.
        if (snprintf(number, sizeof(number), "%u", state) < 0) {
            number[0] = '\0';
        }
        return number;
    }
    return desc->pStateNames[state].szName;
}

const char* fsm_getTaskName(const SPEC_DESC* desc, TASK task)
{
    static char number[10];
    BOOST_ASSERT_MSG(desc != NULL, "pSpec");
    if (task == NO_TASK) {
        return "NO_TASK";
    }
    if (desc->pTaskNames == nullptr) {
        // Ten characters: the largest numbers lose their last digit.
        if (snprintf(number, sizeof(number), "%u", task) < 0) {
            number[0] = '\0';
        }
        return number;
    }
    return desc->pTaskNames[task];
}

std::string fsm_getJobName(const SPEC_DESC* desc, FUPTR job)
{
    for (const STATE_NAME* rec = desc != nullptr ? desc->pStateNames : nullptr; rec != nullptr && rec->szName[0];
         ++rec) {
        if (rec->pJob == job) {
            return rec->szName;
        }
    }
    return ptrText(reinterpret_cast<const void*>(job));
}

std::ostream& operator<<(std::ostream& os, const FSMADDR& addr)
{
    os << safeSpecName(addr.Spec) << ':';
    if (addr.Ind == NO_IND) {
        return os << "NO_IND";
    }
    return os << addr.Ind;
}

namespace fsm_detail {

const char* safeSpecName(SPECIE s)
{
    uint32_t m = FSM_ID_MODULE(s);
    if (s != NO_SPECIE && m < sGlob.iNumSpcMod && sGlob.pSpcNames != nullptr &&
        FSM_ID_INDEX(s) >= fsm_countNamesForMod(sGlob.pSpcNames, m)) {
        return "***";
    }
    return fsm_getSpecName(s);
}

const char* safeMsgName(MSGNAME msg)
{
    uint32_t m = FSM_ID_MODULE(msg);
    if (m < sGlob.iNumMsgMod && sGlob.pMsgNames != nullptr &&
        FSM_ID_INDEX(msg) >= fsm_countNamesForMod(sGlob.pMsgNames, m)) {
        return "**********";
    }
    return fsm_getMsgName(msg);
}

std::string ptrText(const void* p)
{
    char text[32];
    snprintf(text, sizeof(text), "%p", p);
    return text;
}

namespace {

/* Names for the process fields, written by every task at once: numbers
 * are formatted here rather than in the static buffers of fsm_getStateName
 * and fsm_getTaskName, and a state without a record (an illegal one) prints
 * as its number. */
std::string stateText(const SPEC_DESC* desc, STATE state)
{
    if (state == NO_STATE) {
        return "NO_STATE";
    }
    if (desc == nullptr || desc->pStateNames == nullptr || state > desc->HighState) {
        return std::to_string(state);
    }
    return desc->pStateNames[state].szName;
}

std::string taskText(const SPEC_DESC* desc, TASK task)
{
    if (task == NO_TASK) {
        return "NO_TASK";
    }
    if (desc == nullptr || desc->pTaskNames == nullptr) {
        return std::to_string(task);
    }
    return desc->pTaskNames[task];
}

}  // namespace

std::ostream& operator<<(std::ostream& os, const ProcFields& f)
{
    const PROC_DATA* p = f.proc;
    return os << kvp("Self", p->ProcSELF) << kvp("Sender", p->ProcSENDER) << kvp("Msg", safeMsgName(p->ProcMsgName))
              << kvp("Task", taskText(p->specDesc, p->ProcTask)) << kvp("State", stateText(p->specDesc, p->ProcState))
              << kvp("NxtState", stateText(p->specDesc, p->ProcNxtState))
              << kvp("NxtStateId", p->ProcNxtState);
}

std::ostream& operator<<(std::ostream& os, const BufFields& f)
{
    const NORMBUF* b = f.buf;
    return os << kvp("Msg-src", b->Source) << kvp("Msg-dst", b->Dest) << kvp("Msg-name", safeMsgName(b->MsgName))
              << kvp("Msg-size", b->BodyLength) << kvp("Msg-buf", ptrText(b));
}

}  // namespace fsm_detail
