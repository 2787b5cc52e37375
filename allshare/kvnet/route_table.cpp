/*
 * Parsers of the kernel's routing tables in text form, and the default
 * gateway chosen from them.
 *
 * Row formats (fields separated by blanks or tabs, one row per line):
 *
 *   IPv4, after a heading line starting "Iface":
 *     Iface Destination Gateway Flags RefCnt Use Metric Mask MTU Window IRTT
 *     eth0  0002000A    0102000A 0003 0      0   100    00FFFFFF 0 0 0
 *   The addresses and the mask are the 32-bit values of the network-order
 *   addresses, printed as 8 hexadecimal digits (so their bytes in memory are
 *   the address in network order whatever the host's byte order); flags are
 *   hexadecimal, the metric decimal.
 *
 *   IPv6, no heading:
 *     dest(32 hex) dest_len(2 hex) src(32) src_len(2) next_hop(32)
 *     metric(8 hex) refcnt(8) use(8) flags(8) name
 *
 * The parsers take text that may be truncated or hostile (they are fuzzed):
 * every field is checked for its exact form, a row that fails any check is
 * skipped, and nothing is read beyond `len`.
 */
#include <errno.h>
#include <string.h>

#include <string>
#include <new>
#include <string_view>
#include <vector>

#include "kvnet/kvnet_route.h"
#include "linux/kvnet_os.h"

namespace {

using std::string_view;

/* The blank-separated fields of one line. */
std::vector<string_view> fieldsOf(string_view line)
{
    std::vector<string_view> fields;
    size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) {
            ++i;
        }
        size_t start = i;
        while (i < line.size() && line[i] != ' ' && line[i] != '\t') {
            ++i;
        }
        if (i > start) {
            fields.push_back(line.substr(start, i - start));
        }
    }
    return fields;
}

int hexDigit(char c)
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

/* 1 to 8 hexadecimal digits (exactly `digits` when it is not 0). */
bool parseHex32(string_view s, size_t digits, uint32_t* out)
{
    if (s.empty() || s.size() > 8 || (digits != 0 && s.size() != digits)) {
        return false;
    }
    uint32_t v = 0;
    for (char c : s) {
        int d = hexDigit(c);
        if (d < 0) {
            return false;
        }
        v = (v << 4) | static_cast<uint32_t>(d);
    }
    *out = v;
    return true;
}

/* A decimal number that fits in 32 bits; the IPv4 table prints the metric
 * with %d, so a leading minus would be a value above INT32_MAX: refused. */
bool parseDec32(string_view s, uint32_t* out)
{
    if (s.empty() || s.size() > 10) {
        return false;
    }
    uint64_t v = 0;
    for (char c : s) {
        if (c < '0' || c > '9') {
            return false;
        }
        v = v * 10 + static_cast<uint64_t>(c - '0');
    }
    if (v > UINT32_MAX) {
        return false;
    }
    *out = static_cast<uint32_t>(v);
    return true;
}

/* 32 hexadecimal digits: the 16 octets in network order. */
bool parseHex128(string_view s, uint8_t out[16])
{
    if (s.size() != 32) {
        return false;
    }
    for (size_t i = 0; i < 16; ++i) {
        int hi = hexDigit(s[2 * i]), lo = hexDigit(s[2 * i + 1]);
        if (hi < 0 || lo < 0) {
            return false;
        }
        out[i] = static_cast<uint8_t>(hi << 4 | lo);
    }
    return true;
}

/* An interface name as the kernel allows it: 1 to 15 printable characters,
 * no '/' (a NUL or a control byte means the text is not a routing table). */
bool copyName(string_view s, char out[KVNET_IFNAMSIZ])
{
    if (s.empty() || s.size() >= KVNET_IFNAMSIZ) {
        return false;
    }
    for (char c : s) {
        if (static_cast<unsigned char>(c) <= ' ' || c == 0x7f || c == '/') {
            return false;
        }
    }
    memcpy(out, s.data(), s.size());
    out[s.size()] = '\0';
    return true;
}

/* The prefix length of a contiguous IPv4 mask (host order), or -1. */
int prefixOfMask(uint32_t mask)
{
    uint32_t inverted = ~mask;
    if ((inverted & (inverted + 1)) != 0) {
        return -1;
    }
    int bits = 0;
    for (; mask != 0; mask <<= 1) {
        ++bits;
    }
    return bits;
}

void setIPv4(NET_ADDR* a, uint32_t networkOrder)
{
    NET_ADDR_init(a);
    a->type_ = NET_ADDR_TYPE_IPV4;
    a->addr_ = networkOrder;
}

bool parseRow4(const std::vector<string_view>& f, KVNET_ROUTE* r)
{
    uint32_t dest, gateway, flags, refcnt, use, metric, mask;
    if (f.size() != 11 || !copyName(f[0], r->ifName) || !parseHex32(f[1], 8, &dest) ||
        !parseHex32(f[2], 8, &gateway) || !parseHex32(f[3], 0, &flags) || !parseDec32(f[4], &refcnt) ||
        !parseDec32(f[5], &use) || !parseDec32(f[6], &metric) || !parseHex32(f[7], 8, &mask)) {
        return false;
    }
    for (size_t i = 8; i < 11; ++i) {
        uint32_t ignored;
        if (!parseDec32(f[i], &ignored)) {
            return false;
        }
    }
    // The values are network-order words printed as numbers: their bytes,
    // not their numeric values, are the address.
    uint8_t maskBytes[4];
    memcpy(maskBytes, &mask, 4);
    uint32_t hostMask = static_cast<uint32_t>(maskBytes[0]) << 24 | static_cast<uint32_t>(maskBytes[1]) << 16 |
                        static_cast<uint32_t>(maskBytes[2]) << 8 | maskBytes[3];
    int prefix = prefixOfMask(hostMask);
    if (prefix < 0) {
        return false;
    }
    setIPv4(&r->dest, dest);
    r->prefixLen = prefix;
    if (flags & KVNET_ROUTE_GATEWAY) {
        setIPv4(&r->gateway, gateway);
    } else {
        NET_ADDR_init(&r->gateway);
    }
    r->flags = flags;
    r->metric = metric;
    return true;
}

