#include "libkvc/timeval.h"

#include <gtest/gtest.h>

#include <ctime>
#include <regex>

namespace {

TIMEVAL tv(uint32_t s, uint32_t us)
{
    TIMEVAL t;
    t.tv_sec = s;
    t.tv_usec = us;
    return t;
}

bool same(const TIMEVAL& a, uint32_t s, uint32_t us)
{
    return a.tv_sec == s && a.tv_usec == us;
}

TEST(TimeVal, AddAndSubtract)
{
    struct Row {
        TIMEVAL a, b, sum, diff;
    } rows[] = {
        {tv(1, 600000), tv(2, 500000), tv(4, 100000), tv(0, 0)},   // a < b: difference is zero
        {tv(2, 500000), tv(1, 600000), tv(4, 100000), tv(0, 900000)},
        {tv(5, 0), tv(0, 999999), tv(5, 999999), tv(4, 1)},
        {tv(3, 3), tv(3, 3), tv(6, 6), tv(0, 0)},
        {tv(0, 999999), tv(0, 1), tv(1, 0), tv(0, 999998)},
    };
    for (const Row& r : rows) {
        TIMEVAL out;
        EXPECT_EQ(TimeVal_add(&r.a, &r.b, &out), &out);
        EXPECT_TRUE(same(out, r.sum.tv_sec, r.sum.tv_usec)) << out.tv_sec << "." << out.tv_usec;
        EXPECT_EQ(TimeVal_sub(&r.a, &r.b, &out), &out);
        EXPECT_TRUE(same(out, r.diff.tv_sec, r.diff.tv_usec)) << out.tv_sec << "." << out.tv_usec;
    }
}

// Unnormalised operands give zero and a message, except that an earlier
// first operand of a subtraction gives zero silently.
TEST(TimeVal, UnnormalisedOperands)
{
    const TIMEVAL bad = tv(1, 1000000), ok = tv(0, 5), early = tv(1, 0), lateBad = tv(2, 1000000);
    struct Row {
        TIMEVAL* (*f)(const TIMEVAL*, const TIMEVAL*, TIMEVAL*);
        const TIMEVAL* a;
        const TIMEVAL* b;
        const char* message;
    } rows[] = {
        {TimeVal_add, &bad, &ok, "TimeVal_add: Error: USEC not normalized\n"},
        {TimeVal_sub, &bad, &ok, "TimeVal_sub: Error: USEC not normalized\n"},
        {TimeVal_sub, &early, &lateBad, ""},
    };
    for (const Row& r : rows) {
        TIMEVAL out = tv(9, 9);
        testing::internal::CaptureStderr();
        r.f(r.a, r.b, &out);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), r.message);
        EXPECT_TRUE(same(out, 0, 0));
    }
}

TEST(TimeVal, Millis)
{
    TIMEVAL t;
    TimeVal_fromMillis(&t, 1234);
    EXPECT_TRUE(same(t, 1, 234000));
    EXPECT_EQ(TimeVal_toMillis(&t), 1234u);
    TIMEVAL big = tv(4294968, 0); // wraps in 32 bits
    EXPECT_EQ(TimeVal_toMillis(&big), static_cast<uint32_t>(4294968000ull));
    TimeVal_fromMillis(&t, UINT32_MAX);
    EXPECT_TRUE(same(t, 4294967, 295000));
    TIMEVAL copy;
    EXPECT_EQ(TimeVal_copy(&t, &copy), &copy);
    EXPECT_TRUE(same(copy, 4294967, 295000));
}

TEST(Timestamp, FormatAndClock)
{
    const std::regex shape("^\\d{4}-\\d{2}-\\d{2} \\d{2}:\\d{2}:\\d{2}$");
    time_t before = time(nullptr);
    std::string utc = timestamp_UTC_now();
    std::string local = timestamp_local_now();
    EXPECT_TRUE(std::regex_match(utc, shape)) << utc;
    EXPECT_TRUE(std::regex_match(local, shape)) << local;
    struct tm parts {};
    gmtime_r(&before, &parts);
    char expectDay[11];
    strftime(expectDay, sizeof expectDay, "%F", &parts);
    // The date can only differ if the test straddles midnight.
    if (utc.substr(11) != "00:00:00") {
        EXPECT_EQ(utc.substr(0, 10), expectDay);
    }
}

} // namespace
