/* Loopback helpers shared by the socket and event-set tests: a listener on
 * a port the system picks, and a connected pair through one. */
#pragma once

#include <sys/socket.h>

#include "abstraction/kvos_socket.h"
#include "support.h"

namespace kvos_test {

inline NET_ADDR addr(const char* text)
{
    NET_ADDR a;
    EXPECT_TRUE(NET_ADDR_fromString(&a, text)) << text;
    return a;
}

/* A listening socket on a loopback port chosen by the system. */
class Listener {
public:
    explicit Listener(NET_ADDR_TYPE type = NET_ADDR_TYPE_IPV4, int backlog = 16)
    {
        NET_ADDR_setLoopback(&addr_, type);
        sock_ = KVOS_sockCreate(type, NET_PROTO_TCP);
        EXPECT_NE(sock_, KVNET_SOCK_ID_UNDEF);
        EXPECT_EQ(KVOS_sockBind(sock_, &addr_), KV_RET_OK);
        EXPECT_EQ(KVOS_sockListen(sock_, backlog), KV_RET_OK);
        EXPECT_EQ(KVOS_sockLocalAddress(sock_, &addr_), KV_RET_OK);
    }
    ~Listener() { KVOS_sockClose(sock_); }
    const NET_ADDR& addr() const { return addr_; }
    KVNET_SOCK_ID sock() const { return sock_; }

private:
    KVNET_SOCK_ID sock_;
    NET_ADDR addr_;
};

/* A connected pair through a listener. */
struct Pair {
    Listener listener;
    KVNET_SOCK_ID client = KVNET_SOCK_ID_UNDEF, server = KVNET_SOCK_ID_UNDEF;

    explicit Pair(NET_ADDR_TYPE type = NET_ADDR_TYPE_IPV4) : listener(type)
    {
        EXPECT_EQ(KVOS_makeConnection(&listener.addr(), nullptr, nullptr, 2000, &client), KV_RET_OK);
        EXPECT_EQ(KVOS_sockAccept(listener.sock(), &server, nullptr, 2000), KV_RET_OK);
    }
    ~Pair()
    {
        for (KVNET_SOCK_ID s : {client, server}) {
            if (s != KVNET_SOCK_ID_UNDEF) {
                KVOS_sockClose(s);
            }
        }
    }
    void resetClient()
    {
        struct linger hard = {1, 0};
        ASSERT_EQ(setsockopt(client, SOL_SOCKET, SO_LINGER, &hard, sizeof(hard)), 0);
        KVOS_sockClose(client);
        client = KVNET_SOCK_ID_UNDEF;
    }
};

}  // namespace kvos_test
