/* Self-test of KVOS event sets on a loopback connection: timeout, a
 * readable socket with its user pointer, interest changes, removal, a wake
 * from another thread and the peer's close. */
#include <thread>

#include "abstraction/kvos_socket.h"
#include "abstraction/unittests.h"
#include "unittest/unittest.h"

namespace {

/* A connected loopback pair; both ends are closed at the end of the scope. */
struct Pair {
    KVNET_SOCK_ID client = KVNET_SOCK_ID_UNDEF, server = KVNET_SOCK_ID_UNDEF;

    Pair()
    {
        NET_ADDR addr;
        NET_ADDR_setLoopback(&addr, NET_ADDR_TYPE_IPV4);
        KVNET_SOCK_ID listener = KVOS_sockCreate(NET_ADDR_TYPE_IPV4, NET_PROTO_TCP);
        if (KVOS_sockBind(listener, &addr) == KV_RET_OK && KVOS_sockListen(listener, 1) == KV_RET_OK &&
            KVOS_sockLocalAddress(listener, &addr) == KV_RET_OK &&
            KVOS_makeConnection(&addr, nullptr, nullptr, 2000, &client) == KV_RET_OK) {
            KVOS_sockAccept(listener, &server, nullptr, 2000);
        }
        KVOS_sockClose(listener);
    }
    ~Pair()
    {
        KVOS_sockClose(client);
        if (server != KVNET_SOCK_ID_UNDEF) {
            KVOS_sockClose(server);
        }
    }
};

void testReadable(KVOS_SOCK_EVENT_SET set, Pair& pair)
{
    unittest_context("readable socket");
    int tag = 0;
    KVOS_SOCK_EVENT ev[4];
    unittest_assert(KVOS_sockEventsAdd(set, pair.server, KVOS_SOCK_EVENT_READ, &tag) == KV_RET_OK);
    unittest_assert(KVOS_sockEventsAdd(set, pair.server, KVOS_SOCK_EVENT_READ, &tag) == KV_RET_ERROR);
    unittest_assert(KVOS_sockEventsWait(set, ev, 4, 0) == 0);
    unittest_assert(KVOS_sockSend(pair.client, "x", 1, 1000, nullptr) == 1);
    unittest_assert(KVOS_sockEventsWait(set, ev, 4, 1000) == 1);
    unittest_assert(ev[0].user == &tag && ev[0].events == KVOS_SOCK_EVENT_READ);
    // Level-triggered: still readable until the byte is read.
    unittest_assert(KVOS_sockEventsWait(set, ev, 4, 0) == 1);
    char c;
    unittest_assert(KVOS_sockRecv(pair.server, &c, 1, 0) == 1);
    unittest_assert(KVOS_sockEventsWait(set, ev, 4, 0) == 0);
}

void testModifyRemove(KVOS_SOCK_EVENT_SET set, Pair& pair)
{
    unittest_context("modify and remove");
    int other = 0;
    KVOS_SOCK_EVENT ev[4];
    unittest_assert(KVOS_sockEventsModify(set, pair.server, KVOS_SOCK_EVENT_WRITE, &other) == KV_RET_OK);
    unittest_assert(KVOS_sockEventsWait(set, ev, 4, 1000) == 1);
    unittest_assert(ev[0].user == &other && ev[0].events == KVOS_SOCK_EVENT_WRITE);
    unittest_assert(KVOS_sockEventsRemove(set, pair.server) == KV_RET_OK);
    unittest_assert(KVOS_sockEventsWait(set, ev, 4, 0) == 0);
    unittest_assert(KVOS_sockEventsRemove(set, pair.server) == KV_RET_ERROR);
    unittest_assert(KVOS_sockEventsModify(set, pair.server, KVOS_SOCK_EVENT_READ, &other) == KV_RET_ERROR);
}

void testWake(KVOS_SOCK_EVENT_SET set)
{
    unittest_context("wake from another thread");
    KVOS_SOCK_EVENT ev[4];
    std::thread waker([set] { KVOS_sockEventsWake(set); });
    KV_RET n = KVOS_sockEventsWait(set, ev, 4, 5000);
    waker.join();
    unittest_assert(n == 1 && ev[0].events == KVOS_SOCK_EVENT_WAKE && ev[0].user == nullptr);
    unittest_assert(KVOS_sockEventsWait(set, ev, 4, 0) == 0);
}

void testPeerClose(KVOS_SOCK_EVENT_SET set, Pair& pair)
{
    unittest_context("peer close");
    int tag = 0;
    KVOS_SOCK_EVENT ev[4];
    unittest_assert(KVOS_sockEventsAdd(set, pair.server, KVOS_SOCK_EVENT_READ, &tag) == KV_RET_OK);
    KVOS_sockClose(pair.client);
    pair.client = KVOS_sockCreate(NET_ADDR_TYPE_IPV4, NET_PROTO_UDP); // keeps the destructor simple
    unittest_assert(KVOS_sockEventsWait(set, ev, 4, 1000) == 1);
    unittest_assert(ev[0].user == &tag && (ev[0].events & KVOS_SOCK_EVENT_HUP) != 0);
    unittest_assert(KVOS_sockEventsRemove(set, pair.server) == KV_RET_OK);
}

}  // namespace

void unittest_abstraction_sockevents(void)
{
    KVOS_SOCK_EVENT_SET set = nullptr;
    unittest_context("create");
    unittest_assert(KVOS_sockEventsCreate(&set) == KV_RET_OK && set != nullptr);
    if (set == nullptr) {
        return;
    }
    Pair pair;
    unittest_assert(pair.server != KVNET_SOCK_ID_UNDEF);
    if (pair.server != KVNET_SOCK_ID_UNDEF) {
        testReadable(set, pair);
        testModifyRemove(set, pair);
        testWake(set);
        testPeerClose(set, pair);
    }
    KVOS_sockEventsDestroy(set);
}
