/* Self-test of the bounded string helpers and time arithmetic. */
#include "libkvc/strutil.h"
#include "libkvc/timeval.h"
#include "libkvc/unittests.h"
#include "unittest/unittest.h"

#include <cstring>

namespace {

void testCopyAndConcat()
{
    unittest_context("copy and concat");
    char buf[8];
    std::memset(buf, 'x', sizeof buf);
    unittest_assert(std::strcmp(kvclib_strcpy(buf, "abc", 1), "") == 0);
    kvclib_strcpy(buf, "abcdefghij", 4);
    unittest_assert(std::strcmp(buf, "abc") == 0 && buf[4] == 'x');
    kvclib_strncpy(buf, sizeof buf, "abcdefghij", 2);
    unittest_assert(std::strcmp(buf, "ab") == 0);
    kvclib_strncpy(buf, 4, "abcdefghij", 6);
    unittest_assert(std::strcmp(buf, "abc") == 0);

    char cat[8] = "ab";
    kvclib_strncat(cat, "cdefghij", sizeof cat);
    unittest_assert(std::strcmp(cat, "abcdefg") == 0);
    char full[8] = "abcdefg";
    kvclib_strncat(full, "z", 4);
    unittest_assert(std::strcmp(full, "abc") == 0);
}

void testLookups()
{
    unittest_context("lookups");
    const char* table[] = {"INVITE", "ACK", "BYE", "ACKNOWLEDGE", nullptr};
    const char* empty[] = {nullptr};
    unittest_assert(kvclib_strToId(table, "bye") == 2);
    unittest_assert(kvclib_strToId(table, "Ack") == 1);
    unittest_assert(kvclib_strToId(table, "CANCEL") == -1);
    unittest_assert(kvclib_strToId(empty, "ack") == -1);
    unittest_assert(kvclib_strToIdLen(table, "acknowledgement", 11) == 3);
    unittest_assert(kvclib_strToIdLen(table, "acknowledgement", 3) == 1);
    unittest_assert(kvclib_strToIdLen(table, "ack", 0) == -1);
    unittest_assert(kvclib_strToIdLen(empty, "ack", 3) == -1);
}

void testConversions()
{
    unittest_context("conversions");
    unittest_assert(kvclib_strToUInt("123abc", 6) == 123);
    unittest_assert(kvclib_strToUInt("a123", 4) == 0);
    unittest_assert(kvclib_strToUInt("1234", 2) == 12);
    unittest_assert(kvclib_strToUInt("4294967296", 10) == 0); // wraps, no overflow check

    char hex[8];
    const unsigned char bytes[] = {0x00, 0xAB, 0x7F, 0xFF};
    unittest_assert(std::strcmp(kvclib_hexToString(hex, sizeof hex, bytes, 4), "00AB7F") == 0);
    unittest_assert(std::strcmp(kvclib_hexToString(hex, 1, bytes, 4), "") == 0);

    int64_t l = 42;
    unittest_assert(cstring_StringToLong("12x", &l) == -1 && l == 42);
    unittest_assert(cstring_StringToLong("", &l) == 0 && l == 0);
    unittest_assert(cstring_StringToLong(" -17", &l) == 0 && l == -17);
    uint64_t u = 0;
    unittest_assert(cstring_StringToULong("-1", &u) == 0 && u == UINT64_MAX);
}

void testTimeVal()
{
    unittest_context("timeval");
    TIMEVAL a, b, r;
    TimeVal_init(&a, 1, 2500000);
    unittest_assert(a.tv_sec == 3 && a.tv_usec == 500000);
    TimeVal_init(&a, 1, 600000);
    TimeVal_init(&b, 2, 500000);
    TimeVal_add(&a, &b, &r);
    unittest_assert(r.tv_sec == 4 && r.tv_usec == 100000);
    TimeVal_sub(&b, &a, &r);
    unittest_assert(r.tv_sec == 0 && r.tv_usec == 900000);
    TimeVal_sub(&a, &b, &r);
    unittest_assert(r.tv_sec == 0 && r.tv_usec == 0);
    unittest_assert(TimeVal_cmp(&a, &b) == -1 && TimeVal_cmp(&b, &a) == 1 && TimeVal_cmp(&a, &a) == 0);
    TimeVal_fromMillis(&r, 1234);
    unittest_assert(r.tv_sec == 1 && r.tv_usec == 234000 && TimeVal_toMillis(&r) == 1234);
    unittest_assert(timestamp_UTC_now().size() == 19 && timestamp_local_now().size() == 19);
}

} // namespace

void unittest_strutil(void)
{
    testCopyAndConcat();
    testLookups();
    testConversions();
    testTimeVal();
}
