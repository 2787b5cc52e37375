/* KVOS sockets on real loopback sockets: creation, connection outcomes told
 * apart (refused, a full backlog that never answers, unreachable inside a
 * private network namespace), accept and receive timeouts, partial writes
 * against a full socket buffer, orderly close and reset, datagrams, resumed
 * interruptions, and KVOS_makeConnection leaving nothing open on failure. */
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>

#include <chrono>
#include <vector>

#include "loopback.h"

namespace {

using namespace kvos_test;
using Clock = std::chrono::steady_clock;

long long msSince(Clock::time_point t0)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count();
}

size_t openDescriptors()
{
    size_t n = 0;
    if (DIR* d = opendir("/proc/self/fd")) {
        while (readdir(d) != nullptr) {
            ++n;
        }
        closedir(d);
    }
    return n;
}

/* Runs fn on a thread of its own in a new, empty network namespace (only a
 * loopback interface, down). Needs CAP_SYS_ADMIN. */
template <typename Fn>
void inFreshNetns(Fn fn)
{
    std::thread t([&] {
        ASSERT_EQ(unshare(CLONE_NEWNET), 0) << strerror(errno);
        fn();
    });
    t.join();
}

TEST(SocketCreate, FamiliesProtocolsAndFlags)
{
    struct Case {
        NET_ADDR_TYPE type;
        NET_PROTO proto;
        int kind; // 0: refused
    } cases[] = {
        {NET_ADDR_TYPE_IPV4, NET_PROTO_TCP, SOCK_STREAM}, {NET_ADDR_TYPE_IPV6, NET_PROTO_TCP, SOCK_STREAM},
        {NET_ADDR_TYPE_IPV4, NET_PROTO_UDP, SOCK_DGRAM},  {NET_ADDR_TYPE_IPV6, NET_PROTO_UDP, SOCK_DGRAM},
        {NET_ADDR_TYPE_UNDEF, NET_PROTO_TCP, 0},          {NET_ADDR_TYPE_IPV4, NET_PROTO_UNDEF, 0},
        {static_cast<NET_ADDR_TYPE>(7), NET_PROTO_UDP, 0}, {NET_ADDR_TYPE_IPV4, static_cast<NET_PROTO>(9), 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "type " << c.type << " proto " << c.proto);
        errno = 0;
        KVNET_SOCK_ID s = KVOS_sockCreate(c.type, c.proto);
        if (c.kind == 0) {
            EXPECT_EQ(s, KVNET_SOCK_ID_UNDEF);
            EXPECT_EQ(errno, EINVAL);
            continue;
        }
        ASSERT_GE(s, 0);
        int kind = 0;
        socklen_t len = sizeof(kind);
        EXPECT_EQ(getsockopt(s, SOL_SOCKET, SO_TYPE, &kind, &len), 0);
        EXPECT_EQ(kind, c.kind);
        EXPECT_TRUE(fcntl(s, F_GETFD) & FD_CLOEXEC);
        EXPECT_TRUE(fcntl(s, F_GETFL) & O_NONBLOCK);
        EXPECT_EQ(KVOS_sockClose(s), KV_RET_OK);
    }
    errno = 0;
    EXPECT_EQ(KVOS_sockClose(KVNET_SOCK_ID_UNDEF), KV_RET_ERROR);
    EXPECT_EQ(errno, EBADF);
}

TEST(SocketConnect, RefusedPortIsToldApart)
{
    NET_ADDR dest;
    {
        Listener gone;
        dest = gone.addr();
    }
    for (NET_ADDR_TYPE type : {NET_ADDR_TYPE_IPV4, NET_ADDR_TYPE_IPV6}) {
        NET_ADDR d = dest;
        if (type == NET_ADDR_TYPE_IPV6) {
            d = addr("::1");
            NET_ADDR_setPort(&d, NET_ADDR_port(&dest));
        }
        KVNET_SOCK_ID s = KVOS_sockCreate(type, NET_PROTO_TCP);
        errno = 0;
        EXPECT_EQ(KVOS_sockConnect(s, &d, 1000), KVOS_SOCK_REFUSED);
        EXPECT_EQ(errno, ECONNREFUSED);
        EXPECT_EQ(KVOS_lastError(), strerror(ECONNREFUSED));
        KVOS_sockClose(s);
    }
}

