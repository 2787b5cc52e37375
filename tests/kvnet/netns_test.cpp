/* Source-address selection, default gateways, routing tables and interface
 * addresses inside private network namespaces, checked against the kernel's
 * own answers through `ip`. Root only; skipped otherwise.
 *
 * The host namespace under test has two veth links to a peer namespace:
 *
 *   host                                    peer
 *   h0 10.77.1.1/24 10.77.1.5/24            p0 10.77.1.2/24
 *      fd00:77:1::1/64 fe80::1/64              fe80::2/64
 *   h1 10.77.2.1/24 fd00:77:2::1/64         p1 10.77.2.2/24 fd00:77:2::2/64
 *
 *   198.51.100.0/24 via 10.77.1.2 src 10.77.1.5   (a preferred source)
 *   default via 10.77.2.2 metric 100, default via 10.77.1.2 metric 200
 *   rule: to 198.18.0.0/15 lookup 77; table 77: 198.18.0.0/15 via 10.77.1.2
 *   unreachable 192.0.2.0/24, prohibit 203.0.113.128/25
 *   IPv6: default via fd00:77:2::2; rule to 2001:db8:99::/48 lookup 77,
 *   table 77: 2001:db8:99::/48 via fe80::2 dev h0; unreachable 2001:db8:dead::/48
 *
 * IPv6 addresses are added without duplicate detection and the links get no
 * automatic link-local addresses, so the kernel's choices are fixed from the
 * start. No packet leaves the namespaces: only route lookups are made. */
#include <errno.h>
#include <string.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "kvnet/kvnet_route.h"
#include "netns.h"

namespace {

using kvnet_test::NetNs;

std::string text(const NET_ADDR& a)
{
    char buf[NET_ADDR_STRLEN];
    NET_ADDR_toString(&a, buf, sizeof(buf));
    return buf;
}

/* The host/peer pair above, torn down with the object. */
class Topology {
public:
    Topology() : host_("h"), peer_("p")
    {
        if (!host_.ok() || !peer_.ok()) {
            error_ = "namespaces could not be made";
            return;
        }
        std::string p = peer_.name();
        error_ = host_.ipScript({
            "link set lo up",
            "link add h0 type veth peer name p0 netns " + p,
            "link add h1 type veth peer name p1 netns " + p,
            "link set h0 addrgenmode none",
            "link set h1 addrgenmode none",
            "addr add 10.77.1.1/24 dev h0",
            "addr add 10.77.1.5/24 dev h0",
            "addr add 10.77.2.1/24 dev h1",
            "-6 addr add fd00:77:1::1/64 dev h0 nodad",
            "-6 addr add fe80::1/64 dev h0 nodad",
            "-6 addr add fd00:77:2::1/64 dev h1 nodad",
            "link set h0 up",
            "link set h1 up",
        });
        if (error_.empty()) {
            error_ = peer_.ipScript({
                "link set lo up",
                "link set p0 addrgenmode none",
                "link set p1 addrgenmode none",
                "addr add 10.77.1.2/24 dev p0",
                "addr add 10.77.2.2/24 dev p1",
                "-6 addr add fe80::2/64 dev p0 nodad",
                "-6 addr add fd00:77:2::2/64 dev p1 nodad",
                "link set p0 up",
                "link set p1 up",
            });
        }
        if (error_.empty()) {
            error_ = host_.ipScript({
                "route add 198.51.100.0/24 via 10.77.1.2 dev h0 src 10.77.1.5",
                "route add default via 10.77.2.2 dev h1 metric 100",
                "route add default via 10.77.1.2 dev h0 metric 200",
                "rule add to 198.18.0.0/15 lookup 77 pref 100",
                "route add 198.18.0.0/15 via 10.77.1.2 dev h0 table 77",
                "route add unreachable 192.0.2.0/24",
                "route add prohibit 203.0.113.128/25",
                "-6 route add default via fd00:77:2::2 dev h1",
                "-6 rule add to 2001:db8:99::/48 lookup 77 pref 100",
                "-6 route add 2001:db8:99::/48 via fe80::2 dev h0 table 77",
                "-6 route add unreachable 2001:db8:dead::/48",
            });
        }
    }
    const std::string& error() const { return error_; }
    const NetNs& host() const { return host_; }

private:
    NetNs host_, peer_;
    std::string error_;
};

class Netns : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string why = kvnet_test::netnsUnavailableReason();
        if (!why.empty()) {
            GTEST_SKIP() << why;
        }
        topo_.reset(new Topology);
        ASSERT_EQ(topo_->error(), "");
        if (!topo_->host().ip("-6 addr show dev h0")) {
            GTEST_SKIP() << "IPv6 is not available in new namespaces";
        }
    }
    std::unique_ptr<Topology> topo_;
};

