/* The socket-option record, and its options applied to real sockets and
 * read back with the system's getsockopt. */
#include "kvnet/kvnet_sockopts.h"

#include <errno.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>

namespace {

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

/* A socket closed at the end of the scope. */
class Sock {
public:
    Sock(int family, int type, int protocol = 0) : fd_(socket(family, type, protocol)) {}
    ~Sock()
    {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    Sock(const Sock&) = delete;
    Sock& operator=(const Sock&) = delete;
    int fd() const { return fd_; }

private:
    int fd_;
};

int intOption(int fd, int level, int option)
{
    int value = -12345;
    socklen_t len = sizeof value;
    EXPECT_EQ(getsockopt(fd, level, option, &value, &len), 0) << strerror(errno);
    return value;
}

void setIntOption(int fd, int level, int option, int value)
{
    ASSERT_EQ(setsockopt(fd, level, option, &value, sizeof value), 0) << strerror(errno);
}

KVNET_SOCKOPTS fresh()
{
    KVNET_SOCKOPTS o;
    o.iTcpKeepIntvl = 0;
    o.iInterfaceNo = 0;
    KVSockOpts_init(&o);
    return o;
}

NET_ADDR addr(const char* text)
{
    NET_ADDR a;
    EXPECT_TRUE(NET_ADDR_fromString(&a, text)) << text;
    return a;
}

/* ---- the record ---- */

TEST(SockOptsRecord, InitLeavesIntervalAndInterfaceNumberAlone)
{
    KVNET_SOCKOPTS o;
    std::memset(static_cast<void*>(&o), 0x7b, sizeof o);  // garbage everywhere first
    o.iTcpKeepIntvl = 77;
    o.iInterfaceNo = 5;
    KVSockOpts_init(&o);
    EXPECT_EQ(o.iSetFlags, 0);
    EXPECT_STREQ(o.szProtoName, "");
    EXPECT_FALSE(o.bIPHdrInclude);
    EXPECT_EQ(KVSockOpts_qosMode(&o), KVNET_QOS_MODE_UNDEF);
    EXPECT_TRUE(NET_ADDR_isUnset(&o.sMulticastGroup));
    EXPECT_TRUE(NET_ADDR_isUnset(&o.sInterfaceAddr));
    EXPECT_EQ(o.iMulticastTTL, 0);
    EXPECT_EQ(o.iTcpKeepIdle, 0);
    EXPECT_EQ(o.iTcpKeepCnt, 0);
    EXPECT_EQ(o.iSocketRcvBuf, 0);
    EXPECT_FALSE(o.bSocketReuseAddress);
    EXPECT_FALSE(o.bSocketKeepAlive);
    EXPECT_EQ(o.iTcpKeepIntvl, 77);
    EXPECT_EQ(o.iInterfaceNo, 5);
    EXPECT_FALSE(KVSockOpts_anyOptionSet(&o));
}

TEST(SockOptsRecord, EachSetterStoresItsValueAndSetsItsBit)
{
    NET_ADDR group = addr("239.1.2.3");
    NET_ADDR ifaddr = addr("127.0.0.1");
    struct Row {
        int bit;
        std::function<void(KVNET_SOCKOPTS*)> set;
        std::function<bool(const KVNET_SOCKOPTS*)> stored;
    } rows[] = {
        {0, [](KVNET_SOCKOPTS* o) { KVSockOpts_setProtoName(o, "sctp"); },
         [](const KVNET_SOCKOPTS* o) { return std::strcmp(KVSockOpts_protoName(o), "sctp") == 0; }},
        {1, [](KVNET_SOCKOPTS* o) { KVSockOpts_setIPHdrInclude(o, true); },
         [](const KVNET_SOCKOPTS* o) { return KVSockOpts_ipHdrInclude(o); }},
        {2, [](KVNET_SOCKOPTS* o) { KVSockOpts_setQoSDiffServ(o, 46); },
         [](const KVNET_SOCKOPTS* o) {
             uint16_t v = 0;
             return KVSockOpts_qosDiffServ(o, &v) && v == 46;
         }},
        {2, [](KVNET_SOCKOPTS* o) { KVSockOpts_setQoSRaw(o, 0xb8); },
         [](const KVNET_SOCKOPTS* o) {
             uint16_t v = 0;
             return KVSockOpts_qosRaw(o, &v) && v == 0xb8;
         }},
        {2,
         [](KVNET_SOCKOPTS* o) {
             KVNET_QOS_PARAMS q;
             KVNET_setQoSParamsRaw(&q, 12);
             KVSockOpts_setQoS(o, &q);
         },
         [](const KVNET_SOCKOPTS* o) { return KVSockOpts_qosMode(o) == KVNET_QOS_MODE_RAW &&
                                              KVSockOpts_qosParams(o)->uVal.iRaw == 12; }},
        {3, [&](KVNET_SOCKOPTS* o) { KVSockOpts_setMulticastGroup(o, &group, &ifaddr, 4); },
         [&](const KVNET_SOCKOPTS* o) {
             return NET_ADDR_equal(KVSockOpts_multicastGroup(o), &group) &&
                    NET_ADDR_equal(KVSockOpts_interfaceAddr(o), &ifaddr) && KVSockOpts_interfaceNo(o) == 4;
         }},
        {4, [](KVNET_SOCKOPTS* o) { KVSockOpts_setMulticastTTL(o, 300); },
         [](const KVNET_SOCKOPTS* o) { return KVSockOpts_multicastTTL(o) == 300; }},
        {5, [](KVNET_SOCKOPTS* o) { KVSockOpts_setTcpNoDelay(o); }, [](const KVNET_SOCKOPTS*) { return true; }},
        {6, [](KVNET_SOCKOPTS* o) { KVSockOpts_setReuseAddress(o, true); },
         [](const KVNET_SOCKOPTS* o) { return KVSockOpts_reuseAddress(o); }},
        {7, [](KVNET_SOCKOPTS* o) { KVSockOpts_setRcvBuf(o, 8192); },
         [](const KVNET_SOCKOPTS* o) { return KVSockOpts_rcvBuf(o) == 8192; }},
        {8, [](KVNET_SOCKOPTS* o) { KVSockOpts_setIPRecordRoute(o); }, [](const KVNET_SOCKOPTS*) { return true; }},
        {9, [](KVNET_SOCKOPTS* o) { KVSockOpts_setKeepAlive(o, true); },
         [](const KVNET_SOCKOPTS* o) { return KVSockOpts_keepAlive(o); }},
        {10, [](KVNET_SOCKOPTS* o) { KVSockOpts_setTcpKeepIdle(o, 30); },
         [](const KVNET_SOCKOPTS* o) { return KVSockOpts_tcpKeepIdle(o) == 30; }},
        {11, [](KVNET_SOCKOPTS* o) { KVSockOpts_setTcpKeepIntvl(o, 7); },
         [](const KVNET_SOCKOPTS* o) { return KVSockOpts_tcpKeepIntvl(o) == 7; }},
        {12, [](KVNET_SOCKOPTS* o) { KVSockOpts_setTcpKeepCnt(o, 3); },
         [](const KVNET_SOCKOPTS* o) { return KVSockOpts_tcpKeepCnt(o) == 3; }},
    };
    for (const Row& r : rows) {
        KVNET_SOCKOPTS o = fresh();
        r.set(&o);
        EXPECT_EQ(o.iSetFlags, 1 << r.bit) << "bit " << r.bit;
        for (int b = -1; b <= 32; ++b) {
            EXPECT_EQ(KVSockOpts_isOptionSet(&o, b), b == r.bit) << "bit " << r.bit << " asked " << b;
        }
        EXPECT_TRUE(KVSockOpts_anyOptionSet(&o));
        EXPECT_TRUE(r.stored(&o)) << "bit " << r.bit;
        KVNET_SOCKOPTS copy = fresh();
        KVSockOpts_copy(&copy, &o);
        EXPECT_EQ(std::memcmp(&copy, &o, sizeof o), 0) << "bit " << r.bit;
    }
}

TEST(SockOptsRecord, ProtocolNameKeepsFortyNineCharacters)
{
    KVNET_SOCKOPTS o = fresh();
    std::string longName(60, 'p');
    KVSockOpts_setProtoName(&o, longName.c_str());
    EXPECT_EQ(std::string(KVSockOpts_protoName(&o)), std::string(49, 'p'));
}

TEST(SockOptsRecord, QoSGettersComplainAboutTheOtherMode)
{
    KVNET_SOCKOPTS o = fresh();
    KVSockOpts_setQoSDiffServ(&o, 10);
    uint16_t v = 99;
    CaptureStderr();
    EXPECT_FALSE(KVSockOpts_qosRaw(&o, &v));
    EXPECT_EQ(GetCapturedStderr(), "KVNET_qosRaw: QoS mode not raw dscp\n");
    EXPECT_EQ(v, 99);
    KVSockOpts_setQoSRaw(&o, 10);
    CaptureStderr();
    EXPECT_FALSE(KVSockOpts_qosDiffServ(&o, &v));
    EXPECT_EQ(GetCapturedStderr(), "KVNET_qosDiffServ: QoS mode not diffserv\n");
}

/* ---- applying: results and order ---- */

TEST(SockOptsApply, NothingSetIsZeroAndTouchesNothing)
{
    Sock s(AF_INET, SOCK_STREAM);
    KVNET_SOCKOPTS o = fresh();
    o.iSocketRcvBuf = 4096;  // a value without its bit is not applied
    int before = intOption(s.fd(), SOL_SOCKET, SO_RCVBUF);
    EXPECT_EQ(KVNET_applySockOpts(s.fd(), &o, KVNET_SOCK_DOMAIN_INET), 0);
    EXPECT_EQ(intOption(s.fd(), SOL_SOCKET, SO_RCVBUF), before);
    // Even on something that is not a socket.
    EXPECT_EQ(KVNET_applySockOpts(-1, &o, KVNET_SOCK_DOMAIN_INET), 0);
}

TEST(SockOptsApply, ProtocolNameFailsAndAppliesNothing)
{
    Sock s(AF_INET, SOCK_STREAM);
    KVNET_SOCKOPTS o = fresh();
    KVSockOpts_setTcpNoDelay(&o);
    KVSockOpts_setKeepAlive(&o, true);
    KVSockOpts_setQoSDiffServ(&o, 46);
    KVSockOpts_setProtoName(&o, "udp");
    CaptureStderr();
    EXPECT_EQ(KVNET_applySockOpts(s.fd(), &o, KVNET_SOCK_DOMAIN_INET), -1);
    EXPECT_EQ(GetCapturedStderr(), "KVNET_applySockOpts: proto name not implemented\n");
    EXPECT_EQ(intOption(s.fd(), IPPROTO_TCP, TCP_NODELAY), 0);
    EXPECT_EQ(intOption(s.fd(), SOL_SOCKET, SO_KEEPALIVE), 0);
    EXPECT_EQ(intOption(s.fd(), IPPROTO_IP, IP_TOS), 0);
}

TEST(SockOptsApply, OnlyUnknownBitsFail)
{
    Sock s(AF_INET, SOCK_STREAM);
    KVNET_SOCKOPTS o = fresh();
    o.iSetFlags = 1 << 13 | 1 << 20;
    EXPECT_EQ(KVNET_applySockOpts(s.fd(), &o, KVNET_SOCK_DOMAIN_INET), -1);
    KVSockOpts_setTcpNoDelay(&o);
    EXPECT_EQ(KVNET_applySockOpts(s.fd(), &o, KVNET_SOCK_DOMAIN_INET), 0);
    EXPECT_EQ(intOption(s.fd(), IPPROTO_TCP, TCP_NODELAY), 1);
}

/* The TCP options on both families, read back. */
class SockOptsTcp : public testing::TestWithParam<int> {};

TEST_P(SockOptsTcp, AppliedAndReadBack)
{
    Sock s(GetParam(), SOCK_STREAM);
    if (s.fd() < 0) {
        GTEST_SKIP() << "no socket of family " << GetParam() << ": " << strerror(errno);
    }
    KVNET_SOCKOPTS o = fresh();
    KVSockOpts_setTcpNoDelay(&o);
    KVSockOpts_setKeepAlive(&o, false);    // switched on all the same
    KVSockOpts_setReuseAddress(&o, false); // likewise
    KVSockOpts_setTcpKeepIdle(&o, 45);
    KVSockOpts_setTcpKeepIntvl(&o, 6);
    KVSockOpts_setTcpKeepCnt(&o, 4);
    KVSockOpts_setRcvBuf(&o, 6000);
    KVSockOpts_setQoSDiffServ(&o, 46);
    KVNET_SOCK_DOMAIN domain = GetParam() == AF_INET ? KVNET_SOCK_DOMAIN_INET : KVNET_SOCK_DOMAIN_INET6;
    ASSERT_EQ(KVNET_applySockOpts(s.fd(), &o, domain), 0);

    EXPECT_EQ(intOption(s.fd(), IPPROTO_TCP, TCP_NODELAY), 1);
    EXPECT_EQ(intOption(s.fd(), SOL_SOCKET, SO_KEEPALIVE), 1);
    EXPECT_EQ(intOption(s.fd(), SOL_SOCKET, SO_REUSEADDR), 1);
    EXPECT_EQ(intOption(s.fd(), IPPROTO_TCP, TCP_KEEPIDLE), 45);
    EXPECT_EQ(intOption(s.fd(), IPPROTO_TCP, TCP_KEEPINTVL), 6);
    EXPECT_EQ(intOption(s.fd(), IPPROTO_TCP, TCP_KEEPCNT), 4);
    EXPECT_EQ(intOption(s.fd(), SOL_SOCKET, SO_RCVBUF), 12000);  // the kernel doubles it
    if (GetParam() == AF_INET) {
        EXPECT_EQ(intOption(s.fd(), IPPROTO_IP, IP_TOS), 184);
    } else {
        EXPECT_EQ(intOption(s.fd(), IPPROTO_IPV6, IPV6_TCLASS), 184);
    }

    // The layer's own getsockopt reads the same, through either TCP level.
    int v = 0;
    unsigned len = sizeof v;
    ASSERT_EQ(KVNET_getsockopt(s.fd(), KVNET_SOL_IPPROTO_TCP, KVNET_TCP_KEEPIDLE, &v, &len), 0);
    EXPECT_EQ(v, 45);
    EXPECT_EQ(len, sizeof v);
    ASSERT_EQ(KVNET_getsockopt(s.fd(), KVNET_SOL_TCP, KVNET_TCP_KEEPCNT, &v, &len), 0);
    EXPECT_EQ(v, 4);
    ASSERT_EQ(KVNET_getsockopt(s.fd(), KVNET_SOL_SOCKET, KVNET_SOCKET_REUSE_ADDR, &v, &len), 0);
    EXPECT_EQ(v, 1);
}

INSTANTIATE_TEST_SUITE_P(Families, SockOptsTcp, testing::Values(AF_INET, AF_INET6),
                         [](const testing::TestParamInfo<int>& i) { return i.param == AF_INET ? "IPv4" : "IPv6"; });

TEST(SockOptsApply, QoSMarkings)
{
    struct Row {
        int family;
        bool raw;
        unsigned value;
        int expect;  // read back; -1: not written (the preset 0x20 stays)
    } rows[] = {
        {AF_INET, false, 46, 184}, {AF_INET, true, 184, 184}, {AF_INET, false, 63, 252}, {AF_INET, false, 1, 4},
        {AF_INET, false, 0, -1},   {AF_INET, true, 0, -1},    {AF_INET6, false, 46, 184}, {AF_INET6, true, 0x28, 0x28},
        {AF_INET6, false, 0, -1},
    };
    for (const Row& r : rows) {
        Sock s(r.family, SOCK_DGRAM);
        ASSERT_GE(s.fd(), 0);
        int level = r.family == AF_INET ? IPPROTO_IP : IPPROTO_IPV6;
        int option = r.family == AF_INET ? IP_TOS : IPV6_TCLASS;
        setIntOption(s.fd(), level, option, 0x20);
        KVNET_SOCKOPTS o = fresh();
        if (r.raw) {
            KVSockOpts_setQoSRaw(&o, r.value);
        } else {
            KVSockOpts_setQoSDiffServ(&o, r.value);
        }
        KVNET_SOCK_DOMAIN domain = r.family == AF_INET ? KVNET_SOCK_DOMAIN_INET : KVNET_SOCK_DOMAIN_INET6;
        EXPECT_EQ(KVNET_applySockOpts(s.fd(), &o, domain), 0) << r.value;
        EXPECT_EQ(intOption(s.fd(), level, option), r.expect < 0 ? 0x20 : r.expect)
            << (r.raw ? "raw " : "diffserv ") << r.value << " family " << r.family;
    }
}

TEST(SockOptsApply, QoSFailures)
{
    // A local socket has no traffic class.
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, pair), 0);
    KVNET_SOCKOPTS o = fresh();
    KVSockOpts_setQoSDiffServ(&o, 46);
    KVSockOpts_setRcvBuf(&o, 4096);  // comes after QoS: never applied
    int before = intOption(pair[0], SOL_SOCKET, SO_RCVBUF);
    CaptureStderr();
    EXPECT_EQ(KVNET_applySockOpts(pair[0], &o, KVNET_SOCK_DOMAIN_LOCAL), -1);
    EXPECT_EQ(GetCapturedStderr(),
              "kvnet_setQoS: Unsupported socket domain 0 provided\nkvnet_setQoS: Unable to set QoS values\n");
    EXPECT_EQ(intOption(pair[0], SOL_SOCKET, SO_RCVBUF), before);
    // ... but a zero marking asks nothing of the domain.
    KVSockOpts_setQoSDiffServ(&o, 0);
    EXPECT_EQ(KVNET_applySockOpts(pair[0], &o, KVNET_SOCK_DOMAIN_LOCAL), 0);
    close(pair[0]);
    close(pair[1]);

