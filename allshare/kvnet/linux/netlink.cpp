/*
 * Routing questions asked of the kernel over rtnetlink, through libmnl.
 *
 * Each thread keeps one netlink socket, opened on its first question and
 * closed when the thread ends, so a lookup costs one request and one reply
 * and no socket set-up. A socket is bound once (the kernel gives it a port
 * id) and every request carries the next sequence number; replies are
 * checked against both. When an exchange fails half-way, replies may still
 * be queued on the socket: it is closed then and the next question opens a
 * fresh one, so stale replies can never be read as the answer to a later
 * question.
 */
#include "linux/nl_reply.h"

#include <errno.h>
#include <sys/socket.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <string.h>
#include <time.h>

#include <libmnl/libmnl.h>

#include <memory>

#include "kvnet/kvnet_route.h"

namespace {

constexpr size_t kReceiveSize = 32768; // room for a full dump message batch

class NetlinkSocket {
public:
    ~NetlinkSocket() { close(); }

    /* Opens and binds the socket when it is not open yet. */
    bool ready()
    {
        if (nl_ != nullptr) {
            return true;
        }
        if (!buffer_) {
            buffer_.reset(new (std::nothrow) uint32_t[kReceiveSize / sizeof(uint32_t)]);
            if (!buffer_) {
                errno = ENOMEM;
                return false;
            }
        }
        nl_ = mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC);
        if (nl_ == nullptr) {
            return false;
        }
        if (mnl_socket_bind(nl_, 0, MNL_SOCKET_AUTOPID) < 0) {
            int err = errno;
            close();
            errno = err;
            return false;
        }
        portid_ = mnl_socket_get_portid(nl_);
        // Start somewhere unlikely to match a reply meant for a socket that
        // had the same port id before.
        seq_ = static_cast<uint32_t>(time(nullptr));
        return true;
    }

    void close()
    {
        if (nl_ != nullptr) {
            mnl_socket_close(nl_);
            nl_ = nullptr;
        }
    }

    uint32_t nextSeq()
    {
        if (++seq_ == 0) {
            seq_ = 1; // 0 would switch off the sequence check
        }
        return seq_;
    }

    bool send(const struct nlmsghdr* nlh)
    {
        for (;;) {
            if (mnl_socket_sendto(nl_, nlh, nlh->nlmsg_len) >= 0) {
                return true;
            }
            if (errno != EINTR) {
                return false;
            }
        }
    }

    /* One datagram of replies into the buffer; its length or -1. */
    ssize_t receive()
    {
        for (;;) {
            ssize_t n = mnl_socket_recvfrom(nl_, buffer_.get(), kReceiveSize);
            if (n >= 0 || errno != EINTR) {
                return n;
            }
        }
    }

    const void* buffer() const { return buffer_.get(); }
    uint32_t portid() const { return portid_; }

private:
    struct mnl_socket* nl_ = nullptr;
    std::unique_ptr<uint32_t[]> buffer_; // uint32_t: aligned for netlink headers
    uint32_t portid_ = 0;
    uint32_t seq_ = 0;
};

thread_local NetlinkSocket tlsSocket;

/* Runs one exchange: sends the request and feeds replies to parse until it
 * answers MNL_CB_STOP or `done` says the answer is complete. KV_RET_OK or
 * KV_RET_ERROR with errno; the socket is dropped on failure. */
template <typename Parse, typename Done>
KV_RET exchange(struct nlmsghdr* nlh, Parse parse, Done done)
{
    NetlinkSocket& sock = tlsSocket;
    if (!sock.ready()) {
        return KV_RET_ERROR;
    }
    nlh->nlmsg_seq = sock.nextSeq();
    if (!sock.send(nlh)) {
        int err = errno;
        sock.close();
        errno = err;
        return KV_RET_ERROR;
    }
    for (;;) {
        ssize_t n = sock.receive();
        int rc = n < 0 ? MNL_CB_ERROR : parse(sock.buffer(), static_cast<size_t>(n), nlh->nlmsg_seq, sock.portid());
        if (rc == MNL_CB_ERROR) {
            int err = errno;
            sock.close();
            errno = err;
            return KV_RET_ERROR;
        }
        if (rc == MNL_CB_STOP || done()) {
            return KV_RET_OK;
        }
    }
}

/* The errno of a route that rejects traffic, as the kernel's own lookup
 * reports it when the route carries no error of its own. */
int rejectErrno(uint8_t type)
{
    switch (type) {
    case RTN_UNREACHABLE:
        return EHOSTUNREACH;
    case RTN_PROHIBIT:
        return EACCES;
    case RTN_BLACKHOLE:
        return EINVAL;
    case RTN_THROW:
        return EAGAIN;
    default:
        return 0;
    }
}

