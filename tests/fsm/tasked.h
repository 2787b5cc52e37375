/*
 * A framework running on real FSM tasks: the test catalogue, one task per
 * entry of `tasks`, species of the trivial kind (one job for every
 * message), the system timer started. Shut down (tick source included) when
 * it goes out of scope.
 */
#ifndef TESTS_FSM_TASKED_H
#define TESTS_FSM_TASKED_H

#include <string.h>

#include <string>
#include <vector>

#include "support.h"

namespace fsm_test {

/* A trivial specie: every message runs `job`; `reset` hands over the
 * individual's data. */
struct TrivialSpecie {
    TrivialSpecie(FUPTR job, FUPTR reset)
    {
        memset(states, 0, sizeof(states));
        states[0].pJob = job;
        strncpy(states[0].szName, "RUNNING", sizeof(states[0].szName) - 1);
        desc = SPEC_DESC{FSM_TYPE_TRIVIAL, nullptr, 0, nullptr, reset, states, nullptr};
    }
    TrivialSpecie(const TrivialSpecie&) = delete;
    TrivialSpecie& operator=(const TrivialSpecie&) = delete;

    SPEC_DESC desc;
    STATE_NAME states[2];
};

struct SpecieEntry {
    SPECIE specie;
    TrivialSpecie* type;
    unsigned task;  /* index into the task list */
    IND_COUNT count;
};

class TaskedSystem {
public:
    TaskedSystem(const std::vector<SpecieEntry>& species, unsigned tasks, int queueLength = 256)
    {
        initOnce();
        for (const SpecieEntry& e : species) {
            specs_.push_back(FSMSPECCONFIG{e.specie, &e.type->desc, e.task, e.count});
        }
        specs_.push_back(FSMSPECCONFIG{NO_SPECIE, nullptr, 0, 0});
        for (unsigned i = 0; i < tasks; ++i) {
            names_.push_back("timerT" + std::to_string(i));
        }
        for (unsigned i = 0; i < tasks; ++i) {
            // Jobs log and the sanitizers' frames are large: well above the
            // 16 KiB minimum of a task.
            KVOS_TASK_ATTR* attr = KVOS_taskAttrCreate();
            KVOS_taskAttrSetName(attr, names_[i].c_str());
            KVOS_taskAttrSetStackSize(attr, 512 * 1024);
            attrs_.push_back(attr);
            procs_.push_back(FSMPROCCONFIG{i, names_[i].c_str(), queueLength, attr});
        }
        fsm_setProductSpecieNames(kTestSpecies);
        sys_initFSMSystem(specs_.data());
        fsm_procSetup(procs_.data(), procs_.size(), specs_.data());
        sys_startSystemTimer();
    }
    ~TaskedSystem()
    {
        fsm_procShutdown();
        for (KVOS_TASK_ATTR* attr : attrs_) {
            KVOS_taskAttrDestroy(attr);
        }
    }
    TaskedSystem(const TaskedSystem&) = delete;
    TaskedSystem& operator=(const TaskedSystem&) = delete;

private:
    std::vector<FSMSPECCONFIG> specs_;
    std::vector<std::string> names_;
    std::vector<FSMPROCCONFIG> procs_;
    std::vector<KVOS_TASK_ATTR*> attrs_;
};

}  // namespace fsm_test

#endif
