/* Every process of test_abstraction runs with KVOS initialised over a
 * private path map. Death tests re-run the binary ("threadsafe"): a forked
 * child would have neither the reaper nor the dispatcher. */
#include <gtest/gtest.h>

#include "support.h"

namespace {
struct KvosEnvironment : ::testing::Environment {
    void SetUp() override
    {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        kvos_test::initOnce();
    }
};
const auto* const gEnv = ::testing::AddGlobalTestEnvironment(new KvosEnvironment);
}  // namespace
