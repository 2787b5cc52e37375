/* Every process of test_abstraction runs with KVOS initialised over a
 * private path map. */
#include <gtest/gtest.h>

#include "support.h"

namespace {
class KvosEnvironment : public ::testing::Environment {
public:
    void SetUp() override
    {
        // Death tests re-run the binary: a forked child of a process with
        // the reaper and the dispatcher running would have neither.
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        kvos_test::initOnce();
    }
};
const auto* const gEnv = ::testing::AddGlobalTestEnvironment(new KvosEnvironment);
}  // namespace
