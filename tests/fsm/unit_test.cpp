/* The registered self-test unit, run through the runner in a process where
 * KVOS runs, so that its task part runs too. */
#include "fsm/unittests.h"
#include "support.h"
#include "unittest/unittest.h"

TEST(FsmUnitTest, RegisteredUnitPassesWithTasks)
{
    fsm_test::initOnce();
    testing::internal::CaptureStderr();
    unittest_init("unittest_fsm", UNITTEST_MODE_VERBOSE);
    unittest_fsm();
    std::string out = testing::internal::GetCapturedStderr();
    EXPECT_EQ(0u, unittest_errors()) << out;
    EXPECT_EQ(std::string::npos, out.find("task checks not run")) << out;
    EXPECT_NE(std::string::npos, out.find("unittest_fsm/tasks/")) << out;
    EXPECT_GE(unittest_tests(), 25u);
}
