// The three check kinds, their thresholds and line formats, and the printer.
#include "output.h"
#include "unittest/unittest.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <set>
#include <sstream>
#include <string>

namespace {

enum Kind { Plain, Described, Wip };

std::string check(Kind kind, UNITTEST_MODE mode, int cond)
{
    unittest_init("U", mode);
    unittest_context("T");
    testing::internal::CaptureStderr();
    switch (kind) {
    case Plain:
        unittest_assert_("f.cpp", 12, "x == y", cond);
        break;
    case Described:
        unittest_assert_description_("f.cpp", 12, "x equals y", cond);
        break;
    case Wip:
        unittest_workInProgress_("f.cpp", 12, "x == y", cond);
        break;
    }
    std::vector<std::string> lines = stampedLines(testing::internal::GetCapturedStderr());
    EXPECT_LE(lines.size(), 1u);
    return lines.empty() ? std::string("(nothing)") : lines[0];
}

const char* const kOk = "U/T/1 OK ";
const char* const kFailed = "U/T/1 FAILED at f.cpp:12 'x == y'";
const char* const kFailedDescribed = "U/T/1 FAILED at f.cpp:12 'x equals y'";
const char* const kWip = "U/T/1 WORK IN PROGRESS at f.cpp:12 in 'x == y'";
const char* const kWipPassing =
    "U/T/1 WORK IN PROGRESS TEST NOW PASSING - use unittest_assert() instead at f.cpp:12 in 'x == y'";

// Each check counts once whatever it prints: a failed described check in
// SUMMARY prints nothing but still counts as an error.
TEST(UnittestChecks, LinesAndCountersByKindModeAndOutcome)
{
    struct Row {
        Kind kind;
        UNITTEST_MODE mode;
        int cond;
        const char* line;
        uint32_t errors, wip;
    } rows[] = {
        {Plain, UNITTEST_MODE_SUMMARY, 1, "(nothing)", 0, 0},
        {Plain, UNITTEST_MODE_STANDARD, 1, "(nothing)", 0, 0},
        {Plain, UNITTEST_MODE_DETAILED, 1, kOk, 0, 0},
        {Plain, UNITTEST_MODE_VERBOSE, 1, kOk, 0, 0},
        {Plain, UNITTEST_MODE_SUMMARY, 0, kFailed, 1, 0},
        {Plain, UNITTEST_MODE_STANDARD, 0, kFailed, 1, 0},
        {Plain, UNITTEST_MODE_VERBOSE, 0, kFailed, 1, 0},
        {Described, UNITTEST_MODE_SUMMARY, 1, "(nothing)", 0, 0},
        {Described, UNITTEST_MODE_STANDARD, 1, kOk, 0, 0},
        {Described, UNITTEST_MODE_VERBOSE, 1, kOk, 0, 0},
        {Described, UNITTEST_MODE_SUMMARY, 0, "(nothing)", 1, 0},
        {Described, UNITTEST_MODE_STANDARD, 0, kFailedDescribed, 1, 0},
        {Described, UNITTEST_MODE_DETAILED, 0, kFailedDescribed, 1, 0},
        {Wip, UNITTEST_MODE_SUMMARY, 0, "(nothing)", 0, 1},
        {Wip, UNITTEST_MODE_STANDARD, 0, kWip, 0, 1},
        {Wip, UNITTEST_MODE_SUMMARY, 1, "(nothing)", 0, 0},
        {Wip, UNITTEST_MODE_STANDARD, 1, kWipPassing, 0, 0},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(testing::Message() << "kind " << r.kind << " mode " << r.mode << " cond " << r.cond);
        EXPECT_EQ(check(r.kind, r.mode, r.cond), r.line);
        EXPECT_EQ(unittest_tests(), 1u);
        EXPECT_EQ(unittest_step(), 1u);
        EXPECT_EQ(unittest_errors(), r.errors);
        EXPECT_EQ(unittest_numWorkInProgress(), r.wip);
    }
}

TEST(UnittestChecks, ContextRestartsStepOnlyAndInitRestartsAll)
{
    unittest_init("U", UNITTEST_MODE_SUMMARY);
    testing::internal::CaptureStderr();
    unittest_assert_("f", 1, "e", 0);
    unittest_assert_("f", 1, "e", 1);
    unittest_workInProgress_("f", 1, "e", 0);
    unittest_context("second");
    EXPECT_EQ(unittest_step(), 0u);
    unittest_assert_("f", 1, "e", 0);
    std::vector<std::string> lines = stampedLines(testing::internal::GetCapturedStderr());
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[1], "U/second/1 FAILED at f:1 'e'");
    EXPECT_EQ(unittest_tests(), 4u);
    EXPECT_EQ(unittest_errors(), 2u);
    EXPECT_EQ(unittest_numWorkInProgress(), 1u);

