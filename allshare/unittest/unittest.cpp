/*
 * Self-test runner: context, checks, printer, registry and command line.
 *
 * Everything here is deliberately plain global state without locking: the
 * runner drives one unit at a time from one thread, and units report into
 * whatever context is current.
 *
 * All output goes through logUnitTestMsg, which stamps the local time at the
 * start of every line. It decides that a line starts by looking at the last
 * character of the previous *format* (not of the expanded text), so callers
 * that assemble a line from several calls end the line with a format that
 * itself ends in "\n".
 */
#include "unittest/unittest.h"

#include "libkvc/timeval.h"

#include <atomic>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <strings.h>

namespace {

constexpr size_t kCtxNameSize = 65;      // 64 characters and the terminator
constexpr size_t kRegistryNameSize = 64; // 63 characters and the terminator
constexpr const char* kRunLogPath = "/tmp/unittest.log";

struct unittest_ctx_t {
    const char* unitname;
    const char* testname;
    uint32_t step;
    uint32_t errors;
    uint32_t workinprogress;
    uint32_t tests;
    UNITTEST_MODE mode;
    FILE* fp;
    FILE* logfile;
};

char gUnitNameBuf[kCtxNameSize];
char gTestNameBuf[kCtxNameSize];

unittest_ctx_t ctx = {"(unit)", "(test)", 0, 0, 0, 0, UNITTEST_MODE_VERBOSE, nullptr, nullptr};

char lastch = '\n';

struct unittest_test {
    char testname[kRegistryNameSize];
    unittest_func func;
    UNITTEST_TYPE type;
};

struct lt_unitttest {
    bool operator()(const unittest_test* a, const unittest_test* b) const
    {
        return strcasecmp(a->testname, b->testname) < 0;
    }
};

using Registry = std::set<unittest_test*, lt_unitttest>;

// Never destroyed: registry records are never freed and stay reachable for
// the whole life of the process, including the records of duplicate names,
// which are dropped from the set but kept here.
Registry& registry()
{
    static Registry* r = new Registry;
    return *r;
}

std::set<unittest_test*>& droppedRecords()
{
    static auto* d = new std::set<unittest_test*>;
    return *d;
}

FILE* outStream(FILE* stream)
{
    return stream ? stream : stderr;
}

__attribute__((format(printf, 2, 3))) void logUnitTestMsg(FILE* stream, const char* format, ...)
{
    stream = outStream(stream);
    if (lastch == '\n') {
        const std::string stamp = timestamp_local_now();
        std::fprintf(stream, "%s ", stamp.c_str());
        if (ctx.logfile) {
            std::fprintf(ctx.logfile, "%s ", stamp.c_str());
        }
    }
    const size_t flen = std::strlen(format);
    lastch = flen ? format[flen - 1] : 'x';

    va_list args;
    va_start(args, format);
    if (ctx.logfile) {
        va_list copy;
        va_copy(copy, args);
        std::vfprintf(ctx.logfile, format, copy);
        va_end(copy);
    }
    std::vfprintf(stream, format, args);
    va_end(args);
    if (lastch == '\n') {
        std::fflush(stream);
    }
}

void setName(char* buf, const char*& field, const char* name)
{
    // The name may point into buf itself (a caller passing back the current
    // name), so go through a copy.
    std::string copy(name, strnlen(name, kCtxNameSize - 1));
    std::memcpy(buf, copy.c_str(), copy.size() + 1);
    field = buf;
}

void printCheck(const char* status, const char* file, unsigned int line, const char* expr)
{
    logUnitTestMsg(ctx.fp, "%s/%s/%d %s ", ctx.unitname, ctx.testname, ctx.step, status);
    logUnitTestMsg(ctx.fp, "at %s:%d '%s'", file, line, expr);
    logUnitTestMsg(ctx.fp, "\n");
}

void printPass()
{
    logUnitTestMsg(ctx.fp, "%s/%s/%d %s ", ctx.unitname, ctx.testname, ctx.step, "OK");
    logUnitTestMsg(ctx.fp, "\n");
}

} // namespace

void unittest_init(const char* unitname, UNITTEST_MODE mode)
{
    if (unitname) {
        setName(gUnitNameBuf, ctx.unitname, unitname);
    }
    ctx.step = 0;
    ctx.errors = 0;
    ctx.workinprogress = 0;
    ctx.tests = 0;
    ctx.mode = mode;
    ctx.fp = stderr;
}

