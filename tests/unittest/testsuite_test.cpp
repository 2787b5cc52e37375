// Object-style tests: counting, the FAILURE line and its runner check, the
// suite report, sharing between suites and the end of a freed suite.
#include "output.h"
#include "unittest/cplusplus/ITest.h"
#include "unittest/cplusplus/TestSuite.h"
#include "unittest/unittest.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

// A test whose checks are given as a list of outcomes, made at line 100+i.
class Scripted : public ITest {
public:
    explicit Scripted(std::vector<bool> outcomes, int* destroyed = nullptr)
        : mOutcomes(std::move(outcomes)), mDestroyed(destroyed)
    {
    }
    ~Scripted() override
    {
        if (mDestroyed) {
            ++*mDestroyed;
        }
    }
    void run() override
    {
        ++runs;
        for (size_t i = 0; i < mOutcomes.size(); ++i) {
            doTest(mOutcomes[i], "x == y", "my_test.cpp", static_cast<unsigned>(100 + i));
        }
    }
    int runs = 0;

private:
    std::vector<bool> mOutcomes;
    int* mDestroyed;
};

class UsesMacro : public ITest {
public:
    void run() override
    {
        const int a = 1;
        ITEST_CHECK(a == 1);
        failLine = __LINE__ + 1;
        ITEST_CHECK(a == 2);
    }
    unsigned failLine = 0;
};

class TestSuiteTest : public testing::Test {
protected:
    void SetUp() override
    {
        unittest_init("U", UNITTEST_MODE_SUMMARY);
        unittest_context("T");
    }
};

// The FAILURE line carries the check's own location and is printed in every
// mode; each failure is one failed runner check, passes are none.
TEST_F(TestSuiteTest, FailureLineAndRunnerCheckInEveryMode)
{
    for (UNITTEST_MODE mode : {UNITTEST_MODE_SUMMARY, UNITTEST_MODE_STANDARD, UNITTEST_MODE_VERBOSE}) {
        unittest_init("U", mode);
        UsesMacro t;
        testing::internal::CaptureStderr();
        t.run();
        const std::string out = unstamp(testing::internal::GetCapturedStderr());
        const std::string failure =
            "U/T:  FAILURE: line " + std::to_string(t.failLine) + " of " + __FILE__ + " - \"a == 2\"\n";
        EXPECT_EQ(out.find(failure), 0u) << out;
        EXPECT_NE(out.find("U/T/1 FAILED at allshare/unittest/cplusplus/ITest:268 'false'\n"), std::string::npos);
        EXPECT_EQ(t.getNumPassed(), 1u);
        EXPECT_EQ(t.getNumFailed(), 1u);
        EXPECT_EQ(unittest_errors(), 1u) << "mode " << mode;
        EXPECT_EQ(unittest_tests(), 1u);
    }
}

TEST_F(TestSuiteTest, ReportFormat)
{
    Scripted a({true, true}), b({true, false});
    TestSuite suite("My suite"), empty("empty");
    suite.addTest(a);
    suite.addTest(&b);
    testing::internal::CaptureStderr();
    suite.run();
    testing::internal::GetCapturedStderr();
    testing::internal::CaptureStderr();
    EXPECT_EQ(suite.report(), 1u);
    EXPECT_EQ(empty.report(), 0u);
    EXPECT_EQ(unstamp(testing::internal::GetCapturedStderr()), "U/T: \n"
                                                               "Suite \"My suite\"\n"
                                                               "=======\n"
                                                               "U/T: Passed: 2\tFailed: 0\n"
                                                               "\n"
                                                               "U/T: Passed: 1\tFailed: 1\n"
                                                               "\n"
                                                               "U/T: \n"
                                                               "Total failures: 1\n"
                                                               "\n"
                                                               "U/T: \nSuite \"empty\"\n=======\n"
                                                               "U/T: \nTotal failures: 0\n\n");
    EXPECT_EQ(suite.getNumPassed(), 3u);
    EXPECT_EQ(suite.getNumFailed(), 1u);
}

TEST_F(TestSuiteTest, RunningTwiceResetsFirst)
{
    Scripted a({true, false, false});
    TestSuite suite("twice");
    suite.addTest(a);
    testing::internal::CaptureStderr();
    suite.run();
    suite.run();
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(a.runs, 2);
    EXPECT_EQ(suite.getNumPassed(), 1u);
    EXPECT_EQ(suite.getNumFailed(), 2u);
    EXPECT_EQ(unittest_errors(), 4u); // the runner keeps counting across runs
}