    // The system refuses: the IPv6 traffic class on an IPv4 socket.
    Sock v4(AF_INET, SOCK_DGRAM);
    KVSockOpts_setQoSRaw(&o, 0x10);
    CaptureStderr();
    EXPECT_EQ(KVNET_applySockOpts(v4.fd(), &o, KVNET_SOCK_DOMAIN_INET6), -1);
    EXPECT_EQ(GetCapturedStderr(), "kvnet_setQoS: Unable to set QoS values\n");

    // An unknown mode is reported and skipped; the rest goes on.
    o = fresh();
    o.sQoSParams.eMode = static_cast<KVNET_QOS_MODE>(5);
    o.sQoSParams.uVal.iRaw = 0x40;
    o.iSetFlags |= 1 << KVNET_OPTBIT_QOS;
    KVSockOpts_setReuseAddress(&o, true);
    CaptureStderr();
    EXPECT_EQ(KVNET_applySockOpts(v4.fd(), &o, KVNET_SOCK_DOMAIN_INET), 0);
    EXPECT_EQ(GetCapturedStderr(), "kvnet_setQoS: Unhandled QoS mode 5\n");
    EXPECT_EQ(intOption(v4.fd(), IPPROTO_IP, IP_TOS), 0);
    EXPECT_EQ(intOption(v4.fd(), SOL_SOCKET, SO_REUSEADDR), 1);

