// Registry, listing and in-process runs. The registry is process-wide and
// never emptied, so each test registers its units under a prefix of its own
// and looks only at those: the tests pass in any order, in one process or
// each in its own.
#include "output.h"
#include "unittest/unittest.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <strings.h>
#include <vector>

namespace {

std::string readStream(FILE* f)
{
    std::fflush(f);
    std::rewind(f);
    std::string out;
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) {
        out.append(buf, n);
    }
    return out;
}

std::string readFile(const char* path)
{
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

struct Captured {
    bool ok;
    uint32_t errors;
    std::string text;
};

Captured runFragment(const char* fragment, UNITTEST_MODE mode = UNITTEST_MODE_SUMMARY,
                     UNITTEST_TYPE type = UNITTEST_TYPE_ALL)
{
    FILE* f = std::tmpfile();
    Captured c{};
    c.errors = 12345;
    c.ok = unittest_run(f, fragment, mode, type, c.errors);
    c.text = readStream(f);
    std::fclose(f);
    return c;
}

void passes()
{
    unittest_assert(true);
}

void failsOnce()
{
    unittest_assert(false);
}

void failsTwice()
{
    unittest_assert(false);
    unittest_assert(false);
}

void wip()
{
    unittest_workInProgress(false);
    unittest_assert(true);
}

TEST(UnittestRegistry, ListIsCaseInsensitiveAndFirstRegistrationWins)
{
    unittest_register_test("reglist_Beta", passes, UNITTEST_TYPE_FAST);
    unittest_register_test("reglist_alpha", passes, UNITTEST_TYPE_FAST);
    unittest_register_test("REGLIST_ALPHA", failsOnce, UNITTEST_TYPE_FAST);
    unittest_register_test("reglist_gamma", passes, UNITTEST_TYPE_FAST);

    FILE* f = std::tmpfile();
    unittest_list(f);
    std::vector<std::string> lines = stampedLines(readStream(f));
    std::fclose(f);
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines.front(), "Available tests:");
    EXPECT_EQ(lines.back(), "Number of tests: " + std::to_string(lines.size() - 2));
    std::vector<std::string> ours;
    for (const std::string& l : lines) {
        if (strncasecmp(l.c_str(), "reglist_", 8) == 0) {
            ours.push_back(l);
        }
    }
    EXPECT_EQ(ours, (std::vector<std::string>{"reglist_alpha", "reglist_Beta", "reglist_gamma"}));

    Captured c = runFragment("reglist_alpha");
    EXPECT_TRUE(c.ok); // the passing first registration ran, not the failing duplicate

    const std::string name = "reglong_" + std::string(62, 'x'); // cut to 63 characters
    unittest_register_test(name.c_str(), passes, UNITTEST_TYPE_FAST);
    EXPECT_EQ(stampedLines(runFragment("reglong_").text).at(0), name.substr(0, 63) + " OK (1 tests)");
}

TEST(UnittestRun, ResultsAndSummaryLines)
{
    unittest_register_test("runrows_b_fails_twice", failsTwice, UNITTEST_TYPE_FAST);
    unittest_register_test("runrows_a_fails_once", failsOnce, UNITTEST_TYPE_FAST);
    unittest_register_test("runrows_c_passes", passes, UNITTEST_TYPE_FAST);
    unittest_register_test("runrows_d_wip", wip, UNITTEST_TYPE_SLOW);

    struct Row {
        const char* fragment;
        UNITTEST_TYPE type;
        bool ok;
        uint32_t errors;
        const char* lastLines; // the final one or two lines, '|' separated
    } rows[] = {
        {"RUNROWS_C", UNITTEST_TYPE_ALL, true, 0,
         "runrows_c_passes OK (1 tests)|UNITTEST OK (1 units, 1 tests, 0 work in progress, 0 errors)"},
        {"runrows_d", UNITTEST_TYPE_ALL, true, 0,
         "runrows_d_wip WORK IN PROGRESS (2 tests passed okay, 1 flagged as work in progress)|"
         "UNITTEST OK (1 units, 2 tests, 1 work in progress, 0 errors)"},
        {"runrows_d", UNITTEST_TYPE_FAST, false, 0, "Error: Invalid unittest name or no tests available"},
        {"nomatch", UNITTEST_TYPE_ALL, false, 0, "Error: Invalid unittest name or no tests available"},
        {"runrows_", UNITTEST_TYPE_FAST, false, 3,
         "Failing tests(s): [ runrows_a_fails_once (1 failure(s)), runrows_b_fails_twice (2 failure(s)) ] |"
         "UNITTEST FAILED (3 units, 4 tests, 0 work in progress, 3 errors)"},
        {"runrows_", UNITTEST_TYPE_HOST_ALL, false, 3,
         "Failing tests(s): [ runrows_a_fails_once (1 failure(s)), runrows_b_fails_twice (2 failure(s)) ] |"
         "UNITTEST FAILED (4 units, 6 tests, 1 work in progress, 3 errors)"},
    };
    for (const Row& r : rows) {
        Captured c = runFragment(r.fragment, UNITTEST_MODE_SUMMARY, r.type);
        EXPECT_EQ(c.ok, r.ok) << r.fragment;
        EXPECT_EQ(c.errors, r.errors) << r.fragment;
        std::vector<std::string> lines = stampedLines(c.text);
        std::string tail = lines.empty() ? "" : lines.back();
        if (std::string(r.lastLines).find('|') != std::string::npos && lines.size() >= 2) {
            tail = lines[lines.size() - 2] + "|" + tail;
        }
        EXPECT_EQ(tail, r.lastLines) << r.fragment;
    }
}

TEST(UnittestRun, FailedChecksPrintInRunOrderWithUnitLines)
{
    unittest_register_test("runorder_b_fails_twice", failsTwice, UNITTEST_TYPE_FAST);
    unittest_register_test("runorder_a_fails_once", failsOnce, UNITTEST_TYPE_FAST);
    Captured c = runFragment("runorder_");
    std::vector<std::string> lines = stampedLines(c.text);
    ASSERT_EQ(lines.size(), 7u);
    EXPECT_EQ(lines[0].rfind("runorder_a_fails_once/", 0), 0u) << lines[0];
    EXPECT_NE(lines[0].find("/1 FAILED at "), std::string::npos);
    EXPECT_NE(lines[0].find("'false'"), std::string::npos);
    EXPECT_EQ(lines[1], "runorder_a_fails_once FAILED (1 tests, 1 errors)");
    EXPECT_NE(lines[3].find("/2 FAILED at "), std::string::npos);
    EXPECT_EQ(lines[4], "runorder_b_fails_twice FAILED (2 tests, 2 errors)");
}

// The log file copies each run, truncated first; checks outside a run do
// not reach it.
TEST(UnittestRun, LogFileCopiesEachRunOnly)
{
    unittest_register_test("runlog_a_fails_once", failsOnce, UNITTEST_TYPE_FAST);
    unittest_register_test("runlog_c_passes", passes, UNITTEST_TYPE_FAST);
    Captured first = runFragment("runlog_", UNITTEST_MODE_VERBOSE);
    EXPECT_EQ(readFile("/tmp/unittest.log"), first.text);
    Captured second = runFragment("runlog_c");
    unittest_init("after", UNITTEST_MODE_VERBOSE);
    testing::internal::CaptureStderr();
    unittest_assert_("f", 1, "late", 0);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(readFile("/tmp/unittest.log"), second.text);
}

} // namespace
