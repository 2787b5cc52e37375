/* Self-test of the socket options: a record applied to real TCP and UDP
 * sockets of both families and read back with getsockopt, and a multicast
 * membership on the loopback interface. */
#include <errno.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include "kvnet/kvnet_sockopts.h"
#include "kvnet/unittests.h"
#include "unittest/unittest.h"

namespace {

int readInt(int fd, int level, int option)
{
    int value = -1;
    socklen_t len = sizeof value;
    return getsockopt(fd, level, option, &value, &len) == 0 ? value : -1;
}

KVNET_SOCKOPTS freshOptions()
{
    KVNET_SOCKOPTS o;
    o.iTcpKeepIntvl = 0;
    o.iInterfaceNo = 0;
    KVSockOpts_init(&o);
    return o;
}

void testTcp(int family)
{
    unittest_context(family == AF_INET ? "TCP options, IPv4" : "TCP options, IPv6");
    int fd = socket(family, SOCK_STREAM, 0);
    unittest_assert(fd >= 0);
    if (fd < 0) {
        return;
    }
    KVNET_SOCKOPTS o = freshOptions();
    KVSockOpts_setTcpNoDelay(&o);
    KVSockOpts_setKeepAlive(&o, false);  // written as 1 all the same
    KVSockOpts_setTcpKeepIdle(&o, 20);
    KVSockOpts_setTcpKeepIntvl(&o, 5);
    KVSockOpts_setTcpKeepCnt(&o, 3);
    KVSockOpts_setReuseAddress(&o, false);  // likewise
    KVSockOpts_setQoSDiffServ(&o, 63);
    KVNET_SOCK_DOMAIN domain = family == AF_INET ? KVNET_SOCK_DOMAIN_INET : KVNET_SOCK_DOMAIN_INET6;
    unittest_assert(KVNET_applySockOpts(fd, &o, domain) == 0);
    unittest_assert(readInt(fd, IPPROTO_TCP, TCP_NODELAY) == 1);
    unittest_assert(readInt(fd, SOL_SOCKET, SO_KEEPALIVE) == 1);
    unittest_assert(readInt(fd, IPPROTO_TCP, TCP_KEEPIDLE) == 20);
    unittest_assert(readInt(fd, IPPROTO_TCP, TCP_KEEPINTVL) == 5);
    unittest_assert(readInt(fd, IPPROTO_TCP, TCP_KEEPCNT) == 3);
    unittest_assert(readInt(fd, SOL_SOCKET, SO_REUSEADDR) == 1);
    if (family == AF_INET) {
        unittest_assert(readInt(fd, IPPROTO_IP, IP_TOS) == 252);
    } else {
        unittest_assert(readInt(fd, IPPROTO_IPV6, IPV6_TCLASS) == 252);
    }
    close(fd);
}

void testUdp()
{
    unittest_context("UDP options, IPv4");
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    unittest_assert(fd >= 0);
    if (fd < 0) {
        return;
    }
    KVNET_SOCKOPTS o = freshOptions();
    KVSockOpts_setMulticastTTL(&o, 300);
    KVSockOpts_setRcvBuf(&o, 8192);
    KVSockOpts_setIPRecordRoute(&o);
    KVSockOpts_setQoSRaw(&o, 0xb8);
    unittest_assert(KVNET_applySockOpts(fd, &o, KVNET_SOCK_DOMAIN_INET) == 0);
    unittest_assert(readInt(fd, IPPROTO_IP, IP_MULTICAST_TTL) == 44);
    unittest_assert(readInt(fd, SOL_SOCKET, SO_RCVBUF) == 16384);
    unittest_assert(readInt(fd, IPPROTO_IP, IP_TOS) == 0xb8);
    unsigned char options[40] = {};
    unsigned len = sizeof options;
    unittest_assert(KVNET_getsockopt(fd, KVNET_SOL_IP, KVNET_IP_RR, options, &len) == 0 && len == 40);
    unittest_assert(options[0] == IPOPT_RR && options[1] == 39 && options[2] == 4);

    // The protocol name is not implemented and stops everything.
    KVNET_SOCKOPTS bad = freshOptions();
    KVSockOpts_setProtoName(&bad, "udp");
    KVSockOpts_setQoSRaw(&bad, 0x20);
    unittest_assert(KVNET_applySockOpts(fd, &bad, KVNET_SOCK_DOMAIN_INET) == -1);
    unittest_assert(readInt(fd, IPPROTO_IP, IP_TOS) == 0xb8);
    close(fd);
}

void testMembership()
{
    unittest_context("multicast membership on loopback");
    NET_ADDR group, lo, unset;
    NET_ADDR_fromString(&group, "239.255.42.1");
    NET_ADDR_fromString(&lo, "127.0.0.1");
    NET_ADDR_init(&unset);
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    KVNET_SOCKOPTS o = freshOptions();
    KVSockOpts_setMulticastGroup(&o, &group, &lo, 0);
    unittest_assert(KVNET_applySockOpts(fd, &o, KVNET_SOCK_DOMAIN_INET) == 0);
    KVNET_MCAST_REQ again{group, lo, 0};
    errno = 0;
    unittest_assert(KVNET_setsockopt(fd, KVNET_SOL_IP, KVNET_IP_ADD_MEMBERSHIP, &again, sizeof again) == -1 &&
                    errno == EADDRINUSE);
    KVSockOpts_setMulticastGroup(&o, &group, &lo, -1);
    unittest_assert(KVNET_applySockOpts(fd, &o, KVNET_SOCK_DOMAIN_INET) == -1);
    close(fd);

    unsigned index = if_nametoindex("lo");
    fd = socket(AF_INET6, SOCK_DGRAM, 0);
    if (fd < 0 || index == 0) {
        return;  // no IPv6 on this host
    }
    NET_ADDR_fromString(&group, "ff12::42:1");
    KVSockOpts_setMulticastGroup(&o, &group, &unset, static_cast<int>(index));
    unittest_assert(KVNET_applySockOpts(fd, &o, KVNET_SOCK_DOMAIN_INET6) == 0);
    KVNET_MCAST_REQ again6{group, unset, static_cast<int>(index)};
    errno = 0;
    unittest_assert(KVNET_setsockopt(fd, KVNET_SOL_IP, KVNET_IP_ADD_MEMBERSHIP, &again6, sizeof again6) == -1 &&
                    errno == EADDRINUSE);
    close(fd);
}

}  // namespace

void unittest_abstraction_sockopts(void)
{
    testTcp(AF_INET);
    testTcp(AF_INET6);
    testUdp();
    testMembership();
}
