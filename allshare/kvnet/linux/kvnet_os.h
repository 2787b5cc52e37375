/*
 * What the portable half of the network layer asks of the Linux half and
 * that is not part of the interface: reading the kernel's text tables. The
 * portable half parses them; the Linux half only reads.
 */
#ifndef KVNET_LINUX_KVNET_OS_H
#define KVNET_LINUX_KVNET_OS_H

#include <string>

#include "libkvc/netaddr.h"

namespace kvnet_os {

/* Appends the whole routing table of `family` (IPV4 or IPV6) as the kernel
 * prints it, for the calling thread's namespace where the kernel tells it
 * apart. False with errno set when it cannot be read; std::bad_alloc may
 * escape. */
bool readRouteTable(NET_ADDR_TYPE family, std::string* text);

} // namespace kvnet_os

#endif