    // Mode undefined: nothing written, and success.
    o = fresh();
    KVNET_QOS_PARAMS undef;
    KVNET_setQoSParamsRaw(&undef, 0x40);
    KVNET_setQoSParamsUndef(&undef);
    KVSockOpts_setQoS(&o, &undef);
    EXPECT_EQ(KVNET_applySockOpts(v4.fd(), &o, KVNET_SOCK_DOMAIN_INET), 0);
    EXPECT_EQ(intOption(v4.fd(), IPPROTO_IP, IP_TOS), 0);
}

TEST(SockOptsApply, MulticastTTLIsTheLowByte)
{
    struct Row {
        int ttl;
        int expect;
    } rows[] = {{1, 1}, {255, 255}, {300, 44}, {0x1ff, 255}, {256, 0}};
    for (const Row& r : rows) {
        Sock s(AF_INET, SOCK_DGRAM);
        KVNET_SOCKOPTS o = fresh();
        KVSockOpts_setMulticastTTL(&o, r.ttl);
        EXPECT_EQ(KVNET_applySockOpts(s.fd(), &o, KVNET_SOCK_DOMAIN_INET), 0) << r.ttl;
        EXPECT_EQ(intOption(s.fd(), IPPROTO_IP, IP_MULTICAST_TTL), r.expect) << r.ttl;
    }
}

