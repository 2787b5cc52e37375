/**
 * @file
 * Socket options: one record describing the options a socket is to get.
 *
 * Users fill a KVNET_SOCKOPTS through its setters and hand it to
 * KVNET_applySockOpts once the socket exists. Every setter ORs the bit of its
 * option into iSetFlags, and only options whose bit is set are ever touched
 * on the socket. The layer's own level and option names (KVNET_SOL,
 * KVNET_SOCKOPT) are mapped onto the system's by KVNET_setsockopt and
 * KVNET_getsockopt.
 *
 * Things callers rely on and that stay as they are:
 *  - KVSockOpts_init leaves iTcpKeepIntvl and iInterfaceNo as they were: a
 *    record must be initialised by its owner before either is relied on
 *    without its setter.
 *  - Keep-alive and reuse-address are always written as 1 when their bits are
 *    set: the booleans in the record are not consulted, so these options can
 *    only switch the feature on.
 *  - A QoS marking that comes out as 0 (DiffServ 0, raw 0) is never written.
 *  - The protocol-name option is not implemented: a record that has it set
 *    fails as a whole and nothing is applied.
 *
 * Failures are -1 results, with a line on standard error where a function
 * says so; the socket keeps the options applied before the failing one.
 */
#ifndef KVNET_KVNET_SOCKOPTS_H
#define KVNET_KVNET_SOCKOPTS_H

#include <stdbool.h>
#include <stdint.h>

#include "kvnet/kvnet_types.h"
#include "kvnet/qosmodes.h"
#include "libkvc/netaddr.h"

#pragma GCC visibility push(default)

/** Levels of the layer; -1 is undefined. */
enum KVNET_SOL {
    KVNET_SOL_UNDEF = -1,
    KVNET_SOL_SOCKET = 0,
    KVNET_SOL_TCP = 1,
    KVNET_SOL_IP = 2,
    KVNET_SOL_IPPROTO_TCP = 3
};

/** Options of the layer; -1 is undefined. Value types for KVNET_setsockopt:
 * int for all but KVNET_IP_MULTICAST_TTL (one unsigned char, or an int),
 * KVNET_IP_RR (no value) and KVNET_IP_ADD_MEMBERSHIP (a KVNET_MCAST_REQ). */
enum KVNET_SOCKOPT {
    KVNET_SOCKOPT_UNDEF = -1,
    KVNET_IP_HDRINCL = 0,
    KVNET_IP_TOS = 1,
    KVNET_IP_RR = 2,
    KVNET_IP_MULTICAST_TTL = 3,
    KVNET_IP_ADD_MEMBERSHIP = 4,
    KVNET_TCP_NODELAY = 5,
    KVNET_SOCKET_REUSE_ADDR = 6,
    KVNET_SO_RCVBUF = 7,
    KVNET_SO_BROADCAST = 8,
    KVNET_IPV6_TCLASS = 9,
    KVNET_SO_KEEPALIVE = 10,
    KVNET_TCP_KEEPIDLE = 11,
    KVNET_TCP_KEEPINTVL = 12,
    KVNET_TCP_KEEPCNT = 13
};

/** Bit numbers of iSetFlags. */
enum KVNET_SOCKOPT_BIT {
    KVNET_OPTBIT_PROTO_NAME = 0,
    KVNET_OPTBIT_IP_HDRINCL = 1,
    KVNET_OPTBIT_QOS = 2,
    KVNET_OPTBIT_MULTICAST_GROUP = 3,
    KVNET_OPTBIT_MULTICAST_TTL = 4,
    KVNET_OPTBIT_TCP_NODELAY = 5,
    KVNET_OPTBIT_REUSE_ADDR = 6,
    KVNET_OPTBIT_RCVBUF = 7,
    KVNET_OPTBIT_IP_RR = 8,
    KVNET_OPTBIT_KEEPALIVE = 9,
    KVNET_OPTBIT_KEEPIDLE = 10,
    KVNET_OPTBIT_KEEPINTVL = 11,
    KVNET_OPTBIT_KEEPCNT = 12
};

#define KVNET_PROTO_NAME_LEN 50

/** The value of KVNET_IP_ADD_MEMBERSHIP: an IPv4 group is joined on the
 * interface with address interfaceAddr (any interface when it is unset or
 * 0.0.0.0), an IPv6 group on the interface numbered interfaceNo (0: the
 * system's choice). */
struct KVNET_MCAST_REQ {
    NET_ADDR group;
    NET_ADDR interfaceAddr;
    int interfaceNo;
};

