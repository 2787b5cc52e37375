/* KVNET_isConnected against real loopback sockets in every state it tells
 * apart, both families; the caller's errno and unread data are left alone. */
#include <errno.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <functional>
#include <thread>

#include "abstraction/kvos.h"
#include "abstraction/kvos_socket.h"
#include "kvnet/kvnet_route.h"

namespace {

struct Tcp {
    KVNET_SOCK_ID listener, client = KVNET_SOCK_ID_UNDEF, server = KVNET_SOCK_ID_UNDEF;
    NET_ADDR addr;
    explicit Tcp(NET_ADDR_TYPE type)
    {
        NET_ADDR_setLoopback(&addr, type);
        listener = KVOS_sockCreate(type, NET_PROTO_TCP);
        EXPECT_EQ(KVOS_sockBind(listener, &addr), KV_RET_OK);
        EXPECT_EQ(KVOS_sockListen(listener, 4), KV_RET_OK);
        KVOS_sockLocalAddress(listener, &addr);
        EXPECT_EQ(KVOS_makeConnection(&addr, nullptr, nullptr, 2000, &client), KV_RET_OK);
        EXPECT_EQ(KVOS_sockAccept(listener, &server, nullptr, 2000), KV_RET_OK);
    }
    ~Tcp()
    {
        for (KVNET_SOCK_ID s : {listener, client, server}) {
            if (s >= 0) {
                KVOS_sockClose(s);
            }
        }
    }
};

/* Polls for up to a second: a FIN or RST takes a moment to be processed. */
bool becomes(const std::function<bool()>& pred)
{
    for (int i = 0; i < 1000; ++i) {
        if (pred()) {
            return true;
        }
        KVOS_msleep(1);
    }
    return false;
}

class Connected : public ::testing::TestWithParam<NET_ADDR_TYPE> {};

TEST_P(Connected, EstablishedBothEndsWithTheirPeers)
{
    Tcp tcp(GetParam());
    NET_ADDR peer, local;
    errno = 1234;
    ASSERT_TRUE(KVNET_isConnected(tcp.client, &peer));
    EXPECT_EQ(errno, 1234);
    EXPECT_TRUE(NET_ADDR_equalHost(&peer, &tcp.addr));
    EXPECT_EQ(NET_ADDR_port(&peer), NET_ADDR_port(&tcp.addr));
    EXPECT_EQ(NET_ADDR_proto(&peer), NET_PROTO_TCP);
    ASSERT_TRUE(KVNET_isConnected(tcp.server, &peer));
    KVOS_sockLocalAddress(tcp.client, &local);
    EXPECT_EQ(NET_ADDR_port(&peer), NET_ADDR_port(&local));
    EXPECT_FALSE(KVNET_isConnected(tcp.listener, &peer));
}

TEST_P(Connected, UnreadDataIsLeftAlone)
{
    Tcp tcp(GetParam());
    ASSERT_EQ(KVOS_sockSend(tcp.client, "abc", 3, 1000, nullptr), 3);
    char buf[8];
    ASSERT_EQ(recv(tcp.server, buf, sizeof(buf), MSG_PEEK | MSG_WAITALL), 3);
    EXPECT_TRUE(KVNET_isConnected(tcp.server, nullptr));
    EXPECT_EQ(KVOS_sockRecv(tcp.server, buf, sizeof(buf), 0), 3);
}

TEST_P(Connected, PeerClosedResetOrOurOwnHalfClose)
{
    struct Case {
        const char* what;
        std::function<void(Tcp&)> act;
        bool clientSide; // which end is asked
    } cases[] = {
        {"peer closed", [](Tcp& t) { KVOS_sockClose(t.client); t.client = -1; }, false},
        {"peer closed with data unread here",
         [](Tcp& t) { KVOS_sockSend(t.client, "x", 1, 1000, nullptr); KVOS_sockClose(t.client); t.client = -1; }, false},
        {"peer reset",
         [](Tcp& t) {
             struct linger hard = {1, 0};
             setsockopt(t.client, SOL_SOCKET, SO_LINGER, &hard, sizeof(hard));
             KVOS_sockClose(t.client);
             t.client = -1;
         },
         false},
        {"we closed our sending side", [](Tcp& t) { KVOS_sockShutdownSend(t.client); }, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Tcp tcp(GetParam());
        ASSERT_TRUE(KVNET_isConnected(tcp.server, nullptr));
        c.act(tcp);
        KVNET_SOCK_ID asked = c.clientSide ? tcp.client : tcp.server;
        EXPECT_TRUE(becomes([&] { return !KVNET_isConnected(asked, nullptr); }));
    }
}

TEST_P(Connected, UdpConnectedOrNot)
{
    KVNET_SOCK_ID s = KVOS_sockCreate(GetParam(), NET_PROTO_UDP);
    NET_ADDR dest, peer;
    NET_ADDR_setLoopback(&dest, GetParam());
    NET_ADDR_setPort(&dest, 9);
    NET_ADDR_init(&peer);
    EXPECT_FALSE(KVNET_isConnected(s, &peer));
    EXPECT_TRUE(NET_ADDR_isUnset(&peer)) << "untouched when false";
    ASSERT_EQ(KVOS_sockConnect(s, &dest, 0), KV_RET_OK);
    ASSERT_TRUE(KVNET_isConnected(s, &peer));
    EXPECT_TRUE(NET_ADDR_equalHost(&peer, &dest));
    EXPECT_EQ(NET_ADDR_port(&peer), 9);
    EXPECT_EQ(NET_ADDR_proto(&peer), NET_PROTO_UDP);
    KVOS_sockClose(s);
    EXPECT_FALSE(KVNET_isConnected(s, nullptr)) << "closed";
}

INSTANTIATE_TEST_SUITE_P(Families, Connected, ::testing::Values(NET_ADDR_TYPE_IPV4, NET_ADDR_TYPE_IPV6),
                         [](const ::testing::TestParamInfo<NET_ADDR_TYPE>& p) {
                             return p.param == NET_ADDR_TYPE_IPV4 ? "IPv4" : "IPv6";
                         });

TEST(ConnectedHandles, NotSocketsOrNotIp)
{
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    EXPECT_FALSE(KVNET_isConnected(fds[0], nullptr));
    close(fds[0]);
    close(fds[1]);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    EXPECT_FALSE(KVNET_isConnected(fds[0], nullptr));
    close(fds[0]);
    close(fds[1]);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, fds), 0);
    NET_ADDR peer;
    EXPECT_FALSE(KVNET_isConnected(fds[0], &peer));
    close(fds[0]);
    close(fds[1]);
    EXPECT_FALSE(KVNET_isConnected(KVNET_SOCK_ID_UNDEF, nullptr));
    EXPECT_FALSE(KVNET_isConnected(1 << 20, nullptr));
}

}  // namespace
