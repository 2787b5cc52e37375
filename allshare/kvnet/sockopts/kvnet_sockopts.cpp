/*
 * The socket-option record and the order in which its options reach a
 * socket. The mapping of each option onto the system is KVNET_setsockopt's
 * business (linux/sockopts.cpp); this file only decides what is written,
 * with which value and in which order.
 */
#include "kvnet/kvnet_sockopts.h"

#include <assert.h>
#include <stdio.h>
#include <string.h>

#include "libkvc/strutil.h"

namespace {

inline void setBit(KVNET_SOCKOPTS* opts, KVNET_SOCKOPT_BIT bit)
{
    opts->iSetFlags |= 1 << bit;
}

inline bool hasBit(const KVNET_SOCKOPTS* opts, KVNET_SOCKOPT_BIT bit)
{
    return (opts->iSetFlags & (1 << bit)) != 0;
}

int setInt(KVNET_SOCK_ID sock, KVNET_SOL level, KVNET_SOCKOPT option, int value)
{
    return KVNET_setsockopt(sock, level, option, &value, sizeof value);
}

/* The QoS step: 0 when the marking was written or there was nothing to
 * write, -1 on failure. */
int applyQoS(KVNET_SOCK_ID sock, const KVNET_QOS_PARAMS& qos, KVNET_SOCK_DOMAIN domain)
{
    int value;
    switch (qos.eMode) {
    case KVNET_QOS_MODE_DIFFSERV:
        value = qos.uVal.iDiffServ << 2;  // the code point is the upper six bits
        break;
    case KVNET_QOS_MODE_RAW:
        value = qos.uVal.iRaw;
        break;
    case KVNET_QOS_MODE_UNDEF:
        return 0;
    default:
        fprintf(stderr, "kvnet_setQoS: Unhandled QoS mode %d\n", static_cast<int>(qos.eMode));
        return 0;
    }
    if (value == 0) {
        return 0;  // a zero marking is the system's default and is never written
    }
    int rc;
    if (domain == KVNET_SOCK_DOMAIN_INET) {
        rc = setInt(sock, KVNET_SOL_IP, KVNET_IP_TOS, value);
    } else if (domain == KVNET_SOCK_DOMAIN_INET6) {
        rc = setInt(sock, KVNET_SOL_IP, KVNET_IPV6_TCLASS, value);
    } else {
        fprintf(stderr, "kvnet_setQoS: Unsupported socket domain %d provided\n", static_cast<int>(domain));
        rc = -1;
    }
    if (rc != 0) {
        fputs("kvnet_setQoS: Unable to set QoS values\n", stderr);
        return -1;
    }
    return 0;
}

}  // namespace

void KVSockOpts_init(KVNET_SOCKOPTS* opts)
{
    assert(opts != nullptr);
    opts->iSetFlags = 0;
    memset(opts->szProtoName, 0, sizeof opts->szProtoName);
    opts->bIPHdrInclude = false;
    KVNET_QOS_PARAMS_init(&opts->sQoSParams);
    NET_ADDR_init(&opts->sMulticastGroup);
    NET_ADDR_init(&opts->sInterfaceAddr);
    opts->iMulticastTTL = 0;
    opts->iTcpKeepIdle = 0;
    opts->iTcpKeepCnt = 0;
    opts->iSocketRcvBuf = 0;
    opts->bSocketReuseAddress = false;
    opts->bSocketKeepAlive = false;
    // iTcpKeepIntvl and iInterfaceNo are left alone on purpose (see header).
}

void KVSockOpts_copy(KVNET_SOCKOPTS* dst, const KVNET_SOCKOPTS* src)
{
    assert(dst != nullptr && src != nullptr);
    *dst = *src;
}

bool KVSockOpts_isOptionSet(const KVNET_SOCKOPTS* opts, int bit)
{
    assert(opts != nullptr);
    if (bit < 0 || bit > 31) {
        return false;
    }
    return (static_cast<unsigned>(opts->iSetFlags) >> bit & 1u) != 0;
}

