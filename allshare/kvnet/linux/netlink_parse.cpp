/*
 * Parsers of rtnetlink replies (see linux/nl_reply.h). Nothing is read from
 * a message before libmnl has checked the message's length, and nothing
 * from an attribute before its type and payload length are checked here.
 */
#include <errno.h>
#include <sys/socket.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <stdint.h>
#include <string.h>

#include <libmnl/libmnl.h>

#include "linux/nl_reply.h"

namespace kvnet_nl {
namespace {

size_t addressLength(int family)
{
    return family == AF_INET ? 4 : family == AF_INET6 ? 16 : 0;
}

size_t align4(size_t n)
{
    return (n + 3) & ~static_cast<size_t>(3);
}

int fail()
{
    errno = EPROTO;
    return MNL_CB_ERROR;
}

/* Whether the attributes after `offset` fill the message exactly. libmnl's
 * walk simply stops at an attribute that does not fit, so a cut or
 * overlong attribute would otherwise go unnoticed and the answer would be
 * read as if the attribute had never been sent. */
bool attributesFit(const struct nlmsghdr* nlh, size_t offset)
{
    const auto* base = reinterpret_cast<const uint8_t*>(nlh);
    size_t at = MNL_ALIGN(sizeof(struct nlmsghdr)) + MNL_ALIGN(offset);
    size_t end = nlh->nlmsg_len;
    while (at < end) {
        if (end - at < sizeof(struct nlattr)) {
            return false;
        }
        struct nlattr attr;
        memcpy(&attr, base + at, sizeof(attr));
        if (attr.nla_len < sizeof(struct nlattr) || attr.nla_len > end - at) {
            return false;
        }
        at += align4(attr.nla_len);
    }
    return true;
}

/* Attributes of one route message that the answer needs, checked. */
struct RouteAttrs {
    const struct nlattr* prefsrc = nullptr;
    const struct nlattr* oif = nullptr;
    const struct nlattr* cacheinfo = nullptr;
    size_t addrLen = 0;
};

int routeAttr(const struct nlattr* attr, void* data)
{
    auto* attrs = static_cast<RouteAttrs*>(data);
    if (mnl_attr_type_valid(attr, RTA_MAX) < 0) {
        return MNL_CB_OK; // an attribute newer than these headers: not ours
    }
    switch (mnl_attr_get_type(attr)) {
    case RTA_PREFSRC:
        if (mnl_attr_get_payload_len(attr) != attrs->addrLen) {
            return fail();
        }
        attrs->prefsrc = attr;
        break;
    case RTA_OIF:
        if (mnl_attr_validate(attr, MNL_TYPE_U32) < 0) {
            return fail();
        }
        attrs->oif = attr;
        break;
    case RTA_CACHEINFO:
        if (mnl_attr_get_payload_len(attr) < sizeof(struct rta_cacheinfo)) {
            return fail();
        }
        attrs->cacheinfo = attr;
        break;
    default:
        break;
    }
    return MNL_CB_OK;
}

struct RouteContext {
    int family;
    RouteAnswer* out;
};

int routeMessage(const struct nlmsghdr* nlh, void* data)
{
    auto* ctx = static_cast<RouteContext*>(data);
    if (nlh->nlmsg_type != RTM_NEWROUTE || mnl_nlmsg_get_payload_len(nlh) < sizeof(struct rtmsg)) {
        return fail();
    }
    if (ctx->out->found) {
        return MNL_CB_OK; // one question, one answer: later messages are ignored
    }
    struct rtmsg rtm;
    memcpy(&rtm, mnl_nlmsg_get_payload(nlh), sizeof(rtm));
    if (rtm.rtm_family != ctx->family) {
        return fail();
    }
    RouteAttrs attrs;
    attrs.addrLen = addressLength(ctx->family);
    if (!attributesFit(nlh, sizeof(struct rtmsg))) {
        return fail();
    }
    if (mnl_attr_parse(nlh, sizeof(struct rtmsg), routeAttr, &attrs) != MNL_CB_OK) {
        return MNL_CB_ERROR;
    }
    RouteAnswer& out = *ctx->out;
    out.found = true;
    out.family = rtm.rtm_family;
    out.type = rtm.rtm_type;
    if (attrs.prefsrc != nullptr) {
        out.hasSource = true;
        memcpy(out.source, mnl_attr_get_payload(attrs.prefsrc), attrs.addrLen);
    }
    if (attrs.oif != nullptr) {
        out.oif = mnl_attr_get_u32(attrs.oif);
    }
    if (attrs.cacheinfo != nullptr) {
        struct rta_cacheinfo ci;
        memcpy(&ci, mnl_attr_get_payload(attrs.cacheinfo), sizeof(ci));
        out.routeError = ci.rta_error;
    }
    return MNL_CB_OK;
}

struct AddrAttrs {
    const struct nlattr* address = nullptr;
    const struct nlattr* local = nullptr;
    size_t addrLen = 0;
};

int addressAttr(const struct nlattr* attr, void* data)
{
    auto* attrs = static_cast<AddrAttrs*>(data);
    if (mnl_attr_type_valid(attr, IFA_MAX) < 0) {
        return MNL_CB_OK;
    }
    int type = mnl_attr_get_type(attr);
    if (type == IFA_ADDRESS || type == IFA_LOCAL) {
        if (mnl_attr_get_payload_len(attr) != attrs->addrLen) {
            return fail();
        }
        (type == IFA_ADDRESS ? attrs->address : attrs->local) = attr;
    }
    return MNL_CB_OK;
}

int addressMessage(const struct nlmsghdr* nlh, void* data)
{
    auto* c = static_cast<AddressCollector*>(data);
    if (nlh->nlmsg_type != RTM_NEWADDR || mnl_nlmsg_get_payload_len(nlh) < sizeof(struct ifaddrmsg)) {
        return fail();
    }
    struct ifaddrmsg ifa;
    memcpy(&ifa, mnl_nlmsg_get_payload(nlh), sizeof(ifa));
    size_t addrLen = addressLength(ifa.ifa_family);
    if (addrLen == 0) {
        return MNL_CB_OK; // another family in a dump of all: skipped
    }
    AddrAttrs attrs;
    attrs.addrLen = addrLen;
    if (!attributesFit(nlh, sizeof(struct ifaddrmsg))) {
        return fail();
    }
    if (mnl_attr_parse(nlh, sizeof(struct ifaddrmsg), addressAttr, &attrs) != MNL_CB_OK) {
        return MNL_CB_ERROR;
    }
    if (static_cast<int>(ifa.ifa_index) != c->ifIndex || (c->family != AF_UNSPEC && ifa.ifa_family != c->family) ||
        c->full) {
        return MNL_CB_OK;
    }
    // On a point-to-point link IFA_ADDRESS is the peer; IFA_LOCAL is ours.
    const struct nlattr* attr = attrs.local != nullptr ? attrs.local : attrs.address;
    if (attr == nullptr) {
        return MNL_CB_OK;
    }
    NET_ADDR a;
    if (ifa.ifa_family == AF_INET) {
        NET_ADDR_init(&a);
        a.type_ = NET_ADDR_TYPE_IPV4;
        memcpy(&a.addr_, mnl_attr_get_payload(attr), 4);
    } else {
        uint8_t octets[16];
        memcpy(octets, mnl_attr_get_payload(attr), 16);
        NET_ADDR_fromIPv6(&a, octets, 0);
        if (NET_ADDR_isLinkLocal(&a)) {
            a.ipv6_.scope_id = ifa.ifa_index;
        }
    }
    switch (NET_ADDR_TAB_add(c->tab, &a)) {
    case KV_RET_OK:
        ++c->added;
        break;
    case NET_ADDR_TAB_DUPLICATE:
        break;
    case NET_ADDR_TAB_FULL:
        // The rest of the dump is still read, so that no reply is left queued.
        c->full = true;
        break;
    default:
        errno = ENOMEM;
        return MNL_CB_ERROR;
    }
    return MNL_CB_OK;
}

/* Checks the framing of every message before libmnl walks the buffer:
 * libmnl compares a message's length with what is left as signed numbers,
 * so a length of 2^31 or more would pass its check and send it (and the
 * attribute parser) far outside the buffer. Each length must be at least a
 * header and, rounded up to the alignment, at most what is left. */
bool framingOk(const void* buf, size_t len)
{
    if (len > static_cast<size_t>(INT32_MAX)) {
        return false;
    }
    const auto* p = static_cast<const uint8_t*>(buf);
    size_t at = 0;
    while (len - at >= sizeof(struct nlmsghdr)) {
        uint32_t msgLen;
        memcpy(&msgLen, p + at, sizeof(msgLen));
        // The aligned length must fit too: libmnl reads attributes up to it.
        // (Not NLMSG_ALIGN: its 32-bit mask turns 0xFFFFFFFE into a step of 0.)
        size_t step = align4(msgLen);
        if (msgLen < sizeof(struct nlmsghdr) || step > len - at) {
            return false;
        }
        if (step >= len - at) {
            break;
        }
        at += step;
    }
    return true;
}

}  // namespace

int parseRouteReply(const void* buf, size_t len, uint32_t seq, uint32_t portid, int family, RouteAnswer* out)
{
    if (!framingOk(buf, len)) {
        return fail();
    }
    RouteContext ctx{family, out};
    return mnl_cb_run(buf, len, seq, portid, routeMessage, &ctx);
}

int parseAddressReply(const void* buf, size_t len, uint32_t seq, uint32_t portid, AddressCollector* out)
{
    if (!framingOk(buf, len)) {
        return fail();
    }
    return mnl_cb_run(buf, len, seq, portid, addressMessage, out);
}

}  // namespace kvnet_nl
