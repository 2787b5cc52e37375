/*
 * The product's self-test units. Registration order does not matter: the
 * registry sorts names ignoring case. The registration installs itself with
 * the runner when this object is loaded, so the runner needs no reference to
 * the product.
 */
#include "abstraction/unittests.h"
#include "fsm/unittests.h"
#include "kvlog/unittests.h"
#include "kvnet/unittests.h"
#include "libkvc/unittests.h"
#include "unittest/unittest.h"

void product_unittest_register_tests(void)
{
    unittest_register_test("unittest_dlist", unittest_dlist, UNITTEST_TYPE_FAST);
    unittest_register_test("unittest_kvlog", unittest_kvlog, UNITTEST_TYPE_FAST);
    unittest_register_test("unittest_strutil", unittest_strutil, UNITTEST_TYPE_FAST);
    unittest_register_test("unittest_utf8", unittest_utf8, UNITTEST_TYPE_FAST);
    unittest_register_test("unittest_mutex", unittest_mutex, UNITTEST_TYPE_FAST);
    unittest_register_test("unittest_kvos_ptrq", unittest_kvos_ptrq, UNITTEST_TYPE_FAST);
    unittest_register_test("unittest_NetAddr_core", unittest_NetAddr_core, UNITTEST_TYPE_FAST);
    unittest_register_test("unittest_NetAddrTab", unittest_NetAddrTab, UNITTEST_TYPE_FAST);
    unittest_register_test("unittest_abstraction_sockopts", unittest_abstraction_sockopts, UNITTEST_TYPE_FAST);
    unittest_register_test("unittest_fsm", unittest_fsm, UNITTEST_TYPE_FAST);
    unittest_register_test("unittest_profiling", unittest_profiling, UNITTEST_TYPE_FAST);
    unittest_register_test("unittest_abstraction_makeconnection", unittest_abstraction_makeconnection,
                           UNITTEST_TYPE_FAST);
    unittest_register_test("unittest_abstraction_sockevents", unittest_abstraction_sockevents, UNITTEST_TYPE_FAST);
    unittest_register_test("unittest_kvnet_connected", unittest_kvnet_connected, UNITTEST_TYPE_FAST);
    unittest_register_test("unittest_kvnet_getsourceaddresstosendfrom", unittest_kvnet_getsourceaddresstosendfrom,
                           UNITTEST_TYPE_FAST);
}

namespace {
[[maybe_unused]] const bool installed = (unittest_set_product_registration(product_unittest_register_tests), true);
} // namespace
