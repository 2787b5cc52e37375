/*
 * UTF-8 case mapping over GLib.
 *
 * GLib's mappers take a byte length but finish a multi-byte character that
 * the length cuts, and step over a truncated sequence before looking for the
 * terminator; either can read a few bytes beyond the length. So the input is
 * first copied into a scratch buffer with zero padding wider than the longest
 * UTF-8 sequence, and GLib only ever sees that copy.
 */
#include "libkvc/utf8.h"

#include <glib.h>

#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

constexpr size_t kPadding = 8; // > longest sequence GLib will step over (6)

struct GFree {
    void operator()(gchar* p) const { g_free(p); }
};

void mapInPlace(char* s, int iLen, gchar* (*mapper)(const gchar*, gssize))
{
    if (iLen <= 0) {
        return;
    }
    const size_t len = strnlen(s, static_cast<size_t>(iLen));
    std::unique_ptr<char, decltype(&std::free)> scratch(
        static_cast<char*>(std::calloc(len + kPadding, 1)), &std::free);
    if (!scratch) {
        return;
    }
    std::memcpy(scratch.get(), s, len);
    std::unique_ptr<gchar, GFree> mapped(mapper(scratch.get(), static_cast<gssize>(len)));
    if (!mapped) {
        return;
    }
    const size_t mlen = std::strlen(mapped.get());
    if (mlen > static_cast<size_t>(iLen)) {
        return;
    }
    std::memcpy(s, mapped.get(), mlen);
    if (mlen < static_cast<size_t>(iLen)) {
        s[mlen] = '\0';
    }
}

} // namespace

void kvclib_utf8tolower(char* s, int iLen)
{
    mapInPlace(s, iLen, g_utf8_strdown);
}

void kvclib_utf8toupper(char* s, int iLen)
{
    mapInPlace(s, iLen, g_utf8_strup);
}

int kvclib_utf8strncasecmp(const char* a, const char* b, unsigned int n)
{
    using Buffer = std::unique_ptr<char, decltype(&std::free)>;
    Buffer ca(static_cast<char*>(std::calloc(static_cast<size_t>(n) + 1, 1)), &std::free);
    Buffer cb(static_cast<char*>(std::calloc(static_cast<size_t>(n) + 1, 1)), &std::free);
    if (!ca || !cb) {
        return 0;
    }
    std::memcpy(ca.get(), a, strnlen(a, n));
    std::memcpy(cb.get(), b, strnlen(b, n));
    kvclib_utf8tolower(ca.get(), static_cast<int>(n));
    kvclib_utf8tolower(cb.get(), static_cast<int>(n));
    return std::memcmp(ca.get(), cb.get(), n);
}
