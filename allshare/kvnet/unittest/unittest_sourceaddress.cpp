/* Self-test of KVNET_getSourceAddressToSendFrom on this host's own
 * addresses: a loopback destination is answered from loopback, every local
 * address agrees with what a connected UDP socket is given, a mapped
 * destination is answered mapped, and bad arguments are refused. */
#include <errno.h>

#include "abstraction/kvos_socket.h"
#include "kvnet/kvnet_route.h"
#include "kvnet/unittests.h"
#include "unittest/unittest.h"

namespace {

/* What the kernel gives a UDP socket connected to dest: the classic way of
 * finding the source address, used here as the reference. */
bool udpSource(const NET_ADDR* dest, NET_ADDR* src)
{
    NET_ADDR d = *dest;
    NET_ADDR_setPort(&d, 9);
    KVNET_SOCK_ID s = KVOS_sockCreate(NET_ADDR_type(dest), NET_PROTO_UDP);
    bool ok = s != KVNET_SOCK_ID_UNDEF && KVOS_sockConnect(s, &d, 0) == KV_RET_OK &&
              KVOS_sockLocalAddress(s, src) == KV_RET_OK;
    if (s != KVNET_SOCK_ID_UNDEF) {
        KVOS_sockClose(s);
    }
    return ok;
}

void testLoopback()
{
    unittest_context("loopback");
    NET_ADDR dest, src;
    int ifIndex = -1;
    NET_ADDR_fromString(&dest, "127.0.0.1");
    unittest_assert(KVNET_getSourceAddressToSendFrom(&dest, &src, &ifIndex) == KV_RET_OK);
    unittest_assert(NET_ADDR_equalHost(&src, &dest) && !NET_ADDR_hasPort(&src));
    unittest_assert(ifIndex == KVNET_ifIndex("lo"));

    NET_ADDR_fromString(&dest, "::ffff:127.0.0.1");
    unittest_assert(KVNET_getSourceAddressToSendFrom(&dest, &src, nullptr) == KV_RET_OK);
    unittest_assert(NET_ADDR_equalHost(&src, &dest));
}

void testLocalAddresses()
{
    unittest_context("agreement with a connected UDP socket on every local address");
    NET_ADDR_TAB tab;
    NET_ADDR_TAB_init(&tab, 0);
    unittest_assert(KV_RET_IS_OK(NET_ADDR_TAB_fillFromInterfaces(&tab, NET_ADDR_TYPE_UNDEF)));
    for (size_t i = 0; i < NET_ADDR_TAB_count(&tab); ++i) {
        const NET_ADDR* dest = NET_ADDR_TAB_get(&tab, i);
        NET_ADDR ours, reference;
        if (!udpSource(dest, &reference)) {
            continue; // e.g. a tentative IPv6 address nobody may send from yet
        }
        unittest_assert(KVNET_getSourceAddressToSendFrom(dest, &ours, nullptr) == KV_RET_OK);
        unittest_assert(NET_ADDR_equalHost(&ours, &reference));
    }
    NET_ADDR_TAB_destroy(&tab);
}

void testBadArguments()
{
    unittest_context("bad arguments");
    NET_ADDR unset, src;
    NET_ADDR_init(&unset);
    errno = 0;
    unittest_assert(KVNET_getSourceAddressToSendFrom(&unset, &src, nullptr) == KV_RET_ERROR && errno == EINVAL);
    unittest_assert(KVNET_getSourceAddressToSendFrom(nullptr, &src, nullptr) == KV_RET_ERROR);
    NET_ADDR dest;
    NET_ADDR_fromString(&dest, "127.0.0.1");
    unittest_assert(KVNET_getSourceAddressToSendFrom(&dest, nullptr, nullptr) == KV_RET_ERROR);
}

}  // namespace

void unittest_kvnet_getsourceaddresstosendfrom(void)
{
    testLoopback();
    testLocalAddresses();
    testBadArguments();
}
