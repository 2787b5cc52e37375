/**
 * @file
 * Types shared by the whole network layer.
 */
#ifndef KVNET_KVNET_TYPES_H
#define KVNET_KVNET_TYPES_H

#pragma GCC visibility push(default)

/** A socket handle: the system's descriptor. */
typedef int KVNET_SOCK_ID;
#define KVNET_SOCK_ID_UNDEF ((KVNET_SOCK_ID)-1)

/** The family of a socket, as the option code needs it. */
typedef enum KVNET_SOCK_DOMAIN {
    KVNET_SOCK_DOMAIN_LOCAL = 0,
    KVNET_SOCK_DOMAIN_INET = 1,
    KVNET_SOCK_DOMAIN_INET6 = 2
} KVNET_SOCK_DOMAIN;

#pragma GCC visibility pop
#endif
