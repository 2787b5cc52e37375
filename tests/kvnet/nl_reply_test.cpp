/* The netlink reply parsers on replies built by hand: a well-formed route
 * answer, a rejecting route, the kernel's error message, and hostile
 * framing (a length beyond the datagram, a cut attribute, the wrong family
 * or message type). */
#include <errno.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <libmnl/libmnl.h>

#include <gtest/gtest.h>

#include <cstring>

#include "linux/nl_reply.h"

namespace {

using kvnet_nl::RouteAnswer;

/* A route answer for 10.0.0.9 through interface 3 from 10.0.0.1. */
struct Reply {
    alignas(struct nlmsghdr) uint8_t buf[512] = {};
    struct nlmsghdr* nlh;

    explicit Reply(uint8_t family = AF_INET, uint16_t type = RTM_NEWROUTE)
    {
        nlh = mnl_nlmsg_put_header(buf);
        nlh->nlmsg_type = type;
        auto* rtm = static_cast<struct rtmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(struct rtmsg)));
        rtm->rtm_family = family;
        rtm->rtm_type = RTN_UNICAST;
        const uint8_t dst[4] = {10, 0, 0, 9}, src[4] = {10, 0, 0, 1};
        mnl_attr_put(nlh, RTA_DST, 4, dst);
        mnl_attr_put_u32(nlh, RTA_OIF, 3);
        mnl_attr_put(nlh, RTA_PREFSRC, 4, src);
    }
    int parse(RouteAnswer* a, size_t len = 0) const
    {
        return kvnet_nl::parseRouteReply(buf, len ? len : nlh->nlmsg_len, 0, 0, AF_INET, a);
    }
};

TEST(NetlinkReply, RouteAnswer)
{
    Reply r;
    RouteAnswer a;
    EXPECT_EQ(r.parse(&a), MNL_CB_OK);
    ASSERT_TRUE(a.found);
    EXPECT_TRUE(a.hasSource);
    EXPECT_EQ(a.source[0], 10);
    EXPECT_EQ(a.source[3], 1);
    EXPECT_EQ(a.oif, 3u);
    EXPECT_EQ(a.routeError, 0);
}

TEST(NetlinkReply, KernelErrorBecomesErrno)
{
    alignas(struct nlmsghdr) uint8_t buf[128] = {};
    struct nlmsghdr* nlh = mnl_nlmsg_put_header(buf);
    nlh->nlmsg_type = NLMSG_ERROR;
    auto* err = static_cast<struct nlmsgerr*>(mnl_nlmsg_put_extra_header(nlh, sizeof(struct nlmsgerr)));
    err->error = -ENETUNREACH;
    err->msg.nlmsg_len = sizeof(struct nlmsghdr);
    RouteAnswer a;
    errno = 0;
    EXPECT_EQ(kvnet_nl::parseRouteReply(buf, nlh->nlmsg_len, 0, 0, AF_INET, &a), MNL_CB_ERROR);
    EXPECT_EQ(errno, ENETUNREACH);
    EXPECT_FALSE(a.found);
}

TEST(NetlinkReply, HostileFramingIsRefused)
{
    struct Case {
        const char* what;
        void (*spoil)(Reply&, size_t*);
    } cases[] = {
        // libmnl alone compares this length as a negative number and walks
        // 2 GB past the datagram.
        {"length of 2^31 and more", [](Reply& r, size_t*) { r.nlh->nlmsg_len = 0x80000010u; }},
        {"length beyond the datagram", [](Reply& r, size_t* len) { *len = r.nlh->nlmsg_len - 4; }},
        {"length below a header", [](Reply& r, size_t*) { r.nlh->nlmsg_len = 8; }},
        {"attribute longer than the message",
         [](Reply& r, size_t*) {
             auto* attr = reinterpret_cast<struct nlattr*>(r.buf + r.nlh->nlmsg_len - 8);
             attr->nla_len = 200;
         }},
        {"source of the wrong size",
         [](Reply& r, size_t*) {
             auto* attr = reinterpret_cast<struct nlattr*>(r.buf + r.nlh->nlmsg_len - 8);
             attr->nla_len = 6;
         }},
        {"payload shorter than a route header",
         [](Reply& r, size_t*) { r.nlh->nlmsg_len = sizeof(struct nlmsghdr) + 4; }},
        {"another family", [](Reply& r, size_t*) { static_cast<struct rtmsg*>(mnl_nlmsg_get_payload(r.nlh))->rtm_family = AF_INET6; }},
        {"another message type", [](Reply& r, size_t*) { r.nlh->nlmsg_type = RTM_NEWADDR; }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Reply r;
        size_t len = r.nlh->nlmsg_len;
        c.spoil(r, &len);
        RouteAnswer a;
        errno = 0;
        EXPECT_EQ(kvnet_nl::parseRouteReply(r.buf, len, 0, 0, AF_INET, &a), MNL_CB_ERROR);
        EXPECT_NE(errno, 0);
        EXPECT_FALSE(a.hasSource);
    }
}

TEST(NetlinkReply, AddressDumpHostileLengthsAreRefused)
{
    // 0xFFFFFFF0 passes libmnl's signed check; 0xFFFFFFFE rounds up to 0
    // with a 32-bit alignment mask and would make a framing walk spin.
    for (uint32_t bad : {0xFFFFFFF0u, 0xFFFFFFFEu, 0x80000000u, 8u, 36u}) {
        SCOPED_TRACE(bad);
        alignas(struct nlmsghdr) uint8_t buf[64] = {};
        struct nlmsghdr* nlh = mnl_nlmsg_put_header(buf);
        nlh->nlmsg_type = RTM_NEWADDR;
        mnl_nlmsg_put_extra_header(nlh, sizeof(struct ifaddrmsg));
        nlh->nlmsg_len = 32; // a well-framed first message, then the bad one
        struct nlmsghdr* second = reinterpret_cast<struct nlmsghdr*>(buf + 32);
        second->nlmsg_len = bad;
        NET_ADDR_TAB tab;
        NET_ADDR_TAB_init(&tab, 0);
        kvnet_nl::AddressCollector c;
        c.ifIndex = 1;
        c.family = AF_UNSPEC;
        c.tab = &tab;
        EXPECT_EQ(kvnet_nl::parseAddressReply(buf, sizeof(buf), 0, 0, &c), MNL_CB_ERROR);
        EXPECT_EQ(c.added, 0);
        NET_ADDR_TAB_destroy(&tab);
    }
}

}  // namespace
