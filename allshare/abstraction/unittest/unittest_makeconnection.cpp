/* Self-test of KVOS_makeConnection on loopback: a connection with options
 * that carries data both ways, a refused port, and failures of each step
 * leaving no descriptor behind. */
#include <string.h>

#include "abstraction/kvos_socket.h"
#include "abstraction/unittests.h"
#include "kvnet/kvnet_sockopts.h"
#include "unittest/unittest.h"

namespace {

/* A loopback listener on a port the system chose. */
struct Listener {
    KVNET_SOCK_ID sock = KVNET_SOCK_ID_UNDEF;
    NET_ADDR addr;

    explicit Listener(NET_ADDR_TYPE type)
    {
        NET_ADDR_setLoopback(&addr, type);
        sock = KVOS_sockCreate(type, NET_PROTO_TCP);
        if (sock == KVNET_SOCK_ID_UNDEF || KVOS_sockBind(sock, &addr) != KV_RET_OK ||
            KVOS_sockListen(sock, 8) != KV_RET_OK || KVOS_sockLocalAddress(sock, &addr) != KV_RET_OK) {
            NET_ADDR_init(&addr);
        }
    }
    ~Listener()
    {
        if (sock != KVNET_SOCK_ID_UNDEF) {
            KVOS_sockClose(sock);
        }
    }
};

/* The descriptor the next socket gets: equal before and after a call means
 * the call left nothing open. */
int nextDescriptor()
{
    KVNET_SOCK_ID s = KVOS_sockCreate(NET_ADDR_TYPE_IPV4, NET_PROTO_UDP);
    KVOS_sockClose(s);
    return s;
}

void testConnectAndTalk(NET_ADDR_TYPE type)
{
    unittest_context(type == NET_ADDR_TYPE_IPV4 ? "connect over IPv4 loopback" : "connect over IPv6 loopback");
    Listener listener(type);
    unittest_assert(!NET_ADDR_isUnset(&listener.addr));
    KVNET_SOCKOPTS opts;
    KVSockOpts_init(&opts);
    KVSockOpts_setTcpNoDelay(&opts);
    KVNET_SOCK_ID client = KVNET_SOCK_ID_UNDEF;
    unittest_assert(KVOS_makeConnection(&listener.addr, nullptr, &opts, 2000, &client) == KV_RET_OK);
    unittest_assert(client != KVNET_SOCK_ID_UNDEF);
    int nodelay = 0;
    unsigned len = sizeof(nodelay);
    unittest_assert(KVNET_getsockopt(client, KVNET_SOL_TCP, KVNET_TCP_NODELAY, &nodelay, &len) == 0 && nodelay != 0);

    KVNET_SOCK_ID server = KVNET_SOCK_ID_UNDEF;
    NET_ADDR peer, local;
    unittest_assert(KVOS_sockAccept(listener.sock, &server, &peer, 2000) == KV_RET_OK);
    unittest_assert(KVOS_sockLocalAddress(client, &local) == KV_RET_OK);
    unittest_assert(NET_ADDR_equal(&peer, &local));

    const char hello[] = "hello";
    char buf[16] = {};
    unittest_assert(KVOS_sockSend(client, hello, 5, 1000, nullptr) == 5);
    unittest_assert(KVOS_sockRecv(server, buf, sizeof(buf), 1000) == 5);
    unittest_assert(memcmp(buf, hello, 5) == 0);
    unittest_assert(KVOS_sockShutdownSend(server) == KV_RET_OK);
    unittest_assert(KVOS_sockRecv(client, buf, sizeof(buf), 1000) == 0);
    KVOS_sockClose(server);
    KVOS_sockClose(client);
}

void testRefused()
{
    unittest_context("refused port");
    NET_ADDR dest;
    {
        // A port that was bound a moment ago and is now closed: nobody listens.
        Listener gone(NET_ADDR_TYPE_IPV4);
        dest = gone.addr;
    }
    int before = nextDescriptor();
    KVNET_SOCK_ID out = 12345;
    unittest_assert(KVOS_makeConnection(&dest, nullptr, nullptr, 2000, &out) == KVOS_SOCK_REFUSED);
    unittest_assert(out == KVNET_SOCK_ID_UNDEF);
    unittest_assert(nextDescriptor() == before);
}

void testFailingSteps()
{
    unittest_context("failing steps leave nothing open");
    Listener listener(NET_ADDR_TYPE_IPV4);
    int before = nextDescriptor();
    KVNET_SOCK_ID out;

    KVNET_SOCKOPTS opts;
    KVSockOpts_init(&opts);
    KVSockOpts_setProtoName(&opts, "tcp"); // never implemented: the record fails as a whole
    unittest_assert(KVOS_makeConnection(&listener.addr, nullptr, &opts, 1000, &out) == KV_RET_ERROR);
    unittest_assert(out == KVNET_SOCK_ID_UNDEF && nextDescriptor() == before);

    NET_ADDR foreign;
    NET_ADDR_fromString(&foreign, "192.0.2.1"); // not an address of this host
    unittest_assert(KVOS_makeConnection(&listener.addr, &foreign, nullptr, 1000, &out) == KV_RET_ERROR);
    unittest_assert(out == KVNET_SOCK_ID_UNDEF && nextDescriptor() == before);

    NET_ADDR unset;
    NET_ADDR_init(&unset);
    unittest_assert(KVOS_makeConnection(&unset, nullptr, nullptr, 1000, &out) == KV_RET_ERROR);
    unittest_assert(KVOS_makeConnection(&listener.addr, nullptr, nullptr, 1000, nullptr) == KV_RET_ERROR);
    unittest_assert(nextDescriptor() == before);
}

}  // namespace

void unittest_abstraction_makeconnection(void)
{
    testConnectAndTalk(NET_ADDR_TYPE_IPV4);
    testConnectAndTalk(NET_ADDR_TYPE_IPV6);
    testRefused();
    testFailingSteps();
}
