/*
 * KVOS_makeConnection: the composition services use to reach a peer, built
 * on the socket calls of the Linux half. Whatever step fails, the socket it
 * made is closed before returning and the failing step's errno survives the
 * close.
 */
#include <errno.h>

#include "abstraction/kvos_socket.h"
#include "kvnet/kvnet_sockopts.h"

namespace {

/* Closes sock on every exit path unless released. */
class SocketGuard {
public:
    explicit SocketGuard(KVNET_SOCK_ID sock) : sock_(sock) {}
    ~SocketGuard()
    {
        if (sock_ != KVNET_SOCK_ID_UNDEF) {
            int err = errno;
            KVOS_sockClose(sock_);
            errno = err;
        }
    }
    KVNET_SOCK_ID release()
    {
        KVNET_SOCK_ID s = sock_;
        sock_ = KVNET_SOCK_ID_UNDEF;
        return s;
    }
    SocketGuard(const SocketGuard&) = delete;
    SocketGuard& operator=(const SocketGuard&) = delete;

private:
    KVNET_SOCK_ID sock_;
};

}  // namespace

KV_RET KVOS_makeConnection(const NET_ADDR* dest, const NET_ADDR* src, const KVNET_SOCKOPTS* opts, int timeoutMs,
                           KVNET_SOCK_ID* out)
{
    if (out == nullptr) {
        errno = EINVAL;
        return KV_RET_ERROR;
    }
    *out = KVNET_SOCK_ID_UNDEF;
    if (dest == nullptr || NET_ADDR_isUnset(dest)) {
        errno = EINVAL;
        return KV_RET_ERROR;
    }
    NET_PROTO proto = NET_ADDR_proto(dest) == NET_PROTO_UNDEF ? NET_PROTO_TCP : NET_ADDR_proto(dest);
    NET_ADDR_TYPE type = NET_ADDR_type(dest);
    KVNET_SOCK_ID fd = KVOS_sockCreate(type, proto);
    if (fd == KVNET_SOCK_ID_UNDEF) {
        return KV_RET_ERROR;
    }
    SocketGuard guard(fd);
    if (opts != nullptr) {
        errno = 0;
        KVNET_SOCK_DOMAIN domain = type == NET_ADDR_TYPE_IPV6 ? KVNET_SOCK_DOMAIN_INET6 : KVNET_SOCK_DOMAIN_INET;
        if (KVNET_applySockOpts(fd, opts, domain) < 0) {
            if (errno == 0) {
                errno = EINVAL; // refused by the option code itself, not the system
            }
            return KV_RET_ERROR;
        }
    }
    if (src != nullptr && !NET_ADDR_isUnset(src) && KVOS_sockBind(fd, src) != KV_RET_OK) {
        return KV_RET_ERROR;
    }
    KV_RET result = KVOS_sockConnect(fd, dest, timeoutMs);
    if (result != KV_RET_OK) {
        return result;
    }
    *out = guard.release();
    return KV_RET_OK;
}
