/*
 * What the framework's own files share: the house style of log lines
 * (a leading blank, then key="value" pairs, the human text under Detail),
 * the field groups of process and buffer diagnostics, and the hooks
 * between set-up, pool and message handling.
 */
#ifndef FSM_FSM_INTERNAL_H
#define FSM_FSM_INTERNAL_H

#include <ostream>

#include "fsm/fsm.h"
#include "kvlog/kvlog_assert.h"

namespace fsm_detail {

template <typename T>
struct KvPair {
    const char* key;
    const T& value;
};

template <typename T>
KvPair<T> kvp(const char* key, const T& value)
{
    return KvPair<T>{key, value};
}

template <typename T>
std::ostream& operator<<(std::ostream& os, const KvPair<T>& p)
{
    return os << ' ' << p.key << "=\"" << p.value << '"';
}

/* Process fields: Self, Sender, Msg, Task, State, NxtState, NxtStateId. */
struct ProcFields {
    const PROC_DATA* proc;
};
std::ostream& operator<<(std::ostream& os, const ProcFields& f);
inline ProcFields procFields(const PROC_DATA* proc)
{
    return ProcFields{proc};
}

/* Buffer fields: Msg-src, Msg-dst, Msg-name, Msg-size, Msg-buf. */
struct BufFields {
    const NORMBUF* buf;
};
std::ostream& operator<<(std::ostream& os, const BufFields& f);
inline BufFields bufFields(const NORMBUF* buf)
{
    return BufFields{buf};
}

/* A pointer as the framework prints it ("%p"). */
std::string ptrText(const void* p);

/* What the state table decided for the message being decoded. */
enum class LookupResult { Handle, Save, Reject };
/* The lookup of a standard machine (ProcState, ProcTask, ProcNxtState,
 * bProcSaveMsg, pProcIndData); logs an illegal state. */
LookupResult lookupStandard(PROC_DATA* proc, GLOB_SPEC_D* d);

/* Names for diagnostics that are safe for any value: out-of-range indices
 * print as "***" (species) or "**********" (messages) instead of reading
 * past a name list. */
const char* safeSpecName(SPECIE s);
const char* safeMsgName(MSGNAME m);

/* Releases every buffer of a chain linked through pNext (system release). */
void releaseChain(NORMBUF* head);

}  // namespace fsm_detail

#endif
