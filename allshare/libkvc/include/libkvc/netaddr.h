/*
 * Network addresses (NET_ADDR) and ordered address tables (NET_ADDR_TAB).
 *
 * Conventions of this interface:
 *  1. A NET_ADDR is a plain record: copy it by assignment or memcpy. Set it up
 *     with NET_ADDR_init (the unset address) or one of the conversions;
 *     fields other than through these functions are the caller's business.
 *  2. IPv4 addresses are kept in network byte order (as in struct in_addr),
 *     IPv6 addresses as their 16 octets; ports in host byte order.
 *  3. Text is numeric only. No function here ever asks a name service; the
 *     only lookup is an interface name given as an IPv6 zone ("%eth0").
 *  4. Predicates and conversions answer bool; a conversion that fails leaves
 *     its output unset (or untouched where said). Operations that can fail
 *     for other reasons answer KV_RET.
 *  5. A null record pointer is a programming fault and fails a C assertion.
 *  6. Nothing here locks: callers serialise access to a shared record or
 *     table.
 */
#ifndef LIBKVC_NETADDR_H
#define LIBKVC_NETADDR_H

#include <netinet/in.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/socket.h>

#include "libkvc/kvtypes.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Both enumerations end in a bound that is not a value: it makes every
 * 32-bit value a valid one of the type, so that a record filled by hand with
 * an unknown value is an ordinary input (the functions below answer it as
 * documented) rather than undefined behaviour. */
typedef enum NET_ADDR_TYPE {
    NET_ADDR_TYPE_UNDEF = -1,
    NET_ADDR_TYPE_IPV4 = 0,
    NET_ADDR_TYPE_IPV6 = 1,
    NET_ADDR_TYPE_BOUND_ = 0x7fffffff
} NET_ADDR_TYPE;

typedef enum NET_PROTO {
    NET_PROTO_UNDEF = -1,
    NET_PROTO_TCP = 0,
    NET_PROTO_UDP = 1,
    NET_PROTO_RAW = 2,
    NET_PROTO_BOUND_ = 0x7fffffff
} NET_PROTO;

/* A port in host byte order, 0..65535, or NET_IP_PORT_UNDEF for none. */
typedef int32_t NET_IP_PORT;
#define NET_IP_PORT_UNDEF ((NET_IP_PORT)-1)
#define NET_IP_PORT_MAX   ((NET_IP_PORT)65535)

/* An IPv4 address in network byte order. */
typedef uint32_t NET_IPV4_ADDR;

typedef struct NET_IPV6_ADDR {
    uint8_t addr[16];
    uint32_t scope_id; /* interface index of the zone; 0 for none */
} NET_IPV6_ADDR;

typedef struct NET_ADDR {
    NET_ADDR_TYPE type_;
    NET_PROTO proto_;
    uint32_t flags_;   /* the owner's own marks; 0 after every conversion here */
    NET_IP_PORT port_;
    union {
        NET_IPV4_ADDR addr_;  /* type_ == NET_ADDR_TYPE_IPV4 */
        NET_IPV6_ADDR ipv6_;  /* type_ == NET_ADDR_TYPE_IPV6 */
    };
} NET_ADDR;

/* Room for the longest text NET_ADDR_toString writes, terminator included:
 * "[ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff%4294967295]:65535". */
#define NET_ADDR_STRLEN 64

/* ---- Set-up and conversion ------------------------------------------------ */

/* Makes *a the unset address: type and protocol undefined, no port, no flags,
 * all address octets zero. */
void NET_ADDR_init(NET_ADDR* a);

/* Parses numeric text:
 *   IPv4   "192.0.2.1", "192.0.2.1:5060"
 *   IPv6   every RFC 4291 form ("2001:db8::1", "::ffff:192.0.2.1", full and
 *          compressed), optionally with a zone ("fe80::1%eth0", "fe80::1%3"),
 *          and with a port only in brackets ("[2001:db8::1]:5060";
 *          "[::1]" without a port is accepted too).
 * Rejected, with *a left unset: null or empty text, blanks anywhere, IPv4
 * octets with leading zeros ("010" would be octal to some parsers) or above
 * 255, IPv6 groups of more than four digits, a "::" standing for no group, a
 * port above 65535 or with leading zeros, an empty zone, a zone on an address
 * that is neither link-local unicast (fe80::/10) nor multicast of interface-
 * or link-local scope (ff01::/16, ff02::/16), a zone naming no interface, and
 * anything after the address. The protocol is left undefined. */
bool NET_ADDR_fromString(NET_ADDR* a, const char* text);

/* Writes the canonical text of *a into buf (at most len bytes, always
 * terminated when len > 0): dotted decimal for IPv4; RFC 5952 for IPv6
 * (lower case, longest run of zero groups compressed, IPv4-mapped addresses as
 * "::ffff:192.0.2.1"); a zone as "%<interface index>"; a port as
 * "192.0.2.1:5060" or "[2001:db8::1]:5060". The unset address is the empty
 * text. Returns the length written without the terminator, or -1 when buf is
 * too small (buf then holds the empty text if len > 0). NET_ADDR_STRLEN
 * bytes are always enough. */
