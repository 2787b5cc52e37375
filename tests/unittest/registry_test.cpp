// Registry, listing and in-process runs. Each test runs in its own process
// (ctest), so registrations do not leak between tests.
#include "output.h"
#include "unittest/unittest.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

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
    unittest_register_test("rt_Beta", passes, UNITTEST_TYPE_FAST);
    unittest_register_test("rt_alpha", passes, UNITTEST_TYPE_FAST);
    unittest_register_test("RT_ALPHA", failsOnce, UNITTEST_TYPE_FAST);
    unittest_register_test("rt_gamma", passes, UNITTEST_TYPE_FAST);

    FILE* f = std::tmpfile();
    unittest_list(f);
    std::vector<std::string> lines = stampedLines(readStream(f));
    std::fclose(f);
    EXPECT_EQ(lines, (std::vector<std::string>{"Available tests:", "rt_alpha", "rt_Beta", "rt_gamma",
                                               "Number of tests: 3"}));

    Captured c = runFragment("rt_alpha");
    EXPECT_TRUE(c.ok); // the passing first registration ran, not the failing duplicate
}

TEST(UnittestRegistry, LongNamesAreCutTo63Characters)
{
    const std::string name = "rt_" + std::string(67, 'x'); // 70 characters
    unittest_register_test(name.c_str(), passes, UNITTEST_TYPE_FAST);
    Captured c = runFragment("rt_", UNITTEST_MODE_SUMMARY);
    std::vector<std::string> lines = stampedLines(c.text);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines[0], name.substr(0, 63) + " OK (1 tests)");
}

TEST(UnittestRun, ResultsAndSummaryLines)
{
    unittest_register_test("rt_b_fails_twice", failsTwice, UNITTEST_TYPE_FAST);
    unittest_register_test("rt_a_fails_once", failsOnce, UNITTEST_TYPE_FAST);
    unittest_register_test("rt_c_passes", passes, UNITTEST_TYPE_FAST);
    unittest_register_test("rt_d_wip", wip, UNITTEST_TYPE_SLOW);

    struct Row {
        const char* fragment;
        UNITTEST_TYPE type;
        bool ok;
        uint32_t errors;
        const char* lastLines; // the final one or two lines, '|' separated
    } rows[] = {
        {"RT_C", UNITTEST_TYPE_ALL, true, 0, "rt_c_passes OK (1 tests)|UNITTEST OK (1 units, 1 tests, 0 work in progress, 0 errors)"},
        {"rt_d", UNITTEST_TYPE_ALL, true, 0,
         "rt_d_wip WORK IN PROGRESS (2 tests passed okay, 1 flagged as work in progress)|"
         "UNITTEST OK (1 units, 2 tests, 1 work in progress, 0 errors)"},
        {"rt_d", UNITTEST_TYPE_FAST, false, 0, "Error: Invalid unittest name or no tests available"},
        {"nomatch", UNITTEST_TYPE_ALL, false, 0, "Error: Invalid unittest name or no tests available"},
        {"fails", UNITTEST_TYPE_ALL, false, 3,
         "Failing tests(s): [ rt_a_fails_once (1 failure(s)), rt_b_fails_twice (2 failure(s)) ] |"
         "UNITTEST FAILED (2 units, 3 tests, 0 work in progress, 3 errors)"},
        {"rt_", UNITTEST_TYPE_HOST_ALL, false, 3,
         "Failing tests(s): [ rt_a_fails_once (1 failure(s)), rt_b_fails_twice (2 failure(s)) ] |"
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
    unittest_register_test("rt_b_fails_twice", failsTwice, UNITTEST_TYPE_FAST);
    unittest_register_test("rt_a_fails_once", failsOnce, UNITTEST_TYPE_FAST);
    Captured c = runFragment("rt_");
    std::vector<std::string> lines = stampedLines(c.text);
    ASSERT_EQ(lines.size(), 7u);
    EXPECT_EQ(lines[0].rfind("rt_a_fails_once/", 0), 0u) << lines[0];
    EXPECT_NE(lines[0].find("/1 FAILED at "), std::string::npos);
    EXPECT_NE(lines[0].find("'false'"), std::string::npos);
    EXPECT_EQ(lines[1], "rt_a_fails_once FAILED (1 tests, 1 errors)");
    EXPECT_NE(lines[3].find("/2 FAILED at "), std::string::npos);
    EXPECT_EQ(lines[4], "rt_b_fails_twice FAILED (2 tests, 2 errors)");
}

TEST(UnittestRun, LogFileCopiesTheRunAndIsTruncatedEachTime)
{
    unittest_register_test("rt_a_fails_once", failsOnce, UNITTEST_TYPE_FAST);
    unittest_register_test("rt_c_passes", passes, UNITTEST_TYPE_FAST);
    Captured first = runFragment("rt_", UNITTEST_MODE_VERBOSE);
    EXPECT_EQ(readFile("/tmp/unittest.log"), first.text);
    Captured second = runFragment("rt_c");
    EXPECT_EQ(readFile("/tmp/unittest.log"), second.text);
}

TEST(UnittestRun, ChecksOutsideARunDoNotReachTheLogFile)
{
    unittest_register_test("rt_c_passes", passes, UNITTEST_TYPE_FAST);
    Captured c = runFragment("rt_c");
    unittest_init("after", UNITTEST_MODE_VERBOSE);
    testing::internal::CaptureStderr();
    unittest_assert_("f", 1, "late", 0);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(readFile("/tmp/unittest.log"), c.text);
}

} // namespace
