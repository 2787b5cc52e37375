// The socket-option record, filled from the input, applied to a real socket
// of a family and type chosen by the input. Whatever is set: the result is 0
// or -1, a record with the protocol name changes nothing, and when the whole
// record applies, every option it set reads back as the record says.
#include "kvnet/kvnet_sockopts.h"

#include <net/if.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

void check(bool cond)
{
    if (!cond) {
        std::abort();
    }
}

/* Reads the input front to back; zeros once it runs out. */
struct Reader {
    const uint8_t* p;
    size_t left;
    uint32_t take(size_t n)
    {
        uint32_t v = 0;
        for (size_t i = 0; i < n; ++i) {
            v = v << 8 | (left > 0 ? (--left, *p++) : 0u);
        }
        return v;
    }
};

int readInt(int fd, int level, int option)
{
    int v = -1;
    socklen_t len = sizeof v;
    return getsockopt(fd, level, option, &v, &len) == 0 ? v : -1;
}

struct Snapshot {
    int values[8];
};

Snapshot snapshot(int fd, int family)
{
    Snapshot s{};
    s.values[0] = readInt(fd, IPPROTO_TCP, TCP_NODELAY);
    s.values[1] = readInt(fd, SOL_SOCKET, SO_KEEPALIVE);
    s.values[2] = readInt(fd, SOL_SOCKET, SO_REUSEADDR);
    s.values[3] = readInt(fd, SOL_SOCKET, SO_RCVBUF);
    s.values[4] = family == AF_INET ? readInt(fd, IPPROTO_IP, IP_TOS) : readInt(fd, IPPROTO_IPV6, IPV6_TCLASS);
    s.values[5] = readInt(fd, IPPROTO_TCP, TCP_KEEPIDLE);
    s.values[6] = readInt(fd, IPPROTO_TCP, TCP_KEEPCNT);
    s.values[7] = readInt(fd, IPPROTO_IP, IP_MULTICAST_TTL);
    return s;
}