TEST(SocketConnect, ListenerThatNeverAcceptsTimesOut)
{
    // Backlog 0: the kernel queues one connection and then drops further
    // SYNs, so the next connect hears nothing until its timeout.
    Listener listener(NET_ADDR_TYPE_IPV4, 0);
    std::vector<KVNET_SOCK_ID> queued;
    KV_RET last = KV_RET_OK;
    long long elapsed = 0;
    for (int i = 0; i < 8 && last == KV_RET_OK; ++i) {
        KVNET_SOCK_ID s = KVOS_sockCreate(NET_ADDR_TYPE_IPV4, NET_PROTO_TCP);
        auto t0 = Clock::now();
        errno = 0;
        last = KVOS_sockConnect(s, &listener.addr(), 300);
        elapsed = msSince(t0);
        queued.push_back(s);
    }
    EXPECT_EQ(last, KV_RET_TIMEOUT);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_GE(elapsed, 300);
    EXPECT_LT(elapsed, 2000);
    for (KVNET_SOCK_ID s : queued) {
        KVOS_sockClose(s);
    }
}

TEST(SocketConnect, ZeroTimeoutGoesOnInTheBackground)
{
    Listener listener;
    KVNET_SOCK_ID s = KVOS_sockCreate(NET_ADDR_TYPE_IPV4, NET_PROTO_TCP);
    KV_RET r = KVOS_sockConnect(s, &listener.addr(), 0);
    if (r == KV_RET_TIMEOUT) {
        EXPECT_EQ(errno, EINPROGRESS);
        struct pollfd p = {s, POLLOUT, 0};
        ASSERT_EQ(poll(&p, 1, 2000), 1);
    } else {
        EXPECT_EQ(r, KV_RET_OK); // loopback may complete at once
    }
    EXPECT_EQ(KVOS_sockConnectResult(s), KV_RET_OK);
    KVOS_sockClose(s);
}

TEST(SocketConnect, UnreachableInAnEmptyNamespace)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to create a network namespace";
    }
    inFreshNetns([] {
        // No interface is up and no route exists. (IPv6 fails earlier
        // there, for want of any source address: EADDRNOTAVAIL.)
        for (const char* text : {"10.1.2.3:80", "192.0.2.1:80"}) {
            SCOPED_TRACE(text);
            NET_ADDR d = addr(text);
            KVNET_SOCK_ID s = KVOS_sockCreate(NET_ADDR_type(&d), NET_PROTO_TCP);
            errno = 0;
            EXPECT_EQ(KVOS_sockConnect(s, &d, 1000), KVOS_SOCK_UNREACHABLE);
            EXPECT_EQ(errno, ENETUNREACH);
            KVOS_sockClose(s);
        }
    });
}

TEST(SocketConnect, BadDestinations)
{
    KVNET_SOCK_ID s = KVOS_sockCreate(NET_ADDR_TYPE_IPV4, NET_PROTO_TCP);
    NET_ADDR unset;
    NET_ADDR_init(&unset);
    NET_ADDR noPort = addr("127.0.0.1");
    for (const NET_ADDR* d : {static_cast<const NET_ADDR*>(nullptr), static_cast<const NET_ADDR*>(&unset),
                              static_cast<const NET_ADDR*>(&noPort)}) {
        errno = 0;
        EXPECT_EQ(KVOS_sockConnect(s, d, 100), KV_RET_ERROR);
        EXPECT_EQ(errno, EINVAL);
    }
    KVOS_sockClose(s);
}

