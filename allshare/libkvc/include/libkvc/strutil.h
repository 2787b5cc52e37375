/**
 * @file
 * Bounded string helpers.
 *
 * Every copy and concatenation stays inside the destination size it is given
 * and always terminates. Conversions never read past the length they are
 * given. Null pointers and non-positive destination sizes are programming
 * faults and fail a C assertion.
 */
#ifndef LIBKVC_STRUTIL_H
#define LIBKVC_STRUTIL_H

#include <stdint.h>

#pragma GCC visibility push(default)

#ifdef __cplusplus
extern "C" {
#endif

/** Copies at most iDstSize - 1 bytes of pSrcBuf and terminates. Returns pDstBuf. */
char* kvclib_strcpy(char* pDstBuf, const char* pSrcBuf, int iDstSize);

/** As kvclib_strcpy, but copies at most iSrcLen bytes of pSrcBuf. A negative
 * iSrcLen is a programming fault (C assertion "iSrcLen >= 0"). */
char* kvclib_strncpy(char* pDstBuf, int iDstSize, const char* pSrcBuf, int iSrcLen);

/** Appends p1 to s so that the result fits in iDstSize bytes with its
 * terminator. When s already holds iDstSize - 1 bytes or more it is cut to
 * iDstSize - 1 and nothing is appended. A size of 0 leaves s untouched.
 * Returns s. */
char* kvclib_strncat(char* s, const char* p1, unsigned int iDstSize);

/** Index of the first entry of the null-terminated table pszStrings equal to
 * szStr ignoring ASCII case; -1 when there is none. */
int kvclib_strToId(const char* const* pszStrings, const char* szStr);

/** Index of the first entry whose length is exactly iLen and that equals the
 * first iLen bytes of szStr ignoring ASCII case; -1 when none or iLen is 0. */
int kvclib_strToIdLen(const char* const* pszStrings, const char* szStr, unsigned int iLen);

/** Value of the leading decimal digits among the first iLen bytes; 0 when
 * there are none. Wraps modulo 2^32 rather than checking for overflow. */
uint32_t kvclib_strToUInt(const char* szStr, unsigned int iLen);

/** Writes min((iDstSize - 1) / 2, iSrcLen) bytes of pSrc as upper-case hex
 * digit pairs and terminates. iDstSize must be at least 1. Returns szDst. */
char* kvclib_hexToString(char* szDst, unsigned int iDstSize, const void* pSrc, unsigned int iSrcLen);

/** Base-10 conversion with the C library's strtoll (leading blanks and a sign
 * allowed). Returns 0 and stores the value when the whole string was
 * consumed (so "" gives 0), else -1 with *pResult untouched. */
int cstring_StringToLong(const char* str, int64_t* pResult);

/** The same rule and the same signed conversion, so "-1" is accepted and
 * stored as its two's-complement value. */
int cstring_StringToULong(const char* str, uint64_t* pResult);

#ifdef __cplusplus
}
#endif

#pragma GCC visibility pop
#endif
