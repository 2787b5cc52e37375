/*
 * A named, ordered list of object-style tests (ITest) that are run and
 * reported together.
 *
 * The suite does not own its tests while they are in use: it keeps their
 * addresses. free() is the one operation that takes ownership: it deletes
 * every test and leaves null entries behind, after which every other
 * operation that walks the list aborts (a freed suite must not be used
 * again). Suites combined with addSuite share test objects, so free only one
 * of them.
 */
#ifndef UNITTEST_CPLUSPLUS_TESTSUITE_H
#define UNITTEST_CPLUSPLUS_TESTSUITE_H

#include "unittest/cplusplus/ITest.h"

#include <cstddef>
#include <cstdint>
#include <vector>

#pragma GCC visibility push(default)

/** A named list of ITest objects run and reported together (see the file note for ownership). */
class TestSuite {
public:
    static constexpr size_t MAX_STRING_SIZE = 100;

    /* Keeps at most MAX_STRING_SIZE - 1 characters of the name. */
    explicit TestSuite(const char* name);

    /** Appends the test; the suite keeps its address, the caller keeps ownership. */
    void addTest(ITest& test);
    /** Appends the test; the suite keeps the pointer, the caller keeps ownership until free(). */
    void addTest(ITest* test);
    /* Appends every test of other, in its order; no duplicate check. */
    void addSuite(const TestSuite& other);

    /* Resets every test, then runs them in the order added. */
    void run();
    /** Passed checks of all tests since their last reset. */
    uint32_t getNumPassed() const;
    /** Failed checks of all tests since their last reset. */
    uint32_t getNumFailed() const;
    /* Prints the header, one "Passed/Failed" line per test and the total;
     * returns the total of failures. */
    uint32_t report() const;
    /* Deletes every test and nulls its entry; the list keeps its length. */
    void free();
    /** The suite's name, as kept by the constructor. */
    const char* getName() const { return mSuiteName; }
    /** Entries in the list, freed ones included. */
    size_t size() const { return mTestsVec.size(); }

private:
    void reset();

    char mSuiteName[MAX_STRING_SIZE];
    std::vector<ITest*> mTestsVec;
};

#pragma GCC visibility pop
#endif