/* What `ip route get` says: the interface and source, or the error number. */
struct KernelAnswer {
    std::string dev, src;
    int error = 0;
    std::string raw;
};

KernelAnswer ipRouteGet(const NetNs& ns, const std::string& dest, const std::string& oif)
{
    KernelAnswer a;
    std::string args = "route get " + dest + (oif.empty() ? "" : " oif " + oif);
    bool ok = ns.ip(args, &a.raw);
    std::istringstream words(a.raw);
    std::string w, prev;
    while (words >> w) {
        if (prev == "dev") {
            a.dev = w;
        } else if (prev == "src") {
            a.src = w;
        } else if (prev == "error") {
            a.error = -atoi(w.c_str());
        }
        prev = w;
    }
    if (!ok) {
        // "RTNETLINK answers: <the system's text>"
        for (int e = 1; e < 200; ++e) {
            if (a.raw.find(std::string("answers: ") + strerror(e)) != std::string::npos) {
                a.error = e;
            }
        }
        EXPECT_NE(a.error, 0) << a.raw;
    }
    return a;
}

TEST_F(Netns, SourceAddressAgreesWithIpRouteGet)
{
    struct Case {
        const char* dest;     // our text; a zone as %<interface name>
        const char* ipDest;   // the same for ip
        const char* oif;      // ip's "oif" for a zone
        const char* expectSrc;
        const char* expectDev;
        int expectErr;
    } cases[] = {
        {"10.77.1.2", "10.77.1.2", "", "10.77.1.1", "h0", 0},          // attached, primary address
        {"10.77.1.200", "10.77.1.200", "", "10.77.1.1", "h0", 0},
        {"10.77.2.9", "10.77.2.9", "", "10.77.2.1", "h1", 0},
        {"198.51.100.7", "198.51.100.7", "", "10.77.1.5", "h0", 0},    // the route's preferred source
        {"203.0.113.9", "203.0.113.9", "", "10.77.2.1", "h1", 0},      // lowest-metric default
        {"198.19.4.4", "198.19.4.4", "", "10.77.1.1", "h0", 0},        // the policy rule's table
        {"10.77.1.5", "10.77.1.5", "", "10.77.1.1", "lo", 0},          // a secondary address: its local route names the primary
        {"127.0.0.1", "127.0.0.1", "", "127.0.0.1", "lo", 0},
        {"192.0.2.5", "192.0.2.5", "", nullptr, nullptr, EHOSTUNREACH},
        {"203.0.113.200", "203.0.113.200", "", nullptr, nullptr, EACCES},
        {"fd00:77:1::2", "fd00:77:1::2", "", "fd00:77:1::1", "h0", 0},
        {"fd00:77:2::9", "fd00:77:2::9", "", "fd00:77:2::1", "h1", 0},
        {"2001:db8:77::1", "2001:db8:77::1", "", "fd00:77:2::1", "h1", 0},
        {"2001:db8:99::1", "2001:db8:99::1", "", "fd00:77:1::1", "h0", 0},  // rule, via a link-local gateway
        {"fe80::2%h0", "fe80::2", "h0", "fe80::1", "h0", 0},                // link-local peer in its zone
        {"2001:db8:dead::1", "2001:db8:dead::1", "", nullptr, nullptr, EHOSTUNREACH},
        {"::1", "::1", "", "::1", "lo", 0},
        {"::ffff:10.77.2.9", "10.77.2.9", "", "::ffff:10.77.2.1", "h1", 0}, // mapped: asked as IPv4
    };
    topo_->host().enter([&] {
        for (const Case& c : cases) {
            SCOPED_TRACE(c.dest);
            KernelAnswer kernel = ipRouteGet(topo_->host(), c.ipDest, c.oif);
            NET_ADDR dest, src;
            ASSERT_TRUE(NET_ADDR_fromString(&dest, c.dest));
            int ifIndex = -1;
            errno = 0;
            KV_RET r = KVNET_getSourceAddressToSendFrom(&dest, &src, &ifIndex);
            if (c.expectErr != 0) {
                EXPECT_EQ(r, KV_RET_ERROR);
                EXPECT_EQ(errno, c.expectErr) << strerror(errno);
                EXPECT_EQ(kernel.error, c.expectErr) << kernel.raw;
                continue;
            }
            ASSERT_EQ(r, KV_RET_OK) << strerror(errno) << "; ip says: " << kernel.raw;
            char dev[KVNET_IFNAMSIZ] = "";
            KVNET_ifName(ifIndex, dev, sizeof(dev));
            // Against the kernel through ip...
            NET_ADDR kernelSrc;
            ASSERT_TRUE(NET_ADDR_fromString(&kernelSrc, kernel.src.c_str())) << kernel.raw;
            NET_ADDR ours = src;
            NET_ADDR_unmapV4(&ours, &ours);
            if (NET_ADDR_type(&ours) == NET_ADDR_TYPE_IPV6) {
                ours.ipv6_.scope_id = 0; // ip prints no zone
            }
            if (NET_ADDR_type(&ours) == NET_ADDR_TYPE_IPV4) {
                EXPECT_EQ(text(ours), kernel.src);
            } else {
                EXPECT_TRUE(NET_ADDR_equalHost(&ours, &kernelSrc)) << text(src) << " vs " << kernel.raw;
            }
            EXPECT_EQ(std::string(dev), kernel.dev) << kernel.raw;
            // ...and against the picture above.
            EXPECT_EQ(text(src).substr(0, strlen(c.expectSrc)), c.expectSrc);
            EXPECT_STREQ(dev, c.expectDev);
            if (NET_ADDR_isLinkLocal(&src)) {
                EXPECT_EQ(NET_ADDR_scopeId(&src), static_cast<uint32_t>(KVNET_ifIndex("h0")));
            }
        }
    });
}

