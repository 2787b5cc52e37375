/*
 * What the library leaves to the product that carries it. The product
 * installs its parts from a static initialiser; the library never names the
 * product, so it links and runs without one. Not part of the installed
 * interface, and not exported from the shared library.
 */
#ifndef ABSTRACTION_KVOS_PRODUCT_H
#define ABSTRACTION_KVOS_PRODUCT_H

#include "abstraction/kvos.h"

/* Builds the product's built-in path map (once; the map is never released). */
typedef _kv_path_map* (*KVOS_PATH_MAP_FUNC)(void);

/* Makes `provider` the source of kvos_default_path_map, and so of the map
 * KVOS_init installs when none has been installed. A later call replaces
 * the earlier; null removes it, and then KVOS_init leaves the map empty.
 * Safe from a static initialiser in any order. */
void kvos_set_default_path_map_provider(KVOS_PATH_MAP_FUNC provider);

#endif
