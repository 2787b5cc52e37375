/**
 * @file
 * KVOS sockets: creation, connection set-up, I/O with timeouts, and event
 * sets for waiting on many sockets at once.
 *
 * Conventions of this interface:
 *  1. A KVNET_SOCK_ID is the system's descriptor itself. Sockets made here
 *     are close-on-exec and non-blocking: every call that may wait takes a
 *     timeout instead. A timeout in milliseconds of 0 tries once without
 *     waiting; a negative timeout waits as long as it takes.
 *  2. Results are KV_RET: 0 or a positive count for success, KV_RET_TIMEOUT
 *     when the time ran out, KV_RET_ERROR or one of the KVOS_SOCK_* codes
 *     below for a failure. On every failure the reason is left in the
 *     calling thread's errno, so KVOS_lastError() gives its text (once
 *     KVOS_init has registered the system's error texts).
 *  3. Interrupted system calls are resumed with the time that is left; a
 *     signal never ends a wait early.
 *  4. A null pointer where a record is required is a failure with errno
 *     EINVAL, not a programming fault: these calls sit on I/O paths where
 *     callers pass through what they were given.
 *  5. No call here logs: the result and errno are the whole report, so that
 *     a busy server does not flood the log with ordinary peer behaviour.
 */
#ifndef ABSTRACTION_KVOS_SOCKET_H
#define ABSTRACTION_KVOS_SOCKET_H

#include <stddef.h>
#include <stdint.h>

#include "kvnet/kvnet_sockopts.h"
#include "kvnet/kvnet_types.h"
#include "libkvc/kvtypes.h"
#include "libkvc/netaddr.h"

#pragma GCC visibility push(default)

/** Failures that callers usually handle differently from other errors. */
#define KVOS_SOCK_REFUSED     ((KV_RET)-30) /**< nobody listens at the destination */
#define KVOS_SOCK_UNREACHABLE ((KV_RET)-31) /**< no route to the network or host */
#define KVOS_SOCK_RESET       ((KV_RET)-32) /**< the peer reset the connection (or it broke) */

/* ---- Sockets ------------------------------------------------------------------ */

/** A new close-on-exec, non-blocking socket: TCP is a stream socket, UDP a
 * datagram socket, RAW a raw IP socket (root only) of the family `type`.
 * The descriptor, or KVNET_SOCK_ID_UNDEF with errno set (EINVAL for an
 * undefined or unknown type or protocol). */
KVNET_SOCK_ID KVOS_sockCreate(NET_ADDR_TYPE type, NET_PROTO proto);

/** Binds to `local` (its port; an undefined port lets the system choose).
 * KV_RET_OK or KV_RET_ERROR (EINVAL for an unset address). */
KV_RET KVOS_sockBind(KVNET_SOCK_ID sock, const NET_ADDR* local);

/** Starts listening with the given backlog (negative: the system's maximum).
 * KV_RET_OK or KV_RET_ERROR. */
KV_RET KVOS_sockListen(KVNET_SOCK_ID sock, int backlog);

/** Takes one pending connection within the timeout. The new socket (close-on-
 * exec, non-blocking) goes to *out and its peer's address to *peer when peer
 * is not null. KV_RET_OK; KV_RET_TIMEOUT (errno ETIMEDOUT) with *out left
 * KVNET_SOCK_ID_UNDEF; KV_RET_ERROR. Connections that broke while queued
 * (ECONNABORTED) are skipped, not reported. */
KV_RET KVOS_sockAccept(KVNET_SOCK_ID sock, KVNET_SOCK_ID* out, NET_ADDR* peer, int timeoutMs);

