/**
 * @file
 * QoS parameters: how the traffic class of a socket is marked.
 *
 * Either a DiffServ code point, which the layer shifts into the upper six
 * bits of the type-of-service / traffic-class byte itself, or a raw byte
 * value used as it is. The parameters travel inside the socket options
 * (kvnet/kvnet_sockopts.h) and are written when the options are applied; a
 * marking that comes out as 0 is never written to a socket.
 *
 * The mode is a 32-bit field and may be set to values outside the
 * enumeration by code that fills the record by hand; such records compare
 * unequal to everything, themselves included (see operator==).
 */
#ifndef KVNET_QOSMODES_H
#define KVNET_QOSMODES_H

#include <stdint.h>

#include "kvnet/kvnet_types.h"
#include "libkvc/netaddr.h"

#pragma GCC visibility push(default)

enum KVNET_QOS_MODE : int32_t {
    KVNET_QOS_MODE_UNDEF = -1,
    KVNET_QOS_MODE_DIFFSERV = 0,
    KVNET_QOS_MODE_RAW = 1
};

union KVNET_QOS_VALUE {
    uint16_t iDiffServ; /**< DiffServ code point, 0..63 */
    uint16_t iRaw;      /**< type-of-service / traffic-class byte */
};

/** A default-constructed record has mode KVNET_QOS_MODE_UNDEF and value 0. */
struct KVNET_QOS_PARAMS {
    KVNET_QOS_MODE eMode = KVNET_QOS_MODE_UNDEF;
    KVNET_QOS_VALUE uVal = {0};
};

/** The QoS parameters of one endpoint, per kind of traffic. */
struct KVNET_QOS_PROTOCOL_PARAMS {
    KVNET_QOS_PARAMS Signaling;
    KVNET_QOS_PARAMS Audio;
    KVNET_QOS_PARAMS Video;
    KVNET_QOS_PARAMS XMPP;
};

/** Mode UNDEF, value 0. */
void KVNET_QOS_PARAMS_init(KVNET_QOS_PARAMS* p);
/** Initialises all four members. */
void KVNET_QOS_PROTOCOL_PARAMS_init(KVNET_QOS_PROTOCOL_PARAMS* p);
/** Copies mode and value of src into dst. */
void KVNET_setQoSParams(KVNET_QOS_PARAMS* dst, const KVNET_QOS_PARAMS* src);
/** Mode UNDEF; the value is left as it was. */
void KVNET_setQoSParamsUndef(KVNET_QOS_PARAMS* p);
/** Mode DIFFSERV with code point dscp (kept to 16 bits). */
void KVNET_setQoSParamsDiffServ(KVNET_QOS_PARAMS* p, unsigned dscp);
/** Mode RAW with value raw (kept to 16 bits). */
void KVNET_setQoSParamsRaw(KVNET_QOS_PARAMS* p, unsigned raw);
/** The stored mode, which may lie outside the enumeration when the record
 * was filled by hand (see the file comment). */
KVNET_QOS_MODE KVNET_qosMode(const KVNET_QOS_PARAMS* p);
/** In DIFFSERV mode: *out = the code point, true. Otherwise writes
 * "KVNET_qosDiffServ: QoS mode not diffserv\n" to standard error and answers
 * false with *out untouched. */
bool KVNET_qosDiffServ(const KVNET_QOS_PARAMS* p, uint16_t* out);
/** In RAW mode: *out = the raw value, true. Otherwise writes
 * "KVNET_qosRaw: QoS mode not raw dscp\n" to standard error, false. */
bool KVNET_qosRaw(const KVNET_QOS_PARAMS* p, uint16_t* out);

/** Equal when the modes are equal and: for DIFFSERV and RAW the values are
 * equal; for UNDEF always (the value does not count). Records whose mode is
 * none of the three are never equal, not even to themselves. */
bool operator==(const KVNET_QOS_PARAMS& a, const KVNET_QOS_PARAMS& b);
/** Exactly !(a == b): true for a record whose mode is none of the three,
 * even when it is compared with itself. */
bool operator!=(const KVNET_QOS_PARAMS& a, const KVNET_QOS_PARAMS& b);

/** INET for an IPv4 address, INET6 for IPv6, LOCAL for anything else. */
KVNET_SOCK_DOMAIN KVNET_getSocketDomain(const NET_ADDR* addr);

#pragma GCC visibility pop
#endif