bool KVSockOpts_anyOptionSet(const KVNET_SOCKOPTS* opts)
{
    assert(opts != nullptr);
    return opts->iSetFlags != 0;
}

void KVSockOpts_setProtoName(KVNET_SOCKOPTS* opts, const char* name)
{
    assert(opts != nullptr && name != nullptr);
    kvclib_strcpy(opts->szProtoName, name, sizeof opts->szProtoName);
    setBit(opts, KVNET_OPTBIT_PROTO_NAME);
}

void KVSockOpts_setIPHdrInclude(KVNET_SOCKOPTS* opts, bool include)
{
    assert(opts != nullptr);
    opts->bIPHdrInclude = include;
    setBit(opts, KVNET_OPTBIT_IP_HDRINCL);
}

void KVSockOpts_setQoS(KVNET_SOCKOPTS* opts, const KVNET_QOS_PARAMS* qos)
{
    assert(opts != nullptr);
    KVNET_setQoSParams(&opts->sQoSParams, qos);
    setBit(opts, KVNET_OPTBIT_QOS);
}

void KVSockOpts_setQoSDiffServ(KVNET_SOCKOPTS* opts, unsigned dscp)
{
    assert(opts != nullptr);
    KVNET_setQoSParamsDiffServ(&opts->sQoSParams, dscp);
    setBit(opts, KVNET_OPTBIT_QOS);
}

void KVSockOpts_setQoSRaw(KVNET_SOCKOPTS* opts, unsigned raw)
{
    assert(opts != nullptr);
    KVNET_setQoSParamsRaw(&opts->sQoSParams, raw);
    setBit(opts, KVNET_OPTBIT_QOS);
}

void KVSockOpts_setMulticastGroup(KVNET_SOCKOPTS* opts, const NET_ADDR* group, const NET_ADDR* ifaddr, int ifno)
{
    assert(opts != nullptr && group != nullptr && ifaddr != nullptr);
    opts->sMulticastGroup = *group;
    opts->sInterfaceAddr = *ifaddr;
    opts->iInterfaceNo = ifno;
    setBit(opts, KVNET_OPTBIT_MULTICAST_GROUP);
}

void KVSockOpts_setMulticastTTL(KVNET_SOCKOPTS* opts, int ttl)
{
    assert(opts != nullptr);
    opts->iMulticastTTL = ttl;
    setBit(opts, KVNET_OPTBIT_MULTICAST_TTL);
}

void KVSockOpts_setTcpNoDelay(KVNET_SOCKOPTS* opts)
{
    assert(opts != nullptr);
    setBit(opts, KVNET_OPTBIT_TCP_NODELAY);
}

void KVSockOpts_setReuseAddress(KVNET_SOCKOPTS* opts, bool reuse)
{
    assert(opts != nullptr);
    opts->bSocketReuseAddress = reuse;
    setBit(opts, KVNET_OPTBIT_REUSE_ADDR);
}

void KVSockOpts_setRcvBuf(KVNET_SOCKOPTS* opts, int bytes)
{
    assert(opts != nullptr);
    opts->iSocketRcvBuf = bytes;
    setBit(opts, KVNET_OPTBIT_RCVBUF);
}

void KVSockOpts_setIPRecordRoute(KVNET_SOCKOPTS* opts)
{
    assert(opts != nullptr);
    setBit(opts, KVNET_OPTBIT_IP_RR);
}

void KVSockOpts_setKeepAlive(KVNET_SOCKOPTS* opts, bool keepAlive)
{
    assert(opts != nullptr);
    opts->bSocketKeepAlive = keepAlive;
    setBit(opts, KVNET_OPTBIT_KEEPALIVE);
}

void KVSockOpts_setTcpKeepIdle(KVNET_SOCKOPTS* opts, int seconds)
{
    assert(opts != nullptr);
    opts->iTcpKeepIdle = seconds;
    setBit(opts, KVNET_OPTBIT_KEEPIDLE);
}

