// Running and reporting a list of object-style tests.
#include "unittest/cplusplus/TestSuite.h"

#include "unittest/unittest.h"

#include <cassert>
#include <cstring>
#include <string>

TestSuite::TestSuite(const char* name)
{
    const size_t len = name ? strnlen(name, MAX_STRING_SIZE - 1) : 0;
    std::memcpy(mSuiteName, name ? name : "", len);
    mSuiteName[len] = '\0';
}

void TestSuite::addTest(ITest& test)
{
    addTest(&test);
}

void TestSuite::addTest(ITest* test)
{
    mTestsVec.push_back(test);
}

void TestSuite::addSuite(const TestSuite& other)
{
    // Index loop: other may be this suite, whose vector grows meanwhile.
    const size_t n = other.mTestsVec.size();
    for (size_t i = 0; i < n; ++i) {
        addTest(other.mTestsVec[i]);
    }
}

void TestSuite::reset()
{
    for (size_t i = 0; i < mTestsVec.size(); ++i) {
        assert(mTestsVec[i]);
        mTestsVec[i]->reset();
    }
}

void TestSuite::run()
{
    reset();
    for (size_t i = 0; i < mTestsVec.size(); ++i) {
        assert(mTestsVec[i]);
        mTestsVec[i]->run();
    }
}

uint32_t TestSuite::getNumPassed() const
{
    uint32_t total = 0;
    for (size_t i = 0; i < mTestsVec.size(); ++i) {
        assert(mTestsVec[i]);
        total += mTestsVec[i]->getNumPassed();
    }
    return total;
}

uint32_t TestSuite::getNumFailed() const
{
    uint32_t total = 0;
    for (size_t i = 0; i < mTestsVec.size(); ++i) {
        assert(mTestsVec[i]);
        total += mTestsVec[i]->getNumFailed();
    }
    return total;
}

uint32_t TestSuite::report() const
{
    const std::string header = std::string("\nSuite \"") + mSuiteName + "\"\n=======";
    unittest_log(UNITTEST_MODE_SUMMARY, header.c_str());
    uint32_t failures = 0;
    for (size_t i = 0; i < mTestsVec.size(); ++i) {
        assert(mTestsVec[i]);
        mTestsVec[i]->report();
        failures += mTestsVec[i]->getNumFailed();
    }
    const std::string total = "\nTotal failures: " + std::to_string(failures) + "\n";
    unittest_log(UNITTEST_MODE_SUMMARY, total.c_str());
    return failures;
}

void TestSuite::free()
{
    for (size_t i = 0; i < mTestsVec.size(); ++i) {
        delete mTestsVec[i];
        mTestsVec[i] = nullptr;
    }
}
