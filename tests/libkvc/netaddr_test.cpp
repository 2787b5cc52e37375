#include "libkvc/netaddr.h"

#include <arpa/inet.h>
#include <net/if.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

std::string text(const NET_ADDR& a)
{
    char buf[NET_ADDR_STRLEN];
    int n = NET_ADDR_toString(&a, buf, sizeof buf);
    EXPECT_GE(n, 0);
    EXPECT_EQ(static_cast<size_t>(n), std::strlen(buf));
    return buf;
}

NET_ADDR parsed(const char* s)
{
    NET_ADDR a;
    EXPECT_TRUE(NET_ADDR_fromString(&a, s)) << s;
    return a;
}

bool isUnsetRecord(const NET_ADDR& a)
{
    NET_ADDR fresh;
    NET_ADDR_init(&fresh);
    return std::memcmp(&a, &fresh, sizeof a) == 0;
}

TEST(NetAddrInit, IsTheUnsetAddress)
{
    NET_ADDR a;
    std::memset(&a, 0x5a, sizeof a);
    NET_ADDR_init(&a);
    EXPECT_EQ(a.type_, NET_ADDR_TYPE_UNDEF);
    EXPECT_EQ(a.proto_, NET_PROTO_UNDEF);
    EXPECT_EQ(a.port_, NET_IP_PORT_UNDEF);
    EXPECT_EQ(a.flags_, 0u);
    EXPECT_EQ(a.ipv6_.scope_id, 0u);
    EXPECT_TRUE(NET_ADDR_isUnset(&a));
    EXPECT_FALSE(NET_ADDR_hasPort(&a));
    char buf[4] = "xyz";
    EXPECT_EQ(NET_ADDR_toString(&a, buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "");
}

// Canonical text comes back unchanged; every row also checks type and port.
TEST(NetAddrText, CanonicalTextRoundTrips)
{
    struct Row {
        const char* text;
        NET_ADDR_TYPE type;
        NET_IP_PORT port;
    } rows[] = {
        {"0.0.0.0", NET_ADDR_TYPE_IPV4, NET_IP_PORT_UNDEF},
        {"192.0.2.1", NET_ADDR_TYPE_IPV4, NET_IP_PORT_UNDEF},
        {"255.255.255.255", NET_ADDR_TYPE_IPV4, NET_IP_PORT_UNDEF},
        {"192.0.2.1:5060", NET_ADDR_TYPE_IPV4, 5060},
        {"10.0.0.1:0", NET_ADDR_TYPE_IPV4, 0},
        {"10.0.0.1:65535", NET_ADDR_TYPE_IPV4, 65535},
        {"::", NET_ADDR_TYPE_IPV6, NET_IP_PORT_UNDEF},
        {"::1", NET_ADDR_TYPE_IPV6, NET_IP_PORT_UNDEF},
        {"2001:db8::1", NET_ADDR_TYPE_IPV6, NET_IP_PORT_UNDEF},
        {"2001:db8:0:1:1:1:1:1", NET_ADDR_TYPE_IPV6, NET_IP_PORT_UNDEF},  // one zero group stays
        {"2001:0:0:1::1", NET_ADDR_TYPE_IPV6, NET_IP_PORT_UNDEF},          // longest run wins
        {"2001:db8::1:0:0:1", NET_ADDR_TYPE_IPV6, NET_IP_PORT_UNDEF},      // first of equal runs
        {"1::", NET_ADDR_TYPE_IPV6, NET_IP_PORT_UNDEF},
        {"1:2:3:4:5:6:7:8", NET_ADDR_TYPE_IPV6, NET_IP_PORT_UNDEF},
        {"::ffff:192.0.2.1", NET_ADDR_TYPE_IPV6, NET_IP_PORT_UNDEF},
        {"::ffff:0.0.0.0", NET_ADDR_TYPE_IPV6, NET_IP_PORT_UNDEF},
        {"::102:304", NET_ADDR_TYPE_IPV6, NET_IP_PORT_UNDEF},  // compatible form is not dotted
        {"fe80::1%3", NET_ADDR_TYPE_IPV6, NET_IP_PORT_UNDEF},
        {"ff02::1%1", NET_ADDR_TYPE_IPV6, NET_IP_PORT_UNDEF},
        {"[2001:db8::1]:5060", NET_ADDR_TYPE_IPV6, 5060},
        {"[fe80::1%4294967295]:65535", NET_ADDR_TYPE_IPV6, 65535},
        {"[::ffff:10.1.2.3]:1", NET_ADDR_TYPE_IPV6, 1},
    };
    for (const Row& r : rows) {
        NET_ADDR a = parsed(r.text);
        EXPECT_EQ(a.type_, r.type) << r.text;
        EXPECT_EQ(a.port_, r.port) << r.text;
        EXPECT_EQ(a.proto_, NET_PROTO_UNDEF) << r.text;
        EXPECT_EQ(text(a), r.text);
    }
}

TEST(NetAddrText, OtherFormsPrintCanonically)
{
    struct Row {
        const char* in;
        const char* out;
    } rows[] = {
        {"2001:DB8::A", "2001:db8::a"},
        {"2001:0db8:0000:0000:0000:0000:0000:0001", "2001:db8::1"},
        {"0:0:0:0:0:0:0:1", "::1"},
        {"0:0:0:0:0:0:0:0", "::"},
        {"::0:1", "::1"},
        {"1:0::", "1::"},
        {"::ffff:c000:201", "::ffff:192.0.2.1"},
        {"0:0:0:0:0:ffff:192.0.2.1", "::ffff:192.0.2.1"},
        {"1:2:3:4:5:6:1.2.3.4", "1:2:3:4:5:6:102:304"},
        {"::1.2.3.4", "::102:304"},
        {"1::2:3:4:5:6:7", "1:0:2:3:4:5:6:7"},  // "::" for one group
        {"[::1]", "::1"},
        {"[fe80::1%3]", "fe80::1%3"},
        {"fe80::1%lo", "fe80::1%1"},
    };
    for (const Row& r : rows) {
        EXPECT_EQ(text(parsed(r.in)), r.out) << r.in;
    }
}

TEST(NetAddrText, RejectsAndLeavesUnset)
{
    const char* rows[] = {
        "", " ", "1.2.3.4 ", " 1.2.3.4", "1.2.3", "1.2.3.4.5", "1.2.3.", ".1.2.3", "1..2.3",
        "256.1.1.1", "1.2.3.256", "01.2.3.4", "1.2.3.04", "1.2.3.00", "0x1.2.3.4", "1.2.3.4x", "a.b.c.d",
        "1.2.3.4:", "1.2.3.4:65536", "1.2.3.4:99999", "1.2.3.4:05060", "1.2.3.4:-1", "1.2.3.4:+1",
        "1.2.3.4:1x", "1.2.3.4:4294967296",
        ":", ":::", "1:2", "1:::2", "1::2::3", ":1::", "1::2:", "1:2:3:4:5:6:7:8:9",
        "1:2:3:4:5:6:7:8::", "::1:2:3:4:5:6:7:8", "12345::", "g::", "1:2:3:4:5:6:7", "::1.2.3",
        "::1.2.3.4.5", "::01.2.3.4", "::1.2.3.4:5", "1.2.3.4::", "1:2:3:4:5:6:7:1.2.3.4", "::ffff:256.1.1.1",
        "[::1", "::1]", "[::1]:", "[::1]x", "[::1]:65536", "[1.2.3.4]:80", "[]", "[::1]:80:80",
        "::1 ", "[ ::1]",
        "fe80::1%", "fe80::1%0", "fe80::1%03", "2001:db8::1%1", "::1%1", "ff05::1%1", "fe80::1%no-such-if0",
        "fe80::1%a/b", "fe80::1%a b", "fe80::1%abcdefghijklmnop", "fe80::1%4294967296", "fe80::1%1%1",
        "[fe80::1]%1",
    };
    for (const char* s : rows) {
        NET_ADDR a;
        NET_ADDR_fromIPv4(&a, 0x01020304);
        EXPECT_FALSE(NET_ADDR_fromString(&a, s)) << "'" << s << "'";
        EXPECT_TRUE(isUnsetRecord(a)) << "'" << s << "'";
    }
    NET_ADDR a;
    EXPECT_FALSE(NET_ADDR_fromString(&a, nullptr));
    EXPECT_TRUE(NET_ADDR_isUnset(&a));
}

TEST(NetAddrText, ZoneByNameIsTheInterfaceIndex)
{
    unsigned lo = if_nametoindex("lo");
    if (lo == 0) {
        GTEST_SKIP() << "no loopback interface";
    }
    NET_ADDR a = parsed("fe80::abcd%lo");
    EXPECT_EQ(NET_ADDR_scopeId(&a), lo);
    a = parsed("[ff02::fb%lo]:5353");
    EXPECT_EQ(NET_ADDR_scopeId(&a), lo);
    EXPECT_EQ(a.port_, 5353);
}

TEST(NetAddrText, ShortBufferNeverOverflows)
{
    NET_ADDR a = parsed("[2001:db8::1]:5060");  // 18 characters
    for (size_t len = 0; len <= 20; ++len) {
        char buf[24];
        std::memset(buf, '#', sizeof buf);
        int n = NET_ADDR_toString(&a, buf, len);
        if (len >= 19) {
            EXPECT_EQ(n, 18);
            EXPECT_STREQ(buf, "[2001:db8::1]:5060");
        } else {
            EXPECT_EQ(n, -1) << len;
            if (len > 0) {
                EXPECT_EQ(buf[0], '\0');
            }
        }
        for (size_t i = len; i < sizeof buf; ++i) {
            ASSERT_EQ(buf[i], '#') << "byte " << i << " written with len " << len;
        }
    }
}

TEST(NetAddrText, LongestTextFitsTheDeclaredSize)
{
    NET_ADDR a = parsed("[fe80:ffff:ffff:ffff:ffff:ffff:ffff:ffff%4294967295]:65535");
    char buf[NET_ADDR_STRLEN];
    int n = NET_ADDR_toString(&a, buf, sizeof buf);
    EXPECT_EQ(n, 58);
    EXPECT_LT(n, NET_ADDR_STRLEN);
}

// Each family converts both ways, refuses the other family's record, and
// "no port" is port 0 on the wire (port 0 comes back as no port).
TEST(NetAddrSockaddr, EachFamilyBothWays)
{
    struct Row {
        const char* text;
        int wirePort;
        uint8_t first, last;  // first and last address byte
        uint32_t scope;
    } rows[] = {{"192.0.2.1:5060", 5060, 192, 1, 0}, {"192.0.2.1", 0, 192, 1, 0},
                {"[fe80::1%7]:443", 443, 0xfe, 1, 7}, {"fe80::2", 0, 0xfe, 2, 0}};
    for (const Row& r : rows) {
        SCOPED_TRACE(r.text);
        NET_ADDR a = parsed(r.text), back;
        sockaddr_in sin;
        sockaddr_in6 sin6;
        if (a.type_ == NET_ADDR_TYPE_IPV4) {
            EXPECT_FALSE(NET_ADDR_toSockaddrIn6(&a, &sin6));
            ASSERT_TRUE(NET_ADDR_toSockaddrIn(&a, &sin));
            EXPECT_EQ(sin.sin_family, AF_INET);
            EXPECT_EQ(ntohs(sin.sin_port), r.wirePort);
            EXPECT_EQ(ntohl(sin.sin_addr.s_addr), uint32_t{r.first} << 24 | 2u << 8 | r.last);
            NET_ADDR_fromSockaddrIn(&back, &sin);
        } else {
            EXPECT_FALSE(NET_ADDR_toSockaddrIn(&a, &sin));
            ASSERT_TRUE(NET_ADDR_toSockaddrIn6(&a, &sin6));
            EXPECT_EQ(sin6.sin6_family, AF_INET6);
            EXPECT_EQ(ntohs(sin6.sin6_port), r.wirePort);
            EXPECT_EQ(sin6.sin6_scope_id, r.scope);
            EXPECT_EQ(sin6.sin6_addr.s6_addr[0], r.first);
            EXPECT_EQ(sin6.sin6_addr.s6_addr[15], r.last);
            NET_ADDR_fromSockaddrIn6(&back, &sin6);
        }
        EXPECT_TRUE(NET_ADDR_equal(&a, &back));
        EXPECT_EQ(NET_ADDR_hasPort(&back), r.wirePort != 0);
    }
}

TEST(NetAddrSockaddr, GenericConversionChecksFamilyAndSize)
{
    sockaddr_storage ss;
    socklen_t len = 0;
    NET_ADDR a = parsed("10.1.2.3:9");
    ASSERT_TRUE(NET_ADDR_toSockaddr(&a, &ss, &len));
    EXPECT_EQ(len, sizeof(sockaddr_in));
    NET_ADDR back;
    ASSERT_TRUE(NET_ADDR_fromSockaddr(&back, reinterpret_cast<sockaddr*>(&ss), len));
    EXPECT_TRUE(NET_ADDR_equal(&a, &back));
    EXPECT_FALSE(NET_ADDR_fromSockaddr(&back, reinterpret_cast<sockaddr*>(&ss), len - 1));
    EXPECT_TRUE(NET_ADDR_isUnset(&back));

    a = parsed("[2001:db8::5]:9");
    ASSERT_TRUE(NET_ADDR_toSockaddr(&a, &ss, &len));
    EXPECT_EQ(len, sizeof(sockaddr_in6));
    ASSERT_TRUE(NET_ADDR_fromSockaddr(&back, reinterpret_cast<sockaddr*>(&ss), len));
    EXPECT_TRUE(NET_ADDR_equal(&a, &back));
    EXPECT_FALSE(NET_ADDR_fromSockaddr(&back, reinterpret_cast<sockaddr*>(&ss), sizeof(sockaddr_in)));

    ss.ss_family = AF_UNIX;
    EXPECT_FALSE(NET_ADDR_fromSockaddr(&back, reinterpret_cast<sockaddr*>(&ss), sizeof ss));
    EXPECT_FALSE(NET_ADDR_fromSockaddr(&back, nullptr, 0));
    NET_ADDR unset;
    NET_ADDR_init(&unset);
    len = 77;
    EXPECT_FALSE(NET_ADDR_toSockaddr(&unset, &ss, &len));
    EXPECT_EQ(len, 77u);
}

TEST(NetAddrFields, PortAndProtocolSettersCheckRange)
{
    NET_ADDR a = parsed("192.0.2.1");
    struct PortRow {
        NET_IP_PORT port;
        bool ok;
    } ports[] = {{0, true}, {65535, true}, {NET_IP_PORT_UNDEF, true}, {65536, false}, {-2, false}, {5060, true}};
    for (const PortRow& r : ports) {
        NET_IP_PORT before = NET_ADDR_port(&a);
        EXPECT_EQ(NET_ADDR_setPort(&a, r.port), r.ok) << r.port;
        EXPECT_EQ(NET_ADDR_port(&a), r.ok ? r.port : before) << r.port;
    }
    EXPECT_TRUE(NET_ADDR_setProto(&a, NET_PROTO_UDP));
    EXPECT_EQ(NET_ADDR_proto(&a), NET_PROTO_UDP);
    EXPECT_FALSE(NET_ADDR_setProto(&a, static_cast<NET_PROTO>(3)));
    EXPECT_FALSE(NET_ADDR_setProto(&a, static_cast<NET_PROTO>(-2)));
    EXPECT_EQ(NET_ADDR_proto(&a), NET_PROTO_UDP);
    EXPECT_EQ(text(a), "192.0.2.1:5060");  // the protocol is not part of the text
}

TEST(NetAddrFields, BuildersAndFamilies)
{
    NET_ADDR a;
    NET_ADDR_fromIPv4(&a, 0xC0000201);
    EXPECT_EQ(text(a), "192.0.2.1");
    ASSERT_TRUE(NET_ADDR_setAny(&a, NET_ADDR_TYPE_IPV6));
    EXPECT_EQ(text(a), "::");
    ASSERT_TRUE(NET_ADDR_setLoopback(&a, NET_ADDR_TYPE_IPV4));
    EXPECT_EQ(text(a), "127.0.0.1");
    ASSERT_TRUE(NET_ADDR_setLoopback(&a, NET_ADDR_TYPE_IPV6));
    EXPECT_EQ(text(a), "::1");
    EXPECT_FALSE(NET_ADDR_setAny(&a, NET_ADDR_TYPE_UNDEF));
    EXPECT_TRUE(NET_ADDR_isUnset(&a));
    EXPECT_FALSE(NET_ADDR_setLoopback(&a, static_cast<NET_ADDR_TYPE>(5)));
}

TEST(NetAddrClassify, Table)
{
    enum { ANY = 1, LOOP = 2, MCAST = 4, LINK = 8, PRIV = 16, MAPPED = 32 };
    struct Row {
        const char* text;
        int classes;
    } rows[] = {
        {"0.0.0.0", ANY},
        {"127.0.0.1", LOOP},
        {"127.255.255.254", LOOP},
        {"128.0.0.1", 0},
        {"224.0.0.1", MCAST},
        {"239.255.255.255", MCAST},
        {"240.0.0.1", 0},
        {"223.255.255.255", 0},
        {"169.254.1.1", LINK},
        {"169.255.0.1", 0},
        {"10.0.0.0", PRIV},
        {"10.255.255.255", PRIV},
        {"11.0.0.0", 0},
        {"172.16.0.1", PRIV},
        {"172.31.255.255", PRIV},
        {"172.15.255.255", 0},
        {"172.32.0.0", 0},
        {"192.168.0.1", PRIV},
        {"192.169.0.1", 0},
        {"100.64.0.1", 0},  // shared address space is not private here
        {"192.0.2.1", 0},
        {"::", ANY},
        {"::1", LOOP},
        {"::2", 0},
        {"ff02::1", MCAST},
        {"ff00::", MCAST},
        {"fe80::1", LINK},
        {"febf::1", LINK},
        {"fec0::1", 0},
        {"fc00::1", PRIV},
        {"fdff::1", PRIV},
        {"fe00::1", 0},
        {"2001:db8::1", 0},
        {"::ffff:127.0.0.1", MAPPED | LOOP},
        {"::ffff:10.1.1.1", MAPPED | PRIV},
        {"::ffff:224.0.0.5", MAPPED | MCAST},
        {"::ffff:169.254.0.9", MAPPED | LINK},
        {"::ffff:0.0.0.0", MAPPED},  // not "any": no socket binds that
        {"::ffff:192.0.2.1", MAPPED},
        {"::127.0.0.1", 0},  // the compatible form is not looked through
    };
    for (const Row& r : rows) {
        NET_ADDR a = parsed(r.text);
        EXPECT_FALSE(NET_ADDR_isUnset(&a)) << r.text;
        EXPECT_EQ(NET_ADDR_isAny(&a), (r.classes & ANY) != 0) << r.text;
        EXPECT_EQ(NET_ADDR_isLoopback(&a), (r.classes & LOOP) != 0) << r.text;
        EXPECT_EQ(NET_ADDR_isMulticast(&a), (r.classes & MCAST) != 0) << r.text;
        EXPECT_EQ(NET_ADDR_isLinkLocal(&a), (r.classes & LINK) != 0) << r.text;
        EXPECT_EQ(NET_ADDR_isPrivate(&a), (r.classes & PRIV) != 0) << r.text;
        EXPECT_EQ(NET_ADDR_isV4Mapped(&a), (r.classes & MAPPED) != 0) << r.text;
    }
    NET_ADDR unset;
    NET_ADDR_init(&unset);
    EXPECT_TRUE(NET_ADDR_isUnset(&unset));
    EXPECT_FALSE(NET_ADDR_isAny(&unset) || NET_ADDR_isLoopback(&unset) || NET_ADDR_isMulticast(&unset) ||
                 NET_ADDR_isLinkLocal(&unset) || NET_ADDR_isPrivate(&unset) || NET_ADDR_isV4Mapped(&unset));
}

TEST(NetAddrClassify, MapAndUnmapKeepPortAndProtocol)
{
    NET_ADDR m = parsed("[::ffff:192.0.2.1]:80");
    NET_ADDR_setProto(&m, NET_PROTO_TCP);
    m.flags_ = 9;
    NET_ADDR v4;
    ASSERT_TRUE(NET_ADDR_unmapV4(&v4, &m));
    EXPECT_EQ(text(v4), "192.0.2.1:80");
    EXPECT_EQ(v4.proto_, NET_PROTO_TCP);
    EXPECT_EQ(v4.flags_, 9u);
    NET_ADDR again;
    ASSERT_TRUE(NET_ADDR_mapV4(&again, &v4));
    EXPECT_TRUE(NET_ADDR_equal(&again, &m));

    // In place, and refusals leave the output alone.
    ASSERT_TRUE(NET_ADDR_unmapV4(&m, &m));
    EXPECT_TRUE(NET_ADDR_equal(&m, &v4));
    NET_ADDR out = parsed("10.0.0.1");
    NET_ADDR plain6 = parsed("2001:db8::1");
    EXPECT_FALSE(NET_ADDR_unmapV4(&out, &plain6));
    EXPECT_FALSE(NET_ADDR_unmapV4(&out, &v4));
    EXPECT_FALSE(NET_ADDR_mapV4(&out, &plain6));
    EXPECT_EQ(text(out), "10.0.0.1");
}

TEST(NetAddrCompare, EqualAndEqualHost)
{
    struct Row {
        const char* a;
        const char* b;
        bool equal;
        bool sameHost;
    } rows[] = {
        {"192.0.2.1", "192.0.2.1", true, true},
        {"192.0.2.1:1", "192.0.2.1:2", false, true},
        {"192.0.2.1", "192.0.2.1:0", false, true},
        {"192.0.2.1", "192.0.2.2", false, false},
        {"2001:db8::1", "2001:DB8:0::1", true, true},
        {"fe80::1%1", "fe80::1%2", false, false},
        {"fe80::1", "fe80::1%2", false, false},
        {"[2001:db8::1]:5", "2001:db8::1", false, true},
        {"::ffff:192.0.2.1", "192.0.2.1", false, false},
        {"0.0.0.0", "::", false, false},
    };
    for (const Row& r : rows) {
        NET_ADDR a = parsed(r.a);
        NET_ADDR b = parsed(r.b);
        EXPECT_EQ(NET_ADDR_equal(&a, &b), r.equal) << r.a << " " << r.b;
        EXPECT_EQ(NET_ADDR_equal(&b, &a), r.equal) << r.a << " " << r.b;
        EXPECT_EQ(NET_ADDR_equalHost(&a, &b), r.sameHost) << r.a << " " << r.b;
        EXPECT_EQ(NET_ADDR_compare(&a, &b) == 0, r.equal) << r.a << " " << r.b;
        if (r.equal) {
            EXPECT_EQ(NET_ADDR_hash(&a), NET_ADDR_hash(&b)) << r.a;
        }
    }
    // Protocol and flags count for equality, not for the host.
    NET_ADDR a = parsed("192.0.2.1"), b = a;
    NET_ADDR_setProto(&b, NET_PROTO_UDP);
    EXPECT_FALSE(NET_ADDR_equal(&a, &b));
    EXPECT_TRUE(NET_ADDR_equalHost(&a, &b));
    b = a;
    b.flags_ = 1;
    EXPECT_FALSE(NET_ADDR_equal(&a, &b));
    EXPECT_NE(NET_ADDR_compare(&a, &b), 0);

    // Two unset records are equal whatever their octets hold.
    NET_ADDR u1, u2;
    NET_ADDR_init(&u1);
    NET_ADDR_init(&u2);
    u2.ipv6_.addr[3] = 7;
    EXPECT_TRUE(NET_ADDR_equal(&u1, &u2));
    EXPECT_EQ(NET_ADDR_compare(&u1, &u2), 0);
    EXPECT_EQ(NET_ADDR_hash(&u1), NET_ADDR_hash(&u2));
    // An IPv4 record's unused octets do not count either.
    b = a;
    b.ipv6_.addr[8] = 1;
    EXPECT_TRUE(NET_ADDR_equal(&a, &b));
    EXPECT_EQ(NET_ADDR_hash(&a), NET_ADDR_hash(&b));
}

TEST(NetAddrCompare, TotalOrder)
{
    // Listed in the order compare must give.
    std::vector<NET_ADDR> sorted;
    NET_ADDR unset;
    NET_ADDR_init(&unset);
    sorted.push_back(unset);
    for (const char* s : {"0.0.0.0", "9.255.255.255", "10.0.0.0", "10.0.0.0:0", "10.0.0.0:1", "10.0.0.0:65535",
                          "192.0.2.1", "255.255.255.255", "::", "::1", "[::1]:1", "::ffff:0.0.0.1", "fe80::1",
                          "fe80::1%1", "fe80::1%2", "ff02::1"}) {
        sorted.push_back(parsed(s));
    }
    NET_ADDR tcp = parsed("ff02::1");
    NET_ADDR_setProto(&tcp, NET_PROTO_TCP);
    sorted.push_back(tcp);
    for (size_t i = 0; i < sorted.size(); ++i) {
        for (size_t j = 0; j < sorted.size(); ++j) {
            int c = NET_ADDR_compare(&sorted[i], &sorted[j]);
            int want = i < j ? -1 : (i > j ? 1 : 0);
            EXPECT_EQ((c > 0) - (c < 0), want) << text(sorted[i]) << " vs " << text(sorted[j]);
        }
    }
}

TEST(NetAddrDeathTest, NullRecordsAreProgrammingFaults)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    char buf[NET_ADDR_STRLEN];
    NET_ADDR a;
    NET_ADDR_init(&a);
    EXPECT_DEATH(NET_ADDR_init(nullptr), "a != nullptr");
    EXPECT_DEATH(NET_ADDR_toString(nullptr, buf, sizeof buf), "a != nullptr");
    EXPECT_DEATH(NET_ADDR_toString(&a, nullptr, 4), "buf != nullptr");
    EXPECT_DEATH(NET_ADDR_compare(&a, nullptr), "b != nullptr");
    EXPECT_DEATH(NET_ADDR_TAB_add(nullptr, &a), "tab != nullptr");
}

}  // namespace