TEST(SockOptsApply, RecordRouteWritesTheFortyByteOption)
{
    Sock s(AF_INET, SOCK_DGRAM);
    KVNET_SOCKOPTS o = fresh();
    KVSockOpts_setIPRecordRoute(&o);
    ASSERT_EQ(KVNET_applySockOpts(s.fd(), &o, KVNET_SOCK_DOMAIN_INET), 0);
    unsigned char options[64] = {};
    unsigned len = sizeof options;
    ASSERT_EQ(KVNET_getsockopt(s.fd(), KVNET_SOL_IP, KVNET_IP_RR, options, &len), 0) << strerror(errno);
    ASSERT_EQ(len, 40u);
    EXPECT_EQ(options[0], IPOPT_RR);
    EXPECT_EQ(options[1], 39);
    EXPECT_EQ(options[2], 4);
    for (unsigned i = 3; i < 40; ++i) {
        EXPECT_EQ(options[i], 0) << "byte " << i;
    }
}

TEST(SockOptsApply, HeaderIncludeNeedsARawSocket)
{
    Sock udp(AF_INET, SOCK_DGRAM);
    KVNET_SOCKOPTS o = fresh();
    KVSockOpts_setIPHdrInclude(&o, true);
    EXPECT_EQ(KVNET_applySockOpts(udp.fd(), &o, KVNET_SOCK_DOMAIN_INET), -1);
    Sock raw(AF_INET, SOCK_RAW, IPPROTO_UDP);
    if (raw.fd() < 0) {
        GTEST_SKIP() << "raw sockets need CAP_NET_RAW: " << strerror(errno);
    }
    ASSERT_EQ(KVNET_applySockOpts(raw.fd(), &o, KVNET_SOCK_DOMAIN_INET), 0);
    EXPECT_EQ(intOption(raw.fd(), IPPROTO_IP, IP_HDRINCL), 1);
    KVSockOpts_setIPHdrInclude(&o, false);
    ASSERT_EQ(KVNET_applySockOpts(raw.fd(), &o, KVNET_SOCK_DOMAIN_INET), 0);
    EXPECT_EQ(intOption(raw.fd(), IPPROTO_IP, IP_HDRINCL), 0);
}

