// The routing-table text parsers over arbitrary bytes: the first byte picks
// the family and how many rows may be stored, the rest is the table, in a
// buffer of exactly its size (ASan catches any read past it). Every stored
// row must satisfy the row contract.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "kvnet/kvnet_route.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0) {
        return 0;
    }
    NET_ADDR_TYPE family = (data[0] & 1) ? NET_ADDR_TYPE_IPV6 : NET_ADDR_TYPE_IPV4;
    size_t max = (data[0] >> 1) & 15;
    std::vector<char> text(data + 1, data + size);
    std::vector<KVNET_ROUTE> rows(max + 1);
    KV_RET n = KVNET_parseRoutes(family, text.data(), text.size(), rows.data(), max);
    if (n < 0) {
        abort(); // only bad arguments fail, and these are good
    }
    // Never more rows than lines.
    size_t lines = 0;
    for (char c : text) {
        lines += c == '\n';
    }
    if (static_cast<size_t>(n) > lines) {
        abort();
    }
    for (size_t i = 0; i < static_cast<size_t>(n) && i < max; ++i) {
        const KVNET_ROUTE& r = rows[i];
        int bits = family == NET_ADDR_TYPE_IPV4 ? 32 : 128;
        if (NET_ADDR_type(&r.dest) != family || r.prefixLen < 0 || r.prefixLen > bits ||
            memchr(r.ifName, '\0', sizeof(r.ifName)) == nullptr || r.ifName[0] == '\0') {
            abort();
        }
        bool gateway = (r.flags & KVNET_ROUTE_GATEWAY) != 0;
        if (gateway == NET_ADDR_isUnset(&r.gateway)) {
            abort();
        }
    }
    return 0;
}
