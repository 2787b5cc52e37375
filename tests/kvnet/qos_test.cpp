/* QoS parameters: accessors, their complaints and the uneven equality. */
#include "kvnet/qosmodes.h"

#include <gtest/gtest.h>

namespace {

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

KVNET_QOS_PARAMS make(int mode, uint16_t value)
{
    KVNET_QOS_PARAMS p;
    p.eMode = static_cast<KVNET_QOS_MODE>(mode);
    p.uVal.iRaw = value;
    return p;
}

TEST(QoSParams, DefaultAndInitAreUndefinedZero)
{
    KVNET_QOS_PARAMS p;
    EXPECT_EQ(p.eMode, KVNET_QOS_MODE_UNDEF);
    EXPECT_EQ(p.uVal.iRaw, 0);
    p = make(KVNET_QOS_MODE_RAW, 9);
    KVNET_QOS_PARAMS_init(&p);
    EXPECT_EQ(KVNET_qosMode(&p), KVNET_QOS_MODE_UNDEF);
    EXPECT_EQ(p.uVal.iDiffServ, 0);

    KVNET_QOS_PROTOCOL_PARAMS all;
    for (KVNET_QOS_PARAMS* m : {&all.Signaling, &all.Audio, &all.Video, &all.XMPP}) {
        *m = make(KVNET_QOS_MODE_DIFFSERV, 46);
    }
    KVNET_QOS_PROTOCOL_PARAMS_init(&all);
    for (const KVNET_QOS_PARAMS* m : {&all.Signaling, &all.Audio, &all.Video, &all.XMPP}) {
        EXPECT_EQ(m->eMode, KVNET_QOS_MODE_UNDEF);
        EXPECT_EQ(m->uVal.iRaw, 0);
    }
}

TEST(QoSParams, SettersAndGetters)
{
    KVNET_QOS_PARAMS p;
    uint16_t v = 0;
    KVNET_setQoSParamsDiffServ(&p, 46);
    EXPECT_EQ(KVNET_qosMode(&p), KVNET_QOS_MODE_DIFFSERV);
    ASSERT_TRUE(KVNET_qosDiffServ(&p, &v));
    EXPECT_EQ(v, 46);
    KVNET_setQoSParamsRaw(&p, 0x1b8);  // kept to 16 bits, not to a byte
    ASSERT_TRUE(KVNET_qosRaw(&p, &v));
    EXPECT_EQ(v, 0x1b8);
    KVNET_setQoSParamsRaw(&p, 0x10028);
    ASSERT_TRUE(KVNET_qosRaw(&p, &v));
    EXPECT_EQ(v, 0x28);

    // Undefined keeps the value.
    KVNET_setQoSParamsUndef(&p);
    EXPECT_EQ(KVNET_qosMode(&p), KVNET_QOS_MODE_UNDEF);
    EXPECT_EQ(p.uVal.iRaw, 0x28);

    KVNET_QOS_PARAMS copy;
    KVNET_setQoSParamsDiffServ(&p, 10);
    KVNET_setQoSParams(&copy, &p);
    EXPECT_EQ(copy.eMode, KVNET_QOS_MODE_DIFFSERV);
    EXPECT_EQ(copy.uVal.iDiffServ, 10);
}

TEST(QoSParams, GettersOfTheWrongModeComplain)
{
    struct Row {
        int mode;
        bool diffServOk;
        bool rawOk;
    } rows[] = {{KVNET_QOS_MODE_UNDEF, false, false},
                {KVNET_QOS_MODE_DIFFSERV, true, false},
                {KVNET_QOS_MODE_RAW, false, true},
                {7, false, false}};
    for (const Row& r : rows) {
        KVNET_QOS_PARAMS p = make(r.mode, 33);
        uint16_t v = 1;
        CaptureStderr();
        EXPECT_EQ(KVNET_qosDiffServ(&p, &v), r.diffServOk) << r.mode;
        EXPECT_EQ(GetCapturedStderr(), r.diffServOk ? "" : "KVNET_qosDiffServ: QoS mode not diffserv\n");
        EXPECT_EQ(v, r.diffServOk ? 33 : 1);
        v = 1;
        CaptureStderr();
        EXPECT_EQ(KVNET_qosRaw(&p, &v), r.rawOk) << r.mode;
        EXPECT_EQ(GetCapturedStderr(), r.rawOk ? "" : "KVNET_qosRaw: QoS mode not raw dscp\n");
        EXPECT_EQ(v, r.rawOk ? 33 : 1);
    }
}

TEST(QoSParams, Equality)
{
    struct Row {
        int modeA;
        uint16_t valueA;
        int modeB;
        uint16_t valueB;
        bool equal;
    } rows[] = {
        {KVNET_QOS_MODE_UNDEF, 1, KVNET_QOS_MODE_UNDEF, 2, true},  // the value does not count
        {KVNET_QOS_MODE_DIFFSERV, 46, KVNET_QOS_MODE_DIFFSERV, 46, true},
        {KVNET_QOS_MODE_DIFFSERV, 46, KVNET_QOS_MODE_DIFFSERV, 10, false},
        {KVNET_QOS_MODE_RAW, 184, KVNET_QOS_MODE_RAW, 184, true},
        {KVNET_QOS_MODE_RAW, 184, KVNET_QOS_MODE_RAW, 185, false},
        {KVNET_QOS_MODE_DIFFSERV, 46, KVNET_QOS_MODE_RAW, 46, false},
        {KVNET_QOS_MODE_UNDEF, 0, KVNET_QOS_MODE_DIFFSERV, 0, false},
        {3, 5, 3, 5, false},  // a mode outside the enumeration matches nothing
        {-2, 0, -2, 0, false},
    };
    for (const Row& r : rows) {
        KVNET_QOS_PARAMS a = make(r.modeA, r.valueA);
        KVNET_QOS_PARAMS b = make(r.modeB, r.valueB);
        EXPECT_EQ(a == b, r.equal) << r.modeA << "/" << r.valueA << " vs " << r.modeB << "/" << r.valueB;
        EXPECT_EQ(b == a, r.equal);
        EXPECT_EQ(a != b, !r.equal);
    }
    KVNET_QOS_PARAMS odd = make(4, 0);
    EXPECT_FALSE(odd == odd);
    EXPECT_TRUE(odd != odd);
}

TEST(QoSParams, SocketDomainOfAnAddress)
{
    NET_ADDR a;
    NET_ADDR_init(&a);
    EXPECT_EQ(KVNET_getSocketDomain(&a), KVNET_SOCK_DOMAIN_LOCAL);
    ASSERT_TRUE(NET_ADDR_fromString(&a, "192.0.2.1"));
    EXPECT_EQ(KVNET_getSocketDomain(&a), KVNET_SOCK_DOMAIN_INET);
    ASSERT_TRUE(NET_ADDR_fromString(&a, "::ffff:192.0.2.1"));
    EXPECT_EQ(KVNET_getSocketDomain(&a), KVNET_SOCK_DOMAIN_INET6);
    a.type_ = static_cast<NET_ADDR_TYPE>(9);
    EXPECT_EQ(KVNET_getSocketDomain(&a), KVNET_SOCK_DOMAIN_LOCAL);
}

}  // namespace
