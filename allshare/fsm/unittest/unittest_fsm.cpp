/* Self-test of the state-machine framework through the runner: the name
 * tables and lookups. */
#include <sstream>
#include <string>

#include "fsm/fsm.h"
#include "fsm/unittests.h"
#include "unittest/unittest.h"

namespace {

const char* const kUnitSpecies[] = {"UNIT_PING", "UNIT_PONG", nullptr};

void testNames()
{
    unittest_context("names");
    fsm_setProductSpecieNames(kUnitSpecies);
    sys_initGlobalData();
    unittest_assert(fsm_findSpecieFromName("fsm_timer") == FSM_TIMER);
    unittest_assert(fsm_findSpecieFromName("unit_pong") == FSM_MAKE_ID(FSMMOD_NONFSM, 1));
    unittest_assert(fsm_findMessageNameFromString("GEN_timer_1") == GEN_timer_1);
    unittest_assert(fsm_findMessageNameFromString("gen_timer_1") == NO_MSGNAME);
    unittest_assert(fsm_verifySpec(FSMSYS_FSM) && !fsm_verifySpec(FSMSYS_FSM + 1));
    std::ostringstream os;
    os << FSMADDR{FSM_TIMER, 0} << ' ' << FSMADDR{FSM_TIMER, NO_IND};
    unittest_assert(os.str() == "FSM_TIMER:0 FSM_TIMER:NO_IND");
}

}  // namespace

void unittest_fsm(void)
{
    testNames();
}
