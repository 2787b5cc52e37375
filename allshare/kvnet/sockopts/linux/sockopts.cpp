/*
 * The layer's socket levels and options on Linux.
 *
 * Most options are a plain renaming, kept in one table. Two need a value
 * built here: the record-route option (a 40-byte IP options block) and the
 * multicast membership, whose value is the layer's KVNET_MCAST_REQ and
 * becomes an ip_mreq or an ipv6_mreq depending on the group's family.
 */
#include <errno.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/tcp.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>

#include "kvnet/kvnet_sockopts.h"

namespace {

struct Mapping {
    int level;   // KVNET_SOL
    int option;  // KVNET_SOCKOPT
    int sysLevel;
    int sysOption;
};

// IPPROTO_TCP and SOL_TCP are the same level to the layer's users.
const Mapping kMappings[] = {
    {KVNET_SOL_SOCKET, KVNET_SOCKET_REUSE_ADDR, SOL_SOCKET, SO_REUSEADDR},
    {KVNET_SOL_SOCKET, KVNET_SO_RCVBUF, SOL_SOCKET, SO_RCVBUF},
    {KVNET_SOL_SOCKET, KVNET_SO_BROADCAST, SOL_SOCKET, SO_BROADCAST},
    {KVNET_SOL_SOCKET, KVNET_SO_KEEPALIVE, SOL_SOCKET, SO_KEEPALIVE},
    {KVNET_SOL_TCP, KVNET_TCP_NODELAY, IPPROTO_TCP, TCP_NODELAY},
    {KVNET_SOL_TCP, KVNET_TCP_KEEPIDLE, IPPROTO_TCP, TCP_KEEPIDLE},
    {KVNET_SOL_TCP, KVNET_TCP_KEEPINTVL, IPPROTO_TCP, TCP_KEEPINTVL},
    {KVNET_SOL_TCP, KVNET_TCP_KEEPCNT, IPPROTO_TCP, TCP_KEEPCNT},
    {KVNET_SOL_IPPROTO_TCP, KVNET_TCP_NODELAY, IPPROTO_TCP, TCP_NODELAY},
    {KVNET_SOL_IPPROTO_TCP, KVNET_TCP_KEEPIDLE, IPPROTO_TCP, TCP_KEEPIDLE},
    {KVNET_SOL_IPPROTO_TCP, KVNET_TCP_KEEPINTVL, IPPROTO_TCP, TCP_KEEPINTVL},
    {KVNET_SOL_IPPROTO_TCP, KVNET_TCP_KEEPCNT, IPPROTO_TCP, TCP_KEEPCNT},
    {KVNET_SOL_IP, KVNET_IP_HDRINCL, IPPROTO_IP, IP_HDRINCL},
    {KVNET_SOL_IP, KVNET_IP_TOS, IPPROTO_IP, IP_TOS},
    {KVNET_SOL_IP, KVNET_IP_MULTICAST_TTL, IPPROTO_IP, IP_MULTICAST_TTL},
    {KVNET_SOL_IP, KVNET_IPV6_TCLASS, IPPROTO_IPV6, IPV6_TCLASS},
    {KVNET_SOL_IP, KVNET_IP_RR, IPPROTO_IP, IP_OPTIONS},
};

const Mapping* find(int level, int option)
{
    for (const Mapping& m : kMappings) {
        if (m.level == level && m.option == option) {
            return &m;
        }
    }
    return nullptr;
}

int fail(int err)
{
    errno = err;
    return -1;
}

/* IP options holding one empty record-route option: type 7, length 39,
 * pointer 4 (the first free slot), room for nine addresses. */
int setRecordRoute(KVNET_SOCK_ID sock)
{
    unsigned char options[40] = {};
    options[0] = IPOPT_RR;
    options[1] = 39;
    options[2] = 4;
    return setsockopt(sock, IPPROTO_IP, IP_OPTIONS, options, sizeof options);
}

int addMembership(KVNET_SOCK_ID sock, const void* value, unsigned length)
{
    if (value == nullptr || length != sizeof(KVNET_MCAST_REQ)) {
        fputs("KVNET_IP_ADD_MEMBERSHIP param of wrong size\n", stderr);
        return fail(EINVAL);
    }
    KVNET_MCAST_REQ req;
    memcpy(&req, value, sizeof req);
    if (req.group.type_ == NET_ADDR_TYPE_IPV4) {
        struct ip_mreq mreq;
        memset(&mreq, 0, sizeof mreq);
        mreq.imr_multiaddr.s_addr = req.group.addr_;
        if (req.interfaceAddr.type_ == NET_ADDR_TYPE_IPV4) {
            mreq.imr_interface.s_addr = req.interfaceAddr.addr_;
        } else if (req.interfaceAddr.type_ == NET_ADDR_TYPE_UNDEF) {
            mreq.imr_interface.s_addr = htonl(INADDR_ANY);
        } else {
            return fail(EINVAL);
        }
        return setsockopt(sock, IPPROTO_IP, IP_ADD_MEMBERSHIP, &mreq, sizeof mreq);
    }
    if (req.group.type_ == NET_ADDR_TYPE_IPV6) {
        if (req.interfaceNo < 0) {
            return fail(EINVAL);
        }
        struct ipv6_mreq mreq;
        memset(&mreq, 0, sizeof mreq);
        memcpy(&mreq.ipv6mr_multiaddr, req.group.ipv6_.addr, 16);
        mreq.ipv6mr_interface = static_cast<unsigned>(req.interfaceNo);
        return setsockopt(sock, IPPROTO_IPV6, IPV6_ADD_MEMBERSHIP, &mreq, sizeof mreq);
    }
    return fail(EINVAL);
}

}  // namespace

int KVNET_setsockopt(KVNET_SOCK_ID sock, int level, int option, const void* value, unsigned length)
{
    if (level == KVNET_SOL_IP && option == KVNET_IP_ADD_MEMBERSHIP) {
        return addMembership(sock, value, length);
    }
    if (level == KVNET_SOL_IP && option == KVNET_IP_RR) {
        return setRecordRoute(sock);
    }
    const Mapping* m = find(level, option);
    if (m == nullptr) {
        return fail(ENOPROTOOPT);
    }
    if (value == nullptr && length != 0) {
        return fail(EINVAL);
    }
    return setsockopt(sock, m->sysLevel, m->sysOption, value, length);
}

int KVNET_getsockopt(KVNET_SOCK_ID sock, int level, int option, void* value, unsigned* length)
{
    const Mapping* m = find(level, option);
    if (m == nullptr) {
        return fail(ENOPROTOOPT);
    }
    if (length == nullptr) {
        return fail(EINVAL);
    }
    socklen_t len = *length;
    int rc = getsockopt(sock, m->sysLevel, m->sysOption, value, &len);
    if (rc == 0) {
        *length = len;
    }
    return rc;
}
