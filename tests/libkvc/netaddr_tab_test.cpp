#include "libkvc/netaddr.h"

#include <arpa/inet.h>
#include <ifaddrs.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <set>
#include <string>
#include <vector>

namespace {

NET_ADDR addr(const char* text)
{
    NET_ADDR a;
    EXPECT_TRUE(NET_ADDR_fromString(&a, text)) << text;
    return a;
}

std::vector<std::string> texts(const NET_ADDR_TAB& tab)
{
    std::vector<std::string> out;
    for (size_t i = 0; i < NET_ADDR_TAB_count(&tab); ++i) {
        char buf[NET_ADDR_STRLEN];
        NET_ADDR_toString(NET_ADDR_TAB_get(&tab, i), buf, sizeof buf);
        out.push_back(buf);
    }
    return out;
}

/* A table destroyed at the end of the scope. */
struct Tab {
    explicit Tab(size_t limit = 0) { NET_ADDR_TAB_init(&t, limit); }
    ~Tab() { NET_ADDR_TAB_destroy(&t); }
    Tab(const Tab&) = delete;
    Tab& operator=(const Tab&) = delete;
    NET_ADDR_TAB t;
};

TEST(NetAddrTab, KeepsInsertionOrderAndRefusesDuplicates)
{
    Tab tab;
    struct Row {
        const char* text;
        KV_RET result;
    } rows[] = {
        {"10.0.0.2", KV_RET_OK},          {"10.0.0.1", KV_RET_OK},
        {"10.0.0.2", NET_ADDR_TAB_DUPLICATE}, {"10.0.0.2:80", KV_RET_OK},  // another port: another entry
        {"::1", KV_RET_OK},               {"0:0::1", NET_ADDR_TAB_DUPLICATE},
    };
    for (const Row& r : rows) {
        NET_ADDR a = addr(r.text);
        EXPECT_EQ(NET_ADDR_TAB_add(&tab.t, &a), r.result) << r.text;
    }
    EXPECT_EQ(texts(tab.t), (std::vector<std::string>{"10.0.0.2", "10.0.0.1", "10.0.0.2:80", "::1"}));
    NET_ADDR unset;
    NET_ADDR_init(&unset);
    EXPECT_EQ(NET_ADDR_TAB_add(&tab.t, &unset), KV_RET_ERROR);
    EXPECT_EQ(NET_ADDR_TAB_get(&tab.t, 4), nullptr);

    NET_ADDR probe = addr("10.0.0.2:80");
    EXPECT_EQ(NET_ADDR_TAB_find(&tab.t, &probe), 2);
    EXPECT_TRUE(NET_ADDR_TAB_contains(&tab.t, &probe));
    probe = addr("10.0.0.1:9");
    EXPECT_FALSE(NET_ADDR_TAB_contains(&tab.t, &probe));
    EXPECT_TRUE(NET_ADDR_TAB_containsHost(&tab.t, &probe));
    probe = addr("10.0.0.3");
    EXPECT_FALSE(NET_ADDR_TAB_containsHost(&tab.t, &probe));
    EXPECT_EQ(NET_ADDR_TAB_find(&tab.t, &probe), -1);
}

TEST(NetAddrTab, RemoveKeepsTheOrderOfTheRest)
{
    Tab tab;
    for (const char* s : {"1.1.1.1", "2.2.2.2", "3.3.3.3", "4.4.4.4"}) {
        NET_ADDR a = addr(s);
        ASSERT_EQ(NET_ADDR_TAB_add(&tab.t, &a), KV_RET_OK);
    }
    struct Row {
        const char* text;
        KV_RET result;
        std::vector<std::string> after;
    } rows[] = {
        {"2.2.2.2", KV_RET_OK, {"1.1.1.1", "3.3.3.3", "4.4.4.4"}},
        {"2.2.2.2", KV_RET_ERROR, {"1.1.1.1", "3.3.3.3", "4.4.4.4"}},
        {"4.4.4.4", KV_RET_OK, {"1.1.1.1", "3.3.3.3"}},
        {"1.1.1.1", KV_RET_OK, {"3.3.3.3"}},
        {"3.3.3.3:1", KV_RET_ERROR, {"3.3.3.3"}},
        {"3.3.3.3", KV_RET_OK, {}},
    };
    for (const Row& r : rows) {
        NET_ADDR a = addr(r.text);
        EXPECT_EQ(NET_ADDR_TAB_remove(&tab.t, &a), r.result) << r.text;
        EXPECT_EQ(texts(tab.t), r.after) << r.text;
    }
}

TEST(NetAddrTab, LimitClearAndReuse)
{
    Tab tab(3);
    char text[32];
    for (int i = 0; i < 3; ++i) {
        std::snprintf(text, sizeof text, "192.0.2.%d", i);
        NET_ADDR a = addr(text);
        ASSERT_EQ(NET_ADDR_TAB_add(&tab.t, &a), KV_RET_OK);
    }
    NET_ADDR more = addr("192.0.2.100");
    EXPECT_EQ(NET_ADDR_TAB_add(&tab.t, &more), NET_ADDR_TAB_FULL);
    NET_ADDR dup = addr("192.0.2.0");
    EXPECT_EQ(NET_ADDR_TAB_add(&tab.t, &dup), NET_ADDR_TAB_DUPLICATE);  // a duplicate is a duplicate, full or not
    EXPECT_EQ(NET_ADDR_TAB_count(&tab.t), 3u);
    NET_ADDR_TAB_clear(&tab.t);
    EXPECT_EQ(NET_ADDR_TAB_count(&tab.t), 0u);
    EXPECT_EQ(NET_ADDR_TAB_get(&tab.t, 0), nullptr);
    EXPECT_EQ(NET_ADDR_TAB_add(&tab.t, &more), KV_RET_OK);  // the limit stays, the room comes back

    // Destroy leaves a usable empty table.
    NET_ADDR_TAB_destroy(&tab.t);
    EXPECT_EQ(NET_ADDR_TAB_count(&tab.t), 0u);
    EXPECT_EQ(NET_ADDR_TAB_add(&tab.t, &more), KV_RET_OK);
}

TEST(NetAddrTab, GrowsWithoutLimit)
{
    Tab tab;
    for (uint32_t i = 0; i < 1000; ++i) {
        NET_ADDR a;
        NET_ADDR_fromIPv4(&a, 0x0a000000u + i);
        ASSERT_EQ(NET_ADDR_TAB_add(&tab.t, &a), KV_RET_OK) << i;
    }
    ASSERT_EQ(NET_ADDR_TAB_count(&tab.t), 1000u);
    for (uint32_t i = 0; i < 1000; i += 111) {
        EXPECT_EQ(ntohl(NET_ADDR_TAB_get(&tab.t, i)->addr_), 0x0a000000u + i);
    }
}

TEST(NetAddrTab, SortUsesTheAddressOrder)
{
    Tab tab;
    for (const char* s : {"::1", "10.0.0.1:5", "fe80::1%2", "10.0.0.1", "9.9.9.9", "fe80::1%1", "[::1]:1"}) {
        NET_ADDR a = addr(s);
        ASSERT_EQ(NET_ADDR_TAB_add(&tab.t, &a), KV_RET_OK);
    }
    NET_ADDR_TAB_sort(&tab.t);
    EXPECT_EQ(texts(tab.t), (std::vector<std::string>{"9.9.9.9", "10.0.0.1", "10.0.0.1:5", "::1", "[::1]:1",
                                                      "fe80::1%1", "fe80::1%2"}));
}

constexpr int kBothFamilies = 0;

/* What getifaddrs lists, as text, for one family (kBothFamilies: both). */
std::set<std::string> systemAddresses(int family)
{
    std::set<std::string> out;
    struct ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) {
        return out;
    }
    for (struct ifaddrs* it = list; it; it = it->ifa_next) {
        if (!it->ifa_addr || (it->ifa_addr->sa_family != AF_INET && it->ifa_addr->sa_family != AF_INET6)) {
            continue;
        }
        if (family != kBothFamilies && it->ifa_addr->sa_family != family) {
            continue;
        }
        NET_ADDR a;
        NET_ADDR_fromSockaddr(&a, it->ifa_addr, it->ifa_addr->sa_family == AF_INET ? sizeof(sockaddr_in)
                                                                                    : sizeof(sockaddr_in6));
        NET_ADDR_setPort(&a, NET_IP_PORT_UNDEF);
        char buf[NET_ADDR_STRLEN];
        NET_ADDR_toString(&a, buf, sizeof buf);
        out.insert(buf);
    }
    freeifaddrs(list);
    return out;
}