void unittest_context(const char* testname)
{
    if (testname) {
        setName(gTestNameBuf, ctx.testname, testname);
    }
    ctx.step = 0;
}

void unittest_assert_(const char* file, unsigned int line, const char* expr, int cond)
{
    ++ctx.tests;
    ++ctx.step;
    if (!cond) {
        ++ctx.errors;
        printCheck("FAILED", file, line, expr);
    } else if (ctx.mode > UNITTEST_MODE_STANDARD) {
        printPass();
    }
}

void unittest_assert_description_(const char* file, unsigned int line, const char* description,
                                  int cond)
{
    ++ctx.tests;
    ++ctx.step;
    if (!cond) {
        ++ctx.errors;
        if (ctx.mode > UNITTEST_MODE_SUMMARY) {
            printCheck("FAILED", file, line, description);
        }
    } else if (ctx.mode > UNITTEST_MODE_SUMMARY) {
        printPass();
    }
}

void unittest_workInProgress_(const char* file, unsigned int line, const char* expr, int cond)
{
    ++ctx.tests;
    ++ctx.step;
    if (!cond) {
        ++ctx.workinprogress;
    }
    if (ctx.mode > UNITTEST_MODE_SUMMARY) {
        const char* status =
            cond ? "WORK IN PROGRESS TEST NOW PASSING - use unittest_assert() instead" : "WORK IN PROGRESS";
        logUnitTestMsg(ctx.fp, "%s/%s/%d %s at %s:%d in '%s'\n", ctx.unitname, ctx.testname, ctx.step,
                       status, file, line, expr);
    }
}

void unittest_log(UNITTEST_MODE mode, const char* message)
{
    if (ctx.mode >= mode) {
        logUnitTestMsg(ctx.fp, "%s/%s: %s\n", ctx.unitname, ctx.testname, message);
    }
}

uint32_t unittest_errors(void)
{
    return ctx.errors;
}

uint32_t unittest_numWorkInProgress(void)
{
    return ctx.workinprogress;
}

uint32_t unittest_tests(void)
{
    return ctx.tests;
}

uint32_t unittest_step(void)
{
    return ctx.step;
}

void unittest_register_test(const char* name, unittest_func func, UNITTEST_TYPE type)
{
    auto* rec = static_cast<unittest_test*>(std::malloc(sizeof(unittest_test)));
    if (!rec) {
        std::fprintf(stderr, "Unit test registration failed: Malloc failed!\n");
        return;
    }
    std::strncpy(rec->testname, name, kRegistryNameSize);
    rec->testname[kRegistryNameSize - 1] = '\0';
    rec->func = func;
    rec->type = type;
    if (!registry().insert(rec).second) {
        droppedRecords().insert(rec);
    }
}

namespace {
// Constant-initialised, so a product may install itself from a static
// initialiser in any order.
std::atomic<unittest_func> productRegistration{nullptr};
} // namespace

void unittest_set_product_registration(unittest_func registration)
{
    productRegistration.store(registration);
}

void unittest_register_tests(void)
{
    if (unittest_func registration = productRegistration.load()) {
        registration();
    }
}

void unittest_list(FILE* stream)
{
    logUnitTestMsg(stream, "Available tests:\n");
    for (const unittest_test* t : registry()) {
        logUnitTestMsg(stream, "%s\n", t->testname);
    }
    logUnitTestMsg(stream, "Number of tests: %d\n", static_cast<int>(registry().size()));
}

bool testMatcher::matches(const char* unitName) const
{
    return m_PartialTestName == nullptr || strcasestr(unitName, m_PartialTestName) != nullptr;
}

