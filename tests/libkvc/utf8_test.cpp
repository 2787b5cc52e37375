#include "libkvc/utf8.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

std::string mapped(void (*f)(char*, int), const std::string& s, int len)
{
    std::vector<char> buf(s.begin(), s.end());
    buf.push_back('\0');
    f(buf.data(), len);
    return std::string(buf.data());
}

TEST(Utf8Case, MapsInPlaceWhenTheResultFits)
{
    struct Row {
        const char* in;
        int len;
        const char* lowered;
        const char* uppered;
    } rows[] = {
        {"aAa", 3, "aaa", "AAA"},
        {"\xC3\x84\xC3\x96", 4, "\xC3\xA4\xC3\xB6", "\xC3\x84\xC3\x96"},  // ÄÖ
        {"Stra\xC3\x9F" "e", 7, "stra\xC3\x9F" "e", "STRASSE"},            // ß grows to SS: 7 bytes fit
        {"\xC4\xB0x", 3, "\xC4\xB0x", "\xC4\xB0X"},                        // İ lowers to 3 bytes: no room
        {"ABC", 2, "abC", "ABC"},                                          // only len bytes are mapped
        {"A\xFF\xFE" "B", 4, "a\xFF\xFE" "b", "A\xFF\xFE" "B"},           // invalid bytes pass through
        {"", 0, "", ""},
    };
    for (const Row& r : rows) {
        EXPECT_EQ(mapped(kvclib_utf8tolower, r.in, r.len), r.lowered) << r.in;
        EXPECT_EQ(mapped(kvclib_utf8toupper, r.in, r.len), r.uppered) << r.in;
    }
}

TEST(Utf8Case, CutMultibyteCharacterAtTheEnd)
{
    // The length cuts "Ö" in half; GLib would read past it, the copy must not.
    std::vector<char> exact = {'\xC3', '\x84', '\xC3'};
    kvclib_utf8tolower(exact.data(), 3); // ASan proves no over-read
    EXPECT_EQ(exact[0], '\xC3');
}

TEST(Utf8StrNCaseCmp, ComparesLowerCaseFormsOverNBytes)
{
    struct Row {
        const char* a;
        const char* b;
        unsigned n;
        int sign;
    } rows[] = {
        {"hello", "HELLO", 5, 0},
        {"\xC3\xA4pfel", "\xC3\x84PFEL", 6, 0},
        {"abc", "abd", 3, -1},
        {"abd", "ABC", 3, 1},
        {"abcX", "ABCY", 3, 0},
        {"ab", "abc", 3, -1},
        {"", "", 0, 0},
    };
    for (const Row& r : rows) {
        int got = kvclib_utf8strncasecmp(r.a, r.b, r.n);
        EXPECT_EQ((got > 0) - (got < 0), r.sign) << r.a << " vs " << r.b;
    }
}

} // namespace
