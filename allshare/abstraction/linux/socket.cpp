/*
 * Linux half of KVOS sockets.
 *
 * Every socket is non-blocking from birth (SOCK_NONBLOCK on socket() and
 * accept4()), so no call ever blocks inside the kernel: an operation is
 * tried first, and only when it would block does the call wait in poll()
 * for the remaining part of one deadline fixed on entry. That makes the
 * common case (data or room already there) a single system call, and makes
 * timeouts exact across retries, interruptions and partial writes.
 */
#include <errno.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <climits>

#include "abstraction/kvos_socket.h"
#include "linux/kvos_sock_os.h"

namespace kvos_sock {

Deadline::Deadline(int timeoutMs) : forever_(timeoutMs < 0), timeoutMs_(timeoutMs)
{
    if (timeoutMs > 0) {
        clock_gettime(CLOCK_MONOTONIC, &end_);
        end_.tv_sec += timeoutMs / 1000;
        end_.tv_nsec += static_cast<long>(timeoutMs % 1000) * 1000000L;
        if (end_.tv_nsec >= 1000000000L) {
            end_.tv_sec += 1;
            end_.tv_nsec -= 1000000000L;
        }
    }
}

int Deadline::remainingMs() const
{
    if (forever_) {
        return -1;
    }
    if (timeoutMs_ == 0) {
        return 0;
    }
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    long long ns = (static_cast<long long>(end_.tv_sec) - now.tv_sec) * 1000000000LL + (end_.tv_nsec - now.tv_nsec);
    if (ns <= 0) {
        return 0;
    }
    // Round up, so that a wait never ends a fraction of a millisecond early.
    return static_cast<int>((ns + 999999) / 1000000);
}

KV_RET waitFor(int fd, short what, const Deadline& deadline)
{
    for (;;) {
        // A deadline that has passed still looks once: "ready now?".
        struct pollfd p = {fd, what, 0};
        int n = poll(&p, 1, deadline.remainingMs());
        if (n > 0) {
            if (p.revents & POLLNVAL) {
                errno = EBADF;
                return KV_RET_ERROR;
            }
            return KV_RET_OK;
        }
        if (n == 0) {
            errno = ETIMEDOUT;
            return KV_RET_TIMEOUT;
        }
        if (errno != EINTR) {
            return KV_RET_ERROR;
        }
    }
}

KV_RET resultOf(int err)
{
    errno = err;
    switch (err) {
    case ECONNREFUSED:
        return KVOS_SOCK_REFUSED;
    case ENETUNREACH:
    case EHOSTUNREACH:
        return KVOS_SOCK_UNREACHABLE;
    case ECONNRESET:
    case EPIPE:
        return KVOS_SOCK_RESET;
    case EAGAIN:
    case ETIMEDOUT:
        return KV_RET_TIMEOUT;
    default:
        return KV_RET_ERROR;
    }
}

bool toSockaddr(const NET_ADDR* a, struct sockaddr_storage* ss, socklen_t* len)
{
    if (a == nullptr || !NET_ADDR_toSockaddr(a, ss, len)) {
        errno = EINVAL;
        return false;
    }
    return true;
}

}  // namespace kvos_sock

using namespace kvos_sock;

