/*
 * Address tables: a growable array of NET_ADDR in insertion order.
 *
 * The storage is a plain malloc'ed array so that the record stays a C record
 * and a failed allocation is a result (KV_RET_ERROR), not an exception.
 * Growth doubles, starting at eight entries, and never goes past the limit.
 */
#include "libkvc/netaddr.h"

#include <assert.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "linux/netif.h"

namespace {

/* Makes room for one more entry. */
bool reserveOne(NET_ADDR_TAB* tab)
{
    if (tab->count_ < tab->allocated_) {
        return true;
    }
    size_t want = tab->allocated_ == 0 ? 8 : tab->allocated_ * 2;
    if (tab->limit_ != 0 && want > tab->limit_) {
        want = tab->limit_;
    }
    if (want > SIZE_MAX / sizeof(NET_ADDR)) {
        return false;
    }
    void* grown = realloc(tab->entries_, want * sizeof(NET_ADDR));
    if (grown == nullptr) {
        return false;
    }
    tab->entries_ = static_cast<NET_ADDR*>(grown);
    tab->allocated_ = want;
    return true;
}

struct FillContext {
    NET_ADDR_TAB* tab;
    NET_ADDR_TYPE family;
    KV_RET result;  // entries added, or the failure that stopped the walk
};

bool addInterfaceAddress(const struct sockaddr* sa, void* ctx)
{
    auto* fill = static_cast<FillContext*>(ctx);
    bool wanted = (sa->sa_family == AF_INET && fill->family != NET_ADDR_TYPE_IPV6) ||
                  (sa->sa_family == AF_INET6 && fill->family != NET_ADDR_TYPE_IPV4);
    if (!wanted) {
        return true;
    }
    NET_ADDR a;
    socklen_t len = sa->sa_family == AF_INET ? sizeof(struct sockaddr_in) : sizeof(struct sockaddr_in6);
    if (!NET_ADDR_fromSockaddr(&a, sa, len)) {
        return true;
    }
    a.port_ = NET_IP_PORT_UNDEF;
    KV_RET r = NET_ADDR_TAB_add(fill->tab, &a);
    if (r == KV_RET_OK) {
        ++fill->result;
        return true;
    }
    if (r == NET_ADDR_TAB_DUPLICATE) {
        return true;
    }
    fill->result = r;
    return false;
}

}  // namespace

void NET_ADDR_TAB_init(NET_ADDR_TAB* tab, size_t limit)
{
    assert(tab != nullptr);
    tab->entries_ = nullptr;
    tab->count_ = 0;
    tab->allocated_ = 0;
    tab->limit_ = limit;
}

void NET_ADDR_TAB_destroy(NET_ADDR_TAB* tab)
{
    assert(tab != nullptr);
    free(tab->entries_);
    tab->entries_ = nullptr;
    tab->count_ = 0;
    tab->allocated_ = 0;
}

KV_RET NET_ADDR_TAB_add(NET_ADDR_TAB* tab, const NET_ADDR* a)
{
    assert(tab != nullptr && a != nullptr);
    if (NET_ADDR_isUnset(a)) {
        return KV_RET_ERROR;
    }
    if (NET_ADDR_TAB_find(tab, a) >= 0) {
        return NET_ADDR_TAB_DUPLICATE;
    }
    if (tab->limit_ != 0 && tab->count_ >= tab->limit_) {
        return NET_ADDR_TAB_FULL;
    }
    if (!reserveOne(tab)) {
        return KV_RET_ERROR;
    }
    tab->entries_[tab->count_++] = *a;
    return KV_RET_OK;
}

KV_RET NET_ADDR_TAB_remove(NET_ADDR_TAB* tab, const NET_ADDR* a)
{
    int i = NET_ADDR_TAB_find(tab, a);
    if (i < 0) {
        return KV_RET_ERROR;
    }
    size_t at = static_cast<size_t>(i);
    memmove(tab->entries_ + at, tab->entries_ + at + 1, (tab->count_ - at - 1) * sizeof(NET_ADDR));
    --tab->count_;
    return KV_RET_OK;
}

int NET_ADDR_TAB_find(const NET_ADDR_TAB* tab, const NET_ADDR* a)
{
    assert(tab != nullptr && a != nullptr);
    for (size_t i = 0; i < tab->count_; ++i) {
        if (NET_ADDR_equal(&tab->entries_[i], a)) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

bool NET_ADDR_TAB_contains(const NET_ADDR_TAB* tab, const NET_ADDR* a)
{
    return NET_ADDR_TAB_find(tab, a) >= 0;
}

bool NET_ADDR_TAB_containsHost(const NET_ADDR_TAB* tab, const NET_ADDR* a)
{
    assert(tab != nullptr && a != nullptr);
    for (size_t i = 0; i < tab->count_; ++i) {
        if (NET_ADDR_equalHost(&tab->entries_[i], a)) {
            return true;
        }
    }
    return false;
}

size_t NET_ADDR_TAB_count(const NET_ADDR_TAB* tab)
{
    assert(tab != nullptr);
    return tab->count_;
}

const NET_ADDR* NET_ADDR_TAB_get(const NET_ADDR_TAB* tab, size_t i)
{
    assert(tab != nullptr);
    return i < tab->count_ ? &tab->entries_[i] : nullptr;
}

void NET_ADDR_TAB_clear(NET_ADDR_TAB* tab)
{
    assert(tab != nullptr);
    tab->count_ = 0;
}

void NET_ADDR_TAB_sort(NET_ADDR_TAB* tab)
{
    assert(tab != nullptr);
    if (tab->count_ < 2) {
        return;
    }
    // Entries are distinct, so a stable sort is not needed for determinism.
    std::sort(tab->entries_, tab->entries_ + tab->count_,
              [](const NET_ADDR& x, const NET_ADDR& y) { return NET_ADDR_compare(&x, &y) < 0; });
}

KV_RET NET_ADDR_TAB_fillFromInterfaces(NET_ADDR_TAB* tab, NET_ADDR_TYPE family)
{
    assert(tab != nullptr);
    if (family != NET_ADDR_TYPE_UNDEF && family != NET_ADDR_TYPE_IPV4 && family != NET_ADDR_TYPE_IPV6) {
        return KV_RET_ERROR;
    }
    FillContext fill{tab, family, 0};
    if (!kvc_os::forEachInterfaceAddress(addInterfaceAddress, &fill)) {
        return KV_RET_ERROR;
    }
    return fill.result;
}
