/* Self-test of KVOS pointer queues: put and get, full and empty, the dump,
 * order across the ring wrap and the kept 32-bit wrap of timed waits. Runs
 * without KVOS_init, so it measures time on the monotonic clock. */
#include <stdint.h>

#include <string>

#include "abstraction/kvmisc.h"
#include "abstraction/kvos_ptrq.h"
#include "abstraction/unittests.h"
#include "unittest/unittest.h"

namespace {

std::string gDump;

int collect(int, const void* text, unsigned length)
{
    gDump.append(static_cast<const char*>(text), length);
    return 0;
}

void* item(uintptr_t v)
{
    return reinterpret_cast<void*>(v);
}

void testPostPend()
{
    unittest_context("post and pend");
    KVOS_PTRQ_ID q = KVOS_ptrqCreate("FOOQ", 100);
    unittest_assert(q != KVOS_NO_PTRQ_ID);
    unittest_assert(KVOS_ptrqPost(q, item(0xDEADBEEF)) == 1);
    void* got = nullptr;
    unittest_assert(KVOS_ptrqPendTimeout(q, &got, 10) == KV_RET_OK);
    unittest_assert(got == item(0xDEADBEEF));
    uint64_t t0 = KVMISC_now64();
    unittest_assert(KVOS_ptrqPendTimeout(q, &got, 20) == KV_RET_TIMEOUT);
    unittest_assert(KVMISC_now64() - t0 >= 20000);
    KVOS_ptrqDelete(q);
}

void testFull()
{
    unittest_context("full and empty");
    KVOS_PTRQ_ID q = KVOS_ptrqCreate("ONEQ", 1);
    unittest_assert(KVOS_ptrqPost(q, item(1)) == 1);
    unittest_assert(KVOS_ptrqPost(q, item(2)) == 0);
    unittest_assert(q->timesFull == 1);
    void* got = nullptr;
    unittest_assert(KVOS_ptrqCheck(q, &got) == 1 && got == item(1));
    unittest_assert(KVOS_ptrqCheck(q, &got) == 0);
    KVOS_ptrqDelete(q);
}

void testDump()
{
    unittest_context("dump");
    KVOS_PTRQ_ID q = KVOS_ptrqCreate("UNITQ", 5);
    for (uintptr_t i = 1; i <= 3; ++i) {
        KVOS_ptrqPost(q, item(i));
    }
    void* got;
    for (int i = 0; i < 3; ++i) {
        KVOS_ptrqPend(q, &got);
    }
    gDump.clear();
    KVOS_ptrqDump(collect, 0);
    unittest_assert(gDump.compare(0, 63, "Name        Max       Curr      Tot       QFull     Watermark \n") == 0);
    unittest_assert(gDump.find("\nUNITQ       5         0         3         0         3         \n") !=
                    std::string::npos);
    KVOS_ptrqDelete(q);
    gDump.clear();
    KVOS_ptrqDump(collect, 0);
    unittest_assert(gDump.find("UNITQ") == std::string::npos);
}

void testWrap()
{
    unittest_context("ring wrap");
    KVOS_PTRQ_ID q = KVOS_ptrqCreate("WRAPQ", 3);
    uintptr_t next = 1, expected = 1;
    bool inOrder = true;
    for (int round = 0; round < 5; ++round) {
        KVOS_ptrqPost(q, item(next++));
        KVOS_ptrqPost(q, item(next++));
        void* got;
        KVOS_ptrqCheck(q, &got);
        inOrder = inOrder && got == item(expected++);
        KVOS_ptrqCheck(q, &got);
        inOrder = inOrder && got == item(expected++);
    }
    unittest_assert(inOrder);
    unittest_assert(q->putIndex == 10 % 3 && q->getIndex == 10 % 3);
    KVOS_ptrqDelete(q);
}

void testTimedWrap()
{
    unittest_context("timed wait wrap");
    // ms * 1000000 wraps in signed 32 bits: 3000 ms is already past.
    KVOS_PTRQ_ID q = KVOS_ptrqCreate("TIMEDQ", 2);
    void* got;
    uint64_t t0 = KVMISC_now64();
    unittest_assert(KVOS_ptrqPendTimeout(q, &got, 3000) == KV_RET_TIMEOUT);
    unittest_assert(KVMISC_now64() - t0 < 100000);
    KVOS_ptrqDelete(q);
}

}  // namespace

void unittest_kvos_ptrq(void)
{
    testPostPend();
    testFull();
    testDump();
    testWrap();
    testTimedWrap();
}