const char* const kGroups[] = {"239.1.2.3", "224.0.0.251", "ff12::1:2", "ff02::fb", "192.0.2.1", "2001:db8::1"};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Reader in{data, size};
    uint32_t shape = in.take(1);
    int family = shape & 1 ? AF_INET6 : AF_INET;
    int type = shape & 2 ? SOCK_STREAM : SOCK_DGRAM;
    KVNET_SOCK_DOMAIN domain = static_cast<KVNET_SOCK_DOMAIN>(
        shape & 4 ? (shape >> 3) % 3 : (family == AF_INET ? KVNET_SOCK_DOMAIN_INET : KVNET_SOCK_DOMAIN_INET6));

    KVNET_SOCKOPTS o;
    o.iTcpKeepIntvl = 0;
    o.iInterfaceNo = 0;
    KVSockOpts_init(&o);
    uint32_t flags = in.take(2);
    if (in.take(1) % 16 != 0) {
        flags &= ~1u;  // the protocol name stops everything: keep it rare
    }
    if (flags & 1u << KVNET_OPTBIT_PROTO_NAME) {
        KVSockOpts_setProtoName(&o, "fuzz");
    }
    if (flags & 1u << KVNET_OPTBIT_IP_HDRINCL) {
        KVSockOpts_setIPHdrInclude(&o, in.take(1) & 1);
    }
    if (flags & 1u << KVNET_OPTBIT_QOS) {
        uint32_t mode = in.take(1), value = in.take(2);
        if (mode % 4 == 0) {
            KVSockOpts_setQoSDiffServ(&o, value % 64);
        } else if (mode % 4 == 1) {
            KVSockOpts_setQoSRaw(&o, value % 256);
        } else if (mode % 4 == 2) {
            KVSockOpts_setQoSRaw(&o, value);  // out of the byte's range
        } else {
            o.sQoSParams.eMode = static_cast<KVNET_QOS_MODE>(static_cast<int8_t>(mode));
            o.iSetFlags |= 1 << KVNET_OPTBIT_QOS;
        }
    }
    if (flags & 1u << KVNET_OPTBIT_MULTICAST_GROUP) {
        NET_ADDR group, ifaddr;
        uint32_t pick = in.take(1);
        NET_ADDR_fromString(&group, kGroups[pick % 6]);
        if (pick & 0x80) {
            NET_ADDR_fromString(&ifaddr, "127.0.0.1");
        } else {
            NET_ADDR_init(&ifaddr);
        }
        int ifno = pick & 0x40 ? -1 : static_cast<int>(if_nametoindex("lo"));
        KVSockOpts_setMulticastGroup(&o, &group, &ifaddr, ifno);
    }
    if (flags & 1u << KVNET_OPTBIT_MULTICAST_TTL) {
        KVSockOpts_setMulticastTTL(&o, static_cast<int>(in.take(2)));
    }
    if (flags & 1u << KVNET_OPTBIT_TCP_NODELAY) {
        KVSockOpts_setTcpNoDelay(&o);
    }
    if (flags & 1u << KVNET_OPTBIT_REUSE_ADDR) {
        KVSockOpts_setReuseAddress(&o, in.take(1) & 1);
    }
    if (flags & 1u << KVNET_OPTBIT_RCVBUF) {
        KVSockOpts_setRcvBuf(&o, static_cast<int>(in.take(3)));
    }
    if (flags & 1u << KVNET_OPTBIT_IP_RR) {
        KVSockOpts_setIPRecordRoute(&o);
    }
    if (flags & 1u << KVNET_OPTBIT_KEEPALIVE) {
        KVSockOpts_setKeepAlive(&o, in.take(1) & 1);
    }
    if (flags & 1u << KVNET_OPTBIT_KEEPIDLE) {
        KVSockOpts_setTcpKeepIdle(&o, static_cast<int>(static_cast<int16_t>(in.take(2))));
    }
    if (flags & 1u << KVNET_OPTBIT_KEEPINTVL) {
        KVSockOpts_setTcpKeepIntvl(&o, static_cast<int>(static_cast<int16_t>(in.take(2))));
    }
    if (flags & 1u << KVNET_OPTBIT_KEEPCNT) {
        KVSockOpts_setTcpKeepCnt(&o, static_cast<int>(in.take(1)));
    }
    if (flags & 0x8000u) {
        o.iSetFlags |= 1 << 13;  // a bit the record does not know
    }

    int fd = socket(family, type, 0);
    if (fd < 0) {
        return 0;
    }
    Snapshot before = snapshot(fd, family);
    int rc = KVNET_applySockOpts(fd, &o, domain);
    check(rc == 0 || rc == -1);
    if (o.iSetFlags == 0) {
        check(rc == 0);
    }
    if (KVSockOpts_isOptionSet(&o, KVNET_OPTBIT_PROTO_NAME)) {
        Snapshot after = snapshot(fd, family);
        check(rc == -1 && std::memcmp(&before, &after, sizeof before) == 0);
    }
    if (o.iSetFlags == 1 << 13) {
        check(rc == -1);
    }
    if (rc == 0) {
        bool tcp = type == SOCK_STREAM;
        if (KVSockOpts_isOptionSet(&o, KVNET_OPTBIT_TCP_NODELAY)) {
            check(readInt(fd, IPPROTO_TCP, TCP_NODELAY) == 1);
        }
        if (KVSockOpts_isOptionSet(&o, KVNET_OPTBIT_KEEPALIVE)) {
            check(readInt(fd, SOL_SOCKET, SO_KEEPALIVE) == 1);
        }
        if (KVSockOpts_isOptionSet(&o, KVNET_OPTBIT_REUSE_ADDR)) {
            check(readInt(fd, SOL_SOCKET, SO_REUSEADDR) == 1);
        }
        if (KVSockOpts_isOptionSet(&o, KVNET_OPTBIT_KEEPIDLE)) {
            check(readInt(fd, IPPROTO_TCP, TCP_KEEPIDLE) == o.iTcpKeepIdle);
        }
        if (KVSockOpts_isOptionSet(&o, KVNET_OPTBIT_KEEPINTVL)) {
            check(readInt(fd, IPPROTO_TCP, TCP_KEEPINTVL) == o.iTcpKeepIntvl);
        }
        if (KVSockOpts_isOptionSet(&o, KVNET_OPTBIT_KEEPCNT)) {
            check(readInt(fd, IPPROTO_TCP, TCP_KEEPCNT) == o.iTcpKeepCnt);
        }
        if (KVSockOpts_isOptionSet(&o, KVNET_OPTBIT_MULTICAST_TTL)) {
            check(readInt(fd, IPPROTO_IP, IP_MULTICAST_TTL) == (o.iMulticastTTL & 0xff));
        }
        if (KVSockOpts_isOptionSet(&o, KVNET_OPTBIT_QOS)) {
            int value = -1;
            if (o.sQoSParams.eMode == KVNET_QOS_MODE_DIFFSERV) {
                value = o.sQoSParams.uVal.iDiffServ << 2;
            } else if (o.sQoSParams.eMode == KVNET_QOS_MODE_RAW) {
                value = o.sQoSParams.uVal.iRaw;
            }
            int level = domain == KVNET_SOCK_DOMAIN_INET6 ? IPPROTO_IPV6 : IPPROTO_IP;
            int option = domain == KVNET_SOCK_DOMAIN_INET6 ? IPV6_TCLASS : IP_TOS;
            if (value > 0 && value <= 255 && domain != KVNET_SOCK_DOMAIN_LOCAL &&
                (domain == KVNET_SOCK_DOMAIN_INET6) == (family == AF_INET6)) {
                // Stream sockets keep the ECN bits to themselves.
                int mask = tcp ? 0xfc : 0xff;
                check((readInt(fd, level, option) & mask) == (value & mask));
            } else if (value <= 0) {
                // Nothing to mark: the socket's own class is left alone.
                int own = family == AF_INET ? readInt(fd, IPPROTO_IP, IP_TOS) : readInt(fd, IPPROTO_IPV6, IPV6_TCLASS);
                check(own == before.values[4]);
            }
        }
        if (KVSockOpts_isOptionSet(&o, KVNET_OPTBIT_MULTICAST_GROUP)) {
            // The membership is there: a second join is refused.
            KVNET_MCAST_REQ again{o.sMulticastGroup, o.sInterfaceAddr, o.iInterfaceNo};
            check(KVNET_setsockopt(fd, KVNET_SOL_IP, KVNET_IP_ADD_MEMBERSHIP, &again, sizeof again) == -1);
        }
    }
    close(fd);
    return 0;
}
