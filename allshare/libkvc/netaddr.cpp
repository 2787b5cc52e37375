/*
 * Network addresses: parsing, printing, socket-address conversion,
 * classification and ordering.
 *
 * The parser is a hand-written scanner over the whole text rather than a
 * wrapper around inet_pton: it must also take ports, brackets and zones, say
 * no to everything else without touching a name service, and be fast enough
 * for per-packet use. Its address rules are the C library's numeric ones
 * (no leading zeros in IPv4 octets, at most four hex digits per group, "::"
 * at most once and standing for at least one group, dotted IPv4 only as the
 * last 32 bits); the fuzz target holds it to agreement with inet_pton.
 *
 * The printer writes RFC 5952 text into a local buffer first, so that a
 * short caller buffer is never written beyond its size.
 */
#include "libkvc/netaddr.h"

#include <arpa/inet.h>
#include <assert.h>
#include <string.h>

#include "linux/netif.h"

namespace {

inline bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

inline int hexValue(char c)
{
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

/* Dotted IPv4 filling exactly [p, end): four decimal octets, 0..255, no
 * leading zeros. */
bool parseV4(const char* p, const char* end, uint8_t out[4])
{
    for (int i = 0; i < 4; ++i) {
        if (i > 0) {
            if (p == end || *p != '.') {
                return false;
            }
            ++p;
        }
        if (p == end || !isDigit(*p)) {
            return false;
        }
        unsigned v = static_cast<unsigned>(*p++ - '0');
        if (v == 0 && p != end && isDigit(*p)) {
            return false;
        }
        while (p != end && isDigit(*p)) {
            v = v * 10 + static_cast<unsigned>(*p++ - '0');
            if (v > 255) {
                return false;
            }
        }
        out[i] = static_cast<uint8_t>(v);
    }
    return p == end;
}

/* An IPv6 address filling exactly [p, end), without zone or brackets. */
bool parseV6(const char* p, const char* end, uint8_t out[16])
{
    uint8_t buf[16];
    int n = 0;     // octets written
    int gap = -1;  // octet index where "::" stands, if any
    if (p == end) {
        return false;
    }
    if (*p == ':') {
        if (end - p < 2 || p[1] != ':') {
            return false;
        }
        gap = 0;
        p += 2;
    }
    while (p != end) {
        const char* group = p;
        unsigned v = 0;
        int digits = 0;
        int h;
        while (p != end && (h = hexValue(*p)) >= 0) {
            if (++digits > 4) {
                return false;
            }
            v = (v << 4) | static_cast<unsigned>(h);
            ++p;
        }
        if (p != end && *p == '.') {
            // Dotted IPv4 is only ever the last 32 bits.
            if (n + 4 > 16 || !parseV4(group, end, buf + n)) {
                return false;
            }
            n += 4;
            break;
        }
        if (digits == 0 || n + 2 > 16) {
            return false;
        }
        buf[n++] = static_cast<uint8_t>(v >> 8);
        buf[n++] = static_cast<uint8_t>(v);
        if (p == end) {
            break;
        }
        if (*p != ':' || ++p == end) {
            return false;
        }
        if (*p == ':') {
            if (gap >= 0) {
                return false;
            }
            gap = n;
            ++p;
        }
    }
    if (gap >= 0) {
        if (n == 16) {
            return false;  // "::" must stand for at least one group
        }
        int tail = n - gap;
        memset(out, 0, 16);
        memcpy(out, buf, static_cast<size_t>(gap));
        memcpy(out + 16 - tail, buf + gap, static_cast<size_t>(tail));
        return true;
    }
    if (n != 16) {
        return false;
    }
    memcpy(out, buf, 16);
    return true;
}

/* Decimal 0..max filling exactly [p, end), no leading zeros. */
bool parseDecimal(const char* p, const char* end, uint64_t max, uint64_t* out)
{
    if (p == end || end - p > 10 || (*p == '0' && end - p > 1)) {
        return false;
    }
    uint64_t v = 0;
    for (; p != end; ++p) {
        if (!isDigit(*p)) {
            return false;
        }
        v = v * 10 + static_cast<uint64_t>(*p - '0');
    }
    if (v > max) {
        return false;
    }
    *out = v;
    return true;
}

bool zoneAllowed(const uint8_t a[16])
{
    bool linkLocal = a[0] == 0xfe && (a[1] & 0xc0) == 0x80;
    bool localMulticast = a[0] == 0xff && ((a[1] & 0x0f) == 1 || (a[1] & 0x0f) == 2);
    return linkLocal || localMulticast;
}

/* A zone: an interface index 1..2^32-1, or the name of an existing
 * interface (as the kernel allows them: 1..15 visible characters, no '/'
 * and no ':'). */
bool parseZone(const char* p, const char* end, uint32_t* scope)
{
    if (p == end) {
        return false;
    }
    if (isDigit(*p)) {
        uint64_t v;
        if (!parseDecimal(p, end, UINT32_MAX, &v) || v == 0) {
            return false;
        }
        *scope = static_cast<uint32_t>(v);
        return true;
    }
    char name[16];
    size_t len = static_cast<size_t>(end - p);
    if (len >= sizeof name) {
        return false;
    }
    for (size_t i = 0; i < len; ++i) {
        char c = p[i];
        if (c <= ' ' || c > '~' || c == '/' || c == ':' || c == '%') {
            return false;
        }
        name[i] = c;
    }
    name[len] = '\0';
    unsigned index = kvc_os::interfaceIndex(name);
    if (index == 0) {
        return false;
    }
    *scope = index;
    return true;
}

/* An IPv6 address with an optional zone, filling [p, end). */
bool parseV6Zoned(const char* p, const char* end, NET_ADDR* a)
{
    const char* pct = static_cast<const char*>(memchr(p, '%', static_cast<size_t>(end - p)));
    a->type_ = NET_ADDR_TYPE_IPV6;
    if (!parseV6(p, pct ? pct : end, a->ipv6_.addr)) {
        return false;
    }
    return pct == nullptr || (zoneAllowed(a->ipv6_.addr) && parseZone(pct + 1, end, &a->ipv6_.scope_id));
}

bool parsePort(const char* p, const char* end, NET_IP_PORT* port)
{
    uint64_t v;
    if (!parseDecimal(p, end, NET_IP_PORT_MAX, &v)) {
        return false;
    }
    *port = static_cast<NET_IP_PORT>(v);
    return true;
}

/* Parses text into *a, which is the unset address on entry. */
bool parse(NET_ADDR* a, const char* text)
{
    const char* end = text + strlen(text);
    if (text == end) {
        return false;
    }
    if (*text == '[') {
        const char* close = static_cast<const char*>(memchr(text, ']', static_cast<size_t>(end - text)));
        if (close == nullptr || !parseV6Zoned(text + 1, close, a)) {
            return false;
        }
        if (close + 1 == end) {
            return true;
        }
        return close[1] == ':' && parsePort(close + 2, end, &a->port_);
    }
    const char* colon = static_cast<const char*>(memchr(text, ':', static_cast<size_t>(end - text)));
    if (colon == nullptr || memchr(colon + 1, ':', static_cast<size_t>(end - colon - 1)) != nullptr) {
        if (colon == nullptr) {
            a->type_ = NET_ADDR_TYPE_IPV4;
            return parseV4(text, end, reinterpret_cast<uint8_t*>(&a->addr_));
        }
        return parseV6Zoned(text, end, a);
    }
    // One colon: IPv6 text always has at least two, so this is IPv4 and port.
    a->type_ = NET_ADDR_TYPE_IPV4;
    return parseV4(text, colon, reinterpret_cast<uint8_t*>(&a->addr_)) && parsePort(colon + 1, end, &a->port_);
}

/* ---- printing ---- */

inline char* putDecimal(char* p, uint32_t v)
{
    char tmp[10];
    int n = 0;
    do {
        tmp[n++] = static_cast<char>('0' + v % 10);
        v /= 10;
    } while (v != 0);
    while (n > 0) {
        *p++ = tmp[--n];
    }
    return p;
}

char* putV4(char* p, const uint8_t o[4])
{
    for (int i = 0; i < 4; ++i) {
        if (i > 0) {
            *p++ = '.';
        }
        p = putDecimal(p, o[i]);
    }
    return p;
}

char* putHexGroup(char* p, unsigned g)
{
    static const char digits[] = "0123456789abcdef";
    bool started = false;
    for (int shift = 12; shift >= 0; shift -= 4) {
        unsigned d = (g >> shift) & 0xf;
        if (d != 0 || started || shift == 0) {
            *p++ = digits[d];
            started = true;
        }
    }
    return p;
}

bool mapped(const uint8_t a[16])
{
    static const uint8_t prefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
    return memcmp(a, prefix, sizeof prefix) == 0;
}

char* putV6(char* p, const uint8_t a[16])
{
    if (mapped(a)) {
        memcpy(p, "::ffff:", 7);
        return putV4(p + 7, a + 12);
    }
    unsigned g[8];
    for (int i = 0; i < 8; ++i) {
        g[i] = static_cast<unsigned>(a[2 * i] << 8 | a[2 * i + 1]);
    }
    // The longest run of two or more zero groups, the first of equals.
    int best = -1, bestLen = 1;
    for (int i = 0; i < 8;) {
        if (g[i] != 0) {
            ++i;
            continue;
        }
        int j = i;
        while (j < 8 && g[j] == 0) {
            ++j;
        }
        if (j - i > bestLen) {
            best = i;
            bestLen = j - i;
        }
        i = j;
    }
    for (int i = 0; i < 8; ++i) {
        if (i == best) {
            *p++ = ':';
            *p++ = ':';
            i += bestLen - 1;
            continue;
        }
        if (i > 0 && i != best + bestLen) {
            *p++ = ':';
        }
        p = putHexGroup(p, g[i]);
    }
    return p;
}

inline bool isV4(const NET_ADDR* a)
{
    return a->type_ == NET_ADDR_TYPE_IPV4;
}

inline bool isV6(const NET_ADDR* a)
{
    return a->type_ == NET_ADDR_TYPE_IPV6;
}

/* The IPv4 address of a, in host order, directly or inside a mapped IPv6
 * address; false for anything else. */
bool v4Of(const NET_ADDR* a, uint32_t* host)
{
    if (isV4(a)) {
        *host = ntohl(a->addr_);
        return true;
    }
    if (isV6(a) && mapped(a->ipv6_.addr)) {
        uint32_t net;
        memcpy(&net, a->ipv6_.addr + 12, 4);
        *host = ntohl(net);
        return true;
    }
    return false;
}

inline bool inV4(uint32_t host, uint32_t net, int bits)
{
    uint32_t mask = bits == 0 ? 0 : ~uint32_t{0} << (32 - bits);
    return (host & mask) == net;
}

template <typename T>
inline int cmp(T x, T y)
{
    return x < y ? -1 : (x > y ? 1 : 0);
}

inline uint64_t mix(uint64_t h, uint64_t v)
{
    h ^= v + 0x9e3779b97f4a7c15ULL + (h << 6) + (h >> 2);
    return h;
}

inline uint64_t finish(uint64_t z)
{
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    return z ^ (z >> 31);
}

}  // namespace

void NET_ADDR_init(NET_ADDR* a)
{
    assert(a != nullptr);
    memset(a, 0, sizeof *a);
    a->type_ = NET_ADDR_TYPE_UNDEF;
    a->proto_ = NET_PROTO_UNDEF;
    a->flags_ = 0;
    a->port_ = NET_IP_PORT_UNDEF;
}

bool NET_ADDR_fromString(NET_ADDR* a, const char* text)
{
    assert(a != nullptr);
    NET_ADDR_init(a);
    if (text == nullptr || !parse(a, text)) {
        NET_ADDR_init(a);  // a failed parse may have filled part of it
        return false;
    }
    return true;
}

int NET_ADDR_toString(const NET_ADDR* a, char* buf, size_t len)
{
    assert(a != nullptr && (buf != nullptr || len == 0));
    char text[NET_ADDR_STRLEN];
    char* p = text;
    bool port = a->port_ != NET_IP_PORT_UNDEF;
    if (isV4(a)) {
        uint8_t o[4];
        memcpy(o, &a->addr_, 4);
        p = putV4(p, o);
        if (port) {
            *p++ = ':';
            p = putDecimal(p, static_cast<uint32_t>(a->port_));
        }
    } else if (isV6(a)) {
        if (port) {
            *p++ = '[';
        }
        p = putV6(p, a->ipv6_.addr);
        if (a->ipv6_.scope_id != 0) {
            *p++ = '%';
            p = putDecimal(p, a->ipv6_.scope_id);
        }
        if (port) {
            *p++ = ']';
            *p++ = ':';
            p = putDecimal(p, static_cast<uint32_t>(a->port_));
        }
    }
    size_t n = static_cast<size_t>(p - text);
    if (n + 1 > len) {
        if (len > 0) {
            buf[0] = '\0';
        }
        return -1;
    }
    memcpy(buf, text, n);
    buf[n] = '\0';
    return static_cast<int>(n);
}

void NET_ADDR_fromIPv4(NET_ADDR* a, uint32_t hostOrder)
{
    NET_ADDR_init(a);
    a->type_ = NET_ADDR_TYPE_IPV4;
    a->addr_ = htonl(hostOrder);
}

void NET_ADDR_fromIPv6(NET_ADDR* a, const uint8_t octets[16], uint32_t scopeId)
{
    assert(octets != nullptr);
    NET_ADDR_init(a);
    a->type_ = NET_ADDR_TYPE_IPV6;
    memcpy(a->ipv6_.addr, octets, 16);
    a->ipv6_.scope_id = scopeId;
}

bool NET_ADDR_setAny(NET_ADDR* a, NET_ADDR_TYPE type)
{
    static const uint8_t any6[16] = {};
    if (type == NET_ADDR_TYPE_IPV4) {
        NET_ADDR_fromIPv4(a, INADDR_ANY);
    } else if (type == NET_ADDR_TYPE_IPV6) {
        NET_ADDR_fromIPv6(a, any6, 0);
    } else {
        NET_ADDR_init(a);
        return false;
    }
    return true;
}

bool NET_ADDR_setLoopback(NET_ADDR* a, NET_ADDR_TYPE type)
{
    static const uint8_t loop6[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    if (type == NET_ADDR_TYPE_IPV4) {
        NET_ADDR_fromIPv4(a, INADDR_LOOPBACK);
    } else if (type == NET_ADDR_TYPE_IPV6) {
        NET_ADDR_fromIPv6(a, loop6, 0);
    } else {
        NET_ADDR_init(a);
        return false;
    }
    return true;
}

bool NET_ADDR_toSockaddrIn(const NET_ADDR* a, struct sockaddr_in* sin)
{
    assert(a != nullptr && sin != nullptr);
    if (!isV4(a)) {
        return false;
    }
    memset(sin, 0, sizeof *sin);
    sin->sin_family = AF_INET;
    sin->sin_port = htons(static_cast<uint16_t>(a->port_ == NET_IP_PORT_UNDEF ? 0 : a->port_));
    sin->sin_addr.s_addr = a->addr_;
    return true;
}

bool NET_ADDR_toSockaddrIn6(const NET_ADDR* a, struct sockaddr_in6* sin6)
{
    assert(a != nullptr && sin6 != nullptr);
    if (!isV6(a)) {
        return false;
    }
    memset(sin6, 0, sizeof *sin6);
    sin6->sin6_family = AF_INET6;
    sin6->sin6_port = htons(static_cast<uint16_t>(a->port_ == NET_IP_PORT_UNDEF ? 0 : a->port_));
    memcpy(&sin6->sin6_addr, a->ipv6_.addr, 16);
    sin6->sin6_scope_id = a->ipv6_.scope_id;
    return true;
}

bool NET_ADDR_toSockaddr(const NET_ADDR* a, struct sockaddr_storage* ss, socklen_t* sslen)
{
    assert(a != nullptr && ss != nullptr && sslen != nullptr);
    if (isV4(a)) {
        memset(ss, 0, sizeof *ss);
        NET_ADDR_toSockaddrIn(a, reinterpret_cast<struct sockaddr_in*>(ss));
        *sslen = sizeof(struct sockaddr_in);
        return true;
    }
    if (isV6(a)) {
        memset(ss, 0, sizeof *ss);
        NET_ADDR_toSockaddrIn6(a, reinterpret_cast<struct sockaddr_in6*>(ss));
        *sslen = sizeof(struct sockaddr_in6);
        return true;
    }
    return false;
}

void NET_ADDR_fromSockaddrIn(NET_ADDR* a, const struct sockaddr_in* sin)
{
    assert(sin != nullptr);
    NET_ADDR_init(a);
    a->type_ = NET_ADDR_TYPE_IPV4;
    a->addr_ = sin->sin_addr.s_addr;
    uint16_t port = ntohs(sin->sin_port);
    a->port_ = port == 0 ? NET_IP_PORT_UNDEF : port;
}

void NET_ADDR_fromSockaddrIn6(NET_ADDR* a, const struct sockaddr_in6* sin6)
{
    assert(sin6 != nullptr);
    NET_ADDR_fromIPv6(a, sin6->sin6_addr.s6_addr, sin6->sin6_scope_id);
    uint16_t port = ntohs(sin6->sin6_port);
    a->port_ = port == 0 ? NET_IP_PORT_UNDEF : port;
}

bool NET_ADDR_fromSockaddr(NET_ADDR* a, const struct sockaddr* sa, socklen_t salen)
{
    assert(a != nullptr);
    if (sa != nullptr && sa->sa_family == AF_INET && salen >= sizeof(struct sockaddr_in)) {
        struct sockaddr_in sin;
        memcpy(&sin, sa, sizeof sin);
        NET_ADDR_fromSockaddrIn(a, &sin);
        return true;
    }
    if (sa != nullptr && sa->sa_family == AF_INET6 && salen >= sizeof(struct sockaddr_in6)) {
        struct sockaddr_in6 sin6;
        memcpy(&sin6, sa, sizeof sin6);
        NET_ADDR_fromSockaddrIn6(a, &sin6);
        return true;
    }
    NET_ADDR_init(a);
    return false;
}

NET_ADDR_TYPE NET_ADDR_type(const NET_ADDR* a)
{
    assert(a != nullptr);
    return a->type_;
}

NET_IP_PORT NET_ADDR_port(const NET_ADDR* a)
{
    assert(a != nullptr);
    return a->port_;
}

bool NET_ADDR_hasPort(const NET_ADDR* a)
{
    assert(a != nullptr);
    return a->port_ != NET_IP_PORT_UNDEF;
}

bool NET_ADDR_setPort(NET_ADDR* a, NET_IP_PORT port)
{
    assert(a != nullptr);
    if (port != NET_IP_PORT_UNDEF && (port < 0 || port > NET_IP_PORT_MAX)) {
        return false;
    }
    a->port_ = port;
    return true;
}

NET_PROTO NET_ADDR_proto(const NET_ADDR* a)
{
    assert(a != nullptr);
    return a->proto_;
}

bool NET_ADDR_setProto(NET_ADDR* a, NET_PROTO proto)
{
    assert(a != nullptr);
    switch (proto) {
    case NET_PROTO_UNDEF:
    case NET_PROTO_TCP:
    case NET_PROTO_UDP:
    case NET_PROTO_RAW:
        a->proto_ = proto;
        return true;
    default:
        return false;
    }
}

uint32_t NET_ADDR_scopeId(const NET_ADDR* a)
{
    assert(a != nullptr);
    return isV6(a) ? a->ipv6_.scope_id : 0;
}

bool NET_ADDR_isUnset(const NET_ADDR* a)
{
    assert(a != nullptr);
    return !isV4(a) && !isV6(a);
}

bool NET_ADDR_isAny(const NET_ADDR* a)
{
    assert(a != nullptr);
    static const uint8_t zero[16] = {};
    return (isV4(a) && a->addr_ == 0) || (isV6(a) && memcmp(a->ipv6_.addr, zero, 16) == 0);
}

bool NET_ADDR_isLoopback(const NET_ADDR* a)
{
    assert(a != nullptr);
    static const uint8_t loop6[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    uint32_t v4;
    if (v4Of(a, &v4)) {
        return inV4(v4, 0x7f000000u, 8);
    }
    return isV6(a) && memcmp(a->ipv6_.addr, loop6, 16) == 0;
}

bool NET_ADDR_isMulticast(const NET_ADDR* a)
{
    assert(a != nullptr);
    uint32_t v4;
    if (v4Of(a, &v4)) {
        return inV4(v4, 0xe0000000u, 4);
    }
    return isV6(a) && a->ipv6_.addr[0] == 0xff;
}

bool NET_ADDR_isLinkLocal(const NET_ADDR* a)
{
    assert(a != nullptr);
    uint32_t v4;
    if (v4Of(a, &v4)) {
        return inV4(v4, 0xa9fe0000u, 16);
    }
    return isV6(a) && a->ipv6_.addr[0] == 0xfe && (a->ipv6_.addr[1] & 0xc0) == 0x80;
}

bool NET_ADDR_isPrivate(const NET_ADDR* a)
{
    assert(a != nullptr);
    uint32_t v4;
    if (v4Of(a, &v4)) {
        return inV4(v4, 0x0a000000u, 8) || inV4(v4, 0xac100000u, 12) || inV4(v4, 0xc0a80000u, 16);
    }
    return isV6(a) && (a->ipv6_.addr[0] & 0xfe) == 0xfc;
}

bool NET_ADDR_isV4Mapped(const NET_ADDR* a)
{
    assert(a != nullptr);
    return isV6(a) && mapped(a->ipv6_.addr);
}

bool NET_ADDR_unmapV4(NET_ADDR* out, const NET_ADDR* in)
{
    assert(out != nullptr && in != nullptr);
    if (!NET_ADDR_isV4Mapped(in)) {
        return false;
    }
    NET_ADDR r = *in;
    NET_IPV4_ADDR v4;
    memcpy(&v4, in->ipv6_.addr + 12, 4);
    memset(&r.ipv6_, 0, sizeof r.ipv6_);
    r.type_ = NET_ADDR_TYPE_IPV4;
    r.addr_ = v4;
    *out = r;
    return true;
}

bool NET_ADDR_mapV4(NET_ADDR* out, const NET_ADDR* in)
{
    assert(out != nullptr && in != nullptr);
    if (!isV4(in)) {
        return false;
    }
    NET_ADDR r = *in;
    memset(&r.ipv6_, 0, sizeof r.ipv6_);
    r.type_ = NET_ADDR_TYPE_IPV6;
    r.ipv6_.addr[10] = 0xff;
    r.ipv6_.addr[11] = 0xff;
    memcpy(r.ipv6_.addr + 12, &in->addr_, 4);
    *out = r;
    return true;
}

bool NET_ADDR_equalHost(const NET_ADDR* a, const NET_ADDR* b)
{
    assert(a != nullptr && b != nullptr);
    if (a->type_ != b->type_) {
        return false;
    }
    if (isV4(a)) {
        return a->addr_ == b->addr_;
    }
    if (isV6(a)) {
        return a->ipv6_.scope_id == b->ipv6_.scope_id && memcmp(a->ipv6_.addr, b->ipv6_.addr, 16) == 0;
    }
    return true;
}

bool NET_ADDR_equal(const NET_ADDR* a, const NET_ADDR* b)
{
    return NET_ADDR_equalHost(a, b) && a->port_ == b->port_ && a->proto_ == b->proto_ && a->flags_ == b->flags_;
}

int NET_ADDR_compare(const NET_ADDR* a, const NET_ADDR* b)
{
    assert(a != nullptr && b != nullptr);
    // Unknown type values sort with the unset address.
    int ta = isV4(a) ? 1 : (isV6(a) ? 2 : 0);
    int tb = isV4(b) ? 1 : (isV6(b) ? 2 : 0);
    if (int c = cmp(ta, tb)) {
        return c;
    }
    if (ta == 1) {
        if (int c = cmp(ntohl(a->addr_), ntohl(b->addr_))) {
            return c;
        }
    } else if (ta == 2) {
        if (int c = memcmp(a->ipv6_.addr, b->ipv6_.addr, 16)) {
            return c < 0 ? -1 : 1;
        }
        if (int c = cmp(a->ipv6_.scope_id, b->ipv6_.scope_id)) {
            return c;
        }
    } else if (int c = cmp(a->type_, b->type_)) {
        return c;
    }
    if (int c = cmp(a->port_, b->port_)) {
        return c;
    }
    if (int c = cmp(a->proto_, b->proto_)) {
        return c;
    }
    return cmp(a->flags_, b->flags_);
}

size_t NET_ADDR_hash(const NET_ADDR* a)
{
    assert(a != nullptr);
    uint64_t h = static_cast<uint64_t>(static_cast<uint32_t>(a->type_));
    if (isV4(a)) {
        h = mix(h, a->addr_);
    } else if (isV6(a)) {
        uint64_t hi, lo;
        memcpy(&hi, a->ipv6_.addr, 8);
        memcpy(&lo, a->ipv6_.addr + 8, 8);
        h = mix(mix(mix(h, hi), lo), a->ipv6_.scope_id);
    }
    h = mix(h, static_cast<uint64_t>(static_cast<uint32_t>(a->port_)) << 32 |
                   static_cast<uint32_t>(a->proto_));
    h = mix(h, a->flags_);
    return static_cast<size_t>(finish(h));
}
