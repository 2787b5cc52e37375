// The netlink reply handling over arbitrary bytes, as if received from the
// kernel: the first byte picks the parser (route lookup for IPv4 or IPv6, or
// an address dump), the rest is the datagram, copied into an aligned buffer
// of exactly its size as a receive buffer would be. The parsers must never
// read outside it, and what they report must be consistent.
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <libmnl/libmnl.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "linux/nl_reply.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0) {
        return 0;
    }
    uint8_t which = data[0] % 3;
    size_t len = size - 1;
    // operator new aligns for any fundamental type; the exact size keeps
    // ASan's bounds at the datagram's end.
    std::unique_ptr<uint8_t[]> buf(new uint8_t[len == 0 ? 1 : len]);
    memcpy(buf.get(), data + 1, len);
    if (which < 2) {
        int family = which == 0 ? AF_INET : AF_INET6;
        kvnet_nl::RouteAnswer answer;
        int rc = kvnet_nl::parseRouteReply(buf.get(), len, 0, 0, family, &answer);
        if (rc != MNL_CB_ERROR && answer.found && answer.family != family) {
            abort();
        }
        if (!answer.found && (answer.hasSource || answer.oif != 0)) {
            abort();
        }
    } else {
        NET_ADDR_TAB tab;
        NET_ADDR_TAB_init(&tab, 4);
        kvnet_nl::AddressCollector c;
        c.ifIndex = 2;
        c.family = AF_UNSPEC;
        c.tab = &tab;
        kvnet_nl::parseAddressReply(buf.get(), len, 0, 0, &c);
        if (static_cast<size_t>(c.added) != NET_ADDR_TAB_count(&tab) || NET_ADDR_TAB_count(&tab) > 4) {
            abort();
        }
        for (size_t i = 0; i < NET_ADDR_TAB_count(&tab); ++i) {
            const NET_ADDR* a = NET_ADDR_TAB_get(&tab, i);
            if (NET_ADDR_isLinkLocal(a) && NET_ADDR_type(a) == NET_ADDR_TYPE_IPV6 && NET_ADDR_scopeId(a) != 2) {
                abort();
            }
        }
        NET_ADDR_TAB_destroy(&tab);
    }
    return 0;
}