/** Connects to `dest` within the timeout. For a datagram socket this only
 * fixes the peer. KV_RET_OK; KVOS_SOCK_REFUSED (ECONNREFUSED);
 * KVOS_SOCK_UNREACHABLE (ENETUNREACH, EHOSTUNREACH); KV_RET_TIMEOUT
 * (ETIMEDOUT; the attempt is abandoned and the socket should be closed);
 * KV_RET_ERROR for anything else (EINVAL for an unset address or a port
 * that is undefined). A zero timeout returns KV_RET_TIMEOUT with errno
 * EINPROGRESS when the connection could not be completed at once; it goes on
 * in the background and KVOS_sockEvents* report the socket writable when it
 * is done (KVOS_sockConnectResult then tells the outcome). */
KV_RET KVOS_sockConnect(KVNET_SOCK_ID sock, const NET_ADDR* dest, int timeoutMs);

/** The outcome of a connection that was left going on in the background,
 * once the socket is writable: the same results as KVOS_sockConnect. */
KV_RET KVOS_sockConnectResult(KVNET_SOCK_ID sock);

/** Sends all `len` bytes (a stream socket) or one datagram, finishing partial
 * writes and waiting for room within the timeout (one deadline for the whole
 * call). Never raises SIGPIPE. Returns `len` when everything went out; else
 * KV_RET_TIMEOUT, KVOS_SOCK_RESET (ECONNRESET, EPIPE) or KV_RET_ERROR. When
 * sent is not null it receives the number of bytes that went out in every
 * case, so a stream can be resumed after a timeout. len is at most INT32_MAX
 * (EINVAL otherwise). */
KV_RET KVOS_sockSend(KVNET_SOCK_ID sock, const void* buf, size_t len, int timeoutMs, size_t* sent);

/** Receives what is there, up to `len` bytes, waiting within the timeout for
 * something to arrive. The number of bytes received (at least 1); 0 when the
 * peer closed its side in order (stream) or an empty datagram arrived;
 * KV_RET_TIMEOUT; KVOS_SOCK_RESET; KV_RET_ERROR. len is at most INT32_MAX. */
KV_RET KVOS_sockRecv(KVNET_SOCK_ID sock, void* buf, size_t len, int timeoutMs);

///@{
/** One datagram to `to` / from anyone, with the sender's address in *from
 * when from is not null. Results as KVOS_sockSend and KVOS_sockRecv; a
 * datagram longer than len is cut to len and the call still succeeds. */
KV_RET KVOS_sockSendTo(KVNET_SOCK_ID sock, const void* buf, size_t len, const NET_ADDR* to, int timeoutMs);
KV_RET KVOS_sockRecvFrom(KVNET_SOCK_ID sock, void* buf, size_t len, NET_ADDR* from, int timeoutMs);
///@}

///@{
/** The local / peer address of a socket. KV_RET_OK or KV_RET_ERROR (ENOTCONN
 * for the peer of an unconnected socket; EAFNOSUPPORT for a non-IP socket). */
KV_RET KVOS_sockLocalAddress(KVNET_SOCK_ID sock, NET_ADDR* local);
KV_RET KVOS_sockPeerAddress(KVNET_SOCK_ID sock, NET_ADDR* peer);
///@}

/** Ends the sending side (the peer then reads 0 bytes); the socket stays open
 * for receiving. KV_RET_OK or KV_RET_ERROR. */
KV_RET KVOS_sockShutdownSend(KVNET_SOCK_ID sock);

/** Closes the socket. KV_RET_OK, or KV_RET_ERROR (EBADF) for a descriptor
 * that is not open. The descriptor is released in every case. */
KV_RET KVOS_sockClose(KVNET_SOCK_ID sock);

/** The one call services use to reach a peer: creates a socket of dest's
 * family and protocol (TCP when dest's protocol is undefined), applies
 * `opts` (may be null) with KVNET_applySockOpts, binds to `src` when it is
 * not null and not unset, and connects within the timeout. On success *out
 * is the connected socket; on any failure nothing is left open, *out is
 * KVNET_SOCK_ID_UNDEF and the result is that of the failing step:
 * KV_RET_ERROR for creation, options (errno EINVAL when the option code gave
 * no reason) or binding, otherwise KVOS_sockConnect's. */
