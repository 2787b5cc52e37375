/**
 * @file
 * Connection state, source-address selection, routing tables and interface
 * queries of the network layer.
 *
 * Conventions of this interface:
 *  1. Results are KV_RET (a count where said) or bool for predicates; on a
 *     KV_RET failure the reason is left in the calling thread's errno, so
 *     KVOS_lastError() gives its text.
 *  2. Questions about routing go to the kernel (over netlink) or to its
 *     /proc tables; nothing here caches an answer, so each call sees the
 *     routing of that moment.
 *  3. Every call answers for the network namespace of the calling thread.
 *     Netlink questions reuse one socket per thread, opened on first use:
 *     a thread that later moves to another namespace (setns) keeps asking
 *     the namespace it first asked, until it ends.
 *  4. Interface indexes are the kernel's (if_nametoindex); 0 is none.
 */
#ifndef KVNET_KVNET_ROUTE_H
#define KVNET_KVNET_ROUTE_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include "kvnet/kvnet_types.h"
#include "libkvc/kvtypes.h"
#include "libkvc/netaddr.h"

#pragma GCC visibility push(default)

/* ---- Connection state --------------------------------------------------------- */

/** True for a TCP socket in the established state (the peer has neither
 * closed nor reset the connection; unread data is not consumed to find out)
 * and for a connected UDP socket; the peer's address then goes to *peer when
 * peer is not null. False for listening, unconnected, half-closed, reset and
 * closed sockets, for sockets that are not IP, and for descriptors that are
 * not sockets or not open; *peer is then untouched. */
bool KVNET_isConnected(KVNET_SOCK_ID sock, NET_ADDR* peer);

/* ---- Source-address selection --------------------------------------------------- */

/** The local address the kernel would send from to reach dest, and the
 * interface it would send through (*ifIndex, when ifIndex is not null), as
 * the kernel's route lookup decides: policy rules, a route's preferred
 * source, IPv6 source-address selection and the zone of a link-local dest
 * (its scope id names the interface) are all honoured. dest's port and
 * protocol are ignored; *src gets no port and dest's protocol. An IPv4-mapped
 * IPv6 dest is looked up as IPv4 and answered in mapped form.
 *   KV_RET_OK;
 *   KV_RET_ERROR with the kernel's reason in errno when there is no way to
 *   dest (ENETUNREACH, EHOSTUNREACH, EACCES for a prohibited route, EINVAL
 *   for a blackhole route, ...), EADDRNOTAVAIL when the route is there but
 *   there is no local address to send from, EINVAL for a null or unset dest
 *   or a null src, or the error of the netlink exchange. */
KV_RET KVNET_getSourceAddressToSendFrom(const NET_ADDR* dest, NET_ADDR* src, int* ifIndex);

/* ---- Routing tables --------------------------------------------------------------- */

/** The kernel's text tables read by KVNET_readRoutes. */
#define KVNET_ROUTE_TABLE_IPV4 "/proc/net/route"
#define KVNET_ROUTE_TABLE_IPV6 "/proc/net/ipv6_route"

#define KVNET_IFNAMSIZ 16 /**< interface names, terminator included */

/** Route flags, as the tables print them. */
#define KVNET_ROUTE_UP      0x0001u
#define KVNET_ROUTE_GATEWAY 0x0002u
#define KVNET_ROUTE_HOST    0x0004u
#define KVNET_ROUTE_REJECT  0x0200u

/** One row of a routing table. */
typedef struct KVNET_ROUTE {
    NET_ADDR dest;    /**< the destination network (no port) */
    int prefixLen;    /**< 0..32 or 0..128; 0 with dest "any" is a default route */
    NET_ADDR gateway; /**< the next hop; unset when the network is directly attached */
    char ifName[KVNET_IFNAMSIZ];
    unsigned flags;   /**< KVNET_ROUTE_* and the other bits of the table */
    uint32_t metric;
} KVNET_ROUTE;

/** Parses the text of KVNET_ROUTE_TABLE_IPV4 (family NET_ADDR_TYPE_IPV4, its
 * heading line included) or KVNET_ROUTE_TABLE_IPV6 (NET_ADDR_TYPE_IPV6),
 * `len` bytes that need not be terminated. Rows go to out[0..max) in table
 * order; rows that are not well formed (a field missing or not hexadecimal,
 * an IPv4 mask that is not contiguous, a prefix length out of range, a name
 * too long, an unterminated last line) are skipped. Returns the number of
 * well-formed rows, which may exceed max (only max are stored); KV_RET_ERROR
 * with EINVAL for another family, a null text or a null out with max > 0. */
KV_RET KVNET_parseRoutes(NET_ADDR_TYPE family, const char* text, size_t len, KVNET_ROUTE* out, size_t max);

/** KVNET_parseRoutes on the kernel's table of the family, read whole first.
 * The table is read through /proc/thread-self/net/ where the kernel has it,
 * so that it is the calling thread's namespace (see convention 3), and from
 * the path above otherwise. KV_RET_ERROR with errno when it cannot be read (ENOENT: the family is not
 * enabled in the kernel). */
KV_RET KVNET_readRoutes(NET_ADDR_TYPE family, KVNET_ROUTE* out, size_t max);

/** The gateway of the default route of a family: among the rows of the
 * family's table that are up, have a gateway, are not rejecting and cover
 * everything (prefix 0), the one with the lowest metric (the first of
 * equals). *gateway and *ifIndex (when not null) are set. KV_RET_OK;
 * KV_RET_ERROR with ENOENT when there is no such route, or the errno of
 * reading the table. */
KV_RET KVNET_getDefaultGateway(NET_ADDR_TYPE family, NET_ADDR* gateway, int* ifIndex);

/* ---- Interfaces -------------------------------------------------------------------- */

/** The index of the interface called name; 0 when there is none. */
int KVNET_ifIndex(const char* name);

/** The name of interface ifIndex into name (len bytes, at least
 * KVNET_IFNAMSIZ to be sure it fits). KV_RET_OK; KV_RET_ERROR with ENXIO
 * when there is no such interface, ENOSPC when the name does not fit, EINVAL
 * for a null name. */
KV_RET KVNET_ifName(int ifIndex, char* name, size_t len);

/** Adds the addresses configured on interface ifIndex to tab: IPv4 for
 * NET_ADDR_TYPE_IPV4, IPv6 for NET_ADDR_TYPE_IPV6 (link-local ones with the
 * interface as their zone), both for NET_ADDR_TYPE_UNDEF, in the kernel's
 * order. Addresses already in the table are skipped. Returns the number
 * added (0 or more); NET_ADDR_TAB_FULL when the table's limit stopped it;
 * KV_RET_ERROR with ENXIO when there is no such interface, EINVAL for
 * another family or a null table, or the error of the netlink exchange. */
KV_RET KVNET_getInterfaceAddresses(int ifIndex, NET_ADDR_TYPE family, NET_ADDR_TAB* tab);

#pragma GCC visibility pop
#endif
