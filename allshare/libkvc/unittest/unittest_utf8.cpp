/* Self-test of in-place UTF-8 case mapping. */
#include "libkvc/unittests.h"
#include "libkvc/utf8.h"
#include "unittest/unittest.h"

#include <cstring>

void unittest_utf8(void)
{
    unittest_context("case mapping");
    char ascii[] = "aAa";
    kvclib_utf8tolower(ascii, 3);
    unittest_assert(std::strcmp(ascii, "aaa") == 0);

    char umlauts[] = "\xC3\x84\xC3\x96 Stra\xC3\x9F" "e";  // "ÄÖ Straße"
    kvclib_utf8tolower(umlauts, static_cast<int>(std::strlen(umlauts)));
    unittest_assert(std::strcmp(umlauts, "\xC3\xA4\xC3\xB6 stra\xC3\x9F" "e") == 0);

    // "İ" lower-cases to "i" and a combining dot: three bytes where two are given.
    char dotted[] = "\xC4\xB0";
    kvclib_utf8tolower(dotted, 2);
    unittest_assert(std::strcmp(dotted, "\xC4\xB0") == 0);
    char sharpRoom[4] = "\xC3\x9F";
    kvclib_utf8toupper(sharpRoom, 2);
    unittest_assert(std::strcmp(sharpRoom, "SS") == 0);

    unittest_context("case-insensitive compare");
    const char* word = "gr\xC3\xBC\xC3\x9F" "e";  // "grüße"
    const char* upper = "GR\xC3\x9C\xC3\x9F" "E"; // "GRÜßE"
    unittest_assert(kvclib_utf8strncasecmp(word, upper, static_cast<unsigned>(std::strlen(word))) == 0);
    unittest_assert(kvclib_utf8strncasecmp("abc", "ABD", 3) < 0);
    unittest_assert(kvclib_utf8strncasecmp("abcX", "ABCy", 3) == 0);
}