struct KVNET_SOCKOPTS {
    int iSetFlags;
    char szProtoName[KVNET_PROTO_NAME_LEN];
    bool bIPHdrInclude;
    KVNET_QOS_PARAMS sQoSParams;
    NET_ADDR sMulticastGroup;
    NET_ADDR sInterfaceAddr;
    int iMulticastTTL;
    int iTcpKeepIdle;
    int iTcpKeepIntvl;
    int iTcpKeepCnt;
    bool bSocketReuseAddress;
    bool bSocketKeepAlive;
    int iSocketRcvBuf;
    int iInterfaceNo;
};

/** Clears iSetFlags, the protocol name and both booleans, makes the QoS mode
 * undefined and both addresses unset, and zeroes iMulticastTTL, iTcpKeepIdle,
 * iTcpKeepCnt and iSocketRcvBuf. iTcpKeepIntvl and iInterfaceNo are left as
 * they were (see the file comment). */
void KVSockOpts_init(KVNET_SOCKOPTS* opts);
/** Copies the whole record. */
void KVSockOpts_copy(KVNET_SOCKOPTS* dst, const KVNET_SOCKOPTS* src);
/** Whether bit number `bit` of iSetFlags is set (false outside 0..31). */
bool KVSockOpts_isOptionSet(const KVNET_SOCKOPTS* opts, int bit);
/** Whether any bit of iSetFlags is set. */
bool KVSockOpts_anyOptionSet(const KVNET_SOCKOPTS* opts);

/* Setters: each stores its value and sets its bit. */
/** Copies at most 49 characters of name and terminates. */
void KVSockOpts_setProtoName(KVNET_SOCKOPTS* opts, const char* name);
/** Whether the caller builds the IP header itself: applied as IP_HDRINCL, 1
 * for true and 0 for false. The system takes it on raw sockets only; on
 * another, KVNET_applySockOpts fails at that step. */
void KVSockOpts_setIPHdrInclude(KVNET_SOCKOPTS* opts, bool include);
/** Copies the mode and value of *qos (not null) into the record's QoS
 * parameters, as KVNET_setQoSParams. */
void KVSockOpts_setQoS(KVNET_SOCKOPTS* opts, const KVNET_QOS_PARAMS* qos);
/** QoS mode DIFFSERV with code point dscp, as KVNET_setQoSParamsDiffServ:
 * kept to 16 bits and not checked against 0..63 here; the socket gets
 * dscp << 2. */
void KVSockOpts_setQoSDiffServ(KVNET_SOCKOPTS* opts, unsigned dscp);
/** QoS mode RAW with value raw, as KVNET_setQoSParamsRaw: kept to 16 bits
 * here and handed to the socket as it is. */
void KVSockOpts_setQoSRaw(KVNET_SOCKOPTS* opts, unsigned raw);
/** Copies both addresses and the interface number. */
void KVSockOpts_setMulticastGroup(KVNET_SOCKOPTS* opts, const NET_ADDR* group, const NET_ADDR* ifaddr,
                                  int ifno);
/** Time-to-live of outgoing multicast; only its low byte reaches the socket
 * (256 is written as 0). */
void KVSockOpts_setMulticastTTL(KVNET_SOCKOPTS* opts, int ttl);
/** No value: no-delay is always switched on. */
void KVSockOpts_setTcpNoDelay(KVNET_SOCKOPTS* opts);
/** Stores reuse, but the option is applied as 1 whatever its value: false
 * does not switch reuse-address off (see the file comment). */
void KVSockOpts_setReuseAddress(KVNET_SOCKOPTS* opts, bool reuse);
/** Receive buffer size in bytes, handed to SO_RCVBUF as it is (the system
 * bounds it by its own limits and reports back double the value). */
void KVSockOpts_setRcvBuf(KVNET_SOCKOPTS* opts, int bytes);
/** No value: the record-route IP option. */
void KVSockOpts_setIPRecordRoute(KVNET_SOCKOPTS* opts);
/** Stores keepAlive, but the option is applied as 1 whatever its value:
 * false does not switch keep-alive off (see the file comment). */
void KVSockOpts_setKeepAlive(KVNET_SOCKOPTS* opts, bool keepAlive);
///@{
/** TCP keep-alive tuning: seconds of idleness before the first probe, seconds
 * between probes, and unanswered probes before the connection is dropped.
 * Values are handed to the system as they are; one it refuses (0 or negative,
 * or above its limit) makes KVNET_applySockOpts fail at that step. */
void KVSockOpts_setTcpKeepIdle(KVNET_SOCKOPTS* opts, int seconds);
void KVSockOpts_setTcpKeepIntvl(KVNET_SOCKOPTS* opts, int seconds);
void KVSockOpts_setTcpKeepCnt(KVNET_SOCKOPTS* opts, int probes);
///@}

///@{
/** Getters: the stored value, whether or not its bit is set. */
const char* KVSockOpts_protoName(const KVNET_SOCKOPTS* opts);
bool KVSockOpts_ipHdrInclude(const KVNET_SOCKOPTS* opts);
/** The record's QoS parameters: a pointer into *opts, valid as long as the
 * record is. */
