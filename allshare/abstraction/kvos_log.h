/*
 * The log helpers are part of the Linux half (linux/kvos_log.h), below both
 * halves; this name stays for sources that still include it.
 */
#include "linux/kvos_log.h"