void KVSockOpts_setTcpKeepIntvl(KVNET_SOCKOPTS* opts, int seconds)
{
    assert(opts != nullptr);
    opts->iTcpKeepIntvl = seconds;
    setBit(opts, KVNET_OPTBIT_KEEPINTVL);
}

void KVSockOpts_setTcpKeepCnt(KVNET_SOCKOPTS* opts, int probes)
{
    assert(opts != nullptr);
    opts->iTcpKeepCnt = probes;
    setBit(opts, KVNET_OPTBIT_KEEPCNT);
}

const char* KVSockOpts_protoName(const KVNET_SOCKOPTS* opts)
{
    assert(opts != nullptr);
    return opts->szProtoName;
}

bool KVSockOpts_ipHdrInclude(const KVNET_SOCKOPTS* opts)
{
    assert(opts != nullptr);
    return opts->bIPHdrInclude;
}

const KVNET_QOS_PARAMS* KVSockOpts_qosParams(const KVNET_SOCKOPTS* opts)
{
    assert(opts != nullptr);
    return &opts->sQoSParams;
}

KVNET_QOS_MODE KVSockOpts_qosMode(const KVNET_SOCKOPTS* opts)
{
    assert(opts != nullptr);
    return KVNET_qosMode(&opts->sQoSParams);
}

bool KVSockOpts_qosDiffServ(const KVNET_SOCKOPTS* opts, uint16_t* out)
{
    assert(opts != nullptr);
    return KVNET_qosDiffServ(&opts->sQoSParams, out);
}

bool KVSockOpts_qosRaw(const KVNET_SOCKOPTS* opts, uint16_t* out)
{
    assert(opts != nullptr);
    return KVNET_qosRaw(&opts->sQoSParams, out);
}

const NET_ADDR* KVSockOpts_multicastGroup(const KVNET_SOCKOPTS* opts)
{
    assert(opts != nullptr);
    return &opts->sMulticastGroup;
}

const NET_ADDR* KVSockOpts_interfaceAddr(const KVNET_SOCKOPTS* opts)
{
    assert(opts != nullptr);
    return &opts->sInterfaceAddr;
}

int KVSockOpts_interfaceNo(const KVNET_SOCKOPTS* opts)
{
    assert(opts != nullptr);
    return opts->iInterfaceNo;
}

int KVSockOpts_multicastTTL(const KVNET_SOCKOPTS* opts)
{
    assert(opts != nullptr);
    return opts->iMulticastTTL;
}

bool KVSockOpts_reuseAddress(const KVNET_SOCKOPTS* opts)
{
    assert(opts != nullptr);
    return opts->bSocketReuseAddress;
}

int KVSockOpts_rcvBuf(const KVNET_SOCKOPTS* opts)
{
    assert(opts != nullptr);
    return opts->iSocketRcvBuf;
}

bool KVSockOpts_keepAlive(const KVNET_SOCKOPTS* opts)
{
    assert(opts != nullptr);
    return opts->bSocketKeepAlive;
}

int KVSockOpts_tcpKeepIdle(const KVNET_SOCKOPTS* opts)
{
    assert(opts != nullptr);
    return opts->iTcpKeepIdle;
}

int KVSockOpts_tcpKeepIntvl(const KVNET_SOCKOPTS* opts)
{
    assert(opts != nullptr);
    return opts->iTcpKeepIntvl;
}

int KVSockOpts_tcpKeepCnt(const KVNET_SOCKOPTS* opts)
{
    assert(opts != nullptr);
    return opts->iTcpKeepCnt;
}