KV_RET KVOS_makeConnection(const NET_ADDR* dest, const NET_ADDR* src, const KVNET_SOCKOPTS* opts, int timeoutMs,
                           KVNET_SOCK_ID* out);

/* ---- Event sets ------------------------------------------------------------------
 * A set of sockets to wait on, each registered with what to wait for and a
 * pointer of the caller's that comes back with its events. Registrations are
 * level-triggered: a socket that stays readable is reported by every wait.
 *
 * Threads: Add, Modify, Remove and Wake may be called from any thread, also
 * while another thread waits. Once Remove has returned, no wait reports that
 * registration any more, not even a wait already running (its events are
 * checked against the registrations after they are collected); events that a
 * wait handed out before then are the caller's to handle. Waits are meant
 * for one thread at a time. Destroy must not run while another thread uses
 * the set (a programming fault, not checked).
 *
 * A socket that is closed while registered leaves the set by itself. */

typedef struct KVOS_SOCK_EVENT_SET_REC* KVOS_SOCK_EVENT_SET;

/** Interest and event bits. HUP (the peer closed or reset) and ERR (an error
 * is pending) are always reported, whatever the interest. WAKE marks the one
 * event a KVOS_sockEventsWake produces; its user is null. */
#define KVOS_SOCK_EVENT_READ  0x1u
#define KVOS_SOCK_EVENT_WRITE 0x2u
#define KVOS_SOCK_EVENT_HUP   0x4u
#define KVOS_SOCK_EVENT_ERR   0x8u
#define KVOS_SOCK_EVENT_WAKE  0x10u

typedef struct KVOS_SOCK_EVENT {
    void* user;      /**< as given to Add (or Modify) */
    unsigned events; /**< KVOS_SOCK_EVENT_* bits */
} KVOS_SOCK_EVENT;

/** A new empty set in *set. KV_RET_OK or KV_RET_ERROR (*set then null). */
KV_RET KVOS_sockEventsCreate(KVOS_SOCK_EVENT_SET* set);

/** Registers sock with `interest` (READ and/or WRITE; 0 waits for HUP and ERR
 * only) and `user`. KV_RET_OK; KV_RET_ERROR with EEXIST when sock is
 * registered already, EBADF for a descriptor that is not open, EINVAL for
 * unknown interest bits or a null set. */
KV_RET KVOS_sockEventsAdd(KVOS_SOCK_EVENT_SET set, KVNET_SOCK_ID sock, unsigned interest, void* user);

/** Changes the interest and user of a registered socket. KV_RET_OK;
 * KV_RET_ERROR with ENOENT when sock is not registered. */
KV_RET KVOS_sockEventsModify(KVOS_SOCK_EVENT_SET set, KVNET_SOCK_ID sock, unsigned interest, void* user);

/** Unregisters sock. KV_RET_OK; KV_RET_ERROR with ENOENT when it is not
 * registered (closing a socket unregisters it). */
KV_RET KVOS_sockEventsRemove(KVOS_SOCK_EVENT_SET set, KVNET_SOCK_ID sock);

/** Waits until at least one registered socket has events, a wake arrives or
 * the timeout runs out, and fills at most `max` records. The number filled
 * (at least 1), 0 when the timeout ran out, KV_RET_ERROR (EINVAL for a null
 * set or events, or max < 1). */
KV_RET KVOS_sockEventsWait(KVOS_SOCK_EVENT_SET set, KVOS_SOCK_EVENT* events, int max, int timeoutMs);

/** Makes the current wait (or the next one, when none runs) return with a
 * KVOS_SOCK_EVENT_WAKE event. Wakes that arrive before a wait collects them
 * merge into one. KV_RET_OK or KV_RET_ERROR. */
KV_RET KVOS_sockEventsWake(KVOS_SOCK_EVENT_SET set);

/** Releases the set; the registered sockets stay open. Null is allowed. */
void KVOS_sockEventsDestroy(KVOS_SOCK_EVENT_SET set);

#pragma GCC visibility pop
#endif
