/*
 * Linux half of the routing and interface queries that need no netlink:
 * the /proc routing tables, interface names and indexes, and the state of a
 * connected socket.
 */
#include <errno.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "kvnet/kvnet_route.h"
#include "linux/kvnet_os.h"

namespace {

/* The whole of a /proc file: its size is unknown until read. */
bool readWhole(const char* path, std::string* out)
{
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    char chunk[4096];
    for (;;) {
        ssize_t n = read(fd, chunk, sizeof(chunk));
        if (n > 0) {
            out->append(chunk, static_cast<size_t>(n));
        } else if (n == 0) {
            break;
        } else if (errno != EINTR) {
            int err = errno;
            close(fd);
            errno = err;
            return false;
        }
    }
    close(fd);
    return true;
}

}  // namespace

bool kvnet_os::readRouteTable(NET_ADDR_TYPE family, std::string* text)
{
    const char* path = family == NET_ADDR_TYPE_IPV4 ? KVNET_ROUTE_TABLE_IPV4 : KVNET_ROUTE_TABLE_IPV6;
    // /proc/net shows the namespace of the process's main thread; the
    // calling thread's own view is under /proc/thread-self (Linux 3.17+).
    std::string own = std::string("/proc/thread-self/net/") + (family == NET_ADDR_TYPE_IPV4 ? "route" : "ipv6_route");
    bool threadView = access("/proc/thread-self", F_OK) == 0;
    return readWhole(threadView ? own.c_str() : path, text);
}

int KVNET_ifIndex(const char* name)
{
    if (name == nullptr) {
        return 0;
    }
    return static_cast<int>(if_nametoindex(name));
}

KV_RET KVNET_ifName(int ifIndex, char* name, size_t len)
{
    if (name == nullptr) {
        errno = EINVAL;
        return KV_RET_ERROR;
    }
    char buf[IF_NAMESIZE];
    if (ifIndex <= 0 || if_indextoname(static_cast<unsigned>(ifIndex), buf) == nullptr) {
        errno = ENXIO;
        return KV_RET_ERROR;
    }
    size_t n = strlen(buf);
    if (n >= len) {
        errno = ENOSPC;
        return KV_RET_ERROR;
    }
    memcpy(name, buf, n + 1);
    return KV_RET_OK;
}

bool KVNET_isConnected(KVNET_SOCK_ID sock, NET_ADDR* peer)
{
    int saved = errno; // a predicate: the caller's errno is left alone
    int type = 0;
    socklen_t len = sizeof(type);
    bool connected = false;
    if (sock >= 0 && getsockopt(sock, SOL_SOCKET, SO_TYPE, &type, &len) == 0) {
        if (type == SOCK_STREAM) {
            // The kernel's view of the connection, read without touching the
            // receive queue: a peer's FIN moves it to CLOSE_WAIT, a reset to
            // CLOSE, both out of ESTABLISHED.
            struct tcp_info info;
            socklen_t infoLen = sizeof(info);
            connected = getsockopt(sock, IPPROTO_TCP, TCP_INFO, &info, &infoLen) == 0 &&
                        infoLen >= offsetof(struct tcp_info, tcpi_state) + sizeof(info.tcpi_state) &&
                        info.tcpi_state == TCP_ESTABLISHED;
        } else {
            connected = type == SOCK_DGRAM;
        }
    }
    NET_ADDR addr;
    if (connected) {
        struct sockaddr_storage ss;
        socklen_t ssLen = sizeof(ss);
        connected = getpeername(sock, reinterpret_cast<struct sockaddr*>(&ss), &ssLen) == 0 &&
                    NET_ADDR_fromSockaddr(&addr, reinterpret_cast<struct sockaddr*>(&ss), ssLen);
        NET_ADDR_setProto(&addr, type == SOCK_STREAM ? NET_PROTO_TCP : NET_PROTO_UDP);
    }
    if (connected && peer != nullptr) {
        *peer = addr;
    }
    errno = saved;
    return connected;
}