TEST(NetAddrTab, FillFromInterfacesByFamily)
{
    struct Row {
        NET_ADDR_TYPE type;
        int family;
    } rows[] = {{NET_ADDR_TYPE_IPV4, AF_INET}, {NET_ADDR_TYPE_IPV6, AF_INET6}, {NET_ADDR_TYPE_UNDEF, kBothFamilies}};
    for (const Row& r : rows) {
        Tab tab;
        KV_RET n = NET_ADDR_TAB_fillFromInterfaces(&tab.t, r.type);
        ASSERT_TRUE(KV_RET_IS_OK(n));
        std::vector<std::string> got = texts(tab.t);
        EXPECT_EQ(static_cast<size_t>(n), got.size());
        EXPECT_EQ(std::set<std::string>(got.begin(), got.end()), systemAddresses(r.family)) << r.type;
        for (size_t i = 0; i < NET_ADDR_TAB_count(&tab.t); ++i) {
            const NET_ADDR* a = NET_ADDR_TAB_get(&tab.t, i);
            EXPECT_FALSE(NET_ADDR_hasPort(a));
            EXPECT_TRUE(r.type == NET_ADDR_TYPE_UNDEF || a->type_ == r.type);
            // Link-local IPv6 addresses carry their interface.
            if (a->type_ == NET_ADDR_TYPE_IPV6 && NET_ADDR_isLinkLocal(a)) {
                EXPECT_NE(NET_ADDR_scopeId(a), 0u);
            }
        }
        if (r.type != NET_ADDR_TYPE_IPV6) {
            NET_ADDR loop;
            NET_ADDR_setLoopback(&loop, NET_ADDR_TYPE_IPV4);
            EXPECT_TRUE(NET_ADDR_TAB_contains(&tab.t, &loop));
        }
        // A second fill adds nothing: everything is there already.
        EXPECT_EQ(NET_ADDR_TAB_fillFromInterfaces(&tab.t, r.type), 0);
    }
}

TEST(NetAddrTab, FillStopsAtTheLimitAndRefusesOtherFamilies)
{
    Tab tab(1);
    EXPECT_EQ(NET_ADDR_TAB_fillFromInterfaces(&tab.t, static_cast<NET_ADDR_TYPE>(4)), KV_RET_ERROR);
    EXPECT_EQ(NET_ADDR_TAB_count(&tab.t), 0u);
    if (systemAddresses(kBothFamilies).size() < 2) {
        GTEST_SKIP() << "fewer than two interface addresses";
    }
    EXPECT_EQ(NET_ADDR_TAB_fillFromInterfaces(&tab.t, NET_ADDR_TYPE_UNDEF), NET_ADDR_TAB_FULL);
    EXPECT_EQ(NET_ADDR_TAB_count(&tab.t), 1u);
}

}  // namespace
