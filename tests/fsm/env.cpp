/* Every process of the framework's suites runs with KVOS initialised over a
 * private path map. Death tests re-run the binary ("threadsafe"): a forked
 * child would have neither the reaper nor the FSM tasks. */
#include "support.h"

namespace {
struct FsmEnvironment : ::testing::Environment {
    void SetUp() override
    {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        fsm_test::initOnce();
    }
};
const auto* const gEnv = ::testing::AddGlobalTestEnvironment(new FsmEnvironment);
}  // namespace
