/* Routing-table parsers (byte order, masks, flags, malformed and cut-off
 * rows), the tables of this host, interface names and indexes, and the
 * addresses of the loopback interface. */
#include <errno.h>
#include <net/if.h>
#include <string.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kvnet/kvnet_route.h"

namespace {

std::string text(const NET_ADDR& a)
{
    char buf[NET_ADDR_STRLEN];
    NET_ADDR_toString(&a, buf, sizeof(buf));
    return buf;
}

std::vector<KVNET_ROUTE> parse(NET_ADDR_TYPE family, const std::string& table)
{
    std::vector<KVNET_ROUTE> rows(16);
    KV_RET n = KVNET_parseRoutes(family, table.data(), table.size(), rows.data(), rows.size());
    EXPECT_GE(n, 0);
    rows.resize(n < 0 ? 0 : static_cast<size_t>(n));
    return rows;
}

const char kHeading4[] = "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n";

TEST(ParseRoutes, IPv4RowsInNetworkByteOrder)
{
    std::string table = std::string(kHeading4) +
                        "eth0\t00000000\t0102000A\t0003\t0\t0\t100\t00000000\t0\t0\t0\n"
                        "eth0\t0002000A\t00000000\t0001\t0\t0\t0\t00FFFFFF\t0\t0\t0\n"
                        "wg-long-name15\t0100007F\t00000000\t0005\t0\t0\t4294967295\tFFFFFFFF\t0\t0\t0\n";
    auto rows = parse(NET_ADDR_TYPE_IPV4, table);
    ASSERT_EQ(rows.size(), 3u);
    EXPECT_EQ(text(rows[0].dest), "0.0.0.0");
    EXPECT_EQ(rows[0].prefixLen, 0);
    EXPECT_EQ(text(rows[0].gateway), "10.0.2.1");
    EXPECT_STREQ(rows[0].ifName, "eth0");
    EXPECT_EQ(rows[0].flags, KVNET_ROUTE_UP | KVNET_ROUTE_GATEWAY);
    EXPECT_EQ(rows[0].metric, 100u);

    EXPECT_EQ(text(rows[1].dest), "10.0.2.0");
    EXPECT_EQ(rows[1].prefixLen, 24);
    EXPECT_TRUE(NET_ADDR_isUnset(&rows[1].gateway)) << "no gateway flag: directly attached";

    EXPECT_EQ(text(rows[2].dest), "127.0.0.1");
    EXPECT_EQ(rows[2].prefixLen, 32);
    EXPECT_STREQ(rows[2].ifName, "wg-long-name15");
    EXPECT_EQ(rows[2].metric, 4294967295u);
    EXPECT_EQ(rows[2].flags & KVNET_ROUTE_HOST, KVNET_ROUTE_HOST);
}

TEST(ParseRoutes, IPv4MalformedRowsAreSkippedAlone)
{
    const char* good = "eth0\t0002000A\t00000000\t0001\t0\t0\t0\t00FFFFFF\t0\t0\t0\n";
    const char* bad[] = {
        "eth0\t0002000A\t00000000\t0001\t0\t0\t0\t00FF00FF\t0\t0\t0\n",        // mask with a hole
        "eth0\t0002000G\t00000000\t0001\t0\t0\t0\t00FFFFFF\t0\t0\t0\n",        // not hexadecimal
        "eth0\t002000A\t00000000\t0001\t0\t0\t0\t00FFFFFF\t0\t0\t0\n",         // 7 digits
        "eth0\t0002000A\t00000000\t0001\t0\t0\t0\t00FFFFFF\t0\t0\n",           // a field missing
        "eth0\t0002000A\t00000000\t0001\t0\t0\t0\t00FFFFFF\t0\t0\t0\t0\n",     // one too many
        "name-of-16-chars\t0002000A\t00000000\t0001\t0\t0\t0\t00FFFFFF\t0\t0\t0\n",
        "eth0\t0002000A\t00000000\t0001\t0\t0\t-1\t00FFFFFF\t0\t0\t0\n",       // negative metric
        "eth0\t0002000A\t00000000\t0001\t0\t0\t4294967296\t00FFFFFF\t0\t0\t0\n", // above 32 bits
        "\n",
        "et/h0\t0002000A\t00000000\t0001\t0\t0\t0\t00FFFFFF\t0\t0\t0\n",       // '/' in a name
        "et\x01h0\t0002000A\t00000000\t0001\t0\t0\t0\t00FFFFFF\t0\t0\t0\n",    // control byte
    };
    std::vector<std::string> rowsBad(std::begin(bad), std::end(bad));
    // A NUL inside a name: the row would otherwise give an empty name.
    rowsBad.push_back(std::string("\0eth0\t0002000A\t00000000\t0001\t0\t0\t0\t00FFFFFF\t0\t0\t0\n", 50));
    for (const std::string& row : rowsBad) {
        SCOPED_TRACE(row);
        auto rows = parse(NET_ADDR_TYPE_IPV4, std::string(kHeading4) + row + good);
        ASSERT_EQ(rows.size(), 1u);
        EXPECT_EQ(rows[0].prefixLen, 24);
    }
    // A table cut off in its last row keeps the rows before it.
    std::string cut = std::string(kHeading4) + good + "eth0\t0002000A\t0000";
    EXPECT_EQ(parse(NET_ADDR_TYPE_IPV4, cut).size(), 1u);
    std::string unterminated = std::string(kHeading4) + good;
    unterminated.pop_back();
    EXPECT_EQ(parse(NET_ADDR_TYPE_IPV4, unterminated).size(), 0u);
}

TEST(ParseRoutes, IPv6Rows)
{
    std::string table =
        "00000000000000000000000000000000 00 00000000000000000000000000000000 00 "
        "fe800000000000000000000000000001 00000400 00000001 00000000 00000003     eth0\n"
        "20010db8000000000000000000000000 30 00000000000000000000000000000000 00 "
        "00000000000000000000000000000000 00000100 00000001 00000000 00000001     eth0\n"
        "00000000000000000000000000000000 00 00000000000000000000000000000000 00 "
        "00000000000000000000000000000000 ffffffff 00000001 00000000 00200200       lo\n"
        "20010db8000000000000000000000000 81 00000000000000000000000000000000 00 "
        "00000000000000000000000000000000 00000100 00000001 00000000 00000001     eth0\n" // prefix 129
        "20010db80000000000000000000000 30 00000000000000000000000000000000 00 "
        "00000000000000000000000000000000 00000100 00000001 00000000 00000001     eth0\n"; // 30 digits
    auto rows = parse(NET_ADDR_TYPE_IPV6, table);
    ASSERT_EQ(rows.size(), 3u);
    EXPECT_EQ(text(rows[0].dest), "::");
    EXPECT_EQ(text(rows[0].gateway), "fe80::1");
    EXPECT_EQ(rows[0].metric, 0x400u);
    EXPECT_EQ(text(rows[1].dest), "2001:db8::");
    EXPECT_EQ(rows[1].prefixLen, 48);
    EXPECT_TRUE(NET_ADDR_isUnset(&rows[1].gateway));
    EXPECT_EQ(rows[2].flags & KVNET_ROUTE_REJECT, KVNET_ROUTE_REJECT);
    EXPECT_STREQ(rows[2].ifName, "lo");
}

TEST(ParseRoutes, CountsBeyondMaxAndBadArguments)
{
    std::string table = std::string(kHeading4);
    for (int i = 0; i < 5; ++i) {
        table += "eth0\t0002000A\t00000000\t0001\t0\t0\t" + std::to_string(i) + "\t00FFFFFF\t0\t0\t0\n";
    }
    KVNET_ROUTE two[2];
    EXPECT_EQ(KVNET_parseRoutes(NET_ADDR_TYPE_IPV4, table.data(), table.size(), two, 2), 5);
    EXPECT_EQ(two[1].metric, 1u);
    EXPECT_EQ(KVNET_parseRoutes(NET_ADDR_TYPE_IPV4, table.data(), table.size(), nullptr, 0), 5);
    EXPECT_EQ(KVNET_parseRoutes(NET_ADDR_TYPE_IPV4, nullptr, 0, nullptr, 0), 0);
    errno = 0;
    EXPECT_EQ(KVNET_parseRoutes(NET_ADDR_TYPE_UNDEF, table.data(), table.size(), two, 2), KV_RET_ERROR);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(KVNET_parseRoutes(NET_ADDR_TYPE_IPV4, table.data(), table.size(), nullptr, 2), KV_RET_ERROR);
    EXPECT_EQ(KVNET_readRoutes(static_cast<NET_ADDR_TYPE>(5), two, 2), KV_RET_ERROR);
}

TEST(ReadRoutes, ThisHostsTableHasItsLoopbackOrConnectedRoutes)
{
    // Whatever the host, every IPv4 row of the kernel's table parses.
    std::string raw;
    {
        FILE* f = fopen(KVNET_ROUTE_TABLE_IPV4, "r");
        ASSERT_NE(f, nullptr);
        char buf[4096];
        size_t n;
        while ((n = fread(buf, 1, sizeof(buf), f)) > 0) {
            raw.append(buf, n);
        }
        fclose(f);
    }
    size_t lines = 0;
    for (char c : raw) {
        lines += c == '\n';
    }
    KV_RET n = KVNET_readRoutes(NET_ADDR_TYPE_IPV4, nullptr, 0);
    EXPECT_EQ(n, static_cast<KV_RET>(lines - 1)) << raw; // all but the heading
}

TEST(Interfaces, NamesAndIndexes)
{
    int lo = KVNET_ifIndex("lo");
    ASSERT_GT(lo, 0);
    EXPECT_EQ(static_cast<unsigned>(lo), if_nametoindex("lo"));
    char name[KVNET_IFNAMSIZ];
    EXPECT_EQ(KVNET_ifName(lo, name, sizeof(name)), KV_RET_OK);
    EXPECT_STREQ(name, "lo");
    EXPECT_EQ(KVNET_ifIndex("no-such-if"), 0);
    EXPECT_EQ(KVNET_ifIndex(nullptr), 0);
    struct Case {
        int index;
        size_t len;
        char* buf;
        int err;
    } cases[] = {{0, sizeof(name), name, ENXIO}, {-1, sizeof(name), name, ENXIO}, {1 << 30, sizeof(name), name, ENXIO},
                 {lo, 2, name, ENOSPC}, {lo, 3, name, 0}, {lo, sizeof(name), nullptr, EINVAL}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.index);
        errno = 0;
        KV_RET r = KVNET_ifName(c.index, c.buf, c.len);
        EXPECT_EQ(r, c.err == 0 ? KV_RET_OK : KV_RET_ERROR);
        EXPECT_EQ(errno, c.err);
    }
}

