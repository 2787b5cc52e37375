/**
 * @file
 * Result codes shared by the whole platform library.
 *
 * Newer operations return a KV_RET: zero or positive is success, negative is
 * a failure. Callers test with KV_RET_IS_OK rather than comparing against
 * KV_RET_OK, so that an operation may later return a positive count without
 * breaking them. Older operations return 1/0 instead; their headers say so.
 */
#ifndef LIBKVC_KVTYPES_H
#define LIBKVC_KVTYPES_H

#include <stdint.h>

#pragma GCC visibility push(default)

/** Result of the newer operations: zero or positive for success, negative for failure. */
typedef int32_t KV_RET;

/** Success. */
#define KV_RET_OK      ((KV_RET)0)
#define KV_RET_ERROR   ((KV_RET)-1) /**< general failure */
#define KV_RET_TIMEOUT ((KV_RET)-2) /**< a wait ran out, or a try found nothing */

/** True for every success result; test results with it, not by comparing with KV_RET_OK. */
#define KV_RET_IS_OK(r) ((r) >= 0)

#pragma GCC visibility pop
#endif