    unittest_init(nullptr, UNITTEST_MODE_SUMMARY); // keeps the unit name
    EXPECT_EQ(unittest_tests(), 0u);
    EXPECT_EQ(unittest_errors(), 0u);
    EXPECT_EQ(unittest_numWorkInProgress(), 0u);
    unittest_context(nullptr); // keeps the test name
    testing::internal::CaptureStderr();
    unittest_assert_("f", 2, "e", 0);
    lines = stampedLines(testing::internal::GetCapturedStderr());
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], "U/second/1 FAILED at f:2 'e'");

    // Names are cut to 64 characters.
    unittest_init(std::string(70, 'n').c_str(), UNITTEST_MODE_SUMMARY);
    unittest_context(std::string(70, 't').c_str());
    testing::internal::CaptureStderr();
    unittest_assert_("f", 1, "e", 0);
    EXPECT_EQ(stampedLines(testing::internal::GetCapturedStderr()),
              std::vector<std::string>{std::string(64, 'n') + "/" + std::string(64, 't') + "/1 FAILED at f:1 'e'"});
}

TEST(UnittestLog, PrintsAtOrBelowTheCurrentMode)
{
    struct Row {
        UNITTEST_MODE ctxMode, msgMode;
        bool printed;
    } rows[] = {
        {UNITTEST_MODE_SUMMARY, UNITTEST_MODE_SUMMARY, true},
        {UNITTEST_MODE_SUMMARY, UNITTEST_MODE_STANDARD, false},
        {UNITTEST_MODE_DETAILED, UNITTEST_MODE_DETAILED, true},
        {UNITTEST_MODE_DETAILED, UNITTEST_MODE_VERBOSE, false},
        {UNITTEST_MODE_VERBOSE, UNITTEST_MODE_SUMMARY, true},
    };
    for (const Row& r : rows) {
        unittest_init("U", r.ctxMode);
        unittest_context("T");
        testing::internal::CaptureStderr();
        unittest_log(r.msgMode, "hello");
        std::vector<std::string> lines = stampedLines(testing::internal::GetCapturedStderr());
        if (r.printed) {
            ASSERT_EQ(lines.size(), 1u);
            EXPECT_EQ(lines[0], "U/T: hello");
        } else {
            EXPECT_TRUE(lines.empty());
        }
    }
}

std::string stampOf(time_t t, bool local)
{
    struct tm tm;
    char buf[32];
    if (local) {
        localtime_r(&t, &tm);
    } else {
        gmtime_r(&t, &tm);
    }
    std::strftime(buf, sizeof buf, "%F %T", &tm);
    return buf;
}

// Lines carry the local time, not UTC: checked in zones on both sides of
// UTC, where the two differ by hours.
TEST(UnittestPrinter, LinesCarryTheLocalTime)
{
    const char* saved = std::getenv("TZ");
    const std::string savedRule = saved != nullptr ? saved : "";
    // POSIX rules: no zone files needed.
    for (const char* rule : {"KVT-5:30", "KVT+9"}) {
        setenv("TZ", rule, 1);
        tzset();
        unittest_init("U", UNITTEST_MODE_VERBOSE);
        unittest_context("T");
        const time_t before = std::time(nullptr);
        testing::internal::CaptureStderr();
        unittest_assert_("f", 1, "x", 1);
        unittest_log(UNITTEST_MODE_SUMMARY, "note");
        const std::string out = testing::internal::GetCapturedStderr();
        const time_t after = std::time(nullptr);
        std::set<std::string> local, utc;
        for (time_t t = before; t <= after; ++t) {
            local.insert(stampOf(t, true));
            utc.insert(stampOf(t, false));
        }
        std::istringstream in(out);
        std::string line;
        int lines = 0;
        while (std::getline(in, line)) {
            ++lines;
            EXPECT_EQ(local.count(line.substr(0, 19)), 1u) << rule << ": " << line;
            EXPECT_EQ(utc.count(line.substr(0, 19)), 0u) << rule << ": " << line;
            EXPECT_TRUE(line.size() > 19 && line[19] == ' ') << line;
        }
        EXPECT_EQ(lines, 2) << out;
    }
    if (saved != nullptr) {
        setenv("TZ", savedRule.c_str(), 1);
    } else {
        unsetenv("TZ");
    }
    tzset();
}

TEST(UnittestPrinter, OnlyTheFormatDecidesWhereALineStarts)
{
    unittest_init("U", UNITTEST_MODE_VERBOSE);
    unittest_context("T");
    testing::internal::CaptureStderr();
    // The expression's newline comes through "%s": the text after it is not
    // a new line as far as the printer knows, so it gets no time stamp.
    unittest_assert_("f", 1, "a\nb", 0);
    unittest_assert_("f", 2, "c", 1);
    std::string out = testing::internal::GetCapturedStderr();
    std::istringstream in(out);
    std::string first, second, third;
    std::getline(in, first);
    std::getline(in, second);
    std::getline(in, third);
    EXPECT_EQ(stampedLines(first + "\n")[0], "U/T/1 FAILED at f:1 'a");
    EXPECT_EQ(second, "b'");
    EXPECT_EQ(stampedLines(third + "\n")[0], "U/T/2 OK ");
}

} // namespace
