/*
 * Sockets, event sets and source-address lookup against their baselines,
 * side by side:
 *  - an event wait that finds the one ready socket among 10 and among 10^4
 *    idle registered ones (the cost must not grow with the idle ones);
 *  - a loopback connect + close through KVOS_makeConnection against the raw
 *    blocking socket/connect/close loop (both close with a reset, so the
 *    runs do not fill the port range with TIME_WAIT entries);
 *  - KVNET_getSourceAddressToSendFrom against the same route request sent
 *    bare over one netlink socket, and against the UDP connect + getsockname
 *    trick.
 * Compare the ratios, not the absolute figures.
 */
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <libmnl/libmnl.h>

#include <atomic>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "abstraction/kvos_socket.h"
#include "kvnet/kvnet_route.h"

namespace {

void raiseDescriptorLimit()
{
    struct rlimit lim;
    if (getrlimit(RLIMIT_NOFILE, &lim) == 0 && lim.rlim_cur < lim.rlim_max) {
        lim.rlim_cur = lim.rlim_max;
        setrlimit(RLIMIT_NOFILE, &lim);
    }
}

void BM_EventWaitOneReady(benchmark::State& state)
{
    raiseDescriptorLimit();
    const int idle = static_cast<int>(state.range(0));
    KVOS_SOCK_EVENT_SET set;
    if (KVOS_sockEventsCreate(&set) != KV_RET_OK) {
        state.SkipWithError("event set");
        return;
    }
    std::vector<KVNET_SOCK_ID> socks;
    for (int i = 0; i < idle; ++i) {
        KVNET_SOCK_ID s = KVOS_sockCreate(NET_ADDR_TYPE_IPV4, NET_PROTO_UDP);
        if (s < 0 || KVOS_sockEventsAdd(set, s, KVOS_SOCK_EVENT_READ, &socks) != KV_RET_OK) {
            state.SkipWithError("not enough descriptors for the idle sockets");
            break;
        }
        socks.push_back(s);
    }
    // The ready one: a datagram to itself, never read, so always readable.
    NET_ADDR self;
    NET_ADDR_setLoopback(&self, NET_ADDR_TYPE_IPV4);
    KVNET_SOCK_ID ready = KVOS_sockCreate(NET_ADDR_TYPE_IPV4, NET_PROTO_UDP);
    KVOS_sockBind(ready, &self);
    KVOS_sockLocalAddress(ready, &self);
    KVOS_sockSendTo(ready, "x", 1, &self, 100);
    KVOS_sockEventsAdd(set, ready, KVOS_SOCK_EVENT_READ, &self);
    KVOS_SOCK_EVENT ev[16];
    for (auto _ : state) {
        if (KVOS_sockEventsWait(set, ev, 16, 0) != 1) {
            state.SkipWithError("wait did not find the ready socket");
            break;
        }
        benchmark::DoNotOptimize(ev[0].user);
    }
    KVOS_sockEventsDestroy(set);
    for (KVNET_SOCK_ID s : socks) {
        KVOS_sockClose(s);
    }
    KVOS_sockClose(ready);
}
BENCHMARK(BM_EventWaitOneReady)->Arg(10)->Arg(10000);

/* A loopback listener whose connections are taken and closed by a thread. */
class Acceptor {
public:
    Acceptor()
    {
        NET_ADDR_setLoopback(&addr_, NET_ADDR_TYPE_IPV4);
        listener_ = KVOS_sockCreate(NET_ADDR_TYPE_IPV4, NET_PROTO_TCP);
        KVOS_sockBind(listener_, &addr_);
        KVOS_sockListen(listener_, -1);
        KVOS_sockLocalAddress(listener_, &addr_);
        thread_ = std::thread([this] {
            while (!stop_) {
                KVNET_SOCK_ID s;
                if (KVOS_sockAccept(listener_, &s, nullptr, 50) == KV_RET_OK) {
                    KVOS_sockClose(s);
                }
            }
        });
    }
    ~Acceptor()
    {
        stop_ = true;
        thread_.join();
        KVOS_sockClose(listener_);
    }
    const NET_ADDR& addr() const { return addr_; }

private:
    NET_ADDR addr_;
    KVNET_SOCK_ID listener_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

void closeWithReset(int fd)
{
    struct linger hard = {1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &hard, sizeof(hard));
    close(fd);
}

void BM_ConnectClose_MakeConnection(benchmark::State& state)
{
    Acceptor acceptor;
    for (auto _ : state) {
        KVNET_SOCK_ID s;
        if (KVOS_makeConnection(&acceptor.addr(), nullptr, nullptr, 1000, &s) != KV_RET_OK) {
            state.SkipWithError("connect failed");
            break;
        }
        closeWithReset(s);
    }
}
BENCHMARK(BM_ConnectClose_MakeConnection)->MinTime(0.5)->UseRealTime();

void BM_ConnectClose_Raw(benchmark::State& state)
{
    Acceptor acceptor;
    struct sockaddr_in sin;
    NET_ADDR_toSockaddrIn(&acceptor.addr(), &sin);
    for (auto _ : state) {
        int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (connect(s, reinterpret_cast<struct sockaddr*>(&sin), sizeof(sin)) != 0) {
            state.SkipWithError("connect failed");
            close(s);
            break;
        }
        closeWithReset(s);
    }
}
BENCHMARK(BM_ConnectClose_Raw)->MinTime(0.5)->UseRealTime();

/* A destination on this host that is not loopback when there is one: its
 * lookup goes through the main routing table like a remote one would. */
NET_ADDR lookupDestination()
{
    NET_ADDR dest;
    NET_ADDR_setLoopback(&dest, NET_ADDR_TYPE_IPV4);
    NET_ADDR_TAB tab;
    NET_ADDR_TAB_init(&tab, 0);
    NET_ADDR_TAB_fillFromInterfaces(&tab, NET_ADDR_TYPE_IPV4);
    for (size_t i = 0; i < NET_ADDR_TAB_count(&tab); ++i) {
        if (!NET_ADDR_isLoopback(NET_ADDR_TAB_get(&tab, i))) {
            dest = *NET_ADDR_TAB_get(&tab, i);
            break;
        }
    }
    NET_ADDR_TAB_destroy(&tab);
    return dest;
}

void BM_SourceAddress_Kvnet(benchmark::State& state)
{
    NET_ADDR dest = lookupDestination(), src;
    for (auto _ : state) {
        if (KVNET_getSourceAddressToSendFrom(&dest, &src, nullptr) != KV_RET_OK) {
            state.SkipWithError("lookup failed");
            break;
        }
        benchmark::DoNotOptimize(src);
    }
}
BENCHMARK(BM_SourceAddress_Kvnet);

/* The same request, bare: one socket, a fixed message, the reply's type
 * checked and nothing else. */
void BM_SourceAddress_BareNetlink(benchmark::State& state)
{
    NET_ADDR dest = lookupDestination();
    struct mnl_socket* nl = mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC);
    if (nl == nullptr || mnl_socket_bind(nl, 0, MNL_SOCKET_AUTOPID) < 0) {
        state.SkipWithError("netlink");
        return;
    }
    alignas(struct nlmsghdr) char request[256];
    std::vector<uint32_t> reply(32768 / 4);
    uint32_t seq = 1;
    for (auto _ : state) {
        struct nlmsghdr* nlh = mnl_nlmsg_put_header(request);
        nlh->nlmsg_type = RTM_GETROUTE;
        nlh->nlmsg_flags = NLM_F_REQUEST;
        nlh->nlmsg_seq = ++seq;
        auto* rtm = static_cast<struct rtmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(struct rtmsg)));
        rtm->rtm_family = AF_INET;
        rtm->rtm_dst_len = 32;
        mnl_attr_put(nlh, RTA_DST, 4, &dest.addr_);
        mnl_socket_sendto(nl, nlh, nlh->nlmsg_len);
        ssize_t n = mnl_socket_recvfrom(nl, reply.data(), reply.size() * 4);
        if (n < static_cast<ssize_t>(sizeof(struct nlmsghdr)) ||
            reinterpret_cast<struct nlmsghdr*>(reply.data())->nlmsg_type != RTM_NEWROUTE) {
            state.SkipWithError("no route reply");
            break;
        }
    }
    mnl_socket_close(nl);
}
BENCHMARK(BM_SourceAddress_BareNetlink);

/* The classic trick: connect a UDP socket and ask its local address. */
void BM_SourceAddress_UdpConnect(benchmark::State& state)
{
    NET_ADDR dest = lookupDestination();
    NET_ADDR_setPort(&dest, 9);
    struct sockaddr_in sin;
    NET_ADDR_toSockaddrIn(&dest, &sin);
    for (auto _ : state) {
        int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        struct sockaddr_in local;
        socklen_t len = sizeof(local);
        if (connect(s, reinterpret_cast<struct sockaddr*>(&sin), sizeof(sin)) != 0 ||
            getsockname(s, reinterpret_cast<struct sockaddr*>(&local), &len) != 0) {
            state.SkipWithError("udp connect");
            close(s);
            break;
        }
        benchmark::DoNotOptimize(local);
        close(s);
    }
}
BENCHMARK(BM_SourceAddress_UdpConnect);

}  // namespace