TEST(SocketAccept, TimesOutAndReportsThePeer)
{
    Listener listener;
    KVNET_SOCK_ID out = 99;
    auto t0 = Clock::now();
    EXPECT_EQ(KVOS_sockAccept(listener.sock(), &out, nullptr, 100), KV_RET_TIMEOUT);
    EXPECT_GE(msSince(t0), 100);
    EXPECT_EQ(out, KVNET_SOCK_ID_UNDEF);
    EXPECT_EQ(KVOS_sockAccept(listener.sock(), &out, nullptr, 0), KV_RET_TIMEOUT);

    KVNET_SOCK_ID client;
    NET_ADDR src = addr("127.0.0.1");
    ASSERT_EQ(KVOS_makeConnection(&listener.addr(), &src, nullptr, 1000, &client), KV_RET_OK);
    NET_ADDR peer, local;
    ASSERT_EQ(KVOS_sockAccept(listener.sock(), &out, &peer, 1000), KV_RET_OK);
    ASSERT_EQ(KVOS_sockLocalAddress(client, &local), KV_RET_OK);
    EXPECT_TRUE(NET_ADDR_equal(&peer, &local));
    EXPECT_TRUE(fcntl(out, F_GETFD) & FD_CLOEXEC);
    EXPECT_TRUE(fcntl(out, F_GETFL) & O_NONBLOCK);
    KVOS_sockClose(out);
    KVOS_sockClose(client);
    EXPECT_EQ(KVOS_sockAccept(listener.sock(), nullptr, nullptr, 0), KV_RET_ERROR);
}

TEST(SocketIo, PartialWritesAgainstAFullBufferResume)
{
    Pair pair;
    // A small send buffer; the receiver keeps its own (a tiny receive
    // window would make the drain below crawl through zero-window probes).
    int small = 4096;
    setsockopt(pair.client, SOL_SOCKET, SO_SNDBUF, &small, sizeof(small));
    std::vector<unsigned char> data(4 << 20);
    for (size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<unsigned char>(i * 7 + (i >> 9));
    }
    // Nobody reads: the buffers fill and the send runs out of time part-way.
    size_t sent = 0;
    auto t0 = Clock::now();
    EXPECT_EQ(KVOS_sockSend(pair.client, data.data(), data.size(), 100, &sent), KV_RET_TIMEOUT);
    EXPECT_GE(msSince(t0), 100);
    EXPECT_GT(sent, 0u);
    EXPECT_LT(sent, data.size());

    // A reader drains; the rest goes out in one resumed call.
    std::vector<unsigned char> got;
    std::thread reader([&] {
        std::vector<unsigned char> buf(65536);
        while (got.size() < data.size()) {
            KV_RET n = KVOS_sockRecv(pair.server, buf.data(), buf.size(), 5000);
            if (n <= 0) {
                break;
            }
            got.insert(got.end(), buf.begin(), buf.begin() + n);
        }
    });
    size_t rest = 0;
    EXPECT_EQ(KVOS_sockSend(pair.client, data.data() + sent, data.size() - sent, 10000, &rest),
              static_cast<KV_RET>(data.size() - sent));
    EXPECT_EQ(rest, data.size() - sent);
    reader.join();
    EXPECT_TRUE(got == data);
}

TEST(SocketIo, OrderlyCloseAndReset)
{
    char buf[16];
    {
        Pair pair;
        ASSERT_EQ(KVOS_sockSend(pair.client, "bye", 3, 1000, nullptr), 3);
        KVOS_sockClose(pair.client);
        pair.client = KVNET_SOCK_ID_UNDEF;
        EXPECT_EQ(KVOS_sockRecv(pair.server, buf, sizeof(buf), 1000), 3);
        EXPECT_EQ(KVOS_sockRecv(pair.server, buf, sizeof(buf), 1000), 0);
        EXPECT_EQ(KVOS_sockRecv(pair.server, buf, sizeof(buf), 1000), 0);
    }
    {
        Pair pair;
        pair.resetClient();
        errno = 0;
        EXPECT_EQ(KVOS_sockRecv(pair.server, buf, sizeof(buf), 1000), KVOS_SOCK_RESET);
        EXPECT_EQ(errno, ECONNRESET);
    }
    {
        // Writing to a reset connection: a result, never SIGPIPE.
        Pair pair;
        pair.resetClient();
        KVOS_msleep(20);
        KV_RET r = KV_RET_OK;
        for (int i = 0; i < 3 && r >= 0; ++i) {
            r = KVOS_sockSend(pair.server, "x", 1, 1000, nullptr);
        }
        EXPECT_EQ(r, KVOS_SOCK_RESET);
        EXPECT_TRUE(errno == EPIPE || errno == ECONNRESET) << errno;
    }
}

