/*
 * Entry points of the portable half of KVOS that are not part of its public
 * interface. The Linux half must not use them (its own entry points are in
 * linux/kvos_os.h).
 */
#ifndef ABSTRACTION_KVOS_INTERNAL_H
#define ABSTRACTION_KVOS_INTERNAL_H

#include "abstraction/kvmisc.h"

/* Creates "KVOSmutex" (once). */
void kvos_common_init(void);

#endif