namespace {

bool lengthOk(const void* buf, size_t len)
{
    if ((buf == nullptr && len != 0) || len > static_cast<size_t>(INT32_MAX)) {
        errno = EINVAL;
        return false;
    }
    return true;
}

/* Sends one buffer to an optional destination, finishing partial writes. */
KV_RET sendAll(KVNET_SOCK_ID sock, const void* buf, size_t len, const struct sockaddr* to, socklen_t toLen,
               int timeoutMs, size_t* sent)
{
    size_t done = 0;
    KV_RET result = KV_RET_OK;
    if (sent != nullptr) {
        *sent = 0;
    }
    if (!lengthOk(buf, len)) {
        return KV_RET_ERROR;
    }
    Deadline deadline(timeoutMs);
    const char* p = static_cast<const char*>(buf);
    // A zero-length datagram is still one datagram: go round at least once.
    do {
        ssize_t n = sendto(sock, p + done, len - done, MSG_NOSIGNAL, to, toLen);
        if (n >= 0) {
            done += static_cast<size_t>(n);
            if (to != nullptr || len == 0) {
                break;  // datagrams go out whole or not at all
            }
            continue;
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno != EAGAIN && errno != EWOULDBLOCK) {
            result = resultOf(errno);
            break;
        }
        result = waitFor(sock, POLLOUT, deadline);
        if (!KV_RET_IS_OK(result)) {
            break;
        }
    } while (done < len);
    if (sent != nullptr) {
        *sent = done;
    }
    return KV_RET_IS_OK(result) ? static_cast<KV_RET>(done) : result;
}

KV_RET receive(KVNET_SOCK_ID sock, void* buf, size_t len, NET_ADDR* from, int timeoutMs)
{
    if (!lengthOk(buf, len)) {
        return KV_RET_ERROR;
    }
    Deadline deadline(timeoutMs);
    for (;;) {
        struct sockaddr_storage ss;
        socklen_t ssLen = sizeof(ss);
        ssize_t n = recvfrom(sock, buf, len, 0, from ? reinterpret_cast<struct sockaddr*>(&ss) : nullptr,
                             from ? &ssLen : nullptr);
        if (n >= 0) {
            if (from != nullptr && !NET_ADDR_fromSockaddr(from, reinterpret_cast<struct sockaddr*>(&ss), ssLen)) {
                NET_ADDR_init(from);  // a stream socket leaves the address empty
            }
            return static_cast<KV_RET>(n);
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno != EAGAIN && errno != EWOULDBLOCK) {
            return resultOf(errno);
        }
        KV_RET waited = waitFor(sock, POLLIN, deadline);
        if (!KV_RET_IS_OK(waited)) {
            return waited;
        }
    }
}

KV_RET addressOf(KVNET_SOCK_ID sock, NET_ADDR* out, bool peer)
{
    if (out == nullptr) {
        errno = EINVAL;
        return KV_RET_ERROR;
    }
    struct sockaddr_storage ss;
    socklen_t len = sizeof(ss);
    int rc = peer ? getpeername(sock, reinterpret_cast<struct sockaddr*>(&ss), &len)
                  : getsockname(sock, reinterpret_cast<struct sockaddr*>(&ss), &len);
    if (rc != 0) {
        return KV_RET_ERROR;
    }
    if (!NET_ADDR_fromSockaddr(out, reinterpret_cast<struct sockaddr*>(&ss), len)) {
        errno = EAFNOSUPPORT;
        return KV_RET_ERROR;
    }
    return KV_RET_OK;
}

}  // namespace

KVNET_SOCK_ID KVOS_sockCreate(NET_ADDR_TYPE type, NET_PROTO proto)
{
    int family;
    switch (type) {
    case NET_ADDR_TYPE_IPV4:
        family = AF_INET;
        break;
    case NET_ADDR_TYPE_IPV6:
        family = AF_INET6;
        break;
    default:
        errno = EINVAL;
        return KVNET_SOCK_ID_UNDEF;
    }
    int kind, protocol = 0;
    switch (proto) {
    case NET_PROTO_TCP:
        kind = SOCK_STREAM;
        break;
    case NET_PROTO_UDP:
        kind = SOCK_DGRAM;
        break;
    case NET_PROTO_RAW:
        kind = SOCK_RAW;
        protocol = IPPROTO_RAW;
        break;
    default:
        errno = EINVAL;
        return KVNET_SOCK_ID_UNDEF;
    }
    int fd = socket(family, kind | SOCK_NONBLOCK | SOCK_CLOEXEC, protocol);
    return fd < 0 ? KVNET_SOCK_ID_UNDEF : fd;
}

KV_RET KVOS_sockBind(KVNET_SOCK_ID sock, const NET_ADDR* local)
{
    struct sockaddr_storage ss;
    socklen_t len;
    if (!toSockaddr(local, &ss, &len)) {
        return KV_RET_ERROR;
    }
    return bind(sock, reinterpret_cast<struct sockaddr*>(&ss), len) == 0 ? KV_RET_OK : KV_RET_ERROR;
}

KV_RET KVOS_sockListen(KVNET_SOCK_ID sock, int backlog)
{
    return listen(sock, backlog < 0 ? SOMAXCONN : backlog) == 0 ? KV_RET_OK : KV_RET_ERROR;
}

KV_RET KVOS_sockAccept(KVNET_SOCK_ID sock, KVNET_SOCK_ID* out, NET_ADDR* peer, int timeoutMs)
{
    if (out == nullptr) {
        errno = EINVAL;
        return KV_RET_ERROR;
    }
    *out = KVNET_SOCK_ID_UNDEF;
    Deadline deadline(timeoutMs);
    for (;;) {
        struct sockaddr_storage ss;
        socklen_t len = sizeof(ss);
        int fd = accept4(sock, reinterpret_cast<struct sockaddr*>(&ss), &len, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd >= 0) {
            if (peer != nullptr && !NET_ADDR_fromSockaddr(peer, reinterpret_cast<struct sockaddr*>(&ss), len)) {
                NET_ADDR_init(peer);
            }
            *out = fd;
            return KV_RET_OK;
        }
        if (errno == EINTR || errno == ECONNABORTED) {
            continue;
        }
        if (errno != EAGAIN && errno != EWOULDBLOCK) {
            return KV_RET_ERROR;
        }
        KV_RET waited = waitFor(sock, POLLIN, deadline);
        if (!KV_RET_IS_OK(waited)) {
            return waited;
        }
    }
}