TEST(Interfaces, LoopbackAddresses)
{
    int lo = KVNET_ifIndex("lo");
    NET_ADDR_TAB tab;
    NET_ADDR_TAB_init(&tab, 0);
    ASSERT_GE(KVNET_getInterfaceAddresses(lo, NET_ADDR_TYPE_IPV4, &tab), 1);
    NET_ADDR loop4, loop6;
    NET_ADDR_setLoopback(&loop4, NET_ADDR_TYPE_IPV4);
    NET_ADDR_setLoopback(&loop6, NET_ADDR_TYPE_IPV6);
    EXPECT_TRUE(NET_ADDR_TAB_contains(&tab, &loop4));
    EXPECT_FALSE(NET_ADDR_TAB_contains(&tab, &loop6));
    // Asked again: everything is there already, nothing added.
    EXPECT_EQ(KVNET_getInterfaceAddresses(lo, NET_ADDR_TYPE_IPV4, &tab), 0);
    bool v6 = access("/proc/net/if_inet6", F_OK) == 0;
    KV_RET added = KVNET_getInterfaceAddresses(lo, NET_ADDR_TYPE_UNDEF, &tab);
    EXPECT_EQ(added, v6 ? 1 : 0);
    EXPECT_EQ(NET_ADDR_TAB_contains(&tab, &loop6), v6);
    NET_ADDR_TAB_destroy(&tab);

    NET_ADDR_TAB one;
    NET_ADDR_TAB_init(&one, 1);
    NET_ADDR other;
    NET_ADDR_fromString(&other, "192.0.2.77");
    NET_ADDR_TAB_add(&one, &other);
    EXPECT_EQ(KVNET_getInterfaceAddresses(lo, NET_ADDR_TYPE_IPV4, &one), NET_ADDR_TAB_FULL);
    EXPECT_EQ(NET_ADDR_TAB_count(&one), 1u);
    NET_ADDR_TAB_destroy(&one);

    errno = 0;
    EXPECT_EQ(KVNET_getInterfaceAddresses(0, NET_ADDR_TYPE_IPV4, &tab), KV_RET_ERROR);
    EXPECT_EQ(errno, ENXIO);
    EXPECT_EQ(KVNET_getInterfaceAddresses(lo, static_cast<NET_ADDR_TYPE>(4), &tab), KV_RET_ERROR);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(KVNET_getInterfaceAddresses(lo, NET_ADDR_TYPE_IPV4, nullptr), KV_RET_ERROR);
}

}  // namespace
