/*
 * Bounded string helpers. Lengths are always taken with strnlen against the
 * bound the caller gave, so an unterminated buffer is never read past it.
 */
#include "libkvc/strutil.h"

#include <cassert>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

char* kvclib_strcpy(char* pDstBuf, const char* pSrcBuf, int iDstSize)
{
    assert(pDstBuf != NULL);
    assert(pSrcBuf != NULL);
    assert(iDstSize > 0);
    size_t n = strnlen(pSrcBuf, static_cast<size_t>(iDstSize) - 1);
    std::memcpy(pDstBuf, pSrcBuf, n);
    pDstBuf[n] = '\0';
    return pDstBuf;
}

char* kvclib_strncpy(char* pDstBuf, int iDstSize, const char* pSrcBuf, int iSrcLen)
{
    assert(iSrcLen >= 0);
    int size = iSrcLen < iDstSize ? iSrcLen + 1 : iDstSize;
    return kvclib_strcpy(pDstBuf, pSrcBuf, size);
}

char* kvclib_strncat(char* s, const char* p1, unsigned int iDstSize)
{
    if (iDstSize == 0) {
        return s;
    }
    const size_t room = iDstSize - 1;
    size_t len = strnlen(s, iDstSize);
    if (len >= room) {
        s[room] = '\0';
        return s;
    }
    size_t add = strnlen(p1, room - len);
    std::memcpy(s + len, p1, add);
    s[len + add] = '\0';
    return s;
}

namespace {

// Cheap first-byte test before the full comparison: most table entries
// differ in their first letter.
bool firstCharsMatch(const char* a, const char* b)
{
    return std::tolower(static_cast<unsigned char>(*a)) == std::tolower(static_cast<unsigned char>(*b));
}

} // namespace

int kvclib_strToId(const char* const* pszStrings, const char* szStr)
{
    assert(szStr != NULL);
    assert(pszStrings != NULL);
    for (int i = 0; pszStrings[i]; ++i) {
        if (firstCharsMatch(pszStrings[i], szStr) && strcasecmp(pszStrings[i], szStr) == 0) {
            return i;
        }
    }
    return -1;
}

int kvclib_strToIdLen(const char* const* pszStrings, const char* szStr, unsigned int iLen)
{
    assert(szStr != NULL);
    assert(pszStrings != NULL);
    if (iLen == 0) {
        return -1;
    }
    for (int i = 0; pszStrings[i]; ++i) {
        const char* entry = pszStrings[i];
        if (firstCharsMatch(entry, szStr) && strnlen(entry, iLen + 1) == iLen &&
            strncasecmp(entry, szStr, iLen) == 0) {
            return i;
        }
    }
    return -1;
}

uint32_t kvclib_strToUInt(const char* szStr, unsigned int iLen)
{
    uint32_t value = 0;
    for (unsigned int i = 0; i < iLen && szStr[i] >= '0' && szStr[i] <= '9'; ++i) {
        value = value * 10u + static_cast<uint32_t>(szStr[i] - '0');
    }
    return value;
}

char* kvclib_hexToString(char* szDst, unsigned int iDstSize, const void* pSrc, unsigned int iSrcLen)
{
    assert(iDstSize >= 1);
    static const char digits[] = "0123456789ABCDEF";
    const auto* src = static_cast<const unsigned char*>(pSrc);
    unsigned int n = (iDstSize - 1) / 2;
    if (iSrcLen < n) {
        n = iSrcLen;
    }
    for (unsigned int i = 0; i < n; ++i) {
        szDst[2 * i] = digits[src[i] >> 4];
        szDst[2 * i + 1] = digits[src[i] & 0x0F];
    }
    szDst[2 * n] = '\0';
    return szDst;
}

namespace {

bool parseWhole(const char* str, long long* value)
{
    assert(str != NULL);
    char* end = nullptr;
    errno = 0;
    long long v = std::strtoll(str, &end, 10);
    if (*end != '\0') {
        return false;
    }
    *value = v;
    return true;
}

} // namespace

int cstring_StringToLong(const char* str, int64_t* pResult)
{
    long long v;
    if (!parseWhole(str, &v)) {
        return -1;
    }
    *pResult = static_cast<int64_t>(v);
    return 0;
}

int cstring_StringToULong(const char* str, uint64_t* pResult)
{
    long long v;
    if (!parseWhole(str, &v)) {
        return -1;
    }
    *pResult = static_cast<uint64_t>(v);
    return 0;
}
