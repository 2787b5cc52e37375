/* Self-test of the network addresses and address tables. */
#include <arpa/inet.h>
#include <string.h>

#include "libkvc/netaddr.h"
#include "libkvc/unittests.h"
#include "unittest/unittest.h"

namespace {

bool roundTrips(const char* text)
{
    NET_ADDR a;
    char buf[NET_ADDR_STRLEN];
    return NET_ADDR_fromString(&a, text) && NET_ADDR_toString(&a, buf, sizeof buf) >= 0 && strcmp(buf, text) == 0;
}

bool rejected(const char* text)
{
    NET_ADDR a;
    return !NET_ADDR_fromString(&a, text) && NET_ADDR_isUnset(&a);
}

void testText()
{
    unittest_context("text");
    unittest_assert(roundTrips("192.0.2.1"));
    unittest_assert(roundTrips("192.0.2.1:5060"));
    unittest_assert(roundTrips("2001:db8::1"));
    unittest_assert(roundTrips("[2001:db8::1]:5060"));
    unittest_assert(roundTrips("::ffff:192.0.2.1"));
    unittest_assert(roundTrips("fe80::1%2"));
    unittest_assert(rejected(""));
    unittest_assert(rejected("01.2.3.4"));
    unittest_assert(rejected("1.2.3.4:65536"));
    unittest_assert(rejected("2001:db8::1%1"));
    unittest_assert(rejected("1.2.3.4 "));
    unittest_assert(rejected("1::2::3"));

    NET_ADDR a;
    char small[8];
    NET_ADDR_fromString(&a, "2001:db8::1");
    unittest_assert(NET_ADDR_toString(&a, small, sizeof small) == -1 && small[0] == '\0');
}

void testSockaddr()
{
    unittest_context("socket addresses");
    NET_ADDR a, back;
    NET_ADDR_fromString(&a, "[fe80::1%3]:443");
    struct sockaddr_storage ss;
    socklen_t len;
    unittest_assert(NET_ADDR_toSockaddr(&a, &ss, &len) && len == sizeof(struct sockaddr_in6));
    const struct sockaddr_in6* sin6 = reinterpret_cast<const struct sockaddr_in6*>(&ss);
    unittest_assert(ntohs(sin6->sin6_port) == 443 && sin6->sin6_scope_id == 3);
    unittest_assert(NET_ADDR_fromSockaddr(&back, reinterpret_cast<const struct sockaddr*>(&ss), len));
    unittest_assert(NET_ADDR_equal(&a, &back));

    NET_ADDR_fromString(&a, "10.1.2.3");
    struct sockaddr_in sin;
    unittest_assert(NET_ADDR_toSockaddrIn(&a, &sin) && sin.sin_port == 0 && ntohl(sin.sin_addr.s_addr) == 0x0a010203);
    unittest_assert(NET_ADDR_setPort(&a, 65535) && !NET_ADDR_setPort(&a, 65536) && NET_ADDR_port(&a) == 65535);
}

void testClassifyAndCompare()
{
    unittest_context("classify and compare");
    NET_ADDR a, b;
    NET_ADDR_fromString(&a, "::ffff:10.0.0.1");
    unittest_assert(NET_ADDR_isV4Mapped(&a) && NET_ADDR_isPrivate(&a));
    unittest_assert(NET_ADDR_unmapV4(&b, &a) && b.type_ == NET_ADDR_TYPE_IPV4);
    unittest_assert(!NET_ADDR_equalHost(&a, &b));
    NET_ADDR_fromString(&a, "172.16.0.1:1");
    NET_ADDR_fromString(&b, "172.16.0.1:2");
    unittest_assert(NET_ADDR_equalHost(&a, &b) && !NET_ADDR_equal(&a, &b));
    unittest_assert(NET_ADDR_compare(&a, &b) < 0 && NET_ADDR_compare(&b, &a) > 0);
    NET_ADDR_setPort(&b, 1);
    unittest_assert(NET_ADDR_compare(&a, &b) == 0 && NET_ADDR_hash(&a) == NET_ADDR_hash(&b));
    NET_ADDR_fromString(&a, "ff02::1");
    unittest_assert(NET_ADDR_isMulticast(&a) && !NET_ADDR_isLinkLocal(&a));
    NET_ADDR_fromString(&a, "127.0.0.53");
    unittest_assert(NET_ADDR_isLoopback(&a) && !NET_ADDR_isAny(&a));
}

void testTable()
{
    unittest_context("address table");
    NET_ADDR_TAB tab;
    NET_ADDR_TAB_init(&tab, 2);
    NET_ADDR a, b, c;
    NET_ADDR_fromString(&a, "10.0.0.2");
    NET_ADDR_fromString(&b, "10.0.0.1");
    NET_ADDR_fromString(&c, "::1");
    unittest_assert(NET_ADDR_TAB_add(&tab, &a) == KV_RET_OK);
    unittest_assert(NET_ADDR_TAB_add(&tab, &a) == NET_ADDR_TAB_DUPLICATE);
    unittest_assert(NET_ADDR_TAB_add(&tab, &b) == KV_RET_OK);
    unittest_assert(NET_ADDR_TAB_add(&tab, &c) == NET_ADDR_TAB_FULL);
    unittest_assert(NET_ADDR_TAB_count(&tab) == 2 && NET_ADDR_equal(NET_ADDR_TAB_get(&tab, 0), &a));
    NET_ADDR_TAB_sort(&tab);
    unittest_assert(NET_ADDR_equal(NET_ADDR_TAB_get(&tab, 0), &b));
    unittest_assert(NET_ADDR_TAB_remove(&tab, &b) == KV_RET_OK && NET_ADDR_TAB_remove(&tab, &b) == KV_RET_ERROR);
    unittest_assert(NET_ADDR_TAB_contains(&tab, &a) && !NET_ADDR_TAB_contains(&tab, &b));
    NET_ADDR_TAB_destroy(&tab);

    NET_ADDR_TAB_init(&tab, 0);
    KV_RET n = NET_ADDR_TAB_fillFromInterfaces(&tab, NET_ADDR_TYPE_IPV4);
    NET_ADDR loop;
    NET_ADDR_setLoopback(&loop, NET_ADDR_TYPE_IPV4);
    unittest_assert(n >= 1 && static_cast<size_t>(n) == NET_ADDR_TAB_count(&tab));
    unittest_assert(NET_ADDR_TAB_contains(&tab, &loop));
    NET_ADDR_TAB_destroy(&tab);
}

}  // namespace

void unittest_NetAddr_core(void)
{
    testText();
    testSockaddr();
    testClassifyAndCompare();
}

void unittest_NetAddrTab(void)
{
    testTable();
}
