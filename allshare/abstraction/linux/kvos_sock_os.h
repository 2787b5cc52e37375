/*
 * What the Linux halves of KVOS sockets and event sets share: one deadline
 * for a whole call, a poll() wait against it, and the mapping of a system
 * error number onto the interface's results.
 */
#ifndef ABSTRACTION_LINUX_KVOS_SOCK_OS_H
#define ABSTRACTION_LINUX_KVOS_SOCK_OS_H

#include <sys/socket.h>
#include <time.h>

#include "libkvc/kvtypes.h"
#include "libkvc/netaddr.h"

namespace kvos_sock {

/* A point on the monotonic clock timeoutMs after construction; negative
 * timeouts never run out, zero has run out at once. */
class Deadline {
public:
    explicit Deadline(int timeoutMs);
    /* Milliseconds left, rounded up: -1 for forever, 0 when run out. */
    int remainingMs() const;
    bool forever() const { return forever_; }

private:
    bool forever_;
    int timeoutMs_;
    struct timespec end_ = {0, 0};
};

/* Waits until fd has one of the poll events `what` or the deadline passes,
 * resuming after interruptions. KV_RET_OK; KV_RET_TIMEOUT with errno
 * ETIMEDOUT; KV_RET_ERROR (EBADF for a descriptor that is not open). */
KV_RET waitFor(int fd, short what, const Deadline& deadline);

/* Sets errno to err and returns the interface's result for it. */
KV_RET resultOf(int err);

/* NET_ADDR_toSockaddr, with errno EINVAL for a null or unset address. */
bool toSockaddr(const NET_ADDR* a, struct sockaddr_storage* ss, socklen_t* len);

}  // namespace kvos_sock

#endif
