/* Self-test of KVNET_isConnected on loopback: established TCP both ends,
 * connected and unconnected UDP, a listener, a peer that closed and one that
 * reset, unread data left unread, and handles that are no sockets. */
#include <sys/socket.h>

#include <initializer_list>

#include "abstraction/kvos.h"
#include "abstraction/kvos_socket.h"
#include "kvnet/kvnet_route.h"
#include "kvnet/unittests.h"
#include "unittest/unittest.h"

namespace {

struct Tcp {
    KVNET_SOCK_ID listener = KVNET_SOCK_ID_UNDEF, client = KVNET_SOCK_ID_UNDEF, server = KVNET_SOCK_ID_UNDEF;
    NET_ADDR addr;

    Tcp()
    {
        NET_ADDR_setLoopback(&addr, NET_ADDR_TYPE_IPV4);
        listener = KVOS_sockCreate(NET_ADDR_TYPE_IPV4, NET_PROTO_TCP);
        if (KVOS_sockBind(listener, &addr) == KV_RET_OK && KVOS_sockListen(listener, 4) == KV_RET_OK &&
            KVOS_sockLocalAddress(listener, &addr) == KV_RET_OK &&
            KVOS_makeConnection(&addr, nullptr, nullptr, 2000, &client) == KV_RET_OK) {
            KVOS_sockAccept(listener, &server, nullptr, 2000);
        }
    }
    ~Tcp()
    {
        for (KVNET_SOCK_ID s : {listener, client, server}) {
            if (s != KVNET_SOCK_ID_UNDEF) {
                KVOS_sockClose(s);
            }
        }
    }
};

void testEstablished()
{
    unittest_context("established TCP and a listener");
    Tcp tcp;
    NET_ADDR peer, local;
    unittest_assert(KVNET_isConnected(tcp.client, &peer));
    unittest_assert(NET_ADDR_equalHost(&peer, &tcp.addr) && NET_ADDR_port(&peer) == NET_ADDR_port(&tcp.addr));
    unittest_assert(KVNET_isConnected(tcp.server, &peer));
    unittest_assert(KVOS_sockLocalAddress(tcp.client, &local) == KV_RET_OK);
    unittest_assert(NET_ADDR_port(&peer) == NET_ADDR_port(&local));
    unittest_assert(!KVNET_isConnected(tcp.listener, nullptr));

    // Unread data is neither consumed nor a reason to answer differently.
    unittest_assert(KVOS_sockSend(tcp.client, "ab", 2, 1000, nullptr) == 2);
    KVOS_msleep(20);
    unittest_assert(KVNET_isConnected(tcp.server, nullptr));
    char buf[4];
    unittest_assert(KVOS_sockRecv(tcp.server, buf, sizeof(buf), 1000) == 2);
}

void testPeerGone()
{
    unittest_context("peer closed, peer reset");
    {
        Tcp tcp;
        KVOS_sockClose(tcp.client);
        tcp.client = KVNET_SOCK_ID_UNDEF;
        KVOS_msleep(20);
        unittest_assert(!KVNET_isConnected(tcp.server, nullptr));
    }
    {
        Tcp tcp;
        struct linger hard = {1, 0}; // close with a reset instead of a FIN
        setsockopt(tcp.client, SOL_SOCKET, SO_LINGER, &hard, sizeof(hard));
        KVOS_sockClose(tcp.client);
        tcp.client = KVNET_SOCK_ID_UNDEF;
        KVOS_msleep(20);
        unittest_assert(!KVNET_isConnected(tcp.server, nullptr));
    }
}

void testUdpAndHandles()
{
    unittest_context("UDP and handles that are no sockets");
    KVNET_SOCK_ID udp = KVOS_sockCreate(NET_ADDR_TYPE_IPV4, NET_PROTO_UDP);
    unittest_assert(!KVNET_isConnected(udp, nullptr));
    NET_ADDR dest, peer;
    NET_ADDR_fromString(&dest, "127.0.0.1:9");
    unittest_assert(KVOS_sockConnect(udp, &dest, 0) == KV_RET_OK);
    unittest_assert(KVNET_isConnected(udp, &peer));
    unittest_assert(NET_ADDR_equalHost(&peer, &dest) && NET_ADDR_port(&peer) == 9);
    KVOS_sockClose(udp);
    unittest_assert(!KVNET_isConnected(udp, nullptr));
    unittest_assert(!KVNET_isConnected(KVNET_SOCK_ID_UNDEF, nullptr));
}

}  // namespace

void unittest_kvnet_connected(void)
{
    testEstablished();
    testPeerGone();
    testUdpAndHandles();
}
