/*
 * Object-style tests for the self-test runner.
 *
 * A test is a class derived from ITest whose run() makes its checks through
 * ITEST_CHECK (or doTest/doFail directly). Each test counts its own passes and
 * failures; a failure is additionally printed as a "FAILURE:" line through
 * unittest_log and recorded as one failed check of the runner, so the unit
 * that runs the test reports FAILED even when nobody looks at the counters.
 *
 * Tests are grouped and reported by TestSuite (TestSuite.h).
 */
#ifndef UNITTEST_CPLUSPLUS_ITEST_H
#define UNITTEST_CPLUSPLUS_ITEST_H

#include <cstdint>

#pragma GCC visibility push(default)

/** Base of an object-style test (see the file note). Derive from it, implement run() and check with
 * ITEST_CHECK. */
class ITest {
public:
    ITest() = default;
    virtual ~ITest();

    /* The test body. */
    virtual void run() = 0;
    /* Forgets earlier results; TestSuite calls it before every run. */
    virtual void reset();

    /** Checks passed since the last reset. */
    uint32_t getNumPassed() const { return mNumPass; }
    /** Checks failed since the last reset. */
    uint32_t getNumFailed() const { return mNumFail; }
    /* Prints "Passed: P\tFailed: F" through unittest_log (SUMMARY mode). */
    void report() const;

    /* The file and line every object-style failure is recorded under as a
     * runner check (with the expression "false"); the FAILURE line printed
     * beside it carries the real location. */
    static constexpr const char* kRunnerCheckFile = "allshare/unittest/cplusplus/ITest";
    static constexpr unsigned kRunnerCheckLine = 268;

protected:
    /* Counts a pass when condition holds, else a failure (see doFail). */
    void doTest(bool condition, const char* expression, const char* file, unsigned line);
    /* Counts a failure, prints
     *   " FAILURE: line <line> of <file> - \"<expression>\"\n"
     * in every output mode and records one failed runner check. */
    void doFail(const char* expression, const char* file, unsigned line);
    /* Counts a pass; prints nothing. */
    void doSucceed();

    uint32_t mNumPass = 0;
    uint32_t mNumFail = 0;
};

/* Check inside an ITest member: ITEST_CHECK(a == b). */
#define ITEST_CHECK(expr) doTest((expr) ? true : false, #expr, __FILE__, __LINE__)

#pragma GCC visibility pop
#endif