bool unittest_runAllMatching(FILE* stream, UNITTEST_MODE mode, UNITTEST_TYPE type,
                             const testMatcher& matcher, uint32_t& errorTotal)
{
    ctx.logfile = std::fopen(kRunLogPath, "w");

    uint32_t units = 0;
    uint32_t testTotal = 0;
    uint32_t wipTotal = 0;
    uint32_t errTotal = 0;
    std::string failing;

    for (const unittest_test* t : registry()) {
        if ((t->type & type) == 0 || !matcher.matches(t->testname)) {
            continue;
        }
        unittest_init(t->testname, mode);
        ctx.fp = stream;
        t->func();

        if (mode > 0) {
            if (ctx.errors) {
                logUnitTestMsg(stream, "%s FAILED (%d tests, %d errors)\n", t->testname, ctx.tests, ctx.errors);
            } else if (ctx.workinprogress) {
                logUnitTestMsg(stream,
                               "%s WORK IN PROGRESS (%d tests passed okay, %d flagged as work in progress)\n",
                               t->testname, ctx.tests, ctx.workinprogress);
            } else {
                logUnitTestMsg(stream, "%s OK (%d tests)\n", t->testname, ctx.tests);
            }
        }
        ++units;
        if (ctx.errors) {
            if (errTotal) {
                failing += ", ";
            }
            failing += t->testname;
            failing += " (" + std::to_string(ctx.errors) + " failure(s))";
            errTotal += ctx.errors;
        }
        wipTotal += ctx.workinprogress;
        testTotal += ctx.tests;
    }

    if (errTotal) {
        logUnitTestMsg(stream, "Failing tests(s): [ %s ] \n", failing.c_str());
    }
    if (units) {
        logUnitTestMsg(stream, "UNITTEST %s (%d units, %d tests, %d work in progress, %d errors)\n",
                       errTotal == 0 ? "OK" : "FAILED", units, testTotal, wipTotal, errTotal);
    } else {
        logUnitTestMsg(stream, "Error: Invalid unittest name or no tests available\n");
    }

    if (ctx.logfile) {
        std::fclose(ctx.logfile);
        ctx.logfile = nullptr;
    }
    errorTotal = errTotal;
    return errTotal == 0 && units > 0;
}

bool unittest_run(FILE* stream, const char* partialName, UNITTEST_MODE mode, UNITTEST_TYPE type,
                  uint32_t& errorTotal)
{
    testMatcher matcher;
    matcher.m_PartialTestName = partialName;
    return unittest_runAllMatching(stream, mode, type, matcher, errorTotal);
}

bool unittest_runAll(FILE* stream, UNITTEST_MODE mode, UNITTEST_TYPE type, uint32_t& errorTotal)
{
    return unittest_runAllMatching(stream, mode, type, testMatcher(), errorTotal);
}

int unittest_commandline(int argc, char** argv)
{
    unittest_register_tests();
    if (argc < 2) {
        return 0;
    }
    UNITTEST_MODE mode = UNITTEST_MODE_SUMMARY;
    UNITTEST_TYPE type = UNITTEST_TYPE_ALL;
    uint32_t errors = 0;

    // Every option is tested against every argument, in this order; an
    // argument matching none of them is ignored.
    for (int i = 1; i < argc; ++i) {
        const char* arg = argv[i];
        if (std::strcmp(arg, "-h") == 0) {
            std::printf("%s [--listunittest] [--verboseunittest] [--runallunittests] [--rununittest name] "
                        "[--exitunittests] [--fasttests] [--slowtests]\n",
                        argv[0]);
        }
        if (std::strcmp(arg, "--listunittest") == 0) {
            unittest_list(stdout);
        }
        if (std::strcmp(arg, "--verboseunittest") == 0 && mode < UNITTEST_MODE_VERBOSE) {
            mode = static_cast<UNITTEST_MODE>(mode + 1);
        }
        if (std::strcmp(arg, "--fasttests") == 0) {
            type = UNITTEST_TYPE_FAST;
        }
        if (std::strcmp(arg, "--slowtests") == 0) {
            type = UNITTEST_TYPE_SLOW;
        }
        if (std::strcmp(arg, "--runallunittests") == 0) {
            unittest_runAll(stdout, mode, type, errors);
        }
        if (std::strcmp(arg, "--rununittest") == 0) {
            if (i + 1 >= argc) {
                return 0;
            }
            // The fragment stands in for the option from here on, so a
            // fragment that is itself an option below still acts as one.
            arg = argv[++i];
            unittest_run(stdout, arg, mode, type, errors);
        }
        if (std::strcmp(arg, "--exitunittests") == 0) {
            std::fflush(nullptr);
            std::exit(0);
        }
    }
    return 0;
}