TEST_F(TestSuiteTest, NameIsKeptToNinetyNineCharacters)
{
    struct Row {
        size_t length, kept;
    } rows[] = {{0, 0}, {99, 99}, {100, 99}, {120, 99}};
    for (const Row& r : rows) {
        const std::string name(r.length, 'n');
        TestSuite suite(name.c_str());
        EXPECT_EQ(std::string(suite.getName()), std::string(r.kept, 'n')) << r.length;
    }
}

TEST_F(TestSuiteTest, AddSuiteSharesTheTestsInOrder)
{
    Scripted a({true}), b({false, false}), c({true, true, true});
    TestSuite first("first"), second("second");
    first.addTest(a);
    first.addTest(b);
    second.addTest(c);
    second.addSuite(first);
    second.addTest(a); // duplicates are not detected: a runs twice
    testing::internal::CaptureStderr();
    second.run();
    const std::string report = (second.report(), unstamp(testing::internal::GetCapturedStderr()));
    EXPECT_EQ((std::vector<int>{a.runs, b.runs, c.runs}), (std::vector<int>{2, 1, 1}));
    // The shared objects show the counts of the last run in both suites; a
    // ran twice without a reset between.
    EXPECT_EQ(first.getNumFailed(), 2u);
    EXPECT_EQ(first.getNumPassed(), 2u);
    const size_t pc = report.find("Passed: 3\tFailed: 0"), pa = report.find("Passed: 2\tFailed: 0"),
                 pb = report.find("Passed: 0\tFailed: 2"), total = report.find("Total failures: 2\n");
    EXPECT_TRUE(pc < pa && pa < pb && pb < total && total != std::string::npos) << report;

    TestSuite self("self"); // a suite added to itself doubles its list
    self.addTest(a);
    self.addSuite(self);
    EXPECT_EQ(self.size(), 2u);
}

TEST_F(TestSuiteTest, FreeDestroysEveryTestThroughItsVirtualDestructor)
{
    int destroyed = 0;
    TestSuite suite("free");
    suite.addTest(new Scripted({true}, &destroyed));
    suite.addTest(new Scripted({false}, &destroyed));
    suite.free();
    EXPECT_EQ(destroyed, 2);
    EXPECT_EQ(suite.size(), 2u);
    suite.free(); // null entries: deleting them again is harmless
    EXPECT_EQ(destroyed, 2);
}

TEST_F(TestSuiteTest, FailingSuiteMakesItsRunnerUnitFail)
{
    static int unitRuns;
    unitRuns = 0;
    unittest_register_test("unittest_testsuite_probe_failing", [] {
        ++unitRuns;
        Scripted bad({false});
        TestSuite suite("probe");
        suite.addTest(bad);
        suite.run();
        suite.report();
    }, UNITTEST_TYPE_FAST);
    testMatcher matcher;
    matcher.m_PartialTestName = "unittest_testsuite_probe_failing";
    uint32_t errorTotal = 0;
    testing::internal::CaptureStderr();
    const bool ok = unittest_runAllMatching(stderr, UNITTEST_MODE_SUMMARY, UNITTEST_TYPE_FAST, matcher, errorTotal);
    const std::string out = testing::internal::GetCapturedStderr();
    EXPECT_EQ(unitRuns, 1);
    EXPECT_FALSE(ok);
    EXPECT_EQ(errorTotal, 1u);
    EXPECT_NE(out.find("FAILED"), std::string::npos) << out;
}

using TestSuiteDeathTest = TestSuiteTest;

TEST_F(TestSuiteDeathTest, AFreedSuiteAbortsOnEveryWalk)
{
    auto freed = [] {
        TestSuite* s = new TestSuite("freed");
        s->addTest(new Scripted({true}));
        s->free();
        return s;
    };
    EXPECT_DEATH(freed()->run(), "mTestsVec\\[i\\]");
    EXPECT_DEATH(freed()->report(), "mTestsVec\\[i\\]");
    EXPECT_DEATH(freed()->getNumPassed(), "mTestsVec\\[i\\]");
    EXPECT_DEATH(freed()->getNumFailed(), "mTestsVec\\[i\\]");
}

} // namespace
