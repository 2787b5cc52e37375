// Uses three subsystems through the installed headers only: the list and
// string helpers, the crypto module's Base64, and the self-test runner, whose
// failed-check count is the exit status. It also includes the logging and OS
// abstraction headers, which need the installed definitions and dependencies.
#include "abstraction/kvos.h"
#include "kvlog/kvlog.h"
#include "libkvc/dlist.h"
#include "libkvc/strutil.h"
#include "systemkey/base64_funcs.h"
#include "unittest/unittest.h"

#include <cstring>

namespace {
struct Item {
    int value;
    Item* next;
    Item* prev;
};
} // namespace

int main()
{
    unittest_init("consumer", UNITTEST_MODE_STANDARD);

    unittest_context("list");
    Item a{1, nullptr, nullptr}, b{2, nullptr, nullptr};
    DList list;
    DList_makeDList(&list, &a, &a.next, &a.prev, nullptr);
    DList_insertLast(&list, &a);
    DList_insertLast(&list, &b);
    unittest_assert(DList_getCount(&list) == 2);
    unittest_assert(DList_getFirst(&list) == &a);

    unittest_context("base64");
    const unsigned char in[] = {'k', 'v', 'p'};
    char out[8];
    unittest_assert(base64Encode(in, 3, out, sizeof out) == 4);
    unittest_assert(std::strcmp(out, "a3Zw") == 0);

    unittest_context("strings");
    char buf[5];
    kvclib_strcpy(buf, "platform", sizeof buf);
    unittest_assert(std::strcmp(buf, "plat") == 0);

    return static_cast<int>(unittest_errors());
}
