// First lesson in networking: a loopback echo in one thread. A listener is
// made from an address text; a client connects through KVOS_makeConnection
// (create, apply the option record, connect within a timeout); an event set
// tells when the listener and the connection have something to read; and
// KVNET_isConnected tells an open connection from one the peer has closed.
//
// Every call returns a KV_RET: zero or positive is success, KV_RET_TIMEOUT
// a wait that ran out, other negatives a failure with the reason in errno.
//
//   build/bin/example_network; echo "status: $?"
#include "abstraction/kvos.h"
#include "abstraction/kvos_socket.h"
#include "kvnet/kvnet_route.h"
#include "kvnet/kvnet_sockopts.h"
#include "libkvc/netaddr.h"

#include <cstdio>
#include <cstring>

namespace {

int fail(const char* step)
{
    std::printf("%s failed\n", step);
    return 1;
}

} // namespace

int main()
{
    KVOS_init();

    // Numeric text only: "127.0.0.1:0" is loopback, any free port.
    NET_ADDR local;
    if (!NET_ADDR_fromString(&local, "127.0.0.1:0")) {
        return fail("parse");
    }
    KVNET_SOCK_ID listener = KVOS_sockCreate(NET_ADDR_TYPE_IPV4, NET_PROTO_TCP);
    if (!KV_RET_IS_OK(KVOS_sockBind(listener, &local)) || !KV_RET_IS_OK(KVOS_sockListen(listener, 4)) ||
        !KV_RET_IS_OK(KVOS_sockLocalAddress(listener, &local))) {
        return fail("listen");
    }
    char text[NET_ADDR_STRLEN];
    NET_ADDR_toString(&local, text, sizeof text);
    std::printf("listening on %s\n", text);

    // The options a service wants on its connection, set field by field;
    // options left alone are never touched on the socket.
    KVNET_SOCKOPTS opts;
    KVSockOpts_init(&opts);
    KVSockOpts_setRcvBuf(&opts, 64 * 1024);
    KVNET_SOCK_ID client;
    if (!KV_RET_IS_OK(KVOS_makeConnection(&local, nullptr, &opts, 1000, &client))) {
        return fail("connect");
    }

    // One event set watches both: the listener becomes readable when a
    // connection waits to be accepted.
    KVOS_SOCK_EVENT_SET set;
    KVOS_sockEventsCreate(&set);
    KVOS_sockEventsAdd(set, listener, KVOS_SOCK_EVENT_READ, &listener);
    KVOS_SOCK_EVENT ready[4];
    KVNET_SOCK_ID server;
    if (KVOS_sockEventsWait(set, ready, 4, 1000) != 1 || ready[0].user != &listener ||
        !KV_RET_IS_OK(KVOS_sockAccept(listener, &server, nullptr, 0))) {
        return fail("accept");
    }
    KVOS_sockEventsAdd(set, server, KVOS_SOCK_EVENT_READ, &server);

    const char hello[] = "hello over loopback";
    size_t sent = 0;
    KVOS_sockSend(client, hello, sizeof hello, 1000, &sent);
    char buf[64] = {};
    int n = KVOS_sockEventsWait(set, ready, 4, 1000);
    KV_RET got = n == 1 && ready[0].user == &server ? KVOS_sockRecv(server, buf, sizeof buf, 1000) : KV_RET_ERROR;
    std::printf("server received %d bytes: %s\n", static_cast<int>(got), buf);

    // Connected while both ends are open; not once the peer has closed.
    NET_ADDR peer;
    const bool before = KVNET_isConnected(client, &peer);
    KVOS_sockClose(server);
    KVOS_msleep(10);
    const bool after = KVNET_isConnected(client, &peer);
    std::printf("client connected: %s, after the server closed: %s\n", before ? "yes" : "no", after ? "yes" : "no");

    KVOS_sockEventsDestroy(set);
    KVOS_sockClose(client);
    KVOS_sockClose(listener);
    KVOS_cleanup();
    return sent == sizeof hello && got == static_cast<KV_RET>(sizeof hello) && std::strcmp(buf, hello) == 0 &&
                   before && !after
               ? 0
               : 1;
}
