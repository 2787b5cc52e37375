/*
 * The self-test runner.
 *
 * One process-wide context records the unit and test being run, counts the
 * checks and prints one time-stamped line per check, according to the output
 * mode. Units (functions taking nothing) are entered in a registry and can be
 * listed and run, all of them or those whose names contain a fragment, from a
 * command line.
 *
 * Conventions:
 *  1. Check lines go to the stream set by the last unittest_init (stderr) or
 *     run (the stream given); during a registry run they are also copied to
 *     "/tmp/unittest.log", which each run truncates.
 *  2. Every printed line begins with a local time stamp, even when it is
 *     assembled by several printer calls.
 *  3. Checks never stop a unit: they only count and print.
 *  4. The runner is single-threaded; make checks from the thread that runs
 *     the unit.
 */
#ifndef UNITTEST_UNITTEST_H
#define UNITTEST_UNITTEST_H

#include <cstdint>
#include <cstdio>

#pragma GCC visibility push(default)

/* Output verbosity; a larger value prints more. */
typedef enum UNITTEST_MODE {
    UNITTEST_MODE_SUMMARY = 1,
    UNITTEST_MODE_STANDARD = 2,
    UNITTEST_MODE_DETAILED = 3,
    UNITTEST_MODE_VERBOSE = 4
} UNITTEST_MODE;

/* When a unit may run; a unit is selected when its type and the requested
 * type share a bit. */
typedef enum UNITTEST_TYPE {
    UNITTEST_TYPE_FAST = 1,
    UNITTEST_TYPE_SLOW = 2,
    UNITTEST_TYPE_HOST_ALL = 3,
    UNITTEST_TYPE_TARGET_ONLY = 4,
    UNITTEST_TYPE_ALL = 7
} UNITTEST_TYPE;

/** A unit: a function that makes checks and takes nothing. */
typedef void (*unittest_func)(void);

/* Begins a unit: names it (cut to 64 characters; a null name keeps the
 * previous one), zeroes step, errors, work in progress and checks, sets the
 * mode and sends output to stderr. */
void unittest_init(const char* unitname, UNITTEST_MODE mode);
/* Begins a named test inside the unit (cut to 64 characters; null keeps the
 * previous name); only the step number restarts. */
void unittest_context(const char* testname);

/* A check. A failure always prints "unit/test/step FAILED at file:line 'expr'";
 * a pass prints "unit/test/step OK" in DETAILED and VERBOSE mode only. */
void unittest_assert_(const char* file, unsigned int line, const char* expr, int cond);
/* A described check: prints both its OK and its FAILED line from STANDARD
 * mode up, and nothing in SUMMARY mode, where a failure is still counted. */
void unittest_assert_description_(const char* file, unsigned int line, const char* description,
                                  int cond);
/* A check of a feature known to be unfinished: a failure counts as work in
 * progress, never as an error; a pass says it should become a plain check. */
void unittest_workInProgress_(const char* file, unsigned int line, const char* expr, int cond);

/* Prints "unit/test: message" when the current mode is at least `mode`. */
void unittest_log(UNITTEST_MODE mode, const char* message);

/** Failed checks of the current unit so far. */
uint32_t unittest_errors(void);
/** Failed work-in-progress checks of the current unit so far. */
uint32_t unittest_numWorkInProgress(void);
/** Checks of the current unit so far, of every kind. */
uint32_t unittest_tests(void);
/** Number of the last check inside the current test (it restarts with unittest_context). */
uint32_t unittest_step(void);

#define unittest_assert(expr) unittest_assert_(__FILE__, __LINE__, #expr, (expr) ? 1 : 0)
#define unittest_assert_description(description, expr) \
    unittest_assert_description_(__FILE__, __LINE__, (description), (expr) ? 1 : 0)
#define unittest_workInProgress(expr) unittest_workInProgress_(__FILE__, __LINE__, #expr, (expr) ? 1 : 0)

/* Registry. Names are unique ignoring case (the first registration wins) and
 * are kept to 63 characters. Records live until the process ends. */
void unittest_register_test(const char* name, unittest_func func, UNITTEST_TYPE type);
/* Fills the registry through the product's registration function, when a
 * product has installed one; otherwise registers nothing. */
void unittest_register_tests(void);
/* Installs the function that registers the product's units (the runner never
 * calls into the product by name, so it links without one). A later call
 * replaces the earlier; null removes it. */
void unittest_set_product_registration(unittest_func registration);
/* The product's registration function: registers its units. A product
 * defines it and installs it with unittest_set_product_registration. */
void product_unittest_register_tests(void);

/* Prints "Available tests:", the names in case-insensitive order and
 * "Number of tests: N". */
void unittest_list(FILE* stream);

/* Selects units by name: all of them when m_PartialTestName is null, else
 * those containing it ignoring case. */
struct testMatcher {
    const char* m_PartialTestName = nullptr;
    /** True when unitName is selected: always without a fragment, else when it contains the
     * fragment ignoring case. */
    bool matches(const char* unitName) const;
};

/* Runs the selected units in registry order, printing a line per unit and a
 * closing summary. Stores the total of failed checks in errorTotal. True only
 * when at least one unit ran and none failed. */
bool unittest_runAllMatching(FILE* stream, UNITTEST_MODE mode, UNITTEST_TYPE type,
                             const testMatcher& matcher, uint32_t& errorTotal);
/** unittest_runAllMatching for the units whose names contain partialName ignoring case (all of them
 * when it is null). */
bool unittest_run(FILE* stream, const char* partialName, UNITTEST_MODE mode, UNITTEST_TYPE type,
                  uint32_t& errorTotal);
/** unittest_runAllMatching for every unit of the type. */
bool unittest_runAll(FILE* stream, UNITTEST_MODE mode, UNITTEST_TYPE type, uint32_t& errorTotal);

/* Registers the product's units, then acts on the options in the order given:
 * -h, --listunittest, --verboseunittest, --fasttests, --slowtests,
 * --runallunittests, --rununittest <fragment>, --exitunittests. Unknown
 * arguments are ignored. Always returns 0; results are only printed. */
int unittest_commandline(int argc, char** argv);

#pragma GCC visibility pop
#endif