TEST(SocketIo, ReceiveTimeoutIsNotCutShortBySignals)
{
    Pair pair;
    char c;
    kvos_test::Interrupter interrupter;
    auto t0 = Clock::now();
    EXPECT_EQ(KVOS_sockRecv(pair.server, &c, 1, 300), KV_RET_TIMEOUT);
    EXPECT_GE(msSince(t0), 300);
    EXPECT_GT(interrupter.sent.load(), 0);
    EXPECT_EQ(KVOS_sockRecv(pair.server, &c, 1, 0), KV_RET_TIMEOUT);
}

TEST(SocketIo, Datagrams)
{
    for (NET_ADDR_TYPE type : {NET_ADDR_TYPE_IPV4, NET_ADDR_TYPE_IPV6}) {
        KVNET_SOCK_ID a = KVOS_sockCreate(type, NET_PROTO_UDP), b = KVOS_sockCreate(type, NET_PROTO_UDP);
        NET_ADDR la, lb, from;
        NET_ADDR_setLoopback(&la, type);
        lb = la;
        ASSERT_EQ(KVOS_sockBind(a, &la), KV_RET_OK);
        ASSERT_EQ(KVOS_sockBind(b, &lb), KV_RET_OK);
        KVOS_sockLocalAddress(a, &la);
        KVOS_sockLocalAddress(b, &lb);
        EXPECT_EQ(KVOS_sockSendTo(a, "datagram", 8, &lb, 1000), 8);
        EXPECT_EQ(KVOS_sockSendTo(a, "", 0, &lb, 1000), 0);
        char buf[4];
        // Longer than the buffer: cut, still one datagram.
        EXPECT_EQ(KVOS_sockRecvFrom(b, buf, sizeof(buf), &from, 1000), 4);
        EXPECT_EQ(memcmp(buf, "data", 4), 0);
        EXPECT_TRUE(NET_ADDR_equal(&from, &la));
        EXPECT_EQ(KVOS_sockRecvFrom(b, buf, sizeof(buf), nullptr, 1000), 0);
        EXPECT_EQ(KVOS_sockRecvFrom(b, buf, sizeof(buf), nullptr, 50), KV_RET_TIMEOUT);
        NET_ADDR unset;
        NET_ADDR_init(&unset);
        EXPECT_EQ(KVOS_sockSendTo(a, "x", 1, &unset, 0), KV_RET_ERROR);
        EXPECT_EQ(KVOS_sockPeerAddress(a, &from), KV_RET_ERROR);
        EXPECT_EQ(errno, ENOTCONN);
        KVOS_sockClose(a);
        KVOS_sockClose(b);
    }
}