bool parseRow6(const std::vector<string_view>& f, KVNET_ROUTE* r)
{
    uint8_t dest[16], src[16], next[16];
    uint32_t destLen, srcLen, metric, refcnt, use, flags;
    if (f.size() != 10 || !parseHex128(f[0], dest) || !parseHex32(f[1], 2, &destLen) || destLen > 128 ||
        !parseHex128(f[2], src) || !parseHex32(f[3], 2, &srcLen) || srcLen > 128 || !parseHex128(f[4], next) ||
        !parseHex32(f[5], 8, &metric) || !parseHex32(f[6], 8, &refcnt) || !parseHex32(f[7], 8, &use) ||
        !parseHex32(f[8], 8, &flags) || !copyName(f[9], r->ifName)) {
        return false;
    }
    NET_ADDR_fromIPv6(&r->dest, dest, 0);
    r->prefixLen = static_cast<int>(destLen);
    if (flags & KVNET_ROUTE_GATEWAY) {
        NET_ADDR_fromIPv6(&r->gateway, next, 0);
    } else {
        NET_ADDR_init(&r->gateway);
    }
    r->flags = flags;
    r->metric = metric;
    return true;
}

}  // namespace

KV_RET KVNET_parseRoutes(NET_ADDR_TYPE family, const char* text, size_t len, KVNET_ROUTE* out, size_t max)
{
    if ((family != NET_ADDR_TYPE_IPV4 && family != NET_ADDR_TYPE_IPV6) || (text == nullptr && len != 0) ||
        (out == nullptr && max != 0)) {
        errno = EINVAL;
        return KV_RET_ERROR;
    }
    string_view all(text == nullptr ? "" : text, len);
    size_t rows = 0;
    size_t at = 0;
    while (at < all.size()) {
        size_t end = all.find('\n', at);
        if (end == string_view::npos) {
            break; // an unterminated last line is a cut-off row
        }
        std::vector<string_view> fields = fieldsOf(all.substr(at, end - at));
        at = end + 1;
        KVNET_ROUTE row;
        memset(&row, 0, sizeof(row));
        bool ok = family == NET_ADDR_TYPE_IPV4 ? parseRow4(fields, &row) : parseRow6(fields, &row);
        if (!ok) {
            continue;
        }
        if (rows < max) {
            out[rows] = row;
        }
        if (rows < static_cast<size_t>(INT32_MAX)) {
            ++rows;
        }
    }
    return static_cast<KV_RET>(rows);
}

KV_RET KVNET_readRoutes(NET_ADDR_TYPE family, KVNET_ROUTE* out, size_t max)
{
    if ((family != NET_ADDR_TYPE_IPV4 && family != NET_ADDR_TYPE_IPV6) || (out == nullptr && max != 0)) {
        errno = EINVAL;
        return KV_RET_ERROR;
    }
    std::string text;
    try {
        if (!kvnet_os::readRouteTable(family, &text)) {
            return KV_RET_ERROR;
        }
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return KV_RET_ERROR;
    }
    return KVNET_parseRoutes(family, text.data(), text.size(), out, max);
}

KV_RET KVNET_getDefaultGateway(NET_ADDR_TYPE family, NET_ADDR* gateway, int* ifIndex)
{
    if (gateway == nullptr) {
        errno = EINVAL;
        return KV_RET_ERROR;
    }
    std::vector<KVNET_ROUTE> routes(64);
    KV_RET n;
    // A table that grew between the two reads is simply read again.
    while ((n = KVNET_readRoutes(family, routes.data(), routes.size())) > static_cast<KV_RET>(routes.size())) {
        routes.resize(static_cast<size_t>(n) * 2);
    }
    if (!KV_RET_IS_OK(n)) {
        return n;
    }
    const KVNET_ROUTE* best = nullptr;
    for (KV_RET i = 0; i < n; ++i) {
        const KVNET_ROUTE& r = routes[static_cast<size_t>(i)];
        if ((r.flags & (KVNET_ROUTE_UP | KVNET_ROUTE_GATEWAY | KVNET_ROUTE_REJECT)) !=
                (KVNET_ROUTE_UP | KVNET_ROUTE_GATEWAY) ||
            r.prefixLen != 0) {
            continue;
        }
        if (best == nullptr || r.metric < best->metric) {
            best = &r;
        }
    }
    if (best == nullptr) {
        errno = ENOENT;
        return KV_RET_ERROR;
    }
    int index = KVNET_ifIndex(best->ifName);
    *gateway = best->gateway;
    // A link-local next hop means nothing without its interface.
    if (NET_ADDR_type(gateway) == NET_ADDR_TYPE_IPV6 && NET_ADDR_isLinkLocal(gateway)) {
        gateway->ipv6_.scope_id = static_cast<uint32_t>(index);
    }
    if (ifIndex != nullptr) {
        *ifIndex = index;
    }
    return KV_RET_OK;
}