int NET_ADDR_toString(const NET_ADDR* a, char* buf, size_t len);

/* Builders. NET_ADDR_fromIPv4 takes the address in host byte order
 * (0xC0000201 is 192.0.2.1); NET_ADDR_fromIPv6 the 16 octets and a scope id.
 * Both leave the port undefined and the protocol undefined. */
void NET_ADDR_fromIPv4(NET_ADDR* a, uint32_t hostOrder);
void NET_ADDR_fromIPv6(NET_ADDR* a, const uint8_t octets[16], uint32_t scopeId);
/* The "any" address (0.0.0.0, ::) or the loopback (127.0.0.1, ::1) address of a
 * family; false and *a unset for NET_ADDR_TYPE_UNDEF or another value. */
bool NET_ADDR_setAny(NET_ADDR* a, NET_ADDR_TYPE type);
bool NET_ADDR_setLoopback(NET_ADDR* a, NET_ADDR_TYPE type);

/* To the system's socket addresses. The port goes into sin_port/sin6_port
 * (0 when undefined), the zone into sin6_scope_id. False, with the output
 * untouched, when *a is not of the wanted family (NET_ADDR_toSockaddr:
 * unset). NET_ADDR_toSockaddr writes a sockaddr_in or sockaddr_in6 into *ss
 * and its size into *sslen. */
bool NET_ADDR_toSockaddrIn(const NET_ADDR* a, struct sockaddr_in* sin);
bool NET_ADDR_toSockaddrIn6(const NET_ADDR* a, struct sockaddr_in6* sin6);
bool NET_ADDR_toSockaddr(const NET_ADDR* a, struct sockaddr_storage* ss, socklen_t* sslen);

/* From the system's socket addresses. Port 0 ("any port") becomes
 * NET_IP_PORT_UNDEF; the protocol is left undefined. NET_ADDR_fromSockaddr
 * accepts AF_INET and AF_INET6 of at least their record's size; anything else
 * (a null sa included) gives false with *a unset. */
void NET_ADDR_fromSockaddrIn(NET_ADDR* a, const struct sockaddr_in* sin);
void NET_ADDR_fromSockaddrIn6(NET_ADDR* a, const struct sockaddr_in6* sin6);
bool NET_ADDR_fromSockaddr(NET_ADDR* a, const struct sockaddr* sa, socklen_t salen);

/* ---- Fields ---------------------------------------------------------------- */

NET_ADDR_TYPE NET_ADDR_type(const NET_ADDR* a);
NET_IP_PORT NET_ADDR_port(const NET_ADDR* a);
bool NET_ADDR_hasPort(const NET_ADDR* a);
/* Sets the port; false and nothing changed unless port is 0..65535 or
 * NET_IP_PORT_UNDEF. */
bool NET_ADDR_setPort(NET_ADDR* a, NET_IP_PORT port);
NET_PROTO NET_ADDR_proto(const NET_ADDR* a);
/* Sets the protocol; false and nothing changed for a value outside NET_PROTO. */
bool NET_ADDR_setProto(NET_ADDR* a, NET_PROTO proto);
/* The zone of an IPv6 address; 0 for none and for IPv4. */
uint32_t NET_ADDR_scopeId(const NET_ADDR* a);

/* ---- Classification -------------------------------------------------------- *
 * Each answers false for the unset address. The ranges are those of the IANA
 * registries. Loopback, multicast, link-local and private look through an
 * IPv4-mapped IPv6 address at the IPv4 address inside (a dual-stack socket
 * reports IPv4 peers that way); "any" and "mapped" do not. */

bool NET_ADDR_isUnset(const NET_ADDR* a);
/* 0.0.0.0 or ::. */
bool NET_ADDR_isAny(const NET_ADDR* a);
/* 127.0.0.0/8 or ::1. */
bool NET_ADDR_isLoopback(const NET_ADDR* a);
/* 224.0.0.0/4 or ff00::/8. */
bool NET_ADDR_isMulticast(const NET_ADDR* a);
/* 169.254.0.0/16 or fe80::/10. */
bool NET_ADDR_isLinkLocal(const NET_ADDR* a);
/* 10.0.0.0/8, 172.16.0.0/12, 192.168.0.0/16 or fc00::/7. */
bool NET_ADDR_isPrivate(const NET_ADDR* a);
/* ::ffff:0:0/96. */
bool NET_ADDR_isV4Mapped(const NET_ADDR* a);

/* The IPv4 address inside an IPv4-mapped address, keeping port, protocol and
 * flags. False, with *out untouched, when *in is not mapped. out may be in. */