KV_RET KVOS_sockConnectResult(KVNET_SOCK_ID sock)
{
    int err = 0;
    socklen_t len = sizeof(err);
    if (getsockopt(sock, SOL_SOCKET, SO_ERROR, &err, &len) != 0) {
        return KV_RET_ERROR;
    }
    if (err != 0) {
        return resultOf(err);
    }
    // No pending error: either connected, or still going on.
    struct sockaddr_storage ss;
    socklen_t ssLen = sizeof(ss);
    if (getpeername(sock, reinterpret_cast<struct sockaddr*>(&ss), &ssLen) == 0) {
        return KV_RET_OK;
    }
    if (errno == ENOTCONN) {
        errno = EINPROGRESS;
        return KV_RET_TIMEOUT;
    }
    return KV_RET_ERROR;
}

KV_RET KVOS_sockConnect(KVNET_SOCK_ID sock, const NET_ADDR* dest, int timeoutMs)
{
    struct sockaddr_storage ss;
    socklen_t len;
    if (!toSockaddr(dest, &ss, &len) || !NET_ADDR_hasPort(dest)) {
        errno = EINVAL;
        return KV_RET_ERROR;
    }
    Deadline deadline(timeoutMs);
    if (connect(sock, reinterpret_cast<struct sockaddr*>(&ss), len) == 0) {
        return KV_RET_OK;
    }
    // An interrupted connect goes on in the background, like EINPROGRESS.
    if (errno != EINPROGRESS && errno != EINTR) {
        // EAGAIN here means no local port was free, not "try later".
        return errno == EAGAIN ? KV_RET_ERROR : resultOf(errno);
    }
    KV_RET waited = waitFor(sock, POLLOUT, deadline);
    if (waited == KV_RET_TIMEOUT) {
        errno = timeoutMs == 0 ? EINPROGRESS : ETIMEDOUT;
        return KV_RET_TIMEOUT;
    }
    if (!KV_RET_IS_OK(waited)) {
        return waited;
    }
    // Writable means the attempt is over: SO_ERROR alone tells how.
    int err = 0;
    socklen_t errLen = sizeof(err);
    if (getsockopt(sock, SOL_SOCKET, SO_ERROR, &err, &errLen) != 0) {
        return KV_RET_ERROR;
    }
    return err == 0 ? KV_RET_OK : resultOf(err);
}

KV_RET KVOS_sockSend(KVNET_SOCK_ID sock, const void* buf, size_t len, int timeoutMs, size_t* sent)
{
    return sendAll(sock, buf, len, nullptr, 0, timeoutMs, sent);
}

KV_RET KVOS_sockRecv(KVNET_SOCK_ID sock, void* buf, size_t len, int timeoutMs)
{
    return receive(sock, buf, len, nullptr, timeoutMs);
}

KV_RET KVOS_sockSendTo(KVNET_SOCK_ID sock, const void* buf, size_t len, const NET_ADDR* to, int timeoutMs)
{
    struct sockaddr_storage ss;
    socklen_t ssLen;
    if (!toSockaddr(to, &ss, &ssLen)) {
        return KV_RET_ERROR;
    }
    return sendAll(sock, buf, len, reinterpret_cast<struct sockaddr*>(&ss), ssLen, timeoutMs, nullptr);
}

KV_RET KVOS_sockRecvFrom(KVNET_SOCK_ID sock, void* buf, size_t len, NET_ADDR* from, int timeoutMs)
{
    return receive(sock, buf, len, from, timeoutMs);
}

KV_RET KVOS_sockLocalAddress(KVNET_SOCK_ID sock, NET_ADDR* local)
{
    return addressOf(sock, local, false);
}

KV_RET KVOS_sockPeerAddress(KVNET_SOCK_ID sock, NET_ADDR* peer)
{
    return addressOf(sock, peer, true);
}

KV_RET KVOS_sockShutdownSend(KVNET_SOCK_ID sock)
{
    return shutdown(sock, SHUT_WR) == 0 ? KV_RET_OK : KV_RET_ERROR;
}

KV_RET KVOS_sockClose(KVNET_SOCK_ID sock)
{
    // Linux releases the descriptor even when close() is interrupted, so it
    // is never retried (a retry could close a descriptor reused meanwhile).
    if (close(sock) != 0 && errno != EINTR) {
        return KV_RET_ERROR;
    }
    return KV_RET_OK;
}
