/**
 * @file
 * The network layer's process-wide services: the port-range registry.
 *
 * Subsystems of one process reserve named ranges of local ports and ask
 * whether a port lies in a reserved range. The registry is a fixed table of
 * KVNET_PORT_RANGE_SLOTS records guarded by the KVOS semaphore
 * "PortRange semaphore". Ranges are never unregistered; they are not checked
 * for order or overlap; the same identifier may be registered more than once
 * and lookups then find the oldest record.
 *
 * Results are 1 for success and 0 for failure; failures write one line on
 * standard error. Some of these lines carry the name of another function of
 * the registry (an empty identifier to lookup reports as
 * "KVNET_portRangeRegister()", a semaphore failure in KVNET_portIsRegistered
 * as "KVNET_portRangeLookup()"); log scanners match these texts, so they stay.
 *
 * KVNET_portRangeInit must run once before any other call (the process's
 * start-up does it); using the registry before that is a programming fault
 * and aborts with "Invalid semaphore".
 */
#ifndef KVNET_KVNET_H
#define KVNET_KVNET_H

#include "kvnet/kvnet_sockopts.h"
#include "kvnet/kvnet_types.h"
#include "kvnet/qosmodes.h"

#pragma GCC visibility push(default)

#define KVNET_PORT_RANGE_SLOTS  32
#define KVNET_PORT_RANGE_ID_LEN 32 /**< with the terminator: 31 characters kept */

/** Creates "PortRange semaphore" with one token and marks every record free
 * (identifiers emptied; the ports are left as they were). Running it again
 * empties the registry and replaces the semaphore; no other registry call may
 * run meanwhile. */
void KVNET_portRangeInit(void);

/** Stores the range low..high under id, cut to 31 characters, in the first
 * free record. 0 with
 *   "KVNET_portRangeRegister(): id required\n" for a null or empty id,
 *   "KVNET_portRangeRegister(): No ranges available\n" when all records are used,
 *   "KVNET_portRangeRegister(): Failed to obtain semaphore\n" when the
 *   semaphore cannot be taken. */
int KVNET_portRangeRegister(const char* id, int low, int high);

/** The ports of the first record whose identifier equals id exactly (an
 * identifier registered longer than 31 characters is found only by its
 * first 31). 1 and *low, *high set; 0 with *low, *high untouched
 * when there is no such record, with "KVNET_portRangeRegister(): id required\n"
 * for a null or empty id, or with "KVNET_portRangeLookup(): Failed to obtain
 * semaphore\n". */
int KVNET_portRangeLookup(const char* id, int* low, int* high);

/** 1 when some record in use has low <= port <= high; 0 otherwise, and 0 with
 * "KVNET_portRangeLookup(): Failed to obtain semaphore\n" when the semaphore
 * cannot be taken. */
int KVNET_portIsRegistered(int port);

#pragma GCC visibility pop
#endif
