/**
 * @file
 * Monotonic time and directory creation.
 *
 * Clock failures are programming faults: they end the process through the
 * assertion "retval == 0".
 */
#ifndef ABSTRACTION_KVMISC_H
#define ABSTRACTION_KVMISC_H

#include <stdint.h>

#include "libkvc/timeval.h"

#pragma GCC visibility push(default)

/** The monotonic clock as seconds and microseconds; returns tv. */
TIMEVAL* KVMISC_now(TIMEVAL* tv);
/** The monotonic clock in microseconds. */
uint64_t KVMISC_now64(void);

/** Creates every missing directory of `path`, shortest prefix first, with mode
 * 0777 less the umask. 0 on success, -1 when a directory could not be created
 * (errno tells why; "Unable to create directory" is logged). */
int mkdirp(const char* path);

#pragma GCC visibility pop
#endif