TEST_F(Netns, DefaultGatewaysAndRoutingTables)
{
    topo_->host().enter([&] {
        NET_ADDR gw;
        int ifIndex = 0;
        ASSERT_EQ(KVNET_getDefaultGateway(NET_ADDR_TYPE_IPV4, &gw, &ifIndex), KV_RET_OK);
        EXPECT_EQ(text(gw), "10.77.2.2") << "the lower metric wins";
        EXPECT_EQ(ifIndex, KVNET_ifIndex("h1"));
        ASSERT_EQ(KVNET_getDefaultGateway(NET_ADDR_TYPE_IPV6, &gw, &ifIndex), KV_RET_OK);
        EXPECT_EQ(text(gw), "fd00:77:2::2");
        EXPECT_EQ(ifIndex, KVNET_ifIndex("h1"));

        KVNET_ROUTE routes[64];
        KV_RET n = KVNET_readRoutes(NET_ADDR_TYPE_IPV4, routes, 64);
        ASSERT_GT(n, 0);
        bool found = false;
        for (KV_RET i = 0; i < n && i < 64; ++i) {
            if (text(routes[i].dest) == "198.51.100.0") {
                found = true;
                EXPECT_EQ(routes[i].prefixLen, 24);
                EXPECT_EQ(text(routes[i].gateway), "10.77.1.2");
                EXPECT_STREQ(routes[i].ifName, "h0");
            }
            EXPECT_NE(text(routes[i].dest), "198.18.0.0") << "table 77 is not in the main table";
        }
        EXPECT_TRUE(found);
        n = KVNET_readRoutes(NET_ADDR_TYPE_IPV6, routes, 64);
        ASSERT_GT(n, 0);
        found = false;
        for (KV_RET i = 0; i < n && i < 64; ++i) {
            if (text(routes[i].dest) == "fd00:77:1::" && routes[i].prefixLen == 64) {
                found = strcmp(routes[i].ifName, "h0") == 0;
            }
        }
        EXPECT_TRUE(found);
    });
    // Without any default route: ENOENT for both families.
    ASSERT_TRUE(topo_->host().ip("route del default via 10.77.2.2"));
    ASSERT_TRUE(topo_->host().ip("route del default via 10.77.1.2"));
    ASSERT_TRUE(topo_->host().ip("-6 route del default"));
    topo_->host().enter([&] {
        NET_ADDR gw;
        for (NET_ADDR_TYPE family : {NET_ADDR_TYPE_IPV4, NET_ADDR_TYPE_IPV6}) {
            errno = 0;
            EXPECT_EQ(KVNET_getDefaultGateway(family, &gw, nullptr), KV_RET_ERROR);
            EXPECT_EQ(errno, ENOENT);
        }
        // And the source lookup reports the kernel's reason.
        NET_ADDR dest, src;
        NET_ADDR_fromString(&dest, "203.0.113.9");
        EXPECT_EQ(KVNET_getSourceAddressToSendFrom(&dest, &src, nullptr), KV_RET_ERROR);
        EXPECT_EQ(errno, ENETUNREACH);
        NET_ADDR_fromString(&dest, "2001:db8:77::1");
        EXPECT_EQ(KVNET_getSourceAddressToSendFrom(&dest, &src, nullptr), KV_RET_ERROR);
        EXPECT_EQ(errno, ENETUNREACH);
    });
}