KV_RET lookupSource(const NET_ADDR* dest, NET_ADDR* src, int* ifIndex)
{
    bool v6 = NET_ADDR_type(dest) == NET_ADDR_TYPE_IPV6;
    alignas(struct nlmsghdr) char request[256];
    struct nlmsghdr* nlh = mnl_nlmsg_put_header(request);
    nlh->nlmsg_type = RTM_GETROUTE;
    nlh->nlmsg_flags = NLM_F_REQUEST;
    auto* rtm = static_cast<struct rtmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(struct rtmsg)));
    rtm->rtm_family = v6 ? AF_INET6 : AF_INET;
    rtm->rtm_dst_len = v6 ? 128 : 32;
    if (v6) {
        mnl_attr_put(nlh, RTA_DST, 16, dest->ipv6_.addr);
        // The zone of a link-local destination is the interface to ask about.
        if (dest->ipv6_.scope_id != 0) {
            mnl_attr_put_u32(nlh, RTA_OIF, dest->ipv6_.scope_id);
        }
    } else {
        mnl_attr_put(nlh, RTA_DST, 4, &dest->addr_);
    }

    kvnet_nl::RouteAnswer answer;
    int family = rtm->rtm_family;
    KV_RET result = exchange(
        nlh,
        [&](const void* buf, size_t len, uint32_t seq, uint32_t portid) {
            return kvnet_nl::parseRouteReply(buf, len, seq, portid, family, &answer);
        },
        [&] { return answer.found; });
    if (result != KV_RET_OK) {
        return result;
    }
    if (!answer.found) {
        errno = EPROTO; // the exchange ended without a route
        return KV_RET_ERROR;
    }
    int reject = answer.routeError != 0 ? -answer.routeError : rejectErrno(answer.type);
    if (reject > 0) {
        errno = reject;
        return KV_RET_ERROR;
    }
    if (!answer.hasSource) {
        errno = EADDRNOTAVAIL;
        return KV_RET_ERROR;
    }
    if (v6) {
        NET_ADDR_fromIPv6(src, answer.source, 0);
        // A link-local source lives in the zone of the destination; only
        // when the destination names none does the output interface say it
        // (a local destination is reached through lo, not through its zone).
        if (NET_ADDR_isLinkLocal(src)) {
            src->ipv6_.scope_id = dest->ipv6_.scope_id != 0 ? dest->ipv6_.scope_id : answer.oif;
        }
    } else {
        NET_ADDR_init(src);
        src->type_ = NET_ADDR_TYPE_IPV4;
        memcpy(&src->addr_, answer.source, 4);
    }
    NET_ADDR_setProto(src, NET_ADDR_proto(dest));
    if (ifIndex != nullptr) {
        *ifIndex = static_cast<int>(answer.oif);
    }
    return KV_RET_OK;
}

}  // namespace

KV_RET KVNET_getSourceAddressToSendFrom(const NET_ADDR* dest, NET_ADDR* src, int* ifIndex)
{
    if (dest == nullptr || src == nullptr || NET_ADDR_isUnset(dest)) {
        errno = EINVAL;
        return KV_RET_ERROR;
    }
    NET_ADDR v4;
    if (NET_ADDR_unmapV4(&v4, dest)) {
        KV_RET result = lookupSource(&v4, src, ifIndex);
        if (result == KV_RET_OK) {
            NET_ADDR_mapV4(src, src);
        }
        return result;
    }
    return lookupSource(dest, src, ifIndex);
}

KV_RET KVNET_getInterfaceAddresses(int ifIndex, NET_ADDR_TYPE family, NET_ADDR_TAB* tab)
{
    int af = family == NET_ADDR_TYPE_IPV4 ? AF_INET : family == NET_ADDR_TYPE_IPV6 ? AF_INET6 : AF_UNSPEC;
    if (tab == nullptr || (family != NET_ADDR_TYPE_IPV4 && family != NET_ADDR_TYPE_IPV6 &&
                           family != NET_ADDR_TYPE_UNDEF)) {
        errno = EINVAL;
        return KV_RET_ERROR;
    }
    char name[IF_NAMESIZE];
    if (ifIndex <= 0 || if_indextoname(static_cast<unsigned>(ifIndex), name) == nullptr) {
        errno = ENXIO;
        return KV_RET_ERROR;
    }
    kvnet_nl::AddressCollector collector;
    collector.ifIndex = ifIndex;
    collector.family = af;
    collector.tab = tab;
    // A dump that the kernel marks as interrupted (the addresses changed
    // while it was read) is read again; entries kept from the first attempt
    // are skipped as duplicates.
    KV_RET result = KV_RET_ERROR;
    for (int attempt = 0; attempt < 3; ++attempt) {
        alignas(struct nlmsghdr) char request[64];
        struct nlmsghdr* nlh = mnl_nlmsg_put_header(request);
        nlh->nlmsg_type = RTM_GETADDR;
        nlh->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
        auto* ifa = static_cast<struct ifaddrmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(struct ifaddrmsg)));
        ifa->ifa_family = static_cast<uint8_t>(af);
        result = exchange(
            nlh,
            [&](const void* buf, size_t len, uint32_t seq, uint32_t portid) {
                return kvnet_nl::parseAddressReply(buf, len, seq, portid, &collector);
            },
            [] { return false; });
        if (result == KV_RET_OK || errno != EINTR) {
            break;
        }
    }
    if (result != KV_RET_OK) {
        return result;
    }
    return collector.full ? NET_ADDR_TAB_FULL : static_cast<KV_RET>(collector.added);
}
