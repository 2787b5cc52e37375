/*
 * The reply side of the network layer's netlink exchanges, apart from the
 * socket so that it can be driven with any bytes (the fuzz targets do).
 *
 * Each parser runs libmnl's callback loop over one buffer as received: it
 * checks every message's length, the sequence number and port id (0 skips
 * a check), turns an NLMSG_ERROR into its errno, and checks each attribute's
 * type and length before reading it. The buffer must be aligned for a
 * netlink header (4 bytes); receive buffers are.
 *
 * Results are those of mnl_cb_run: MNL_CB_OK (more messages of a dump to
 * come), MNL_CB_STOP (the answer is complete), MNL_CB_ERROR with errno set.
 */
#ifndef KVNET_LINUX_NL_REPLY_H
#define KVNET_LINUX_NL_REPLY_H

#include <stddef.h>
#include <stdint.h>

#include "libkvc/netaddr.h"

namespace kvnet_nl {

/* What a route lookup answered. */
struct RouteAnswer {
    bool found = false;   // a RTM_NEWROUTE message was seen
    int family = 0;       // AF_INET or AF_INET6, as asked
    bool hasSource = false;
    uint8_t source[16] = {}; // 4 or 16 octets of the preferred source
    uint32_t oif = 0;      // output interface, 0 when absent
    uint8_t type = 0;      // RTN_* of the route
    int32_t routeError = 0; // the error a rejecting route carries, 0 if none
};

/* Parses the reply to one RTM_GETROUTE request of `family`. A message of
 * another type, a route of another family, a payload shorter than its
 * header or a malformed attribute makes it MNL_CB_ERROR (EPROTO). */
int parseRouteReply(const void* buf, size_t len, uint32_t seq, uint32_t portid, int family, RouteAnswer* out);

/* Collects addresses from the replies to a RTM_GETADDR dump. */
struct AddressCollector {
    int ifIndex = 0;        // only this interface's addresses
    int family = 0;         // AF_INET, AF_INET6 or AF_UNSPEC for both
    NET_ADDR_TAB* tab = nullptr;
    int added = 0;
    bool full = false;      // the table's limit was reached
};

/* Parses one buffer of a RTM_GETADDR dump into the collector: MNL_CB_OK
 * while the dump goes on, MNL_CB_STOP at its end (NLMSG_DONE). */
int parseAddressReply(const void* buf, size_t len, uint32_t seq, uint32_t portid, AddressCollector* out);

}  // namespace kvnet_nl

#endif