bool NET_ADDR_unmapV4(NET_ADDR* out, const NET_ADDR* in);
/* The IPv4-mapped IPv6 form of an IPv4 address, keeping port, protocol and
 * flags. False, with *out untouched, when *in is not IPv4. out may be in. */
bool NET_ADDR_mapV4(NET_ADDR* out, const NET_ADDR* in);

/* ---- Comparison ------------------------------------------------------------ */

/* Same type, address (and zone), port, protocol and flags. Unset addresses
 * are equal when port, protocol and flags are; their octets do not count. */
bool NET_ADDR_equal(const NET_ADDR* a, const NET_ADDR* b);
/* Same type and address (and zone); port, protocol and flags ignored. An
 * IPv4 address and its mapped form are different hosts here. */
bool NET_ADDR_equalHost(const NET_ADDR* a, const NET_ADDR* b);
/* A total order consistent with NET_ADDR_equal: unset before IPv4 before
 * IPv6; then the address octets in network order, the zone, the port (none
 * first), the protocol and the flags. Negative, 0 or positive. */
int NET_ADDR_compare(const NET_ADDR* a, const NET_ADDR* b);
/* A hash consistent with NET_ADDR_equal. */
size_t NET_ADDR_hash(const NET_ADDR* a);

/* ---- Address tables ---------------------------------------------------------
 * An ordered set of addresses: entries keep the order in which they were
 * added until NET_ADDR_TAB_sort; an entry NET_ADDR_equal to one already there
 * is refused. The table owns its storage: NET_ADDR_TAB_init before use,
 * NET_ADDR_TAB_destroy after. Membership tests are linear: tables are meant
 * for the tens of addresses a host or a peer has, not for large sets. */

typedef struct NET_ADDR_TAB {
    NET_ADDR* entries_;
    size_t count_;
    size_t allocated_;
    size_t limit_; /* 0: no limit */
} NET_ADDR_TAB;

/* Results of NET_ADDR_TAB_add besides KV_RET_OK and KV_RET_ERROR. */
#define NET_ADDR_TAB_DUPLICATE ((KV_RET)-20) /* an equal entry is there already */
#define NET_ADDR_TAB_FULL      ((KV_RET)-21) /* the capacity limit is reached */

/* An empty table holding at most `limit` entries (0: no limit). */
void NET_ADDR_TAB_init(NET_ADDR_TAB* tab, size_t limit);
/* Frees the storage; the table is empty and may be used again. */
void NET_ADDR_TAB_destroy(NET_ADDR_TAB* tab);

/* Appends a copy of *a. KV_RET_OK; NET_ADDR_TAB_DUPLICATE; NET_ADDR_TAB_FULL;
 * KV_RET_ERROR when *a is unset or memory runs out. */
KV_RET NET_ADDR_TAB_add(NET_ADDR_TAB* tab, const NET_ADDR* a);
/* Removes the entry equal to *a, keeping the order of the others. KV_RET_OK,
 * or KV_RET_ERROR when there is none. */
KV_RET NET_ADDR_TAB_remove(NET_ADDR_TAB* tab, const NET_ADDR* a);
/* Index of the entry equal to *a, or -1. */
int NET_ADDR_TAB_find(const NET_ADDR_TAB* tab, const NET_ADDR* a);
bool NET_ADDR_TAB_contains(const NET_ADDR_TAB* tab, const NET_ADDR* a);
/* Whether some entry is the same host (NET_ADDR_equalHost) as *a. */
bool NET_ADDR_TAB_containsHost(const NET_ADDR_TAB* tab, const NET_ADDR* a);
size_t NET_ADDR_TAB_count(const NET_ADDR_TAB* tab);
/* Entry i in table order, or null when i >= count. The pointer is valid until
 * the table next changes. */
const NET_ADDR* NET_ADDR_TAB_get(const NET_ADDR_TAB* tab, size_t i);
/* Empties the table; the storage and the limit are kept. */
void NET_ADDR_TAB_clear(NET_ADDR_TAB* tab);
/* Orders the entries by NET_ADDR_compare. */
void NET_ADDR_TAB_sort(NET_ADDR_TAB* tab);

/* Adds the addresses configured on the host's interfaces: IPv4 for
 * NET_ADDR_TYPE_IPV4, IPv6 (link-local ones with their zone) for
 * NET_ADDR_TYPE_IPV6, both for NET_ADDR_TYPE_UNDEF; without port or protocol.
 * Interfaces that are down are included. Addresses already in the table are
 * skipped. Returns the number of entries added (0 or more), NET_ADDR_TAB_FULL
 * when the limit stopped it (the entries added until then stay), or
 * KV_RET_ERROR for another family value, when the interfaces cannot be read,
 * or when memory runs out. */
KV_RET NET_ADDR_TAB_fillFromInterfaces(NET_ADDR_TAB* tab, NET_ADDR_TYPE family);

#ifdef __cplusplus
}
#endif

#endif
