/*
 * The host's interfaces, as the address operations need them: the index of
 * an interface name (IPv6 zones) and the addresses configured on all
 * interfaces (address tables). The Linux half of libkvc's network code.
 */
#ifndef LIBKVC_LINUX_NETIF_H
#define LIBKVC_LINUX_NETIF_H

#include <sys/socket.h>

namespace kvc_os {

/* The index of the interface called name; 0 when there is none. */
unsigned interfaceIndex(const char* name);

/* Calls fn once for every address configured on an interface (of any family;
 * sa is never null). False when the list cannot be read. fn answers false to
 * stop early. */
bool forEachInterfaceAddress(bool (*fn)(const struct sockaddr* sa, void* ctx), void* ctx);

}  // namespace kvc_os

#endif
