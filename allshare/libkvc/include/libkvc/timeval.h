/**
 * @file
 * Seconds-and-microseconds time values and log time stamps.
 *
 * A TIMEVAL is normalised when tv_usec is at most 999999. Arithmetic refuses
 * unnormalised operands (it reports on stderr and yields zero) and never
 * produces a negative time: a subtraction that would go below zero gives zero.
 */
#ifndef LIBKVC_TIMEVAL_H
#define LIBKVC_TIMEVAL_H

#include <stdint.h>

#ifdef __cplusplus
#include <string>

#pragma GCC visibility push(default)
extern "C" {
#endif

/** A time or duration in seconds and microseconds; normalised when tv_usec is at most 999999. */
typedef struct TIMEVAL {
    uint32_t tv_sec;
    uint32_t tv_usec;
} TIMEVAL;

/** Stores iSec/iUSec, carrying whole seconds out of iUSec. */
void TimeVal_init(TIMEVAL* pTimeVal, uint32_t iSec, uint32_t iUSec);
/** -1, 0 or 1 comparing seconds, then microseconds. */
int TimeVal_cmp(const TIMEVAL* pTv1, const TIMEVAL* pTv2);
/** pTvResult = pTv1 + pTv2; zero (and a message) for unnormalised operands. */
TIMEVAL* TimeVal_add(const TIMEVAL* pTv1, const TIMEVAL* pTv2, TIMEVAL* pTvResult);
/** pTvResult = pTv1 - pTv2; zero, silently, when pTv1 is earlier than pTv2;
 * otherwise zero (and a message) for unnormalised operands. */
TIMEVAL* TimeVal_sub(const TIMEVAL* pTv1, const TIMEVAL* pTv2, TIMEVAL* pTvResult);
/** Copies *pSrc into *pDst; returns pDst. */
TIMEVAL* TimeVal_copy(const TIMEVAL* pSrc, TIMEVAL* pDst);
/** Milliseconds in 32-bit arithmetic: wraps beyond 4294967 seconds. */
uint32_t TimeVal_toMillis(const TIMEVAL* pTimeVal);
/** Sets *pTimeVal to iMillis milliseconds (normalised); returns pTimeVal. */
TIMEVAL* TimeVal_fromMillis(TIMEVAL* pTimeVal, uint32_t iMillis);

#ifdef __cplusplus
}

///@{
/** The current time as "YYYY-MM-DD HH:MM:SS", in UTC or in local time. */
std::string timestamp_UTC_now();
std::string timestamp_local_now();
///@}
#endif

#pragma GCC visibility pop
#endif
