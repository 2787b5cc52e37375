/*
 * A harness that drives message handling from the test thread: species
 * registered by hand on test queues (one queue = one task), a task context,
 * and job functions that record every message they handle.
 */
#ifndef TESTS_FSM_HARNESS_H
#define TESTS_FSM_HARNESS_H

#include <string.h>

#include <functional>
#include <vector>

#include "support.h"

namespace fsm_test {

struct Event {
    FSMADDR self;
    MSGNAME msg;
    STATE state;
    uint8_t recType;
    uint32_t seq;  // first body word, or 0xFFFFFFFF for a shorter body
    FSMADDR sender;
    TASK task;
};

class Harness {
public:
    static inline Harness* current = nullptr;

    explicit Harness(std::vector<SPECIE> configured = {ALPHA, BETA, GAMMA, DELTA})
        : sys(std::move(configured)), taskQ(KVOS_ptrqCreate("testTaskQ", 64)),
          otherQ(KVOS_ptrqCreate("otherTaskQ", 64))
    {
        proc = *fsm_getDummyProcData();
        current = this;
    }
    ~Harness()
    {
        drain(otherQ);
        drain(taskQ);
        current = nullptr;
    }

    /* Registers s with `count` individuals whose data are `data` (may be
     * empty: no data). */
    GLOB_SPEC_D* add(SPECIE s, SPEC_DESC* desc, IND_COUNT count, KVOS_PTRQ_ID q, std::vector<IndData>* data)
    {
        GLOB_SPEC_D* d = sys.registerSpecie(s, desc, count, q);
        for (IND_COUNT i = 0; data != nullptr && i < count; ++i) {
            d->indInfoArray[i].pIndData = &(*data)[i];
        }
        return d;
    }

    /* A message from outside, handled as if the task had read it. */
    void deliver(MSGNAME m, FSMADDR dest, uint32_t seq = 0, FSMADDR src = {NO_SPECIE, NO_IND})
    {
        sys_interpretMsg(&proc, make(m, dest, seq, src));
    }
    static NORMBUF* make(MSGNAME m, FSMADDR dest, uint32_t seq, FSMADDR src = {NO_SPECIE, NO_IND})
    {
        NORMBUF* b = sys_getBuf(&dest, sizeof(seq));
        memcpy(fsm_msgBody(b), &seq, sizeof(seq));
        b->MsgName = m;
        b->Source = src;
        return b;
    }
    static uint32_t seqOf(const NORMBUF* b)
    {
        uint32_t seq = 0xFFFFFFFFu;
        if (b->BodyLength >= sizeof(seq)) {
            memcpy(&seq, fsm_msgBody(b), sizeof(seq));
        }
        return seq;
    }

    /* Handles whatever waits on a queue, the way a task's loop would. */
    void runQueue(KVOS_PTRQ_ID q)
    {
        void* item = nullptr;
        while (KVOS_ptrqCheck(q, &item) == 1) {
            sys_interpretMsg(&proc, static_cast<NORMBUF*>(item));
        }
    }

    std::vector<uint32_t> seqs(MSGNAME m) const
    {
        std::vector<uint32_t> out;
        for (const Event& e : events) {
            if (m == NO_MSGNAME || e.msg == m) {
                out.push_back(e.seq);
            }
        }
        return out;
    }

    /* The job of every test specie: records, then runs the test's hook. */
    static int job(PROC_DATA* p)
    {
        Harness* h = current;
        h->events.push_back(Event{p->ProcSELF, p->ProcMsgName, p->ProcState, p->ProcRecType,
                                  p->pProcMsg != nullptr ? seqOf(p->pProcMsg) : 0xFFFFFFFFu, p->ProcSENDER,
                                  p->ProcTask});
        if (h->hook) {
            h->hook(p);
        }
        return 0;
    }

    FsmSystem sys;
    KVOS_PTRQ_ID taskQ;
    KVOS_PTRQ_ID otherQ;
    PROC_DATA proc;
    std::vector<Event> events;
    std::function<void(PROC_DATA*)> hook;

private:
    void drain(KVOS_PTRQ_ID q)
    {
        void* item = nullptr;
        while (KVOS_ptrqCheck(q, &item) == 1) {
            fsm_returnMsgBuf(nullptr, static_cast<NORMBUF*>(item));
        }
        KVOS_ptrqDelete(q);
    }
};

}  // namespace fsm_test

#endif
