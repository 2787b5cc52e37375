/* Interface names and addresses through if_nametoindex and getifaddrs. */
#include "linux/netif.h"

#include <ifaddrs.h>
#include <net/if.h>

namespace kvc_os {

unsigned interfaceIndex(const char* name)
{
    return if_nametoindex(name);
}

bool forEachInterfaceAddress(bool (*fn)(const struct sockaddr* sa, void* ctx), void* ctx)
{
    struct ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) {
        return false;
    }
    for (const struct ifaddrs* it = list; it != nullptr; it = it->ifa_next) {
        if (it->ifa_addr != nullptr && !fn(it->ifa_addr, ctx)) {
            break;
        }
    }
    freeifaddrs(list);
    return true;
}

}  // namespace kvc_os
