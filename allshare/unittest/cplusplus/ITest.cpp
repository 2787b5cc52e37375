// Counting and reporting of object-style checks.
#include "unittest/cplusplus/ITest.h"

#include "unittest/unittest.h"

#include <string>

ITest::~ITest() = default;

void ITest::reset()
{
    mNumPass = 0;
    mNumFail = 0;
}

void ITest::report() const
{
    const std::string line =
        "Passed: " + std::to_string(mNumPass) + "\tFailed: " + std::to_string(mNumFail) + "\n";
    unittest_log(UNITTEST_MODE_SUMMARY, line.c_str());
}

void ITest::doTest(bool condition, const char* expression, const char* file, unsigned line)
{
    if (condition) {
        doSucceed();
    } else {
        doFail(expression, file, line);
    }
}

void ITest::doSucceed()
{
    ++mNumPass;
}

void ITest::doFail(const char* expression, const char* file, unsigned line)
{
    ++mNumFail;
    const std::string text = std::string(" FAILURE: line ") + std::to_string(line) + " of " +
                             (file ? file : "") + " - \"" + (expression ? expression : "") + "\"\n";
    unittest_log(UNITTEST_MODE_SUMMARY, text.c_str());
    // The runner sees every object-style failure as one failed check, so the
    // enclosing unit is reported FAILED.
    unittest_assert_(kRunnerCheckFile, kRunnerCheckLine, "false", 0);
}