TEST_F(Netns, LinkLocalDefaultGatewayCarriesItsZone)
{
    ASSERT_TRUE(topo_->host().ip("-6 route replace default via fe80::2 dev h0"));
    topo_->host().enter([&] {
        NET_ADDR gw;
        int ifIndex = 0;
        ASSERT_EQ(KVNET_getDefaultGateway(NET_ADDR_TYPE_IPV6, &gw, &ifIndex), KV_RET_OK);
        EXPECT_EQ(ifIndex, KVNET_ifIndex("h0"));
        EXPECT_EQ(text(gw), "fe80::2%" + std::to_string(ifIndex));
    });
}

TEST_F(Netns, InterfaceAddressesAgreeWithIpAddrShow)
{
    std::string listing;
    ASSERT_TRUE(topo_->host().ip("-o addr show dev h0", &listing));
    topo_->host().enter([&] {
        int h0 = KVNET_ifIndex("h0");
        ASSERT_GT(h0, 0);
        NET_ADDR_TAB tab;
        NET_ADDR_TAB_init(&tab, 0);
        ASSERT_EQ(KVNET_getInterfaceAddresses(h0, NET_ADDR_TYPE_UNDEF, &tab), 4);
        std::vector<std::string> ours;
        for (size_t i = 0; i < NET_ADDR_TAB_count(&tab); ++i) {
            ours.push_back(text(*NET_ADDR_TAB_get(&tab, i)));
        }
        std::string zone = "%" + std::to_string(h0);
        std::vector<std::string> expected = {"10.77.1.1", "10.77.1.5", "fd00:77:1::1", "fe80::1" + zone};
        for (const std::string& e : expected) {
            EXPECT_NE(std::find(ours.begin(), ours.end(), e), ours.end()) << e;
            std::string bare = e.substr(0, e.find('%'));
            EXPECT_NE(listing.find(" " + bare + "/"), std::string::npos) << bare << " in " << listing;
        }
        NET_ADDR_TAB_clear(&tab);
        EXPECT_EQ(KVNET_getInterfaceAddresses(h0, NET_ADDR_TYPE_IPV6, &tab), 2);
        NET_ADDR_TAB_clear(&tab);
        EXPECT_EQ(KVNET_getInterfaceAddresses(KVNET_ifIndex("h1"), NET_ADDR_TYPE_IPV4, &tab), 1);
        NET_ADDR_TAB_destroy(&tab);
    });
}

TEST(NetnsLifecycle, NamespacesAreRemovedWhateverTheOutcome)
{
    std::string why = kvnet_test::netnsUnavailableReason();
    if (!why.empty()) {
        GTEST_SKIP() << why;
    }
    std::string name;
    {
        NetNs ns("life");
        name = ns.name();
        ASSERT_TRUE(ns.ok());
        std::string list;
        kvnet_test::shell("ip netns list", &list);
        EXPECT_NE(list.find(name), std::string::npos);
    }
    std::string list;
    kvnet_test::shell("ip netns list", &list);
    EXPECT_EQ(list.find(name), std::string::npos);
}

}  // namespace
