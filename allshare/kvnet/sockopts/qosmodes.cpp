/*
 * QoS parameters: plain accessors and the deliberately uneven equality.
 */
#include "kvnet/qosmodes.h"

#include <assert.h>
#include <stdio.h>

void KVNET_QOS_PARAMS_init(KVNET_QOS_PARAMS* p)
{
    assert(p != nullptr);
    p->eMode = KVNET_QOS_MODE_UNDEF;
    p->uVal.iDiffServ = 0;
}

void KVNET_QOS_PROTOCOL_PARAMS_init(KVNET_QOS_PROTOCOL_PARAMS* p)
{
    assert(p != nullptr);
    KVNET_QOS_PARAMS_init(&p->Signaling);
    KVNET_QOS_PARAMS_init(&p->Audio);
    KVNET_QOS_PARAMS_init(&p->Video);
    KVNET_QOS_PARAMS_init(&p->XMPP);
}

void KVNET_setQoSParams(KVNET_QOS_PARAMS* dst, const KVNET_QOS_PARAMS* src)
{
    assert(dst != nullptr && src != nullptr);
    dst->eMode = src->eMode;
    dst->uVal = src->uVal;
}

void KVNET_setQoSParamsUndef(KVNET_QOS_PARAMS* p)
{
    assert(p != nullptr);
    p->eMode = KVNET_QOS_MODE_UNDEF;
}

void KVNET_setQoSParamsDiffServ(KVNET_QOS_PARAMS* p, unsigned dscp)
{
    assert(p != nullptr);
    p->eMode = KVNET_QOS_MODE_DIFFSERV;
    p->uVal.iDiffServ = static_cast<uint16_t>(dscp);
}

void KVNET_setQoSParamsRaw(KVNET_QOS_PARAMS* p, unsigned raw)
{
    assert(p != nullptr);
    p->eMode = KVNET_QOS_MODE_RAW;
    p->uVal.iRaw = static_cast<uint16_t>(raw);
}

KVNET_QOS_MODE KVNET_qosMode(const KVNET_QOS_PARAMS* p)
{
    assert(p != nullptr);
    return p->eMode;
}

bool KVNET_qosDiffServ(const KVNET_QOS_PARAMS* p, uint16_t* out)
{
    assert(p != nullptr && out != nullptr);
    if (p->eMode != KVNET_QOS_MODE_DIFFSERV) {
        fputs("KVNET_qosDiffServ: QoS mode not diffserv\n", stderr);
        return false;
    }
    *out = p->uVal.iDiffServ;
    return true;
}

bool KVNET_qosRaw(const KVNET_QOS_PARAMS* p, uint16_t* out)
{
    assert(p != nullptr && out != nullptr);
    if (p->eMode != KVNET_QOS_MODE_RAW) {
        fputs("KVNET_qosRaw: QoS mode not raw dscp\n", stderr);
        return false;
    }
    *out = p->uVal.iRaw;
    return true;
}

bool operator==(const KVNET_QOS_PARAMS& a, const KVNET_QOS_PARAMS& b)
{
    if (a.eMode != b.eMode) {
        return false;
    }
    switch (a.eMode) {
    case KVNET_QOS_MODE_DIFFSERV:
        return a.uVal.iDiffServ == b.uVal.iDiffServ;
    case KVNET_QOS_MODE_RAW:
        return a.uVal.iRaw == b.uVal.iRaw;
    case KVNET_QOS_MODE_UNDEF:
        return true;
    }
    // A mode outside the enumeration: such records match nothing, themselves
    // included, so that a corrupted record never passes for a known marking.
    return false;
}

bool operator!=(const KVNET_QOS_PARAMS& a, const KVNET_QOS_PARAMS& b)
{
    return !(a == b);
}

KVNET_SOCK_DOMAIN KVNET_getSocketDomain(const NET_ADDR* addr)
{
    assert(addr != nullptr);
    switch (addr->type_) {
    case NET_ADDR_TYPE_IPV4:
        return KVNET_SOCK_DOMAIN_INET;
    case NET_ADDR_TYPE_IPV6:
        return KVNET_SOCK_DOMAIN_INET6;
    default:
        return KVNET_SOCK_DOMAIN_LOCAL;
    }
}