/* ---- multicast membership ---- */

bool procListsGroup(const char* file, const std::string& device, const std::string& group)
{
    std::ifstream in(file);
    std::string line, current;
    while (std::getline(in, line)) {
        // /proc/net/igmp: a device line "<idx>\t<dev> :..." followed by
        // indented group lines; /proc/net/igmp6: "<idx> <dev> <group> ...".
        std::istringstream fields(line);
        std::string a, b, c;
        fields >> a >> b >> c;
        if (!line.empty() && line[0] != '\t' && line[0] != ' ') {
            current = b;
        }
        if (line.find(group) != std::string::npos && (current == device || b == device)) {
            return true;
        }
    }
    return false;
}

TEST(SockOptsMembership, IPv4GroupOnLoopback)
{
    Sock s(AF_INET, SOCK_DGRAM);
    NET_ADDR group = addr("239.7.8.9");
    NET_ADDR lo = addr("127.0.0.1");
    KVNET_SOCKOPTS o = fresh();
    KVSockOpts_setMulticastGroup(&o, &group, &lo, 0);
    ASSERT_EQ(KVNET_applySockOpts(s.fd(), &o, KVNET_SOCK_DOMAIN_INET), 0) << strerror(errno);
    // /proc/net/igmp shows the group in host-endian hex: 239.7.8.9 -> 090807EF.
    EXPECT_TRUE(procListsGroup("/proc/net/igmp", "lo", "090807EF"));
    // Joining again is refused by the system: the membership is there.
    KVNET_MCAST_REQ req{group, lo, 0};
    errno = 0;
    EXPECT_EQ(KVNET_setsockopt(s.fd(), KVNET_SOL_IP, KVNET_IP_ADD_MEMBERSHIP, &req, sizeof req), -1);
    EXPECT_EQ(errno, EADDRINUSE);
}

