/* Self-test of the profiling table through the runner: the refusal while
 * enabled, the statistics of one entry, the operations on GLOB_DATA and
 * the exact rows of the table. */
#include <sstream>
#include <string>

#include "fsm/fsm.h"
#include "fsm/unittests.h"
#include "unittest/unittest.h"

namespace {

const char* const kUnitSpecies[] = {"UNIT_PING", "UNIT_PONG", nullptr};
constexpr SPECIE kPing = FSM_MAKE_ID(FSMMOD_NONFSM, 0);
constexpr SPECIE kPong = FSM_MAKE_ID(FSMMOD_NONFSM, 1);

std::string shown(GLOB_DATA* glob)
{
    std::ostringstream os;
    fsmprofiling_show(glob, os);
    return os.str();
}

bool contains(const std::string& text, const char* fragment)
{
    return text.find(fragment) != std::string::npos;
}

void testEnableAndRefusal(GLOB_DATA* glob)
{
    unittest_context("enable");
    fsmprofiling_disable(glob);
    unittest_assert(!fsmprofiling_enabled(glob));
    fsmprofiling_enable(glob);
    unittest_assert(fsmprofiling_enabled(glob));
    unittest_assert(shown(glob) ==
                    "Profiling is currently enabled. Disable profiling before showing profiling data.\n");
    fsmprofiling_disable(glob);
    unittest_assert(!contains(shown(glob), "Profiling is currently enabled"));
}

void testEntry(GLOB_DATA* glob)
{
    unittest_context("entry");
    fsmprofiling_clear(glob);
    fsmprofiling_update(glob, GEN_timer_1, kPing, timespec{0, 600000000});
    fsmprofiling_update(glob, GEN_timer_1, kPing, timespec{0, 900000000});
    fsmprofiling_update(glob, MNG_command, kPong, timespec{0, 500000000});
    const uint64_t key = (uint64_t{GEN_timer_1} << 32) | kPing;
    unittest_assert(glob->profiling.kv_map.count(key) == 1);
    const ProfilingData& d = glob->profiling.kv_map.at(key);
    unittest_assert(d.num == 2);
    unittest_assert(d.accum.tv_sec == 1 && d.accum.tv_nsec == 500000000);
    unittest_assert(d.min.tv_sec == 0 && d.min.tv_nsec == 600000000);
    unittest_assert(d.max.tv_sec == 0 && d.max.tv_nsec == 900000000);
    unittest_assert(std::string(d.name) == "GEN_timer_1");
}

void testTable(GLOB_DATA* glob)
{
    unittest_context("table");
    const std::string text = shown(glob);
    unittest_assert(contains(text, "MsgName                   Handler Specie              Num        Time       "
                                   "Min       Max       Avg   %M\n"));
    unittest_assert(contains(text, "GEN_timer_1               UNIT_PING                     2   1.5000000 "
                                   "0.6000000 0.9000000 0.7500000 75.0\n"));
    unittest_assert(contains(text, "MNG_command               UNIT_PONG                     1   0.5000000 "
                                   "0.5000000 0.5000000 0.5000000 25.0\n"));
    unittest_assert(contains(text, "Total:                                                  3   2.0000000\n"));
    fsmprofiling_clear(glob);
    unittest_assert(!contains(shown(glob), "GEN_timer_1"));
}

}  // namespace

void unittest_profiling(void)
{
    fsm_setProductSpecieNames(kUnitSpecies);
    sys_initGlobalData();
    GLOB_DATA* glob = sys_getGlob();
    testEnableAndRefusal(glob);
    testEntry(glob);
    testTable(glob);
}