const KVNET_QOS_PARAMS* KVSockOpts_qosParams(const KVNET_SOCKOPTS* opts);
KVNET_QOS_MODE KVSockOpts_qosMode(const KVNET_SOCKOPTS* opts);
/** As KVNET_qosDiffServ and KVNET_qosRaw, on the record's QoS parameters. */
bool KVSockOpts_qosDiffServ(const KVNET_SOCKOPTS* opts, uint16_t* out);
/** As KVNET_qosRaw on the record's QoS parameters: the raw value and true in
 * RAW mode; otherwise a line on standard error, false and *out untouched. */
bool KVSockOpts_qosRaw(const KVNET_SOCKOPTS* opts, uint16_t* out);
/** The stored multicast group (unset after KVSockOpts_init): a pointer into
 * *opts, valid as long as the record is. */
const NET_ADDR* KVSockOpts_multicastGroup(const KVNET_SOCKOPTS* opts);
/** The stored interface address of the membership (unset after
 * KVSockOpts_init): a pointer into *opts, valid as long as the record is. */
const NET_ADDR* KVSockOpts_interfaceAddr(const KVNET_SOCKOPTS* opts);
int KVSockOpts_interfaceNo(const KVNET_SOCKOPTS* opts);
int KVSockOpts_multicastTTL(const KVNET_SOCKOPTS* opts);
bool KVSockOpts_reuseAddress(const KVNET_SOCKOPTS* opts);
int KVSockOpts_rcvBuf(const KVNET_SOCKOPTS* opts);
bool KVSockOpts_keepAlive(const KVNET_SOCKOPTS* opts);
int KVSockOpts_tcpKeepIdle(const KVNET_SOCKOPTS* opts);
int KVSockOpts_tcpKeepIntvl(const KVNET_SOCKOPTS* opts);
int KVSockOpts_tcpKeepCnt(const KVNET_SOCKOPTS* opts);
///@}

/** Applies the options whose bits are set, in this order, stopping at the
 * first failure:
 *   protocol name  "KVNET_applySockOpts: proto name not implemented\n" on
 *                  standard error, -1, nothing applied
 *   record route, multicast membership (-1 at once for a negative interface
 *   number), QoS (domain INET: IP_TOS; INET6: IPv6 traffic class; LOCAL:
 *   "kvnet_setQoS: Unsupported socket domain %d provided\n" then
 *   "kvnet_setQoS: Unable to set QoS values\n" and -1; a failing call:
 *   "kvnet_setQoS: Unable to set QoS values\n" and -1; an unknown mode:
 *   "kvnet_setQoS: Unhandled QoS mode %d\n" and no marking), IP header
 *   include, multicast TTL (its low byte), TCP no-delay (1), keep-alive (1),
 *   keep-alive idle, interval and count, reuse-address (1), receive buffer.
 * Returns 0 when no bit is set, -1 on a failure or when only unknown bits
 * are set, otherwise the result of the last option applied (0). A QoS step
 * that writes nothing counts as applied with 0. */
int KVNET_applySockOpts(KVNET_SOCK_ID sock, const KVNET_SOCKOPTS* opts, KVNET_SOCK_DOMAIN domain);

///@{
/** setsockopt/getsockopt on the layer's levels and options:
 *   SOL_SOCKET   SOCKET_REUSE_ADDR, SO_RCVBUF, SO_BROADCAST, SO_KEEPALIVE
 *   SOL_TCP and IPPROTO_TCP   TCP_NODELAY, TCP_KEEPIDLE, TCP_KEEPINTVL,
 *                TCP_KEEPCNT
 *   SOL_IP       IP_HDRINCL, IP_TOS, IP_MULTICAST_TTL, IPV6_TCLASS (at the
 *                IPv6 level), IP_RR (the IP options set to a 40-byte
 *                record-route option; reading gives back the IP options),
 *                IP_ADD_MEMBERSHIP (set only; a value of another size than
 *                KVNET_MCAST_REQ writes "KVNET_IP_ADD_MEMBERSHIP param of
 *                wrong size\n" to standard error)
 * Returns the system call's result: 0, or -1 with errno set. A level and
 * option pair outside the table gives -1 with errno ENOPROTOOPT, a value of
 * the wrong size or an unusable membership group -1 with errno EINVAL.
 * KVNET_getsockopt updates *length to the size read. */
int KVNET_setsockopt(KVNET_SOCK_ID sock, int level, int option, const void* value, unsigned length);
int KVNET_getsockopt(KVNET_SOCK_ID sock, int level, int option, void* value, unsigned* length);
///@}

#pragma GCC visibility pop
#endif