TEST(SockOptsMembership, IPv6GroupOnLoopback)
{
    Sock s(AF_INET6, SOCK_DGRAM);
    unsigned lo = if_nametoindex("lo");
    if (s.fd() < 0 || lo == 0) {
        GTEST_SKIP() << "no IPv6 or no loopback interface";
    }
    NET_ADDR group = addr("ff12::5:1234");
    NET_ADDR unset;
    NET_ADDR_init(&unset);
    KVNET_SOCKOPTS o = fresh();
    KVSockOpts_setMulticastGroup(&o, &group, &unset, static_cast<int>(lo));
    ASSERT_EQ(KVNET_applySockOpts(s.fd(), &o, KVNET_SOCK_DOMAIN_INET6), 0) << strerror(errno);
    EXPECT_TRUE(procListsGroup("/proc/net/igmp6", "lo", "ff120000000000000000000000051234"));
    KVNET_MCAST_REQ req{group, unset, static_cast<int>(lo)};
    errno = 0;
    EXPECT_EQ(KVNET_setsockopt(s.fd(), KVNET_SOL_IP, KVNET_IP_ADD_MEMBERSHIP, &req, sizeof req), -1);
    EXPECT_EQ(errno, EADDRINUSE);
}

TEST(SockOptsMembership, NegativeInterfaceFailsBeforeLaterOptions)
{
    Sock s(AF_INET, SOCK_DGRAM);
    NET_ADDR group = addr("239.7.8.10");
    NET_ADDR lo = addr("127.0.0.1");
    KVNET_SOCKOPTS o = fresh();
    KVSockOpts_setIPRecordRoute(&o);  // comes before the membership: applied
    KVSockOpts_setMulticastGroup(&o, &group, &lo, -1);
    KVSockOpts_setQoSDiffServ(&o, 46);  // after: not applied
    KVSockOpts_setReuseAddress(&o, true);
    EXPECT_EQ(KVNET_applySockOpts(s.fd(), &o, KVNET_SOCK_DOMAIN_INET), -1);
    unsigned char options[40] = {};
    socklen_t len = sizeof options;
    ASSERT_EQ(getsockopt(s.fd(), IPPROTO_IP, IP_OPTIONS, options, &len), 0);
    EXPECT_EQ(len, 40u);
    EXPECT_EQ(options[0], IPOPT_RR);
    EXPECT_EQ(intOption(s.fd(), IPPROTO_IP, IP_TOS), 0);
    EXPECT_EQ(intOption(s.fd(), SOL_SOCKET, SO_REUSEADDR), 0);
    EXPECT_FALSE(procListsGroup("/proc/net/igmp", "lo", "0A0807EF"));
}