TEST(MakeConnection, FailuresLeaveNothingOpen)
{
    Listener listener;
    Listener full(NET_ADDR_TYPE_IPV4, 0);
    std::vector<KVNET_SOCK_ID> fillers; // fill the second listener's queue
    for (int i = 0; i < 8; ++i) {
        KVNET_SOCK_ID s = KVOS_sockCreate(NET_ADDR_TYPE_IPV4, NET_PROTO_TCP);
        fillers.push_back(s);
        if (KVOS_sockConnect(s, &full.addr(), 200) != KV_RET_OK) {
            break;
        }
    }
    NET_ADDR refused;
    {
        Listener gone;
        refused = gone.addr();
    }
    KVNET_SOCKOPTS protoName, badGroup;
    KVSockOpts_init(&protoName);
    KVSockOpts_setProtoName(&protoName, "tcp");
    KVSockOpts_init(&badGroup);
    NET_ADDR group = addr("239.1.2.3"), any = addr("0.0.0.0");
    KVSockOpts_setMulticastGroup(&badGroup, &group, &any, -1);
    NET_ADDR foreign = addr("192.0.2.200"), udpDest = addr("127.0.0.1:9"), unset;
    NET_ADDR_init(&unset);
    NET_ADDR_setProto(&udpDest, NET_PROTO_UDP);

    struct Case {
        const char* what;
        const NET_ADDR* dest;
        const NET_ADDR* src;
        const KVNET_SOCKOPTS* opts;
        KV_RET result;
        int err;
    } cases[] = {
        {"unset destination", &unset, nullptr, nullptr, KV_RET_ERROR, EINVAL},
        {"protocol-name option", &listener.addr(), nullptr, &protoName, KV_RET_ERROR, EINVAL},
        {"negative membership interface", &listener.addr(), nullptr, &badGroup, KV_RET_ERROR, EINVAL},
        {"source not on this host", &listener.addr(), &foreign, nullptr, KV_RET_ERROR, EADDRNOTAVAIL},
        {"refused", &refused, nullptr, nullptr, KVOS_SOCK_REFUSED, ECONNREFUSED},
        {"full backlog", &full.addr(), nullptr, nullptr, KV_RET_TIMEOUT, ETIMEDOUT},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        size_t before = openDescriptors();
        KVNET_SOCK_ID out = 1234;
        errno = 0;
        EXPECT_EQ(KVOS_makeConnection(c.dest, c.src, c.opts, 200, &out), c.result);
        EXPECT_EQ(errno, c.err);
        EXPECT_EQ(out, KVNET_SOCK_ID_UNDEF);
        EXPECT_EQ(openDescriptors(), before);
    }
    // A connected UDP "connection" needs nobody at the other end.
    KVNET_SOCK_ID out;
    ASSERT_EQ(KVOS_makeConnection(&udpDest, nullptr, nullptr, 0, &out), KV_RET_OK);
    NET_ADDR peer;
    EXPECT_EQ(KVOS_sockPeerAddress(out, &peer), KV_RET_OK);
    EXPECT_TRUE(NET_ADDR_equalHost(&peer, &udpDest));
    KVOS_sockClose(out);
    for (KVNET_SOCK_ID s : fillers) {
        KVOS_sockClose(s);
    }
}

TEST(MakeConnection, OptionsAndSourceAreApplied)
{
    for (NET_ADDR_TYPE type : {NET_ADDR_TYPE_IPV4, NET_ADDR_TYPE_IPV6}) {
        Listener listener(type);
        KVNET_SOCKOPTS opts;
        KVSockOpts_init(&opts);
        KVSockOpts_setTcpNoDelay(&opts);
        KVSockOpts_setKeepAlive(&opts, false); // switched on whatever the boolean
        KVSockOpts_setQoSDiffServ(&opts, 46);
        NET_ADDR src;
        NET_ADDR_setLoopback(&src, type);
        KVNET_SOCK_ID out;
        ASSERT_EQ(KVOS_makeConnection(&listener.addr(), &src, &opts, 1000, &out), KV_RET_OK);
        int on = 0;
        socklen_t len = sizeof(on);
        EXPECT_EQ(getsockopt(out, IPPROTO_TCP, TCP_NODELAY, &on, &len), 0);
        EXPECT_EQ(on, 1);
        EXPECT_EQ(getsockopt(out, SOL_SOCKET, SO_KEEPALIVE, &on, &len), 0);
        EXPECT_EQ(on, 1);
        int tos = 0;
        len = sizeof(tos);
        if (type == NET_ADDR_TYPE_IPV4) {
            EXPECT_EQ(getsockopt(out, IPPROTO_IP, IP_TOS, &tos, &len), 0);
        } else {
            EXPECT_EQ(getsockopt(out, IPPROTO_IPV6, IPV6_TCLASS, &tos, &len), 0);
        }
        EXPECT_EQ(tos, 46 << 2);
        NET_ADDR local;
        ASSERT_EQ(KVOS_sockLocalAddress(out, &local), KV_RET_OK);
        EXPECT_TRUE(NET_ADDR_equalHost(&local, &src));
        KVOS_sockClose(out);
    }
}

}  // namespace
