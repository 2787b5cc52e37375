/*
 * Entry points of the portable half of KVOS that are not part of its public
 * interface. The Linux half must not use them (its own entry points are in
 * linux/kvos_os.h).
 */
#ifndef ABSTRACTION_KVOS_INTERNAL_H
#define ABSTRACTION_KVOS_INTERNAL_H

#include "abstraction/kvmisc.h"
#include "abstraction/kvos_ptrq.h"

/* Creates "KVOSmutex" (once). */
void kvos_common_init(void);

/* Pointer-queue registry: the first free slot gets q (nothing when all 100
 * are taken); release clears q's slot if it has one. */
void kvos_ptrq_register(ptrqueue_t* q);
void kvos_ptrq_unregister(ptrqueue_t* q);


#endif