int KVNET_applySockOpts(KVNET_SOCK_ID sock, const KVNET_SOCKOPTS* opts, KVNET_SOCK_DOMAIN domain)
{
    assert(opts != nullptr);
    if (opts->iSetFlags == 0) {
        return 0;
    }
    if (hasBit(opts, KVNET_OPTBIT_PROTO_NAME)) {
        fputs("KVNET_applySockOpts: proto name not implemented\n", stderr);
        return -1;
    }
    // -1 unless some known option is applied: bits beyond the known ones
    // alone make the record unusable.
    int rc = -1;
    if (hasBit(opts, KVNET_OPTBIT_IP_RR) && (rc = KVNET_setsockopt(sock, KVNET_SOL_IP, KVNET_IP_RR, nullptr, 0)) != 0) {
        return -1;
    }
    if (hasBit(opts, KVNET_OPTBIT_MULTICAST_GROUP)) {
        if (opts->iInterfaceNo < 0) {
            return -1;
        }
        KVNET_MCAST_REQ req{opts->sMulticastGroup, opts->sInterfaceAddr, opts->iInterfaceNo};
        if ((rc = KVNET_setsockopt(sock, KVNET_SOL_IP, KVNET_IP_ADD_MEMBERSHIP, &req, sizeof req)) != 0) {
            return -1;
        }
    }
    if (hasBit(opts, KVNET_OPTBIT_QOS) && (rc = applyQoS(sock, opts->sQoSParams, domain)) != 0) {
        return -1;
    }
    if (hasBit(opts, KVNET_OPTBIT_IP_HDRINCL) &&
        (rc = setInt(sock, KVNET_SOL_IP, KVNET_IP_HDRINCL, opts->bIPHdrInclude ? 1 : 0)) != 0) {
        return -1;
    }
    if (hasBit(opts, KVNET_OPTBIT_MULTICAST_TTL)) {
        unsigned char ttl = static_cast<unsigned char>(opts->iMulticastTTL & 0xff);
        if ((rc = KVNET_setsockopt(sock, KVNET_SOL_IP, KVNET_IP_MULTICAST_TTL, &ttl, sizeof ttl)) != 0) {
            return -1;
        }
    }
    if (hasBit(opts, KVNET_OPTBIT_TCP_NODELAY) && (rc = setInt(sock, KVNET_SOL_TCP, KVNET_TCP_NODELAY, 1)) != 0) {
        return -1;
    }
    // Keep-alive and reuse-address only ever switch the feature on; the
    // record's booleans are not consulted (see header).
    if (hasBit(opts, KVNET_OPTBIT_KEEPALIVE) && (rc = setInt(sock, KVNET_SOL_SOCKET, KVNET_SO_KEEPALIVE, 1)) != 0) {
        return -1;
    }
    if (hasBit(opts, KVNET_OPTBIT_KEEPIDLE) &&
        (rc = setInt(sock, KVNET_SOL_IPPROTO_TCP, KVNET_TCP_KEEPIDLE, opts->iTcpKeepIdle)) != 0) {
        return -1;
    }
    if (hasBit(opts, KVNET_OPTBIT_KEEPINTVL) &&
        (rc = setInt(sock, KVNET_SOL_IPPROTO_TCP, KVNET_TCP_KEEPINTVL, opts->iTcpKeepIntvl)) != 0) {
        return -1;
    }
    if (hasBit(opts, KVNET_OPTBIT_KEEPCNT) &&
        (rc = setInt(sock, KVNET_SOL_IPPROTO_TCP, KVNET_TCP_KEEPCNT, opts->iTcpKeepCnt)) != 0) {
        return -1;
    }
    if (hasBit(opts, KVNET_OPTBIT_REUSE_ADDR) &&
        (rc = setInt(sock, KVNET_SOL_SOCKET, KVNET_SOCKET_REUSE_ADDR, 1)) != 0) {
        return -1;
    }
    if (hasBit(opts, KVNET_OPTBIT_RCVBUF) &&
        (rc = setInt(sock, KVNET_SOL_SOCKET, KVNET_SO_RCVBUF, opts->iSocketRcvBuf)) != 0) {
        return -1;
    }
    return rc;
}