TEST(SockOptsMembership, BadRequests)
{
    Sock s(AF_INET, SOCK_DGRAM);
    KVNET_MCAST_REQ req{addr("239.1.1.1"), addr("127.0.0.1"), 0};
    CaptureStderr();
    errno = 0;
    EXPECT_EQ(KVNET_setsockopt(s.fd(), KVNET_SOL_IP, KVNET_IP_ADD_MEMBERSHIP, &req, sizeof req - 1), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(GetCapturedStderr(), "KVNET_IP_ADD_MEMBERSHIP param of wrong size\n");

    struct Row {
        const char* group;
        const char* ifaddr;  // null: unset
        int ifno;
        int err;
    } rows[] = {
        {"239.1.1.1", "::1", 0, EINVAL},        // IPv4 group, IPv6 interface address
        {"ff12::1", nullptr, -3, EINVAL},       // negative interface number
        {"192.0.2.1", nullptr, 0, EINVAL},      // not a group: the system says no
        {nullptr, nullptr, 0, EINVAL},          // no group at all
    };
    for (const Row& r : rows) {
        KVNET_MCAST_REQ bad;
        NET_ADDR_init(&bad.group);
        NET_ADDR_init(&bad.interfaceAddr);
        if (r.group) {
            bad.group = addr(r.group);
        }
        if (r.ifaddr) {
            bad.interfaceAddr = addr(r.ifaddr);
        }
        bad.interfaceNo = r.ifno;
        Sock sock(r.group && std::strchr(r.group, ':') ? AF_INET6 : AF_INET, SOCK_DGRAM);
        errno = 0;
        EXPECT_EQ(KVNET_setsockopt(sock.fd(), KVNET_SOL_IP, KVNET_IP_ADD_MEMBERSHIP, &bad, sizeof bad), -1)
            << (r.group ? r.group : "unset");
        EXPECT_EQ(errno, r.err) << (r.group ? r.group : "unset");
    }
}

/* ---- the option mapping ---- */

TEST(SockOptsMapping, LevelsAndOptionsOutsideTheTable)
{
    Sock s(AF_INET, SOCK_DGRAM);
    int one = 1;
    unsigned len = sizeof one;
    struct Row {
        int level;
        int option;
    } rows[] = {
        {KVNET_SOL_UNDEF, KVNET_SO_RCVBUF}, {KVNET_SOL_SOCKET, KVNET_SOCKOPT_UNDEF}, {KVNET_SOL_SOCKET, KVNET_IP_TOS},
        {KVNET_SOL_TCP, KVNET_SO_KEEPALIVE}, {KVNET_SOL_IP, KVNET_TCP_NODELAY},    {4, KVNET_SO_RCVBUF},
        {KVNET_SOL_IP, 14},
    };
    for (const Row& r : rows) {
        errno = 0;
        EXPECT_EQ(KVNET_setsockopt(s.fd(), r.level, r.option, &one, sizeof one), -1) << r.level << "/" << r.option;
        EXPECT_EQ(errno, ENOPROTOOPT);
        errno = 0;
        EXPECT_EQ(KVNET_getsockopt(s.fd(), r.level, r.option, &one, &len), -1) << r.level << "/" << r.option;
        EXPECT_EQ(errno, ENOPROTOOPT);
    }
    // Membership cannot be read back.
    EXPECT_EQ(KVNET_getsockopt(s.fd(), KVNET_SOL_IP, KVNET_IP_ADD_MEMBERSHIP, &one, &len), -1);
    EXPECT_EQ(KVNET_getsockopt(s.fd(), KVNET_SOL_SOCKET, KVNET_SO_RCVBUF, &one, nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(KVNET_setsockopt(s.fd(), KVNET_SOL_SOCKET, KVNET_SO_RCVBUF, nullptr, 4), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST(SockOptsMapping, BroadcastAndTheSystemsOwnErrors)
{
    Sock s(AF_INET, SOCK_DGRAM);
    int one = 1;
    ASSERT_EQ(KVNET_setsockopt(s.fd(), KVNET_SOL_SOCKET, KVNET_SO_BROADCAST, &one, sizeof one), 0);
    EXPECT_EQ(intOption(s.fd(), SOL_SOCKET, SO_BROADCAST), 1);
    errno = 0;
    EXPECT_EQ(KVNET_setsockopt(-1, KVNET_SOL_SOCKET, KVNET_SO_BROADCAST, &one, sizeof one), -1);
    EXPECT_EQ(errno, EBADF);
    // A failing record route reports the system's -1.
    KVNET_SOCKOPTS o = fresh();
    KVSockOpts_setIPRecordRoute(&o);
    EXPECT_EQ(KVNET_applySockOpts(-1, &o, KVNET_SOCK_DOMAIN_INET), -1);
}

TEST(SockOptsDeathTest, NullRecordsAreProgrammingFaults)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(KVSockOpts_init(nullptr), "opts != nullptr");
    EXPECT_DEATH(KVNET_applySockOpts(0, nullptr, KVNET_SOCK_DOMAIN_INET), "opts != nullptr");
    KVNET_SOCKOPTS o = fresh();
    EXPECT_DEATH(KVSockOpts_setProtoName(&o, nullptr), "name != nullptr");
}

}  // namespace
