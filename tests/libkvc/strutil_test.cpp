#include "libkvc/strutil.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>

namespace {

TEST(StrCpy, CopiesWithinSizeAndTerminates)
{
    struct Row {
        const char* src;
        int size;
        const char* expect;
    } rows[] = {
        {"abc", 1, ""}, {"abc", 3, "ab"}, {"abc", 4, "abc"}, {"abc", 8, "abc"}, {"", 4, ""},
    };
    for (const Row& r : rows) {
        char buf[8];
        std::memset(buf, '#', sizeof buf);
        EXPECT_EQ(kvclib_strcpy(buf, r.src, r.size), buf);
        EXPECT_STREQ(buf, r.expect) << r.src << " size " << r.size;
        // Nothing beyond the given size is written.
        for (int i = r.size; i < 8; ++i) {
            EXPECT_EQ(buf[i], '#') << "byte " << i;
        }
    }
}

TEST(StrNCpy, TakesAtMostSrcLenBytes)
{
    struct Row {
        int dstSize;
        const char* src;
        int srcLen;
        const char* expect;
    } rows[] = {
        {8, "abcdef", 2, "ab"}, {8, "abcdef", 0, ""}, {4, "abcdef", 6, "abc"}, {4, "abcdef", 3, "abc"},
        {8, "ab", 6, "ab"},
    };
    for (const Row& r : rows) {
        char buf[8];
        kvclib_strncpy(buf, r.dstSize, r.src, r.srcLen);
        EXPECT_STREQ(buf, r.expect) << r.src << " " << r.srcLen;
    }
}

TEST(StrNCat, StaysWithinDestinationSize)
{
    struct Row {
        const char* start;
        const char* add;
        unsigned size;
        const char* expect;
    } rows[] = {
        {"ab", "cd", 8, "abcd"},   {"ab", "cdefghij", 8, "abcdefg"}, {"abcdefg", "x", 8, "abcdefg"},
        {"abcdefg", "x", 4, "abc"}, // already too long: cut, nothing appended
        {"abc", "x", 4, "abc"},     // exactly size - 1: nothing appended
        {"", "xyz", 1, ""},         {"ab", "", 8, "ab"},
    };
    for (const Row& r : rows) {
        char buf[16];
        std::strcpy(buf, r.start);
        EXPECT_EQ(kvclib_strncat(buf, r.add, r.size), buf);
        EXPECT_STREQ(buf, r.expect) << r.start << "+" << r.add << " size " << r.size;
    }
    char full[4] = {'a', 'b', 'c', 'd'}; // no terminator within the size: read only within it
    kvclib_strncat(full, "x", sizeof full);
    EXPECT_STREQ(full, "abc");
    kvclib_strncat(full, "x", 0); // zero size writes nothing
    EXPECT_STREQ(full, "abc");
}

// The first case-insensitive match wins; the length form also needs the
// entry's length to equal the given one.
TEST(StrToId, FirstCaseInsensitiveMatch)
{
    const char* table[] = {"alpha", "Beta", "BETA", "gamma", nullptr};
    const char* empty[] = {nullptr};
    EXPECT_EQ(kvclib_strToId(table, "ALPHA"), 0);
    EXPECT_EQ(kvclib_strToId(table, "beta"), 1);
    EXPECT_EQ(kvclib_strToId(table, "gam"), -1);
    EXPECT_EQ(kvclib_strToId(table, ""), -1);
    EXPECT_EQ(kvclib_strToId(empty, "alpha"), -1);

    const char* lens[] = {"ab", "abc", "ABCD", nullptr};
    struct Row {
        const char* str;
        unsigned len;
        int expect;
    } rows[] = {
        {"abcdef", 2, 0}, {"abcdef", 3, 1}, {"ABcdef", 4, 2}, {"abcdef", 5, -1},
        {"abcdef", 1, -1}, {"abcdef", 0, -1}, {"ab", 3, -1},
    };
    for (const Row& r : rows) {
        EXPECT_EQ(kvclib_strToIdLen(lens, r.str, r.len), r.expect) << r.str << " " << r.len;
    }
    EXPECT_EQ(kvclib_strToIdLen(empty, "ab", 2), -1);
}

TEST(StrToUInt, LeadingDigitsWithinLength)
{
    struct Row {
        const char* str;
        unsigned len;
        uint32_t expect;
    } rows[] = {
        {"123abc", 6, 123}, {"abc123", 6, 0}, {"1234", 2, 12}, {"1234", 0, 0}, {"", 5, 0},
        {"4294967295", 10, 4294967295u}, {"4294967296", 10, 0}, // wraps modulo 2^32
        {"-5", 2, 0}, {"007", 3, 7},
    };
    for (const Row& r : rows) {
        EXPECT_EQ(kvclib_strToUInt(r.str, r.len), r.expect) << r.str << " " << r.len;
    }
}

TEST(HexToString, LimitedBySmallerOfDestinationAndSource)
{
    const unsigned char src[] = {0x01, 0xAB, 0xFF, 0x00};
    struct Row {
        unsigned dstSize;
        unsigned srcLen;
        const char* expect;
    } rows[] = {
        {9, 4, "01ABFF00"}, {8, 4, "01ABFF"}, {1, 4, ""}, {2, 4, ""}, {3, 4, "01"}, {9, 0, ""}, {9, 2, "01AB"},
    };
    for (const Row& r : rows) {
        char buf[12];
        std::memset(buf, '#', sizeof buf);
        EXPECT_STREQ(kvclib_hexToString(buf, r.dstSize, src, r.srcLen), r.expect);
        for (unsigned i = r.dstSize; i < sizeof buf; ++i) {
            EXPECT_EQ(buf[i], '#');
        }
    }
}

TEST(StringToLong, WholeStringMustBeConsumed)
{
    struct Row {
        const char* str;
        int rc;
        int64_t value;
    } rows[] = {
        {"0", 0, 0}, {"", 0, 0}, {"  42", 0, 42}, {"-9223372036854775808", 0, INT64_MIN},
        {"+7", 0, 7}, {"12x", -1, 0}, {"12 ", -1, 0}, {"abc", -1, 0}, {"0x10", -1, 0},
    };
    for (const Row& r : rows) {
        int64_t v = 555;
        EXPECT_EQ(cstring_StringToLong(r.str, &v), r.rc) << '"' << r.str << '"';
        EXPECT_EQ(v, r.rc == 0 ? r.value : 555) << '"' << r.str << '"';
    }
}

TEST(StringToULong, UsesTheSignedConversion)
{
    uint64_t v = 3;
    EXPECT_EQ(cstring_StringToULong("-1", &v), 0);
    EXPECT_EQ(v, UINT64_MAX);
    EXPECT_EQ(cstring_StringToULong("18446744073709551615", &v), 0);
    EXPECT_EQ(v, static_cast<uint64_t>(INT64_MAX)); // clamped by strtoll
    v = 3;
    EXPECT_EQ(cstring_StringToULong("1.5", &v), -1);
    EXPECT_EQ(v, 3u);
}

TEST(StrUtilDeathTest, NullArgumentsAndBadSizesAssert)
{
    char buf[4];
    const char* table[] = {nullptr};
    EXPECT_DEATH(kvclib_strcpy(nullptr, "a", 4), "pDstBuf != NULL");
    EXPECT_DEATH(kvclib_strcpy(buf, nullptr, 4), "pSrcBuf != NULL");
    EXPECT_DEATH(kvclib_strcpy(buf, "a", 0), "iDstSize > 0");
    // A negative source length is a fault of the caller, not a request to copy.
    EXPECT_DEATH(kvclib_strncpy(buf, 4, "abc", -1), "iSrcLen >= 0");
    EXPECT_DEATH(kvclib_strncpy(buf, 4, "abc", INT_MIN), "iSrcLen >= 0");
    EXPECT_DEATH(kvclib_strToId(table, nullptr), "szStr != NULL");
    EXPECT_DEATH(kvclib_strToId(nullptr, "a"), "pszStrings != NULL");
    EXPECT_DEATH(kvclib_strToIdLen(nullptr, "a", 1), "pszStrings != NULL");
}

} // namespace
