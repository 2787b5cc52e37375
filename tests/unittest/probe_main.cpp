/*
 * A runner with a registry of known outcomes, driven from the command line
 * by the command-line tests.
 */
#include "unittest/unittest.h"

namespace {

void passing()
{
    unittest_context("t");
    unittest_assert(1 + 1 == 2);
    unittest_assert(true);
    unittest_log(UNITTEST_MODE_VERBOSE, "verbose note");
}

void failingOnce()
{
    unittest_context("t");
    unittest_assert(1 == 2);
    unittest_assert(true);
}

void failingTwice()
{
    unittest_context("t");
    unittest_assert(false);
    unittest_assert(false);
}

void workInProgress()
{
    unittest_context("t");
    unittest_assert(true);
    unittest_workInProgress(false);
}

void slowUnit()
{
    unittest_context("t");
    unittest_assert(true);
}

void second()
{
    unittest_context("t");
    unittest_assert(false);
}

} // namespace

void product_unittest_register_tests(void)
{
    unittest_register_test("probe_pass", passing, UNITTEST_TYPE_FAST);
    unittest_register_test("probe_failOnce", failingOnce, UNITTEST_TYPE_FAST);
    unittest_register_test("probe_failTwice", failingTwice, UNITTEST_TYPE_FAST);
    unittest_register_test("probe_wip", workInProgress, UNITTEST_TYPE_FAST);
    unittest_register_test("Probe_Slow", slowUnit, UNITTEST_TYPE_SLOW);
    unittest_register_test("probe_target", slowUnit, UNITTEST_TYPE_TARGET_ONLY);
    // A duplicate ignoring case: the first registration stays.
    unittest_register_test("PROBE_PASS", second, UNITTEST_TYPE_FAST);
    // 70 characters: kept as its first 63.
    unittest_register_test("probe_long_0123456789012345678901234567890123456789012345678901234567",
                           passing, UNITTEST_TYPE_FAST);
}

int main(int argc, char** argv)
{
    unittest_set_product_registration(product_unittest_register_tests);
    return unittest_commandline(argc, argv);
}
